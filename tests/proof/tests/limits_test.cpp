// The limits of what the file format and the order of the steps can keep: the shortest histories that lose a change.
//
// docs/guarantees.md says of each how an application avoids it. A case here fails on the day that its limit is gone; then
// the document is to be mended, not the library.
#include "double/control.h"
#include "support/cycle_test.h"
#include "support/driver_expect.h"

#include <thread>

namespace vttest {
namespace {

constexpr wchar_t APP1[] = L"App1";
constexpr wchar_t APP2[] = L"App2";
// In the text of the request that ends a fetch.
constexpr wchar_t TELLS_TO_FORGET[] = L"|0xB0000011|";
constexpr wchar_t ANNOUNCES[] = L"|0xB0000015|";
constexpr wchar_t ASKS_FOR_BITMAP[] = L"|0xB0000002|";

class Limit : public CycleTest {
protected:
    // A full backup of everything so far, reported.
    void BackUp(const std::wstring& appId)
    {
        const auto session = Open(appId);
        Snapshot(*session);
        EXPECT_EQ(0u, session->GetBitmap());
        EXPECT_EQ(0u, session->Success());
    }
    void Snapshot(Session& session)
    {
        ASSERT_EQ(0u, session.Prepare());
        machine.TakeSnapshot(volume);
    }
    // The application asks as it should, and learns neither of the block nor of a reason to verify. What fails meanwhile is
    // no answer, and fails the case.
    bool IsLost(const std::wstring& appId, std::uint64_t block)
    {
        if (IsVerifyRequired(appId))
            return false;
        const auto session = Open(appId);
        EXPECT_EQ(0u, session->GetBitmap());
        return Blocks(*session).count(block) == 0;
    }
    bool IsVerifyRequired(const std::wstring& appId)
    {
        EXPECT_EQ(0u, VTReplicateVerifyList(appId.c_str()));
        return VTIsVerifyRequired(appId.c_str(), volume.Root().c_str()) == 1;
    }
    void LoseTracking(const Volume& lost)
    {
        vtfltsim::Check("VTFltSimLoseTracking", VTFltSimLoseTracking(machine.handle(), lost.guid.c_str()));
    }
    bool IsNextSnapshotTracked()
    {
        VTFLTSIM_SNAPSHOT_INFO info = {};
        info.size = sizeof(info);
        DWORD number = 0;
        vtfltsim::Check("VTFltSimCreateSnapshot",
                        VTFltSimCreateSnapshot(machine.handle(), volume.guid.c_str(), &number, &info));
        return info.tracked != 0;
    }
    // Something else happens before the nth call of the function on something whose name holds the text.
    template <class Work>
    void Before(const wchar_t* function, const std::wstring& match, DWORD nth, Work& work)
    {
        vtfltsim::Check("VTFltSimCallBefore",
                        VTFltSimCallBefore(
                            function, match.c_str(), nth, 1,
                            [](void* context, LPCWSTR, LPCWSTR) { (*static_cast<Work*>(context))(); }, &work));
    }
};

// The control of all others: without anything in between nothing is lost.
TEST_F(Limit, NoneIsMetByOneBackupBehindTheOther)
{
    Register(APP1);
    Register(APP2);
    for (std::uint64_t block = 1; block < 5; ++block) {
        Touch({block});
        EXPECT_FALSE(IsLost(APP1, block));
        BackUp(APP1);
        EXPECT_TRUE(IsLost(APP1, block)) << "it was backed up, and is not owed any more";
        EXPECT_FALSE(IsLost(APP2, block));
        BackUp(APP2);
    }
}

TEST_F(Limit, AnApplicationRegistersWhileAnothersManagerIsOpenAndThatOneFetches)
{
    Register(APP1);
    const auto first = Open(APP1);
    Register(APP2);
    BackUp(APP2);
    Touch({5});
    ASSERT_EQ(0u, first->GetBitmap());
    EXPECT_TRUE(IsLost(APP2, 5));
}

TEST_F(Limit, AWholeFetchOfAnotherFallsBetweenTheSnapshotAndTheFetch)
{
    Register(APP1);
    Register(APP2);
    BackUp(APP1);
    const auto session = Open(APP1);
    Snapshot(*session);
    Open(APP2)->GetBitmap();
    Touch({5}); // behind the snapshot
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BlockSet{5}, Blocks(*session)) << "reported, but the snapshot has the old contents";
    ASSERT_EQ(0u, session->Success());
    EXPECT_TRUE(IsLost(APP1, 5));
}

// The driver keeps one epoch of changes for all: another snapshot moves what was written since the first one into it.
TEST_F(Limit, AnotherOnesSnapshotFallsBetweenTheSnapshotAndTheFetch)
{
    Register(APP1);
    Register(APP2);
    BackUp(APP1);
    const auto session = Open(APP1);
    Snapshot(*session);
    Touch({5}); // behind the snapshot
    const auto other = Open(APP2);
    Snapshot(*other); // and no fetch
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BlockSet{5}, Blocks(*session)) << "reported, but the snapshot has the old contents";
    ASSERT_EQ(0u, session->Success());
    EXPECT_TRUE(IsLost(APP1, 5));
}

TEST_F(Limit, TheSuccessOfOneBackupClearsWhatAnotherOneOfTheSameApplicationFetched)
{
    Register(APP1);
    const auto first = Open(APP1);
    Snapshot(*first);
    ASSERT_EQ(0u, first->GetBitmap());
    Touch({5});
    const auto second = Open(APP1);
    Snapshot(*second);
    ASSERT_EQ(0u, second->GetBitmap());
    EXPECT_EQ(BlockSet{5}, Blocks(*second));
    ASSERT_EQ(0u, first->Success());
    EXPECT_TRUE(IsLost(APP1, 5)) << "the second copy comes to nothing";
}

