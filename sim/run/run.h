// Starting an unmodified program under a simulated machine.
#pragma once

#include "interpose/win.h"

namespace vtfltsim {

// In this process: attaches every loaded module that is not of the system, and from now on each that is loaded, to the
// machine in a directory.
DWORD AttachProcess(const wchar_t* directory);

// Starts a program whose process does that before its own code begins. Its main thread waits when suspended is true.
DWORD RunProgram(const std::wstring& directory, const std::wstring& commandLine, bool suspended,
                 PROCESS_INFORMATION& process);

} // namespace vtfltsim
