// apps register, unregister and clean where they would empty what is owed to somebody, or work beside a backup.
#include "tools/vtfltctl_mends.h"

#include "common/backup_locks.h"
#include "support/child.h"

namespace vtfltctl_test {
namespace {

using nlohmann::json;
using vtlog_test::Result;
using vtlog_test::Utf8;

using List = std::vector<std::wstring>;

class VtFltCtlRegistering : public VtFltCtlMendTest {
protected:
    [[nodiscard]] std::wstring LockOf(const std::wstring& application) const
    {
        return toolkit::LockNames(machine.directory()).Application(application);
    }
    [[nodiscard]] Result RunWith(const wchar_t* calls, std::vector<std::wstring> arguments) const
    {
        arguments.insert(arguments.end(), {L"--simulate", machine.directory()});
        return vtlog_test::Process(arguments, {std::wstring(VTFLTSIM_CALLS_VARIABLE L"=") + calls}, L"vtfltctl.exe")
            .Finish();
    }
};

TEST_F(VtFltCtlRegistering, AFirstBackupMustVerifyEveryFixedVolume)
{
    machine.AddVolume(1 << 20, 65536, nullptr, DRIVE_REMOVABLE);
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"register", L"Nightly"}).exitCode);
    EXPECT_EQ(List{volume.guid}, StoredList(VERIFY));
    EXPECT_EQ(EXIT_VERIFY_REQUIRED, Run({L"status"}).exitCode);
}

TEST_F(VtFltCtlRegistering, FilesOfALostRegistrationAreNotEmptiedUnmarked)
{
    Register(L"Nightly");
    DeleteValue(IDS_KEY, L"RegisteredAppIDs");
    EXPECT_NE(std::string::npos,
              ExpectRefusal({L"apps", L"register", L"Nightly"}, EXIT_REFUSED).find("2 bitmap files"));
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"register", L"Nightly", L"--yes"}).exitCode);
    EXPECT_EQ(List{volume.guid}, StoredList(VERIFY));
}

TEST_F(VtFltCtlRegistering, AListThatStaysBehindKeepsItsEntries)
{
    StoreList(VERIFY, {GONE, L"{48b5"});
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"register", L"Nightly"}).exitCode);
    EXPECT_EQ((List{L"{48b5", volume.guid, GONE}), StoredList(VERIFY));
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"unregister", L"Nightly", L"--yes"}).exitCode);
    StoreList(VERIFY, {GONE}, LISTS_KEY, REG_SZ);
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"register", L"Nightly"}).exitCode);
    EXPECT_EQ((List{volume.guid, GONE}), StoredList(VERIFY));
}

TEST_F(VtFltCtlRegistering, AnIdBehindTheEndOfTheListIsNotEmptied)
{
    Register(L"Weekly");
    Register(L"Nightly");
    // The library reads the first ID only, and finds the other in the bytes.
    StoreText(L"RegisteredAppIDs", std::wstring(L"Weekly\0Nightly\0", 15), IDS_KEY);
    ExpectRefusal({L"apps", L"register", L"Nightly", L"--yes"}, EXIT_UNREADABLE);
    ExpectRefusal({L"apps", L"register", L"Monthly"}, EXIT_UNREADABLE);
    ExpectRefusal({L"apps", L"unregister", L"Weekly", L"--yes"}, EXIT_UNREADABLE);
}

TEST_F(VtFltCtlRegistering, AnIdBesideTheOneWithItsVerifyListIsRefused)
{
    for (const wchar_t* other : {L"Nightly.Last", L"nightly.LAST"}) {
        StoreIds({other});
        EXPECT_NE(
            std::string::npos,
            ExpectRefusal({L"apps", L"register", L"Nightly"}, EXIT_REFUSED).find("pending list of the registered"));
    }
}

TEST_F(VtFltCtlRegistering, NobodyIsRegisteredOrUnregisteredBesideABackup)
{
    Register(L"Nightly");
    const toolkit::LockNames names(machine.directory());
    for (const std::wstring& lock : {names.Volume(volume.guid), names.Application(L"Nightly")}) {
        const vtflt::UniqueHandle backup(CreateMutexW(nullptr, TRUE, lock.c_str()));
        ASSERT_TRUE(backup.valid());
        ExpectRefusal({L"apps", L"unregister", L"Nightly", L"--yes"}, EXIT_BUSY);
        ReleaseMutex(backup.get());
    }
    {
        // Whosever backup it is: its manager does not serve an application that comes later.
        const vtflt::UniqueHandle backup(CreateMutexW(nullptr, TRUE, names.Volume(volume.guid).c_str()));
        ExpectRefusal({L"apps", L"register", L"Weekly"}, EXIT_BUSY);
        ReleaseMutex(backup.get());
    }
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"register", L"Weekly"}).exitCode);
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"unregister", L"Nightly", L"--yes"}).exitCode);
}

