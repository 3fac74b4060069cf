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

// Makes a new ring of zeroed memory: nothing is written yet.
inline void StartLogRing(LogRingBlock& ring) noexcept
{
    ring.writeSequence = -1;
}

// Writes the next record.
inline void AppendRecord(LogRingBlock& ring, const LogRecordBlock& record) noexcept
{
    const std::int64_t sequence = NextSequence(ring.writeSequence);
    ring.writeSequence = sequence;
    ring.slots[RingSlot(sequence)] = record;
}

// What a reader is to take now: count records, those behind the number read.
struct LogRingBacklog {
    std::int64_t read;
    std::uint64_t count;
    std::uint64_t overwritten; // how many of the records since the last read are gone from the ring
};

// How far behind a reader may be and still get a record for each number. Beyond, the numbers are beyond belief: only the
// newest records are taken, so that no numbers make a reader use up its time and memory.
inline constexpr std::uint64_t LOG_RING_READ_LIMIT = 4 * LOG_RING_SLOTS;

// From the sequence numbers of a ring, whatever they are. There is nothing to take when the write sequence is -1 or not
// above the read sequence.
inline LogRingBacklog ReadBacklog(std::int64_t readSequence, std::int64_t writeSequence) noexcept
{
    if (writeSequence == -1 || writeSequence <= readSequence)
        return {writeSequence, 0, 0};
    const std::uint64_t unread = static_cast<std::uint64_t>(writeSequence) - static_cast<std::uint64_t>(readSequence);
    const std::uint64_t count = unread < LOG_RING_READ_LIMIT ? unread : LOG_RING_READ_LIMIT;
    return {static_cast<std::int64_t>(static_cast<std::uint64_t>(writeSequence) - count), count,
            unread > LOG_RING_SLOTS ? unread - LOG_RING_SLOTS : 0};
}

} // namespace vtflt
