// Bitmap files as crashes, other programs and bad disks leave them.
#include "internal/container_fixture.h"

#include <cstring>

namespace {

using namespace vttest;
using vtflt::BASE_BITMAP;
using vtflt::BM_ERR_VERIFY_REQUIRED;

constexpr std::size_t BLOCK_SIZE_AT = 8;
constexpr std::size_t BITMAP_LENGTH_AT = 12;
constexpr std::size_t RECORD_SIZE_AT = 16;

Bytes WithField(Bytes image, std::size_t offset, std::uint32_t value)
{
    std::memcpy(image.data() + offset, &value, sizeof(value));
    return image;
}

// 88 bytes that begin with the signature, claim this size, and end as told.
Bytes SmallestFile(std::uint32_t recordSize, const char* trailer)
{
    Bytes image(88);
    std::memcpy(image.data(), "STCA", 4);
    std::memcpy(image.data() + 84, trailer, 4);
    return WithField(image, RECORD_SIZE_AT, recordSize);
}

class DamagedFile : public ContainerTest {
protected:
    DamagedFile()
    {
        HaveBase(Bytes(4, 0x11));
        m_before = BaseImage();
    }

    DWORD ReadBase(const Bytes& image)
    {
        PutBase(image);
        log.Clear();
        VTFltSimResetCounts();
        const DWORD result = container->ReadBitMapFromFile(BASE_BITMAP);
        m_allocations = VTFltSimGetCallCount(L"calloc");
        return result;
    }

    void ExpectRecordKept() const { EXPECT_TRUE(BaseImage() == m_before); }
    void ExpectCorrupted(const Bytes& image)
    {
        EXPECT_EQ(ReadBase(image), BM_ERR_VERIFY_REQUIRED);
        log.ExpectExactly(
            {{0, 0, L"CBitmapContainer::ReadBitMapFromFile: Bitmap file corrupted, file name:" + BasePath()}});
        EXPECT_EQ(m_allocations, 0u);
        ExpectRecordKept();
    }
    void ExpectInvalid(const Bytes& image)
    {
        EXPECT_EQ(ReadBase(image), BM_ERR_VERIFY_REQUIRED);
        log.ExpectExactly(
            {{0, 0, L"CBitmapContainer::ReadBitMapFromFile: Invalid bitmap file, file name:" + BasePath()}});
        ExpectRecordKept();
    }
    // The header claims more than the file has: a failed read, and no memory is asked for.
    void ExpectTooLarge(const Bytes& image, unsigned claimed)
    {
        EXPECT_EQ(ReadBase(image), 0xFFFFFFFFu);
        log.ExpectExactly(
            {{0, 0xFFFFFFFF, L"CBitmapContainer::ReadBitMapFromFile: Read bitmap file failed, file name:" + BasePath()},
             {0, 0xFFFFFFFF,
              L"CBitmapContainer::ReadBitMapFromFile: Requested number of bytes: " + WideNumber(claimed) +
                  L", Bytes read: " + WideNumber(image.size())}});
        EXPECT_EQ(m_allocations, 0u);
        ExpectRecordKept();
    }

