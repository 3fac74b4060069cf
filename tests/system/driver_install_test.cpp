// The driver's reinstallation through its utility.
#include "support/driver_expect.h"

namespace vttest {
namespace {

class DriverInstall : public MachineTest {
protected:
    DriverInstall()
    {
        machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
        SetLocation(L"D:\\Tools");
    }

    void SetLocation(const std::wstring& path, DWORD type = REG_SZ)
    {
        machine.WriteValue(CBT_DRIVER_KEY, INSTALL_LOCATION, type, TextBytes(path));
    }
    void SetUtility(DWORD launchError, DWORD uninstallExit, DWORD installExit, DWORD hangs = 0)
    {
        const VTFLTSIM_UTILITY utility = {sizeof(utility), launchError, uninstallExit, installExit, hangs};
        vtfltsim::Check("VTFltSimSetUtility", VTFltSimSetUtility(machine.handle(), &utility));
    }
    void ExpectRun(const std::vector<std::wstring>& commands)
    {
        const std::vector<std::wstring> run = UtilityCommands(machine);
        ASSERT_EQ(run.size(), commands.size());
        for (std::size_t i = 0; i < run.size(); ++i)
            EXPECT_EQ(Narrow(run[i]), Narrow(commands[i]));
    }
    // The records behind the one of the device that did not open.
    void ExpectLogged(const std::vector<LogRecord>& records)
    {
        std::vector<LogRecord> all;
        all.push_back({2, 0, L"VTCanBLIDriverWork: Open device \\\\.\\VTFltMgr failed, Error:2."});
        all.insert(all.end(), records.begin(), records.end());
        log.ExpectExactly(all);
    }
    static LogRecord Launch(const std::wstring& command) { return {2, 0, L"ExecCmdLine launch command: " + command}; }

