// Snapshot changes handed back by an application: merged into its child bitmap, with the volume on its verify list
// while that runs.
#include "driver/protocol.h"
#include "support/cycle_test.h"

#include <algorithm>

namespace vttest {

namespace {

using namespace vtflt;

constexpr wchar_t SNAPSHOT_SUCCESS[] =
    L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS :: VTFLTCTL_SYNC_SNAPSHOT_CHANGES_TO_VOLUME_BITMAP";
constexpr wchar_t SYNC_FAILED[] = L"CMultiBitmapManager::VTDeviceIoControl: Failed to sync snapshot changes to child "
                                  L"bitmap. Next job will be verify backup.";
constexpr wchar_t SNAPSHOTS_OTHER_VOLUME[] = L"{11111111-2222-3333-4444-555555555555}";

class SnapshotChanges : public CycleTest {
protected:
    void SetUp() override
    {
        Register(L"app1");
        Register(L"app2");
    }
};

TEST_F(SnapshotChanges, ComeBackWithTheApplicationsNextBitmapAndNobodyElses)
{
    const auto session = Open(L"app1");
    Touch({1});
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60, 61})));
    EXPECT_EQ(0u, session->Success());
    EXPECT_EQ((BlockSet{60, 61}), Blocks(Child(volume, L"app1")));
    Touch({2});
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ((BlockSet{2, 60, 61}), Blocks(*session));
    EXPECT_EQ((BlockSet{1, 2}), Blocks(Child(volume, L"app2")));
}

TEST_F(SnapshotChanges, AreNotSentToTheDriver)
{
    const auto session = Open(L"app1");
    VTFltSimRecord(1);
    EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    EXPECT_TRUE(RequestCodes().empty());
    EXPECT_EQ(0u, OwedByDriver());
    log.ExpectLogged(2, 0, SNAPSHOT_SUCCESS);
}

TEST_F(SnapshotChanges, PutTheVolumeOnTheVerifyListBeforeTheFileIsTouchedAndTakeItOffAfterwards)
{
    const auto session = Open(L"app1");
    VTFltSimRecord(1);
    EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    std::vector<std::wstring> steps;
    for (const std::wstring& line : LibraryCalls()) {
        for (const wchar_t* name : {L"RegSetValueExW", L"RegDeleteValueW", L"WriteFile"}) {
            if (line.rfind(name, 0) == 0 && (steps.empty() || steps.back() != name))
                steps.emplace_back(name);
        }
    }
    EXPECT_EQ((std::vector<std::wstring>{L"RegSetValueExW", L"WriteFile", L"RegDeleteValueW"}), steps);
    EXPECT_TRUE(VerifyList(L"app1").empty());
    EXPECT_FALSE(ValueExists(SERVICE_KEY, L"DeviceListForReSyncapp1"));
}

TEST_F(SnapshotChanges, PutTheVolumeOnTheVerifyListWhateverTheWaitForItsMutexSaid)
{
    const auto session = Open(L"app1");
    for (const DWORD answer : {DWORD{WAIT_FAILED}, DWORD{WAIT_TIMEOUT}, DWORD{WAIT_ABANDONED}}) {
        SCOPED_TRACE(answer);
        VTFltSimRecord(1);
        ForceCall(L"WaitForSingleObject", volume.MutexName(), answer, ERROR_INVALID_HANDLE,
                  2); // the first is the call's own
        EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
        VTFltSimRecord(0);
        EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
        ClearFaults();
        std::vector<std::wstring> steps;
        for (const std::wstring& line : LibraryCalls()) {
            if (line.starts_with(L"WaitForSingleObject") && line.find(volume.MutexName()) != std::wstring::npos)
                steps.emplace_back(L"wait");
            for (const wchar_t* name : {L"RegSetValueExW", L"RegDeleteValueW", L"WriteFile"}) {
                if (line.rfind(name, 0) == 0 && steps.back() != name)
                    steps.emplace_back(name);
            }
        }
        EXPECT_EQ(
            (std::vector<std::wstring>{L"wait", L"wait", L"RegSetValueExW", L"WriteFile", L"wait", L"RegDeleteValueW"}),
            steps);
        EXPECT_TRUE(VerifyList(L"app1").empty());
    }
    EXPECT_EQ((BlockSet{60}), Blocks(Child(volume, L"app1")));
}