TEST_F(VtFltCtlRegistering, NoFileIsCleanedAwayBesideABackupOfItsOwner)
{
    Register(L"Nightly");
    const vtflt::UniqueHandle backup(CreateMutexW(nullptr, TRUE, LockOf(L"Nightly").c_str()));
    ExpectRefusal({L"apps", L"clean", L"Nightly", L"--yes"}, EXIT_BUSY);
    ReleaseMutex(backup.get());
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"clean", L"Nightly", L"--yes"}).exitCode);
}

TEST_F(VtFltCtlRegistering, CleaningDropsNoEntryOfTheOwnersList)
{
    Register(L"Nightly");
    const std::wstring part = volume.guid.substr(0, 5);
    StoreList(VERIFY, {part, GONE});
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"clean", L"Nightly", L"--yes"}).exitCode);
    EXPECT_EQ((List{part, volume.guid, GONE}), StoredList(VERIFY));
}

TEST_F(VtFltCtlRegistering, UnregisteringThatWouldDropAnEntryIsRefused)
{
    Register(L"Nightly");
    StoreList(VERIFY, {volume.guid.substr(0, 5), GONE});
    ExpectRefusal({L"apps", L"unregister", L"Nightly", L"--yes"}, EXIT_DAMAGED);
    StoreList(VERIFY, {L"x*", GONE});
    ExpectRefusal({L"apps", L"unregister", L"Nightly", L"--yes"}, EXIT_DAMAGED);
}

TEST_F(VtFltCtlRegistering, AnIdThatIsRegisteredMeanwhileIsLookedAt)
{
    vttest::Pause pause(L"VtFltCtlRegistering");
    vttest::ChildProcess child(L"vtfltctl", {L"apps", L"register", L"Nightly", L"--simulate", machine.directory()},
                               pause.Before(L"WaitForSingleObject", L"VTBitmapManager.AppicationMutex.Mutex", 1));
    ASSERT_TRUE(pause.AwaitReached(child));
    StoreIds({L"nightly"});
    pause.Go();
    EXPECT_EQ(EXIT_REFUSED, child.Join());
    EXPECT_TRUE(StoredList(VERIFY).empty());
}

TEST_F(VtFltCtlRegistering, FilesThatCannotBeLookedForAreNotTakenForGone)
{
    bool said = false;
    for (int walk = 1; walk <= 8; ++walk) {
        StoreIds({});
        StoreList(VERIFY, {});
        ASSERT_EQ(EXIT_OK, Run({L"apps", L"register", L"Nightly", L"--yes"}).exitCode);
        const std::wstring calls = L"fail|FindFirstVolumeW||" + std::to_wstring(walk) + L"|0|21";
        const Result result = RunWith(calls.c_str(), {L"apps", L"unregister", L"Nightly", L"--yes"});
        const bool registered = !StoredList(L"RegisteredAppIDs", IDS_KEY).empty();
        EXPECT_EQ(registered, result.exitCode == EXIT_DEVICE) << walk << result.out << result.err;
        EXPECT_TRUE(registered || result.exitCode == EXIT_OK || result.exitCode == EXIT_UNREADABLE) << walk;
        if (result.exitCode != EXIT_UNREADABLE)
            continue;
        said = true;
        EXPECT_NE(std::string::npos, result.err.find("whether its bitmap files are gone is not known")) << result.err;
    }
    EXPECT_TRUE(said);
}

TEST_F(VtFltCtlRegistering, AFileThatIsLeftByUnregisteringIsNoSuccess)
{
    Register(L"Nightly");
    const Result result =
        RunWith(L"fail|DeleteFileW|VelVolTrc_base_|1|1|32", {L"apps", L"unregister", L"Nightly", L"--yes"});
    EXPECT_EQ(EXIT_UNREADABLE, result.exitCode) << result.out;
    EXPECT_NE(std::string::npos, result.err.find("VelVolTrc_base_Nightly.dat")) << result.err;
    EXPECT_TRUE(StoredList(L"RegisteredAppIDs", IDS_KEY).empty());
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"clean", L"Nightly", L"--yes"}).exitCode);
}

} // namespace
} // namespace vtfltctl_test
