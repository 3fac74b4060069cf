// Writing a record to its file.
#include "internal/container_fixture.h"

namespace {

using namespace vttest;
using vtflt::BASE_BITMAP;
using vtflt::CHILD_BITMAP;

class ContainerWrite : public ContainerTest {
protected:
    ContainerWrite()
    {
        HaveBase(Bytes(FRESH_BITMAP_BYTES, 0x5A));
        m_image = BaseImage();
    }

    void ExpectHiddenSystem(const std::wstring& relative) const
    {
        constexpr DWORD HIDDEN_SYSTEM = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
        EXPECT_EQ(FileAttributes(volume, relative) & HIDDEN_SYSTEM, HIDDEN_SYSTEM);
    }
    std::wstring Line(const wchar_t* what) const
    {
        return std::wstring(L"CBitmapContainer::WriteBitMapToFile::") + what + BasePath();
    }
    std::wstring FolderFailed() const
    {
        return L"CBitmapContainer::WriteBitMapToFile::Failed to created bitmaps directory " + FolderPath();
    }

    // The write fails with this error, and what it left in the file passes for no record.
    void ExpectFailedWriteWithoutTrailer(DWORD error)
    {
        MakeBitmapFolder();
        EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), error);
        log.ExpectExactly({{0, error, Line(L"WriteFile disk bitmap failed. Bitmap file name: ")}});
        EXPECT_TRUE(BaseImage() == m_image) << "the record changed";
        EXPECT_EQ(BaseFile().image.size(), m_image.size());
        EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), vtflt::BM_ERR_VERIFY_REQUIRED);
    }

    Bytes m_image;
};

TEST_F(ContainerWrite, MakesTheFolderAndTheFileHiddenAndSystem)
{
    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), 0u);
    log.ExpectNothingLogged();
    EXPECT_TRUE(BaseFile().image == m_image);
    ExpectHiddenSystem(FOLDER);
    ExpectHiddenSystem(BaseName(APP));
    EXPECT_FALSE(ChildFile().exists);
}

TEST_F(ContainerWrite, ReplacesALongerFileWhole)
{
    PutBase(Bytes(20000, 0xEE));
    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), 0u);
    EXPECT_TRUE(BaseFile().image == m_image);
}

TEST_F(ContainerWrite, FlagZeroWritesTheChild)
{
    container->m_pChildBitmap = vtflt::BitmapRecord::Make(4096, 1);
    EXPECT_EQ(container->WriteBitMapToFile(CHILD_BITMAP), 0u);
    EXPECT_TRUE(ChildFile().image == MakeBitmapImage(4096, Bytes(1)));
    EXPECT_FALSE(BaseFile().exists);
}

TEST_F(ContainerWrite, IsOnTheDiskBeforeItCountsAsWrittenAndTheTrailerIsTheLastToGo)
{
    MakeBitmapFolder();
    VTFltSimRecord(1);
    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), 0u);
    VTFltSimRecord(0);
    const std::vector<std::wstring> expected = {L"CreateFileW",      L"SetFilePointer", L"WriteFile",
                                                L"FlushFileBuffers", L"SetFilePointer", L"WriteFile",
                                                L"FlushFileBuffers", L"CloseHandle"};
    EXPECT_TRUE(CallsOf({L"CreateFileW", L"SetFilePointer", L"WriteFile", L"FlushFileBuffers", L"CloseHandle",
                         L"CreateDirectoryW", L"SetFileAttributesW"}) == expected);
}

TEST_F(ContainerWrite, FolderThatExistsIsLeftAsItIs)
{
    MakeBitmapFolder();
    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), 0u);
    EXPECT_EQ(FileAttributes(volume, FOLDER) & DWORD{FILE_ATTRIBUTE_HIDDEN}, 0u);
}

TEST_F(ContainerWrite, NoRecordIsAGeneralFailureAndTouchesNoFile)
{
    PutChild(Bytes(3, 7));
    EXPECT_EQ(container->WriteBitMapToFile(CHILD_BITMAP), 0xFFFFFFFFu);
    EXPECT_TRUE(ChildFile().image == Bytes(3, 7));
    log.ExpectNothingLogged();
}

TEST_F(ContainerWrite, FolderThatCannotBeMadeReturnsItsError)
{
    vtfltsim::FailCall(L"CreateDirectoryW", ERROR_ACCESS_DENIED);
    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), DWORD{ERROR_ACCESS_DENIED});
    log.ExpectExactly({{0, ERROR_ACCESS_DENIED, FolderFailed()}});
    EXPECT_FALSE(FileExists(volume, FOLDER));
}

TEST_F(ContainerWrite, RefusedCreateInAnExistingFolderReturnsTheFoldersError)
{
    MakeBitmapFolder();
    vtfltsim::FailCall(L"CreateFileW", ERROR_ACCESS_DENIED);
    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), DWORD{ERROR_ALREADY_EXISTS});
    log.ExpectExactly({{0, ERROR_ALREADY_EXISTS, FolderFailed()}});
}

