// The volumes that have bitmap files, and the files of an application on them.
#pragma once

#include "bitmap_live.h"
#include "volume_lock.h"

#include <memory>
#include <string>
#include <vector>

namespace vtfltctl {

// Throws Failure(Device) when the list of volumes breaks off.
std::vector<bitmap::VolumeName> FixedVolumes();
// The same as {...}.
std::vector<std::wstring> FixedVolumeGuids();

// The bitmap files that are named after an application on a volume. Throws Failure(Refused) for an ID that is too long
// for files of its own.
std::vector<std::wstring> BitmapFilesOf(const bitmap::VolumeName& volume, const std::wstring& application);
// Of all fixed volumes.
std::vector<std::wstring> BitmapFilesOf(const std::wstring& application);

// The volume's mutexes, under which nobody else works on its bitmap files. Throws Failure(Busy) while a backup does.
std::unique_ptr<VolumeLock> LockBitmapFiles(const bitmap::VolumeName& volume);

// False only when the system says that there is no such file or folder.
bool MayBeThere(const std::wstring& path);

} // namespace vtfltctl
