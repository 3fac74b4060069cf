// stop: ends the tracking of a volume, or deletes the bitmap files of all.
#include "backup_pause.h"
#include "bitmap_live.h"
#include "commands.h"
#include "fixed_volumes.h"
#include "library.h"
#include "machine.h"
#include "output.h"

#include "apps/volume_name.h"
#include "bitmap/container.h"
#include "driver/request.h"
#include "win/owners.h"

#include <fmt/format.h>
#include <vtfltmgr/VTFltMgr.h>

#include <algorithm>
#include <memory>

namespace vtfltctl {
namespace {

constexpr const char* FILES_LEFT = "VelVolTrc (was a folder inside?); run it again";

bool HasBitmapFolder(const bitmap::VolumeName& volume)
{
    return MayBeThere(vtflt::BitmapFolderPath(volume.name));
}

// Whether the driver answers, and the volume is there to be asked about: without either "not tracked" says nothing.
bool IsKnownStopped(const bitmap::VolumeName& volume)
{
    const std::wstring device = vtflt::StripTrailingBackslash(volume.path);
    vtflt::UniqueHandle opened;
    return LookAtDriver().generation != Generation::None &&
           vtflt::OpenDevice(device.c_str(), opened) == ERROR_SUCCESS && VTIsDeviceMonitored(device.c_str()) != 0;
}

// The library fails on a folder that it cannot delete because there is none: then there is nothing left to do.
bool IsMissing(DWORD result)
{
    return result == ERROR_FILE_NOT_FOUND || result == ERROR_PATH_NOT_FOUND;
}

bool AnyFolderLeft(const std::vector<bitmap::VolumeName>& volumes)
{
    return std::any_of(volumes.begin(), volumes.end(), HasBitmapFolder);
}

// Held while the library works, which by itself waits in this session only, and goes on after half an hour.
std::vector<std::unique_ptr<VolumeLock>> LockAll(const std::vector<bitmap::VolumeName>& volumes)
{
    std::vector<std::unique_ptr<VolumeLock>> locks;
    for (const bitmap::VolumeName& volume : volumes)
        locks.push_back(LockBitmapFiles(volume));
    return locks;
}

Exit StopAll(const Context& context)
{
    RequireYes(context, "would delete the bitmap files of every application on every fixed volume");
    const std::vector<bitmap::VolumeName> volumes = FixedVolumes();
    const BackupPause pause(context, {}, FixedVolumeGuids());
    const std::vector<std::unique_ptr<VolumeLock>> locks = LockAll(volumes);
    // The codes of all volumes ORed: not zero says that something failed, and not what.
    const DWORD result = VTFltStopMonitorVolumes();
    if (result != ERROR_SUCCESS && (!IsMissing(result) || AnyFolderLeft(volumes)))
        throw Failure(Exit::Device,
                      fmt::format("not every volume's bitmap files could be deleted (codes ORed: {:#x}); the log says "
                                  "which",
                                  result));
    // The library ends at a folder inside, which it deletes, and calls that success.
    if (AnyFolderLeft(volumes))
        throw Failure(Exit::Device, std::string("of a volume files are left in ") + FILES_LEFT);
    return Answer(context, Exit::Ok, {{"volumes", "all"}, {"changed", true}},
                  "The bitmap files of every application on every fixed volume are deleted; every next backup must "
                  "verify. The driver still tracks the volumes.\n");
}

Exit StopOne(const Context& context, const std::wstring& name)
{
    const bitmap::VolumeName volume = bitmap::FindVolumeByName(name);
    RequireYes(context, fmt::format("would end the tracking of {} and delete the bitmap files of every application "
                                    "on it",
                                    Shown(volume.name)));
    const std::wstring device = vtflt::StripTrailingBackslash(volume.path);
    const BackupPause pause(context, {}, {vtflt::GetVolumeGuid(volume.path)});
    const std::unique_ptr<VolumeLock> lock = LockBitmapFiles(volume);
    const DWORD result = VTFltStopMonitorVolume(device.c_str());
    if (!IsMissing(result) || !IsKnownStopped(volume) || HasBitmapFolder(volume))
        Require(result, fmt::format("stop the tracking of {}", Shown(volume.name)));
    if (HasBitmapFolder(volume))
        throw Failure(Exit::Device,
                      fmt::format("{} is tracked no more, but files are left in {}", Shown(volume.name), FILES_LEFT));
    return Answer(context, Exit::Ok, {{"volumes", ToUtf8(vtflt::GetVolumeGuid(volume.path))}, {"changed", true}},
                  fmt::format("{} is tracked no more and has no bitmap files; every next backup of it must verify.\n",
                              Shown(volume.name)));
}

} // namespace

Exit StopTracking(const Context& context, const StopOptions& options)
{
    if (options.all == !options.volume.empty())
        throw Failure(Exit::Usage, "name a volume, or give --all");
    return options.all ? StopAll(context) : StopOne(context, ToWide(options.volume));
}

} // namespace vtfltctl
