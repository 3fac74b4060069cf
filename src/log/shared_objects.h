// The pieces from which the log's shared-memory objects are made: a security descriptor that lets everyone in, a bounded
// hold on a named mutex, a mapping with its fallback name, and a view that is known to be as large as it must be.
#pragma once

#include "win/owners.h"

#include <cstddef>

namespace vtflt {

// How long a log waits for a mutex of a ring, a configuration block or a log file before it gives the record up.
inline constexpr DWORD LOG_MUTEX_WAIT_MILLISECONDS = 5000;

// Security attributes whose access list is null: programs of every account share what is made with them. Points into
// itself.
class OpenToEveryone {
public:
    OpenToEveryone() noexcept;
    OpenToEveryone(const OpenToEveryone&) = delete;
    OpenToEveryone& operator=(const OpenToEveryone&) = delete;

    [[nodiscard]] SECURITY_ATTRIBUTES* get() noexcept { return &m_attributes; }

private:
    SECURITY_DESCRIPTOR m_descriptor = {};
    SECURITY_ATTRIBUTES m_attributes = {};
};

// Waits for a mutex and holds it to the end of the object. A mutex that its owner left behind is owned: what it guards
// is checked wherever it is read.
class MutexHold {
public:
    explicit MutexHold(HANDLE mutex, DWORD milliseconds = LOG_MUTEX_WAIT_MILLISECONDS) noexcept;
    MutexHold(const MutexHold&) = delete;
    MutexHold& operator=(const MutexHold&) = delete;
    ~MutexHold() { Release(); }

    // False: the wait ended without the mutex, and what it guards must not be touched.
    explicit operator bool() const noexcept { return m_owned != nullptr; }
    // Gives the mutex back early.
    void Release() noexcept;

private:
    HANDLE m_owned = nullptr;
};

struct CriticalSectionHold {
    explicit CriticalSectionHold(CRITICAL_SECTION& section) noexcept : m_section(section)
    {
        EnterCriticalSection(&m_section);
    }
    CriticalSectionHold(const CriticalSectionHold&) = delete;
    CriticalSectionHold& operator=(const CriticalSectionHold&) = delete;
    ~CriticalSectionHold() { LeaveCriticalSection(&m_section); }

private:
    CRITICAL_SECTION& m_section;
};

struct ExclusiveHold {
    explicit ExclusiveHold(SRWLOCK& lock) noexcept : m_lock(lock) { AcquireSRWLockExclusive(&m_lock); }
    ExclusiveHold(const ExclusiveHold&) = delete;
    ExclusiveHold& operator=(const ExclusiveHold&) = delete;
    ~ExclusiveHold() { ReleaseSRWLockExclusive(&m_lock); }

private:
    SRWLOCK& m_lock;
};

// A mapping with names: the first is tried, and only where it is refused with access denied the second.
struct MappingNames {
    const wchar_t* global;
    const wchar_t* local;
};

// Makes or opens a page-file backed mapping of this size; existed says which. Empty on failure, the last error set.
UniqueHandle CreateSharedMapping(const MappingNames& names, std::size_t bytes, bool& existed) noexcept;
// Opens one that somebody else made.
UniqueHandle OpenSharedMapping(const MappingNames& names) noexcept;

// Maps a whole block for reading and writing; empty when the mapping is smaller than the block, or its memory is reserved
// only and cannot be touched. Some other program must have made such a one under the block's name.
UniqueView MapShared(HANDLE mapping, std::size_t bytes) noexcept;

} // namespace vtflt
