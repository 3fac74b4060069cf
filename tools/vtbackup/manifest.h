// A backup's manifest: what was backed up, how, and why so. It is the file whose presence makes a backup.
#pragma once

#include "audit_sample.h"
#include "reasons.h"
#include "volume.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vtbackup {

enum class Kind {
    Full,        // stands alone: every block that is not zero
    Verify,      // the whole volume was read; stored is what differs from the chain so far
    Incremental, // the blocks that the driver reported, unread otherwise
};
const char* KindName(Kind kind) noexcept;

// A loss of tracking (lost_tracking.h) that a backup answered, although its number is above the backup's own.
struct AnsweredLoss {
    std::uint64_t sequence = 0;
    std::string id; // of the evidence
    bool operator==(const AnsweredLoss&) const = default;
};

struct Manifest {
    std::uint64_t sequence = 0; // 1, 2, ... within its chain
    std::uint64_t base = 0;     // the full backup that this one builds on; itself for a full one
    std::uint64_t parent = 0;   // the backup before it, 0 for a full one
    std::string parentChecksum; // of the parent's manifest, empty for a full one
    std::string application;
    std::string volume; // {...}
    std::string time;   // of the snapshot, UTC, 2026-01-31T12:00:00Z
    Kind kind = Kind::Full;
    std::vector<Reason> reasons; // why it is not incremental; empty for an incremental one
    std::vector<Reason> next;    // not empty: the next backup must read the whole volume, for these reasons
    bool reportable = true;      // false: success must not be reported for this backup
    Geometry geometry;
    std::uint64_t blocksReported = 0; // by the driver
    std::uint64_t blocksStored = 0;   // in the data file
    std::uint64_t blocksZero = 0;     // recorded as zero
    std::uint64_t bytesRead = 0;      // from the snapshot
    std::uint64_t dataLength = 0;
    std::uint64_t indexLength = 0;
    std::optional<AuditCounts> audit;   // when one was asked for; no difference was found
    std::vector<AnsweredLoss> answered; // by this backup, or by those that it builds on
    std::string indexChecksum;          // as the index file ends with it

    std::string checksum; // of this manifest as it is stored; set by FormatManifest and ParseManifest
};

// The longest manifest that is read, in bytes.
constexpr std::uint64_t MANIFEST_LIMIT = 1024 * 1024;

// Parses text that may be damaged. Throws std::exception, also for one that nests deeper than a file of this program.
nlohmann::json ParseShallow(const std::string& text);

nlohmann::json ToJson(const Manifest& manifest);

// The file's text: {"manifest": {...}, "checksum": "..."}, and manifest.checksum.
std::string FormatManifest(Manifest& manifest);
// Throws Failure(Exit::Damaged), with the file's name, for text that FormatManifest cannot have written or whose
// numbers contradict each other.
Manifest ParseManifest(const std::string& text, const std::string& fileName);

} // namespace vtbackup
