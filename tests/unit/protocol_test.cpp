// The bytes of the driver's protocol: the arithmetic of the get-bitmap header and the device query.
#include "driver/protocol.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace {

using namespace vtflt;

constexpr std::int64_t MIN64 = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t MAX64 = std::numeric_limits<std::int64_t>::max();

std::vector<std::uint8_t> Filled(std::size_t size)
{
    return std::vector<std::uint8_t>(size, 0xA5);
}

std::uint32_t Word32(const std::vector<std::uint8_t>& bytes, std::size_t offset)
{
    std::uint32_t word = 0;
    std::memcpy(&word, bytes.data() + offset, sizeof(word));
    return word;
}

TEST(ControlCodes, AreDeviceType0xB000WithAnyAccess)
{
    EXPECT_EQ(DriverControlCode(0, DRIVER_METHOD_OUT_DIRECT), 0xB0000002u);
    EXPECT_EQ(DriverControlCode(17, DRIVER_METHOD_OUT_DIRECT), 0xB0000046u);
    EXPECT_EQ(DriverControlCode(7, DRIVER_METHOD_IN_DIRECT), 0xB000001Du);
}

TEST(RequiredBitmapLength, CountsWholeEightByteGroupsBehindTheHeader)
{
    EXPECT_EQ(RequiredBitmapLength(0, 0), 16u);
    EXPECT_EQ(RequiredBitmapLength(0, 1), 24u);
    EXPECT_EQ(RequiredBitmapLength(0, 8), 24u);
    EXPECT_EQ(RequiredBitmapLength(0, 9), 32u);
}

TEST(RequiredBitmapLength, TakesTheDifferenceOfTheWords)
{
    EXPECT_EQ(RequiredBitmapLength(1000, 1000), 16u);
    EXPECT_EQ(RequiredBitmapLength(1000, 1009), 32u);
    EXPECT_EQ(RequiredBitmapLength(-9, 0), 32u);
}

TEST(RequiredBitmapLength, DividesTowardZeroWhenTheDifferenceIsNegative)
{
    EXPECT_EQ(RequiredBitmapLength(7, 0), 16u);
    EXPECT_EQ(RequiredBitmapLength(14, 0), 16u) << "(-14 + 7) / 8 is 0 and not -1";
    EXPECT_EQ(RequiredBitmapLength(15, 0), 8u);
    EXPECT_EQ(RequiredBitmapLength(31, 0), 0xFFFFFFF8u) << "16 - 24 kept to 32 bits";
}

TEST(RequiredBitmapLength, KeepsTheLow32Bits)
{
    EXPECT_EQ(RequiredBitmapLength(0, 0x100000000), 16u);
    EXPECT_EQ(RequiredBitmapLength(0, 0x100000001), 24u);
    EXPECT_EQ(RequiredBitmapLength(0, 0xFFFFFFF0), 0u);
}

TEST(RequiredBitmapLength, WrapsWithHostileWords)
{
    // Each expectation is the 64-bit wrapped difference plus 7, divided by 8, cut to 32 bits.
    EXPECT_EQ(RequiredBitmapLength(0, MAX64), 24u) << "MAX64 + 7 wraps to MIN64 + 6, which divides toward zero";
    EXPECT_EQ(RequiredBitmapLength(MIN64, 0), 24u) << "the difference wraps to MIN64, and 7 more divides toward zero";
    EXPECT_EQ(RequiredBitmapLength(MIN64, MAX64), 16u) << "the difference wraps to -1";
    EXPECT_EQ(RequiredBitmapLength(MAX64, MIN64), 24u) << "the difference wraps to 1";
}

TEST(BitmapBitsInReply, AreTheBitsBehindTheHeader)
{
    EXPECT_EQ(BitmapBitsInReply(16), 0u);
    EXPECT_EQ(BitmapBitsInReply(17), 8u);
    EXPECT_EQ(BitmapBitsInReply(24), 64u);
}

TEST(BitmapBitsInReply, WrapIn32Bits)
{
    EXPECT_EQ(BitmapBitsInReply(0), 0xFFFFFF80u);
    EXPECT_EQ(BitmapBitsInReply(15), 0xFFFFFFF8u);
    EXPECT_EQ(BitmapBitsInReply(0x20000010), 0u);
    EXPECT_EQ(BitmapBitsInReply(0xFFFFFFFF), 0xFFFFFF78u);
}

