// A simulated machine in place of the real one, for programs that have --simulate.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>

namespace toolkit {

// Why there is no simulation.
class SimulationError : public std::runtime_error {
public:
    SimulationError(const std::string& message, bool noMachine) : std::runtime_error(message), m_noMachine(noMachine) {}
    // The folder holds no machine, or the simulator is not there; otherwise something that should not happen.
    [[nodiscard]] bool NoMachine() const noexcept { return m_noMachine; }

private:
    bool m_noMachine;
};

// The full folder of the simulated machine that this program works on, empty for the real one: that of --simulate, or the
// one under which "vtfltsim run" started the program.
std::wstring SimulatedFolder(const std::wstring& option);

// While it lives, the system calls of this program, and of VTFltMgr.dll when the program has it loaded, are answered by
// the simulated machine in a folder. Make it before calling the functions that work on the machine: a compiler may
// fetch an import's address once for a whole function.
class Simulation {
public:
    // Loads VTFltSim.dll, which a program without --simulate does not need. Throws SimulationError.
    explicit Simulation(const std::wstring& folder);
    ~Simulation();
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

private:
    struct Calls;
    std::unique_ptr<Calls> m_calls;
};

} // namespace toolkit
