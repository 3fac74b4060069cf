#include "log/record_text.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using namespace vtflt;

// 2 March 2026, a Monday.
constexpr LogRecordTime TIME = {2026, 3, 1, 2, 4, 5, 6, 7};

template <class C>
std::basic_string<C> Header(const C* time, const RecordHeader& header)
{
    C text[LOG_HEADER_CAPACITY];
    BuildRecordHeader(text, time, header);
    return text;
}

TEST(RecordText, TheTimeIsYearMonthDayAndTheTimeOfDayWithMilliseconds)
{
    wchar_t wide[TIME_TEXT_CAPACITY];
    BuildTimeText(wide, TIME);
    EXPECT_TRUE(std::wstring(wide) == L"2026/03/02 04:05:06:007");
    char narrow[TIME_TEXT_CAPACITY];
    BuildTimeText(narrow, TIME);
    EXPECT_EQ("2026/03/02 04:05:06:007", std::string(narrow));
}

TEST(RecordText, AnErrorCodeStandsInEightLowerCaseDigitsBehindAnUpperCase0X)
{
    EXPECT_TRUE(Header(L"T", {0, 4660, 17, 5}) == L"[T   00   04660   00017   0X00000005] ");
    EXPECT_TRUE(Header(L"T", {0, 4660, 17, 0xFEEDFACE}) == L"[T   00   04660   00017   0Xfeedface] ");
    EXPECT_EQ("[T   00   04660   00017   0X00000005] ", Header("T", {0, 4660, 17, 5}));
}

TEST(RecordText, WithoutAnErrorCodeThirteenBlanksStandThere)
{
    EXPECT_TRUE(Header(L"T", {2, 4660, 17, 0}) == L"[T   02   04660   00017             ] ");
    EXPECT_EQ("[T   02   04660   00017             ] ", Header("T", {2, 4660, 17, 0}));
    // The columns line up.
    EXPECT_EQ(Header(L"T", {2, 4660, 17, 0}).size(), Header(L"T", {2, 4660, 17, 1}).size());
}

TEST(RecordText, LongNumbersTakeTheRoomThatTheyNeed)
{
    EXPECT_TRUE(Header(L"T", {100, 1234567, 654321, 0}) == L"[T   100   1234567   654321             ] ");
    EXPECT_TRUE(Header(L"T", {-1, 1, 2, 0}) == L"[T   -1   00001   00002             ] ");
}

TEST(RecordText, TheTailNamesExecutableModuleAndTheThirdAndFourthVersionNumbers)
{
    wchar_t wide[LOG_TAIL_CAPACITY];
    BuildRecordTail(wide, L"backup.exe", L"VTFltMgr.dll", 0x00030105);
    EXPECT_TRUE(std::wstring(wide) == L"   {backup.exe::VTFltMgr.dll(3.261)}");
    char narrow[LOG_TAIL_CAPACITY];
    BuildRecordTail(narrow, "backup.exe", "VTFltMgr.dll", 0xFFFF8000);
    EXPECT_EQ("   {backup.exe::VTFltMgr.dll(65535.32768)}", std::string(narrow));
}

TEST(RecordText, TheProductLineHasAnUpdateOnlyWhereThereIsOne)
{
    wchar_t line[LOG_LINE_CAPACITY];
    BuildProductLine(line, 7, 1, 0);
    EXPECT_TRUE(std::wstring(line) == L"Product Info: [Veltrix Software Inc] [veltrix Lumen Protect] Ver[r7.1]");
    BuildProductLine(line, 7, 1, 3);
    EXPECT_TRUE(std::wstring(line) ==
                L"Product Info: [Veltrix Software Inc] [veltrix Lumen Protect] Ver[r7.1 (Update 3)]");
}

TEST(RecordText, TheSystemLineShowsMinusOneForAVersionThatIsNotKnown)
{
    wchar_t line[LOG_LINE_CAPACITY];
    BuildSystemLine(line, L"HOST", 10, 0, L"X64");
    EXPECT_TRUE(std::wstring(line) == L"OS      Info: Computer Name[HOST] Version[10.0] Platform[X64]");
    BuildSystemLine(line, L"", -1, -1, L"Unknown");
    EXPECT_TRUE(std::wstring(line) == L"OS      Info: Computer Name[] Version[-1.-1] Platform[Unknown]");
}

TEST(RecordText, TheFixedLinesAreWhatReadersLookFor)
{
    EXPECT_TRUE(LOG_COLUMN_LINE == L"[   Date        Time      Level  PID     TID   ErrCode    ] .......");
    EXPECT_TRUE(LOG_SUMMARY_LINE == L"================ SUMMARY LOG =======================");
    EXPECT_TRUE(LOG_LEVEL_HINT_LINE == L"Log level of each module can be controlled by registry key:");
    EXPECT_TRUE(LOG_LEVEL_KEY_LINE ==
                L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\Debug\\ModuleName:DWORD]");
    EXPECT_TRUE(LOG_END_LINE == L"=====================================================");
}

} // namespace
