#include "bitmap/record.h"

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

namespace {

using vtflt::BitmapBytesForVolume;
using vtflt::BitmapRecord;
using vtflt::RecordSizeFor;

void SetField(BitmapRecord& record, std::size_t offset, std::uint32_t value)
{
    std::memcpy(record.Bytes() + offset, &value, sizeof(value));
}

TEST(BitmapRecord, LayoutOfAFreshRecordIsByteExact)
{
    const auto record = BitmapRecord::Make(65536, 24);
    ASSERT_NE(record, nullptr);
    ASSERT_EQ(record->Size(), 4096u);

    std::vector<std::uint8_t> expected(4096);
    std::memcpy(expected.data(), "STCA", 4);
    expected[10] = 1;  // 65536
    expected[12] = 24; // bitmap bytes
    expected[17] = 16; // 4096
    std::memcpy(expected.data() + 4092, "ACDE", 4);
    EXPECT_EQ(std::memcmp(record->Bytes(), expected.data(), expected.size()), 0);
}

TEST(BitmapRecord, SizeIsTheSmallestMultipleOf4096ThatLeavesFourZeroBytesBeforeTheTrailer)
{
    EXPECT_EQ(RecordSizeFor(0), 4096u);
    EXPECT_EQ(RecordSizeFor(4004), 4096u);
    EXPECT_EQ(RecordSizeFor(4005), 8192u);
    EXPECT_EQ(RecordSizeFor(2097168), 2101248u);
    EXPECT_EQ(RecordSizeFor(2097152), 2101248u);
}

TEST(BitmapRecord, SizeThatDoesNotFit32BitsIsRefused)
{
    EXPECT_EQ(RecordSizeFor(0xFFFFFFFF), 0u);
    EXPECT_EQ(BitmapRecord::Make(1, 0xFFFFFFFF), nullptr);
}

TEST(BitmapRecord, VolumeOfOneTiBWith64KiBBlocksNeeds2097152Bytes)
{
    EXPECT_EQ(BitmapBytesForVolume(1099511627776, 65536), 2097152u);
}

TEST(BitmapRecord, LastPartialBlockIsCounted)
{
    EXPECT_EQ(BitmapBytesForVolume(8 * 65536, 65536), 1u);
    EXPECT_EQ(BitmapBytesForVolume(8 * 65536 + 1, 65536), 2u);
    EXPECT_EQ(BitmapBytesForVolume(1, 65536), 1u);
    EXPECT_EQ(BitmapBytesForVolume(0, 65536), 0u);
}

TEST(BitmapRecord, LongestVolumeAndSmallestBlockStayInsideTheArithmetic)
{
    // The number of blocks is taken as 32 bits.
    EXPECT_EQ(BitmapBytesForVolume(0xFFFFFFFFll * 0x80000000ll, 0x80000000), 0x20000000u);
    EXPECT_EQ(BitmapBytesForVolume(INT64_MAX, 1), 0x20000000u);
    EXPECT_EQ(BitmapBytesForVolume(1ll << 32, 1), 0u);
}

TEST(BitmapRecord, OrIsBytewiseAndKeepsWhatWasSet)
{
    const auto record = BitmapRecord::Make(4096, 4);
    record->Bitmap()[0] = 0x01;
    const std::uint8_t bits[] = {0x80, 0x00, 0xFF, 0x10};
    record->Or(bits, sizeof(bits));
    EXPECT_EQ(record->Bitmap()[0], 0x81);
    EXPECT_EQ(record->Bitmap()[1], 0x00);
    EXPECT_EQ(record->Bitmap()[2], 0xFF);
    EXPECT_EQ(record->Bitmap()[3], 0x10);
}

TEST(BitmapRecord, OrTakesEveryByteOfAnOddNumber)
{
    const auto record = BitmapRecord::Make(4096, 7);
    const std::vector<std::uint8_t> bits(5, 0x42);
    record->Or(bits.data(), bits.size());
    EXPECT_EQ(record->Bitmap()[4], 0x42);
    EXPECT_EQ(record->Bitmap()[5], 0x00);
}

TEST(BitmapRecord, OrBeyondTheBitmapIsDropped)
{
    const auto record = BitmapRecord::Make(4096, 4);
    const std::vector<std::uint8_t> bits(8192, 0xFF);
    record->Or(bits.data(), bits.size());
    EXPECT_EQ(record->Bitmap()[3], 0xFF);
    EXPECT_EQ(record->Bitmap()[4], 0x00);
    EXPECT_TRUE(record->IsValid());
}

TEST(BitmapRecord, ClearLeavesTheHeader)
{
    const auto record = BitmapRecord::Make(4096, 4);
    record->Bitmap()[0] = 0xFF;
    record->Clear();
    EXPECT_EQ(record->Bitmap()[0], 0x00);
    EXPECT_EQ(record->BlockSize(), 4096u);
    EXPECT_EQ(record->BitmapLength(), 4u);
    EXPECT_TRUE(record->IsValid());
}

TEST(BitmapRecord, GrownBitmapHasAClearTailAndKeepsItsBlockSize)
{
    const auto record = BitmapRecord::Make(4096, 2);
    record->Bitmap()[0] = 0xAB;
    record->Bitmap()[1] = 0xCD;
    const auto grown = record->Resized(5000);
    ASSERT_NE(grown, nullptr);
    EXPECT_EQ(grown->Size(), 8192u);
    EXPECT_EQ(grown->BlockSize(), 4096u);
    EXPECT_EQ(grown->BitmapLength(), 5000u);
    EXPECT_EQ(grown->Bitmap()[0], 0xAB);
    EXPECT_EQ(grown->Bitmap()[1], 0xCD);
    for (std::size_t i = 2; i < 5000; ++i)
        ASSERT_EQ(grown->Bitmap()[i], 0x00) << i;
    EXPECT_TRUE(grown->IsValid());
}

TEST(BitmapRecord, ShrunkBitmapLosesItsTail)
{
    const auto record = BitmapRecord::Make(4096, 5000);
    std::memset(record->Bitmap(), 0xFF, 5000);
    const auto shrunk = record->Resized(2);
    ASSERT_NE(shrunk, nullptr);
    EXPECT_EQ(shrunk->Size(), 4096u);
    EXPECT_EQ(shrunk->Bitmap()[1], 0xFF);
    EXPECT_EQ(shrunk->Bitmap()[2], 0x00);
    EXPECT_TRUE(shrunk->IsValid());
}

TEST(BitmapRecord, RecordIsValidOnlyWithSignatureAndTrailer)
{
    const auto record = BitmapRecord::Make(4096, 4);
    EXPECT_TRUE(record->IsValid());
    record->Bytes()[0] = 's';
    EXPECT_FALSE(record->IsValid());
    record->Bytes()[0] = 'S';
    record->Bytes()[4095] = 'e';
    EXPECT_FALSE(record->IsValid());
}

TEST(BitmapRecord, TinyRecordsAreReadWithoutLeavingThem)
{
    for (std::uint32_t size = 0; size <= 100; ++size) {
        const auto record = BitmapRecord::Allocate(size);
        ASSERT_NE(record, nullptr);
        EXPECT_FALSE(record->IsValid());
        EXPECT_EQ(record->BitmapLength(), 0u);
        EXPECT_EQ(record->HeldBitmapBytes(), 0u);
        record->Clear();
        std::uint8_t one = 0xFF;
        record->Or(&one, 1);
        EXPECT_EQ(record->CopyBitmap(&one, 1), 0u);
    }
}

TEST(BitmapRecord, RecordOfEightBytesWithBothEndsIsValidAndHoldsNothing)
{
    const auto record = BitmapRecord::Allocate(8);
    std::memcpy(record->Bytes(), "STCAACDE", 8);
    EXPECT_TRUE(record->IsValid());
    EXPECT_EQ(record->HeldBitmapBytes(), 0u);
}

TEST(BitmapRecord, BitmapLengthBeyondTheRecordIsCutAtTheRecord)
{
    const auto record = BitmapRecord::Make(4096, 16);
    SetField(*record, 12, 0xFFFFFFFF);
    EXPECT_EQ(record->HeldBitmapBytes(), 4096u - 88u);
    EXPECT_FALSE(record->HoldsItsBitmap());

    const std::vector<std::uint8_t> bits(100000, 0xFF);
    record->Or(bits.data(), bits.size());
    EXPECT_TRUE(record->IsValid()) << "the trailer was overwritten";
    record->Clear();
    EXPECT_TRUE(record->IsValid());
}

TEST(BitmapRecord, BitmapBytesThatTheRecordDoesNotHoldCountAsChanged)
{
    const auto record = BitmapRecord::Make(4096, 16);
    SetField(*record, 12, 5000);
    std::vector<std::uint8_t> copy(6000, 0x55);
    EXPECT_EQ(record->CopyBitmap(copy.data(), 6000), 5000u);
    EXPECT_EQ(copy[0], 0x00);
    EXPECT_EQ(copy[4007], 0x00);
    EXPECT_EQ(copy[4008], 0xFF);
    EXPECT_EQ(copy[4999], 0xFF);
    EXPECT_EQ(copy[5000], 0x55);

    const auto rebuilt = record->Resized(5000);
    ASSERT_NE(rebuilt, nullptr);
    EXPECT_TRUE(rebuilt->HoldsItsBitmap());
    EXPECT_EQ(rebuilt->Bitmap()[4007], 0x00);
    EXPECT_EQ(rebuilt->Bitmap()[4008], 0xFF);
}

TEST(BitmapRecord, CopyIsBoundedByTheBuffer)
{
    const auto record = BitmapRecord::Make(4096, 16);
    std::memset(record->Bitmap(), 0xAA, 16);
    std::uint8_t copy[4] = {};
    EXPECT_EQ(record->CopyBitmap(copy, 3), 3u);
    EXPECT_EQ(copy[2], 0xAA);
    EXPECT_EQ(copy[3], 0x00);
    EXPECT_EQ(record->CopyBitmap(copy, 0), 0u);
}

TEST(BitmapRecord, FewerBytesThanASignatureAreNone)
{
    const std::uint8_t bytes[] = {'S', 'T', 'C', 'A'};
    EXPECT_TRUE(vtflt::HasRecordSignature(bytes, 4));
    EXPECT_FALSE(vtflt::HasRecordSignature(bytes, 3));
    EXPECT_FALSE(vtflt::HasRecordSignature(nullptr, 0));
}

TEST(BitmapRecord, TheTrailerOfARecordThatIsShorterThanOneStandsAtItsStart)
{
    const auto record = BitmapRecord::Allocate(3);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->TrailerOffset(), 0u);
    record->RestoreTrailer();
    EXPECT_EQ(std::memcmp(record->Bytes(), "ACDE", 4), 0);
    record->WithholdTrailer();
    EXPECT_EQ(std::memcmp(record->Bytes(), "\0\0\0\0", 4), 0);
    EXPECT_FALSE(record->IsValid());
}

} // namespace
