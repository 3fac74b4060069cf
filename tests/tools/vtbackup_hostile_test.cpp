// A repository in which somebody rewrote the files and made all checksums right again, and a device that answers
// nonsense: no change is lost, and nothing stands between a user and a new backup.
#include "tools/vtbackup_forgery.h"
#include "tools/vtbackup_test.h"

#include <winioctl.h>

#include <algorithm>

using namespace vtbackup_test;

namespace {

using nlohmann::json;

class VtBackupHostile : public VtBackupTest {
protected:
    void SetUp() override
    {
        ASSERT_EQ(EXIT_OK, Init().exitCode);
        ASSERT_EQ(EXIT_OK, Backup().exitCode);
        Write(20, 0x99);
        Write(21, 0x98);
        ASSERT_EQ(EXIT_OK, Backup().exitCode);
    }

    void ChangeManifest(std::uint64_t sequence, const std::function<void(json&)>& change) const
    {
        ForgeManifest(BackupFile(sequence, L"manifest.json"), change);
    }

    // The next backup stands alone, and the chain goes on from it.
    void ExpectAFullBackupAndThenAnIncrementalOne()
    {
        Write(22, 0x97);
        const Result result = Backup();
        EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
        EXPECT_EQ("full", result.kind);
        EXPECT_TRUE(result.Has("chain-damaged")) << result.out;
        EXPECT_TRUE(Contents() == Restored());
        Write(23, 0x96);
        EXPECT_EQ("incremental", Backup().kind);
        EXPECT_TRUE(Contents() == Restored());
    }
};

TEST_F(VtBackupHostile, ABackupThatClaimsNotToBeReportableWithoutSayingWhyIsNotGoneOnFrom)
{
    ChangeManifest(2, [](json& manifest) { manifest["reportable"] = false; });
    const Result result = Backup();
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ("verify", result.kind);
    EXPECT_TRUE(result.Has("changes-taken-elsewhere")) << result.out;
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupHostile, AManifestThatWasRewrittenIsNotTheOneWhoseSuccessWasReported)
{
    ChangeManifest(2, [](json& manifest) { manifest["time"] = "2001-01-01T00:00:00Z"; });
    const Result result = Backup();
    EXPECT_EQ("verify", result.kind);
    EXPECT_TRUE(result.Has("changes-taken-elsewhere")) << result.out;
}

TEST_F(VtBackupHostile, EndlessReasonsForTheNextBackupDoNotStandInItsWay)
{
    ChangeManifest(2, [](json& manifest) {
        for (int i = 0; i < 20000; ++i)
            manifest["next"].push_back({{"code", "x"}, {"text", "\x01"}});
    });
    const Result result = Backup();
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ("verify", result.kind);
    EXPECT_TRUE(Contents() == Restored());
    EXPECT_EQ("incremental", Backup().kind);
}

TEST_F(VtBackupHostile, AnEndlessTextInTheLastManifestDoesNotStandInTheWayOfTheNextBackup)
{
    ChangeManifest(2, [](json& manifest) {
        // As long as a manifest can be: with the message around it, it would not fit into another one.
        const std::size_t room = 1024 * 1024 - manifest.dump().size() - 100;
        manifest["application"] = std::string(room / 6, '\x01'); // \u0001
    });
    EXPECT_LE(ReadFileBytes(BackupFile(2, L"manifest.json")).size(), 1024u * 1024);
    ExpectAFullBackupAndThenAnIncrementalOne();
}

// Of the records, not only of their frame: found while a verify compares, it would end every verify.
TEST_F(VtBackupHostile, RecordsOutOfOrderAreDamageBeforeTheBackupBegins)
{
    const std::wstring path = BackupFile(2, L"index.bin");
    std::vector<std::uint8_t> index = ReadFileBytes(path);
    ASSERT_EQ(24u + 2 * 32 + 32, index.size());
    ASSERT_EQ(21u, index[56]);
    index[56] = 5; // the second record: behind block 20, which the first one is for
    const std::string checksum = ChecksumOf(index.data(), index.size() - 16);
    for (std::size_t i = 0; i < 16; ++i)
        index[index.size() - 16 + i] = static_cast<std::uint8_t>(std::stoi(checksum.substr(2 * i, 2), nullptr, 16));
    WriteFileBytes(path, index);
    ChangeManifest(2, [&](json& manifest) { manifest["indexChecksum"] = checksum; });
    vtfltsim::Check("lose", VTFltSimLoseTracking(machine.handle(), volume.guid.c_str())); // asks for a verify
    EXPECT_EQ(EXIT_DAMAGED, Run({L"verify", L"--json", L"--repo", repository}).exitCode);
    ExpectAFullBackupAndThenAnIncrementalOne();
}

// The last block was stored as long as it was, and the backup that says that the volume grew did not store it again.
TEST_F(VtBackupHostile, ALengthThatLeavesABlockHalfStoredIsDamageForVerifyAsForRestore)
{
    machine.Write(volume, 256ull * BLOCK, std::vector<std::uint8_t>(1000, 0xCC)); // the last block, which is shorter
    ASSERT_EQ(EXIT_OK, Backup().exitCode);
    ASSERT_EQ("incremental", Backup().kind);
    const std::wstring path = BackupFile(4, L"index.bin");
    std::vector<std::uint8_t> index = ReadFileBytes(path);
    ASSERT_EQ(24u + 32, index.size());
    const std::uint64_t length = LENGTH + BLOCK;
    for (std::size_t i = 0; i < 8; ++i)
        index[16 + i] = static_cast<std::uint8_t>(length >> (8 * i));
    const std::string checksum = ChecksumOf(index.data(), index.size() - 16);
    for (std::size_t i = 0; i < 16; ++i)
        index[index.size() - 16 + i] = static_cast<std::uint8_t>(std::stoi(checksum.substr(2 * i, 2), nullptr, 16));
    WriteFileBytes(path, index);
    ChangeManifest(4, [&](json& manifest) {
        manifest["indexChecksum"] = checksum;
        manifest["volumeLength"] = length;
    });
    std::vector<std::wstring> restore = Arguments(L"restore", L"App", &volume);
    restore.insert(restore.end(), {L"--to", repository + L".restored"});
    ASSERT_EQ(EXIT_DAMAGED, Run(restore).exitCode);
    const Result verify = Run({L"verify", L"--json", L"--repo", repository});
    EXPECT_EQ(EXIT_DAMAGED, verify.exitCode);
    EXPECT_NE(std::string::npos, verify.err.find("block 256 has a wrong length")) << verify.err;
}

TEST_F(VtBackupHostile, AFolderWithTheLastNumberThereIsLeavesNoNumberForABackupThatCouldBeReported)
{
    std::wstring folder = BackupFile(2, L"");
    folder.resize(folder.rfind(L"00000002"));
    folder += L"999999999999999999";
    ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
    WriteFileBytes(folder + L"\\manifest.json", {'{', '}'});
    Write(24, 0x95);
    const Result refused = Backup();
    EXPECT_EQ(EXIT_DAMAGED, refused.exitCode) << refused.out;
    EXPECT_NE(std::string::npos, refused.message.find("999999999999999999")) << refused.message;
    RemoveTree(folder);
    const Result next = Backup();
    EXPECT_EQ("incremental", next.kind);
    EXPECT_EQ(1u, next.blocksStored); // nothing was reported in between
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupHostile, ALengthThatNoFileCanHaveLeavesNothingOfTheRestoreBehind)
{
    ChangeManifest(2, [](json& manifest) { manifest["volumeLength"] = 1ULL << 62; });
    std::vector<std::wstring> arguments = Arguments(L"restore", L"App", &volume);
    arguments.insert(arguments.end(), {L"--to", repository + L".restored"});
    EXPECT_EQ(EXIT_REPOSITORY, Run(arguments).exitCode);
    EXPECT_FALSE(Exists(repository + L".restored"));
    EXPECT_FALSE(Exists(repository + L".restored.partial"));
}

TEST_F(VtBackupHostile, OneChainThatDoesNotSayWhoseItIsDoesNotHideTheOthers)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    ASSERT_EQ(EXIT_OK, Backup(L"Second").exitCode);
    std::wstring chain = BackupFile(1, L"");
    chain.resize(chain.rfind(L"00000001"));
    WriteFileBytes(chain + L"chain.json", {'[', ']'});
    for (const wchar_t* command : {L"list", L"verify"}) {
        const Result result = Run({command, L"--json", L"--repo", repository});
        EXPECT_EQ(EXIT_DAMAGED, result.exitCode);
        const json object = json::parse(result.out);
        ASSERT_EQ(1u, object.at("chains").size()) << result.out;
        EXPECT_EQ(1u, object.at("chains")[0].at("backups").size());
        ASSERT_EQ(1u, object.at("problems").size()) << result.out;
        EXPECT_NE(std::string::npos, object.at("problems")[0].get<std::string>().find("chain.json"));
    }
}