// The driver did forget, and hands over what came behind the snapshot.
TEST_F(Limit, AskingAgainForTheSameSnapshotFetchesWhatCameBehindIt)
{
    Register(APP1);
    BackUp(APP1);
    const auto session = Open(APP1);
    Snapshot(*session);
    Touch({5}); // behind the snapshot
    FailCallAfterwards(L"DeviceIoControl", ERROR_IO_DEVICE, TELLS_TO_FORGET);
    EXPECT_EQ(static_cast<DWORD>(ERROR_IO_DEVICE), session->GetBitmap());
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BlockSet{5}, Blocks(*session)) << "reported, but the snapshot has the old contents";
    ASSERT_EQ(0u, session->Success());
    EXPECT_TRUE(IsLost(APP1, 5));
}

// It succeeds as the first one did, and the driver hands over what came behind the snapshot.
TEST_F(Limit, ASecondFetchForTheSameSnapshotFetchesWhatCameBehindIt)
{
    Register(APP1);
    BackUp(APP1);
    const auto session = Open(APP1);
    Snapshot(*session);
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BlockSet{}, Blocks(*session));
    Touch({5}); // behind the snapshot
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BlockSet{5}, Blocks(*session)) << "reported, but the snapshot has the old contents";
    ASSERT_EQ(0u, session->Success());
    EXPECT_TRUE(IsLost(APP1, 5));
}

// The fetch takes them out of the child, for a copy that had better be read from the volume.
TEST_F(Limit, SnapshotChangesHandedBackBeforeTheFetchAreClearedByTheReport)
{
    Register(APP1);
    BackUp(APP1);
    const auto session = Open(APP1);
    Snapshot(*session);
    ASSERT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {7})));
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BlockSet{7}, Blocks(*session));
    ASSERT_EQ(0u, session->Success());
    EXPECT_TRUE(IsLost(APP1, 7));
}

// The announcement is for the next snapshot of the volume, whoever takes it.
TEST_F(Limit, ASnapshotThatNobodyAnnouncedTakesTheAnnouncementOfAnother)
{
    Register(APP1);
    BackUp(APP1);
    const auto session = Open(APP1);
    ASSERT_EQ(0u, session->Prepare());
    machine.TakeSnapshot(volume); // somebody else's
    Touch({5});
    machine.TakeSnapshot(volume); // its own, with block 5
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BlockSet{}, Blocks(*session)) << "a backup without block 5";
    ASSERT_EQ(0u, session->Success());
    EXPECT_FALSE(IsVerifyRequired(APP1));
    EXPECT_FALSE(IsLost(APP1, 5)) << "the next one has it";
}

TEST_F(Limit, AnAnnouncementThatFailsWithoutAnErrorCountsAsMade)
{
    Register(APP1);
    BackUp(APP1);
    const auto session = Open(APP1);
    ForceCall(L"DeviceIoControl", ANNOUNCES, FALSE);
    ASSERT_EQ(0u, session->Prepare());
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    machine.TakeSnapshot(volume);
    Touch({5}); // behind the snapshot
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BlockSet{5}, Blocks(*session)) << "reported, but the snapshot has the old contents";
    ASSERT_EQ(0u, session->Success());
    EXPECT_TRUE(IsLost(APP1, 5));
}

// Who asks for a bitmap's length gives room for the header alone; an answer that is none makes that the bitmap of everybody.
TEST_F(Limit, AQuestionForTheLengthThatFailsWithoutAnErrorEmptiesTheBitmapsOfAll)
{
    Register(APP1);
    Register(APP2);
    BackUp(APP1);
    BackUp(APP2);
    Touch({5});
    BackUp(APP1); // and App2 is owed block 5
    const auto session = Open(APP1);
    Snapshot(*session);
    ForceCall(L"DeviceIoControl", ASKS_FOR_BITMAP, FALSE);
    EXPECT_EQ(0u, session->GetBitmap(VTFLT_BITMAP_HEADER_BYTES));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_TRUE(IsLost(APP2, 5));
}

TEST_F(Limit, SnapshotChangesShorterThanTheChildAreDroppedWithSuccess)
{
    Register(APP1);
    Register(APP2);
    const auto session = Open(APP1);
    Snapshot(*session);
    ASSERT_EQ(0u, session->GetBitmap());
    // Another one's buffer is longer, and so are all children from now on.
    ASSERT_EQ(0u, Open(APP2)->GetBitmap(2 * BUFFER_LENGTH));
    EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {7})));
    ASSERT_EQ(0u, session->Success());
    EXPECT_TRUE(IsLost(APP1, 7));
}

TEST_F(Limit, AMarkSetWhileTheListIsReadAndWrittenBackIsTakenOff)
{
    const Volume other = machine.AddVolume(BLOCKS * BLOCK, BLOCK);
    Register(APP1);
    Session session(OpenVolume(other), other.Root(), APP1);
    ASSERT_EQ(0u, session.Init());
    ASSERT_EQ(0u, session.GetBitmap());
    Touch({5});
    // The same application begins its backup of this volume, in another process, and learns that it lost tracking.
    auto elsewhere = [&] {
        VTFltSimLoseTracking(machine.handle(), volume.guid.c_str());
        EXPECT_EQ(0u, VTReplicateVerifyList(APP1));
        EXPECT_EQ(OnlyThisVolume(), VerifyList(APP1));
    };
    // The list's mutex is taken a second time to write it back.
    Before(L"CreateMutexW", L"DeviceListForReSyncApp1.Last", 2, elsewhere);
    ASSERT_EQ(0u, session.Success()); // of the other volume
    ClearFaults();
    EXPECT_TRUE(IsLost(APP1, 5));
}

// No race is needed: two backups of one application at once are enough.
TEST_F(Limit, TheSuccessOfABackupTakesOffTheMarkThatABackupOfAnotherVolumeBrought)
{
    Register(APP1);
    const auto session = Open(APP1);
    Snapshot(*session);
    ASSERT_EQ(0u, session->GetBitmap());
    Touch({5});
    VTFltSimLoseTracking(machine.handle(), volume.guid.c_str());
    // The same application begins its backup of another volume, and asks as it should.
    ASSERT_EQ(0u, VTReplicateVerifyList(APP1));
    EXPECT_EQ(OnlyThisVolume(), VerifyList(APP1));
    ASSERT_EQ(0u, session->Success());
    EXPECT_TRUE(IsLost(APP1, 5));
}

