// The files of vtbackup's repository, damaged and whole.
#include "vtbackup/chain_reader.h"
#include "vtbackup/failure.h"
#include "vtbackup/index_format.h"
#include "vtbackup/manifest.h"

#include "fuzz/fuzz.h"
#include "fuzz/system.h"

#include <algorithm>
#include <map>
#include <optional>

namespace fuzz {

namespace {

using namespace vtbackup;

const Chain& TheChain()
{
    static const Chain chain(L"chain", "App", {L"{volume}"});
    return chain;
}

template <std::size_t N>
void Append(FileBytes& to, const std::array<unsigned char, N>& bytes)
{
    to.insert(to.end(), bytes.begin(), bytes.end());
}

void CheckEncodings(Input input)
{
    IndexHeader header = {input.Take<std::uint32_t>(), input.Take<std::uint64_t>()};
    IndexHeader back;
    FUZZ_HOLDS(Decode(Encode(header), back));
    FUZZ_HOLDS(back.blockSize == header.blockSize && back.volumeLength == header.volumeLength);
    const IndexRecord record = {input.Take<std::uint64_t>(), input.Take<std::uint64_t>(), input.Take<Checksum>()};
    const IndexRecord read = DecodeRecord(Encode(record).data());
    FUZZ_HOLDS(read.block == record.block && read.offset == record.offset && read.checksum == record.checksum);
    const IndexFooter footer = {input.Take<std::uint64_t>(), input.Take<std::uint64_t>(), input.Take<Checksum>()};
    const IndexFooter end = DecodeFooter(Encode(footer));
    FUZZ_HOLDS(end.recordCount == footer.recordCount && end.dataLength == footer.dataLength);
    FUZZ_HOLDS(end.checksum == footer.checksum);
}

// One backup of the chain, and what it says of blocks: a value for each, 0 for a block of zeros.
struct Member {
    Manifest manifest;
    std::map<std::uint64_t, std::uint8_t> blocks;
    FileBytes data; // as it was written, as the next one
    FileBytes index;
    FileBytes accepted; // the index that the checksum in the manifest is of
};

Member PutMember(Input& input, std::uint64_t sequence, std::uint32_t blockSize)
{
    Member member;
    Manifest& manifest = member.manifest;
    manifest.sequence = sequence;
    manifest.geometry = {1 + std::uint64_t{input.Byte()} * 3, blockSize};
    for (std::size_t i = input.Byte() % 8; i > 0; --i)
        member.blocks[input.Byte()] = input.Byte() % 4;
    std::erase_if(member.blocks, [&](const auto& one) { return one.first >= manifest.geometry.Blocks(); });

    FileBytes& data = TheSystem().files[TheChain().DataPath(sequence)];
    FileBytes& index = TheSystem().files[TheChain().IndexPath(sequence)];
    Append(index, Encode(IndexHeader{blockSize, manifest.geometry.length}));
    for (const auto& [block, value] : member.blocks) {
        IndexRecord record = {block, ZERO_BLOCK, {}};
        if (value != 0) {
            const FileBytes contents(manifest.geometry.BytesOf(block), value);
            record.offset = data.size();
            record.checksum = ChecksumOf(contents.data(), contents.size());
            data.insert(data.end(), contents.begin(), contents.end());
        }
        Append(index, Encode(record));
    }
    IndexFooter footer = {member.blocks.size(), data.size(), {}};
    const auto bare = Encode(footer);
    FileBytes covered = index;
    covered.insert(covered.end(), bare.begin(), bare.begin() + 16);
    footer.checksum = ChecksumOf(covered.data(), covered.size());
    Append(index, Encode(footer));
    manifest.dataLength = data.size();
    manifest.indexLength = index.size();
    manifest.indexChecksum = ToHex(footer.checksum);
    member.data = data;
    member.index = index;
    member.accepted = index;
    return member;
}

// What the chain says of each block, by the rule of the format: the newest record counts, and only for blocks that
// exist in every backup from its own to the last.
std::map<std::uint64_t, std::uint8_t> Contents(const std::vector<Member>& members)
{
    std::map<std::uint64_t, std::uint8_t> contents;
    for (const Member& member : members) {
        for (const auto& [block, value] : member.blocks)
            contents[block] = value;
        std::erase_if(contents, [&](const auto& one) { return one.first >= member.manifest.geometry.Blocks(); });
    }
    return contents;
}

void ChangeBytes(Input& input, FileBytes& bytes)
{
    for (std::size_t changes = 1 + input.Byte() % 3; changes > 0; --changes)
        bytes[input.Take<std::uint16_t>() % bytes.size()] ^= static_cast<std::uint8_t>(1 + input.Byte() % 255);
}

std::uint64_t NumberAt(const FileBytes& bytes, std::size_t at)
{
    std::uint64_t number = 0;
    std::memcpy(&number, bytes.data() + at, sizeof(number));
    return number;
}

// Gives some byte of some index another value, and makes its checksum right again when asked: the checks behind the
// checksum are to be reached, too. The index then says what it says by a plain reading of its bytes.
void DamageIndex(Input& input, std::vector<Member>& members)
{
    Member& member = members[input.Byte() % members.size()];
    FileBytes& index = TheSystem().files[TheChain().IndexPath(member.manifest.sequence)];
    ChangeBytes(input, index);
    if (input.Flag()) {
        const Checksum checksum = ChecksumOf(index.data(), index.size() - 16);
        std::copy(checksum.begin(), checksum.end(), index.end() - 16);
        member.manifest.indexChecksum = ToHex(checksum);
        member.accepted = index;
        member.blocks.clear();
        for (std::size_t at = INDEX_HEADER_BYTES; at < index.size() - INDEX_FOOTER_BYTES; at += INDEX_RECORD_BYTES) {
            const std::uint64_t offset = NumberAt(index, at + 8);
            member.blocks[NumberAt(index, at)] = offset < member.data.size() ? member.data[offset] : 0;
        }
    }
    if (input.Flag())
        member.manifest.dataLength = input.Byte();
    if (input.Flag())
        index.resize(index.size() - std::min<std::size_t>(index.size(), input.Byte()));
}

// Gives some byte of some data file another value, or the file another length.
void DamageData(Input& input, std::vector<Member>& members)
{
    FileBytes& data = TheSystem().files[TheChain().DataPath(members[input.Byte() % members.size()].manifest.sequence)];
    if (!data.empty())
        ChangeBytes(input, data);
    if (input.Byte() % 8 == 7)
        data.resize(input.Byte());
}

// Whether a backup's files fit each other by the rules of the format, the contents of its blocks aside.
bool IsSound(const Member& member)
{
    const Geometry& geometry = member.manifest.geometry;
    const FileBytes& index = member.accepted;
    const std::size_t footer = index.size() - INDEX_FOOTER_BYTES;
    const std::uint64_t dataLength = TheSystem().files[TheChain().DataPath(member.manifest.sequence)].size();
    if (TheSystem().files[TheChain().IndexPath(member.manifest.sequence)] != index ||
        !std::equal(index.begin(), index.begin() + INDEX_HEADER_BYTES, member.index.begin()) ||
        NumberAt(index, footer) != (footer - INDEX_HEADER_BYTES) / INDEX_RECORD_BYTES ||
        NumberAt(index, footer + 8) != dataLength || member.manifest.dataLength != dataLength)
        return false;
    std::uint64_t nextBlock = 0;
    std::uint64_t nextData = 0;
    for (std::size_t at = INDEX_HEADER_BYTES; at < footer; at += INDEX_RECORD_BYTES) {
        const std::uint64_t block = NumberAt(index, at);
        const std::uint64_t offset = NumberAt(index, at + 8);
        if (block < nextBlock || block > (geometry.length - 1) / geometry.blockSize)
            return false;
        nextBlock = block + 1;
        if (offset == ZERO_BLOCK)
            continue;
        if (offset != nextData)
            return false;
        nextData += std::min<std::uint64_t>(geometry.blockSize, geometry.length - block * geometry.blockSize);
    }
    return nextData == dataLength;
}

// The value that all of a block's bytes have. A block with bytes that nobody wrote is reported, and given out by nobody;
// then it is what the index says of it.
std::uint8_t ReadBlock(ChainReader& reader, const Member& member, const ChainBlock& block)
{
    if (block.zero)
        return 0;
    const FileBytes& data = TheSystem().files[TheChain().DataPath(member.manifest.sequence)];
    FUZZ_HOLDS(block.offset <= data.size() && block.length <= data.size() - block.offset);
    const auto bytesIn = [&](const FileBytes& file) {
        const std::size_t begin = std::min<std::size_t>(block.offset, file.size());
        const std::size_t end = std::min<std::size_t>(begin + block.length, file.size());
        return FileBytes(file.begin() + static_cast<std::ptrdiff_t>(begin),
                         file.begin() + static_cast<std::ptrdiff_t>(end));
    };
    const FileBytes written = bytesIn(member.data);
    const bool isAsWritten = bytesIn(data) == written;
    FileBytes contents(block.length);
    try {
        reader.Read(block, contents.data());
        FUZZ_HOLDS(isAsWritten && contents == written);
        FUZZ_HOLDS(std::count(contents.begin(), contents.end(), contents[0]) == block.length);
    } catch (const Failure& failure) {
        // An index that was made right again may have the checksum of other bytes.
        FUZZ_HOLDS(failure.Code() == Exit::Damaged && (!isAsWritten || member.accepted != member.index));
    }
    return written.empty() ? 0 : written[0];
}

// A block that was stored short when the volume ended in it, and not again when the volume had grown, is not whole.
void CheckRequiredLength(const ChainReader& reader, const ChainBlock& block)
{
    const Geometry& last = reader.Last().geometry;
    const std::uint64_t length = std::min<std::uint64_t>(last.blockSize, last.length - block.block * last.blockSize);
    bool isWhole = true;
    try {
        reader.RequireLength(block);
    } catch (const Failure& failure) {
        FUZZ_HOLDS(failure.Code() == Exit::Damaged);
        isWhole = false;
    }
    FUZZ_HOLDS(isWhole == (block.zero || block.length == length));
}

void ReadChain(const std::vector<Member>& members)
{
    const bool isSound = std::all_of(members.begin(), members.end(), IsSound);
    std::vector<Manifest> path;
    for (const Member& member : members)
        path.push_back(member.manifest);
    std::optional<ChainReader> reader;
    try {
        reader.emplace(TheChain(), path);
    } catch (const Failure& failure) {
        FUZZ_HOLDS(!isSound && failure.Code() == Exit::Damaged);
        return;
    }
    FUZZ_HOLDS(isSound);
    std::map<std::uint64_t, std::uint8_t> read;
    std::uint64_t next = 0;
    while (const auto block = reader->Next()) {
        FUZZ_HOLDS(block->block >= next && block->block < reader->Last().geometry.Blocks());
        FUZZ_HOLDS(block->length > 0 && block->length <= path[block->member].geometry.blockSize);
        next = block->block + 1;
        CheckRequiredLength(*reader, *block);
        read[block->block] = ReadBlock(*reader, members[block->member], *block);
    }
    FUZZ_HOLDS(read == Contents(members));
}

bool IsSame(const Manifest& a, const Manifest& b)
{
    return ToJson(a) == ToJson(b);
}

bool IsSameAudit(const std::optional<AuditCounts>& a, const std::optional<AuditCounts>& b)
{
    return a.has_value() == b.has_value() &&
           (!a || (a->requested == b->requested && a->clean == b->clean && a->compared == b->compared &&
                   a->written == b->written && a->problem == b->problem));
}

std::string NarrowText(Input& input)
{
    const std::vector<std::uint8_t> bytes = input.Bytes(input.Byte() % 20);
    std::string text(bytes.begin(), bytes.end());
    // Text is UTF-8 everywhere in a manifest.
    for (char& byte : text)
        byte = static_cast<char>(byte & 0x7F);
    return text;
}

void CheckStored(Input& input)
{
    Manifest m;
    m.sequence = 1 + input.Take<std::uint16_t>();
    m.kind = static_cast<Kind>(input.Byte() % 3);
    m.base = m.kind == Kind::Full ? m.sequence : 1 + input.Byte();
    m.parent = m.kind == Kind::Full ? 0 : input.Take<std::uint16_t>();
    m.parentChecksum = NarrowText(input);
    m.application = NarrowText(input);
    m.volume = NarrowText(input);
    m.time = NarrowText(input);
    for (std::size_t i = input.Byte() % 4; i > 0; --i)
        m.reasons.push_back({NarrowText(input), NarrowText(input)});
    for (std::size_t i = input.Byte() % 4; i > 0; --i)
        m.next.push_back({NarrowText(input), NarrowText(input)});
    m.reportable = input.Flag();
    m.geometry = {input.Take<std::uint64_t>(), input.Take<std::uint32_t>()};
    m.blocksReported = input.Take<std::uint64_t>();
    m.blocksStored = input.Take<std::uint64_t>();
    m.blocksZero = input.Take<std::uint64_t>();
    m.bytesRead = input.Take<std::uint64_t>();
    m.dataLength = input.Take<std::uint64_t>();
    m.indexLength = input.Take<std::uint64_t>();
    m.indexChecksum = NarrowText(input);
    if (input.Flag())
        m.audit = AuditCounts{input.Byte(), input.Take<std::uint64_t>(), input.Byte(), input.Byte(), NarrowText(input)};
    for (std::size_t i = input.Byte() % 3; i > 0; --i)
        m.answered.push_back({input.Take<std::uint64_t>(), NarrowText(input)});
    const bool isInChain = m.kind == Kind::Full || (m.base < m.sequence && m.parent >= m.base && m.parent < m.sequence);
    const bool isPossible = m.geometry.length != 0 && m.geometry.length <= (1ULL << 62) && m.geometry.blockSize != 0 &&
                            m.geometry.blockSize <= MAX_BLOCK_SIZE;
    const std::string text = FormatManifest(m);
    try {
        const Manifest read = ParseManifest(text, "manifest.json");
        FUZZ_HOLDS(isInChain && isPossible && IsSame(read, m) && read.checksum == m.checksum);
        // What answers a loss of tracking, by itself: IsSame compares what is written.
        FUZZ_HOLDS(IsSameAudit(read.audit, m.audit) && read.answered == m.answered);
    } catch (const Failure& failure) {
        FUZZ_HOLDS(failure.Code() == Exit::Damaged && !(isInChain && isPossible));
    }
}

void CheckText(const std::string& text)
{
    try {
        Manifest read = ParseManifest(text, "manifest.json");
        FUZZ_HOLDS(read.geometry.blockSize != 0 && read.geometry.length != 0);
        FUZZ_HOLDS(IsSame(ParseManifest(FormatManifest(read), "again"), read));
    } catch (const Failure& failure) {
        FUZZ_HOLDS(failure.Code() == Exit::Damaged);
        // What is said of damaged bytes can itself be stored.
        FUZZ_HOLDS(std::none_of(failure.what(), failure.what() + std::strlen(failure.what()),
                                [](char byte) { return static_cast<unsigned char>(byte) >= 0x80; }));
    }
}

// A text that has the outer shape, with the right checksum, whatever stands inside.
std::optional<std::string> Wrapped(const std::string& inner)
{
    const auto object = nlohmann::json::parse(inner, nullptr, false);
    if (object.is_discarded())
        return std::nullopt;
    const std::string compact = object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    const std::string checksum = ToHex(ChecksumOf(compact.data(), compact.size()));
    return "{\"manifest\":" + inner + ",\"checksum\":\"" + checksum + "\"}";
}

} // namespace

void IndexFile(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    CheckEncodings(input);
    TheSystem() = {};
    const std::uint8_t damage = input.Byte() % 8; // 0 and 4: the index, 2 and 4: the data
    const std::uint32_t blockSize = 1 + input.Byte() % 16;
    std::vector<Member> members;
    const std::size_t memberCount = 1 + input.Byte() % 3;
    for (std::uint64_t sequence = 1; sequence <= memberCount; ++sequence)
        members.push_back(PutMember(input, sequence, blockSize));
    if (damage == 0 || damage == 4)
        DamageIndex(input, members);
    if (damage == 2 || damage == 4)
        DamageData(input, members);
    ReadChain(members);
}

void ManifestFile(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    const std::uint8_t mode = input.Byte() % 3;
    if (mode == 0)
        return CheckStored(input);
    const std::vector<std::uint8_t> rest = input.Bytes(4000);
    const std::string text(rest.begin(), rest.end());
    // A parser that recurses is not asked for more depth than the reader itself allows.
    if (mode == 1)
        return CheckText(text);
    if (std::count(text.begin(), text.end(), '[') + std::count(text.begin(), text.end(), '{') > 100)
        return;
    if (const auto wrapped = Wrapped(text))
        CheckText(*wrapped);
}

} // namespace fuzz
