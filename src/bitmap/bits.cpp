#include "bitmap/bits.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace vtflt {

namespace {

constexpr std::size_t WORD_BYTES = sizeof(std::uint64_t);

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

// The last blocks, fewer than a word has: the bytes that hold them, and clear ones behind.
std::uint64_t BitCursor::LastWord(const std::uint8_t* bits, std::uint64_t block, std::uint64_t end) noexcept
{
    const std::uint64_t bytes = (end - block + 7) / 8;
    std::uint8_t word[sizeof(std::uint64_t)] = {};
    std::memcpy(word, bits + block / 8, static_cast<std::size_t>(bytes));
    return FirstBlockLowest(word);
}

// A word of nothing else is at the block, which begins a byte: the first block of the first byte that differs.
std::uint64_t BitCursor::BehindAlike(const std::uint8_t* bits, std::uint64_t block, std::uint64_t end,
                                     std::uint8_t than) noexcept
{
    const std::uint64_t byte = block / 8;
    const std::uint64_t whole = end / 8 - byte;
    return block + 8 * std::uint64_t{FindOtherByte(bits + byte, static_cast<std::size_t>(whole), than)};
}

} // namespace vtflt
