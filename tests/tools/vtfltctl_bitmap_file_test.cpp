// What vtfltctl makes of a file's header, held against the library's own code.
#include "vtfltctl_bitmap_test.h"

#include "vtfltctl/bitmap_name.h"

#include <array>

using namespace bitmap_test;
using namespace vtfltctl::bitmap;

namespace {

FileFacts Look(const Bytes& bytes, Kind kind = Kind::Record, std::uint32_t lead = LEAD_BYTES)
{
    MemoryBytes file(bytes);
    return Inspect(file, kind, lead);
}

// What the library's read answers, by its own steps and with its own record.
Verdict LibraryVerdict(const Bytes& bytes, std::uint32_t& bitmapLength, std::uint32_t& held)
{
    bitmapLength = 0;
    held = 0;
    if (bytes.size() < vtflt::MINIMUM_RECORD_BYTES || !vtflt::HasRecordSignature(bytes.data(), bytes.size()))
        return Verdict::MustVerify;
    std::uint32_t recordSize = 0;
    std::memcpy(&recordSize, bytes.data() + RECORD_SIZE_AT, sizeof(recordSize));
    if (recordSize > bytes.size())
        return Verdict::BlocksAll;
    const auto record = vtflt::BitmapRecord::Allocate(recordSize);
    std::memcpy(record->Bytes(), bytes.data(), recordSize);
    bitmapLength = record->BitmapLength();
    held = record->HeldBitmapBytes();
    return record->IsValid() ? Verdict::Sound : Verdict::MustVerify;
}

// The same verdict, save that what the library takes may be doubted.
void ExpectAsLibrary(const Bytes& bytes, const char* what)
{
    SCOPED_TRACE(what);
    std::uint32_t length = 0;
    std::uint32_t held = 0;
    const Verdict library = LibraryVerdict(bytes, length, held);
    const FileFacts facts = Look(bytes);
    const Verdict ours = VerdictOf(facts);
    ASSERT_EQ(ours == Verdict::Doubtful ? Verdict::Sound : ours, library);
    if (library != Verdict::Sound)
        return;
    const std::uint64_t lead = std::min<std::uint64_t>(length, LEAD_BYTES);
    ASSERT_EQ(facts.heldBytes + facts.missingBytes, length - lead);
    ASSERT_EQ(facts.heldBytes, held - std::min<std::uint64_t>(held, LEAD_BYTES));
    ASSERT_LE(facts.bitsOffset + facts.heldBytes, bytes.size());
}

const BlockSet SOME_BLOCKS{true, false, true, true, false, false, false, false, true};

} // namespace

TEST(VtfltctlBitmapFile, RecordOfTheLibraryIsSound)
{
    const Bytes bytes = RecordFile(SOME_BLOCKS);
    const FileFacts facts = Look(bytes);
    EXPECT_EQ(VerdictOf(facts), Verdict::Sound);
    EXPECT_TRUE(facts.flaws.empty());
    EXPECT_EQ(facts.fileSize, 4096U);
    EXPECT_EQ(facts.blockSize, 65536U);
    EXPECT_EQ(facts.bitmapLength, 18U);
    EXPECT_EQ(facts.recordSize, 4096U);
    EXPECT_EQ(facts.bitsOffset, 100U);
    EXPECT_EQ(facts.heldBytes, 2U);
    EXPECT_EQ(facts.missingBytes, 0U);
    EXPECT_EQ(facts.Blocks(), 16U);
    EXPECT_TRUE(facts.Readable());
}

TEST(VtfltctlBitmapFile, CutAtEveryLengthIsAsTheLibraryHasIt)
{
    const Bytes whole = RecordFile(SOME_BLOCKS);
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        ExpectAsLibrary(cut, std::to_string(length).c_str());
        const FileFacts facts = Look(cut);
        EXPECT_EQ(facts.Has(Flaw::TooShort), length < 88) << length;
        EXPECT_EQ(facts.Has(Flaw::CutShort), length >= 88 && length < whole.size()) << length;
        EXPECT_LE(facts.bitsOffset + facts.heldBytes, std::max<std::uint64_t>(length, 1)) << length;
    }
}

