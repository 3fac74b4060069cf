#include "bitmap_file.h"

#include "bitmap/record.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace vtfltctl::bitmap {
namespace {

constexpr std::uint32_t SECTOR = 512;
constexpr std::array<std::uint8_t, 4> TRAILER{'A', 'C', 'D', 'E'};

static_assert(std::endian::native == std::endian::little);

std::size_t ReadStart(ByteSource& file, std::uint8_t* to, std::size_t count)
{
    const auto held = static_cast<std::size_t>(std::min<std::uint64_t>(file.Size(), count));
    if (held != 0)
        file.Read(0, to, held);
    return held;
}

bool IsZero(const std::uint8_t* bytes, std::size_t count) noexcept
{
    return std::all_of(bytes, bytes + count, [](std::uint8_t byte) { return byte == 0; });
}

bool HasTrailer(ByteSource& file, std::uint32_t recordSize)
{
    std::array<std::uint8_t, 4> end{};
    if (recordSize < end.size())
        return false;
    file.Read(recordSize - end.size(), end.data(), end.size());
    return end == TRAILER;
}

bool PaddingIsZero(ByteSource& file, const FileFacts& facts)
{
    const std::uint64_t from = vtflt::BITMAP_OFFSET + std::uint64_t{facts.bitmapLength};
    const std::uint64_t to = facts.recordSize - vtflt::RECORD_TRAILER_BYTES;
    std::vector<std::uint8_t> padding(static_cast<std::size_t>(to - from));
    file.Read(from, padding.data(), padding.size());
    return IsZero(padding.data(), padding.size());
}

// Sets apart the bytes that lie before the volume's first block.
void PlaceBits(ByteSource& file, FileFacts& facts, std::uint64_t bitmapOffset, std::uint64_t held,
               std::uint64_t claimed, std::uint32_t leadBytes)
{
    if (held >= sizeof(facts.leadWords) && leadBytes == sizeof(facts.leadWords))
        file.Read(bitmapOffset, reinterpret_cast<std::uint8_t*>(facts.leadWords.data()), sizeof(facts.leadWords));
    const std::uint64_t missing = claimed - held;
    const std::uint64_t leadHeld = std::min<std::uint64_t>(held, leadBytes);
    facts.bitsOffset = bitmapOffset + leadHeld;
    facts.heldBytes = held - leadHeld;
    facts.missingBytes = missing - std::min<std::uint64_t>(missing, leadBytes - leadHeld);
}

FileFacts InspectDump(ByteSource& file, std::uint32_t leadBytes)
{
    FileFacts facts;
    facts.kind = Kind::Dump;
    facts.fileSize = file.Size();
    if (facts.fileSize < leadBytes)
        facts.flaws.push_back(Flaw::DumpTooShort);
    else
        PlaceBits(file, facts, 0, facts.fileSize, facts.fileSize, leadBytes);
    return facts;
}

// The library reads the record that the header speaks of, and looks at nothing but its two ends.
void FindFatalFlaws(ByteSource& file, const vtflt::BITMAP_FILE_RECORD& header, std::size_t headBytes, FileFacts& facts)
{
    if (facts.fileSize < vtflt::MINIMUM_RECORD_BYTES)
        facts.flaws.push_back(Flaw::TooShort);
    if (!vtflt::HasRecordSignature(header.Signature, std::min(headBytes, sizeof(header.Signature))))
        facts.flaws.push_back(Flaw::NoSignature);
    if (!facts.flaws.empty())
        return;
    if (facts.recordSize > facts.fileSize)
        facts.flaws.push_back(Flaw::CutShort);
    else if (!HasTrailer(file, facts.recordSize))
        facts.flaws.push_back(Flaw::NoTrailer);
}

void FindDoubts(ByteSource& file, const vtflt::BITMAP_FILE_RECORD& header, FileFacts& facts)
{
    const bool whole = !facts.Has(Flaw::CutShort);
    // No record has 0 bytes, which also stands for the size that no record can have.
    const bool sizesAgree = facts.recordSize != 0 && facts.recordSize == vtflt::RecordSizeFor(facts.bitmapLength);
    if (facts.missingBytes != 0)
        facts.flaws.push_back(Flaw::BitmapMissing);
    if (!sizesAgree)
        facts.flaws.push_back(Flaw::RecordSizeOdd);
    if (facts.blockSize == 0 || facts.blockSize % SECTOR != 0)
        facts.flaws.push_back(Flaw::BlockSizeInvalid);
    if (facts.fileSize > facts.recordSize)
        facts.flaws.push_back(Flaw::TrailingData);
    if (header.Reserved1 != 0 || !IsZero(header.Reserved2, sizeof(header.Reserved2)))
        facts.flaws.push_back(Flaw::ReservedNotZero);
    if (whole && sizesAgree && !PaddingIsZero(file, facts))
        facts.flaws.push_back(Flaw::PaddingNotZero);
}

FileFacts InspectRecord(ByteSource& file, std::uint32_t leadBytes)
{
    FileFacts facts;
    facts.fileSize = file.Size();
    vtflt::BITMAP_FILE_RECORD header{};
    const std::size_t headBytes = ReadStart(file, reinterpret_cast<std::uint8_t*>(&header), sizeof(header));
    if (headBytes < sizeof(header))
        std::memset(reinterpret_cast<std::uint8_t*>(&header) + headBytes, 0, sizeof(header) - headBytes);

    if (vtflt::HasRecordSignature(header.Signature, headBytes)) {
        facts.blockSize = header.BlockSize;
        facts.bitmapLength = header.BitmapLength;
        facts.recordSize = header.RecordSize;
    }
    FindFatalFlaws(file, header, headBytes, facts);
    if (facts.Has(Flaw::TooShort) || facts.Has(Flaw::NoSignature))
        return facts;

    // What the record holds before its trailer; of a file that is cut short, what is there.
    const std::uint64_t recordEnd = std::min<std::uint64_t>(facts.recordSize, facts.fileSize);
    const std::uint64_t bitmapEnd =
        recordEnd - (facts.Has(Flaw::CutShort) ? 0 : std::min<std::uint64_t>(recordEnd, vtflt::RECORD_TRAILER_BYTES));
    const std::uint64_t room = bitmapEnd > vtflt::BITMAP_OFFSET ? bitmapEnd - vtflt::BITMAP_OFFSET : 0;
    // The library does not see a length that lies behind the record's end.
    const bool lengthInside = facts.recordSize >= offsetof(vtflt::BITMAP_FILE_RECORD, RecordSize);
    const std::uint64_t claimed = lengthInside ? facts.bitmapLength : 0;
    PlaceBits(file, facts, vtflt::BITMAP_OFFSET, std::min(claimed, room), claimed, leadBytes);
    FindDoubts(file, header, facts);
    return facts;
}

} // namespace

