// What the library relies on of files, on Windows' side and on the double.
#include "support/text.h"
#include "win/owners.h"

#include <gtest/gtest.h>
#include <set>
#include <string>

namespace vttest {
namespace {

using vtflt::UniqueHandle;

constexpr DWORD SHARE_ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

class Files : public testing::Test {
protected:
    Files()
    {
        wchar_t temp[MAX_PATH] = {};
        GetTempPathW(MAX_PATH, temp);
        folder = std::wstring(temp) + L"vtconformance" + WideNumber(GetCurrentProcessId());
        EXPECT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
    }
    ~Files() override
    {
        for (const wchar_t* name : {L"a", L"b", L"c"}) {
            SetFileAttributesW(Path(name).c_str(), FILE_ATTRIBUTE_NORMAL);
            DeleteFileW(Path(name).c_str());
        }
        EXPECT_TRUE(RemoveDirectoryW(folder.c_str()));
    }
    std::wstring Path(const std::wstring& name) const { return folder + L"\\" + name; }
    UniqueHandle Open(const std::wstring& name, DWORD access, DWORD disposition, DWORD share = SHARE_ALL,
                      DWORD flags = FILE_ATTRIBUTE_NORMAL) const
    {
        return UniqueHandle(CreateFileW(Path(name).c_str(), access, share, nullptr, disposition, flags, nullptr));
    }
    static DWORD Write(const UniqueHandle& file, const std::string& text)
    {
        DWORD written = 0;
        EXPECT_TRUE(WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
        return written;
    }
    static std::string Read(const UniqueHandle& file, DWORD length)
    {
        std::string text(length, '\0');
        DWORD read = 0;
        EXPECT_TRUE(ReadFile(file.get(), text.data(), length, &read, nullptr));
        text.resize(read);
        return text;
    }

    std::wstring folder;
};

TEST_F(Files, AMissingFileIs2AndAMissingFolder3)
{
    EXPECT_FALSE(Open(L"a", GENERIC_READ, OPEN_EXISTING).valid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
    EXPECT_FALSE(Open(L"none\\a", GENERIC_WRITE, CREATE_ALWAYS).valid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_PATH_NOT_FOUND), GetLastError());
    EXPECT_FALSE(DeleteFileW(Path(L"a").c_str()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
}

TEST_F(Files, ReplacingAFileLeaves183AndMakingOneLeaves0)
{
    SetLastError(77);
    ASSERT_TRUE(Open(L"a", GENERIC_WRITE, CREATE_ALWAYS).valid());
    EXPECT_EQ(0u, GetLastError());
    ASSERT_TRUE(Open(L"a", GENERIC_WRITE, CREATE_ALWAYS).valid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_ALREADY_EXISTS), GetLastError());
    EXPECT_FALSE(Open(L"a", GENERIC_WRITE, CREATE_NEW).valid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_EXISTS), GetLastError());
}

TEST_F(Files, AReadAtTheEndSucceedsWithNothing)
{
    const UniqueHandle file = Open(L"a", GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS);
    EXPECT_EQ(5u, Write(file, "hello"));
    EXPECT_EQ("", Read(file, 10));
    EXPECT_EQ(1u, SetFilePointer(file.get(), 1, nullptr, FILE_BEGIN));
    EXPECT_EQ("ello", Read(file, 10));
}

TEST_F(Files, WhatIsNotSharedIs32)
{
    const UniqueHandle file = Open(L"a", GENERIC_WRITE, CREATE_ALWAYS, FILE_SHARE_READ);
    EXPECT_FALSE(Open(L"a", GENERIC_WRITE, OPEN_EXISTING).valid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_SHARING_VIOLATION), GetLastError());
    EXPECT_TRUE(Open(L"a", GENERIC_READ, OPEN_EXISTING).valid());
    EXPECT_FALSE(Open(L"a", GENERIC_READ, OPEN_EXISTING, FILE_SHARE_READ).valid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_SHARING_VIOLATION), GetLastError());
    EXPECT_FALSE(DeleteFileW(Path(L"a").c_str()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_SHARING_VIOLATION), GetLastError());
}

TEST_F(Files, ADeletedFileLivesUntilItsLastHandle)
{
    UniqueHandle file = Open(L"a", GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS);
    ASSERT_TRUE(DeleteFileW(Path(L"a").c_str()));
    EXPECT_EQ(5u, Write(file, "hello"));
    file.reset();
    EXPECT_FALSE(Open(L"a", GENERIC_READ, OPEN_EXISTING).valid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
}

// Wine leaves the refusal to the host, and the host refuses its root user nothing.
bool RunsOnWine()
{
    const HMODULE system = GetModuleHandleW(L"ntdll.dll");
    return system != nullptr && GetProcAddress(system, "wine_get_version") != nullptr;
}

TEST_F(Files, AReadOnlyFileIsNotOpenedForWriting)
{
    if (RunsOnWine())
        GTEST_SKIP() << "Wine run by the host's root user opens read-only files for writing";
    Open(L"a", GENERIC_WRITE, CREATE_ALWAYS).reset();
    ASSERT_TRUE(SetFileAttributesW(Path(L"a").c_str(), FILE_ATTRIBUTE_READONLY));
    EXPECT_FALSE(Open(L"a", GENERIC_WRITE, OPEN_EXISTING).valid());
    EXPECT_EQ(static_cast<DWORD>(ERROR_ACCESS_DENIED), GetLastError());
    EXPECT_TRUE(Open(L"a", GENERIC_READ, OPEN_EXISTING).valid());
}

TEST_F(Files, HiddenAndSystemAreKept)
{
    constexpr DWORD BOTH = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    Open(L"a", GENERIC_WRITE, CREATE_ALWAYS, 0, BOTH).reset();
    EXPECT_EQ(BOTH, GetFileAttributesW(Path(L"a").c_str()) & BOTH);
}

TEST_F(Files, AHandleForReadingRefusesToWrite)
{
    Open(L"a", GENERIC_WRITE, CREATE_ALWAYS).reset();
    const UniqueHandle file = Open(L"a", GENERIC_READ, OPEN_EXISTING);
    DWORD written = 0;
    EXPECT_FALSE(WriteFile(file.get(), "x", 1, &written, nullptr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_ACCESS_DENIED), GetLastError());
}

TEST_F(Files, ASeekBeforeTheBeginningIs131)
{
    const UniqueHandle file = Open(L"a", GENERIC_WRITE, CREATE_ALWAYS);
    EXPECT_EQ(INVALID_SET_FILE_POINTER, SetFilePointer(file.get(), -1, nullptr, FILE_BEGIN));
    EXPECT_EQ(static_cast<DWORD>(ERROR_NEGATIVE_SEEK), GetLastError());
}

TEST_F(Files, AFileGrowsByItsPointerAndReadsAsZeros)
{
    const UniqueHandle file = Open(L"a", GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS);
    constexpr LONG END = 200 << 20;
    EXPECT_EQ(static_cast<DWORD>(END), SetFilePointer(file.get(), END, nullptr, FILE_BEGIN));
    EXPECT_TRUE(SetEndOfFile(file.get()));
    LARGE_INTEGER size = {};
    EXPECT_TRUE(GetFileSizeEx(file.get(), &size));
    EXPECT_EQ(END, size.QuadPart);
    SetFilePointer(file.get(), END - 2, nullptr, FILE_BEGIN);
    EXPECT_EQ(std::string(2, '\0'), Read(file, 10));
}

TEST_F(Files, ASearchFindsEachNameOnceAndEndsWith18)
{
    Open(L"a", GENERIC_WRITE, CREATE_ALWAYS).reset();
    Open(L"b", GENERIC_WRITE, CREATE_ALWAYS).reset();
    WIN32_FIND_DATAW data = {};
    const vtflt::UniqueFileSearch search(FindFirstFileW(Path(L"*").c_str(), &data));
    ASSERT_TRUE(search.valid());
    std::multiset<std::wstring> names;
    do
        names.insert(data.cFileName);
    while (FindNextFileW(search.get(), &data));
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_MORE_FILES), GetLastError());
    EXPECT_TRUE((names == std::multiset<std::wstring>{L".", L"..", L"a", L"b"}));
}