TEST(VtfltctlBitmapFile, HeadersThatLieAreAsTheLibraryHasThem)
{
    const std::array<std::uint32_t, 22> words{0,    1,    3,          4,          5,          8,         15,   16,
                                              17,   84,   87,         88,         89,         100,       4091, 4092,
                                              4095, 4096, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF};
    for (const std::uint32_t recordSize : words) {
        for (const std::uint32_t length : words) {
            Bytes bytes = RecordFile(SOME_BLOCKS);
            PutWord(bytes, RECORD_SIZE_AT, recordSize);
            PutWord(bytes, BITMAP_LENGTH_AT, length);
            const std::string what = std::to_string(recordSize) + " " + std::to_string(length);
            ExpectAsLibrary(bytes, what.c_str());
            // And with a trailer where the record is said to end.
            if (recordSize >= 24 && recordSize <= bytes.size())
                std::memcpy(bytes.data() + recordSize - 4, "ACDE", 4);
            ExpectAsLibrary(bytes, what.c_str());
        }
    }
}

TEST(VtfltctlBitmapFile, RandomBytesAreAsTheLibraryHasThem)
{
    std::mt19937_64 random(20261121);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int i = 0; i < 20000; ++i) {
        Bytes bytes = RecordFile(SOME_BLOCKS);
        bytes.resize(std::uniform_int_distribution<std::size_t>(0, 5000)(random));
        for (int change = 0; change < 3 && !bytes.empty(); ++change)
            bytes[std::uniform_int_distribution<std::size_t>(0, std::min<std::size_t>(bytes.size(), 120) - 1)(random)] =
                static_cast<std::uint8_t>(byte(random));
        ExpectAsLibrary(bytes, "random");
    }
}

TEST(VtfltctlBitmapFile, ForeignFormatsAreNoRecords)
{
    for (const char* start : {"", "PK\x03\x04", "\x89PNG\r\n\x1a\n", "stca", "ACTS", "STC", "\xFF\xFE[\0"}) {
        Bytes bytes(5000, 0x20);
        std::memcpy(bytes.data(), start, std::strlen(start));
        const FileFacts facts = Look(bytes);
        EXPECT_EQ(VerdictOf(facts), Verdict::MustVerify) << start;
        EXPECT_TRUE(facts.Has(Flaw::NoSignature)) << start;
        EXPECT_FALSE(facts.Readable()) << start;
        EXPECT_EQ(facts.blockSize, 0U) << "a field was taken from a foreign file";
    }
}

TEST(VtfltctlBitmapFile, EachDoubtIsFoundAndNoOther)
{
    const auto doubt = [](const Bytes& bytes, Flaw flaw) {
        const FileFacts facts = Look(bytes);
        EXPECT_EQ(facts.flaws, std::vector<Flaw>{flaw}) << FlawName(flaw);
        EXPECT_EQ(VerdictOf(facts), Verdict::Doubtful) << FlawName(flaw);
    };
    Bytes bytes = RecordFile(SOME_BLOCKS);
    bytes.push_back(0);
    doubt(bytes, Flaw::TrailingData);

    bytes = RecordFile(SOME_BLOCKS);
    bytes[4] = 1;
    doubt(bytes, Flaw::ReservedNotZero);
    bytes = RecordFile(SOME_BLOCKS);
    bytes[83] = 1;
    doubt(bytes, Flaw::ReservedNotZero);

    // The first and the last byte of the padding.
    bytes = RecordFile(SOME_BLOCKS);
    bytes[102] = 1;
    doubt(bytes, Flaw::PaddingNotZero);
    bytes = RecordFile(SOME_BLOCKS);
    bytes[4091] = 1;
    doubt(bytes, Flaw::PaddingNotZero);

    for (const std::uint32_t size : {0U, 1U, 511U, 65537U}) {
        bytes = RecordFile(SOME_BLOCKS, size);
        doubt(bytes, Flaw::BlockSizeInvalid);
    }

    bytes = RecordFile(SOME_BLOCKS);
    PutWord(bytes, BITMAP_LENGTH_AT, 4005); // one byte too many for a record of 4096
    doubt(bytes, Flaw::RecordSizeOdd);
}

