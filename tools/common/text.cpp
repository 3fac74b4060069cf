#include "common/text.h"

#include "win/windows.h"

#include <fmt/format.h>

#include <algorithm>

namespace toolkit {

std::string ToUtf8(std::wstring_view text)
{
    if (text.empty())
        return {};
    const int in = static_cast<int>(text.size());
    std::string out(
        static_cast<std::size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), in, nullptr, 0, nullptr, nullptr)), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), in, out.data(), static_cast<int>(out.size()), nullptr, nullptr);
    return out;
}

std::wstring ToWide(std::string_view text)
{
    if (text.empty())
        return {};
    const int in = static_cast<int>(text.size());
    std::wstring out(static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), in, nullptr, 0)), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), in, out.data(), static_cast<int>(out.size()));
    return out;
}

bool IsUnshowable(wchar_t c) noexcept
{
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

std::string Shown(std::wstring_view text)
{
    std::wstring shown(text);
    std::replace_if(shown.begin(), shown.end(), IsUnshowable, L'\xFFFD');
    return ToUtf8(shown);
}

std::string SystemMessage(std::uint32_t code)
{
    wchar_t buffer[512] = {};
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0,
                                        buffer, 511, nullptr);
    std::string message = ToUtf8(std::wstring_view(buffer, length));
    while (!message.empty() &&
           (message.back() == '\n' || message.back() == '\r' || message.back() == '.' || message.back() == ' '))
        message.pop_back();
    return message;
}

std::string ErrorText(std::uint32_t code)
{
    const std::string message = SystemMessage(code);
    if (message.empty())
        return fmt::format("error {:#x}", code);
    return fmt::format("{} (error {})", message, code);
}

bool EqualIgnoringCase(std::wstring_view a, std::wstring_view b)
{
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_EQUAL;
}

bool EndsWithIgnoringCase(std::wstring_view text, std::wstring_view tail)
{
    return text.size() >= tail.size() && EqualIgnoringCase(text.substr(text.size() - tail.size()), tail);
}

} // namespace toolkit