TEST_F(Limit, AnAdministratorsMarkInTheMiddleOfABackupIsTakenOff)
{
    Register(APP1);
    const auto session = Open(APP1);
    Snapshot(*session);
    ASSERT_EQ(0u, session->GetBitmap());
    const Bytes before = ReadFileBytes(volume, ChildName(APP1));
    ASSERT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {7})));
    // The file is put back as it was before, and whoever does that knows what it means.
    WriteFileBytes(volume, ChildName(APP1), before);
    ASSERT_EQ(0u, VTAddVolumesToAppVerifyList(APP1));
    EXPECT_EQ(OnlyThisVolume(), VerifyList(APP1));
    ASSERT_EQ(0u, session->Success());
    EXPECT_TRUE(IsLost(APP1, 7));
}

// No report of success is needed for that: the mark that handing back sets for itself is the same one.
TEST_F(Limit, AMarkSetWhileSnapshotChangesAreHandedBackIsTakenOff)
{
    Register(APP1);
    const Bytes before = [&] {
        const auto session = Open(APP1);
        Snapshot(*session);
        EXPECT_EQ(0u, session->GetBitmap());
        Bytes child = ReadFileBytes(volume, ChildName(APP1));
        auto administrator = [&] { EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(APP1)); };
        Before(L"CreateFileW", ChildName(APP1), 1, administrator);
        EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {7})));
        ClearFaults();
        return child;
    }();
    EXPECT_EQ(std::vector<std::wstring>{}, VerifyList(APP1));
    WriteFileBytes(volume, ChildName(APP1), before); // as above
    EXPECT_TRUE(IsLost(APP1, 7));
}

TEST_F(Limit, AMarkSetWhileOthersAreTakenOffTheListIsTakenOff)
{
    const Volume other = machine.AddVolume(BLOCKS * BLOCK, BLOCK);
    Register(APP1);
    Register(APP2);
    BackUp(APP1);
    SetVerifyList(APP1, {other.guid});
    const Bytes before = ReadFileBytes(volume, ChildName(APP1));
    Touch({5});
    BackUp(APP2);
    WriteFileBytes(volume, ChildName(APP1), before); // as above
    auto administrator = [&] {
        EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(APP1));
        EXPECT_EQ(2u, VerifyList(APP1).size());
    };
    // The list's mutex is taken a second time to write it back.
    Before(L"CreateMutexW", L"DeviceListForReSyncApp1.Last", 2, administrator);
    std::vector<std::wstring> verified{other.guid};
    ASSERT_EQ(0u, VTRemoveApplicationVolResyncList(APP1, &verified));
    ClearFaults();
    EXPECT_EQ(std::vector<std::wstring>{}, VerifyList(APP1));
    EXPECT_TRUE(IsLost(APP1, 5));
}

TEST_F(Limit, SuccessReportedBehindFailedSnapshotChangesTakesTheMarkOff)
{
    Register(APP1);
    const auto session = Open(APP1);
    Snapshot(*session);
    ASSERT_EQ(0u, session->GetBitmap());
    // It is read, and cannot be opened for writing.
    VTFltSimFailCall(L"CreateFileW", ChildName(APP1).c_str(), 2, 1, ERROR_SHARING_VIOLATION);
    EXPECT_NE(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {7})));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_EQ(OnlyThisVolume(), VerifyList(APP1));
    ASSERT_EQ(0u, session->Success());
    EXPECT_TRUE(IsLost(APP1, 7));
}

TEST_F(Limit, SuccessReportedBehindAShortBitmapWithoutAVerifyTakesTheMarkOff)
{
    Register(APP1);
    Register(APP2);
    BackUp(APP1);
    Touch({5});
    BackUp(APP2); // block 5 is in the child of App1 only
    RemoveFile(volume, ChildName(APP1));
    const auto session = Open(APP1);
    Snapshot(*session);
    EXPECT_EQ(VERIFY, session->GetBitmap());
    EXPECT_EQ(BlockSet{}, Blocks(*session));
    ASSERT_EQ(0u, session->Success()); // without having read everything
    EXPECT_TRUE(IsLost(APP1, 5));
}

// The mark goes first.
TEST_F(Limit, SuccessReportedThroughAManagerThatFetchedNothingTakesTheMarkOff)
{
    Register(APP1);
    Touch({5});
    LoseTracking(volume);
    EXPECT_TRUE(IsVerifyRequired(APP1));
    EXPECT_EQ(VTFLT_FAILED, Open(APP1)->Success());
    EXPECT_TRUE(VerifyList(APP1).empty());
    EXPECT_TRUE(IsLost(APP1, 5));
}

// On the double no handle's value comes back: the manager that was left behind is filed under the coming one beforehand.
TEST_F(Limit, AManagerLeftUnderAHandlesValueServesTheVolumeThatTheValueComesBackFor)
{
    const Volume other = machine.AddVolume(BLOCKS * BLOCK, BLOCK);
    Register(APP1);
    Session session(OpenVolume(volume), other.Root(), APP1);
    ASSERT_EQ(0u, session.Init());
    Touch({5});
    EXPECT_EQ(0u, VTFltInitBitmapManager(session.Handle(), volume.Root().c_str(), APP1));
    ASSERT_EQ(0u, session.GetBitmap());
    EXPECT_EQ(BlockSet{5}, Blocks(Base(other, APP1)));
    EXPECT_TRUE(IsLost(APP1, 5));
}

TEST_F(Limit, ASecondApplicationOnAHandleHasTheManagerOfTheFirst)
{
    Register(APP1);
    Register(APP2);
    BackUp(APP1);
    BackUp(APP2);
    Touch({5});
    const auto session = Open(APP1);
    EXPECT_EQ(0u, VTFltInitBitmapManager(session->Handle(), volume.Root().c_str(), APP2));
    Snapshot(*session);
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BlockSet{5}, Blocks(*session));
    ASSERT_EQ(0u, session->Success()); // App2's backup, it says
    EXPECT_TRUE(IsLost(APP1, 5));
}

