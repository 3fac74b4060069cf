// The end of a backup: what is written, noted and reported, and every step of it failing. The changes come again until
// their success is reported.
#include "tools/vtbackup_test.h"

using namespace vtbackup_test;

namespace {

class VtBackupReport : public VtBackupTest {
protected:
    void SetUp() override
    {
        ASSERT_EQ(EXIT_OK, Init().exitCode);
        ASSERT_EQ(EXIT_OK, Backup().exitCode);
        Write(33, 0x77);
    }

    // The change of block 33 is in the next backup, too, which goes on from the chain's last one.
    void ExpectTheChangeOnceMore(std::uint64_t sequence)
    {
        Write(34, 0x78);
        const Result again = Backup();
        EXPECT_EQ(EXIT_OK, again.exitCode) << again.err;
        EXPECT_EQ("incremental", again.kind) << again.out;
        EXPECT_EQ(sequence, again.sequence);
        EXPECT_EQ(2u, again.blocksStored);
        EXPECT_TRUE(Contents() == Restored());
        EXPECT_EQ(0u, Backup().blocksStored);
    }
};

TEST_F(VtBackupReport, AManifestThatCannotBeNamedLeavesNoBackup)
{
    const Result result = Backup(L"App", L"fail|MoveFileExW|manifest.json|1|1|5");
    EXPECT_EQ(EXIT_REPOSITORY, result.exitCode) << result.out;
    EXPECT_FALSE(Exists(BackupFile(2, L"")));
    ExpectTheChangeOnceMore(2);
}

TEST_F(VtBackupReport, ABackupThatCannotBeNotedOnTheMachineIsNotMade)
{
    const Result result = Backup(L"App", L"fail|MoveFileExW|.success.json|1|1|5");
    EXPECT_EQ(EXIT_REPOSITORY, result.exitCode) << result.out;
    EXPECT_FALSE(Exists(BackupFile(2, L"")));
    ExpectTheChangeOnceMore(2);
}

TEST_F(VtBackupReport, ABackupWhoseSecondNoteFailsIsStoredAndNotReported)
{
    const Result result = Backup(L"App", L"fail|MoveFileExW|.success.json|2|1|5");
    EXPECT_EQ(EXIT_NOT_REPORTED, result.exitCode) << result.out;
    EXPECT_EQ(2u, result.sequence);
    EXPECT_FALSE(result.reported);
    EXPECT_FALSE(Exists(BackupFile(2, L"reported")));
    EXPECT_TRUE(Contents() == Restored(2));
    ExpectTheChangeOnceMore(3);
}

TEST_F(VtBackupReport, AReportThatFailsKeepsTheChanges)
{
    // The fetch writes the base bitmap (in two calls), the report clears it.
    const Result result = Backup(L"App", L"fail|WriteFile|VelVolTrc_base_|3|1|112");
    EXPECT_EQ(EXIT_NOT_REPORTED, result.exitCode) << result.out;
    EXPECT_NE(std::string::npos, result.message.find("VTFltReplicationSuccess")) << result.message;
    EXPECT_FALSE(result.reported);
    EXPECT_FALSE(Exists(BackupFile(2, L"reported")));
    Write(34, 0x78);
    const Result again = Backup();
    EXPECT_EQ(EXIT_OK, again.exitCode) << again.err;
    EXPECT_TRUE(Contents() == Restored());
    EXPECT_EQ("incremental", Backup().kind);
}

// Not reported, and then the repository is put back to the backup before: its changes are still there.
TEST_F(VtBackupReport, ABackupThatWasNotReportedMayBeTakenAwayAgain)
{
    ASSERT_EQ(EXIT_NOT_REPORTED, Backup(L"App", L"fail|MoveFileExW|.success.json|2|1|5").exitCode);
    RemoveTree(BackupFile(2, L""));
    ExpectTheChangeOnceMore(2);
}

// Reported, and then put back: the bitmaps have forgotten.
TEST_F(VtBackupReport, ABackupWhoseReportFailedMayNotBeTakenAwayAgain)
{
    ASSERT_EQ(EXIT_NOT_REPORTED, Backup(L"App", L"fail|WriteFile|VelVolTrc_base_|3|1|112").exitCode);
    RemoveTree(BackupFile(2, L""));
    const Result again = Backup();
    EXPECT_EQ("verify", again.kind) << again.out;
    EXPECT_TRUE(again.Has("changes-taken-elsewhere"));
    EXPECT_TRUE(Contents() == Restored());
}

// The lists of volumes to verify are searched for the spelling of enumeration, and registering empties the bitmaps of
// the volumes that it shows.
TEST_F(VtBackupReport, AVolumeThatTheSystemDoesNotListIsNotBackedUp)
{
    const std::vector<std::uint8_t> stored = Restored();
    vtfltsim::Check("name", VTFltSimSetEnumerationName(machine.handle(), volume.guid.c_str(), L"\\\\?\\Elsewhere\\"));
    const Result result = Backup();
    EXPECT_EQ(EXIT_NOT_FOUND, result.exitCode) << result.out;
    EXPECT_FALSE(Exists(BackupFile(2, L"")));
    EXPECT_TRUE(stored == Restored()); // what there is can be had by the volume's name
}

} // namespace
