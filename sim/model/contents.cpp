#include "model/contents.h"

#include "model/bits.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace vtfltsim::model {

namespace {

bool Inside(std::uint64_t offset, std::uint64_t length, std::uint64_t end)
{
    return offset <= end && length <= end - offset;
}

// Walks a range in pieces that lie in chunks of one kind; read(kind, offset, data, length) moves each piece.
template <class Kind, class Read>
Status ReadByKind(std::uint64_t offset, std::uint8_t* data, std::uint32_t length, Kind kindOf, Read read)
{
    while (length != 0) {
        const auto kind = kindOf(offset / CHUNK);
        std::uint32_t piece = 0;
        for (std::uint64_t at = offset; piece < length && kindOf(at / CHUNK) == kind; at = offset + piece)
            piece += std::min<std::uint32_t>(length - piece, static_cast<std::uint32_t>(CHUNK - at % CHUNK));
        const Status status = read(kind, offset, data, piece);
        if (status != OK)
            return status;
        offset += piece;
        data += piece;
        length -= piece;
    }
    return OK;
}

std::uint32_t ChunkLength(std::uint64_t chunk, std::uint64_t length)
{
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(CHUNK, length - chunk * CHUNK));
}

Status KeepChunk(const VolumeContents& volume, const SnapshotContents& snapshot, std::uint64_t chunk)
{
    if (TestBit(snapshot.maps.present, chunk) || !TestBit(snapshot.maps.allocated, chunk))
        return OK;
    std::vector<std::uint8_t> old(ChunkLength(chunk, snapshot.record->length));
    const auto size = static_cast<std::uint32_t>(old.size());
    // The volume may have become shorter or longer than the snapshot inside this chunk.
    const std::uint64_t start = chunk * CHUNK;
    const std::uint64_t available = volume.record->length > start ? volume.record->length - start : 0;
    Status status =
        ReadVolume(volume, start, old.data(), static_cast<std::uint32_t>(std::min<std::uint64_t>(size, available)));
    if (status != OK)
        return status;
    status = snapshot.store->WriteAt(start, old.data(), size);
    if (status == OK)
        SetBits(snapshot.maps.present, chunk, chunk);
    return status;
}

} // namespace

Status ReadVolume(const VolumeContents& volume, std::uint64_t offset, std::uint8_t* data, std::uint32_t length)
{
    if (!Inside(offset, length, volume.record->length))
        return SECTOR_NOT_FOUND;
    return ReadByKind(
        offset, data, length, [&](std::uint64_t chunk) { return TestBit(volume.maps.allocated, chunk); },
        [&](bool allocated, std::uint64_t at, std::uint8_t* target, std::uint32_t bytes) -> Status {
            if (allocated)
                return volume.store->ReadAt(at, target, bytes);
            std::memset(target, 0, bytes);
            return OK;
        });
}

Status KeepForSnapshots(const VolumeContents& volume, std::span<const SnapshotContents> snapshots, std::uint64_t offset,
                        std::uint64_t length)
{
    if (length == 0)
        return OK;
    for (const auto& snapshot : snapshots) {
        const std::uint64_t chunks = ChunkCount(snapshot.record->length);
        const std::uint64_t end = std::min(chunks, (offset + length - 1) / CHUNK + 1);
        std::uint64_t chunk = FindBit(snapshot.maps.allocated, std::min(offset / CHUNK, end), end, true);
        for (; chunk < end; chunk = FindBit(snapshot.maps.allocated, chunk + 1, end, true)) {
            const Status status = KeepChunk(volume, snapshot, chunk);
            if (status != OK)
                return status;
        }
    }
    return OK;
}

Status WriteVolume(const MachineRecord& machine, const VolumeContents& volume,
                   std::span<const SnapshotContents> snapshots, std::uint64_t offset, const std::uint8_t* data,
                   std::uint32_t length)
{
    if (!Inside(offset, length, volume.record->length))
        return SECTOR_NOT_FOUND;
    if (length == 0)
        return OK;
    const Status status = KeepForSnapshots(volume, snapshots, offset, length);
    if (status != OK)
        return status;
    NoteWrite(machine, *volume.record, volume.maps, offset, length);
    return volume.store->WriteAt(offset, data, length);
}

Status ReadSnapshot(const VolumeContents& volume, const SnapshotContents& snapshot, std::uint64_t offset,
                    std::uint8_t* data, std::uint32_t length)
{
    enum class Source { Kept, Zero, Volume };
    if (!Inside(offset, length, snapshot.record->length))
        return SECTOR_NOT_FOUND;
    return ReadByKind(
        offset, data, length,
        [&](std::uint64_t chunk) {
            if (TestBit(snapshot.maps.present, chunk))
                return Source::Kept;
            return TestBit(snapshot.maps.allocated, chunk) ? Source::Volume : Source::Zero;
        },
        [&](Source source, std::uint64_t at, std::uint8_t* target, std::uint32_t bytes) -> Status {
            if (source == Source::Kept)
                return snapshot.store->ReadAt(at, target, bytes);
            if (source == Source::Volume)
                return ReadVolume(volume, at, target, bytes);
            std::memset(target, 0, bytes);
            return OK;
        });
}

Status WriteSnapshot(const VolumeContents& volume, const SnapshotContents& snapshot, std::uint64_t offset,
                     const std::uint8_t* data, std::uint32_t length)
{
    if (!Inside(offset, length, snapshot.record->length))
        return SECTOR_NOT_FOUND;
    if (length == 0)
        return OK;
    const std::uint64_t first = offset / CHUNK;
    const std::uint64_t last = (offset + length - 1) / CHUNK;
    for (std::uint64_t chunk = first; chunk <= last; ++chunk) {
        const Status status = KeepChunk(volume, snapshot, chunk);
        if (status != OK)
            return status;
    }
    const std::uint32_t blockSize = snapshot.record->blockSize;
    if (snapshot.record->tracked != 0)
        SetBits(snapshot.maps.written, offset / blockSize, (offset + length - 1) / blockSize);
    const Status status = snapshot.store->WriteAt(offset, data, length);
    if (status != OK)
        return status;
    SetBits(snapshot.maps.present, first, last);
    SetBits(snapshot.maps.allocated, first, last);
    return OK;
}

} // namespace vtfltsim::model
