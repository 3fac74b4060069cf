#include "bitmap_grid.h"

#include <algorithm>
#include <bit>

namespace vtfltctl::bitmap {
namespace {

constexpr std::uint64_t WORD_BITS = 64;

// Adds a word's bits to its cells. A cell is a power of two of blocks, so a word lies in one cell, or several cells
// lie in a word.
void AddWord(Grid& grid, std::uint64_t number, std::uint64_t word) noexcept
{
    if (word == 0)
        return;
    const std::uint64_t firstBlock = number * WORD_BITS;
    if (grid.blocksPerCell >= WORD_BITS) {
        grid.changed[static_cast<std::size_t>(firstBlock / grid.blocksPerCell)] +=
            static_cast<std::uint64_t>(std::popcount(word));
        return;
    }
    const auto bits = static_cast<unsigned>(grid.blocksPerCell);
    for (unsigned at = 0; at < WORD_BITS; at += bits) {
        const std::uint64_t part = word << at >> (WORD_BITS - bits);
        if (part != 0)
            grid.changed[static_cast<std::size_t>((firstBlock + at) / bits)] +=
                static_cast<std::uint64_t>(std::popcount(part));
    }
}

} // namespace

Shade ShadeOf(std::uint64_t changed, std::uint64_t blocks) noexcept
{
    if (changed == 0)
        return Shade::None;
    if (changed >= blocks)
        return Shade::All;
    // A cell has far fewer blocks than would overflow these.
    if (changed * 100 <= blocks)
        return Shade::Traces;
    if (changed * 10 <= blocks)
        return Shade::Little;
    return changed * 2 <= blocks ? Shade::Half : Shade::Most;
}

bool CanHave(std::uint64_t blocksPerCell, Shade shade) noexcept
{
    switch (shade) {
    case Shade::None:
    case Shade::All:
        return true;
    case Shade::Traces:
        return blocksPerCell >= 100;
    case Shade::Little:
        return blocksPerCell >= 10;
    case Shade::Half:
        return blocksPerCell >= 2;
    case Shade::Most:
        return blocksPerCell >= 3;
    }
    return false;
}

std::string_view ShadeText(Shade shade) noexcept
{
    switch (shade) {
    case Shade::None:
        return "unchanged";
    case Shade::Traces:
        return "up to 1 %";
    case Shade::Little:
        return "up to 10 %";
    case Shade::Half:
        return "up to 50 %";
    case Shade::Most:
        return "under 100 %";
    case Shade::All:
        return "all changed";
    }
    return "";
}

std::uint64_t Grid::BlocksOf(std::size_t cell) const noexcept
{
    return std::min(blocksPerCell, blocks - cell * blocksPerCell);
}

Grid ShapeGrid(std::uint64_t blocks, const GridLimits& limits) noexcept
{
    Grid grid;
    grid.blocks = blocks;
    const auto cells = [&] { return (blocks + grid.blocksPerCell - 1) / grid.blocksPerCell; };
    while (cells() > limits.cells)
        grid.blocksPerCell *= 2;
    grid.columns = limits.smallestColumns;
    while (grid.columns < limits.largestColumns && grid.columns * grid.columns * 10 < cells() * limits.widthToHeight)
        grid.columns *= 2;
    grid.rows = (cells() + grid.columns - 1) / grid.columns;
    return grid;
}

Grid CountGrid(BitSource& source, const GridLimits& limits)
{
    Grid grid = ShapeGrid(source.Blocks(), limits);
    grid.changed.resize(static_cast<std::size_t>((grid.blocks + grid.blocksPerCell - 1) / grid.blocksPerCell));
    WordReader words(source, grid.blocks);
    for (std::uint64_t i = 0; i < words.Words(); ++i) {
        const std::uint64_t word = words.At(i);
        grid.totals.Add(word);
        AddWord(grid, i, word);
    }
    return grid;
}

} // namespace vtfltctl::bitmap
