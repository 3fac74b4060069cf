// The places in the library's code that call what the simulator redirects, as the program's own file has them.
#pragma once

#include <string>
#include <vector>

namespace vtproof {

struct LibraryCall {
    const void* behind = nullptr; // the address behind the call, as VTFltSimGetTraceSite gives it
    std::string function;         // of the library
    std::string calls;            // of Windows
};

// While the program is attached to a machine. Of functions that allocate memory none: they are never recorded.
std::vector<LibraryCall> LibraryCalls();

} // namespace vtproof
