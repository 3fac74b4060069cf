// What a bitmap file is made of, and what the library would make of it.
//
// Two kinds are known. A record is a base or child bitmap with header and trailer (bitmap/record.h). A dump is the raw
// bytes of a buffer that crossed the library's boundary: no header, no trailer, and no word of its block size.
//
// In both, the first 16 bitmap bytes belong to the get-bitmap buffer's header, which the library merges like bitmap
// bytes: block k of the volume is byte LEAD_BYTES + k / 8, mask 0x80 >> (k mod 8).
//
// Only a few small reads, wherever the header points: the bitmap itself is not looked at.
#pragma once

#include "bitmap_bytes.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vtfltctl::bitmap {

inline constexpr std::uint32_t LEAD_BYTES = 16;

enum class Kind { Record, Dump };

// What can be wrong. The first group is what the library refuses, the second what it takes all the same.
enum class Flaw {
    TooShort,         // no room for header and trailer
    NoSignature,      // does not begin with "STCA"
    CutShort,         // shorter than its header says
    NoTrailer,        // "ACDE" is not where the header says that the record ends
    BitmapMissing,    // the header claims more bitmap than the record holds
    RecordSizeOdd,    // not the size that belongs to the bitmap's length
    BlockSizeInvalid, // 0, or no multiple of a sector
    TrailingData,     // bytes behind the record's end
    ReservedNotZero,  // header bytes that are always written 0
    PaddingNotZero,   // bytes between bitmap and trailer
    DumpTooShort,     // shorter than the 16 header bytes of the buffer
    // Only with the volume at hand:
    BlockSizeDiffers, // from the driver's
    CoversLess,       // than the volume has
    CoversMore,
};

// From best to worst.
enum class Verdict {
    Sound,
    Doubtful,   // the library uses it, but would not have written it so
    MustVerify, // the library finds it unusable: the application's next backup must verify
    BlocksAll,  // the library's read fails: no application can fetch this volume's changes until the file is gone
};

struct FileFacts {
    Kind kind = Kind::Record;
    std::uint64_t fileSize = 0;
    // As the header has them; 0 where the file ends before, and for a dump.
    std::uint32_t blockSize = 0;
    std::uint32_t bitmapLength = 0;
    std::uint32_t recordSize = 0;
    // The two words of the get-bitmap buffer's header, as merged; 0 where they do not lie in the file.
    std::array<std::uint64_t, 2> leadWords{};
    std::vector<Flaw> flaws;

    // Where the bitmap of the volume begins in the file, the bytes held of it, and the bytes that the header claims
    // and the record does not hold: the library counts them as changed.
    std::uint64_t bitsOffset = 0;
    std::uint64_t heldBytes = 0;
    std::uint64_t missingBytes = 0;

    [[nodiscard]] bool Has(Flaw flaw) const noexcept;
    // Whether there is a bitmap to show: also where the library would refuse the file, as far as it goes.
    [[nodiscard]] bool Readable() const noexcept { return heldBytes + missingBytes != 0; }
    // The blocks that the bitmap can speak of; the volume may have a few less.
    [[nodiscard]] std::uint64_t Blocks() const noexcept { return (heldBytes + missingBytes) * 8; }
};

// leadBytes: 0 for files in which the buffer's header is not merged. Throws ReadError.
FileFacts Inspect(ByteSource& file, Kind kind, std::uint32_t leadBytes = LEAD_BYTES);

// Whether the file begins like a record. Throws ReadError.
bool BeginsLikeRecord(ByteSource& file);

// What does not fit a volume of so many bytes, tracked in blocks of this size (not 0).
std::vector<Flaw> Misfits(const FileFacts& facts, std::uint64_t volumeBytes, std::uint32_t blockSize);

Verdict VerdictOf(const FileFacts& facts) noexcept;

// "sound", "doubtful", "must-verify", "blocks-all": for JSON.
std::string_view VerdictName(Verdict verdict) noexcept;
// What it means for the next backup, a sentence.
std::string_view VerdictText(Verdict verdict) noexcept;
// "cut-short" ...: for JSON.
std::string_view FlawName(Flaw flaw) noexcept;
// A sentence with the numbers that show it.
std::string FlawText(Flaw flaw, const FileFacts& facts);

} // namespace vtfltctl::bitmap
