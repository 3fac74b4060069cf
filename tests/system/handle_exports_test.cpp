// The exports on volume handles that go through the handle's manager.
#include "support/driver_expect.h"

#include <cstring>
#include <functional>

namespace vttest {
namespace {

struct NamedExport {
    const wchar_t* name;
    std::function<DWORD(HANDLE)> call;
};

class HandleExports : public MachineTest {
protected:
    HandleExports()
    {
        volume = machine.AddVolume(8 * 65536);
        EXPECT_EQ(VTRegisterApplication(L"Alpha"), 0u);
        log.Clear();
    }

    // Every export with a volume handle, with good arguments otherwise and without the direct flag.
    std::vector<NamedExport> Exports()
    {
        return {
            {L"VTFltGetBlockSize", [this](HANDLE handle) { return VTFltGetBlockSize(handle, &word, 0); }},
            {L"VTFltPrepareForSnapshot", VTFltPrepareForSnapshot},
            {L"VTFltGetBitmap",
             [this](HANDLE handle) { return VTFltGetBitmap(handle, &input, 0, buffer, sizeof(buffer), &word, 0); }},
            {L"VTFltSynSnapshotChangeBitmapToVolume",
             [this](HANDLE handle) { return VTFltSynSnapshotChangeBitmapToVolume(handle, &input, 0); }},
            {L"VTFltReplicationSuccess", VTFltReplicationSuccess},
            {L"VTFltDeinitBitmapManager", VTFltDeinitBitmapManager},
        };
    }

    Volume volume;
    DWORD word = 0x5A5A5A5A;
    BYTE input = 0;
    BYTE buffer[64] = {};
};

TEST_F(HandleExports, AHandleOfZeroOrAllOnesYields87FromEveryExportAndLogsNothing)
{
    StartRecording();
    testing::internal::CaptureStdout();
    for (HANDLE handle : {HANDLE{nullptr}, INVALID_HANDLE_VALUE}) {
        for (const NamedExport& entry : Exports())
            EXPECT_EQ(entry.call(handle), 87u) << Narrow(entry.name);
        EXPECT_EQ(VTFltGetBlockSize(handle, &word, 1), 87u);
        EXPECT_EQ(VTFltGetBitmap(handle, &input, 0, buffer, sizeof(buffer), &word, 1), 87u);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    log.ExpectNothingLogged();
    EXPECT_TRUE(LibraryCalls().empty());
    EXPECT_EQ(word, 0x5A5A5A5Au);
}

TEST_F(HandleExports, AHandleOutsideTheTableYields87AndTheExportsOwnMessageWithItsLow32Bits)
{
    const auto handle = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(0x1234567812AB34CD));
    StartRecording();
    testing::internal::CaptureStdout();
    for (const NamedExport& entry : Exports()) {
        log.Clear();
        EXPECT_EQ(entry.call(handle), 87u) << Narrow(entry.name);
        log.ExpectExactly(
            {{0, 87,
              std::wstring(entry.name) + L": Handle 0X12ab34cd not found. Please provide valid volume handle.\n"}});
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(LibraryCalls().empty());
    EXPECT_EQ(word, 0x5A5A5A5Au);
}

TEST_F(HandleExports, ANullPointerThatIsRequiredYields87AndLogsNothing)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    log.Clear();
    StartRecording();
    for (const DWORD direct : {0u, 1u}) {
        EXPECT_EQ(VTFltGetBlockSize(session.Handle(), nullptr, direct), 87u);
        EXPECT_EQ(VTFltGetBitmap(session.Handle(), nullptr, 0, buffer, sizeof(buffer), &word, direct), 87u);
        EXPECT_EQ(VTFltGetBitmap(session.Handle(), &input, 0, nullptr, 0, &word, direct), 87u);
    }
    EXPECT_EQ(VTFltSynSnapshotChangeBitmapToVolume(session.Handle(), nullptr, 4), 87u);
    log.ExpectNothingLogged();
    EXPECT_TRUE(LibraryCalls().empty());
    EXPECT_EQ(word, 0x5A5A5A5Au);
}

TEST_F(HandleExports, GetBlockSizeGoesThroughTheManagerWithAFourByteOutput)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    StartRecording();
    EXPECT_EQ(VTFltGetBlockSize(session.Handle(), &word, 0), 0u);
    EXPECT_EQ(word, 65536u);
    ExpectRequests({{GET_BLOCK_SIZE, volume.Path(), {}, 4}});
    EXPECT_EQ(CallsOf(L"CreateMutexW"), std::vector<std::wstring>{L"CreateMutexW " + volume.MutexName()});
}

TEST_F(HandleExports, GetBlockSizeReturnsTheDriversErrorAndLeavesTheCallersWord)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    machine.FailRequest(GET_BLOCK_SIZE, ERROR_GEN_FAILURE);
    EXPECT_EQ(VTFltGetBlockSize(session.Handle(), &word, 0), 31u);
    EXPECT_EQ(word, 0x5A5A5A5Au);
}

TEST_F(HandleExports, PrepareForSnapshotSendsItsCodeWithoutBuffers)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    StartRecording();
    EXPECT_EQ(session.Prepare(), 0u);
    ExpectRequests({{PREPARE_FOR_SNAPSHOT, volume.Path(), {}, 0}});
    EXPECT_EQ(machine.Info(volume).prepared, 1u);
}