TEST_F(VtBackupHostile, WhatAManifestSaysDoesNotSteerTheTerminal)
{
    ChangeManifest(1, [](json& manifest) { manifest["time"] = "\x1B[2Jgone"; });
    ChangeManifest(2, [](json& manifest) { manifest["application"] = "\x1B[2Jgone"; });
    const Result result = Run({L"list", L"--repo", repository});
    EXPECT_EQ(EXIT_DAMAGED, result.exitCode);
    EXPECT_NE(std::string::npos, result.out.find("?[2Jgone")) << result.out;
    EXPECT_NE(std::string::npos, result.err.find("?[2Jgone")) << result.err;
    EXPECT_EQ(std::string::npos, (result.out + result.err).find('\x1B'));
}

TEST_F(VtBackupHostile, WhatAManifestSaysMakesNoLineOfItsOwn)
{
    ChangeManifest(1, [](json& manifest) {
        manifest["time"] = "\n     9  forged\xC2\x9B"
                           "2J\xE2\x80\xA8|";
    });
    ChangeManifest(2, [](json& manifest) { manifest["application"] = "\nvtbackup: forged\xC2\x85|"; });
    const Result result = Run({L"list", L"--repo", repository});
    EXPECT_EQ(EXIT_DAMAGED, result.exitCode);
    EXPECT_NE(std::string::npos, result.out.find("?     9  forged?2J?|")) << result.out;
    EXPECT_EQ(2, std::count(result.out.begin(), result.out.end(), '\n')) << "the chain and its first backup";
    EXPECT_NE(std::string::npos, result.err.find("?vtbackup: forged?|")) << result.err;
    EXPECT_EQ(1, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
}

TEST_F(VtBackupHostile, ARangeOfWrittenDataThatBeginsBeforeTheVolumeDoesNotEndTheCopy)
{
    const FILE_ALLOCATED_RANGE_BUFFER range = {{{0xFFFFF000u, -1}}, {{4096, 0}}};
    vtfltsim::Check("forge", VTFltSimForgeReply(machine.handle(), FSCTL_QUERY_ALLOCATED_RANGES, nullptr, 1, 0, &range,
                                                sizeof(range)));
    std::vector<std::wstring> arguments = Arguments(L"backup", L"App", &volume);
    arguments.push_back(L"--full");
    const Result result = Run(arguments);
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ(LENGTH, result.bytesRead);
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupHostile, AQuestionForWrittenRangesThatFailsWithoutAReasonIsNoAnswer)
{
    std::vector<std::wstring> arguments = Arguments(L"backup", L"App", &volume);
    arguments.push_back(L"--full");
    const Result result = Run(arguments, L"fail|DeviceIoControl|0x000940CF|1|0|0");
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ(LENGTH, result.bytesRead);
    EXPECT_TRUE(Contents() == Restored());
}

} // namespace
