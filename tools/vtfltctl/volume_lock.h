// The mutex under which the library works on a volume's bitmap files, held for as long as a command does.
#pragma once

#include "win/owners.h"

#include <string>

namespace vtfltctl {

// Held from construction to destruction, by one thread. The library's own guard waits for half an hour and then goes on
// without the mutex; this one never does.
//
// The library's names live in the session of the process that makes them. So that a backup service is excluded from
// any session, the object of the services' session is held, too, under the name by which every session knows it. A
// backup in a third session is not excluded: it does not exclude the services' backups either.
class VolumeLock {
public:
    // volume: Volume{...}. Waits for 10 seconds. Throws bitmap::ReadError with WAIT_TIMEOUT when a backup keeps the mutex,
    // and for the rest of the process at once when one kept it before; else with the system's error.
    explicit VolumeLock(const std::wstring& volume);
    VolumeLock(const VolumeLock&) = delete;
    VolumeLock& operator=(const VolumeLock&) = delete;

private:
    class Held {
    public:
        Held(const std::wstring& prefix, const std::wstring& volume, ULONGLONG deadline);
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

} // namespace vtfltctl
