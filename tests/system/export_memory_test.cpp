// Every export with every one of its allocations failing: it returns, leaves nothing open, and does not lie.
#include "support/driver_expect.h"

#include <algorithm>
#include <utility>

namespace vttest {
namespace {

class ExportMemory : public MachineTest {
protected:
    ExportMemory()
    {
        volume = machine.AddVolume(8 * 65536);
        // A failed look at the filter list must not start a reinstallation.
        machine.SetService(VTFLTSIM_SERVICE_ABSENT);
        EXPECT_EQ(VTRegisterApplication(L"An application with a long name"), 0u);
        root = volume.Root();
        handle = OpenVolume(volume);
    }
    void TearDown() override
    {
        handle.reset();
        MachineTest::TearDown();
    }

    // What the library itself left open: the test's volume handle apart.
    void ExpectOnlyTheVolumeOpen() const { EXPECT_EQ(vtfltsim::LeftOpen(), std::vector<std::wstring>{volume.Path()}); }
    template <class Prepare, class Call, class Check>
    void Sweep(Prepare&& prepare, Call&& call, Check&& check)
    {
        const int runs = ForEveryFailingAllocation(prepare, call, [&](DWORD result) {
            check(result);
            ExpectOnlyTheVolumeOpen();
        });
        EXPECT_GT(runs, 1) << "nothing was allocated";
    }
    static void Nothing() {}

    const wchar_t* const appId = L"An application with a long name";
    Volume volume;
    std::wstring root;
    vtflt::UniqueHandle handle;
};

TEST_F(ExportMemory, CountAndListGiveTheTruthOrAnError)
{
    DWORD count = 77;
    Sweep(
        Nothing, [&] { return VTGetRegisteredAppCount(&count); },
        [&](DWORD result) {
            EXPECT_TRUE(result == 0 || result == 8) << result;
            EXPECT_EQ(count, result == 0 ? 1u : 77u);
            count = 77;
        });
    // With two, memory may run out behind the first: what the list holds then is no answer.
    ASSERT_EQ(VTRegisterApplication(L"Second application of this machine"), 0u);
    std::vector<std::wstring> list;
    Sweep([&] { list = {}; }, [&] { return VTGetRegisteredAppList(&list); },
          [&](DWORD result) {
              EXPECT_TRUE(result == 0 || result == 8) << result;
              EXPECT_EQ(list.size() == 2, result == 0);
          });
}

TEST_F(ExportMemory, AnApplicationThatCannotBeLookedUpIsNotUsable)
{
    DWORD lastResult = 0;
    Sweep(
        Nothing, [&] { return VTCanAppUseBLIDriver(appId); },
        [&](DWORD result) {
            EXPECT_TRUE(result == 0 || result == 1) << result;
            lastResult = result;
        });
    EXPECT_EQ(lastResult, 1u);
}

TEST_F(ExportMemory, WhoeverCannotTellAnswersThatAVerifyIsRequired)
{
    SetVerifyList(appId, {volume.guid});
    Sweep(
        Nothing, [&] { return VTIsVerifyRequired(appId, root.c_str()); },
        [](DWORD result) { EXPECT_EQ(result, 1u) << "the volume is on the list"; });
}

TEST_F(ExportMemory, ReplicatingLosesNoVolume)
{
    Sweep(
        [&] {
            SetList(SERVICE_KEY, DRIVER_LIST, {volume.guid});
            if (ValueExists(SERVICE_KEY, std::wstring(DRIVER_LIST) + appId))
                DeleteValue(SERVICE_KEY, std::wstring(DRIVER_LIST) + appId);
            if (ValueExists(SERVICE_KEY, std::wstring(DRIVER_LIST) + appId + L".Last"))
                DeleteValue(SERVICE_KEY, std::wstring(DRIVER_LIST) + appId + L".Last");
        },
        [&] { return VTReplicateVerifyList(appId); },
        [&](DWORD) { EXPECT_GT(DriverList().size() + PendingList(appId).size() + VerifyList(appId).size(), 0u); });
}

TEST_F(ExportMemory, AddingAndRemovingVolumesReturn)
{
    // A look at the filters for which there is no memory counts as a driver that does not work: nothing to do.
    int looksThatFailed = 0;
    Sweep(
        [&] {
            if (ValueExists(SERVICE_KEY, std::wstring(DRIVER_LIST) + appId + L".Last"))
                DeleteValue(SERVICE_KEY, std::wstring(DRIVER_LIST) + appId + L".Last");
        },
        [&] { return VTAddVolumesToAppVerifyList(appId); },
        [&](DWORD result) {
            const std::vector<std::wstring> marked = VerifyList(appId);
            looksThatFailed += result == 0 && marked.empty() ? 1 : 0;
            EXPECT_TRUE(marked.empty() || (result == 0 && marked == std::vector<std::wstring>{volume.guid}));
        });
    EXPECT_EQ(looksThatFailed, 1);
    EXPECT_EQ(VerifyList(appId), std::vector<std::wstring>{volume.guid});

    const std::wstring other = L"{11111111-2222-3333-4444-555555555555}";
    std::vector<std::wstring> named{other};
    std::wstring argument;
    Sweep(
        [&] {
            SetVerifyList(appId, {volume.guid, other});
            argument = appId;
        },
        [&] { return VTRemoveApplicationVolResyncList(std::move(argument), &named); },
        [&](DWORD result) {
            EXPECT_EQ(VerifyList(appId), result == 0 ? std::vector<std::wstring>{volume.guid}
                                                     : (std::vector<std::wstring>{volume.guid, other}));
        });
    EXPECT_EQ(VerifyList(appId), std::vector<std::wstring>{volume.guid});
}

TEST_F(ExportMemory, RegisteringReturnsAndUnregisteringToo)
{
    Sweep([&] { VTUnregisterApplication(L"Second application of this machine"); },
          [&] { return VTRegisterApplication(L"Second application of this machine"); },
          [&](DWORD result) {
              EXPECT_EQ(VTCanAppUseBLIDriver(L"Second application of this machine"), result == 0 ? 1u : 0u);
          });
    Sweep([&] { VTRegisterApplication(L"Second application of this machine"); },
          [&] { return VTUnregisterApplication(L"Second application of this machine"); },
          [&](DWORD result) {
              EXPECT_EQ(VTCanAppUseBLIDriver(L"Second application of this machine"), result == 0 ? 0u : 1u);
          });
    EXPECT_EQ(RegisteredIds(), std::vector<std::wstring>{appId});
}

TEST_F(ExportMemory, TheWholeCycleLosesNoChange)
{
    // The changed block is in the bitmap of a fetch that succeeds, whichever fetches failed before it.
    Bytes buffer(BufferLength(machine.Info(volume)));
    BYTE input = 0;
    machine.TouchBlock(volume, 3);
    Sweep(
        [&] {
            ASSERT_EQ(VTFltInitBitmapManager(handle.get(), root.c_str(), appId), 0u);
            std::fill(buffer.begin(), buffer.end(), std::uint8_t{0});
        },
        [&] {
            return VTFltGetBitmap(handle.get(), &input, 0, buffer.data(), static_cast<DWORD>(buffer.size()), nullptr,
                                  0);
        },
        [&](DWORD result) {
            const bool complete = BlocksInBuffer(buffer) == std::vector<std::uint64_t>{3};
            EXPECT_TRUE(complete || result != 0 || VTIsVerifyRequired(appId, root.c_str()) != 0);
            EXPECT_EQ(VTFltDeinitBitmapManager(handle.get()), 0u);
        });
}

} // namespace
} // namespace vttest
