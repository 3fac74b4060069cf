// What a get-bitmap call does when all goes well: requests, files, records of the log, and what the application gets.
#include "driver/protocol.h"
#include "support/cycle_test.h"

namespace vttest {

namespace {

using namespace vtflt;

class GetBitmapSequence : public CycleTest {
protected:
    void SetUp() override { Register(L"app1"); }
};

TEST_F(GetBitmapSequence, AsksTheDriverForTheBitmapAndTellsItToForgetAfterwards)
{
    const auto session = Open(L"app1");
    Touch({1, 50, 99});
    VTFltSimRecord(1);
    ASSERT_EQ(0u, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ((std::vector<DWORD>{VTFLTCTL_GET_BITMAP, VTFLTCTL_REPLICATION_SUCCESS}), RequestCodes());
    EXPECT_EQ(0u, OwedByDriver());
}

TEST_F(GetBitmapSequence, SendsReplicationSuccessWithoutBuffersThoughTheCallerPassedSome)
{
    const auto session = Open(L"app1");
    VTFltSimRecord(1);
    ASSERT_EQ(0u, session->GetBitmap(BUFFER_LENGTH));
    const std::vector<VTFLTSIM_REQUEST> requests = vtfltsim::Requests();
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ(BUFFER_LENGTH, requests[0].outputLength);
    EXPECT_EQ(0u, requests[1].inputLength);
    EXPECT_EQ(0u, requests[1].outputLength);
    EXPECT_EQ(volume.Path(), requests[1].endpoint);
}

TEST_F(GetBitmapSequence, HandsTheInputBufferToTheDriverUntouched)
{
    const auto session = Open(L"app1");
    Bytes input{0xAA, 0xBB, 0xCC};
    Bytes output(BUFFER_LENGTH);
    DWORD size = 0;
    VTFltSimRecord(1);
    ASSERT_EQ(0u, VTFltGetBitmap(session->Handle(), input.data(), 3, output.data(), BUFFER_LENGTH, &size, 0));
    const std::vector<VTFLTSIM_REQUEST> requests = vtfltsim::Requests();
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(3u, requests[0].inputLength);
    EXPECT_TRUE(std::equal(input.begin(), input.end(), requests[0].input));
    EXPECT_EQ((Bytes{0xAA, 0xBB, 0xCC}), input);
}

TEST_F(GetBitmapSequence, GivesExactlyTheChangedBlocksAndTheirBitCountInTheSecondHeaderWord)
{
    const auto session = Open(L"app1");
    Touch({1, 50, 99});
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(BUFFER_LENGTH, session->Size());
    Bytes expected = BufferOf(BUFFER_LENGTH, {1, 50, 99});
    expected[8] = static_cast<std::uint8_t>(BUFFER_LENGTH * 8 - 128);
    EXPECT_EQ(expected, session->Buffer());
}

TEST_F(GetBitmapSequence, LogsEachStepAndItsResultAtErrorLevel)
{
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    log.ExpectExactly({
        Done(L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Updated child bitmaps."),
        Done(L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Prepared the base bitmap."),
        Done(L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Resetting the child bitmap."),
        Done(L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::VTFLTCTL_REPLICATION_SUCCESS."),
        Done(L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Copying bitmap to buffer to send it to application."),
        Failed(0, L"CMultiBitmapManager::VTDeviceIoControl::Get bitmap is returning =0."),
    });
}

TEST_F(GetBitmapSequence, LeavesTheChangesInTheBaseFileAndAClearChildFile)
{
    const auto session = Open(L"app1");
    Touch({0, 7, 8, 99});
    ASSERT_EQ(0u, session->GetBitmap());
    const BitmapFile base = Base(volume, L"app1");
    const BitmapFile child = Child(volume, L"app1");
    EXPECT_EQ(MakeBitmapImage(BLOCK, BufferOf(BUFFER_LENGTH, {0, 7, 8, 99})), base.image);
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(BUFFER_LENGTH)), child.image);
}

TEST_F(GetBitmapSequence, TakesTheWholeBufferLengthAsTheLengthOfTheDriversBitmap)
{
    const auto session = Open(L"app1");
    Touch({3});
    ASSERT_EQ(0u, session->GetBitmap(4096));
    EXPECT_EQ(4096u, session->Size());
    EXPECT_EQ((BlockSet{3}), Blocks(*session));
    EXPECT_EQ(4096u, Base(volume, L"app1").BitmapLength());
    EXPECT_EQ(4096u, Child(volume, L"app1").BitmapLength());
    EXPECT_EQ(8192u, Base(volume, L"app1").RecordSize());
}

TEST_F(GetBitmapSequence, WritesNoFileTwiceWhenTheLengthIsTheSameAsBefore)
{
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    VTFltSimResetCounts();
    ASSERT_EQ(0u, session->GetBitmap(BUFFER_LENGTH));
    // Child and base are read, the base is written with the child folded in, and the child cleared.
    EXPECT_EQ(4u, VTFltSimGetCallCount(L"CreateFileW"));
}

TEST_F(GetBitmapSequence, GivesOldAndNewChangesUntilSuccessIsReported)
{
    const auto session = Open(L"app1");
    Touch({1});
    ASSERT_EQ(0u, session->GetBitmap());
    Touch({2});
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ((BlockSet{1, 2}), Blocks(*session));
    ASSERT_EQ(0u, session->Success());
    Touch({3});
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ((BlockSet{3}), Blocks(*session));
}

TEST_F(GetBitmapSequence, GathersTheChangesForEveryOtherApplication)
{
    Register(L"app2");
    Register(L"App0");
    const auto session = Open(L"app1");
    Touch({4, 40});
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ((BlockSet{4, 40}), Blocks(Child(volume, L"App0")));
    EXPECT_EQ((BlockSet{4, 40}), Blocks(Child(volume, L"app2")));
    EXPECT_TRUE(Blocks(Base(volume, L"app2")).empty());
    EXPECT_EQ(FRESH_LENGTH, Base(volume, L"app2").BitmapLength());
    EXPECT_EQ(BUFFER_LENGTH, Child(volume, L"app2").BitmapLength());
}

TEST_F(GetBitmapSequence, HandsOutOnlyTheFrozenChangesOfAPreparedSnapshot)
{
    const auto session = Open(L"app1");
    Touch({1});
    ASSERT_EQ(0u, session->Prepare());
    const Snapshot snapshot = machine.TakeSnapshot(volume);
    Touch({2});
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ((BlockSet{1}), Blocks(*session));
    EXPECT_EQ(1u, OwedByDriver());
    machine.DeleteSnapshot(snapshot);
}

TEST_F(GetBitmapSequence, NeedsNoSizePointer)
{
    const auto session = Open(L"app1");
    Touch({5});
    BYTE input = 0;
    Bytes output(BUFFER_LENGTH);
    ASSERT_EQ(0u, VTFltGetBitmap(session->Handle(), &input, 0, output.data(), BUFFER_LENGTH, nullptr, 0));
    EXPECT_EQ((std::vector<std::uint64_t>{5}), BlocksInBuffer(output));
}

TEST_F(GetBitmapSequence, HoldsTheVolumesMutexFromBeforeTheDriverToTheEnd)
{
    const auto session = Open(L"app1");
    VTFltSimRecord(1);
    ASSERT_EQ(0u, session->GetBitmap(BUFFER_LENGTH));
    const std::vector<std::wstring> trace = LibraryCalls();
    ASSERT_GE(trace.size(), 4u);
    EXPECT_EQ(L"CreateMutexW " + volume.MutexName(), trace[0]);
    EXPECT_EQ(0u, trace[1].find(L"WaitForSingleObject")) << Narrow(trace[1]);
    EXPECT_EQ(0u, trace[2].find(L"DeviceIoControl")) << Narrow(trace[2]);
    EXPECT_EQ(0u, trace[trace.size() - 2].find(L"ReleaseMutex")) << Narrow(trace[trace.size() - 2]);
    EXPECT_EQ(0u, trace.back().find(L"CloseHandle")) << Narrow(trace.back());
}

} // namespace

} // namespace vttest
