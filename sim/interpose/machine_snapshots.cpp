// Machine: snapshots.
#include "interpose/machine_parts.h"

#include <algorithm>
#include <cstring>

namespace vtfltsim {

namespace {

constexpr std::uint64_t RoundUp8(std::uint64_t value)
{
    return (value + 7) / 8 * 8;
}

std::uint64_t ChunkBytes(std::uint64_t length)
{
    return RoundUp8(model::BytesForBits(model::ChunkCount(length)));
}

std::uint64_t MapFileBytes(std::uint64_t length, std::uint32_t blockSize)
{
    return 2 * ChunkBytes(length) + RoundUp8(model::BitmapBytes(length, blockSize));
}

model::SnapshotMaps PlaceMaps(std::uint8_t* base, std::uint64_t length)
{
    return {base, base + ChunkBytes(length), base + 2 * ChunkBytes(length)};
}

} // namespace

DWORD Machine::MapSnapshot(model::SnapshotRecord& snapshot, Snapshot*& mapped)
{
    auto& entry = m_snapshots[snapshot.number];
    if (entry == nullptr) {
        auto fresh = std::make_unique<Snapshot>();
        const std::wstring directory = SnapshotDirectory(snapshot.number);
        DWORD code = MappedFile::Open(directory + L"\\maps.bin", 0, fresh->file);
        if (code == 0 && fresh->file->size() < MapFileBytes(snapshot.length, snapshot.blockSize))
            code = ERROR_FILE_CORRUPT;
        if (code == 0)
            code = FileStore::Open(directory + L"\\store.img", 0, fresh->store);
        if (code != 0)
            return code;
        fresh->contents.record = &snapshot;
        fresh->contents.maps = PlaceMaps(fresh->file->data(), snapshot.length);
        fresh->contents.store = fresh->store.get();
        entry = std::move(fresh);
    }
    mapped = entry.get();
    return 0;
}

DWORD Machine::MapSnapshotsOf(const model::VolumeRecord& volume, std::vector<model::SnapshotContents>& snapshots)
{
    for (auto& snapshot : record().snapshots) {
        if (snapshot.inUse == 0 || snapshot.volumeSerial != volume.serial)
            continue;
        Snapshot* mapped = nullptr;
        const DWORD code = MapSnapshot(snapshot, mapped);
        if (code != 0)
            return code;
        snapshots.push_back(mapped->contents);
    }
    return 0;
}

DWORD Machine::CreateSnapshot(std::uint32_t serial, DWORD& number)
{
    const bool classIsFiltered = IsSnapshotClassFiltered();
    return WithVolume(serial, [&](model::VolumeRecord& volume, Volume& mapped) -> DWORD {
        auto& table = record().snapshots;
        auto* slot = std::find_if(std::begin(table), std::end(table), [](const auto& s) { return s.inUse == 0; });
        if (slot == std::end(table))
            return ERROR_NOT_ENOUGH_QUOTA;
        model::SnapshotRecord snapshot = {};
        snapshot.inUse = 1;
        snapshot.number = record().nextSnapshot++; // first: what a failure leaves behind has a number of its own
        snapshot.volumeSlot = static_cast<std::uint32_t>(&volume - record().volumes);
        snapshot.volumeSerial = serial;
        snapshot.length = volume.length;
        snapshot.blockSize = volume.blockSize;
        snapshot.tracked = classIsFiltered && record().driver != model::DriverState::Absent ? 1 : 0;

        const std::wstring directory = SnapshotDirectory(snapshot.number);
        DWORD code = MakeDirectory(directory);
        std::unique_ptr<MappedFile> file;
        if (code == 0)
            code = MappedFile::Open(directory + L"\\maps.bin", MapFileBytes(volume.length, volume.blockSize), file);
        std::unique_ptr<FileStore> store;
        if (code == 0)
            code = FileStore::Open(directory + L"\\store.img", volume.length, store);
        if (code != 0)
            return code;
        std::memcpy(PlaceMaps(file->data(), volume.length).allocated, mapped.contents.maps.allocated,
                    model::BytesForBits(model::ChunkCount(volume.length)));
        model::Publish(*slot, snapshot);
        model::NoteSnapshot(volume, mapped.contents.maps);
        number = snapshot.number;
        return 0;
    });
}

void Machine::DropSnapshot(model::SnapshotRecord& snapshot)
{
    snapshot.inUse = 0;
    m_snapshots.erase(snapshot.number);
    RemoveTree(SnapshotDirectory(snapshot.number)); // what another process holds goes with the machine
}

DWORD Machine::DeleteSnapshot(DWORD number)
{
    const Lock lock(*this);
    model::SnapshotRecord* snapshot = FindSnapshotRecord(number);
    if (snapshot == nullptr)
        return ERROR_DEVICE_GONE;
    DropSnapshot(*snapshot);
    return 0;
}

DWORD Machine::FillSnapshotInfo(DWORD number, VTFLTSIM_SNAPSHOT_INFO& info)
{
    const Lock lock(*this);
    model::SnapshotRecord* snapshot = FindSnapshotRecord(number);
    if (snapshot == nullptr)
        return ERROR_DEVICE_GONE;
    Snapshot* mapped = nullptr;
    const DWORD code = MapSnapshot(*snapshot, mapped);
    if (code != 0)
        return code;
    info.number = number;
    CopyCut(info.devicePath, VTFLTSIM_DEVICE_CHARS, SNAPSHOT_DEVICE + Decimal(number));
    const model::VolumeRecord* volume = FindRecord(snapshot->volumeSerial);
    CopyCut(info.volumeGuid, VTFLTSIM_GUID_CHARS, volume != nullptr ? FromRecord(volume->guid) : std::wstring());
    info.length = snapshot->length;
    info.blockSize = snapshot->blockSize;
    info.tracked = snapshot->tracked;
    info.writtenBlocks =
        model::CountBits(mapped->contents.maps.written, model::BitmapBytes(snapshot->length, snapshot->blockSize));
    return 0;
}

DWORD Machine::SnapshotAt(DWORD index, DWORD& number)
{
    const Lock lock(*this);
    std::vector<DWORD> numbers;
    for (const auto& snapshot : record().snapshots) {
        if (snapshot.inUse != 0)
            numbers.push_back(snapshot.number);
    }
    if (index >= numbers.size())
        return ERROR_NO_MORE_ITEMS;
    std::sort(numbers.begin(), numbers.end());
    number = numbers[index];
    return 0;
}

DWORD Machine::WithSnapshot(
    DWORD number, const std::function<DWORD(const model::VolumeContents&, const model::SnapshotContents&)>& work)
{
    const Lock lock(*this);
    model::SnapshotRecord* snapshot = FindSnapshotRecord(number);
    model::VolumeRecord* volume = snapshot != nullptr ? FindRecord(snapshot->volumeSerial) : nullptr;
    if (volume == nullptr)
        return ERROR_DEVICE_GONE;
    Volume* mappedVolume = nullptr;
    Snapshot* mapped = nullptr;
    DWORD code = MapVolume(*volume, mappedVolume);
    if (code == 0)
        code = MapSnapshot(*snapshot, mapped);
    return code != 0 ? code : work(mappedVolume->contents, mapped->contents);
}

DWORD Machine::ReadSnapshot(DWORD number, std::uint64_t offset, void* data, DWORD length)
{
    return WithSnapshot(number, [&](const model::VolumeContents& volume, const model::SnapshotContents& snapshot) {
        return model::ReadSnapshot(volume, snapshot, offset, static_cast<std::uint8_t*>(data), length);
    });
}

DWORD Machine::WriteSnapshot(DWORD number, std::uint64_t offset, const void* data, DWORD length)
{
    return WithSnapshot(number, [&](const model::VolumeContents& volume, const model::SnapshotContents& snapshot) {
        return model::WriteSnapshot(volume, snapshot, offset, static_cast<const std::uint8_t*>(data), length);
    });
}

} // namespace vtfltsim