// The entry is known by the volume's name alone: a later loss of the same volume looks the same.
TEST_F(Limit, TakingAVerifiedVolumeOffTheListLaterTakesANewMarkOff)
{
    Register(APP1);
    BackUp(APP1); // everything was read
    Touch({5});
    LoseTracking(volume);
    EXPECT_TRUE(IsVerifyRequired(APP1)); // the question of another volume's backup brings this mark
    std::vector<std::wstring> verified{volume.guid};
    ASSERT_EQ(0u, VTRemoveApplicationVolResyncList(APP1, &verified));
    EXPECT_TRUE(IsLost(APP1, 5));
}

// The requests are counted, and nobody knows whose they are.
TEST_F(Limit, ARequestTakenBackTwiceEndsTheTrackingOfOtherOnesSnapshots)
{
    ASSERT_EQ(0u, VTFltEnableMonitorForSnapshot(nullptr)); // one application
    ASSERT_EQ(0u, VTFltEnableMonitorForSnapshot(nullptr)); // and another one
    EXPECT_TRUE(IsNextSnapshotTracked());
    ASSERT_EQ(0u, VTFltDisableMonitorForSnapshot(nullptr));
    ASSERT_EQ(0u, VTFltDisableMonitorForSnapshot(nullptr)); // the same one again
    EXPECT_FALSE(IsNextSnapshotTracked());
}

