// Initialising and releasing a volume handle's bitmap manager.
#include "support/driver_expect.h"

namespace vttest {
namespace {

class HandleTable : public MachineTest {
protected:
    HandleTable()
    {
        volume = machine.AddVolume(8 * 65536);
        RegisterApplication(L"Alpha");
        log.Clear();
    }

    static void RegisterApplication(const wchar_t* appId) { ASSERT_EQ(VTRegisterApplication(appId), 0u); }
    DWORD Init(HANDLE handle, const wchar_t* appId = L"Alpha")
    {
        return VTFltInitBitmapManager(handle, volume.Root().c_str(), appId);
    }
    void ExpectUnknown(HANDLE handle)
    {
        log.Clear();
        EXPECT_EQ(VTFltDeinitBitmapManager(handle), 87u);
        log.ExpectExactly({{0, 87,
                            L"VTFltDeinitBitmapManager: Handle " + ShownHandle(handle) +
                                L" not found. Please provide valid volume handle.\n"}});
    }

    Volume volume;
};

TEST_F(HandleTable, InitAnswersZeroAndLogsTheHandle)
{
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    EXPECT_EQ(Init(handle.get()), 0u);
    log.ExpectLogged(2, 0,
                     L"VTFltInitBitmapManager: SUCCESS:: Bitmap manager initialized. Volume handle " +
                         ShownHandle(handle.get()) + L".\n");
    EXPECT_EQ(VTFltDeinitBitmapManager(handle.get()), 0u);
}

TEST_F(HandleTable, InitOfAnInvalidHandleAnswers87AndLogsNothing)
{
    StartRecording();
    EXPECT_EQ(Init(nullptr), 87u);
    EXPECT_EQ(Init(INVALID_HANDLE_VALUE), 87u);
    log.ExpectNothingLogged();
    EXPECT_TRUE(LibraryCalls().empty());
}

TEST_F(HandleTable, InitWithAnEmptyVolumeNameOrApplicationIdAnswers87AndCreatesNothing)
{
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    StartRecording();
    EXPECT_EQ(VTFltInitBitmapManager(handle.get(), L"", L"Alpha"), 87u);
    EXPECT_EQ(VTFltInitBitmapManager(handle.get(), volume.Root().c_str(), L""), 87u);
    log.ExpectNothingLogged();
    EXPECT_TRUE(LibraryCalls().empty());
    ExpectUnknown(handle.get());
}

TEST_F(HandleTable, InitTakesANullNameForAnEmptyOne)
{
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    EXPECT_EQ(VTFltInitBitmapManager(handle.get(), nullptr, L"Alpha"), 87u);
    EXPECT_EQ(VTFltInitBitmapManager(handle.get(), volume.Root().c_str(), nullptr), 87u);
    log.ExpectNothingLogged();
    ExpectUnknown(handle.get());
}

TEST_F(HandleTable, InitReturnsTheCodeOfAManagerThatRefusesAndFilesNothing)
{
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    EXPECT_EQ(Init(handle.get(), L"Nobody"), 0x10009u);
    log.ExpectLogged(0, 0x10009, L"VTFltInitBitmapManager: Failed to initialize bitmap manager\n");
    ExpectUnknown(handle.get());
}

TEST_F(HandleTable, InitWithoutAnyApplicationAnswersTheManagersCode)
{
    ASSERT_EQ(VTUnregisterApplication(L"Alpha"), 0u);
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    EXPECT_EQ(Init(handle.get()), 0x10007u);
    log.ExpectLogged(0, 0x10007, L"VTFltInitBitmapManager: Failed to initialize bitmap manager\n");
    ExpectUnknown(handle.get());
}

TEST_F(HandleTable, InitWithAnUnreadableApplicationListAnswersTheManagersCode)
{
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    vtfltsim::FailCall(L"RegQueryValueExW", ERROR_ACCESS_DENIED, L"RegisteredAppIDs");
    EXPECT_EQ(Init(handle.get()), 0x10008u);
    log.ExpectLogged(0, 0x10008, L"VTFltInitBitmapManager: Failed to initialize bitmap manager\n");
    ExpectUnknown(handle.get());
}

TEST_F(HandleTable, InitTwiceAnswersZeroBothTimesAndKeepsTheFirstManager)
{
    RegisterApplication(L"Beta");
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    EXPECT_EQ(Init(handle.get(), L"Alpha"), 0u);
    log.Clear();
    EXPECT_EQ(Init(handle.get(), L"Beta"), 0u);
    log.ExpectLogged(2, 0,
                     L"VTFltInitBitmapManager: SUCCESS:: Bitmap manager initialized. Volume handle " +
                         ShownHandle(handle.get()) + L".\n");

    machine.TouchBlock(volume, 3);
    Bytes buffer(BufferLength(machine.Info(volume)));
    BYTE input = 0;
    ASSERT_EQ(VTFltGetBitmap(handle.get(), &input, 0, buffer.data(), static_cast<DWORD>(buffer.size()), nullptr, 0),
              0u);
    // Alpha's manager serves the handle: Alpha's base has the block, Beta's change waits in its child.
    EXPECT_EQ(Base(volume, L"Alpha").Blocks(), std::vector<std::uint64_t>{3});
    EXPECT_TRUE(Child(volume, L"Alpha").Blocks().empty());
    EXPECT_TRUE(Base(volume, L"Beta").Blocks().empty());
    EXPECT_EQ(Child(volume, L"Beta").Blocks(), std::vector<std::uint64_t>{3});

    EXPECT_EQ(VTFltDeinitBitmapManager(handle.get()), 0u);
    ExpectUnknown(handle.get());
}

TEST_F(HandleTable, TwoHandlesOfOneVolumeHaveAManagerEach)
{
    const vtflt::UniqueHandle first = OpenVolume(volume);
    const vtflt::UniqueHandle second = OpenVolume(volume);
    EXPECT_EQ(Init(first.get()), 0u);
    EXPECT_EQ(Init(second.get()), 0u);
    EXPECT_EQ(VTFltDeinitBitmapManager(first.get()), 0u);
    ExpectUnknown(first.get());
    EXPECT_EQ(VTFltPrepareForSnapshot(second.get()), 0u);
    EXPECT_EQ(VTFltDeinitBitmapManager(second.get()), 0u);
}

TEST_F(HandleTable, DeinitLogsTheHandleAndErasesTheEntry)
{
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    ASSERT_EQ(Init(handle.get()), 0u);
    log.Clear();
    EXPECT_EQ(VTFltDeinitBitmapManager(handle.get()), 0u);
    log.ExpectExactly({{2, 0,
                        L"VTFltDeinitBitmapManager: SUCCESS:: Bitmap manager un-initialized. Volume handle " +
                            ShownHandle(handle.get()) + L".\n"}});
    ExpectUnknown(handle.get());
}

TEST_F(HandleTable, DeinitLeavesTheCallersVolumeHandleOpen)
{
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    ASSERT_EQ(Init(handle.get()), 0u);
    StartRecording();
    ASSERT_EQ(VTFltDeinitBitmapManager(handle.get()), 0u);
    EXPECT_TRUE(CallsOf(L"CloseHandle").empty());
    DWORD blockSize = 0;
    EXPECT_EQ(VTFltGetBlockSize(handle.get(), &blockSize, 1), 0u);
    EXPECT_EQ(blockSize, 65536u);
}

TEST_F(HandleTable, AHandleCanBeInitialisedAgainAfterItsRelease)
{
    RegisterApplication(L"Beta");
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    ASSERT_EQ(Init(handle.get(), L"Alpha"), 0u);
    ASSERT_EQ(VTFltDeinitBitmapManager(handle.get()), 0u);
    ASSERT_EQ(Init(handle.get(), L"Beta"), 0u);
    Bytes buffer(BufferLength(machine.Info(volume)));
    BYTE input = 0;
    machine.TouchBlock(volume, 1);
    EXPECT_EQ(VTFltGetBitmap(handle.get(), &input, 0, buffer.data(), static_cast<DWORD>(buffer.size()), nullptr, 0),
              0u);
    EXPECT_EQ(Base(volume, L"Beta").Blocks(), std::vector<std::uint64_t>{1});
    EXPECT_EQ(VTFltDeinitBitmapManager(handle.get()), 0u);
}

TEST_F(HandleTable, MemoryThatCannotBeHadFailsInitAndFilesNothing)
{
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    bool managerMissing = false;
    const std::wstring root = volume.Root();
    const auto call = [&] { return VTFltInitBitmapManager(handle.get(), root.c_str(), L"Alpha"); };
    const auto check = [&](DWORD result) {
        EXPECT_TRUE(result == 0 || result == 8 || result == 0xFFFFFFFF || result == 0x10008) << result;
        if (result == 0xFFFFFFFF) {
            managerMissing = true;
            log.ExpectLogged(0, 0xFFFFFFFF, L"VTFltInitBitmapManager: Failed to create bitmap manager interface\n");
        }
        EXPECT_EQ(VTFltDeinitBitmapManager(handle.get()), result == 0 ? 0u : 87u);
    };
    const int runs = ForEveryFailingAllocation([&] { log.Clear(); }, call, check);
    EXPECT_GT(runs, 2);
    EXPECT_TRUE(managerMissing);
}

} // namespace
} // namespace vttest
