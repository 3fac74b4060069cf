// The reinstallation's own results, and the command runner with real programs.
#include "api/active_job.h"
#include "api/driver_health.h"
#include "support/driver_expect.h"

namespace vttest {
namespace {

class VTFltInstallResults : public MachineTest {
protected:
    void SetUtility(DWORD launchError, DWORD uninstallExit, DWORD installExit, DWORD hangs = 0)
    {
        const VTFLTSIM_UTILITY utility = {sizeof(utility), launchError, uninstallExit, installExit, hangs};
        vtfltsim::Check("VTFltSimSetUtility", VTFltSimSetUtility(machine.handle(), &utility));
    }
};

TEST_F(VTFltInstallResults, AReinstallWithoutARestartIs0)
{
    EXPECT_EQ(vtflt::VTFltInstall(), 0u);
}

TEST_F(VTFltInstallResults, AForbiddenReinstallIs0xFFFFFFFF)
{
    SetDword(AUTO_INSTALL_KEY, AUTO_INSTALL, 0);
    EXPECT_EQ(vtflt::VTFltInstall(), 0xFFFFFFFFu);
}

TEST_F(VTFltInstallResults, AMissingLocationIsItsError)
{
    DeleteValue(CBT_DRIVER_KEY, INSTALL_LOCATION);
    EXPECT_EQ(vtflt::VTFltInstall(), 2u);
}

TEST_F(VTFltInstallResults, AFailedUninstallIsItsResult)
{
    SetUtility(0, 77, 88);
    EXPECT_EQ(vtflt::VTFltInstall(), 77u);
}

TEST_F(VTFltInstallResults, AnInstallsResultIsTheResult)
{
    SetUtility(0, 0, 3010);
    EXPECT_EQ(vtflt::VTFltInstall(), 3010u);
    SetUtility(0, 0, 1603);
    EXPECT_EQ(vtflt::VTFltInstall(), 1603u);
    SetUtility(0, 0, 0, 2);
    EXPECT_EQ(vtflt::VTFltInstall(), 258u);
}

class CommandRunner : public MachineTest {};

TEST_F(CommandRunner, TheExitCodeOfAProgramIsTheResult)
{
    StartRecording();
    EXPECT_EQ(vtflt::ExecCmdLine(L"cmd.exe /c exit 42"), 42u);
    log.ExpectExactly({{2, 0, L"ExecCmdLine launch command: cmd.exe /c exit 42"}});
    ExpectCalls({L"CreateProcessW", L"WaitForSingleObject", L"GetExitCodeProcess", L"CloseHandle", L"CloseHandle"});
}

TEST_F(CommandRunner, ASuccessfulProgramIs0)
{
    EXPECT_EQ(vtflt::ExecCmdLine(L"cmd.exe /c exit 0"), 0u);
}

TEST_F(CommandRunner, AProgramThatIsMissingIsTheLaunchsError)
{
    EXPECT_EQ(vtflt::ExecCmdLine(L"C:\\no such folder\\none.exe -x"), 2u);
    log.ExpectExactly({{2, 0, L"ExecCmdLine launch command: C:\\no such folder\\none.exe -x"},
                       {0, 2, L"Failed to launch command: C:\\no such folder\\none.exe -x, Error: 2."}});
}

TEST_F(CommandRunner, AWaitThatTimesOutIs258AndFetchesNoExitCode)
{
    ForceCall(L"WaitForSingleObject", WAIT_TIMEOUT, 0, L"600000");
    StartRecording();
    EXPECT_EQ(vtflt::ExecCmdLine(L"cmd.exe /c exit 42"), 258u);
    ExpectCalls({L"CreateProcessW", L"WaitForSingleObject", L"CloseHandle", L"CloseHandle"});
}

TEST_F(CommandRunner, ALaunchThatFailsWithoutAnErrorIsStillAFailure)
{
    ForceCall(L"CreateProcessW", FALSE, 0);
    EXPECT_EQ(vtflt::ExecCmdLine(L"cmd.exe /c exit 0"), 31u);
}

TEST(ActiveJob, ThisProcessHoldsTheMarkAndSawWhetherItWasTheFirst)
{
    const DWORD error = vtflt::ActiveJobError();
    EXPECT_TRUE(error == 0 || error == ERROR_ALREADY_EXISTS) << error;
    const vtflt::UniqueHandle mark(OpenMutexW(SYNCHRONIZE, FALSE, vtflt::ACTIVE_JOB_MUTEX));
    EXPECT_TRUE(mark.valid());
}

TEST_F(CommandRunner, AnExitCodeThatCannotBeFetchedWithoutAnErrorIsStillAFailure)
{
    vtfltsim::FailCall(L"GetExitCodeProcess", ERROR_SUCCESS);
    EXPECT_EQ(vtflt::ExecCmdLine(L"cmd.exe /c exit 0"), 31u);
    EXPECT_EQ(VTFltSimGetOpenCount(VTFLTSIM_OPEN_PROCESSES), 0u);
}

} // namespace
} // namespace vttest
