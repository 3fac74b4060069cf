// A repository that was damaged: a clear error, never a crash, never wrong contents.
#include "tools/vtbackup_test.h"

#include <random>

using namespace vtbackup_test;

namespace {

class VtBackupDamage : public VtBackupTest {
protected:
    void SetUp() override
    {
        ASSERT_EQ(EXIT_OK, Init().exitCode);
        ASSERT_EQ(EXIT_OK, Backup().exitCode);
        Write(20, 0x99);
        Write(21, 0);
        ASSERT_EQ(EXIT_OK, Backup().exitCode);
    }

    // Restores the latest backup; the contents are right, or the exit code says why there are none.
    void ExpectDamagedRestore() const
    {
        std::vector<std::wstring> arguments = Arguments(L"restore", L"App", &volume);
        arguments.insert(arguments.end(), {L"--to", repository + L".restored"});
        const Result result = Run(arguments);
        EXPECT_EQ(EXIT_DAMAGED, result.exitCode) << result.out;
        EXPECT_EQ("damaged", result.result);
        EXPECT_FALSE(Exists(repository + L".restored"));
        EXPECT_FALSE(Exists(repository + L".restored.partial"));
    }
};

TEST_F(VtBackupDamage, AWholeRepositoryIsGood)
{
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"--json", L"--repo", repository}).exitCode);
}

TEST_F(VtBackupDamage, EveryKindOfDamageIsFoundByVerifyAndStopsARestore)
{
    for (const wchar_t* name : {L"manifest.json", L"index.bin", L"data.bin"}) {
        for (const std::uint64_t sequence : {1U, 2U}) {
            const std::wstring path = BackupFile(sequence, name);
            const std::vector<std::uint8_t> good = ReadFileBytes(path);
            ASSERT_FALSE(good.empty());
            std::vector<std::vector<std::uint8_t>> damages(4, good);
            damages[0][good.size() / 2] ^= 0x01;
            damages[1].resize(good.size() / 2);
            damages[2].clear();
            damages[3].push_back(0);
            if (std::wstring(name) == L"manifest.json")
                damages[3] = std::vector<std::uint8_t>(2 * 1024 * 1024, '[');
            for (const auto& damage : damages) {
                WriteFileBytes(path, damage);
                EXPECT_EQ(EXIT_DAMAGED, Run({L"verify", L"--json", L"--repo", repository}).exitCode);
                if (sequence == 1 && std::wstring(name) == L"data.bin" && damage.size() == good.size())
                    continue; // the block may be one that the second backup replaced
                ExpectDamagedRestore();
            }
            WriteFileBytes(path, good);
        }
    }
}

TEST_F(VtBackupDamage, AMissingPartOfTheChainIsDamage)
{
    RemoveTree(BackupFile(1, L""));
    EXPECT_EQ(EXIT_DAMAGED, Run({L"verify", L"--json", L"--repo", repository}).exitCode);
    ExpectDamagedRestore();
}

TEST_F(VtBackupDamage, ABackupInAnotherOnesFolderIsDamage)
{
    for (const wchar_t* name : {L"manifest.json", L"index.bin", L"data.bin"})
        WriteFileBytes(BackupFile(2, name), ReadFileBytes(BackupFile(1, name)));
    EXPECT_EQ(EXIT_DAMAGED, Run({L"verify", L"--json", L"--repo", repository}).exitCode);
    ExpectDamagedRestore();
}

TEST_F(VtBackupDamage, AfterDamageTheNextBackupStandsAlone)
{
    for (const wchar_t* name : {L"manifest.json", L"index.bin"}) {
        std::vector<std::uint8_t> bytes = ReadFileBytes(BackupFile(1, name));
        bytes[bytes.size() / 2] ^= 0x40;
        WriteFileBytes(BackupFile(1, name), bytes);
    }
    Write(22, 0x98);
    const Result result = Backup();
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ("full", result.kind);
    EXPECT_TRUE(result.Has("chain-damaged"));
    EXPECT_TRUE(Contents() == Restored());
    Write(23, 0x97);
    EXPECT_EQ("incremental", Backup().kind);
    EXPECT_TRUE(Contents() == Restored());
}

