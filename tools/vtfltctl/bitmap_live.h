// Bitmap files on Windows: reading them without ever being in a backup's way, and the volumes that they belong to.
#pragma once

#include "bitmap_bytes.h"
#include "bitmap_numbers.h"
#include "failure.h"

#include <memory>
#include <string>

namespace vtfltctl::bitmap {

// Opens a file for reading, anew for each read: it is never held open while results are printed. A bitmap file that
// lies where the library keeps it, below a volume's root, is a live one: the library writes it with nobody else allowed
// to have it open, so it is read under the volume's mutex only (volume_lock.h). Whether it is one is asked of the
// system, so other names of it do not help; a file on another machine is never taken for one.
//
// A read fails with ReadError 0 when the file is no longer the one that was opened, and with WAIT_TIMEOUT when a backup
// keeps the volume's files to itself.
//
// Throws Failure(NotFound, Busy or Unreadable).
std::unique_ptr<ByteSource> OpenFile(const std::wstring& path);
// The same, null when the file or its folder does not exist.
std::unique_ptr<ByteSource> OpenFileIfThere(const std::wstring& path);

// The exit code of a read error, and what it means to the user, a sentence with the file's name.
Exit ReadErrorExit(const ReadError& error) noexcept;
std::string ReadErrorText(const std::wstring& path, const ReadError& error);

// A volume that is named by its GUID, a drive letter or a mount path, with a backslash behind it or without.
struct VolumeName {
    std::wstring name; // Volume{...}
    std::wstring path; // \\?\Volume{...}\ .
};
// In the system's own spelling where it knows the volume. Throws Failure(NotFound or Usage; Device when the list of
// volumes broke off before the volume was found).
VolumeName FindVolumeByName(const std::wstring& name);
// Size and tracking block size; 0 for what the volume or the driver does not answer.
Geometry QueryGeometry(const VolumeName& volume);

// The path of an application's bitmap file, as the library makes it.
std::wstring BitmapPath(const VolumeName& volume, const std::wstring& application, bool base);

// Writes a whole new file, or over one that is there when that is allowed. Throws Failure(Refused or Unreadable); then
// no new file is left.
void WriteWholeFile(const std::wstring& path, const void* bytes, std::size_t count, bool overwrite);

} // namespace vtfltctl::bitmap
