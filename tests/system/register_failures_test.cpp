// Every step of registering that can fail: its code, its records, and what is left behind.
#include "support/apps_test.h"

namespace {

using namespace std::literals;
using namespace vttest;

class RegisterFailures : public AppsTest {
protected:
    // The ID is not listed by a registration that fails with this code.
    void ExpectRefused(DWORD code)
    {
        log.Clear();
        EXPECT_EQ(code, VTRegisterApplication(L"App1"));
        VTFltSimClearCallFaults();
        VTFltSimClearFaults(machine.handle());
        EXPECT_TRUE(RegisteredIds().empty());
        ExpectNothingLeftOpen();
        log.ExpectNotLogged(L"RegisterApplication: SUCCESS::Application registered");
    }
    void ExpectResetRefused(DWORD code)
    {
        ExpectRefused(code);
        log.ExpectLogged(0, code, L"RegisterApplication: Failed to reset application bitmaps");
    }
    std::wstring ResetFailed(const wchar_t* which) const
    {
        return std::wstring(L"ResetApplicationBitmaps: Failed to reset ") + which + L" bitmap for volume " +
               volume.Path() + L", for application App1";
    }

    Volume volume = machine.AddVolume(LENGTH, BLOCK);
};

TEST_F(RegisterFailures, WithoutTheApplicationMutexNothingIsTouched)
{
    const vtflt::UniqueHandle event = Occupy(APPLICATION_MUTEX);
    EXPECT_EQ(NO_MUTEX, VTRegisterApplication(L"App1"));
    ExpectNoIds();
    EXPECT_FALSE(FileExists(volume, L"VelVolTrc"));
    log.ExpectExactly({{2, 0, L"RegisterApplication: Registering application App1"},
                       NotMade(APPLICATION_MUTEX),
                       NotTaken(L"RegisterApplication", APPLICATION_MUTEX)});
}

TEST_F(RegisterFailures, AWaitThatFailsIsLoggedByTheOperationAlone)
{
    vtfltsim::FailCall(L"WaitForSingleObject", ERROR_INVALID_HANDLE, APPLICATION_MUTEX);
    EXPECT_EQ(NO_MUTEX, VTRegisterApplication(L"App1"));
    ExpectStruck();
    ExpectNoIds();
    EXPECT_FALSE(FileExists(volume, L"VelVolTrc"));
    log.ExpectExactly({{2, 0, L"RegisterApplication: Registering application App1"},
                       NotTaken(L"RegisterApplication", APPLICATION_MUTEX)});
}

TEST_F(RegisterFailures, AVolumeThatDoesNotOpenRefusesTheRegistration)
{
    vtfltsim::FailCall(L"CreateFileW", NO_ACCESS, volume.Path().c_str());
    const auto mutexes = CallsOf({L"CreateMutexW"}, [&] { ExpectResetRefused(NO_ACCESS); });
    EXPECT_FALSE(FileExists(volume, L"VelVolTrc"));
    log.ExpectLogged(0, NO_ACCESS, L"ResetApplicationBitmaps: Open volume handle failed for: " + volume.Path());
    for (const std::wstring& call : mutexes)
        EXPECT_EQ(std::wstring::npos, call.find(volume.MutexName())) << Narrow(call) << ": it was not to be asked for";
    EXPECT_FALSE(mutexes.empty()) << "the applications' own is";
}

TEST_F(RegisterFailures, VolumesThatWereResetBeforeTheFailingOneKeepTheirFiles)
{
    const Volume other = machine.AddVolume(LENGTH, BLOCK);
    vtfltsim::FailCall(L"CreateMutexW", NO_ACCESS, L"VTBitmapManager.Volume", 2);
    ExpectResetRefused(NO_MUTEX);
    EXPECT_NE(HasBitmaps(volume, L"App1"), HasBitmaps(other, L"App1"));
}

TEST_F(RegisterFailures, AVolumeMutexThatIsNotMadeRefusesWithTheCodeInTheRecord)
{
    const vtflt::UniqueHandle event = Occupy(volume.MutexName());
    EXPECT_EQ(NO_MUTEX, VTRegisterApplication(L"App1"));
    ExpectNoIds();
    EXPECT_FALSE(FileExists(volume, L"VelVolTrc"));
    log.ExpectLogged(0, ERROR_INVALID_HANDLE, NotMade(volume.MutexName()).text);
    log.ExpectLogged(0, NO_MUTEX, L"ResetApplicationBitmapsFailed to get the access while creating mutex: 65541");
    log.ExpectLogged(0, NO_MUTEX, L"RegisterApplication: Failed to reset application bitmaps");
}

TEST_F(RegisterFailures, ABaseBitmapThatIsNeitherMadeNorMarkedRefuses)
{
    const vtflt::UniqueHandle event = Occupy(ListMutex(L"App1.Last"));
    machine.FailRequest(vtflt::VTFLTCTL_GET_BLOCK_SIZE, ERROR_NOT_READY);
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_READY), VTRegisterApplication(L"App1"));
    VTFltSimClearFaults(machine.handle());
    ExpectNoIds();
    EXPECT_TRUE(HasNoBitmaps(volume, L"App1"));
    log.ExpectLogged(0, ERROR_NOT_READY, ResetFailed(L"base"));
    log.ExpectLogged(0, ERROR_NOT_READY, L"RegisterApplication: Failed to reset application bitmaps");
}

