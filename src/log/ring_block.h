// The layout of a ring of live log records in shared memory.
//
// A ring belongs to one executable name. Its writers are the processes of that name; its reader is the live viewer.
// Record number s lies in slot s modulo 1024. All access is under the ring's mutex; the sequence numbers come from
// memory that other programs can write, so slots are always computed through RingSlot.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vtflt {

inline constexpr std::size_t LOG_RING_SLOTS = 1024;
inline constexpr std::size_t LOG_RECORD_NAME_CAPACITY = 128;  // characters, the end included
inline constexpr std::size_t LOG_RECORD_TEXT_CAPACITY = 1024; // the same

// A time as Windows' SYSTEMTIME lays it out: local time.
struct LogRecordTime {
    std::uint16_t year;
    std::uint16_t month;
    std::uint16_t dayOfWeek; // 0 is Sunday
    std::uint16_t day;
    std::uint16_t hour;
    std::uint16_t minute;
    std::uint16_t second;
    std::uint16_t milliseconds;
};

struct LogRecordBlock {
    wchar_t executableName[LOG_RECORD_NAME_CAPACITY];
    wchar_t moduleName[LOG_RECORD_NAME_CAPACITY];
    LogRecordTime time;
    std::uint32_t errorCode;
    std::int32_t level;
    std::uint32_t processId;
    std::uint32_t threadId;
    wchar_t text[LOG_RECORD_TEXT_CAPACITY]; // the last character is always zero
};

struct LogRingBlock {
    std::int64_t readSequence;  // the last record that a reader has taken; 0 in a new ring
    std::int64_t writeSequence; // the last record written; -1 in a new ring
    std::uint8_t reserved[496];
    LogRecordBlock slots[LOG_RING_SLOTS];
};

static_assert(sizeof(wchar_t) == 2);
static_assert(sizeof(LogRecordTime) == 16);
static_assert(sizeof(LogRecordBlock) == 2592);
static_assert(offsetof(LogRecordBlock, executableName) == 0);
static_assert(offsetof(LogRecordBlock, moduleName) == 256);
static_assert(offsetof(LogRecordBlock, time) == 512);
static_assert(offsetof(LogRecordBlock, errorCode) == 528);
static_assert(offsetof(LogRecordBlock, level) == 532);
static_assert(offsetof(LogRecordBlock, processId) == 536);
static_assert(offsetof(LogRecordBlock, threadId) == 540);
static_assert(offsetof(LogRecordBlock, text) == 544);
static_assert(sizeof(LogRingBlock) == 0x288200);
static_assert(offsetof(LogRingBlock, readSequence) == 0);
static_assert(offsetof(LogRingBlock, writeSequence) == 8);
static_assert(offsetof(LogRingBlock, reserved) == 16);
static_assert(offsetof(LogRingBlock, slots) == 512);

// The slot of a record, inside the ring for any sequence number.
inline std::size_t RingSlot(std::int64_t sequence) noexcept
{
    return static_cast<std::size_t>(static_cast<std::uint64_t>(sequence) % LOG_RING_SLOTS);
}

// The number behind another. The largest one is followed by the smallest: a number that somebody damaged must not be
// able to stop the log.
inline std::int64_t NextSequence(std::int64_t sequence) noexcept
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(sequence) + 1);
}

} // namespace vtflt
