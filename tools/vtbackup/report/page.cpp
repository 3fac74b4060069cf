#include "report/page.h"

#include "report/assets.h"
#include "report/markup.h"
#include "report/parts.h"

#include "common/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtbackup {
namespace {

std::string Head(const Report& report)
{
    // The policy stands before everything that it is for. Not even a text that got through unescaped could run, or reach
    // beyond the page.
    return fmt::format("<head>\n<meta charset=\"utf-8\">\n"
                       "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
                       "style-src 'sha256-{}'; script-src 'sha256-{}'; base-uri 'none'; form-action 'none'\">\n"
                       "<meta name=\"referrer\" content=\"no-referrer\">\n"
                       "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
                       "<meta name=\"color-scheme\" content=\"light dark\">\n"
                       "<title>Backups in repository {}</title>\n<style>{}</style>\n</head>\n",
                       PageStyleChecksum(), PageScriptChecksum(), Escaped(report.repository, 40), PageStyle());
}

std::string ThemeSwitch()
{
    std::string choices;
    for (const char* const choice : {"system", "light", "dark"})
        choices += fmt::format("<label><input type=\"radio\" name=\"theme\" id=\"theme-{0}\" autocomplete=\"off\"{1}> "
                               "{0}</label>",
                               choice, std::string_view(choice) == "system" ? " checked" : "");
    return "<fieldset class=\"theme\"><legend>Colours</legend>" + choices + "</fieldset>";
}

std::optional<std::int64_t> LastTime(const std::vector<ReportBackup>& backups)
{
    std::optional<std::int64_t> last;
    for (const ReportBackup& backup : backups) {
        if (const std::optional<std::int64_t> time = SecondsOf(backup.time))
            last = std::max(last.value_or(*time), *time);
    }
    return last;
}

std::string Header(const Report& report)
{
    std::optional<std::int64_t> last;
    for (const ReportChain& chain : report.chains) {
        if (const std::optional<std::int64_t> time = LastTime(chain.backups))
            last = std::max(last.value_or(*time), *time);
    }
    return fmt::format(
        "<header><div><h1>Backups</h1><p>Repository <code>{}</code> in <bdi>{}</bdi>. {}</p></div>{}</header>\n",
        Escaped(report.repository, 40), Escaped(report.folder),
        last ? "The latest backup is of <time>" + TimeOf(*last) + "</time>." : "", ThemeSwitch());
}

std::string Tile(const char* name, const std::string& figure, const std::string& note)
{
    return fmt::format("<div class=\"tile\"><dt>{}</dt><dd>{}<small>{}</small></dd></div>", name, figure, note);
}

std::string KindCounts(const ReportTotals& totals)
{
    return fmt::format("{} full, {} verify, {} incremental", CountText(totals.full), CountText(totals.verify),
                       CountText(totals.incremental));
}

std::string Tiles(const ReportTotals& totals)
{
    const std::string leftOut =
        totals.unknown == 0 ? std::string() : fmt::format("; not known of {}", CountText(totals.unknown));
    return "<dl class=\"tiles\">" + Tile("Backups", CountText(totals.Backups()), KindCounts(totals)) +
           Tile("Stored", SizeElement(totals.bytesStored, "total-stored"), "blocks, without the indexes") +
           Tile("Full backups would store", SizeElement(totals.fullBytes, "total-full"),
                "every block not zero" + leftOut) +
           Tile("Saved", SizeElement(totals.saved, "total-saved"),
                PercentText(totals.saved, totals.fullBytes) + " of what full backups would store") +
           Tile("Read", SizeElement(totals.bytesRead, "total-read"), "from the snapshots") + "</dl>\n";
}

// One broken backup takes all that build on it along: those are one item.
std::string ProblemsOf(const ReportChain& chain, std::size_t number)
{
    std::string items;
    const std::vector<ReportBackup>& backups = chain.backups;
    for (std::size_t i = 0; i < backups.size(); ++i) {
        const ReportBackup& first = backups[i];
        if (first.problem.empty())
            continue;
        std::size_t more = 0;
        while (first.onlyLinked && i + 1 < backups.size() && backups[i + 1].onlyLinked) {
            ++i;
            ++more;
        }
        items += fmt::format("<li><a href=\"#{}\">Backup {} of {} by <bdi>{}</bdi></a>: <bdi>{}</bdi>",
                             BackupAnchor(number, first), first.sequence, Escaped(chain.volume, 100),
                             Escaped(chain.application, 100), Escaped(first.problem));
        if (more != 0)
            items += fmt::format("; so does what follows it up to <a href=\"#{}\">backup {}</a>: {} in all",
                                 BackupAnchor(number, backups[i]), backups[i].sequence, CountText(more + 1));
        items += "</li>\n";
    }
    return items;
}

std::string Problems(const Report& report)
{
    std::string items;
    for (const std::string& problem : report.problems)
        items += fmt::format("<li><bdi>{}</bdi></li>\n", Escaped(problem));
    for (std::size_t i = 0; i < report.chains.size(); ++i)
        items += ProblemsOf(report.chains[i], i);
    if (items.empty())
        return {};
    return "<section id=\"problems\"><h2>Damage</h2><p>These cannot be restored. The next backup of a chain whose latest "
           "backup is among them is a full one.</p><ul>\n" +
           items + "</ul></section>\n";
}

std::string Losses(const Report& report)
{
    std::string items;
    for (std::size_t i = 0; i < report.chains.size(); ++i) {
        const ReportChain& chain = report.chains[i];
        for (const std::string& loss : chain.losses)
            items += fmt::format("<li><a href=\"#{}\">{} by <bdi>{}</bdi></a>: <bdi>{}</bdi></li>\n", ChainAnchor(i),
                                 Escaped(chain.volume, 100), Escaped(chain.application, 100), Escaped(loss));
    }
    if (items.empty())
        return {};
    return "<section id=\"losses\"><h2>Lost tracking</h2><p>Audits found blocks that had changed and were not reported.</p>"
           "<ul>\n" +
           items + "</ul></section>\n";
}

std::string StateOf(const ReportChain& chain, const ReportTotals& totals)
{
    std::string state;
    const auto add = [&state](const std::string& text) { state += (state.empty() ? "" : ", ") + text; };
    if (totals.damaged != 0)
        add(fmt::format("<strong class=\"problem\">{} damaged</strong>", totals.damaged));
    if (!chain.losses.empty())
        add("<strong class=\"problem\">lost tracking</strong>");
    if (totals.unfinished != 0)
        add(fmt::format("{} unfinished", totals.unfinished));
    if (totals.Backups() == 0)
        add("no backup yet");
    const auto last = std::find_if(chain.backups.rbegin(), chain.backups.rend(),
                                   [](const ReportBackup& backup) { return backup.described; });
    if (last != chain.backups.rend() && !last->reported)
        add("the latest success is not reported");
    if (last != chain.backups.rend() && !last->next.empty())
        add("the next backup reads the whole volume");
    return state.empty() ? "good" : state;
}

std::string ChainsTable(const Report& report)
{
    std::string rows;
    for (std::size_t i = 0; i < report.chains.size(); ++i) {
        const ReportChain& chain = report.chains[i];
        const ReportTotals totals = TotalsOf(chain);
        const std::optional<std::int64_t> last = LastTime(chain.backups);
        rows += fmt::format(
            "<tr><th scope=\"row\"><a href=\"#{}\"><bdi>{}</bdi></a></th><td class=\"volume\">{}</td>"
            "<td class=\"number\">{}</td><td>{}</td><td class=\"time\">{}</td><td class=\"number\">{}</td>"
            "<td class=\"number\">{} <small>{}</small></td><td>{}</td></tr>\n",
            ChainAnchor(i), Escaped(chain.application, 200), Escaped(chain.volume, 100), CountText(totals.Backups()),
            KindCounts(totals), last ? "<time>" + TimeOf(*last) + "</time>" : "\u2013", SizeElement(totals.bytesStored),
            SizeElement(totals.saved), PercentText(totals.saved, totals.fullBytes), StateOf(chain, totals));
    }
    return "<section id=\"chains\"><h2>Applications and volumes</h2><div class=\"scroll\" tabindex=\"0\" role=\"region\" "
           "aria-label=\"Applications and volumes\"><table><thead><tr><th scope=\"col\">Application</th><th "
           "scope=\"col\">Volume</th><th scope=\"col\">Backups</th><th scope=\"col\">Kinds</th><th scope=\"col\">Latest</th>"
           "<th scope=\"col\">Stored</th><th scope=\"col\">Saved</th><th scope=\"col\">State</th></tr></thead><tbody>\n" +
           rows + "</tbody></table></div></section>\n";
}

std::string ChainSection(const ReportChain& chain, std::size_t number)
{
    return fmt::format("<section class=\"chain\" id=\"{}\"><h2><bdi>{}</bdi> <small>{}</small></h2>\n",
                       ChainAnchor(number), Escaped(chain.application, 200), Escaped(chain.volume, 100)) +
           Tiles(TotalsOf(chain)) + ChainPictures(chain, number) + ChainTables(chain, number) + "</section>\n";
}

constexpr const char* FOOTER =
    "<footer><p>Saved is what a full backup of the same snapshot would store, less what was stored. Blocks that hold only "
    "zeros are never stored. Changed are the blocks that the driver reported or, in a verify, that differed; of a full "
    "backup it is not known.</p><p>Manifests and indexes were checked for this page, the stored blocks were not: <code>vtbackup "
    "verify</code> does that. The page has no time of its own; it is made from the repository alone, and asks nothing of "
    "any network.</p></footer>\n";

} // namespace

std::string ReportPage(const Report& report)
{
    const ReportTotals totals = TotalsOf(report);
    std::string page = fmt::format("<!DOCTYPE html>\n<html lang=\"en\" data-chains=\"{}\" data-backups=\"{}\" "
                                   "data-problems=\"{}\">\n",
                                   report.chains.size(), totals.Backups(), ProblemsIn(report));
    page += Head(report) + "<body>\n" + Symbols() + Header(report) + "<main>\n";
    if (report.chains.empty() && report.problems.empty())
        page += "<p class=\"empty\">The repository holds no backup yet.</p>\n";
    else
        page += Tiles(totals) + Problems(report) + Losses(report);
    if (!report.chains.empty())
        page += ChainsTable(report) + Timeline(report);
    for (std::size_t i = 0; i < report.chains.size(); ++i)
        page += ChainSection(report.chains[i], i);
    page += "</main>\n";
    page += FOOTER;
    page += fmt::format("<script>{}</script>\n</body>\n</html>\n", PageScript());
    return page;
}

} // namespace vtbackup
