// What a report shows, as plain figures: taken from a repository once, then drawn without looking there again.
#pragma once

#include "reasons.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vtbackup {

// A chain's volume, cut into ranges of equal length: the rows of its heat map.
struct PlaceScale {
    std::uint64_t volumeLength = 0; // when it was longest
    std::uint64_t rangeBytes = 0;   // so many of the chain's largest blocks, by a power of two
    std::size_t ranges = 0;

    // Ranges for a volume of this length, at most so many. The length may be up to 2^62.
    static PlaceScale For(std::uint64_t length, std::uint32_t blockSize, std::size_t mostRanges);
    // The range in which a byte lies; the last one for bytes behind the end.
    [[nodiscard]] std::size_t RangeOf(std::uint64_t offset) const noexcept;
    // How many blocks of a volume begin in a range.
    [[nodiscard]] std::uint64_t BlocksIn(std::size_t range, std::uint64_t length,
                                         std::uint32_t blockSize) const noexcept;
};

enum class ReportKind { Full, Verify, Incremental };
const char* NameOf(ReportKind kind) noexcept;

struct ReportBackup {
    std::uint64_t sequence = 0;
    bool unfinished = false; // there is no manifest: interrupted, or at work just now
    std::string problem;     // not empty: it cannot be restored
    bool onlyLinked = false; // nothing is wrong with it but what it builds on

    // The manifest could be read: what follows comes from there.
    bool described = false;
    ReportKind kind = ReportKind::Full;
    std::string time; // as it stands there, which may be anything
    std::vector<Reason> reasons;
    std::vector<Reason> next;
    bool reported = false;
    std::string audit; // what an audit says, when there was one
    std::uint64_t volumeLength = 0;
    std::uint32_t blockSize = 0;
    std::uint64_t blocksReported = 0;
    std::uint64_t blocksStored = 0;
    std::uint64_t blocksZero = 0;
    std::uint64_t bytesRead = 0;
    std::uint64_t bytesStored = 0;

    // From the indexes. What a full backup of the same snapshot would store: every block that is not zero.
    std::optional<std::uint64_t> fullBytes;
    // Blocks in the index by range; empty when it could not be read.
    std::vector<std::uint64_t> recorded;

    // A full backup's index says where there is data, not what changed.
    [[nodiscard]] bool ShowsChanges() const noexcept
    {
        return described && kind != ReportKind::Full && !recorded.empty();
    }
    [[nodiscard]] std::optional<std::uint64_t> Saved() const noexcept;
};

struct ReportChain {
    std::string application;
    std::string volume;
    PlaceScale places;
    std::vector<ReportBackup> backups; // ascending
    std::vector<std::string> losses;   // of tracking, that audits found: a sentence each
};

struct Report {
    std::string repository; // its ID
    std::string folder;     // as the user named it
    std::vector<ReportChain> chains;
    std::vector<std::string> problems; // of chains that do not say whose they are
};

// Sums, each of which stays at the largest number when it would go beyond.
struct ReportTotals {
    std::uint64_t full = 0;
    std::uint64_t verify = 0;
    std::uint64_t incremental = 0;
    std::uint64_t damaged = 0;    // whether described or not
    std::uint64_t unfinished = 0; // no backups
    std::uint64_t unreported = 0;
    std::uint64_t bytesRead = 0;
    std::uint64_t bytesStored = 0;
    // Of the backups of which it is known.
    std::uint64_t fullBytes = 0;
    std::uint64_t saved = 0;
    std::uint64_t unknown = 0; // how many are described and left out there

    void Add(const ReportBackup& backup) noexcept;
    [[nodiscard]] std::uint64_t Backups() const noexcept { return m_backups; }

private:
    std::uint64_t m_backups = 0;
};
ReportTotals TotalsOf(const ReportChain& chain) noexcept;
ReportTotals TotalsOf(const Report& report) noexcept;
// Everything that is wrong: chains that could not be read, and damaged backups.
std::size_t ProblemsIn(const Report& report) noexcept;

// Some backups that follow each other, drawn as one column: one each, as long as there is room.
struct ReportColumn {
    // By how much it has to be seen; a column shows the highest of its backups.
    enum class Mark { Incremental, Verify, Full, Unfinished, Damaged };

    std::size_t begin = 0; // places in the chain's list
    std::size_t end = 0;
    Mark mark = Mark::Incremental;
    std::uint64_t bytesStored = 0;
    std::uint64_t fullBytes = 0;
    bool showsChanges = false; // of at least one backup
    // By range, over the backups whose changes are known: blocks that changed, and blocks that there are.
    std::vector<std::uint64_t> changed;
    std::vector<std::uint64_t> blocks;
};
std::vector<ReportColumn> ColumnsOf(const ReportChain& chain, std::size_t most);
ReportColumn::Mark MarkOf(const ReportBackup& backup) noexcept;

} // namespace vtbackup
