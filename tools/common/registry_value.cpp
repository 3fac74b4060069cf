#include "common/registry_value.h"

#include "win/owners.h"

namespace toolkit {

RegistryValue ReadRegistryValue(const std::wstring& key, const std::wstring& value)
{
    RegistryValue read;
    DWORD type = 0;
    vtflt::UniqueKey opened;
    read.error = static_cast<std::uint32_t>(RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, opened.put()));
    DWORD size = 4096;
    while (read.error == ERROR_SUCCESS) {
        read.bytes.assign(size, 0);
        read.error = static_cast<std::uint32_t>(
            RegQueryValueExW(opened.get(), value.c_str(), nullptr, &type, read.bytes.data(), &size));
        if (read.error != ERROR_MORE_DATA)
            break;
        read.error = ERROR_SUCCESS;
    }
    read.type = type;
    read.bytes.resize(read.error == ERROR_SUCCESS ? size : 0);
    return read;
}

RegistryValue ReadMultiString(const std::wstring& key, const std::wstring& value)
{
    RegistryValue read = ReadRegistryValue(key, value);
    if (read.error == ERROR_SUCCESS && read.type != REG_MULTI_SZ)
        read.error = ERROR_INVALID_DATA;
    return read;
}

} // namespace toolkit