    const std::wstring uninstall = L"\"D:\\Tools\\VTFltUtl.exe\" -r -output=\"D:\\Tools\\Logs\\UninstallDriver.log\" ";
    const std::wstring install = L"\"D:\\Tools\\VTFltUtl.exe\" -i -output=\"D:\\Tools\\Logs\\InstallDriver.log\" ";
};

TEST_F(DriverInstall, UninstallsThenInstallsWithTheseCommandLines)
{
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectRun({uninstall, install});
    ExpectLogged({Launch(uninstall),
                  Launch(install),
                  {2, 0, L"VTFltInstall: reinstall VTFlt finished."},
                  {2, 0, L"VTCanBLIDriverWork: VTFlt installed automatically."}});
}

TEST_F(DriverInstall, ALocationWithATrailingBackslashRunsTheSameCommandLines)
{
    SetLocation(L"D:\\Tools\\");
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectRun({uninstall, install});
}

TEST_F(DriverInstall, OnlyOneTrailingBackslashIsRemoved)
{
    SetLocation(L"D:\\Tools\\\\");
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectRun({L"\"D:\\Tools\\\\VTFltUtl.exe\" -r -output=\"D:\\Tools\\\\Logs\\UninstallDriver.log\" ",
               L"\"D:\\Tools\\\\VTFltUtl.exe\" -i -output=\"D:\\Tools\\\\Logs\\InstallDriver.log\" "});
}

TEST_F(DriverInstall, TheLogFolderIsMadeFirstAndEveryStepComesInOrder)
{
    StartRecording();
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectCalls({L"CreateFileW",        L"OpenSCManagerW",      L"OpenServiceW",        L"CloseServiceHandle",
                 L"CloseServiceHandle", L"RegCreateKeyExW",     L"RegQueryValueExW",    L"RegCloseKey",
                 L"RegCreateKeyExW",    L"RegQueryValueExW",    L"RegCloseKey",         L"CreateDirectoryW",
                 L"CreateProcessW",     L"WaitForSingleObject", L"GetExitCodeProcess",  L"CloseHandle",
                 L"CloseHandle",        L"CreateProcessW",      L"WaitForSingleObject", L"GetExitCodeProcess",
                 L"CloseHandle",        L"CloseHandle"});
    EXPECT_EQ(CallsOf(L"CreateDirectoryW"), std::vector<std::wstring>{L"CreateDirectoryW D:\\Tools\\Logs"});
    EXPECT_EQ(CallsOf(L"WaitForSingleObject"),
              (std::vector<std::wstring>{L"WaitForSingleObject " + uninstall + L"|600000",
                                         L"WaitForSingleObject " + install + L"|600000"}));
}

TEST_F(DriverInstall, TheUtilitysLogsGoIntoTheMachinesLogFolder)
{
    const std::wstring location = machine.directory() + L"\\Utility";
    ASSERT_TRUE(CreateDirectoryW(location.c_str(), nullptr));
    SetLocation(location);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    EXPECT_NE(GetFileAttributesW((location + L"\\Logs\\UninstallDriver.log").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_NE(GetFileAttributesW((location + L"\\Logs\\InstallDriver.log").c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(DriverInstall, ALogFolderThatCannotBeMadeIsNoMatter)
{
    vtfltsim::FailCall(L"CreateDirectoryW", ERROR_ACCESS_DENIED);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectRun({uninstall, install});
}

// ---- VTFltAutoInstall ----

TEST_F(DriverInstall, AutoInstallSetTo0RunsNothingAndAnswers0)
{
    SetDword(AUTO_INSTALL_KEY, AUTO_INSTALL, 0);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({});
    ExpectLogged({{2, 0, L"VTFltInstall: VTFlt auto install is disabled by registry."}});
}

TEST_F(DriverInstall, AnyOtherNumberAllowsTheReinstall)
{
    SetDword(AUTO_INSTALL_KEY, AUTO_INSTALL, 0x100);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectRun({uninstall, install});
}

TEST_F(DriverInstall, TheTypeOfAutoInstallIsNotChecked)
{
    machine.WriteValue(AUTO_INSTALL_KEY, AUTO_INSTALL, REG_BINARY, Bytes(4));
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({});
    machine.WriteValue(AUTO_INSTALL_KEY, AUTO_INSTALL, REG_BINARY, Bytes(1));
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({});
    machine.WriteValue(AUTO_INSTALL_KEY, AUTO_INSTALL, REG_SZ, TextBytes(L""));
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({});
}

TEST_F(DriverInstall, AnAutoInstallOfNoBytesSaysNothingAndAllows)
{
    machine.WriteValue(AUTO_INSTALL_KEY, AUTO_INSTALL, REG_BINARY, Bytes());
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectRun({uninstall, install});
}

TEST_F(DriverInstall, AnAutoInstallOfMoreThan4BytesCannotBeReadAndAllows)
{
    machine.WriteValue(AUTO_INSTALL_KEY, AUTO_INSTALL, REG_BINARY, Bytes(8));
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectRun({uninstall, install});
}

TEST_F(DriverInstall, AnAutoInstallKeyThatCannotBeOpenedAllows)
{
    SetDword(AUTO_INSTALL_KEY, AUTO_INSTALL, 0);
    vtfltsim::FailCall(L"RegCreateKeyExW", ERROR_ACCESS_DENIED, L"VTBackupDll");
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectRun({uninstall, install});
}

TEST_F(DriverInstall, AMissingAutoInstallKeyIsCreatedAndStaysEmpty)
{
    StartRecording();
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    EXPECT_EQ(CallsOf(L"RegCreateKeyExW")[0], L"RegCreateKeyExW SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTBackupDll");
    EXPECT_FALSE(ValueExists(AUTO_INSTALL_KEY, AUTO_INSTALL));
}

// ---- InstallLocation ----

TEST_F(DriverInstall, AMissingLocationFailsWithTheQuerysError)
{
    DeleteValue(CBT_DRIVER_KEY, INSTALL_LOCATION);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({});
    ExpectLogged({{0, 2, L"VTFltInstall: Failed to get driver install path, Error: 2."}});
}

TEST_F(DriverInstall, ALocationsKeyThatCannotBeOpenedFailsWithItsError)
{
    vtfltsim::FailCall(L"RegCreateKeyExW", ERROR_ACCESS_DENIED, L"CBTDriver");
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({});
    ExpectLogged({{0, 5, L"VTFltInstall: Failed to get driver install path, Error: 5."}});
}

TEST_F(DriverInstall, ALocationOfAnotherTypeOddSizeOrWithoutItsEndIsInvalidData)
{
    const LogRecord invalid{0, 13, L"VTFltInstall: Failed to get driver install path, Error: 13."};
    Bytes odd = TextBytes(L"D:\\Tools");
    odd.push_back(0);
    Bytes unended = TextBytes(L"D:\\Tools");
    unended.resize(unended.size() - 2);
    struct Bad {
        DWORD type;
        Bytes bytes;
    };
    for (const Bad& bad : {Bad{REG_MULTI_SZ, TextBytes(L"D:\\Tools")}, Bad{REG_BINARY, TextBytes(L"D:\\Tools")},
                           Bad{REG_SZ, odd}, Bad{REG_SZ, unended}}) {
        machine.WriteValue(CBT_DRIVER_KEY, INSTALL_LOCATION, bad.type, bad.bytes);
        log.Clear();
        EXPECT_EQ(VTCanBLIDriverWork(), 0u);
        ExpectRun({});
        ExpectLogged({invalid});
    }
}

TEST_F(DriverInstall, AZeroSizeLocationReadsAsTheEmptyString)
{
    machine.WriteValue(CBT_DRIVER_KEY, INSTALL_LOCATION, REG_SZ, {});
    // The folder would be the real root's.
    vtfltsim::FailCall(L"CreateDirectoryW", ERROR_ACCESS_DENIED);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    const auto commands = UtilityCommands(machine);
    ASSERT_FALSE(commands.empty());
    EXPECT_EQ(Narrow(commands[0]), "\"\\VTFltUtl.exe\" -r -output=\"\\Logs\\UninstallDriver.log\" ");
}

TEST_F(DriverInstall, AnExpandableLocationIsNotExpanded)
{
    SetLocation(L"%SystemRoot%\\T", REG_EXPAND_SZ);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectRun({L"\"%SystemRoot%\\T\\VTFltUtl.exe\" -r -output=\"%SystemRoot%\\T\\Logs\\UninstallDriver.log\" ",
               L"\"%SystemRoot%\\T\\VTFltUtl.exe\" -i -output=\"%SystemRoot%\\T\\Logs\\InstallDriver.log\" "});
}

TEST_F(DriverInstall, ALocationBeyond260UnitsFailsWithMoreData)
{
    SetLocation(L"D:\\" + std::wstring(257, L'x'));
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({});
    ExpectLogged({{0, 234, L"VTFltInstall: Failed to get driver install path, Error: 234."}});
}

TEST_F(DriverInstall, ACommandLineThatFillsItsBufferIsRunAndALongerOneIsNot)
{
    // The format's own text and the folder twice: the uninstallation's line has 55 units beside the folders.
    const std::size_t own = uninstall.size() - 2 * std::wstring(L"D:\\Tools").size();
    const std::size_t longest = (259 - own) / 2;
    SetLocation(L"D:\\" + std::wstring(longest - 3, L'x'));
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    EXPECT_EQ(UtilityCommands(machine).size(), 2u);

    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    SetLocation(L"D:\\" + std::wstring(longest - 2, L'x'));
    log.Clear();
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    EXPECT_EQ(UtilityCommands(machine).size(), 2u);
    ExpectLogged({{1, 0, L"VTFltInstall: try to uninstall VTFlt failed, rc: 206."}});
}

// ---- The utility's answers ----

TEST_F(DriverInstall, NoInstallFollowsAFailedUninstall)
{
    SetUtility(0, 5, 0);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({uninstall});
    ExpectLogged({Launch(uninstall), {1, 0, L"VTFltInstall: try to uninstall VTFlt failed, rc: 5."}});
}

TEST_F(DriverInstall, AnUninstallThatWantsARestartIsAFailedUninstall)
{
    SetUtility(0, 3010, 0);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({uninstall});
    ExpectLogged({Launch(uninstall), {1, 0, L"VTFltInstall: try to uninstall VTFlt failed, rc: 3010."}});
}

TEST_F(DriverInstall, AnUninstallsResultIsShownUnsigned)
{
    SetUtility(0, 0xC0000005, 0);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectLogged({Launch(uninstall), {1, 0, L"VTFltInstall: try to uninstall VTFlt failed, rc: 3221225477."}});
}

TEST_F(DriverInstall, AFailedInstallIsAnErrorWithCode0AndItsResultSigned)
{
    SetUtility(0, 0, 0xFFFFFFFE);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({uninstall, install});
    ExpectLogged({Launch(uninstall), Launch(install), {0, 0, L"VTFltInstall: install VTFlt failed, rc: -2."}});
}

TEST_F(DriverInstall, AnInstallThatWantsARestartIsInformation)
{
    SetUtility(0, 0, 3010);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({uninstall, install});
    ExpectLogged({Launch(uninstall), Launch(install), {2, 0, L"VTFltInstall: enabled VTFlt, but reboot required."}});
}

TEST_F(DriverInstall, AUtilityThatDoesNotStartFailsWithTheLaunchsError)
{
    SetUtility(2, 0, 0);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectLogged({Launch(uninstall),
                  {0, 2, L"Failed to launch command: " + uninstall + L", Error: 2."},
                  {1, 0, L"VTFltInstall: try to uninstall VTFlt failed, rc: 2."}});
}

TEST_F(DriverInstall, AnUninstallThatOutlivesTheWaitIsLeftRunningAndIts258IsAFailure)
{
    SetUtility(0, 0, 0, 1);
    StartRecording();
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({uninstall});
    EXPECT_TRUE(CallsOf(L"GetExitCodeProcess").empty());
    EXPECT_TRUE(CallsOf(L"TerminateProcess").empty());
    EXPECT_EQ(VTFltSimGetOpenCount(VTFLTSIM_OPEN_PROCESSES), 0u);
    ExpectLogged({Launch(uninstall), {1, 0, L"VTFltInstall: try to uninstall VTFlt failed, rc: 258."}});
}

TEST_F(DriverInstall, AnInstallThatOutlivesTheWaitFailsWith258)
{
    SetUtility(0, 0, 0, 2);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({uninstall, install});
    ExpectLogged({Launch(uninstall), Launch(install), {0, 0, L"VTFltInstall: install VTFlt failed, rc: 258."}});
}

TEST_F(DriverInstall, AWaitThatFailsStillFetchesTheExitCode)
{
    ForceCall(L"WaitForSingleObject", WAIT_FAILED, ERROR_INVALID_HANDLE, L"600000");
    StartRecording();
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    EXPECT_EQ(CallsOf(L"GetExitCodeProcess").size(), 2u);
}

TEST_F(DriverInstall, AnExitCodeThatCannotBeFetchedIsNoSuccess)
{
    vtfltsim::FailCall(L"GetExitCodeProcess", ERROR_ACCESS_DENIED);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectRun({uninstall});
    ExpectLogged({Launch(uninstall), {1, 0, L"VTFltInstall: try to uninstall VTFlt failed, rc: 5."}});
}

} // namespace
} // namespace vttest
