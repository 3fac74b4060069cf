// Replication success: the application has copied the changes, so that its base bitmap is cleared and the volume leaves
// its verify list.
#include "support/cycle_test.h"

namespace vttest {

namespace {

constexpr wchar_t LIST_FAILED[] =
    L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Removing volume from application resync list, ";
constexpr wchar_t AGAIN[] = L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Resetting the base bitmap. Next job "
                            L"will include the changes again.";
constexpr wchar_t SUCCESS[] = L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Resetting the base bitmap.";
constexpr wchar_t OTHER_VOLUME[] = L"{11111111-2222-3333-4444-555555555555}";

class ReplicationSuccess : public CycleTest {
protected:
    void SetUp() override
    {
        Register(L"app1");
        Register(L"app2");
        Touch({1, 50, 99});
    }
};

TEST_F(ReplicationSuccess, ClearsTheBaseAndSendsNothingToTheDriver)
{
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    Touch({2});
    log.Clear();
    VTFltSimRecord(1);
    EXPECT_EQ(0u, session->Success());
    EXPECT_TRUE(RequestCodes().empty());
    EXPECT_EQ(1u, OwedByDriver());
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(BUFFER_LENGTH)), Base(volume, L"app1").image);
    log.ExpectLogged(2, 0, SUCCESS);
}

TEST_F(ReplicationSuccess, LeavesOtherApplicationsTheirChanges)
{
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(0u, session->Success());
    EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(Child(volume, L"app2")));
}

TEST_F(ReplicationSuccess, TakesTheVolumeOffTheVerifyListAndKeepsTheOthers)
{
    SetVerifyList(L"app1", {OTHER_VOLUME, volume.guid, L"{other}"});
    SetVerifyList(L"app2", {volume.guid});
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(0u, session->Success());
    EXPECT_EQ((std::vector<std::wstring>{OTHER_VOLUME, L"{other}"}), VerifyList(L"app1"));
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app2"));
    log.ExpectLogged(4, 0,
                     L"CMultiBitmapManager::resetVerifyVolume::Need to delete this volume from verify volume list");
}

TEST_F(ReplicationSuccess, RemovesAListThatBecameEmpty)
{
    SetVerifyList(L"app1", {volume.guid});
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(0u, session->Success());
    EXPECT_FALSE(ValueExists(SERVICE_KEY, L"DeviceListForReSyncapp1.Last"));
}

TEST_F(ReplicationSuccess, TakesTheVolumeOffItsListBeforeItClearsTheBase)
{
    SetVerifyList(L"app1", {volume.guid});
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    VTFltSimRecord(1);
    EXPECT_EQ(0u, session->Success());
    VTFltSimRecord(0);
    std::vector<std::string> steps;
    for (const std::wstring& line : LibraryCalls()) {
        const std::string function = Narrow(line.substr(0, line.find(L' ')));
        if (function == "RegDeleteValueW" || function == "CreateFileW")
            steps.push_back(function);
    }
    EXPECT_EQ((std::vector<std::string>{"RegDeleteValueW", "CreateFileW"}), steps);
}

TEST_F(ReplicationSuccess, OnAManagerThatNeverFetchedFails)
{
    const auto session = Open(L"app1");
    EXPECT_EQ(0xFFFFFFFFu, session->Success());
    log.ExpectExactly({Failed(0xFFFFFFFF, L"CMultiBitmapManager::ResetBaseBitmap: Container m_pBaseBitmap is NULL!!"),
                       Failed(0xFFFFFFFF, AGAIN)},
                      1);
    EXPECT_EQ(FRESH_LENGTH, Base(volume, L"app1").BitmapLength());
    EXPECT_EQ(3u, OwedByDriver());
}

TEST_F(ReplicationSuccess, GoesOnWhenTheVerifyListCannotBeReadAndWritesNothingBack)
{
    SetVerifyList(L"app1", {OTHER_VOLUME, volume.guid});
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    VTFltSimResetCounts();
    vtfltsim::FailCall(L"RegQueryValueExW", ERROR_ACCESS_DENIED, L"app1.Last", 1, 0);
    EXPECT_EQ(0u, session->Success());
    ClearFaults();
    log.ExpectLogged(0, 5, LIST_FAILED + VolumeName());
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"RegSetValueExW"));
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"RegDeleteValueW"));
    EXPECT_EQ((std::vector<std::wstring>{OTHER_VOLUME, volume.guid}), VerifyList(L"app1"));
    EXPECT_TRUE(Blocks(Base(volume, L"app1")).empty());
}

