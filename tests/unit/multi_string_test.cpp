// The stored bytes are compared whole: other programs read and write the same values.
#include "registry/multi_string.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace {

using vtflt::AppendStrings;
using vtflt::AppendValueEntries;
using vtflt::ComposeAddedEntry;
using vtflt::ComposeRemovedEntry;
using vtflt::FindMultiSZEntry;
using vtflt::IsWellFormedMultiString;
using vtflt::RegistryBytes;
using namespace std::string_view_literals;

// The bytes of a text with the NULs that it shows.
RegistryBytes BytesOf(std::wstring_view text)
{
    RegistryBytes bytes;
    for (const wchar_t character : text) {
        bytes.push_back(static_cast<std::uint8_t>(character & 0xFF));
        bytes.push_back(static_cast<std::uint8_t>(character >> 8 & 0xFF));
    }
    return bytes;
}

RegistryBytes Removed(const RegistryBytes& value, std::wstring_view entry)
{
    const int position = FindMultiSZEntry(value, entry);
    EXPECT_GE(position, 0);
    return position < 0 ? value : ComposeRemovedEntry(value, static_cast<std::size_t>(position), entry);
}

std::vector<std::wstring> ValueEntries(const RegistryBytes& value)
{
    std::vector<std::wstring> entries;
    AppendValueEntries(value, entries);
    return entries;
}

std::vector<std::wstring> Strings(const RegistryBytes& value)
{
    std::vector<std::wstring> strings;
    AppendStrings(value, strings);
    return strings;
}

using List = std::vector<std::wstring>;

// Every value of up to 7 bytes drawn from these, and the entries to try on them.
const std::uint8_t SMALL_ALPHABET[] = {0x00, 0x41, 0x01};
const std::wstring_view SMALL_ENTRIES[] = {L""sv, L"A"sv, L"\x0101"sv, L"AA"sv};

template <class Check>
void ForSmallValues(const Check& check)
{
    std::vector<RegistryBytes> values{{}};
    for (std::size_t done = 0; done < values.size(); ++done) {
        check(values[done]);
        if (values[done].size() == 7)
            continue;
        for (const std::uint8_t byte : SMALL_ALPHABET) {
            RegistryBytes longer = values[done];
            longer.push_back(byte);
            values.push_back(longer);
        }
    }
}

TEST(FindMultiSZEntry, FindsEveryEntryAtItsPosition)
{
    const RegistryBytes value = BytesOf(L"App1\0App2\0\0"sv);
    EXPECT_EQ(0, FindMultiSZEntry(value, L"App1"));
    EXPECT_EQ(5, FindMultiSZEntry(value, L"App2"));
    EXPECT_EQ(-1, FindMultiSZEntry(value, L"App3"));
}

TEST(FindMultiSZEntry, FindsTheTailOfALongerEntry)
{
    EXPECT_EQ(2, FindMultiSZEntry(BytesOf(L"MyApp1\0\0"sv), L"App1"));
}

TEST(FindMultiSZEntry, DoesNotFindTheHeadOfALongerEntry)
{
    EXPECT_EQ(-1, FindMultiSZEntry(BytesOf(L"App12\0\0"sv), L"App1"));
}

TEST(FindMultiSZEntry, TellsCasesApart)
{
    EXPECT_EQ(-1, FindMultiSZEntry(BytesOf(L"App1\0\0"sv), L"app1"));
}

TEST(FindMultiSZEntry, ComparesWholeCodeUnits)
{
    EXPECT_EQ(-1, FindMultiSZEntry(BytesOf(L"\x0141\0\0"sv), L"A"));
    EXPECT_EQ(0, FindMultiSZEntry(BytesOf(L"\x0141\0\0"sv), L"\x0141"));
}

TEST(FindMultiSZEntry, GivesTheFirstOfSeveralMatches)
{
    EXPECT_EQ(1, FindMultiSZEntry(BytesOf(L"XA\0A\0\0"sv), L"A"));
}

TEST(FindMultiSZEntry, NeedsTheNulBehindTheEntryInsideTheData)
{
    EXPECT_EQ(-1, FindMultiSZEntry(BytesOf(L"App1"sv), L"App1"));
    RegistryBytes halfNul = BytesOf(L"App1"sv);
    halfNul.push_back(0);
    EXPECT_EQ(-1, FindMultiSZEntry(halfNul, L"App1"));
    halfNul.push_back(0);
    EXPECT_EQ(0, FindMultiSZEntry(halfNul, L"App1"));
}

