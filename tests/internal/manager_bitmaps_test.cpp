// Clearing and handing out the current application's loaded bitmaps, and deleting those of a volume.
#include "internal/manager_fixture.h"

namespace {

using namespace vttest;
using vtflt::BM_ERR_MUTEX_ACCESS;

class ManagerReset : public ListedManagerTest {};

TEST_F(ManagerReset, BaseBeforeAnyBitmapWasLoadedIsAGeneralFailure)
{
    Init();
    EXPECT_EQ(manager.ResetBaseBitmap(), 0xFFFFFFFFu);
    log.ExpectExactly({{0, 0xFFFFFFFF, L"CMultiBitmapManager::ResetBaseBitmap: Container m_pBaseBitmap is NULL!!"}});
}

TEST_F(ManagerReset, ChildBeforeAnyBitmapWasLoadedIsAGeneralFailure)
{
    Init();
    EXPECT_EQ(manager.ResetChildBitmap(), 0xFFFFFFFFu);
    log.ExpectExactly({{0, 0xFFFFFFFF, L"CMultiBitmapManager::ResetChildBitmap: Container m_pChildBitmap is NULL!!"}});
}

TEST_F(ManagerReset, FilesAreNeverReadForIt)
{
    MakeFolder(volume, L"VelVolTrc");
    const Bytes image = MakeBitmapImage(BLOCK_SIZE, Bytes(BITMAP_BYTES, 0xFF));
    WriteFileBytes(volume, BaseName(APP), image);
    Init();
    EXPECT_EQ(manager.ResetBaseBitmap(), 0xFFFFFFFFu);
    EXPECT_TRUE(Base(volume, APP).image == image);
}

TEST_F(ManagerReset, WithoutAContainerItNamesTheApplication)
{
    Init();
    manager.DeinitBitMapManager();
    EXPECT_EQ(manager.ResetBaseBitmap(), 0xFFFFFFFFu);
    EXPECT_EQ(manager.ResetChildBitmap(), 0xFFFFFFFFu);
    log.ExpectExactly(
        {{0, 0xFFFFFFFF, L"CMultiBitmapManager::ResetBaseBitmap: Failed to find bitmap container for application app1"},
         {0, 0xFFFFFFFF,
          L"CMultiBitmapManager::ResetChildBitmap: Failed to find bitmap container for application app1"}});
}

TEST_F(ManagerReset, BaseIsClearedInItsFileWithItsGeometryAndNothingElseIs)
{
    Load(0x0F, 0xF0);
    EXPECT_EQ(manager.ResetBaseBitmap(), 0u);
    EXPECT_TRUE(Base(volume, APP).image == MakeBitmapImage(BLOCK_SIZE, Bytes(BITMAP_BYTES)));
    EXPECT_TRUE(Child(volume, APP).image == MakeBitmapImage(BLOCK_SIZE, Bytes(BITMAP_BYTES, 0xF0)));
    EXPECT_TRUE(Base(volume, OTHER).image == MakeBitmapImage(BLOCK_SIZE, Bytes(BITMAP_BYTES, 0x0F)));
    log.ExpectNothingLogged();
}

TEST_F(ManagerReset, ChildIsClearedInItsFileWithItsGeometryAndNothingElseIs)
{
    Load(0x0F, 0xF0);
    EXPECT_EQ(manager.ResetChildBitmap(), 0u);
    EXPECT_TRUE(Child(volume, APP).image == MakeBitmapImage(BLOCK_SIZE, Bytes(BITMAP_BYTES)));
    EXPECT_TRUE(Base(volume, APP).image == MakeBitmapImage(BLOCK_SIZE, Bytes(BITMAP_BYTES, 0xFF)));
    EXPECT_TRUE(Child(volume, OTHER).image == MakeBitmapImage(BLOCK_SIZE, Bytes(BITMAP_BYTES, 0xF0)));
    log.ExpectNothingLogged();
}

TEST_F(ManagerReset, FailedWriteOfTheBaseIsLoggedAndReturned)
{
    Load(0x0F, 0xF0);
    vtfltsim::FailCall(L"WriteFile", ERROR_DISK_FULL);
    EXPECT_EQ(manager.ResetBaseBitmap(), DWORD{ERROR_DISK_FULL});
    log.ExpectExactly(
        {{0, ERROR_DISK_FULL,
          L"CBitmapContainer::WriteBitMapToFile::WriteFile disk bitmap failed. Bitmap file name: " + volume.Root() +
              BaseName(APP)},
         {0, ERROR_DISK_FULL, L"CMultiBitmapManager::ResetBaseBitmap: Failed to reset base bitmap file"}});
}

TEST_F(ManagerReset, FailedWriteOfTheChildIsLoggedAndReturned)
{
    Load(0x0F, 0xF0);
    vtfltsim::FailCall(L"WriteFile", ERROR_DISK_FULL);
    EXPECT_EQ(manager.ResetChildBitmap(), DWORD{ERROR_DISK_FULL});
    log.ExpectExactly(
        {{0, ERROR_DISK_FULL,
          L"CBitmapContainer::WriteBitMapToFile::WriteFile disk bitmap failed. Bitmap file name: " + volume.Root() +
              ChildName(APP)},
         {0, ERROR_DISK_FULL, L"CMultiBitmapManager::ResetChildBitmap: Failed to reset child bitmap file"}});
}

class ManagerGetBase : public ListedManagerTest {
protected:
    // Copies into a buffer of so many bytes, with more bytes behind it that must stay.
    Bytes Get(DWORD& length)
    {
        Bytes buffer(length + 8, 0xEE);
        EXPECT_EQ(manager.GetBaseBitmap(&length, buffer.data()), 0u);
        return buffer;
    }
};

TEST_F(ManagerGetBase, BufferLargerThanTheBitmapGetsTheBitmapAndItsLength)
{
    Load(0x21, 0);
    DWORD length = BITMAP_BYTES + 10;
    const Bytes buffer = Get(length);
    EXPECT_EQ(length, BITMAP_BYTES);
    EXPECT_TRUE(Bytes(buffer.begin(), buffer.begin() + BITMAP_BYTES) == Bytes(BITMAP_BYTES, 0x21));
    EXPECT_TRUE(Bytes(buffer.begin() + BITMAP_BYTES, buffer.end()) == Bytes(18, 0xEE));
}

TEST_F(ManagerGetBase, BufferShorterThanTheBitmapGetsItsFirstBytes)
{
    Load(0x21, 0);
    DWORD length = 5;
    const Bytes buffer = Get(length);
    EXPECT_EQ(length, 5u);
    EXPECT_TRUE(Bytes(buffer.begin(), buffer.begin() + 5) == Bytes(5, 0x21));
    EXPECT_TRUE(Bytes(buffer.begin() + 5, buffer.end()) == Bytes(8, 0xEE));
}

TEST_F(ManagerGetBase, EmptyBufferIsNotTouched)
{
    Load(0x21, 0);
    DWORD length = 0;
    EXPECT_TRUE(Get(length) == Bytes(8, 0xEE));
    EXPECT_EQ(length, 0u);
}

TEST_F(ManagerGetBase, WithoutABaseRecordTheLengthIsZeroAndThatIsASuccess)
{
    Init();
    DWORD length = 5;
    EXPECT_TRUE(Get(length) == Bytes(13, 0xEE));
    EXPECT_EQ(length, 0u);
    log.ExpectNothingLogged();
}

class ManagerRemove : public ListedManagerTest {
protected:
    std::wstring Removing(const std::wstring& path) const
    {
        return L"CMultiBitmapManager::RemoveBitmaps: Removing bitmaps for volume " + path;
    }
};

TEST_F(ManagerRemove, DeletesTheFilesOfEveryApplicationAndLeavesTheRecordsInMemory)
{
    Load(0x21, 0);
    EXPECT_EQ(manager.RemoveBitmaps(volume.Root()), 0u);
    EXPECT_FALSE(FileExists(volume, L"VelVolTrc"));
    log.ExpectExactly({{2, 0, Removing(volume.Root())}});
    DWORD length = BITMAP_BYTES;
    Bytes buffer(BITMAP_BYTES);
    EXPECT_EQ(manager.GetBaseBitmap(&length, buffer.data()), 0u);
    EXPECT_TRUE(buffer == Bytes(BITMAP_BYTES, 0x21));
}

TEST_F(ManagerRemove, WorksOnAVolumeThatIsNotItsOwnAndWithoutInitialisation)
{
    const Volume other = machine.AddVolume(1u << 20);
    MakeFolder(other, L"VelVolTrc");
    WriteFileBytes(other, BaseName(APP), Bytes(3));
    EXPECT_EQ(manager.RemoveBitmaps(other.Path()), 0u);
    EXPECT_FALSE(FileExists(other, L"VelVolTrc"));
}

TEST_F(ManagerRemove, FailedRemovalIsReturned)
{
    Load(0x21, 0);
    vtfltsim::FailCall(L"RemoveDirectoryW", ERROR_SHARING_VIOLATION);
    EXPECT_EQ(manager.RemoveBitmaps(volume.Root()), DWORD{ERROR_SHARING_VIOLATION});
    log.ExpectExactly(
        {{2, 0, Removing(volume.Root())},
         {0, ERROR_SHARING_VIOLATION,
          L"CBitmapContainer::RemoveAllBitmaps::Failed to delete directory " + volume.Root() + L"VelVolTrc"}});
}

TEST_F(ManagerRemove, TakesTheMutexOfTheNormalisedPathWhateverTheSpelling)
{
    for (const std::wstring& path : {volume.Root(), volume.Path(), L"Volume" + volume.guid}) {
        vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED);
        log.Clear();
        EXPECT_EQ(manager.RemoveBitmaps(path), BM_ERR_MUTEX_ACCESS);
        log.ExpectExactly(
            {{2, 0, Removing(path)},
             {0, ERROR_ACCESS_DENIED,
              CreateMutexFailed(L"VTBitmapManager.Volume" + volume.guid + L".Mutex", ERROR_ACCESS_DENIED)},
             {0, BM_ERR_MUTEX_ACCESS,
              L"CMultiBitmapManager::RemoveBitmapsFailed to get the access while creating mutex: 65541"}});
    }
}

