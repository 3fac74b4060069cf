// What somebody does to the list of applications behind everybody's back.
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

} // namespace vttest
