// The current application's verify list, as the manager asks and edits it.
#include "internal/manager_fixture.h"

namespace {

using namespace vttest;
using vtflt::BM_ERR_VERIFY_REQUIRED;

constexpr wchar_t VERIFY_VALUE[] = L"DeviceListForReSyncapp1.Last";
constexpr wchar_t VERIFY_MUTEX[] = L"VTBitmapManager.DeviceListForReSyncapp1.Last.Mutex";
const std::wstring FOUND = L"CMultiBitmapManager::IsVerifyRequired::Found the volume for verify backup";
const std::wstring DELETED =
    L"CMultiBitmapManager::resetVerifyVolume::Need to delete this volume from verify volume list";

class ManagerVerifyList : public ListedManagerTest {
protected:
    ManagerVerifyList() { Init(); }

    void ExpectLoggedTimes(const std::wstring& text, int level, std::size_t times) const
    {
        std::size_t count = 0;
        for (const LogRecord& record : log.Records())
            count += record.text == text && record.level == level && record.code == 0 ? 1u : 0u;
        EXPECT_EQ(count, times);
    }
    // A value that is no multi-string.
    void SpoilList() { machine.WriteValue(SERVICE_KEY, VERIFY_VALUE, REG_SZ, TextBytes(volume.guid)); }
};

TEST_F(ManagerVerifyList, ListThatHoldsTheGuidRequiresAVerify)
{
    SetVerifyList(APP, {L"{other}", volume.guid});
    EXPECT_EQ(manager.IsVerifyRequired(), BM_ERR_VERIFY_REQUIRED);
    log.ExpectExactly({{2, 0, FOUND}}, 2);
}

TEST_F(ManagerVerifyList, ListThatHoldsOtherVolumesOnlyDoesNot)
{
    SetVerifyList(APP, {L"{other}"});
    EXPECT_EQ(manager.IsVerifyRequired(), 0u);
    log.ExpectExactly({}, 2);
}

TEST_F(ManagerVerifyList, AbsentListDoesNot)
{
    EXPECT_EQ(manager.IsVerifyRequired(), 0u);
    EXPECT_FALSE(ValueExists(SERVICE_KEY, VERIFY_VALUE));
}

TEST_F(ManagerVerifyList, OnlyTheVerifyListOfTheCurrentApplicationCounts)
{
    SetVerifyList(OTHER, {volume.guid});
    SetList(SERVICE_KEY, L"DeviceListForReSyncapp1", {volume.guid});
    SetList(SERVICE_KEY, L"DeviceListForReSync", {volume.guid});
    EXPECT_EQ(manager.IsVerifyRequired(), 0u);
}

TEST_F(ManagerVerifyList, EntryMatchesAsAPartOfTheVolumeNameAndCaseSensitively)
{
    SetVerifyList(APP, {volume.guid.substr(3, 9)});
    EXPECT_EQ(manager.IsVerifyRequired(), BM_ERR_VERIFY_REQUIRED);
    SetVerifyList(APP, {L"volume" + volume.guid});
    EXPECT_EQ(manager.IsVerifyRequired(), 0u);
    SetVerifyList(APP, {volume.Path()}); // longer than the name
    EXPECT_EQ(manager.IsVerifyRequired(), 0u);
}

TEST_F(ManagerVerifyList, FirstMatchEndsTheWalk)
{
    SetVerifyList(APP, {volume.guid, L"Volume" + volume.guid});
    EXPECT_EQ(manager.IsVerifyRequired(), BM_ERR_VERIFY_REQUIRED);
    ExpectLoggedTimes(FOUND, 2, 1);
}

TEST_F(ManagerVerifyList, ListThatCannotBeReadRequiresAVerify)
{
    SpoilList();
    EXPECT_EQ(manager.IsVerifyRequired(), BM_ERR_VERIFY_REQUIRED);
    log.ExpectNotLogged(FOUND);
}

TEST_F(ManagerVerifyList, ListWhoseMutexCannotBeHadRequiresAVerify)
{
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, VERIFY_MUTEX);
    EXPECT_EQ(manager.IsVerifyRequired(), BM_ERR_VERIFY_REQUIRED);
}

TEST_F(ManagerVerifyList, ResetTakesEveryMatchingEntryOffAndKeepsTheOthersInOrder)
{
    SetVerifyList(APP, {L"{b}", volume.guid, L"{a}", L"Volume" + volume.guid});
    EXPECT_EQ(manager.resetVerifyVolume(), 0u);
    DWORD type = 0;
    EXPECT_TRUE(machine.ReadValue(SERVICE_KEY, VERIFY_VALUE, &type) == MultiStringBytes({L"{b}", L"{a}"}));
    EXPECT_EQ(type, DWORD{REG_MULTI_SZ});
    ExpectLoggedTimes(DELETED, 4, 2);
}

TEST_F(ManagerVerifyList, ResetOfTheLastEntryDeletesTheValue)
{
    SetVerifyList(APP, {volume.guid});
    EXPECT_EQ(manager.resetVerifyVolume(), 0u);
    EXPECT_FALSE(ValueExists(SERVICE_KEY, VERIFY_VALUE));
}

