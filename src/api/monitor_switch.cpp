// The exports that switch the tracking of a device class on and off: the frame around the inner steps.
#include "api/monitor_switch.h"

#include "api/driver_health.h"
#include "api/library.h"
#include "apps/volume_name.h"
#include "driver/protocol.h"
#include "log/log.h"
#include "vtfltmgr/VTFltMgr.h"
#include "win/owners.h"

#include <string_view>

namespace vtflt {

namespace {

// The class of volume snapshots.
constexpr wchar_t DEFAULT_CLASS_KEY[] =
    L"System\\CurrentControlSet\\Control\\Class\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}";

// What the two exports differ in.
struct Direction {
    const wchar_t* enter;
    const wchar_t* driverDown;
    const wchar_t* emptyPath;
    const wchar_t* createFailed;
    const wchar_t* opened;
    const wchar_t* openFailed;
    const wchar_t* waitFailed;
    DWORD (*innerStep)(const wchar_t* classKeyPath, const wchar_t* className, HANDLE& mutex);
};

constexpr Direction ENABLE = {
    L"VTFltEnableMonitorForSnapshot: Enter VTFltEnableMonitorForSnapshot",
    L"VTFltEnableMonitorForSnapshot: Driver not installed or not working",
    L"VTFltEnableMonitorForSnapshot: Registry class name is empty\n",
    L"VTFltEnableMonitorForSnapshot: Failed to create mutex: %s. Trying to open it. \n",
    L"VTFltEnableMonitorForSnapshot: Open mutex: SUCCESS. %s.\n",
    L"VTFltEnableMonitorForSnapshot: Failed to open mutex: %s.\n",
    L"VTFltEnableMonitorForSnapshot: Failed to get ownership of the mutex %s\n",
    EnableMonitorForSnapshot,
};

constexpr Direction DISABLE = {
    L"VTFltDisableMonitorForSnapshot: Enter VTFltDisableMonitorForSnapshot",
    L"VTFltDisableMonitorForSnapshot: Driver not installed or not working",
    L"VTFltDisableMonitorForSnapshot: Registry class name is empty\n",
    L"VTFltDisableMonitorForSnapshot: Failed to create mutex: %s. Trying to open it. \n",
    L"VTFltDisableMonitorForSnapshot: Open mutex: SUCCESS. %s.\n",
    L"VTFltDisableMonitorForSnapshot: Failed to open mutex: %s.\n",
    L"VTFltDisableMonitorForSnapshot: Failed to get ownership of the mutex %s\n",
    DisableMonitorForSnapshot,
};

// The last component of a key path, which may end in a backslash.
std::wstring ClassNameOf(std::wstring_view classKeyPath)
{
    const std::wstring path = StripTrailingBackslash(classKeyPath);
    const std::size_t lastBackslash = path.rfind(L'\\');
    return lastBackslash == std::wstring::npos ? path : path.substr(lastBackslash + 1);
}

std::wstring BuildClassMutexName(const std::wstring& className)
{
    return L"Global\\" + className + L"." + DRIVER_NAME + L".Mutex";
}

// Makes the class's mutex, or opens the one that a more privileged process made.
DWORD GetClassMutex(const Direction& direction, const std::wstring& name, UniqueHandle& mutex)
{
    // Without a mutex the call fails, also where the system gives no reason.
    const auto failure = [] {
        const DWORD error = GetLastError();
        return error != ERROR_SUCCESS ? error : DWORD{ERROR_GEN_FAILURE};
    };
    mutex.reset(CreateMutexW(nullptr, FALSE, name.c_str()));
    if (mutex)
        return ERROR_SUCCESS;
    DWORD error = failure();
    Log(LOG_ERROR, error, direction.createFailed, name.c_str());
    if (error != ERROR_ACCESS_DENIED)
        return error;

    mutex.reset(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()));
    if (mutex) {
        Log(LOG_INFORMATION, ERROR_SUCCESS, direction.opened, name.c_str());
        return ERROR_SUCCESS;
    }
    error = failure();
    Log(LOG_ERROR, error, direction.openFailed, name.c_str());
    return error;
}

// Waits without limit. An abandoned mutex is owned too: its user died between two steps that each left the registry
// whole.
DWORD OwnClassMutex(const Direction& direction, const std::wstring& name, HANDLE mutex)
{
    const DWORD waited = WaitForSingleObject(mutex, INFINITE);
    if (waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED)
        return ERROR_SUCCESS;
    Log(LOG_ERROR, waited, direction.waitFailed, name.c_str());
    return waited;
}

DWORD SwitchMonitoring(const Direction& direction, LPCWSTR classKeyPath)
{
    Log(LOG_INFORMATION, ERROR_SUCCESS, direction.enter);
    if (!PassesDriverGate(direction.driverDown))
        return ERROR_SUCCESS;

    const std::wstring path = classKeyPath != nullptr ? classKeyPath : DEFAULT_CLASS_KEY;
    if (path.empty()) {
        Log(LOG_ERROR, ERROR_INVALID_PARAMETER, direction.emptyPath);
        return ERROR_INVALID_PARAMETER;
    }
    const std::wstring className = ClassNameOf(path);
    const std::wstring mutexName = BuildClassMutexName(className);

    UniqueHandle mutex;
    DWORD error = GetClassMutex(direction, mutexName, mutex);
    if (error != ERROR_SUCCESS)
        return error;
    error = OwnClassMutex(direction, mutexName, mutex.get());
    if (error != ERROR_SUCCESS)
        return error;

    HANDLE held = mutex.release();
    error = direction.innerStep(path.c_str(), className.c_str(), held);
    // Closes nothing that the inner step has closed.
    mutex.reset(held);
    return error;
}

} // namespace

} // namespace vtflt

extern "C" {

DWORD WINAPI VTFltEnableMonitorForSnapshot(LPCWSTR classKeyPath)
{
    return vtflt::Guarded(L"VTFltEnableMonitorForSnapshot",
                          [&] { return vtflt::SwitchMonitoring(vtflt::ENABLE, classKeyPath); });
}

DWORD WINAPI VTFltDisableMonitorForSnapshot(LPCWSTR classKeyPath)
{
    return vtflt::Guarded(L"VTFltDisableMonitorForSnapshot",
                          [&] { return vtflt::SwitchMonitoring(vtflt::DISABLE, classKeyPath); });
}

} // extern "C"
