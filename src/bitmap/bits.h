// The work on the bits of a bitmap: merging, counting, finding. Block k is byte k / 8, mask 0x80 >> (k mod 8); a set bit
// is a changed block. Nothing here needs the system.
//
// A volume of 64 TiB has a bitmap of 128 MiB, and a backup waits while it is merged: where the processor has AVX2 these
// use it, elsewhere plain words. Both give the same bits. Any thread may call them; nothing is kept between calls.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vtflt {

// ORs count bytes into others, byte i into byte i. The two must not overlap; any alignment will do.
void OrBits(std::uint8_t* to, const std::uint8_t* from, std::size_t count) noexcept;

// How many bits are set in count bytes.
std::uint64_t CountSetBits(const std::uint8_t* bits, std::size_t count) noexcept;

// The first block from one on, and before an end, that is set, or that is clear; the end when there is none. No byte is
// read behind the one that holds the last block before the end.
std::uint64_t FindSetBit(const std::uint8_t* bits, std::uint64_t from, std::uint64_t end) noexcept;
std::uint64_t FindClearBit(const std::uint8_t* bits, std::uint64_t from, std::uint64_t end) noexcept;

// The same for one kind of processor each: for tests and measurements, which hold one against the other.
struct BitOperations {
    void (*orBytes)(std::uint8_t* to, const std::uint8_t* from, std::size_t count) noexcept;
    std::uint64_t (*countSet)(const std::uint8_t* bits, std::size_t count) noexcept;
    // The first of count bytes that is not what is given; count when there is none.
    std::size_t (*findOtherByte)(const std::uint8_t* bytes, std::size_t count, std::uint8_t than) noexcept;
};
extern const BitOperations PORTABLE_BIT_OPERATIONS;
// What the processor at hand runs, when it has AVX2; never null, but to be called only where it does.
const BitOperations& Avx2BitOperations() noexcept;
bool ProcessorHasAvx2() noexcept;
const BitOperations& ChooseBitOperations(bool hasAvx2) noexcept;

} // namespace vtflt
