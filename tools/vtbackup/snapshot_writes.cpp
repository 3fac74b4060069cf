#include "snapshot_writes.h"

#include "text.h"

#include <fmt/format.h>

namespace vtbackup {

void SnapshotWrites::Fetch()
{
    m_problem.clear();
    // One request that is refused is no word about the snapshot: only one that was untracked from the beginning is.
    m_untracked = !IsTracked(m_snapshot);
    if (m_untracked == m_wasTracked)
        m_problem = m_wasTracked ? "the snapshot's tracking ended before its own changes were fetched"
                                 : "the snapshot was not tracked from the beginning";
    if (m_untracked || !m_wasTracked)
        return;
    const FetchedMap fetched = FetchMap(m_snapshot, true);
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
