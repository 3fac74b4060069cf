// Deleting the bitmap files of every fixed volume.
#include "support/driver_expect.h"

namespace vttest {
namespace {

class StopVolumes : public MachineTest {
protected:
    StopVolumes()
    {
        first = machine.AddVolume(8 * 65536, 65536, L"E:\\");
        stick = machine.AddVolume(8 * 65536, 65536, L"R:\\", DRIVE_REMOVABLE);
        second = machine.AddVolume(8 * 65536);
        EXPECT_EQ(VTRegisterApplication(L"Alpha"), 0u);
        log.Clear();
    }

    bool HasBitmaps(const Volume& volume) const
    {
        return FileExists(volume, BaseName(L"Alpha")) && FileExists(volume, ChildName(L"Alpha"));
    }
    bool HasNoBitmaps(const Volume& volume) const
    {
        return !FileExists(volume, BaseName(L"Alpha")) && !FileExists(volume, ChildName(L"Alpha"));
    }
    static std::wstring Skipped(const Volume& volume, const std::wstring& mountPath)
    {
        return volume.Root() + L" (" + mountPath + L") is not fixed device, skip to stop monitor it\n";
    }
    void SetName(const Volume& volume, const std::wstring& name)
    {
        vtfltsim::Check("VTFltSimSetEnumerationName",
                        VTFltSimSetEnumerationName(machine.handle(), volume.guid.c_str(), name.c_str()));
    }
    void SetFault(DWORD step, DWORD error)
    {
        vtfltsim::Check("VTFltSimSetEnumerationFault", VTFltSimSetEnumerationFault(machine.handle(), step, error));
    }

    Volume first;
    Volume stick;
    Volume second;
};

TEST_F(StopVolumes, RemovesTheBitmapsOfEachFixedVolumeAndLogsTheSkipOfEachRemovableOne)
{
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0u);
    EXPECT_TRUE(HasNoBitmaps(first));
    EXPECT_TRUE(HasNoBitmaps(second));
    log.ExpectLogged(2, 0, Skipped(stick, L"R:\\"));
    // With the trailing backslash, as the walk gave the name.
    log.ExpectLogged(2, 0, L"CMultiBitmapManager::RemoveBitmaps: Removing bitmaps for volume " + first.Root());
    log.ExpectLogged(2, 0, L"CMultiBitmapManager::RemoveBitmaps: Removing bitmaps for volume " + second.Root());
    log.ExpectNotLogged(L"CMultiBitmapManager::RemoveBitmaps: Removing bitmaps for volume " + stick.Root());
}

TEST_F(StopVolumes, EveryDriveTypeButFixedIsSkipped)
{
    for (const DWORD type : {DWORD{DRIVE_UNKNOWN}, DWORD{DRIVE_NO_ROOT_DIR}, DWORD{DRIVE_REMOVABLE},
                             DWORD{DRIVE_REMOTE}, DWORD{DRIVE_CDROM}, DWORD{DRIVE_RAMDISK}}) {
        vtfltsim::Check("VTFltSimSetDriveType", VTFltSimSetDriveType(machine.handle(), second.guid.c_str(), type));
        log.Clear();
        if (machine.Info(second).driveType != type)
            ForceCall(L"GetDriveTypeW", type, 0, second.guid.c_str()); // 0 stands for the fixed type there
        VTFltStopMonitorVolumes();
        EXPECT_TRUE(HasBitmaps(second));
        log.ExpectLogged(2, 0, Skipped(second, L""));
    }
}

TEST_F(StopVolumes, NoRequestIsSentToTheDriver)
{
    StartRecording();
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0u);
    ExpectRequests({});
    EXPECT_EQ(machine.Info(first).tracked, 1u);
}

TEST_F(StopVolumes, NoDriverIsNeeded)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0u);
    EXPECT_TRUE(HasNoBitmaps(first));
}

TEST_F(StopVolumes, AVolumeWithoutAFolderOfBitmapsIsOneThatFailed)
{
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0u);
    log.Clear();
    EXPECT_EQ(VTFltStopMonitorVolumes(), 3u);
    log.ExpectLogged(0, 3, L"VTFltStopMonitorVolumes: Failed to remove bitmaps for volume " + first.Root() + L"\n");
    log.ExpectLogged(0, 3, L"VTFltStopMonitorVolumes: Failed to remove bitmaps for volume " + second.Root() + L"\n");
}

