// The inner steps of the monitoring switch: null arguments, and what becomes of the mutex.
#include "api/monitor_switch.h"
#include "support/driver_expect.h"

namespace vttest {
namespace {

struct Step {
    const wchar_t* name;
    DWORD (*run)(const wchar_t* classKeyPath, const wchar_t* className, HANDLE& mutex);
};

constexpr Step STEPS[] = {{L"EnableMonitorForSnapshot", vtflt::EnableMonitorForSnapshot},
                          {L"DisableMonitorForSnapshot", vtflt::DisableMonitorForSnapshot}};

class MonitorSteps : public MachineTest {
protected:
    static HANDLE OwnedMutex()
    {
        const HANDLE mutex = CreateMutexW(nullptr, FALSE, L"MonitorSteps.Test.Mutex");
        EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
        return mutex;
    }
};

TEST_F(MonitorSteps, ANullClassKeyPathGives160AndTheMutexIsReleasedAndClosed)
{
    for (const Step& step : STEPS) {
        HANDLE mutex = OwnedMutex();
        log.Clear();
        StartRecording();
        EXPECT_EQ(step.run(nullptr, L"Class", mutex), 160u);
        log.ExpectExactly({{0, 160, std::wstring(step.name) + L": lpClassPath is NULL !!\n"}});
        EXPECT_EQ(mutex, INVALID_HANDLE_VALUE);
        ExpectCalls({L"ReleaseMutex", L"CloseHandle"});
        ExpectNothingLeftOpen();
    }
}

TEST_F(MonitorSteps, ANullClassNameGives160AndTheMutexIsReleasedAndClosed)
{
    for (const Step& step : STEPS) {
        HANDLE mutex = OwnedMutex();
        log.Clear();
        StartRecording();
        EXPECT_EQ(step.run(L"Classes\\Class", nullptr, mutex), 160u);
        log.ExpectExactly({{0, 160, std::wstring(step.name) + L": lpClassName is NULL !!\n"}});
        EXPECT_EQ(mutex, INVALID_HANDLE_VALUE);
        ExpectCalls({L"ReleaseMutex", L"CloseHandle"});
        ExpectNothingLeftOpen();
    }
}

TEST_F(MonitorSteps, AHandleThatAlreadyIsInvalidIsLeftAlone)
{
    for (const Step& step : STEPS) {
        HANDLE mutex = INVALID_HANDLE_VALUE;
        log.Clear();
        StartRecording();
        EXPECT_EQ(step.run(nullptr, L"Class", mutex), 160u);
        EXPECT_EQ(mutex, INVALID_HANDLE_VALUE);
        EXPECT_TRUE(vtfltsim::Trace().empty());
        log.ExpectNotLogged(std::wstring(step.name) + L": Failed to release mutex.");
    }
}

TEST_F(MonitorSteps, AMutexThatCannotBeReleasedIsLoggedWithItsErrorAndClosed)
{
    for (const Step& step : STEPS) {
        HANDLE mutex = CreateMutexW(nullptr, FALSE, L"MonitorSteps.Test.Mutex"); // not owned
        log.Clear();
        EXPECT_EQ(step.run(nullptr, L"Class", mutex), 160u);
        log.ExpectLogged(0, 288, std::wstring(step.name) + L": Failed to release mutex.\n");
        EXPECT_EQ(mutex, INVALID_HANDLE_VALUE);
        ExpectNothingLeftOpen();
    }
}

TEST_F(MonitorSteps, AStepThatSucceedsGivesTheMutexUpToo)
{
    HANDLE mutex = OwnedMutex();
    EXPECT_EQ(vtflt::EnableMonitorForSnapshot(SNAPSHOT_CLASS, SNAPSHOT_CLASS_NAME, mutex), 0u);
    EXPECT_EQ(mutex, INVALID_HANDLE_VALUE);
    mutex = OwnedMutex();
    EXPECT_EQ(vtflt::DisableMonitorForSnapshot(SNAPSHOT_CLASS, SNAPSHOT_CLASS_NAME, mutex), 0u);
    EXPECT_EQ(mutex, INVALID_HANDLE_VALUE);
    ExpectNothingLeftOpen();
}

} // namespace
} // namespace vttest
