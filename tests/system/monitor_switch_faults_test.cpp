// Switching monitoring when a step fails: the mutex, the count, the filter list.
#include "support/driver_expect.h"

#include <algorithm>

namespace vttest {
namespace {

struct Switch {
    const wchar_t* name; // of the export, and behind "VTFlt" of its inner step
    DWORD(WINAPI* run)(LPCWSTR);
};

constexpr Switch SWITCHES[] = {{L"EnableMonitorForSnapshot", VTFltEnableMonitorForSnapshot},
                               {L"DisableMonitorForSnapshot", VTFltDisableMonitorForSnapshot}};

class MonitorSwitchFaults : public MachineTest {
protected:
    // Two requests are counted and the driver is listed; one more or one less leaves it so.
    MonitorSwitchFaults() { Restore(2); }

    void Restore(DWORD count)
    {
        SetDword(countKey, MONITOR_COUNT, count);
        machine.SetFilters({L"VTFlt"}, SNAPSHOT_CLASS);
        VTFltSimClearCallFaults();
        log.Clear();
    }
    DWORD Count() const
    {
        const Bytes bytes = machine.ReadValue(countKey, MONITOR_COUNT);
        DWORD count = 0xDEAD;
        if (bytes.size() == sizeof(count))
            std::copy(bytes.begin(), bytes.end(), reinterpret_cast<BYTE*>(&count));
        return count;
    }
    bool IsDriverListed() const { return !List(SNAPSHOT_CLASS, UPPER_FILTERS).empty(); }
    // The records behind the one of the entry.
    void ExpectErrors(const Switch& which, const std::vector<LogRecord>& records)
    {
        const std::wstring name = std::wstring(L"VTFlt") + which.name;
        std::vector<LogRecord> all;
        all.push_back({2, 0, name + L": Enter " + name});
        all.insert(all.end(), records.begin(), records.end());
        log.ExpectExactly(all);
    }
    static std::wstring Outer(const Switch& which, const std::wstring& text)
    {
        return std::wstring(L"VTFlt") + which.name + L": " + text;
    }

    const std::wstring countKey = std::wstring(COUNT_KEYS) + SNAPSHOT_CLASS_NAME;
    const std::wstring snapshotClass = SNAPSHOT_CLASS;
    const std::wstring mutexName = SNAPSHOT_CLASS_MUTEX;
};

// ---- The mutex ----

TEST_F(MonitorSwitchFaults, AMutexThatCannotBeMadeReturnsItsErrorAndChangesNothing)
{
    for (const Switch& which : SWITCHES) {
        Restore(2);
        vtfltsim::FailCall(L"CreateMutexW", ERROR_INVALID_HANDLE, mutexName.c_str());
        StartRecording();
        EXPECT_EQ(which.run(nullptr), 6u);
        ExpectErrors(which,
                     {{0, 6, Outer(which, L"Failed to create mutex: " + mutexName + L". Trying to open it. \n")}});
        EXPECT_TRUE(CallsOf(L"OpenMutexW").empty());
        EXPECT_TRUE(CallsOf(L"WaitForSingleObject").empty());
        EXPECT_EQ(Count(), 2u);
        ExpectNothingLeftOpen();
    }
}

TEST_F(MonitorSwitchFaults, AMutexOfAMorePrivilegedProcessIsOpenedInstead)
{
    const vtflt::UniqueHandle others(CreateMutexW(nullptr, FALSE, mutexName.c_str()));
    ASSERT_TRUE(others.valid());
    for (const Switch& which : SWITCHES) {
        Restore(2);
        vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, mutexName.c_str());
        StartRecording();
        EXPECT_EQ(which.run(nullptr), 0u);
        log.ExpectLogged(0, 5, Outer(which, L"Failed to create mutex: " + mutexName + L". Trying to open it. \n"));
        log.ExpectLogged(2, 0, Outer(which, L"Open mutex: SUCCESS. " + mutexName + L".\n"));
        EXPECT_EQ(CallsOf(L"OpenMutexW"), std::vector<std::wstring>{L"OpenMutexW " + mutexName});
        EXPECT_NE(Count(), 2u);
        EXPECT_EQ(VTFltSimGetOpenCount(VTFLTSIM_OPEN_MUTEXES), 1u) << "the test's own";
    }
}

TEST_F(MonitorSwitchFaults, AMutexThatCanNeitherBeMadeNorOpenedReturnsTheOpensError)
{
    for (const Switch& which : SWITCHES) {
        Restore(2);
        vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, mutexName.c_str());
        vtfltsim::FailCall(L"OpenMutexW", ERROR_FILE_NOT_FOUND, mutexName.c_str());
        EXPECT_EQ(which.run(nullptr), 2u);
        ExpectErrors(which, {{0, 5, Outer(which, L"Failed to create mutex: " + mutexName + L". Trying to open it. \n")},
                             {0, 2, Outer(which, L"Failed to open mutex: " + mutexName + L".\n")}});
        EXPECT_EQ(Count(), 2u);
        ExpectNothingLeftOpen();
    }
}

