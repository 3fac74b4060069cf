// The log's small pieces of text: decimal numbers of the registry, parts of paths.
#include "log/bounded_text.h"
#include "log/decimal.h"

#include <gtest/gtest.h>

namespace {

using vtflt::FileNamePart;
using vtflt::ParseDecimal;

TEST(ParseDecimal, ReadsDigitsBehindBlanksUpToTheFirstOtherCharacter)
{
    EXPECT_EQ(0u, ParseDecimal(L""));
    EXPECT_EQ(0u, ParseDecimal(L" \t"));
    EXPECT_EQ(0u, ParseDecimal(L"-1"));
    EXPECT_EQ(12u, ParseDecimal(L" \t12.5"));
    EXPECT_EQ(7u, ParseDecimal(L"007"));
    EXPECT_EQ(3u, ParseDecimal(L"3/4"));
    EXPECT_EQ(3u, ParseDecimal(L"3:4"));
}

TEST(ParseDecimal, ANumberBeyond32BitsStaysAtTheirLargest)
{
    EXPECT_EQ(4294967295u, ParseDecimal(L"4294967295"));
    EXPECT_EQ(4294967295u, ParseDecimal(L"4294967296"));
    EXPECT_EQ(4294967295u, ParseDecimal(L"99999999999999999999999999999999"));
}

TEST(FileNamePart, IsWhatStandsBehindTheLastBackslashOrAllOfIt)
{
    EXPECT_TRUE(FileNamePart(L"C:\\folder\\name.dll") == L"name.dll");
    EXPECT_TRUE(FileNamePart(L"C:\\folder\\").empty());
    EXPECT_TRUE(FileNamePart(L"name.dll") == L"name.dll");
    EXPECT_TRUE(FileNamePart(L"").empty());
}

} // namespace
