// A program whose threads all log, through the shipped library, into the log file that it sets for itself.
//
//     log_child <log file> <number of this process> <threads> <records> <ready> <start> [end | <machine directory>]
//
// Makes the file its process-wide one, signals the event "ready", waits for "start". Each thread then logs its records, in
// which a handle's value numbers process, thread and record: process << 24 | thread << 16 | record, from 1 each. With
// "end" the process ends with exit code 7 in the middle of it; with a machine, the library is attached to it while it
// logs, and the simulator's plan in the environment applies. Exit code: 0, or 1 when it could not start.
#include "log/bounded_text.h"
#include "log/config_block.h"
#include "support/config_names.h"
#include "vtfltmgr/VTFltMgr.h"
#include "vtfltsim/VTFltSim.h"
#include "win/owners.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

using namespace vttest;

namespace {

std::wstring Wide(const char* text)
{
    const std::string bytes = text; // plain ASCII here
    return std::wstring(bytes.begin(), bytes.end());
}

// As a program does that edits the configuration of another.
bool SetProcessPath(const std::wstring& path)
{
    const vtflt::UniqueHandle mutex(OpenMutexW(SYNCHRONIZE, FALSE, ConfigName(CONFIG_MUTEX).c_str()));
    const vtflt::UniqueHandle mapping(
        OpenFileMappingW(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, ConfigName(CONFIG_MAPPING).c_str()));
    const vtflt::UniqueView view(MapViewOfFile(mapping.get(), FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0));
    if (!mutex || !view || WaitForSingleObject(mutex.get(), INFINITE) != WAIT_OBJECT_0)
        return false;
    vtflt::CopyText(static_cast<vtflt::LogCfgBlock*>(view.get())->path, path);
    return ReleaseMutex(mutex.get()) != FALSE;
}

bool Attach(const std::wstring& directory)
{
    VTFLTSIM_MACHINE machine = nullptr; // until the process ends
    return VTFltSimOpen(directory.c_str(), &machine) == 0 &&
           VTFltSimAttachModule(machine, GetModuleHandleW(L"VTFltMgr.dll")) == 0;
}

void LogRecords(std::uint32_t process, std::uint32_t thread, std::uint32_t records)
{
    for (std::uint32_t record = 1; record <= records; ++record) {
        const std::uintptr_t number = process << 24 | thread << 16 | record;
        VTFltPrepareForSnapshot(reinterpret_cast<HANDLE>(number));
    }
}

} // namespace

int main(int count, char** arguments)
{
    if (count < 7 || !SetProcessPath(Wide(arguments[1])))
        return 1;
    const auto process = static_cast<std::uint32_t>(std::atoi(arguments[2]));
    const auto threads = static_cast<std::uint32_t>(std::atoi(arguments[3]));
    const auto records = static_cast<std::uint32_t>(std::atoi(arguments[4]));
    const vtflt::UniqueHandle ready(OpenEventW(EVENT_MODIFY_STATE, FALSE, Wide(arguments[5]).c_str()));
    const vtflt::UniqueHandle start(OpenEventW(SYNCHRONIZE, FALSE, Wide(arguments[6]).c_str()));
    if (!SetEvent(ready.get()) || WaitForSingleObject(start.get(), INFINITE) != WAIT_OBJECT_0)
        return 1;
    const std::string last = count > 7 ? arguments[7] : "";
    if (!last.empty() && last != "end" && !Attach(Wide(arguments[7])))
        return 1;

    std::vector<std::thread> running;
    for (std::uint32_t thread = 1; thread <= threads; ++thread)
        running.emplace_back(LogRecords, process, thread, records);
    if (last == "end") {
        LogRecords(process, threads + 1, 20);
        ExitProcess(7);
    }
    for (std::thread& thread : running)
        thread.join();
    VTFltSimDetach();
    return 0;
}
