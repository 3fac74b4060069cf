// The driver: what its bits do and what it answers.
//
// A volume has three bitmaps. Writes set "current". Taking a snapshot that was announced moves current into
// "frozen": the epoch closes at that instant. A fetch moves frozen into "pending" (and current as well, when no
// announced snapshot was taken since the last confirmed fetch), and answers pending. The confirmation clears
// pending and nothing else, and reopens only an epoch that was fetched, so what is written between a fetch and its
// confirmation is never forgotten; a fetch that was not confirmed is answered again, with what came later.
#pragma once

#include "model/protocol.h"
#include "model/state.h"

#include <cstdint>
#include <string_view>

namespace vtfltsim::model {

// Where a volume's bitmaps lie. All three change bitmaps have BitmapBytes bytes.
struct VolumeMaps {
    std::uint8_t* current = nullptr;
    std::uint8_t* frozen = nullptr;
    std::uint8_t* pending = nullptr;
    std::uint8_t* allocated = nullptr; // one bit per chunk ever written
};

struct SnapshotMaps {
    std::uint8_t* present = nullptr;   // one bit per chunk: the snapshot's own store has it
    std::uint8_t* allocated = nullptr; // one bit per chunk: written before the snapshot, or into it
    std::uint8_t* written = nullptr;   // change bitmap of the snapshot device itself
};

std::uint64_t BlockCount(std::uint64_t length, std::uint32_t blockSize);
std::uint32_t BitmapBytes(std::uint64_t length, std::uint32_t blockSize);
std::uint64_t ChunkCount(std::uint64_t length);
bool IsValidBlockSize(std::uint32_t blockSize);
// A length above 0, a valid block size, and bitmaps that a request's 32-bit lengths can carry.
bool IsValidGeometry(std::uint64_t length, std::uint32_t blockSize);

bool IsTracked(const MachineRecord& machine, const VolumeRecord& volume);

// Notes a write, before its bytes arrive. length is above 0 and the range lies inside the volume.
void NoteWrite(const MachineRecord& machine, VolumeRecord& volume, const VolumeMaps& maps, std::uint64_t offset,
               std::uint64_t length);
// A snapshot of the volume is taken at this instant. An announced one closes the epoch whether the volume is
// tracked or not: what is written from here on never belongs to it.
void NoteSnapshot(VolumeRecord& volume, const VolumeMaps& maps);
// The driver forgets the changes of a volume, but not that a snapshot was announced or taken: otherwise the next
// fetch would hand out writes that are younger than the snapshot, and their confirmation would lose them.
void ForgetBits(const VolumeRecord& volume, const VolumeMaps& maps);

// What a request asks of the volume's surroundings beyond its reply; carried out by the caller.
enum class Effect { None, ChangeBlockSize };
struct VolumeReply : Reply {
    Effect effect = Effect::None;
    std::uint32_t newBlockSize = 0;
};

// Answers a request on a volume, a snapshot or the control device. Faults are not looked at.
VolumeReply AnswerVolume(const MachineRecord& machine, VolumeRecord& volume, const VolumeMaps& maps,
                         const Request& request);
Reply AnswerSnapshot(const MachineRecord& machine, const SnapshotRecord& snapshot, const SnapshotMaps& maps,
                     const Request& request);
// The probe; device queries go through the two functions below.
Reply AnswerProbe(const MachineRecord& machine, const Request& request);

// Checks a device query and points name (two bytes per unit, not aligned) into it.
Status ParseDeviceQuery(const Request& request, const std::uint8_t** name, std::uint32_t* nameBytes);
Reply BuildDeviceReply(const Request& request, std::u16string_view volumeName, std::u16string_view deviceName,
                       bool isFiltered);

// Fills in the reply that a fault forged.
Reply ForgedReply(const FaultRecord& fault, const Request& request);

} // namespace vtfltsim::model
