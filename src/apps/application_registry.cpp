#include "apps/application_registry.h"

#include "apps/bitmap_maintenance.h"
#include "apps/mutex_controller.h"
#include "apps/resync_lists.h"
#include "bitmap/result_codes.h"
#include "log/guarded.h"
#include "log/log.h"
#include "registry/multi_string_value.h"

#include <algorithm>

namespace vtflt {

namespace {

bool Contains(const std::vector<std::wstring>& list, const std::wstring& appId)
{
    return std::find(list.begin(), list.end(), appId) != list.end();
}

// Removes the bitmaps of an application that is not registered. Whatever becomes of them is no matter of the result, short
// memory neither.
void CleanUpBitmaps(const std::wstring& appId)
{
    Guarded(L"RemoveApplicationBitmaps", [&] { return RemoveApplicationBitmaps(appId); });
}

} // namespace

DWORD RegisterApplication(std::wstring appId)
{
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"RegisterApplication: Registering application %s\n", appId.c_str());
    if (appId.empty()) {
        Log(LOG_ERROR, ERROR_BAD_ARGUMENTS,
            L"RegisterApplication: Application ID is empty !! Please register with valid application ID.\n");
        return ERROR_BAD_ARGUMENTS;
    }

    CMutexController mutex;
    const std::wstring mutexName = BuildApplicationMutexName();
    if (mutex.getAccess(mutexName) != ERROR_SUCCESS) {
        Log(LOG_ERROR, BM_ERR_MUTEX_ACCESS, L"RegisterApplicationFailed to get the access while creating mutex: %s",
            mutexName.c_str());
        return BM_ERR_MUTEX_ACCESS;
    }
    std::vector<std::wstring> registered;
    const bool listIsKnown = GetRegisteredAppList(registered) == ERROR_SUCCESS;
    if (listIsKnown && Contains(registered, appId)) {
        Log(LOG_INFORMATION, ERROR_SUCCESS,
            L"RegisterApplication: The application is already registered. Application name= %s\n", appId.c_str());
        return ERROR_SUCCESS;
    }

    DWORD error = ERROR_SUCCESS;
    // A list that cannot be read may hold the application already, and the bitmaps that are restarted now may hold
    // changes owed to it. All its volumes are marked before the first of them goes, so that neither a failure nor a
    // crash in between loses them without a word.
    if (!listIsKnown)
        error = AddVolumesToAppVerifyList(appId);
    if (error != ERROR_SUCCESS)
        return error;
    // The bitmaps come first: a listed application has bitmaps that started empty.
    error = ResetApplicationBitmaps(appId);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"RegisterApplication: Failed to reset application bitmaps\n");
        return error;
    }
    error = AddMultiSZRegistryEntry(APPLICATION_IDS_KEY, APPLICATION_IDS_VALUE, appId.c_str());
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"RegisterApplication: Failed to add an entry to key: %s, value: %s\n",
            APPLICATION_IDS_VALUE, appId.c_str());
        CleanUpBitmaps(appId);
        return error;
    }
    mutex.release();
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"RegisterApplication: SUCCESS::Application registered\n");
    return ERROR_SUCCESS;
}

DWORD UnregisterApplication(std::wstring appId)
{
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"UnregisterApplication: Unregistering application %s\n", appId.c_str());
    if (appId.empty()) {
        Log(LOG_ERROR, ERROR_BAD_ARGUMENTS,
            L"UnregisterApplication: Application ID is empty !! Please un-register with valid application ID.\n");
        return ERROR_BAD_ARGUMENTS;
    }

    CMutexController mutex;
    const std::wstring mutexName = BuildApplicationMutexName();
    if (mutex.getAccess(mutexName) != ERROR_SUCCESS) {
        Log(LOG_ERROR, BM_ERR_MUTEX_ACCESS, L"UnregisterApplicationFailed to get the access while creating mutex: %s",
            mutexName.c_str());
        return BM_ERR_MUTEX_ACCESS;
    }
    if (IsApplicationRegistered(appId) == 0) {
        Log(LOG_INFORMATION, BM_ERR_APP_NOT_REGISTERED,
            L"UnregisterApplication: The application is not registered. Application name= %s\n", appId.c_str());
        return BM_ERR_APP_NOT_REGISTERED;
    }

    // The verify list comes first and stays: whoever registers under this ID again must not trust old backups.
    DWORD error = AddVolumesToAppVerifyList(appId);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"UnregisterApplication: Failed to add volumes to application verify list.\n");
        return error;
    }
    error = RemoveMultiSZRegistryEntry(APPLICATION_IDS_KEY, APPLICATION_IDS_VALUE, appId.c_str());
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"UnregisterApplication: Failed to delete an entry from key: %s, value: %s\n",
            APPLICATION_IDS_VALUE, appId.c_str());
        return error;
    }
    // A failure from here on would say that the application still is registered.
    CleanUpBitmaps(appId);
    mutex.release();
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"UnregisterApplication: SUCCESS::Application un-registered\n");
    return ERROR_SUCCESS;
}

DWORD IsApplicationRegistered(std::wstring appId)
{
    std::vector<std::wstring> list;
    if (GetRegisteredAppList(list) != ERROR_SUCCESS)
        return 0;
    return Contains(list, appId) ? 1 : 0;
}

DWORD GetRegisteredAppList(std::vector<std::wstring>& list)
{
    list.clear();
    const DWORD error = ReadValueEntry(list);
    if (error == ERROR_FILE_NOT_FOUND) {
        Log(LOG_WARNING, error, L"GetRegisteredAppList: %s key does not exists !!\n", APPLICATION_IDS_VALUE);
        return ERROR_SUCCESS;
    }
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"GetRegisteredAppListFailed to get registered application list\n");
    return error;
}

DWORD GetRegisteredAppCount(DWORD& count)
{
    std::vector<std::wstring> list;
    const DWORD error = GetRegisteredAppList(list);
    if (error == ERROR_SUCCESS)
        count = static_cast<DWORD>(list.size());
    return error;
}

} // namespace vtflt
