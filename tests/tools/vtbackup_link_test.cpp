// Links inside of a repository: what they lead to belongs to somebody else.
#include "support/start_again.h"
#include "tools/vtbackup_test.h"

#include "../../tools/vtbackup/folder_link.h"

#include <memory>
#include <stdexcept>

using namespace vtbackup_test;

namespace {

// A link to a folder. Wine takes a symbolic link of the system below it for one, and makes none itself.
class FolderLink {
public:
    FolderLink(std::wstring path, const std::wstring& target) : m_path(std::move(path))
    {
        if (OnWine())
            Run(L"Z:\\bin\\ln -s -T \"" + UnixName(target) + L"\" \"" + UnixName(m_path) + L"\"");
        else
            Run(L"cmd.exe /c mklink /J \"" + m_path + L"\" \"" + target + L"\"");
        Await(true);
    }
    ~FolderLink()
    {
        if (OnWine())
            Run(L"Z:\\bin\\rm \"" + UnixName(m_path) + L"\"");
        else
            RemoveDirectoryW(m_path.c_str());
        Await(false);
    }
    FolderLink(const FolderLink&) = delete;
    FolderLink& operator=(const FolderLink&) = delete;

private:
    using GetUnixName = char*(__cdecl*)(LPCWSTR);
    static GetUnixName OnWine()
    {
        const HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
        return reinterpret_cast<GetUnixName>(
            reinterpret_cast<void*>(GetProcAddress(kernel, "wine_get_unix_file_name")));
    }
    // Of a path whose folder is there; its last part need not be.
    static std::wstring UnixName(const std::wstring& path)
    {
        const std::size_t slash = path.rfind(L'\\');
        const std::unique_ptr<char, void (*)(char*)> name(OnWine()(path.substr(0, slash).c_str()),
                                                          [](char* text) { HeapFree(GetProcessHeap(), 0, text); });
        const std::string folder = name ? name.get() : "";
        return std::wstring(folder.begin(), folder.end()) + L"/" + path.substr(slash + 1);
    }
    static void Run(std::wstring command)
    {
        STARTUPINFOW start = {};
        start.cb = sizeof(start);
        PROCESS_INFORMATION process = {};
        const bool started = vttest::StartAgain([&] {
            return CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &start,
                                  &process);
        });
        if (!started)
            throw std::runtime_error("the command for a link does not start");
        WaitForSingleObject(process.hProcess, INFINITE);
        CloseHandle(process.hProcess);
        CloseHandle(process.hThread);
    }
    // Programs of the system below Wine are not waited for.
    void Await(bool there) const
    {
        while (Exists(m_path) != there)
            Sleep(10);
    }

    std::wstring m_path;
};

class VtBackupLink : public VtBackupTest {
protected:
    void SetUp() override
    {
        ASSERT_EQ(EXIT_OK, Init().exitCode);
        ASSERT_EQ(EXIT_OK, Backup().exitCode);
        ASSERT_TRUE(CreateDirectoryW(elsewhere.c_str(), nullptr));
        for (const wchar_t* name : FILES)
            WriteFileBytes(elsewhere + name, {1});
    }
    void TearDown() override
    {
        link.reset();
        RemoveTree(elsewhere);
    }
    void Link(const std::wstring& path) { link = std::make_unique<FolderLink>(path, elsewhere); }
    [[nodiscard]] std::wstring Folder(std::uint64_t sequence) const
    {
        const std::wstring folder = BackupFile(sequence, L"");
        return folder.substr(0, folder.size() - 1);
    }
    void ExpectAllElsewhere() const
    {
        for (const wchar_t* name : FILES)
            EXPECT_TRUE(Exists(elsewhere + name));
    }

    static constexpr const wchar_t* FILES[] = {L"\\data.bin", L"\\letters.txt"};
    const std::wstring elsewhere = repository + L".elsewhere";
    std::unique_ptr<FolderLink> link;
};

TEST_F(VtBackupLink, WithABackupsNameItIsNoUnfinishedBackup)
{
    Link(Folder(5));
    Write(20, 0x21);
    const Result result = Backup();
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ("incremental", result.kind);
    EXPECT_EQ(6u, result.sequence) << "its name is taken";
    ExpectAllElsewhere();
    EXPECT_TRUE(Exists(Folder(5)));
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupLink, ToAFolderWithAManifestItIsNoBackup)
{
    WriteFileBytes(elsewhere + L"\\manifest.json", ReadFileBytes(BackupFile(1, L"manifest.json")));
    Link(Folder(2));
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"--json", L"--repo", repository}).exitCode);
    EXPECT_EQ("incremental", Backup().kind);
}

TEST_F(VtBackupLink, AnUnfinishedBackupKeepsFilesThatAreNotTheBackups)
{
    ASSERT_TRUE(CreateDirectoryW(Folder(2).c_str(), nullptr));
    WriteFileBytes(BackupFile(2, L"data.bin"), {1});
    WriteFileBytes(BackupFile(2, L"letters.txt"), {1});
    const Result result = Backup();
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ(3u, result.sequence);
    EXPECT_FALSE(Exists(BackupFile(2, L"data.bin")));
    EXPECT_TRUE(Exists(BackupFile(2, L"letters.txt")));
}

TEST_F(VtBackupLink, ItLeadsToNoChain)
{
    const std::wstring chain = Folder(1).substr(0, Folder(1).rfind(L'\\'));
    ASSERT_TRUE(MoveFileW(chain.c_str(), (elsewhere + L"\\chain").c_str()));
    link = std::make_unique<FolderLink>(chain, elsewhere + L"\\chain");
    const Result result = Backup();
    EXPECT_EQ(EXIT_REPOSITORY, result.exitCode) << result.out;
    EXPECT_NE(std::string::npos, result.message.find("leads to another folder")) << result.message;
    const Result list = Run({L"list", L"--json", L"--repo", repository});
    EXPECT_EQ(EXIT_DAMAGED, list.exitCode);
    EXPECT_NE(std::string::npos, list.out.find("leads to another folder")) << list.out;
}

TEST(FolderLinkKind, OnlyNamesThatStandForOthersAreLinks)
{
    constexpr std::uint32_t FOLDER = FILE_ATTRIBUTE_DIRECTORY;
    static_assert(vtbackup::REPARSE_ATTRIBUTE == FILE_ATTRIBUTE_REPARSE_POINT);
    EXPECT_FALSE(vtbackup::IsLink(FOLDER, 0));
    EXPECT_FALSE(vtbackup::IsLink(FOLDER, 0xA0000003)) << "the tag means nothing then";
    EXPECT_TRUE(vtbackup::IsLink(FOLDER | FILE_ATTRIBUTE_REPARSE_POINT, 0xA0000003));  // junction, mount point
    EXPECT_TRUE(vtbackup::IsLink(FOLDER | FILE_ATTRIBUTE_REPARSE_POINT, 0xA000000C));  // symbolic link
    EXPECT_TRUE(vtbackup::IsLink(FOLDER | FILE_ATTRIBUTE_REPARSE_POINT, 0));           // unknown
    EXPECT_FALSE(vtbackup::IsLink(FOLDER | FILE_ATTRIBUTE_REPARSE_POINT, 0x9000001A)); // a cloud service's
    EXPECT_FALSE(vtbackup::IsLink(FOLDER | FILE_ATTRIBUTE_REPARSE_POINT, 0x80000013)); // deduplicated
}

} // namespace
