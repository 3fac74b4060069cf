// The log's formatting on Linux, where the C run-time's wide functions are for other characters: what the pure parts of
// the log need of it. %s takes text of the format's own kind; %d, %u, %x with 0, a width and l.
#include "log/message_text.h"

#include <cstdint>
#include <string>

namespace {

template <class C>
class Formatter {
public:
    Formatter(C* buffer, std::size_t capacity) : m_buffer(buffer), m_capacity(capacity) {}

    void Run(const C* format, va_list arguments)
    {
        for (; *format != 0; ++format) {
            if (*format != '%')
                Put(*format);
            else
                format = Convert(format + 1, arguments);
        }
        m_buffer[m_length] = 0;
    }

private:
    // Handles one conversion; gives the place of its last character.
    const C* Convert(const C* format, va_list arguments)
    {
        m_zeroes = *format == '0';
        m_width = 0;
        for (; *format >= '0' && *format <= '9'; ++format)
            m_width = m_width * 10 + static_cast<std::size_t>(*format - '0');
        const bool isLong = *format == 'l';
        format += isLong;
        if (*format == 's')
            PutText(va_arg(arguments, const C*));
        else if (*format == '%')
            Put('%');
        else if (isLong)
            PutNumber(va_arg(arguments, long), *format == 'x');
        else
            PutNumber(*format == 'd' ? std::int64_t{va_arg(arguments, int)} : std::int64_t{va_arg(arguments, unsigned)},
                      *format == 'x');
        return format;
    }
    void PutText(const C* text)
    {
        while (*text != 0)
            Put(*text++);
    }
    void PutNumber(std::int64_t number, bool isHexadecimal)
    {
        std::string digits;
        const std::uint64_t base = isHexadecimal ? 16 : 10;
        std::uint64_t rest = static_cast<std::uint64_t>(number < 0 ? -number : number);
        do
            digits.insert(digits.begin(), "0123456789abcdef"[rest % base]);
        while ((rest /= base) != 0);
        const std::size_t signs = number < 0 ? 1 : 0;
        const std::size_t fill = m_width > digits.size() + signs ? m_width - digits.size() - signs : 0;
        if (!m_zeroes)
            PutMany(' ', fill);
        PutMany('-', signs);
        if (m_zeroes)
            PutMany('0', fill);
        for (const char digit : digits)
            Put(static_cast<C>(digit));
    }
    void PutMany(char character, std::size_t count)
    {
        for (; count > 0; --count)
            Put(static_cast<C>(character));
    }
    void Put(C character)
    {
        if (m_length + 1 < m_capacity)
            m_buffer[m_length++] = character;
    }

    C* m_buffer;
    std::size_t m_capacity;
    std::size_t m_length = 0;
    std::size_t m_width = 0;
    bool m_zeroes = false;
};

} // namespace

namespace vtflt {

void FormatMessageText(wchar_t* buffer, std::size_t capacity, const wchar_t* format, va_list arguments) noexcept
{
    if (capacity != 0)
        Formatter<wchar_t>(buffer, capacity).Run(format, arguments);
}

std::wstring FormatText(std::size_t capacity, const wchar_t* format, ...)
{
    std::wstring text(capacity, L'\0');
    va_list arguments;
    va_start(arguments, format);
    FormatMessageText(text.data(), capacity, format, arguments);
    va_end(arguments);
    return text.substr(0, text.find(L'\0'));
}

void FormatBounded(wchar_t* buffer, std::size_t capacity, const wchar_t* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    Formatter<wchar_t>(buffer, capacity).Run(format, arguments);
    va_end(arguments);
}

void FormatBounded(char* buffer, std::size_t capacity, const char* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    Formatter<char>(buffer, capacity).Run(format, arguments);
    va_end(arguments);
}

} // namespace vtflt
