#include "apps/bitmap_maintenance.h"

#include "apps/mutex_controller.h"
#include "apps/volume_name.h"
#include "apps/volume_walk.h"
#include "bitmap/container.h"
#include "bitmap/result_codes.h"
#include "log/guarded.h"
#include "log/log.h"

#include <memory>

namespace vtflt {

namespace {

DWORD OpenVolume(const std::wstring& path, UniqueHandle& volume)
{
    volume.reset(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                             nullptr));
    if (volume.valid())
        return ERROR_SUCCESS;
    const DWORD error = GetLastError();
    return error != ERROR_SUCCESS ? error : ERROR_GEN_FAILURE;
}

// A container for one volume and application, or null when memory is short.
std::unique_ptr<CBitmapContainer> MakeContainer(const std::wstring& volumeName, const std::wstring& appId)
{
    try {
        auto container = std::make_unique<CBitmapContainer>();
        container->init(volumeName, appId);
        return container;
    } catch (const std::bad_alloc&) {
        return nullptr; // which the callers log, each in its own words
    }
}

// Deletes the application's files on one volume, under the volume's mutex. Failures are only logged.
void RemoveBitmapsOnVolume(const std::wstring& path, const std::wstring& appId)
{
    const std::wstring volumeName = GetVolumeName(path);
    CMutexController mutex;
    if (mutex.getAccess(BuildMutexName(volumeName)) != ERROR_SUCCESS) {
        Log(LOG_ERROR, BM_ERR_MUTEX_ACCESS,
            L"RemoveApplicationBitmapsFailed to get the access while creating mutex: %d", BM_ERR_MUTEX_ACCESS);
        return;
    }
    const std::unique_ptr<CBitmapContainer> container = MakeContainer(volumeName, appId);
    if (container == nullptr) {
        Log(LOG_ERROR, ERROR_NOT_ENOUGH_MEMORY, L"RemoveApplicationBitmaps: pTempContainer is NULL!!\n");
        return;
    }
    const DWORD error = container->RemoveBitmaps();
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"RemoveApplicationBitmaps: Failed to delete bitmaps for volume: %s\n", path.c_str());
}

// A bitmap that could not be made counts as made once the volume is on the verify list.
bool IsResetDone(DWORD result)
{
    return result == ERROR_SUCCESS || result == BM_ERR_VERIFY_REQUIRED;
}

// Gives the application fresh files on one volume (no trailing backslash), under the volume's mutex.
DWORD ResetBitmapsOnVolume(const std::wstring& path, const std::wstring& appId)
{
    UniqueHandle volume;
    DWORD error = OpenVolume(path, volume);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"ResetApplicationBitmaps: Open volume handle failed for: %s\n", path.c_str());
        return error;
    }
    const std::wstring volumeName = GetVolumeName(path);
    CMutexController mutex;
    if (mutex.getAccess(BuildMutexName(volumeName)) != ERROR_SUCCESS) {
        Log(LOG_ERROR, BM_ERR_MUTEX_ACCESS, L"ResetApplicationBitmapsFailed to get the access while creating mutex: %d",
            BM_ERR_MUTEX_ACCESS);
        return BM_ERR_MUTEX_ACCESS;
    }
    const std::unique_ptr<CBitmapContainer> container = MakeContainer(volumeName, appId);
    if (container == nullptr) {
        Log(LOG_ERROR, ERROR_NOT_ENOUGH_MEMORY, L"ResetApplicationBitmaps::pTempContainer is NULL!!\n");
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    container->m_hVolume = volume.get();

    error = container->ResetBitMapFiles(BASE_BITMAP);
    if (!IsResetDone(error)) {
        Log(LOG_ERROR, error,
            L"ResetApplicationBitmaps: Failed to reset base bitmap for volume %s, for application %s\n", path.c_str(),
            appId.c_str());
        return error;
    }
    error = container->ResetBitMapFiles(CHILD_BITMAP);
    if (!IsResetDone(error)) {
        Log(LOG_ERROR, error,
            L"ResetApplicationBitmaps: Failed to reset child bitmap for volume %s, for application %s\n", path.c_str(),
            appId.c_str());
        return error;
    }
    return ERROR_SUCCESS;
}

} // namespace

