#include "log/message_text.h"

#include <cstdio>
#include <cwchar>

namespace vtflt {

void FormatMessageText(wchar_t* buffer, std::size_t capacity, const wchar_t* format, va_list arguments) noexcept
{
    // By the C run-time's own function, because it takes %s as wide text on every Windows tool chain. It leaves a text
    // that fills the buffer without its end.
    if (capacity == 0)
        return;
#if defined(_MSC_VER)
#pragma warning(suppress : 4996) // the end is set below
#endif
    _vsnwprintf(buffer, capacity - 1, format, arguments);
    buffer[capacity - 1] = L'\0';
}

void FormatBounded(wchar_t* buffer, std::size_t capacity, const wchar_t* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    FormatMessageText(buffer, capacity, format, arguments);
    va_end(arguments);
}

void FormatBounded(char* buffer, std::size_t capacity, const char* format, ...) noexcept
{
    if (capacity == 0)
        return;
    buffer[0] = '\0';
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, capacity, format, arguments);
    va_end(arguments);
}

std::wstring FormatText(std::size_t capacity, const wchar_t* format, ...)
{
    std::wstring text(capacity, L'\0');
    va_list arguments;
    va_start(arguments, format);
    FormatMessageText(text.data(), capacity, format, arguments);
    va_end(arguments);
    text.resize(std::wcslen(text.c_str()));
    return text;
}

} // namespace vtflt
