// backup --audit: a driver that forgets writes and says nothing.
#include "tools/vtbackup_test.h"

#include "vtfltsim/VTFltSimForget.h"

#include <nlohmann/json.hpp>

#include <algorithm>

using namespace vtbackup_test;

namespace {

using nlohmann::json;

constexpr DWORD EXIT_LOST_TRACKING = 12;
constexpr DWORD EXIT_NOT_MARKED = 13;
constexpr const wchar_t* SERVICE_KEY = L"SYSTEM\\CurrentControlSet\\Services\\VTFlt";
constexpr std::uint64_t BLOCKS = 257;
constexpr DWORD GET_BLOCK_SIZE = 0xB0000006;

class VtBackupAudit : public VtBackupTest {
protected:
    void SetUp() override
    {
        ASSERT_EQ(EXIT_OK, Init().exitCode);
        ASSERT_EQ(EXIT_OK, Backup().exitCode);
    }

    Result Audit(std::uint64_t count, const std::wstring& calls = {}, const wchar_t* application = L"App",
                 const std::vector<std::wstring>& more = {}) const
    {
        std::vector<std::wstring> arguments = Arguments(L"backup", application, &volume);
        arguments.insert(arguments.end(), {L"--audit", std::to_wstring(count)});
        arguments.insert(arguments.end(), more.begin(), more.end());
        return Run(arguments, calls);
    }

    // The same up to a call, and there something else.
    Result AuditWith(const std::wstring& call, const std::function<void(Process&)>& meanwhile) const
    {
        std::vector<std::wstring> arguments = Arguments(L"backup", L"App", &volume);
        arguments.insert(arguments.end(), {L"--audit", L"1000"});
        return RunWith(arguments, call, meanwhile);
    }

    // Writes a block of the snapshot itself, which its tracking sees.
    void Scribble(std::uint64_t block) const
    {
        const std::vector<std::uint8_t> bytes(BLOCK, 0x55);
        vtfltsim::Check("scribble", VTFltSimWriteSnapshot(machine.handle(), OnlySnapshot(), block * BLOCK, bytes.data(),
                                                          static_cast<DWORD>(bytes.size())));
    }
    std::wstring SnapshotPath() const
    {
        VTFLTSIM_SNAPSHOT_INFO info = {};
        info.size = sizeof(info);
        vtfltsim::Check("info", VTFltSimGetSnapshotInfo(machine.handle(), OnlySnapshot(), &info));
        return info.devicePath;
    }
    // From the nth request on, the snapshot's own map cannot be had.
    void FailSnapshotMap(DWORD nth)
    {
        vtfltsim::Check("fail",
                        VTFltSimFailRequest(machine.handle(), GET_BITMAP, SnapshotPath().c_str(), nth, 0, ERROR_CRC));
    }

    void Forget(DWORD writes)
    {
        vtfltsim::Check("forget", VTFltSimForgetWrites(machine.handle(), volume.guid.c_str(), writes));
    }
    // A write that the driver does not see.
    void WriteUnseen(std::uint64_t block, std::uint8_t value)
    {
        Forget(1);
        Write(block, value);
    }

    static json AuditOf(const Result& result) { return json::parse(result.out).at("audit"); }

    // The checksum that an index file has for a block.
    std::string Stored(std::uint64_t sequence, std::uint64_t block) const
    {
        const std::vector<std::uint8_t> index = ReadFileBytes(BackupFile(sequence, L"index.bin"));
        for (std::size_t place = 24; place + 64 <= index.size(); place += 32) {
            std::uint64_t number = 0;
            for (int i = 7; i >= 0; --i)
                number = number * 256 + index[place + static_cast<std::size_t>(i)];
            if (number != block)
                continue;
            std::string text;
            for (std::size_t i = place + 16; i < place + 32; ++i) {
                text += "0123456789abcdef"[index[i] / 16];
                text += "0123456789abcdef"[index[i] % 16];
            }
            return text;
        }
        return "no record";
    }

    bool IsOnVerifyList(const std::wstring& application) const
    {
        const std::vector<std::uint8_t> value =
            machine.ReadValue(SERVICE_KEY, L"DeviceListForReSync" + application + L".Last");
        const std::wstring list(reinterpret_cast<const wchar_t*>(value.data()), value.size() / sizeof(wchar_t));
        return list.find(volume.guid) != std::wstring::npos;
    }
    void ClearVerifyList(const std::wstring& application)
    {
        HKEY key = nullptr;
        vtfltsim::Check("key", VTFltSimOpenKey(machine.handle(), SERVICE_KEY, KEY_WRITE, &key));
        RegDeleteValueW(key, (L"DeviceListForReSync" + application + L".Last").c_str());
        RegCloseKey(key);
    }

    std::wstring LossFile(int sequence) const
    {
        const std::wstring first = BackupFile(1, L"");
        return first.substr(0, first.size() - 9) + L"lost-tracking-0000000" + std::to_wstring(sequence) + L".json";
    }

