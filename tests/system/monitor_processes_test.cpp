// Several processes that switch the monitoring of one device class.
#include "support/child.h"
#include "support/driver_expect.h"

namespace vttest {
namespace {

class MonitorProcesses : public MachineTest {
protected:
    Bytes Count() const { return machine.ReadValue(std::wstring(COUNT_KEYS) + SNAPSHOT_CLASS_NAME, MONITOR_COUNT); }
    ChildProcess Child(const std::wstring& rounds, const std::wstring& calls) const
    {
        return ChildProcess(L"monitor_child", {machine.directory(), rounds}, calls);
    }
    std::vector<std::wstring> Filters() const { return List(SNAPSHOT_CLASS, UPPER_FILTERS); }
};

TEST_F(MonitorProcesses, TwoThatSwitchOnAndOffAtOnceLoseNoCount)
{
    const Pause firstsStart(L"VTTest.monitor");
    const Pause secondsStart(L"VTTest.monitor");
    ChildProcess first = Child(L"20", firstsStart.Before(L"CreateMutexW", L"Global"));
    ChildProcess second = Child(L"20", secondsStart.Before(L"CreateMutexW", L"Global"));
    ASSERT_TRUE(firstsStart.AwaitReached(first));
    ASSERT_TRUE(secondsStart.AwaitReached(second));
    firstsStart.Go();
    secondsStart.Go();
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
        EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 0u);
    }
    EXPECT_EQ(first.Join(), 0u);
    EXPECT_EQ(second.Join(), 0u);
    // Each round of a child leaves one request.
    EXPECT_EQ(Count(), NumberBytes(40));
    EXPECT_EQ(Filters(), std::vector<std::wstring>{L"VTFlt"});

    for (int request = 0; request < 40; ++request)
        EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), NumberBytes(0));
    EXPECT_TRUE(Filters().empty());
}

TEST_F(MonitorProcesses, OneThatDiesBehindItsCountLeavesTheMutexToTheNext)
{
    EXPECT_EQ(Child(L"1", DieAfter(L"RegSetValueExW", MONITOR_COUNT)).Join(), VTFLTSIM_KILLED);
    EXPECT_EQ(Count(), NumberBytes(1));
    EXPECT_TRUE(Filters().empty());

    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), NumberBytes(2));
    EXPECT_EQ(Filters(), std::vector<std::wstring>{L"VTFlt"});
}

struct Waiter {
    HANDLE reached;
    DWORD result;
};

void WINAPI NoteReached(void* context, LPCWSTR, LPCWSTR)
{
    SetEvent(static_cast<Waiter*>(context)->reached);
}

DWORD WINAPI Enable(void* context)
{
    static_cast<Waiter*>(context)->result = VTFltEnableMonitorForSnapshot(nullptr);
    return 0;
}

TEST_F(MonitorProcesses, OneThatDiesWhileItHoldsTheMutexLetsAWaiterGoOn)
{
    const Pause pause(L"VTTest.monitor");
    const vtflt::UniqueHandle waits(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    ChildProcess child = Child(L"1", pause.Before(L"RegSetValueExW", MONITOR_COUNT));
    ASSERT_TRUE(pause.AwaitReached(child));

    // The child owns the mutex, between its reading and its writing of the count.
    Waiter waiter{waits.get(), 0xDEAD};
    vtfltsim::Check("VTFltSimCallBefore",
                    VTFltSimCallBefore(L"WaitForSingleObject", SNAPSHOT_CLASS_MUTEX, 1, 1, NoteReached, &waiter));
    const vtflt::UniqueHandle thread(CreateThread(nullptr, 0, Enable, &waiter, 0, nullptr));
    ASSERT_TRUE(thread.valid());
    ASSERT_EQ(WaitForSingleObject(waits.get(), INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(Count().empty());
    ASSERT_TRUE(TerminateProcess(child.Handle(), 1));
    EXPECT_EQ(child.Join(), 1u);
    ASSERT_EQ(WaitForSingleObject(thread.get(), INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(waiter.result, 0u);
    EXPECT_EQ(Count(), NumberBytes(1));
    EXPECT_EQ(Filters(), std::vector<std::wstring>{L"VTFlt"});
}

DWORD WINAPI SwitchAnotherClass(void* context)
{
    constexpr wchar_t ANOTHER[] = L"System\\CurrentControlSet\\Control\\Class\\{another}";
    DWORD& result = static_cast<Waiter*>(context)->result;
    result = VTFltEnableMonitorForSnapshot(ANOTHER);
    if (result == 0)
        result = VTFltEnableMonitorForSnapshot(ANOTHER);
    if (result == 0)
        result = VTFltDisableMonitorForSnapshot(ANOTHER);
    return 0;
}

TEST_F(MonitorProcesses, OneThatHoldsTheMutexOfAClassKeepsNobodyFromAnotherClass)
{
    const Pause pause(L"VTTest.monitor");
    ChildProcess child = Child(L"1", pause.Before(L"RegSetValueExW", MONITOR_COUNT));
    ASSERT_TRUE(pause.AwaitReached(child)); // it owns the mutex

    Waiter waiter{nullptr, 0xDEAD};
    const vtflt::UniqueHandle thread(CreateThread(nullptr, 0, SwitchAnotherClass, &waiter, 0, nullptr));
    ASSERT_TRUE(thread.valid());
    EXPECT_EQ(WaitForSingleObject(thread.get(), 60000), WAIT_OBJECT_0);
    EXPECT_TRUE(Count().empty()) << "it still stands there";
    pause.Go();
    EXPECT_EQ(child.Join(), 0u);
    ASSERT_EQ(WaitForSingleObject(thread.get(), INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(waiter.result, 0u);
    EXPECT_EQ(machine.ReadValue(std::wstring(COUNT_KEYS) + L"{another}", MONITOR_COUNT), NumberBytes(1));
    EXPECT_EQ(Count(), NumberBytes(1));
}

} // namespace
} // namespace vttest