TEST_F(RegisterFailures, AChildBitmapThatIsNeitherMadeNorMarkedRefusesAndLeavesNoFile)
{
    const vtflt::UniqueHandle event = Occupy(ListMutex(L"App1.Last"));
    machine.FailRequest(IOCTL_DISK_GET_LENGTH_INFO, ERROR_NOT_READY, nullptr, 2);
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_READY), VTRegisterApplication(L"App1"));
    VTFltSimClearFaults(machine.handle());
    ExpectNoIds();
    EXPECT_TRUE(HasNoBitmaps(volume, L"App1"));
    log.ExpectLogged(0, ERROR_NOT_READY, ResetFailed(L"child"));
}

TEST_F(RegisterFailures, ABitmapThatIsMarkedInsteadOfMadeCountsAsDone)
{
    machine.FailRequest(vtflt::VTFLTCTL_GET_BLOCK_SIZE, ERROR_NOT_READY, nullptr, 1, 2);
    EXPECT_EQ(0u, VTRegisterApplication(L"App1"));
    VTFltSimClearFaults(machine.handle());
    ExpectIds(L"App1\0\0"sv);
    EXPECT_TRUE(VerifyList(L"App1") == Entries{volume.guid});
    log.ExpectLogged(2, 0, L"ResetApplicationBitmaps: SUCCESS:: Bitmaps reset completed");
}

TEST_F(RegisterFailures, WithoutADriverEveryVolumeIsMarkedAndTheIdListed)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    EXPECT_EQ(0u, VTRegisterApplication(L"App1"));
    ExpectIds(L"App1\0\0"sv);
    EXPECT_TRUE(VerifyList(L"App1") == Entries{volume.guid});
}

TEST_F(RegisterFailures, AnAddThatFailsTakesTheFreshBitmapsAway)
{
    vtfltsim::FailCall(L"RegSetValueExW", NO_ACCESS, APP_IDS_VALUE);
    ExpectRefused(NO_ACCESS);
    EXPECT_TRUE(HasNoBitmaps(volume, L"App1"));
    log.ExpectLogged(0, NO_ACCESS, L"Set Valume failed Key RegisteredAppIDs");
    log.ExpectLogged(0, NO_ACCESS, L"AllMultiString failed RegisteredAppIDs App1");
    log.ExpectLogged(0, NO_ACCESS,
                     L"RegisterApplication: Failed to add an entry to key: RegisteredAppIDs, value: App1");
    log.ExpectLogged(2, 0, L"RemoveApplicationBitmaps: Removing bitmaps of application App1");
    log.ExpectLogged(2, 0, L"RemoveApplicationBitmaps: SUCCESS:: Bitmaps are removed");
}

