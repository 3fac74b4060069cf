// The exports that take volumes out of change tracking.
#include "api/library.h"
#include "apps/volume_name.h"
#include "apps/volume_walk.h"
#include "driver/request.h"
#include "log/log.h"
#include "vtfltmgr/VTFltMgr.h"

#include <algorithm>
#include <string>
#include <vector>

namespace vtflt {

namespace {

constexpr std::size_t FIRST_MOUNT_PATH_UNITS = MAX_PATH + 1;
constexpr std::size_t SHOWN_MOUNT_PATH_UNITS = 520;

// Deletes the bitmap files of every application on a volume, through a manager made for this alone.
DWORD RemoveVolumeBitmaps(const std::wstring& volume, const wchar_t* cannotCreate)
{
    const std::unique_ptr<IMultiBitmapManager> manager(new (std::nothrow) CMultiBitmapManager);
    if (manager == nullptr) {
        Log(LOG_ERROR, BM_ERR_FAILED, cannotCreate);
        return BM_ERR_FAILED;
    }
    return manager->RemoveBitmaps(volume);
}

// Tells the driver to stop tracking. The volume is closed again when this returns, before its files are touched.
DWORD StopInDriver(LPCWSTR volumePath)
{
    UniqueHandle volume;
    DWORD error = OpenDevice(volumePath, volume);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"VTFltStopMonitorVolume: Open volume %s failed, Error code:%d\n", volumePath, error);
        return error;
    }

    DWORD returned = 0;
    error = SendRequest(volume.get(), VTFLTCTL_STOP_VOLUME, nullptr, 0, nullptr, 0, &returned);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"VTFltStopMonitorVolume: Stop Volume %s failed, Error code:%d\n", volumePath, error);
    return error;
}

DWORD StopMonitorVolume(LPCWSTR volumePath)
{
    if (volumePath == nullptr) {
        Log(LOG_ERROR, ERROR_INVALID_PARAMETER, L"VTFltStopMonitorVolume: lpVolumeGuid is NULL !!");
        return ERROR_INVALID_PARAMETER;
    }
    const DWORD error = StopInDriver(volumePath);
    if (error != ERROR_SUCCESS)
        return error;
    return RemoveVolumeBitmaps(volumePath, L"VTFltStopMonitorVolume: Failed to create bitmap manager interface\n");
}

// A volume's first mount path; empty when it has none or the system does not tell.
std::wstring QueryMountPath(const wchar_t* volumeName)
{
    std::vector<wchar_t> paths(FIRST_MOUNT_PATH_UNITS);
    for (;;) {
        const auto units = static_cast<DWORD>(paths.size());
        DWORD needed = 0;
        if (GetVolumePathNamesForVolumeNameW(volumeName, paths.data(), units, &needed))
            break;
        // A system that asks for no more than it was given would ask for ever.
        if (GetLastError() != ERROR_MORE_DATA || needed <= units)
            return {};
        paths.assign(needed, L'\0');
    }
    const auto end = std::find(paths.begin(), paths.end(), L'\0');
    return std::wstring(paths.begin(), end).substr(0, SHOWN_MOUNT_PATH_UNITS - 1);
}

// The mount path as messages show it. It decides nothing, so short memory only leaves it empty.
std::wstring ShownMountPath(const wchar_t* volumeName)
{
    try {
        return QueryMountPath(volumeName);
    } catch (const std::bad_alloc&) {
        return {};
    }
}

// One volume of the walk: 0, or what kept its bitmap files from being deleted.
DWORD StopWalkedVolume(const VolumeWalk& walk)
{
    const std::wstring& volumeName = walk.Path();
    if (!IsVolumeGuidPath(volumeName)) {
        Log(LOG_ERROR, ERROR_BAD_PATHNAME, L"FindFirstVolumeW or FindNextVolumeW returned a bad path: %s\n",
            volumeName.c_str());
        return ERROR_SUCCESS;
    }

    const bool isFixedDisk = walk.IsFixedDisk();
    const std::wstring mountPath = ShownMountPath(volumeName.c_str());
    if (!isFixedDisk) {
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"%s (%s) is not fixed device, skip to stop monitor it\n",
            volumeName.c_str(), mountPath.c_str());
        return ERROR_SUCCESS;
    }
    return RemoveVolumeBitmaps(volumeName, L"VTFltStopMonitorVolumes: Failed to create bitmap manager interface\n");
}

// The files go on every fixed volume, as far as possible; the driver is not told. What failed is gathered by OR.
DWORD StopMonitorVolumes()
{
    VolumeWalk walk;
    DWORD walked = walk.First();
    if (walked != ERROR_SUCCESS) {
        Log(LOG_ERROR, walked, L"Get the first volume failed. Error code %d\n", walked);
        return walked;
    }

    DWORD result = ERROR_SUCCESS;
    for (; walked == ERROR_SUCCESS; walked = walk.Next()) {
        // One volume for which memory is short is that volume's failure, not the walk's.
        const DWORD error = Guarded(L"VTFltStopMonitorVolumes", [&] { return StopWalkedVolume(walk); });
        if (error == ERROR_SUCCESS)
            continue;
        Log(LOG_ERROR, error, L"VTFltStopMonitorVolumes: Failed to remove bitmaps for volume %s\n",
            walk.Path().c_str());
        result |= error;
    }

    if (walked != ERROR_NO_MORE_FILES) {
        Log(LOG_ERROR, walked, L"VTFltStopMonitorVolumes: FindNextVolume failed with error code %d\n", walked);
        result |= walked;
    }
    return result;
}

} // namespace

} // namespace vtflt

extern "C" {

DWORD WINAPI VTFltStopMonitorVolume(LPCWSTR volumePath)
{
    return vtflt::Guarded(L"VTFltStopMonitorVolume", [&] { return vtflt::StopMonitorVolume(volumePath); });
}

DWORD WINAPI VTFltStopMonitorVolumes(void)
{
    return vtflt::Guarded(L"VTFltStopMonitorVolumes", [] { return vtflt::StopMonitorVolumes(); });
}

} // extern "C"
