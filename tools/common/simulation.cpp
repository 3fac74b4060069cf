#include "common/simulation.h"

#include "common/text.h"

#include "win/windows.h"

#include <fmt/format.h>
#include <vtfltsim/VTFltSim.h>

#include <cstring>

namespace toolkit {

struct Simulation::Calls {
    VTFLTSIM_MACHINE machine = nullptr;
    decltype(&VTFltSimOpen) open = nullptr;
    decltype(&VTFltSimClose) close = nullptr;
    decltype(&VTFltSimAttachModule) attach = nullptr;
    decltype(&VTFltSimDetach) detach = nullptr;
};

namespace {

template <class Function>
void Bind(HMODULE module, const char* name, Function& function)
{
    const FARPROC address = GetProcAddress(module, name);
    if (address == nullptr)
        throw SimulationError(fmt::format("VTFltSim.dll has no {}", name), false);
    static_assert(sizeof(function) == sizeof(address));
    std::memcpy(&function, &address, sizeof(function));
}

std::wstring FullPath(const std::wstring& path)
{
    const DWORD needed = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    std::wstring full(needed, L'\0');
    full.resize(needed == 0 ? 0 : GetFullPathNameW(path.c_str(), needed, full.data(), nullptr));
    return full.empty() ? path : full;
}

} // namespace

std::wstring SimulatedFolder(const std::wstring& option)
{
    if (!option.empty())
        return FullPath(option);
    // Its name has the process in it: children inherit the variable, and not the machine. A later one can have the
    // number of one that ended.
    if (GetModuleHandleW(L"VTFltSim.dll") == nullptr)
        return {};
    const std::wstring variable = ToWide(fmt::format("VTFLTSIM_DIRECTORY_{}", GetCurrentProcessId()));
    std::wstring folder(32768, L'\0');
    folder.resize(GetEnvironmentVariableW(variable.c_str(), folder.data(), static_cast<DWORD>(folder.size())));
    return folder;
}

Simulation::Simulation(const std::wstring& folder) : m_calls(std::make_unique<Calls>())
{
    Calls& calls = *m_calls;
    const HMODULE module = LoadLibraryW(L"VTFltSim.dll");
    if (module == nullptr)
        throw SimulationError(
            fmt::format("cannot load VTFltSim.dll, which --simulate needs: {}", ErrorText(GetLastError())), true);
    Bind(module, "VTFltSimOpen", calls.open);
    Bind(module, "VTFltSimClose", calls.close);
    Bind(module, "VTFltSimAttachModule", calls.attach);
    Bind(module, "VTFltSimDetach", calls.detach);
    if (const DWORD error = calls.open(folder.c_str(), &calls.machine); error != 0)
        throw SimulationError(fmt::format("{} holds no simulated machine: {}", Shown(folder), ErrorText(error)), true);
    const HMODULE library = GetModuleHandleW(L"VTFltMgr.dll");
    DWORD attached = library == nullptr ? ERROR_SUCCESS : calls.attach(calls.machine, library);
    if (attached == ERROR_SUCCESS)
        attached = calls.attach(calls.machine, nullptr);
    if (attached == ERROR_SUCCESS)
        return;
    calls.detach();
    calls.close(calls.machine);
    throw SimulationError(fmt::format("cannot attach to the simulated machine: {}", ErrorText(attached)), false);
}

Simulation::~Simulation()
{
    // The module stays loaded: other objects of the process may still be on their way out through it.
    m_calls->detach();
    m_calls->close(m_calls->machine);
}

} // namespace toolkit
