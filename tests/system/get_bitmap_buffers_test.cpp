// The buffers of get-bitmap: the size negotiation, and that nothing is touched beyond the length that was given.
#include "driver/protocol.h"
#include "support/cycle_test.h"

#include <algorithm>
#include <cstring>

namespace vttest {

namespace {

using namespace vtflt;

constexpr std::uint8_t CANARY = 0xC5;

class GetBitmapBuffer : public CycleTest {
protected:
    void SetUp() override
    {
        Register(L"app1");
        Touch({1, 50, 99});
    }

    // One call with a zeroed buffer of length bytes in front of 64 bytes that nobody may touch.
    DWORD GetWithCanary(const Session& session, DWORD length)
    {
        m_room.assign(length + 64, CANARY);
        std::fill_n(m_room.begin(), length, std::uint8_t{0});
        BYTE input = 0;
        const DWORD result = VTFltGetBitmap(session.Handle(), &input, 0, m_room.data(), length, &m_size, 0);
        EXPECT_TRUE(std::all_of(m_room.begin() + static_cast<std::ptrdiff_t>(length), m_room.end(),
                                [](std::uint8_t byte) { return byte == CANARY; }))
            << "touched behind " << length << " bytes";
        return result;
    }

    Bytes m_room;
    DWORD m_size = 0;
};

TEST_F(GetBitmapBuffer, ThatIsTooShortGetsTheLengthToSupplyAndNothingIsLoggedOrForgotten)
{
    const auto session = Open(L"app1");
    EXPECT_EQ(234u, GetWithCanary(*session, 16));
    EXPECT_EQ(BUFFER_LENGTH, m_size);
    log.ExpectNothingLogged();
    EXPECT_EQ(3u, OwedByDriver());
    EXPECT_EQ(0u, GetWithCanary(*session, m_size));
    EXPECT_EQ((std::vector<std::uint64_t>{1, 50, 99}), BlocksInBuffer(Bytes(m_room.begin(), m_room.begin() + 32)));
}

TEST_F(GetBitmapBuffer, RefusedWithInsufficientBufferIsNotLoggedEither)
{
    const auto session = Open(L"app1");
    machine.FailRequest(VTFLTCTL_GET_BITMAP, ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(122u, GetWithCanary(*session, BUFFER_LENGTH));
    EXPECT_EQ(16u, m_size);
    log.ExpectNothingLogged();
    EXPECT_EQ(3u, OwedByDriver());
}

TEST_F(GetBitmapBuffer, RefusedForAnyOtherReasonIsLogged)
{
    const auto session = Open(L"app1");
    machine.FailRequest(VTFLTCTL_GET_BITMAP, ERROR_ACCESS_DENIED);
    EXPECT_EQ(5u, GetWithCanary(*session, BUFFER_LENGTH));
    log.ExpectExactly({Failed(5, L"CMultiBitmapManager::VTDeviceIoControl::VTFLTCTL_GET_BITMAP failed, mserr=5.")});
}

TEST_F(GetBitmapBuffer, TheNegotiationTouchesNoFileAndNoList)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    VTFltSimRecord(1);
    EXPECT_EQ(234u, GetWithCanary(*session, 16));
    EXPECT_EQ((std::vector<DWORD>{VTFLTCTL_GET_BITMAP}), RequestCodes());
    EXPECT_FALSE(FileExists(volume, ChildName(L"app1")));
    EXPECT_TRUE(VerifyList(L"app1").empty());
}

TEST_F(GetBitmapBuffer, OfZeroTo15BytesIsRefusedByTheDriverAndLosesNothing)
{
    const auto session = Open(L"app1");
    for (DWORD length = 0; length < 16; ++length) {
        EXPECT_EQ(234u, GetWithCanary(*session, length)) << length;
        log.ExpectNothingLogged();
    }
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ((BlockSet{1, 50, 99}), Blocks(*session));
}

TEST_F(GetBitmapBuffer, OfZeroTo15BytesIsNotOverrunWhenTheDriverTakesIt)
{
    const auto session = Open(L"app1");
    const Bytes reply(16);
    for (DWORD length = 0; length < 16; ++length) {
        ASSERT_EQ(0u, VTFltSimForgeReply(machine.handle(), VTFLTCTL_GET_BITMAP, nullptr, 1, 1, reply.data(), length));
        EXPECT_EQ(0u, GetWithCanary(*session, length)) << length;
        EXPECT_EQ(length, m_size);
        EXPECT_EQ(length, Base(volume, L"app1").BitmapLength());
    }
}

TEST_F(GetBitmapBuffer, LongerThanTheFreshBaseIsFilledAsFarAsTheBaseReaches)
{
    const auto session = Open(L"app1");
    RemoveFile(volume, BaseName(L"app1"));
    EXPECT_EQ(VERIFY, GetWithCanary(*session, 48));
    EXPECT_EQ(FRESH_LENGTH, m_size);
}

TEST_F(GetBitmapBuffer, ThatIsNullIsAnInvalidParameterBeforeTheManagerIsAsked)
{
    const auto session = Open(L"app1");
    VTFltSimRecord(1);
    BYTE byte = 0;
    DWORD size = 77;
    EXPECT_EQ(87u, VTFltGetBitmap(session->Handle(), &byte, 0, nullptr, 32, &size, 0));
    EXPECT_EQ(87u, VTFltGetBitmap(session->Handle(), nullptr, 0, &byte, 1, &size, 0));
    EXPECT_EQ(77u, size);
    EXPECT_TRUE(LibraryCalls().empty());
    log.ExpectNothingLogged();
}

TEST_F(GetBitmapBuffer, OfTheDirectCallReachesTheDriverAloneAndNoApplicationsBitmap)
{
    const auto session = Open(L"app1");
    Bytes buffer(BUFFER_LENGTH);
    BYTE input = 0;
    DWORD size = 0;
    VTFltSimRecord(1);
    EXPECT_EQ(0u, VTFltGetBitmap(session->Handle(), &input, 0, buffer.data(), BUFFER_LENGTH, &size, 1));
    EXPECT_EQ((std::vector<DWORD>{VTFLTCTL_GET_BITMAP}), RequestCodes());
    EXPECT_EQ((std::vector<std::uint64_t>{1, 50, 99}), BlocksInBuffer(buffer));
    EXPECT_EQ(3u, OwedByDriver());
    EXPECT_TRUE(Blocks(Child(volume, L"app1")).empty());
}

class ForwardedRequest : public CycleTest {
protected:
    void SetUp() override { Register(L"app1"); }
};

TEST_F(ForwardedRequest, BlockSizeIsTheDriversAndIsNotLogged)
{
    const auto session = Open(L"app1");
    DWORD size = 0;
    VTFltSimRecord(1);
    EXPECT_EQ(0u, VTFltGetBlockSize(session->Handle(), &size, 0));
    EXPECT_EQ(BLOCK, size);
    EXPECT_EQ((std::vector<DWORD>{VTFLTCTL_GET_BLOCK_SIZE}), RequestCodes());
    log.ExpectNothingLogged();
}

TEST_F(ForwardedRequest, BlockSizeThatFailsIsLogged)
{
    const auto session = Open(L"app1");
    machine.FailRequest(VTFLTCTL_GET_BLOCK_SIZE, ERROR_NOT_READY);
    DWORD size = 0;
    EXPECT_EQ(21u, VTFltGetBlockSize(session->Handle(), &size, 0));
    log.ExpectExactly({Failed(21, L"CMultiBitmapManager::VTDeviceIoControl::VTFLTCTL_GET_BLOCK_SIZE failed, "
                                  L"mserr=21.")});
}

TEST_F(ForwardedRequest, PrepareForSnapshotReachesTheDriverAndIsLogged)
{
    const auto session = Open(L"app1");
    VTFltSimRecord(1);
    EXPECT_EQ(0u, session->Prepare());
    EXPECT_EQ((std::vector<DWORD>{VTFLTCTL_PREPARE_FOR_SNAPSHOT}), RequestCodes());
    EXPECT_EQ(1u, machine.Info(volume).prepared);
    log.ExpectExactly({Done(L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS :: VTFLTCTL_PREPARE_FOR_SNAPSHOT")});
}

TEST_F(ForwardedRequest, PrepareForSnapshotThatFailsIsLogged)
{
    const auto session = Open(L"app1");
    machine.FailRequest(VTFLTCTL_PREPARE_FOR_SNAPSHOT, ERROR_NOT_SUPPORTED);
    EXPECT_EQ(50u, session->Prepare());
    log.ExpectExactly({Failed(50, L"CMultiBitmapManager::VTDeviceIoControl::VTFLTCTL_PREPARE_FOR_SNAPSHOT failed, "
                                  L"mserr=50.")});
}

TEST_F(ForwardedRequest, ThatFailsWithoutAnErrorCountsAsSuccess)
{
    const auto session = Open(L"app1");
    machine.FailRequest(VTFLTCTL_PREPARE_FOR_SNAPSHOT, ERROR_SUCCESS);
    // Somebody else has the mutex, so that making it leaves ERROR_ALREADY_EXISTS: no error of this request.
    const vtflt::UniqueHandle others(CreateMutexW(nullptr, FALSE, volume.MutexName().c_str()));
    ASSERT_TRUE(others.valid());
    EXPECT_EQ(0u, session->Prepare());
    EXPECT_EQ(0u, machine.Info(volume).prepared);
    log.ExpectExactly({Done(L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS :: VTFLTCTL_PREPARE_FOR_SNAPSHOT")});
}

TEST_F(ForwardedRequest, OnAHandleOfZeroOrAllOnesIsAnInvalidParameterBeforeAnyMutex)
{
    VTFltSimRecord(1);
    DWORD size = 0;
    BYTE byte = 0;
    for (const HANDLE handle : {static_cast<HANDLE>(nullptr), INVALID_HANDLE_VALUE}) {
        EXPECT_EQ(87u, VTFltGetBlockSize(handle, &size, 0));
        EXPECT_EQ(87u, VTFltPrepareForSnapshot(handle));
        EXPECT_EQ(87u, VTFltGetBitmap(handle, &byte, 0, &byte, 1, &size, 0));
        EXPECT_EQ(87u, VTFltSynSnapshotChangeBitmapToVolume(handle, &byte, 1));
        EXPECT_EQ(87u, VTFltReplicationSuccess(handle));
    }
    EXPECT_TRUE(LibraryCalls().empty());
    log.ExpectNothingLogged();
}

} // namespace

} // namespace vttest
