// The named mutexes that serialise the processes which share registrations, lists and bitmap files, and the
// guard that holds one for the span of an operation.
#pragma once

#include "win/owners.h"

#include <string>
#include <string_view>

namespace vtflt {

// "VTBitmapManager." + middle + ".Mutex". No "Global\": the names live in the caller's session.
std::wstring BuildMutexName(std::wstring_view middle);

// The mutex of the set of registered applications and of the per-application list moves.
std::wstring BuildApplicationMutexName();

// Holds one named mutex from a successful getAccess to its own end. The same thread may hold the same name in
// several guards at once.
class CMutexController {
public:
    CMutexController() noexcept = default;
    CMutexController(const CMutexController&) = delete;
    CMutexController& operator=(const CMutexController&) = delete;
    // Releases and closes the mutex whenever one was made, whatever the wait said.
    virtual ~CMutexController();

    // Makes or opens the mutex and waits for it, 30 minutes at most. Returns 0 when the caller may go on, which
    // includes a wait that timed out (a backup is not failed over a lock) and a mutex abandoned by a dead
    // process; 0x10005 when the mutex could not be made (logged) or waited for. Call once per guard.
    DWORD getAccess(const std::wstring& name);

    // Gives the mutex up before the guard ends.
    void release() noexcept;

private:
    HANDLE m_hMutex = nullptr;
};

} // namespace vtflt
