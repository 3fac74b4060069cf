// Registry values as they stand, for programs that only look: nothing is opened for writing, and no key is made where one
// is missing, as the library's own readers do.
#pragma once

#include "registry/multi_string.h"

#include <cstdint>
#include <string>

namespace toolkit {

struct RegistryValue {
    std::uint32_t error = 0; // 0, 2 when key or value is absent, else the registry's
    std::uint32_t type = 0;
    vtflt::RegistryBytes bytes;
};

// Reads a value below HKEY_LOCAL_MACHINE, whatever its type.
RegistryValue ReadRegistryValue(const std::wstring& key, const std::wstring& value);

// The same for a multi-string: 13 in error for any other type.
RegistryValue ReadMultiString(const std::wstring& key, const std::wstring& value);

} // namespace toolkit
