// Blocks and bytes as numbers and as texts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vtfltctl::bitmap {

// The largest number stands for everything that does not fit.
[[nodiscard]] constexpr std::uint64_t SaturatedProduct(std::uint64_t a, std::uint64_t b) noexcept
{
    return b != 0 && a > UINT64_MAX / b ? UINT64_MAX : a * b;
}

// 1,234,567
std::string Grouped(std::uint64_t number);
// In the largest unit of 1024 that leaves at least 1: "512 bytes", "64 KiB", "1.5 TiB", at most two decimals.
std::string SizeText(std::uint64_t bytes);
// A mark on an axis that is divided in steps: in the unit of the step where that is exact and short, "1,088 GiB", so
// that neighbours have the same; else as SizeText. Zero is "0".
std::string MarkText(std::uint64_t bytes, std::uint64_t step);
// "0 %", "100 %" only when it is just that; between them at least "under 0.01 %" and at most "over 99.99 %".
std::string ShareText(std::uint64_t part, std::uint64_t whole);

// Bytes: a number, or a number with K, M, G, T or P for powers of 1024 (KiB and KB alike). Nothing for anything else
// and for what does not fit.
std::optional<std::uint64_t> ParseSize(std::string_view text);

// What is known of a volume that a bitmap speaks of; 0 for what is not.
struct Geometry {
    std::uint32_t blockSize = 0;
    std::uint64_t volumeBytes = 0;

    // The blocks of the volume, a last partial one counted. Both must be known.
    [[nodiscard]] std::uint64_t VolumeBlocks() const noexcept
    {
        return volumeBytes / blockSize + (volumeBytes % blockSize != 0 ? 1 : 0);
    }
    // Where a block begins, in bytes; a block behind the volume's end begins at the end. The block size must be known.
    [[nodiscard]] std::uint64_t Offset(std::uint64_t block) const noexcept;
};

} // namespace vtfltctl::bitmap
