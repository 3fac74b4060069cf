// What a path means on a simulated machine.
#pragma once

#include "interpose/machine.h"

#include <string>
#include <string_view>

namespace vtfltsim {

struct Target {
    enum class Kind {
        Real,     // not the machine's: the path is passed on; realPath is the path itself
        Control,  // the driver's control device
        Volume,   // a volume as a device
        Snapshot, // a snapshot as a device
        File,     // a file or folder on a volume: realPath is where it really lies
        Missing,  // it would be the machine's, but there is no such thing: error
    };
    Kind kind = Kind::Real;
    Endpoint endpoint;   // of the device, or of the volume that holds the file
    bool isRoot = false; // File: the volume's root folder, named with its trailing backslash
    std::wstring realPath;
    DWORD error = 0;
};

Target ResolvePath(Machine& machine, std::wstring_view path);

} // namespace vtfltsim
