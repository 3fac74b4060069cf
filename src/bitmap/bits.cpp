#include "bitmap/bits.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace vtflt {

namespace {

constexpr std::size_t WORD_BYTES = sizeof(std::uint64_t);
constexpr std::uint8_t ALL_CLEAR = 0x00;
constexpr std::uint8_t ALL_SET = 0xFF;

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

// The first block from one on that differs; the whole bytes between are skipped at the memory's speed.
std::uint64_t FindOther(const std::uint8_t* bits, std::uint64_t from, std::uint64_t end, std::uint8_t than) noexcept
{
    if (from >= end)
        return end;
    std::uint64_t byte = from / 8;
    auto other = static_cast<std::uint8_t>((bits[byte] ^ than) & (ALL_SET >> from % 8));
    if (other == 0) {
        const std::uint64_t bytes = (end + 7) / 8;
        ++byte;
        byte += g_operations.findOtherByte(bits + byte, static_cast<std::size_t>(bytes - byte), than);
        if (byte == bytes)
            return end;
        other = static_cast<std::uint8_t>(bits[byte] ^ than);
    }
    return std::min(end, byte * 8 + static_cast<std::uint64_t>(std::countl_zero(other)));
}

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

std::uint64_t FindSetBit(const std::uint8_t* bits, std::uint64_t from, std::uint64_t end) noexcept
{
    return FindOther(bits, from, end, ALL_CLEAR);
}

std::uint64_t FindClearBit(const std::uint8_t* bits, std::uint64_t from, std::uint64_t end) noexcept
{
    return FindOther(bits, from, end, ALL_SET);
}

} // namespace vtflt
