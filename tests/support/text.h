// Text conversions for tests; characters outside ASCII become "?" in messages.
#pragma once

#include <string>
#include <string_view>

namespace vttest {

inline std::string Narrow(std::wstring_view text)
{
    std::string narrow;
    for (const wchar_t character : text)
        narrow.push_back(character >= 0x20 && character < 0x7F ? static_cast<char>(character) : '?');
    return narrow;
}

inline std::wstring WideNumber(unsigned long long number)
{
    std::wstring digits;
    do {
        digits.insert(digits.begin(), static_cast<wchar_t>(L'0' + number % 10));
        number /= 10;
    } while (number != 0);
    return digits;
}

} // namespace vttest
