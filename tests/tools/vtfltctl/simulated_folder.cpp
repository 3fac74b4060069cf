// Has the variable by which "vtfltsim run" names the simulated machine, as a process may have it from an ancestor whose
// number it got. 0 when it is believed with the simulator in the process, and not without.
#include "common/simulation.h"

#include <windows.h>

#include <string>

int wmain()
{
    const std::string process = std::to_string(GetCurrentProcessId());
    SetEnvironmentVariableW((L"VTFLTSIM_DIRECTORY_" + std::wstring(process.begin(), process.end())).c_str(),
                            L"D:\\machine");
    if (!toolkit::SimulatedFolder({}).empty())
        return 1;
    if (LoadLibraryW(L"VTFltSim.dll") == nullptr)
        return 2;
    return toolkit::SimulatedFolder({}) == L"D:\\machine" ? 0 : 3;
}
