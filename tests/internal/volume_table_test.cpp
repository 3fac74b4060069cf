// The exports on volume handles over a manager that the test wrote: what it is asked, and what its answers become.
#include "api/library.h"
#include "support/driver_expect.h"

#include <cstring>
#include <functional>
#include <new>
#include <stdexcept>

namespace vttest {
namespace {

struct Asked {
    HANDLE volume;
    DWORD code;
    void* input;
    DWORD inputLength;
    void* output;
    DWORD outputLength;
    DWORD* returned;
    DWORD returnedBefore;
    OVERLAPPED* overlapped;
};

// Lives in the table; what it sees goes to the test, which outlives it.
struct Script {
    std::vector<Asked> asked;
    std::function<DWORD(const Asked&)> answer = [](const Asked&) { return 0; };
    DWORD deinitResult = 0;
    int deinitCalls = 0;
    int destroyed = 0;
};

class ScriptedManager final : public vtflt::IMultiBitmapManager {
public:
    explicit ScriptedManager(Script& script) : m_script(script) {}
    ~ScriptedManager() override { ++m_script.destroyed; }

    DWORD VTDeviceIoControl(HANDLE volume, DWORD code, void* input, DWORD inputLength, void* output, DWORD outputLength,
                            DWORD* returned, OVERLAPPED* overlapped) override
    {
        m_script.asked.push_back({volume, code, input, inputLength, output, outputLength, returned,
                                  returned != nullptr ? *returned : 0, overlapped});
        return m_script.answer(m_script.asked.back());
    }
    DWORD InitBitMapManager(const std::wstring&, const std::wstring&) override { return 0; }
    DWORD DeinitBitMapManager() override
    {
        ++m_script.deinitCalls;
        return m_script.deinitResult;
    }
    DWORD IsVerifyRequired() override { return 0; }
    DWORD resetVerifyVolume() override { return 0; }
    DWORD RemoveBitmaps(std::wstring) override { return 0; }
    DWORD UpdateAllChildBitmap(DWORD, const BYTE*) override { return 0; }
    DWORD UpdateBaseBitmapWithChild() override { return 0; }
    DWORD ResetChildBitmap() override { return 0; }
    DWORD ResetBaseBitmap() override { return 0; }
    DWORD GetBaseBitmap(DWORD*, BYTE*) override { return 0; }
    DWORD SyncSnapshotChangesToChildBitmap(DWORD, const BYTE*) override { return 0; }

private:
    Script& m_script;
};

class VolumeTable : public MachineTest {
protected:
    VolumeTable() { vtflt::Volumes().Insert(handle, std::make_unique<ScriptedManager>(script)); }
    ~VolumeTable() override { vtflt::Volumes().Erase(handle); }

    void ExpectAsked(DWORD code, void* input, DWORD inputLength, void* output, DWORD outputLength)
    {
        ASSERT_EQ(script.asked.size(), 1u);
        const Asked& asked = script.asked[0];
        EXPECT_EQ(asked.volume, handle);
        EXPECT_EQ(asked.code, code);
        EXPECT_EQ(asked.input, input);
        EXPECT_EQ(asked.inputLength, inputLength);
        EXPECT_EQ(asked.output, output);
        EXPECT_EQ(asked.outputLength, outputLength);
        EXPECT_NE(asked.returned, nullptr);
        EXPECT_EQ(asked.overlapped, nullptr);
    }

