// Taking volumes off a verify list and putting all volumes on it.
#include "support/apps_test.h"

namespace {

using namespace std::literals;
using namespace vttest;

class RemoveFromVerifyList : public AppsTest {
protected:
    RemoveFromVerifyList()
    {
        StoreIds(L"App1\0App2\0\0"sv);
        StoreList(L"App1.Last", L"{1}\0{a}\0{2}\0{1}\0\0"sv);
        StoreList(L"App2.Last", L"{1}\0\0"sv);
    }
    DWORD Remove(Entries volumes) { return VTRemoveApplicationVolResyncList(L"App1", &volumes); }
    void ExpectKept()
    {
        ExpectList(L"App1.Last", L"{1}\0{a}\0{2}\0{1}\0\0"sv);
        ExpectNothingLeftOpen();
    }
};

TEST_F(RemoveFromVerifyList, TakesExactEntriesEachTimeTheyOccurAndKeepsTheOrder)
{
    EXPECT_EQ(0u, Remove({L"{1}"}));
    ExpectList(L"App1.Last", L"{a}\0{2}\0\0"sv);
    ExpectList(L"App2.Last", L"{1}\0\0"sv);
    const LogRecord removed = {4, 0,
                               L"RemoveApplicationVolResyncList::Need to delete this volume from verify volume list"};
    std::size_t count = 0;
    for (const LogRecord& record : log.Records())
        count += record.text == removed.text && record.level == removed.level ? 1u : 0u;
    if (LogCapture::VISIBLE) {
        EXPECT_EQ(2u, count);
    }
    log.ExpectLogged(0, 0, L"RemoveApplicationVolResyncList: Enter RemoveApplicationVolResyncList ");
}

TEST_F(RemoveFromVerifyList, OtherCasesPathsAndPartsAreOtherEntries)
{
    EXPECT_EQ(0u, Remove({L"{A}", L"\\\\?\\Volume{2}\\", L"Volume{2}", L"2", L"{2", L""}));
    ExpectKept();
}

TEST_F(RemoveFromVerifyList, NothingLeftDeletesTheValue)
{
    EXPECT_EQ(0u, Remove({L"{2}", L"{a}", L"{1}", L"{never there}"}));
    ExpectNoList(L"App1.Last");
    EXPECT_EQ(0u, Remove({L"{1}"}));
    ExpectNoList(L"App1.Last");
}

// What another operation under it adds in between would be dropped.
TEST_F(RemoveFromVerifyList, HoldsTheApplicationMutexFromReadingTheListToWritingItBack)
{
    const auto calls =
        CallsOf({L"CreateMutexW", L"ReleaseMutex", L"RegSetValueExW"}, [this] { EXPECT_EQ(0u, Remove({L"{1}"})); });
    const std::wstring listMutex = ListMutex(L"App1.Last");
    ExpectCalls({std::wstring(L"CreateMutexW ") + APPLICATION_MUTEX, L"CreateMutexW " + listMutex,
                 L"ReleaseMutex " + listMutex, L"CreateMutexW " + listMutex,
                 std::wstring(L"RegSetValueExW ") + SERVICE_KEY + L"|" + DRIVER_LIST + L"App1.Last",
                 L"ReleaseMutex " + listMutex, std::wstring(L"ReleaseMutex ") + APPLICATION_MUTEX},
                calls);
}

TEST_F(RemoveFromVerifyList, NoVolumesRewritesTheListAsItIs)
{
    EXPECT_EQ(0u, Remove({}));
    ExpectKept();
}

TEST_F(RemoveFromVerifyList, AListAbove4096CharactersLosesOnlyTheNamedVolume)
{
    Entries entries;
    for (unsigned i = 0; i < 400; ++i)
        entries.push_back(L"{" + std::wstring(30, L'a') + WideNumber(10000 + i) + L"}");
    SetVerifyList(L"App1", entries);
    EXPECT_EQ(0u, Remove({entries[200]}));
    entries.erase(entries.begin() + 200);
    EXPECT_TRUE(VerifyList(L"App1") == entries);
}

TEST_F(RemoveFromVerifyList, AnEmptyIdIsAnInvalidParameter)
{
    Entries volumes{L"{1}"};
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), VTRemoveApplicationVolResyncList(L"", &volumes));
    log.ExpectExactly({{0, 0, L"RemoveApplicationVolResyncList: Enter RemoveApplicationVolResyncList "},
                       {0, ERROR_INVALID_PARAMETER, L"RemoveApplicationVolResyncListEmpty application id"}});
}

