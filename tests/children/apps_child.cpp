// Another application: attaches its library to a machine and calls one export.
//
//     apps_child <machine directory> register|unregister|replicate|add <application>
//     apps_child <machine directory> verify <application> <volume path>
//
// Exit code: the export's result, or 0xFFFF when the machine could not be used.
#include "vtfltmgr/VTFltMgr.h"
#include "vtfltsim/VTFltSim.h"

#include <string>

namespace {

constexpr DWORD NO_MACHINE = 0xFFFF;

std::wstring Wide(const char* text)
{
    const std::string bytes = text; // plain ASCII here
    return std::wstring(bytes.begin(), bytes.end());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4)
        return NO_MACHINE;
    VTFLTSIM_MACHINE machine = nullptr;
    if (VTFltSimOpen(Wide(argv[1]).c_str(), &machine) != 0 ||
        VTFltSimAttachModule(machine, GetModuleHandleW(L"VTFltMgr.dll")) != 0)
        return NO_MACHINE;

    const std::string command = argv[2];
    const std::wstring appId = Wide(argv[3]);
    DWORD result = NO_MACHINE;
    if (command == "register")
        result = VTRegisterApplication(appId.c_str());
    else if (command == "unregister")
        result = VTUnregisterApplication(appId.c_str());
    else if (command == "replicate")
        result = VTReplicateVerifyList(appId.c_str());
    else if (command == "add")
        result = VTAddVolumesToAppVerifyList(appId.c_str());
    else if (command == "verify" && argc > 4)
        result = VTIsVerifyRequired(appId.c_str(), Wide(argv[4]).c_str());
    VTFltSimDetach();
    VTFltSimClose(machine);
    return static_cast<int>(result);
}
