#include "registry/multi_string_value.h"

#include "log/log.h"
#include "registry/multi_string.h"
#include "win/owners.h"

#include <cstdint>
#include <memory>
#include <new>

namespace vtflt {

namespace {

// A value's bytes are sized by the registry, so running out of memory for them is an ordinary failure with its own
// record. 0, or the allocation's last error, which is 8 unless it set another; never 0 for a failure.
template <class Make>
DWORD MakeBytes(RegistryBytes& bytes, const Make& make) noexcept
{
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    try {
        bytes = make();
        return ERROR_SUCCESS;
    } catch (const std::bad_alloc&) {
        const DWORD error = GetLastError();
        return error != ERROR_SUCCESS ? error : ERROR_NOT_ENOUGH_MEMORY;
    }
}

// Opens or creates a key below HKEY_LOCAL_MACHINE.
DWORD OpenKey(const wchar_t* subkey, UniqueKey& key)
{
    const auto error = static_cast<DWORD>(RegCreateKeyW(HKEY_LOCAL_MACHINE, subkey, key.put()));
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"Open key %s failed\n", subkey);
    return error;
}

// Asks for a value's type and its size in bytes.
DWORD QuerySize(HKEY key, const wchar_t* valueName, DWORD& type, DWORD& size)
{
    return static_cast<DWORD>(RegQueryValueExW(key, valueName, nullptr, &type, nullptr, &size));
}

DWORD MakeRoom(RegistryBytes& bytes, DWORD size) noexcept
{
    // One byte at least: without a buffer the query would ask for the size once more.
    return MakeBytes(bytes, [size] { return RegistryBytes(size != 0 ? size : 1); });
}

// Reads a value into the room made for the size asked before. Another process may have changed it since: what counts
// is the size that came with the data, and a value that has grown is an error.
DWORD QueryData(HKEY key, const wchar_t* valueName, RegistryBytes& bytes, DWORD size)
{
    const auto error = static_cast<DWORD>(RegQueryValueExW(key, valueName, nullptr, nullptr, bytes.data(), &size));
    if (error == ERROR_SUCCESS)
        bytes.resize(size);
    return error;
}

DWORD SetData(HKEY key, const wchar_t* valueName, DWORD type, const RegistryBytes& bytes, std::size_t size)
{
    return static_cast<DWORD>(RegSetValueExW(key, valueName, 0, type, bytes.data(), static_cast<DWORD>(size)));
}

void LogStrings(const RegistryBytes& value)
{
    std::vector<std::wstring> strings;
    AppendStrings(value, strings);
    int index = 0;
    for (const std::wstring& string : strings)
        Log(LOG_DETAIL, ERROR_SUCCESS, L"Index %d Value : %s\n", index++, string.c_str());
}

} // namespace

DWORD AllMultiString(HKEY key, const wchar_t* valueName, const wchar_t* entry)
{
    DWORD type = REG_MULTI_SZ;
    DWORD size = 0;
    DWORD error = QuerySize(key, valueName, type, size);
    RegistryBytes value;
    if (error == ERROR_FILE_NOT_FOUND) {
        type = REG_MULTI_SZ;
    } else {
        if (error != ERROR_SUCCESS) {
            Log(LOG_ERROR, error, L"Query value failed for %s\n", valueName);
            return error;
        }
        error = MakeRoom(value, size);
        if (error != ERROR_SUCCESS) {
            Log(LOG_ERROR, error, L"Allocate memory %d bytes failed\n", size);
            return error;
        }
        error = QueryData(key, valueName, value, size);
        if (error != ERROR_SUCCESS) {
            Log(LOG_ERROR, error, L"Query value failed for %s\n", valueName);
            return error;
        }
    }

    if (FindMultiSZEntry(value, entry) >= 0) {
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"Find %s, need not add it\n", entry);
        return ERROR_SUCCESS;
    }

    RegistryBytes composed;
    error = MakeBytes(composed, [&value, entry] { return ComposeAddedEntry(value, entry); });
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"Allocate memory %d bytes failed second time", static_cast<DWORD>(value.size()));
        return error;
    }
    error = SetData(key, valueName, type, composed, composed.size());
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"Set Valume failed Key %s\n", valueName);
    return error;
}

DWORD AddMultiSZRegistryEntry(const wchar_t* subkey, const wchar_t* valueName, const wchar_t* entry)
{
    UniqueKey key;
    DWORD error = OpenKey(subkey, key);
    if (error != ERROR_SUCCESS)
        return error;
    error = AllMultiString(key.get(), valueName, entry);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"AllMultiString failed %s %s\n", valueName, entry);
    return error;
}

