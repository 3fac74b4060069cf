// Arithmetic on multi-string registry values as raw bytes, apart from the system.
//
// A value is a sequence of UTF-16 strings, each ended by NUL, with one more NUL behind the last. The rules for
// matching and for buffer sizes are particular and decide the stored bytes: other programs read and write the same
// values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vtflt {

using RegistryBytes = std::vector<std::uint8_t>;

// The character position of the first match of entry followed by NUL, or -1. bound is a count as callers have it
// (the value's size in bytes); the scan also stays inside the characters that the buffer really holds. A match
// need not begin at an entry: App1 is found in MyApp1, but not in App12.
int FindMultiSZEntry(const wchar_t* buffer, std::size_t characters, std::size_t bound, std::wstring_view entry);

// The same on raw bytes as the registry returned them.
int FindMultiSZEntry(const RegistryBytes& value, std::wstring_view entry);

// The bytes to store when an entry is added to a value (empty when absent).
RegistryBytes ComposeAddedEntry(const RegistryBytes& value, std::wstring_view entry);

// The bytes to store when the entry found at a character position is removed. The value must be at least as large
// as the entry with its NUL.
RegistryBytes ComposeRemovedEntry(const RegistryBytes& value, std::size_t position, std::wstring_view entry);

// Appends the strings of a list of registered applications, by its own reading rule: every NUL but the last ends an
// entry, even an empty one.
void AppendValueEntries(const RegistryBytes& value, std::vector<std::wstring>& entries);

// Whether bytes are a well-formed multi-string: an even size of at least 2 characters and ended by two NULs.
bool IsWellFormedMultiString(const RegistryBytes& value);

// Appends the strings up to the first empty one.
void AppendStrings(const RegistryBytes& value, std::vector<std::wstring>& strings);

} // namespace vtflt