TEST_F(Limit, ARequestThatASilentDriverDidNotCountTakesBackAnotherOnes)
{
    ASSERT_EQ(0u, VTFltEnableMonitorForSnapshot(nullptr)); // another application
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    VTFltSimFailCall(L"CreateFileW", VTFLTSIM_ENDPOINT_CONTROL, 1, 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(0u, VTFltEnableMonitorForSnapshot(nullptr)) << "and nothing is counted";
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_TRUE(IsNextSnapshotTracked());
    EXPECT_EQ(0u, VTFltDisableMonitorForSnapshot(nullptr));
    EXPECT_FALSE(IsNextSnapshotTracked());
}

TEST_F(Limit, ARequestThatASilentDriverDidNotTakeBackStaysCounted)
{
    ASSERT_EQ(0u, VTFltEnableMonitorForSnapshot(nullptr));
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    VTFltSimFailCall(L"CreateFileW", VTFLTSIM_ENDPOINT_CONTROL, 1, 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(0u, VTFltDisableMonitorForSnapshot(nullptr)) << "and nothing is counted";
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_TRUE(IsNextSnapshotTracked());
    ASSERT_EQ(0u, VTFltEnableMonitorForSnapshot(nullptr)); // another application, which takes its request back
    ASSERT_EQ(0u, VTFltDisableMonitorForSnapshot(nullptr));
    EXPECT_TRUE(IsNextSnapshotTracked()) << "and nobody wants it";
}

// The base is empty on the disk already, and the last step behind that fails. Who takes the copy for a bad one, and keeps
// the one before it, asks for the next bitmap in vain.
TEST_F(Limit, ACopyThatIsThrownAwayBehindAFailedReportMayHaveTheOnlyChanges)
{
    Register(APP1);
    BackUp(APP1);
    Touch({5});
    const auto session = Open(APP1);
    Snapshot(*session);
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BlockSet{5}, Blocks(*session));
    VTFltSimFailCall(L"FlushFileBuffers", BaseName(APP1).c_str(), 2, 1, ERROR_IO_DEVICE);
    EXPECT_NE(0u, session->Success());
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_TRUE(IsLost(APP1, 5));
}

// No limit any more: the library marks every volume before it empties what may be in use.
TEST_F(Limit, OfRegisteringAgainWhileTheApplicationListCannotBeReadIsAVerify)
{
    Register(APP1);
    Register(APP2);
    BackUp(APP1);
    Touch({5});
    BackUp(APP2);
    VTFltSimFailCall(L"RegQueryValueExW", L"RegisteredAppIDs", 1, 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(0u, VTRegisterApplication(APP1));
    ClearFaults();
    EXPECT_EQ(BlockSet{}, Blocks(Child(volume, APP1)));
    EXPECT_EQ(OnlyThisVolume(), VerifyList(APP1));
    EXPECT_TRUE(IsVerifyRequired(APP1));
}

TEST_F(Limit, RegisteringAgainWhenTheListWasEmptiedDropsWhatWasOwed)
{
    Register(APP1);
    Touch({5});
    ASSERT_EQ(0u, Open(APP1)->GetBitmap()); // fetched, and not reported
    DeleteValue(APP_IDS_KEY, APP_IDS_VALUE);
    Register(APP1);
    EXPECT_TRUE(IsLost(APP1, 5));
}

TEST_F(Limit, WhatAnotherFetchesWhileTheListIsEmptiedIsMissedBehindRegisteringAgain)
{
    Register(APP1);
    Register(APP2);
    SetList(APP_IDS_KEY, APP_IDS_VALUE, {APP2}); // the ID is taken off the list
    Touch({5});
    ASSERT_EQ(0u, Open(APP2)->GetBitmap());
    Register(APP1);
    EXPECT_TRUE(IsLost(APP1, 5));
}

TEST_F(Limit, WhatTheDriverAddsToItsListWhileItIsHandedOutIsDropped)
{
    Register(APP1);
    const Volume other = machine.AddVolume(BLOCKS * BLOCK, BLOCK);
    VTFltSimLoseTracking(machine.handle(), other.guid.c_str());
    auto driver = [&] { VTFltSimLoseTracking(machine.handle(), volume.guid.c_str()); };
    Touch({5});
    // The list was read, and is about to be written back.
    Before(L"RegDeleteValueW", L"DeviceListForReSync", 1, driver);
    ASSERT_EQ(0u, VTReplicateVerifyList(APP1));
    ClearFaults();
    EXPECT_TRUE(IsLost(APP1, 5));
}

// The lists' mutexes belong to a session of Windows, and keep no process of another one out. Here it is the same thread, which
// its own mutexes do not keep out either.
TEST_F(Limit, WhatAProcessOfAnotherSessionHandsOutWhileTheListIsMovedIsDropped)
{
    const Volume other = machine.AddVolume(BLOCKS * BLOCK, BLOCK);
    Register(APP1);
    Register(APP2);
    LoseTracking(other);
    ASSERT_EQ(0u, VTReplicateVerifyList(APP1)); // App2 has its share of that to come
    Touch({5});
    auto inAnotherSession = [&] {
        LoseTracking(volume);
        EXPECT_EQ(0u, VTReplicateVerifyList(APP1));
        EXPECT_EQ((std::vector<std::wstring>{volume.guid, other.guid}), PendingList(APP2));
    };
    // The list was moved, and is about to be deleted.
    Before(L"RegDeleteValueW", L"DeviceListForReSyncApp2", 1, inAnotherSession);
    ASSERT_EQ(0u, VTReplicateVerifyList(APP2));
    ClearFaults();
    EXPECT_EQ(std::vector<std::wstring>{other.guid}, VerifyList(APP2));
    EXPECT_TRUE(IsLost(APP2, 5));
    // A name that all sessions share would keep the other one out, and this limit would be gone.
    VTFltSimRecord(1);
    EXPECT_EQ(0u, VTReplicateVerifyList(APP2));
    VTFltSimRecord(0);
    unsigned mutexes = 0;
    for (const std::wstring& call : vtfltsim::Trace()) {
        const bool isOfLists =
            call.starts_with(L"CreateMutexW ") && call.find(L"VTBitmapManager.") != std::wstring::npos;
        mutexes += isOfLists ? 1 : 0;
        EXPECT_FALSE(isOfLists && call.find(L"Global\\") != std::wstring::npos) << Narrow(call);
    }
    EXPECT_GT(mutexes, 0u);
}

// Found by a schedule.
TEST_F(Limit, AnotherBlockSizeWhileTheDriversListIsHandedOutIsDropped)
{
    Register(APP1);
    BackUp(APP1);
    const Volume other = machine.AddVolume(BLOCKS * BLOCK, BLOCK);
    VTFltSimLoseTracking(machine.handle(), other.guid.c_str());
    auto driver = [&] { VTFltSimSetBlockSize(machine.handle(), volume.guid.c_str(), 2 * BLOCK); };
    Touch({5});
    Before(L"RegDeleteValueW", L"DeviceListForReSync", 1, driver);
    ASSERT_EQ(0u, VTReplicateVerifyList(APP1));
    ClearFaults();
    EXPECT_TRUE(DriverList().empty());
    EXPECT_EQ(0u, VTIsVerifyRequired(APP1, volume.Root().c_str()));
    const auto session = Open(APP1);
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BlockSet{}, Blocks(*session)) << "block 2 of the longer ones";
}

TEST_F(Limit, UnregisteringAndRegisteringInTheMiddleOfItsOwnBackup)
{
    Register(APP1);
    Register(APP2);
    BackUp(APP1);
    const auto session = Open(APP1);
    Snapshot(*session);
    ASSERT_EQ(0u, session->GetBitmap());
    ASSERT_EQ(0u, VTUnregisterApplication(APP1));
    Touch({5});
    BackUp(APP2); // nobody keeps block 5 for App1
    ASSERT_EQ(0u, VTRegisterApplication(APP1));
    EXPECT_EQ(OnlyThisVolume(), VerifyList(APP1));
    ASSERT_EQ(0u, session->Success()); // of a backup from before all that
    EXPECT_TRUE(IsLost(APP1, 5));
}

TEST_F(Limit, AVolumeThatIsNotFixedIsPassedOverWhenItsApplicationLeavesAndComesBack)
{
    vtfltsim::Check("VTFltSimSetDriveType",
                    VTFltSimSetDriveType(machine.handle(), volume.guid.c_str(), DRIVE_REMOVABLE));
    for (const std::wstring appId : {APP1, APP2}) {
        Register(appId);
        const auto session = Open(appId);
        Snapshot(*session);
        EXPECT_EQ(VERIFY, session->GetBitmap()) << "no files were made";
        ASSERT_EQ(0u, session->Success());
    }
    ASSERT_EQ(0u, VTUnregisterApplication(APP1));
    EXPECT_TRUE(VerifyList(APP1).empty());
    EXPECT_TRUE(FileExists(volume, ChildName(APP1)));
    Touch({5});
    BackUp(APP2); // nobody keeps block 5 for App1
    Register(APP1);
    EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(APP1));
    EXPECT_TRUE(VerifyList(APP1).empty());
    EXPECT_TRUE(IsLost(APP1, 5));
}

TEST_F(Limit, IdsThatDifferInCaseOnlyShareTheirFiles)
{
    Register(L"App1");
    Register(L"APP1");
    BackUp(L"App1");
    BackUp(L"APP1");
    Touch({5});
    BackUp(L"App1");
    EXPECT_TRUE(IsLost(L"APP1", 5));
}

TEST_F(Limit, LongIdsThatDifferAtTheirEndsOnlyShareTheirFiles)
{
    // The paths of bitmap files are cut at 259 characters: so many of an ID are left in a child's.
    constexpr std::size_t LEFT = 184;
    for (const std::size_t length : {LEFT - 1, LEFT}) {
        const std::wstring same(length, L'a');
        const std::wstring first = same + L"1";
        const std::wstring second = same + L"2";
        Register(first);
        Register(second);
        EXPECT_EQ((std::vector<std::wstring>{first, second}), RegisteredIds());
        BackUp(first);
        BackUp(second);
        Touch({5});
        BackUp(first);
        EXPECT_EQ(length == LEFT, IsLost(second, 5)) << length;
        ASSERT_EQ(0u, VTUnregisterApplication(first.c_str()));
        ASSERT_EQ(0u, VTUnregisterApplication(second.c_str()));
    }
}