TEST_F(RegisterFailures, AnAddWhoseKeyDoesNotOpenTakesTheFreshBitmapsAway)
{
    vtfltsim::FailCall(L"RegCreateKeyW", NO_ACCESS, L"AppIDs", 2);
    ExpectRefused(NO_ACCESS);
    EXPECT_TRUE(HasNoBitmaps(volume, L"App1"));
    log.ExpectLogged(0, NO_ACCESS, std::wstring(L"Open key ") + APP_IDS_KEY + L" failed");
}

TEST_F(RegisterFailures, AnAddThatCannotReadTheListKeepsIt)
{
    StoreIds(L"Other\0\0"sv);
    // Two queries belong to the test for the ID, the next two to the add.
    for (const DWORD nth : {3u, 4u}) {
        log.Clear();
        vtfltsim::FailCall(L"RegQueryValueExW", NO_ACCESS, APP_IDS_VALUE, nth);
        EXPECT_EQ(NO_ACCESS, VTRegisterApplication(L"App1"));
        ExpectStruck();
        ExpectIds(L"Other\0\0"sv);
        EXPECT_TRUE(HasNoBitmaps(volume, L"App1"));
        log.ExpectLogged(0, NO_ACCESS, L"Query value failed for RegisteredAppIDs");
    }
}

// Without any room the data would be asked for as the size is, and the list that has grown would be taken for zeros.
TEST_F(RegisterFailures, AnEmptyListThatGrowsWhileItIsReadKeepsWhatIsThere)
{
    StoreIds(L""sv);
    auto grow = [this] { StoreIds(L"App0\0\0"sv); };
    const auto call = [](void* context, LPCWSTR, LPCWSTR) { (*static_cast<decltype(grow)*>(context))(); };
    // The first two questions are whether the ID is listed.
    vtfltsim::Check("VTFltSimCallBefore", VTFltSimCallBefore(L"RegQueryValueExW", APP_IDS_VALUE, 4, 1, call, &grow));
    EXPECT_EQ(static_cast<DWORD>(ERROR_MORE_DATA), VTRegisterApplication(L"App1"));
    VTFltSimClearCallFaults();
    ExpectIds(L"App0\0\0"sv);
}

TEST_F(RegisterFailures, BitmapsThatCannotBeTakenAwayChangeNothingInTheResult)
{
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, APP_IDS_VALUE);
    vtfltsim::FailCall(L"DeleteFileW", NO_ACCESS, nullptr, 1, 0);
    EXPECT_EQ(static_cast<DWORD>(ERROR_DISK_FULL), VTRegisterApplication(L"App1"));
    ExpectStruck(3);
    EXPECT_TRUE(HasBitmaps(volume, L"App1"));
    log.ExpectLogged(0, NO_ACCESS, L"RemoveApplicationBitmaps: Failed to delete bitmaps for volume: " + volume.Root());
}

// A list that cannot be read may hold the application: then its bitmaps held changes that the reset takes away.
TEST_F(RegisterFailures, AnUnreadableListPutsEveryVolumeOnTheVerifyList)
{
    Register(L"App1");
    MarkBitmaps(volume, L"App1");
    vtfltsim::FailCall(L"RegQueryValueExW", NO_ACCESS, APP_IDS_VALUE);
    EXPECT_EQ(0u, VTRegisterApplication(L"App1"));
    ExpectStruck();
    EXPECT_TRUE(AreFresh(volume, L"App1"));
    ExpectIds(L"App1\0\0"sv);
    EXPECT_TRUE(VerifyList(L"App1") == Entries{volume.guid});
    log.ExpectLogged(0, NO_ACCESS, L"ReadMutliSZRegistryValue:RegQueryValueEx failed for RegisteredAppIDs");
    log.ExpectLogged(0, NO_ACCESS, L"ReadValueEntry: ReadMutliSZRegistryValue failed for key RegisteredAppIDs");
    log.ExpectLogged(0, NO_ACCESS, L"GetRegisteredAppListFailed to get registered application list");
}

