// Requests with the direct flag, which go straight to the caller's handle, and the arithmetic on their replies.
#include "support/driver_expect.h"

#include <cstring>

namespace vttest {
namespace {

class DirectRequests : public MachineTest {
protected:
    DirectRequests()
    {
        volume = machine.AddVolume(20 * 65536);
        handle = OpenVolume(volume);
    }
    ~DirectRequests() override { handle.reset(); }
    void TearDown() override
    {
        handle.reset();
        MachineTest::TearDown();
    }

    static Bytes Header(std::int64_t h0, std::int64_t h1, std::size_t length = 16)
    {
        Bytes bytes(length);
        std::memcpy(bytes.data(), &h0, 8);
        std::memcpy(bytes.data() + 8, &h1, 8);
        return bytes;
    }
    static std::int64_t WordAt(const Bytes& bytes, std::size_t offset)
    {
        std::int64_t word = 0;
        std::memcpy(&word, bytes.data() + offset, 8);
        return word;
    }
    DWORD Get(Bytes& output)
    {
        BYTE input = 0;
        return VTFltGetBitmap(handle.get(), &input, 0, output.data(), static_cast<DWORD>(output.size()), &size, 1);
    }
    // The length that is reported when the driver leaves these two words and fails with this error.
    DWORD LengthToSupply(std::int64_t h0, std::int64_t h1, DWORD error = ERROR_MORE_DATA)
    {
        machine.FailRequest(GET_BITMAP, error);
        Bytes output = Header(h0, h1);
        EXPECT_EQ(Get(output), error);
        EXPECT_EQ(output, Header(h0, h1)) << "the header is the driver's";
        return size;
    }
    void ForgeBitmap(const Bytes& reply)
    {
        vtfltsim::Check("VTFltSimForgeReply", VTFltSimForgeReply(machine.handle(), GET_BITMAP, nullptr, 1, 1,
                                                                 reply.data(), static_cast<DWORD>(reply.size())));
    }