TEST_F(HandleExports, PrepareForSnapshotReturnsTheDriversErrorUnchanged)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    machine.FailRequest(PREPARE_FOR_SNAPSHOT, 0xE0001234);
    EXPECT_EQ(session.Prepare(), 0xE0001234u);
    EXPECT_EQ(machine.Info(volume).prepared, 0u);
}

TEST_F(HandleExports, GetBitmapPassesTheInputOnAndOverwritesH1WithTheNumberOfBits)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    machine.TouchBlock(volume, 2);
    BYTE passed[3] = {7, 8, 9};
    Bytes output(24);
    StartRecording();
    EXPECT_EQ(VTFltGetBitmap(session.Handle(), passed, 3, output.data(), 24, &word, 0), 0u);
    EXPECT_EQ(word, 24u);
    EXPECT_EQ(output, (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 64, 0, 0, 0, 0, 0, 0, 0, 0x20, 0, 0, 0, 0, 0, 0, 0}));
    const auto requests = vtfltsim::Requests();
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(requests[0].code, GET_BITMAP);
    EXPECT_EQ(Bytes(requests[0].input, requests[0].input + 3), (Bytes{7, 8, 9}));
    EXPECT_EQ(requests[0].inputLength, 3u);
    EXPECT_EQ(requests[0].outputLength, 24u);
}

TEST_F(HandleExports, GetBitmapNeedsNoPlaceForTheSize)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    Bytes output(24);
    EXPECT_EQ(VTFltGetBitmap(session.Handle(), &input, 0, output.data(), 24, nullptr, 0), 0u);
    EXPECT_EQ(output[8], 64);
}

TEST_F(HandleExports, GetBitmapOfAShortBufferReportsTheLengthToSupplyAndKeepsTheDriversHeader)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    log.Clear();
    Bytes output(16, 0xEE);
    EXPECT_EQ(VTFltGetBitmap(session.Handle(), &input, 0, output.data(), 16, &word, 0), 234u);
    EXPECT_EQ(word, 24u);
    EXPECT_EQ(output, (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
    log.ExpectNothingLogged();
}

TEST_F(HandleExports, GetBitmapThatRequiresAVerifyLeavesTheHeaderAlone)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    RemoveFile(volume, ChildName(L"Alpha"));
    Bytes output(24);
    EXPECT_EQ(VTFltGetBitmap(session.Handle(), &input, 0, output.data(), 24, &word, 0), 0x10001u);
    EXPECT_EQ(word, 24u);
    EXPECT_EQ(Bytes(output.begin(), output.begin() + 16), Bytes(16));
}

TEST_F(HandleExports, GetBitmapReportsNoBytesAndKeepsTheHeaderAfterAnotherFailure)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    machine.FailRequest(GET_BITMAP, ERROR_GEN_FAILURE);
    Bytes output(24, 0xEE);
    EXPECT_EQ(VTFltGetBitmap(session.Handle(), &input, 0, output.data(), 24, &word, 0), 31u);
    EXPECT_EQ(word, 0u);
    EXPECT_EQ(output, Bytes(24, 0xEE));
}

TEST_F(HandleExports, SyncSendsNothingToTheDriverAndPrintsTheByteCount)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    ASSERT_EQ(session.GetBitmap(), 0u);
    Bytes changes(24);
    changes[16] = 0x80;
    StartRecording();
    testing::internal::CaptureStdout();
    EXPECT_EQ(session.SyncChanges(changes), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "copy into 0\n");
    ExpectRequests({});
    EXPECT_EQ(Child(volume, L"Alpha").Blocks(), std::vector<std::uint64_t>{0});
}

TEST_F(HandleExports, SyncPrintsItsLineAfterAFailureToo)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, volume.MutexName().c_str());
    testing::internal::CaptureStdout();
    EXPECT_EQ(session.SyncChanges(Bytes(24)), 0x10005u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "copy into 0\n");
}

TEST_F(HandleExports, ReplicationSuccessClearsTheBaseWithoutARequest)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    machine.TouchBlock(volume, 5);
    ASSERT_EQ(session.GetBitmap(), 0u);
    ASSERT_EQ(Base(volume, L"Alpha").Blocks(), std::vector<std::uint64_t>{5});
    StartRecording();
    EXPECT_EQ(session.Success(), 0u);
    ExpectRequests({});
    EXPECT_TRUE(Base(volume, L"Alpha").Blocks().empty());
}

TEST_F(HandleExports, ReplicationSuccessBeforeAFetchPassesTheManagersFailureOn)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    EXPECT_EQ(session.Success(), 0xFFFFFFFFu);
}

TEST_F(HandleExports, AVolumeMutexThatCannotBeMadeAnswers0x10005WithoutARequest)
{
    Session session(OpenVolume(volume), volume.Root(), L"Alpha");
    ASSERT_EQ(session.Init(), 0u);
    StartRecording();
    VTFltSimFailCall(L"CreateMutexW", volume.MutexName().c_str(), 1, 0, ERROR_ACCESS_DENIED);
    testing::internal::CaptureStdout();
    for (const NamedExport& entry : Exports()) {
        // Releasing the manager needs no mutex.
        if (std::wcscmp(entry.name, L"VTFltDeinitBitmapManager") == 0)
            continue;
        EXPECT_EQ(entry.call(session.Handle()), 0x10005u) << Narrow(entry.name);
    }
    testing::internal::GetCapturedStdout();
    ExpectRequests({});
    EXPECT_EQ(word, 0u); // the size of the get-bitmap call
    EXPECT_EQ(Bytes(buffer, buffer + sizeof(buffer)), Bytes(sizeof(buffer)));
}

} // namespace
} // namespace vttest
