// Control codes that no export sends, and arguments that the exports never hand on.
#include "driver/protocol.h"
#include "support/manager_test.h"

#include <cstring>

namespace vttest {

namespace {

using namespace vtflt;

class ManagerDriver : public ManagerTest {
protected:
    void SetUp() override
    {
        Register(L"app1");
        Register(L"app2");
    }

    static Bytes Number(DWORD number)
    {
        Bytes bytes(sizeof(number));
        std::memcpy(bytes.data(), &number, sizeof(number));
        return bytes;
    }
};

TEST_F(ManagerDriver, UnknownControlCodesAnswerTheirOwnCodeAndLeaveTheDriverAndTheLogAlone)
{
    const auto managed = Manage(L"app1");
    VTFltSimRecord(1);
    for (const DWORD code :
         {0u, 0xB0000000u, 0xB0000001u, 0xB0000003u, 0xB0000005u, 0xB000000Au, 0xB000000Eu, 0xB0000012u, 0xB0000016u,
          0xB0000019u, 0xB000001Du, 0xB0000046u, 0xB0000049u, 0xB000004Bu, 0xB000008Au, 0x7405Cu, 0xFFFFFFFFu})
        EXPECT_EQ(0x10002u, managed->Io(code)) << std::hex << code;
    EXPECT_TRUE(RequestCodes().empty());
    log.ExpectNothingLogged();
}

TEST_F(ManagerDriver, AHandleOfZeroOrAllOnesIsRefusedBeforeAnyMutexIsMade)
{
    const auto managed = Manage(L"app1");
    VTFltSimRecord(1);
    DWORD returned = 0;
    for (const HANDLE handle : {static_cast<HANDLE>(nullptr), INVALID_HANDLE_VALUE}) {
        for (const DWORD code : {VTFLTCTL_GET_BITMAP, VTFLTCTL_REPLICATION_SUCCESS, 0u}) {
            log.Clear();
            EXPECT_EQ(0x10004u,
                      managed->manager.VTDeviceIoControl(handle, code, nullptr, 0, nullptr, 0, &returned, nullptr));
            log.ExpectExactly(
                {Failed(0x10004, L"CMultiBitmapManager::VTDeviceIoControl::m_hVolume is not a valid volume handle.")});
        }
    }
    EXPECT_TRUE(vtfltsim::Trace().empty());
}

TEST_F(ManagerDriver, GetBitmapWithoutAnOutputBufferSendsNothing)
{
    const auto managed = Manage(L"app1");
    VTFltSimRecord(1);
    EXPECT_EQ(0x10003u, managed->Io(VTFLTCTL_GET_BITMAP, nullptr, 0, nullptr, 32));
    EXPECT_TRUE(RequestCodes().empty());
    log.ExpectNothingLogged();
}

TEST_F(ManagerDriver, GetBitmapNeedsNoPlaceForTheByteCount)
{
    const auto managed = Manage(L"app1");
    Touch({7});
    Bytes buffer(BUFFER_LENGTH);
    EXPECT_EQ(0u, managed->manager.VTDeviceIoControl(managed->Handle(), VTFLTCTL_GET_BITMAP, nullptr, 0, buffer.data(),
                                                     BUFFER_LENGTH, nullptr, nullptr));
    EXPECT_EQ(BufferOf(BUFFER_LENGTH, {7}), buffer);
}

TEST_F(ManagerDriver, PrepareForUninstallIsForwardedWithItsBuffersAndNotLogged)
{
    const auto managed = Manage(L"app1");
    Bytes input{1, 2, 3};
    Bytes output(5);
    VTFltSimRecord(1);
    EXPECT_EQ(0u, managed->Io(VTFLTCTL_PREPARE_FOR_UNINSTALL, input.data(), 3, output.data(), 5));
    const std::vector<VTFLTSIM_REQUEST> requests = vtfltsim::Requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ(VTFLTCTL_PREPARE_FOR_UNINSTALL, requests[0].code);
    EXPECT_EQ(3u, requests[0].inputLength);
    EXPECT_EQ(0, std::memcmp(requests[0].input, input.data(), 3));
    EXPECT_EQ(5u, requests[0].outputLength);
    log.ExpectNothingLogged();
}

TEST_F(ManagerDriver, PrepareForUninstallThatFailsIsLogged)
{
    const auto managed = Manage(L"app1");
    machine.FailRequest(VTFLTCTL_PREPARE_FOR_UNINSTALL, ERROR_BUSY);
    EXPECT_EQ(170u, managed->Io(VTFLTCTL_PREPARE_FOR_UNINSTALL));
    log.ExpectExactly({Failed(170, L"CMultiBitmapManager::VTDeviceIoControl::VTFLTCTL_PREPARE_FOR_UNINSTALL failed, "
                                   L"mserr=170.")});
}

TEST_F(ManagerDriver, BlockSizeChangeIsForwardedAndThenRemapsEveryApplicationsBitmaps)
{
    const auto managed = Manage(L"app1");
    Touch({1, 2});
    Bytes buffer(BUFFER_LENGTH);
    ASSERT_EQ(0u, managed->Io(VTFLTCTL_GET_BITMAP, nullptr, 0, buffer.data(), BUFFER_LENGTH));
    Bytes input = Number(4096);
    VTFltSimRecord(1);
    EXPECT_EQ(0u, managed->Io(VTFLTCTL_VOLUME_BLOCK_SIZE_CHANGE, input.data(), 4));
    const std::vector<DWORD> codes = RequestCodes();
    ASSERT_EQ(9u, codes.size()) << "the change, then length and block size for each of four bitmaps";
    EXPECT_EQ(VTFLTCTL_VOLUME_BLOCK_SIZE_CHANGE, codes[0]);
    for (const wchar_t* app : {L"app1", L"app2"}) {
        EXPECT_EQ(MakeBitmapImage(4096, Bytes(200)), Base(volume, app).image);
        EXPECT_EQ(MakeBitmapImage(4096, Bytes(200)), Child(volume, app).image);
    }
}

TEST_F(ManagerDriver, BlockSizeChangeThatTheDriverRefusesRemapsNothing)
{
    const auto managed = Manage(L"app1");
    const Bytes before = Child(volume, L"app1").image;
    machine.FailRequest(VTFLTCTL_VOLUME_BLOCK_SIZE_CHANGE, ERROR_INVALID_PARAMETER);
    Bytes input = Number(4096);
    EXPECT_EQ(87u, managed->Io(VTFLTCTL_VOLUME_BLOCK_SIZE_CHANGE, input.data(), 4));
    log.ExpectExactly({Failed(87, L"CMultiBitmapManager::VTDeviceIoControl::VTFLTCTL_VOLUME_BLOCK_SIZE_CHANGE failed, "
                                  L"mserr=87.")});
    EXPECT_EQ(before, Child(volume, L"app1").image);
}

TEST_F(ManagerDriver, BlockSizeChangeSucceedsWhateverBecomesOfTheRemap)
{
    const auto managed = Manage(L"app1");
    Bytes input = Number(4096);
    vtfltsim::FailCall(L"ReadFile", ERROR_CRC, L"VelVolTrc", 1, 0);
    EXPECT_EQ(0u, managed->Io(VTFLTCTL_VOLUME_BLOCK_SIZE_CHANGE, input.data(), 4));
    EXPECT_EQ(4096u, machine.Info(volume).blockSize);
}

TEST_F(ManagerDriver, AfterABlockSizeChangeTheNextFetchCountsInTheNewBlocks)
{
    const auto managed = Manage(L"app1");
    Bytes input = Number(4096);
    ASSERT_EQ(0u, managed->Io(VTFLTCTL_VOLUME_BLOCK_SIZE_CHANGE, input.data(), 4));
    Touch({1599});
    Bytes buffer(216);
    EXPECT_EQ(0u, managed->Io(VTFLTCTL_GET_BITMAP, nullptr, 0, buffer.data(), 216));
    EXPECT_EQ((std::vector<std::uint64_t>{1599}), BlocksInBuffer(buffer));
    EXPECT_EQ(216u, Child(volume, L"app2").BitmapLength());
    EXPECT_EQ(4096u, Child(volume, L"app2").BlockSize());
}

TEST_F(ManagerDriver, ReplicationSuccessIgnoresBuffersAndSendsNothing)
{
    const auto managed = Manage(L"app1");
    Bytes buffer(BUFFER_LENGTH);
    ASSERT_EQ(0u, managed->Io(VTFLTCTL_GET_BITMAP, nullptr, 0, buffer.data(), BUFFER_LENGTH));
    Bytes marked(8, 0xAB);
    VTFltSimRecord(1);
    EXPECT_EQ(0u, managed->Io(VTFLTCTL_REPLICATION_SUCCESS, marked.data(), 8, marked.data(), 8));
    EXPECT_EQ(Bytes(8, 0xAB), marked);
    EXPECT_TRUE(RequestCodes().empty());
}

TEST_F(ManagerDriver, EveryOperationEndsWithItsMutexReleased)
{
    const auto managed = Manage(L"app1");
    for (const DWORD code : {0u, VTFLTCTL_GET_BITMAP, VTFLTCTL_GET_BLOCK_SIZE, VTFLTCTL_REPLICATION_SUCCESS,
                             VTFLTCTL_PREPARE_FOR_SNAPSHOT, VTFLTCTL_VOLUME_BLOCK_SIZE_CHANGE}) {
        managed->Io(code);
        EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_MUTEXES)) << std::hex << code;
        EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OWNED_MUTEXES)) << std::hex << code;
    }
}

// A manager of a drive letter has no name for the lists: its merge is done, and everybody else's marks stay.
TEST_F(ManagerDriver, SnapshotChangesOfAVolumeThatNoListCanNameTakeNoMarkAway)
{
    SetVerifyList(L"app1", {L"{1}", L"{2}"});
    Managed managed(OpenVolume(volume), L"V:\\", L"app1");
    log.Clear();
    Bytes changes(BUFFER_LENGTH);
    managed.Io(vtflt::VTFLTCTL_SYNC_SNAPSHOT_CHANGES_TO_VOLUME_BITMAP, changes.data(), BUFFER_LENGTH);
    log.ExpectLogged(0, ERROR_INVALID_PARAMETER,
                     L"CMultiBitmapManager::VTDeviceIoControl: Failed to add volume to verify list, V:");
    EXPECT_EQ((std::vector<std::wstring>{L"{1}", L"{2}"}), VerifyList(L"app1"));
}

} // namespace

} // namespace vttest