TEST_F(SnapshotChanges, KeepTheOtherVolumesOfTheVerifyList)
{
    SetVerifyList(L"app1", {SNAPSHOTS_OTHER_VOLUME});
    const auto session = Open(L"app1");
    EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    EXPECT_EQ((std::vector<std::wstring>{SNAPSHOTS_OTHER_VOLUME}), VerifyList(L"app1"));
}

TEST_F(SnapshotChanges, NeitherAddNorRemoveAVolumeThatIsOnTheVerifyListAlready)
{
    SetVerifyList(L"app1", {SNAPSHOTS_OTHER_VOLUME, volume.guid});
    const auto session = Open(L"app1");
    VTFltSimResetCounts();
    EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    EXPECT_EQ((std::vector<std::wstring>{SNAPSHOTS_OTHER_VOLUME, volume.guid}), VerifyList(L"app1"));
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"RegSetValueExW"));
    EXPECT_EQ((BlockSet{60}), Blocks(Child(volume, L"app1")));
    log.ExpectLogged(2, 0, L"CMultiBitmapManager::IsVerifyRequired::Found the volume for verify backup");
}

TEST_F(SnapshotChanges, NeitherAddNorRemoveAMarkWhenTheVerifyListCannotBeRead)
{
    SetVerifyList(L"app1", {SNAPSHOTS_OTHER_VOLUME});
    const auto session = Open(L"app1");
    VTFltSimResetCounts();
    vtfltsim::FailCall(L"RegQueryValueExW", ERROR_ACCESS_DENIED, L"app1.Last", 1, 0);
    EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    ClearFaults();
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"RegSetValueExW"));
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"RegDeleteValueW"));
    EXPECT_EQ((std::vector<std::wstring>{SNAPSHOTS_OTHER_VOLUME}), VerifyList(L"app1"));
    EXPECT_EQ((BlockSet{60}), Blocks(Child(volume, L"app1")));
    log.ExpectLogged(0, ERROR_ACCESS_DENIED,
                     L"CMultiBitmapManager::VTDeviceIoControl: Failed to add volume to verify list, " + VolumeName());
}

TEST_F(SnapshotChanges, AddAMarkAndLeaveItWhenTheVerifyListCouldNotBeReadBefore)
{
    for (const bool isMarked : {false, true}) {
        SetVerifyList(L"app1", {SNAPSHOTS_OTHER_VOLUME});
        if (isMarked)
            SetVerifyList(L"app1", {volume.guid, SNAPSHOTS_OTHER_VOLUME});
        const auto session = Open(L"app1");
        vtfltsim::FailCall(L"RegQueryValueExW", ERROR_ACCESS_DENIED, L"app1.Last");
        EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
        EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
        ClearFaults();
        EXPECT_EQ((std::vector<std::wstring>{volume.guid, SNAPSHOTS_OTHER_VOLUME}), VerifyList(L"app1"));
    }
}

TEST_F(SnapshotChanges, OfOneByteLessThanTheChildAreIgnoredAndReportSuccess)
{
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    const Bytes before = Child(volume, L"app1").image;
    log.Clear();
    vtfltsim::Check("VTFltSimRecord", VTFltSimRecord(1));
    EXPECT_EQ(0u, session->SyncChanges(Bytes(BUFFER_LENGTH - 1, 0xFF)));
    for (const std::wstring& call : LibraryCalls())
        EXPECT_FALSE(call.starts_with(L"WriteFile")) << Narrow(call);
    EXPECT_EQ(before, Child(volume, L"app1").image);
    EXPECT_TRUE(VerifyList(L"app1").empty());
    log.ExpectLogged(2, 0, SNAPSHOT_SUCCESS);
}

