// The audit: does a sample of the blocks that the bitmap calls clean hold what the chain says?
//
// A driver, or anything that writes below it, can miss a write without noting that it did. The bitmap and the verify
// list are then wrong without a trace, and only a comparison of contents finds it.
#pragma once

#include "audit_sample.h"
#include "chain_reader.h"
#include "change_map.h"
#include "snapshot_writes.h"
#include "volume.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vtbackup {

// A block that changed and is not in the bitmap.
struct MissedBlock {
    std::uint64_t block = 0;
    std::uint64_t offset = 0; // of its first byte on the volume
    std::uint32_t length = 0;
    std::string expected;     // the chain's checksum of it, or "zero"
    std::uint64_t backup = 0; // which stored it; 0: none did, and the chain takes it for zero
    std::string found;        // the checksum of what was read, or "zero"
};

struct AuditResult {
    AuditCounts counts;
    std::uint64_t differing = 0;
    std::vector<MissedBlock> missed; // the first of them, MOST_MISSED at most
    std::string endedEarly;          // not empty: why the audit stopped after it had found a difference
    std::string doubt;               // not empty: why a difference may have another cause than a change that was missed
};

constexpr std::size_t MOST_MISSED = 500; // keeps the evidence readable, and its file small

struct AuditSource {
    const Volume& snapshot;
    Geometry geometry; // the snapshot's and the last backup's
    const ChangeMap& changes;
    // Fetched when the audit begins, and again before a difference counts: a block that somebody wrote into in the
    // snapshot differs without a change that was missed.
    SnapshotWrites& writes;
};

// Compares up to wanted clean blocks of the snapshot with the chain's contents, in ascending order. chain has not been
// read from yet. firstFound is called when the first difference was seen, which may be hours before the end. A failure
// on the way is thrown, unless a difference was found before it.
AuditResult AuditCleanBlocks(const AuditSource& source, ChainReader& chain, std::uint64_t wanted,
                             const std::function<void(const AuditResult&)>& firstFound);

} // namespace vtbackup
