#include "bitmap/record.h"

#include "bitmap/bits.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace vtflt {

namespace {

constexpr std::uint8_t SIGNATURE[] = {'S', 'T', 'C', 'A'};
constexpr std::uint8_t TRAILER[] = {'A', 'C', 'D', 'E'};

constexpr std::uint64_t RECORD_ALIGNMENT = 4096;
// Header, trailer and at least 4 bytes of padding, rounded up to the alignment.
constexpr std::uint64_t RECORD_OVERHEAD = BITMAP_OFFSET + RECORD_TRAILER_BYTES + 4 + RECORD_ALIGNMENT - 1;
static_assert(RECORD_OVERHEAD == 4187);

constexpr std::uint8_t ALL_CHANGED = 0xFF;

} // namespace

std::uint32_t RecordSizeFor(std::uint32_t bitmapLength) noexcept
{
    const std::uint64_t size = (bitmapLength + RECORD_OVERHEAD) & ~(RECORD_ALIGNMENT - 1);
    return size <= UINT32_MAX ? static_cast<std::uint32_t>(size) : 0;
}

std::uint32_t BitmapBytesForVolume(std::int64_t length, std::uint32_t blockSize) noexcept
{
    const std::uint64_t bytes = static_cast<std::uint64_t>(length);
    const std::uint64_t blocks = bytes / blockSize + (bytes % blockSize != 0 ? 1 : 0);
    const std::uint64_t counted = static_cast<std::uint32_t>(blocks);
    return static_cast<std::uint32_t>((counted + 7) / 8);
}

bool HasRecordSignature(const std::uint8_t* bytes, std::size_t count) noexcept
{
    return count >= sizeof(SIGNATURE) && std::memcmp(bytes, SIGNATURE, sizeof(SIGNATURE)) == 0;
}

std::unique_ptr<BitmapRecord> BitmapRecord::Make(std::uint32_t blockSize, std::uint32_t bitmapLength) noexcept
{
    const std::uint32_t size = RecordSizeFor(bitmapLength);
    if (size == 0)
        return nullptr;
    std::unique_ptr<BitmapRecord> record = Allocate(size);
    if (record == nullptr)
        return nullptr;

    BITMAP_FILE_RECORD& header = record->Header();
    std::memcpy(header.Signature, SIGNATURE, sizeof(SIGNATURE));
    header.BlockSize = blockSize;
    header.BitmapLength = bitmapLength;
    header.RecordSize = size;
    record->RestoreTrailer();
    return record;
}

std::unique_ptr<BitmapRecord> BitmapRecord::Allocate(std::uint32_t size) noexcept
{
    std::unique_ptr<BitmapRecord> record(new (std::nothrow) BitmapRecord);
    if (record == nullptr)
        return nullptr;
    const std::size_t room = std::max<std::size_t>(size, MINIMUM_RECORD_BYTES);
    record->m_bytes.reset(static_cast<std::uint8_t*>(std::calloc(room, 1)));
    if (record->m_bytes == nullptr)
        return nullptr;
    record->m_size = size;
    return record;
}

const BITMAP_FILE_RECORD& BitmapRecord::Header() const noexcept
{
    return *reinterpret_cast<const BITMAP_FILE_RECORD*>(m_bytes.get());
}

BITMAP_FILE_RECORD& BitmapRecord::Header() noexcept
{
    return *reinterpret_cast<BITMAP_FILE_RECORD*>(m_bytes.get());
}

std::uint32_t BitmapRecord::BlockSize() const noexcept
{
    return Header().BlockSize;
}

std::uint32_t BitmapRecord::BitmapLength() const noexcept
{
    return Header().BitmapLength;
}

std::uint32_t BitmapRecord::HeldBitmapBytes() const noexcept
{
    const std::uint32_t room =
        m_size > MINIMUM_RECORD_BYTES ? m_size - static_cast<std::uint32_t>(MINIMUM_RECORD_BYTES) : 0;
    return std::min(BitmapLength(), room);
}

bool BitmapRecord::IsValid() const noexcept
{
    return m_size >= sizeof(TRAILER) && HasRecordSignature(Bytes(), m_size) &&
           std::memcmp(Trailer(), TRAILER, sizeof(TRAILER)) == 0;
}

std::uint32_t BitmapRecord::TrailerOffset() const noexcept
{
    return m_size >= sizeof(TRAILER) ? m_size - static_cast<std::uint32_t>(sizeof(TRAILER)) : 0;
}

void BitmapRecord::WithholdTrailer() noexcept
{
    std::memset(m_bytes.get() + TrailerOffset(), 0, sizeof(TRAILER));
}

void BitmapRecord::RestoreTrailer() noexcept
{
    std::memcpy(m_bytes.get() + TrailerOffset(), TRAILER, sizeof(TRAILER));
}

void BitmapRecord::Or(const std::uint8_t* bits, std::size_t count) noexcept
{
    OrBits(Bitmap(), bits, std::min<std::size_t>(count, HeldBitmapBytes()));
}

void BitmapRecord::Clear() noexcept
{
    std::memset(Bitmap(), 0, HeldBitmapBytes());
}

std::uint32_t BitmapRecord::CopyBitmap(std::uint8_t* to, std::uint32_t capacity) const noexcept
{
    const std::uint32_t count = std::min(capacity, BitmapLength());
    const std::uint32_t held = std::min(count, HeldBitmapBytes());
    std::memcpy(to, Bitmap(), held);
    std::memset(to + held, ALL_CHANGED, count - held);
    return count;
}

std::unique_ptr<BitmapRecord> BitmapRecord::Resized(std::uint32_t newBitmapLength) const noexcept
{
    std::unique_ptr<BitmapRecord> record = Make(BlockSize(), newBitmapLength);
    if (record != nullptr)
        CopyBitmap(record->Bitmap(), newBitmapLength);
    return record;
}

} // namespace vtflt