TEST_F(Files, ASearchThatFindsNothingIs2AndInAMissingFolder3)
{
    WIN32_FIND_DATAW data = {};
    EXPECT_EQ(INVALID_HANDLE_VALUE, FindFirstFileW(Path(L"a").c_str(), &data));
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
    EXPECT_EQ(INVALID_HANDLE_VALUE, FindFirstFileW(Path(L"none\\*").c_str(), &data));
    EXPECT_EQ(static_cast<DWORD>(ERROR_PATH_NOT_FOUND), GetLastError());
}

TEST_F(Files, AFolderThatIsThereIs183AndOneThatIsNotEmptyIsNotRemoved)
{
    EXPECT_FALSE(CreateDirectoryW(folder.c_str(), nullptr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_ALREADY_EXISTS), GetLastError());
    Open(L"a", GENERIC_WRITE, CREATE_ALWAYS).reset();
    EXPECT_FALSE(RemoveDirectoryW(folder.c_str()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_DIR_NOT_EMPTY), GetLastError());
    EXPECT_FALSE(CreateDirectoryW(Path(L"none\\below").c_str(), nullptr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_PATH_NOT_FOUND), GetLastError());
}

TEST_F(Files, TheLongPathFormNamesTheSameFile)
{
    Open(L"a", GENERIC_WRITE, CREATE_ALWAYS).reset();
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, GetFileAttributesW((L"\\\\?\\" + Path(L"a")).c_str()));
}

TEST_F(Files, AMoveReplacesOnlyWhenToldTo)
{
    Write(Open(L"a", GENERIC_WRITE, CREATE_ALWAYS), "a");
    Write(Open(L"b", GENERIC_WRITE, CREATE_ALWAYS), "b");
    EXPECT_FALSE(MoveFileExW(Path(L"a").c_str(), Path(L"b").c_str(), 0));
    EXPECT_EQ(static_cast<DWORD>(ERROR_ALREADY_EXISTS), GetLastError());
    EXPECT_TRUE(MoveFileExW(Path(L"a").c_str(), Path(L"b").c_str(), MOVEFILE_REPLACE_EXISTING));
    EXPECT_EQ("a", Read(Open(L"b", GENERIC_READ, OPEN_EXISTING), 2));
}

} // namespace
} // namespace vttest
