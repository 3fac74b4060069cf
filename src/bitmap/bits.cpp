#include "bitmap/bits.h"

#include <bit>
#include <cstring>

namespace vtflt {

namespace {

constexpr std::size_t WORD_BYTES = sizeof(std::uint64_t);
constexpr unsigned WORD_BITS = 64;

std::uint64_t WordAt(const std::uint8_t* bytes) noexcept
{
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}

void OrWords(std::uint8_t* to, const std::uint8_t* from, std::size_t count) noexcept
{
    std::size_t i = 0;
    for (; i + WORD_BYTES <= count; i += WORD_BYTES) {
        const std::uint64_t word = WordAt(to + i) | WordAt(from + i);
        std::memcpy(to + i, &word, sizeof(word));
    }
    for (; i < count; ++i)
        to[i] |= from[i];
}

std::uint64_t CountWords(const std::uint8_t* bits, std::size_t count) noexcept
{
    std::uint64_t set = 0;
    std::size_t i = 0;
    for (; i + WORD_BYTES <= count; i += WORD_BYTES)
        set += static_cast<std::uint64_t>(std::popcount(WordAt(bits + i)));
    for (; i < count; ++i)
        set += static_cast<std::uint64_t>(std::popcount(bits[i]));
    return set;
}

std::size_t FindOtherByteInWords(const std::uint8_t* bytes, std::size_t count, std::uint8_t than) noexcept
{
    const std::uint64_t wanted = than * (~std::uint64_t{0} / 0xFF);
    std::size_t i = 0;
    while (i + WORD_BYTES <= count && WordAt(bytes + i) == wanted)
        i += WORD_BYTES;
    while (i < count && bytes[i] == than)
        ++i;
    return i;
}

// The bits of each byte in the other order.
constexpr std::uint64_t WithBytesReversed(std::uint64_t word) noexcept
{
    constexpr std::uint64_t FOURS = 0x0F0F0F0F0F0F0F0F;
    constexpr std::uint64_t TWOS = 0x3333333333333333;
    constexpr std::uint64_t ONES = 0x5555555555555555;
    word = (word & FOURS) << 4 | (word >> 4 & FOURS);
    word = (word & TWOS) << 2 | (word >> 2 & TWOS);
    return (word & ONES) << 1 | (word >> 1 & ONES);
}

// Eight bytes, the first in the lowest place: compilers make one instruction of it.
std::uint64_t LittleEndian(const std::uint8_t* bytes) noexcept
{
    return std::uint64_t{bytes[0]} | std::uint64_t{bytes[1]} << 8 | std::uint64_t{bytes[2]} << 16 |
           std::uint64_t{bytes[3]} << 24 | std::uint64_t{bytes[4]} << 32 | std::uint64_t{bytes[5]} << 40 |
           std::uint64_t{bytes[6]} << 48 | std::uint64_t{bytes[7]} << 56;
}

// A word of blocks from one on that begins a byte, the first in the lowest bit. No byte is read that holds none before the end;
// what stands behind that does not count.
std::uint64_t BlocksAt(const std::uint8_t* bits, std::uint64_t block, std::uint64_t end) noexcept
{
    if (end - block >= WORD_BITS)
        return WithBytesReversed(LittleEndian(bits + block / 8));
    std::uint8_t bytes[WORD_BYTES] = {};
    std::memcpy(bytes, bits + block / 8, static_cast<std::size_t>((end - block + 7) / 8));
    return WithBytesReversed(LittleEndian(bytes));
}

// Of a word of blocks those that are not like the one before them, before so many that are left; isSet: the one before the
// first.
std::uint64_t ChangesIn(std::uint64_t word, std::uint64_t left, bool isSet) noexcept
{
    const std::uint64_t changes = word ^ (word << 1 | (isSet ? 1 : 0));
    return left >= WORD_BITS ? changes : changes & ~(~std::uint64_t{0} << left);
}

// Looked at once, when the module is loaded.
const BitOperations& g_operations = ChooseBitOperations(ProcessorHasAvx2());

} // namespace

const BitOperations PORTABLE_BIT_OPERATIONS = {OrWords, CountWords, FindOtherByteInWords};

const BitOperations& ChooseBitOperations(bool hasAvx2) noexcept
{
    return hasAvx2 ? Avx2BitOperations() : PORTABLE_BIT_OPERATIONS;
}

void OrBits(std::uint8_t* to, const std::uint8_t* from, std::size_t count) noexcept
{
    g_operations.orBytes(to, from, count);
}

std::uint64_t CountSetBits(const std::uint8_t* bits, std::size_t count) noexcept
{
    return g_operations.countSet(bits, count);
}

std::size_t FindOtherByte(const std::uint8_t* bytes, std::size_t count, std::uint8_t than) noexcept
{
    return g_operations.findOtherByte(bytes, count, than);
}

BitCursor::Changes BitCursor::FirstWord(const std::uint8_t* bits, std::uint64_t from, std::uint64_t end,
                                        bool isSet) noexcept
{
    const std::uint64_t base = from / 8 * 8;
    const std::uint64_t word = BlocksAt(bits, base, end);
    const auto skipped = static_cast<unsigned>(from - base);
    // Those before the first, and the first itself, are no change.
    return {base, ChangesIn(word, end - base, isSet) & ~std::uint64_t{1} << skipped};
}

BitCursor::Changes BitCursor::NextWord(const std::uint8_t* bits, std::uint64_t base, std::uint64_t end,
                                       bool isSet) noexcept
{
    const std::uint64_t alike = isSet ? ~std::uint64_t{0} : 0;
    while (end - base > WORD_BITS) {
        base += WORD_BITS;
        if (end - base >= WORD_BITS && WordAt(bits + base / 8) == alike) {
            // No word but bytes: the first one that differs begins the word that is looked at.
            const auto whole = static_cast<std::size_t>((end - base) / 8);
            base += 8 * std::uint64_t{FindOtherByte(bits + base / 8, whole, isSet ? 0xFF : 0x00)};
        }
        const std::uint64_t changes = ChangesIn(BlocksAt(bits, base, end), end - base, isSet);
        if (changes != 0)
            return {base, changes};
    }
    return {base, 0};
}

} // namespace vtflt