TEST_F(SnapshotChanges, LongerThanTheChildAreCutAtIt)
{
    const auto session = Open(L"app1");
    Bytes changes = BufferOf(5000, {60});
    std::fill(changes.begin() + FRESH_LENGTH, changes.end(), std::uint8_t{0xFF});
    EXPECT_EQ(0u, session->SyncChanges(changes));
    EXPECT_EQ(MakeBitmapImage(BLOCK, BufferOf(FRESH_LENGTH, {60})), Child(volume, L"app1").image);
}

TEST_F(SnapshotChanges, OnAMissingChildMakeAFreshOneAndLeaveTheVolumeOnTheVerifyList)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    VTFltSimRecord(1);
    EXPECT_EQ(VERIFY, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    EXPECT_EQ((std::vector<DWORD>{IOCTL_DISK_GET_LENGTH_INFO, VTFLTCTL_GET_BLOCK_SIZE}), RequestCodes());
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(FRESH_LENGTH)), Child(volume, L"app1").image);
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
    log.ExpectExactly(
        {Failed(2, L"Open bitmap file failed, file name:" + ChildPath(L"app1")), Failed(VERIFY, SYNC_FAILED)}, 1);
}

TEST_F(SnapshotChanges, OnAMissingChildThatCannotBeMadeLeaveTheVolumeOnTheVerifyList)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    machine.FailRequest(IOCTL_DISK_GET_LENGTH_INFO, ERROR_NOT_READY);
    EXPECT_EQ(VERIFY, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
    EXPECT_FALSE(FileExists(volume, ChildName(L"app1")));
}

TEST_F(SnapshotChanges, OnAMissingChildWhoseVolumeCannotBeListedEndWithTheListsError)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_ACCESS_DENIED, L"app1.Last", 1, 0);
    EXPECT_EQ(5u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    log.ExpectLogged(0, 5,
                     L"CMultiBitmapManager::VTDeviceIoControl: Failed to add volume to verify list, " + VolumeName());
    log.ExpectLogged(0, 5, SYNC_FAILED);
    EXPECT_FALSE(FileExists(volume, BaseName(L"app1"))) << "no files, so the next job is a verify backup";
}

// What the damaged child held of other applications' fetches is lost, and nothing but that file says so.
TEST_F(SnapshotChanges, OnADamagedChildMakeNoFreshOneBesideABaseThatStaysWhenTheVolumeCannotBeListed)
{
    const auto session = Open(L"app1");
    WriteFileBytes(volume, ChildName(L"app1"), Bytes(3));
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_ACCESS_DENIED, L"app1.Last", 1, 0);
    vtfltsim::FailCall(L"DeleteFileW", ERROR_SHARING_VIOLATION, L"_base_");
    EXPECT_EQ(5u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    ClearFaults();
    EXPECT_TRUE(FileExists(volume, BaseName(L"app1")));
    EXPECT_FALSE(FileExists(volume, ChildName(L"app1")));
    EXPECT_EQ(1u, VTIsVerifyRequired(L"app1", volume.Root().c_str()));
}

// The damaged child held changes that were handed back before; the base of the fetch is still in memory.
TEST_F(SnapshotChanges, HandedBackAgainBehindAnUnlistedDamageEndInAVerify)
{
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap(BUFFER_LENGTH));
    ASSERT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    WriteFileBytes(volume, ChildName(L"app1"), Bytes(3));
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_ACCESS_DENIED, L"app1.Last", 1, 0);
    EXPECT_EQ(5u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {61})));
    ClearFaults();
    EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {61})));
    EXPECT_EQ(0xFFFFFFFFu, session->Success()) << "as if nothing had been fetched";
    EXPECT_FALSE(FileExists(volume, BaseName(L"app1")));
    EXPECT_EQ(1u, VTIsVerifyRequired(L"app1", volume.Root().c_str()));
}

