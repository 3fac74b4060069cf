// A chain's picture: bars of what each backup stored, over a heat map of what changed where. One drawing, because a
// column is the same backups in both.
#include "report/markup.h"
#include "report/parts.h"

#include "common/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtbackup {
namespace {

constexpr std::size_t MOST_COLUMNS = 96;

// Lengths in pixels, from the top.
constexpr double BARS_TOP = 6;
constexpr double BARS_HEIGHT = 96;
constexpr double BARS_END = BARS_TOP + BARS_HEIGHT;
constexpr double MARKS_AT = BARS_END + 14;
constexpr double HEAT_TOP = MARKS_AT + 14;
constexpr double LABELS_HEIGHT = 34;
constexpr double WIDEST_COLUMN = 64;
constexpr double WIDEST_PICTURE = 1000;
constexpr double NARROWEST_PICTURE = 200;
constexpr double LABEL_WIDTH = 90; // a date's

// Upper bounds of the steps of the heat map's colours; the last step has no other bound than everything.
constexpr struct {
    double share;
    const char* text;
} STEPS[] = {{0.001, "0.1 %"}, {0.01, "1 %"}, {0.05, "5 %"}, {0.2, "20 %"}, {0.5, "50 %"}, {1.0, "100 %"}};

std::size_t StepOf(std::uint64_t changed, std::uint64_t blocks) noexcept
{
    const double share = static_cast<double>(changed) / static_cast<double>(std::max(blocks, changed));
    std::size_t step = 0;
    while (step + 1 < std::size(STEPS) && share > STEPS[step].share)
        ++step;
    return step + 1;
}

class Picture {
public:
    Picture(const ReportChain& chain, std::size_t number)
        : m_chain(chain), m_number(number), m_columns(ColumnsOf(chain, MOST_COLUMNS))
    {
        for (const ReportColumn& column : m_columns)
            m_most = std::max({m_most, column.bytesStored, column.fullBytes});
        // Few ranges get tall cells, many get low ones.
        const auto ranges = static_cast<double>(std::max<std::size_t>(chain.places.ranges, 1));
        m_cell = std::clamp(320.0 / ranges, 5.0, 24.0);
        m_heat = chain.places.ranges == 0 ? 0 : m_cell * ranges;
    }

    [[nodiscard]] std::string Html() const
    {
        const double width =
            std::clamp(static_cast<double>(m_columns.size()) * WIDEST_COLUMN, NARROWEST_PICTURE, WIDEST_PICTURE);
        return fmt::format(
            "<figure class=\"picture\"><div class=\"wide\" tabindex=\"0\" role=\"region\" aria-label=\"Picture\">"
            "<div class=\"drawing\">{}<svg class=\"plot columns\" width=\"{:.0f}\" height=\"{:.0f}\" role=\"img\" "
            "aria-label=\"What each of {} backups stored, and which of {} ranges of the volume changed; the tables "
            "below have the same figures\">{}{}</svg></div></div>{}</figure>\n",
            Scale(), width, Height(), m_chain.backups.size(), m_chain.places.ranges, Columns(), Labels(width),
            Caption());
    }

private:
    [[nodiscard]] double Height() const noexcept { return HEAT_TOP + m_heat + LABELS_HEIGHT; }
    [[nodiscard]] double PlaceOf(std::size_t column) const noexcept
    {
        return 100.0 * static_cast<double>(column) / static_cast<double>(m_columns.size());
    }
    [[nodiscard]] double BarOf(std::uint64_t bytes) const noexcept
    {
        if (bytes == 0)
            return 0;
        return std::max(1.5, BARS_HEIGHT * static_cast<double>(bytes) / static_cast<double>(m_most));
    }

