// What the library's work on bits is held against: plain loops written by hand for AVX2, and a byte loop.
#pragma once

#include <cstddef>
#include <cstdint>

namespace bench {

void OrByteLoop(std::uint8_t* to, const std::uint8_t* from, std::size_t count);
// One vector of 32 bytes at a time, and four at a time.
void OrAvx2(std::uint8_t* to, const std::uint8_t* from, std::size_t count);
void OrAvx2Unrolled(std::uint8_t* to, const std::uint8_t* from, std::size_t count);
// Four at a time, from where writes are aligned: byte by byte up to there.
void OrAvx2Aligned(std::uint8_t* to, const std::uint8_t* from, std::size_t count);
void ClearAvx2(std::uint8_t* to, std::size_t count);
void CopyAvx2(std::uint8_t* to, const std::uint8_t* from, std::size_t count);
// The processor's own count of 64 bits, four at a time; a table of the bits of half a byte, 32 bytes at a time; and the
// same table for one vector in sixteen, the others added up bit by bit, with carries.
std::uint64_t CountPopcnt(const std::uint8_t* bits, std::size_t count);
std::uint64_t CountAvx2(const std::uint8_t* bits, std::size_t count);
std::uint64_t CountAvx2CarrySave(const std::uint8_t* bits, std::size_t count);
// Visits every run of set bits: words of 64 bits, clear and set vectors skipped. The sum of the runs' ends and starts.
std::uint64_t WalkAvx2(const std::uint8_t* bits, std::size_t count);

} // namespace bench
