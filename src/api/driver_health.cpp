#include "api/driver_health.h"

#include "api/library.h"
#include "api/upper_filters.h"
#include "driver/request.h"
#include "log/log.h"
#include "vtfltmgr/VTFltMgr.h"
#include "win/owners.h"

namespace vtflt {

namespace {

// Whether the control device answers; what it answers does not matter, since it has no blocks. A driver of an older
// generation does not know the request, and works.
bool DoesDeviceAnswer(HANDLE device)
{
    DWORD ignoredAnswer = 0;
    DWORD returned = 0;
    const DWORD error =
        SendRequest(device, VTFLTCTL_GET_BLOCK_SIZE, nullptr, 0, &ignoredAnswer, sizeof(ignoredAnswer), &returned);
    if (error == ERROR_SUCCESS)
        return true;
    if (error == ERROR_INVALID_FUNCTION) {
        Log(LOG_INFORMATION, error,
            L"VTCanBLIDriverWork: %s v6.0 is working. Needs to reboot machine to let new one works.", DRIVER_NAME);
        return true;
    }
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"VTCanBLIDriverWork: %s VTFLTCTL_GET_BLOCK_SIZE failed, Error:%d.",
        CONTROL_DEVICE, error);
    return false;
}

// The device is closed again when this returns: a reinstallation must not find it open.
bool IsDriverUsable()
{
    UniqueHandle device;
    const DWORD error = OpenDevice(CONTROL_DEVICE, device);
    if (error != ERROR_SUCCESS) {
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"VTCanBLIDriverWork: Open device %s failed, Error:%d.", CONTROL_DEVICE,
            error);
        return false;
    }
    if (!DoesDeviceAnswer(device.get()))
        return false;
    if (!IsUpperFilterOrderGood()) {
        Log(LOG_WARNING, ERROR_SUCCESS, L"VTCanBLIDriverWork: %s is wrong in the volume upper filters list.",
            DRIVER_NAME);
        return false;
    }
    return true;
}

// False only when the service control manager says that there is no such service; every doubt counts as present.
bool IsServicePresent(const wchar_t* serviceName)
{
    const UniqueService manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ENUMERATE_SERVICE));
    if (!manager)
        return true;
    const UniqueService service(OpenServiceW(manager.get(), serviceName, SERVICE_QUERY_STATUS));
    return service.valid() || GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST;
}

} // namespace

DWORD CanDriverWork()
{
    if (IsDriverUsable())
        return 1;
    // A driver that was never installed is not for the library to install.
    if (!IsServicePresent(DRIVER_NAME))
        return 0;
    if (VTFltInstall() != ERROR_SUCCESS)
        return 0;
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"VTCanBLIDriverWork: %s installed automatically.", DRIVER_NAME);
    return 1;
}

// Memory that runs short on the way is no answer of the driver's: it ends the export that asks, which must not take it for
// a driver that is not there. Only a filter list for which there is no memory counts as a wrong one, for which the driver is
// installed again where that is allowed.
bool PassesDriverGate(const wchar_t* refusal)
{
    if (CanDriverWork() != 0)
        return true;
    Log(LOG_INFORMATION, ERROR_SUCCESS, refusal);
    return false;
}

} // namespace vtflt

extern "C" DWORD WINAPI VTCanBLIDriverWork(void)
{
    return vtflt::Guarded<DWORD>(L"VTCanBLIDriverWork", 0, 0, [] { return vtflt::CanDriverWork(); });
}
