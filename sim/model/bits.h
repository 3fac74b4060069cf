// Arithmetic on bitmaps: bit k is byte k / 8, mask 0x80 >> (k % 8).
#pragma once

#include <cstddef>
#include <cstdint>

namespace vtfltsim::model {

constexpr std::uint64_t DivideUp(std::uint64_t value, std::uint64_t unit)
{
    return value / unit + (value % unit != 0 ? 1 : 0);
}

constexpr std::uint64_t BytesForBits(std::uint64_t bits)
{
    return DivideUp(bits, 8);
}

inline bool TestBit(const std::uint8_t* bits, std::uint64_t index)
{
    return (bits[index / 8] & (0x80u >> (index % 8))) != 0;
}

// Sets the bits first to last, both included.
void SetBits(std::uint8_t* bits, std::uint64_t first, std::uint64_t last);
// Clears the bits first to last, both included.
void ClearBits(std::uint8_t* bits, std::uint64_t first, std::uint64_t last);
void OrBits(std::uint8_t* target, const std::uint8_t* source, std::size_t bytes);
std::uint64_t CountBits(const std::uint8_t* bits, std::size_t bytes);
// The first index from start on, below end, whose bit has this value; end when there is none.
std::uint64_t FindBit(const std::uint8_t* bits, std::uint64_t start, std::uint64_t end, bool value);

} // namespace vtfltsim::model
