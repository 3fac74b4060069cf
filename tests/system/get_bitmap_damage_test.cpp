// Get-bitmap with bitmap files that are missing or damaged.
#include "driver/protocol.h"
#include "support/cycle_test.h"

namespace vttest {

namespace {

using namespace vtflt;

constexpr wchar_t CHILDREN_FAILED[] = L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Updating child bitmaps.";

class GetBitmapDamage : public CycleTest {
protected:
    void SetUp() override
    {
        Register(L"app1");
        Register(L"app2");
        Touch({1, 50, 99});
    }

    LogRecord VerifyMessage() const
    {
        return Failed(VERIFY,
                      L"CMultiBitmapManager::VTDeviceIoControl: Verify backup required for volume " + VolumeName());
    }
    static LogRecord Returning(DWORD result)
    {
        return Failed(result,
                      L"CMultiBitmapManager::VTDeviceIoControl::Get bitmap is returning =" + WideNumber(result) + L".");
    }
    LogRecord Missing(const std::wstring& path) const
    {
        return Failed(2, L"Open bitmap file failed, file name:" + path);
    }
};

TEST_F(GetBitmapDamage, AMissingChildPutsTheVolumeOnTheVerifyListAndRestartsFromTheDriversBits)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    VTFltSimRecord(1);
    EXPECT_EQ(VERIFY, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ((std::vector<DWORD>{VTFLTCTL_GET_BITMAP, IOCTL_DISK_GET_LENGTH_INFO, VTFLTCTL_GET_BLOCK_SIZE,
                                  VTFLTCTL_REPLICATION_SUCCESS}),
              RequestCodes());
    EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(*session));
    EXPECT_EQ(BUFFER_LENGTH, session->Size());
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
    EXPECT_TRUE(VerifyList(L"app2").empty());
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(BUFFER_LENGTH)), Child(volume, L"app1").image);
    log.ExpectExactly({Missing(ChildPath(L"app1")), VerifyMessage(), Returning(VERIFY)}, 1);
}

TEST_F(GetBitmapDamage, TheVerifyListIsTheApplicationsOwnWithItsSuffix)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    EXPECT_EQ(VERIFY, session->GetBitmap());
    DWORD type = 0;
    EXPECT_EQ(MultiStringBytes({volume.guid}), machine.ReadValue(SERVICE_KEY, L"DeviceListForReSyncapp1.Last", &type));
    EXPECT_EQ(static_cast<DWORD>(REG_MULTI_SZ), type);
    EXPECT_FALSE(ValueExists(SERVICE_KEY, L"DeviceListForReSyncapp1"));
}

TEST_F(GetBitmapDamage, TheHeaderIsLeftAloneWhenAVerifyIsRequired)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    EXPECT_EQ(VERIFY, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ(BufferOf(BUFFER_LENGTH, {1, 50, 99}), session->Buffer());
}

TEST_F(GetBitmapDamage, ADamagedChildCountsAsMissing)
{
    Bytes noSignature = MakeBitmapImage(BLOCK, Bytes(FRESH_LENGTH));
    noSignature[0] = 'X';
    Bytes noTrailer = MakeBitmapImage(BLOCK, Bytes(FRESH_LENGTH));
    noTrailer.back() = 'X';
    for (const Bytes& damaged : {Bytes(), Bytes(87, 'S'), noSignature, noTrailer}) {
        const auto session = Open(L"app1");
        WriteFileBytes(volume, ChildName(L"app1"), damaged);
        Touch({3});
        EXPECT_EQ(VERIFY, session->GetBitmap());
        EXPECT_EQ(1u, Blocks(*session).count(3));
        EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
        EXPECT_EQ(0u, session->Success());
        EXPECT_TRUE(VerifyList(L"app1").empty());
    }
}

TEST_F(GetBitmapDamage, AChildThatClaimsMoreThanItHoldsDeliversEveryChange)
{
    const auto session = Open(L"app1");
    Bytes image = MakeBitmapImage(BLOCK, BufferOf(FRESH_LENGTH, {9}));
    image[15] = 0x40; // BitmapLength 0x4000001D in a record of 4096 bytes
    WriteFileBytes(volume, ChildName(L"app1"), image);
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ((BlockSet{1, 9, 50, 99}), Blocks(*session));
}

TEST_F(GetBitmapDamage, AnotherApplicationsMissingChildIsSkippedAndStaysMissing)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app2"));
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(*session));
    EXPECT_FALSE(FileExists(volume, ChildName(L"app2")));
    EXPECT_TRUE(VerifyList(L"app1").empty());
    EXPECT_TRUE(VerifyList(L"app2").empty());
    log.ExpectExactly(
        {
            Missing(ChildPath(L"app2")),
            {1, VERIFY,
             L"CMultiBitmapManager::UpdateAllChildBitmap: Other application child bitmap file not found. Skip "
             L"updating it. File name: " +
                 ChildPath(L"app2")},
            Returning(0),
        },
        1);
}

