// The snapshot of one backup: taken when this is made, deleted when it goes.
#pragma once

#include "machine.h"

#include <string>

namespace vtbackup {

// Deletes its snapshot at every end that the process lives to see. For the other ends, and for a deletion that fails, the
// snapshot's name is noted on the machine, and the next backup sees to it: see DeleteLeftSnapshots.
class HeldSnapshot {
public:
    // All four outlive this object. left is added to when the snapshot could not be deleted.
    HeldSnapshot(const Machine& machine, const std::string& application, const VolumeName& volume, std::string& left);
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
    std::string& m_left;
    Snapshot m_snapshot;
    bool m_keep = false;
};

// Deletes what earlier runs left, where its name cannot mean another snapshot by now. What is left then comes in words,
// empty when nothing is. Call it under the locks.
std::string DeleteLeftSnapshots(const Machine& machine, const std::string& application, const VolumeName& volume);

} // namespace vtbackup