    const HANDLE handle = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(0xABCDEF0112345678));
    Script script;
    DWORD word = 0x5A5A5A5A;
    BYTE passed[4] = {1, 2, 3, 4};
};

TEST_F(VolumeTable, DeinitWhoseManagerRefusesLeavesTheEntryAndASecondCallReachesTheManagerAgain)
{
    script.deinitResult = 1359;
    EXPECT_EQ(VTFltDeinitBitmapManager(handle), 1359u);
    log.ExpectExactly({{0, 1359, L"VTFltDeinitBitmapManager: Failed to deinitialize bitmap manager \n"}});
    EXPECT_EQ(script.destroyed, 0);
    EXPECT_NE(vtflt::Volumes().Find(handle), nullptr);

    script.deinitResult = 0;
    log.Clear();
    EXPECT_EQ(VTFltDeinitBitmapManager(handle), 0u);
    EXPECT_EQ(script.deinitCalls, 2);
    EXPECT_EQ(script.destroyed, 1);
    EXPECT_EQ(vtflt::Volumes().Find(handle), nullptr);
    log.ExpectExactly(
        {{2, 0, L"VTFltDeinitBitmapManager: SUCCESS:: Bitmap manager un-initialized. Volume handle 0X12345678.\n"}});
    EXPECT_EQ(VTFltDeinitBitmapManager(handle), 87u);
}

TEST_F(VolumeTable, ASecondManagerOfAHandleIsDeinitialisedAndReleasedAndTheFirstStays)
{
    vtflt::IMultiBitmapManager* const first = vtflt::Volumes().Find(handle);
    Script second;
    EXPECT_FALSE(vtflt::Volumes().Insert(handle, std::make_unique<ScriptedManager>(second)));
    EXPECT_EQ(second.deinitCalls, 1);
    EXPECT_EQ(second.destroyed, 1);
    EXPECT_EQ(vtflt::Volumes().Find(handle), first);
    EXPECT_EQ(script.deinitCalls, 0);
}

TEST_F(VolumeTable, KeysAreComparedAsWhole64BitNumbers)
{
    const auto sameLowHalf = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(0x12345678));
    EXPECT_EQ(vtflt::Volumes().Find(sameLowHalf), nullptr);
    EXPECT_EQ(VTFltPrepareForSnapshot(sameLowHalf), 87u);
    EXPECT_TRUE(script.asked.empty());
}

TEST_F(VolumeTable, GetBlockSizeForwardsTheCallersOwnWordAsItIs)
{
    script.answer = [](const Asked& asked) {
        EXPECT_EQ(*static_cast<DWORD*>(asked.output), 0x5A5A5A5Au);
        return DWORD{ERROR_CRC};
    };
    EXPECT_EQ(VTFltGetBlockSize(handle, &word, 0), 23u);
    ExpectAsked(GET_BLOCK_SIZE, nullptr, 0, &word, 4);
}

TEST_F(VolumeTable, PrepareForSnapshotAndReplicationSuccessForwardWithoutBuffers)
{
    EXPECT_EQ(VTFltPrepareForSnapshot(handle), 0u);
    ExpectAsked(PREPARE_FOR_SNAPSHOT, nullptr, 0, nullptr, 0);
    script.asked.clear();
    EXPECT_EQ(VTFltReplicationSuccess(handle), 0u);
    ExpectAsked(REPLICATION_SUCCESS, nullptr, 0, nullptr, 0);
}

TEST_F(VolumeTable, ResultsArePassedThroughUnchanged)
{
    for (const DWORD result : {0u, 1u, 87u, 0x10001u, 0x10009u, 0xC0000001u, 0xFFFFFFFFu}) {
        script.answer = [result](const Asked&) { return result; };
        Bytes output(16);
        EXPECT_EQ(VTFltPrepareForSnapshot(handle), result);
        EXPECT_EQ(VTFltReplicationSuccess(handle), result);
        EXPECT_EQ(VTFltGetBlockSize(handle, &word, 0), result);
        EXPECT_EQ(VTFltGetBitmap(handle, passed, 4, output.data(), 16, nullptr, 0), result);
        testing::internal::CaptureStdout();
        EXPECT_EQ(VTFltSynSnapshotChangeBitmapToVolume(handle, passed, 4), result);
        testing::internal::GetCapturedStdout();
    }
}

TEST_F(VolumeTable, SyncForwardsTheInputWithAByteCountOf0AndPrintsWhatItBecame)
{
    script.answer = [](const Asked& asked) {
        *asked.returned = 1234;
        return DWORD{0};
    };
    testing::internal::CaptureStdout();
    EXPECT_EQ(VTFltSynSnapshotChangeBitmapToVolume(handle, passed, 3), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "copy into 1234\n");
    ExpectAsked(0xB000000D, passed, 3, nullptr, 0);
    EXPECT_EQ(script.asked[0].returnedBefore, 0u);
}

