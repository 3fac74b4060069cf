#include "index_format.h"

#include <algorithm>
#include <cstring>

namespace vtbackup {
namespace {

constexpr char MAGIC[8] = {'V', 'T', 'B', 'K', 'I', 'D', 'X', '1'};

template <class T>
void Put(unsigned char* place, T value)
{
    for (std::size_t i = 0; i < sizeof(T); ++i)
        place[i] = static_cast<unsigned char>(value >> (8 * i));
}

template <class T>
T Get(const unsigned char* place)
{
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
        value |= static_cast<T>(static_cast<T>(place[i]) << (8 * i));
    return value;
}

} // namespace

std::array<unsigned char, INDEX_HEADER_BYTES> Encode(const IndexHeader& header)
{
    std::array<unsigned char, INDEX_HEADER_BYTES> out = {};
    std::memcpy(out.data(), MAGIC, sizeof(MAGIC));
    Put(out.data() + 8, INDEX_VERSION);
    Put(out.data() + 12, header.blockSize);
    Put(out.data() + 16, header.volumeLength);
    return out;
}

std::array<unsigned char, INDEX_RECORD_BYTES> Encode(const IndexRecord& record)
{
    std::array<unsigned char, INDEX_RECORD_BYTES> out = {};
    Put(out.data(), record.block);
    Put(out.data() + 8, record.offset);
    std::copy(record.checksum.begin(), record.checksum.end(), out.begin() + 16);
    return out;
}

std::array<unsigned char, INDEX_FOOTER_BYTES> Encode(const IndexFooter& footer)
{
    std::array<unsigned char, INDEX_FOOTER_BYTES> out = {};
    Put(out.data(), footer.recordCount);
    Put(out.data() + 8, footer.dataLength);
    std::copy(footer.checksum.begin(), footer.checksum.end(), out.begin() + 16);
    return out;
}

bool Decode(const std::array<unsigned char, INDEX_HEADER_BYTES>& bytes, IndexHeader& header)
{
    if (std::memcmp(bytes.data(), MAGIC, sizeof(MAGIC)) != 0 || Get<std::uint32_t>(bytes.data() + 8) != INDEX_VERSION)
        return false;
    header.blockSize = Get<std::uint32_t>(bytes.data() + 12);
    header.volumeLength = Get<std::uint64_t>(bytes.data() + 16);
    return true;
}

IndexRecord DecodeRecord(const unsigned char* bytes)
{
    IndexRecord record;
    record.block = Get<std::uint64_t>(bytes);
    record.offset = Get<std::uint64_t>(bytes + 8);
    std::copy_n(bytes + 16, record.checksum.size(), record.checksum.begin());
    return record;
}

IndexFooter DecodeFooter(const std::array<unsigned char, INDEX_FOOTER_BYTES>& bytes)
{
    IndexFooter footer;
    footer.recordCount = Get<std::uint64_t>(bytes.data());
    footer.dataLength = Get<std::uint64_t>(bytes.data() + 8);
    std::copy_n(bytes.data() + 16, footer.checksum.size(), footer.checksum.begin());
    return footer;
}

} // namespace vtbackup
