// Every call of a list move that can fail: its records, and that no volume is lost on the way: each is on the old
// list, the new one, or both.
#include "support/apps_test.h"

#include <algorithm>

namespace {

using namespace std::literals;
using namespace vttest;

class ReplicateFailures : public AppsTest {
protected:
    ReplicateFailures() { Prepare(); }

    void Prepare()
    {
        StoreIds(L"App1\0App2\0\0"sv);
        StoreList(L"", L"{1}\0plain\0\0"sv);
        StoreList(L"App1", L"{2}\0\0"sv);
        StoreList(L"App1.Last", L"{3}\0\0"sv);
        StoreList(L"App2", L"{4}\0\0"sv);
        StoreList(L"App2.Last", L"{5}\0\0"sv);
        log.Clear();
    }
    static bool Holds(const Entries& list, const wchar_t* entry)
    {
        return std::find(list.begin(), list.end(), entry) != list.end();
    }
    // The volume is still on its way to the application: on the driver's list, the pending or the verify list.
    void ExpectOwed(const wchar_t* appId, const wchar_t* volume)
    {
        EXPECT_TRUE(Holds(DriverList(), volume) || Holds(PendingList(appId), volume) ||
                    Holds(VerifyList(appId), volume))
            << Narrow(volume) << " is lost for " << Narrow(appId);
    }
    void ExpectNothingLost()
    {
        ExpectOwed(L"App1", L"{1}");
        ExpectOwed(L"App2", L"{1}");
        ExpectOwed(L"App1", L"{2}");
        ExpectOwed(L"App2", L"{4}");
        EXPECT_TRUE(Holds(VerifyList(L"App1"), L"{3}"));
        EXPECT_TRUE(Holds(VerifyList(L"App2"), L"{5}"));
        EXPECT_TRUE(Holds(DriverList(), L"plain"));
    }
    void ExpectFails(DWORD code, const Entries& messages)
    {
        EXPECT_EQ(code, VTReplicateVerifyList(L"App1"));
        VTFltSimClearCallFaults();
        ExpectNothingLeftOpen();
        for (const std::wstring& message : messages)
            log.ExpectLogged(0, code, message);
        log.ExpectNotLogged(L"ReplicateVerifyList: SUCCESS:: ReplicateVerifyList ");
        ExpectNothingLost();
    }
};

constexpr wchar_t TO_APPLICATIONS[] = L"ReplicateVerifyListFailed to replicate resync list from driver to applications";
constexpr wchar_t TO_VERIFY_LIST[] =
    L"ReplicateVerifyListFailed to replicate app resync list to backup app resync list ";

TEST_F(ReplicateFailures, WithoutTheApplicationMutexNothingMoves)
{
    const vtflt::UniqueHandle event = Occupy(APPLICATION_MUTEX);
    EXPECT_EQ(NO_MUTEX, VTReplicateVerifyList(L"App1"));
    ExpectList(L"", L"{1}\0plain\0\0"sv);
    log.ExpectExactly({{0, 0, L"ReplicateVerifyList: Enter ReplicateVerifyList "},
                       NotMade(APPLICATION_MUTEX),
                       NotTaken(L"ReplicateVerifyList", APPLICATION_MUTEX)},
                      0);
}

TEST_F(ReplicateFailures, AnUnreadableListOfApplicationsMovesNothing)
{
    vtfltsim::FailCall(L"RegQueryValueExW", NO_ACCESS, APP_IDS_VALUE);
    ExpectFails(NO_ACCESS, {L"GetRegisteredAppListFailed to get registered application list",
                            L"ReplicateVerifyListFailed to get registered application list"});
    ExpectList(L"", L"{1}\0plain\0\0"sv);
}

TEST_F(ReplicateFailures, AListOfApplicationsThatFailsAtTheSecondReadMovesNothing)
{
    // The first reading makes two queries.
    vtfltsim::FailCall(L"RegQueryValueExW", NO_ACCESS, APP_IDS_VALUE, 3);
    ExpectFails(NO_ACCESS, {L"GetRegisteredAppListFailed to get registered application list",
                            L"ReplicateDriverResyncListFailed to get registered application list", TO_APPLICATIONS});
    ExpectList(L"", L"{1}\0plain\0\0"sv);
}

TEST_F(ReplicateFailures, ADriverListThatIsNotReadStays)
{
    vtfltsim::FailCall(L"RegQueryValueExW", NO_ACCESS, DRIVER_LIST);
    ExpectFails(NO_ACCESS,
                {L"CVolumeListForResync::GetDriverVolumeList::QueryMultiStringValue DeviceListForReSync error 5",
                 L"ReplicateDriverResyncListFailed to get volume resync list from driver", TO_APPLICATIONS});
}

TEST_F(ReplicateFailures, AServiceKeyThatDoesNotOpenIsNamed)
{
    struct Step {
        DWORD nth;
        const wchar_t* message;
    };
    // Opened for: the driver's list; the merge into App1's and its reading, into App2's and its reading; the
    // driver's list again; App1's pending list; the merge into its verify list and its reading; the clearing.
    const Step steps[] = {{1, L"GetDriverVolumeList"}, {2, L"UpdateApplicationValue"},
                          {3, L"GetDriverVolumeList"}, {4, L"UpdateApplicationValue"},
                          {5, L"GetDriverVolumeList"}, {6, L"UpdateApplicationValue"},
                          {7, L"GetDriverVolumeList"}, {8, L"UpdateApplicationValue"},
                          {9, L"GetDriverVolumeList"}, {10, L"ClearDriverRegValue"}};
    for (const Step& step : steps) {
        SCOPED_TRACE(step.nth);
        Prepare();
        vtfltsim::FailCall(L"RegCreateKeyExW", NO_ACCESS, SERVICE_KEY, step.nth);
        ExpectFails(NO_ACCESS, {std::wstring(L"CVolumeListForResync::") + step.message + L"::CreateKey " + SERVICE_KEY +
                                L" error 5"});
    }
}

TEST_F(ReplicateFailures, TheFirstApplicationThatIsNotServedEndsItAndTheDriversListStays)
{
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, L"ReSyncApp1");
    ExpectFails(
        ERROR_DISK_FULL,
        {L"ReplicateDriverResyncListFailed to replicate resync list from driver to application App1", TO_APPLICATIONS});
    ExpectList(L"", L"{1}\0plain\0\0"sv);
    ExpectList(L"App1", L"{2}\0\0"sv);
    ExpectList(L"App2", L"{4}\0\0"sv);
}