TEST_F(VolumeTable, SyncPrintsTheByteCountAsASignedNumber)
{
    script.answer = [](const Asked& asked) {
        *asked.returned = 0xFFFFFFFF;
        return DWORD{ERROR_CRC};
    };
    testing::internal::CaptureStdout();
    EXPECT_EQ(VTFltSynSnapshotChangeBitmapToVolume(handle, passed, 3), 23u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "copy into -1\n");
}

TEST_F(VolumeTable, GetBitmapForwardsAllFourBufferArguments)
{
    Bytes output(24);
    script.answer = [](const Asked& asked) {
        *asked.returned = 24;
        return DWORD{0};
    };
    EXPECT_EQ(VTFltGetBitmap(handle, passed, 4, output.data(), 24, &word, 0), 0u);
    ExpectAsked(GET_BITMAP, passed, 4, output.data(), 24);
    EXPECT_EQ(word, 24u);
    EXPECT_EQ(output[8], 64);
}

TEST_F(VolumeTable, GetBitmapReportsTheLengthToSupplyFromTheHeaderThatTheRequestLeft)
{
    for (const DWORD status : {DWORD{ERROR_MORE_DATA}, DWORD{ERROR_INSUFFICIENT_BUFFER}}) {
        script.answer = [status](const Asked& asked) {
            const std::int64_t words[2] = {100, 109};
            std::memcpy(asked.output, words, 16);
            *asked.returned = 16;
            return status;
        };
        Bytes output(16);
        EXPECT_EQ(VTFltGetBitmap(handle, passed, 4, output.data(), 16, &word, 0), status);
        EXPECT_EQ(word, 32u);
        EXPECT_EQ(output, (Bytes{100, 0, 0, 0, 0, 0, 0, 0, 109, 0, 0, 0, 0, 0, 0, 0}));
    }
}

TEST_F(VolumeTable, GetBitmapComputesTheBitCountIn32Bits)
{
    script.answer = [](const Asked& asked) {
        *asked.returned = 0x20000020; // times 8 leaves 32 bits
        return DWORD{0};
    };
    Bytes output(16, 0xEE);
    EXPECT_EQ(VTFltGetBitmap(handle, passed, 4, output.data(), 16, &word, 0), 0u);
    EXPECT_EQ(word, 0x20000020u);
    EXPECT_EQ(Bytes(output.begin() + 8, output.end()), (Bytes{128, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(VolumeTable, MemoryThatRunsOutBelowAnExportIsAnsweredWith8)
{
    script.answer = [](const Asked&) -> DWORD { throw std::bad_alloc(); };
    Bytes output(16, 0xEE);
    EXPECT_EQ(VTFltPrepareForSnapshot(handle), 8u);
    EXPECT_EQ(VTFltReplicationSuccess(handle), 8u);
    EXPECT_EQ(VTFltGetBlockSize(handle, &word, 0), 8u);
    EXPECT_EQ(VTFltGetBitmap(handle, passed, 4, output.data(), 16, &word, 0), 8u);
    EXPECT_EQ(word, 0u);
    EXPECT_EQ(output, Bytes(16, 0xEE));
    testing::internal::CaptureStdout();
    EXPECT_EQ(VTFltSynSnapshotChangeBitmapToVolume(handle, passed, 4), 8u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "copy into 0\n");
}

TEST_F(VolumeTable, NoExceptionLeavesAnExport)
{
    script.answer = [](const Asked&) -> DWORD { throw std::runtime_error("unexpected"); };
    Bytes output(16);
    EXPECT_EQ(VTFltPrepareForSnapshot(handle), 0xFFFFFFFFu);
    EXPECT_EQ(VTFltReplicationSuccess(handle), 0xFFFFFFFFu);
    EXPECT_EQ(VTFltGetBlockSize(handle, &word, 0), 0xFFFFFFFFu);
    EXPECT_EQ(VTFltGetBitmap(handle, passed, 4, output.data(), 16, nullptr, 0), 0xFFFFFFFFu);
    testing::internal::CaptureStdout();
    EXPECT_EQ(VTFltSynSnapshotChangeBitmapToVolume(handle, passed, 4), 0xFFFFFFFFu);
    testing::internal::GetCapturedStdout();
}

} // namespace
} // namespace vttest
