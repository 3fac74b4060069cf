#include "report/markup.h"
#include "report/parts.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <optional>

namespace vtbackup {
namespace {

constexpr std::int64_t MOST_TICKS = 6;
constexpr double MARGIN = 2.0; // percent, at both ends

// The instants from the first backup to the last, drawn over a line's width in percent.
class TimeScale {
public:
    explicit TimeScale(const Report& report)
    {
        for (const ReportChain& chain : report.chains) {
            for (const ReportBackup& backup : chain.backups) {
                if (const std::optional<std::int64_t> time = SecondsOf(backup.time))
                    Include(*time);
            }
        }
    }

    [[nodiscard]] bool Empty() const noexcept { return !m_any; }
    [[nodiscard]] double PlaceOf(std::int64_t time) const noexcept
    {
        if (m_first == m_last)
            return 50.0;
        return MARGIN +
               (100.0 - 2.0 * MARGIN) * static_cast<double>(time - m_first) / static_cast<double>(m_last - m_first);
    }
    // Round instants within.
    [[nodiscard]] std::vector<std::int64_t> Ticks() const
    {
        if (m_first == m_last)
            return {m_first};
        const std::int64_t step = Step();
        std::vector<std::int64_t> ticks;
        for (std::int64_t tick = m_first / step * step; tick <= m_last; tick += step) {
            if (tick >= m_first)
                ticks.push_back(tick);
        }
        return ticks;
    }

private:
    void Include(std::int64_t time) noexcept
    {
        m_first = m_any ? std::min(m_first, time) : time;
        m_last = m_any ? std::max(m_last, time) : time;
        m_any = true;
    }
    [[nodiscard]] std::int64_t Step() const noexcept
    {
        constexpr std::int64_t HOUR = 3600;
        constexpr std::int64_t DAY = 24 * HOUR;
        const std::int64_t span = m_last - m_first;
        for (const std::int64_t step : {std::int64_t{1}, std::int64_t{5}, std::int64_t{15}, std::int64_t{60},
                                        std::int64_t{300}, std::int64_t{900}, HOUR, 3 * HOUR, 6 * HOUR, 12 * HOUR, DAY,
                                        2 * DAY, 7 * DAY, 14 * DAY, 30 * DAY, 90 * DAY, 180 * DAY, 365 * DAY}) {
            if (span / step < MOST_TICKS)
                return step;
        }
        return (span / MOST_TICKS / (365 * DAY) + 1) * 365 * DAY;
    }

    bool m_any = false;
    std::int64_t m_first = 0;
    std::int64_t m_last = 0;
};

// The rarer marks are drawn over the others, or among hundreds of incremental backups nobody would see a full one.
std::string Marks(const ReportChain& chain, std::size_t number, const TimeScale& scale)
{
    constexpr std::size_t LAYERS = static_cast<std::size_t>(ReportColumn::Mark::Damaged) + 1;
    std::array<std::string, LAYERS> layers;
    for (const ReportBackup& backup : chain.backups) {
        const std::optional<std::int64_t> time = SecondsOf(backup.time);
        if (!time)
            continue;
        const ReportColumn::Mark mark = MarkOf(backup);
        layers[static_cast<std::size_t>(mark)] +=
            fmt::format("<use class=\"mark {0}\" data-to=\"{1}\" href=\"#mark-{0}\" x=\"{2:.2f}%\" y=\"14\">"
                        "<title>{3}</title></use>",
                        NameOf(mark), BackupAnchor(number, backup), scale.PlaceOf(*time), SummaryOf(backup));
    }
    return std::accumulate(layers.begin(), layers.end(), std::string());
}

// Backups that no place on the axis can be given.
std::string WithoutTime(const ReportChain& chain)
{
    std::uint64_t unfinished = 0;
    std::uint64_t others = 0;
    for (const ReportBackup& backup : chain.backups) {
        if (backup.unfinished)
            ++unfinished;
        else if (!SecondsOf(backup.time))
            ++others;
    }
    std::string text;
    if (unfinished != 0)
        text += fmt::format(" <span class=\"aside\">{} unfinished</span>", unfinished);
    if (others != 0)
        text += fmt::format(" <span class=\"aside\">{} without a time</span>", others);
    return text;
}

std::string Axis(const TimeScale& scale)
{
    std::string ticks;
    for (const std::int64_t time : scale.Ticks()) {
        const std::string text = TimeOf(time); // 2026-01-31T12:00:00Z
        ticks += fmt::format("<g class=\"tick\"><line x1=\"{0:.2f}%\" x2=\"{0:.2f}%\" y2=\"5\"/>"
                             "<text x=\"{0:.2f}%\" y=\"18\">{1}</text><text x=\"{0:.2f}%\" y=\"32\">{2}</text></g>",
                             scale.PlaceOf(time), text.substr(0, 10), text.substr(11));
    }
    return fmt::format("<div class=\"line axis\"><span></span>"
                       "<svg class=\"ticks\" height=\"36\" aria-hidden=\"true\">{}</svg></div>\n",
                       ticks);
}

std::string Legend()
{
    std::string legend;
    for (const char* const name : {"full", "verify", "incremental", "damaged"})
        legend += fmt::format("<li><svg class=\"key\" width=\"16\" height=\"16\" aria-hidden=\"true\">"
                              "<use class=\"mark {0}\" href=\"#mark-{0}\" x=\"8\" y=\"8\"/></svg>{0}</li>",
                              name);
    return "<ul class=\"legend\">" + legend + "</ul>";
}

} // namespace

std::string Timeline(const Report& report)
{
    const TimeScale scale(report);
    if (scale.Empty())
        return {};
    std::string lines;
    for (std::size_t i = 0; i < report.chains.size(); ++i) {
        const ReportChain& chain = report.chains[i];
        lines += fmt::format(
            "<div class=\"line\"><a class=\"name\" href=\"#{0}\"><bdi>{1}</bdi> <small>{2}</small>{3}</a>"
            "<svg class=\"plot marks\" height=\"28\" role=\"img\" aria-label=\"The backups of {2} by {1} over time; the "
            "tables below have the same figures\"><line class=\"rail\" x1=\"0\" x2=\"100%\" y1=\"14\" y2=\"14\"/>{4}"
            "</svg></div>\n",
            ChainAnchor(i), Escaped(chain.application, 100), Escaped(chain.volume, 100), WithoutTime(chain),
            Marks(chain, i, scale));
    }
    return fmt::format("<section id=\"timeline\"><h2>Timeline</h2>{}<div class=\"lines\">\n{}{}</div></section>\n",
                       Legend(), lines, Axis(scale));
}

} // namespace vtbackup
