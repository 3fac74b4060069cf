// Machine: volumes, their files and maps.
#include "interpose/machine_parts.h"

#include <algorithm>
#include <cstring>

namespace vtfltsim {

std::wstring NewGuid();

namespace {

constexpr std::uint64_t RoundUp8(std::uint64_t value)
{
    return (value + 7) / 8 * 8;
}

std::uint64_t MapFileBytes(std::uint64_t length, std::uint32_t blockSize)
{
    return 3 * RoundUp8(model::BitmapBytes(length, blockSize)) +
           RoundUp8(model::BytesForBits(model::ChunkCount(length)));
}

model::VolumeMaps PlaceMaps(std::uint8_t* base, std::uint64_t length, std::uint32_t blockSize)
{
    const std::uint64_t bitmap = RoundUp8(model::BitmapBytes(length, blockSize));
    return {base, base + bitmap, base + 2 * bitmap, base + 3 * bitmap};
}

std::wstring MapPath(const std::wstring& directory, std::uint32_t sequence)
{
    return directory + L"\\tracking." + Decimal(sequence) + L".bin";
}

bool IsGuid(std::wstring_view text)
{
    return text.size() == VTFLTSIM_GUID_CHARS - 1 && text.front() == L'{' && text.back() == L'}' &&
           text.find_first_of(L"\\/") == std::wstring_view::npos;
}

// A path that does not fit is left out: a cut one would name something else.
template <std::size_t N>
void CopyWhole(wchar_t (&target)[N], const std::wstring& path)
{
    CopyCut(target, N, path.size() < N ? path : std::wstring());
}

void CopyBits(std::uint8_t* target, std::uint64_t targetBits, const std::uint8_t* source, std::uint64_t sourceBits)
{
    const std::uint64_t bits = std::min(targetBits, sourceBits);
    std::memcpy(target, source, model::BytesForBits(bits));
    if (bits % 8 != 0)
        model::ClearBits(target, bits, bits / 8 * 8 + 7);
}

} // namespace

DWORD Machine::MapVolume(model::VolumeRecord& volume, Volume*& mapped)
{
    auto& entry = m_volumes[volume.serial];
    if (entry != nullptr && entry->mapSequence == volume.mapSequence) {
        mapped = entry.get();
        return 0;
    }
    auto fresh = std::make_unique<Volume>();
    const std::wstring directory = VolumeDirectory(FromRecord(volume.guid));
    DWORD code = MappedFile::Open(MapPath(directory, volume.mapSequence), 0, fresh->file);
    if (code == 0 && fresh->file->size() < MapFileBytes(volume.length, volume.blockSize))
        code = ERROR_FILE_CORRUPT;
    if (code == 0)
        code = FileStore::Open(directory + L"\\contents.img", 0, fresh->store);
    if (code != 0)
        return code;
    fresh->mapSequence = volume.mapSequence;
    fresh->contents.record = &volume;
    fresh->contents.maps = PlaceMaps(fresh->file->data(), volume.length, volume.blockSize);
    fresh->contents.store = fresh->store.get();
    entry = std::move(fresh);
    mapped = entry.get();
    return 0;
}

DWORD Machine::WithVolume(std::uint32_t serial, const std::function<DWORD(model::VolumeRecord&, Volume&)>& work)
{
    const Lock lock(*this);
    model::VolumeRecord* volume = FindRecord(serial);
    if (volume == nullptr) {
        m_volumes.erase(serial);
        return ERROR_DEVICE_GONE;
    }
    Volume* mapped = nullptr;
    const DWORD code = MapVolume(*volume, mapped);
    return code != 0 ? code : work(*volume, *mapped);
}

DWORD Machine::AddVolume(const VTFLTSIM_VOLUME_CONFIG& config, std::wstring& guid)
{
    const std::uint32_t blockSize = config.blockSize == 0 ? 65536 : config.blockSize;
    const std::wstring name = config.guid != nullptr ? config.guid : NewGuid();
    const std::wstring mount = config.mountPath != nullptr ? config.mountPath : L"";
    if (!model::IsValidGeometry(config.length, blockSize) || !IsGuid(name) ||
        mount.size() + 2 > model::MOUNT_PATHS_UNITS)
        return ERROR_INVALID_PARAMETER;

    const Lock lock(*this);
    auto& table = record().volumes;
    if (std::any_of(std::begin(table), std::end(table),
                    [&](const auto& v) { return v.inUse != 0 && EqualNoCase(FromRecord(v.guid), name); }))
        return ERROR_ALREADY_EXISTS;
    auto* slot = std::find_if(std::begin(table), std::end(table), [](const auto& v) { return v.inUse == 0; });
    if (slot == std::end(table))
        return ERROR_NOT_ENOUGH_QUOTA;
    const std::wstring directory = VolumeDirectory(name);
    RemoveTree(directory); // left by a volume of this name that was removed while in use
    DWORD code = MakeDirectory(directory);
    if (code == 0)
        code = MakeDirectory(FilesDirectory(name));
    std::unique_ptr<FileStore> store;
    if (code == 0)
        code = FileStore::Open(directory + L"\\contents.img", config.length, store);
    std::unique_ptr<MappedFile> maps;
    if (code == 0)
        code = MappedFile::Open(MapPath(directory, 1), MapFileBytes(config.length, blockSize), maps);
    if (code != 0)
        return code;

    model::VolumeRecord volume = {};
    volume.inUse = 1;
    volume.serial = record().nextSerial++;
    volume.mapSequence = 1;
    volume.blockSize = blockSize;
    volume.length = config.length;
    volume.driveType = config.driveType == 0 ? DRIVE_FIXED : config.driveType;
    ToRecord(volume.guid, name);
    ToRecord(volume.mountPaths, mount);
    model::Publish(*slot, volume);
    ++record().tableVersion;
    guid = name;
    return 0;
}

DWORD Machine::RemoveVolume(std::uint32_t serial)
{
    const Lock lock(*this);
    model::VolumeRecord* volume = FindRecord(serial);
    if (volume == nullptr)
        return ERROR_DEVICE_GONE;
    for (auto& snapshot : record().snapshots) {
        if (snapshot.inUse != 0 && snapshot.volumeSerial == serial)
            DropSnapshot(snapshot);
    }
    volume->inUse = 0;
    ++record().tableVersion;
    m_volumes.erase(serial);
    RemoveTree(VolumeDirectory(FromRecord(volume->guid))); // what another process holds goes with the machine
    return 0;
}

DWORD Machine::FillVolumeInfo(std::uint32_t serial, VTFLTSIM_VOLUME_INFO& info)
{
    return WithVolume(serial, [&](model::VolumeRecord& volume, Volume& mapped) -> DWORD {
        const std::wstring guid = FromRecord(volume.guid);
        const auto& maps = mapped.contents.maps;
        const std::uint32_t bytes = model::BitmapBytes(volume.length, volume.blockSize);
        CopyCut(info.guid, VTFLTSIM_GUID_CHARS, guid);
        CopyCut(info.devicePath, VTFLTSIM_DEVICE_CHARS, L"\\\\?\\Volume" + guid);
        CopyWhole(info.mountPath, FromRecord(volume.mountPaths));
        CopyWhole(info.filesDirectory, FilesDirectory(guid));
        info.length = volume.length;
        info.blockSize = volume.blockSize;
        info.driveType = volume.driveType;
        info.tracked = model::IsTracked(record(), volume) ? 1 : 0;
        info.prepared = volume.prepared;
        info.bitmapBytes = bytes;
        info.currentBlocks = model::CountBits(maps.current, bytes);
        info.frozenBlocks = model::CountBits(maps.frozen, bytes);
        info.pendingBlocks = model::CountBits(maps.pending, bytes);
        info.allocatedChunks = model::CountBits(maps.allocated, model::BytesForBits(model::ChunkCount(volume.length)));
        return 0;
    });
}

DWORD Machine::ReadVolume(std::uint32_t serial, std::uint64_t offset, void* data, DWORD length)
{
    return WithVolume(serial, [&](model::VolumeRecord&, Volume& mapped) -> DWORD {
        return model::ReadVolume(mapped.contents, offset, static_cast<std::uint8_t*>(data), length);
    });
}

DWORD Machine::WriteVolume(std::uint32_t serial, std::uint64_t offset, const void* data, DWORD length)
{
    return WithVolume(serial, [&](model::VolumeRecord& volume, Volume& mapped) -> DWORD {
        std::vector<model::SnapshotContents> snapshots;
        const DWORD code = MapSnapshotsOf(volume, snapshots);
        if (code != 0)
            return code;
        return model::WriteVolume(record(), mapped.contents, snapshots, offset, static_cast<const std::uint8_t*>(data),
                                  length);
    });
}

DWORD Machine::FlushVolume(std::uint32_t serial)
{
    return WithVolume(serial, [&](model::VolumeRecord&, Volume& mapped) { return mapped.store->Flush(); });
}

// Builds the maps of the new geometry in a file of their own, then switches the record over to it.
DWORD Machine::NewGeometry(model::VolumeRecord& volume, std::uint64_t length, std::uint32_t blockSize, bool keepBits)
{
    Volume* old = nullptr;
    DWORD code = MapVolume(volume, old);
    if (code != 0)
        return code;
    const std::wstring directory = VolumeDirectory(FromRecord(volume.guid));
    const std::uint32_t sequence = volume.mapSequence + 1;
    DeleteFileW(MapPath(directory, sequence).c_str()); // left by a process that ended before the switch
    std::unique_ptr<MappedFile> file;
    code = MappedFile::Open(MapPath(directory, sequence), MapFileBytes(length, blockSize), file);
    if (code != 0)
        return code;
    const model::VolumeMaps& from = old->contents.maps;
    const model::VolumeMaps to = PlaceMaps(file->data(), length, blockSize);
    CopyBits(to.allocated, model::ChunkCount(length), from.allocated, model::ChunkCount(volume.length));
    if (keepBits) {
        const std::uint64_t blocks = model::BlockCount(length, blockSize);
        const std::uint64_t oldBlocks = model::BlockCount(volume.length, volume.blockSize);
        CopyBits(to.current, blocks, from.current, oldBlocks);
        CopyBits(to.frozen, blocks, from.frozen, oldBlocks);
        CopyBits(to.pending, blocks, from.pending, oldBlocks);
    }
    const std::uint32_t oldSequence = volume.mapSequence;
    model::SwitchGeometry(volume, {length, blockSize, sequence});
    m_volumes.erase(volume.serial);
    DeleteFileW(MapPath(directory, oldSequence).c_str());
    return 0;
}

// The machine's lock is held. Snapshots keep what is cut off; the contents are cut last, when nobody reads behind the
// new end any more.
DWORD Machine::Shrink(model::VolumeRecord& volume, Volume& mapped, std::uint64_t length)
{
    std::vector<model::SnapshotContents> snapshots;
    DWORD code = MapSnapshotsOf(volume, snapshots);
    if (code == 0)
        code = model::KeepForSnapshots(mapped.contents, snapshots, length, volume.length - length);
    if (code == 0)
        code = NewGeometry(volume, length, volume.blockSize, true);
    Volume* shrunk = nullptr;
    if (code == 0)
        code = MapVolume(volume, shrunk);
    return code != 0 ? code : shrunk->store->Resize(length);
}

// The machine's lock is held. What lies behind the old end was left by a process that ended while it shrank the volume:
// it goes first, so that the new blocks are empty.
DWORD Machine::Grow(model::VolumeRecord& volume, Volume& mapped, std::uint64_t length)
{
    DWORD code = mapped.store->Resize(volume.length);
    if (code == 0)
        code = mapped.store->Resize(length);
    return code != 0 ? code : NewGeometry(volume, length, volume.blockSize, true);
}

DWORD Machine::ResizeVolume(std::uint32_t serial, std::uint64_t length)
{
    // Whether it shrinks, and whether the volume can be that long, is decided where it is done: another process may
    // change length and block size until then.
    bool shrinks = false;
    const auto resize = [&](bool listed) {
        return [&, listed](model::VolumeRecord& volume, Volume& mapped) -> DWORD {
            if (!model::IsValidGeometry(length, volume.blockSize))
                return ERROR_INVALID_PARAMETER;
            if (length >= volume.length)
                return Grow(volume, mapped, length);
            shrinks = true;
            return listed ? Shrink(volume, mapped, length) : 0;
        };
    };
    const DWORD code = WithVolume(serial, resize(false));
    // The bits behind the new end go with it. Should the volume grow again before the next backup, or the backup of an
    // earlier snapshot be under way, only the list tells that something is missing.
    return shrinks ? ForgetWith(serial, resize(true)) : code;
}

DWORD Machine::SetBlockSize(std::uint32_t serial, DWORD blockSize)
{
    std::uint64_t length = 0;
    const DWORD code = Length({Endpoint::Kind::Volume, serial, 0}, length);
    if (code != 0)
        return code;
    if (!model::IsValidGeometry(length, blockSize))
        return ERROR_INVALID_PARAMETER;
    return ForgetWith(serial, [&](model::VolumeRecord& volume, Volume&) -> DWORD {
        if (!model::IsValidGeometry(volume.length, blockSize)) // another process may have made it longer
            return ERROR_INVALID_PARAMETER;
        return NewGeometry(volume, volume.length, blockSize, false);
    });
}

DWORD Machine::LoseTracking(std::uint32_t serial)
{
    return ForgetWith(serial, [](model::VolumeRecord& volume, Volume& mapped) -> DWORD {
        model::ForgetBits(volume, mapped.contents.maps);
        return 0;
    });
}

DWORD Machine::StartTracking(std::uint32_t serial)
{
    return ForgetWith(serial, [](model::VolumeRecord& volume, Volume& mapped) -> DWORD {
        model::ForgetBits(volume, mapped.contents.maps);
        volume.stopped = 0;
        volume.unseen = 0;
        return 0;
    });
}

DWORD Machine::GetBits(std::uint32_t serial, DWORD which, void* bits, DWORD length, DWORD* needed)
{
    if (which > VTFLTSIM_BITS_ALLOCATED)
        return ERROR_INVALID_PARAMETER;
    return WithVolume(serial, [&](model::VolumeRecord& volume, Volume& mapped) -> DWORD {
        const model::VolumeMaps& maps = mapped.contents.maps;
        const auto bytes = which == VTFLTSIM_BITS_ALLOCATED
                               ? static_cast<DWORD>(model::BytesForBits(model::ChunkCount(volume.length)))
                               : static_cast<DWORD>(model::BitmapBytes(volume.length, volume.blockSize));
        if (needed != nullptr)
            *needed = bytes;
        if (length < bytes || bits == nullptr)
            return ERROR_MORE_DATA;
        auto* target = static_cast<std::uint8_t*>(bits);
        const std::uint8_t* sources[] = {maps.current, maps.frozen, maps.pending, maps.current, maps.allocated};
        std::memcpy(target, sources[which], bytes);
        if (which == VTFLTSIM_BITS_ALL) {
            model::OrBits(target, maps.frozen, bytes);
            model::OrBits(target, maps.pending, bytes);
        }
        return 0;
    });
}

DWORD Machine::ChangeVolume(std::uint32_t serial, const std::function<bool(model::VolumeRecord&)>& change)
{
    const Lock lock(*this);
    model::VolumeRecord* volume = FindRecord(serial);
    if (volume == nullptr)
        return ERROR_DEVICE_GONE;
    if (!change(*volume))
        return ERROR_INVALID_PARAMETER;
    ++record().tableVersion;
    return 0;
}

} // namespace vtfltsim
