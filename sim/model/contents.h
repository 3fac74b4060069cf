// Contents of volumes and snapshots: chunks that were never written cost nothing and read as zero; a snapshot
// keeps the old contents of a chunk from the moment the volume's chunk is overwritten.
//
// Order matters to survive a process that is killed in between: the old chunk is kept, then marked as kept; the
// change bits are set, then the bytes are written.
#pragma once

#include "model/driver.h"
#include "model/protocol.h"

#include <cstdint>
#include <span>

namespace vtfltsim::model {

// Bytes at offsets; unwritten ones read as zero.
class Store {
public:
    virtual ~Store() = default;
    virtual Status ReadAt(std::uint64_t offset, std::uint8_t* data, std::uint32_t length) = 0;
    virtual Status WriteAt(std::uint64_t offset, const std::uint8_t* data, std::uint32_t length) = 0;
};

struct VolumeContents {
    VolumeRecord* record = nullptr;
    VolumeMaps maps;
    Store* store = nullptr;
};

struct SnapshotContents {
    const SnapshotRecord* record = nullptr;
    SnapshotMaps maps;
    Store* store = nullptr;
};

// Reads and writes of ranges inside the length; SECTOR_NOT_FOUND when a range leaves it, with nothing done.
Status ReadVolume(const VolumeContents& volume, std::uint64_t offset, std::uint8_t* data, std::uint32_t length);
// snapshots: every live snapshot of this volume.
Status WriteVolume(const MachineRecord& machine, const VolumeContents& volume,
                   std::span<const SnapshotContents> snapshots, std::uint64_t offset, const std::uint8_t* data,
                   std::uint32_t length);
Status ReadSnapshot(const VolumeContents& volume, const SnapshotContents& snapshot, std::uint64_t offset,
                    std::uint8_t* data, std::uint32_t length);
Status WriteSnapshot(const VolumeContents& volume, const SnapshotContents& snapshot, std::uint64_t offset,
                     const std::uint8_t* data, std::uint32_t length);

// Keeps a range of the volume for its snapshots; for a range that is about to be overwritten or cut off.
Status KeepForSnapshots(const VolumeContents& volume, std::span<const SnapshotContents> snapshots, std::uint64_t offset,
                        std::uint64_t length);

} // namespace vtfltsim::model