TEST_F(MonitorSwitchFaults, AWaitResultOtherThanOwnershipIsReturnedAsItIs)
{
    for (const Switch& which : SWITCHES) {
        for (const DWORD result : {DWORD{WAIT_TIMEOUT}, DWORD{WAIT_FAILED}, DWORD{0xC0}}) {
            Restore(2);
            ForceCall(L"WaitForSingleObject", result, ERROR_INVALID_HANDLE, mutexName.c_str());
            StartRecording();
            EXPECT_EQ(which.run(nullptr), result);
            ExpectErrors(which,
                         {{0, result, Outer(which, L"Failed to get ownership of the mutex " + mutexName + L"\n")}});
            EXPECT_TRUE(CallsOf(L"ReleaseMutex").empty());
            EXPECT_EQ(Count(), 2u);
            ExpectNothingLeftOpen();
        }
    }
}

struct Abandoned {
    const wchar_t* name;
    vtflt::UniqueHandle mutex;
};

// The thread ends as the mutex's owner; the handle stays open.
DWORD WINAPI AbandonMutex(void* context)
{
    auto* const abandoned = static_cast<Abandoned*>(context);
    abandoned->mutex.reset(CreateMutexW(nullptr, TRUE, abandoned->name));
    return 0;
}

TEST_F(MonitorSwitchFaults, AnAbandonedMutexCountsAsOwned)
{
    for (const Switch& which : SWITCHES) {
        Restore(2);
        Abandoned abandoned{mutexName.c_str(), {}};
        const vtflt::UniqueHandle thread(CreateThread(nullptr, 0, AbandonMutex, &abandoned, 0, nullptr));
        ASSERT_TRUE(thread.valid());
        ASSERT_EQ(WaitForSingleObject(thread.get(), INFINITE), WAIT_OBJECT_0);
        ASSERT_TRUE(abandoned.mutex.valid());
        EXPECT_EQ(which.run(nullptr), 0u);
        EXPECT_NE(Count(), 2u);
        if (LogCapture::VISIBLE) {
            for (const LogRecord& record : log.Records())
                EXPECT_NE(record.level, 0) << Narrow(record.text);
        }
    }
}

TEST_F(MonitorSwitchFaults, AReleaseThatFailsIsLoggedAndTheMutexStillClosed)
{
    for (const Switch& which : SWITCHES) {
        Restore(2);
        FailCallAfterwards(L"ReleaseMutex", ERROR_NOT_OWNER, mutexName.c_str());
        EXPECT_EQ(which.run(nullptr), 0u);
        log.ExpectLogged(0, 288, std::wstring(which.name) + L": Failed to release mutex.\n");
        ExpectNothingLeftOpen();
    }
}

// ---- The count ----

// Whatever the reason: a key that could not be made is not a value that is absent (2), for which the count begins anew.
TEST_F(MonitorSwitchFaults, ACountKeyThatCannotBeOpenedEndsEnableWithItsError)
{
    for (const DWORD error : {DWORD{ERROR_ACCESS_DENIED}, DWORD{ERROR_FILE_NOT_FOUND}}) {
        Restore(2);
        vtfltsim::FailCall(L"RegCreateKeyExW", error, countKey.c_str());
        StartRecording();
        EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), error);
        ExpectErrors(SWITCHES[0],
                     {{0, error, L"EnableMonitorForSnapshot: Failed to get/set count value for " + countKey + L"\n"}});
        EXPECT_TRUE(CallsOf(L"RegSetValueExW").empty());
        EXPECT_EQ(CallsOf(L"ReleaseMutex").size(), 1u);
    }
}

TEST_F(MonitorSwitchFaults, ACountKeyThatCannotBeOpenedEndsDisableWithItsError)
{
    for (const DWORD error : {DWORD{ERROR_ACCESS_DENIED}, DWORD{ERROR_FILE_NOT_FOUND}}) {
        Restore(2);
        vtfltsim::FailCall(L"RegCreateKeyExW", error, countKey.c_str());
        StartRecording();
        EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), error);
        ExpectErrors(SWITCHES[1],
                     {{0, error, L"DisableMonitorForSnapshot: Failed to get count value from " + countKey + L"\n"}});
        EXPECT_TRUE(CallsOf(L"RegSetValueExW").empty());
        EXPECT_EQ(CallsOf(L"ReleaseMutex").size(), 1u);
    }
}

