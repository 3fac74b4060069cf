// The viewer's side of the live log: its presence, and the rings that it watches.
//
// While the presence event exists, every process with the library formats every message and looks for its ring's event;
// so it is made last and closed first. A ring's memory lives while somebody holds it: the viewer makes it before any
// writer comes, so that it has the first record too, and the last ones of a process that has ended since.
#pragma once

#include "log/share_memory.h"
#include "win/owners.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vtlog {

// Tells the processes that a viewer is there, as long as it lives. Several may.
class ViewerPresence {
public:
    // Throws Failure.
    ViewerPresence();

private:
    vtflt::UniqueHandle m_event;
};

// One ring and what belongs to it, held open. An object belongs to one thread at a time.
class RingViewer {
public:
    // Of the executable's file name. Throws Failure: Busy when the ring's mutex is not given in five seconds,
    // Unreadable when an object cannot be had.
    explicit RingViewer(const std::wstring& executableName);

    [[nodiscard]] const std::wstring& Name() const noexcept { return m_name; }
    // Signalled by every record.
    [[nodiscard]] HANDLE Event() const noexcept { return m_event.get(); }

    // A ring has one read position for all readers, so each record would reach one of them: this makes the object the
    // one vtlog that reads. False when another is.
    [[nodiscard]] bool BecomeReader();

    // The records since the last read, the oldest first. missed counts those that were overwritten before; what
    // overwrote them is given once, in its own place.
    struct Batch {
        std::vector<vtflt::LogMessagePtr> messages;
        std::uint64_t missed = 0;
        bool done = false; // false: the mutex was not given in time; nothing was read
    };
    [[nodiscard]] Batch Read();

    // The newest record of a thread that the ring still holds, without marking anything as read.
    [[nodiscard]] std::optional<vtflt::LogRecordBlock> NewestOf(DWORD processId, DWORD threadId) const;

private:
    std::wstring m_name;
    vtflt::UniqueHandle m_mutex;
    vtflt::UniqueHandle m_mapping;
    vtflt::UniqueHandle m_event;
    vtflt::UniqueHandle m_readerMark; // exists: somebody reads
    vtflt::CLogShareMemory m_ring;    // as its reader
    bool m_first = true;              // nothing read yet: what was overwritten before is not missed
};

// A name as --exe takes it: a file name without its folder. Throws Failure.
std::wstring ExecutableNameOption(const std::string& text);

} // namespace vtlog
