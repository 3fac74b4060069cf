#include "model/state.h"

#include "model/driver.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace vtfltsim::model {

namespace {

constexpr std::uint32_t SPENT = 2; // inUse of a fault that struck for the last time

bool Matches(const FaultRecord& fault, std::uint32_t code, std::uint32_t endpoint)
{
    return fault.inUse == 1 && fault.code == code && (fault.endpoint == ENDPOINT_ANY || fault.endpoint == endpoint);
}

// True when the fault hits this request.
bool Count(FaultRecord& fault)
{
    if (fault.skip != 0) {
        --fault.skip;
        return false;
    }
    if (fault.remaining != 0 && --fault.remaining == 0)
        fault.inUse = SPENT;
    return true;
}

bool IsSoundVolume(const VolumeRecord& volume)
{
    if (volume.inUse == 0)
        return true;
    const bool geometry = volume.switching != 0 ? IsValidGeometry(volume.next.length, volume.next.blockSize)
                                                : IsValidGeometry(volume.length, volume.blockSize);
    // The name leads to the volume's folder, and nowhere else.
    const auto* end = std::end(volume.guid);
    const bool named =
        volume.guid[0] == u'{' && std::none_of(volume.guid, end, [](char16_t c) { return c == u'\\' || c == u'/'; });
    return geometry && named && volume.epoch <= Epoch::Fetched;
}

bool IsSoundSnapshot(const SnapshotRecord& snapshot)
{
    return snapshot.inUse == 0 || IsValidGeometry(snapshot.length, snapshot.blockSize);
}

bool IsIdUnit(char16_t c)
{
    return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F') || c == u'-';
}

char16_t LowerUnit(char16_t c)
{
    return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c - u'A' + u'a') : c;
}

// Letters' case makes no difference, as for the folder that is named so.
bool IsSameName(const VolumeRecord& a, const VolumeRecord& b)
{
    for (std::size_t i = 0; i < std::size(a.guid); ++i) {
        if (LowerUnit(a.guid[i]) != LowerUnit(b.guid[i]))
            return false;
        if (a.guid[i] == u'\0')
            break;
    }
    return true;
}

// No two records in use are the same.
template <class Record, std::size_t N, class Same>
bool AllDiffer(const Record (&table)[N], Same same)
{
    for (std::size_t i = 0; i < N; ++i) {
        for (std::size_t j = 0; j < i && table[i].inUse != 0; ++j) {
            if (table[j].inUse != 0 && same(table[i], table[j]))
                return false;
        }
    }
    return true;
}

} // namespace

bool HasSoundId(const MachineRecord& machine)
{
    return std::all_of(machine.id, machine.id + ID_UNITS, IsIdUnit) && machine.id[ID_UNITS] == u'\0';
}

bool IsSound(const MachineRecord& machine)
{
    return HasSoundId(machine) && machine.driver <= DriverState::Older &&
           std::all_of(std::begin(machine.faults), std::end(machine.faults),
                       [](const FaultRecord& fault) { return fault.replyLength <= sizeof(fault.reply); }) &&
           std::all_of(std::begin(machine.volumes), std::end(machine.volumes), IsSoundVolume) &&
           std::all_of(std::begin(machine.snapshots), std::end(machine.snapshots), IsSoundSnapshot) &&
           AllDiffer(machine.volumes, [](const auto& a, const auto& b) { return a.serial == b.serial; }) &&
           AllDiffer(machine.volumes, IsSameName) &&
           AllDiffer(machine.snapshots, [](const auto& a, const auto& b) { return a.number == b.number; });
}

void SwitchGeometry(VolumeRecord& volume, const Geometry& next)
{
    volume.next = next;
    std::atomic_thread_fence(std::memory_order_seq_cst);
    volume.switching = 1;
    FinishGeometry(volume);
}

void FinishGeometry(VolumeRecord& volume)
{
    if (volume.switching == 0)
        return;
    volume.length = volume.next.length;
    volume.blockSize = volume.next.blockSize;
    volume.mapSequence = volume.next.mapSequence;
    std::atomic_thread_fence(std::memory_order_seq_cst);
    volume.switching = 0;
}

void InitialiseMachine(MachineRecord& machine)
{
    std::memset(static_cast<void*>(&machine), 0, sizeof(machine));
    machine.version = MACHINE_VERSION;
    machine.driver = DriverState::Working;
    machine.nextSerial = 1;
    machine.nextSnapshot = 1;
}

bool AddFault(MachineRecord& machine, const FaultRecord& fault)
{
    for (auto& slot : machine.faults) {
        if (slot.inUse == 1)
            continue;
        slot = fault;
        slot.inUse = 1;
        return true;
    }
    return false;
}

void ClearFaults(MachineRecord& machine)
{
    for (auto& slot : machine.faults)
        slot.inUse = 0;
    machine.enumerationStep = 0;
}

const FaultRecord* StrikeFault(MachineRecord& machine, std::uint32_t code, std::uint32_t endpoint)
{
    const FaultRecord* struck = nullptr;
    for (auto& fault : machine.faults) {
        if (Matches(fault, code, endpoint) && Count(fault) && struck == nullptr)
            struck = &fault;
    }
    return struck;
}

} // namespace vtfltsim::model
