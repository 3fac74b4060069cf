#include "copy.h"

#include "interrupt.h"
#include "progress.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace vtbackup {
namespace {

constexpr std::uint64_t READ_BYTES = 1024 * 1024;

bool IsZero(const unsigned char* bytes, std::size_t length)
{
    return length == 0 || (bytes[0] == 0 && std::memcmp(bytes, bytes + 1, length - 1) == 0);
}

// Reads runs of blocks in large pieces and hands them on one by one.
class BlockFeed {
public:
    BlockFeed(const Volume& device, Geometry geometry, Progress& progress)
        : m_device(device), m_geometry(geometry), m_progress(progress),
          m_perRead(std::max<std::uint64_t>(1, READ_BYTES / geometry.blockSize)),
          m_buffer(static_cast<std::size_t>(m_perRead * geometry.blockSize))
    {
    }

    template <class Visit> // (block, bytes, length)
    void Run(BlockRun run, Visit visit)
    {
        run.end = std::min(run.end, m_geometry.Blocks());
        for (std::uint64_t first = run.begin; first < run.end; first += m_perRead) {
            StopIfInterrupted();
            const std::uint64_t last = std::min(run.end, first + m_perRead) - 1;
            const auto bytes =
                static_cast<std::uint32_t>((last - first) * m_geometry.blockSize + m_geometry.BytesOf(last));
            m_device.ReadAt(first * m_geometry.blockSize, m_buffer.data(), bytes);
            m_bytesRead += bytes;
            for (std::uint64_t block = first; block <= last; ++block)
                visit(block, m_buffer.data() + (block - first) * m_geometry.blockSize, m_geometry.BytesOf(block));
            m_progress.Add(bytes);
        }
    }

    [[nodiscard]] std::uint64_t BytesRead() const noexcept { return m_bytesRead; }

private:
    const Volume& m_device;
    Geometry m_geometry;
    Progress& m_progress;
    std::uint64_t m_perRead;
    std::vector<unsigned char> m_buffer;
    std::uint64_t m_bytesRead = 0;
};

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
