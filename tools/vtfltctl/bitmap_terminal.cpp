// The picture as text: half blocks in 24-bit colour, or a character for each cell.
#include "bitmap_picture.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtfltctl::bitmap {
namespace {

constexpr std::uint64_t LINES = 24;
constexpr std::string_view UPPER_HALF = "\xE2\x96\x80";
constexpr std::string_view RESET = "\x1b[0m";
constexpr std::size_t LABEL_WIDTH = 12;
constexpr std::uint64_t COLUMN_LABELS = 4;
constexpr char MISSING_CHARACTER = '?';

char CharacterOf(Shade shade) noexcept
{
    switch (shade) {
    case Shade::None:
        return '.';
    case Shade::Traces:
        return '-';
    case Shade::Little:
        return '+';
    case Shade::Half:
        return 'x';
    case Shade::Most:
        return '%';
    case Shade::All:
        return '#';
    }
    return ' ';
}

std::string Foreground(Colour colour)
{
    return fmt::format("\x1b[38;2;{};{};{}m", colour.red, colour.green, colour.blue);
}

std::string Background(Colour colour)
{
    return fmt::format("\x1b[48;2;{};{};{}m", colour.red, colour.green, colour.blue);
}

class TerminalDrawing {
public:
    TerminalDrawing(const Grid& grid, const Caption& caption, bool colour)
        : m_grid(grid), m_caption(caption), m_colour(colour)
    {
    }

    std::string Draw()
    {
        m_text = m_caption.title + "\n" + m_caption.source + "\n";
        for (const std::string& line : Summary(m_grid, m_caption.geometry))
            m_text += line + "\n";
        m_text += "\n";
        DrawColumnLabels();
        const std::uint64_t rowsPerLine = m_colour ? 2 : 1;
        for (std::uint64_t row = 0; row < m_grid.rows; row += rowsPerLine)
            DrawLine(row);
        m_text += fmt::format("{:>{}}\n\n", RowMark(m_grid.blocks), LABEL_WIDTH);
        m_text += CellText(m_grid, m_caption.geometry) + "\n";
        DrawLegend();
        return std::move(m_text);
    }

private:
    [[nodiscard]] std::string RowMark(std::uint64_t block) const
    {
        return MarkAt(block, m_grid.BlocksPerRow() * (m_colour ? 2 : 1), m_caption.geometry);
    }

    void DrawColumnLabels()
    {
        // Each label beginning above its column.
        std::string line(LABEL_WIDTH + 1, ' ');
        const Geometry row{.blockSize = m_caption.geometry.blockSize};
        for (std::uint64_t column = 0; column < m_grid.columns; column += m_grid.columns / COLUMN_LABELS) {
            line.resize(std::max(line.size(), LABEL_WIDTH + 1 + static_cast<std::size_t>(column)), ' ');
            line += "|+" + MarkAt(column * m_grid.blocksPerCell, m_grid.BlocksPerRow() / COLUMN_LABELS, row);
        }
        m_text += line + "\n";
    }

    void DrawLine(std::uint64_t row)
    {
        m_text += fmt::format("{:>{}} ", RowMark(row * m_grid.BlocksPerRow()), LABEL_WIDTH);
        for (std::uint64_t column = 0; column < m_grid.columns; ++column) {
            const auto upper = static_cast<std::size_t>(row * m_grid.columns + column);
            if (upper >= m_grid.changed.size())
                break;
            m_colour ? AddColoured(upper) : AddPlain(upper);
        }
        if (m_colour)
            m_text += RESET;
        m_text += "\n";
    }

    [[nodiscard]] bool IsMissing(std::size_t cell) const { return cell * m_grid.blocksPerCell >= m_caption.heldBlocks; }

    [[nodiscard]] Colour CellColour(std::size_t cell) const
    {
        return IsMissing(cell) ? MISSING_COLOUR : ColourOf(m_grid.ShadeAt(cell));
    }

    void AddPlain(std::size_t cell)
    {
        m_text += IsMissing(cell) ? MISSING_CHARACTER : CharacterOf(m_grid.ShadeAt(cell));
    }

    void AddColoured(std::size_t upper)
    {
        const std::size_t lower = upper + static_cast<std::size_t>(m_grid.columns);
        m_text += lower < m_grid.changed.size() ? Background(CellColour(lower)) : "\x1b[49m";
        m_text += Foreground(CellColour(upper));
        m_text += UPPER_HALF;
    }

    void DrawLegend()
    {
        std::string line;
        for (const Shade shade : SHADES) {
            if (CanHave(m_grid.blocksPerCell, shade))
                line += LegendEntry(ColourOf(shade), CharacterOf(shade), ShadeText(shade));
        }
        if (m_caption.heldBlocks < m_grid.blocks)
            line += LegendEntry(MISSING_COLOUR, MISSING_CHARACTER, "not in the file: counts as changed");
        m_text += line + "\n";
    }

    [[nodiscard]] std::string LegendEntry(Colour colour, char character, std::string_view text) const
    {
        if (m_colour)
            return fmt::format("{}  {} {}   ", Background(colour), RESET, text);
        return fmt::format("{} {}   ", character, text);
    }

    const Grid& m_grid;
    const Caption& m_caption;
    bool m_colour;
    std::string m_text;
};

} // namespace

GridLimits TerminalLimits(bool colour, std::uint64_t columns) noexcept
{
    const std::uint64_t rows = colour ? 2 * LINES : LINES;
    return {.cells = columns * rows, .smallestColumns = columns, .largestColumns = columns, .widthToHeight = 10};
}

std::string TerminalPicture(const Grid& grid, const Caption& caption, bool colour)
{
    return TerminalDrawing(grid, caption, colour).Draw();
}

} // namespace vtfltctl::bitmap
