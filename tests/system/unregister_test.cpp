// Unregistering an application: first its volumes go on the verify list, which stays, then the ID, then the bitmaps.
#include "support/apps_test.h"

namespace {

using namespace std::literals;
using namespace vttest;

class UnregisterApplication : public AppsTest {
protected:
    UnregisterApplication()
    {
        Register(L"App1");
        Register(L"App2");
        MarkBitmaps(first, L"App1");
        MarkBitmaps(first, L"App2");
    }
    bool VerifyListNamesEveryVolume() const
    {
        const Entries list = VerifyList(L"App1");
        return list == Entries{first.guid, second.guid} || list == Entries{second.guid, first.guid};
    }
    void ExpectStillRegistered() const
    {
        ExpectIds(L"App1\0App2\0\0"sv);
        EXPECT_TRUE(AreMarked(first, L"App1"));
        EXPECT_TRUE(AreFresh(second, L"App1"));
        ExpectNothingLeftOpen();
        log.ExpectNotLogged(L"UnregisterApplication: SUCCESS::Application un-registered");
    }

    Volume first = machine.AddVolume(LENGTH, BLOCK);
    Volume second = machine.AddVolume(LENGTH, BLOCK);
};

TEST_F(UnregisterApplication, TakesTheIdAndTheBitmapsAndLeavesOthersAlone)
{
    EXPECT_EQ(0u, VTUnregisterApplication(L"App1"));
    ExpectIds(L"App2\0\0"sv);
    for (const Volume& volume : {first, second})
        EXPECT_TRUE(HasNoBitmaps(volume, L"App1"));
    EXPECT_TRUE(AreMarked(first, L"App2"));
    EXPECT_TRUE(HasBitmaps(second, L"App2"));
    ExpectNoList(L"App2.Last");
    log.ExpectLogged(2, 0, L"UnregisterApplication: Unregistering application App1");
    log.ExpectLogged(2, 0, L"UnregisterApplication: SUCCESS::Application un-registered");
}

TEST_F(UnregisterApplication, TheVerifyListNamesEveryVolumeAndStays)
{
    EXPECT_EQ(0u, VTUnregisterApplication(L"App1"));
    EXPECT_TRUE(VerifyListNamesEveryVolume());
    EXPECT_EQ(0u, VTRegisterApplication(L"App1"));
    EXPECT_TRUE(VerifyListNamesEveryVolume());
    EXPECT_EQ(1u, VTIsVerifyRequired(L"App1", first.Root().c_str()));
}

TEST_F(UnregisterApplication, MarksTheVolumesThenDropsTheIdThenDeletesTheFiles)
{
    VTFltSimSetDriveType(machine.handle(), second.guid.c_str(), DRIVE_REMOVABLE);
    const auto calls = CallsOf({L"CreateMutexW", L"ReleaseMutex", L"RegSetValueExW", L"DeleteFileW", L"CreateFileW"},
                               [] { EXPECT_EQ(0u, VTUnregisterApplication(L"App1")); });
    const std::wstring listMutex = ListMutex(L"App1.Last");
    const std::wstring folder = first.Path() + L"\\";
    ExpectCalls({std::wstring(L"CreateMutexW ") + APPLICATION_MUTEX, L"CreateMutexW " + listMutex,
                 L"CreateMutexW " + listMutex, L"ReleaseMutex " + listMutex,
                 std::wstring(L"RegSetValueExW ") + SERVICE_KEY + L"|" + DRIVER_LIST + L"App1.Last",
                 L"ReleaseMutex " + listMutex, std::wstring(L"RegSetValueExW ") + APP_IDS_KEY + L"|" + APP_IDS_VALUE,
                 L"CreateMutexW " + first.MutexName(), L"DeleteFileW " + folder + BaseName(L"App1"),
                 L"DeleteFileW " + folder + ChildName(L"App1"), L"ReleaseMutex " + first.MutexName(),
                 std::wstring(L"ReleaseMutex ") + APPLICATION_MUTEX},
                calls);
}

TEST_F(UnregisterApplication, AsksWhetherTheIdIsListedUnderTheApplicationMutex)
{
    const auto calls = CallsOf({L"WaitForSingleObject", L"RegQueryValueExW", L"ReleaseMutex"},
                               [] { EXPECT_EQ(NOT_REGISTERED, VTUnregisterApplication(L"App3")); });
    const std::wstring query = std::wstring(L"RegQueryValueExW ") + APP_IDS_KEY + L"|" + APP_IDS_VALUE;
    ExpectCalls({std::wstring(L"WaitForSingleObject ") + APPLICATION_MUTEX + L"|1800000", query, query,
                 std::wstring(L"ReleaseMutex ") + APPLICATION_MUTEX},
                calls);
}

TEST_F(UnregisterApplication, TheLastOneLeavesAnEmptyListBehind)
{
    EXPECT_EQ(0u, VTUnregisterApplication(L"App2"));
    EXPECT_EQ(0u, VTUnregisterApplication(L"App1"));
    ExpectIds(L"\0"sv);
    DWORD count = 7;
    EXPECT_EQ(0u, VTGetRegisteredAppCount(&count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(0u, VTRegisterApplication(L"App3"));
    ExpectIds(L"App3\0\0"sv);
}

TEST_F(UnregisterApplication, AnIdThatIsNotListedIsAnErrorAndMarksNothing)
{
    EXPECT_EQ(NOT_REGISTERED, VTUnregisterApplication(L"app1"));
    ExpectStillRegistered();
    ExpectNoList(L"app1.Last");
    log.ExpectExactly(
        {{2, 0, L"UnregisterApplication: Unregistering application app1"},
         {2, NOT_REGISTERED, L"UnregisterApplication: The application is not registered. Application name= app1"}});
}

TEST_F(UnregisterApplication, AnEmptyIdIsABadArgument)
{
    EXPECT_EQ(static_cast<DWORD>(ERROR_BAD_ARGUMENTS), VTUnregisterApplication(L""));
    ExpectStillRegistered();
    log.ExpectExactly(
        {{2, 0, L"UnregisterApplication: Unregistering application "},
         {0, ERROR_BAD_ARGUMENTS,
          L"UnregisterApplication: Application ID is empty !! Please un-register with valid application ID."}});
}

TEST_F(UnregisterApplication, RemovingTheTailOfAnotherIdJoinsWhatIsLeftOfIt)
{
    // App1 is listed behind MyApp1, and the first match is the tail of MyApp1.
    StoreIds(L"MyApp1\0App1\0App2\0\0"sv);
    EXPECT_EQ(0u, VTUnregisterApplication(L"App1"));
    ExpectIds(L"MyApp1\0App2\0\0"sv);
}

TEST_F(UnregisterApplication, WithoutTheApplicationMutexNothingIsTouched)
{
    const vtflt::UniqueHandle event = Occupy(APPLICATION_MUTEX);
    EXPECT_EQ(NO_MUTEX, VTUnregisterApplication(L"App1"));
    ExpectIds(L"App1\0App2\0\0"sv);
    ExpectNoList(L"App1.Last");
    EXPECT_TRUE(AreMarked(first, L"App1"));
    log.ExpectExactly({{2, 0, L"UnregisterApplication: Unregistering application App1"},
                       NotMade(APPLICATION_MUTEX),
                       NotTaken(L"UnregisterApplication", APPLICATION_MUTEX)});
}

TEST_F(UnregisterApplication, AnUnreadableListCountsAsNotRegistered)
{
    vtfltsim::FailCall(L"RegQueryValueExW", NO_ACCESS, APP_IDS_VALUE);
    EXPECT_EQ(NOT_REGISTERED, VTUnregisterApplication(L"App1"));
    ExpectStruck();
    ExpectStillRegistered();
    ExpectNoList(L"App1.Last");
    log.ExpectLogged(0, NO_ACCESS, L"GetRegisteredAppListFailed to get registered application list");
}

TEST_F(UnregisterApplication, VolumesThatCannotBeListedKeepTheApplication)
{
    VTFltSimSetEnumerationFault(machine.handle(), 1, ERROR_NOT_READY);
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_READY), VTUnregisterApplication(L"App1"));
    VTFltSimClearFaults(machine.handle());
    ExpectStillRegistered();
    ExpectNoList(L"App1.Last");
    log.ExpectLogged(0, ERROR_NOT_READY, L"EnumerateVolumes: FindFirstVolumeW failed. Error code 21");
    log.ExpectLogged(0, ERROR_NOT_READY, L"AddVolumesToAppVerifyList: Failed to get all volumes list");
    log.ExpectLogged(0, ERROR_NOT_READY, L"UnregisterApplication: Failed to add volumes to application verify list.");
}

TEST_F(UnregisterApplication, AVerifyListThatCannotBeWrittenKeepsTheApplication)
{
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, L"App1.Last");
    EXPECT_EQ(static_cast<DWORD>(ERROR_DISK_FULL), VTUnregisterApplication(L"App1"));
    ExpectStruck();
    ExpectStillRegistered();
    log.ExpectLogged(0, ERROR_DISK_FULL,
                     L"AddVolumesToAppVerifyList: Failed to add volumes to application verify list.");
    log.ExpectLogged(0, ERROR_DISK_FULL, L"UnregisterApplication: Failed to add volumes to application verify list.");
}

