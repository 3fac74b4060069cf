// The processes that log at the moment.
#pragma once

#include "win/windows.h"

#include <string>
#include <vector>

namespace vtlog {

struct LoggingProcess {
    DWORD id = 0;
    std::wstring name; // its executable's file name
};

// Those with a log configuration, which the library makes when it is loaded; in the order of their ids. Empty also when
// the system does not list its processes.
std::vector<LoggingProcess> LoggingProcesses();

// The executable's file name of a process; empty when there is no such process.
std::wstring ProcessName(DWORD processId);

// A configuration object's name (log/object_names.h) for a process.
std::wstring ConfigObjectName(std::wstring format, DWORD processId);

} // namespace vtlog
