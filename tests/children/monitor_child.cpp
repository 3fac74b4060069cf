// Another application that switches the monitoring of snapshots: again and again on, on and off.
//
//     monitor_child <machine directory> <rounds>
//
// Exit code: 0; 10 when a switch failed; 11 when the machine could not be used.
#include "vtfltmgr/VTFltMgr.h"
#include "vtfltsim/VTFltSim.h"

#include <cstdlib>
#include <string>

int main(int argc, char** argv)
{
    if (argc != 3)
        return 11;
    const std::string directory = argv[1]; // plain ASCII here
    VTFLTSIM_MACHINE machine = nullptr;
    if (VTFltSimOpen(std::wstring(directory.begin(), directory.end()).c_str(), &machine) != 0 ||
        VTFltSimAttachModule(machine, GetModuleHandleW(L"VTFltMgr.dll")) != 0)
        return 11;
    for (int round = std::atoi(argv[2]); round > 0; --round) {
        if (VTFltEnableMonitorForSnapshot(nullptr) != 0 || VTFltEnableMonitorForSnapshot(nullptr) != 0 ||
            VTFltDisableMonitorForSnapshot(nullptr) != 0)
            return 10;
    }
    VTFltSimDetach();
    VTFltSimClose(machine);
    return 0;
}