DWORD RemoveMutliSZRegistryValue(HKEY key, const wchar_t* valueName, const wchar_t* entry)
{
    const std::wstring_view entryText = entry;
    const std::size_t entrySize = (entryText.size() + 1) * sizeof(wchar_t);

    DWORD type = REG_MULTI_SZ;
    DWORD size = 0;
    DWORD error = QuerySize(key, valueName, type, size);
    if (error == ERROR_FILE_NOT_FOUND)
        return ERROR_SUCCESS;
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"Query value for %s failed\n", valueName);
        return error;
    }
    RegistryBytes value;
    error = MakeRoom(value, size);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"Allocate %d byte memory failed in RemoveMutliSZRegistryValue\n", size);
        return error;
    }
    Log(LOG_DETAIL, ERROR_SUCCESS, L"getting %s key \n", valueName);
    error = QueryData(key, valueName, value, size);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"Query value for %s failed second time\n", valueName);
        return error;
    }
    LogStrings(value);

    const int position = FindMultiSZEntry(value, entryText);
    if (position < 0) {
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"Could not found %s on the key %s in the registry\n", entry, valueName);
        return ERROR_SUCCESS;
    }
    if (value.size() < entrySize) {
        Log(LOG_ERROR, ERROR_INTERNAL_ERROR, L"dwSize %d is less than  dwSzValueSize %d\n",
            static_cast<DWORD>(value.size()), static_cast<DWORD>(entrySize));
        return ERROR_INTERNAL_ERROR;
    }

    // The system takes a NUL that happens to stand behind an unended value into it. A value may have been stored
    // without its end, and what remains of it is stored as exactly these bytes.
    std::size_t remaining = 0;
    const auto compose = [&] {
        RegistryBytes bytes = ComposeRemovedEntry(value, static_cast<std::size_t>(position), entryText);
        remaining = bytes.size();
        bytes.insert(bytes.end(), sizeof(wchar_t), 0xFF);
        return bytes;
    };
    RegistryBytes composed;
    error = MakeBytes(composed, compose);
    if (error != ERROR_SUCCESS)
        return error;
    error = SetData(key, valueName, type, composed, remaining);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"RegSetValueEx %s failed after remove value %s\n", valueName, entry);
    return error;
}

DWORD RemoveMultiSZRegistryEntry(const wchar_t* subkey, const wchar_t* valueName, const wchar_t* entry)
{
    UniqueKey key;
    DWORD error = OpenKey(subkey, key);
    if (error != ERROR_SUCCESS)
        return error;
    error = RemoveMutliSZRegistryValue(key.get(), valueName, entry);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"RemoveMutliSZRegistryValue failed %s %s\n", valueName, entry);
    return error;
}

DWORD ReadMutliSZRegistryValue(HKEY key, BYTE** value, DWORD* size)
{
    if (value == nullptr || size == nullptr) {
        Log(LOG_ERROR, ERROR_BAD_ARGUMENTS, L"ReadMutliSZRegistryValue: szValue is NULL !!\n");
        return ERROR_BAD_ARGUMENTS;
    }
    *value = nullptr;
    *size = 0;

    DWORD type = REG_NONE;
    DWORD count = 0;
    DWORD error = QuerySize(key, APPLICATION_IDS_VALUE, type, count);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"ReadMutliSZRegistryValue:RegQueryValueEx failed for %s\n", APPLICATION_IDS_VALUE);
        return error;
    }
    std::unique_ptr<BYTE[]> buffer(new (std::nothrow) BYTE[count]());
    if (buffer == nullptr) {
        Log(LOG_ERROR, ERROR_NOT_ENOUGH_MEMORY, L"ReadMutliSZRegistryValue: Allocate memory %d bytes failed\n", count);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    error = static_cast<DWORD>(RegQueryValueExW(key, APPLICATION_IDS_VALUE, nullptr, nullptr, buffer.get(), &count));
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"ReadMutliSZRegistryValue: RegQueryValueEx failed for %s\n", APPLICATION_IDS_VALUE);
        return error;
    }
    *value = buffer.release();
    *size = count;
    return ERROR_SUCCESS;
}

DWORD ReadValueEntry(std::vector<std::wstring>& list)
{
    UniqueKey key;
    DWORD error = OpenKey(APPLICATION_IDS_KEY, key);
    if (error != ERROR_SUCCESS)
        return error;
    BYTE* bytes = nullptr;
    DWORD size = 0;
    error = ReadMutliSZRegistryValue(key.get(), &bytes, &size);
    const std::unique_ptr<BYTE[]> buffer(bytes);
    key.reset();
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"ReadValueEntry: ReadMutliSZRegistryValue failed for key %s\n", APPLICATION_IDS_VALUE);
        return error;
    }
    if (buffer != nullptr)
        AppendValueEntries(RegistryBytes(bytes, bytes + size), list);
    return ERROR_SUCCESS;
}

} // namespace vtflt
