// Text at the borders of a program: UTF-16 inside the system's calls, UTF-8 everywhere else.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace toolkit {

// A lone surrogate becomes the replacement character.
std::string ToUtf8(std::wstring_view text);
// Malformed UTF-8 becomes replacement characters: names are then not found, never misread.
std::wstring ToWide(std::string_view text);

// Whether a terminal would act on the character instead of showing it: control characters, line and paragraph ends, and
// what turns the direction of writing.
bool IsUnshowable(wchar_t c) noexcept;
// ToUtf8 for people: a replacement character stands for each unshowable one. Never to be read back as a name.
std::string Shown(std::wstring_view text);

// The system's message for an error code, without its line end and full stop; empty when it has none.
std::string SystemMessage(std::uint32_t code);
// A system error as "message (error code)".
std::string ErrorText(std::uint32_t code);

// Ordinal comparisons, as the registry and the file system compare names.
bool EqualIgnoringCase(std::wstring_view a, std::wstring_view b);
bool EndsWithIgnoringCase(std::wstring_view text, std::wstring_view tail);

// "12.3 MiB"
std::string BytesText(std::uint64_t bytes);

} // namespace toolkit
