// Every way of working on bits against the plainest one: bit by bit.
#include "bitmap/bits.h"

#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;
using vtflt::BitCursor;
using vtflt::BitOperations;

// The ways that this machine can run.
std::vector<const BitOperations*> Ways()
{
    std::vector<const BitOperations*> ways{&vtflt::PORTABLE_BIT_OPERATIONS};
    if (vtflt::ProcessorHasAvx2())
        ways.push_back(&vtflt::Avx2BitOperations());
    return ways;
}

enum class Fill {
    Clear,
    Sparse,
    Random,
    Set,
};
constexpr Fill FILLS[] = {Fill::Clear, Fill::Sparse, Fill::Random, Fill::Set};

Bytes Make(std::size_t count, Fill fill, unsigned seed)
{
    std::mt19937 random(seed);
    Bytes bytes(count, static_cast<std::uint8_t>(fill == Fill::Set ? 0xFF : 0));
    for (std::uint8_t& byte : bytes) {
        if (fill == Fill::Random || (fill == Fill::Sparse && random() % 700 == 0))
            byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

// Lengths around the widths that the code steps by, pages and all.
std::vector<std::size_t> Lengths()
{
    std::vector<std::size_t> lengths;
    for (std::size_t i = 0; i <= 300; ++i)
        lengths.push_back(i);
    for (const std::size_t near : {512U, 1024U, 4096U, 128U * 1024, 128U * 1024 + 4 * 4096}) {
        for (std::size_t i = near - 17; i <= near + 34; i += 17)
            lengths.push_back(i);
    }
    return lengths;
}

void ExpectOr(const BitOperations& way, std::size_t length, Fill fill, std::size_t toOffset, std::size_t fromOffset)
{
    constexpr std::size_t GUARD = 40;
    Bytes to = Make(toOffset + length + GUARD, Fill::Random, 1);
    const Bytes from = Make(fromOffset + length, fill, 2);
    Bytes expected = to;
    for (std::size_t i = 0; i < length; ++i)
        expected[toOffset + i] |= from[fromOffset + i];
    way.orBytes(to.data() + toOffset, from.data() + fromOffset, length);
    EXPECT_TRUE(to == expected) << length << " bytes, offsets " << toOffset << " and " << fromOffset;
}

TEST(Bits, OrGivesEveryBitOfBothAndTouchesNothingElse)
{
    for (const BitOperations* const way : Ways()) {
        for (const std::size_t length : Lengths()) {
            for (const Fill fill : FILLS) {
                ExpectOr(*way, length, fill, 0, 0);
                ExpectOr(*way, length, fill, 84, 16);
                ExpectOr(*way, length, fill, 1, 31);
            }
        }
    }
}

TEST(Bits, OrTakesEveryByteOfALargeBitmap)
{
    // One set bit, wherever it may lie.
    constexpr std::size_t LENGTH = 128 * 1024 + 20000;
    Bytes from(LENGTH + 84);
    for (const BitOperations* const way : Ways()) {
        Bytes to(LENGTH + 84);
        for (std::size_t at = 0; at < LENGTH; at += at < 130 || at + 400 > LENGTH ? 1 : 331) {
            from[84 + at] = 0x10;
            way->orBytes(to.data() + 84, from.data() + 84, LENGTH);
            EXPECT_EQ(to[84 + at], 0x10) << at;
            from[84 + at] = 0;
            to[84 + at] = 0;
        }
    }
}

TEST(Bits, CountsWhatIsSet)
{
    for (const BitOperations* const way : Ways()) {
        for (const std::size_t length : Lengths()) {
            for (const Fill fill : FILLS) {
                const Bytes bytes = Make(length + 3, fill, 3);
                std::uint64_t expected = 0;
                for (std::size_t i = 3; i < bytes.size(); ++i) {
                    for (unsigned bit = 0; bit < 8; ++bit)
                        expected += static_cast<unsigned>(bytes[i]) >> bit & 1U;
                }
                EXPECT_EQ(way->countSet(bytes.data() + 3, length), expected) << length;
            }
        }
    }
}

TEST(Bits, FindsTheFirstByteThatDiffers)
{
    for (const BitOperations* const way : Ways()) {
        for (const std::uint8_t than : {std::uint8_t{0}, std::uint8_t{0xFF}}) {
            for (std::size_t length = 0; length <= 400; ++length) {
                Bytes bytes(length + 1, than);
                bytes[length] = 0x42; // behind the end: not looked at
                EXPECT_EQ(way->findOtherByte(bytes.data(), length, than), length);
                for (std::size_t at = 0; at < length; at += 1 + at / 40) {
                    bytes[at] ^= 0x20;
                    EXPECT_EQ(way->findOtherByte(bytes.data(), length, than), at) << length;
                    bytes[at] ^= 0x20;
                }
            }
        }
    }
}

// Every block asked for in turn, against the answer that the blocks themselves give.
void ExpectFound(const Bytes& bytes, std::uint64_t end)
{
    const auto isSet = [&](std::uint64_t block) { return (bytes[block / 8] & 0x80 >> block % 8) != 0; };
    std::uint64_t set = end;
    std::uint64_t clear = end;
    for (std::uint64_t from = end + 2; from-- > 0;) {
        if (from < end)
            (isSet(from) ? set : clear) = from;
        ASSERT_EQ(BitCursor(bytes.data(), from, end).FindSet(), set) << from << " of " << end;
        ASSERT_EQ(BitCursor(bytes.data(), from, end).FindClear(), clear) << from << " of " << end;
    }
}

TEST(Bits, FindsTheNextSetAndTheNextClearBlock)
{
    for (const Fill fill : FILLS) {
        for (unsigned seed = 0; seed < 20; ++seed) {
            const Bytes bytes = Make(700, fill, seed);
            for (const std::uint64_t end : {0U, 1U, 7U, 8U, 9U, 5599U, 5600U})
                ExpectFound(bytes, end);
        }
    }
}

TEST(Bits, ACursorGoesFromRunToRun)
{
    for (const Fill fill : FILLS) {
        for (unsigned seed = 0; seed < 50; ++seed) {
            const Bytes bytes = Make(700, fill, seed);
            const std::uint64_t from = seed;
            const std::uint64_t end = 5600 - seed * 3;
            Bytes seen(bytes.size());
            BitCursor cursor(bytes.data(), from, end);
            for (std::uint64_t at = cursor.FindSet(); at != end; at = cursor.FindSet()) {
                const std::uint64_t stop = cursor.FindClear();
                ASSERT_LT(at, stop);
                for (; at != stop; ++at)
                    seen[at / 8] |= static_cast<std::uint8_t>(0x80 >> at % 8);
            }
            for (std::uint64_t block = 0; block < 5600; ++block) {
                const std::uint8_t mask = static_cast<std::uint8_t>(0x80 >> block % 8);
                const bool expected = block >= from && block < end && (bytes[block / 8] & mask) != 0;
                ASSERT_EQ((seen[block / 8] & mask) != 0, expected) << block;
            }
        }
    }
}

TEST(Bits, ACursorStaysWhereItFoundWhatIsAskedForAgain)
{
    const Bytes bytes{0x3C, 0x00, 0x01};
    BitCursor cursor(bytes.data(), 0, 24);
    EXPECT_EQ(cursor.FindClear(), 0u);
    EXPECT_EQ(cursor.FindSet(), 2u);
    EXPECT_EQ(cursor.FindSet(), 2u);
    BitCursor copy = cursor;
    EXPECT_EQ(cursor.FindClear(), 6u);
    EXPECT_EQ(cursor.FindClear(), 6u);
    EXPECT_EQ(copy.FindSet(), 2u);
    EXPECT_EQ(cursor.FindSet(), 23u);
    for (int again = 0; again < 2; ++again) {
        EXPECT_EQ(cursor.FindClear(), 24u);
        EXPECT_EQ(cursor.FindSet(), 24u);
    }
}

TEST(Bits, ACursorOverNothingIsAtItsEnd)
{
    BitCursor cursor(nullptr, 0, 0);
    EXPECT_EQ(cursor.FindSet(), 0u);
    EXPECT_EQ(cursor.FindClear(), 0u);
    EXPECT_EQ(BitCursor(nullptr, 7, 7).FindSet(), 7u);
    EXPECT_EQ(BitCursor(nullptr, ~std::uint64_t{0}, 5).FindClear(), 5u);
}

// Runs of all lengths, their ends anywhere in a word, in memory that ends with the byte of the last block.
TEST(Bits, ACursorReadsNoByteBehindTheLastBlocks)
{
    std::mt19937 random(9);
    for (std::uint64_t end = 1; end < 1500; end += 1 + end / 90) {
        std::vector<bool> blocks;
        for (bool isSet = random() % 2 != 0; blocks.size() < end; isSet = !isSet)
            blocks.insert(blocks.end(), 1 + random() % (random() % 4 == 0 ? 400 : 9), isSet);
        const std::size_t count = static_cast<std::size_t>((end + 7) / 8);
        const std::unique_ptr<std::uint8_t[]> bytes(new std::uint8_t[count]());
        for (std::size_t i = 0; i < end; ++i)
            bytes[i / 8] = static_cast<std::uint8_t>(bytes[i / 8] | (blocks[i] ? 0x80u >> i % 8 : 0u));
        bytes[count - 1] =
            static_cast<std::uint8_t>(bytes[count - 1] | ((1u << (count * 8 - end)) - 1)); // do not count
        BitCursor cursor(bytes.get(), 0, end);
        std::uint64_t at = 0;
        while (at < end) {
            const bool wanted = !blocks[static_cast<std::size_t>(at)];
            while (at < end && blocks[static_cast<std::size_t>(at)] != wanted)
                ++at;
            ASSERT_EQ(wanted ? cursor.FindSet() : cursor.FindClear(), at) << end;
        }
    }
}

TEST(Bits, ABlockBehindTheEndIsNotFound)
{
    const Bytes bytes{0x00, 0x01};
    EXPECT_EQ(BitCursor(bytes.data(), 0, 15).FindSet(), 15u);
    EXPECT_EQ(BitCursor(bytes.data(), 0, 16).FindSet(), 15u);
    EXPECT_EQ(BitCursor(bytes.data(), 20, 16).FindSet(), 16u);
}

TEST(Bits, AProcessorWithoutAvx2GetsThePortableWay)
{
    EXPECT_EQ(&vtflt::ChooseBitOperations(false), &vtflt::PORTABLE_BIT_OPERATIONS);
    EXPECT_EQ(&vtflt::ChooseBitOperations(true), &vtflt::Avx2BitOperations());
}

TEST(Bits, TheWayInUseGivesWhatThePortableOneGives)
{
    const Bytes from = Make(300000, Fill::Random, 5);
    Bytes to = Make(300000, Fill::Sparse, 6);
    Bytes expected = to;
    vtflt::PORTABLE_BIT_OPERATIONS.orBytes(expected.data(), from.data(), from.size());
    vtflt::OrBits(to.data(), from.data(), from.size());
    EXPECT_TRUE(to == expected);
    EXPECT_EQ(vtflt::CountSetBits(to.data(), to.size()), vtflt::PORTABLE_BIT_OPERATIONS.countSet(to.data(), to.size()));
}

} // namespace
