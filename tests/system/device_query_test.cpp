// Asking the driver whether it tracks a device.
#include "support/driver_expect.h"

#include <cstring>

namespace vttest {
namespace {

class DeviceQuery : public MachineTest {
protected:
    DeviceQuery() { volume = machine.AddVolume(8 * 65536); }

    static LogRecord Asked(DWORD status, const std::wstring& volumeName, const std::wstring& device, int isFiltered)
    {
        return {2, status,
                L"VTIsDeviceMonitored() Send VTFLTCTL_UPDATE_DEVICE_CONFIG. Volume:" + volumeName + L" Device:" +
                    device + L" IsFiltered:" + (isFiltered != 0 ? L"1" : L"0") + L".\n"};
    }
    // The whole query for a name.
    static Bytes Query(const std::wstring& name)
    {
        const auto nameBytes = static_cast<std::uint8_t>(name.size() * 2);
        Bytes bytes{24, 0, 0, 0, 8, 0, 0, 0, 24, 0, 0, 0, nameBytes, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        const Bytes text = TextBytes(name);
        bytes.insert(bytes.end(), text.begin(), text.end() - 2);
        return bytes;
    }
    void ForgeReply(const Bytes& reply)
    {
        BYTE nothing = 0;
        vtfltsim::Check("VTFltSimForgeReply",
                        VTFltSimForgeReply(machine.handle(), UPDATE_DEVICE_CONFIG, nullptr, 1, 1,
                                           reply.empty() ? &nothing : reply.data(), static_cast<DWORD>(reply.size())));
    }

    Volume volume;
};

TEST_F(DeviceQuery, ATrackedDeviceAnswers0)
{
    EXPECT_EQ(VTIsDeviceMonitored(volume.Path().c_str()), 0u);
    log.ExpectExactly({Asked(0, L"Volume" + volume.guid, L"\\Device\\HarddiskVolume1", 1)});
}

TEST_F(DeviceQuery, ADeviceThatIsNotFilteredAnswers1)
{
    VTFltStopMonitorVolume(volume.Path().c_str());
    ASSERT_EQ(machine.Info(volume).tracked, 0u);
    log.Clear();
    EXPECT_EQ(VTIsDeviceMonitored(volume.Path().c_str()), 1u);
    log.ExpectExactly({Asked(0, L"Volume" + volume.guid, L"\\Device\\HarddiskVolume1", 0)});
}

TEST_F(DeviceQuery, AnUnknownDeviceAnswers1)
{
    EXPECT_EQ(VTIsDeviceMonitored(L"\\Device\\Nowhere"), 1u);
    log.ExpectExactly({Asked(0, L"", L"", 0)});
}

TEST_F(DeviceQuery, ANameOf3UnitsGivesAQueryOf30BytesWhoseLengthFieldIs6)
{
    StartRecording();
    EXPECT_EQ(VTIsDeviceMonitored(L"abc"), 1u);
    const Bytes expected{24, 0, 0, 0, 8, 0, 0, 0, 24, 0,   0, 0,   6, 0,   0,
                         0,  0, 0, 0, 0, 0, 0, 0, 0,  'a', 0, 'b', 0, 'c', 0};
    ASSERT_EQ(expected.size(), 30u);
    ExpectRequests({{UPDATE_DEVICE_CONFIG, CONTROL, expected, 616}});
}

TEST_F(DeviceQuery, TheReplyStartsAsItsSizeAndZeros)
{
    ForgeReply({}); // the driver writes nothing: what remains is what the library sent
    StartRecording();
    EXPECT_EQ(VTIsDeviceMonitored(L"abc"), 1u);
    const auto requests = vtfltsim::Requests();
    ASSERT_EQ(requests.size(), 1u);
    Bytes expected(616);
    expected[0] = 0x68;
    expected[1] = 0x02;
    EXPECT_EQ(Bytes(requests[0].output, requests[0].output + 616), expected);
}

TEST_F(DeviceQuery, ANullNameAnswers0WithoutTheDriver)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    StartRecording();
    EXPECT_EQ(VTIsDeviceMonitored(nullptr), 0u);
    log.ExpectExactly({{2, 0, L"VTIsDeviceMonitored() Empty DevName \n"}});
    EXPECT_TRUE(LibraryCalls().empty());
}

TEST_F(DeviceQuery, AnEmptyNameAnswers1AndIsAskedWithAQueryOf24Bytes)
{
    StartRecording();
    EXPECT_EQ(VTIsDeviceMonitored(L""), 1u);
    ExpectRequests({{UPDATE_DEVICE_CONFIG, CONTROL, Query(L""), 616}});
    log.ExpectExactly({Asked(0, L"", L"", 0)});
}

TEST_F(DeviceQuery, AnEmptyNameAnswers1WhateverTheDriverSays)
{
    Bytes reply(616);
    reply[0] = 0x68;
    reply[1] = 0x02;
    reply[612] = 1;
    ForgeReply(reply);
    EXPECT_EQ(VTIsDeviceMonitored(L""), 1u);
    log.ExpectExactly({Asked(0, L"", L"", 1)});
}

TEST_F(DeviceQuery, AControlDeviceThatCannotBeOpenedAnswers1)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    StartRecording();
    EXPECT_EQ(VTIsDeviceMonitored(volume.Path().c_str()), 1u);
    log.ExpectExactly({{2, 0, L"Open \\\\.\\VTFltMgr failed, Error code:2\n"}});
    ExpectCalls({L"CreateFileW"});
}

TEST_F(DeviceQuery, ARequestThatFailsAnswers1AndItsStatusIsTheRecordsCode)
{
    machine.FailRequest(UPDATE_DEVICE_CONFIG, ERROR_GEN_FAILURE);
    EXPECT_EQ(VTIsDeviceMonitored(volume.Path().c_str()), 1u);
    log.ExpectExactly({Asked(31, L"", L"", 0)});
}

TEST_F(DeviceQuery, ARequestThatFailsAnswers1WhateverItsReplySays)
{
    FailCallAfterwards(L"DeviceIoControl", ERROR_CRC);
    EXPECT_EQ(VTIsDeviceMonitored(volume.Path().c_str()), 1u);
    log.ExpectExactly({Asked(23, L"Volume" + volume.guid, L"\\Device\\HarddiskVolume1", 1)});
}

TEST_F(DeviceQuery, ANameOfTheReplyIsReadUpToItsEnd)
{
    Bytes reply{0x68, 0x02, 0, 0};
    const Bytes text = TextBytes(L"vol");
    reply.insert(reply.end(), text.begin(), text.end());
    reply.push_back('x');
    reply.push_back(0);
    ForgeReply(reply);
    EXPECT_EQ(VTIsDeviceMonitored(L"abc"), 1u);
    log.ExpectExactly({Asked(0, L"vol", L"", 0)});
}

TEST_F(DeviceQuery, NamesOfTheReplyThatFillTheirFieldsWithoutAnEndAreReadToTheirLastUnit)
{
    Bytes reply{0x68, 0x02, 0, 0};
    for (int unit = 0; unit < 48 + 256; ++unit) {
        reply.push_back(unit < 48 ? 'v' : 'd');
        reply.push_back(0);
    }
    reply.insert(reply.end(), {1, 0, 0, 0}); // the flag right behind: no text may run into it
    ASSERT_EQ(616u, reply.size());
    ForgeReply(reply);
    EXPECT_EQ(VTIsDeviceMonitored(L"abc"), 0u);
    log.ExpectExactly({Asked(0, std::wstring(48, L'v'), std::wstring(256, L'd'), 1)});
}

TEST_F(DeviceQuery, TheControlDeviceIsClosedAgain)
{
    StartRecording();
    EXPECT_EQ(VTIsDeviceMonitored(volume.Path().c_str()), 0u);
    ExpectCalls({L"CreateFileW", L"DeviceIoControl", L"CloseHandle"});
}

TEST_F(DeviceQuery, ASnapshotIsMonitoredWhenItsClassListsTheDriver)
{
    const Snapshot plain = machine.TakeSnapshot(volume);
    machine.SetFilters({L"VTFlt"}, SNAPSHOT_CLASS);
    const Snapshot tracked = machine.TakeSnapshot(volume);
    EXPECT_EQ(VTIsDeviceMonitored(plain.path.c_str()), 1u);
    EXPECT_EQ(VTIsDeviceMonitored(tracked.path.c_str()), 0u);
}

TEST_F(DeviceQuery, AQueryForWhichThereIsNoMemoryAnswers1AndItsMessage)
{
    bool refused = false;
    const std::wstring path = volume.Path();
    const auto prepare = [&] {
        log.Clear();
        StartRecording();
    };
    const auto check = [&](DWORD result) {
        if (result == 0)
            return;
        refused = true;
        EXPECT_EQ(result, 1u);
        log.ExpectExactly({{2, 0, L"VTIsDeviceMonitored() OUT OF Memory.\n"}});
        EXPECT_TRUE(CallsOf(L"CreateFileW").empty());
    };
    ForEveryFailingAllocation(
        prepare, [&] { return VTIsDeviceMonitored(path.c_str()); }, check);
    EXPECT_TRUE(refused);
}

TEST_F(DeviceQuery, AControlDeviceThatFailsToOpenWithoutAnErrorIsStillAFailure)
{
    ForceCall(L"CreateFileW", reinterpret_cast<ULONG_PTR>(INVALID_HANDLE_VALUE), ERROR_SUCCESS, CONTROL);
    EXPECT_EQ(VTIsDeviceMonitored(volume.Path().c_str()), 1u);
    log.ExpectExactly({{2, 0, L"Open \\\\.\\VTFltMgr failed, Error code:31\n"}});
}

} // namespace
} // namespace vttest
