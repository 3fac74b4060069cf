// Times on the command line and text that is safe for a terminal. Needs no Windows; also run natively.
#include "vtlog/time_text.h"
#include "vtlog/visible_text.h"

#include <gtest/gtest.h>

namespace {

using namespace vtlog;

const RecordTime NOW = {2026, 3, 1, 10, 20, 30, 400};

std::string Time(std::string_view text, Rounding rounding = Rounding::Earliest)
{
    const auto time = ParseTimeText(text, NOW, rounding);
    return time ? PlainTime(*time) : "none";
}

TEST(TimeText, ADateAloneIsItsFirstOrItsLastInstant)
{
    EXPECT_EQ("2026/11/21 00:00:00.000", Time("2026/11/21"));
    EXPECT_EQ("2026/11/21 23:59:59.999", Time("2026-11-21", Rounding::Latest));
}

TEST(TimeText, WhatIsNotSaidOfATimeOfDayIsItsFirstOrItsLastInstant)
{
    EXPECT_EQ("2026/11/21 10:05:00.000", Time("2026/11/21 10:05"));
    EXPECT_EQ("2026/11/21 10:05:59.999", Time("2026/11/21 10:05", Rounding::Latest));
    EXPECT_EQ("2026/11/21 10:05:07.000", Time("2026-11-21T10:05:07"));
    EXPECT_EQ("2026/11/21 10:05:07.999", Time("2026-11-21T10:05:07", Rounding::Latest));
}

TEST(TimeText, ATimeAsTheLogWritesItIsTaken)
{
    EXPECT_EQ("2026/11/21 04:03:47.123", Time("2026/11/21 04:03:47:123"));
}

TEST(TimeText, DigitsBehindAPointAreAFraction)
{
    EXPECT_EQ("2026/11/21 04:03:47.500", Time("2026/11/21 04:03:47.5"));
}

TEST(TimeText, ATimeOfDayAloneIsToday)
{
    EXPECT_EQ("2026/03/01 09:00:00.000", Time("09:00"));
}

TEST(TimeText, AnAmountIsSoMuchBeforeNowAcrossDaysAndMonths)
{
    EXPECT_EQ("2026/03/01 10:20:00.400", Time("30s"));
    EXPECT_EQ("2026/03/01 09:50:30.400", Time("30m"));
    EXPECT_EQ("2026/02/28 23:20:30.400", Time("11h"));
    EXPECT_EQ("2026/02/22 10:20:30.400", Time("7d"));
}

TEST(TimeText, WhatIsNoTimeIsNone)
{
    for (const char* text : {"", "x", "2026", "2026/11", "2026/11/31", "2026/02/29", "2026/11-21", "2026/11/21T",
                             "2026/11/21 10", "10", "24:00", "10:60", "10:00:60", "10:00x", "5y", "999999999d",
                             "2026/11/21 10:00:00:1000", "99999999999999999999s", "-2h"})
        EXPECT_EQ("none", Time(text)) << text;
}

TEST(TimeText, AMonthOrDayBeyondAByteIsNone)
{
    EXPECT_EQ("none", Time("2026/257/01"));
    EXPECT_EQ("none", Time("2026/01/257"));
    EXPECT_EQ("none", Time("4026/26121/6"));
}

TEST(TimeText, TheIsoFormIsForPrograms)
{
    EXPECT_EQ("2026-03-01T10:20:30.400", IsoTime(NOW));
}

TEST(VisibleText, OrdinaryTextStaysAsItIs)
{
    EXPECT_TRUE(VisibleText(L"a b\tc \x00E9 \xD83D\xDE00", L"|") == L"a b\tc \x00E9 \xD83D\xDE00");
}

TEST(VisibleText, WhatATerminalWouldActOnIsWrittenOut)
{
    EXPECT_TRUE(VisibleText(L"\x1b[2J\x07\x7f\x9b", L"|") == L"\\x1b[2J\\x07\\x7f\\x9b");
    EXPECT_TRUE(VisibleText(L"exe.\x202egpj", L"|") == L"exe.\\u202egpj");
}

TEST(VisibleText, ARunIsCounted)
{
    EXPECT_TRUE(VisibleText(std::wstring(3, L'\0'), L"|") == L"\\x00\\x00\\x00");
    EXPECT_TRUE(VisibleText(L"a" + std::wstring(4096, L'\0') + L"b", L"|") == L"a\\x00{4096}b");
}

TEST(VisibleText, LineEndsBecomeTheGivenOneAndALoneCarriageReturnIsShown)
{
    EXPECT_TRUE(VisibleText(L"a\r\nb\nc\rd", L"|") == L"a|b|c\\x0dd");
    EXPECT_TRUE(VisibleText(L"\r\r\r\r\n", L"|") == L"\\x0d\\x0d\\x0d|");
}

} // namespace
