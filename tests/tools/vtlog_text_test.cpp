// Times on the command line and text that is safe for a terminal. Needs no Windows; also run natively.
#include "vtlog/time_text.h"
#include "vtlog/visible_text.h"

#include <gtest/gtest.h>

#include <cstdio>

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

std::wstring Utf16(int code)
{
    auto character = static_cast<char32_t>(code);
    if (character < 0x10000)
        return {static_cast<wchar_t>(character)};
    character -= 0x10000;
    return {static_cast<wchar_t>(0xD800 + (character >> 10)), static_cast<wchar_t>(0xDC00 + (character & 0x3FF))};
}

TEST(VisibleText, WhatWouldNotBeSeenIsWrittenOut)
{
    for (const int hidden :
         {0xAD,    0x34F,   0x61C,   0x115F,  0x1160,  0x17B4,  0x17B5,  0x180B,  0x180E,  0x180F,
          0x200B,  0x200F,  0x2028,  0x202A,  0x202E,  0x2060,  0x2061,  0x2064,  0x2066,  0x2069,
          0x206A,  0x206F,  0x3164,  0xFE00,  0xFE0F,  0xFEFF,  0xFFA0,  0xFFF0,  0xFFF9,  0xFFFB,
          0x1BCA0, 0x1BCA3, 0x1D173, 0x1D17A, 0xE0000, 0xE0001, 0xE0020, 0xE007F, 0xE0100, 0xE0FFF}) {
        char expected[16] = {};
        std::snprintf(expected, sizeof(expected),
                      hidden < 0x100     ? "\\x%02x"
                      : hidden < 0x10000 ? "\\u%04x"
                                         : "\\U%08x",
                      static_cast<unsigned>(hidden));
        const std::string text = expected;
        EXPECT_TRUE(VisibleText(L"a" + Utf16(hidden) + L"b", L"|") ==
                    L"a" + std::wstring(text.begin(), text.end()) + L"b")
            << text;
    }
}

TEST(VisibleText, WhatStandsBesideItInTheListOfCharactersStaysAsItIs)
{
    for (const int seen : {0xA0,    0xAC,    0xAE,    0x34E,   0x350,   0x61B,   0x61D,   0x115E,  0x1161, 0x17B3,
                           0x17B6,  0x180A,  0x1810,  0x200A,  0x2010,  0x2027,  0x202F,  0x205F,  0x2070, 0x3163,
                           0x3165,  0xFDFF,  0xFE10,  0xFEFE,  0xFF00,  0xFF9F,  0xFFA1,  0xFFEF,  0xFFFC, 0x10041,
                           0x1BC9F, 0x1BCA4, 0x1D172, 0x1D17B, 0xDFFFF, 0xE1000, 0xF0041, 0x100041})
        EXPECT_TRUE(VisibleText(Utf16(seen), L"|") == Utf16(seen)) << std::hex << seen;
}

TEST(VisibleText, HalfAPairIsNoCharacterOfTheOtherHalf)
{
    for (const wchar_t* const text : {L"\xDB40", L"\xDC41", L"\xDC41\xDB40", L"\xDB40 \xDC41", L"\xDB40\xDB40"})
        EXPECT_TRUE(VisibleText(text, L"|") == text);
    EXPECT_TRUE(VisibleText(L"\xDB40\xDB40\xDC41\xDC41", L"|") == L"\xDB40\\U000e0041\xDC41");
}

TEST(VisibleText, ARunIsCounted)
{
    EXPECT_TRUE(VisibleText(std::wstring(3, L'\0'), L"|") == L"\\x00\\x00\\x00");
    EXPECT_TRUE(VisibleText(L"a" + std::wstring(4096, L'\0') + L"b", L"|") == L"a\\x00{4096}b");
    EXPECT_TRUE(VisibleText(L"\xDB40\xDC41\xDB40\xDC41\xDB40\xDC41\xDB40\xDC42", L"|") ==
                L"\\U000e0041\\U000e0041\\U000e0041\\U000e0042");
    EXPECT_TRUE(VisibleText(L"\xDB40\xDC41\xDB40\xDC41\xDB40\xDC41\xDB40\xDC41\xDB40", L"|") ==
                L"\\U000e0041{4}\xDB40");
}

TEST(VisibleText, LineEndsBecomeTheGivenOneAndALoneCarriageReturnIsShown)
{
    EXPECT_TRUE(VisibleText(L"a\r\nb\nc\rd", L"|") == L"a|b|c\\x0dd");
    EXPECT_TRUE(VisibleText(L"\r\r\r\r\n", L"|") == L"\\x0d\\x0d\\x0d|");
}

} // namespace
