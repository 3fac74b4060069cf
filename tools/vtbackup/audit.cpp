#include "audit.h"

#include "block_feed.h"
#include "checksum.h"
#include "failure.h"

#include <optional>

namespace vtbackup {
namespace {

constexpr const char* ZERO = "zero";

// The chain's contents, block by block in ascending order.
class Expectation {
public:
    explicit Expectation(ChainReader& chain) : m_chain(chain), m_next(chain.Next()) {}

    // The block's record; nothing when it has none, and so is zero.
    const ChainBlock* Of(std::uint64_t block)
    {
        while (m_next && m_next->block < block)
            m_next = m_chain.Next();
        return m_next && m_next->block == block ? &*m_next : nullptr;
    }

private:
    ChainReader& m_chain;
    std::optional<ChainBlock> m_next;
};

class Audit {
public:
    Audit(const AuditSource& source, ChainReader& chain, std::uint64_t blocksToRead,
          const std::function<void(const AuditResult&)>& firstFound, AuditResult& result)
        : m_geometry(source.geometry), m_writes(source.writes), m_later(source.changes.Length()), m_chain(chain),
          m_expectation(chain), m_firstFound(firstFound), m_result(result),
          m_progress("audit", blocksToRead * source.geometry.blockSize),
          m_feed(source.snapshot, source.geometry, m_progress)
    {
    }

    // Reads the chosen ones of the clean blocks [run.begin, run.end); neighbours are read at once.
    void Sample(BlockRun run, SampleChooser& chooser)
    {
        BlockRun chosen{run.begin, run.begin};
        for (std::uint64_t block = run.begin; block < run.end && chooser.Wanted() > 0; ++block) {
            if (block % BLOCKS_PER_CHECK == 0)
                StopIfInterrupted(); // a long way may lie between two chosen blocks
            if (!chooser.Take())
                continue;
            if (block != chosen.end || block - chosen.begin == BLOCKS_PER_CHECK) {
                Compare(chosen);
                chosen.begin = block;
            }
            chosen.end = block + 1;
        }
        Compare(chosen);
    }

    // Takes out what somebody wrote into in the snapshot before it was read, behind the first difference.
    void Settle()
    {
        if (m_result.differing == 0)
            return;
        m_writes.Fetch();
        NoteDoubt();
        const ChangeMap& written = m_writes.Blocks();
        for (std::optional<BlockRun> run = m_later.NextRun(0, m_later.Bits()); run;
             run = m_later.NextRun(run->end, m_later.Bits())) {
            for (std::uint64_t block = run->begin; block < run->end; ++block) {
                if (!written.Test(block))
                    continue;
                --m_result.differing;
                --m_result.counts.compared;
                LeaveOut();
            }
        }
        std::erase_if(m_result.missed,
                      [&](const MissedBlock& m) { return m_later.Test(m.block) && written.Test(m.block); });
    }

private:
    static constexpr std::uint64_t BLOCKS_PER_CHECK = 1024 * 1024;

    void Compare(BlockRun run)
    {
        m_feed.Run(run, [this](std::uint64_t block, const unsigned char* bytes, std::uint32_t length) {
            CompareBlock(block, bytes, length);
        });
    }

    void CompareBlock(std::uint64_t block, const unsigned char* bytes, std::uint32_t length)
    {
        const ChainBlock* const known = m_expectation.Of(block);
        const bool shouldBeZero = known == nullptr || known->zero;
        const bool zero = IsZero(bytes, length);
        if (shouldBeZero ? zero : ChecksumOf(bytes, length) == known->checksum) {
            ++m_result.counts.compared;
            return;
        }
        if (WasWrittenInSnapshot(block)) {
            LeaveOut();
            return;
        }
        ++m_result.counts.compared;
        ++m_result.differing;
        if (m_result.missed.size() < MOST_MISSED)
            m_result.missed.push_back(
                {block, block * m_geometry.blockSize, length, shouldBeZero ? ZERO : ToHex(known->checksum),
                 known == nullptr ? 0 : m_chain.SequenceOf(*known), zero ? ZERO : ToHex(ChecksumOf(bytes, length))});
        if (m_result.differing == 1)
            m_firstFound(m_result);
        else
            m_later.Set(block);
    }

    // Asked of every block that differs, behind the reading. The first one that counts has the driver's word for it;
    // those behind it are looked at together, at the end.
    bool WasWrittenInSnapshot(std::uint64_t block)
    {
        if (m_result.differing == 0 && !m_writes.Blocks().Test(block)) {
            m_writes.Fetch();
            NoteDoubt();
        }
        return m_writes.Blocks().Test(block);
    }

    void LeaveOut()
    {
        --m_result.counts.clean;
        ++m_result.counts.written;
    }

    void NoteDoubt()
    {
        if (!m_writes.Problem().empty())
            m_result.doubt = m_writes.Problem() + ", and somebody may have written into it";
        else if (m_writes.Untracked())
            m_result.doubt = "snapshots are not tracked on this machine, and somebody may have written into this one";
    }

    Geometry m_geometry;
    SnapshotWrites& m_writes;
    ChangeMap m_later; // blocks that differ, but for the first one
    ChainReader& m_chain;
    Expectation m_expectation;
    const std::function<void(const AuditResult&)>& m_firstFound;
    AuditResult& m_result;
    Progress m_progress;
    BlockFeed m_feed;
};

} // namespace

AuditResult AuditCleanBlocks(const AuditSource& source, ChainReader& chain, std::uint64_t wanted,
                             const std::function<void(const AuditResult&)>& firstFound)
{
    const std::uint64_t blocks = source.geometry.Blocks();
    ChangeMap unclean = source.changes;
    unclean.Add(source.writes.Blocks());
    AuditResult result;
    result.counts.requested = wanted;
    result.counts.clean = blocks - unclean.CountBelow(blocks);
    result.counts.written = blocks - source.changes.CountBelow(blocks) - result.counts.clean;
    SampleChooser chooser(result.counts.clean, wanted, SystemRandom());
    Audit audit(source, chain, chooser.Wanted(), firstFound, result);
    try {
        std::uint64_t clean = 0; // the first clean block behind what was gone through
        for (std::optional<BlockRun> run = unclean.NextRun(0, blocks); run; run = unclean.NextRun(run->end, blocks)) {
            audit.Sample({clean, run->begin}, chooser);
            clean = run->end;
        }
        audit.Sample({clean, blocks}, chooser);
    } catch (const Failure& failure) {
        // What was found stays found: the loss has to be acted on, however the rest ends.
        if (result.differing == 0)
            throw;
        result.endedEarly = failure.what();
    }
    audit.Settle();
    return result;
}

} // namespace vtbackup
