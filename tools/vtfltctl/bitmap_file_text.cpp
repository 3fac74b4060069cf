// What is said of a bitmap file, to people and in JSON.
#include "bitmap_file.h"

#include "bitmap/record.h"

#include <fmt/format.h>

namespace vtfltctl::bitmap {

std::string_view VerdictName(Verdict verdict) noexcept
{
    switch (verdict) {
    case Verdict::Sound:
        return "sound";
    case Verdict::Doubtful:
        return "doubtful";
    case Verdict::MustVerify:
        return "must-verify";
    case Verdict::BlocksAll:
        return "blocks-all";
    }
    return "";
}

std::string_view VerdictText(Verdict verdict) noexcept
{
    switch (verdict) {
    case Verdict::Sound:
        return "sound";
    case Verdict::Doubtful:
        return "doubtful: the library uses it, but does not write such a file";
    case Verdict::MustVerify:
        return "damaged: the library cannot use it, and the application's next backup of the volume must verify";
    case Verdict::BlocksAll:
        return "damaged: until the file is deleted, fetches of the volume's changes fail: every application's for a child "
               "bitmap, its own application's for a base bitmap";
    }
    return "";
}

std::string_view FlawName(Flaw flaw) noexcept
{
    switch (flaw) {
    case Flaw::TooShort:
        return "too-short";
    case Flaw::NoSignature:
        return "no-signature";
    case Flaw::CutShort:
        return "cut-short";
    case Flaw::NoTrailer:
        return "no-trailer";
    case Flaw::BitmapMissing:
        return "bitmap-missing";
    case Flaw::RecordSizeOdd:
        return "record-size-odd";
    case Flaw::BlockSizeInvalid:
        return "block-size-invalid";
    case Flaw::TrailingData:
        return "trailing-data";
    case Flaw::ReservedNotZero:
        return "reserved-not-zero";
    case Flaw::PaddingNotZero:
        return "padding-not-zero";
    case Flaw::DumpTooShort:
        return "dump-too-short";
    case Flaw::BlockSizeDiffers:
        return "block-size-differs";
    case Flaw::CoversLess:
        return "covers-less";
    case Flaw::CoversMore:
        return "covers-more";
    }
    return "";
}

std::string FlawText(Flaw flaw, const FileFacts& facts)
{
    switch (flaw) {
    case Flaw::TooShort:
        return fmt::format("{} bytes are too few for a header and a trailer ({})", facts.fileSize,
                           vtflt::MINIMUM_RECORD_BYTES);
    case Flaw::NoSignature:
        return "it does not begin with \"STCA\"";
    case Flaw::CutShort:
        return fmt::format("it is cut short: its header speaks of {} bytes, and it has {}", facts.recordSize,
                           facts.fileSize);
    case Flaw::NoTrailer:
        return fmt::format("\"ACDE\" does not stand at the end of the {} bytes that its header speaks of",
                           facts.recordSize);
    case Flaw::BitmapMissing:
        return fmt::format(
            "its header claims {} bitmap bytes, of which {} are not in the record: they count as changed",
            facts.bitmapLength, facts.missingBytes);
    case Flaw::RecordSizeOdd:
        return fmt::format("a bitmap of {} bytes does not have a record of {}", facts.bitmapLength, facts.recordSize);
    case Flaw::BlockSizeInvalid:
        return fmt::format("{} is no block size", facts.blockSize);
    case Flaw::TrailingData:
        return fmt::format("{} bytes stand behind the record's end", facts.fileSize - facts.recordSize);
    case Flaw::ReservedNotZero:
        return "reserved bytes of its header are not zero";
    case Flaw::PaddingNotZero:
        return "the bytes between bitmap and trailer are not zero";
    case Flaw::DumpTooShort:
        return fmt::format("{} bytes are too few for the header of a get-bitmap buffer ({})", facts.fileSize,
                           LEAD_BYTES);
    case Flaw::BlockSizeDiffers:
        return fmt::format("its blocks of {} bytes are not the driver's", facts.blockSize);
    case Flaw::CoversLess:
        return "it covers less than the volume has";
    case Flaw::CoversMore:
        return "it covers more than the volume has";
    }
    return "";
}

} // namespace vtfltctl::bitmap