TEST(FindMultiSZEntry, AByteCountAsTheBoundDoesNotLeadBehindTheBuffer)
{
    // The second entry stands behind the 5 characters that count.
    const wchar_t buffer[] = L"App1\0App2\0";
    EXPECT_EQ(-1, FindMultiSZEntry(buffer, 5, 10, L"App2"));
    EXPECT_EQ(5, FindMultiSZEntry(buffer, 10, 20, L"App2"));
}

TEST(FindMultiSZEntry, ABoundBelowTheBufferCutsTheScan)
{
    const wchar_t buffer[] = L"App1\0App2\0";
    EXPECT_EQ(-1, FindMultiSZEntry(buffer, 10, 9, L"App2"));
    EXPECT_EQ(5, FindMultiSZEntry(buffer, 10, 10, L"App2"));
    EXPECT_EQ(-1, FindMultiSZEntry(buffer, 10, 0, L"App2"));
    EXPECT_EQ(-1, FindMultiSZEntry(buffer, 10, 4, L"App1"));
}

TEST(FindMultiSZEntry, AnEmptyEntryIsFoundAtTheFirstNul)
{
    EXPECT_EQ(2, FindMultiSZEntry(BytesOf(L"AB\0\0"sv), L""));
    EXPECT_EQ(-1, FindMultiSZEntry(BytesOf(L"AB"sv), L""));
    EXPECT_EQ(-1, FindMultiSZEntry(RegistryBytes{}, L""));
}

TEST(FindMultiSZEntry, FindsNothingInValuesOfLessThanACharacter)
{
    EXPECT_EQ(-1, FindMultiSZEntry(RegistryBytes{}, L"A"));
    EXPECT_EQ(-1, FindMultiSZEntry(RegistryBytes{0x41}, L"A"));
    EXPECT_EQ(-1, FindMultiSZEntry(RegistryBytes{0x00}, L""));
}

TEST(FindMultiSZEntry, AnEntryLongerThanTheValueIsNotFound)
{
    EXPECT_EQ(-1, FindMultiSZEntry(BytesOf(L"A\0\0"sv), L"A long entry"));
}

TEST(ComposeAddedEntry, AnAbsentValueBecomesTheEntryAndTwoNuls)
{
    EXPECT_EQ(BytesOf(L"App1\0\0"sv), ComposeAddedEntry({}, L"App1"));
}

TEST(ComposeAddedEntry, AppendsBehindTheLastEntry)
{
    EXPECT_EQ(BytesOf(L"App1\0App2\0\0"sv), ComposeAddedEntry(BytesOf(L"App1\0\0"sv), L"App2"));
    EXPECT_EQ(BytesOf(L"A\0B\0C\0\0"sv), ComposeAddedEntry(BytesOf(L"A\0B\0\0"sv), L"C"));
}

TEST(ComposeAddedEntry, App1IsAppendedToAListThatHoldsApp12)
{
    EXPECT_EQ(BytesOf(L"App12\0App1\0\0"sv), ComposeAddedEntry(BytesOf(L"App12\0\0"sv), L"App1"));
}

TEST(ComposeAddedEntry, AnEntryThatDiffersInCaseIsAppended)
{
    EXPECT_EQ(BytesOf(L"App1\0app1\0\0"sv), ComposeAddedEntry(BytesOf(L"App1\0\0"sv), L"app1"));
}

TEST(ComposeAddedEntry, AValueWithOneNulAtItsEndIsContinuedBehindIt)
{
    EXPECT_EQ(BytesOf(L"A\0B\0\0"sv), ComposeAddedEntry(BytesOf(L"A\0"sv), L"B"));
}

TEST(ComposeAddedEntry, StrayEmptyEntriesAtTheEndAreOverwritten)
{
    EXPECT_EQ(BytesOf(L"A\0B\0\0"sv), ComposeAddedEntry(BytesOf(L"A\0\0\0\0\0"sv), L"B"));
}