TEST_F(ManagerRemove, DrivePathIsNormalisedByTheSameRule)
{
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED);
    EXPECT_EQ(manager.RemoveBitmaps(L"C:\\"), BM_ERR_MUTEX_ACCESS);
    log.ExpectLogged(0, ERROR_ACCESS_DENIED, CreateMutexFailed(L"VTBitmapManager.C:.Mutex", ERROR_ACCESS_DENIED));
}

TEST_F(ManagerRemove, WithoutTheMutexNothingIsDeleted)
{
    Load(0x21, 0);
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, volume.MutexName().c_str());
    EXPECT_EQ(manager.RemoveBitmaps(volume.Root()), BM_ERR_MUTEX_ACCESS);
    EXPECT_TRUE(Base(volume, APP).exists);
    EXPECT_TRUE(Child(volume, OTHER).exists);
}

TEST_F(ManagerRemove, FailedWaitIsNoAccessAndOnlyTheOperationsLineIsLogged)
{
    Load(0x21, 0);
    ForceWait(WAIT_FAILED);
    EXPECT_EQ(manager.RemoveBitmaps(volume.Root()), BM_ERR_MUTEX_ACCESS);
    log.ExpectExactly({{0, BM_ERR_MUTEX_ACCESS,
                        L"CMultiBitmapManager::RemoveBitmapsFailed to get the access while creating mutex: 65541"}},
                      0);
    EXPECT_TRUE(Base(volume, APP).exists);
}