TEST_F(ContainerWrite, SecondCreateThatFailsReturnsItsError)
{
    vtfltsim::FailCall(L"CreateFileW", ERROR_DISK_FULL, nullptr, 2);
    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), DWORD{ERROR_DISK_FULL});
    log.ExpectExactly({{0, ERROR_DISK_FULL, Line(L"Create disk bitmap file failed, file name:")}});
    ExpectHiddenSystem(FOLDER);
    EXPECT_FALSE(BaseFile().exists);
}

TEST_F(ContainerWrite, CreateThatSucceedsWithPathNotFoundCountsAsAMissingFolder)
{
    MakeFolder(volume, L"elsewhere");
    const HANDLE strange =
        CreateFileW(RealPath(volume, L"elsewhere\\file").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(strange, INVALID_HANDLE_VALUE);
    VTFLTSIM_CALL_FAULT fault = {};
    fault.size = sizeof(fault);
    fault.what = VTFLTSIM_CALL_RETURNS;
    fault.function = L"CreateFileW";
    fault.nth = 1;
    fault.count = 1;
    fault.error = ERROR_PATH_NOT_FOUND;
    fault.value = reinterpret_cast<ULONGLONG>(strange);
    ASSERT_EQ(VTFltSimSetCallFault(&fault), 0u);

    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), 0u);
    EXPECT_TRUE(BaseFile().image == m_image);
    EXPECT_TRUE(ReadFileBytes(volume, L"elsewhere\\file").empty());
    // The library closed the first handle: ReadFileBytes could open the file, and nothing is left open.
}

TEST_F(ContainerWrite, FilePointerThatCannotBeMovedReturnsItsError)
{
    MakeBitmapFolder();
    vtfltsim::FailCall(L"SetFilePointer", ERROR_SEEK);
    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), DWORD{ERROR_SEEK});
    log.ExpectExactly({{0, ERROR_SEEK, Line(L"SetFilePointer disk bitmap failed. Bitmap file name: ")}});
    EXPECT_TRUE(BaseFile().image.empty());
}

TEST_F(ContainerWrite, WriteThatFailsReturnsItsError)
{
    MakeBitmapFolder();
    vtfltsim::FailCall(L"WriteFile", ERROR_DISK_FULL);
    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), DWORD{ERROR_DISK_FULL});
    log.ExpectExactly({{0, ERROR_DISK_FULL, Line(L"WriteFile disk bitmap failed. Bitmap file name: ")}});
    EXPECT_TRUE(BaseImage() == m_image) << "the record changed";
}

TEST_F(ContainerWrite, ShortWriteIsLoggedAndItsResultIsTheLastErrorEvenWhenThatIsZero)
{
    MakeBitmapFolder();
    MoveOnly(L"WriteFile", 100, 1);
    SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), 0u);
    log.ExpectExactly({{0, 0, Line(L"WriteFile disk bitmap failed. Bitmap file name: ")}});
    EXPECT_EQ(BaseFile().image.size(), 100u);
    // The next reader finds out.
    EXPECT_EQ(container->ReadBitMapFromFile(BASE_BITMAP), 0xFFFFFFFFu);
}

TEST_F(ContainerWrite, BytesThatDoNotReachTheDiskAreAFailedWriteWithoutATrailer)
{
    vtfltsim::FailCall(L"FlushFileBuffers", ERROR_IO_DEVICE, nullptr, 1);
    ExpectFailedWriteWithoutTrailer(ERROR_IO_DEVICE);
}

TEST_F(ContainerWrite, TrailerThatCannotBeReachedIsAFailedWrite)
{
    vtfltsim::FailCall(L"SetFilePointer", ERROR_SEEK, nullptr, 2);
    ExpectFailedWriteWithoutTrailer(ERROR_SEEK);
}

TEST_F(ContainerWrite, TrailerThatCannotBeWrittenIsAFailedWrite)
{
    vtfltsim::FailCall(L"WriteFile", ERROR_IO_DEVICE, nullptr, 2);
    ExpectFailedWriteWithoutTrailer(ERROR_IO_DEVICE);
}

TEST_F(ContainerWrite, TrailerThatIsWrittenInPartLeavesAnInvalidFileWithTheLastErrorAsResult)
{
    MoveOnly(L"WriteFile", 2, 2);
    SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    ExpectFailedWriteWithoutTrailer(0);
}

TEST_F(ContainerWrite, TrailerThatDoesNotReachTheDiskIsAFailedWrite)
{
    MakeBitmapFolder();
    vtfltsim::FailCall(L"FlushFileBuffers", ERROR_IO_DEVICE, nullptr, 2);
    EXPECT_EQ(container->WriteBitMapToFile(BASE_BITMAP), DWORD{ERROR_IO_DEVICE});
    log.ExpectExactly({{0, ERROR_IO_DEVICE, Line(L"WriteFile disk bitmap failed. Bitmap file name: ")}});
}

} // namespace