TEST_F(RemoveFromVerifyList, AnUnlistedApplicationIsRefused)
{
    StoreList(L"app1.Last", L"{1}\0\0"sv);
    Entries volumes{L"{1}"};
    EXPECT_EQ(NOT_REGISTERED, VTRemoveApplicationVolResyncList(L"app1", &volumes));
    log.ExpectExactly({{0, 0, L"RemoveApplicationVolResyncList: Enter RemoveApplicationVolResyncList "},
                       {0, NOT_REGISTERED, L"RemoveApplicationVolResyncListThe application is not registered, app1"}});
}

TEST_F(RemoveFromVerifyList, WithoutAMutexNothingIsTouched)
{
    {
        const vtflt::UniqueHandle event = Occupy(APPLICATION_MUTEX);
        EXPECT_EQ(NO_MUTEX, Remove({L"{1}"}));
        log.ExpectExactly({{0, 0, L"RemoveApplicationVolResyncList: Enter RemoveApplicationVolResyncList "},
                           NotMade(APPLICATION_MUTEX),
                           NotTaken(L"RemoveApplicationVolResyncList", APPLICATION_MUTEX)});
    }
    const vtflt::UniqueHandle event = Occupy(ListMutex(L"App1.Last"));
    EXPECT_EQ(NO_MUTEX, Remove({L"{1}"}));
    ExpectList(L"App1.Last", L"{1}\0{a}\0{2}\0{1}\0\0"sv);
    log.ExpectLogged(0, NO_MUTEX,
                     L"RemoveApplicationVolResyncListFailed to get volume resync list for application App1");
}

TEST_F(RemoveFromVerifyList, EachFailingStepKeepsTheList)
{
    struct Step {
        const wchar_t* function;
        const wchar_t* match;
        DWORD nth;
        const wchar_t* message;
    };
    const Step steps[] = {
        {L"RegQueryValueExW", APP_IDS_VALUE, 1,
         L"RemoveApplicationVolResyncListFailed to get registered application list"},
        {L"RegQueryValueExW", L"App1.Last", 1,
         L"RemoveApplicationVolResyncListFailed to get volume resync list for application App1"},
        {L"RegCreateKeyExW", SERVICE_KEY, 2,
         L"RemoveApplicationVolResyncListFailed to remove entries from volume resync list of application App1"},
        {L"RegSetValueExW", L"App1.Last", 1,
         L"RemoveApplicationVolResyncListFailed to remove entries from volume resync list of application App1"}};
    for (const Step& step : steps) {
        SCOPED_TRACE(Narrow(step.message) + " " + Narrow(step.function));
        log.Clear();
        vtfltsim::FailCall(step.function, NO_ACCESS, step.match, step.nth);
        EXPECT_EQ(NO_ACCESS, Remove({L"{1}"}));
        ExpectStruck();
        ExpectKept();
        log.ExpectLogged(0, NO_ACCESS, step.message);
    }
    log.Clear();
    vtfltsim::FailCall(L"RegDeleteValueW", NO_ACCESS, L"App1.Last");
    EXPECT_EQ(NO_ACCESS, Remove({L"{1}", L"{2}", L"{a}"}));
    ExpectStruck();
    ExpectKept();
    log.ExpectLogged(
        0, NO_ACCESS,
        L"CVolumeListForResync::UpdateApplicationValue::DeleteValue DeviceListForReSyncApp1.Last retcode 5");
    log.ExpectLogged(
        0, NO_ACCESS,
        L"RemoveApplicationVolResyncListFailed to remove entries from volume resync list of application App1");
}

