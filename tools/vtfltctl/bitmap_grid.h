// A volume as a grid of cells: each cell is a run of blocks, row by row from the volume's first block on.
#pragma once

#include "bitmap_bits.h"

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

namespace vtfltctl::bitmap {

// How much of a cell has changed. Any change shows, and "all" is no less than all.
enum class Shade {
    None,
    Traces, // up to 1 %
    Little, // up to 10 %
    Half,   // up to 50 %
    Most,   // less than all
    All,
};
inline constexpr std::array<Shade, 6> SHADES{Shade::None, Shade::Traces, Shade::Little,
                                             Shade::Half, Shade::Most,   Shade::All};

Shade ShadeOf(std::uint64_t changed, std::uint64_t blocks) noexcept;
// Whether a cell of so many blocks can have it.
bool CanHave(std::uint64_t blocksPerCell, Shade shade) noexcept;
// "unchanged", "up to 1 %" ...
std::string_view ShadeText(Shade shade) noexcept;

struct GridLimits {
    std::uint64_t cells;
    std::uint64_t smallestColumns;
    std::uint64_t largestColumns;
    // The grid's width against its height, in tenths.
    std::uint64_t widthToHeight;
};

struct Grid {
    std::uint64_t blocks = 0;
    // Powers of two, so that rows and columns begin at round offsets.
    std::uint64_t blocksPerCell = 1;
    std::uint64_t columns = 1;
    std::uint64_t rows = 0;
    // Of each cell that has a block, how many of its blocks changed; the last row may have fewer cells.
    std::vector<std::uint64_t> changed;
    Totals totals;

    [[nodiscard]] std::uint64_t BlocksPerRow() const noexcept { return columns * blocksPerCell; }
    // The blocks of one cell: the last may have fewer.
    [[nodiscard]] std::uint64_t BlocksOf(std::size_t cell) const noexcept;
    [[nodiscard]] Shade ShadeAt(std::size_t cell) const noexcept { return ShadeOf(changed[cell], BlocksOf(cell)); }
};

// The grid's shape alone, without counts: the fewest blocks per cell that stay within the limits.
Grid ShapeGrid(std::uint64_t blocks, const GridLimits& limits) noexcept;
// Reads the whole bitmap once. Throws ReadError.
Grid CountGrid(BitSource& source, const GridLimits& limits);

} // namespace vtfltctl::bitmap
