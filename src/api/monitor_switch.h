// The inner steps of the monitoring switch, which run while the class's mutex is held.
//
// Per device class the registry counts the requests for tracking. Every request lists the driver among the class's
// upper filters; the last one that is taken back removes it. When the list cannot be changed, the count goes back to
// what it was.
#pragma once

#include "win/windows.h"

namespace vtflt {

// Both take the class key below HKEY_LOCAL_MACHINE, the class name (its last component), and the held mutex: however
// they end, the mutex is released and closed, and mutex is INVALID_HANDLE_VALUE. They return 0, 160 for a null text,
// 206 for a class name too long for the count's key, else the error of the registry.
DWORD EnableMonitorForSnapshot(const wchar_t* classKeyPath, const wchar_t* className, HANDLE& mutex);
DWORD DisableMonitorForSnapshot(const wchar_t* classKeyPath, const wchar_t* className, HANDLE& mutex);

} // namespace vtflt
