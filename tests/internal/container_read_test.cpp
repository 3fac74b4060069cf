// Loading a bitmap file into its record.
#include "internal/container_fixture.h"

namespace {

using namespace vttest;
using vtflt::BASE_BITMAP;
using vtflt::BM_ERR_VERIFY_REQUIRED;
using vtflt::CHILD_BITMAP;

class ContainerRead : public ContainerTest {
protected:
    // After a failure the record is the one from before.
    void ExpectBaseKept(const Bytes& before) const
    {
        ASSERT_NE(container->m_pBaseBitmap, nullptr);
        EXPECT_TRUE(BaseImage() == before);
    }
    std::wstring OpenFailed(const std::wstring& path) const { return L"Open bitmap file failed, file name:" + path; }
    std::wstring ReadFailed() const
    {
        return L"CBitmapContainer::ReadBitMapFromFile: Read bitmap file failed, file name:" + BasePath();
    }
    static std::wstring Counts(unsigned requested, unsigned read)
    {
        return L"CBitmapContainer::ReadBitMapFromFile: Requested number of bytes: " + WideNumber(requested) +
               L", Bytes read: " + WideNumber(read);
    }
};

TEST_F(ContainerRead, LoadsTheFileByteForByteAndLogsNothing)
{
    Bytes image = MakeBitmapImage(BLOCK_SIZE, Bytes(FRESH_BITMAP_BYTES, 0xA5));
    image[5] = 1;  // reserved bytes are not looked at
    image[60] = 2; // nor are these
    PutBase(image);
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), 0u);
    ASSERT_NE(container->m_pBaseBitmap, nullptr);
    EXPECT_TRUE(BaseImage() == image);
    EXPECT_EQ(container->m_pChildBitmap, nullptr);
    log.ExpectNothingLogged();
    EXPECT_TRUE(BaseFile().image == image);
}

TEST_F(ContainerRead, FlagZeroLoadsTheChildAndLeavesTheBaseAlone)
{
    PutBase(MakeBitmapImage(BLOCK_SIZE, Bytes(4, 0x11)));
    PutChild(MakeBitmapImage(BLOCK_SIZE, Bytes(4, 0x22)));
    EXPECT_EQ(container->ReadBitMapFromFile(CHILD_BITMAP), 0u);
    ASSERT_NE(container->m_pChildBitmap, nullptr);
    EXPECT_EQ(container->m_pChildBitmap->Bitmap()[0], 0x22);
    EXPECT_EQ(container->m_pBaseBitmap, nullptr);
}

TEST_F(ContainerRead, ReplacesTheRecordThatWasLoadedBefore)
{
    HaveBase(Bytes(4, 0x11));
    const Bytes image = MakeBitmapImage(4096, Bytes(5000, 0x22));
    PutBase(image);
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), 0u);
    EXPECT_TRUE(BaseImage() == image);
}

TEST_F(ContainerRead, MissingFileMeansVerify)
{
    HaveBase(Bytes(4, 0x11));
    const Bytes before = BaseImage();
    MakeBitmapFolder();
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), BM_ERR_VERIFY_REQUIRED);
    log.ExpectExactly({{0, ERROR_FILE_NOT_FOUND, OpenFailed(BasePath())}});
    ExpectBaseKept(before);
}

TEST_F(ContainerRead, MissingFolderMeansVerify)
{
    EXPECT_EQ(container->ReadBitMapFromFile(CHILD_BITMAP), BM_ERR_VERIFY_REQUIRED);
    log.ExpectExactly({{0, ERROR_PATH_NOT_FOUND, OpenFailed(ChildPath())}});
    EXPECT_EQ(container->m_pChildBitmap, nullptr);
}

TEST_F(ContainerRead, RefusedOpenReturnsItsError)
{
    PutBase(MakeBitmapImage(BLOCK_SIZE, Bytes(4)));
    vtfltsim::FailCall(L"CreateFileW", ERROR_ACCESS_DENIED);
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), DWORD{ERROR_ACCESS_DENIED});
    log.ExpectExactly({{0, ERROR_ACCESS_DENIED, OpenFailed(BasePath())}});
}

TEST_F(ContainerRead, FileThatSomebodyWritesIsASharingViolation)
{
    PutBase(MakeBitmapImage(BLOCK_SIZE, Bytes(4)));
    const vtflt::UniqueHandle writer(CreateFileW(RealPath(volume, BaseName(APP)).c_str(), GENERIC_WRITE,
                                                 FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                                 nullptr));
    ASSERT_TRUE(writer.valid());
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), DWORD{ERROR_SHARING_VIOLATION});
    log.ExpectExactly({{0, ERROR_SHARING_VIOLATION, OpenFailed(BasePath())}});
}

