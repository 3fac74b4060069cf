#include "copy.h"

#include "block_feed.h"

namespace vtbackup {
namespace {

std::uint64_t AllocatedBytes(const Volume& device, Geometry geometry)
{
    AllocatedWalk walk(device, geometry);
    std::uint64_t blocks = 0;
    while (const std::optional<BlockRun> run = walk.Next())
        blocks += run->end - run->begin;
    return blocks * geometry.blockSize;
}

} // namespace

std::uint64_t CopyEverything(const Volume& snapshot, Geometry geometry, BackupWriter& writer)
{
    Progress progress("full", AllocatedBytes(snapshot, geometry));
    BlockFeed feed(snapshot, geometry, progress);
    AllocatedWalk walk(snapshot, geometry);
    while (const std::optional<BlockRun> run = walk.Next()) {
        feed.Run(*run, [&](std::uint64_t block, const unsigned char* bytes, std::uint32_t length) {
            if (!IsZero(bytes, length))
                writer.AddBlock(block, bytes, length, ChecksumOf(bytes, length));
        });
    }
    return feed.BytesRead();
}

std::uint64_t CopyDifferences(const Volume& snapshot, Geometry geometry, ChainReader& chain, BackupWriter& writer)
{
    Progress progress("verify", AllocatedBytes(snapshot, geometry));
    BlockFeed feed(snapshot, geometry, progress);
    AllocatedWalk walk(snapshot, geometry);
    std::optional<ChainBlock> known = chain.Next();
    // What was never written reads as zeros: where the chain says otherwise, it is told so.
    const auto zeroUpTo = [&](std::uint64_t limit) {
        for (; known && known->block < limit; known = chain.Next()) {
            if (!known->zero)
                writer.AddZeroBlock(known->block);
        }
    };
    while (const std::optional<BlockRun> run = walk.Next()) {
        feed.Run(*run, [&](std::uint64_t block, const unsigned char* bytes, std::uint32_t length) {
            zeroUpTo(block);
            const bool zero = IsZero(bytes, length);
            const bool hasRecord = known && known->block == block;
            const bool wasZero = !hasRecord || known->zero;
            if (zero) {
                if (!wasZero)
                    writer.AddZeroBlock(block);
            } else {
                const Checksum checksum = ChecksumOf(bytes, length);
                if (wasZero || known->length != length || known->checksum != checksum)
                    writer.AddBlock(block, bytes, length, checksum);
            }
            if (hasRecord)
                known = chain.Next();
        });
    }
    zeroUpTo(geometry.Blocks());
    return feed.BytesRead();
}

std::uint64_t CopyChanged(const Volume& snapshot, Geometry geometry, const ChangeMap& changes, BackupWriter& writer)
{
    const std::uint64_t blocks = geometry.Blocks();
    Progress progress("incremental", changes.CountBelow(blocks) * geometry.blockSize);
    BlockFeed feed(snapshot, geometry, progress);
    for (std::optional<BlockRun> run = changes.NextRun(0, blocks); run; run = changes.NextRun(run->end, blocks)) {
        feed.Run(*run, [&](std::uint64_t block, const unsigned char* bytes, std::uint32_t length) {
            if (IsZero(bytes, length))
                writer.AddZeroBlock(block);
            else
                writer.AddBlock(block, bytes, length, ChecksumOf(bytes, length));
        });
    }
    return feed.BytesRead();
}

} // namespace vtbackup
