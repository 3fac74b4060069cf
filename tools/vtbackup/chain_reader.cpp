#include "chain_reader.h"

#include "failure.h"
#include "text.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

namespace vtbackup {
namespace {

constexpr std::size_t BUFFER_RECORDS = 1024;

} // namespace

IndexReader::IndexReader(const Chain& chain, const Manifest& manifest)
    : m_file(chain.IndexPath(manifest.sequence)), m_geometry(manifest.geometry)
{
    constexpr std::uint64_t FRAME = INDEX_HEADER_BYTES + INDEX_FOOTER_BYTES;
    const std::uint64_t length = m_file.Length();
    if (length != manifest.indexLength || length < FRAME || (length - FRAME) % INDEX_RECORD_BYTES != 0)
        Damaged("its length is wrong");
    std::array<unsigned char, INDEX_HEADER_BYTES> headerBytes = {};
    std::array<unsigned char, INDEX_FOOTER_BYTES> footerBytes = {};
    if (!m_file.ReadAt(0, headerBytes.data(), headerBytes.size()) ||
        !m_file.ReadAt(length - INDEX_FOOTER_BYTES, footerBytes.data(), footerBytes.size()))
        Damaged("it became shorter");
    IndexHeader header;
    if (!Decode(headerBytes, header))
        Damaged("it is of an unknown format");
    const IndexFooter footer = DecodeFooter(footerBytes);
    if (header.blockSize != m_geometry.blockSize || header.volumeLength != m_geometry.length ||
        footer.recordCount != (length - FRAME) / INDEX_RECORD_BYTES || footer.dataLength != manifest.dataLength ||
        ToHex(footer.checksum) != manifest.indexChecksum)
        Damaged("it contradicts the manifest");
    m_dataLength = footer.dataLength;
    m_records = footer.recordCount;
    CheckWhole(headerBytes, footerBytes);
    Rewind();
    if (m_left > 0)
        Load();
}

void IndexReader::CheckWhole(const std::array<unsigned char, INDEX_HEADER_BYTES>& header,
                             const std::array<unsigned char, INDEX_FOOTER_BYTES>& footer)
{
    RunningChecksum checksum;
    checksum.Add(header.data(), header.size());
    const char* problem = nullptr;
    for (Rewind(); m_left > 0; --m_left) {
        if (m_place == m_buffer.size()) {
            Fill();
            checksum.Add(m_buffer.data(), m_buffer.size());
        }
        const char* const found = Take();
        problem = problem != nullptr ? problem : found;
    }
    const IndexFooter expected = DecodeFooter(footer);
    checksum.Add(footer.data(), footer.size() - expected.checksum.size());
    if (checksum.Value() != expected.checksum)
        Damaged("its checksum does not match");
    if (problem != nullptr)
        Damaged(problem);
    if (m_nextData != m_dataLength)
        Damaged("it does not cover its data");
}

void IndexReader::Rewind()
{
    m_left = m_records;
    m_offset = INDEX_HEADER_BYTES;
    m_nextData = 0;
    m_buffer.clear();
    m_place = 0;
    m_first = true;
}

void IndexReader::Fill()
{
    const auto records = static_cast<std::size_t>(std::min<std::uint64_t>(m_left, BUFFER_RECORDS));
    m_buffer.resize(records * INDEX_RECORD_BYTES);
    if (!m_file.ReadAt(m_offset, m_buffer.data(), m_buffer.size()))
        Damaged("it became shorter");
    m_offset += m_buffer.size();
    m_place = 0;
}

const char* IndexReader::Take()
{
    const IndexRecord record = DecodeRecord(m_buffer.data() + m_place);
    m_place += INDEX_RECORD_BYTES;
    if (record.block >= m_geometry.Blocks() || (!m_first && record.block <= m_front.block))
        return "its blocks are out of order";
    if (!record.Zero()) {
        const std::uint64_t length = m_geometry.BytesOf(record.block);
        if (record.offset != m_nextData || length > m_dataLength - m_nextData)
            return "its offsets make no sense";
        m_nextData += length;
    }
    m_first = false;
    m_front = record;
    return nullptr;
}

void IndexReader::Load()
{
    if (m_place == m_buffer.size())
        Fill();
    if (const char* const problem = Take())
        Damaged(problem);
}

void IndexReader::Pop()
{
    if (--m_left > 0)
        Load();
}

void IndexReader::Damaged(const char* what) const
{
    throw Failure(Exit::Damaged, fmt::format("{} is damaged: {}", ToUtf8(m_file.Path()), what));
}

ChainReader::ChainReader(const Chain& chain, std::vector<Manifest> path) : m_chain(chain), m_path(std::move(path))
{
    for (const Manifest& manifest : m_path) {
        const std::wstring index = m_chain.IndexPath(manifest.sequence);
        const std::wstring data = m_chain.DataPath(manifest.sequence);
        for (const std::wstring& file : {index, data}) {
            if (!FileExists(file))
                throw Failure(Exit::Damaged, fmt::format("{} is missing", ToUtf8(file)));
        }
        m_indexes.push_back(std::make_unique<IndexReader>(m_chain, manifest));
        m_data.push_back(std::make_unique<FileReader>(data));
        if (m_data.back()->Length() != manifest.dataLength)
            throw Failure(Exit::Damaged, fmt::format("{} is damaged: its length is wrong", ToUtf8(data)));
    }
    // A volume that shrank and grew again holds nothing of what lay behind its shortest length.
    m_limits.assign(m_path.size(), 0);
    std::uint64_t limit = std::numeric_limits<std::uint64_t>::max();
    for (std::size_t i = m_path.size(); i-- > 0;) {
        limit = std::min(limit, m_path[i].geometry.Blocks());
        m_limits[i] = limit;
        Queue(i);
    }
}

// The smallest block is on top; of equal blocks, the newest member's.
bool ChainReader::Later(const Waiting& a, const Waiting& b) noexcept
{
    return a.block != b.block ? a.block > b.block : a.member < b.member;
}

void ChainReader::Queue(std::size_t member)
{
    if (m_indexes[member]->Empty())
        return;
    m_waiting.push_back({m_indexes[member]->Front().block, member});
    std::push_heap(m_waiting.begin(), m_waiting.end(), Later);
}

ChainReader::Waiting ChainReader::Take()
{
    std::pop_heap(m_waiting.begin(), m_waiting.end(), Later);
    const Waiting top = m_waiting.back();
    m_waiting.pop_back();
    return top;
}

std::optional<ChainBlock> ChainReader::Next()
{
    while (!m_waiting.empty()) {
        const Waiting newest = Take();
        const IndexRecord record = m_indexes[newest.member]->Front();
        m_indexes[newest.member]->Pop();
        Queue(newest.member);
        while (!m_waiting.empty() && m_waiting.front().block == newest.block) {
            const std::size_t older = Take().member;
            m_indexes[older]->Pop();
            Queue(older);
        }
        if (newest.block >= m_limits[newest.member])
            continue;
        return ChainBlock{newest.block,  newest.member,
                          record.offset, m_path[newest.member].geometry.BytesOf(newest.block),
                          record.Zero(), record.checksum};
    }
    return std::nullopt;
}

void ChainReader::RequireLength(const ChainBlock& block) const
{
    if (!block.zero && block.length != Last().geometry.BytesOf(block.block))
        throw Failure(Exit::Damaged, fmt::format("the chain is damaged: block {} has a wrong length", block.block));
}

void ChainReader::Read(const ChainBlock& block, void* out)
{
    FileReader& file = *m_data[block.member];
    if (!file.ReadAt(block.offset, out, block.length) || ChecksumOf(out, block.length) != block.checksum)
        throw Failure(Exit::Damaged, fmt::format("{} is damaged: block {} does not match its checksum",
                                                 ToUtf8(file.Path()), block.block));
}

} // namespace vtbackup
