#include "report/markup.h"
#include "report/parts.h"

#include "common/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtbackup {
namespace {

constexpr std::size_t MOST_REASONS = 32;
constexpr std::size_t MOST_TABLE_COLUMNS = 96;

std::string Cell(const std::string& content, const char* name = nullptr)
{
    return name == nullptr ? "<td>" + content + "</td>" : fmt::format("<td class=\"{}\">{}</td>", name, content);
}

std::string TimeElement(const std::string& time)
{
    return SecondsOf(time) ? fmt::format("<time>{}</time>", time) : "<bdi>" + Escaped(time, 40) + "</bdi>";
}

std::string ReasonList(const std::vector<Reason>& reasons)
{
    std::string list;
    const std::size_t shown = std::min(reasons.size(), MOST_REASONS);
    for (std::size_t i = 0; i < shown; ++i)
        list += fmt::format("<li><code>{}</code> <bdi>{}</bdi></li>", Escaped(reasons[i].code, 60),
                            Escaped(reasons[i].text));
    if (shown < reasons.size())
        list += fmt::format("<li>and {} more</li>", reasons.size() - shown);
    return list.empty() ? list : "<ul>" + list + "</ul>";
}

// Why it was made so, and what else there is to say.
std::string Remarks(const ReportBackup& backup)
{
    std::string remarks = ReasonList(backup.reasons);
    if (!backup.problem.empty())
        remarks += fmt::format("<p class=\"problem\">Damaged: <bdi>{}</bdi></p>", Escaped(backup.problem));
    if (!backup.audit.empty())
        remarks += fmt::format("<p>Audit: {}.</p>", Escaped(backup.audit));
    if (backup.described && !backup.reported)
        remarks += "<p>Success not reported: the changes come again.</p>";
    if (!backup.next.empty())
        remarks += "<p>The next backup has to read the whole volume:</p>" + ReasonList(backup.next);
    return remarks;
}

std::string Figures(const ReportBackup& b)
{
    std::uint64_t recorded = 0;
    for (const std::uint64_t blocks : b.recorded)
        recorded += blocks;
    const std::uint64_t blocks = b.volumeLength / b.blockSize + (b.volumeLength % b.blockSize != 0 ? 1 : 0);
    const std::string changed =
        b.ShowsChanges() ? fmt::format("{} <small>{}</small>", CountText(recorded), PercentText(recorded, blocks))
                         : "\u2013";
    return Cell(changed, "number") + Cell(CountText(b.blocksReported), "number") +
           Cell(SizeElement(b.bytesStored, "stored"), "number") +
           Cell(b.fullBytes ? SizeElement(*b.fullBytes, "full") : "\u2013", "number") +
           Cell(b.Saved() ? SizeElement(*b.Saved(), "saved") : "\u2013", "number") +
           Cell(SizeElement(b.bytesRead, "read"), "number") +
           Cell(fmt::format("{} <small>{}</small>", SizeElement(b.volumeLength), toolkit::BytesText(b.blockSize)),
                "number");
}

std::string Row(const ReportBackup& backup, std::size_t chain)
{
    const char* const mark = NameOf(MarkOf(backup));
    std::string row = fmt::format("<tr id=\"{}\" class=\"is-{}\"><th scope=\"row\">{}</th>",
                                  BackupAnchor(chain, backup), mark, backup.sequence);
    if (backup.unfinished)
        return row +
               "<td></td><td>unfinished</td><td class=\"why\" colspan=\"8\">Interrupted, or at work when this page "
               "was made; no backup.</td></tr>\n";
    if (!backup.described)
        return row + "<td></td><td>not known</td><td class=\"why\" colspan=\"8\">" + Remarks(backup) + "</td></tr>\n";
    const std::string kind = fmt::format("<svg class=\"key\" width=\"14\" height=\"14\" aria-hidden=\"true\"><use "
                                         "class=\"mark {0}\" href=\"#mark-{0}\" x=\"7\" y=\"7\"/></svg> {1}",
                                         mark, NameOf(backup.kind));
    return row + Cell(TimeElement(backup.time), "time") + Cell(kind, "kind") + Cell(Remarks(backup), "why") +
           Figures(backup) + "</tr>\n";
}

std::string BackupTable(const ReportChain& chain, std::size_t number)
{
    std::string head;
    for (const char* const title :
         {"Backup", "Time of the snapshot", "Kind", "Reasons and remarks", "Changed blocks", "Reported by the driver",
          "Stored", "A full backup", "Saved", "Read", "Volume, its blocks"})
        head += fmt::format("<th scope=\"col\">{}</th>", title);
    std::string rows;
    for (const ReportBackup& backup : chain.backups)
        rows += Row(backup, number);
    return fmt::format(
        "<div class=\"scroll\" tabindex=\"0\" role=\"region\" aria-label=\"All backups of {1} by {0}\"><table "
        "class=\"backups\"><caption>All backups</caption><thead><tr>{2}</tr></thead><tbody>\n{3}</tbody></table></div>\n",
        Escaped(chain.application, 100), Escaped(chain.volume, 100), head, rows);
}

// The heat map in figures: a row for each range, a column for each backup or group of backups.
std::string HeatTable(const ReportChain& chain)
{
    const std::vector<ReportColumn> columns = ColumnsOf(chain, MOST_TABLE_COLUMNS);
    std::string head;
    std::string body;
    std::vector<const ReportColumn*> shown;
    for (const ReportColumn& column : columns) {
        if (!column.showsChanges)
            continue;
        shown.push_back(&column);
        head += fmt::format("<th scope=\"col\">{}</th>", LabelOf(chain, column));
    }
    if (shown.empty())
        return {};
    for (std::size_t range = 0; range < chain.places.ranges; ++range) {
        body += fmt::format("<tr><th scope=\"row\">{}</th>", RangeText(chain.places, range));
        for (const ReportColumn* const column : shown)
            body += column->blocks[range] == 0
                        ? "<td></td>"
                        : fmt::format("<td>{}/{}</td>", column->changed[range], column->blocks[range]);
        body += "</tr>\n";
    }
    return fmt::format(
        "<details><summary>The heat map in figures: changed blocks of all blocks</summary><div "
        "class=\"scroll\" tabindex=\"0\" role=\"region\" aria-label=\"The heat map in figures\"><table "
        "class=\"figures\"><thead><tr><th scope=\"col\">Bytes of the volume</th>{}</tr></thead><tbody>\n{}"
        "</tbody></table></div></details>\n",
        head, body);
}

} // namespace

std::string ChainTables(const ReportChain& chain, std::size_t number)
{
    return BackupTable(chain, number) + HeatTable(chain);
}

} // namespace vtbackup
