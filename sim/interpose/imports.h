// The imports of a loaded module: where the addresses stand that it calls other modules through.
#pragma once

#include "interpose/win.h"

#include <functional>

namespace vtfltsim {

// Visits each function that the module imports by name, with the place of its address. Stops, and gives false, when
// the visitor gives false.
bool ForEachImport(HMODULE module, const std::function<bool(const char* name, void** place)>& visit);

// Where the innermost code outside of this module goes on: behind the call that led in here. Null when it is not found.
const void* CallSite();

} // namespace vtfltsim
