// The counting of requests and the change of the filter list.
#include "api/library.h"
#include "api/monitor_switch.h"
#include "api/upper_filters.h"
#include "driver/protocol.h"
#include "log/log.h"
#include "registry/multi_string_value.h"
#include "registry/value.h"

#include <optional>
#include <string>

namespace vtflt {

namespace {

constexpr wchar_t COUNT_KEY_PREFIX[] = L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTFltMgr";
constexpr wchar_t COUNT_VALUE[] = L"SnapshotMonitorCount";
constexpr std::size_t MAX_COUNT_KEY_UNITS = 259;

// Gives the class mutex up at the end of a step, whichever way it ends.
class ClassMutexRelease {
public:
    ClassMutexRelease(HANDLE& mutex, const wchar_t* releaseFailed) noexcept
        : m_mutex(mutex), m_releaseFailed(releaseFailed)
    {
    }
    ClassMutexRelease(const ClassMutexRelease&) = delete;
    ClassMutexRelease& operator=(const ClassMutexRelease&) = delete;
    ~ClassMutexRelease()
    {
        if (m_mutex == INVALID_HANDLE_VALUE)
            return;
        if (!ReleaseMutex(m_mutex))
            Log(LOG_ERROR, GetLastError(), m_releaseFailed);
        CloseHandle(m_mutex);
        m_mutex = INVALID_HANDLE_VALUE;
    }

private:
    HANDLE& m_mutex;
    const wchar_t* m_releaseFailed;
};

std::wstring BuildCountKey(const wchar_t* className)
{
    return std::wstring(COUNT_KEY_PREFIX) + L"\\" + className;
}

// The stored count; none when there is none yet. Makes the key when it is missing: only the value is ever absent, and a
// key that could not be had, whatever the reason given, is a failure.
DWORD ReadCount(const std::wstring& countKey, std::optional<DWORD>& count)
{
    count.reset();
    if (countKey.size() > MAX_COUNT_KEY_UNITS)
        return ERROR_FILENAME_EXCED_RANGE;
    UniqueKey key;
    DWORD error = OpenSettingsKey(countKey.c_str(), key);
    if (error != ERROR_SUCCESS)
        return error;
    DWORD stored = 0;
    error = ReadDwordValue(key.get(), COUNT_VALUE, stored);
    if (error == ERROR_FILE_NOT_FOUND)
        return ERROR_SUCCESS;
    if (error == ERROR_SUCCESS)
        count = stored;
    return error;
}

DWORD WriteCount(const std::wstring& countKey, DWORD count)
{
    UniqueKey key;
    const DWORD error = OpenSettingsKey(countKey.c_str(), key);
    return error == ERROR_SUCCESS ? WriteDwordValue(key.get(), COUNT_VALUE, count) : error;
}

// The list's change is guarded by itself: when memory runs out in the middle, the count must still go back.
DWORD AddFilter(const wchar_t* classKeyPath)
{
    return Guarded(L"AddMultiSZRegistryEntry",
                   [&] { return AddMultiSZRegistryEntry(classKeyPath, UPPER_FILTERS_VALUE, DRIVER_NAME); });
}

DWORD RemoveFilter(const wchar_t* classKeyPath)
{
    return Guarded(L"RemoveMultiSZRegistryEntry",
                   [&] { return RemoveMultiSZRegistryEntry(classKeyPath, UPPER_FILTERS_VALUE, DRIVER_NAME); });
}

// Counts one request more; newCount is what was stored.
DWORD CountUp(const std::wstring& countKey, DWORD& newCount)
{
    std::optional<DWORD> count;
    DWORD error = ReadCount(countKey, count);
    if (error == ERROR_SUCCESS && !count)
        Log(LOG_INFORMATION, ERROR_SUCCESS,
            L"EnableMonitorForSnapshot: Count value does not exists. Create and set value to 1.\n");
    newCount = count.value_or(0) + 1;
    if (error == ERROR_SUCCESS)
        error = WriteCount(countKey, newCount);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"EnableMonitorForSnapshot: Failed to get/set count value for %s\n", countKey.c_str());
    }
    return error;
}