TEST_F(MonitorSwitchFaults, ACountOfAnotherTypeReadsAsInvalidData)
{
    for (const Bytes& bytes : {NumberBytes(1), Bytes(8), TextBytes(L"17")}) {
        for (const DWORD type : {DWORD{REG_BINARY}, DWORD{REG_SZ}, DWORD{REG_QWORD}}) {
            Restore(2);
            machine.WriteValue(countKey, MONITOR_COUNT, type, bytes);
            EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 13u);
            ExpectErrors(SWITCHES[0],
                         {{0, 13, L"EnableMonitorForSnapshot: Failed to get/set count value for " + countKey + L"\n"}});
            log.Clear();
            EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 13u);
            ExpectErrors(SWITCHES[1],
                         {{0, 13, L"DisableMonitorForSnapshot: Failed to get count value from " + countKey + L"\n"}});
            EXPECT_EQ(machine.ReadValue(countKey, MONITOR_COUNT), bytes);
        }
    }
}

TEST_F(MonitorSwitchFaults, ANumberOfMoreThan4BytesIsNotRead)
{
    machine.WriteValue(countKey, MONITOR_COUNT, REG_DWORD, Bytes(8));
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 234u);
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 234u);
    EXPECT_EQ(machine.ReadValue(countKey, MONITOR_COUNT), Bytes(8));
}

TEST_F(MonitorSwitchFaults, ANumberOfLessThan4BytesIsRead)
{
    machine.WriteValue(countKey, MONITOR_COUNT, REG_DWORD, Bytes{5});
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 0u);
    EXPECT_EQ(Count(), 6u);
}

TEST_F(MonitorSwitchFaults, ACountThatCannotBeWrittenEndsEnableWithItsErrorAndLeavesTheList)
{
    machine.SetFilters({L"other"}, SNAPSHOT_CLASS);
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, MONITOR_COUNT);
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 112u);
    ExpectErrors(SWITCHES[0],
                 {{0, 112, L"EnableMonitorForSnapshot: Failed to get/set count value for " + countKey + L"\n"}});
    EXPECT_EQ(Count(), 2u);
    EXPECT_EQ(List(SNAPSHOT_CLASS, UPPER_FILTERS), std::vector<std::wstring>{L"other"});
}

TEST_F(MonitorSwitchFaults, ACountThatCannotBeWrittenEndsDisableWithItsErrorAndLeavesTheList)
{
    Restore(1);
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, MONITOR_COUNT);
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 112u);
    ExpectErrors(SWITCHES[1],
                 {{0, 112, L"DisableMonitorForSnapshot: Failed to set count value to " + countKey + L"\n"}});
    EXPECT_EQ(Count(), 1u);
    EXPECT_TRUE(IsDriverListed());
}

// ---- The filter list ----

TEST_F(MonitorSwitchFaults, AFailedAddIsReturnedAndTheCountGoesBack)
{
    machine.SetFilters({L"other"}, SNAPSHOT_CLASS);
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, UPPER_FILTERS);
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 112u);
    log.ExpectLogged(0, 112, L"EnableMonitorForSnapshot; Add upper filter failed for " + snapshotClass + L"\n");
    log.ExpectNotLogged(L"EnableMonitorForSnapshot: Add upper filter succeed for " + snapshotClass);
    EXPECT_EQ(Count(), 2u);
    EXPECT_EQ(List(SNAPSHOT_CLASS, UPPER_FILTERS), std::vector<std::wstring>{L"other"});
}

TEST_F(MonitorSwitchFaults, AFailedAddLeavesAnAbsentCountAs0NotRemoved)
{
    DeleteValue(countKey, MONITOR_COUNT);
    vtfltsim::FailCall(L"RegCreateKeyW", ERROR_ACCESS_DENIED, L"{533C5B84-EC70-11D2-9505-00C04F79DEAF}");
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 5u);
    log.ExpectLogged(0, 5, L"EnableMonitorForSnapshot; Add upper filter failed for " + snapshotClass + L"\n");
    EXPECT_TRUE(ValueExists(countKey, MONITOR_COUNT));
    EXPECT_EQ(Count(), 0u);
}

TEST_F(MonitorSwitchFaults, AFailedAddWhoseCountCannotGoBackReturnsTheAddsError)
{
    machine.SetFilters({}, SNAPSHOT_CLASS);
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, UPPER_FILTERS);
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_ACCESS_DENIED, MONITOR_COUNT, 2);
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(nullptr), 112u);
    log.ExpectLogged(0, 112, L"EnableMonitorForSnapshot; Add upper filter failed for " + snapshotClass + L"\n");
    log.ExpectLogged(0, 5, L"EnableMonitorForSnapshot: Failed to set back count value to " + countKey + L"\n");
    EXPECT_EQ(Count(), 3u);
}