TEST_F(StopVolumes, TheFirstOfSeveralMountPathsIsShown)
{
    const std::wstring paths = vtfltsim::MultiString({L"R:\\", L"C:\\Mounted\\"});
    ASSERT_EQ(VTFltSimSetMountPaths(machine.handle(), stick.guid.c_str(), paths.c_str()), 0u);
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0u);
    log.ExpectLogged(2, 0, Skipped(stick, L"R:\\"));
}

TEST_F(StopVolumes, AVolumeWithoutAMountPathShowsNone)
{
    ASSERT_EQ(VTFltSimSetMountPaths(machine.handle(), stick.guid.c_str(), nullptr), 0u);
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0u);
    log.ExpectLogged(2, 0, Skipped(stick, L""));
}

TEST_F(StopVolumes, AListOfMountPathsBeyond261UnitsIsAskedForOnceMore)
{
    const std::wstring longPath = L"C:\\" + std::wstring(300, L'm') + L"\\";
    const std::wstring paths = vtfltsim::MultiString({longPath});
    ASSERT_EQ(VTFltSimSetMountPaths(machine.handle(), stick.guid.c_str(), paths.c_str()), 0u);
    StartRecording();
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0u);
    log.ExpectLogged(2, 0, Skipped(stick, longPath));
    EXPECT_EQ(CallsOf(L"GetVolumePathNamesForVolumeNameW").size(), 4u);
}

TEST_F(StopVolumes, AMountPathBeyondItsFieldIsCut)
{
    const std::wstring longPath = L"C:\\" + std::wstring(700, L'm') + L"\\";
    const std::wstring paths = vtfltsim::MultiString({longPath});
    ASSERT_EQ(VTFltSimSetMountPaths(machine.handle(), stick.guid.c_str(), paths.c_str()), 0u);
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0u);
    log.ExpectLogged(2, 0, Skipped(stick, longPath.substr(0, 519)));
}

TEST_F(StopVolumes, MountPathsThatCannotBeAskedForLeaveTheTextEmpty)
{
    vtfltsim::FailCall(L"GetVolumePathNamesForVolumeNameW", ERROR_ACCESS_DENIED, stick.guid.c_str());
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0u);
    log.ExpectLogged(2, 0, Skipped(stick, L""));
}

TEST_F(StopVolumes, ASystemThatAsksForNoMoreRoomThanItHasEndsTheAsking)
{
    VTFltSimFailCall(L"GetVolumePathNamesForVolumeNameW", stick.guid.c_str(), 1, 0, ERROR_MORE_DATA);
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0u);
    log.ExpectLogged(2, 0, Skipped(stick, L""));
}

TEST_F(StopVolumes, ASystemThatAsksForJustTheRoomThatItHasEndsTheAsking)
{
    // 261 units with both ends, as many as are given at first.
    const std::wstring path = L"C:\\" + std::wstring(255, L'm') + L"\\";
    const std::wstring paths = vtfltsim::MultiString({path});
    ASSERT_EQ(VTFltSimSetMountPaths(machine.handle(), stick.guid.c_str(), paths.c_str()), 0u);
    FailCallAfterwards(L"GetVolumePathNamesForVolumeNameW", ERROR_MORE_DATA, stick.guid.c_str());
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0u);
    log.ExpectLogged(2, 0, Skipped(stick, L""));
    log.Clear();
    EXPECT_EQ(VTFltStopMonitorVolumes(), DWORD{ERROR_PATH_NOT_FOUND}); // the bitmaps are gone already
    log.ExpectLogged(2, 0, Skipped(stick, path));                      // it fits
}

TEST_F(StopVolumes, ANameWithoutThePrefixIsSkippedWithCode161AndDoesNotChangeTheResult)
{
    const std::wstring bad = L"Volume" + first.guid + L"\\";
    SetName(first, bad);
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0u);
    log.ExpectLogged(0, 161, L"FindFirstVolumeW or FindNextVolumeW returned a bad path: " + bad + L"\n");
    EXPECT_TRUE(HasBitmaps(first));
    EXPECT_TRUE(HasNoBitmaps(second));
}

