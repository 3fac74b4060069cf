// A bitmap record: one change bitmap with its header and trailer, in memory exactly as it stands in its file.
//
//     offset 0    "STCA"
//            4    reserved, zero
//            8    BlockSize      bytes of volume per bit
//           12    BitmapLength   bitmap bytes in use, from offset 84
//           16    RecordSize     bytes of the record and of its file
//           20    reserved, zero
//           84    Bitmap         block k: byte k / 8, mask 0x80 >> (k mod 8); a set bit is a changed block
//            .    zero padding, at least 4 bytes
//     RecordSize - 4  "ACDE"
//
// All integers are little-endian. Nothing here needs the system.
//
// A header that was read from a file is not trusted with memory: a record owns its allocation, and every copy, OR
// and clear is cut at it. Bitmap bytes that the header claims but the record does not hold count as changed, so
// that a damaged header can cost a longer backup but no change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace vtflt {

struct BITMAP_FILE_RECORD {
    std::uint8_t Signature[4];
    std::uint32_t Reserved1;
    std::uint32_t BlockSize;
    std::uint32_t BitmapLength;
    std::uint32_t RecordSize;
    std::uint8_t Reserved2[64];
};
static_assert(sizeof(BITMAP_FILE_RECORD) == 84);
static_assert(offsetof(BITMAP_FILE_RECORD, BlockSize) == 8);
static_assert(offsetof(BITMAP_FILE_RECORD, BitmapLength) == 12);
static_assert(offsetof(BITMAP_FILE_RECORD, RecordSize) == 16);
static_assert(offsetof(BITMAP_FILE_RECORD, Reserved2) == 20);

inline constexpr std::size_t BITMAP_OFFSET = sizeof(BITMAP_FILE_RECORD);
inline constexpr std::size_t RECORD_TRAILER_BYTES = 4;
// What a file must hold at least to be looked at: a header and a trailer.
inline constexpr std::size_t MINIMUM_RECORD_BYTES = BITMAP_OFFSET + RECORD_TRAILER_BYTES;
// A fresh record carries room for the header of the get-bitmap buffer, which is merged like bitmap bytes.
inline constexpr std::uint32_t FRESH_BITMAP_EXTRA_BYTES = 16;

// The size of a record with so many bitmap bytes: the smallest multiple of 4096 that is at least
// bitmapLength + 92. 0 when that does not fit 32 bits.
std::uint32_t RecordSizeFor(std::uint32_t bitmapLength) noexcept;

// The bitmap bytes that a volume needs, a last partial block counted; the number of blocks is taken as 32 bits.
// length must not be negative, blockSize not 0.
std::uint32_t BitmapBytesForVolume(std::int64_t length, std::uint32_t blockSize) noexcept;

// Whether these bytes begin with the signature.
bool HasRecordSignature(const std::uint8_t* bytes, std::size_t count) noexcept;

class BitmapRecord {
public:
    // A new all-clear record with header and trailer; null when memory is short or the size does not fit.
    static std::unique_ptr<BitmapRecord> Make(std::uint32_t blockSize, std::uint32_t bitmapLength) noexcept;
    // A zero-filled record of so many bytes, to read a file into; null when memory is short.
    static std::unique_ptr<BitmapRecord> Allocate(std::uint32_t size) noexcept;

    // The bytes of the file image, Size() of them.
    [[nodiscard]] std::uint8_t* Bytes() noexcept { return m_bytes.get(); }
    [[nodiscard]] const std::uint8_t* Bytes() const noexcept { return m_bytes.get(); }
    [[nodiscard]] std::uint32_t Size() const noexcept { return m_size; }

    // Header fields as they stand; 0 for what lies behind a record's end.
    [[nodiscard]] std::uint32_t BlockSize() const noexcept;
    [[nodiscard]] std::uint32_t BitmapLength() const noexcept;

    // The bitmap bytes, HeldBitmapBytes() of them.
    [[nodiscard]] std::uint8_t* Bitmap() noexcept { return m_bytes.get() + BITMAP_OFFSET; }
    [[nodiscard]] const std::uint8_t* Bitmap() const noexcept { return m_bytes.get() + BITMAP_OFFSET; }
    // BitmapLength, cut at what the record holds before its trailer.
    [[nodiscard]] std::uint32_t HeldBitmapBytes() const noexcept;
    // Whether the record holds all the bitmap bytes that its header claims.
    [[nodiscard]] bool HoldsItsBitmap() const noexcept { return HeldBitmapBytes() == BitmapLength(); }

    // Whether signature and trailer are there.
    [[nodiscard]] bool IsValid() const noexcept;

    // Zeroes the trailer, so that the image counts as no record, and puts it back. For writing in two steps.
    void WithholdTrailer() noexcept;
    void RestoreTrailer() noexcept;
    [[nodiscard]] const std::uint8_t* Trailer() const noexcept { return m_bytes.get() + TrailerOffset(); }
    [[nodiscard]] std::uint32_t TrailerOffset() const noexcept;

    // ORs count bytes into the bitmap, byte i into byte i; what lies beyond the bitmap is dropped.
    void Or(const std::uint8_t* bits, std::size_t count) noexcept;
    // Clears the bitmap; the header stays.
    void Clear() noexcept;
    // Copies the bitmap's first bytes, at most capacity, and returns their number.
    std::uint32_t CopyBitmap(std::uint8_t* to, std::uint32_t capacity) const noexcept;
    // The same bitmap in a record with another length: a new tail is clear, an old tail is lost. Null when memory is
    // short.
    [[nodiscard]] std::unique_ptr<BitmapRecord> Resized(std::uint32_t newBitmapLength) const noexcept;

private:
    struct Free {
        void operator()(std::uint8_t* bytes) const noexcept { std::free(bytes); }
    };

    BitmapRecord() noexcept = default;
    [[nodiscard]] const BITMAP_FILE_RECORD& Header() const noexcept;
    [[nodiscard]] BITMAP_FILE_RECORD& Header() noexcept;

    // Always room for a header and a trailer, so that the fields of a shorter record can be read: as zero.
    std::unique_ptr<std::uint8_t[], Free> m_bytes;
    std::uint32_t m_size = 0;
};

} // namespace vtflt