TEST(VtfltctlBitmapFile, BitmapThatIsNotThereCountsAsChanged)
{
    Bytes bytes = RecordFile(SOME_BLOCKS);
    PutWord(bytes, BITMAP_LENGTH_AT, 0xFFFFFFFF);
    MemoryBytes file(bytes);
    const FileFacts facts = Inspect(file, Kind::Record);
    EXPECT_EQ(VerdictOf(facts), Verdict::Doubtful);
    EXPECT_TRUE(facts.Has(Flaw::BitmapMissing));
    EXPECT_EQ(facts.heldBytes, 4096U - 88 - 16);
    EXPECT_EQ(facts.heldBytes + facts.missingBytes, 0xFFFFFFFFU - 16);

    FileBits bits(file, facts, facts.Blocks());
    std::array<std::uint8_t, 4> around{};
    bits.Read(facts.heldBytes - 2, around.data(), around.size());
    EXPECT_EQ(around, (std::array<std::uint8_t, 4>{0, 0, 0xFF, 0xFF}));
    bits.Read(0xFFFFFFFFU - 16 - 2, around.data(), around.size());
    EXPECT_EQ(around, (std::array<std::uint8_t, 4>{0xFF, 0xFF, 0, 0}));
}

TEST(VtfltctlBitmapFile, HeaderIsReadAlone)
{
    MemoryBytes file(RecordOfBits(Bytes(1024 * 1024)));
    EXPECT_EQ(VerdictOf(Inspect(file, Kind::Record)), Verdict::Sound);
    EXPECT_LT(file.bytesRead, 8192U);
}

TEST(VtfltctlBitmapFile, WordsOfTheBuffersHeaderAreShown)
{
    Bytes bytes = RecordFile(SOME_BLOCKS);
    bytes[84] = 0x2A;
    bytes[92] = 0x80;
    const FileFacts facts = Look(bytes);
    EXPECT_EQ(facts.leadWords[0], 0x2AU);
    EXPECT_EQ(facts.leadWords[1], 0x80U);
    EXPECT_TRUE(facts.flaws.empty());
}

TEST(VtfltctlBitmapFile, WithoutABufferHeaderTheBitsBeginAtTheBitmap)
{
    const FileFacts facts = Look(RecordFile(SOME_BLOCKS), Kind::Record, 0);
    EXPECT_EQ(facts.bitsOffset, 84U);
    EXPECT_EQ(facts.heldBytes, 18U);
}

TEST(VtfltctlBitmapFile, DumpsOfEveryLength)
{
    for (std::size_t length = 0; length < 40; ++length) {
        const FileFacts facts = Look(Bytes(length, 0xFF), Kind::Dump);
        EXPECT_EQ(facts.kind, Kind::Dump);
        EXPECT_EQ(VerdictOf(facts), length < 16 ? Verdict::Doubtful : Verdict::Sound) << length;
        EXPECT_EQ(facts.heldBytes, length < 16 ? 0 : length - 16) << length;
        EXPECT_EQ(facts.missingBytes, 0U);
        EXPECT_EQ(facts.Readable(), length > 16) << length;
    }
}

