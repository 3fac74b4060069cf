// What moves volumes from list to list, and what a backup asks of its verify list.
#include "apps/resync_lists.h"

#include "apps/application_registry.h"
#include "apps/bitmap_maintenance.h"
#include "apps/mutex_controller.h"
#include "apps/resync_text.h"
#include "apps/volume_name.h"
#include "bitmap/container.h"
#include "bitmap/result_codes.h"
#include "log/log.h"

#include <algorithm>
#include <memory>
#include <new>
#include <string_view>
#include <unordered_set>

namespace vtflt {

namespace {

constexpr DWORD MERGE_LIST = 0;
constexpr DWORD REPLACE_LIST = 1;

// The suffix of the driver's own list.
constexpr wchar_t DRIVER_LIST[] = L"";

bool Contains(const std::vector<std::wstring>& list, const std::wstring& entry)
{
    return std::find(list.begin(), list.end(), entry) != list.end();
}

// Whether a bitmap file of the application on the volume is missing or unusable, or the question cannot be asked (then
// no). A volume with such a file goes on the verify list.
bool IsBitmapFileLost(const std::wstring& appId, const std::wstring& volumePath)
{
    const std::wstring volumeName = GetVolumeName(volumePath);
    const std::wstring mutexName = BuildMutexName(volumeName);
    CMutexController mutex;
    if (mutex.getAccess(mutexName) != ERROR_SUCCESS) {
        Log(LOG_ERROR, BM_ERR_MUTEX_ACCESS, L"IsVerifyRequiredFailed to get the access while creating mutex: %s",
            mutexName.c_str());
        return false;
    }
    const std::unique_ptr<CBitmapContainer> container(new (std::nothrow) CBitmapContainer);
    if (container == nullptr) {
        Log(LOG_ERROR, ERROR_NOT_ENOUGH_MEMORY, L"IsVerifyRequired: pTempContainer is NULL!!\n");
        return false;
    }
    container->init(volumeName, appId);
    const DWORD base = container->ReadBitMapFromFile(BASE_BITMAP);
    const DWORD child = container->ReadBitMapFromFile(CHILD_BITMAP);
    if (base != BM_ERR_VERIFY_REQUIRED && child != BM_ERR_VERIFY_REQUIRED)
        return false;

    // The answer is yes whether or not the list can be written: the files stay lost, and the next question finds
    // them so again.
    CVolumeListForResync lists;
    lists.UpdateApplicationValue({GetVolumeGuid(volumePath)}, MakeVerifyListName(appId), MERGE_LIST);
    return true;
}

} // namespace

DWORD ReplicateDriverResyncList()
{
    std::vector<std::wstring> applications;
    DWORD error = GetRegisteredAppList(applications);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"ReplicateDriverResyncListFailed to get registered application list\n");
        return error;
    }
    CVolumeListForResync lists;
    std::vector<std::wstring> driverList;
    error = lists.GetDriverVolumeList(driverList, DRIVER_LIST);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"ReplicateDriverResyncListFailed to get volume resync list from driver\n");
        return error;
    }

    std::vector<std::wstring> handOut;
    std::vector<std::wstring> keep;
    SplitDriverList(driverList, handOut, keep);
    if (handOut.empty())
        return ERROR_SUCCESS;
    for (const std::wstring& application : applications) {
        error = lists.UpdateApplicationValue(handOut, application, MERGE_LIST);
        if (error != ERROR_SUCCESS) {
            Log(LOG_ERROR, error,
                L"ReplicateDriverResyncListFailed to replicate resync list from driver to application %s\n",
                application.c_str());
            return error;
        }
    }
    // Also with no application: then nobody has a bitmap that these volumes could spoil.
    error = lists.UpdateApplicationValue(keep, DRIVER_LIST, REPLACE_LIST);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"ReplicateDriverResyncListFailed to set volume resync list back to driver\n");
    return error;
}

DWORD ReplicateAppResyncList(std::wstring appId)
{
    CVolumeListForResync lists;
    std::vector<std::wstring> pending;
    DWORD error = lists.GetDriverVolumeList(pending, appId);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"ReplicateAppResyncListFailed to get volume resync list\n");
        return error;
    }
    if (pending.empty())
        return ERROR_SUCCESS;
    // Into the verify list first, so that a failure in between leaves the volumes on both lists and not on none.
    error = lists.UpdateApplicationValue(pending, MakeVerifyListName(appId), MERGE_LIST);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"ReplicateAppResyncListFailed to replicate app resync list to backup app resync list");
        return error;
    }
    error = lists.ClearDriverRegValue(appId);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"ReplicateAppResyncListFailed to clear app volume resync list\n");
    return error;
}

