#include "report/model.h"

#include <algorithm>
#include <bit>
#include <limits>

namespace vtbackup {
namespace {

std::uint64_t CeilDiv(std::uint64_t value, std::uint64_t by) noexcept
{
    return value / by + (value % by != 0 ? 1 : 0);
}

// Figures in a manifest may be anything.
void AddTo(std::uint64_t& sum, std::uint64_t value) noexcept
{
    const std::uint64_t room = std::numeric_limits<std::uint64_t>::max() - sum;
    sum += std::min(value, room);
}

void AddChanges(ReportColumn& column, const ReportBackup& backup, const PlaceScale& places)
{
    column.showsChanges = true;
    column.changed.resize(places.ranges);
    column.blocks.resize(places.ranges);
    for (std::size_t range = 0; range < std::min(places.ranges, backup.recorded.size()); ++range) {
        AddTo(column.changed[range], backup.recorded[range]);
        AddTo(column.blocks[range], places.BlocksIn(range, backup.volumeLength, backup.blockSize));
    }
}

} // namespace

PlaceScale PlaceScale::For(std::uint64_t length, std::uint32_t blockSize, std::size_t mostRanges)
{
    if (length == 0 || blockSize == 0 || mostRanges == 0)
        return {};
    PlaceScale scale;
    scale.volumeLength = length;
    scale.rangeBytes = std::bit_ceil(CeilDiv(CeilDiv(length, mostRanges), blockSize)) * blockSize;
    scale.ranges = static_cast<std::size_t>(CeilDiv(length, scale.rangeBytes));
    return scale;
}

std::size_t PlaceScale::RangeOf(std::uint64_t offset) const noexcept
{
    return static_cast<std::size_t>(std::min<std::uint64_t>(offset / rangeBytes, ranges - 1));
}

std::uint64_t PlaceScale::BlocksIn(std::size_t range, std::uint64_t length, std::uint32_t blockSize) const noexcept
{
    const std::uint64_t begin = std::min(range * rangeBytes, length);
    const std::uint64_t end = range + 1 == ranges ? length : std::min((range + 1) * rangeBytes, length);
    return CeilDiv(end, blockSize) - CeilDiv(begin, blockSize);
}

const char* NameOf(ReportKind kind) noexcept
{
    switch (kind) {
    case ReportKind::Full:
        return "full";
    case ReportKind::Verify:
        return "verify";
    case ReportKind::Incremental:
        return "incremental";
    }
    return "";
}

std::optional<std::uint64_t> ReportBackup::Saved() const noexcept
{
    if (!fullBytes)
        return std::nullopt;
    return *fullBytes > bytesStored ? *fullBytes - bytesStored : 0;
}

void ReportTotals::Add(const ReportBackup& backup) noexcept
{
    if (backup.unfinished) {
        ++unfinished;
        return;
    }
    ++m_backups;
    if (!backup.problem.empty())
        ++damaged;
    if (!backup.described)
        return;
    ++(backup.kind == ReportKind::Full ? full : backup.kind == ReportKind::Verify ? verify : incremental);
    if (!backup.reported)
        ++unreported;
    AddTo(bytesRead, backup.bytesRead);
    AddTo(bytesStored, backup.bytesStored);
    if (!backup.fullBytes) {
        ++unknown;
        return;
    }
    AddTo(fullBytes, *backup.fullBytes);
    AddTo(saved, *backup.Saved());
}

ReportTotals TotalsOf(const ReportChain& chain) noexcept
{
    ReportTotals totals;
    for (const ReportBackup& backup : chain.backups)
        totals.Add(backup);
    return totals;
}

ReportTotals TotalsOf(const Report& report) noexcept
{
    ReportTotals totals;
    for (const ReportChain& chain : report.chains) {
        for (const ReportBackup& backup : chain.backups)
            totals.Add(backup);
    }
    return totals;
}

std::size_t ProblemsIn(const Report& report) noexcept
{
    return report.problems.size() + static_cast<std::size_t>(TotalsOf(report).damaged);
}

ReportColumn::Mark MarkOf(const ReportBackup& backup) noexcept
{
    if (!backup.problem.empty())
        return ReportColumn::Mark::Damaged;
    if (backup.unfinished)
        return ReportColumn::Mark::Unfinished;
    switch (backup.kind) {
    case ReportKind::Full:
        return ReportColumn::Mark::Full;
    case ReportKind::Verify:
        return ReportColumn::Mark::Verify;
    case ReportKind::Incremental:
        break;
    }
    return ReportColumn::Mark::Incremental;
}

std::vector<ReportColumn> ColumnsOf(const ReportChain& chain, std::size_t most)
{
    std::vector<ReportColumn> columns;
    const std::size_t count = chain.backups.size();
    const auto each = static_cast<std::size_t>(CeilDiv(count, most));
    for (std::size_t begin = 0; begin < count; begin += each) {
        ReportColumn column;
        column.begin = begin;
        column.end = std::min(begin + each, count);
        for (std::size_t i = column.begin; i < column.end; ++i) {
            const ReportBackup& backup = chain.backups[i];
            column.mark = std::max(column.mark, MarkOf(backup));
            AddTo(column.bytesStored, backup.bytesStored);
            AddTo(column.fullBytes, backup.fullBytes.value_or(0));
            if (backup.ShowsChanges())
                AddChanges(column, backup, chain.places);
        }
        columns.push_back(std::move(column));
    }
    return columns;
}

} // namespace vtbackup
