// Whether the driver works: the probe of its control device, and what follows from it.
#include "support/driver_expect.h"

#include <cstdint>

namespace vttest {
namespace {

class DriverHealth : public MachineTest {
protected:
    void ExpectNothingWasRun() const { EXPECT_TRUE(UtilityCommands(machine).empty()); }
};

TEST_F(DriverHealth, AWorkingDriverAnswers1AndLogsNothing)
{
    StartRecording();
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectRequests({{GET_BLOCK_SIZE, CONTROL, {}, 4}});
    ExpectCalls({L"CreateFileW", L"DeviceIoControl", L"RegCreateKeyW", L"RegQueryValueExW", L"RegQueryValueExW",
                 L"RegCloseKey", L"CloseHandle"});
    EXPECT_EQ(CallsOf(L"CreateFileW"), std::vector<std::wstring>{L"CreateFileW \\\\.\\VTFltMgr"});
    log.ExpectNothingLogged();
}

TEST_F(DriverHealth, NothingIsCachedBetweenTwoCalls)
{
    StartRecording();
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectRequests({{GET_BLOCK_SIZE, CONTROL, {}, 4}, {GET_BLOCK_SIZE, CONTROL, {}, 4}});
    EXPECT_EQ(CallsOf(L"RegCreateKeyW").size(), 2u);
}

TEST_F(DriverHealth, TheProbesAnswerIsNotUsed)
{
    const DWORD nonsense = 0;
    ASSERT_EQ(VTFltSimForgeReply(machine.handle(), GET_BLOCK_SIZE, CONTROL, 1, 1, &nonsense, 4), 0u);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
}

TEST_F(DriverHealth, AnOlderGenerationWithACorrectFilterOrderAnswers1WithItsMessage)
{
    machine.SetDriver(VTFLTSIM_DRIVER_OLDER);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    log.ExpectExactly(
        {{2, 1, L"VTCanBLIDriverWork: VTFlt v6.0 is working. Needs to reboot machine to let new one works."}});
    ExpectNothingWasRun();
}

TEST_F(DriverHealth, AProbeThatFailsWithoutAnErrorCountsAsAnAnswer)
{
    ForceCall(L"DeviceIoControl", FALSE, 0, CONTROL);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    log.ExpectNothingLogged();
}

TEST_F(DriverHealth, ADeviceThatDoesNotOpenAndNoServiceAnswer0AndNothingIsRun)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    StartRecording();
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    log.ExpectExactly({{2, 0, L"VTCanBLIDriverWork: Open device \\\\.\\VTFltMgr failed, Error:2."}});
    ExpectCalls({L"CreateFileW", L"OpenSCManagerW", L"OpenServiceW", L"CloseServiceHandle"});
    EXPECT_EQ(CallsOf(L"OpenServiceW"), std::vector<std::wstring>{L"OpenServiceW VTFlt"});
    ExpectNothingWasRun();
}

TEST_F(DriverHealth, TheOpensErrorIsTheOneInTheRecord)
{
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    vtfltsim::FailCall(L"CreateFileW", ERROR_ACCESS_DENIED, CONTROL);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    log.ExpectExactly({{2, 0, L"VTCanBLIDriverWork: Open device \\\\.\\VTFltMgr failed, Error:5."}});
}

TEST_F(DriverHealth, AnyOtherErrorOfTheProbeClosesTheDeviceBeforeTheServiceIsTested)
{
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    machine.FailRequest(GET_BLOCK_SIZE, ERROR_GEN_FAILURE, CONTROL);
    StartRecording();
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    log.ExpectExactly({{2, 0, L"VTCanBLIDriverWork: \\\\.\\VTFltMgr VTFLTCTL_GET_BLOCK_SIZE failed, Error:31."}});
    ExpectCalls({L"CreateFileW", L"DeviceIoControl", L"CloseHandle", L"OpenSCManagerW", L"OpenServiceW",
                 L"CloseServiceHandle"});
    ExpectNothingWasRun();
}

TEST_F(DriverHealth, AWrongFilterOrderIsAWarningAndLeadsToTheServiceTest)
{
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    machine.SetFilters({L"VTFlt", L"volsnap"});
    StartRecording();
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    log.ExpectExactly({{0, 0xFFFFFFFF, L"Error: [VTFlt] is before [volsnap] in the volume class upper filter list."},
                       {1, 0, L"VTCanBLIDriverWork: VTFlt is wrong in the volume upper filters list."}});
    ExpectCalls({L"CreateFileW", L"DeviceIoControl", L"RegCreateKeyW", L"RegQueryValueExW", L"RegQueryValueExW",
                 L"RegCloseKey", L"CloseHandle", L"OpenSCManagerW", L"OpenServiceW", L"CloseServiceHandle"});
    ExpectNothingWasRun();
}

TEST_F(DriverHealth, AnOlderGenerationInAWrongFilterOrderIsReinstalled)
{
    machine.SetDriver(VTFLTSIM_DRIVER_OLDER);
    machine.SetFilters({L"VTFlt", L"volsnap"});
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    log.ExpectLogged(2, 1, L"VTCanBLIDriverWork: VTFlt v6.0 is working. Needs to reboot machine to let new one works.");
    log.ExpectLogged(1, 0, L"VTCanBLIDriverWork: VTFlt is wrong in the volume upper filters list.");
    log.ExpectLogged(2, 0, L"VTCanBLIDriverWork: VTFlt installed automatically.");
    EXPECT_EQ(UtilityCommands(machine).size(), 2u);
}

TEST_F(DriverHealth, ABrokenDriverIsReinstalledAndAnswers1)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    EXPECT_EQ(UtilityCommands(machine).size(), 2u);
    if (LogCapture::VISIBLE) {
        ASSERT_FALSE(log.Records().empty());
        EXPECT_TRUE(log.Records().back().text == L"VTCanBLIDriverWork: VTFlt installed automatically.");
        EXPECT_EQ(log.Records().back().level, 2);
        EXPECT_EQ(log.Records().back().code, 0u);
    }
    EXPECT_EQ(List(VOLUME_CLASS, UPPER_FILTERS), (std::vector<std::wstring>{L"volsnap", L"VTFlt"}));
}