DWORD Enable(const wchar_t* classKeyPath, const wchar_t* className)
{
    const std::wstring countKey = BuildCountKey(className);
    DWORD newCount = 0;
    DWORD error = CountUp(countKey, newCount);
    if (error != ERROR_SUCCESS)
        return error;

    // Not only for the first request: whatever took the driver off the list meanwhile is mended.
    error = AddFilter(classKeyPath);
    if (error == ERROR_SUCCESS) {
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"EnableMonitorForSnapshot: Add upper filter succeed for %s\n",
            classKeyPath);
        return ERROR_SUCCESS;
    }

    Log(LOG_ERROR, error, L"EnableMonitorForSnapshot; Add upper filter failed for %s\n", classKeyPath);
    const DWORD backError = WriteCount(countKey, newCount - 1);
    if (backError != ERROR_SUCCESS) {
        Log(LOG_ERROR, backError, L"EnableMonitorForSnapshot: Failed to set back count value to %s\n",
            countKey.c_str());
    }
    return error;
}

// The last request went: the driver leaves the list, or the count goes back.
DWORD RemoveLast(const wchar_t* classKeyPath, const std::wstring& countKey, DWORD count)
{
    const DWORD error = RemoveFilter(classKeyPath);
    if (error == ERROR_SUCCESS) {
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"DisableMonitorForSnapshot: Remove upper filter succeed for %s\n",
            classKeyPath);
        return ERROR_SUCCESS;
    }

    Log(LOG_ERROR, error, L"DisableMonitorForSnapshot: Remove upper filter failed for %s\n", classKeyPath);
    const DWORD backError = WriteCount(countKey, count);
    if (backError != ERROR_SUCCESS) {
        Log(LOG_ERROR, backError, L"DisableMonitorForSnapshot: Failed to set back count value to %s\n",
            countKey.c_str());
    }
    return error;
}

DWORD Disable(const wchar_t* classKeyPath, const wchar_t* className)
{
    const std::wstring countKey = BuildCountKey(className);
    std::optional<DWORD> count;
    DWORD error = ReadCount(countKey, count);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"DisableMonitorForSnapshot: Failed to get count value from %s\n", countKey.c_str());
        return error;
    }
    if (!count) {
        Log(LOG_INFORMATION, ERROR_SUCCESS,
            L"DisableMonitorForSnapshot: Count value does not exists for %s. Nothing to disable !! \n",
            countKey.c_str());
        return ERROR_SUCCESS;
    }

    // A stored 0 wraps to 0xFFFFFFFF.
    error = WriteCount(countKey, *count - 1);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"DisableMonitorForSnapshot: Failed to set count value to %s\n", countKey.c_str());
        return error;
    }
    return *count == 1 ? RemoveLast(classKeyPath, countKey, *count) : ERROR_SUCCESS;
}

} // namespace

DWORD EnableMonitorForSnapshot(const wchar_t* classKeyPath, const wchar_t* className, HANDLE& mutex)
{
    const ClassMutexRelease release(mutex, L"EnableMonitorForSnapshot: Failed to release mutex.\n");
    if (classKeyPath == nullptr)
        Log(LOG_ERROR, ERROR_BAD_ARGUMENTS, L"EnableMonitorForSnapshot: lpClassPath is NULL !!\n");
    if (className == nullptr)
        Log(LOG_ERROR, ERROR_BAD_ARGUMENTS, L"EnableMonitorForSnapshot: lpClassName is NULL !!\n");
    if (classKeyPath == nullptr || className == nullptr)
        return ERROR_BAD_ARGUMENTS;
    return Enable(classKeyPath, className);
}

DWORD DisableMonitorForSnapshot(const wchar_t* classKeyPath, const wchar_t* className, HANDLE& mutex)
{
    const ClassMutexRelease release(mutex, L"DisableMonitorForSnapshot: Failed to release mutex.\n");
    if (classKeyPath == nullptr)
        Log(LOG_ERROR, ERROR_BAD_ARGUMENTS, L"DisableMonitorForSnapshot: lpClassPath is NULL !!\n");
    if (className == nullptr)
        Log(LOG_ERROR, ERROR_BAD_ARGUMENTS, L"DisableMonitorForSnapshot: lpClassName is NULL !!\n");
    if (classKeyPath == nullptr || className == nullptr)
        return ERROR_BAD_ARGUMENTS;
    return Disable(classKeyPath, className);
}

} // namespace vtflt
