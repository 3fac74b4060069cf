// The imports of a loaded module: where the addresses stand that it calls other modules through.
#pragma once

#include "interpose/win.h"

#include <cstdint>
#include <functional>

namespace vtfltsim {

// Visits each function that the module imports by name, with the place of its address. Stops, and gives false, when
// the visitor gives false.
bool ForEachImport(HMODULE module, const std::function<bool(const char* name, void** place)>& visit);

// What tells a loaded image from another one at the same place. Two of the same mark have the same size.
struct ImageMark {
    std::uint64_t size = 0; // in memory
    std::uint32_t time = 0; // when it was made, where the image says so
    bool operator==(const ImageMark& other) const noexcept { return size == other.size && time == other.time; }
};
ImageMark MarkOf(HMODULE module);

// Where the innermost code outside of this module goes on: behind the call that led in here. Null when it is not found.
const void* CallSite();

} // namespace vtfltsim