    // The numbers at the left.
    [[nodiscard]] std::string Scale() const
    {
        std::string texts;
        const auto text = [&texts](double y, const std::string& label) {
            texts += fmt::format("<text x=\"84\" y=\"{:.1f}\">{}</text>", y, label);
        };
        text(BARS_TOP + 9, toolkit::BytesText(m_most));
        text(BARS_END, "0 B");
        constexpr std::size_t PARTS = 4;
        const std::size_t every = m_heat < 80 ? PARTS : 1; // no room for more than the two ends
        for (std::size_t i = 0; i <= PARTS && m_heat > 0; i += every) {
            const std::size_t range = m_chain.places.ranges * i / PARTS;
            text(HEAT_TOP + std::max(9.0, m_cell * static_cast<double>(range)),
                 toolkit::BytesText(std::min(range * m_chain.places.rangeBytes, m_chain.places.volumeLength)));
        }
        return fmt::format("<svg class=\"scale\" width=\"90\" height=\"{:.0f}\" aria-hidden=\"true\">{}</svg>",
                           Height(), texts);
    }

    [[nodiscard]] std::string Columns() const
    {
        std::string html;
        for (std::size_t i = 0; i < m_columns.size(); ++i)
            html += Column(m_columns[i], PlaceOf(i), PlaceOf(i + 1) - PlaceOf(i));
        return html;
    }

    [[nodiscard]] std::string Column(const ReportColumn& column, double x, double width) const
    {
        const ReportBackup& first = m_chain.backups[column.begin];
        const std::string kind = NameOf(column.mark);
        std::string html =
            fmt::format("<g class=\"column\" data-to=\"{}\"><title>{}</title>"
                        "<rect class=\"back\" x=\"{:.3f}%\" y=\"0\" width=\"{:.3f}%\" height=\"{:.1f}\"/>",
                        BackupAnchor(m_number, first), TitleOf(column), x, width, HEAT_TOP + m_heat);
        const auto bar = [&](const char* name, std::uint64_t bytes) {
            const double height = BarOf(bytes);
            if (height > 0)
                html += fmt::format(
                    "<rect class=\"bar {}\" x=\"{:.3f}%\" y=\"{:.2f}\" width=\"{:.3f}%\" height=\"{:.2f}\"/>", name,
                    x + 0.15 * width, BARS_END - height, 0.7 * width, height);
        };
        bar("would", column.fullBytes);
        bar(kind.c_str(), column.bytesStored);
        html += fmt::format("<use class=\"mark {0}\" href=\"#mark-{0}\" x=\"{1:.3f}%\" y=\"{2:.1f}\"/>", kind,
                            x + 0.5 * width, MARKS_AT);
        return html + Heat(column, x, width) + "</g>\n";
    }

    [[nodiscard]] std::string TitleOf(const ReportColumn& column) const
    {
        if (column.end - column.begin == 1)
            return SummaryOf(m_chain.backups[column.begin]);
        ReportTotals totals;
        for (std::size_t i = column.begin; i < column.end; ++i)
            totals.Add(m_chain.backups[i]);
        std::string text = fmt::format("{}: {} full, {} verify, {} incremental", LabelOf(m_chain, column), totals.full,
                                       totals.verify, totals.incremental);
        if (totals.damaged != 0)
            text += fmt::format(", {} damaged", totals.damaged);
        if (totals.unfinished != 0)
            text += fmt::format(", {} unfinished", totals.unfinished);
        return text + fmt::format("\n{} stored, full backups {}", toolkit::BytesText(column.bytesStored),
                                  toolkit::BytesText(column.fullBytes));
    }

    [[nodiscard]] std::string Heat(const ReportColumn& column, double x, double width) const
    {
        if (m_heat <= 0)
            return {};
        const auto rect = [&](const std::string& name, std::size_t range, std::size_t ranges) {
            return fmt::format("class=\"{}\" x=\"{:.3f}%\" y=\"{:.2f}\" width=\"{:.3f}%\" height=\"{:.2f}\"", name, x,
                               HEAT_TOP + m_cell * static_cast<double>(range), width,
                               m_cell * static_cast<double>(ranges));
        };
        const std::size_t ranges = m_chain.places.ranges;
        if (!column.showsChanges) {
            const char* const name = column.mark == ReportColumn::Mark::Full ? "ground whole" : "ground unknown";
            return fmt::format("<rect {}/>", rect(name, 0, ranges));
        }
        // Behind the volume's end there is nothing that could change.
        std::size_t end = ranges;
        while (end > 0 && column.blocks[end - 1] == 0)
            --end;
        std::string html = fmt::format("<rect {}/>", rect("ground", 0, end));
        for (std::size_t range = 0; range < end; ++range) {
            if (column.changed[range] == 0)
                continue;
            html += fmt::format(
                "<rect {} data-range=\"{}\"><title>{}</title></rect>",
                rect(fmt::format("heat step-{}", StepOf(column.changed[range], column.blocks[range])), range, 1), range,
                CellTitle(column, range));
        }
        return html;
    }

