// Switching the tracking of a device class on and off: the count, the filter list, the names.
#include "support/driver_expect.h"

namespace vttest {
namespace {

class MonitorSwitch : public MachineTest {
protected:
    // The stored count's bytes; empty when there is none. Fails when the type is not the right one.
    Bytes Count(const std::wstring& className = SNAPSHOT_CLASS_NAME) const
    {
        DWORD type = 0;
        const Bytes bytes = machine.ReadValue(COUNT_KEYS + className, MONITOR_COUNT, &type);
        EXPECT_TRUE(bytes.empty() || type == REG_DWORD);
        return bytes;
    }
    void SetCount(DWORD count, const std::wstring& className = SNAPSHOT_CLASS_NAME)
    {
        SetDword(COUNT_KEYS + className, MONITOR_COUNT, count);
    }
    // The filter list's bytes; empty when there is none.
    Bytes Filters(const std::wstring& classKey = SNAPSHOT_CLASS) const
    {
        DWORD type = 0;
        const Bytes bytes = machine.ReadValue(classKey, UPPER_FILTERS, &type);
        EXPECT_TRUE(bytes.empty() || type == REG_MULTI_SZ);
        return bytes;
    }

    const Bytes driverAlone = MultiStringBytes({L"VTFlt"});
    const std::wstring countKey = std::wstring(COUNT_KEYS) + SNAPSHOT_CLASS_NAME;
    const std::wstring snapshotClass = SNAPSHOT_CLASS;
};

TEST_F(MonitorSwitch, TheFirstEnableCreatesTheCountWith1AndAddsTheDriver)
{
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), NumberBytes(1));
    EXPECT_EQ(Filters(), driverAlone);
    log.ExpectExactly({{2, 0, L"VTFltEnableMonitorForSnapshot: Enter VTFltEnableMonitorForSnapshot"},
                       {2, 0, L"EnableMonitorForSnapshot: Count value does not exists. Create and set value to 1.\n"},
                       {2, 0, L"EnableMonitorForSnapshot: Add upper filter succeed for " + snapshotClass + L"\n"}},
                      2);
}

TEST_F(MonitorSwitch, ANullArgumentUsesTheDefaultClassAndItsMutex)
{
    StartRecording();
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(CallsOf(L"CreateMutexW"),
              std::vector<std::wstring>{L"CreateMutexW Global\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}.VTFlt.Mutex"});
    EXPECT_EQ(CallsOf(L"RegCreateKeyExW"),
              (std::vector<std::wstring>{L"RegCreateKeyExW " + countKey, L"RegCreateKeyExW " + countKey}));
    EXPECT_EQ(CallsOf(L"WaitForSingleObject"),
              std::vector<std::wstring>{L"WaitForSingleObject " + std::wstring(SNAPSHOT_CLASS_MUTEX) + L"|4294967295"});
}

TEST_F(MonitorSwitch, EnableTakesItsStepsInThisOrder)
{
    StartRecording();
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    ExpectCalls({// the gate
                 L"CreateFileW", L"DeviceIoControl", L"RegCreateKeyW", L"RegQueryValueExW", L"RegQueryValueExW",
                 L"RegCloseKey", L"CloseHandle",
                 // the mutex, the count, the filter list
                 L"CreateMutexW", L"WaitForSingleObject", L"RegCreateKeyExW", L"RegQueryValueExW", L"RegCloseKey",
                 L"RegCreateKeyExW", L"RegSetValueExW", L"RegCloseKey", L"RegCreateKeyW", L"RegQueryValueExW",
                 L"RegSetValueExW", L"RegCloseKey", L"ReleaseMutex", L"CloseHandle"});
}

TEST_F(MonitorSwitch, TwoEnablesThenOneDisableCount1Then2Then1AndTheDriverStaysListed)
{
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), NumberBytes(1));
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), NumberBytes(2));
    log.Clear();
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), NumberBytes(1));
    EXPECT_EQ(Filters(), driverAlone);
    log.ExpectExactly({{2, 0, L"VTFltDisableMonitorForSnapshot: Enter VTFltDisableMonitorForSnapshot"}});
}

TEST_F(MonitorSwitch, DisableWithTheCountAt1Stores0AndRemovesTheDriver)
{
    ASSERT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    log.Clear();
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), NumberBytes(0));
    EXPECT_TRUE(List(SNAPSHOT_CLASS, UPPER_FILTERS).empty());
    log.ExpectExactly({{2, 0, L"VTFltDisableMonitorForSnapshot: Enter VTFltDisableMonitorForSnapshot"},
                       {2, 0, L"DisableMonitorForSnapshot: Remove upper filter succeed for " + snapshotClass + L"\n"}},
                      2);
}