TEST_F(UnregisterApplication, AnIdThatCannotBeTakenOffKeepsItsBitmaps)
{
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, APP_IDS_VALUE);
    EXPECT_EQ(static_cast<DWORD>(ERROR_DISK_FULL), VTUnregisterApplication(L"App1"));
    ExpectStruck();
    ExpectStillRegistered();
    EXPECT_TRUE(VerifyListNamesEveryVolume());
    log.ExpectLogged(0, ERROR_DISK_FULL, L"RegSetValueEx RegisteredAppIDs failed after remove value App1");
    log.ExpectLogged(0, ERROR_DISK_FULL, L"RemoveMutliSZRegistryValue failed RegisteredAppIDs App1");
    log.ExpectLogged(0, ERROR_DISK_FULL,
                     L"UnregisterApplication: Failed to delete an entry from key: RegisteredAppIDs, value: App1");
}

TEST_F(UnregisterApplication, AListThatCannotBeReadForTheRemovalKeepsTheApplication)
{
    // Two queries belong to the test for the ID, the next two to the removal.
    const wchar_t* const messages[] = {L"Query value for RegisteredAppIDs failed",
                                       L"Query value for RegisteredAppIDs failed second time"};
    for (const DWORD nth : {3u, 4u}) {
        log.Clear();
        vtfltsim::FailCall(L"RegQueryValueExW", NO_ACCESS, APP_IDS_VALUE, nth);
        EXPECT_EQ(NO_ACCESS, VTUnregisterApplication(L"App1"));
        ExpectStruck();
        ExpectStillRegistered();
        log.ExpectLogged(0, NO_ACCESS, messages[nth - 3]);
    }
    log.Clear();
    vtfltsim::FailCall(L"RegCreateKeyW", NO_ACCESS, L"AppIDs", 2);
    EXPECT_EQ(NO_ACCESS, VTUnregisterApplication(L"App1"));
    ExpectStruck();
    ExpectStillRegistered();
    log.ExpectLogged(0, NO_ACCESS, std::wstring(L"Open key ") + APP_IDS_KEY + L" failed");
}

