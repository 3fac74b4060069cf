#include "apps/resync_text.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace {

using vtflt::AppendToListText;
using vtflt::IsBracedGuid;
using vtflt::ListTextHolds;
using vtflt::ListTextToMultiString;
using vtflt::MakeListValueName;
using vtflt::SplitDriverList;
using namespace std::string_view_literals;

using List = std::vector<std::wstring>;

// The steps of a merge: the new entries, then the old ones that they do not hold yet.
std::wstring Merge(const List& added, const List& stored)
{
    std::wstring text;
    for (const std::wstring& entry : added)
        AppendToListText(text, entry);
    for (const std::wstring& entry : stored) {
        if (!ListTextHolds(text, entry))
            AppendToListText(text, entry);
    }
    return text;
}

TEST(MakeListValueName, AppendsTheSuffix)
{
    EXPECT_TRUE(MakeListValueName(L"") == L"DeviceListForReSync");
    EXPECT_TRUE(MakeListValueName(L"App1") == L"DeviceListForReSyncApp1");
    EXPECT_TRUE(MakeListValueName(L"App1.Last") == L"DeviceListForReSyncApp1.Last");
}

TEST(ListText, NewEntriesComeFirstThenTheOldOnes)
{
    EXPECT_TRUE(Merge({L"{3}", L"{1}"}, {L"{2}", L"{4}"}) == L"{3}*{1}*{2}*{4}*");
}

TEST(ListText, AVolumeOfBothListsIsWrittenOnceWithTheNewEntriesFirst)
{
    EXPECT_TRUE(Merge({L"{2}"}, {L"{1}", L"{2}", L"{3}"}) == L"{2}*{1}*{3}*");
}

TEST(ListText, AnOldEntryThatOccursInsideANewOneIsDropped)
{
    EXPECT_TRUE(Merge({L"Volume{1}"}, {L"{1}", L"e{1"}) == L"Volume{1}*");
}

TEST(ListText, AnOldEntryThatHoldsANewOneStays)
{
    EXPECT_TRUE(Merge({L"{1}"}, {L"Volume{1}"}) == L"{1}*Volume{1}*");
}

TEST(ListText, OldEntriesAreComparedWithTheOldOnesBeforeThemToo)
{
    EXPECT_TRUE(Merge({}, {L"{1}", L"{1}", L"{2}"}) == L"{1}*{2}*");
}

TEST(ListText, EntriesThatDifferInCaseAreTwo)
{
    EXPECT_TRUE(Merge({L"{a}"}, {L"{A}"}) == L"{a}*{A}*");
}

TEST(ListText, NewEntriesAreTakenAsGivenEvenTwice)
{
    EXPECT_TRUE(Merge({L"{1}", L"{1}"}, {}) == L"{1}*{1}*");
}

TEST(ListText, OfNothingIsEmpty)
{
    EXPECT_TRUE(Merge({}, {}).empty());
}

TEST(ListTextToMultiString, EveryEntryHasItsNulAndThenTheFinalOneFollows)
{
    EXPECT_TRUE(ListTextToMultiString(L"{1}*{2}*") == L"{1}\0{2}\0\0"sv);
    EXPECT_TRUE(ListTextToMultiString(L"{1}*") == L"{1}\0\0"sv);
}

TEST(ListTextToMultiString, AVolumeNameWithASeparatorInItIsSplit)
{
    EXPECT_TRUE(ListTextToMultiString(Merge({L"a*b"}, {})) == L"a\0b\0\0"sv);
}

// Whoever reads a list stops at the first empty string: one in the middle would take the marks behind it away.
TEST(ListTextToMultiString, AnEntryWithoutACharacterIsNotStored)
{
    EXPECT_TRUE(ListTextToMultiString(Merge({L"a**b"}, {L"c"})) == L"a\0b\0c\0\0"sv);
    EXPECT_TRUE(ListTextToMultiString(Merge({L"*a", L"b*"}, {L"c"})) == L"a\0b\0c\0\0"sv);
    EXPECT_TRUE(ListTextToMultiString(Merge({L""}, {L"{1}"})) == L"{1}\0\0"sv);
}

TEST(ListTextToMultiString, AListOfNothingHasBothItsNuls)
{
    EXPECT_TRUE(ListTextToMultiString(L"") == L"\0\0"sv);
    EXPECT_TRUE(ListTextToMultiString(L"**") == L"\0\0"sv);
}

TEST(ListTextToMultiString, TheLastEntryNeedsNoSeparator)
{
    EXPECT_TRUE(ListTextToMultiString(L"{1}*{2}") == L"{1}\0{2}\0\0"sv);
}

TEST(IsBracedGuid, NeedsBothBraces)
{
    EXPECT_TRUE(IsBracedGuid(L"{8c1a4f52-0b3e-11e6-9d0a-001a4d5e6f70}"));
    EXPECT_TRUE(IsBracedGuid(L"{}"));
    EXPECT_FALSE(IsBracedGuid(L"{1"));
    EXPECT_FALSE(IsBracedGuid(L"1}"));
    EXPECT_FALSE(IsBracedGuid(L" {1}"));
    EXPECT_FALSE(IsBracedGuid(L"{1}\\"));
}

TEST(IsBracedGuid, ShortEntriesAreNone)
{
    EXPECT_FALSE(IsBracedGuid(L""));
    EXPECT_FALSE(IsBracedGuid(L"{"));
    EXPECT_FALSE(IsBracedGuid(L"}"));
}

TEST(SplitDriverList, HandsOutVolumeGuidsAndKeepsTheRestInOrder)
{
    List handOut;
    List keep;
    SplitDriverList({L"x", L"{2}", L"Volume{3}", L"{1}", L"{y"}, handOut, keep);
    EXPECT_TRUE(handOut == (List{L"{2}", L"{1}"}));
    EXPECT_TRUE(keep == (List{L"x", L"Volume{3}", L"{y"}));
}

TEST(SplitDriverList, AListWithoutBracesHandsNothingOut)
{
    List handOut;
    List keep;
    SplitDriverList({L"x", L"y"}, handOut, keep);
    EXPECT_TRUE(handOut.empty());
    EXPECT_TRUE(keep == (List{L"x", L"y"}));
}

TEST(SplitDriverList, AnEmptyListGivesTwoEmptyOnes)
{
    List handOut;
    List keep;
    SplitDriverList({}, handOut, keep);
    EXPECT_TRUE(handOut.empty());
    EXPECT_TRUE(keep.empty());
}

} // namespace