    [[nodiscard]] std::string CellTitle(const ReportColumn& column, std::size_t range) const
    {
        return fmt::format("{}, {}\n{} of {} blocks changed ({}){}", LabelOf(m_chain, column),
                           RangeText(m_chain.places, range), CountText(column.changed[range]),
                           CountText(column.blocks[range]), PercentText(column.changed[range], column.blocks[range]),
                           column.end - column.begin == 1 ? "" : ", all these backups together");
    }

    // Number and date below some columns, as many as there is room for.
    [[nodiscard]] std::string Labels(double width) const
    {
        const auto room = static_cast<std::size_t>(std::max(1.0, width / LABEL_WIDTH));
        const std::size_t every = (m_columns.size() + room - 1) / room;
        std::string html;
        for (std::size_t i = 0; i < m_columns.size(); i += std::max<std::size_t>(every, 1)) {
            const ReportBackup& backup = m_chain.backups[m_columns[i].begin];
            const std::string date = SecondsOf(backup.time) ? backup.time.substr(0, 10) : std::string();
            html +=
                fmt::format("<g class=\"tick\"><line x1=\"{0:.3f}%\" x2=\"{0:.3f}%\" y1=\"{1:.1f}\" y2=\"{2:.1f}\"/>"
                            "<text x=\"{0:.3f}%\" dx=\"3\" y=\"{3:.1f}\">{4}</text>"
                            "<text x=\"{0:.3f}%\" dx=\"3\" y=\"{5:.1f}\">{6}</text></g>",
                            PlaceOf(i), HEAT_TOP + m_heat, HEAT_TOP + m_heat + 30, HEAT_TOP + m_heat + 14,
                            backup.sequence, HEAT_TOP + m_heat + 28, date);
        }
        return html;
    }

    [[nodiscard]] std::string Caption() const
    {
        std::string legend = "<li><svg class=\"key\" width=\"16\" height=\"16\" aria-hidden=\"true\"><rect class=\"bar "
                             "would\" x=\"2\" y=\"1\" width=\"12\" height=\"14\"/></svg>a full backup would store</li>";
        const auto swatch = [&legend](const std::string& name, const std::string& text) {
            legend += fmt::format("<li><svg class=\"key\" width=\"16\" height=\"16\" aria-hidden=\"true\"><rect "
                                  "class=\"{}\" width=\"16\" height=\"16\"/></svg>{}</li>",
                                  name, text);
        };
        swatch("ground", "no block changed");
        for (std::size_t i = 0; i < std::size(STEPS); ++i)
            swatch(fmt::format("heat step-{}", i + 1), std::string(i == 0 ? "up to " : "") + STEPS[i].text);
        swatch("ground whole", "full: changes not known");
        swatch("ground unknown", "not readable");
        const std::string together = m_columns.size() == m_chain.backups.size()
                                         ? std::string()
                                         : fmt::format(" A column is {} backups, its colour their average.",
                                                       m_columns.front().end - m_columns.front().begin);
        return fmt::format(
            "<figcaption>Above: bytes stored. Below: the blocks that changed, by their place in the volume "
            "({} a row), as a share of all blocks there.{}<ul class=\"legend\">{}</ul></figcaption>",
            toolkit::BytesText(m_chain.places.rangeBytes), together, legend);
    }

    const ReportChain& m_chain;
    std::size_t m_number;
    std::vector<ReportColumn> m_columns;
    std::uint64_t m_most = 0;
    double m_cell = 0; // height of a row
    double m_heat = 0; // height of all
};

} // namespace

std::string ChainPictures(const ReportChain& chain, std::size_t number)
{
    if (chain.backups.empty())
        return {};
    return Picture(chain, number).Html();
}

} // namespace vtbackup
