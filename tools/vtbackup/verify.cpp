#include "verify.h"

#include "chain_reader.h"
#include "failure.h"
#include "interrupt.h"
#include "progress.h"
#include "text.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtbackup {
namespace {

// Reads every block that one backup stores.
void CheckBlocks(const Chain& chain, const Manifest& manifest, Progress& progress, ChainCheck& check)
{
    IndexReader index(chain, manifest);
    FileReader data(chain.DataPath(manifest.sequence));
    if (data.Length() != manifest.dataLength)
        throw Failure(Exit::Damaged, fmt::format("{} is damaged: its length is wrong", ToUtf8(data.Path())));
    std::vector<unsigned char> buffer(manifest.geometry.blockSize);
    for (; !index.Empty(); index.Pop()) {
        StopIfInterrupted();
        const IndexRecord& record = index.Front();
        if (record.Zero())
            continue;
        const std::uint32_t length = manifest.geometry.BytesOf(record.block);
        if (!data.ReadAt(record.offset, buffer.data(), length) || ChecksumOf(buffer.data(), length) != record.checksum)
            throw Failure(Exit::Damaged, fmt::format("{} is damaged: block {} does not match its checksum",
                                                     ToUtf8(data.Path()), record.block));
        ++check.blocks;
        check.bytes += length;
        progress.Add(length);
    }
}

} // namespace

bool ChainCheck::Good() const noexcept
{
    return std::all_of(backups.begin(), backups.end(), [](const CheckedBackup& b) { return b.problem.empty(); });
}

std::string LinkProblem(const Chain& chain, const std::map<std::uint64_t, Manifest>& whole, const Manifest& manifest)
{
    if (manifest.kind == Kind::Full)
        return {};
    const auto parent = whole.find(manifest.parent);
    if (parent == whole.end())
        return fmt::format("it builds on backup {}, which is missing or damaged", manifest.parent);
    if (parent->second.checksum != manifest.parentChecksum || parent->second.base != manifest.base ||
        parent->second.geometry.blockSize != manifest.geometry.blockSize)
        return fmt::format("it was made on another backup {}", manifest.parent);
    // With the parent's length every block is as long as it is there, or was stored with this backup.
    if (parent->second.geometry.length != manifest.geometry.length) {
        ChainReader reader(chain, chain.PathTo(manifest.sequence));
        while (const std::optional<ChainBlock> block = reader.Next()) {
            StopIfInterrupted();
            reader.RequireLength(*block);
        }
    }
    return {};
}

ChainCheck CheckChain(const Chain& chain)
{
    ChainCheck check;
    std::map<std::uint64_t, Manifest> whole; // those that can be restored
    for (const std::uint64_t sequence : chain.Folders()) {
        CheckedBackup backup{sequence, {}};
        try {
            const Manifest manifest = chain.ReadManifest(sequence);
            Progress progress(fmt::format("verify {}", sequence), manifest.dataLength);
            CheckBlocks(chain, manifest, progress, check);
            backup.problem = LinkProblem(chain, whole, manifest);
            if (backup.problem.empty())
                whole.emplace(sequence, manifest);
        } catch (const Failure& failure) {
            if (failure.Code() == Exit::Interrupted)
                throw;
            if (failure.Code() == Exit::NotFound)
                continue; // what an ended run left
            backup.problem = failure.what();
        }
        check.backups.push_back(std::move(backup));
    }
    return check;
}

} // namespace vtbackup
