// The machine that a command works on: the real one, or a simulated one.
#pragma once

#include "locks.h"
#include "machine_state.h"
#include "simulation.h"
#include "snapshot.h"

#include <memory>
#include <optional>
#include <string>

namespace vtbackup {

class Machine {
public:
    // An empty simulate path means the real machine; the snapshot commands are needed for its backups only.
    Machine(const std::wstring& simulate, const std::wstring& snapshotCreate, const std::wstring& snapshotDelete);

    // Throws Failure(Usage) when there is no way to take snapshots.
    [[nodiscard]] SnapshotProvider& Snapshots() const;
    [[nodiscard]] bool Simulated() const noexcept { return m_simulation.has_value(); }
    [[nodiscard]] const LockNames& Locks() const noexcept { return m_locks; }
    [[nodiscard]] const MachineState& State() const noexcept { return m_state; }

private:
    std::optional<Simulation> m_simulation; // outlives everything that opens simulated devices
    std::unique_ptr<SnapshotProvider> m_snapshots;
    LockNames m_locks;
    MachineState m_state;
};

} // namespace vtbackup
