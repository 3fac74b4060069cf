// The exports on applications and their verify lists: thin, each hands owned copies of its arguments on.
#include "api/driver_health.h"
#include "api/library.h"
#include "apps/application_registry.h"
#include "apps/resync_lists.h"
#include "log/log.h"
#include "vtfltmgr/VTFltMgr.h"

#include <utility>

namespace vtflt {

namespace {

// When nothing is known for sure, the volume must be read whole.
constexpr DWORD VERIFY_IS_REQUIRED = 1;

DWORD ReplicateVerifyListGated(LPCWSTR applicationId)
{
    if (!PassesDriverGate(L"VTReplicateVerifyList: Driver not installed or not working"))
        return ERROR_SUCCESS;
    return ReplicateVerifyList(OwnedText(applicationId));
}

DWORD IsVerifyRequiredGated(LPCWSTR applicationId, LPCWSTR volume)
{
    if (!PassesDriverGate(L"VTIsVerifyRequired: Driver not installed or not working"))
        return VERIFY_IS_REQUIRED;
    if (applicationId == nullptr || volume == nullptr)
        return VERIFY_IS_REQUIRED;
    return IsVerifyRequired(OwnedText(applicationId), OwnedText(volume));
}

DWORD AddVolumesToAppVerifyListGated(LPCWSTR applicationId)
{
    if (!PassesDriverGate(L"VTAddVolumesToAppVerifyList: Driver not installed or not working"))
        return ERROR_SUCCESS;
    return AddVolumesToAppVerifyList(OwnedText(applicationId));
}

DWORD CanAppUseDriver(LPCWSTR applicationId)
{
    if (applicationId == nullptr) {
        Log(LOG_ERROR, ERROR_BAD_ARGUMENTS, L"VTCanAppUseBLIDriver: lpAppId is NULL !!\n");
        return 0;
    }
    if (CanDriverWork() == 0)
        return 0;
    return IsApplicationRegistered(OwnedText(applicationId)) != 0 ? 1 : 0;
}

} // namespace

} // namespace vtflt

extern "C" {

DWORD WINAPI VTRegisterApplication(LPCWSTR applicationId)
{
    return vtflt::Guarded(L"VTRegisterApplication",
                          [&] { return vtflt::RegisterApplication(vtflt::OwnedText(applicationId)); });
}

DWORD WINAPI VTUnregisterApplication(LPCWSTR applicationId)
{
    return vtflt::Guarded(L"VTUnregisterApplication",
                          [&] { return vtflt::UnregisterApplication(vtflt::OwnedText(applicationId)); });
}

DWORD WINAPI VTGetRegisteredAppCount(DWORD* count)
{
    if (count == nullptr)
        return ERROR_INVALID_PARAMETER;
    return vtflt::Guarded(L"VTGetRegisteredAppCount", [&] { return vtflt::GetRegisteredAppCount(*count); });
}

DWORD WINAPI VTGetRegisteredAppList(std::vector<std::wstring>* list)
{
    if (list == nullptr)
        return ERROR_INVALID_PARAMETER;
    return vtflt::Guarded(L"VTGetRegisteredAppList", [&] { return vtflt::GetRegisteredAppList(*list); });
}

DWORD WINAPI VTReplicateVerifyList(LPCWSTR applicationId)
{
    return vtflt::Guarded(L"VTReplicateVerifyList", [&] { return vtflt::ReplicateVerifyListGated(applicationId); });
}

DWORD WINAPI VTRemoveApplicationVolResyncList(std::wstring applicationId, std::vector<std::wstring>* volumes)
{
    // The argument is consumed whatever happens next.
    std::wstring appId;
    appId.swap(applicationId);
    if (volumes == nullptr)
        return ERROR_INVALID_PARAMETER;
    return vtflt::Guarded(L"VTRemoveApplicationVolResyncList",
                          [&] { return vtflt::RemoveApplicationVolResyncList(std::move(appId), *volumes); });
}

DWORD WINAPI VTIsVerifyRequired(LPCWSTR applicationId, LPCWSTR volume)
{
    return vtflt::Guarded<DWORD>(L"VTIsVerifyRequired", vtflt::VERIFY_IS_REQUIRED, vtflt::VERIFY_IS_REQUIRED,
                                 [&] { return vtflt::IsVerifyRequiredGated(applicationId, volume); });
}

DWORD WINAPI VTAddVolumesToAppVerifyList(LPCWSTR applicationId)
{
    return vtflt::Guarded(L"VTAddVolumesToAppVerifyList",
                          [&] { return vtflt::AddVolumesToAppVerifyListGated(applicationId); });
}

DWORD WINAPI VTCanAppUseBLIDriver(LPCWSTR applicationId)
{
    return vtflt::Guarded<DWORD>(L"VTCanAppUseBLIDriver", 0, 0, [&] { return vtflt::CanAppUseDriver(applicationId); });
}

} // extern "C"
