// What was written into a snapshot itself, where the driver tracks snapshots.
#pragma once

#include "change_map.h"
#include "library.h"
#include "volume.h"

#include <cstdint>
#include <string>

namespace vtbackup {

// Blocks of a snapshot that no longer hold what the volume held when it was taken. Asked for as often as somebody has to
// know; what was told once stays known, whatever the driver does with bits that it handed over.
class SnapshotWrites {
public:
    // snapshot is used as long as this object is; tracked: whether it was when it was taken; blockSize: that of the
    // volume's bitmap.
    SnapshotWrites(const Volume& snapshot, bool tracked, std::uint32_t blockSize)
        : m_snapshot(snapshot), m_wasTracked(tracked), m_blockSize(blockSize)
    {
    }

    // Asks the driver. Untracked() and Problem() are its last answer.
    void Fetch();

    // The snapshot is not tracked, so nobody knows. A driver that went away answers so, too.
    [[nodiscard]] bool Untracked() const noexcept { return m_untracked; }
    // Not empty: why it is not known what was written.
    [[nodiscard]] const std::string& Problem() const noexcept { return m_problem; }
    // The blocks, as far as they are known.
    [[nodiscard]] const ChangeMap& Blocks() const noexcept { return m_blocks; }

private:
    const Volume& m_snapshot;
    bool m_wasTracked;
    std::uint32_t m_blockSize;
    bool m_untracked = false;
    std::string m_problem;
    ChangeMap m_blocks;
};

} // namespace vtbackup