TEST(ComposeAddedEntry, AValueWithoutANulIsOverwrittenFromItsStart)
{
    EXPECT_EQ(BytesOf(L"XYcdef\0\0"sv), ComposeAddedEntry(BytesOf(L"abcdef"sv), L"XY"));
    EXPECT_EQ(BytesOf(L"WXYZ\0\0"sv), ComposeAddedEntry(BytesOf(L"ab"sv), L"WXYZ"));
}

TEST(ComposeAddedEntry, AValueOfOnlyNulsIsOverwrittenFromItsStart)
{
    for (std::size_t size = 0; size <= 10; size += 2)
        EXPECT_EQ(BytesOf(L"App1\0\0"sv), ComposeAddedEntry(RegistryBytes(size), L"App1")) << size;
    // An odd size: the zeros behind the entry are counted in pairs, which leaves one byte of the 4 unwritten.
    RegistryBytes oddResult = BytesOf(L"App1\0\0"sv);
    oddResult.pop_back();
    for (std::size_t size = 1; size <= 9; size += 2)
        EXPECT_EQ(oddResult, ComposeAddedEntry(RegistryBytes(size), L"App1")) << size;
}

TEST(ComposeAddedEntry, LeadingNulsAreStrippedAndAsMuchIsLeftOutAtTheEnd)
{
    // 2 leading zero bytes: 10 - 4 bytes are copied from byte 2 on, and the trailing NULs are counted in the first 8
    // bytes, where there is one. The entry lands behind a NUL too many.
    EXPECT_EQ(BytesOf(L"AB\0\0C\0\0"sv), ComposeAddedEntry(BytesOf(L"\0AB\0\0"sv), L"C"));
    // No trailing NUL: the entry lands on the start.
    EXPECT_EQ(BytesOf(L"XBC\0\0"sv), ComposeAddedEntry(BytesOf(L"\0ABCD"sv), L"X"));
}

TEST(ComposeAddedEntry, MoreLeadingNulsThanDataLeaveNothingToCopy)
{
    // 6 leading zero bytes, 4 bytes of data: the first 4 bytes are looked at and are NULs.
    EXPECT_EQ(BytesOf(L"\0X\0\0"sv), ComposeAddedEntry(BytesOf(L"\0\0\0AB"sv), L"X"));
    // As many as data.
    EXPECT_EQ(BytesOf(L"\0X\0\0"sv), ComposeAddedEntry(BytesOf(L"\0\0AB"sv), L"X"));
}

TEST(ComposeAddedEntry, AnOddSizeKeepsItsOddByte)
{
    // 5 bytes: A, NUL and half a NUL. Trailing zeros 4 (the high byte of A among them), so the entry starts at 3.
    EXPECT_EQ((RegistryBytes{0x41, 0x00, 0x00, 0x42, 0x00, 0x00, 0x00, 0x00, 0x00}),
              ComposeAddedEntry(RegistryBytes{0x41, 0x00, 0x00, 0x00, 0x00}, L"B"));
    // A lone byte has no trailing NUL.
    EXPECT_EQ((RegistryBytes{0x42, 0x00, 0x00, 0x00, 0x00}), ComposeAddedEntry(RegistryBytes{0x41}, L"B"));
    EXPECT_EQ((RegistryBytes{0x42, 0x00, 0x43, 0x00, 0x00, 0x00, 0x00}),
              ComposeAddedEntry(RegistryBytes{0x41, 0x00, 0x43}, L"B"));
}

TEST(ComposeAddedEntry, CharactersWithAZeroByteAreNoNuls)
{
    EXPECT_EQ(BytesOf(L"\x0100\0B\0\0"sv), ComposeAddedEntry(BytesOf(L"\x0100\0\0"sv), L"B"));
    EXPECT_EQ(BytesOf(L"A\0\x0100\0\0"sv), ComposeAddedEntry(BytesOf(L"A\0\0"sv), L"\x0100"));
}

TEST(ComposeAddedEntry, AnEmptyEntryAddsNothing)
{
    EXPECT_EQ(BytesOf(L"\0\0"sv), ComposeAddedEntry({}, L""));
    EXPECT_EQ(BytesOf(L"A\0\0"sv), ComposeAddedEntry(BytesOf(L"A\0\0"sv), L""));
}

