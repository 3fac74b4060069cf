#include "model/bits.h"

#include <bit>
#include <cstring>

namespace vtfltsim::model {

void SetBits(std::uint8_t* bits, std::uint64_t first, std::uint64_t last)
{
    std::uint64_t index = first;
    for (; index <= last && index % 8 != 0; ++index)
        bits[index / 8] = static_cast<std::uint8_t>(bits[index / 8] | (0x80u >> (index % 8)));
    if (index + 7 <= last) {
        const std::uint64_t bytes = (last + 1 - index) / 8;
        std::memset(bits + index / 8, 0xFF, bytes);
        index += bytes * 8;
    }
    for (; index <= last; ++index)
        bits[index / 8] = static_cast<std::uint8_t>(bits[index / 8] | (0x80u >> (index % 8)));
}

void ClearBits(std::uint8_t* bits, std::uint64_t first, std::uint64_t last)
{
    for (std::uint64_t index = first; index <= last; ++index)
        bits[index / 8] = static_cast<std::uint8_t>(bits[index / 8] & ~(0x80u >> (index % 8)));
}

void OrBits(std::uint8_t* target, const std::uint8_t* source, std::size_t bytes)
{
    for (std::size_t i = 0; i < bytes; ++i)
        target[i] = static_cast<std::uint8_t>(target[i] | source[i]);
}

std::uint64_t CountBits(const std::uint8_t* bits, std::size_t bytes)
{
    std::uint64_t count = 0;
    for (std::size_t i = 0; i < bytes; ++i)
        count += static_cast<unsigned>(std::popcount(bits[i]));
    return count;
}

std::uint64_t FindBit(const std::uint8_t* bits, std::uint64_t start, std::uint64_t end, bool value)
{
    const std::uint8_t skipped = value ? 0x00 : 0xFF;
    std::uint64_t index = start;
    while (index < end) {
        if (index % 8 == 0 && bits[index / 8] == skipped) {
            index += 8;
            continue;
        }
        if (TestBit(bits, index) == value)
            return index;
        ++index;
    }
    return end;
}

} // namespace vtfltsim::model
