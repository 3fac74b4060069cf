// The state of a simulated machine: plain data without pointers, so that it can lie in memory that several
// processes share and in a file that outlives them. Whoever changes it holds the machine's lock.
#pragma once

#include "model/protocol.h"

#include <atomic>
#include <cstdint>
#include <type_traits>

namespace vtfltsim::model {

inline constexpr std::uint32_t CHUNK = 65536; // grain of the allocation map and of copy-on-write
inline constexpr std::uint32_t MAX_VOLUMES = 64;
inline constexpr std::uint32_t MAX_SNAPSHOTS = 128;
inline constexpr std::uint32_t MAX_FAULTS = 64;
inline constexpr std::uint32_t MAX_COMMANDS = 64;
inline constexpr std::uint32_t ID_UNITS = 36;
inline constexpr std::uint32_t MOUNT_PATHS_UNITS = 1024;
inline constexpr std::uint32_t FORGET_ALL = 0xFFFFFFFFu;

enum class DriverState : std::uint32_t { Working = 0, Absent = 1, Older = 2 };

// How far the last announced snapshot's changes have come: none was taken since the last confirmed fetch; taken and
// not fetched yet; fetched and not confirmed yet.
enum class Epoch : std::uint32_t { Open = 0, Closed = 1, Fetched = 2 };

// A length and block size, and the file of the maps that belong to them.
struct Geometry {
    std::uint64_t length;
    std::uint32_t blockSize;
    std::uint32_t mapSequence;
};

struct VolumeRecord {
    std::uint32_t inUse;
    std::uint32_t serial;      // never given twice; tells a slot's present volume from an earlier one
    std::uint32_t mapSequence; // number of the file that holds the maps; a new one for every new geometry
    std::uint32_t blockSize;
    std::uint64_t length;
    std::uint32_t driveType;
    std::uint32_t stopped;  // 1: taken out of tracking by a request
    std::uint32_t prepared; // 1: a snapshot was announced and not yet taken
    Epoch epoch;
    std::uint32_t unseen;     // 1: written while no driver looked, or the driver lost its bits
    std::uint32_t forget;     // writes that the driver is going to overlook; FORGET_ALL: every one
    std::uint32_t resyncOwed; // 1: the resync entry is not certain to be written yet
    std::uint32_t switching;  // 1: next is taking the place of the geometry above
    Geometry next;
    char16_t guid[40];                      // {...}
    char16_t mountPaths[MOUNT_PATHS_UNITS]; // double-NUL-ended
    char16_t enumerationName[264];          // empty: the right name
};

struct SnapshotRecord {
    std::uint32_t inUse;
    std::uint32_t number;
    std::uint32_t volumeSlot;
    std::uint32_t volumeSerial;
    std::uint64_t length;
    std::uint32_t blockSize;
    std::uint32_t tracked;
};

// A planned misbehaviour of requests.
struct FaultRecord {
    std::uint32_t inUse;
    std::uint32_t code;
    std::uint32_t endpoint;  // an Endpoint number; 0: any
    std::uint32_t skip;      // matching requests still to be let through
    std::uint32_t remaining; // requests still to be hit; 0: all from there on
    std::uint32_t forged;    // 1: succeed with the reply below, 0: fail with error
    std::uint32_t error;
    std::uint32_t replyLength;
    std::uint8_t reply[1024];
};

struct UtilityRecord {
    std::uint32_t launchError;
    std::uint32_t uninstallExit;
    std::uint32_t installExit;
    std::uint32_t hangs;
    std::uint32_t runs; // ever; the last MAX_COMMANDS command lines are kept
    char16_t commands[MAX_COMMANDS][520];
};

struct MachineRecord {
    std::uint32_t magic;
    std::uint32_t version;
    char16_t id[40];            // names the machine's lock and registry: ID_UNITS hexadecimal digits and dashes
    std::uint32_t tableVersion; // grows with every change of names, mounts, volumes
    DriverState driver;
    std::uint32_t installPending; // 1: the utility answered "restart": the driver works after it
    std::uint32_t service;
    std::uint32_t nextSerial;
    std::uint32_t nextSnapshot;
    std::uint32_t enumerationStep; // 0: no fault
    std::uint32_t enumerationError;
    UtilityRecord utility;
    FaultRecord faults[MAX_FAULTS];
    VolumeRecord volumes[MAX_VOLUMES];
    SnapshotRecord snapshots[MAX_SNAPSHOTS];
};

inline constexpr std::uint32_t MACHINE_MAGIC = 0x4D535456; // "VTSM"
inline constexpr std::uint32_t MACHINE_VERSION = 4;

static_assert(std::is_trivially_copyable_v<MachineRecord> && std::is_standard_layout_v<MachineRecord>);

// Endpoints of requests as one number.
inline constexpr std::uint32_t ENDPOINT_ANY = 0;
inline constexpr std::uint32_t ENDPOINT_CONTROL = 1;
inline constexpr std::uint32_t VolumeEndpoint(std::uint32_t serial)
{
    return 0x40000000u + serial;
}
inline constexpr std::uint32_t SnapshotEndpoint(std::uint32_t number)
{
    return 0x80000000u + number;
}

// A new machine with a working driver; id is set by the caller.
void InitialiseMachine(MachineRecord& machine);

// The id is one that a machine can have. It never changes, so no lock is needed to look at it; and before that nobody
// may use it: the registry below it is removed as a whole, and below an empty one lie those of all machines.
bool HasSoundId(const MachineRecord& machine);

// What a damaged file could hold is refused: every number that is used as a divisor or a size is in range, no volume's
// name leads out of its folder, and no two volumes or snapshots would be taken for each other. Looks at the plain
// record only; other texts are bounded where they are read.
bool IsSound(const MachineRecord& machine);

// Changes a volume's geometry in one step, as far as anybody can tell: a process that ends in the middle leaves
// the rest to FinishGeometry, which whoever looks at the volume next calls.
void SwitchGeometry(VolumeRecord& volume, const Geometry& next);
void FinishGeometry(VolumeRecord& volume);

// Enters a record into its table. It counts only once it is complete.
template <class Record>
void Publish(Record& slot, const Record& record)
{
    Record hidden = record;
    hidden.inUse = 0;
    slot = hidden;
    std::atomic_thread_fence(std::memory_order_seq_cst);
    slot.inUse = record.inUse;
}

// Adds a fault; false when the table is full.
bool AddFault(MachineRecord& machine, const FaultRecord& fault);
void ClearFaults(MachineRecord& machine);
// Counts this request against every fault that matches, and answers the one that strikes; null for none. The
// answer stays valid until the next change of the table.
const FaultRecord* StrikeFault(MachineRecord& machine, std::uint32_t code, std::uint32_t endpoint);

} // namespace vtfltsim::model
