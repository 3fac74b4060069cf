// Text at the borders of the program: UTF-16 inside the system's calls, UTF-8 everywhere else.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vtbackup {

std::string ToUtf8(std::wstring_view text);
// Malformed UTF-8 becomes replacement characters: names are then not found, never misread.
std::wstring ToWide(std::string_view text);

// A system error as "message (code)".
std::string ErrorText(std::uint32_t code);

// Ordinal comparisons, as the registry and the file system compare names.
bool EqualIgnoringCase(std::wstring_view a, std::wstring_view b);
bool EndsWithIgnoringCase(std::wstring_view text, std::wstring_view tail);

std::string HexOf(const void* bytes, std::size_t length);

// "12.3 MiB"
std::string BytesText(std::uint64_t bytes);

} // namespace vtbackup
