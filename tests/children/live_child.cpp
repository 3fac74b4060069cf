// A program whose library logs while a viewer may look on.
//
//     live_child log <threads> <records> [<machine directory>]   every thread logs so many records, one after the other
//     live_child view <ready event>                              is the live viewer until it is ended
//
// A record's text holds its thread's number in the upper half of a handle and its own in the lower half, both from 1.
// With a machine, the simulator's plan in the environment applies. Exit code: 0, or 0xFFFF when it could not start.
#include "vtfltmgr/VTFltMgr.h"
#include "vtfltsim/VTFltSim.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int NOT_STARTED = 0xFFFF;

std::wstring Wide(const char* text)
{
    const std::string bytes = text; // plain ASCII here
    return std::wstring(bytes.begin(), bytes.end());
}

void LogRecords(unsigned thread, unsigned records)
{
    // No such handle is known, which the library logs, with the handle, at the error level.
    for (unsigned number = 1; number <= records; ++number)
        VTFltDeinitBitmapManager(reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(thread << 16 | number)));
}

int Log(int argc, char** argv)
{
    if (argc > 4) {
        VTFLTSIM_MACHINE machine = nullptr;
        if (VTFltSimOpen(Wide(argv[4]).c_str(), &machine) != 0 ||
            VTFltSimAttachModule(machine, GetModuleHandleW(L"VTFltMgr.dll")) != 0)
            return NOT_STARTED;
    }
    const auto records = static_cast<unsigned>(std::atoi(argv[3]));
    std::vector<std::thread> threads;
    for (unsigned thread = 1; thread <= static_cast<unsigned>(std::atoi(argv[2])); ++thread)
        threads.emplace_back(LogRecords, thread, records);
    for (std::thread& thread : threads)
        thread.join();
    return 0;
}

int View(char** argv)
{
    const HANDLE presence = CreateEventW(nullptr, TRUE, FALSE, L"Global\\EVENT_9CF42DA4-ACD1-4F3F-8D6F-31023974A079");
    const HANDLE ready = OpenEventW(EVENT_MODIFY_STATE, FALSE, Wide(argv[2]).c_str());
    if (presence == nullptr || ready == nullptr)
        return NOT_STARTED;
    SetEvent(ready);
    Sleep(INFINITE);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "log" && argc > 3)
        return Log(argc, argv);
    if (command == "view" && argc > 2)
        return View(argv);
    return NOT_STARTED;
}