TEST_F(StopVolumes, ANameWithoutTheTrailingBackslashIsSkippedWithCode161AndDoesNotChangeTheResult)
{
    SetName(second, second.Path());
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0u);
    log.ExpectLogged(0, 161, L"FindFirstVolumeW or FindNextVolumeW returned a bad path: " + second.Path() + L"\n");
    EXPECT_TRUE(HasNoBitmaps(first));
    EXPECT_TRUE(HasBitmaps(second));
}

TEST_F(StopVolumes, AWalkThatDoesNotStartReturnsItsError)
{
    SetFault(1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(VTFltStopMonitorVolumes(), 5u);
    log.ExpectExactly({{0, 5, L"Get the first volume failed. Error code 5\n"}});
    EXPECT_TRUE(HasBitmaps(first));
}

TEST_F(StopVolumes, AMachineWithoutVolumesReturnsTheWalksError)
{
    SetFault(1, ERROR_NO_MORE_FILES);
    EXPECT_EQ(VTFltStopMonitorVolumes(), 18u);
    log.ExpectExactly({{0, 18, L"Get the first volume failed. Error code 18\n"}});
}

TEST_F(StopVolumes, AWalkThatBreaksOffIsLoggedAndItsErrorReturned)
{
    SetFault(3, ERROR_CRC);
    EXPECT_EQ(VTFltStopMonitorVolumes(), 23u);
    log.ExpectLogged(0, 23, L"VTFltStopMonitorVolumes: FindNextVolume failed with error code 23\n");
    EXPECT_TRUE(HasNoBitmaps(first));
    EXPECT_TRUE(HasBitmaps(second));
}

TEST_F(StopVolumes, AVolumeThatFailsIsLoggedAndTheWalkGoesOn)
{
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, first.MutexName().c_str());
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0x10005u);
    log.ExpectLogged(0, 0x10005,
                     L"VTFltStopMonitorVolumes: Failed to remove bitmaps for volume " + first.Root() + L"\n");
    EXPECT_TRUE(HasBitmaps(first));
    EXPECT_TRUE(HasNoBitmaps(second));
}

TEST_F(StopVolumes, TheCodesOfSeveralVolumesAreCombinedByOr)
{
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, first.MutexName().c_str());
    ASSERT_EQ(0u, VTFltSimFailCall(L"DeleteFileW", second.guid.c_str(), 1, 0, ERROR_SHARING_VIOLATION));
    // The files stay, so the folder does.
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0x10005u | ERROR_DIR_NOT_EMPTY);
    log.ExpectLogged(0, ERROR_DIR_NOT_EMPTY,
                     L"VTFltStopMonitorVolumes: Failed to remove bitmaps for volume " + second.Root() + L"\n");
}

TEST_F(StopVolumes, TheCodesOfVolumesAndOfTheWalkAreCombinedByOr)
{
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, first.MutexName().c_str());
    SetFault(4, 0xC000000A);
    EXPECT_EQ(VTFltStopMonitorVolumes(), 0xC000000Au | 0x10005u);
    log.ExpectLogged(0, 0xC000000A, L"VTFltStopMonitorVolumes: FindNextVolume failed with error code -1073741814\n");
}

TEST_F(StopVolumes, EveryVolumeHasAManagerOfItsOwnAndOneThatCannotBeMadeIsThatVolumesFailure)
{
    bool managerMissing = false;
    const auto prepare = [&] {
        log.Clear();
        for (const Volume& volume : {first, second}) {
            if (!FileExists(volume, L"VelVolTrc"))
                MakeFolder(volume, L"VelVolTrc");
        }
    };
    const auto check = [&](DWORD result) {
        EXPECT_TRUE(result == 0 || result == 8 || result == 0xFFFFFFFF) << result;
        if (result == 0xFFFFFFFF) {
            managerMissing = true;
            log.ExpectLogged(0, 0xFFFFFFFF, L"VTFltStopMonitorVolumes: Failed to create bitmap manager interface\n");
            EXPECT_NE(FileExists(first, L"VelVolTrc"), FileExists(second, L"VelVolTrc")) << "the other one was served";
        }
        ExpectNothingLeftOpen();
    };
    ForEveryFailingAllocation(prepare, VTFltStopMonitorVolumes, check);
    EXPECT_TRUE(managerMissing);
}

} // namespace
} // namespace vttest