    // Makes the base file 4 GiB long behind these bytes, without storing the rest.
    void PutSparse(const Bytes& head) const
    {
        PutBase(head);
        const vtflt::UniqueHandle file(
            CreateFileW(RealPath(volume, BaseName(APP)).c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(file.valid());
        LARGE_INTEGER end = {};
        end.QuadPart = 4ll << 30;
        ASSERT_TRUE(SetFilePointerEx(file.get(), end, nullptr, FILE_BEGIN));
        ASSERT_TRUE(SetEndOfFile(file.get()));
    }

    const Bytes m_sound = MakeBitmapImage(BLOCK_SIZE, Bytes(FRESH_BITMAP_BYTES, 0x3C));
    DWORD m_allocations = 0;

private:
    Bytes m_before;
};

TEST_F(DamagedFile, EmptyFileIsCorrupted)
{
    ExpectCorrupted({});
}

TEST_F(DamagedFile, FileOf87BytesIsCorrupted)
{
    ExpectCorrupted(Bytes(m_sound.begin(), m_sound.begin() + 87));
}

TEST_F(DamagedFile, WrongSignatureIsCorruptedWhateverElseIsRight)
{
    for (std::size_t i = 0; i < 4; ++i) {
        Bytes image = m_sound;
        image[i] ^= 0x20;
        ExpectCorrupted(image);
    }
}

TEST_F(DamagedFile, FileOfZerosIsCorrupted)
{
    ExpectCorrupted(Bytes(4096));
}

TEST_F(DamagedFile, WrongTrailerIsInvalid)
{
    for (std::size_t i = 4092; i < 4096; ++i) {
        Bytes image = m_sound;
        image[i] ^= 0x20;
        ExpectInvalid(image);
    }
}

TEST_F(DamagedFile, RecordSizeZeroIsInvalid)
{
    ExpectInvalid(WithField(m_sound, RECORD_SIZE_AT, 0));
    ExpectInvalid(SmallestFile(0, "ACDE"));
}

TEST_F(DamagedFile, RecordSizeBelowFourIsInvalid)
{
    for (const std::uint32_t size : {1u, 2u, 3u})
        ExpectInvalid(WithField(m_sound, RECORD_SIZE_AT, size));
}

TEST_F(DamagedFile, RecordSizeFourIsInvalidForSignatureAndTrailerCannotBothBeThere)
{
    ExpectInvalid(WithField(m_sound, RECORD_SIZE_AT, 4));
    ExpectInvalid(SmallestFile(4, "ACDE"));
}

TEST_F(DamagedFile, RecordSize88WithoutATrailerThereIsInvalid)
{
    ExpectInvalid(SmallestFile(88, "\0\0\0\0"));
    ExpectInvalid(WithField(m_sound, RECORD_SIZE_AT, 88));
}

TEST_F(DamagedFile, RecordSizeShorterThanTheFileIsReadAsItSays)
{
    Bytes image = WithField(m_sound, RECORD_SIZE_AT, 200);
    std::memcpy(image.data() + 196, "ACDE", 4);
    EXPECT_EQ(ReadBase(image), 0u);
    EXPECT_EQ(container->m_pBaseBitmap->Size(), 200u);
    log.ExpectNothingLogged();
}

TEST_F(DamagedFile, SmallestFileWithBothEndsIsValid)
{
    EXPECT_EQ(ReadBase(SmallestFile(88, "ACDE")), 0u);
    EXPECT_EQ(container->m_pBaseBitmap->Size(), 88u);
    EXPECT_EQ(container->m_pBaseBitmap->BitmapLength(), 0u);
}

TEST_F(DamagedFile, RecordSizeBeyondTheFileIsAFailedReadAndAsksForNoMemory)
{
    ExpectTooLarge(WithField(m_sound, RECORD_SIZE_AT, 4097), 4097);
    ExpectTooLarge(SmallestFile(89, "ACDE"), 89);
    ExpectTooLarge(Bytes(m_sound.begin(), m_sound.begin() + 4000), 4096);
}

TEST_F(DamagedFile, RecordSizeOf4GiBAsksForNoMemory)
{
    ExpectTooLarge(SmallestFile(0xFFFFFFFF, "ACDE"), 0xFFFFFFFF);
    ExpectTooLarge(WithField(m_sound, RECORD_SIZE_AT, 0xFFFFFFFF), 0xFFFFFFFF);
    ExpectTooLarge(WithField(m_sound, RECORD_SIZE_AT, 0x80000000), 0x80000000);
}

TEST_F(DamagedFile, FileOf4GiBWithASoundRecordInFrontIsRead)
{
    PutSparse(m_sound);
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), 0u);
    EXPECT_TRUE(BaseImage() == m_sound);
    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), 0u);
    EXPECT_TRUE(BaseFile().image == m_sound) << "the rest of the file stayed";
}

