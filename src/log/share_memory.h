// The ring of live log records that the processes of one executable name write and a viewer reads.
//
// The viewer makes the ring's event; without it no writer opens the ring. Whoever opens it first makes the mutex and
// the ring's memory (log/ring_block.h). An object belongs to one thread at a time; the ring itself is guarded by its mutex.
#pragma once

#include "log/log_message.h"
#include "log/ring_block.h"
#include "log/shared_objects.h"

#include <string_view>
#include <vector>

namespace vtflt {

// The name of an object of a ring: a prefix (log/object_names.h) and the writing executable's file name in upper case.
// For viewers, which make some of the objects themselves.
inline constexpr std::size_t LOG_EXECUTABLE_NAME_CAPACITY = 260; // characters of a file name, the end included
inline constexpr std::size_t LOG_RING_NAME_CAPACITY = 64 + LOG_EXECUTABLE_NAME_CAPACITY; // the same
void BuildRingName(wchar_t (&name)[LOG_RING_NAME_CAPACITY], std::wstring_view prefix,
                   std::wstring_view executableName) noexcept;

class CLogShareMemory {
public:
    // The writing executable's file name. The objects are named by all of it; records show 127 characters of it.
    explicit CLogShareMemory(std::wstring_view name) noexcept;
    CLogShareMemory(const CLogShareMemory&) = delete;
    CLogShareMemory& operator=(const CLogShareMemory&) = delete;
    virtual ~CLogShareMemory() = default;

    // Opens the viewer's event and makes or opens the ring. Waits for the ring's mutex without a limit. False, with
    // nothing left open, when there is no viewer, an object cannot be had, or the ring is smaller than a ring.
    virtual bool OpenAsWriter() noexcept;
    // Opens a ring that a writer made. False, with nothing left open, when there is none yet.
    virtual bool OpenAsReader() noexcept;
    virtual void Close() noexcept;

    // Writes one record of this thread, with the local time; nothing for an empty text. The text is cut to 1023
    // characters. False when it was not written.
    virtual bool WriteMessage(int level, DWORD errorCode, std::wstring_view moduleName,
                              std::wstring_view text) noexcept;

    // Adds the records since the last read, the oldest first, and marks them as read. A writer's first record in a new
    // ring has number 0, which counts as read. A reader that fell more than 1024 records behind gets the slots of the
    // first ones with what overwrote them; Overwritten says how many these were. What lies more than 4096 records back
    // is not delivered any more, whatever numbers the ring may hold. False when the ring is not open or its mutex was
    // not given in five seconds; records that memory was too short for stay unread.
    virtual bool ReadMessages(std::vector<LogMessagePtr>& messages) noexcept;

    // Puts one record into the ring and wakes the viewer. False when the mutex was not given in five seconds.
    virtual bool Append(const LogRecordBlock& record) noexcept;

    // How many records the last ReadMessages came too late for.
    std::uint64_t Overwritten() const noexcept { return m_overwritten; }

private:
    void BuildName(wchar_t (&name)[LOG_RING_NAME_CAPACITY], std::wstring_view prefix) const noexcept;
    bool OpenObjects() noexcept;
    UniqueView Map() const noexcept;

    wchar_t m_name[LOG_EXECUTABLE_NAME_CAPACITY];
    UniqueHandle m_mutex;
    UniqueHandle m_mapping;
    UniqueHandle m_event; // a writer's only
    std::uint64_t m_overwritten = 0;
};

} // namespace vtflt