    // The next backup reads everything, says why, and holds what the volume holds; the one after it is incremental.
    void ExpectHealed(const char* reason, const wchar_t* application = L"App") const
    {
        const Result next = Backup(application);
        EXPECT_EQ(EXIT_OK, next.exitCode) << next.err;
        EXPECT_EQ("verify", next.kind) << next.out;
        EXPECT_TRUE(next.Has(reason)) << next.out;
        EXPECT_TRUE(Contents() == Restored(0, application));
        EXPECT_FALSE(IsOnVerifyList(application));
        EXPECT_EQ("incremental", Backup(application).kind);
    }
};

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
    machine.SetFilters({}, L"System\\CurrentControlSet\\Control\\Class\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}");
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

// ---- everybody is told

TEST_F(VtBackupAudit, EveryApplicationOfTheMachineIsTold)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    ASSERT_EQ(EXIT_OK, Backup(L"Second").exitCode);
    WriteUnseen(20, 0xEE);
    const Result result = Audit(1000);
    EXPECT_EQ(EXIT_LOST_TRACKING, result.exitCode) << result.err;
    EXPECT_EQ(json::array({"App", "Second"}), AuditOf(result).at("marked"));
    EXPECT_TRUE(IsOnVerifyList(L"Second"));
    ExpectHealed("verify-required", L"Second");
    ExpectHealed("audit-found-loss");
    EXPECT_FALSE(IsOnVerifyList(L"Second")) << "it was told once";
}

TEST_F(VtBackupAudit, AMarkThatCannotBeSetIsSaidPlainlyAndSetByTheNextBackup)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    ASSERT_EQ(EXIT_OK, Backup(L"Second").exitCode);
    WriteUnseen(20, 0xEE);
    const std::wstring denied = L"fail|RegSetValueExW|DeviceListForReSyncSecond.Last|1|0|5";
    const Result result = Audit(1000, denied);
    EXPECT_EQ(EXIT_NOT_MARKED, result.exitCode) << result.err;
    EXPECT_EQ("not-marked", result.result);
    EXPECT_NE(std::string::npos, result.message.find("NOT MARKED: application \"Second\": VTAddVolumesToAppVerifyList"))
        << result.message;
    EXPECT_EQ(json::array({"App"}), AuditOf(result).at("marked"));
    EXPECT_TRUE(IsOnVerifyList(L"App"));
    EXPECT_FALSE(IsOnVerifyList(L"Second"));

    const Result still = Backup(L"App", denied);
    EXPECT_EQ(EXIT_NOT_MARKED, still.exitCode) << still.err;
    EXPECT_EQ("verify", still.kind) << still.out;
    EXPECT_TRUE(still.reported);
    EXPECT_NE(std::string::npos, still.err.find("Second")) << still.err;
    EXPECT_TRUE(Contents() == Restored());

    const Result now = Backup();
    EXPECT_EQ(EXIT_OK, now.exitCode) << now.err;
    EXPECT_EQ("incremental", now.kind);
    EXPECT_TRUE(IsOnVerifyList(L"Second"));
    EXPECT_FALSE(IsOnVerifyList(L"App"));
    ExpectHealed("verify-required", L"Second");
}

TEST_F(VtBackupAudit, ItsOwnMarkThatCannotBeSetIsMadeUpForByTheEvidence)
{
    WriteUnseen(20, 0xEE);
    const Result result = Audit(1000, L"fail|RegSetValueExW|DeviceListForReSyncApp.Last|1|0|5");
    EXPECT_EQ(EXIT_NOT_MARKED, result.exitCode) << result.err;
    EXPECT_FALSE(IsOnVerifyList(L"App"));
    ExpectHealed("audit-found-loss");
}

TEST_F(VtBackupAudit, AnApplicationThatIsInABackupIsToldAgain)
{
    const vtfltsim::Volume other = machine.AddVolume(65536, BLOCK);
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    ASSERT_EQ(EXIT_OK, Backup(L"Second").exitCode);
    WriteUnseen(20, 0xEE);
    const Result second =
        RunWith(Arguments(L"backup", L"Second", &other), L"DeviceIoControl|0xB0000002", [&](Process&) {
            const Result result = Audit(1000);
            EXPECT_EQ(EXIT_NOT_MARKED, result.exitCode) << result.err;
            EXPECT_NE(std::string::npos, result.message.find("may be taken off again")) << result.message;
            EXPECT_TRUE(IsOnVerifyList(L"Second"));
            ClearVerifyList(L"Second"); // as that backup may, when it ends
        });
    EXPECT_EQ(EXIT_OK, second.exitCode) << second.err;
    ExpectHealed("audit-found-loss");
    EXPECT_TRUE(IsOnVerifyList(L"Second"));
    ExpectHealed("verify-required", L"Second");
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

TEST_F(VtBackupAudit, DamagedEvidenceIsTakenForALossOfWhichNobodyKnows)
{
    WriteUnseen(20, 0xEE);
    ASSERT_EQ(EXIT_LOST_TRACKING, Audit(1000).exitCode);
    ClearVerifyList(L"App");
    const std::string deep(100000, '[');
    WriteFileBytes(LossFile(2), {deep.begin(), deep.end()});
    const Result list = Run(Arguments(L"list"));
    EXPECT_EQ(2u, json::parse(list.out).at("chains").at(0).at("lostTracking").at(0).at("backup"));
    ExpectHealed("verify-required");
    EXPECT_EQ("incremental", Backup().kind);
}

} // namespace