TEST_F(GetBitmapDamage, AnotherApplicationFindsItsMissingChildWhenItRuns)
{
    RemoveFile(volume, ChildName(L"app2"));
    {
        const auto session = Open(L"app1");
        EXPECT_EQ(0u, session->GetBitmap());
    }
    const auto other = Open(L"app2");
    EXPECT_EQ(VERIFY, other->GetBitmap());
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app2"));
}

TEST_F(GetBitmapDamage, AMissingBaseRestartsEmptyWithoutTheChildsBits)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, BaseName(L"app1"));
    VTFltSimRecord(1);
    EXPECT_EQ(VERIFY, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ((std::vector<DWORD>{VTFLTCTL_GET_BITMAP, IOCTL_DISK_GET_LENGTH_INFO, VTFLTCTL_GET_BLOCK_SIZE,
                                  VTFLTCTL_REPLICATION_SUCCESS}),
              RequestCodes());
    EXPECT_EQ(FRESH_LENGTH, session->Size());
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(FRESH_LENGTH)), Base(volume, L"app1").image);
    EXPECT_TRUE(Blocks(Child(volume, L"app1")).empty());
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
    EXPECT_EQ(0u, OwedByDriver());
    log.ExpectExactly({Missing(BasePath(L"app1")), VerifyMessage(), Returning(VERIFY)}, 1);
}

TEST_F(GetBitmapDamage, BothFilesMissingSayVerifyTwiceInTheLogAndOnceInTheResult)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, BaseName(L"app1"));
    RemoveFile(volume, ChildName(L"app1"));
    EXPECT_EQ(VERIFY, session->GetBitmap());
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
    log.ExpectExactly(
        {Missing(ChildPath(L"app1")), VerifyMessage(), Missing(BasePath(L"app1")), VerifyMessage(), Returning(VERIFY)},
        1);
}

TEST_F(GetBitmapDamage, AMissingFolderIsMadeAgainHiddenAndSystem)
{
    const auto session = Open(L"app1");
    for (const wchar_t* app : {L"app1", L"app2"}) {
        RemoveFile(volume, BaseName(app));
        RemoveFile(volume, ChildName(app));
    }
    ASSERT_NE(FALSE, RemoveDirectoryW(RealPath(volume, L"VelVolTrc").c_str()));
    EXPECT_EQ(VERIFY, session->GetBitmap());
    EXPECT_TRUE(FileExists(volume, ChildName(L"app1")));
    EXPECT_EQ(static_cast<DWORD>(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM),
              FileAttributes(volume, L"VelVolTrc") & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM));
}

TEST_F(GetBitmapDamage, AMissingChildWhoseVolumeCannotBeListedEndsTheCallAndDeletesTheFiles)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_ACCESS_DENIED, L"app1.Last");
    EXPECT_EQ(5u, session->GetBitmap(BUFFER_LENGTH));
    ClearFaults();
    log.ExpectExactly(
        {
            Missing(ChildPath(L"app1")),
            Failed(5, L"CBitmapContainer::AddVolumeToResyncList: Failed to add volume " + VolumeName() +
                          L" to app1 application verify list. So deleting the application bitmap files of the "
                          L"volume."),
            Failed(2, L"CBitmapContainer::RemoveBitmaps::Failed to delete child bitmap " + BasePath(L"app1")),
            Failed(2, L"CBitmapContainer::AddVolumeToResyncList: Failed to delete app1 application bitmaps."),
            Failed(5, CHILDREN_FAILED),
        },
        1);
    EXPECT_FALSE(FileExists(volume, BaseName(L"app1")));
    EXPECT_FALSE(FileExists(volume, ChildName(L"app1")));
    EXPECT_EQ(3u, OwedByDriver());
    EXPECT_EQ(FRESH_LENGTH, Child(volume, L"app2").BitmapLength()) << "the containers behind it are untouched";

    EXPECT_EQ(VERIFY, session->GetBitmap());
    EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(Child(volume, L"app2")));
}

TEST_F(GetBitmapDamage, AMissingBaseWhoseVolumeCannotBeListedEndsTheCallWithTheListsError)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, BaseName(L"app1"));
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_ACCESS_DENIED, L"app1.Last");
    EXPECT_EQ(5u, session->GetBitmap(BUFFER_LENGTH));
    ClearFaults();
    log.ExpectLogged(0, 5, L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Preparing the base bitmap.");
    EXPECT_EQ(3u, OwedByDriver());
    EXPECT_EQ(VERIFY, session->GetBitmap());
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
}

