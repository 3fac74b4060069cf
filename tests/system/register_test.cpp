// Registering an application: where it gets fresh bitmaps, in which order, and what an ID already there means.
#include "support/apps_test.h"

namespace {

using namespace std::literals;
using namespace vttest;

class RegisterApplication : public AppsTest {
protected:
    Volume first = machine.AddVolume(LENGTH, BLOCK);
    Volume second = machine.AddVolume(LENGTH, BLOCK);
};

TEST_F(RegisterApplication, GivesTheApplicationFreshFilesOnEveryFixedVolume)
{
    machine.TouchBlock(first, 3);
    ASSERT_EQ(0u, VTRegisterApplication(L"App1"));
    for (const Volume& volume : {first, second}) {
        EXPECT_TRUE(AreFresh(volume, L"App1"));
        EXPECT_EQ(BLOCK, Base(volume, L"App1").BlockSize());
        EXPECT_EQ(BLOCK, Child(volume, L"App1").BlockSize());
    }
    ExpectIds(L"App1\0\0"sv);
    ExpectNoList(L"App1.Last");
}

TEST_F(RegisterApplication, LeavesVolumesThatAreNotFixedDisksAlone)
{
    const Volume removable = machine.AddVolume(LENGTH, BLOCK, nullptr, DRIVE_REMOVABLE);
    const Volume remote = machine.AddVolume(LENGTH, BLOCK, nullptr, DRIVE_REMOTE);
    const Volume optical = machine.AddVolume(LENGTH, BLOCK, nullptr, DRIVE_CDROM);
    ASSERT_EQ(0u, VTRegisterApplication(L"App1"));
    for (const Volume& volume : {removable, remote, optical})
        EXPECT_FALSE(FileExists(volume, L"VelVolTrc"));
    for (const LogRecord& record : log.Records()) {
        for (const Volume& volume : {removable, remote, optical})
            EXPECT_EQ(std::wstring::npos, record.text.find(volume.guid)) << Narrow(record.text);
    }
}

TEST_F(RegisterApplication, SaysWhatItDoes)
{
    ASSERT_EQ(0u, VTRegisterApplication(L"App1"));
    log.ExpectLogged(2, 0, L"RegisterApplication: Registering application App1");
    log.ExpectLogged(2, 0, L"ResetApplicationBitmaps: Reset bitmaps of application App1");
    log.ExpectLogged(2, 0, L"ResetApplicationBitmaps: SUCCESS:: Bitmaps reset completed");
    if (LogCapture::VISIBLE) {
        EXPECT_TRUE(log.Records().front().text == L"RegisterApplication: Registering application App1");
        EXPECT_TRUE(log.Records().back().text == L"RegisterApplication: SUCCESS::Application registered");
        EXPECT_EQ(2, log.Records().back().level);
    }
}

TEST_F(RegisterApplication, ResetsTheBitmapsUnderBothMutexesAndListsTheIdLast)
{
    VTFltSimSetDriveType(machine.handle(), second.guid.c_str(), DRIVE_REMOVABLE);
    ASSERT_EQ(0u, VTRegisterApplication(L"Earlier"));
    const auto calls = CallsOf({L"CreateMutexW", L"CreateFileW", L"ReleaseMutex", L"RegSetValueExW"},
                               [] { EXPECT_EQ(0u, VTRegisterApplication(L"App1")); });
    const std::wstring folder = first.Path() + L"\\";
    ExpectCalls({std::wstring(L"CreateMutexW ") + APPLICATION_MUTEX, L"CreateFileW " + first.Path(),
                 L"CreateMutexW " + first.MutexName(), L"CreateFileW " + folder + BaseName(L"App1"),
                 L"CreateFileW " + folder + ChildName(L"App1"), L"ReleaseMutex " + first.MutexName(),
                 std::wstring(L"RegSetValueExW ") + APP_IDS_KEY + L"|" + APP_IDS_VALUE,
                 std::wstring(L"ReleaseMutex ") + APPLICATION_MUTEX},
                calls);
}

TEST_F(RegisterApplication, WaitsHalfAnHourForItsMutexes)
{
    const auto calls = CallsOf({L"WaitForSingleObject"}, [] { EXPECT_EQ(0u, VTRegisterApplication(L"App1")); });
    ASSERT_EQ(3u, calls.size());
    EXPECT_TRUE(calls[0] == std::wstring(L"WaitForSingleObject ") + APPLICATION_MUTEX + L"|1800000");
    EXPECT_TRUE(calls[1] == L"WaitForSingleObject " + first.MutexName() + L"|1800000" ||
                calls[1] == L"WaitForSingleObject " + second.MutexName() + L"|1800000");
}

TEST_F(RegisterApplication, KeepsTheOrderOfRegistration)
{
    Register(L"zeta");
    Register(L"App1");
    Register(L"beta");
    ExpectIds(L"zeta\0App1\0beta\0\0"sv);
}

TEST_F(RegisterApplication, AListedIdReturns0AndChangesNothing)
{
    Register(L"App1");
    MarkBitmaps(first, L"App1");
    const auto calls = CallsOf({L"CreateFileW", L"WriteFile", L"RegSetValueExW", L"DeleteFileW", L"FindFirstVolumeW"},
                               [] { EXPECT_EQ(0u, VTRegisterApplication(L"App1")); });
    ExpectCalls({}, calls);
    EXPECT_TRUE(AreMarked(first, L"App1"));
    ExpectIds(L"App1\0\0"sv);
    log.ExpectExactly({{2, 0, L"RegisterApplication: Registering application App1"},
                       {2, 0, L"RegisterApplication: The application is already registered. Application name= App1"}});
}

TEST_F(RegisterApplication, App1BesideMyApp1GetsBitmapsAndSuccessButIsNotListed)
{
    StoreIds(L"MyApp1\0\0"sv);
    EXPECT_EQ(0u, VTRegisterApplication(L"App1"));
    ExpectIds(L"MyApp1\0\0"sv);
    EXPECT_TRUE(AreFresh(first, L"App1"));
    EXPECT_TRUE(AreFresh(second, L"App1"));
    log.ExpectLogged(2, 0, L"Find App1, need not add it");
    log.ExpectLogged(2, 0, L"RegisterApplication: SUCCESS::Application registered");
}

TEST_F(RegisterApplication, App1BesideApp12IsListed)
{
    StoreIds(L"App12\0\0"sv);
    EXPECT_EQ(0u, VTRegisterApplication(L"App1"));
    ExpectIds(L"App12\0App1\0\0"sv);
}

TEST_F(RegisterApplication, IdsThatDifferOnlyInCaseAreDifferentApplications)
{
    Register(L"App1");
    MarkBitmaps(first, L"App1");
    EXPECT_EQ(0u, VTRegisterApplication(L"app1"));
    ExpectIds(L"App1\0app1\0\0"sv);
    Entries list;
    EXPECT_EQ(0u, VTGetRegisteredAppList(&list));
    EXPECT_TRUE(list == (Entries{L"App1", L"app1"}));
}

TEST_F(RegisterApplication, AnEmptyIdIsABadArgumentAndTakesNoMutex)
{
    const auto calls = CallsOf({L"CreateMutexW", L"RegCreateKeyW", L"FindFirstVolumeW"},
                               [] { EXPECT_EQ(static_cast<DWORD>(ERROR_BAD_ARGUMENTS), VTRegisterApplication(L"")); });
    ExpectCalls({}, calls);
    log.ExpectExactly(
        {{2, 0, L"RegisterApplication: Registering application "},
         {0, ERROR_BAD_ARGUMENTS,
          L"RegisterApplication: Application ID is empty !! Please register with valid application ID."}});
}

TEST_F(RegisterApplication, WorksOnAMachineWithoutFixedDisks)
{
    for (const Volume& volume : {first, second})
        VTFltSimSetDriveType(machine.handle(), volume.guid.c_str(), DRIVE_REMOVABLE);
    EXPECT_EQ(0u, VTRegisterApplication(L"App1"));
    ExpectIds(L"App1\0\0"sv);
    log.ExpectLogged(2, 0, L"ResetApplicationBitmaps: SUCCESS:: Bitmaps reset completed");
}

TEST_F(RegisterApplication, AVolumeThatGetsNoBitmapsGoesOnTheVerifyListAndCountsAsDone)
{
    vtfltsim::FailCall(L"CreateDirectoryW", NO_ACCESS, first.guid.c_str(), 1, 0);
    EXPECT_EQ(0u, VTRegisterApplication(L"App1"));
    ExpectStruck(2);
    EXPECT_TRUE(HasNoBitmaps(first, L"App1"));
    EXPECT_TRUE(AreFresh(second, L"App1"));
    ExpectIds(L"App1\0\0"sv);
    EXPECT_TRUE(VerifyList(L"App1") == Entries{first.guid});
}

} // namespace
