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

// Gives some byte of some file another value, and makes its checksum right again when asked: the checks behind the
// checksum are to be reached, too.
void Damage(Input& input, std::vector<Member>& members)
{
    const std::size_t which = input.Byte() % members.size();
    FileBytes& index = TheSystem().files[TheChain().IndexPath(which + 1)];
    for (std::size_t changes = 1 + input.Byte() % 3; changes > 0; --changes)
        index[input.Take<std::uint16_t>() % index.size()] ^= static_cast<std::uint8_t>(1 + input.Byte() % 255);
    if (input.Flag()) {
        const Checksum checksum = ChecksumOf(index.data(), index.size() - 16);
        std::copy(checksum.begin(), checksum.end(), index.end() - 16);
        members[which].manifest.indexChecksum = ToHex(checksum);
    }
    if (input.Flag())
        members[which].manifest.dataLength = input.Byte();
    if (input.Flag())
        index.resize(index.size() - std::min<std::size_t>(index.size(), input.Byte()));
}

void ReadChain(const std::vector<Member>& members, bool isWhole)
{
    std::vector<Manifest> path;
    for (const Member& member : members)
        path.push_back(member.manifest);
    std::map<std::uint64_t, std::uint8_t> read;
    try {
        ChainReader reader(TheChain(), path);
        std::uint64_t next = 0;
        while (const auto block = reader.Next()) {
            FUZZ_HOLDS(block->block >= next && block->block < reader.Last().geometry.Blocks());
            FUZZ_HOLDS(block->length > 0 && block->length <= path[block->member].geometry.blockSize);
            next = block->block + 1;
            std::vector<std::uint8_t> contents(block->length);
            if (!block->zero)
                reader.Read(*block, contents.data());
            FUZZ_HOLDS(std::count(contents.begin(), contents.end(), contents[0]) == block->length || !isWhole);
            read[block->block] = contents[0];
        }
    } catch (const Failure& failure) {
        FUZZ_HOLDS(!isWhole && failure.Code() == Exit::Damaged);
        return;
    }
    if (isWhole)
        FUZZ_HOLDS(read == Contents(members));
}

bool IsSame(const Manifest& a, const Manifest& b)
{
    return ToJson(a) == ToJson(b);
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
    const bool isInChain = m.kind == Kind::Full || (m.base < m.sequence && m.parent >= m.base && m.parent < m.sequence);
    const bool isPossible = m.geometry.length != 0 && m.geometry.length <= (1ULL << 62) && m.geometry.blockSize != 0 &&
                            m.geometry.blockSize <= MAX_BLOCK_SIZE;
    const std::string text = FormatManifest(m);
    try {
        const Manifest read = ParseManifest(text, "manifest.json");
        FUZZ_HOLDS(isInChain && isPossible && IsSame(read, m) && read.checksum == m.checksum);
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
    const bool isWhole = input.Flag();
    const std::uint32_t blockSize = 1 + input.Byte() % 16;
    std::vector<Member> members;
    const std::size_t memberCount = 1 + input.Byte() % 3;
    for (std::uint64_t sequence = 1; sequence <= memberCount; ++sequence)
        members.push_back(PutMember(input, sequence, blockSize));
    if (!isWhole)
        Damage(input, members);
    ReadChain(members, isWhole);
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
