// The mutexes under which the library works, held for as long as a command does.
#pragma once

#include "win/owners.h"

#include <string>

namespace vtfltctl {

// Held from construction to destruction, by one thread, which may hold the same one several times. The library's own guard
// waits for half an hour and then goes on without the mutex; this one never does.
//
// The library's names live in the session of the process that makes them. So that a backup service is excluded from
// any session, the object of the services' session is held, too, under the name by which every session knows it. A
// backup in a third session is not excluded: it does not exclude the services' backups either.
//
// The library's order, which is also that of whoever holds several: applications, volume, list.
class LibraryLock {
public:
    // name: as the library makes it. Waits for 10 seconds. Throws bitmap::ReadError with WAIT_TIMEOUT when another program
    // keeps the mutex, and for the rest of the process at once when one kept it before; else with the system's error.
    explicit LibraryLock(const std::wstring& name);
    LibraryLock(const LibraryLock&) = delete;
    LibraryLock& operator=(const LibraryLock&) = delete;

private:
    class Held {
    public:
        Held(const std::wstring& prefix, const std::wstring& name, ULONGLONG deadline);
        ~Held();
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;

    private:
        vtflt::UniqueHandle m_mutex;
    };

    ULONGLONG m_deadline;
    Held m_ours;
    Held m_services; // in their session the same one again
};

// That of a volume's bitmap files.
class VolumeLock : public LibraryLock {
public:
    // volume: Volume{...}
    explicit VolumeLock(const std::wstring& volume);
};

} // namespace vtfltctl