TEST_F(MonitorSwitchFaults, AFailedRemovalIsReturnedAndTheCountGoesBackTo1)
{
    Restore(1);
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, UPPER_FILTERS);
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 112u);
    log.ExpectLogged(0, 112, L"DisableMonitorForSnapshot: Remove upper filter failed for " + snapshotClass + L"\n");
    log.ExpectNotLogged(L"DisableMonitorForSnapshot: Remove upper filter succeed for " + snapshotClass);
    EXPECT_EQ(Count(), 1u);
    EXPECT_TRUE(IsDriverListed());
}

TEST_F(MonitorSwitchFaults, AFailedRemovalWhoseCountCannotGoBackReturnsTheRemovalsError)
{
    Restore(1);
    vtfltsim::FailCall(L"RegCreateKeyW", ERROR_ACCESS_DENIED, L"{533C5B84-EC70-11D2-9505-00C04F79DEAF}");
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, MONITOR_COUNT, 2);
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(nullptr), 5u);
    log.ExpectLogged(0, 5, L"DisableMonitorForSnapshot: Remove upper filter failed for " + snapshotClass + L"\n");
    log.ExpectLogged(0, 112, L"DisableMonitorForSnapshot: Failed to set back count value to " + countKey + L"\n");
    EXPECT_EQ(Count(), 0u);
    EXPECT_TRUE(IsDriverListed());
}

// ---- Class names ----

TEST_F(MonitorSwitchFaults, ACountKeyOf259UnitsWorksAndALongerOneIsRejectedUntouched)
{
    const std::size_t room = 259 - (std::wstring(COUNT_KEYS).size());
    const std::wstring fits(room, L'c');
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(fits.c_str()), 0u);
    EXPECT_EQ(machine.ReadValue(COUNT_KEYS + fits, MONITOR_COUNT), NumberBytes(1));

    log.Clear();
    const std::wstring tooLong(room + 1, L'c');
    StartRecording();
    EXPECT_EQ(VTFltEnableMonitorForSnapshot(tooLong.c_str()), 206u);
    EXPECT_EQ(VTFltDisableMonitorForSnapshot(tooLong.c_str()), 206u);
    EXPECT_TRUE(CallsOf(L"RegCreateKeyExW").empty());
    EXPECT_TRUE(CallsOf(L"RegSetValueExW").empty());
    log.ExpectLogged(0, 206, L"EnableMonitorForSnapshot: Failed to get/set count value for " + (COUNT_KEYS + tooLong));
    log.ExpectLogged(0, 206, L"DisableMonitorForSnapshot: Failed to get count value from " + (COUNT_KEYS + tooLong));
}

// ---- Memory ----

TEST_F(MonitorSwitchFaults, WhereverMemoryRunsOutTheMutexIsGivenBackAndTheCountFitsTheList)
{
    machine.SetService(VTFLTSIM_SERVICE_ABSENT); // or a failed gate would reinstall the driver
    for (const Switch& which : SWITCHES) {
        const bool enables = which.run == VTFltEnableMonitorForSnapshot;
        const auto prepare = [&] {
            SetDword(countKey, MONITOR_COUNT, enables ? 0 : 1);
            machine.SetFilters(enables ? std::vector<std::wstring>{L"other"} : std::vector<std::wstring>{L"VTFlt"},
                               SNAPSHOT_CLASS);
        };
        const auto check = [&](DWORD result) {
            EXPECT_TRUE(result == 0 || result == 8) << result;
            const std::vector<std::wstring> filters = List(SNAPSHOT_CLASS, UPPER_FILTERS);
            const bool listed = !filters.empty() && filters.back() == L"VTFlt";
            EXPECT_EQ(Count() != 0, listed) << Narrow(which.name) << ", result " << result;
            ExpectNothingLeftOpen();
        };
        EXPECT_GT(ForEveryFailingAllocation(
                      prepare, [&] { return which.run(nullptr); }, check),
                  3);
    }
}

TEST_F(MonitorSwitchFaults, ACountKeyThatIsRefusedBehindItsReadingEndsTheSwitchWithTheCountAsItWas)
{
    const wchar_t* const records[] = {L"EnableMonitorForSnapshot: Failed to get/set count value for ",
                                      L"DisableMonitorForSnapshot: Failed to set count value to "};
    for (const Switch& which : SWITCHES) {
        Restore(2);
        vtfltsim::FailCall(L"RegCreateKeyExW", ERROR_ACCESS_DENIED, countKey.c_str(), 2);
        EXPECT_EQ(which.run(nullptr), 5u);
        EXPECT_EQ(VTFltSimGetCallFaultHits(), 1u);
        VTFltSimClearCallFaults();
        const bool enables = which.run == VTFltEnableMonitorForSnapshot;
        log.ExpectLogged(0, 5, records[enables ? 0 : 1] + countKey);
        EXPECT_EQ(Count(), 2u);
        EXPECT_TRUE(IsDriverListed());
    }
}

} // namespace
} // namespace vttest
