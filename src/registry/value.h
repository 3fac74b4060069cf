// Typed reads and writes of single registry values below HKEY_LOCAL_MACHINE. None of them logs.
#pragma once

#include "win/owners.h"

#include <string>

namespace vtflt {

// Opens or creates a key for reading and writing. 0 or the registry's error.
DWORD OpenSettingsKey(const wchar_t* subkey, UniqueKey& key);

// Reads a REG_DWORD of at most 4 bytes from an open key. 0; 13 for another type; else the registry's error (2 when
// absent, 234 when larger).
DWORD ReadDwordValue(HKEY key, const wchar_t* valueName, DWORD& value);

// Reads up to 4 bytes of any type as a number; a value of fewer bytes replaces the lowest only. 0 or the registry's error.
DWORD ReadUntypedDwordValue(HKEY key, const wchar_t* valueName, DWORD& value);

// Stores a REG_DWORD. 0 or the registry's error.
DWORD WriteDwordValue(HKEY key, const wchar_t* valueName, DWORD value);

// Reads a REG_SZ or REG_EXPAND_SZ (not expanded) of fewer than capacity characters. A value of size zero reads as
// empty. 0; 13 for another type, an odd size or a text without its end; else the registry's error.
DWORD ReadStringValue(HKEY key, const wchar_t* valueName, std::size_t capacity, std::wstring& value);

} // namespace vtflt
