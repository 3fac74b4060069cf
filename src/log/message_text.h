// The text of a log message, apart from the system: formatting into a bounded buffer and the clean-up of
// line feeds.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

namespace vtflt {

// Formats into a buffer of capacity characters, at most capacity - 1 of them, always zero-terminated. %s and
// %c take wide text. The one function of the log with a home per platform: see message_format.cpp.
void FormatMessageText(wchar_t* buffer, std::size_t capacity, const wchar_t* format, va_list arguments) noexcept;

// The same with the arguments in place. Allocates nothing.
void FormatBounded(wchar_t* buffer, std::size_t capacity, const wchar_t* format, ...) noexcept;
// The same for narrow text; %s takes narrow text.
void FormatBounded(char* buffer, std::size_t capacity, const char* format, ...) noexcept;

// The same as a string of its own: what a buffer of capacity characters would hold.
std::wstring FormatText(std::size_t capacity, const wchar_t* format, ...);

// Cuts trailing line feeds off in place and returns the text behind the leading ones. Only line feeds go: a
// carriage return stays, and so does everything behind one at the start.
wchar_t* CleanLineFeeds(wchar_t* text) noexcept;

} // namespace vtflt
