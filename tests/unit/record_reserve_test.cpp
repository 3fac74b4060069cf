#include "bitmap/record_reserve.h"

#include <gtest/gtest.h>

namespace vtflt {
namespace {

constexpr std::uint32_t LARGE = RecordReserve::SMALLEST_KEPT;

TEST(RecordReserve, GivesAKeptRecordToTheNextOfItsSize)
{
    RecordReserve reserve;
    auto record = reserve.Take(LARGE);
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(LARGE, record->Size());
    const BitmapRecord* const first = record.get();
    reserve.Keep(std::move(record));
    record = reserve.Take(LARGE);
    EXPECT_EQ(first, record.get());
    const auto second = reserve.Take(LARGE);
    EXPECT_NE(nullptr, second);
    EXPECT_NE(first, second.get()) << "it was given away";
}

// Volumes whose length changed have bitmaps of two lengths.
TEST(RecordReserve, MakesARecordOfAnotherSizeAnew)
{
    RecordReserve reserve;
    reserve.Keep(reserve.Take(LARGE));
    const auto longer = reserve.Take(LARGE + 512);
    ASSERT_NE(nullptr, longer);
    EXPECT_EQ(LARGE + 512, longer->Size());
    reserve.Keep(reserve.Take(LARGE + 512));
    const auto shorter = reserve.Take(LARGE);
    ASSERT_NE(nullptr, shorter);
    EXPECT_EQ(LARGE, shorter->Size());
}

TEST(RecordReserve, KeepsTheLargeOneWhenASmallOneOrNoneComes)
{
    RecordReserve reserve;
    auto small = reserve.Take(LARGE - 1);
    auto large = reserve.Take(LARGE);
    const BitmapRecord* const kept = large.get();
    reserve.Keep(std::move(large));
    reserve.Keep(std::move(small));
    reserve.Keep(nullptr);
    EXPECT_EQ(kept, reserve.Take(LARGE).get());
}

TEST(RecordReserve, HasNothingAfterADrop)
{
    RecordReserve reserve;
    auto first = reserve.Take(LARGE);
    ASSERT_NE(nullptr, first);
    first->Bytes()[LARGE / 2] = 0x5A;
    reserve.Keep(std::move(first));
    reserve.Drop();
    const auto record = reserve.Take(LARGE);
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(LARGE, record->Size());
    EXPECT_EQ(0, record->Bytes()[LARGE / 2]) << "new memory is clear, and this is not new";
}

} // namespace
} // namespace vtflt
