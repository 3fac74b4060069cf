#include "report/markup.h"
#include "report/parts.h"

#include "common/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtbackup {

std::string ChainAnchor(std::size_t chain)
{
    return fmt::format("chain-{}", chain + 1);
}

std::string BackupAnchor(std::size_t chain, const ReportBackup& backup)
{
    return fmt::format("chain-{}-backup-{}", chain + 1, backup.sequence);
}

const char* NameOf(ReportColumn::Mark mark) noexcept
{
    switch (mark) {
    case ReportColumn::Mark::Incremental:
        return "incremental";
    case ReportColumn::Mark::Verify:
        return "verify";
    case ReportColumn::Mark::Full:
        return "full";
    case ReportColumn::Mark::Unfinished:
        return "unfinished";
    case ReportColumn::Mark::Damaged:
        return "damaged";
    }
    return "";
}

std::string SummaryOf(const ReportBackup& backup)
{
    std::string text = fmt::format("backup {}", backup.sequence);
    if (backup.unfinished)
        return text + ": unfinished";
    if (backup.described) {
        text += fmt::format(", {}, {}", Escaped(backup.time, 40), NameOf(backup.kind));
        for (std::size_t i = 0; i < backup.reasons.size() && i < 3; ++i)
            text += (i == 0 ? ": " : ", ") + Escaped(backup.reasons[i].code, 40);
        text += fmt::format("\n{} stored", toolkit::BytesText(backup.bytesStored));
        if (backup.kind != ReportKind::Full && backup.fullBytes)
            text += fmt::format(", a full backup {}", toolkit::BytesText(*backup.fullBytes));
        if (!backup.reported)
            text += "\nsuccess not reported";
    }
    if (!backup.problem.empty())
        text += "\nDAMAGED: " + Escaped(backup.problem, 200);
    return text;
}

std::string LabelOf(const ReportChain& chain, const ReportColumn& column)
{
    const std::uint64_t first = chain.backups[column.begin].sequence;
    const std::uint64_t last = chain.backups[column.end - 1].sequence;
    return first == last ? fmt::format("backup {}", first) : fmt::format("backups {} to {}", first, last);
}

std::string RangeText(const PlaceScale& places, std::size_t range)
{
    return fmt::format("{} to {}", toolkit::BytesText(range * places.rangeBytes),
                       toolkit::BytesText(std::min((range + 1) * places.rangeBytes, places.volumeLength)));
}

// A shape of its own for each, not only a colour.
std::string Symbols()
{
    return R"(<svg class="symbols" width="0" height="0" aria-hidden="true"><defs>
<path id="mark-full" d="M-5-5h10v10h-10z"/>
<path id="mark-verify" d="M0-6.5 6.5 0 0 6.5-6.5 0z"/>
<circle id="mark-incremental" r="4.5"/>
<circle id="mark-unfinished" r="4.5"/>
<path id="mark-damaged" d="M-5-5 5 5M5-5-5 5"/>
<pattern id="hatch-full" width="6" height="6" patternUnits="userSpaceOnUse"><path class="hatch full" d="M-1 7 7-1"/></pattern>
<pattern id="hatch-unknown" width="5" height="5" patternUnits="userSpaceOnUse"><path class="hatch" d="M0 0 5 5M5 0 0 5"/></pattern>
</defs></svg>
)";
}

} // namespace vtbackup