// They differ within what is left of an ID: a path that just fits is the longer one's, cut behind the ending.
TEST_F(Limit, AnIdOf180CharactersSharesItsChildFileWithTheOneThatHasTheEndingOfTheFileBehindIt)
{
    for (const std::size_t length : {std::size_t{179}, std::size_t{180}}) {
        const std::wstring shorter(length, L'a');
        const std::wstring longer = shorter + L".dat";
        Register(shorter);
        Register(longer);
        EXPECT_EQ((std::vector<std::wstring>{shorter, longer}), RegisteredIds());
        BackUp(shorter);
        BackUp(longer);
        Touch({5});
        BackUp(shorter);
        EXPECT_EQ(length == 180, IsLost(longer, 5)) << length;
        ASSERT_EQ(0u, VTUnregisterApplication(shorter.c_str()));
        ASSERT_EQ(0u, VTUnregisterApplication(longer.c_str()));
    }
}

// Nothing is lost: without an entry there is no backup.
TEST_F(Limit, AnIdThatIsTheTailOfAListedOneIsNotListedWithSuccess)
{
    Register(L"MyApp1");
    EXPECT_EQ(0u, VTRegisterApplication(APP1));
    EXPECT_EQ((std::vector<std::wstring>{L"MyApp1"}), RegisteredIds());
    EXPECT_EQ(0u, VTCanAppUseBLIDriver(APP1));
    EXPECT_EQ(VTFLT_APP_NOT_REGISTERED, VTReplicateVerifyList(APP1));
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    EXPECT_EQ(VTFLT_APP_NOT_REGISTERED, VTFltInitBitmapManager(handle.get(), volume.Root().c_str(), APP1));
}

TEST_F(Limit, AnIdThatEndsInLastTakesTheMarksOfTheOneWithoutIt)
{
    Register(L"X");
    Register(L"X.Last");
    BackUp(L"X");
    Touch({5});
    VTFltSimLoseTracking(machine.handle(), volume.guid.c_str());
    ASSERT_EQ(0u, VTReplicateVerifyList(L"X"));
    EXPECT_EQ(1u, VTIsVerifyRequired(L"X", volume.Root().c_str()));
    ASSERT_EQ(0u, VTReplicateVerifyList(L"X.Last")); // the verify list of X is its pending list
    EXPECT_TRUE(IsLost(L"X", 5));
}

TEST_F(Limit, AFileWhoseMiddleIsWrongIsAccepted)
{
    Register(APP1);
    Register(APP2);
    BackUp(APP1);
    Touch({5});
    BackUp(APP2);
    Bytes file = ReadFileBytes(volume, ChildName(APP1));
    constexpr std::size_t BITS_AT = 84 + 16;
    EXPECT_NE(0, file.at(BITS_AT));
    file.at(BITS_AT) = 0; // signature and trailer reached the disk, this byte did not
    WriteFileBytes(volume, ChildName(APP1), file);
    EXPECT_TRUE(IsLost(APP1, 5));
}

// The step is over without a flush, and the ones behind it go on.
TEST_F(Limit, AShortWriteWithoutAnErrorCountsAsDoneUntilThePowerGoes)
{
    Register(APP1);
    Register(APP2);
    BackUp(APP1);
    const std::wstring folder = machine.Info(volume).filesDirectory;
    DoubleSyncBelow(folder.c_str());
    Touch({5});
    CutCall(L"WriteFile", ChildName(APP1), 0);
    BackUp(APP2);
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_EQ(Bytes(), ReadFileBytes(volume, ChildName(APP1))) << "as long as it is so, it forces a verify";
    DoubleLoseBelow(folder.c_str(), 0);
    EXPECT_TRUE(IsLost(APP1, 5)) << "the driver does not list the volume here";
}

TEST_F(Limit, WhoWaitedHalfAnHourForAMutexGoesOnWithoutIt)
{
    constexpr std::uint64_t HALF_AN_HOUR = 30 * 60 * 1000;
    Register(APP1);
    Register(APP2);
    const auto session = Open(APP1);
    Snapshot(*session);
    ASSERT_EQ(0u, session->GetBitmap());
    const vtflt::UniqueHandle stands(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const vtflt::UniqueHandle goesOn(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    // Another one's fetch has read this one's child, and is stopped before it writes it back.
    auto stop = [&] {
        SetEvent(stands.get());
        WaitForSingleObject(goesOn.get(), INFINITE);
    };
    Before(L"CreateFileW", ChildName(APP1), 2, stop);
    std::thread other([&] { EXPECT_EQ(0u, Open(APP2)->GetBitmap()); });
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(stands.get(), INFINITE));
    const std::uint64_t began = DoubleTime();
    EXPECT_EQ(0u, session->SyncChanges(BufferOf(BUFFER_LENGTH, {7})));
    EXPECT_LE(HALF_AN_HOUR, DoubleTime() - began);
    EXPECT_EQ(BlockSet{7}, Blocks(Child(volume, APP1)));
    SetEvent(goesOn.get());
    other.join();
    ClearFaults();
    ASSERT_EQ(0u, session->Success());
    EXPECT_TRUE(IsLost(APP1, 7));
}

TEST_F(Limit, AFileThatIsCutShortStopsEveryApplicationsFetch)
{
    Register(APP1);
    Register(APP2);
    Bytes file = ReadFileBytes(volume, ChildName(APP2));
    file.pop_back();
    WriteFileBytes(volume, ChildName(APP2), file);
    const auto session = Open(APP1);
    Touch({5});
    for (int attempt = 0; attempt < 3; ++attempt)
        EXPECT_NE(0u, session->GetBitmap());
    EXPECT_EQ(1u, OwedByDriver()) << "nothing is lost, and nothing gets on";
    RemoveFile(volume, ChildName(APP2));
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BlockSet{5}, Blocks(*session));
}