TEST_F(UnregisterApplication, FilesThatCannotBeDeletedDoNotKeepTheApplication)
{
    vtfltsim::FailCall(L"DeleteFileW", NO_ACCESS, first.guid.c_str(), 1, 0);
    EXPECT_EQ(0u, VTUnregisterApplication(L"App1"));
    ExpectStruck(2);
    ExpectIds(L"App2\0\0"sv);
    EXPECT_TRUE(HasBitmaps(first, L"App1"));
    EXPECT_TRUE(HasNoBitmaps(second, L"App1"));
    log.ExpectLogged(0, NO_ACCESS, L"RemoveApplicationBitmaps: Failed to delete bitmaps for volume: " + first.Root());
    log.ExpectLogged(2, 0, L"UnregisterApplication: SUCCESS::Application un-registered");
}

TEST_F(UnregisterApplication, OnAMachineWithoutFixedDisksRemovesNothingWithSuccess)
{
    for (const Volume& volume : {first, second})
        VTFltSimSetDriveType(machine.handle(), volume.guid.c_str(), DRIVE_REMOVABLE);
    EXPECT_EQ(0u, VTUnregisterApplication(L"App1"));
    ExpectIds(L"App2\0\0"sv);
    EXPECT_TRUE(HasBitmaps(first, L"App1"));
    EXPECT_TRUE(HasBitmaps(second, L"App1"));
    log.ExpectLogged(2, 0, L"RemoveApplicationBitmaps: SUCCESS:: Bitmaps are removed");
}

} // namespace
