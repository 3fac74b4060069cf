#include "log/log_path.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using vtflt::LOG_PATH_CAPACITY;
using vtflt::SplitLogPath;

constexpr wchar_t FOLDER[] = L"C:\\Lumen\\Logs\\";

std::wstring DefaultPath(std::wstring_view name)
{
    wchar_t path[LOG_PATH_CAPACITY];
    vtflt::DefaultLogFilePath(name, L"VTFltMgr.dll", FOLDER, path);
    return path;
}

TEST(DefaultLogFilePath, AModulesNameGetsTheEndingAndTheFolder)
{
    EXPECT_TRUE(DefaultPath(L"VTFltMgr.dll") == L"C:\\Lumen\\Logs\\VTFltMgr.dll.Log");
}

TEST(DefaultLogFilePath, ANameThatHasTheEndingKeepsItInAnyCase)
{
    EXPECT_TRUE(DefaultPath(L"backup.Log") == L"C:\\Lumen\\Logs\\backup.Log");
    EXPECT_TRUE(DefaultPath(L"backup.log") == L"C:\\Lumen\\Logs\\backup.log");
    EXPECT_TRUE(DefaultPath(L"backup.LOG") == L"C:\\Lumen\\Logs\\backup.LOG");
    EXPECT_TRUE(DefaultPath(L".log") == L"C:\\Lumen\\Logs\\.log");
}

TEST(DefaultLogFilePath, OnlyTheLastExtensionCounts)
{
    EXPECT_TRUE(DefaultPath(L"backup.Log.txt") == L"C:\\Lumen\\Logs\\backup.Log.txt.Log");
    EXPECT_TRUE(DefaultPath(L"backlog") == L"C:\\Lumen\\Logs\\backlog.Log");
}

TEST(DefaultLogFilePath, AnEmptyNameIsTheModulesOwn)
{
    EXPECT_TRUE(DefaultPath(L"") == L"C:\\Lumen\\Logs\\VTFltMgr.dll.Log");
}

TEST(DefaultLogFilePath, ANameWithABackslashOrASlashIsTakenAsItStands)
{
    EXPECT_TRUE(DefaultPath(L"D:\\elsewhere\\x.txt") == L"D:\\elsewhere\\x.txt");
    EXPECT_TRUE(DefaultPath(L"D:/elsewhere") == L"D:/elsewhere");
    EXPECT_TRUE(DefaultPath(L"\\") == L"\\");
}

TEST(DefaultLogFilePath, IsCutAt511Characters)
{
    EXPECT_TRUE(DefaultPath(std::wstring(600, L'n')) == FOLDER + std::wstring(511 - 14, L'n'));
    EXPECT_TRUE(DefaultPath(L"\\" + std::wstring(600, L'n')) == L"\\" + std::wstring(510, L'n'));
}

struct Parts {
    std::wstring base;
    std::uint32_t number;
    bool operator==(const Parts&) const = default;
};

Parts Split(std::wstring_view path)
{
    const vtflt::LogPathParts parts = SplitLogPath(path);
    return {std::wstring(parts.base), parts.number};
}

TEST(SplitLogPath, StripsTheEndingInAnyCase)
{
    EXPECT_TRUE(Split(L"C:\\X.dll.Log") == (Parts{L"C:\\X.dll", 0}));
    EXPECT_TRUE(Split(L"C:\\X.dll.log") == (Parts{L"C:\\X.dll", 0}));
    EXPECT_TRUE(Split(L"C:\\X.dll.LOG") == (Parts{L"C:\\X.dll", 0}));
    EXPECT_TRUE(Split(L"C:\\X.dll") == (Parts{L"C:\\X.dll", 0}));
}

TEST(SplitLogPath, StripsOneEndingOnly)
{
    EXPECT_TRUE(Split(L"C:\\X.log.Log") == (Parts{L"C:\\X.log", 0}));
}

TEST(SplitLogPath, ADotAndEightDigitsAreTheNumber)
{
    EXPECT_TRUE(Split(L"C:\\X.dll.00000001.log") == (Parts{L"C:\\X.dll", 1}));
    EXPECT_TRUE(Split(L"C:\\X.dll.99999999.log") == (Parts{L"C:\\X.dll", 99999999}));
    EXPECT_TRUE(Split(L"C:\\X.dll.00000012") == (Parts{L"C:\\X.dll", 12}));
}

