#include "simulation.h"

#include "failure.h"
#include "text.h"

#include <fmt/format.h>
#include <fmt/xchar.h>

#include <vtfltsim/VTFltSim.h>

#include <cstring>

namespace vtbackup {

// The simulator is loaded only when it is asked for: the program runs without its DLL.
struct Simulation::Calls {
    HMODULE module = nullptr;
    VTFLTSIM_MACHINE machine = nullptr;
    decltype(&VTFltSimOpen) open = nullptr;
    decltype(&VTFltSimClose) close = nullptr;
    decltype(&VTFltSimAttachModule) attach = nullptr;
    decltype(&VTFltSimDetach) detach = nullptr;
    decltype(&VTFltSimCreateSnapshot) createSnapshot = nullptr;
    decltype(&VTFltSimDeleteSnapshot) deleteSnapshot = nullptr;
};

namespace {

template <class Function>
void Bind(HMODULE module, const char* name, Function& function)
{
    const FARPROC address = GetProcAddress(module, name);
    if (address == nullptr)
        throw Failure(Exit::Internal, fmt::format("VTFltSim.dll has no {}", name));
    static_assert(sizeof(function) == sizeof(address));
    std::memcpy(&function, &address, sizeof(function));
}

class SimulatedSnapshots : public SnapshotProvider {
public:
    explicit SimulatedSnapshots(const Simulation::Calls& calls) : m_calls(calls) {}

    Snapshot Create(const VolumeName& volume) override
    {
        DWORD number = 0;
        VTFLTSIM_SNAPSHOT_INFO info = {};
        info.size = sizeof(info);
        const DWORD error = m_calls.createSnapshot(m_calls.machine, volume.guid.c_str(), &number, &info);
        if (error != 0)
            throw Failure(Exit::Device, fmt::format("cannot take a snapshot of the simulated volume {}: {}",
                                                    ToUtf8(volume.guid), ErrorText(error)));
        return {fmt::format(L"{}", number), info.devicePath};
    }

    bool Delete(const std::wstring& id) noexcept override
    {
        DWORD number = 0;
        for (const wchar_t c : id) {
            if (c < L'0' || c > L'9')
                return true; // no snapshot has such a name
            number = number * 10 + static_cast<DWORD>(c - L'0');
        }
        const DWORD error = m_calls.deleteSnapshot(m_calls.machine, number);
        return error == 0 || error == ERROR_DEV_NOT_EXIST;
    }

    // To be asked nothing: deleting says it.
    [[nodiscard]] bool IsGone(const std::wstring&) const noexcept override { return false; }

    [[nodiscard]] bool NeverReusesIds() const noexcept override { return true; }

private:
    const Simulation::Calls& m_calls;
};

} // namespace

Simulation::Simulation(const std::wstring& directory) : m_calls(std::make_unique<Calls>())
{
    Calls& c = *m_calls;
    c.module = LoadLibraryW(L"VTFltSim.dll");
    if (c.module == nullptr)
        throw Failure(Exit::NotFound,
                      fmt::format("cannot load VTFltSim.dll, which --simulate needs: {}", ErrorText(GetLastError())));
    Bind(c.module, "VTFltSimOpen", c.open);
    Bind(c.module, "VTFltSimClose", c.close);
    Bind(c.module, "VTFltSimAttachModule", c.attach);
    Bind(c.module, "VTFltSimDetach", c.detach);
    Bind(c.module, "VTFltSimCreateSnapshot", c.createSnapshot);
    Bind(c.module, "VTFltSimDeleteSnapshot", c.deleteSnapshot);
    const DWORD error = c.open(directory.c_str(), &c.machine);
    if (error != 0)
        throw Failure(Exit::NotFound,
                      fmt::format("{} holds no simulated machine: {}", ToUtf8(directory), ErrorText(error)));
    const HMODULE library = GetModuleHandleW(L"VTFltMgr.dll");
    DWORD attached = library == nullptr ? GetLastError() : c.attach(c.machine, library);
    if (attached == 0)
        attached = c.attach(c.machine, nullptr);
    if (attached != 0) {
        c.detach();
        c.close(c.machine);
        throw Failure(Exit::Internal, fmt::format("cannot attach to the simulated machine: {}", ErrorText(attached)));
    }
}

Simulation::~Simulation()
{
    // The module stays loaded: other objects of the process may still be on their way out through it.
    m_calls->detach();
    m_calls->close(m_calls->machine);
}

std::unique_ptr<SnapshotProvider> Simulation::Snapshots()
{
    return std::make_unique<SimulatedSnapshots>(*m_calls);
}

} // namespace vtbackup
