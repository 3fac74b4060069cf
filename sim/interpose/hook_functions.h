// The replacements of the redirected imports.
#pragma once

#include "interpose/win.h"

namespace vtfltsim {

// Each has the signature of the function that it replaces, checked where it is defined.
#define VTFLTSIM_DECLARE(name) extern void* const Address_##name;

#define VTFLTSIM_DEFINE(name, function)                                                                                \
    static_assert(std::is_same_v<decltype(&function), decltype(&::name)>);                                             \
    extern void* const Address_##name;                                                                                 \
    void* const Address_##name = reinterpret_cast<void*>(&function);

} // namespace vtfltsim