// A parser's message quotes the text that it stumbled over, and the message becomes a reason in the next manifest.
TEST_F(VtBackupDamage, AnIllFormedByteInTheLastManifestDoesNotStandInTheWayOfBackups)
{
    std::vector<std::uint8_t> bytes = ReadFileBytes(BackupFile(2, L"manifest.json"));
    const std::string text(bytes.begin(), bytes.end());
    bytes[text.find("\"App\"") + 1] |= 0x80;
    WriteFileBytes(BackupFile(2, L"manifest.json"), bytes);
    const Result result = Backup();
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_TRUE(result.Has("chain-damaged"));
    EXPECT_EQ("incremental", Backup().kind);
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupDamage, ADeeplyNestedManifestIsDamage)
{
    const std::string text = "{\"manifest\":" + std::string(300000, '[') + std::string(300000, ']') + "}";
    WriteFileBytes(BackupFile(2, L"manifest.json"), {text.begin(), text.end()});
    EXPECT_EQ(EXIT_DAMAGED, Run({L"verify", L"--json", L"--repo", repository}).exitCode);
    EXPECT_EQ("full", Backup().kind);
}

TEST_F(VtBackupDamage, RandomBytesInIndexAndManifestNeverCrashAndNeverRestoreWrongContents)
{
    std::mt19937 random(1);
    const std::vector<std::uint8_t> right = Contents();
    for (int round = 0; round < 40; ++round) {
        const std::wstring path = BackupFile(1 + random() % 2, random() % 2 == 0 ? L"manifest.json" : L"index.bin");
        const std::vector<std::uint8_t> good = ReadFileBytes(path);
        std::vector<std::uint8_t> bad = good;
        for (unsigned i = 0; i <= random() % 4; ++i)
            bad[random() % bad.size()] = static_cast<std::uint8_t>(random());
        if (random() % 4 == 0)
            bad.resize(random() % bad.size());
        WriteFileBytes(path, bad);
        std::vector<std::wstring> arguments = Arguments(L"restore", L"App", &volume);
        arguments.insert(arguments.end(), {L"--to", repository + L".restored", L"--overwrite"});
        const Result result = Run(arguments);
        if (result.exitCode == EXIT_OK)
            EXPECT_TRUE(right == ReadFileBytes(repository + L".restored")) << "round " << round;
        else
            EXPECT_EQ(EXIT_DAMAGED, result.exitCode) << "round " << round << ": " << result.err;
        WriteFileBytes(path, good);
    }
    DeleteFileW((repository + L".restored").c_str());
}

TEST_F(VtBackupDamage, AManifestThatIsNestedWithoutEndIsDamage)
{
    std::string text = "{\"checksum\":\"\",\"manifest\":";
    text += std::string(500000, '[') + std::string(500000, ']') + "}";
    WriteFileBytes(BackupFile(2, L"manifest.json"), std::vector<std::uint8_t>(text.begin(), text.end()));
    EXPECT_EQ(EXIT_DAMAGED, Run({L"verify", L"--json", L"--repo", repository}).exitCode);
    EXPECT_EQ(EXIT_DAMAGED, Run({L"list", L"--json", L"--repo", repository}).exitCode);
    ExpectDamagedRestore();
    const Result result = Backup();
    EXPECT_EQ(EXIT_OK, result.exitCode);
    EXPECT_TRUE(result.Has("chain-damaged"));
}

// Quarantined, say, or not yet copied: whoever puts the file back has the backup again.
TEST_F(VtBackupDamage, ABackupThatLostItsManifestIsKeptAndCanBePutBack)
{
    Write(22, 0x96);
    ASSERT_EQ(3u, Backup().sequence);
    const std::vector<std::uint8_t> third = Contents();
    for (const std::uint64_t lost : {1U, 3U}) {
        const std::wstring manifest = BackupFile(lost, L"manifest.json");
        const std::vector<std::uint8_t> kept = ReadFileBytes(manifest);
        ASSERT_TRUE(DeleteFileW(manifest.c_str()));
        Write(23, static_cast<std::uint8_t>(lost));
        const Result next = Backup();
        EXPECT_EQ(EXIT_OK, next.exitCode) << next.err;
        EXPECT_TRUE(Contents() == Restored());
        for (const wchar_t* name : {L"index.bin", L"data.bin", L"reported"})
            EXPECT_TRUE(Exists(BackupFile(lost, name))) << lost;
        WriteFileBytes(manifest, kept);
        EXPECT_TRUE(third == Restored(3)) << lost;
        EXPECT_EQ(EXIT_OK, Run({L"verify", L"--json", L"--repo", repository}).exitCode);
        for (std::uint64_t later = 4; later <= next.sequence; ++later)
            RemoveTree(BackupFile(later, L""));
    }
}