// With so many blocks, and as few as 63 less, the header says that there are none: the length of the reply still tells.
TEST(BitmapBitsInReply, AreNoneOf2To32Blocks)
{
    constexpr std::uint32_t BITMAP_BYTES = 1u << 29;
    EXPECT_EQ(BitmapBitsInReply(BITMAP_HEADER_BYTES + BITMAP_BYTES - 8), 0xFFFFFFC0u);
    EXPECT_EQ(BitmapBitsInReply(BITMAP_HEADER_BYTES + BITMAP_BYTES), 0u);
    EXPECT_EQ(BitmapBitsInReply(BITMAP_HEADER_BYTES + BITMAP_BYTES + 8), 64u);
}

TEST(BitmapHeader, ReadsTheWordsThatLieInsideTheBuffer)
{
    constexpr std::int64_t H0 = 0x0102030405060708;
    constexpr std::int64_t H1 = -2;
    std::array<std::uint8_t, 16> whole = {};
    std::memcpy(whole.data(), &H0, sizeof(H0));
    std::memcpy(whole.data() + 8, &H1, sizeof(H1));

    for (std::uint32_t length = 0; length <= 16; ++length) {
        // A copy of exactly this size, so that a sanitizer sees every byte read beyond it.
        const std::vector<std::uint8_t> buffer(whole.begin(), whole.begin() + length);
        const BitmapHeader header = ReadBitmapHeader(buffer.data(), length);
        EXPECT_EQ(header.H0, length >= 8 ? H0 : 0) << length;
        EXPECT_EQ(header.H1, length >= 16 ? H1 : 0) << length;
    }
}

TEST(BitmapHeader, IsReadAtAnyAlignment)
{
    std::vector<std::uint8_t> buffer(24, 0);
    buffer[3] = 1;
    buffer[11] = 9;
    const BitmapHeader header = ReadBitmapHeader(buffer.data() + 3, 16);
    EXPECT_EQ(header.H0, 1);
    EXPECT_EQ(header.H1, 9);
}

TEST(BitmapHeader, TakesTheBitCountZeroExtendedIntoItsSecondWord)
{
    std::vector<std::uint8_t> buffer = Filled(32);
    StoreBitmapBits(buffer.data(), 32, 0xFFFFFF80);

    std::vector<std::uint8_t> expected = Filled(32);
    const std::array<std::uint8_t, 8> word = {0x80, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
    std::memcpy(expected.data() + 8, word.data(), word.size());
    EXPECT_EQ(buffer, expected);
}

TEST(BitmapHeader, IsNotWrittenInABufferOfLessThan16Bytes)
{
    for (std::uint32_t length = 0; length < 16; ++length) {
        std::vector<std::uint8_t> buffer = Filled(length);
        StoreBitmapBits(buffer.data(), length, 64);
        EXPECT_EQ(buffer, Filled(length)) << length;
    }
}

TEST(BitmapHeader, IsWrittenInABufferOfExactly16Bytes)
{
    std::vector<std::uint8_t> buffer = Filled(16);
    StoreBitmapBits(buffer.data(), 16, 0);
    EXPECT_EQ(ReadBitmapHeader(buffer.data(), 16).H1, 0);
    EXPECT_EQ(Word32(buffer, 0), 0xA5A5A5A5u);
}

TEST(DeviceQuery, OfAThreeUnitNameHas30BytesAndALengthFieldOf6)
{
    ASSERT_EQ(DeviceQueryLength(6), 30u);
    std::vector<std::uint8_t> query = Filled(32);
    WriteDeviceQuery(query.data(), u"C:x", 6);

    EXPECT_EQ(Word32(query, 0), 24u);
    EXPECT_EQ(Word32(query, 4), 8u);
    EXPECT_EQ(Word32(query, 8), 24u);
    EXPECT_EQ(Word32(query, 12), 6u);
    EXPECT_EQ(Word32(query, 16), 0u);
    EXPECT_EQ(Word32(query, 20), 0u);
    const std::vector<std::uint8_t> name(query.begin() + 24, query.begin() + 30);
    EXPECT_EQ(name, (std::vector<std::uint8_t>{'C', 0, ':', 0, 'x', 0}));
    EXPECT_EQ(query[30], 0xA5) << "no end is written behind the name";
}

TEST(DeviceQuery, OfAnEmptyNameIsTheHeaderAlone)
{
    std::vector<std::uint8_t> query = Filled(DeviceQueryLength(0));
    ASSERT_EQ(query.size(), 24u);
    WriteDeviceQuery(query.data(), u"", 0);
    EXPECT_EQ(Word32(query, 8), 24u);
    EXPECT_EQ(Word32(query, 12), 0u);
}

TEST(DeviceQuery, OfTheLongestNameHasTheLargest32BitLength)
{
    EXPECT_EQ(DeviceQueryLength(static_cast<std::uint32_t>(MAX_DEVICE_NAME_BYTES)), 0xFFFFFFFFu);
}

} // namespace