class AddToVerifyList : public AppsTest {
protected:
    Volume volume = machine.AddVolume(LENGTH, BLOCK);
};

TEST_F(AddToVerifyList, NamesEveryFixedVolumeByItsBracedGuid)
{
    machine.AddVolume(LENGTH, BLOCK, nullptr, DRIVE_REMOVABLE);
    machine.AddVolume(LENGTH, BLOCK, nullptr, DRIVE_REMOTE);
    EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(L"App1"));
    ExpectList(L"App1.Last", volume.guid + L"\0\0"s);
}

TEST_F(AddToVerifyList, PutsTheVolumesInFrontOfTheOldEntriesAndEachOnce)
{
    const Volume second = machine.AddVolume(LENGTH, BLOCK);
    SetVerifyList(L"App1", {L"{gone}", volume.guid});
    EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(L"App1"));
    const Entries list = VerifyList(L"App1");
    EXPECT_TRUE(list == (Entries{volume.guid, second.guid, L"{gone}"}) ||
                list == (Entries{second.guid, volume.guid, L"{gone}"}));
}

TEST_F(AddToVerifyList, TheApplicationNeedNotBeRegisteredAndNoApplicationMutexIsTaken)
{
    const auto calls = CallsOf({L"CreateMutexW"}, [] { EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(L"App1")); });
    ExpectCalls({L"CreateMutexW " + ListMutex(L"App1.Last"), L"CreateMutexW " + ListMutex(L"App1.Last")}, calls);
}

TEST_F(AddToVerifyList, AnEmptyIdIsAnInvalidParameter)
{
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), VTAddVolumesToAppVerifyList(L""));
    log.ExpectExactly({{0, ERROR_INVALID_PARAMETER, L"AddVolumesToAppVerifyList: Application ID is empty !!"}}, 0);
}

TEST_F(AddToVerifyList, AMachineWithoutFixedDisksKeepsTheOldEntries)
{
    VTFltSimSetDriveType(machine.handle(), volume.guid.c_str(), DRIVE_REMOTE);
    SetVerifyList(L"App1", {L"{old}"});
    EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(L"App1"));
    ExpectList(L"App1.Last", L"{old}\0\0"sv);
    DeleteValue(SERVICE_KEY, std::wstring(DRIVER_LIST) + L"App1.Last");
    EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(L"App1"));
    ExpectNoList(L"App1.Last");
}

TEST_F(AddToVerifyList, EachFailingStepKeepsTheOldList)
{
    SetVerifyList(L"App1", {L"{old}"});
    struct Step {
        const wchar_t* function;
        const wchar_t* match;
        DWORD nth;
        const wchar_t* message;
    };
    const wchar_t* const listing = L"AddVolumesToAppVerifyList: Failed to get all volumes list";
    const wchar_t* const adding = L"AddVolumesToAppVerifyList: Failed to add volumes to application verify list.";
    const Step steps[] = {{L"FindFirstVolumeW", nullptr, 1, listing},     {L"FindNextVolumeW", nullptr, 1, listing},
                          {L"RegCreateKeyExW", SERVICE_KEY, 1, adding},   {L"RegCreateKeyExW", SERVICE_KEY, 2, adding},
                          {L"RegQueryValueExW", L"App1.Last", 1, adding}, {L"RegSetValueExW", L"App1.Last", 1, adding}};
    for (const Step& step : steps) {
        SCOPED_TRACE(Narrow(step.function) + " " + std::to_string(step.nth));
        log.Clear();
        vtfltsim::FailCall(step.function, NO_ACCESS, step.match, step.nth);
        EXPECT_EQ(NO_ACCESS, VTAddVolumesToAppVerifyList(L"App1"));
        ExpectStruck();
        ExpectList(L"App1.Last", L"{old}\0\0"sv);
        ExpectNothingLeftOpen();
        log.ExpectLogged(0, NO_ACCESS, step.message);
    }
}

} // namespace