TEST(VtfltctlBitmapFile, FitsTheVolumeFreshRemappedAndMerged)
{
    constexpr std::uint64_t TEBIBYTE = std::uint64_t{1} << 40;
    const auto misfits = [](std::uint32_t length, std::uint64_t volume) {
        FileFacts facts;
        facts.blockSize = 65536;
        facts.bitmapLength = length;
        return Misfits(facts, volume, 65536);
    };
    EXPECT_TRUE(misfits(2097152, TEBIBYTE).empty()) << "remapped";
    EXPECT_TRUE(misfits(2097168, TEBIBYTE).empty()) << "fresh";
    EXPECT_EQ(misfits(2097151, TEBIBYTE), std::vector<Flaw>{Flaw::CoversLess});
    EXPECT_EQ(misfits(2097169, TEBIBYTE), std::vector<Flaw>{Flaw::CoversMore});
    // A block more: a bit, a byte, a word of 8 bytes in the driver's buffer.
    EXPECT_EQ(misfits(2097152, TEBIBYTE + 1), std::vector<Flaw>{Flaw::CoversLess});
    EXPECT_TRUE(misfits(2097176, TEBIBYTE + 1).empty()) << "merged";
    EXPECT_EQ(misfits(2097177, TEBIBYTE + 1), std::vector<Flaw>{Flaw::CoversMore});

    FileFacts other;
    other.blockSize = 4096;
    EXPECT_EQ(Misfits(other, TEBIBYTE, 65536), std::vector<Flaw>{Flaw::BlockSizeDiffers});
}

TEST(VtfltctlBitmapFile, EveryFlawAndVerdictIsNamedAndExplained)
{
    std::vector<std::string_view> names;
    for (int i = 0; i <= static_cast<int>(Flaw::CoversMore); ++i) {
        const Flaw flaw = static_cast<Flaw>(i);
        EXPECT_FALSE(FlawName(flaw).empty()) << i;
        EXPECT_FALSE(FlawText(flaw, FileFacts{}).empty()) << i;
        names.push_back(FlawName(flaw));
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(std::unique(names.begin(), names.end()), names.end());
    for (const Verdict verdict : {Verdict::Sound, Verdict::Doubtful, Verdict::MustVerify, Verdict::BlocksAll}) {
        EXPECT_FALSE(VerdictName(verdict).empty());
        EXPECT_FALSE(VerdictText(verdict).empty());
    }
}

TEST(VtfltctlBitmapName, NamesOfTheLibrary)
{
    const auto parsed = [](const char* path, Role role, const char* application, const char* taken = "") {
        const NameFacts facts = ParseBitmapName(path);
        EXPECT_EQ(facts.role, role) << path;
        EXPECT_EQ(facts.application, application) << path;
        EXPECT_EQ(facts.taken, taken) << path;
    };
    parsed(R"(\\?\Volume{1}\VelVolTrc\VelVolTrc_base_app1.dat)", Role::Base, "app1");
    parsed("VelVolTrc_child_my app*.dat.dat", Role::Child, "my app*.dat");
    parsed("e:/x/velvoltrc_BASE_App.DAT", Role::Base, "App");
    parsed("DriverBitmap-app1-20240305-070809-010.dat", Role::DriverDump, "app1", "2024-03-05T07:08:09.010");
    parsed("DriverBitmap2App-a-b-20240305-070809-010.dat", Role::ToAppDump, "a-b", "2024-03-05T07:08:09.010");
    parsed("AppSnapChanges-20240305-070809-010-20250305-070809-011.dat", Role::SnapshotChanges, "20240305-070809-010",
           "2025-03-05T07:08:09.011");
}

TEST(VtfltctlBitmapName, OtherNames)
{
    for (const char* path :
         {"", ".dat", "VelVolTrc_base_.dat", "VelVolTrc_base_app1", "VelVolTrc_base_app1.dat/",
          "xVelVolTrc_base_app1.dat", "DriverBitmap-app1.dat", "DriverBitmap--20240305-070809-010.dat",
          "DriverBitmap-20240305-070809-010.dat", "DriverBitmap-app1-2024a305-070809-010.dat",
          "AppSnapChanges-app1-20240305-070809-0100.dat"}) {
        const NameFacts facts = ParseBitmapName(path);
        const bool emptyId = std::string_view(path) == "DriverBitmap--20240305-070809-010.dat";
        EXPECT_TRUE(facts.role == Role::Unknown || emptyId) << path;
    }
}