TEST_F(DriverHealth, AReinstallIsNotProbedAgain)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    StartRecording();
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    EXPECT_EQ(CallsOf(L"CreateFileW").size(), 1u);
    ExpectRequests({});
}

TEST_F(DriverHealth, AReinstallThatFailsAnswers0)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    VTFLTSIM_UTILITY utility = {sizeof(utility), 0, 0, 1603, 0};
    ASSERT_EQ(VTFltSimSetUtility(machine.handle(), &utility), 0u);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    log.ExpectNotLogged(L"VTCanBLIDriverWork: VTFlt installed automatically.");
}

TEST_F(DriverHealth, AnInstallThatAnswers3010Yields0WithoutTheInstalledAutomaticallyMessage)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    VTFLTSIM_UTILITY utility = {sizeof(utility), 0, 0, 3010, 0};
    ASSERT_EQ(VTFltSimSetUtility(machine.handle(), &utility), 0u);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    log.ExpectLogged(2, 0, L"VTFltInstall: enabled VTFlt, but reboot required.");
    log.ExpectNotLogged(L"VTCanBLIDriverWork: VTFlt installed automatically.");
    // The restart makes good what the install left.
    ASSERT_EQ(VTFltSimReboot(machine.handle()), 0u);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
}

class ServicePresence : public DriverHealth {
protected:
    ServicePresence() { machine.SetDriver(VTFLTSIM_DRIVER_ABSENT); }
    void ExpectTakenAsPresent() const { EXPECT_EQ(UtilityCommands(machine).size(), 2u); }
};

TEST_F(ServicePresence, AServiceControlManagerThatDoesNotOpenCountsAsPresent)
{
    machine.SetService(VTFLTSIM_SERVICE_MANAGER_REFUSED);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectTakenAsPresent();
}

TEST_F(ServicePresence, AServiceThatFailsOtherwiseCountsAsPresent)
{
    machine.SetService(VTFLTSIM_SERVICE_REFUSED);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectTakenAsPresent();
}

TEST_F(ServicePresence, AServiceThatOpensIsPresentAndBothHandlesAreClosed)
{
    StartRecording();
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectTakenAsPresent();
    EXPECT_EQ(CallsOf(L"CloseServiceHandle").size(), 2u);
    EXPECT_EQ(VTFltSimGetOpenCount(VTFLTSIM_OPEN_SERVICES), 0u);
}

TEST_F(ServicePresence, OnlyErrorThatSaysThatThereIsNoSuchServiceCounts)
{
    ForceCall(L"OpenServiceW", 0, 1060);
    EXPECT_EQ(VTCanBLIDriverWork(), 0u);
    ExpectNothingWasRun();
    ForceCall(L"OpenServiceW", 0, 1072);
    EXPECT_EQ(VTCanBLIDriverWork(), 1u);
    ExpectTakenAsPresent();
}

} // namespace
} // namespace vttest
