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
    Audit(const Volume& snapshot, Geometry geometry, ChainReader& chain, std::uint64_t blocksToRead,
          const std::function<void(const AuditResult&)>& firstFound, AuditResult& result)
        : m_geometry(geometry), m_chain(chain), m_expectation(chain), m_firstFound(firstFound), m_result(result),
          m_progress("audit", blocksToRead * geometry.blockSize), m_feed(snapshot, geometry, m_progress)
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
        ++m_result.counts.compared;
        if (shouldBeZero ? zero : ChecksumOf(bytes, length) == known->checksum)
            return;
        ++m_result.differing;
        if (m_result.missed.size() < MOST_MISSED)
            m_result.missed.push_back(
                {block, block * m_geometry.blockSize, length, shouldBeZero ? ZERO : ToHex(known->checksum),
                 known == nullptr ? 0 : m_chain.SequenceOf(*known), zero ? ZERO : ToHex(ChecksumOf(bytes, length))});
        if (m_result.differing == 1)
            m_firstFound(m_result);
    }

    Geometry m_geometry;
    ChainReader& m_chain;
    Expectation m_expectation;
    const std::function<void(const AuditResult&)>& m_firstFound;
    AuditResult& m_result;
    Progress m_progress;
    BlockFeed m_feed;
};

} // namespace

AuditResult AuditCleanBlocks(const Volume& snapshot, Geometry geometry, const ChangeMap& changes, ChainReader& chain,
                             std::uint64_t wanted, const std::function<void(const AuditResult&)>& firstFound)
{
    const std::uint64_t blocks = geometry.Blocks();
    AuditResult result;
    result.counts.requested = wanted;
    result.counts.clean = blocks - changes.CountBelow(blocks);
    SampleChooser chooser(result.counts.clean, wanted, SystemRandom());
    try {
        Audit audit(snapshot, geometry, chain, chooser.Wanted(), firstFound, result);
        std::uint64_t clean = 0; // the first clean block behind what was gone through
        for (std::optional<BlockRun> changed = changes.NextRun(0, blocks); changed;
             changed = changes.NextRun(changed->end, blocks)) {
            audit.Sample({clean, changed->begin}, chooser);
            clean = changed->end;
        }
        audit.Sample({clean, blocks}, chooser);
    } catch (const Failure& failure) {
        // What was found stays found: the loss has to be acted on, however the rest ends.
        if (result.differing == 0)
            throw;
        result.endedEarly = failure.what();
    }
    return result;
}

} // namespace vtbackup
