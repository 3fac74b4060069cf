#include "model/driver.h"

#include "model/bits.h"

#include <algorithm>
#include <cstring>

namespace vtfltsim::model {

namespace {

constexpr std::uint32_t CONTROL_BLOCK_SIZE = 65536; // the probe's answer; nobody uses it
constexpr std::uint32_t SECTOR = 512;
constexpr std::uint64_t MAX_BITMAP_BYTES = 0x10000000; // a reply fits a 32-bit length with room to spare

Reply Fail(Status status)
{
    Reply reply;
    reply.status = status;
    reply.failed = true;
    return reply;
}

template <class T>
Reply AnswerNumber(const Request& request, T value)
{
    if (request.outputLength < sizeof(value))
        return Fail(INSUFFICIENT_BUFFER);
    if (request.output == nullptr)
        return Fail(NO_ACCESS);
    std::memcpy(request.output, &value, sizeof(value));
    Reply reply;
    reply.bytes = sizeof(value);
    return reply;
}

// Puts the chunks of [offset, offset + length) that were ever written together into ranges.
Reply AnswerAllocatedRanges(const Request& request, const std::uint8_t* allocated, std::uint64_t volumeLength)
{
    AllocatedRange wanted = {};
    if (request.input == nullptr || request.inputLength < sizeof(wanted))
        return Fail(INVALID_PARAMETER);
    std::memcpy(&wanted, request.input, sizeof(wanted));
    if (wanted.offset < 0 || wanted.length < 0)
        return Fail(INVALID_PARAMETER);
    const std::uint64_t start = std::min(static_cast<std::uint64_t>(wanted.offset), volumeLength);
    const std::uint64_t end = start + std::min(static_cast<std::uint64_t>(wanted.length), volumeLength - start);
    const std::uint64_t chunks = DivideUp(end, CHUNK);
    Reply reply;
    for (std::uint64_t chunk = start / CHUNK; start < end;) {
        const std::uint64_t first = FindBit(allocated, chunk, chunks, true);
        if (first >= chunks)
            break;
        chunk = FindBit(allocated, first, chunks, false);
        const std::uint64_t from = std::max(first * CHUNK, start);
        const std::uint64_t to = std::min(chunk * CHUNK, end);
        const AllocatedRange range = {static_cast<std::int64_t>(from), static_cast<std::int64_t>(to - from)};
        if (request.output == nullptr || request.outputLength - reply.bytes < sizeof(range)) {
            reply.status = MORE_DATA;
            break;
        }
        std::memcpy(request.output + reply.bytes, &range, sizeof(range));
        reply.bytes += static_cast<std::uint32_t>(sizeof(range));
    }
    return reply;
}

// Reply bytes of a bitmap request: the header, and the bits rounded up to whole 64-bit words.
std::uint64_t BitmapReplyBytes(std::uint32_t bitmapBytes)
{
    return BITMAP_HEADER_BYTES + DivideUp(bitmapBytes, 8) * 8;
}

// The words from which the caller computes the length to supply: 16 + 8 * ((H1 - H0 + 7) / 8).
Reply AnswerTooShort(const Request& request, std::uint32_t bitmapBytes)
{
    const std::int64_t words[2] = {0, bitmapBytes};
    Reply reply;
    reply.status = MORE_DATA;
    if (request.output == nullptr)
        return reply;
    reply.bytes = std::min<std::uint32_t>(request.outputLength / 8 * 8, sizeof(words));
    std::memcpy(request.output, words, reply.bytes);
    return reply;
}

Reply AnswerBits(const Request& request, const std::uint8_t* bits, std::uint32_t bitmapBytes)
{
    std::memset(request.output, 0, request.outputLength);
    std::memcpy(request.output + BITMAP_HEADER_BYTES, bits, bitmapBytes);
    Reply reply;
    reply.bytes = static_cast<std::uint32_t>(BitmapReplyBytes(bitmapBytes));
    return reply;
}

// Moves what a fetch hands out into pending. Pending takes the bits before their source is cleared, so that a
// process that ends in between loses nothing.
void MoveToPending(VolumeRecord& volume, const VolumeMaps& maps, std::uint32_t bitmapBytes)
{
    OrBits(maps.pending, maps.frozen, bitmapBytes);
    std::memset(maps.frozen, 0, bitmapBytes);
    if (volume.epoch != Epoch::Open) {
        volume.epoch = Epoch::Fetched;
        return;
    }
    OrBits(maps.pending, maps.current, bitmapBytes);
    std::memset(maps.current, 0, bitmapBytes);
}

Reply AnswerGetBitmap(VolumeRecord& volume, const VolumeMaps& maps, const Request& request)
{
    const std::uint32_t bytes = BitmapBytes(volume.length, volume.blockSize);
    if (request.outputLength < BitmapReplyBytes(bytes))
        return AnswerTooShort(request, bytes);
    if (request.output == nullptr)
        return Fail(NO_ACCESS);
    MoveToPending(volume, maps, bytes);
    return AnswerBits(request, maps.pending, bytes);
}

Reply AnswerBlockSizeChange(const Request& request, VolumeReply& reply)
{
    std::uint32_t size = 0;
    if (request.input == nullptr || request.inputLength != sizeof(size))
        return Fail(INVALID_PARAMETER);
    std::memcpy(&size, request.input, sizeof(size));
    if (!IsValidBlockSize(size))
        return Fail(INVALID_PARAMETER);
    reply.effect = Effect::ChangeBlockSize;
    reply.newBlockSize = size;
    return {};
}

Reply AnswerSyncChanges(const VolumeRecord& volume, const VolumeMaps& maps, const Request& request)
{
    if (request.input == nullptr || request.inputLength < BITMAP_HEADER_BYTES)
        return Fail(INVALID_PARAMETER);
    const std::uint32_t bytes =
        std::min(BitmapBytes(volume.length, volume.blockSize), request.inputLength - BITMAP_HEADER_BYTES);
    OrBits(maps.current, request.input + BITMAP_HEADER_BYTES, bytes);
    return {};
}

// Requests that need the volume to be tracked.
Reply AnswerTracked(VolumeRecord& volume, const VolumeMaps& maps, const Request& request)
{
    switch (request.code) {
    case GET_BITMAP:
        return AnswerGetBitmap(volume, maps, request);
    case PREPARE_FOR_SNAPSHOT:
        volume.prepared = 1;
        return {};
    case REPLICATION_SUCCESS:
        std::memset(maps.pending, 0, BitmapBytes(volume.length, volume.blockSize));
        // A snapshot that was taken since the fetch keeps its epoch closed: its own fetch is still to come.
        if (volume.epoch == Epoch::Fetched)
            volume.epoch = Epoch::Open;
        return {};
    case SYNC_SNAPSHOT_CHANGES:
        return AnswerSyncChanges(volume, maps, request);
    default:
        return Fail(INVALID_FUNCTION);
    }
}

Reply AnswerDriverCode(VolumeRecord& volume, const VolumeMaps& maps, const Request& request, VolumeReply& result)
{
    switch (request.code) {
    case GET_BLOCK_SIZE:
        return AnswerNumber(request, volume.blockSize);
    case VOLUME_BLOCK_SIZE_CHANGE:
        return AnswerBlockSizeChange(request, result);
    case STOP_VOLUME:
        // Stopped first: should the process end in between, the volume is not taken for one without changes.
        volume.stopped = 1;
        ForgetBits(volume, maps);
        return {};
    case PREPARE_FOR_UNINSTALL:
        // The volume is on its own until a driver comes back, which then has to list it.
        volume.unseen = 1;
        volume.stopped = 1;
        ForgetBits(volume, maps);
        return {};
    default:
        return volume.stopped != 0 ? Fail(NOT_READY) : AnswerTracked(volume, maps, request);
    }
}

bool CopyName(char16_t* target, std::size_t units, std::u16string_view name)
{
    if (name.size() >= units)
        return false;
    std::copy(name.begin(), name.end(), target);
    return true;
}

} // namespace

std::uint64_t BlockCount(std::uint64_t length, std::uint32_t blockSize)
{
    return DivideUp(length, blockSize);
}

std::uint32_t BitmapBytes(std::uint64_t length, std::uint32_t blockSize)
{
    return static_cast<std::uint32_t>(BytesForBits(BlockCount(length, blockSize)));
}

std::uint64_t ChunkCount(std::uint64_t length)
{
    return DivideUp(length, CHUNK);
}

bool IsValidBlockSize(std::uint32_t blockSize)
{
    return blockSize != 0 && blockSize % SECTOR == 0;
}

bool IsValidGeometry(std::uint64_t length, std::uint32_t blockSize)
{
    return length != 0 && IsValidBlockSize(blockSize) &&
           BytesForBits(BlockCount(length, blockSize)) <= MAX_BITMAP_BYTES &&
           BytesForBits(ChunkCount(length)) <= MAX_BITMAP_BYTES;
}

bool IsTracked(const MachineRecord& machine, const VolumeRecord& volume)
{
    return machine.driver != DriverState::Absent && volume.stopped == 0;
}

void NoteWrite(const MachineRecord& machine, VolumeRecord& volume, const VolumeMaps& maps, std::uint64_t offset,
               std::uint64_t length)
{
    SetBits(maps.allocated, offset / CHUNK, (offset + length - 1) / CHUNK);
    if (volume.forget != 0) {
        volume.forget -= volume.forget == FORGET_ALL ? 0 : 1;
        return;
    }
    if (IsTracked(machine, volume))
        SetBits(maps.current, offset / volume.blockSize, (offset + length - 1) / volume.blockSize);
    else
        volume.unseen = 1;
}

void NoteSnapshot(VolumeRecord& volume, const VolumeMaps& maps)
{
    if (volume.prepared == 0)
        return;
    const std::uint32_t bytes = BitmapBytes(volume.length, volume.blockSize);
    OrBits(maps.frozen, maps.current, bytes);
    std::memset(maps.current, 0, bytes);
    volume.epoch = Epoch::Closed;
    volume.prepared = 0;
}

void ForgetBits(const VolumeRecord& volume, const VolumeMaps& maps)
{
    const std::uint32_t bytes = BitmapBytes(volume.length, volume.blockSize);
    std::memset(maps.current, 0, bytes);
    std::memset(maps.frozen, 0, bytes);
    std::memset(maps.pending, 0, bytes);
}

VolumeReply AnswerVolume(const MachineRecord& machine, VolumeRecord& volume, const VolumeMaps& maps,
                         const Request& request)
{
    VolumeReply result;
    Reply& reply = result;
    if (IsDriverCode(request.code)) {
        reply = machine.driver == DriverState::Absent ? Fail(INVALID_FUNCTION)
                                                      : AnswerDriverCode(volume, maps, request, result);
        return result;
    }
    switch (request.code) {
    case DISK_GET_LENGTH_INFO:
        reply = AnswerNumber(request, volume.length);
        break;
    case QUERY_ALLOCATED_RANGES:
        reply = AnswerAllocatedRanges(request, maps.allocated, volume.length);
        break;
    case LOCK_VOLUME:
    case UNLOCK_VOLUME:
    case DISMOUNT_VOLUME:
        break;
    default:
        reply = Fail(INVALID_FUNCTION);
    }
    return result;
}

Reply AnswerSnapshot(const MachineRecord& machine, const SnapshotRecord& snapshot, const SnapshotMaps& maps,
                     const Request& request)
{
    if (request.code == DISK_GET_LENGTH_INFO)
        return AnswerNumber(request, snapshot.length);
    if (request.code == QUERY_ALLOCATED_RANGES)
        return AnswerAllocatedRanges(request, maps.allocated, snapshot.length);
    if (machine.driver == DriverState::Absent || snapshot.tracked == 0)
        return Fail(INVALID_FUNCTION);
    if (request.code == GET_BLOCK_SIZE)
        return AnswerNumber(request, snapshot.blockSize);
    if (request.code != GET_BITMAP)
        return Fail(INVALID_FUNCTION);
    const std::uint32_t bytes = BitmapBytes(snapshot.length, snapshot.blockSize);
    if (request.outputLength < BitmapReplyBytes(bytes))
        return AnswerTooShort(request, bytes);
    if (request.output == nullptr)
        return Fail(NO_ACCESS);
    return AnswerBits(request, maps.written, bytes);
}

Reply AnswerProbe(const MachineRecord& machine, const Request& request)
{
    // The device behind a handle from before is no longer there; 1 would be the older generation's answer.
    if (machine.driver == DriverState::Absent)
        return Fail(DEV_NOT_EXIST);
    if (request.code != GET_BLOCK_SIZE || machine.driver != DriverState::Working)
        return Fail(INVALID_FUNCTION);
    return AnswerNumber(request, CONTROL_BLOCK_SIZE);
}

Status ParseDeviceQuery(const Request& request, const std::uint8_t** name, std::uint32_t* nameBytes)
{
    DeviceQuery query = {};
    if (request.input == nullptr || request.inputLength < sizeof(query))
        return INVALID_PARAMETER;
    std::memcpy(&query, request.input, sizeof(query));
    const bool wellFormed = query.headerSize == sizeof(query) && query.kind == 8 && query.nameOffset == sizeof(query) &&
                            query.nameBytes % 2 == 0 && query.reserved == 0 &&
                            query.nameBytes == request.inputLength - sizeof(query);
    if (!wellFormed)
        return INVALID_PARAMETER;
    DeviceReply reply = {};
    if (request.output == nullptr || request.outputLength < sizeof(reply))
        return INVALID_PARAMETER;
    std::memcpy(&reply.size, request.output, sizeof(reply.size));
    if (reply.size != sizeof(reply))
        return INVALID_PARAMETER;
    *name = request.input + sizeof(query);
    *nameBytes = query.nameBytes;
    return OK;
}

Reply BuildDeviceReply(const Request& request, std::u16string_view volumeName, std::u16string_view deviceName,
                       bool isFiltered)
{
    DeviceReply answer = {};
    answer.size = sizeof(answer);
    answer.isFiltered = isFiltered ? 1 : 0;
    if (!CopyName(answer.volumeName, 48, volumeName) || !CopyName(answer.deviceName, 256, deviceName))
        return Fail(INVALID_PARAMETER);
    std::memcpy(request.output, &answer, sizeof(answer));
    Reply reply;
    reply.bytes = sizeof(answer);
    return reply;
}

Reply ForgedReply(const FaultRecord& fault, const Request& request)
{
    if (fault.forged == 0)
        return Fail(fault.error);
    Reply reply;
    reply.bytes = std::min(fault.replyLength, request.outputLength);
    if (reply.bytes != 0 && request.output != nullptr)
        std::memcpy(request.output, fault.reply, reply.bytes);
    return reply;
}

} // namespace vtfltsim::model
