// An application's bitmaps on every fixed volume of the system, and the removal of a bitmap folder.
#pragma once

#include "win/windows.h"

#include <string>
#include <vector>

namespace vtflt {

// Appends the GUID path of every fixed volume, without its trailing backslash. Malformed names are logged and
// skipped. 0, or the error of the walk.
DWORD EnumerateVolumes(std::vector<std::wstring>& volumes);

// Deletes the application's bitmap files on every fixed volume, as far as possible: one volume's failure is logged
// and stops nothing. 0; 160 for an empty ID; else the error of the walk.
DWORD RemoveApplicationBitmaps(std::wstring appId);

// Gives the application fresh base and child bitmaps on every fixed volume; the first volume that fails ends it.
// 0; 160 for an empty ID; 161 for a malformed volume name; 0x10005; else the code of the failing step.
DWORD ResetApplicationBitmaps(std::wstring appId);

// Deletes the files of a directory and then the directory, 1 when it went, else 0 with the reason as last error.
// A subdirectory is removed likewise and ends the work, with its own result: the rest of its parent stays. Paths
// shorter than 9 characters are refused, and so are those that come to 512 and more with an entry's name. Hidden and
// system files go like others; one that cannot be deleted shows when the directory does not go.
DWORD RemoveDirectoryTree(const wchar_t* path);

} // namespace vtflt
