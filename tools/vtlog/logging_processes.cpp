#include "logging_processes.h"

#include "log/object_names.h"
#include "win/owners.h"

#include <tlhelp32.h>

#include <algorithm>

namespace vtlog {
namespace {

// Calls visit for every process until it answers false.
template <class Visit>
void ForEachProcess(Visit visit)
{
    const vtflt::UniqueHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    if (!snapshot || !Process32FirstW(snapshot.get(), &entry))
        return;
    do {
        if (!visit(entry))
            return;
    } while (Process32NextW(snapshot.get(), &entry));
}

// Exists, even if this account may not open it.
bool HasConfiguration(DWORD processId)
{
    const std::wstring name = ConfigObjectName(vtflt::LOG_CFG_MUTEX_NAME, processId);
    const vtflt::UniqueHandle mutex(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()));
    return mutex || GetLastError() == ERROR_ACCESS_DENIED;
}

} // namespace

std::vector<LoggingProcess> LoggingProcesses()
{
    std::vector<LoggingProcess> processes;
    ForEachProcess([&](const PROCESSENTRY32W& entry) {
        if (HasConfiguration(entry.th32ProcessID))
            processes.push_back({entry.th32ProcessID, entry.szExeFile});
        return true;
    });
    std::sort(processes.begin(), processes.end(),
              [](const LoggingProcess& a, const LoggingProcess& b) { return a.id < b.id; });
    return processes;
}

std::wstring ProcessName(DWORD processId)
{
    std::wstring name;
    ForEachProcess([&](const PROCESSENTRY32W& entry) {
        if (entry.th32ProcessID == processId)
            name = entry.szExeFile;
        return name.empty();
    });
    return name;
}

std::wstring ConfigObjectName(std::wstring format, DWORD processId)
{
    return format.replace(format.find(L"%d"), 2, std::to_wstring(processId));
}

} // namespace vtlog
