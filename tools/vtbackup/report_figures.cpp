#include "report_figures.h"

#include "audit_output.h"
#include "chain_reader.h"
#include "failure.h"
#include "interrupt.h"
#include "progress.h"
#include "report/content_map.h"
#include "text.h"
#include "verify.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

namespace vtbackup {
namespace {

constexpr std::size_t MOST_RANGES = 64;

using Manifests = std::map<std::uint64_t, Manifest>;

ReportKind KindOf(Kind kind) noexcept
{
    switch (kind) {
    case Kind::Full:
        return ReportKind::Full;
    case Kind::Verify:
        return ReportKind::Verify;
    case Kind::Incremental:
        break;
    }
    return ReportKind::Incremental;
}

void Describe(ReportBackup& backup, const Manifest& manifest)
{
    backup.described = true;
    backup.kind = KindOf(manifest.kind);
    backup.time = manifest.time;
    backup.reasons = manifest.reasons;
    backup.next = manifest.next;
    if (manifest.audit)
        backup.audit = AuditText(manifest);
    backup.volumeLength = manifest.geometry.length;
    backup.blockSize = manifest.geometry.blockSize;
    backup.blocksReported = manifest.blocksReported;
    backup.blocksStored = manifest.blocksStored;
    backup.blocksZero = manifest.blocksZero;
    backup.bytesRead = manifest.bytesRead;
    backup.bytesStored = manifest.dataLength;
}

ReportBackup ReadBackup(const Chain& chain, std::uint64_t sequence, Manifests& manifests)
{
    ReportBackup backup;
    backup.sequence = sequence;
    try {
        const Manifest manifest = chain.ReadManifest(sequence);
        Describe(backup, manifest);
        backup.reported = chain.WasReported(sequence);
        manifests.emplace(sequence, manifest);
    } catch (const Failure& failure) {
        if (failure.Code() == Exit::NotFound)
            backup.unfinished = true;
        else
            backup.problem = failure.what();
    }
    return backup;
}

PlaceScale PlacesOf(const Manifests& manifests)
{
    std::uint64_t length = 0;
    std::uint32_t blockSize = 0;
    for (const auto& [sequence, manifest] : manifests) {
        length = std::max(length, manifest.geometry.length);
        blockSize = std::max(blockSize, manifest.geometry.blockSize);
    }
    return PlaceScale::For(length, blockSize, MOST_RANGES);
}

// Goes over a chain from its first backup to its last, and knows at each which blocks hold data.
class IndexWalk {
public:
    IndexWalk(const Chain& chain, PlaceScale places) : m_chain(chain), m_places(places) {}

    void Visit(const Manifest& manifest, ReportBackup& backup, Progress& progress)
    {
        try {
            Read(manifest, backup, progress);
            backup.problem = LinkProblem(m_chain, m_whole, manifest);
            backup.onlyLinked = !backup.problem.empty();
        } catch (const Failure& failure) {
            if (failure.Code() == Exit::Interrupted)
                throw;
            m_contentOf = 0;
            backup.problem = failure.what();
        }
        if (backup.problem.empty())
            m_whole.emplace(manifest.sequence, manifest);
        else
            backup.fullBytes.reset();
    }

private:
    void Read(const Manifest& manifest, ReportBackup& backup, Progress& progress)
    {
        IndexReader index(m_chain, manifest);
        const FileReader data(m_chain.DataPath(manifest.sequence));
        if (data.Length() != manifest.dataLength)
            throw Failure(Exit::Damaged, fmt::format("{} is damaged: its length is wrong", ToUtf8(data.Path())));
        const bool known = BeginContent(manifest);
        std::vector<std::uint64_t> recorded(m_places.ranges);
        for (; !index.Empty(); index.Pop()) {
            StopIfInterrupted();
            const IndexRecord& record = index.Front();
            ++recorded[m_places.RangeOf(record.block * manifest.geometry.blockSize)];
            if (known)
                m_content.Set(record.block, !record.Zero());
            progress.Add(INDEX_RECORD_BYTES);
        }
        backup.recorded = std::move(recorded);
        m_contentOf = known ? manifest.sequence : 0;
        if (known)
            backup.fullBytes = ContentBytes(manifest.geometry);
    }

    // Whether what the volume held is known, so that this backup's blocks can be laid over it.
    bool BeginContent(const Manifest& manifest)
    {
        if (manifest.kind == Kind::Full) {
            m_content.Clear();
            return true;
        }
        if (m_contentOf != manifest.parent)
            return false;
        m_content.Truncate(manifest.geometry.Blocks());
        return true;
    }

    [[nodiscard]] std::uint64_t ContentBytes(Geometry geometry) const
    {
        const std::uint64_t last = geometry.Blocks() - 1;
        const std::uint64_t missing = m_content.Test(last) ? geometry.blockSize - geometry.BytesOf(last) : 0;
        return m_content.Count() * geometry.blockSize - missing;
    }

    const Chain& m_chain;
    PlaceScale m_places;
    Manifests m_whole; // those that can be restored
    ContentMap m_content;
    std::uint64_t m_contentOf = 0; // the backup that it is of; 0: unknown
};

} // namespace

ReportChain CollectFigures(const Chain& chain)
{
    ReportChain figures;
    figures.application = chain.Application();
    figures.volume = ToUtf8(chain.Volume().guid);
    Manifests manifests;
    for (const std::uint64_t sequence : chain.Folders())
        figures.backups.push_back(ReadBackup(chain, sequence, manifests));
    for (const std::uint64_t sequence : chain.Losses())
        figures.losses.push_back(LossLine(ReadLoss(chain, sequence)));
    figures.places = PlacesOf(manifests);

    std::uint64_t bytes = 0;
    for (const auto& [sequence, manifest] : manifests)
        bytes += manifest.indexLength;
    Progress progress("report", bytes);
    IndexWalk walk(chain, figures.places);
    for (ReportBackup& backup : figures.backups) {
        const auto manifest = manifests.find(backup.sequence);
        if (manifest != manifests.end())
            walk.Visit(manifest->second, backup, progress);
    }
    return figures;
}

} // namespace vtbackup
