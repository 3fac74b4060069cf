// The contents of a bitmap file, and the arithmetic of its sizes.
#include "bitmap/record.h"
#include "fuzz/fuzz.h"

#include <algorithm>

namespace fuzz {

namespace {

using vtflt::BitmapRecord;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t LONGEST_FILE = 20000;

std::uint32_t NumberAt(const Bytes& bytes, std::size_t offset)
{
    std::uint32_t number = 0;
    if (offset + 4 <= bytes.size())
        std::memcpy(&number, bytes.data() + offset, 4);
    return number;
}

void PutNumber(Bytes& bytes, std::size_t offset, std::uint32_t number)
{
    if (offset + 4 <= bytes.size())
        std::memcpy(bytes.data() + offset, &number, 4);
}

void CheckSizes(std::uint32_t bitmapLength, std::int64_t volumeLength, std::uint32_t blockSize)
{
    const std::uint64_t size = (std::uint64_t{bitmapLength} + 92 + 4095) / 4096 * 4096;
    FUZZ_HOLDS(vtflt::RecordSizeFor(bitmapLength) == (size > 0xFFFFFFFF ? 0 : size));
    if (blockSize == 0 || volumeLength < 0)
        return;
    const auto blocks = static_cast<std::uint32_t>((static_cast<Number128>(volumeLength) + blockSize - 1) / blockSize);
    FUZZ_HOLDS(vtflt::BitmapBytesForVolume(volumeLength, blockSize) == (std::uint64_t{blocks} + 7) / 8);
}

// The bitmap bytes as readers see them: those that the record holds, and changed ones for what it only claims.
std::uint8_t ExpectedByte(const Bytes& image, std::uint32_t held, std::size_t index)
{
    return index < held ? image[84 + index] : 0xFF;
}

void CheckCopy(const BitmapRecord& record, const Bytes& image, std::uint32_t held, std::uint32_t capacity)
{
    Bytes copy(capacity, 0xA5); // exactly so large: a byte more would be seen
    const std::uint32_t copied = record.CopyBitmap(copy.data(), capacity);
    FUZZ_HOLDS(copied == std::min(capacity, NumberAt(image, 12)));
    for (std::uint32_t i = 0; i < capacity; ++i)
        FUZZ_HOLDS(copy[i] == (i < copied ? ExpectedByte(image, held, i) : 0xA5));
}

void CheckResize(const BitmapRecord& record, const Bytes& image, std::uint32_t held, std::uint32_t newLength)
{
    const auto resized = record.Resized(newLength);
    FUZZ_HOLDS(resized != nullptr && resized->IsValid() && resized->HoldsItsBitmap());
    FUZZ_HOLDS(resized->BlockSize() == NumberAt(image, 8) && resized->BitmapLength() == newLength);
    FUZZ_HOLDS(resized->Size() == vtflt::RecordSizeFor(newLength));
    const std::uint32_t claimed = NumberAt(image, 12);
    for (std::uint32_t i = 0; i < newLength; ++i)
        FUZZ_HOLDS(resized->Bitmap()[i] == (i < claimed ? ExpectedByte(image, held, i) : 0));
    for (std::uint32_t i = 84 + newLength; i < resized->TrailerOffset(); ++i)
        FUZZ_HOLDS(resized->Bytes()[i] == 0);
}

void CheckOr(BitmapRecord& record, Bytes image, std::uint32_t held, const Bytes& bits)
{
    record.Or(bits.data(), bits.size());
    for (std::size_t i = 0; i < std::min<std::size_t>(held, bits.size()); ++i)
        image[84 + i] = static_cast<std::uint8_t>(image[84 + i] | bits[i]);
    FUZZ_HOLDS(std::equal(image.begin(), image.end(), record.Bytes()));
    record.Clear();
    if (held != 0)
        std::fill_n(image.begin() + 84, held, std::uint8_t{0});
    FUZZ_HOLDS(std::equal(image.begin(), image.end(), record.Bytes()));
}

} // namespace

void BitmapFile(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    const std::uint8_t mode = input.Byte();
    const auto newLength = static_cast<std::uint32_t>(input.Take<std::uint16_t>());
    const auto capacity = static_cast<std::uint32_t>(1 + input.Take<std::uint16_t>() % 3000);
    const auto volumeLength = input.Take<std::int64_t>();
    const auto blockSize = input.Take<std::uint32_t>();
    const Bytes bits = input.ShortBytes();
    Bytes image = input.Bytes(LONGEST_FILE);
    CheckSizes(blockSize, volumeLength, blockSize);

    // A file that is whole but for what the bytes say in between is found only with help.
    if ((mode & 1) != 0 && image.size() >= 4) {
        std::memcpy(image.data(), "STCA", 4);
        std::memcpy(image.data() + image.size() - 4, "ACDE", 4);
        PutNumber(image, 16, static_cast<std::uint32_t>(image.size()));
    }
    if ((mode & 2) != 0)
        PutNumber(image, 12, NumberAt(image, 12) % 2048);

    const auto size = static_cast<std::uint32_t>(image.size());
    const auto record = BitmapRecord::Allocate(size);
    FUZZ_HOLDS(record != nullptr && record->Size() == size);
    std::copy(image.begin(), image.end(), record->Bytes());
    const bool valid =
        size >= 4 && std::memcmp(image.data(), "STCA", 4) == 0 && std::memcmp(image.data() + size - 4, "ACDE", 4) == 0;
    FUZZ_HOLDS(record->IsValid() == valid);
    if (!valid)
        return;

    // What a record shorter than a header has of fields reads as it stands, and as zero behind its end.
    image.resize(std::max<std::size_t>(image.size(), 88));
    const std::uint32_t held = std::min(NumberAt(image, 12), size > 88 ? size - 88 : 0);
    FUZZ_HOLDS(record->BlockSize() == NumberAt(image, 8) && record->BitmapLength() == NumberAt(image, 12));
    FUZZ_HOLDS(record->HeldBitmapBytes() == held);
    FUZZ_HOLDS(record->HoldsItsBitmap() == (held == NumberAt(image, 12)));
    CheckCopy(*record, image, held, capacity);
    CheckResize(*record, image, held, newLength);

    record->WithholdTrailer();
    FUZZ_HOLDS(!record->IsValid());
    record->RestoreTrailer();
    FUZZ_HOLDS(std::equal(image.begin(), image.begin() + size, record->Bytes()));
    CheckOr(*record, image, held, bits);
}

} // namespace fuzz