// The first and last record are at error level so that every log shows them.
DWORD ReplicateVerifyList(std::wstring appId)
{
    Log(LOG_ERROR, ERROR_SUCCESS, L"ReplicateVerifyList: Enter ReplicateVerifyList \n");
    if (appId.empty()) {
        Log(LOG_ERROR, ERROR_INVALID_PARAMETER, L"ReplicateVerifyListEmpty application id\n");
        return ERROR_INVALID_PARAMETER;
    }
    CMutexController mutex;
    const std::wstring mutexName = BuildApplicationMutexName();
    if (mutex.getAccess(mutexName) != ERROR_SUCCESS) {
        Log(LOG_ERROR, BM_ERR_MUTEX_ACCESS, L"ReplicateVerifyListFailed to get the access while creating mutex: %s",
            mutexName.c_str());
        return BM_ERR_MUTEX_ACCESS;
    }
    std::vector<std::wstring> applications;
    DWORD error = GetRegisteredAppList(applications);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"ReplicateVerifyListFailed to get registered application list\n");
        return error;
    }
    if (!Contains(applications, appId)) {
        Log(LOG_ERROR, BM_ERR_APP_NOT_REGISTERED, L"ReplicateVerifyListThe application is not registered, %s\n",
            appId.c_str());
        return BM_ERR_APP_NOT_REGISTERED;
    }

    error = ReplicateDriverResyncList();
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"ReplicateVerifyListFailed to replicate resync list from driver to applications\n");
        return error;
    }
    error = ReplicateAppResyncList(appId);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"ReplicateVerifyListFailed to replicate app resync list to backup app resync list \n");
        return error;
    }
    Log(LOG_ERROR, ERROR_SUCCESS, L"ReplicateVerifyList: SUCCESS:: ReplicateVerifyList \n");
    return ERROR_SUCCESS;
}

DWORD IsVerifyRequired(std::wstring appId, std::wstring volumePath)
{
    CVolumeListForResync lists;
    std::vector<std::wstring> verifyList;
    // What the list says is not known, and doubt means verify.
    if (lists.GetDriverVolumeList(verifyList, MakeVerifyListName(appId)) != ERROR_SUCCESS)
        return 1;
    for (const std::wstring& entry : verifyList) {
        if (ListEntryMatchesVolume(entry, volumePath)) {
            Log(LOG_INFORMATION, ERROR_SUCCESS, L"IsVerifyRequired::Found the volume for verify backup");
            return 1;
        }
    }
    return IsBitmapFileLost(appId, volumePath) ? 1 : 0;
}

// The first record is at error level so that every log shows it.
DWORD RemoveApplicationVolResyncList(std::wstring appId, const std::vector<std::wstring>& volumes)
{
    Log(LOG_ERROR, ERROR_SUCCESS, L"RemoveApplicationVolResyncList: Enter RemoveApplicationVolResyncList \n");
    if (appId.empty()) {
        Log(LOG_ERROR, ERROR_INVALID_PARAMETER, L"RemoveApplicationVolResyncListEmpty application id\n");
        return ERROR_INVALID_PARAMETER;
    }
    CMutexController mutex;
    const std::wstring mutexName = BuildApplicationMutexName();
    if (mutex.getAccess(mutexName) != ERROR_SUCCESS) {
        Log(LOG_ERROR, BM_ERR_MUTEX_ACCESS,
            L"RemoveApplicationVolResyncListFailed to get the access while creating mutex: %s", mutexName.c_str());
        return BM_ERR_MUTEX_ACCESS;
    }
    std::vector<std::wstring> applications;
    DWORD error = GetRegisteredAppList(applications);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"RemoveApplicationVolResyncListFailed to get registered application list\n");
        return error;
    }
    if (!Contains(applications, appId)) {
        Log(LOG_ERROR, BM_ERR_APP_NOT_REGISTERED,
            L"RemoveApplicationVolResyncListThe application is not registered, %s\n", appId.c_str());
        return BM_ERR_APP_NOT_REGISTERED;
    }

    CVolumeListForResync lists;
    const std::wstring suffix = MakeVerifyListName(appId);
    std::vector<std::wstring> verifyList;
    error = lists.GetDriverVolumeList(verifyList, suffix);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"RemoveApplicationVolResyncListFailed to get volume resync list for application %s\n",
            appId.c_str());
        return error;
    }
    const std::unordered_set<std::wstring_view> verified(volumes.begin(), volumes.end());
    std::erase_if(verifyList, [&verified](const std::wstring& entry) {
        if (!verified.contains(entry))
            return false;
        Log(LOG_DETAIL, ERROR_SUCCESS,
            L"RemoveApplicationVolResyncList::Need to delete this volume from verify volume list");
        return true;
    });
    error = lists.UpdateApplicationValue(verifyList, suffix, REPLACE_LIST);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error,
            L"RemoveApplicationVolResyncListFailed to remove entries from volume resync list of application %s\n",
            appId.c_str());
    }
    return error;
}

DWORD AddVolumesToAppVerifyList(std::wstring appId)
{
    if (appId.empty()) {
        Log(LOG_ERROR, ERROR_INVALID_PARAMETER, L"AddVolumesToAppVerifyList: Application ID is empty !!\n");
        return ERROR_INVALID_PARAMETER;
    }
    std::vector<std::wstring> volumes;
    DWORD error = EnumerateVolumes(volumes);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"AddVolumesToAppVerifyList: Failed to get all volumes list\n");
        return error;
    }
    for (std::wstring& volume : volumes)
        volume = GetVolumeGuid(volume);
    CVolumeListForResync lists;
    error = lists.UpdateApplicationValue(volumes, MakeVerifyListName(appId), MERGE_LIST);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"AddVolumesToAppVerifyList: Failed to add volumes to application verify list.\n");
    return error;
}

} // namespace vtflt
