// backup --audit: a driver that forgets writes and says nothing.
#include "tools/vtbackup_audit_fixture.h"

#include <algorithm>

using namespace vtbackup_test;

namespace {

using nlohmann::json;

constexpr std::uint64_t BLOCKS = 257;

TEST_F(VtBackupAudit, FindsAMissedWriteAndShowsIt)
{
    WriteUnseen(20, 0xEE);
    Write(30, 0x31);
    const Result result = Audit(1000);
    EXPECT_EQ(EXIT_LOST_TRACKING, result.exitCode) << result.err;
    ASSERT_TRUE(result.json) << result.out;
    EXPECT_EQ("lost-tracking", result.result);
    EXPECT_NE(std::string::npos, result.message.find("1 of 256 clean blocks")) << result.message;
    const json audit = AuditOf(result);
    EXPECT_EQ(256u, audit.at("clean"));
    EXPECT_EQ(256u, audit.at("compared"));
    EXPECT_EQ(1u, audit.at("differing"));
    EXPECT_EQ(true, audit.at("allMarked"));
    ASSERT_EQ(1u, audit.at("blocks").size());
    const json block = audit.at("blocks").at(0);
    EXPECT_EQ(20u, block.at("block"));
    EXPECT_EQ(20u * BLOCK, block.at("offset"));
    EXPECT_EQ(BLOCK, block.at("length"));
    EXPECT_EQ(1u, block.at("backup"));
    EXPECT_EQ(Stored(1, 20), block.at("expected"));
    EXPECT_EQ(audit, json::parse(ReadFileBytes(LossFile(2)))) << "the file has the same";

    EXPECT_TRUE(IsOnVerifyList(L"App"));
    EXPECT_FALSE(Exists(BackupFile(2, L"")));
    const Result next = Backup();
    EXPECT_EQ("verify", next.kind) << next.out;
    EXPECT_TRUE(next.Has("verify-required"));
    EXPECT_EQ(2u, next.sequence);
    EXPECT_EQ(block.at("found"), Stored(2, 20)) << "what the audit read is what the verify stored";
    EXPECT_TRUE(Contents() == Restored());
    EXPECT_FALSE(IsOnVerifyList(L"App"));
    EXPECT_EQ("incremental", Backup().kind);
}

TEST_F(VtBackupAudit, TheNextBackupIsAVerifyByTheEvidenceAlone)
{
    WriteUnseen(20, 0xEE);
    ASSERT_EQ(EXIT_LOST_TRACKING, Audit(1000).exitCode);
    ClearVerifyList(L"App");
    ExpectHealed("audit-found-loss");
}

TEST_F(VtBackupAudit, TheNextBackupIsAVerifyByTheMarkAlone)
{
    WriteUnseen(20, 0xEE);
    const Result result = Audit(1000, L"fail|MoveFileExW|lost-tracking|1|0|5");
    EXPECT_EQ(EXIT_LOST_TRACKING, result.exitCode) << result.err;
    EXPECT_NE(std::string::npos, result.message.find("The evidence could not be kept")) << result.message;
    EXPECT_FALSE(Exists(LossFile(2)));
    ExpectHealed("verify-required");
}

// Were nobody told, the changes that the bitmap does hold would still be there.
TEST_F(VtBackupAudit, ABackupThatTheAuditEndsForgetsNothing)
{
    WriteUnseen(20, 0xEE);
    Write(30, 0x31);
    ASSERT_EQ(EXIT_LOST_TRACKING, Audit(1000).exitCode);
    ClearVerifyList(L"App");
    DeleteFileW(LossFile(2).c_str());
    const Result next = Backup();
    EXPECT_EQ("incremental", next.kind) << next.out;
    EXPECT_EQ(1u, next.blocksStored);
    EXPECT_EQ(Stored(2, 30).size(), 32u);
    EXPECT_FALSE(Contents() == Restored()) << "block 20 should be missing, or this test shows nothing";
    EXPECT_EQ(EXIT_LOST_TRACKING, Audit(1000).exitCode); // an audit finds it as long as it is there
}

TEST_F(VtBackupAudit, FindsMissedWritesWhereNothingWasStoredAndWhereZerosAreNowAndInTheShortLastBlock)
{
    WriteUnseen(20, 0);     // stored, now zero
    WriteUnseen(200, 0x11); // never stored
    Forget(1);
    machine.Write(volume, 256ull * BLOCK + 999, {5});
    const Result result = Audit(1000);
    ASSERT_EQ(EXIT_LOST_TRACKING, result.exitCode) << result.err;
    const json blocks = AuditOf(result).at("blocks");
    ASSERT_EQ(3u, blocks.size());
    EXPECT_EQ(20u, blocks[0].at("block"));
    EXPECT_EQ("zero", blocks[0].at("found"));
    EXPECT_EQ(200u, blocks[1].at("block"));
    EXPECT_EQ("zero", blocks[1].at("expected"));
    EXPECT_EQ(0u, blocks[1].at("backup"));
    EXPECT_EQ(256u, blocks[2].at("block"));
    EXPECT_EQ(1000u, blocks[2].at("length"));
    ExpectHealed("audit-found-loss");
}

// The newest version counts, and whose it is.
TEST_F(VtBackupAudit, ComparesWithTheNewestVersionOfABlock)
{
    Write(20, 0x21);
    ASSERT_EQ(EXIT_OK, Backup().exitCode);
    Write(40, 0x22);
    EXPECT_EQ(EXIT_OK, Audit(1000).exitCode);
    WriteUnseen(20, 20); // what backup 1 has
    const Result result = Audit(1000);
    ASSERT_EQ(EXIT_LOST_TRACKING, result.exitCode) << result.err;
    const json block = AuditOf(result).at("blocks").at(0);
    EXPECT_EQ(2u, block.at("backup"));
    EXPECT_EQ(Stored(2, 20), block.at("expected"));
    EXPECT_EQ(Stored(1, 20), block.at("found"));
}

TEST_F(VtBackupAudit, ASampleIsAsLargeAsAskedForAndWithoutRepetition)
{
    Forget(VTFLTSIM_FORGET_ALL);
    for (std::uint64_t block = 0; block < BLOCKS - 1; ++block)
        Write(block, 0xDD);
    Forget(0);
    Write(256 - 1, 0xDC); // the only clean blocks that differ are the 255 before it
    const Result result = Audit(200);
    ASSERT_EQ(EXIT_LOST_TRACKING, result.exitCode) << result.err;
    const json audit = AuditOf(result);
    EXPECT_EQ(256u, audit.at("clean"));
    EXPECT_EQ(200u, audit.at("compared"));
    EXPECT_GE(audit.at("differing").get<int>(), 199); // the last block may be among them
    std::vector<std::uint64_t> numbers;
    for (const json& block : audit.at("blocks"))
        numbers.push_back(block.at("block"));
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
    EXPECT_TRUE(std::adjacent_find(numbers.begin(), numbers.end()) == numbers.end());
    EXPECT_TRUE(std::find(numbers.begin(), numbers.end(), 255u) == numbers.end());
}

// What is compared is the snapshot: a write behind it is neither in the bitmap nor in the comparison.
TEST_F(VtBackupAudit, AWriteBehindTheSnapshotIsNoLoss)
{
    const Result result = Audit(1000, {}, L"App");
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    std::vector<std::wstring> arguments = Arguments(L"backup", L"App", &volume);
    arguments.insert(arguments.end(), {L"--audit", L"1000"});
    Write(30, 0x11);
    const Result during = RunWith(arguments, L"DeviceIoControl|0xB0000002", [&](Process&) { Write(40, 0x22); });
    EXPECT_EQ(EXIT_OK, during.exitCode) << during.err;
    EXPECT_EQ(1u, during.blocksStored);
    EXPECT_EQ(256u, AuditOf(during).at("compared"));
}

// ---- somebody writes into the snapshot itself

TEST_F(VtBackupAudit, ABlockThatWasWrittenInTheSnapshotIsNoLoss)
{
    Write(30, 0x44);
    const Result result = AuditWith(L"DeviceIoControl|0xB0000002", [&](Process&) { Scribble(31); });
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ("incremental", result.kind);
    EXPECT_EQ("handed-back", result.snapshotChanges);
    const json audit = AuditOf(result);
    EXPECT_EQ(255u, audit.at("clean"));
    EXPECT_EQ(255u, audit.at("compared"));
    EXPECT_EQ(1u, audit.at("writtenInSnapshot"));
    EXPECT_EQ(
        "all 255 clean blocks were read again and none differs from the repository: up to this snapshot no change "
        "was missed in them; 1 more could not be compared, because somebody wrote into them in the snapshot "
        "itself",
        audit.at("text"));
    const json kept = {{"requested", 1000}, {"clean", 255}, {"compared", 255}, {"writtenInSnapshot", 1}};
    const json list = json::parse(Run(Arguments(L"list")).out);
    EXPECT_EQ(kept, list.at("chains").at(0).at("backups").at(1).at("audit")) << "the manifest keeps it";
    EXPECT_TRUE(Contents() == Restored());
    const Result next = Audit(1000);
    EXPECT_EQ(EXIT_OK, next.exitCode) << next.err;
    EXPECT_EQ(1u, next.blocksStored);
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupAudit, ABlockThatWasWrittenInTheSnapshotDuringTheAuditIsNoLoss)
{
    const Result result = AuditWith(L"ReadFile|HarddiskVolumeShadowCopy", [&](Process&) {
        Scribble(31);
        Scribble(40);
    });
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    const json audit = AuditOf(result);
    EXPECT_EQ(255u, audit.at("clean"));
    EXPECT_EQ(255u, audit.at("compared"));
    EXPECT_EQ(2u, audit.at("writtenInSnapshot"));
    EXPECT_EQ("handed-back", result.snapshotChanges);
    EXPECT_EQ(2u, Backup().blocksStored);
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupAudit, AMissedWriteIsFoundAmongBlocksThatWereWrittenInTheSnapshot)
{
    WriteUnseen(20, 0xEE);
    const Result result = AuditWith(L"ReadFile|HarddiskVolumeShadowCopy", [&](Process&) {
        Scribble(19);
        Scribble(31);
    });
    EXPECT_EQ(EXIT_LOST_TRACKING, result.exitCode) << result.err;
    const json audit = AuditOf(result);
    EXPECT_EQ(1u, audit.at("differing"));
    EXPECT_EQ(255u, audit.at("compared"));
    ASSERT_EQ(1u, audit.at("blocks").size());
    EXPECT_EQ(20u, audit.at("blocks").at(0).at("block"));
    EXPECT_EQ("", audit.at("doubt"));
    ExpectHealed("audit-found-loss");
}

// The driver was asked when the first difference was seen; what is written later is looked at when the audit ends.
TEST_F(VtBackupAudit, ABlockThatWasWrittenInTheSnapshotBehindTheFirstDifferenceIsNotCounted)
{
    WriteUnseen(20, 0xEE);
    WriteUnseen(21, 0xEF);
    Write(30, 0x31); // divides the clean blocks, which are read run by run
    const Result result = AuditWith(L"RegSetValueExW|ReSyncApp.Last", [&](Process&) { Scribble(31); });
    EXPECT_EQ(EXIT_LOST_TRACKING, result.exitCode) << result.err;
    const json audit = AuditOf(result);
    EXPECT_EQ(2u, audit.at("differing"));
    EXPECT_EQ(2u, audit.at("blocks").size());
    EXPECT_EQ(255u, audit.at("clean"));
    EXPECT_EQ(255u, audit.at("compared"));
}

TEST_F(VtBackupAudit, WithoutTheSnapshotsOwnMapThereIsNothingToCompare)
{
    WriteUnseen(20, 0xEE);
    const Result result = AuditWith(L"DeviceIoControl|0xB0000002", [&](Process&) { FailSnapshotMap(1); });
    EXPECT_EQ(EXIT_NOT_REPORTED, result.exitCode) << result.err;
    const std::string text = AuditOf(result).at("text");
    EXPECT_EQ(0u, text.find("nothing to compare: the snapshot's own changes could not be fetched: ")) << text;
    EXPECT_EQ(0u, AuditOf(result).at("compared"));
    EXPECT_FALSE(Exists(LossFile(2)));
    vtfltsim::Check("clear", VTFltSimClearFaults(machine.handle()));
    ExpectHealed("snapshot-changes-lost");
}

TEST_F(VtBackupAudit, AMapOfOtherBlocksIsNoMapToCompareBy)
{
    const DWORD other = 2 * BLOCK;
    const Result result = AuditWith(L"DeviceIoControl|0xB0000002", [&](Process&) {
        Scribble(31);
        vtfltsim::Check("forge", VTFltSimForgeReply(machine.handle(), GET_BLOCK_SIZE, SnapshotPath().c_str(), 1, 0,
                                                    &other, sizeof(other)));
    });
    EXPECT_EQ(EXIT_NOT_REPORTED, result.exitCode) << result.err;
    EXPECT_EQ("nothing to compare: the snapshot is tracked in blocks of another size than the volume",
              AuditOf(result).at("text"));
}

// Silence would cost data and a false alarm costs a verify.
TEST_F(VtBackupAudit, ADifferenceCountsWithItsDoubtWhenTheMapCannotBeFetchedAgain)
{
    const Result result = AuditWith(L"ReadFile|HarddiskVolumeShadowCopy", [&](Process&) {
        Scribble(31);
        FailSnapshotMap(1);
    });
    EXPECT_EQ(EXIT_LOST_TRACKING, result.exitCode) << result.err;
    EXPECT_NE(std::string::npos, result.message.find("Another cause cannot be excluded: ")) << result.message;
    EXPECT_NE("", AuditOf(result).at("doubt"));
}

TEST_F(VtBackupAudit, WhereSnapshotsAreNotTrackedADifferenceCountsWithItsDoubt)
{
    machine.SetFilters({}, SNAPSHOT_CLASS);
    EXPECT_EQ(EXIT_OK, Audit(1000).exitCode);
    WriteUnseen(20, 0xEE);
    const Result result = Audit(1000);
    EXPECT_EQ(EXIT_LOST_TRACKING, result.exitCode) << result.err;
    EXPECT_EQ("snapshots are not tracked on this machine, and somebody may have written into this one",
              AuditOf(result).at("doubt"));
}

// ---- a clean audit

TEST_F(VtBackupAudit, ACleanAuditSaysWhatItBounds)
{
    Write(30, 0x31);
    const Result result = Audit(100);
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ("incremental", result.kind);
    EXPECT_EQ(1u, result.blocksStored);
    const json audit = AuditOf(result);
    EXPECT_EQ("100 of 256 clean blocks were read again and none differs from the repository: with 95 % confidence at "
              "most 2.95 % of the clean blocks (about 3/100), 7 blocks or 28.0 KiB, hold a change that was missed",
              audit.at("text"));
    EXPECT_EQ(7u, audit.at("missedBlocks"));
    EXPECT_EQ(7u * BLOCK, audit.at("missedBytes"));
    EXPECT_NEAR(0.02951, audit.at("missedFraction").get<double>(), 0.00001);
    const json kept = {{"requested", 100}, {"clean", 256}, {"compared", 100}};
    EXPECT_EQ(kept, json::parse(result.out).at("backup").at("audit"));
    const json list = json::parse(Run(Arguments(L"list")).out);
    EXPECT_EQ(kept, list.at("chains").at(0).at("backups").at(1).at("audit")) << "the manifest keeps it";
    EXPECT_TRUE(Contents() == Restored());
    std::vector<std::wstring> verify = Arguments(L"verify");
    EXPECT_EQ(EXIT_OK, Run(verify).exitCode);
}

TEST_F(VtBackupAudit, WithoutJsonTheSentenceIsALineOfTheResult)
{
    const Result result = Run({L"backup", L"--app", L"App", L"--repo", repository, L"--simulate", machine.directory(),
                               L"--volume", volume.guid, L"--audit", L"1000"});
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_NE(std::string::npos,
              result.out.find("  audit: all 257 clean blocks were read again and none differs from the repository: up "
                              "to this snapshot no change was missed"))
        << result.out;
}

TEST_F(VtBackupAudit, WithoutJsonALossIsListedBlockByBlock)
{
    WriteUnseen(20, 0xEE);
    const Result result = Run({L"backup", L"--app", L"App", L"--repo", repository, L"--simulate", machine.directory(),
                               L"--volume", volume.guid, L"--audit", L"1000"});
    EXPECT_EQ(EXIT_LOST_TRACKING, result.exitCode);
    EXPECT_NE(std::string::npos,
              result.out.find("block 20 (offset 81920, 4096 bytes): expected " + Stored(1, 20) + " (backup 1), found "))
        << result.out;
    EXPECT_NE(std::string::npos, result.err.find("lost tracking: 1 of 257 clean blocks")) << result.err;
    const Result list = Run({L"list", L"--repo", repository, L"--simulate", machine.directory()});
    EXPECT_NE(std::string::npos, list.out.find("lost tracking was found before backup 2")) << list.out;
}

TEST_F(VtBackupAudit, ABackupThatReadsEverythingHasNothingToCompare)
{
    for (const wchar_t* kind : {L"--full", L"--verify"}) {
        WriteUnseen(20, static_cast<std::uint8_t>(kind[2])); // this backup takes it
        const Result result = Audit(1000, {}, L"App", {kind});
        EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
        const json audit = AuditOf(result);
        EXPECT_EQ(0u, audit.at("compared"));
        EXPECT_EQ("nothing to compare: a " + result.kind +
                      " backup reads the whole volume, so no block counts as clean",
                  audit.at("text"));
        EXPECT_TRUE(Contents() == Restored());
    }
}

TEST_F(VtBackupAudit, ABitmapOfAllBlocksLeavesNothingToCompare)
{
    machine.Write(volume, 0, std::vector<std::uint8_t>(LENGTH, 0x3C));
    const Result result = Audit(5);
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ("nothing to compare: the bitmap reports every block as changed", AuditOf(result).at("text"));
}

// ---- ends on the way

TEST_F(VtBackupAudit, ARunThatIsKilledBetweenEvidenceAndMarksLeavesBothToTheNext)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    ASSERT_EQ(EXIT_OK, Backup(L"Second").exitCode);
    WriteUnseen(20, 0xEE);
    ASSERT_EQ(VTFLTSIM_KILLED, Audit(1000, L"kill-before|RegSetValueExW|ReSyncApp.Last|1").exitCode);
    EXPECT_FALSE(IsOnVerifyList(L"App"));
    EXPECT_FALSE(IsOnVerifyList(L"Second"));
    ExpectHealed("audit-found-loss");
    ExpectHealed("verify-required", L"Second");
}

// The evidence stands with the first difference, long before the end of a long audit.
TEST_F(VtBackupAudit, AFailureBehindTheFirstDifferenceDoesNotHideIt)
{
    WriteUnseen(20, 0xEE);
    Write(30, 0x31); // divides the clean blocks, which are read run by run
    const std::wstring secondRead = L"fail|ReadFile|HarddiskVolumeShadowCopy|2|1|1117";
    const Result result = Audit(1000, secondRead);
    EXPECT_EQ(EXIT_LOST_TRACKING, result.exitCode) << result.err;
    EXPECT_NE("", AuditOf(result).at("endedEarly"));
    EXPECT_EQ(30u, AuditOf(result).at("compared"));
    ExpectHealed("audit-found-loss");
    Write(30, 0x32);
    EXPECT_EQ(EXIT_DEVICE, Audit(1000, secondRead).exitCode) << "nothing was found before it";
    EXPECT_EQ(EXIT_OK, Audit(1000).exitCode);
    EXPECT_TRUE(Contents() == Restored());
}

} // namespace
