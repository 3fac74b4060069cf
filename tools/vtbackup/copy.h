// The three ways of reading a snapshot into a backup. Each streams, and checks for Ctrl-C between reads.
#pragma once

#include "chain_reader.h"
#include "change_map.h"
#include "volume.h"
#include "writer.h"

#include <cstdint>

namespace vtbackup {

// Every block that is not zero. Returns the bytes read from the snapshot.
std::uint64_t CopyEverything(const Volume& snapshot, Geometry geometry, BackupWriter& writer);

// Every block that differs from what the chain says. Returns the bytes read from the snapshot.
std::uint64_t CopyDifferences(const Volume& snapshot, Geometry geometry, ChainReader& chain, BackupWriter& writer);

// The blocks of the map. Returns the bytes read from the snapshot.
std::uint64_t CopyChanged(const Volume& snapshot, Geometry geometry, const ChangeMap& changes, BackupWriter& writer);

} // namespace vtbackup