TEST(SplitLogPath, OtherEndsBelongToTheBase)
{
    EXPECT_TRUE(Split(L"C:\\X.dll.00000000.log") == (Parts{L"C:\\X.dll.00000000", 0}));
    EXPECT_TRUE(Split(L"C:\\X.dll.0000001.log") == (Parts{L"C:\\X.dll.0000001", 0}));
    EXPECT_TRUE(Split(L"C:\\X.dll.000000001.log") == (Parts{L"C:\\X.dll.000000001", 0}));
    EXPECT_TRUE(Split(L"C:\\X.dll.0000001x.log") == (Parts{L"C:\\X.dll.0000001x", 0}));
    EXPECT_TRUE(Split(L"C:\\X.dll.-0000001.log") == (Parts{L"C:\\X.dll.-0000001", 0}));
    EXPECT_TRUE(Split(L"C:\\X00000001.log") == (Parts{L"C:\\X00000001", 0}));
}

TEST(SplitLogPath, ShortPathsAreTheirOwnBase)
{
    EXPECT_TRUE(Split(L"") == (Parts{L"", 0}));
    EXPECT_TRUE(Split(L".log") == (Parts{L"", 0}));
    EXPECT_TRUE(Split(L"00000001") == (Parts{L"00000001", 0}));
    EXPECT_TRUE(Split(L".00000001") == (Parts{L"", 1}));
}

TEST(BuildSuccessorPath, IsTheBaseWithEightDigits)
{
    wchar_t path[LOG_PATH_CAPACITY];
    ASSERT_TRUE(vtflt::BuildSuccessorPath({L"C:\\X.dll", 1}, path));
    EXPECT_TRUE(std::wstring(path) == L"C:\\X.dll.00000001.log");
    ASSERT_TRUE(vtflt::BuildSuccessorPath({L"C:\\X.dll", 100000000}, path));
    EXPECT_TRUE(std::wstring(path) == L"C:\\X.dll.100000000.log");
}

TEST(BuildSuccessorPath, APathThatDoesNotFitIsRefusedRatherThanCut)
{
    wchar_t path[LOG_PATH_CAPACITY];
    const std::wstring longest(LOG_PATH_CAPACITY - 16, L'b');
    ASSERT_TRUE(vtflt::BuildSuccessorPath({longest, 1}, path));
    EXPECT_TRUE(std::wstring(path) == longest + L".00000001.log");
    EXPECT_FALSE(vtflt::BuildSuccessorPath({longest + L"b", 1}, path));
}

bool SameText(std::wstring_view a, std::wstring_view b) noexcept
{
    return a == b;
}

TEST(IsSameLogFile, IsTrueForEqualPathsAndForEqualBasesWithEqualNumbers)
{
    EXPECT_TRUE(vtflt::IsSameLogFile(L"C:\\X.dll.Log", L"C:\\X.dll.Log", SameText));
    EXPECT_TRUE(vtflt::IsSameLogFile(L"C:\\X.dll.Log", L"C:\\X.dll.LOG", SameText));
    EXPECT_TRUE(vtflt::IsSameLogFile(L"C:\\X.dll.Log", L"C:\\X.dll", SameText));
    EXPECT_TRUE(vtflt::IsSameLogFile(L"C:\\X.dll.00000007.Log", L"C:\\X.dll.00000007", SameText));
}

TEST(IsSameLogFile, IsFalseForAnotherNumberOrBase)
{
    EXPECT_FALSE(vtflt::IsSameLogFile(L"C:\\X.dll.Log", L"C:\\X.dll.00000001.log", SameText));
    EXPECT_FALSE(vtflt::IsSameLogFile(L"C:\\X.dll.00000002.log", L"C:\\X.dll.00000001.log", SameText));
    EXPECT_FALSE(vtflt::IsSameLogFile(L"C:\\X.dll.Log", L"C:\\Y.dll.Log", SameText));
    EXPECT_FALSE(vtflt::IsSameLogFile(L"C:\\X.dll.Log", L"", SameText));
}

} // namespace
