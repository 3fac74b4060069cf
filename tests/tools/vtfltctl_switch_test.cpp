// monitor, stop and device.
#include "tools/vtfltctl_test.h"

#include "common/backup_locks.h"
#include "support/child.h"

namespace vtfltctl_test {
namespace {

using nlohmann::json;
using vtlog_test::Result;
using vtlog_test::Utf8;

constexpr wchar_t CLASS_KEY[] = L"System\\CurrentControlSet\\Control\\Class\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}";
constexpr wchar_t COUNT[] = L"SnapshotMonitorCount";

class VtFltCtlSwitch : public VtFltCtlTest {
protected:
    [[nodiscard]] bool HasFiles(const wchar_t* application) const
    {
        return GetFileAttributesW(BitmapFile(L"base", application).c_str()) != INVALID_FILE_ATTRIBUTES;
    }
    // With a plan of the simulator.
    [[nodiscard]] Result RunWith(const std::wstring& calls, std::vector<std::wstring> arguments) const
    {
        arguments.insert(arguments.end(), {L"--simulate", machine.directory()});
        return vtlog_test::Process(arguments, {VTFLTSIM_CALLS_VARIABLE L"=" + calls}, L"vtfltctl.exe").Finish();
    }
};

TEST_F(VtFltCtlSwitch, RequestsAreCountedUpAndDown)
{
    EXPECT_TRUE(RunJson({L"monitor", L"count"}, EXIT_OK)["count"].is_null());
    EXPECT_EQ(1, RunJson({L"monitor", L"on"}, EXIT_OK)["count"]);
    EXPECT_EQ(2, RunJson({L"monitor", L"on", L"{533C5B84-EC70-11D2-9505-00C04F79DEAF}"}, EXIT_OK)["count"]);
    const json two = RunJson({L"monitor", L"count", CLASS_KEY}, EXIT_OK);
    EXPECT_EQ(2, two["count"]);
    EXPECT_TRUE(two["filterListed"].get<bool>());
    EXPECT_NE(std::string::npos, ExpectRefusal({L"monitor", L"off"}, EXIT_REFUSED).find("--yes"));
    EXPECT_EQ(1, RunJson({L"monitor", L"off", L"--yes"}, EXIT_OK)["count"]);
    const json none = RunJson({L"monitor", L"off", L"--yes"}, EXIT_OK);
    EXPECT_EQ(0, none["count"]);
    EXPECT_FALSE(none["filterListed"].get<bool>());
    EXPECT_NE(std::string::npos, Run({L"monitor", L"count"}).out.find("0 requests, VTFlt is not among"));
}

TEST_F(VtFltCtlSwitch, ARequestThatNobodyMadeIsNotTakenBack)
{
    ExpectRefusal({L"monitor", L"off", L"--yes"}, EXIT_REFUSED);
    StoreNumber(COUNT_KEY, COUNT, 0);
    ExpectRefusal({L"monitor", L"off", L"--yes"}, EXIT_REFUSED);
    for (const DWORD below : {0xFFFFFFFFu, 0x80000000u}) {
        StoreNumber(COUNT_KEY, COUNT, below);
        ExpectRefusal({L"monitor", L"off", L"--yes"}, EXIT_REFUSED);
    }
}

TEST_F(VtFltCtlSwitch, TheClassOfVolumesIsNotSwitched)
{
    constexpr wchar_t VOLUME_CLASS[] = L"{71a27cdd-812A-11D0-BEC7-08002BE2092F}";
    const std::wstring key = std::wstring(L"System\\CurrentControlSet\\Control\\Class\\") + VOLUME_CLASS;
    StoreNumber(L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTFltMgr\\{71A27CDD-812A-11D0-BEC7-08002BE2092F}", COUNT,
                1);
    for (const std::wstring& name : {std::wstring(VOLUME_CLASS), key, key + L"\\"}) {
        ExpectRefusal({L"monitor", L"on", name}, EXIT_REFUSED);
        ExpectRefusal({L"monitor", L"off", name, L"--yes"}, EXIT_REFUSED);
        EXPECT_EQ(1, RunJson({L"monitor", L"count", name}, EXIT_OK)["count"]);
    }
}

TEST_F(VtFltCtlSwitch, ADriverThatGoesDownMeanwhileIsNoSuccess)
{
    StoreNumber(L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTBackupDll", L"VTFltAutoInstall", 0);
    StoreNumber(COUNT_KEY, COUNT, 1);
    for (const std::vector<std::wstring>& command :
         {std::vector<std::wstring>{L"monitor", L"on"}, std::vector<std::wstring>{L"monitor", L"off", L"--yes"}}) {
        machine.FailRequest(0xB0000006, ERROR_IO_DEVICE, VTFLTSIM_ENDPOINT_CONTROL, 2, 0);
        const Result result = Run(command);
        EXPECT_EQ(EXIT_DRIVER_DOWN, result.exitCode) << result.out;
        EXPECT_NE(std::string::npos, result.err.find("went down meanwhile")) << result.err;
        VTFltSimClearFaults(machine.handle());
    }
}

TEST_F(VtFltCtlSwitch, AClassThatDoesNotExistIsNotMade)
{
    for (const wchar_t* command : {L"on", L"off", L"count"}) {
        ExpectRefusal({L"monitor", command, L"{00000000-0000-0000-0000-000000000000}"}, EXIT_NOT_FOUND);
        ExpectRefusal({L"monitor", command, L"No\\Such\\Key\\"}, EXIT_NOT_FOUND);
        ExpectRefusal({L"monitor", command, L"*"}, EXIT_NOT_FOUND);
    }
    ExpectRefusal({L"monitor", L"on", std::wstring(3000, L'x')}, EXIT_NOT_FOUND);
}

TEST_F(VtFltCtlSwitch, ValuesOfAnotherTypeAreUnreadable)
{
    machine.WriteValue(COUNT_KEY, COUNT, REG_SZ, {'1', 0, 0, 0});
    for (const wchar_t* command : {L"on", L"off", L"count"})
        ExpectRefusal({L"monitor", command}, EXIT_UNREADABLE);
    StoreNumber(COUNT_KEY, COUNT, 1);
    StoreNumber(CLASS_KEY, L"UpperFilters", 5);
    for (const wchar_t* command : {L"on", L"off", L"count"})
        ExpectRefusal({L"monitor", command}, EXIT_UNREADABLE);
}

TEST_F(VtFltCtlSwitch, WithoutTheDriverTheCountStays)
{
    StoreNumber(COUNT_KEY, COUNT, 1);
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    ExpectRefusal({L"monitor", L"on"}, EXIT_DRIVER_DOWN);
    ExpectRefusal({L"monitor", L"off", L"--yes"}, EXIT_DRIVER_DOWN);
    EXPECT_EQ(1, RunJson({L"monitor", L"count"}, EXIT_OK)["count"]);
}

TEST_F(VtFltCtlSwitch, StoppingAVolumeEndsItsTrackingAndItsFiles)
{
    Register(L"Nightly");
    EXPECT_NE(std::string::npos, ExpectRefusal({L"stop", L"E:"}, EXIT_REFUSED).find("--yes"));
    EXPECT_EQ(Utf8(volume.guid), RunJson({L"stop", volume.Root(), L"--yes"}, EXIT_OK)["volumes"]);
    EXPECT_FALSE(HasFiles(L"Nightly"));
    EXPECT_EQ(0u, machine.Info(volume).tracked);
}

TEST_F(VtFltCtlSwitch, StoppingAllDeletesTheFilesAndTellsNoDriver)
{
    Register(L"Nightly");
    ExpectRefusal({L"stop", L"--all"}, EXIT_REFUSED);
    const Result result = Run({L"stop", L"--all", L"--yes"});
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_FALSE(HasFiles(L"Nightly"));
    EXPECT_EQ(1u, machine.Info(volume).tracked);
}

TEST_F(VtFltCtlSwitch, VolumesWithoutBitmapFilesAreStoppedToo)
{
    EXPECT_EQ(EXIT_OK, Run({L"stop", L"--all", L"--yes"}).exitCode);
    EXPECT_EQ(EXIT_OK, Run({L"stop", L"E:\\", L"--yes"}).exitCode);
    EXPECT_EQ(0u, machine.Info(volume).tracked);
}

TEST_F(VtFltCtlSwitch, FilesThatAreLeftBehindAFolderAreNoSuccess)
{
    for (const wchar_t* what : {L"E:", L"--all"}) {
        Register(L"Nightly");
        const std::wstring folder = std::wstring(machine.Info(volume).filesDirectory) + L"\\VelVolTrc";
        CreateDirectoryW((folder + L"\\0").c_str(), nullptr);
        const Result result = Run({L"stop", what, L"--yes"});
        EXPECT_EQ(EXIT_DEVICE, result.exitCode) << result.out;
        EXPECT_NE(std::string::npos, result.err.find("run it again")) << result.err;
        EXPECT_EQ(EXIT_OK, Run({L"stop", what, L"--yes"}).exitCode);
        EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(folder.c_str()));
        EXPECT_EQ(EXIT_OK, Run({L"apps", L"unregister", L"Nightly", L"--yes"}).exitCode);
    }
}

TEST_F(VtFltCtlSwitch, AFolderOnARemovableVolumeDoesNotKeepStopAllFromEnding)
{
    const vtfltsim::Volume stick = machine.AddVolume(1 << 20, 4096, nullptr, DRIVE_REMOVABLE);
    const std::wstring folder = std::wstring(machine.Info(stick).filesDirectory) + L"\\VelVolTrc";
    ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
    // E: has no files, which the library calls a failure.
    const Result result = Run({L"stop", L"--all", L"--yes"});
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(folder.c_str()));
}

TEST_F(VtFltCtlSwitch, StoppingWhatIsNotThereChangesNothing)
{
    Register(L"Nightly");
    ExpectRefusal({L"stop", L"Q:", L"--yes"}, EXIT_NOT_FOUND);
    ExpectRefusal({L"stop", L"{11111111-2222-3333-4444-555555555555}", L"--yes"}, EXIT_NOT_FOUND);
    ExpectRefusal({L"stop", L"nonsense", L"--yes"}, EXIT_USAGE);
    ExpectRefusal({L"stop", L"--yes"}, EXIT_USAGE);
    ExpectRefusal({L"stop", L"E:", L"--all", L"--yes"}, EXIT_USAGE);
}

TEST_F(VtFltCtlSwitch, AFailedStopIsToldWithItsReason)
{
    Register(L"Nightly");
    machine.FailRequest(0xB000001D, ERROR_IO_DEVICE, volume.guid.c_str(), 1, 0);
    EXPECT_NE(std::string::npos, ExpectRefusal({L"stop", L"E:", L"--yes"}, EXIT_DEVICE).find("1117"));
    EXPECT_TRUE(HasFiles(L"Nightly"));
    VTFltSimClearFaults(machine.handle());
    // An error of that name is not a volume that was not found: by then something may have been done.
    machine.FailRequest(0xB000001D, ERROR_FILE_NOT_FOUND, volume.guid.c_str(), 1, 0);
    ExpectRefusal({L"stop", L"E:", L"--yes"}, EXIT_DEVICE);
}

TEST_F(VtFltCtlSwitch, ADeviceIsMonitoredOrNot)
{
    EXPECT_TRUE(RunJson({L"device", volume.Path()}, EXIT_OK)["monitored"].get<bool>());
    EXPECT_FALSE(RunJson({L"device", L"\\Device\\Nothing"}, EXIT_NOT_MONITORED)["monitored"].get<bool>());
    EXPECT_EQ(EXIT_OK, Run({L"stop", L"E:", L"--yes"}).exitCode);
    EXPECT_EQ(EXIT_NOT_MONITORED, Run({L"device", volume.Path()}).exitCode);
    EXPECT_EQ(EXIT_NOT_MONITORED, Run({L"device", std::wstring(3000, L'x')}).exitCode);
    ExpectRefusal({L"device", L""}, EXIT_USAGE);
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    ExpectRefusal({L"device", volume.Path()}, EXIT_DRIVER_DOWN);
}

TEST_F(VtFltCtlSwitch, AVolumeIsAskedForWithoutItsBackslash)
{
    for (const std::wstring& name : {volume.Root(), volume.Path() + L"\\"}) {
        const json answer = RunJson({L"device", name}, EXIT_OK);
        EXPECT_TRUE(answer["monitored"].get<bool>());
        EXPECT_EQ(Utf8(volume.Path()), answer["device"]);
    }
    // Of other names nothing is taken away.
    EXPECT_EQ("\\Device\\Nothing\\", RunJson({L"device", L"\\Device\\Nothing\\"}, EXIT_NOT_MONITORED)["device"]);
}

TEST_F(VtFltCtlSwitch, ADriverThatOpensAndDoesNotAnswerIsDown)
{
    machine.FailRequest(0xB0000006, ERROR_NOT_SUPPORTED, nullptr, 1, 0);
    EXPECT_NE(std::string::npos, ExpectRefusal({L"device", volume.Path()}, EXIT_DRIVER_DOWN).find("does not answer"));
}

TEST_F(VtFltCtlSwitch, AVolumeIsNotMissingWhileTheListOfVolumesBreaksOff)
{
    for (const std::wstring& name : {std::wstring(L"E:"), volume.Root(), std::wstring(L"Q:")}) {
        VTFltSimSetEnumerationFault(machine.handle(), 1, ERROR_NOT_READY);
        EXPECT_NE(std::string::npos, ExpectRefusal({L"stop", name, L"--yes"}, EXIT_DEVICE).find("broke off"))
            << Utf8(name);
    }
    ExpectRefusal({L"stop", L"nonsense", L"--yes"}, EXIT_USAGE);
    // One that comes before is found.
    VTFltSimSetEnumerationFault(machine.handle(), 2, ERROR_NOT_READY);
    EXPECT_EQ(EXIT_OK, Run({L"stop", L"E:", L"--yes"}).exitCode);
}

TEST_F(VtFltCtlSwitch, ManyBackslashesDoNotHideTheClassOfVolumes)
{
    const std::wstring key = L"System\\CurrentControlSet\\Control\\Class\\{71A27CDD-812A-11D0-BEC7-08002BE2092F}";
    StoreNumber(L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTFltMgr\\{71A27CDD-812A-11D0-BEC7-08002BE2092F}", COUNT,
                1);
    for (const wchar_t* end : {L"\\", L"\\\\", L"\\\\\\"}) {
        ExpectRefusal({L"monitor", L"on", key + end}, EXIT_REFUSED);
        ExpectRefusal({L"monitor", L"off", key + end, L"--yes"}, EXIT_REFUSED);
    }
}

TEST_F(VtFltCtlSwitch, ACountIsNotChangedBesideAnotherProgram)
{
    StoreNumber(COUNT_KEY, COUNT, 1);
    const std::string before = Fingerprint();
    for (const std::vector<std::wstring>& command :
         {std::vector<std::wstring>{L"monitor", L"on"}, std::vector<std::wstring>{L"monitor", L"off", L"--yes"}}) {
        // The first wait is for the class, before the count is looked at; it ends in vain.
        const Result result =
            RunWith(L"return|WaitForSingleObject|{533C5B84-EC70-11D2-9505-00C04F79DEAF}.VTFlt|1|1|0|258", command);
        EXPECT_EQ(EXIT_BUSY, result.exitCode) << result.out << result.err;
        EXPECT_TRUE(before == Fingerprint());
    }
}

TEST_F(VtFltCtlSwitch, AClassInOtherCaseIsUnderTheSameMutex)
{
    const std::wstring folder = L"System\\CurrentControlSet\\Control\\Class\\";
    const auto expectBusy = [&](const std::wstring& spelled, const std::wstring& typed) {
        const Result result =
            RunWith(L"return|WaitForSingleObject|" + spelled + L".VTFlt|1|1|0|258", {L"monitor", L"on", typed});
        EXPECT_EQ(EXIT_BUSY, result.exitCode) << Utf8(typed) << result.out << result.err;
    };
    const std::wstring snapshots = L"{533C5B84-EC70-11D2-9505-00C04F79DEAF}";
    for (const std::wstring& typed :
         {std::wstring(L"{533c5b84-ec70-11d2-9505-00c04f79deaf}"), folder + L"{533c5b84-EC70-11D2-9505-00C04F79DEAF}"})
        expectBusy(snapshots, typed);
    // As the key itself is spelled.
    const std::wstring other = L"{aBcDeF12-1111-2222-3333-444455556666}";
    StoreNumber((folder + other).c_str(), L"Any", 0);
    for (const wchar_t* typed : {L"{abcdef12-1111-2222-3333-444455556666}", L"{ABCDEF12-1111-2222-3333-444455556666}"})
        expectBusy(other, typed);
}

TEST_F(VtFltCtlSwitch, ARequestThatIsTakenBackMeanwhileIsNotTakenBackTwice)
{
    EXPECT_EQ(EXIT_OK, Run({L"monitor", L"on"}).exitCode);
    vttest::Pause pause(L"VtFltCtlSwitch");
    vttest::ChildProcess child(
        L"vtfltctl", {L"monitor", L"off", L"--yes", L"--simulate", machine.directory()},
        pause.Before(L"WaitForSingleObject", L"{533C5B84-EC70-11D2-9505-00C04F79DEAF}.VTFlt", 1));
    ASSERT_TRUE(pause.AwaitReached(child));
    // An application ends its tracking while the command waits for the count.
    StoreNumber(COUNT_KEY, COUNT, 0);
    pause.Go();
    EXPECT_EQ(EXIT_REFUSED, child.Join());
    EXPECT_EQ(0, RunJson({L"monitor", L"count"}, EXIT_OK)["count"]);
}

TEST_F(VtFltCtlSwitch, AVolumeThatDoesNotOpenIsNotStopped)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    const Result result = RunWith(L"fail|CreateFileW|Volume" + volume.guid + L"|1|0|2", {L"stop", L"E:", L"--yes"});
    EXPECT_EQ(EXIT_DEVICE, result.exitCode) << result.out;
}

TEST_F(VtFltCtlSwitch, NothingIsStoppedWhileABackupServiceWorksOnTheFiles)
{
    Register(L"Nightly");
    const std::string before = Fingerprint();
    for (const wchar_t* what : {L"E:", L"--all"}) {
        const Result result = RunWith(L"return|WaitForSingleObject|Global\\" + volume.MutexName() + L"|1|1|0|258",
                                      {L"stop", what, L"--yes"});
        EXPECT_EQ(EXIT_BUSY, result.exitCode) << result.out << result.err;
        EXPECT_TRUE(before == Fingerprint());
    }
    // Nor between the steps of a backup, where it holds no mutex of the library.
    const vtflt::UniqueHandle backup(
        CreateMutexW(nullptr, TRUE, toolkit::LockNames(machine.directory()).Volume(volume.guid).c_str()));
    ExpectRefusal({L"stop", L"E:", L"--yes"}, EXIT_BUSY);
    ExpectRefusal({L"stop", L"--all", L"--yes"}, EXIT_BUSY);
    ReleaseMutex(backup.get());
    EXPECT_EQ(1u, machine.Info(volume).tracked);
}

} // namespace
} // namespace vtfltctl_test