TEST_F(RegisterFailures, WithAnUnreadableListTheVolumesAreMarkedBeforeTheFirstBitmapGoes)
{
    Register(L"App1");
    MarkBitmaps(volume, L"App1");
    vtfltsim::FailCall(L"RegQueryValueExW", NO_ACCESS, APP_IDS_VALUE);
    vtfltsim::FailCall(L"CreateFileW", NO_ACCESS, volume.Path().c_str());
    EXPECT_EQ(NO_ACCESS, VTRegisterApplication(L"App1"));
    ExpectStruck(2);
    EXPECT_TRUE(VerifyList(L"App1") == Entries{volume.guid});
    EXPECT_TRUE(AreMarked(volume, L"App1"));
}

TEST_F(RegisterFailures, WithAnUnreadableListAndVolumesThatCannotBeMarkedNothingIsReset)
{
    Register(L"App1");
    MarkBitmaps(volume, L"App1");
    vtfltsim::FailCall(L"RegQueryValueExW", NO_ACCESS, APP_IDS_VALUE);
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, L"App1.Last");
    EXPECT_EQ(static_cast<DWORD>(ERROR_DISK_FULL), VTRegisterApplication(L"App1"));
    ExpectStruck(2);
    EXPECT_TRUE(AreMarked(volume, L"App1"));
    ExpectIds(L"App1\0\0"sv);
    log.ExpectLogged(0, ERROR_DISK_FULL,
                     L"AddVolumesToAppVerifyList: Failed to add volumes to application verify list.");
}

// Whatever call fails, a registration that is refused lists nothing, and one that succeeds lists the ID.
TEST_F(RegisterFailures, EveryCallThatFailsLeavesTheIdListedOrTheRegistrationRefused)
{
    const wchar_t* const functions[] = {
        L"CreateMutexW",     L"WaitForSingleObject", L"RegCreateKeyW",  L"RegQueryValueExW", L"RegSetValueExW",
        L"FindFirstVolumeW", L"FindNextVolumeW",     L"CreateFileW",    L"WriteFile",        L"SetFilePointer",
        L"FlushFileBuffers", L"CreateDirectoryW",    L"DeviceIoControl"};
    for (const wchar_t* const function : functions) {
        DWORD struck = 0;
        for (DWORD nth = 1; nth == struck + 1; ++nth) {
            SCOPED_TRACE(Narrow(function) + " " + std::to_string(nth));
            VTFltSimResetRegistry(machine.handle());
            for (const std::wstring& name : {BaseName(L"App1"), ChildName(L"App1")})
                DeleteFileW(RealPath(volume, name).c_str());
            RemoveDirectoryW(RealPath(volume, L"VelVolTrc").c_str());
            vtfltsim::FailCall(function, ERROR_NOT_READY, nullptr, nth);
            const DWORD result = VTRegisterApplication(L"App1");
            struck += VTFltSimGetCallFaultHits();
            VTFltSimClearCallFaults();
            ExpectNothingLeftOpen();
            EXPECT_TRUE(RegisteredIds() == (result == 0 ? Entries{L"App1"} : Entries{}));
            // Listed with anything but fresh bitmaps means marked, or verified for want of a file.
            if (result == 0 && !AreFresh(volume, L"App1")) {
                EXPECT_EQ(1u, VTIsVerifyRequired(L"App1", volume.Root().c_str()));
            }
        }
        EXPECT_GT(struck, 0u) << Narrow(function);
    }
}

} // namespace
