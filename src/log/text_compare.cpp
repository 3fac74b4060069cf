#include "log/text_compare.h"

#include "win/windows.h"

namespace vtflt {

bool EqualIgnoringCase(std::wstring_view a, std::wstring_view b) noexcept
{
    if (a.size() != b.size())
        return false;
    if (a.empty())
        return true;
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_EQUAL;
}

bool StartsWithIgnoringCase(std::wstring_view text, std::wstring_view prefix) noexcept
{
    return !prefix.empty() && text.size() >= prefix.size() && EqualIgnoringCase(text.substr(0, prefix.size()), prefix);
}

} // namespace vtflt
