// What a machine's registry and bitmap files say about one volume: read, never changed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vtlog {

// One list, or why it could not be read. An absent list is an empty one.
struct ListState {
    std::uint32_t error = 0;
    std::vector<std::wstring> entries;
};

// Bitmap files of one application on the volume.
enum class BitmapState {
    Usable,
    Unusable, // missing or damaged: the library takes that as a reason to verify
    Unknown,  // could not be read now
};

struct ApplicationState {
    std::wstring id;
    ListState pending;
    ListState verify;
    BitmapState base = BitmapState::Unknown;
    BitmapState child = BitmapState::Unknown;
};

struct MachineState {
    std::uint32_t applicationsError = 0; // the list of applications could not be read
    std::vector<ApplicationState> applications;
    ListState driver;
    bool volumeBusy = false; // a backup works on the volume: its bitmap files were not looked at
};

// volumePath is \\?\Volume{...}\.
MachineState ReadMachine(const std::wstring& volumePath);

// The GUID in braces of a volume that is named by its GUID, a drive letter or a mount path, in the system's own
// spelling where it knows the volume. Throws Failure(NotFound or Usage).
std::wstring ResolveVolume(const std::wstring& name);

} // namespace vtlog
