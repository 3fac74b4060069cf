// The layout of the log's breakpoints in shared memory, and which record hits one.
//
// The block belongs to the live viewer: it writes the breakpoints, the logging processes store their hits. All access is
// under the breakpoints' mutex, and nothing in it is trusted to be in range or terminated.
#pragma once

#include "log/ring_block.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace vtflt {

inline constexpr std::size_t LOG_BREAKPOINT_COUNT = 100;
inline constexpr std::size_t LOG_BREAKPOINT_HIT_COUNT = 10000;
inline constexpr std::size_t LOG_BREAKPOINT_NAME_CAPACITY = 260; // characters, the end included

// A UUID as the system lays it out; all zero stands for none.
struct LogUuid {
    std::uint8_t bytes[16];

    friend bool operator==(const LogUuid& left, const LogUuid& right) noexcept
    {
        return std::memcmp(left.bytes, right.bytes, sizeof(left.bytes)) == 0;
    }
    bool IsNone() const noexcept { return *this == LogUuid{}; }
};

struct LogBreakpoint {
    LogUuid identifier; // none: the entry is free
    std::uint8_t reserved[16];
    std::uint32_t processId; // 0: any
    std::uint32_t threadId;  // 0: any
    std::uint32_t enabled;   // not 0: yes
    wchar_t executableName[LOG_BREAKPOINT_NAME_CAPACITY];
    wchar_t pattern[LOG_RECORD_TEXT_CAPACITY];
};

struct LogBreakpointHit {
    LogUuid breakpoint; // none: the entry is free
    LogUuid hit;        // names the event that lets the thread go
    std::uint32_t processId;
    std::uint32_t threadId;
};

struct LogBreakpointBlock {
    std::int32_t count; // 0 or less: there is none. Only this gate: the entries need not stand at the front
    LogBreakpoint breakpoints[LOG_BREAKPOINT_COUNT];
    LogBreakpointHit hits[LOG_BREAKPOINT_HIT_COUNT];
};

static_assert(sizeof(LogUuid) == 16);
static_assert(sizeof(LogBreakpoint) == 2612);
static_assert(offsetof(LogBreakpoint, identifier) == 0);
static_assert(offsetof(LogBreakpoint, reserved) == 16);
static_assert(offsetof(LogBreakpoint, processId) == 32);
static_assert(offsetof(LogBreakpoint, threadId) == 36);
static_assert(offsetof(LogBreakpoint, enabled) == 40);
static_assert(offsetof(LogBreakpoint, executableName) == 44);
static_assert(offsetof(LogBreakpoint, pattern) == 564);
static_assert(sizeof(LogBreakpointHit) == 40);
static_assert(offsetof(LogBreakpointHit, breakpoint) == 0);
static_assert(offsetof(LogBreakpointHit, hit) == 16);
static_assert(offsetof(LogBreakpointHit, processId) == 32);
static_assert(offsetof(LogBreakpointHit, threadId) == 36);
static_assert(sizeof(LogBreakpointBlock) == 0xA16D4);
static_assert(offsetof(LogBreakpointBlock, count) == 0);
static_assert(offsetof(LogBreakpointBlock, breakpoints) == 4);
static_assert(offsetof(LogBreakpointBlock, hits) == 261204);

// What is logged, as far as breakpoints look at it.
struct LogEvent {
    std::wstring_view executableName;
    std::wstring_view text;
    std::uint32_t processId;
    std::uint32_t threadId;
};

// The first breakpoint, in the order of the entries, that the event hits; null when there is none. Names are compared
// by sameName, without regard to case; the pattern must occur in the text as it stands (an empty one occurs in any).
const LogBreakpoint* FindHitBreakpoint(const LogBreakpointBlock& block, const LogEvent& event,
                                       bool (*sameName)(std::wstring_view, std::wstring_view) noexcept) noexcept;

// The first free place for a hit, or null when all are taken.
LogBreakpointHit* FindFreeHit(LogBreakpointBlock& block) noexcept;

// A UUID as text, in upper case and without braces: the fields' numbers, the first three of them little-endian.
inline constexpr std::size_t LOG_UUID_TEXT_CAPACITY = 37; // characters, the end included
void BuildUuidText(wchar_t (&text)[LOG_UUID_TEXT_CAPACITY], const LogUuid& uuid) noexcept;

} // namespace vtflt