TEST_F(ReplicateFailures, AnApplicationBehindAServedOneThatIsNotServedKeepsTheDriversList)
{
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, L"ReSyncApp2");
    ExpectFails(
        ERROR_DISK_FULL,
        {L"ReplicateDriverResyncListFailed to replicate resync list from driver to application App2", TO_APPLICATIONS});
    ExpectList(L"", L"{1}\0plain\0\0"sv);
    ExpectList(L"App1", L"{1}\0{2}\0\0"sv);
}

TEST_F(ReplicateFailures, ADriverListThatIsNotRewrittenKeepsItsEntries)
{
    // The third list that is written is the driver's.
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, DRIVER_LIST, 3);
    ExpectFails(ERROR_DISK_FULL,
                {L"ReplicateDriverResyncListFailed to set volume resync list back to driver", TO_APPLICATIONS});
    ExpectList(L"", L"{1}\0plain\0\0"sv);
    ExpectList(L"App2", L"{1}\0{4}\0\0"sv);
}

TEST_F(ReplicateFailures, ADriverListThatIsNotDeletedIsNamed)
{
    StoreList(L"", L"{1}\0\0"sv);
    vtfltsim::FailCall(L"RegDeleteValueW", NO_ACCESS, DRIVER_LIST);
    EXPECT_EQ(NO_ACCESS, VTReplicateVerifyList(L"App1"));
    ExpectStruck();
    ExpectList(L"", L"{1}\0\0"sv);
    log.ExpectLogged(0, NO_ACCESS,
                     L"CVolumeListForResync::UpdateApplicationValue::DeleteValue DeviceListForReSync retcode 5");
}

