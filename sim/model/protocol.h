// The wire between the library and the driver: control codes, layouts and the error codes used in replies.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vtfltsim::model {

using Status = std::uint32_t; // a system error code; 0 is success

inline constexpr Status OK = 0;
inline constexpr Status INVALID_FUNCTION = 1;
inline constexpr Status FILE_NOT_FOUND = 2;
inline constexpr Status NOT_READY = 21;
inline constexpr Status SECTOR_NOT_FOUND = 27;
inline constexpr Status HANDLE_EOF = 38;
inline constexpr Status DEV_NOT_EXIST = 55;
inline constexpr Status INVALID_PARAMETER = 87;
inline constexpr Status INSUFFICIENT_BUFFER = 122;
inline constexpr Status MORE_DATA = 234;
inline constexpr Status NO_ACCESS = 998;

inline constexpr std::uint32_t GET_BITMAP = 0xB0000002;
inline constexpr std::uint32_t GET_BLOCK_SIZE = 0xB0000006;
inline constexpr std::uint32_t VOLUME_BLOCK_SIZE_CHANGE = 0xB0000009;
inline constexpr std::uint32_t SYNC_SNAPSHOT_CHANGES = 0xB000000D;
inline constexpr std::uint32_t REPLICATION_SUCCESS = 0xB0000011;
inline constexpr std::uint32_t PREPARE_FOR_SNAPSHOT = 0xB0000015;
inline constexpr std::uint32_t STOP_VOLUME = 0xB000001D;
inline constexpr std::uint32_t UPDATE_DEVICE_CONFIG = 0xB0000046;
inline constexpr std::uint32_t PREPARE_FOR_UNINSTALL = 0xB000004A;
inline constexpr std::uint32_t DRIVER_DEVICE_TYPE = 0xB000; // the upper half of every driver code
inline constexpr std::uint32_t DISK_GET_LENGTH_INFO = 0x7405C;
inline constexpr std::uint32_t QUERY_ALLOCATED_RANGES = 0x940CF;
inline constexpr std::uint32_t LOCK_VOLUME = 0x90018;
inline constexpr std::uint32_t UNLOCK_VOLUME = 0x9001C;
inline constexpr std::uint32_t DISMOUNT_VOLUME = 0x90020;

inline constexpr bool IsDriverCode(std::uint32_t code)
{
    return code >> 16 == DRIVER_DEVICE_TYPE;
}

inline constexpr std::uint32_t BITMAP_HEADER_BYTES = 16;

// Followed by the device name, nameBytes long, without a NUL.
struct DeviceQuery {
    std::uint32_t headerSize; // 24
    std::uint32_t kind;       // 8
    std::uint32_t nameOffset; // 24
    std::uint32_t nameBytes;
    std::uint64_t reserved;
};
static_assert(sizeof(DeviceQuery) == 24 && offsetof(DeviceQuery, reserved) == 16);

struct DeviceReply {
    std::uint32_t size; // 616, set by the caller
    char16_t volumeName[48];
    char16_t deviceName[256];
    std::uint32_t isFiltered;
};
static_assert(sizeof(DeviceReply) == 616 && offsetof(DeviceReply, deviceName) == 100 &&
              offsetof(DeviceReply, isFiltered) == 612);

struct AllocatedRange {
    std::int64_t offset;
    std::int64_t length;
};
static_assert(sizeof(AllocatedRange) == 16);

// One request as it arrives, and what goes back.
struct Request {
    std::uint32_t code = 0;
    const std::uint8_t* input = nullptr;
    std::uint32_t inputLength = 0;
    std::uint8_t* output = nullptr;
    std::uint32_t outputLength = 0;
};

struct Reply {
    Status status = OK;
    std::uint32_t bytes = 0;
    bool failed = false; // with a status of 0: a failure that does not say why
};

} // namespace vtfltsim::model
