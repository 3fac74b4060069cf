// The wire protocol to the VTFlt driver: control codes and the bytes of every request and reply.
//
// All integers are little-endian. This file is the single definition; the one place that sends requests is
// driver/request.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vtflt {

// The driver's control device: answers the health probe and the device query.
inline constexpr wchar_t CONTROL_DEVICE[] = L"\\\\.\\VTFltMgr";
// The driver's service, and its name in the upper filter lists.
inline constexpr wchar_t DRIVER_NAME[] = L"VTFlt";

// Device type 0xB000, any access; function and transfer method as the names' numbers say.
constexpr std::uint32_t DriverControlCode(std::uint32_t function, std::uint32_t method)
{
    return (0xB000u << 16) | (function << 2) | method;
}

inline constexpr std::uint32_t DRIVER_METHOD_IN_DIRECT = 1;
inline constexpr std::uint32_t DRIVER_METHOD_OUT_DIRECT = 2;

inline constexpr std::uint32_t VTFLTCTL_GET_BITMAP = DriverControlCode(0, DRIVER_METHOD_OUT_DIRECT);
inline constexpr std::uint32_t VTFLTCTL_GET_BLOCK_SIZE = DriverControlCode(1, DRIVER_METHOD_OUT_DIRECT);
inline constexpr std::uint32_t VTFLTCTL_VOLUME_BLOCK_SIZE_CHANGE = DriverControlCode(2, DRIVER_METHOD_IN_DIRECT);
inline constexpr std::uint32_t VTFLTCTL_SYNC_SNAPSHOT_CHANGES_TO_VOLUME_BITMAP =
    DriverControlCode(3, DRIVER_METHOD_IN_DIRECT);
inline constexpr std::uint32_t VTFLTCTL_REPLICATION_SUCCESS = DriverControlCode(4, DRIVER_METHOD_IN_DIRECT);
inline constexpr std::uint32_t VTFLTCTL_PREPARE_FOR_SNAPSHOT = DriverControlCode(5, DRIVER_METHOD_IN_DIRECT);
inline constexpr std::uint32_t VTFLTCTL_STOP_VOLUME = DriverControlCode(7, DRIVER_METHOD_IN_DIRECT);
inline constexpr std::uint32_t VTFLTCTL_UPDATE_DEVICE_CONFIG = DriverControlCode(17, DRIVER_METHOD_OUT_DIRECT);
inline constexpr std::uint32_t VTFLTCTL_PREPARE_FOR_UNINSTALL = DriverControlCode(18, DRIVER_METHOD_OUT_DIRECT);

static_assert(VTFLTCTL_GET_BITMAP == 0xB0000002);
static_assert(VTFLTCTL_GET_BLOCK_SIZE == 0xB0000006);
static_assert(VTFLTCTL_VOLUME_BLOCK_SIZE_CHANGE == 0xB0000009);
static_assert(VTFLTCTL_SYNC_SNAPSHOT_CHANGES_TO_VOLUME_BITMAP == 0xB000000D);
static_assert(VTFLTCTL_REPLICATION_SUCCESS == 0xB0000011);
static_assert(VTFLTCTL_PREPARE_FOR_SNAPSHOT == 0xB0000015);
static_assert(VTFLTCTL_STOP_VOLUME == 0xB000001D);
static_assert(VTFLTCTL_UPDATE_DEVICE_CONFIG == 0xB0000046);
static_assert(VTFLTCTL_PREPARE_FOR_UNINSTALL == 0xB000004A);

// The get-bitmap reply starts with two signed 64-bit words; the bitmap bytes follow.
inline constexpr std::uint32_t BITMAP_HEADER_BYTES = 16;

// The buffer length to supply after the driver refused a buffer as too short, from the two header words that
// it filled in. The division truncates toward zero, the result is kept to 32 bits.
constexpr std::uint32_t RequiredBitmapLength(std::int64_t h0, std::int64_t h1)
{
    // The difference wraps instead of overflowing: the words come from outside.
    const std::uint64_t distance = static_cast<std::uint64_t>(h1) - static_cast<std::uint64_t>(h0);
    const std::int64_t bitmapBytes = static_cast<std::int64_t>(distance + 7) / 8;
    return static_cast<std::uint32_t>(BITMAP_HEADER_BYTES + 8 * static_cast<std::uint64_t>(bitmapBytes));
}

static_assert(RequiredBitmapLength(0, 0) == 16);
static_assert(RequiredBitmapLength(0, 1) == 24);
static_assert(RequiredBitmapLength(0, 9) == 32);