TEST_F(ContainerRead, HeaderReadThatFailsReturnsItsError)
{
    HaveBase(Bytes(4, 0x11));
    const Bytes before = BaseImage();
    PutBase(MakeBitmapImage(BLOCK_SIZE, Bytes(4)));
    vtfltsim::FailCall(L"ReadFile", ERROR_IO_DEVICE);
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), DWORD{ERROR_IO_DEVICE});
    log.ExpectExactly({{0, ERROR_IO_DEVICE, ReadFailed()}});
    ExpectBaseKept(before);
}

TEST_F(ContainerRead, FilePointerThatCannotBeMovedBackReturnsItsError)
{
    PutBase(MakeBitmapImage(BLOCK_SIZE, Bytes(4)));
    vtfltsim::FailCall(L"SetFilePointer", ERROR_SEEK);
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), DWORD{ERROR_SEEK});
    log.ExpectExactly(
        {{0, ERROR_SEEK, L"CBitmapContainer::ReadBitMapFromFile: SetFilePointer failed, file name: " + BasePath()}});
    EXPECT_EQ(container->m_pBaseBitmap, nullptr);
}

TEST_F(ContainerRead, FileSizeThatCannotBeHadIsAFailedRead)
{
    PutBase(MakeBitmapImage(BLOCK_SIZE, Bytes(4)));
    vtfltsim::FailCall(L"GetFileSizeEx", ERROR_IO_DEVICE);
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), DWORD{ERROR_IO_DEVICE});
    log.ExpectExactly({{0, ERROR_IO_DEVICE, ReadFailed()}, {0, ERROR_IO_DEVICE, Counts(4096, 0)}});
}

TEST_F(ContainerRead, RecordThatMemoryIsTooShortForReturns8)
{
    HaveBase(Bytes(4, 0x11));
    const Bytes before = BaseImage();
    PutBase(MakeBitmapImage(BLOCK_SIZE, Bytes(4)));
    vtfltsim::FailCall(L"calloc", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    log.ExpectExactly({{0, 8, L"CBitmapContainer::ReadBitMapFromFile: pFileRecord is NULL !!"}});
    ExpectBaseKept(before);
}

TEST_F(ContainerRead, RecordReadThatFailsReturnsItsErrorWithTwoLines)
{
    HaveBase(Bytes(4, 0x11));
    const Bytes before = BaseImage();
    PutBase(MakeBitmapImage(BLOCK_SIZE, Bytes(4)));
    vtfltsim::FailCall(L"ReadFile", ERROR_CRC, nullptr, 2);
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), DWORD{ERROR_CRC});
    log.ExpectExactly({{0, ERROR_CRC, ReadFailed()}, {0, ERROR_CRC, Counts(4096, 0)}});
    ExpectBaseKept(before);
}

TEST_F(ContainerRead, ShortRecordReadWithoutAnErrorIsAGeneralFailure)
{
    HaveBase(Bytes(4, 0x11));
    const Bytes before = BaseImage();
    PutBase(MakeBitmapImage(BLOCK_SIZE, Bytes(4)));
    MoveOnly(L"ReadFile", 100, 2);
    SetLastError(ERROR_CALL_NOT_IMPLEMENTED); // an old error is not taken for this one
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), 0xFFFFFFFFu);
    log.ExpectExactly({{0, 0xFFFFFFFF, ReadFailed()}, {0, 0xFFFFFFFF, Counts(4096, 100)}});
    ExpectBaseKept(before);
}

TEST_F(ContainerRead, HeaderReadThatComesUpShortIsACorruptedFile)
{
    PutBase(MakeBitmapImage(BLOCK_SIZE, Bytes(4)));
    MoveOnly(L"ReadFile", 87, 1);
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), BM_ERR_VERIFY_REQUIRED);
    log.ExpectExactly(
        {{0, 0, L"CBitmapContainer::ReadBitMapFromFile: Bitmap file corrupted, file name:" + BasePath()}});
}

TEST_F(ContainerRead, NoDriverRequestIsSent)
{
    PutBase(MakeBitmapImage(4096, Bytes(4)));
    VTFltSimRecord(1);
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), 0u);
    VTFltSimRecord(0);
    EXPECT_TRUE(RequestCodes().empty());
}

} // namespace
