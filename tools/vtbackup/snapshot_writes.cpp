#include "snapshot_writes.h"

#include "text.h"

#include <fmt/format.h>

namespace vtbackup {

void SnapshotWrites::Fetch()
{
    const FetchedMap fetched = FetchMap(m_snapshot, true);
    m_problem.clear();
    m_untracked = fetched.result == ERROR_INVALID_FUNCTION || fetched.result == ERROR_NOT_SUPPORTED;
    if (m_untracked) {
        if (m_blocks.CountBelow(m_blocks.Bits()) > 0)
            m_problem = "the snapshot's tracking ended before its own changes were fetched";
        return;
    }
    if (fetched.result != 0 || !fetched.whole) {
        m_problem = fmt::format("the snapshot's own changes could not be fetched: {}", ErrorText(fetched.result));
        return;
    }
    const std::uint64_t bits = fetched.map.Bits();
    // The bits of an empty map mean the same whatever their blocks' size is.
    if (fetched.map.CountBelow(bits) > 0 && DirectBlockSize(m_snapshot) != m_blockSize) {
        m_problem = "the snapshot is tracked in blocks of another size than the volume";
        return;
    }
    if (m_blocks.Bits() < bits) {
        ChangeMap longer(fetched.map.Length());
        longer.Add(m_blocks);
        m_blocks = std::move(longer);
    }
    m_blocks.Add(fetched.map);
}

} // namespace vtbackup