TEST_F(ReplicationSuccess, GoesOnWhenTheVerifyListIsMalformed)
{
    machine.WriteValue(SERVICE_KEY, L"DeviceListForReSyncapp1.Last", REG_SZ, TextBytes(volume.guid));
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(0u, session->Success());
    log.ExpectLogged(0, 13, LIST_FAILED + VolumeName());
    DWORD type = 0;
    EXPECT_EQ(TextBytes(volume.guid), machine.ReadValue(SERVICE_KEY, L"DeviceListForReSyncapp1.Last", &type));
    EXPECT_EQ(static_cast<DWORD>(REG_SZ), type);
}

TEST_F(ReplicationSuccess, GoesOnWhenTheVerifyListCannotBeWritten)
{
    SetVerifyList(L"app1", {OTHER_VOLUME, volume.guid});
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_ACCESS_DENIED, L"app1.Last");
    EXPECT_EQ(0u, session->Success());
    log.ExpectLogged(0, 5, LIST_FAILED + VolumeName());
    log.ExpectLogged(2, 0, SUCCESS);
    EXPECT_EQ((std::vector<std::wstring>{OTHER_VOLUME, volume.guid}), VerifyList(L"app1"));
}

TEST_F(ReplicationSuccess, GoesOnWhenAListsMutexCannotBeTaken)
{
    SetVerifyList(L"app1", {volume.guid});
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, L"DeviceListForReSyncapp1.Last");
    EXPECT_EQ(0u, session->Success());
    log.ExpectLogged(0, 0x10005, LIST_FAILED + VolumeName());
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
}

struct ResetFailure {
    const wchar_t* function;
    DWORD error;
    DWORD result;
    DWORD nextResult;
};

TEST_F(ReplicationSuccess, WhoseBaseCannotBeClearedGivesTheChangesAgainOrSaysVerify)
{
    for (const ResetFailure& failure :
         {ResetFailure{L"CreateFileW", 5, 183, 0}, ResetFailure{L"SetFilePointer", 131, 131, VERIFY},
          ResetFailure{L"WriteFile", 112, 112, VERIFY}}) {
        const auto session = Open(L"app1");
        Touch({1, 50, 99});
        ASSERT_EQ(0u, session->GetBitmap()) << Narrow(failure.function);
        log.Clear();
        vtfltsim::FailCall(failure.function, failure.error, L"_base_app1");
        EXPECT_EQ(failure.result, session->Success());
        ClearFaults();
        log.ExpectLogged(0, failure.result, L"CMultiBitmapManager::ResetBaseBitmap: Failed to reset base bitmap file");
        log.ExpectLogged(0, failure.result, AGAIN);
        EXPECT_EQ(failure.nextResult, session->GetBitmap());
        if (failure.nextResult == 0) {
            EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(*session));
        } else {
            EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
        }
        EXPECT_EQ(0u, session->Success());
    }
}

// The mark is taken off before the base is cleared, and a base that was started afresh never held the changes: only the
// application knows that its verify backup is not through.
TEST_F(ReplicationSuccess, ThatFailsAfterAVerifyBackupHasTakenTheMarkOffAlready)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, BaseName(L"app1"));
    ASSERT_EQ(VERIFY, session->GetBitmap());
    vtfltsim::FailCall(L"CreateFileW", ERROR_ACCESS_DENIED, L"_base_app1");
    EXPECT_EQ(183u, session->Success());
    ClearFaults();
    EXPECT_TRUE(VerifyList(L"app1").empty());
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_TRUE(Blocks(*session).empty());
}

TEST_F(ReplicationSuccess, WithoutTheVolumesMutexIsRefusedAndClearsNothing)
{
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, volume.MutexName().c_str());
    EXPECT_EQ(0x10005u, session->Success());
    EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(Base(volume, L"app1")));
}

TEST_F(ReplicationSuccess, TakesTheVolumesMutexAgainForTheListAndGoesOnWithoutIt)
{
    SetVerifyList(L"app1", {volume.guid});
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    log.Clear();
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, volume.MutexName().c_str(), 2);
    EXPECT_EQ(0u, session->Success());
    log.ExpectExactly(
        {Failed(5, L"CMutexController::getAccess Failed to CreateMutex[" + volume.MutexName() + L"] error: 5")}, 1);
    EXPECT_TRUE(VerifyList(L"app1").empty());
}

TEST_F(ReplicationSuccess, DoesNotReadTheBaseFile)
{
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    RemoveFile(volume, BaseName(L"app1"));
    EXPECT_EQ(0u, session->Success());
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(BUFFER_LENGTH)), Base(volume, L"app1").image);
}

} // namespace

} // namespace vttest