// Of a backup that was not reported nothing but its place says that it was one.
TEST_F(VtBackupDamage, ABackupInTheMiddleOfItsChainThatLostItsManifestIsKept)
{
    ASSERT_TRUE(DeleteFileW(BackupFile(1, L"reported").c_str()));
    const std::wstring manifest = BackupFile(1, L"manifest.json");
    const std::vector<std::uint8_t> kept = ReadFileBytes(manifest);
    const std::vector<std::uint8_t> second = Contents();
    ASSERT_TRUE(DeleteFileW(manifest.c_str()));
    EXPECT_TRUE(Backup().Has("chain-damaged"));
    WriteFileBytes(manifest, kept);
    EXPECT_TRUE(second == Restored(2));
}

TEST_F(VtBackupDamage, TheLatestBackupWithoutItsManifestIsDamageAndNotAnOlderState)
{
    const std::vector<std::uint8_t> first = Restored(1);
    ASSERT_TRUE(DeleteFileW(BackupFile(2, L"manifest.json").c_str()));
    const std::wstring page = repository + L".html";
    for (const std::vector<std::wstring>& command :
         {std::vector<std::wstring>{L"verify"}, {L"list"}, {L"report", L"--html", page}}) {
        std::vector<std::wstring> arguments = {L"--json", L"--repo", repository};
        arguments.insert(arguments.begin(), command.begin(), command.end());
        const Result result = Run(arguments);
        EXPECT_EQ(EXIT_DAMAGED, result.exitCode) << result.out;
        EXPECT_NE(std::string::npos, result.err.find("00000002\\manifest.json is missing")) << result.err;
    }
    DeleteFileW(page.c_str());
    ExpectDamagedRestore();
    EXPECT_TRUE(first == Restored(1));
    const Result next = Backup();
    EXPECT_EQ("full", next.kind) << next.out;
    EXPECT_TRUE(next.Has("chain-damaged")) << next.out;
    EXPECT_EQ(3u, next.sequence);
    EXPECT_TRUE(Contents() == Restored());
    EXPECT_EQ("incremental", Backup().kind);
}

TEST_F(VtBackupDamage, AChainThatNoRestoreFindsIsDamage)
{
    std::wstring owner = BackupFile(1, L"");
    owner.resize(owner.rfind(L"\\{"));
    ASSERT_TRUE(MoveFileW(owner.c_str(), (owner + L"-copy").c_str()));
    for (const wchar_t* command : {L"verify", L"list"}) {
        const Result result = Run({command, L"--json", L"--repo", repository});
        EXPECT_EQ(EXIT_DAMAGED, result.exitCode) << result.out;
        EXPECT_NE(std::string::npos, result.err.find("no restore finds it there")) << result.err;
    }
    // The system does not tell these apart.
    std::wstring lower = owner;
    for (std::size_t i = owner.rfind(L'\\'); i < lower.size(); ++i)
        lower[i] = static_cast<wchar_t>(towlower(lower[i]));
    ASSERT_NE(owner, lower);
    ASSERT_TRUE(MoveFileW((owner + L"-copy").c_str(), lower.c_str()));
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"--json", L"--repo", repository}).exitCode);
}

TEST_F(VtBackupDamage, VerifySaysThatThereWasNothingToCheck)
{
    RemoveTree(repository + L"\\chains");
    const Result result = Run({L"verify", L"--json", L"--repo", repository});
    EXPECT_EQ(EXIT_OK, result.exitCode);
    for (const std::string& text : {result.message, result.err})
        EXPECT_NE(std::string::npos, text.find("holds no chain")) << text;
}

TEST_F(VtBackupDamage, ADamagedRepositoryFileIsDamage)
{
    WriteFileBytes(repository + L"\\repository.json", {'{', '}'});
    EXPECT_EQ(EXIT_DAMAGED, Run({L"list", L"--json", L"--repo", repository}).exitCode);
    EXPECT_EQ(EXIT_DAMAGED, Backup().exitCode);
}

} // namespace
