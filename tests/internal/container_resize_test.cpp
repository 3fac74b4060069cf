// Another bitmap length, another block size.
#include "driver/protocol.h"
#include "internal/container_fixture.h"

#include <winioctl.h>

namespace {

using namespace vttest;
using vtflt::BASE_BITMAP;
using vtflt::CHILD_BITMAP;
using vtflt::VTFLTCTL_GET_BLOCK_SIZE;

constexpr DWORD RESIZE_GET_LENGTH = IOCTL_DISK_GET_LENGTH_INFO;

class ContainerResize : public ContainerTest {};

TEST_F(ContainerResize, PresentLengthWritesNothing)
{
    HaveBase(Bytes(20, 0x5A));
    const vtflt::BitmapRecord* const record = container->m_pBaseBitmap.get();
    EXPECT_EQ(container->RegenerateBitmapForNewVolSize(20, BASE_BITMAP), 0u);
    EXPECT_EQ(container->m_pBaseBitmap.get(), record);
    EXPECT_FALSE(FileExists(volume, FOLDER));
    log.ExpectNothingLogged();
}

TEST_F(ContainerResize, GrownBitmapKeepsItsBitsAndBlockSizeAndHasAClearTail)
{
    HaveBase(Bytes(20, 0x5A), 4096);
    EXPECT_EQ(container->RegenerateBitmapForNewVolSize(5000, BASE_BITMAP), 0u);
    Bytes expected(5000);
    std::fill(expected.begin(), expected.begin() + 20, std::uint8_t{0x5A});
    EXPECT_TRUE(BaseFile().image == MakeBitmapImage(4096, expected));
    EXPECT_TRUE(BaseImage() == BaseFile().image);
    log.ExpectNothingLogged();
}

TEST_F(ContainerResize, ShrunkBitmapLosesItsTail)
{
    HaveBase(Bytes(5000, 0x5A), 4096);
    EXPECT_EQ(container->RegenerateBitmapForNewVolSize(20, BASE_BITMAP), 0u);
    EXPECT_TRUE(BaseFile().image == MakeBitmapImage(4096, Bytes(20, 0x5A)));
}

TEST_F(ContainerResize, LengthZeroLeavesAnEmptyBitmap)
{
    HaveBase(Bytes(20, 0x5A));
    EXPECT_EQ(container->RegenerateBitmapForNewVolSize(0, BASE_BITMAP), 0u);
    EXPECT_TRUE(BaseFile().image == MakeBitmapImage(BLOCK_SIZE, {}));
}

TEST_F(ContainerResize, FlagZeroResizesTheChild)
{
    container->m_pChildBitmap = vtflt::BitmapRecord::Make(BLOCK_SIZE, 4);
    EXPECT_EQ(container->RegenerateBitmapForNewVolSize(8, CHILD_BITMAP), 0u);
    EXPECT_TRUE(ChildFile().image == MakeBitmapImage(BLOCK_SIZE, Bytes(8)));
    EXPECT_FALSE(BaseFile().exists);
}

TEST_F(ContainerResize, FailedWriteIsReturnedAndTheResizedRecordStays)
{
    HaveBase(Bytes(20, 0x5A));
    MakeBitmapFolder();
    vtfltsim::FailCall(L"WriteFile", ERROR_DISK_FULL);
    EXPECT_EQ(container->RegenerateBitmapForNewVolSize(30, BASE_BITMAP), DWORD{ERROR_DISK_FULL});
    EXPECT_EQ(container->m_pBaseBitmap->BitmapLength(), 30u);
}

TEST_F(ContainerResize, NoMemoryReturns8AndTheOldRecordStays)
{
    HaveBase(Bytes(20, 0x5A));
    const Bytes before = BaseImage();
    vtfltsim::FailCall(L"calloc", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(container->RegenerateBitmapForNewVolSize(30, BASE_BITMAP), 8u);
    EXPECT_TRUE(BaseImage() == before);
    EXPECT_FALSE(FileExists(volume, FOLDER));
}

TEST_F(ContainerResize, LengthWhoseRecordDoesNotFit32BitsReturns8AndTheOldRecordStays)
{
    HaveBase(Bytes(20, 0x5A));
    const Bytes before = BaseImage();
    EXPECT_EQ(container->RegenerateBitmapForNewVolSize(0xFFFFFFFF, BASE_BITMAP), 8u);
    EXPECT_TRUE(BaseImage() == before);
}

TEST_F(ContainerResize, NoRecordIsAGeneralFailure)
{
    EXPECT_EQ(container->RegenerateBitmapForNewVolSize(30, BASE_BITMAP), 0xFFFFFFFFu);
    EXPECT_FALSE(FileExists(volume, FOLDER));
}

class ContainerRemap : public ContainerTest {
protected:
    void ChangeBlockSize(DWORD blockSize)
    {
        vtfltsim::Check("VTFltSimSetBlockSize", VTFltSimSetBlockSize(machine.handle(), volume.guid.c_str(), blockSize));
    }
    void ExpectUntouched(const Bytes& before) const
    {
        EXPECT_TRUE(BaseImage() == before);
        EXPECT_FALSE(FileExists(volume, FOLDER));
        ExpectNoVerifyList();
    }
};

TEST_F(ContainerRemap, SmallerBlocksStartEmptyWithoutExtraBytesWhateverWasRecorded)
{
    HaveBase(Bytes(FRESH_BITMAP_BYTES, 0xFF));
    ChangeBlockSize(4096); // 1600 blocks
    EXPECT_EQ(container->RemapOldBitmapToNewBlockSize(BASE_BITMAP), 0u);
    EXPECT_TRUE(BaseFile().image == MakeBitmapImage(4096, Bytes(200)));
    EXPECT_TRUE(BaseImage() == BaseFile().image);
    log.ExpectNothingLogged();
}

TEST_F(ContainerRemap, LargerBlocksStartEmptyWithoutExtraBytesWhateverWasRecorded)
{
    HaveBase(Bytes(FRESH_BITMAP_BYTES, 0xFF));
    ChangeBlockSize(1u << 20); // 6.25 blocks
    EXPECT_EQ(container->RemapOldBitmapToNewBlockSize(BASE_BITMAP), 0u);
    EXPECT_TRUE(BaseFile().image == MakeBitmapImage(1u << 20, Bytes(1)));
}

TEST_F(ContainerRemap, UnchangedBlockSizeStartsEmptyToo)
{
    HaveBase(Bytes(FRESH_BITMAP_BYTES, 0xFF));
    EXPECT_EQ(container->RemapOldBitmapToNewBlockSize(BASE_BITMAP), 0u);
    EXPECT_TRUE(BaseFile().image == MakeBitmapImage(BLOCK_SIZE, Bytes(VOLUME_BITMAP_BYTES)));
}

TEST_F(ContainerRemap, VolumeOf1TiBWith64KiBBlocksHas2097152BitmapBytes)
{
    Use(machine.AddVolume(1099511627776, 65536));
    EXPECT_EQ(container->ResetBitMapFiles(BASE_BITMAP), 0u);
    EXPECT_EQ(container->RemapOldBitmapToNewBlockSize(BASE_BITMAP), 0u);
    EXPECT_EQ(BaseFile().BitmapLength(), 2097152u);
    EXPECT_EQ(BaseFile().RecordSize(), 2101248u);
}

TEST_F(ContainerRemap, FlagZeroRemapsTheChild)
{
    container->m_pChildBitmap = vtflt::BitmapRecord::Make(BLOCK_SIZE, 4);
    ChangeBlockSize(4096);
    EXPECT_EQ(container->RemapOldBitmapToNewBlockSize(CHILD_BITMAP), 0u);
    EXPECT_TRUE(ChildFile().image == MakeBitmapImage(4096, Bytes(200)));
    EXPECT_FALSE(BaseFile().exists);
}

TEST_F(ContainerRemap, LengthThatCannotBeHadIsAGeneralFailureAndLogsNothing)
{
    HaveBase(Bytes(FRESH_BITMAP_BYTES, 0xFF));
    const Bytes before = BaseImage();
    machine.FailRequest(RESIZE_GET_LENGTH, ERROR_NOT_READY);
    EXPECT_EQ(container->RemapOldBitmapToNewBlockSize(BASE_BITMAP), 0xFFFFFFFFu);
    log.ExpectNothingLogged();
    ExpectUntouched(before);
}

TEST_F(ContainerRemap, BlockSizeThatCannotBeHadIsAGeneralFailureLoggedWithItsError)
{
    HaveBase(Bytes(FRESH_BITMAP_BYTES, 0xFF));
    const Bytes before = BaseImage();
    machine.FailRequest(VTFLTCTL_GET_BLOCK_SIZE, ERROR_INVALID_FUNCTION);
    EXPECT_EQ(container->RemapOldBitmapToNewBlockSize(BASE_BITMAP), 0xFFFFFFFFu);
    log.ExpectExactly({{0, ERROR_INVALID_FUNCTION,
                        L"CBitmapContainer::RemapOldBitmapToNewBlockSize::VTFLTCTL_GET_BLOCK_SIZE failed, mserr=1."}});
    ExpectUntouched(before);
}

TEST_F(ContainerRemap, NoMemoryReturns8AndTheOldRecordStays)
{
    HaveBase(Bytes(FRESH_BITMAP_BYTES, 0xFF));
    const Bytes before = BaseImage();
    vtfltsim::FailCall(L"calloc", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(container->RemapOldBitmapToNewBlockSize(BASE_BITMAP), 8u);
    ExpectUntouched(before);
}

TEST_F(ContainerRemap, FailedWriteIsReturned)
{
    HaveBase(Bytes(FRESH_BITMAP_BYTES, 0xFF));
    MakeBitmapFolder();
    vtfltsim::FailCall(L"WriteFile", ERROR_DISK_FULL);
    EXPECT_EQ(container->RemapOldBitmapToNewBlockSize(BASE_BITMAP), DWORD{ERROR_DISK_FULL});
    log.ExpectExactly(
        {{0, ERROR_DISK_FULL,
          L"CBitmapContainer::WriteBitMapToFile::WriteFile disk bitmap failed. Bitmap file name: " + BasePath()}});
}

} // namespace
