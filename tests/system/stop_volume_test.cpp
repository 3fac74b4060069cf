// Taking one volume out of change tracking.
#include "support/driver_expect.h"

namespace vttest {
namespace {

class StopVolume : public MachineTest {
protected:
    StopVolume()
    {
        volume = machine.AddVolume(8 * 65536);
        other = machine.AddVolume(8 * 65536);
        EXPECT_EQ(VTRegisterApplication(L"Alpha"), 0u);
        EXPECT_EQ(VTRegisterApplication(L"Beta"), 0u);
        log.Clear();
    }

    bool HasBitmaps(const Volume& which) const
    {
        return FileExists(which, BaseName(L"Alpha")) && FileExists(which, ChildName(L"Alpha")) &&
               FileExists(which, BaseName(L"Beta")) && FileExists(which, ChildName(L"Beta"));
    }
    bool HasNoBitmaps(const Volume& which) const
    {
        return !FileExists(which, BaseName(L"Alpha")) && !FileExists(which, ChildName(L"Alpha")) &&
               !FileExists(which, BaseName(L"Beta")) && !FileExists(which, ChildName(L"Beta"));
    }

    Volume volume;
    Volume other;
};

TEST_F(StopVolume, StopsTheVolumeInTheDriverAndDeletesEveryApplicationsFilesOnIt)
{
    ASSERT_TRUE(HasBitmaps(volume));
    StartRecording();
    EXPECT_EQ(VTFltStopMonitorVolume(volume.Path().c_str()), 0u);
    ExpectRequests({{STOP_VOLUME, volume.Path(), {}, 0}});
    EXPECT_EQ(machine.Info(volume).tracked, 0u);
    EXPECT_TRUE(HasNoBitmaps(volume));
    EXPECT_TRUE(HasBitmaps(other));
    EXPECT_EQ(machine.Info(other).tracked, 1u);
}

TEST_F(StopVolume, TheVolumeIsClosedBeforeItsFilesAreTouched)
{
    StartRecording();
    EXPECT_EQ(VTFltStopMonitorVolume(volume.Path().c_str()), 0u);
    const auto trace = LibraryCalls();
    ASSERT_GE(trace.size(), 4u);
    EXPECT_EQ(Narrow(trace[0]), Narrow(L"CreateFileW " + volume.Path()));
    EXPECT_EQ(Narrow(trace[1]), Narrow(L"DeviceIoControl " + volume.Path() + L"|0xB000001D|in 0|out 0"));
    EXPECT_EQ(Narrow(trace[2]), Narrow(L"CloseHandle " + volume.Path()));
    EXPECT_EQ(Narrow(trace[3]), Narrow(L"CreateMutexW " + volume.MutexName()));
}

TEST_F(StopVolume, RemoveBitmapsGetsThePathExactlyAsGiven)
{
    EXPECT_EQ(VTFltStopMonitorVolume(volume.Path().c_str()), 0u);
    log.ExpectLogged(2, 0, L"CMultiBitmapManager::RemoveBitmaps: Removing bitmaps for volume " + volume.Path());
}

TEST_F(StopVolume, ANullPathAnswers87AndItsMessage)
{
    StartRecording();
    EXPECT_EQ(VTFltStopMonitorVolume(nullptr), 87u);
    log.ExpectExactly({{0, 87, L"VTFltStopMonitorVolume: lpVolumeGuid is NULL !!"}});
    EXPECT_TRUE(LibraryCalls().empty());
}

TEST_F(StopVolume, APathThatDoesNotOpenReturnsTheOpensErrorAndRemovesNothing)
{
    const std::wstring missing = L"\\\\?\\Volume{00000000-1111-2222-3333-444444444444}";
    StartRecording();
    EXPECT_EQ(VTFltStopMonitorVolume(missing.c_str()), 2u);
    log.ExpectExactly({{0, 2, L"VTFltStopMonitorVolume: Open volume " + missing + L" failed, Error code:2\n"}});
    ExpectCalls({L"CreateFileW"});
    EXPECT_TRUE(HasBitmaps(volume));
}

TEST_F(StopVolume, APathWithATrailingBackslashIsAFolderAndDoesNotOpen)
{
    EXPECT_EQ(VTFltStopMonitorVolume(volume.Root().c_str()), 3u);
    log.ExpectExactly({{0, 3, L"VTFltStopMonitorVolume: Open volume " + volume.Root() + L" failed, Error code:3\n"}});
    EXPECT_TRUE(HasBitmaps(volume));
    EXPECT_EQ(machine.Info(volume).tracked, 1u);
}

TEST_F(StopVolume, AnEmptyPathDoesNotOpen)
{
    EXPECT_NE(VTFltStopMonitorVolume(L""), 0u);
    EXPECT_TRUE(HasBitmaps(volume));
}

TEST_F(StopVolume, AStopRequestThatFailsReturnsItsErrorAndRemovesNothing)
{
    machine.FailRequest(STOP_VOLUME, ERROR_GEN_FAILURE);
    StartRecording();
    EXPECT_EQ(VTFltStopMonitorVolume(volume.Path().c_str()), 31u);
    log.ExpectExactly({{0, 31, L"VTFltStopMonitorVolume: Stop Volume " + volume.Path() + L" failed, Error code:31\n"}});
    ExpectCalls({L"CreateFileW", L"DeviceIoControl", L"CloseHandle"});
    EXPECT_TRUE(HasBitmaps(volume));
}

TEST_F(StopVolume, AStopRequestThatFailsWithoutAnErrorGoesOn)
{
    ForceCall(L"DeviceIoControl", FALSE, 0);
    EXPECT_EQ(VTFltStopMonitorVolume(volume.Path().c_str()), 0u);
    EXPECT_TRUE(HasNoBitmaps(volume));
}

TEST_F(StopVolume, AnAbsentDriverRefusesTheRequest)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    EXPECT_EQ(VTFltStopMonitorVolume(volume.Path().c_str()), 1u);
    EXPECT_TRUE(HasBitmaps(volume));
}

TEST_F(StopVolume, ARemovalThatFailsIsTheResultAfterTheVolumeWasStopped)
{
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, volume.MutexName().c_str());
    EXPECT_EQ(VTFltStopMonitorVolume(volume.Path().c_str()), 0x10005u);
    EXPECT_EQ(machine.Info(volume).tracked, 0u);
    EXPECT_TRUE(HasBitmaps(volume));
}