TEST_F(MonitorSwitch, DisableTakesItsStepsInThisOrder)
{
    ASSERT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    StartRecording();
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 0u);
    ExpectCalls({L"CreateFileW",         L"DeviceIoControl",  L"RegCreateKeyW",    L"RegQueryValueExW",
                 L"RegQueryValueExW",    L"RegCloseKey",      L"CloseHandle",      L"CreateMutexW",
                 L"WaitForSingleObject", L"RegCreateKeyExW",  L"RegQueryValueExW", L"RegCloseKey",
                 L"RegCreateKeyExW",     L"RegSetValueExW",   L"RegCloseKey",      L"RegCreateKeyW",
                 L"RegQueryValueExW",    L"RegQueryValueExW", L"RegSetValueExW",   L"RegCloseKey",
                 L"ReleaseMutex",        L"CloseHandle"});
    EXPECT_EQ(CallsOf(L"CreateMutexW"),
              std::vector<std::wstring>{L"CreateMutexW " + std::wstring(SNAPSHOT_CLASS_MUTEX)});
}

TEST_F(MonitorSwitch, DisableWithNoCountAnswers0AndWritesNothing)
{
    machine.SetFilters({L"VTFlt"}, SNAPSHOT_CLASS);
    StartRecording();
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 0u);
    EXPECT_TRUE(CallsOf(L"RegSetValueExW").empty());
    EXPECT_TRUE(Count().empty());
    EXPECT_EQ(Filters(), driverAlone);
    log.ExpectExactly(
        {{2, 0, L"VTFltDisableMonitorForSnapshot: Enter VTFltDisableMonitorForSnapshot"},
         {2, 0,
          L"DisableMonitorForSnapshot: Count value does not exists for " + countKey + L". Nothing to disable !! \n"}});
}

TEST_F(MonitorSwitch, DisableWithAStoredCountOf0WrapsTo0xFFFFFFFFAndDoesNotTouchTheFilterList)
{
    SetCount(0);
    machine.SetFilters({L"VTFlt"}, SNAPSHOT_CLASS);
    StartRecording();
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), NumberBytes(0xFFFFFFFF));
    EXPECT_EQ(Filters(), driverAlone);
    EXPECT_EQ(CallsOf(L"RegSetValueExW").size(), 1u);
}

TEST_F(MonitorSwitch, EnableOfACountOf0xFFFFFFFFWrapsTo0)
{
    SetCount(0xFFFFFFFF);
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), NumberBytes(0));
    EXPECT_EQ(Filters(), driverAlone);
}

TEST_F(MonitorSwitch, EveryEnableAddsTheDriverNotOnlyTheFirst)
{
    ASSERT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    machine.SetFilters({L"other"}, SNAPSHOT_CLASS);
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), NumberBytes(2));
    EXPECT_EQ(Filters(), MultiStringBytes({L"other", L"VTFlt"}));
}

TEST_F(MonitorSwitch, AnEnableLeavesAListThatHasTheDriverAsItIs)
{
    machine.SetFilters({L"a", L"VTFlt", L"b"}, SNAPSHOT_CLASS);
    StartRecording();
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Filters(), MultiStringBytes({L"a", L"VTFlt", L"b"}));
    EXPECT_EQ(CallsOf(L"RegSetValueExW"),
              std::vector<std::wstring>{L"RegSetValueExW " + countKey + L"|" + MONITOR_COUNT});
}

TEST_F(MonitorSwitch, TheLastDisableKeepsTheOtherFilters)
{
    machine.SetFilters({L"a", L"VTFlt", L"b"}, SNAPSHOT_CLASS);
    SetCount(1);
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Filters(), MultiStringBytes({L"a", L"b"}));
}

TEST_F(MonitorSwitch, TheLastDisableOfAListWithoutTheDriverSucceeds)
{
    SetCount(1);
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), NumberBytes(0));
    EXPECT_TRUE(Filters().empty());
}

