#include "writer.h"

#include "failure.h"
#include "text.h"

#include <fmt/format.h>

namespace vtbackup {
namespace {

const Chain& WithFolder(const Chain& chain, std::uint64_t sequence)
{
    chain.Create();
    // A folder that appeared meanwhile belongs to somebody else's backup, which must not be overwritten.
    MakeNewFolder(chain.BackupFolder(sequence));
    return chain;
}

} // namespace

BackupWriter::BackupWriter(const Chain& chain, std::uint64_t sequence, Geometry geometry)
    : m_chain(WithFolder(chain, sequence)), m_sequence(sequence), m_data(chain.DataPath(sequence)),
      m_index(chain.IndexPath(sequence))
{
    const auto header = Encode(IndexHeader{geometry.blockSize, geometry.length});
    m_index.Write(header.data(), header.size());
    m_indexChecksum.Add(header.data(), header.size());
}

void BackupWriter::AddRecord(const IndexRecord& record)
{
    const auto bytes = Encode(record);
    m_index.Write(bytes.data(), bytes.size());
    m_indexChecksum.Add(bytes.data(), bytes.size());
    ++m_records;
}

void BackupWriter::AddBlock(std::uint64_t block, const void* bytes, std::size_t length, const Checksum& checksum)
{
    AddRecord({block, m_data.Length(), checksum});
    m_data.Write(bytes, length);
}

void BackupWriter::AddZeroBlock(std::uint64_t block)
{
    AddRecord({block, ZERO_BLOCK, {}});
    ++m_zero;
}

void BackupWriter::Finish(Manifest& manifest)
{
    IndexFooter footer;
    footer.recordCount = m_records;
    footer.dataLength = m_data.Length();
    const auto counts = Encode(footer);
    m_indexChecksum.Add(counts.data(), 16);
    footer.checksum = m_indexChecksum.Value();
    const auto bytes = Encode(footer);
    m_index.Write(bytes.data(), bytes.size());

    // Before anything else can refer to them, both files are on the disk.
    m_data.Flush();
    m_index.Flush();

    manifest.blocksStored = m_records - m_zero;
    manifest.blocksZero = m_zero;
    manifest.dataLength = m_data.Length();
    manifest.indexLength = m_index.Length();
    manifest.indexChecksum = ToHex(footer.checksum);
    m_manifest = FormatManifest(manifest);
    // What its own reader would refuse must not become a backup whose success is then reported.
    const std::string path = ToUtf8(m_chain.ManifestPath(m_sequence));
    if (m_manifest.size() > MANIFEST_LIMIT || ParseManifest(m_manifest, path).checksum != manifest.checksum)
        throw Failure(Exit::Internal, fmt::format("{} would not be readable", path));
}

void BackupWriter::Commit()
{
    WriteSmallFileDurably(m_chain.ManifestPath(m_sequence), m_manifest);
}

} // namespace vtbackup