// The number of bitmap bits in a reply of so many bytes, in 32-bit arithmetic.
constexpr std::uint32_t BitmapBitsInReply(std::uint32_t bytesReturned)
{
    return bytesReturned * 8 - 128;
}

static_assert(BitmapBitsInReply(16) == 0);

// The header of a get-bitmap buffer as its two words. The buffer is a caller's: of any alignment, and perhaps too short
// for a header. Nothing outside its length is read or written.
struct BitmapHeader {
    std::int64_t H0;
    std::int64_t H1;
};
static_assert(sizeof(BitmapHeader) == BITMAP_HEADER_BYTES);
static_assert(offsetof(BitmapHeader, H1) == 8);

// A word that does not lie inside the buffer reads as 0.
inline BitmapHeader ReadBitmapHeader(const void* buffer, std::uint32_t length)
{
    BitmapHeader header = {};
    const auto* const bytes = static_cast<const std::uint8_t*>(buffer);
    if (length >= offsetof(BitmapHeader, H1))
        std::memcpy(&header.H0, bytes, sizeof(header.H0));
    if (length >= sizeof(BitmapHeader))
        std::memcpy(&header.H1, bytes + offsetof(BitmapHeader, H1), sizeof(header.H1));
    return header;
}

// Stores the number of bitmap bits into H1; left alone when H1 does not lie inside the buffer.
inline void StoreBitmapBits(void* buffer, std::uint32_t length, std::uint32_t bits)
{
    if (length < sizeof(BitmapHeader))
        return;
    const std::uint64_t word = bits;
    std::memcpy(static_cast<std::uint8_t*>(buffer) + offsetof(BitmapHeader, H1), &word, sizeof(word));
}

// Input of VTFLTCTL_UPDATE_DEVICE_CONFIG: this header, then the device name in UTF-16 without an end.
struct DeviceQueryHeader {
    std::uint32_t HeaderSize;  // 24
    std::uint32_t QueryKind;   // 8, fixed by the driver's protocol for this query
    std::uint32_t NameOffset;  // 24, from the start of the buffer
    std::uint32_t NameLength;  // bytes
    std::uint32_t Reserved[2]; // zero
};
static_assert(sizeof(DeviceQueryHeader) == 24);
static_assert(offsetof(DeviceQueryHeader, QueryKind) == 4);
static_assert(offsetof(DeviceQueryHeader, NameOffset) == 8);
static_assert(offsetof(DeviceQueryHeader, NameLength) == 12);
static_assert(offsetof(DeviceQueryHeader, Reserved) == 16);

inline constexpr std::uint32_t DEVICE_QUERY_KIND = 8;

// The longest name whose query still has a 32-bit length.
inline constexpr std::size_t MAX_DEVICE_NAME_BYTES = 0xFFFFFFFF - sizeof(DeviceQueryHeader);

// The bytes of a query for a name of so many bytes.
constexpr std::uint32_t DeviceQueryLength(std::uint32_t nameBytes)
{
    return static_cast<std::uint32_t>(sizeof(DeviceQueryHeader)) + nameBytes;
}

static_assert(DeviceQueryLength(6) == 30);

// Writes a query into a buffer of DeviceQueryLength(nameBytes) bytes.
inline void WriteDeviceQuery(void* query, const void* name, std::uint32_t nameBytes)
{
    DeviceQueryHeader header = {};
    header.HeaderSize = sizeof(DeviceQueryHeader);
    header.QueryKind = DEVICE_QUERY_KIND;
    header.NameOffset = sizeof(DeviceQueryHeader);
    header.NameLength = nameBytes;
    std::memcpy(query, &header, sizeof(header));
    if (nameBytes != 0)
        std::memcpy(static_cast<std::uint8_t*>(query) + sizeof(header), name, nameBytes);
}

// Output of VTFLTCTL_UPDATE_DEVICE_CONFIG. Both names are zero-terminated within their fields when the driver
// is well: bound every read by the field.
struct DeviceReply {
    std::uint32_t Size; // 616, set before the request
    char16_t VolumeName[48];
    char16_t DeviceName[256];
    std::uint32_t IsFiltered; // non-zero: the driver tracks the device
};
static_assert(sizeof(DeviceReply) == 616);
static_assert(offsetof(DeviceReply, VolumeName) == 4);
static_assert(offsetof(DeviceReply, DeviceName) == 100);
static_assert(offsetof(DeviceReply, IsFiltered) == 612);

} // namespace vtflt
