// A simulated machine in place of the real one: after attaching, the very same calls of this program and of
// VTFltMgr.dll are answered by the simulator.
#pragma once

#include "snapshot.h"

#include <memory>
#include <string>

namespace vtbackup {

class Simulation {
public:
    // Loads VTFltSim.dll and attaches VTFltMgr.dll and this program to the machine in the directory.
    // Throws Failure(NotFound) when the directory holds no machine.
    explicit Simulation(const std::wstring& directory);
    ~Simulation();
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

    // Lives no longer than the simulation.
    std::unique_ptr<SnapshotProvider> Snapshots();

    struct Calls;

private:
    std::unique_ptr<Calls> m_calls;
};

} // namespace vtbackup
