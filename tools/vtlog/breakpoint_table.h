// The log's breakpoints, as a viewer sets them and sees their hits.
//
// The block (log/breakpoint_block.h) is shared by every viewer and by all processes that log, under one mutex. Several
// vtlogs use it at once: each keeps to its own entries, known by their identifiers. One that dies leaves entries and
// stopped threads behind, which wait as long as any viewer is there; so an identifier that vtlog makes says so
// (IsVtlogs), an event of that name lives as long as its vtlog, and every other vtlog clears what has lost its event.
// Breakpoints of other viewers are left alone.
#pragma once

#include "log/breakpoint_block.h"
#include "log/shared_objects.h"
#include "win/owners.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vtlog {

// What stops a thread.
struct BreakpointRequest {
    std::wstring executableName;
    std::wstring text;   // stands somewhere in the message, in this case
    DWORD processId = 0; // 0: any
    DWORD threadId = 0;  // 0: any
};

// Whether one of the vtlogs made this identifier.
bool IsVtlogs(const vtflt::LogUuid& identifier) noexcept;

// The event at which the thread of a hit waits; empty while it does not exist.
vtflt::UniqueHandle OpenHitEvent(const vtflt::LogUuid& hit) noexcept;

// The objects, held open. An object belongs to one thread at a time. What needs the block waits for its mutex at most
// five seconds; where it is not given, Add throws Busy, and the others do nothing and say so.
class BreakpointTable {
public:
    // Makes them, or opens those of another viewer. Throws Failure.
    BreakpointTable();
    // Takes back what was added.
    ~BreakpointTable();
    BreakpointTable(BreakpointTable&&) noexcept = default;
    BreakpointTable& operator=(BreakpointTable&&) = delete;
    // Opens them if somebody has made them.
    static std::optional<BreakpointTable> Open();

    // Signalled when a thread has stopped; a signal may go to another viewer.
    [[nodiscard]] HANDLE Event() const noexcept { return m_event.get(); }

    // Throws Failure when all 100 entries are taken.
    vtflt::LogUuid Add(const BreakpointRequest& request);
    // Takes back everything that Add set. False: the mutex was not given.
    bool RemoveAll() noexcept;

    // The hits of this object's breakpoints, also of those taken back. Empty also when the mutex was not given.
    [[nodiscard]] std::vector<vtflt::LogBreakpointHit> Hits() const;
    // Empties a hit's place.
    void FreeHit(const vtflt::LogUuid& hit) const noexcept;

    // Removes the entries of vtlogs that died, and gives the hits that have no breakpoint any more.
    [[nodiscard]] std::vector<vtflt::LogBreakpointHit> ClearDead() const;

private:
    struct OpenOnly {};
    explicit BreakpointTable(OpenOnly) noexcept;
    vtflt::LogBreakpointBlock& Block() const noexcept;
    bool IsOwn(const vtflt::LogUuid& identifier) const noexcept;

    struct OwnBreakpoint {
        vtflt::LogUuid identifier;
        vtflt::UniqueHandle alive; // its event
    };
    vtflt::UniqueHandle m_event;
    vtflt::UniqueHandle m_mutex;
    vtflt::UniqueHandle m_mapping;
    vtflt::UniqueView m_view;
    std::vector<OwnBreakpoint> m_own;
};

// Lets go of threads that stopped for a vtlog that is no more. Called again and again by every vtlog that is a viewer.
class BreakpointCaretaker {
public:
    // Does nothing when there are no breakpoints.
    void Visit();
    void Visit(const BreakpointTable& table);

private:
    struct Orphan {
        vtflt::LogUuid hit;
        std::uint64_t firstSeen; // of GetTickCount64
    };
    std::vector<Orphan> m_orphans; // hits whose threads could not be let go yet
    std::uint64_t m_last = 0;      // visit
};

} // namespace vtlog
