// Bitmap files as vtfltctl reads them, held against the library's own reading of the same bytes.
#include "bitmap/container.h"
#include "bitmap/result_codes.h"
#include "vtfltctl/bitmap_bits.h"
#include "vtfltctl/bitmap_name.h"
#include "vtfltctl/bitmap_numbers.h"

#include "fuzz/fuzz.h"
#include "fuzz/system.h"

#include <algorithm>

namespace fuzz {

namespace {

using namespace vtfltctl::bitmap;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t LONGEST_FILE = 20000;
// As far as the bits are looked at one by one; a header may claim 2 to the power of 35.
constexpr std::uint64_t MOST_BLOCKS = 400'000;

class MemoryBytes final : public ByteSource {
public:
    explicit MemoryBytes(const Bytes& bytes) : m_bytes(bytes) {}
    [[nodiscard]] std::uint64_t Size() const override { return m_bytes.size(); }
    void Read(std::uint64_t offset, std::uint8_t* to, std::size_t count) override
    {
        FUZZ_HOLDS(offset <= m_bytes.size() && count <= m_bytes.size() - offset);
        std::copy_n(m_bytes.begin() + static_cast<std::ptrdiff_t>(offset), count, to);
    }

private:
    const Bytes& m_bytes;
};

// The library's own reading of the bytes, as the file of a base bitmap.
struct LibraryReading {
    explicit LibraryReading(const Bytes& file)
    {
        container.init(L"Volume{11111111-2222-3333-4444-555555555555}", L"App");
        TheSystem().files[container.FileName(vtflt::BASE_BITMAP)] = file;
        result = container.ReadBitMapFromFile(vtflt::BASE_BITMAP);
    }
    vtflt::CBitmapContainer container;
    DWORD result = 0;
};

void CheckWords(const FileFacts& facts)
{
    FUZZ_HOLDS(!VerdictName(VerdictOf(facts)).empty() && !VerdictText(VerdictOf(facts)).empty());
    for (const Flaw flaw : facts.flaws) {
        FUZZ_HOLDS(!FlawName(flaw).empty() && !FlawText(flaw, facts).empty());
        FUZZ_HOLDS(std::count(facts.flaws.begin(), facts.flaws.end(), flaw) == 1);
    }
}

bool IsSet(const Bytes& bits, std::uint64_t block)
{
    return (bits[static_cast<std::size_t>(block / 8)] & (0x80U >> (block % 8))) != 0;
}

// The runs and the totals against the bits one by one; blocks behind the end of the bits are clear.
void CheckBits(BitSource& source, Bytes bits)
{
    bits.resize(std::max<std::size_t>(bits.size(), static_cast<std::size_t>((source.Blocks() + 7) / 8)), 0);
    Totals totals = TotalsOf(source);
    RunReader reader(source);
    std::uint64_t set = 0;
    std::uint64_t runs = 0;
    std::uint64_t longest = 0;
    std::uint64_t block = 0;
    while (block < source.Blocks()) {
        if (!IsSet(bits, block)) {
            ++block;
            continue;
        }
        const std::uint64_t first = block;
        while (block < source.Blocks() && IsSet(bits, block))
            ++block;
        const std::optional<Run> run = reader.Next();
        FUZZ_HOLDS(run && run->first == first && run->End() == block);
        FUZZ_HOLDS(runs != 0 || totals.First() == first);
        set += block - first;
        longest = std::max(longest, block - first);
        ++runs;
    }
    FUZZ_HOLDS(!reader.Next());
    FUZZ_HOLDS(totals.Set() == set && totals.Runs() == runs && totals.LongestRun() == longest);
}

// Some bits of a bitmap that is too long to be walked through.
void CheckSomeBits(BitSource& source, const Bytes& bits, std::uint64_t claimed, std::uint64_t from)
{
    Bytes read(64, 0xA5);
    source.Read(from, read.data(), read.size());
    for (std::uint64_t i = 0; i < read.size(); ++i) {
        const std::uint64_t at = from + i;
        const std::uint8_t expected = at < bits.size() ? bits[static_cast<std::size_t>(at)] : at < claimed ? 0xFF : 0;
        FUZZ_HOLDS(read[static_cast<std::size_t>(i)] == expected);
    }
}

// The bytes of the volume's blocks that are held, of all that are claimed.
void CheckContents(ByteSource& file, const FileFacts& facts, const Bytes& held, std::uint64_t claimed,
                   std::uint64_t volumeBlocks, std::uint64_t from)
{
    FUZZ_HOLDS(facts.heldBytes == held.size() && facts.heldBytes + facts.missingBytes == claimed);
    FUZZ_HOLDS(facts.Readable() == (claimed != 0) && facts.Blocks() == claimed * 8);
    FileBits whole(file, facts, facts.Blocks());
    CheckSomeBits(whole, held, claimed, from);
    Bytes bits = held;
    bits.resize(static_cast<std::size_t>(std::min(claimed, MOST_BLOCKS / 8)), 0xFF);
    if (facts.Blocks() <= MOST_BLOCKS)
        CheckBits(whole, bits);
    // A volume of another size, which the bitmap cannot know.
    FileBits cut(file, facts, volumeBlocks);
    if (claimed <= MOST_BLOCKS / 8)
        CheckBits(cut, bits);
}

void CheckDump(const Bytes& image, std::uint32_t lead, std::uint64_t volumeBlocks, std::uint64_t from)
{
    MemoryBytes file(image);
    const FileFacts facts = Inspect(file, Kind::Dump, lead);
    CheckWords(facts);
    FUZZ_HOLDS(facts.kind == Kind::Dump && facts.fileSize == image.size());
    FUZZ_HOLDS(facts.Has(Flaw::DumpTooShort) == (image.size() < lead));
    if (image.size() < lead)
        return;
    const Bytes held(image.begin() + lead, image.end());
    CheckContents(file, facts, held, held.size(), volumeBlocks, from);
}

void CheckRecord(const Bytes& image, std::uint32_t lead, std::uint64_t volumeBlocks, std::uint64_t from)
{
    MemoryBytes file(image);
    const FileFacts facts = Inspect(file, Kind::Record, lead);
    CheckWords(facts);
    FUZZ_HOLDS(BeginsLikeRecord(file) == vtflt::HasRecordSignature(image.data(), image.size()));
    LibraryReading library(image);
    FUZZ_HOLDS(TheSystem().openHandles == 0);
    switch (VerdictOf(facts)) {
    case Verdict::Sound:
    case Verdict::Doubtful:
        FUZZ_HOLDS(library.result == ERROR_SUCCESS);
        break;
    case Verdict::MustVerify:
        FUZZ_HOLDS(library.result == vtflt::BM_ERR_VERIFY_REQUIRED);
        return;
    case Verdict::BlocksAll:
        FUZZ_HOLDS(library.result != ERROR_SUCCESS && library.result != vtflt::BM_ERR_VERIFY_REQUIRED);
        return;
    }
    const vtflt::BitmapRecord& record = *library.container.m_pBaseBitmap;
    FUZZ_HOLDS(facts.recordSize == record.Size() && facts.fileSize == image.size());
    // What is called sound the library itself would have written.
    if (facts.flaws.empty()) {
        const auto made = vtflt::BitmapRecord::Make(facts.blockSize, facts.bitmapLength);
        FUZZ_HOLDS(made != nullptr && made->Size() == image.size() && record.HoldsItsBitmap());
        made->Or(record.Bitmap(), record.BitmapLength());
        FUZZ_HOLDS(std::equal(image.begin(), image.end(), made->Bytes()));
    }
    const std::uint64_t leadHeld = std::min<std::uint64_t>(record.HeldBitmapBytes(), lead);
    const std::uint64_t leadClaimed = std::min<std::uint64_t>(record.BitmapLength(), lead);
    const Bytes held(record.Bitmap() + leadHeld, record.Bitmap() + record.HeldBitmapBytes());
    CheckContents(file, facts, held, record.BitmapLength() - leadClaimed, volumeBlocks, from);
}

void CheckMisfits(const Bytes& image, std::uint64_t volumeBytes, std::uint32_t blockSize)
{
    MemoryBytes file(image);
    const FileFacts facts = Inspect(file, Kind::Record);
    const std::vector<Flaw> misfits = Misfits(facts, volumeBytes, blockSize);
    FUZZ_HOLDS(misfits.size() <= 1);
    const auto has = [&misfits](Flaw flaw) { return std::find(misfits.begin(), misfits.end(), flaw) != misfits.end(); };
    FUZZ_HOLDS(has(Flaw::BlockSizeDiffers) == (facts.blockSize != blockSize));
    if (facts.blockSize != blockSize)
        return;
    const std::uint64_t needed = vtflt::BitmapBytesForVolume(static_cast<std::int64_t>(volumeBytes), blockSize);
    FUZZ_HOLDS(has(Flaw::CoversLess) == (facts.bitmapLength < needed));
    // Whatever the library makes for this volume fits.
    for (const std::uint64_t length : {needed, needed + vtflt::FRESH_BITMAP_EXTRA_BYTES}) {
        FileFacts own = facts;
        own.bitmapLength = static_cast<std::uint32_t>(length);
        FUZZ_HOLDS(Misfits(own, volumeBytes, blockSize).empty());
    }
}

void CheckName(const std::string& path)
{
    const NameFacts name = ParseBitmapName(path);
    FUZZ_HOLDS((name.role == Role::Unknown) == name.application.empty());
    FUZZ_HOLDS(IsDump(name.role) == !name.taken.empty());
    FUZZ_HOLDS(!RoleName(name.role).empty() && !RoleText(name.role).empty());
    FUZZ_HOLDS(path.find(name.application) != std::string::npos);
    const std::string base = "C:\\VelVolTrc_base_" + path.substr(0, 40) + ".dat";
    if (path.substr(0, 40).find_first_of("\\/") == std::string::npos && !path.empty())
        FUZZ_HOLDS(ParseBitmapName(base).role == Role::Base && ParseBitmapName(base).application == path.substr(0, 40));
}

// What is read of a size is what is printed of it.
void CheckSize(const std::string& text)
{
    const std::optional<std::uint64_t> size = ParseSize(text);
    if (!size)
        return;
    FUZZ_HOLDS(!text.empty() && ParseSize(std::to_string(*size)) == size);
    FUZZ_HOLDS(!SizeText(*size).empty() && !Grouped(*size).empty());
}

} // namespace

void VtfltctlBitmap(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    TheSystem() = {};
    const std::uint8_t mode = input.Byte();
    const std::uint64_t volumeBlocks = input.Take<std::uint32_t>() % MOST_BLOCKS;
    const std::uint64_t from = input.Take<std::uint32_t>() % ((mode & 8) != 0 ? UINT32_MAX : 4096);
    const std::uint64_t volumeBytes = input.Take<std::uint64_t>() % (1ULL << 40);
    const std::uint32_t blockSize = 512U + input.Take<std::uint32_t>() % (1U << 24);
    const std::vector<std::uint8_t> text = input.ShortBytes();
    CheckName({text.begin(), text.end()});
    CheckSize({text.begin(), text.end()});

    Bytes image = input.Bytes(LONGEST_FILE);
    // A file that is whole but for what the bytes say in between is found only with help.
    if ((mode & 1) != 0 && image.size() >= vtflt::MINIMUM_RECORD_BYTES) {
        const auto size = static_cast<std::uint32_t>(image.size() - ((mode & 2) != 0 ? 1 : 0));
        std::memcpy(image.data(), "STCA", 4);
        std::memcpy(image.data() + 16, &size, 4);
        std::memcpy(image.data() + size - 4, "ACDE", 4);
    }
    const std::uint32_t lead = (mode & 4) != 0 ? 0 : LEAD_BYTES;
    CheckRecord(image, lead, volumeBlocks, from);
    CheckDump(image, lead, volumeBlocks, from);
    CheckMisfits(image, volumeBytes, blockSize);
}

} // namespace fuzz