TEST_F(SnapshotChanges, GoOnWhenTheVolumeCannotBePutOnTheVerifyList)
{
    SetVerifyList(L"app1", {SNAPSHOTS_OTHER_VOLUME});
    const auto session = Open(L"app1");
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_ACCESS_DENIED, L"app1.Last");
    VTFltSimResetCounts();
    EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    log.ExpectExactly(
        {Failed(5, L"CMultiBitmapManager::VTDeviceIoControl: Failed to add volume to verify list, " + VolumeName())},
        1);
    EXPECT_EQ((BlockSet{60}), Blocks(Child(volume, L"app1")));
    EXPECT_EQ((std::vector<std::wstring>{SNAPSHOTS_OTHER_VOLUME}), VerifyList(L"app1"));
    EXPECT_EQ(1u, VTFltSimGetCallCount(L"RegSetValueExW")) << "nothing was added, so nothing is removed";
}

TEST_F(SnapshotChanges, SucceedWhenTheVolumeCannotBeTakenOffTheVerifyList)
{
    const auto session = Open(L"app1");
    vtfltsim::FailCall(L"RegDeleteValueW", ERROR_ACCESS_DENIED, L"app1.Last");
    EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    log.ExpectLogged(0, 5,
                     L"CMultiBitmapManager::VTDeviceIoControl: Failed to remove volume " + VolumeName() +
                         L" from verify list. Next job will be verify backup.");
    log.ExpectLogged(2, 0, SNAPSHOT_SUCCESS);
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
}

struct SyncFailure {
    const wchar_t* function;
    DWORD nth;
    DWORD error;
    DWORD result;
};

TEST_F(SnapshotChanges, ThatCannotBeReadOrWrittenLeaveTheVolumeOnTheVerifyList)
{
    const auto session = Open(L"app1");
    for (const SyncFailure& failure :
         {SyncFailure{L"CreateFileW", 1, 5, 5}, SyncFailure{L"ReadFile", 1, 23, 23},
          SyncFailure{L"ReadFile", 2, 23, 23}, SyncFailure{L"SetFilePointer", 1, 131, 131},
          SyncFailure{L"CreateFileW", 2, 5, 183}, SyncFailure{L"SetFilePointer", 2, 131, 131},
          SyncFailure{L"WriteFile", 1, 112, 112}, SyncFailure{L"FlushFileBuffers", 1, 1117, 1117}}) {
        WriteFileBytes(volume, ChildName(L"app1"), MakeBitmapImage(BLOCK, Bytes(BUFFER_LENGTH)));
        SetVerifyList(L"app1", {SNAPSHOTS_OTHER_VOLUME});
        log.Clear();
        vtfltsim::FailCall(failure.function, failure.error, L"_child_app1", failure.nth);
        EXPECT_EQ(failure.result, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60}))) << Narrow(failure.function);
        ClearFaults();
        log.ExpectLogged(0, failure.result, SYNC_FAILED);
        EXPECT_EQ((std::vector<std::wstring>{volume.guid, SNAPSHOTS_OTHER_VOLUME}), VerifyList(L"app1"));
    }
}

TEST_F(SnapshotChanges, WithoutTheVolumesMutexAreRefused)
{
    const auto session = Open(L"app1");
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, volume.MutexName().c_str());
    EXPECT_EQ(0x10005u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    EXPECT_TRUE(Blocks(Child(volume, L"app1")).empty());
    EXPECT_TRUE(VerifyList(L"app1").empty());
}

TEST_F(SnapshotChanges, TakeTheVolumesMutexAgainInsideAndGoOnWithoutIt)
{
    const auto session = Open(L"app1");
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, volume.MutexName().c_str(), 2, 2);
    EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {60})));
    EXPECT_EQ(2u, VTFltSimGetCallFaultHits());
    log.ExpectLogged(0, 5, L"CMutexController::getAccess Failed to CreateMutex[" + volume.MutexName() + L"] error: 5");
    EXPECT_TRUE(VerifyList(L"app1").empty());
    EXPECT_EQ((BlockSet{60}), Blocks(Child(volume, L"app1")));
}

} // namespace

} // namespace vttest
