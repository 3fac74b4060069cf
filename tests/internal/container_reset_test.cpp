// Starting a bitmap afresh.
#include "driver/protocol.h"
#include "internal/container_fixture.h"

#include <winioctl.h>

namespace {

using namespace vttest;
using vtflt::BASE_BITMAP;
using vtflt::BM_ERR_VERIFY_REQUIRED;
using vtflt::CHILD_BITMAP;
using vtflt::VTFLTCTL_GET_BLOCK_SIZE;

constexpr DWORD GET_LENGTH = IOCTL_DISK_GET_LENGTH_INFO;

class ContainerReset : public ContainerTest {
protected:
    std::wstring Resetting(const std::wstring& path) const
    {
        return L"CBitmapContainer::ResetBitMapFilesResetting bitmap file " + path;
    }
    static std::wstring LengthFailed(unsigned error)
    {
        return L"CBitmapContainer::ResetBitMapFiles::IOCTL_DISK_GET_LENGTH_INFO failed, mserr=" + WideNumber(error) +
               L".";
    }
    static std::wstring BlockSizeFailed(unsigned error)
    {
        return L"CBitmapContainer::ResetBitMapFiles::VTFLTCTL_GET_BLOCK_SIZE failed, mserr=" + WideNumber(error) + L".";
    }
    void ForgeReply(DWORD code, const Bytes& reply)
    {
        vtfltsim::Check("VTFltSimForgeReply", VTFltSimForgeReply(machine.handle(), code, nullptr, 1, 1, reply.data(),
                                                                 static_cast<DWORD>(reply.size())));
    }
    // The volume is on the list, there is no record any more, and the file is as it was.
    void ExpectGivenUp(DWORD error, const std::wstring& line)
    {
        const Bytes stored = MakeBitmapImage(BLOCK_SIZE, Bytes(4, 0x11));
        PutBase(stored);
        HaveBase(Bytes(4, 0x11));
        DWORD cause = 0;
        EXPECT_EQ(container->ResetBitMapFiles(BASE_BITMAP, &cause), BM_ERR_VERIFY_REQUIRED);
        EXPECT_EQ(cause, error);
        log.ExpectExactly({{0, error, line}}, 0);
        EXPECT_EQ(container->m_pBaseBitmap, nullptr) << "bits of the old bitmap would be merged on";
        EXPECT_TRUE(BaseFile().image == stored);
        ExpectOnVerifyList();
    }
};

TEST_F(ContainerReset, WritesAnAllClearRecordWith16BytesMoreThanTheVolumeNeeds)
{
    DWORD cause = 77;
    EXPECT_EQ(container->ResetBitMapFiles(BASE_BITMAP, &cause), 0u);
    EXPECT_EQ(cause, 0u);
    const Bytes expected = MakeBitmapImage(BLOCK_SIZE, Bytes(FRESH_BITMAP_BYTES));
    EXPECT_TRUE(BaseFile().image == expected);
    ASSERT_NE(container->m_pBaseBitmap, nullptr);
    EXPECT_TRUE(BaseImage() == expected);
    log.ExpectExactly({{2, 0, Resetting(BasePath())}});
    ExpectNoVerifyList();
    EXPECT_FALSE(ChildFile().exists);
}

TEST_F(ContainerReset, FlagZeroResetsTheChild)
{
    EXPECT_EQ(container->ResetBitMapFiles(CHILD_BITMAP), 0u);
    EXPECT_TRUE(ChildFile().image == MakeBitmapImage(BLOCK_SIZE, Bytes(FRESH_BITMAP_BYTES)));
    EXPECT_EQ(container->m_pBaseBitmap, nullptr);
    log.ExpectExactly({{2, 0, Resetting(ChildPath())}});
}

TEST_F(ContainerReset, ReplacesWhatWasRecorded)
{
    HaveBase(Bytes(5000, 0xFF), 4096);
    PutBase(BaseImage());
    EXPECT_EQ(container->ResetBitMapFiles(BASE_BITMAP), 0u);
    EXPECT_TRUE(BaseFile().image == MakeBitmapImage(BLOCK_SIZE, Bytes(FRESH_BITMAP_BYTES)));
}

TEST_F(ContainerReset, AsksForTheLengthThenForTheBlockSize)
{
    VTFltSimRecord(1);
    EXPECT_EQ(container->ResetBitMapFiles(BASE_BITMAP), 0u);
    VTFltSimRecord(0);
    const auto requests = vtfltsim::Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].code, GET_LENGTH);
    EXPECT_EQ(requests[0].inputLength, 0u);
    EXPECT_EQ(requests[0].outputLength, 8u);
    EXPECT_EQ(requests[1].code, VTFLTCTL_GET_BLOCK_SIZE);
    EXPECT_EQ(requests[1].inputLength, 0u);
    EXPECT_EQ(requests[1].outputLength, 4u);
    EXPECT_TRUE(volume.Path() == requests[0].endpoint);
    EXPECT_TRUE(volume.Path() == requests[1].endpoint);
}

TEST_F(ContainerReset, VolumeOf1TiBWith64KiBBlocksHas2097168BitmapBytes)
{
    Use(machine.AddVolume(1099511627776, 65536));
    EXPECT_EQ(container->ResetBitMapFiles(BASE_BITMAP), 0u);
    const BitmapFile file = BaseFile();
    EXPECT_EQ(file.BitmapLength(), 2097168u);
    EXPECT_EQ(file.RecordSize(), 2101248u);
    EXPECT_EQ(file.image.size(), 2101248u);
}

