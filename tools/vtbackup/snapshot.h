// Snapshots: who makes them differs between the real machine and a simulated one; the cycle does not care.
#pragma once

#include "volume.h"

#include <memory>
#include <string>

namespace vtbackup {

struct Snapshot {
    std::wstring id;     // what Delete needs; kept on disk, so that a later run can delete what a killed one left
    std::wstring device; // as CreateFileW opens it
};

class SnapshotProvider {
public:
    virtual ~SnapshotProvider() = default;
    // Throws Failure(Exit::Device).
    virtual Snapshot Create(const VolumeName& volume) = 0;
    // False when it could not be deleted, or nobody can say whether it is gone already.
    virtual bool Delete(const std::wstring& id) noexcept = 0;
    // Whether there is certainly none of this name.
    [[nodiscard]] virtual bool IsGone(const std::wstring& id) const noexcept = 0;
    // Whether an ID names one snapshot for ever. Only then may a later run delete what a killed one left: a
    // name that is given out again could by then be someone else's snapshot.
    [[nodiscard]] virtual bool NeverReusesIds() const noexcept = 0;
};

// Runs the user's commands: "create" prints the snapshot's device path on its first line, "remove" deletes the
// snapshot named by the environment variable VTBACKUP_SNAPSHOT. Both see VTBACKUP_VOLUME.
std::unique_ptr<SnapshotProvider> MakeCommandSnapshots(std::wstring create, std::wstring remove);

} // namespace vtbackup
