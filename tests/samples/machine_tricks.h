// What the samples' tests do to a machine.
#pragma once

#include "vtfltsim/VTFltSim.hpp"

namespace vttest {

// Nobody is registered any more, and no volume is marked.
inline void DeleteApplicationList(const vtfltsim::SimMachine& machine)
{
    HKEY key = nullptr;
    vtfltsim::Check(
        "VTFltSimOpenKey",
        VTFltSimOpenKey(machine.handle(), L"SOFTWARE\\Veltrix\\Shared\\CBTDriver\\AppIDs", KEY_WRITE, &key));
    const LSTATUS error = RegDeleteValueW(key, L"RegisteredAppIDs");
    RegCloseKey(key);
    vtfltsim::Check("RegDeleteValueW", static_cast<DWORD>(error));
}

// A volume with a GUID of one's own, as the system will spell it.
inline vtfltsim::Volume AddVolume(const vtfltsim::SimMachine& machine, const wchar_t* guid, std::uint64_t length,
                                  DWORD blockSize)
{
    VTFLTSIM_VOLUME_CONFIG config = {};
    config.size = sizeof(config);
    config.length = length;
    config.blockSize = blockSize;
    config.driveType = DRIVE_FIXED;
    config.guid = guid;
    WCHAR made[VTFLTSIM_GUID_CHARS] = {};
    vtfltsim::Check("VTFltSimAddVolume", VTFltSimAddVolume(machine.handle(), &config, made));
    return vtfltsim::Volume{made};
}

} // namespace vttest