DWORD EnumerateVolumes(std::vector<std::wstring>& volumes)
{
    VolumeWalk walk;
    DWORD error = walk.First();
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"EnumerateVolumes: FindFirstVolumeW failed. Error code %d\n", error);
        return error;
    }
    for (; error == ERROR_SUCCESS; error = walk.Next()) {
        if (!IsVolumeGuidPath(walk.Path())) {
            Log(LOG_ERROR, ERROR_BAD_PATHNAME,
                L"EnumerateVolumes: FindFirstVolumeW/FindNextVolumeW returned a bad path: %s\n", walk.Path().c_str());
            continue;
        }
        if (walk.IsFixedDisk())
            volumes.push_back(StripTrailingBackslash(walk.Path()));
    }
    if (error != ERROR_NO_MORE_FILES) {
        Log(LOG_ERROR, error, L"EnumerateVolumes: FindNextVolumeW failed with error code %d\n", error);
        return error;
    }
    return ERROR_SUCCESS;
}

DWORD RemoveApplicationBitmaps(std::wstring appId)
{
    if (appId.empty()) {
        Log(LOG_ERROR, ERROR_BAD_ARGUMENTS, L"RemoveApplicationBitmaps: Application ID is empty !!\n");
        return ERROR_BAD_ARGUMENTS;
    }
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"RemoveApplicationBitmaps: Removing bitmaps of application %s\n",
        appId.c_str());

    VolumeWalk walk;
    DWORD error = walk.First();
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"RemoveApplicationBitmaps: FindFirstVolumeW failed. Error code %d\n", error);
        return error;
    }
    for (; error == ERROR_SUCCESS; error = walk.Next()) {
        if (!IsVolumeGuidPath(walk.Path())) {
            Log(LOG_ERROR, ERROR_BAD_PATHNAME,
                L"RemoveApplicationBitmaps: FindFirstVolumeW/FindNextVolumeW returned a bad path: %s\n",
                walk.Path().c_str());
            continue;
        }
        if (!walk.IsFixedDisk())
            continue;
        // A volume for which memory is short does not stop the others either.
        Guarded(L"RemoveApplicationBitmaps", [&] {
            RemoveBitmapsOnVolume(walk.Path(), appId);
            return DWORD{ERROR_SUCCESS};
        });
    }
    if (error != ERROR_NO_MORE_FILES) {
        Log(LOG_ERROR, error, L"RemoveApplicationBitmaps: FindNextVolumeW failed with error code %d\n", error);
        return error;
    }
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"RemoveApplicationBitmaps: SUCCESS:: Bitmaps are removed");
    return ERROR_SUCCESS;
}

DWORD ResetApplicationBitmaps(std::wstring appId)
{
    if (appId.empty()) {
        Log(LOG_ERROR, ERROR_BAD_ARGUMENTS, L"ResetApplicationBitmaps: Application ID is empty !!\n");
        return ERROR_BAD_ARGUMENTS;
    }
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"ResetApplicationBitmaps: Reset bitmaps of application %s\n", appId.c_str());

    VolumeWalk walk;
    DWORD error = walk.First();
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"ResetApplicationBitmaps: FindFirstVolumeW failed. Error code %d\n", error);
        return error;
    }
    for (; error == ERROR_SUCCESS; error = walk.Next()) {
        // Here a malformed name ends the operation: an application is registered with all of its bitmaps or not at
        // all.
        if (!IsVolumeGuidPath(walk.Path())) {
            Log(LOG_ERROR, ERROR_BAD_PATHNAME,
                L"ResetApplicationBitmaps: FindFirstVolumeW/FindNextVolumeW returned a bad path: %s\n",
                walk.Path().c_str());
            return ERROR_BAD_PATHNAME;
        }
        if (!walk.IsFixedDisk())
            continue;
        error = ResetBitmapsOnVolume(StripTrailingBackslash(walk.Path()), appId);
        if (error != ERROR_SUCCESS)
            return error;
    }
    if (error != ERROR_NO_MORE_FILES) {
        Log(LOG_ERROR, error, L"ResetApplicationBitmaps: FindNextVolumeW failed with error code %d\n", error);
        return error;
    }
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"ResetApplicationBitmaps: SUCCESS:: Bitmaps reset completed");
    return ERROR_SUCCESS;
}

} // namespace vtflt
