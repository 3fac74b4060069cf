// Whether the driver can be used, and its reinstallation when it cannot.
#pragma once

#include "win/windows.h"

#include <string>

namespace vtflt {

// 1 when the driver answers and sits correctly among the volume's upper filters, perhaps since a reinstallation done
// just now; 0 otherwise. Nothing is cached.
DWORD CanDriverWork();

// The gate before the exports that need the driver: whether it works. When it does not, the refusal is logged.
bool PassesDriverGate(const wchar_t* refusal);

// Reinstalls the driver through its utility: uninstall, then install. 0 when it went without needing a reboot, else
// the code of the failing step (3010: reboot required; 0xFFFFFFFF: forbidden by the registry; 206: the command line
// would be too long to run).
DWORD VTFltInstall();

// Runs a command line without a window and waits ten minutes at most. The exit code; 258 when it is still running; a
// Windows error when it could not be started.
DWORD ExecCmdLine(std::wstring commandLine);

} // namespace vtflt
