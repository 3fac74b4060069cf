// Ending vtbackup anywhere: the next run goes on from there, and no change is lost.
#include "tools/vtbackup_test.h"

using namespace vtbackup_test;

namespace {

class VtBackupKill : public VtBackupTest, public testing::WithParamInterface<const wchar_t*> {
protected:
    void SetUp() override
    {
        ASSERT_EQ(EXIT_OK, Init().exitCode);
        ASSERT_EQ(EXIT_OK, Backup().exitCode);
    }

    unsigned DeleteLeftSnapshots() const
    {
        unsigned count = 0;
        VTFLTSIM_SNAPSHOT_INFO info = {};
        info.size = sizeof(info);
        for (; VTFltSimEnumSnapshot(machine.handle(), 0, &info) == 0; ++count)
            vtfltsim::Check("delete", VTFltSimDeleteSnapshot(machine.handle(), info.number));
        return count;
    }
};

// Kills the run at the 1st, 2nd, 3rd... call of a function, until a run comes to its end. Calls that happen often
// are passed in growing steps.
TEST_P(VtBackupKill, AtEveryCallTheNextRunLosesNothing)
{
    std::uint8_t value = 1;
    unsigned killed = 0;
    unsigned left = 0;
    for (unsigned nth = 1; nth < 1000; nth += 1 + nth / 6) {
        Write(70, value++);
        Write(71 + nth % 100, value);
        const std::wstring calls =
            std::wstring(nth % 2 == 0 ? L"kill-after|" : L"kill-before|") + GetParam() + L"||" + std::to_wstring(nth);
        const Result run = Backup(L"App", calls);
        if (run.exitCode == EXIT_OK) {
            EXPECT_GT(killed, 2u);
            // Only a run that ends between taking the snapshot and noting it leaves one for good.
            EXPECT_LE(left, 1u);
            EXPECT_TRUE(Contents() == Restored());
            return;
        }
        ASSERT_EQ(VTFLTSIM_KILLED, run.exitCode) << run.err;
        ++killed;
        Write(60, value); // life goes on before the next run
        const Result next = Backup();
        ASSERT_EQ(EXIT_OK, next.exitCode) << "after call " << nth << ": " << next.err;
        ASSERT_TRUE(Contents() == Restored()) << "after call " << nth;
        left += DeleteLeftSnapshots();
    }
    ADD_FAILURE() << "no run came to its end";
}

INSTANTIATE_TEST_SUITE_P(Calls, VtBackupKill,
                         testing::Values(L"WriteFile", L"MoveFileExW", L"DeviceIoControl", L"FlushFileBuffers",
                                         L"CreateFileW"));

class VtBackupKillOnce : public VtBackupTest {};

TEST_F(VtBackupKillOnce, ABackupWhoseSuccessWasNotReportedIsAskedAgain)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    ASSERT_EQ(EXIT_OK, Backup().exitCode);
    Write(33, 0x77);
    ASSERT_EQ(VTFLTSIM_KILLED, Backup(L"App", L"kill-after|MoveFileExW|manifest.json|1").exitCode);
    EXPECT_TRUE(Contents() == Restored(2)); // it counts
    const Result again = Backup();
    EXPECT_EQ("incremental", again.kind);
    EXPECT_EQ(3u, again.sequence);
    EXPECT_EQ(1u, again.blocksStored); // the same change, once more
    EXPECT_EQ(0u, Backup().blocksStored);
}

TEST_F(VtBackupKillOnce, AnUnfinishedBackupIsInvisibleAndItsFolderIsCleanedUp)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    ASSERT_EQ(EXIT_OK, Backup().exitCode);
    Write(33, 0x78);
    ASSERT_EQ(VTFLTSIM_KILLED, Backup(L"App", L"kill-before|MoveFileExW|manifest.json|1").exitCode);
    EXPECT_TRUE(Exists(BackupFile(2, L"data.bin")));
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"--json", L"--repo", repository}).exitCode);
    const Result next = Backup();
    EXPECT_EQ(2u, next.sequence);
    EXPECT_EQ("incremental", next.kind);
    EXPECT_TRUE(Contents() == Restored());
}

} // namespace