TEST(ComposeAddedEntry, EverySmallValueGivesTheEntryAndTheListsEndWithinItsBuffer)
{
    ForSmallValues([](const RegistryBytes& value) {
        for (const std::wstring_view entry : SMALL_ENTRIES) {
            const RegistryBytes composed = ComposeAddedEntry(value, entry);
            ASSERT_GE(composed.size(), 4u);
            ASSERT_LE(composed.size(), value.size() + 4 + 2 * entry.size());
            for (std::size_t i = composed.size() - 4; i < composed.size(); ++i)
                ASSERT_EQ(0, composed[i]);
        }
    });
}

TEST(ComposeRemovedEntry, RemovesTheFirstTheMiddleAndTheLastEntry)
{
    const RegistryBytes value = BytesOf(L"A\0BB\0C\0\0"sv);
    EXPECT_EQ(BytesOf(L"BB\0C\0\0"sv), Removed(value, L"A"));
    EXPECT_EQ(BytesOf(L"A\0C\0\0"sv), Removed(value, L"BB"));
    EXPECT_EQ(BytesOf(L"A\0BB\0\0"sv), Removed(value, L"C"));
}

TEST(ComposeRemovedEntry, TheOnlyEntryLeavesASingleNul)
{
    EXPECT_EQ(BytesOf(L"\0"sv), Removed(BytesOf(L"App1\0\0"sv), L"App1"));
}

TEST(ComposeRemovedEntry, AnEntryThatIsAllOfTheValueLeavesASingleNulToo)
{
    EXPECT_EQ(BytesOf(L"\0"sv), Removed(BytesOf(L"App1\0"sv), L"App1"));
}

TEST(ComposeRemovedEntry, TheTailOfALongerEntryGoesAndItsHeadIsJoinedToTheNext)
{
    EXPECT_EQ(BytesOf(L"MyApp2\0\0"sv), Removed(BytesOf(L"MyApp1\0App2\0\0"sv), L"App1"));
    EXPECT_EQ(BytesOf(L"My\0"sv), Removed(BytesOf(L"MyApp1\0\0"sv), L"App1"));
}

TEST(ComposeRemovedEntry, AnOddSizeKeepsItsOddByte)
{
    RegistryBytes value = BytesOf(L"A\0B\0"sv);
    value.push_back(0x7F);
    EXPECT_EQ((RegistryBytes{0x42, 0x00, 0x00, 0x00, 0x7F}), Removed(value, L"A"));
    EXPECT_EQ((RegistryBytes{0x41, 0x00, 0x00, 0x00, 0x7F}), Removed(value, L"B"));
}

TEST(ComposeRemovedEntry, APositionOutsideTheValueTouchesNothingOutside)
{
    const RegistryBytes value = BytesOf(L"App1\0\0"sv);
    EXPECT_EQ(value, ComposeRemovedEntry(value, 6, L"A"));
    EXPECT_EQ(value, ComposeRemovedEntry(value, 1000, L"A"));
    EXPECT_EQ(BytesOf(L"App1\0"sv), ComposeRemovedEntry(value, 5, L"A"));
}

TEST(ComposeRemovedEntry, EverySmallValueLosesExactlyTheEntryAndItsNul)
{
    int removals = 0;
    ForSmallValues([&removals](const RegistryBytes& value) {
        for (const std::wstring_view entry : SMALL_ENTRIES) {
            const int position = FindMultiSZEntry(value, entry);
            if (position < 0)
                continue;
            ++removals;
            const RegistryBytes removed = ComposeRemovedEntry(value, static_cast<std::size_t>(position), entry);
            const std::size_t expected = value.size() - 2 * (entry.size() + 1);
            ASSERT_EQ(expected != 0 ? expected : 2, removed.size());
        }
    });
    EXPECT_GT(removals, 0);
}

TEST(AppendValueEntries, ReadsTheEntriesInStoredOrder)
{
    EXPECT_TRUE(ValueEntries(BytesOf(L"Beta\0alpha\0\0"sv)) == (List{L"Beta", L"alpha"}));
}

TEST(AppendValueEntries, AStrayEmptyEntryReadsAsTheEmptyString)
{
    EXPECT_TRUE(ValueEntries(BytesOf(L"A\0\0\0"sv)) == (List{L"A", L""}));
    EXPECT_TRUE(ValueEntries(BytesOf(L"A\0\0B\0\0"sv)) == (List{L"A", L"", L"B"}));
}