TEST_F(StopVolume, AVolumeWithoutAFolderOfBitmapsIsStoppedAndTheRemovalsErrorIsTheResult)
{
    const Volume plain = machine.AddVolume(65536);
    EXPECT_EQ(VTFltStopMonitorVolume(plain.Path().c_str()), 3u);
    EXPECT_EQ(machine.Info(plain).tracked, 0u);
}

TEST_F(StopVolume, AManagerThatCannotBeMadeAnswers0xFFFFFFFFAndItsMessage)
{
    bool managerMissing = false;
    const std::wstring path = volume.Path();
    const auto prepare = [&] {
        log.Clear();
        if (!FileExists(volume, L"VelVolTrc"))
            MakeFolder(volume, L"VelVolTrc");
    };
    const auto check = [&](DWORD result) {
        EXPECT_TRUE(result == 0 || result == 8 || result == 0xFFFFFFFF) << result;
        if (result == 0xFFFFFFFF) {
            managerMissing = true;
            log.ExpectLogged(0, 0xFFFFFFFF, L"VTFltStopMonitorVolume: Failed to create bitmap manager interface\n");
        }
        ExpectNothingLeftOpen();
    };
    ForEveryFailingAllocation(
        prepare, [&] { return VTFltStopMonitorVolume(path.c_str()); }, check);
    EXPECT_TRUE(managerMissing);
}

} // namespace
} // namespace vttest