TEST_F(ManagerRemove, WaitThatTimedOutAndAnAbandonedMutexCountAsTaken)
{
    for (const DWORD result : {DWORD{WAIT_TIMEOUT}, DWORD{WAIT_ABANDONED}}) {
        Load(0x21, 0);
        ForceWait(result);
        EXPECT_EQ(manager.RemoveBitmaps(volume.Root()), 0u) << result;
        EXPECT_FALSE(FileExists(volume, L"VelVolTrc"));
    }
}

TEST_F(ManagerRemove, HoldsTheMutexWhileItDeletes)
{
    Load(0x21, 0);
    VTFltSimRecord(1);
    EXPECT_EQ(manager.RemoveBitmaps(volume.Root()), 0u);
    VTFltSimRecord(0);
    const std::vector<std::wstring> trace = vtfltsim::Trace();
    ASSERT_GE(trace.size(), 4u);
    EXPECT_EQ(trace.front().find(L"CreateMutexW " + volume.MutexName()), 0u) << Narrow(trace.front());
    EXPECT_EQ(trace[1].find(L"WaitForSingleObject"), 0u) << Narrow(trace[1]);
    EXPECT_NE(trace[1].find(L"1800000"), std::wstring::npos) << Narrow(trace[1]);
    EXPECT_EQ(trace[trace.size() - 2].find(L"ReleaseMutex"), 0u) << Narrow(trace[trace.size() - 2]);
}

TEST_F(ManagerRemove, NoMemoryForTheTemporaryContainerIsLoggedAndReturns8)
{
    Load(0x21, 0);
    // From the wait on, the container is the first thing that memory is asked for.
    ASSERT_EQ(VTFltSimCallBefore(
                  L"WaitForSingleObject", nullptr, 1, 1,
                  [](void*, LPCWSTR, LPCWSTR) { VTFltSimFailCall(L"malloc", nullptr, 1, 1, 8); }, nullptr),
              0u);
    EXPECT_EQ(manager.RemoveBitmaps(volume.Root()), 8u);
    log.ExpectExactly({{0, 8, L"CMultiBitmapManager::RemoveBitmaps::pTempContainer is NULL!!"}}, 0);
    EXPECT_TRUE(Base(volume, APP).exists);
}

} // namespace
