// The shared blocks of the log, apart from the system: their first bytes, and sequence numbers of any value.
#include "log/bounded_text.h"
#include "log/config_block.h"
#include "log/ring_block.h"

#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <vector>

using namespace vtflt;

namespace {

constexpr std::int64_t SMALLEST = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t LARGEST = std::numeric_limits<std::int64_t>::max();

void Put32(std::vector<unsigned char>& bytes, std::size_t offset, std::uint32_t value)
{
    for (std::size_t i = 0; i < 4; ++i)
        bytes[offset + i] = static_cast<unsigned char>(value >> (8 * i));
}

TEST(BoundedText, AFieldWithoutAZeroIsReadToItsEnd)
{
    const wchar_t full[3] = {L'a', L'b', L'c'};
    EXPECT_EQ(3u, FieldText(full).size());
    const wchar_t ended[3] = {L'a', L'\0', L'c'};
    EXPECT_TRUE(FieldText(ended) == L"a");
    const wchar_t empty[3] = {L'\0', L'b', L'c'};
    EXPECT_TRUE(FieldText(empty).empty());
}

TEST(BoundedText, ACopyIsCutEndsInAZeroAndClearsWhatWasThere)
{
    wchar_t field[4] = {L'x', L'x', L'x', L'x'};
    CopyText(field, L"abcdef");
    EXPECT_TRUE(std::wstring_view(field, 4) == std::wstring_view(L"abc\0", 4));
    CopyText(field, L"abc");
    EXPECT_TRUE(std::wstring_view(field, 4) == std::wstring_view(L"abc\0", 4));
    CopyText(field, L"z");
    EXPECT_TRUE(std::wstring_view(field, 4) == std::wstring_view(L"z\0\0\0", 4));
    CopyText(field, {});
    EXPECT_TRUE(std::wstring_view(field, 4) == std::wstring_view(L"\0\0\0\0", 4));
}

TEST(BoundedText, ACopyOfAFieldOntoItselfKeepsIt)
{
    wchar_t field[6] = L"abcde";
    CopyText(field, FieldText(field));
    EXPECT_TRUE(FieldText(field) == L"abcde");
    CopyText(field, FieldText(field).substr(2));
    EXPECT_TRUE(FieldText(field) == L"cde");
}

TEST(BoundedText, AnAdditionIsCutAndNothingIsAddedToAFullField)
{
    wchar_t field[5] = L"ab";
    AppendText(field, L"cdef");
    EXPECT_TRUE(FieldText(field) == L"abcd");
    AppendText(field, L"e");
    EXPECT_TRUE(FieldText(field) == L"abcd");
    wchar_t unended[2] = {L'a', L'b'};
    AppendText(unended, L"c");
    EXPECT_TRUE(std::wstring_view(unended, 2) == L"ab");
}

TEST(ConfigBlock, ANewOneHasItsMarksNoLevelAndFlags1InEveryEntry)
{
    std::vector<unsigned char> expected(1188876);
    Put32(expected, 0, 59110);
    Put32(expected, 1028, 0xFFFFFFFF);
    for (std::size_t i = 0; i < 1024; ++i)
        Put32(expected, 1032 + i * 1160 + 1156, 1);
    Put32(expected, 1188872, 59110);

    const auto block = std::make_unique<LogCfgBlock>();
    StartLogCfgBlock(*block);
    ASSERT_EQ(expected.size(), sizeof(*block));
    EXPECT_EQ(0, std::memcmp(expected.data(), block.get(), expected.size()));
}

TEST(ConfigBlock, IsIntactWithBothMarksOnly)
{
    const auto block = std::make_unique<LogCfgBlock>();
    EXPECT_FALSE(IsLogCfgBlockIntact(*block));
    StartLogCfgBlock(*block);
    EXPECT_TRUE(IsLogCfgBlockIntact(*block));
    block->tailMagic = 0xE6E60000;
    EXPECT_FALSE(IsLogCfgBlockIntact(*block));
    StartLogCfgBlock(*block);
    block->headMagic = 0xE6E7;
    EXPECT_FALSE(IsLogCfgBlockIntact(*block));
}

TEST(RingBlock, ANewOneIsZeroButForTheWriteSequence)
{
    std::vector<unsigned char> expected(2654720);
    Put32(expected, 8, 0xFFFFFFFF);
    Put32(expected, 12, 0xFFFFFFFF);
    const auto ring = std::make_unique<LogRingBlock>();
    StartLogRing(*ring);
    ASSERT_EQ(expected.size(), sizeof(*ring));
    EXPECT_EQ(0, std::memcmp(expected.data(), ring.get(), expected.size()));
}

TEST(RingBlock, RecordSLiesInSlotSModulo1024)
{
    EXPECT_EQ(0u, RingSlot(0));
    EXPECT_EQ(1023u, RingSlot(1023));
    EXPECT_EQ(0u, RingSlot(1024));
    EXPECT_EQ(1u, RingSlot(4097));
}

TEST(RingBlock, NegativeAndHugeNumbersHaveSlotsInTheRing)
{
    for (const std::int64_t sequence :
         {SMALLEST, SMALLEST + 1, std::int64_t{-1025}, std::int64_t{-2}, std::int64_t{-1}, LARGEST - 1, LARGEST})
        EXPECT_LT(RingSlot(sequence), 1024u);
    EXPECT_EQ(SMALLEST, NextSequence(LARGEST));
    EXPECT_EQ(0, NextSequence(-1));
}

TEST(RingBlock, ARecordIsWrittenIntoItsSlotAndNowhereElse)
{
    for (const std::int64_t before :
         {std::int64_t{-1}, std::int64_t{1022}, std::int64_t{1023}, std::int64_t{-700}, LARGEST, SMALLEST}) {
        SCOPED_TRACE(before);
        const auto ring = std::make_unique<LogRingBlock>();
        std::memset(ring.get(), 0xA5, sizeof(*ring));
        ring->writeSequence = before;
        const auto expected = std::make_unique<LogRingBlock>(*ring);
        LogRecordBlock record = {};
        record.processId = 77;
        CopyText(record.text, L"text");
        AppendRecord(*ring, record);

        expected->writeSequence = before == LARGEST ? SMALLEST : before + 1;
        expected->slots[RingSlot(expected->writeSequence)] = record;
        EXPECT_EQ(0, std::memcmp(expected.get(), ring.get(), sizeof(*ring)));
    }
}

void ExpectBacklog(const LogRingBacklog& backlog, std::int64_t read, std::uint64_t count, std::uint64_t overwritten)
{
    EXPECT_EQ(read, backlog.read);
    EXPECT_EQ(count, backlog.count);
    EXPECT_EQ(overwritten, backlog.overwritten);
}

TEST(RingBacklog, NothingIsThereBeforeTheFirstRecordAndRecord0IsNeverDelivered)
{
    ExpectBacklog(ReadBacklog(0, -1), -1, 0, 0);
    ExpectBacklog(ReadBacklog(0, 0), 0, 0, 0);
    ExpectBacklog(ReadBacklog(0, 1), 0, 1, 0);
}

TEST(RingBacklog, AReaderMayBe1024RecordsBehindWithoutALoss)
{
    ExpectBacklog(ReadBacklog(5, 1029), 5, 1024, 0);
    ExpectBacklog(ReadBacklog(5, 1030), 5, 1025, 1);
    ExpectBacklog(ReadBacklog(5, 5 + 4096), 5, 4096, 3072);
}

TEST(RingBacklog, NumbersBeyondBeliefGiveTheNewestRecordsOnly)
{
    ExpectBacklog(ReadBacklog(5, 6 + 4096), 6, 4096, 3073);
    ExpectBacklog(ReadBacklog(0, LARGEST), LARGEST - 4096, 4096, static_cast<std::uint64_t>(LARGEST) - 1024);
    ExpectBacklog(ReadBacklog(SMALLEST, LARGEST), LARGEST - 4096, 4096, UINT64_MAX - 1024);
    ExpectBacklog(ReadBacklog(SMALLEST, SMALLEST + 1), SMALLEST, 1, 0);
}

TEST(RingBacklog, AReadSequenceAboveTheWriteSequenceIsSetBackWithNothingToTake)
{
    ExpectBacklog(ReadBacklog(LARGEST, 3), 3, 0, 0);
    ExpectBacklog(ReadBacklog(0, -5), -5, 0, 0);
    ExpectBacklog(ReadBacklog(LARGEST, SMALLEST), SMALLEST, 0, 0);
}

} // namespace
