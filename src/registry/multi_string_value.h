// Multi-string values in the registry: find, add, remove, and the list of registered applications.
//
// Every function returns a Windows error code, 0 on success, logs its failures, and leaves the stored value alone
// when it fails before its write.
#pragma once

#include "win/windows.h"

#include <cstddef>
#include <string>
#include <vector>

namespace vtflt {

inline constexpr wchar_t APPLICATION_IDS_KEY[] = L"SOFTWARE\\Veltrix\\Shared\\CBTDriver\\AppIDs";
inline constexpr wchar_t APPLICATION_IDS_VALUE[] = L"RegisteredAppIDs";

// Adds an entry to a value of an open key unless it is found; an absent value is created.
DWORD AllMultiString(HKEY key, const wchar_t* valueName, const wchar_t* entry);

// The same on a key below HKEY_LOCAL_MACHINE, which is opened or created.
DWORD AddMultiSZRegistryEntry(const wchar_t* subkey, const wchar_t* valueName, const wchar_t* entry);

// Removes an entry from a value of an open key if it is found; the value itself stays, even empty.
DWORD RemoveMutliSZRegistryValue(HKEY key, const wchar_t* valueName, const wchar_t* entry);

// The same on a key below HKEY_LOCAL_MACHINE, which is opened or created.
DWORD RemoveMultiSZRegistryEntry(const wchar_t* subkey, const wchar_t* valueName, const wchar_t* entry);

// Reads the value "RegisteredAppIDs" of an open key whole. *value is made with new[] and belongs to the caller;
// null with size 0 after an error. 160 when value or size is null, 8 when memory is short, 2 when absent.
DWORD ReadMutliSZRegistryValue(HKEY key, BYTE** value, DWORD* size);

// Appends the registered application IDs to list. 2 when none ever registered.
DWORD ReadValueEntry(std::vector<std::wstring>& list);

} // namespace vtflt