TEST_F(ReplicateFailures, APendingListThatIsNotReadStays)
{
    vtfltsim::FailCall(L"RegQueryValueExW", NO_ACCESS, L"ReSyncApp1", 2);
    ExpectFails(NO_ACCESS, {L"ReplicateAppResyncListFailed to get volume resync list", TO_VERIFY_LIST});
    ExpectList(L"App1", L"{1}\0{2}\0\0"sv);
}

TEST_F(ReplicateFailures, APendingListStaysWhenTheVerifyListDoesNotTakeIt)
{
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, L"App1.Last");
    ExpectFails(
        ERROR_DISK_FULL,
        {L"ReplicateAppResyncListFailed to replicate app resync list to backup app resync list", TO_VERIFY_LIST});
    ExpectList(L"App1", L"{1}\0{2}\0\0"sv);
    ExpectList(L"App1.Last", L"{3}\0\0"sv);
}

TEST_F(ReplicateFailures, APendingListThatIsNotClearedIsOnBothLists)
{
    vtfltsim::FailCall(L"RegDeleteValueW", NO_ACCESS, L"ReSyncApp1");
    ExpectFails(NO_ACCESS, {L"ReplicateAppResyncListFailed to clear app volume resync list", TO_VERIFY_LIST});
    ExpectList(L"App1", L"{1}\0{2}\0\0"sv);
    ExpectList(L"App1.Last", L"{1}\0{2}\0{3}\0\0"sv);
    log.ExpectLogged(4, 0,
                     L"CVolumeListForResync::ClearDriverRegValue::Deleting Driver reg Value DeviceListForReSyncApp1 "
                     L"retcode 5");
}

TEST_F(ReplicateFailures, EveryCallThatFailsLosesNoVolume)
{
    const wchar_t* const functions[] = {L"CreateMutexW",   L"WaitForSingleObject", L"RegCreateKeyExW",
                                        L"RegCreateKeyW",  L"RegQueryValueExW",    L"RegSetValueExW",
                                        L"RegDeleteValueW"};
    for (const wchar_t* const function : functions) {
        DWORD struck = 0;
        for (DWORD nth = 1; nth == struck + 1; ++nth) {
            SCOPED_TRACE(Narrow(function) + " " + std::to_string(nth));
            Prepare();
            vtfltsim::FailCall(function, ERROR_NOT_READY, nullptr, nth);
            VTReplicateVerifyList(L"App1");
            struck += VTFltSimGetCallFaultHits();
            VTFltSimClearCallFaults();
            ExpectNothingLeftOpen();
            ExpectNothingLost();
            // And the next run puts everything right.
            EXPECT_EQ(0u, VTReplicateVerifyList(L"App1"));
            for (const wchar_t* const volume : {L"{1}", L"{2}", L"{3}"})
                EXPECT_TRUE(Holds(VerifyList(L"App1"), volume)) << Narrow(volume);
            EXPECT_TRUE(PendingList(L"App1").empty());
            ExpectNothingLost();
        }
        EXPECT_GT(struck, 0u) << Narrow(function);
    }
}

TEST_F(ReplicateFailures, AListMutexThatIsNotMadeIsNamedByTheOperation)
{
    struct Case {
        const wchar_t* suffix;
        const wchar_t* operation;
    };
    const Case cases[] = {{L"", L"CVolumeListForResync::GetDriverVolumeList"},
                          {L"App2", L"CVolumeListForResync::UpdateApplicationValue"},
                          {L"App1.Last", L"CVolumeListForResync::UpdateApplicationValue"}};
    for (const Case& one : cases) {
        Prepare();
        const std::wstring name = ListMutex(one.suffix);
        const vtflt::UniqueHandle event = Occupy(name);
        EXPECT_EQ(NO_MUTEX, VTReplicateVerifyList(L"App1"));
        log.ExpectLogged(0, ERROR_INVALID_HANDLE, NotMade(name).text);
        log.ExpectLogged(0, NO_MUTEX, NotTaken(one.operation, name).text);
        ExpectNothingLost();
    }
}

} // namespace