TEST_F(ManagerVerifyList, ResetWritesTheListBackEvenWhenNothingWasRemoved)
{
    SetVerifyList(APP, {L"{b}"});
    VTFltSimResetCounts();
    EXPECT_EQ(manager.resetVerifyVolume(), 0u);
    EXPECT_EQ(VTFltSimGetCallCount(L"RegSetValueExW"), 1u);
    EXPECT_TRUE(VerifyList(APP) == std::vector<std::wstring>{L"{b}"});
    log.ExpectNotLogged(DELETED);
}

TEST_F(ManagerVerifyList, ResetOfAnAbsentListIsASuccess)
{
    EXPECT_EQ(manager.resetVerifyVolume(), 0u);
    EXPECT_FALSE(ValueExists(SERVICE_KEY, VERIFY_VALUE));
}

TEST_F(ManagerVerifyList, ResetLeavesOtherListsAlone)
{
    SetVerifyList(APP, {volume.guid});
    SetVerifyList(OTHER, {volume.guid});
    SetList(SERVICE_KEY, L"DeviceListForReSyncapp1", {volume.guid});
    EXPECT_EQ(manager.resetVerifyVolume(), 0u);
    EXPECT_TRUE(VerifyList(OTHER) == std::vector<std::wstring>{volume.guid});
    EXPECT_TRUE(PendingList(APP) == std::vector<std::wstring>{volume.guid});
}

TEST_F(ManagerVerifyList, ResetReadsTheListFirstAndWritesItUnderTheVolumesMutex)
{
    SetVerifyList(APP, {volume.guid, L"{b}"});
    VTFltSimRecord(1);
    EXPECT_EQ(manager.resetVerifyVolume(), 0u);
    VTFltSimRecord(0);
    std::vector<std::wstring> steps;
    for (const std::wstring& line : vtfltsim::Trace()) {
        if (line.starts_with(L"CreateMutexW ") || line.starts_with(L"ReleaseMutex"))
            steps.push_back(line.substr(0, line.find(L'|')));
        else if (line.starts_with(L"RegQueryValueExW") || line.starts_with(L"RegSetValueExW"))
            steps.push_back(line.substr(0, line.find(L' ')));
    }
    const std::vector<std::wstring> expected = {
        std::wstring(L"CreateMutexW ") + VERIFY_MUTEX, L"RegQueryValueExW",
        std::wstring(L"ReleaseMutex ") + VERIFY_MUTEX, L"CreateMutexW " + volume.MutexName(),
        std::wstring(L"CreateMutexW ") + VERIFY_MUTEX, L"RegSetValueExW",
        std::wstring(L"ReleaseMutex ") + VERIFY_MUTEX, L"ReleaseMutex " + volume.MutexName()};
    std::string actual;
    for (const std::wstring& step : steps)
        actual += "  " + Narrow(step) + "\n";
    EXPECT_TRUE(steps == expected) << actual;
}

TEST_F(ManagerVerifyList, ResetOfAListThatCannotBeReadReturnsTheErrorAndWritesNothing)
{
    SpoilList();
    VTFltSimResetCounts();
    EXPECT_EQ(manager.resetVerifyVolume(), DWORD{ERROR_INVALID_DATA});
    EXPECT_EQ(VTFltSimGetCallCount(L"RegSetValueExW"), 0u);
    EXPECT_EQ(VTFltSimGetCallCount(L"RegDeleteValueW"), 0u);
    DWORD type = 0;
    EXPECT_TRUE(machine.ReadValue(SERVICE_KEY, VERIFY_VALUE, &type) == TextBytes(volume.guid));
    EXPECT_EQ(type, DWORD{REG_SZ});
}

TEST_F(ManagerVerifyList, ResetThatCannotWriteReturnsTheErrorAndTheListStays)
{
    SetVerifyList(APP, {volume.guid, L"{b}"});
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(manager.resetVerifyVolume(), DWORD{ERROR_REGISTRY_IO_FAILED});
    EXPECT_TRUE(VerifyList(APP) == (std::vector<std::wstring>{volume.guid, L"{b}"}));
}

TEST_F(ManagerVerifyList, ResetWithoutTheVolumesMutexLogsThatAndDoesItsWork)
{
    SetVerifyList(APP, {volume.guid});
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, volume.MutexName().c_str());
    EXPECT_EQ(manager.resetVerifyVolume(), 0u);
    log.ExpectExactly({{0, ERROR_ACCESS_DENIED, CreateMutexFailed(volume.MutexName(), ERROR_ACCESS_DENIED)}}, 0);
    EXPECT_FALSE(ValueExists(SERVICE_KEY, VERIFY_VALUE));
}

TEST_F(ManagerVerifyList, ResetIgnoresWhatTheWaitForTheVolumesMutexSaid)
{
    for (const DWORD result : {DWORD{WAIT_FAILED}, DWORD{WAIT_TIMEOUT}, DWORD{WAIT_ABANDONED}}) {
        SetVerifyList(APP, {volume.guid});
        log.Clear();
        VTFLTSIM_CALL_FAULT fault = {};
        fault.size = sizeof(fault);
        fault.what = VTFLTSIM_CALL_RETURNS;
        fault.function = L"WaitForSingleObject";
        fault.nth = 2; // the first wait is for the list that is read
        fault.count = 1;
        fault.value = result;
        ASSERT_EQ(VTFltSimSetCallFault(&fault), 0u);
        EXPECT_EQ(manager.resetVerifyVolume(), 0u);
        log.ExpectExactly({}, 0);
        EXPECT_FALSE(ValueExists(SERVICE_KEY, VERIFY_VALUE));
    }
}

} // namespace
