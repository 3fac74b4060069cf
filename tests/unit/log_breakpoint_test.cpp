// Which record hits which breakpoint, and where its hit goes.
#include "log/bounded_text.h"
#include "log/breakpoint_block.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>

using namespace vtflt;

namespace {

// The system compares for real; here plain ASCII does.
bool SameName(std::wstring_view a, std::wstring_view b) noexcept
{
    const auto lower = [](wchar_t c) { return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c + 32) : c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [&](wchar_t x, wchar_t y) { return lower(x) == lower(y); });
}

class Breakpoints : public ::testing::Test {
protected:
    Breakpoints() { m_block->count = 1; }

    LogBreakpoint& Set(std::size_t index, std::wstring_view executable, std::wstring_view pattern)
    {
        LogBreakpoint& entry = m_block->breakpoints[index];
        entry.identifier.bytes[0] = static_cast<std::uint8_t>(index + 1);
        entry.enabled = 1;
        CopyText(entry.executableName, executable);
        CopyText(entry.pattern, pattern);
        return entry;
    }
    // The index of the breakpoint that a record of process 10, thread 20 hits; -1 when it hits none.
    long long Hit(std::wstring_view text, std::wstring_view executable = L"backup.exe") const
    {
        const LogBreakpoint* const found = FindHitBreakpoint(*m_block, {executable, text, 10, 20}, SameName);
        return found == nullptr ? -1 : found - m_block->breakpoints;
    }

    std::unique_ptr<LogBreakpointBlock> m_block = std::make_unique<LogBreakpointBlock>();
};

TEST_F(Breakpoints, APatternInTheTextIsHit)
{
    Set(0, L"backup.exe", L"failed");
    EXPECT_EQ(0, Hit(L"failed"));
    EXPECT_EQ(0, Hit(L"it failed twice"));
    EXPECT_EQ(-1, Hit(L"it succeeded"));
    EXPECT_EQ(-1, Hit(L"faile"));
    EXPECT_EQ(-1, Hit(L""));
}

TEST_F(Breakpoints, ThePatternIsCaseSensitiveTheExecutableNameIsNot)
{
    Set(0, L"Backup.EXE", L"failed");
    EXPECT_EQ(0, Hit(L"failed", L"bACKUP.exe"));
    EXPECT_EQ(-1, Hit(L"Failed"));
}

TEST_F(Breakpoints, AnotherExecutablesBreakpointIsNotHit)
{
    Set(0, L"other.exe", L"failed");
    EXPECT_EQ(-1, Hit(L"failed"));
    Set(0, L"backup.exe2", L"failed");
    EXPECT_EQ(-1, Hit(L"failed"));
    Set(0, L"", L"failed");
    EXPECT_EQ(-1, Hit(L"failed"));
}

TEST_F(Breakpoints, AnEmptyPatternOccursInEveryText)
{
    Set(0, L"backup.exe", L"");
    EXPECT_EQ(0, Hit(L"anything"));
    EXPECT_EQ(0, Hit(L""));
}

TEST_F(Breakpoints, ProcessAndThreadFiltersAre0OrEqual)
{
    LogBreakpoint& entry = Set(0, L"backup.exe", L"failed");
    entry.processId = 10;
    EXPECT_EQ(0, Hit(L"failed"));
    entry.processId = 11;
    EXPECT_EQ(-1, Hit(L"failed"));
    entry.processId = 0;
    entry.threadId = 20;
    EXPECT_EQ(0, Hit(L"failed"));
    entry.threadId = 21;
    EXPECT_EQ(-1, Hit(L"failed"));
}

TEST_F(Breakpoints, ADisabledOrFreeEntryIsNotHitAndAnyNumberEnables)
{
    LogBreakpoint& entry = Set(0, L"backup.exe", L"failed");
    entry.enabled = 0;
    EXPECT_EQ(-1, Hit(L"failed"));
    entry.enabled = 0x80000000;
    EXPECT_EQ(0, Hit(L"failed"));
    entry.identifier = {};
    EXPECT_EQ(-1, Hit(L"failed"));
    entry.identifier.bytes[15] = 1;
    EXPECT_EQ(0, Hit(L"failed"));
}

TEST_F(Breakpoints, TheFirstInTheOrderOfTheEntriesIsHit)
{
    Set(7, L"backup.exe", L"fail");
    Set(3, L"backup.exe", L"failed");
    EXPECT_EQ(3, Hit(L"failed"));
    EXPECT_EQ(7, Hit(L"fails"));
}

TEST_F(Breakpoints, TheCountIsOnlyAGateAndAllEntriesAreSearched)
{
    Set(99, L"backup.exe", L"failed");
    for (const std::int32_t count : {1, 100, 2000000000, 0x7FFFFFFF}) {
        m_block->count = count;
        EXPECT_EQ(99, Hit(L"failed"));
        EXPECT_EQ(-1, Hit(L"other"));
    }
    for (const std::int32_t count : {0, -1, static_cast<std::int32_t>(0x80000000)}) {
        m_block->count = count;
        EXPECT_EQ(-1, Hit(L"failed"));
    }
}

TEST_F(Breakpoints, NamesAndPatternsWithoutAnEndAreReadNoFurtherThanTheirFields)
{
    std::memset(m_block->breakpoints, 0x61, sizeof(m_block->breakpoints)); // no zero anywhere
    const std::wstring name(260, L'\x6161');
    std::wstring text(1024, L'\x6161');
    for (LogBreakpoint& entry : m_block->breakpoints) {
        entry.processId = 0;
        entry.threadId = 0;
    }
    EXPECT_EQ(0, Hit(text, name));
    EXPECT_EQ(-1, Hit(text, name + L'\x6161'));
    text.pop_back();
    EXPECT_EQ(-1, Hit(text, name));
}

TEST_F(Breakpoints, AHitGoesIntoTheFirstFreePlaceOfTenThousand)
{
    EXPECT_EQ(&m_block->hits[0], FindFreeHit(*m_block));
    for (LogBreakpointHit& hit : m_block->hits)
        hit.breakpoint.bytes[7] = 1;
    EXPECT_EQ(nullptr, FindFreeHit(*m_block));
    m_block->hits[9999].breakpoint = {};
    m_block->hits[9999].hit.bytes[0] = 1; // the identifier of the breakpoint alone says whether a place is free
    EXPECT_EQ(&m_block->hits[9999], FindFreeHit(*m_block));
    m_block->hits[12].breakpoint = {};
    EXPECT_EQ(&m_block->hits[12], FindFreeHit(*m_block));
}

TEST(UuidText, IsInUpperCaseWithTheFirstThreeFieldsTurned)
{
    const LogUuid uuid = {
        {0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66, 0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}};
    wchar_t text[LOG_UUID_TEXT_CAPACITY];
    BuildUuidText(text, uuid);
    EXPECT_TRUE(std::wstring_view(text) == L"00112233-4455-6677-8899-AABBCCDDEEFF");
    BuildUuidText(text, {});
    EXPECT_TRUE(std::wstring_view(text) == L"00000000-0000-0000-0000-000000000000");
}

} // namespace
