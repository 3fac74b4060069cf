#include "registry/value.h"

#include <vector>

namespace vtflt {

namespace {

DWORD QueryNumber(HKEY key, const wchar_t* valueName, DWORD& type, DWORD& value)
{
    // A value of no bytes leaves what was there.
    DWORD number = value;
    DWORD size = sizeof(number);
    const LSTATUS error = RegQueryValueExW(key, valueName, nullptr, &type, reinterpret_cast<BYTE*>(&number), &size);
    if (error != ERROR_SUCCESS)
        return static_cast<DWORD>(error);
    value = number;
    return ERROR_SUCCESS;
}

} // namespace

DWORD OpenSettingsKey(const wchar_t* subkey, UniqueKey& key)
{
    return static_cast<DWORD>(RegCreateKeyExW(HKEY_LOCAL_MACHINE, subkey, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                              KEY_READ | KEY_WRITE, nullptr, key.put(), nullptr));
}

DWORD ReadDwordValue(HKEY key, const wchar_t* valueName, DWORD& value)
{
    DWORD type = REG_NONE;
    DWORD number = 0;
    const DWORD error = QueryNumber(key, valueName, type, number);
    // A value that is too long has told its type all the same, and another type is invalid whatever its size.
    if ((error == ERROR_SUCCESS || error == ERROR_MORE_DATA) && type != REG_DWORD)
        return ERROR_INVALID_DATA;
    if (error != ERROR_SUCCESS)
        return error;
    value = number;
    return ERROR_SUCCESS;
}

DWORD ReadUntypedDwordValue(HKEY key, const wchar_t* valueName, DWORD& value)
{
    DWORD type = REG_NONE;
    return QueryNumber(key, valueName, type, value);
}

DWORD WriteDwordValue(HKEY key, const wchar_t* valueName, DWORD value)
{
    return static_cast<DWORD>(
        RegSetValueExW(key, valueName, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value)));
}

DWORD ReadStringValue(HKEY key, const wchar_t* valueName, std::size_t capacity, std::wstring& value)
{
    std::vector<wchar_t> text(capacity);
    DWORD type = REG_NONE;
    DWORD size = static_cast<DWORD>(capacity * sizeof(wchar_t));
    const LSTATUS error = RegQueryValueExW(key, valueName, nullptr, &type, reinterpret_cast<BYTE*>(text.data()), &size);
    if (error != ERROR_SUCCESS)
        return static_cast<DWORD>(error);
    if (type != REG_SZ && type != REG_EXPAND_SZ)
        return ERROR_INVALID_DATA;
    if (size == 0) {
        value.clear();
        return ERROR_SUCCESS;
    }
    const std::size_t characters = size / sizeof(wchar_t);
    if (size % sizeof(wchar_t) != 0 || text[characters - 1] != L'\0')
        return ERROR_INVALID_DATA;
    value = text.data();
    return ERROR_SUCCESS;
}

} // namespace vtflt
