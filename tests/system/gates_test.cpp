// What the exports that need the driver answer without it.
#include "support/driver_expect.h"

#include <algorithm>

namespace vttest {
namespace {

class Gates : public MachineTest {
protected:
    Gates()
    {
        volume = machine.AddVolume(8 * 65536);
        EXPECT_EQ(VTRegisterApplication(L"Alpha"), 0u);
        machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
        machine.SetService(VTFLTSIM_SERVICE_ABSENT);
        // A pending volume, which replicating would move.
        SetList(SERVICE_KEY, std::wstring(DRIVER_LIST) + L"Alpha", {L"{pending}"});
        log.Clear();
        StartRecording();
    }

    // The gate's refusal is the last record, behind that of the device that did not open; nothing was done.
    void ExpectRefused(const std::wstring& message)
    {
        log.ExpectExactly(
            {{2, 0, L"VTCanBLIDriverWork: Open device \\\\.\\VTFltMgr failed, Error:2."}, {2, 0, message}});
        ExpectCalls({L"CreateFileW", L"OpenSCManagerW", L"OpenServiceW", L"CloseServiceHandle"});
        EXPECT_EQ(PendingList(L"Alpha"), std::vector<std::wstring>{L"{pending}"});
        EXPECT_FALSE(ValueExists(SERVICE_KEY, std::wstring(DRIVER_LIST) + L"Alpha.Last"));
    }

    Volume volume;
};

TEST_F(Gates, VTReplicateVerifyListYields0WithTheDriverDown)
{
    EXPECT_EQ(VTReplicateVerifyList(L"Alpha"), 0u);
    ExpectRefused(L"VTReplicateVerifyList: Driver not installed or not working");
}

TEST_F(Gates, VTAddVolumesToAppVerifyListYields0WithTheDriverDown)
{
    EXPECT_EQ(VTAddVolumesToAppVerifyList(L"Alpha"), 0u);
    ExpectRefused(L"VTAddVolumesToAppVerifyList: Driver not installed or not working");
}

TEST_F(Gates, VTIsVerifyRequiredYields1WithTheDriverDown)
{
    EXPECT_EQ(VTIsVerifyRequired(L"Alpha", volume.Root().c_str()), 1u);
    ExpectRefused(L"VTIsVerifyRequired: Driver not installed or not working");
}

TEST_F(Gates, VTCanAppUseBLIDriverYields0WithTheDriverDownAndHasNoGateMessage)
{
    EXPECT_EQ(VTCanAppUseBLIDriver(L"Alpha"), 0u);
    log.ExpectExactly({{2, 0, L"VTCanBLIDriverWork: Open device \\\\.\\VTFltMgr failed, Error:2."}});
    ExpectCalls({L"CreateFileW", L"OpenSCManagerW", L"OpenServiceW", L"CloseServiceHandle"});
}

TEST_F(Gates, TheGateComesBeforeTheArguments)
{
    EXPECT_EQ(VTReplicateVerifyList(L""), 0u);
    EXPECT_EQ(VTAddVolumesToAppVerifyList(L""), 0u);
    EXPECT_EQ(VTIsVerifyRequired(L"", L""), 1u);
    EXPECT_EQ(VTReplicateVerifyList(nullptr), 0u);
    EXPECT_EQ(VTIsVerifyRequired(nullptr, nullptr), 1u);
}

TEST_F(Gates, TheOtherExportsOnApplicationsHaveNoGate)
{
    EXPECT_EQ(VTRegisterApplication(L"Alpha"), 0u);
    DWORD count = 0;
    EXPECT_EQ(VTGetRegisteredAppCount(&count), 0u);
    EXPECT_EQ(count, 1u);
    std::vector<std::wstring> list;
    EXPECT_EQ(VTGetRegisteredAppList(&list), 0u);
    std::vector<std::wstring> none;
    EXPECT_EQ(VTRemoveApplicationVolResyncList(L"Alpha", &none), 0u);
    EXPECT_EQ(VTUnregisterApplication(L"Alpha"), 0u);
    const auto trace = LibraryCalls();
    EXPECT_TRUE(std::none_of(trace.begin(), trace.end(), [](const std::wstring& line) {
        return line.find(CONTROL) != std::wstring::npos;
    })) << "the control device was asked";
}

TEST_F(Gates, EveryGateAsksTheDriverAfresh)
{
    EXPECT_EQ(VTIsVerifyRequired(L"Alpha", volume.Root().c_str()), 1u);
    machine.SetDriver(VTFLTSIM_DRIVER_WORKING);
    EXPECT_EQ(VTIsVerifyRequired(L"Alpha", volume.Root().c_str()), 0u);
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    EXPECT_EQ(VTIsVerifyRequired(L"Alpha", volume.Root().c_str()), 1u);
}

class CanAppUse : public MachineTest {
protected:
    CanAppUse() { machine.AddVolume(65536); }
};

TEST_F(CanAppUse, ANullIdAnswers0AndLogs160WithoutAskingTheDriver)
{
    StartRecording();
    EXPECT_EQ(VTCanAppUseBLIDriver(nullptr), 0u);
    log.ExpectExactly({{0, 160, L"VTCanAppUseBLIDriver: lpAppId is NULL !!\n"}});
    EXPECT_TRUE(LibraryCalls().empty());
}

TEST_F(CanAppUse, ARegisteredApplicationAnswers1)
{
    ASSERT_EQ(VTRegisterApplication(L"Alpha"), 0u);
    EXPECT_EQ(VTCanAppUseBLIDriver(L"Alpha"), 1u);
}

TEST_F(CanAppUse, AnApplicationThatIsNotRegisteredAnswers0)
{
    EXPECT_EQ(VTCanAppUseBLIDriver(L"Alpha"), 0u);
    ASSERT_EQ(VTRegisterApplication(L"Alpha"), 0u);
    EXPECT_EQ(VTCanAppUseBLIDriver(L"alpha"), 0u) << "IDs are case-sensitive";
    EXPECT_EQ(VTCanAppUseBLIDriver(L""), 0u);
}

TEST_F(CanAppUse, ADriverThatIsReinstalledOnTheWayAnswers1)
{
    ASSERT_EQ(VTRegisterApplication(L"Alpha"), 0u);
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    EXPECT_EQ(VTCanAppUseBLIDriver(L"Alpha"), 1u);
    EXPECT_EQ(UtilityCommands(machine).size(), 2u);
}

} // namespace
} // namespace vttest