bool FileFacts::Has(Flaw flaw) const noexcept
{
    return std::find(flaws.begin(), flaws.end(), flaw) != flaws.end();
}

FileFacts Inspect(ByteSource& file, Kind kind, std::uint32_t leadBytes)
{
    return kind == Kind::Dump ? InspectDump(file, leadBytes) : InspectRecord(file, leadBytes);
}

bool BeginsLikeRecord(ByteSource& file)
{
    std::array<std::uint8_t, 4> start{};
    const std::size_t held = ReadStart(file, start.data(), start.size());
    return vtflt::HasRecordSignature(start.data(), held);
}

std::vector<Flaw> Misfits(const FileFacts& facts, std::uint64_t volumeBytes, std::uint32_t blockSize)
{
    std::vector<Flaw> misfits;
    if (facts.kind == Kind::Record && facts.blockSize != blockSize) {
        misfits.push_back(Flaw::BlockSizeDiffers);
        return misfits; // then the lengths say nothing
    }
    // A remapped bitmap has just the volume's bytes, a fresh one 16 more, a merged one the length of the driver's
    // buffer: the 16 and whole 8-byte words.
    const std::uint64_t needed = vtflt::BitmapBytesForVolume(static_cast<std::int64_t>(volumeBytes), blockSize);
    const std::uint64_t length = facts.kind == Kind::Record ? facts.bitmapLength : facts.fileSize;
    if (length < needed)
        misfits.push_back(Flaw::CoversLess);
    if (length > LEAD_BYTES + (needed + 7) / 8 * 8)
        misfits.push_back(Flaw::CoversMore);
    return misfits;
}

Verdict VerdictOf(const FileFacts& facts) noexcept
{
    if (facts.flaws.empty())
        return Verdict::Sound;
    if (facts.Has(Flaw::CutShort))
        return Verdict::BlocksAll;
    if (facts.Has(Flaw::TooShort) || facts.Has(Flaw::NoSignature) || facts.Has(Flaw::NoTrailer))
        return Verdict::MustVerify;
    return Verdict::Doubtful;
}

} // namespace vtfltctl::bitmap
