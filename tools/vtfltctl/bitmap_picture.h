// A volume's grid as a picture, and as coloured text for a terminal.
#pragma once

#include "bitmap_canvas.h"
#include "bitmap_grid.h"
#include "bitmap_numbers.h"

#include <string>
#include <vector>

namespace vtfltctl::bitmap {

struct Caption {
    // UTF-8: what the bitmap is, and where it comes from.
    std::string title;
    std::string source;
    // For the axes and sizes; without a block size they count blocks.
    Geometry geometry;
    // Cells from this block on are shown as missing from the file, whatever their bits.
    std::uint64_t heldBlocks = UINT64_MAX;
};

// The bytes of all changed blocks; of a last partial block what the volume has of it. The block size must be known.
std::uint64_t ChangedBytes(const Totals& totals, const Geometry& geometry) noexcept;

// What is written above every picture: the volume's size, and what has changed of it. Lines without their ends.
std::vector<std::string> Summary(const Grid& grid, const Geometry& geometry);
// What a cell and a row stand for.
std::string CellText(const Grid& grid, const Geometry& geometry);

inline constexpr GridLimits PICTURE_LIMITS{
    .cells = 512 * 320, .smallestColumns = 32, .largestColumns = 512, .widthToHeight = 16};

// A mark at a block, on an axis with a mark at every so many blocks.
std::string MarkAt(std::uint64_t block, std::uint64_t step, const Geometry& geometry);

// The colour of a shade, and of cells that the file does not hold.
Colour ColourOf(Shade shade) noexcept;
inline constexpr Colour MISSING_COLOUR{0x5B, 0x7F, 0xB5};

// Where the grid lies in the picture.
struct Plot {
    int left;
    int top;
    // Pixels of a cell's side. A gap of one pixel is left between cells when they are large enough.
    int cell;
    int gap;
};
struct Picture {
    Canvas canvas;
    Plot plot;
};
// The grid must have been counted within PICTURE_LIMITS.
Picture DrawPicture(const Grid& grid, const Caption& caption);

// For a terminal: two rows of cells in a line, in 24-bit colour; else one row in a line, with a character for a shade.
// Columns must be a power of two.
GridLimits TerminalLimits(bool colour, std::uint64_t columns) noexcept;
std::string TerminalPicture(const Grid& grid, const Caption& caption, bool colour);

} // namespace vtfltctl::bitmap