TEST_F(MonitorSwitch, ATrailingBackslashGivesTheSameClassNameAndMutex)
{
    const std::wstring withBackslash = snapshotClass + L"\\";
    StartRecording();
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(withBackslash.c_str()), 0u);
    EXPECT_EQ(CallsOf(L"CreateMutexW"),
              std::vector<std::wstring>{L"CreateMutexW " + std::wstring(SNAPSHOT_CLASS_MUTEX)});
    EXPECT_EQ(Count(), NumberBytes(1));
    EXPECT_EQ(Filters(), driverAlone);
    // The path itself is used and shown as it was given.
    log.ExpectLogged(2, 0, L"EnableMonitorForSnapshot: Add upper filter succeed for " + withBackslash + L"\n");
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), NumberBytes(0));
}

TEST_F(MonitorSwitch, OnlyOneTrailingBackslashIsRemovedFromTheClassName)
{
    StartRecording();
    VTFltDisableMonitorForSnapshot(L"Classes\\Name\\\\");
    EXPECT_EQ(CallsOf(L"CreateMutexW"), std::vector<std::wstring>{L"CreateMutexW Global\\.VTFlt.Mutex"});
}

TEST_F(MonitorSwitch, APathWithoutABackslashIsItsOwnClassName)
{
    StartRecording();
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(L"MyClass"), 0u);
    EXPECT_EQ(CallsOf(L"CreateMutexW"), std::vector<std::wstring>{L"CreateMutexW Global\\MyClass.VTFlt.Mutex"});
    EXPECT_EQ(Count(L"MyClass"), NumberBytes(1));
    EXPECT_EQ(Filters(L"MyClass"), driverAlone);
}

TEST_F(MonitorSwitch, ClassesAreCountedApart)
{
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(L"Classes\\One"), 0u);
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(L"Classes\\One"), 0u);
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(L"Classes\\Two"), 0u);
    EXPECT_EQ(Count(L"One"), NumberBytes(2));
    EXPECT_EQ(Count(L"Two"), NumberBytes(1));
    EXPECT_TRUE(Count().empty());
    EXPECT_TRUE(Filters().empty());
}

TEST_F(MonitorSwitch, AnEmptyPathAnswers87AndTakesNoMutex)
{
    StartRecording();
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(L""), 87u);
    log.ExpectExactly({{2, 0, L"VTFltEnableMonitorForSnapshot: Enter VTFltEnableMonitorForSnapshot"},
                       {0, 87, L"VTFltEnableMonitorForSnapshot: Registry class name is empty\n"}});
    log.Clear();
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(L""), 87u);
    log.ExpectExactly({{2, 0, L"VTFltDisableMonitorForSnapshot: Enter VTFltDisableMonitorForSnapshot"},
                       {0, 87, L"VTFltDisableMonitorForSnapshot: Registry class name is empty\n"}});
    EXPECT_TRUE(CallsOf(L"CreateMutexW").empty());
    EXPECT_TRUE(CallsOf(L"RegSetValueExW").empty());
}

TEST_F(MonitorSwitch, TheGateAnswers0BeforeAnythingElseEvenForAnEmptyPath)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    const LogRecord notOpen{2, 0, L"VTCanBLIDriverWork: Open device \\\\.\\VTFltMgr failed, Error:2."};
    StartRecording();
    for (const wchar_t* path : {static_cast<const wchar_t*>(nullptr), L""}) {
        log.Clear();
        EXPECT_EQ(VTFltEnableMonitorForSnapshot(path), 0u);
        log.ExpectExactly({{2, 0, L"VTFltEnableMonitorForSnapshot: Enter VTFltEnableMonitorForSnapshot"},
                           notOpen,
                           {2, 0, L"VTFltEnableMonitorForSnapshot: Driver not installed or not working"}});
        log.Clear();
        EXPECT_EQ(VTFltDisableMonitorForSnapshot(path), 0u);
        log.ExpectExactly({{2, 0, L"VTFltDisableMonitorForSnapshot: Enter VTFltDisableMonitorForSnapshot"},
                           notOpen,
                           {2, 0, L"VTFltDisableMonitorForSnapshot: Driver not installed or not working"}});
    }
    EXPECT_TRUE(CallsOf(L"CreateMutexW").empty());
    EXPECT_TRUE(Count().empty());
    EXPECT_TRUE(Filters().empty());
}

TEST_F(MonitorSwitch, TheCountOutlivesARestart)
{
    ASSERT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    ASSERT_EQ(VTFltSimReboot(machine.handle()), 0u);
    EXPECT_EQ(Count(), NumberBytes(1));
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), NumberBytes(0));
}

} // namespace
} // namespace vttest