// What the damaged base held is lost, and nothing but that file says so.
TEST_F(GetBitmapDamage, ADamagedBaseIsNotRestartedBesideAChildThatStaysWhenTheVolumeCannotBeListed)
{
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap(BUFFER_LENGTH)); // the base has them now, and nobody else
    for (const DWORD refusal : {DWORD{ERROR_SHARING_VIOLATION}, DWORD{ERROR_ACCESS_DENIED}}) {
        WriteFileBytes(volume, BaseName(L"app1"), Bytes(3));
        vtfltsim::FailCall(L"RegSetValueExW", ERROR_ACCESS_DENIED, L"app1.Last", 1, 0);
        vtfltsim::FailCall(L"DeleteFileW", refusal, L"_child_");
        EXPECT_EQ(5u, session->GetBitmap(BUFFER_LENGTH));
        ClearFaults();
        EXPECT_TRUE(FileExists(volume, ChildName(L"app1")));
        EXPECT_FALSE(FileExists(volume, BaseName(L"app1")));
        EXPECT_EQ(1u, VTIsVerifyRequired(L"app1", volume.Root().c_str()));
        EXPECT_EQ(VERIFY, session->GetBitmap(BUFFER_LENGTH));
        ASSERT_EQ(0u, session->Success());
    }
}

TEST_F(GetBitmapDamage, ADamagedBaseIsNotRestartedWhenNobodyKnowsWhetherTheChildIsGone)
{
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap(BUFFER_LENGTH));
    WriteFileBytes(volume, BaseName(L"app1"), Bytes(3));
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_ACCESS_DENIED, L"app1.Last", 1, 0);
    vtfltsim::FailCall(L"DeleteFileW", ERROR_SHARING_VIOLATION, L"_child_");
    vtfltsim::FailCall(L"GetFileAttributesW", ERROR_ACCESS_DENIED, L"_child_");
    EXPECT_EQ(5u, session->GetBitmap(BUFFER_LENGTH));
    ClearFaults();
    EXPECT_EQ(VERIFY, session->GetBitmap(BUFFER_LENGTH));
}

TEST_F(GetBitmapDamage, AMissingChildThatCannotBeMadeForWantOfTheLengthEndsTheCallWithThatError)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    machine.FailRequest(IOCTL_DISK_GET_LENGTH_INFO, ERROR_NOT_READY);
    EXPECT_EQ(21u, session->GetBitmap(BUFFER_LENGTH));
    ClearFaults();
    log.ExpectExactly(
        {
            Missing(ChildPath(L"app1")),
            Failed(21, L"CBitmapContainer::ResetBitMapFiles::IOCTL_DISK_GET_LENGTH_INFO failed, mserr=21."),
            Failed(21, CHILDREN_FAILED),
        },
        1);
    EXPECT_FALSE(FileExists(volume, ChildName(L"app1")));
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
    EXPECT_EQ(3u, OwedByDriver());

    EXPECT_EQ(VERIFY, session->GetBitmap());
    EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(*session));
}

TEST_F(GetBitmapDamage, AMissingChildThatCannotBeMadeForWantOfTheBlockSizeEndsTheCallWithThatError)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    machine.FailRequest(VTFLTCTL_GET_BLOCK_SIZE, ERROR_GEN_FAILURE);
    EXPECT_EQ(31u, session->GetBitmap(BUFFER_LENGTH));
    ClearFaults();
    log.ExpectLogged(0, 31, L"CBitmapContainer::ResetBitMapFiles::VTFLTCTL_GET_BLOCK_SIZE failed, mserr=31.");
    log.ExpectLogged(0, 31, CHILDREN_FAILED);
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
    EXPECT_EQ(3u, OwedByDriver());
    EXPECT_EQ(VERIFY, session->GetBitmap());
    EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(*session));
}

TEST_F(GetBitmapDamage, ABlockSizeOfZeroMakesNoChild)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    const DWORD zero = 0;
    ASSERT_EQ(0u, VTFltSimForgeReply(machine.handle(), VTFLTCTL_GET_BLOCK_SIZE, nullptr, 1, 1, &zero, sizeof(zero)));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_DATA), session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ(3u, OwedByDriver());
}

TEST_F(GetBitmapDamage, AFreshChildThatCannotBeSavedAtOnceIsSavedByTheStepsBehindIt)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    vtfltsim::FailCall(L"WriteFile", ERROR_DISK_FULL, L"_child_app1");
    EXPECT_EQ(VERIFY, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(*session));
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(BUFFER_LENGTH)), Child(volume, L"app1").image);
}

TEST_F(GetBitmapDamage, ABaseThatCannotBeMadeGivesNoBitmapAndAVerify)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, BaseName(L"app1"));
    machine.FailRequest(IOCTL_DISK_GET_LENGTH_INFO, ERROR_NOT_READY);
    EXPECT_EQ(VERIFY, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ(0u, session->Size());
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
    EXPECT_FALSE(FileExists(volume, BaseName(L"app1")));
}

TEST_F(GetBitmapDamage, AnApplicationRegisteredLaterIsNotServedByAnOldManager)
{
    const auto session = Open(L"app1");
    Register(L"app3");
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(FRESH_LENGTH, Child(volume, L"app3").BitmapLength());
    EXPECT_TRUE(Blocks(Child(volume, L"app3")).empty());
}

} // namespace

} // namespace vttest
