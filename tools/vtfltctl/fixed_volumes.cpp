#include "fixed_volumes.h"

#include "common/volume_name.h"
#include "output.h"

#include "apps/volume_name.h"
#include "win/windows.h"

#include <fmt/format.h>

namespace vtfltctl {

std::vector<bitmap::VolumeName> FixedVolumes()
{
    std::vector<std::wstring> paths;
    if (const DWORD error = toolkit::EnumerateVolumePaths(paths); error != ERROR_SUCCESS)
        throw Failure(Exit::Device, "cannot list the volumes: " + ErrorText(error));
    std::vector<bitmap::VolumeName> volumes;
    for (const std::wstring& path : paths) {
        if (GetDriveTypeW(path.c_str()) == DRIVE_FIXED)
            volumes.push_back({vtflt::GetVolumeName(path), path});
    }
    return volumes;
}

std::vector<std::wstring> FixedVolumeGuids()
{
    std::vector<std::wstring> guids;
    for (const bitmap::VolumeName& volume : FixedVolumes())
        guids.push_back(vtflt::GetVolumeGuid(volume.path));
    return guids;
}

std::unique_ptr<VolumeLock> LockBitmapFiles(const bitmap::VolumeName& volume)
{
    try {
        return std::make_unique<VolumeLock>(volume.name);
    } catch (const bitmap::ReadError& error) {
        if (error.Code() == WAIT_TIMEOUT)
            throw Failure(Exit::Busy, fmt::format("a backup works on the bitmap files of {}; nothing was changed there",
                                                  Shown(volume.name)));
        throw Failure(Exit::Unreadable, fmt::format("cannot lock the bitmap files of {}: {}; nothing was changed there",
                                                    Shown(volume.name), ErrorText(error.Code())));
    }
}

bool MayBeThere(const std::wstring& path)
{
    if (GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES)
        return true;
    const DWORD error = GetLastError();
    return error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND;
}

std::vector<std::wstring> BitmapFilesOf(const bitmap::VolumeName& volume, const std::wstring& application)
{
    std::vector<std::wstring> files;
    for (const bool base : {true, false}) {
        std::wstring path = bitmap::BitmapPath(volume, application, base);
        // The library cuts a long path, so the file can be that of another ID with the same beginning.
        if (!path.ends_with(application + L".dat"))
            throw Failure(Exit::Refused, fmt::format("{} is too long: the path of its bitmap files would be cut",
                                                     Quoted(application)));
        if (MayBeThere(path))
            files.push_back(std::move(path));
    }
    return files;
}

std::vector<std::wstring> BitmapFilesOf(const std::wstring& application)
{
    std::vector<std::wstring> files;
    for (const bitmap::VolumeName& volume : FixedVolumes()) {
        for (std::wstring& file : BitmapFilesOf(volume, application))
            files.push_back(std::move(file));
    }
    return files;
}

} // namespace vtfltctl