    Volume volume;
    vtflt::UniqueHandle handle;
    DWORD size = 0x5A5A5A5A;
};

TEST_F(DirectRequests, GetBlockSizeWorksOnAHandleThatWasNeverInitialised)
{
    DWORD blockSize = 0;
    StartRecording();
    EXPECT_EQ(VTFltGetBlockSize(handle.get(), &blockSize, 1), 0u);
    EXPECT_EQ(blockSize, 65536u);
    ExpectRequests({{GET_BLOCK_SIZE, volume.Path(), {}, 4}});
    ExpectCalls({L"DeviceIoControl"});
    log.ExpectNothingLogged();
}

TEST_F(DirectRequests, GetBlockSizeWithTheFlagClearYields87AndTheNotFoundMessageForTheSameHandle)
{
    DWORD blockSize = 5;
    EXPECT_EQ(VTFltGetBlockSize(handle.get(), &blockSize, 0), 87u);
    EXPECT_EQ(blockSize, 5u);
    log.ExpectExactly({{0, 87,
                        L"VTFltGetBlockSize: Handle " + ShownHandle(handle.get()) +
                            L" not found. Please provide valid volume handle.\n"}});
}

TEST_F(DirectRequests, AnyNonZeroFlagIsDirect)
{
    DWORD blockSize = 0;
    EXPECT_EQ(VTFltGetBlockSize(handle.get(), &blockSize, 0x80000000), 0u);
    EXPECT_EQ(blockSize, 65536u);
}

TEST_F(DirectRequests, GetBlockSizeReturnsTheDriversErrorUnlogged)
{
    machine.FailRequest(GET_BLOCK_SIZE, ERROR_NOT_READY);
    DWORD blockSize = 0x12345678;
    EXPECT_EQ(VTFltGetBlockSize(handle.get(), &blockSize, 1), 21u);
    EXPECT_EQ(blockSize, 0x12345678u);
    log.ExpectNothingLogged();
}

TEST_F(DirectRequests, GetBlockSizeThatFailsWithoutAnErrorCountsAsSuccess)
{
    DWORD blockSize = 0x12345678;
    SetLastError(ERROR_GEN_FAILURE);
    ForceCall(L"DeviceIoControl", FALSE, 0);
    EXPECT_EQ(VTFltGetBlockSize(handle.get(), &blockSize, 1), 0u);
    EXPECT_EQ(VTFltSimGetCallFaultHits(), 1u);
    EXPECT_EQ(blockSize, 0x12345678u);
    log.ExpectNothingLogged();
}

TEST_F(DirectRequests, GetBitmapThatFailsWithoutAnErrorCountsAsASuccessOfNoBytes)
{
    Bytes output = Header(3, 4, 24);
    SetLastError(ERROR_GEN_FAILURE);
    ForceCall(L"DeviceIoControl", FALSE, 0);
    EXPECT_EQ(Get(output), 0u);
    EXPECT_EQ(VTFltSimGetCallFaultHits(), 1u);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(WordAt(output, 0), 3);
    EXPECT_EQ(WordAt(output, 8), 0xFFFFFF80) << "the bits of no bytes, without those of a header";
    log.ExpectNothingLogged();
}

TEST_F(DirectRequests, GetBitmapPassesAllFourBufferArgumentsToTheHandle)
{
    machine.TouchBlock(volume, 0);
    machine.TouchBlock(volume, 19);
    BYTE input[5] = {1, 2, 3, 4, 5};
    Bytes output(24);
    StartRecording();
    EXPECT_EQ(VTFltGetBitmap(handle.get(), input, 5, output.data(), 24, &size, 1), 0u);
    ExpectRequests({{GET_BITMAP, volume.Path(), {1, 2, 3, 4, 5}, 24}});
    ExpectCalls({L"DeviceIoControl"});
    EXPECT_EQ(size, 24u);
    EXPECT_EQ(BlocksInBuffer(output), (std::vector<std::uint64_t>{0, 19}));
    EXPECT_EQ(WordAt(output, 8), 64);
    log.ExpectNothingLogged();
}

TEST_F(DirectRequests, GetBitmapTouchesNoApplicationsBitmap)
{
    ASSERT_EQ(VTRegisterApplication(L"Alpha"), 0u);
    const Bytes base = Base(volume, L"Alpha").image;
    const Bytes child = Child(volume, L"Alpha").image;
    machine.TouchBlock(volume, 7);
    Bytes output(24);
    EXPECT_EQ(Get(output), 0u);
    EXPECT_EQ(Base(volume, L"Alpha").image, base);
    EXPECT_EQ(Child(volume, L"Alpha").image, child);
}

TEST_F(DirectRequests, GetBitmapOfASnapshotGivesWhatWasWrittenIntoIt)
{
    machine.SetFilters({L"VTFlt"}, SNAPSHOT_CLASS);
    const Snapshot snapshot = machine.TakeSnapshot(volume);
    const BYTE one = 1;
    ASSERT_EQ(VTFltSimWriteSnapshot(machine.handle(), snapshot.number, 4 * 65536, &one, 1), 0u);
    const vtflt::UniqueHandle device = OpenPath(snapshot.path);
    Bytes output(24);
    BYTE input = 0;
    EXPECT_EQ(VTFltGetBitmap(device.get(), &input, 0, output.data(), 24, &size, 1), 0u);
    EXPECT_EQ(BlocksInBuffer(output), std::vector<std::uint64_t>{4});
}

TEST_F(DirectRequests, ALackOfRoomReportsSixteenPlusEightTimesTheWordsBetweenH0AndH1)
{
    EXPECT_EQ(LengthToSupply(0, 0), 16u);
    EXPECT_EQ(LengthToSupply(0, 1), 24u);
    EXPECT_EQ(LengthToSupply(0, 8), 24u);
    EXPECT_EQ(LengthToSupply(0, 9), 32u);
    EXPECT_EQ(LengthToSupply(1000, 1009), 32u);
}

TEST_F(DirectRequests, AnInsufficientBufferIsTheSameSignalAsMoreData)
{
    EXPECT_EQ(LengthToSupply(0, 9, ERROR_INSUFFICIENT_BUFFER), 32u);
    log.ExpectNothingLogged();
}

TEST_F(DirectRequests, TheDivisionOfTheLengthTruncatesTowardZero)
{
    EXPECT_EQ(LengthToSupply(7, 0), 16u);
    EXPECT_EQ(LengthToSupply(14, 0), 16u);
    EXPECT_EQ(LengthToSupply(15, 0), 8u);
    EXPECT_EQ(LengthToSupply(31, 0), 0xFFFFFFF8u);
}

TEST_F(DirectRequests, TheLengthIsKeptTo32Bits)
{
    EXPECT_EQ(LengthToSupply(0, 0x100000000), 16u);
    EXPECT_EQ(LengthToSupply(0, 0x100000001), 24u);
    EXPECT_EQ(LengthToSupply(0, 0xFFFFFFF0), 0u);
    // Words that no 64-bit difference holds wrap, and nothing breaks.
    EXPECT_EQ(LengthToSupply(1, INT64_MIN), 24u);
}

TEST_F(DirectRequests, ASuccessfulReplyOfExactly16BytesSetsH1ToZero)
{
    ForgeBitmap(Header(77, 99));
    Bytes output(16);
    EXPECT_EQ(Get(output), 0u);
    EXPECT_EQ(size, 16u);
    EXPECT_EQ(output, Header(77, 0));
}

TEST_F(DirectRequests, H1BecomesTheBitCountAndH0StaysAsTheDriverWroteIt)
{
    Bytes reply = Header(77, -1, 40);
    reply[39] = 0xAB;
    ForgeBitmap(reply);
    Bytes output(64);
    EXPECT_EQ(Get(output), 0u);
    EXPECT_EQ(size, 40u);
    EXPECT_EQ(WordAt(output, 0), 77);
    EXPECT_EQ(WordAt(output, 8), 40 * 8 - 128);
    EXPECT_EQ(output[39], 0xAB);
}

TEST_F(DirectRequests, ABitCountBelowZeroIsStoredZeroExtended)
{
    ForgeBitmap(Bytes(8, 1));
    Bytes output(16, 0xEE);
    EXPECT_EQ(Get(output), 0u);
    EXPECT_EQ(size, 8u);
    EXPECT_EQ(WordAt(output, 8), 0xFFFFFFC0);
}

TEST_F(DirectRequests, AnyOtherFailureReportsTheBytesReturnedAndLeavesTheHeaderAlone)
{
    machine.FailRequest(GET_BITMAP, ERROR_GEN_FAILURE);
    Bytes output = Header(3, 4);
    EXPECT_EQ(Get(output), 31u);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(output, Header(3, 4));

    FailCallAfterwards(L"DeviceIoControl", ERROR_CRC);
    Bytes whole(24, 0xEE);
    EXPECT_EQ(Get(whole), 23u);
    EXPECT_EQ(size, 24u) << "the byte count as it stands";
    EXPECT_EQ(WordAt(whole, 8), 0);
}

TEST_F(DirectRequests, AFailureIsReportedWithoutAPlaceForTheSizeToo)
{
    Bytes output(16);
    BYTE input = 0;
    EXPECT_EQ(VTFltGetBitmap(handle.get(), &input, 0, output.data(), 16, nullptr, 1), 234u);
}

TEST_F(DirectRequests, NothingIsTouchedBeyondABufferOf0To15Bytes)
{
    for (DWORD length = 0; length < 16; ++length) {
        Bytes output(32, 0xEE);
        BYTE input = 0;
        EXPECT_EQ(VTFltGetBitmap(handle.get(), &input, 0, output.data(), length, &size, 1), 234u);
        for (std::size_t i = length; i < output.size(); ++i)
            EXPECT_EQ(output[i], 0xEE) << "length " << length << ", byte " << i;

        ForgeBitmap(Bytes(16, 0x11));
        EXPECT_EQ(VTFltGetBitmap(handle.get(), &input, 0, output.data(), length, &size, 1), 0u);
        EXPECT_EQ(size, length);
        for (std::size_t i = length; i < output.size(); ++i)
            EXPECT_EQ(output[i], 0xEE) << "length " << length << ", byte " << i;
    }
}

} // namespace
} // namespace vttest
