// The snapshot of one backup: taken when this is made, deleted when it goes.
#pragma once

#include "machine.h"

#include <string>

namespace vtbackup {

// Deletes its snapshot at every end that the process lives to see. For the other ends the snapshot's name is noted
// on the machine, and the next backup deletes it: see DeleteLeftSnapshot.
class HeldSnapshot {
public:
    // All three outlive this object.
    HeldSnapshot(const Machine& machine, const std::string& application, const VolumeName& volume);
    ~HeldSnapshot();
    HeldSnapshot(const HeldSnapshot&) = delete;
    HeldSnapshot& operator=(const HeldSnapshot&) = delete;

    [[nodiscard]] const Snapshot& Get() const noexcept { return m_snapshot; }
    // Leaves it to whoever asked for it.
    void Keep() noexcept { m_keep = true; }

private:
    const Machine& m_machine;
    const std::string& m_application;
    const VolumeName& m_volume;
    Snapshot m_snapshot;
    bool m_keep = false;
};

// Deletes what a killed run left, where its name cannot mean another snapshot by now. Call it under the locks.
void DeleteLeftSnapshot(const Machine& machine, const std::string& application, const VolumeName& volume);

} // namespace vtbackup
