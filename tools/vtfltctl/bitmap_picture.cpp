#include "bitmap_picture.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtfltctl::bitmap {
namespace {

constexpr int PLOT_WIDTH = 1024;
constexpr int MARGIN = 28;
constexpr int TITLE_SIZE = 22;
constexpr int TEXT_SIZE = 15;
constexpr int LABEL_SIZE = 13;
constexpr int LINE_HEIGHT = 22;
constexpr int TICK = 6;
constexpr int LABEL_DISTANCE = 34; // between labels of rows
constexpr int SMALLEST_CELL_WITH_GAP = 8;
constexpr std::uint64_t COLUMN_LABELS = 8;
constexpr int SWATCH = 16;

constexpr Colour INK{0x22, 0x26, 0x2B};
constexpr Colour QUIET_INK{0x5C, 0x64, 0x6E};
constexpr Colour FRAME{0x9A, 0xA3, 0xAD};

// A text that fits the width; what does not is cut, with an ellipsis.
std::string Fitted(int size, std::string text, int width)
{
    // Measuring costs time, and no character is narrower than this.
    const bool hopeless = text.size() > static_cast<std::size_t>(width);
    if (hopeless)
        text.resize(static_cast<std::size_t>(width));
    else if (Canvas::TextWidth(size, text) <= width)
        return text;
    constexpr const char* ELLIPSIS = "\xE2\x80\xA6";
    while (!text.empty() && Canvas::TextWidth(size, text + ELLIPSIS) > width) {
        // A whole character: its continuation bytes and its first.
        while (text.size() > 1 && (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80)
            text.pop_back();
        text.pop_back();
    }
    return text + ELLIPSIS;
}

constexpr std::string_view MISSING_TEXT = "not in the file: counts as changed";

class Drawing {
public:
    Drawing(const Grid& grid, const Caption& caption)
        : m_grid(grid), m_caption(caption), m_summary(Summary(grid, caption.geometry)), m_plot(PlacePlot()),
          m_canvas(m_plot.left + PLOT_WIDTH + MARGIN + LabelWidth() / 2, m_plot.top + PlotHeight() + FooterHeight())
    {
    }

    Picture Draw()
    {
        DrawHeader();
        DrawCells();
        DrawFrame();
        DrawColumnLabels();
        DrawRowLabels();
        DrawLegend();
        return {std::move(m_canvas), m_plot};
    }

private:
    [[nodiscard]] int LabelWidth() const
    {
        int width = Canvas::TextWidth(LABEL_SIZE, RowMark(m_grid.blocks));
        for (std::uint64_t row = 0; row < m_grid.rows; row += RowStep())
            width = std::max(width, Canvas::TextWidth(LABEL_SIZE, RowMark(row * m_grid.BlocksPerRow())));
        return width;
    }

    [[nodiscard]] int CellSide() const { return PLOT_WIDTH / static_cast<int>(m_grid.columns); }

    // Rows between two labels.
    [[nodiscard]] std::uint64_t RowStep() const
    {
        std::uint64_t step = 1;
        while (static_cast<int>(step) * CellSide() < LABEL_DISTANCE)
            step *= 2;
        return step;
    }

    [[nodiscard]] std::string RowMark(std::uint64_t block) const
    {
        return MarkAt(block, RowStep() * m_grid.BlocksPerRow(), m_caption.geometry);
    }

    [[nodiscard]] bool ShowsMissing() const { return m_caption.heldBlocks < m_grid.blocks; }

    [[nodiscard]] Plot PlacePlot() const
    {
        const int header = MARGIN + TITLE_SIZE + (static_cast<int>(m_summary.size()) + 1) * LINE_HEIGHT;
        const int cell = CellSide();
        return {.left = MARGIN + LabelWidth() + TICK + 4,
                .top = header + LABEL_DISTANCE + TICK,
                .cell = cell,
                .gap = cell >= SMALLEST_CELL_WITH_GAP ? 1 : 0};
    }

    [[nodiscard]] int PlotHeight() const { return static_cast<int>(m_grid.rows) * m_plot.cell; }
    [[nodiscard]] int FooterHeight() const { return MARGIN + (ShowsMissing() ? 4 : 3) * LINE_HEIGHT; }

    void DrawHeader()
    {
        const int width = m_canvas.Width() - 2 * MARGIN;
        int y = MARGIN + TITLE_SIZE - 4;
        m_canvas.Text(MARGIN, y, TITLE_SIZE, Fitted(TITLE_SIZE, m_caption.title, width), INK);
        y += LINE_HEIGHT + 2;
        m_canvas.Text(MARGIN, y, TEXT_SIZE, Fitted(TEXT_SIZE, m_caption.source, width), QUIET_INK);
        for (const std::string& line : m_summary) {
            y += LINE_HEIGHT;
            m_canvas.Text(MARGIN, y, TEXT_SIZE, Fitted(TEXT_SIZE, line, width), INK);
        }
    }

    void DrawCells()
    {
        for (std::size_t i = 0; i < m_grid.changed.size(); ++i) {
            const int x = m_plot.left + static_cast<int>(i % m_grid.columns) * m_plot.cell;
            const int y = m_plot.top + static_cast<int>(i / m_grid.columns) * m_plot.cell;
            const bool missing = i * m_grid.blocksPerCell >= m_caption.heldBlocks;
            m_canvas.Fill(x, y, m_plot.cell - m_plot.gap, m_plot.cell - m_plot.gap,
                          missing ? MISSING_COLOUR : ColourOf(m_grid.ShadeAt(i)));
        }
    }

    void DrawFrame()
    {
        const int left = m_plot.left - 2;
        const int top = m_plot.top - 2;
        const int width = PLOT_WIDTH + 4 - m_plot.gap;
        const int height = PlotHeight() + 4 - m_plot.gap;
        m_canvas.Fill(left, top, width, 1, FRAME);
        m_canvas.Fill(left, top + height - 1, width, 1, FRAME);
        m_canvas.Fill(left, top, 1, height, FRAME);
        m_canvas.Fill(left + width - 1, top, 1, height, FRAME);
    }

    // How far into its row a column lies.
    void DrawColumnLabels()
    {
        const int y = m_plot.top - 2 - TICK;
        for (std::uint64_t i = 0; i <= COLUMN_LABELS; ++i) {
            const std::uint64_t column = m_grid.columns * i / COLUMN_LABELS;
            const Geometry row{.blockSize = m_caption.geometry.blockSize};
            const std::uint64_t step = m_grid.BlocksPerRow() / COLUMN_LABELS;
            const std::string text = "+" + MarkAt(column * m_grid.blocksPerCell, step, row);
            const int x = m_plot.left + static_cast<int>(column) * m_plot.cell;
            m_canvas.Fill(std::min(x, m_plot.left + PLOT_WIDTH - 1), y, 1, TICK, FRAME);
            m_canvas.Text(x - Canvas::TextWidth(LABEL_SIZE, text) / 2, y - 5, LABEL_SIZE, text, QUIET_INK);
        }
    }

    // Where a row begins in the volume, and where the volume ends.
    void DrawRowLabels()
    {
        const int end = PlotHeight();
        for (std::uint64_t row = 0; row < m_grid.rows; row += RowStep()) {
            const int y = static_cast<int>(row) * m_plot.cell;
            if (y + LABEL_DISTANCE / 2 <= end || row == 0)
                DrawRowLabel(y, RowMark(row * m_grid.BlocksPerRow()));
        }
        if (end >= LABEL_DISTANCE / 2)
            DrawRowLabel(end, RowMark(m_grid.blocks));
    }

    void DrawRowLabel(int y, const std::string& text)
    {
        const int tickLeft = m_plot.left - 2 - TICK;
        m_canvas.Fill(tickLeft, m_plot.top + y - (y == 0 ? 2 : 0), TICK, 1, FRAME);
        m_canvas.Text(tickLeft - 4 - Canvas::TextWidth(LABEL_SIZE, text), m_plot.top + y + LABEL_SIZE / 3, LABEL_SIZE,
                      text, QUIET_INK);
    }

    void DrawLegend()
    {
        int y = m_plot.top + PlotHeight() + MARGIN + LINE_HEIGHT - 8;
        m_canvas.Text(m_plot.left, y, TEXT_SIZE, CellText(m_grid, m_caption.geometry), INK);
        y += LINE_HEIGHT + 6;
        int x = m_plot.left;
        for (const Shade shade : SHADES) {
            if (CanHave(m_grid.blocksPerCell, shade))
                x = DrawLegendEntry(x, y, ColourOf(shade), ShadeText(shade));
        }
        if (ShowsMissing())
            DrawLegendEntry(m_plot.left, y + LINE_HEIGHT + 2, MISSING_COLOUR, MISSING_TEXT);
    }

    int DrawLegendEntry(int x, int y, Colour colour, std::string_view text)
    {
        m_canvas.Fill(x, y - SWATCH + 3, SWATCH, SWATCH, colour);
        m_canvas.Text(x + SWATCH + 7, y, TEXT_SIZE, text, INK);
        return x + SWATCH + 7 + Canvas::TextWidth(TEXT_SIZE, text) + MARGIN;
    }

    const Grid& m_grid;
    const Caption& m_caption;
    std::vector<std::string> m_summary;
    Plot m_plot;
    Canvas m_canvas;
};

} // namespace

Colour ColourOf(Shade shade) noexcept
{
    switch (shade) {
    case Shade::None:
        return {0xE9, 0xEC, 0xF0};
    case Shade::Traces:
        return {0xF4, 0xB8, 0x0B};
    case Shade::Little:
        return {0xF5, 0x8A, 0x1F};
    case Shade::Half:
        return {0xE2, 0x4A, 0x2B};
    case Shade::Most:
        return {0xA8, 0x14, 0x3C};
    case Shade::All:
        return {0x4A, 0x07, 0x2C};
    }
    return {0, 0, 0};
}

std::string MarkAt(std::uint64_t block, std::uint64_t step, const Geometry& geometry)
{
    if (geometry.blockSize == 0)
        return Grouped(block);
    return MarkText(geometry.Offset(block), SaturatedProduct(step, geometry.blockSize));
}

std::uint64_t ChangedBytes(const Totals& totals, const Geometry& geometry) noexcept
{
    const std::uint64_t bytes = SaturatedProduct(totals.Set(), geometry.blockSize);
    if (geometry.volumeBytes == 0 || totals.Set() == 0 || totals.End() != geometry.VolumeBlocks())
        return bytes;
    const std::uint64_t beyond = SaturatedProduct(totals.End(), geometry.blockSize) - geometry.volumeBytes;
    return bytes - beyond;
}

std::vector<std::string> Summary(const Grid& grid, const Geometry& geometry)
{
    const Totals& totals = grid.totals;
    const std::string blocks = Grouped(grid.blocks);
    const std::string share = ShareText(totals.Set(), grid.blocks);
    const char* const extents = totals.Runs() == 1 ? "extent" : "extents";
    if (geometry.blockSize == 0)
        return {fmt::format("{} blocks of unknown size", blocks),
                fmt::format("Changed: {} blocks ({}) in {} {}, the longest of {} blocks", Grouped(totals.Set()), share,
                            Grouped(totals.Runs()), extents, Grouped(totals.LongestRun()))};
    return {fmt::format("{} {} in {} blocks of {}", geometry.volumeBytes != 0 ? "Volume of" : "Covers",
                        SizeText(geometry.Offset(grid.blocks)), blocks, SizeText(geometry.blockSize)),
            fmt::format("Changed: {} ({}): {} blocks in {} {}, the longest of {}",
                        SizeText(ChangedBytes(totals, geometry)), share, Grouped(totals.Set()), Grouped(totals.Runs()),
                        extents, SizeText(SaturatedProduct(totals.LongestRun(), geometry.blockSize)))};
}

std::string CellText(const Grid& grid, const Geometry& geometry)
{
    const auto amount = [&](std::uint64_t blocks) {
        return geometry.blockSize != 0 ? SizeText(SaturatedProduct(blocks, geometry.blockSize))
                                       : Grouped(blocks) + (blocks == 1 ? " block" : " blocks");
    };
    if (grid.blocksPerCell == 1)
        return fmt::format("One square is one block. A row is {}.", amount(grid.BlocksPerRow()));
    if (geometry.blockSize == 0)
        return fmt::format("One square is {}. A row is {}.", amount(grid.blocksPerCell), amount(grid.BlocksPerRow()));
    return fmt::format("One square is {}, {} blocks. A row is {}.", amount(grid.blocksPerCell),
                       Grouped(grid.blocksPerCell), amount(grid.BlocksPerRow()));
}

Picture DrawPicture(const Grid& grid, const Caption& caption)
{
    return Drawing(grid, caption).Draw();
}

} // namespace vtfltctl::bitmap
