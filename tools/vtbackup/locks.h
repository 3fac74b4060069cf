// The two locks of a backup, across processes: one backup of an application at a time, and one backup of a
// volume at a time whatever the application. Registering and unregistering take the same locks.
#pragma once

#include "common/backup_locks.h"
#include "handle.h"

#include <string>
#include <string_view>
#include <vector>

namespace vtbackup {

// Says what a holder is doing, for the message of whoever finds the lock taken.
struct LockPurpose {
    std::wstring application;
    std::wstring volume;
    std::wstring work; // "backup", "register", ...
};

// A named mutex with a named note beside it that says who holds it. Released when destroyed. Belongs to the
// thread that took it.
class Lock {
public:
    // Throws Failure(Exit::Busy) with the holder's process, application, volume and work.
    Lock(const std::wstring& name, const LockPurpose& purpose, const std::string& what);
    ~Lock();
    Lock(Lock&& other) noexcept;
    Lock& operator=(Lock&&) = delete;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    Handle m_mutex;
    Handle m_note;
};

using toolkit::LockNames;

} // namespace vtbackup