TEST_F(DamagedFile, FileOf4GiBOfZerosIsCorrupted)
{
    PutSparse({});
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), BM_ERR_VERIFY_REQUIRED);
    log.ExpectExactly(
        {{0, 0, L"CBitmapContainer::ReadBitMapFromFile: Bitmap file corrupted, file name:" + BasePath()}});
    ExpectRecordKept();
}

TEST_F(DamagedFile, FileOf4GiBThatClaimsAllOfItAndFindsNoMemoryReturns8)
{
    PutSparse(WithField(m_sound, RECORD_SIZE_AT, 0xFFFFFFFF));
    vtfltsim::FailCall(L"calloc", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), 8u);
    log.ExpectExactly({{0, 8, L"CBitmapContainer::ReadBitMapFromFile: pFileRecord is NULL !!"}});
    ExpectRecordKept();
}

TEST_F(DamagedFile, BlockSizeIsNotChecked)
{
    EXPECT_EQ(ReadBase(WithField(m_sound, BLOCK_SIZE_AT, 0)), 0u);
    EXPECT_EQ(ReadBase(WithField(m_sound, BLOCK_SIZE_AT, 0xFFFFFFFF)), 0u);
    log.ExpectNothingLogged();
}

TEST_F(DamagedFile, BitmapLengthBeyondTheRecordIsNotCheckedAndNothingLeavesTheRecord)
{
    for (const std::uint32_t length : {4009u, 4096u, 0x80000000u, 0xFFFFFFFFu}) {
        const Bytes image = WithField(m_sound, BITMAP_LENGTH_AT, length);
        ASSERT_EQ(ReadBase(image), 0u) << length;
        log.ExpectNothingLogged();
        vtflt::BitmapRecord& record = *container->m_pBaseBitmap;
        EXPECT_EQ(record.BitmapLength(), length);
        EXPECT_EQ(record.HeldBitmapBytes(), 4096u - 88u);

        const Bytes ones(8192, 0xFF);
        record.Or(ones.data(), ones.size());
        EXPECT_TRUE(record.IsValid()) << "the trailer was written over";
        record.Clear();
        EXPECT_TRUE(record.IsValid());
        // What is written is the record, not what the header claims.
        EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), 0u);
        EXPECT_EQ(BaseFile().image.size(), 4096u);
    }
}

TEST_F(DamagedFile, RecordThatHoldsLessThanItClaimsIsRebuiltWithTheMissingPartChanged)
{
    ASSERT_EQ(ReadBase(WithField(m_sound, BITMAP_LENGTH_AT, 5000)), 0u);
    EXPECT_EQ(container->RegenerateBitmapForNewVolSize(5000, BASE_BITMAP), 0u);
    const Bytes bitmap = BaseFile().Bitmap();
    ASSERT_EQ(bitmap.size(), 5000u);
    EXPECT_EQ(BaseFile().RecordSize(), 8192u);
    EXPECT_EQ(bitmap[FRESH_BITMAP_BYTES - 1], 0x3C);
    EXPECT_EQ(bitmap[FRESH_BITMAP_BYTES], 0x00);
    EXPECT_EQ(bitmap[4007], 0x00);
    for (std::size_t i = 4008; i < 5000; ++i)
        ASSERT_EQ(bitmap[i], 0xFF) << i;
}

TEST_F(DamagedFile, RecordOfEightBytesIsUsedWithoutLeavingIt)
{
    // The trailer where the first reserved field is: the smallest record that passes.
    Bytes image = WithField(m_sound, RECORD_SIZE_AT, 8);
    std::memcpy(image.data() + 4, "ACDE", 4);
    ASSERT_EQ(ReadBase(image), 0u);
    EXPECT_EQ(container->m_pBaseBitmap->BitmapLength(), 0u);
    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), 0u);
    EXPECT_TRUE(BaseFile().image == Bytes(image.begin(), image.begin() + 8));
    EXPECT_EQ(container->RegenerateBitmapForNewVolSize(3, BASE_BITMAP), 0u);
    EXPECT_TRUE(BaseFile().image == MakeBitmapImage(0, Bytes(3)));
}

} // namespace