TEST_F(Limit, ABaseBitmapThatIsCutShortStopsItsOwnApplicationsFetch)
{
    Register(APP1);
    Register(APP2);
    Bytes file = ReadFileBytes(volume, BaseName(APP2));
    file.pop_back();
    WriteFileBytes(volume, BaseName(APP2), file);
    Touch({5});
    for (int attempt = 0; attempt < 3; ++attempt)
        EXPECT_NE(0u, Open(APP2)->GetBitmap());
    EXPECT_EQ(1u, OwedByDriver()) << "nothing is lost, and nothing gets on";
    const auto session = Open(APP1);
    EXPECT_EQ(0u, session->GetBitmap()) << "the other one's does";
    EXPECT_EQ(BlockSet{5}, Blocks(*session));
    RemoveFile(volume, BaseName(APP2));
    EXPECT_EQ(VERIFY, Open(APP2)->GetBitmap());
}

// Found by two failures in one backup.
TEST_F(Limit, AListThatIsSaidNotToBeThereIsTakenForAnEmptyOne)
{
    Register(APP1);
    BackUp(APP1);
    Touch({5});
    VTFltSimLoseTracking(machine.handle(), volume.guid.c_str());
    // Asked for the second time: whom to hand the driver's list to.
    VTFltSimFailCall(L"RegQueryValueExW", L"RegisteredAppIDs", 3, 0, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(0u, VTReplicateVerifyList(APP1));
    EXPECT_NE(0u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_TRUE(IsLost(APP1, 5));
}

// Found by the whole sweep of failures. Opening the key makes it where it is missing, and is believed all the same.
TEST_F(Limit, AKeyThatIsSaidNotToBeThereIsTakenForAnEmptyList)
{
    Register(APP1);
    BackUp(APP1);
    Touch({5});
    VTFltSimLoseTracking(machine.handle(), volume.guid.c_str());
    VTFltSimFailCall(L"RegCreateKeyW", L"AppIDs", 2, 1, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(0u, VTReplicateVerifyList(APP1));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_TRUE(IsLost(APP1, 5));
}

TEST_F(Limit, AVerifyListThatIsSaidNotToBeThereLosesItsMarksWhenAReportWritesItBack)
{
    const Volume other = machine.AddVolume(BLOCKS * BLOCK, BLOCK);
    Register(APP1);
    Touch({5});
    LoseTracking(volume);
    EXPECT_TRUE(IsVerifyRequired(APP1));
    Session session(OpenVolume(other), other.Root(), APP1);
    ASSERT_EQ(0u, session.Init());
    ASSERT_EQ(0u, session.GetBitmap());
    VTFltSimFailCall(L"RegQueryValueExW", L"DeviceListForReSyncApp1.Last", 1, 1, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(0u, session.Success());
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_TRUE(IsLost(APP1, 5));
}

TEST_F(Limit, AVerifyListThatIsSaidNotToBeThereLosesItsMarksWhenOthersAreAdded)
{
    const Volume other = machine.AddVolume(BLOCKS * BLOCK, BLOCK);
    Register(APP1);
    Touch({5});
    LoseTracking(volume);
    EXPECT_TRUE(IsVerifyRequired(APP1));
    LoseTracking(other);
    VTFltSimFailCall(L"RegQueryValueExW", L"DeviceListForReSyncApp1.Last", 1, 1, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(0u, VTReplicateVerifyList(APP1));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_EQ(std::vector<std::wstring>{other.guid}, VerifyList(APP1));
    EXPECT_TRUE(IsLost(APP1, 5));
}

// Found by a sweep.
TEST_F(Limit, AnothersFileThatIsSaidNotToBeThereIsSkipped)
{
    Register(APP1);
    Register(APP2);
    std::uint64_t block = 5;
    for (const DWORD error : {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND}) {
        BackUp(APP2);
        Touch({block});
        VTFltSimFailCall(L"CreateFileW", ChildName(APP2).c_str(), 1, 1, error);
        BackUp(APP1);
        ClearFaults();
        EXPECT_TRUE(IsLost(APP2, block)) << error;
        ++block;
    }
}

// The system says that the file ends in the middle of its header, and is believed.
TEST_F(Limit, AnothersFileWhoseHeaderIsReadShortWithoutAnErrorIsSkipped)
{
    Register(APP1);
    Register(APP2);
    BackUp(APP2);
    Touch({5});
    constexpr ULONGLONG ALL_BUT_ONE = 87;
    CutCall(L"ReadFile", ChildName(APP2), ALL_BUT_ONE);
    BackUp(APP1);
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_TRUE(IsLost(APP2, 5));
}

TEST_F(Limit, AVolumeWalkThatIsSaidToEndEarlyPassesVolumesOver)
{
    const Volume other = machine.AddVolume(BLOCKS * BLOCK, BLOCK);
    Register(APP1);
    VTFltSimFailCall(L"FindNextVolumeW", nullptr, 1, 1, ERROR_NO_MORE_FILES);
    EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(APP1));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    const std::vector<std::wstring> marked = VerifyList(APP1);
    ASSERT_EQ(1u, marked.size());
    const Volume& passedOver = marked[0] == volume.guid ? other : volume;
    EXPECT_EQ(0u, VTIsVerifyRequired(APP1, passedOver.Root().c_str())) << "whoever asked for the mark needs it";
    EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(APP1));
    EXPECT_EQ(2u, VerifyList(APP1).size()) << "both, when the system says so";
    // Not reset: nobody makes files there.
    const auto hasChild = [&](const Volume& one, const std::wstring& appId) {
        return FileExists(one, ChildName(appId));
    };
    VTFltSimFailCall(L"FindNextVolumeW", nullptr, 1, 1, ERROR_NO_MORE_FILES);
    Register(APP2);
    ClearFaults();
    EXPECT_NE(hasChild(volume, APP2), hasChild(other, APP2));
    // Not emptied: the files of one stay.
    VTFltSimFailCall(L"FindNextVolumeW", nullptr, 1, 1, ERROR_NO_MORE_FILES);
    EXPECT_EQ(0u, VTFltStopMonitorVolumes());
    ClearFaults();
    EXPECT_NE(hasChild(volume, APP1), hasChild(other, APP1));
}

// Found by a random history. The room grows until the value fits, as long as the registry says that it does not.
TEST_F(Limit, AListThatNeverFitsIsReadForEver)
{
    Register(APP1);
    constexpr DWORD LONG = 2000;
    VTFltSimFailCall(L"RegQueryValueExW", L"DeviceListForReSync", 1, LONG, ERROR_MORE_DATA);
    EXPECT_EQ(0u, VTReplicateVerifyList(APP1));
    EXPECT_EQ(LONG, VTFltSimGetCallFaultHits());
    ClearFaults();

    // Said for ever, it ends with the memory: here at four megabytes.
    VTFltSimFailCall(L"RegQueryValueExW", L"DeviceListForReSync", 1, 0, ERROR_MORE_DATA);
    VTFltSimFailCall(L"malloc", L"4194304", 1, 0, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY), VTReplicateVerifyList(APP1));
    const DWORD hitsBefore = VTFltSimGetCallFaultHits();
    EXPECT_LT(LONG, hitsBefore);
    EXPECT_EQ(1u, VTIsVerifyRequired(APP1, volume.Root().c_str()));
    EXPECT_LT(hitsBefore + LONG, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_EQ(0u, VTIsVerifyRequired(APP1, volume.Root().c_str()));
}

// Found by a schedule. The list's size is asked first, and no mutex is held over both.
TEST_F(Limit, AListThatGrowsWhileItIsReadCannotBeRead)
{
    Register(APP1);
    auto registers = [] { EXPECT_EQ(0u, VTRegisterApplication(APP2)); };
    Before(L"RegQueryValueExW", L"RegisteredAppIDs", 2, registers);
    std::vector<std::wstring> ids;
    EXPECT_EQ(static_cast<DWORD>(ERROR_MORE_DATA), VTGetRegisteredAppList(&ids));
    ClearFaults();
    EXPECT_EQ(0u, VTGetRegisteredAppList(&ids)) << "the next one can";
    EXPECT_EQ(2u, ids.size());
    const auto whileItGrows = [&](const auto& asks) {
        ASSERT_EQ(0u, VTUnregisterApplication(APP2));
        Before(L"RegQueryValueExW", L"RegisteredAppIDs", 2, registers);
        asks();
        EXPECT_EQ(2u, RegisteredIds().size()) << "it did grow";
        ClearFaults();
    };
    whileItGrows([] {
        DWORD count = 77;
        EXPECT_EQ(static_cast<DWORD>(ERROR_MORE_DATA), VTGetRegisteredAppCount(&count));
        EXPECT_EQ(77u, count);
    });
    whileItGrows([] { EXPECT_EQ(0u, VTCanAppUseBLIDriver(APP1)); });
    EXPECT_EQ(1u, VTCanAppUseBLIDriver(APP1)) << "the next one can";
    ASSERT_EQ(0u, VTUnregisterApplication(APP2));
    Before(L"RegQueryValueExW", L"RegisteredAppIDs", 2, registers);
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    EXPECT_EQ(VTFLT_APP_LIST_FAILED, VTFltInitBitmapManager(handle.get(), volume.Root().c_str(), APP1));
    ClearFaults();
    EXPECT_EQ(0u, VTFltInitBitmapManager(handle.get(), volume.Root().c_str(), APP1));
    EXPECT_EQ(0u, VTFltDeinitBitmapManager(handle.get()));
}

// The two answers cannot be told apart.
TEST_F(Limit, ReplicatingWithoutADriverIsASuccess)
{
    Register(APP1);
    BackUp(APP1);
    Touch({5});
    VTFltSimLoseTracking(machine.handle(), volume.guid.c_str());
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    VTFltSimFailCall(L"CreateFileW", VTFLTSIM_ENDPOINT_CONTROL, 1, 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(0u, VTReplicateVerifyList(APP1));
    ClearFaults();
    EXPECT_EQ(0u, VTIsVerifyRequired(APP1, volume.Root().c_str())) << "and the volume is on the driver's list";
    EXPECT_EQ(OnlyThisVolume(), DriverList());
    const auto session = Open(APP1);
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BlockSet{}, Blocks(*session)) << "a backup without block 5, if nobody asks again";
    EXPECT_TRUE(IsVerifyRequired(APP1)) << "the next question finds it";
}

// It counts as a wrong list, and that as a driver that does not work.
TEST_F(Limit, ReplicatingWithoutMemoryForTheFilterListIsASuccess)
{
    const std::vector<std::wstring> filters = {L"volsnap", L"VTFlt", std::wstring(500, L'f')};
    machine.SetFilters(filters);
    Register(APP1);
    BackUp(APP1);
    Touch({5});
    LoseTracking(volume);
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    const auto size = static_cast<unsigned>(MultiStringBytes(filters).size() + sizeof(wchar_t)); // with an end
    VTFltSimFailCall(L"malloc", WideNumber(size).c_str(), 1, 1, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(0u, VTReplicateVerifyList(APP1));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_EQ(0u, VTIsVerifyRequired(APP1, volume.Root().c_str())) << "and the volume is on the driver's list";
    EXPECT_EQ(OnlyThisVolume(), DriverList());
    EXPECT_TRUE(IsVerifyRequired(APP1)) << "the next question finds it";
}

TEST_F(Limit, MarkingWithoutADriverIsASuccessAndMarksNothing)
{
    Register(APP1);
    BackUp(APP1);
    const Bytes before = ReadFileBytes(volume, BaseName(APP1));
    Touch({5});
    ASSERT_EQ(0u, Open(APP1)->GetBitmap()); // the base has it now
    // The file is put back as it was before, by somebody who knows what that means.
    WriteFileBytes(volume, BaseName(APP1), before);
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    VTFltSimFailCall(L"CreateFileW", VTFLTSIM_ENDPOINT_CONTROL, 1, 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(APP1));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_TRUE(VerifyList(APP1).empty());
    EXPECT_TRUE(IsLost(APP1, 5));
}

} // namespace
} // namespace vttest