TEST(AppendValueEntries, AListOfOneCharacterIsEmpty)
{
    EXPECT_TRUE(ValueEntries(BytesOf(L"\0"sv)).empty());
    EXPECT_TRUE(ValueEntries(BytesOf(L"A"sv)).empty());
}

TEST(AppendValueEntries, ValuesOfLessThanACharacterAreEmpty)
{
    EXPECT_TRUE(ValueEntries({}).empty());
    EXPECT_TRUE(ValueEntries({0x41}).empty());
}

TEST(AppendValueEntries, TwoNulsReadAsOneEmptyEntry)
{
    EXPECT_TRUE(ValueEntries(BytesOf(L"\0\0"sv)) == (List{L""}));
}

TEST(AppendValueEntries, CharactersBehindTheLastNulOfTheWalkAreDropped)
{
    EXPECT_TRUE(ValueEntries(BytesOf(L"A\0B\0"sv)) == (List{L"A"}));
    EXPECT_TRUE(ValueEntries(BytesOf(L"A\0BC"sv)) == (List{L"A"}));
    EXPECT_TRUE(ValueEntries(BytesOf(L"ABC"sv)).empty());
}

TEST(AppendValueEntries, AnOddByteAtTheEndIsNotLookedAt)
{
    RegistryBytes value = BytesOf(L"A\0\0"sv);
    value.push_back(0x42);
    EXPECT_TRUE(ValueEntries(value) == (List{L"A"}));
}

TEST(AppendValueEntries, KeepsWhatTheVectorHolds)
{
    std::vector<std::wstring> entries{L"before"};
    AppendValueEntries(BytesOf(L"A\0\0"sv), entries);
    EXPECT_TRUE(entries == (List{L"before", L"A"}));
}

TEST(IsWellFormedMultiString, NeedsTwoNulsAtTheEnd)
{
    EXPECT_TRUE(IsWellFormedMultiString(BytesOf(L"A\0\0"sv)));
    EXPECT_TRUE(IsWellFormedMultiString(BytesOf(L"\0\0"sv)));
    EXPECT_FALSE(IsWellFormedMultiString(BytesOf(L"A\0"sv)));
    EXPECT_FALSE(IsWellFormedMultiString(BytesOf(L"A\0B"sv)));
    EXPECT_FALSE(IsWellFormedMultiString(BytesOf(L"AB"sv)));
}

TEST(IsWellFormedMultiString, NeedsTwoCharactersAtLeast)
{
    EXPECT_FALSE(IsWellFormedMultiString({}));
    EXPECT_FALSE(IsWellFormedMultiString(RegistryBytes(1)));
    EXPECT_FALSE(IsWellFormedMultiString(RegistryBytes(2)));
    EXPECT_FALSE(IsWellFormedMultiString(RegistryBytes(3)));
    EXPECT_TRUE(IsWellFormedMultiString(RegistryBytes(4)));
}

TEST(IsWellFormedMultiString, NeedsAnEvenSize)
{
    RegistryBytes value = BytesOf(L"A\0\0"sv);
    value.push_back(0);
    EXPECT_FALSE(IsWellFormedMultiString(value));
}

TEST(AppendStrings, StopsAtTheFirstEmptyString)
{
    EXPECT_TRUE(Strings(BytesOf(L"A\0BB\0\0C\0\0"sv)) == (List{L"A", L"BB"}));
    EXPECT_TRUE(Strings(BytesOf(L"\0A\0\0"sv)).empty());
}

TEST(AppendStrings, AStringWithoutItsNulIsTakenAsItStands)
{
    EXPECT_TRUE(Strings(BytesOf(L"A\0BB"sv)) == (List{L"A", L"BB"}));
}

TEST(AppendStrings, EmptyValuesHaveNone)
{
    EXPECT_TRUE(Strings({}).empty());
    EXPECT_TRUE(Strings({0x41}).empty());
}

TEST(AppendStrings, KeepsWhatTheVectorHolds)
{
    std::vector<std::wstring> strings{L"before"};
    AppendStrings(BytesOf(L"A\0\0"sv), strings);
    EXPECT_TRUE(strings == (List{L"before", L"A"}));
}

} // namespace