TEST_F(ContainerReset, LastPartialBlockIsCounted)
{
    Use(machine.AddVolume(104 * 65536, 65536));
    EXPECT_EQ(container->ResetBitMapFiles(BASE_BITMAP), 0u);
    EXPECT_EQ(BaseFile().BitmapLength(), 13u + 16u);

    Use(machine.AddVolume(104 * 65536 + 1, 65536));
    EXPECT_EQ(container->ResetBitMapFiles(BASE_BITMAP), 0u);
    EXPECT_EQ(BaseFile().BitmapLength(), 14u + 16u);
}

TEST_F(ContainerReset, LengthThatCannotBeHadPutsTheVolumeOnTheVerifyListAndLeavesNoRecord)
{
    machine.FailRequest(GET_LENGTH, ERROR_NOT_READY);
    ExpectGivenUp(ERROR_NOT_READY, LengthFailed(ERROR_NOT_READY));
}

TEST_F(ContainerReset, LengthThatCannotBeHadEndsItBeforeTheBlockSizeIsAskedFor)
{
    machine.FailRequest(GET_LENGTH, ERROR_NOT_READY);
    VTFltSimRecord(1);
    EXPECT_EQ(container->ResetBitMapFiles(BASE_BITMAP), BM_ERR_VERIFY_REQUIRED);
    VTFltSimRecord(0);
    EXPECT_TRUE(RequestCodes() == std::vector<DWORD>{GET_LENGTH});
}

TEST_F(ContainerReset, BlockSizeThatCannotBeHadPutsTheVolumeOnTheVerifyListAndLeavesNoRecord)
{
    machine.FailRequest(VTFLTCTL_GET_BLOCK_SIZE, ERROR_INVALID_FUNCTION);
    ExpectGivenUp(ERROR_INVALID_FUNCTION, BlockSizeFailed(ERROR_INVALID_FUNCTION));
}

TEST_F(ContainerReset, BlockSizeOfZeroIsInvalidData)
{
    ForgeReply(VTFLTCTL_GET_BLOCK_SIZE, Bytes(4));
    ExpectGivenUp(ERROR_INVALID_DATA, BlockSizeFailed(ERROR_INVALID_DATA));
}

TEST_F(ContainerReset, NegativeLengthIsInvalidData)
{
    ForgeReply(GET_LENGTH, Bytes(8, 0xFF));
    ExpectGivenUp(ERROR_INVALID_DATA, LengthFailed(ERROR_INVALID_DATA));
}

TEST_F(ContainerReset, LengthThatIsNotAnsweredIsInvalidData)
{
    ForgeReply(GET_LENGTH, Bytes());
    ExpectGivenUp(ERROR_INVALID_DATA, LengthFailed(ERROR_INVALID_DATA));
}

TEST_F(ContainerReset, NoMemoryForTheRecordPutsTheVolumeOnTheVerifyList)
{
    vtfltsim::FailCall(L"calloc", ERROR_NOT_ENOUGH_MEMORY);
    DWORD cause = 0;
    EXPECT_EQ(container->ResetBitMapFiles(BASE_BITMAP, &cause), BM_ERR_VERIFY_REQUIRED);
    EXPECT_EQ(cause, DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(container->m_pBaseBitmap, nullptr);
    EXPECT_FALSE(BaseFile().exists);
    ExpectOnVerifyList();
}

TEST_F(ContainerReset, FailedWritePutsTheVolumeOnTheVerifyListAndKeepsTheFreshRecord)
{
    vtfltsim::FailCall(L"WriteFile", ERROR_DISK_FULL);
    DWORD cause = 0;
    EXPECT_EQ(container->ResetBitMapFiles(BASE_BITMAP, &cause), BM_ERR_VERIFY_REQUIRED);
    EXPECT_EQ(cause, DWORD{ERROR_DISK_FULL});
    log.ExpectExactly(
        {{0, ERROR_DISK_FULL,
          L"CBitmapContainer::WriteBitMapToFile::WriteFile disk bitmap failed. Bitmap file name: " + BasePath()}},
        0);
    ASSERT_NE(container->m_pBaseBitmap, nullptr);
    EXPECT_TRUE(BaseImage() == MakeBitmapImage(BLOCK_SIZE, Bytes(FRESH_BITMAP_BYTES)));
    ExpectOnVerifyList();
}

TEST_F(ContainerReset, FirstErrorIsReturnedWhenTheVerifyListCannotBeWrittenEither)
{
    PutBase(MakeBitmapImage(BLOCK_SIZE, Bytes(4, 0x11)));
    PutChild(MakeBitmapImage(BLOCK_SIZE, Bytes(4, 0x22)));
    machine.FailRequest(GET_LENGTH, ERROR_NOT_READY);
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_REGISTRY_IO_FAILED);
    DWORD cause = 0;
    EXPECT_EQ(container->ResetBitMapFiles(BASE_BITMAP, &cause), DWORD{ERROR_NOT_READY});
    EXPECT_EQ(cause, DWORD{ERROR_NOT_READY});
    log.ExpectLogged(0, ERROR_NOT_READY, LengthFailed(ERROR_NOT_READY));
    log.ExpectLogged(0, ERROR_REGISTRY_IO_FAILED,
                     L"CBitmapContainer::AddVolumeToResyncList: Failed to add volume Volume" + volume.guid +
                         L" to app1 application verify list. So deleting the application bitmap files of the volume.");
    ExpectNoVerifyList();
    // Neither on the list nor with files: the next job finds no bitmap and verifies.
    EXPECT_FALSE(BaseFile().exists);
    EXPECT_FALSE(ChildFile().exists);
}

} // namespace
