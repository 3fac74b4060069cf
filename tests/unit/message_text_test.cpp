#include "log/message_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::wstring Cleaned(std::wstring text)
{
    return vtflt::CleanLineFeeds(text.data());
}

TEST(CleanLineFeeds, LeavesTextWithoutLineFeedsAlone)
{
    EXPECT_TRUE(Cleaned(L"a message") == L"a message");
    EXPECT_TRUE(Cleaned(L"").empty());
}

TEST(CleanLineFeeds, CutsAllLeadingAndTrailingLineFeeds)
{
    EXPECT_TRUE(Cleaned(L"\n\na message\n\n\n") == L"a message");
}

TEST(CleanLineFeeds, KeepsLineFeedsInside)
{
    EXPECT_TRUE(Cleaned(L"\none\n\ntwo\n") == L"one\n\ntwo");
}

TEST(CleanLineFeeds, OnlyLineFeedsBecomeEmptyText)
{
    EXPECT_TRUE(Cleaned(L"\n\n\n").empty());
}

TEST(CleanLineFeeds, CarriageReturnsStayAndShieldWhatIsBehindThem)
{
    EXPECT_TRUE(Cleaned(L"\r\na message\n\r") == L"\r\na message\n\r");
}

TEST(CleanLineFeeds, ReturnsAPlaceInsideTheText)
{
    std::wstring text = L"\n\nab\n";
    EXPECT_EQ(vtflt::CleanLineFeeds(text.data()), text.data() + 2);
}

} // namespace
