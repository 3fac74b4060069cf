// Text in fields of a fixed size, as shared memory and the log's own buffers hold it.
//
// Nothing here trusts a field to be terminated: a program that edits a shared block may have left any bytes in it.
#pragma once

#include <cstddef>
#include <string_view>

namespace vtflt {

// The text of a field: up to its first zero, or all of it when it has none.
template <std::size_t N>
std::wstring_view FieldText(const wchar_t (&field)[N]) noexcept
{
    const std::wstring_view whole(field, N);
    const std::size_t end = whole.find(L'\0');
    return end == std::wstring_view::npos ? whole : whole.substr(0, end);
}

// Stores a text, cut so that the field ends in a zero; what is behind it becomes zero. from may lie in the field.
template <std::size_t N>
void CopyText(wchar_t (&to)[N], std::wstring_view from) noexcept
{
    const std::size_t length = from.size() < N ? from.size() : N - 1;
    std::char_traits<wchar_t>::move(to, from.data(), length);
    std::char_traits<wchar_t>::assign(to + length, N - length, L'\0');
}

// Adds a text behind what the field holds, cut in the same way.
template <std::size_t N>
void AppendText(wchar_t (&to)[N], std::wstring_view from) noexcept
{
    const std::size_t used = FieldText(to).size();
    if (used >= N - 1)
        return;
    const std::size_t length = from.size() < N - used ? from.size() : N - used - 1;
    std::char_traits<wchar_t>::move(to + used, from.data(), length);
    to[used + length] = L'\0';
}

// The part behind the last backslash; the whole text when there is none.
inline std::wstring_view FileNamePart(std::wstring_view path) noexcept
{
    const std::size_t backslash = path.rfind(L'\\');
    return backslash == std::wstring_view::npos ? path : path.substr(backslash + 1);
}

} // namespace vtflt
