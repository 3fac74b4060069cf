#include "visible_text.h"

#include <cstddef>

namespace vtlog {
namespace {

constexpr std::size_t SHOWN_ALONE = 3;

bool IsHidden(wchar_t c) noexcept
{
    if (c < 0x20)
        return c != L'\t';
    return (c >= 0x7F && c < 0xA0)         // the other control characters
           || (c >= 0x200B && c <= 0x200F) // marks without width
           || (c >= 0x2028 && c <= 0x202E) // separators, direction of writing
           || (c >= 0x2066 && c <= 0x2069) // direction of writing
           || c == 0xFEFF;
}

void AppendHex(std::wstring& to, unsigned value, unsigned digits)
{
    while (digits-- > 0)
        to.push_back(L"0123456789abcdef"[value >> (4 * digits) & 0xF]);
}

void AppendHidden(std::wstring& to, wchar_t c)
{
    const auto value = static_cast<unsigned>(c);
    to += value < 0x100 ? L"\\x" : L"\\u";
    AppendHex(to, value, value < 0x100 ? 2 : 4);
}

void AppendCount(std::wstring& to, std::size_t count)
{
    std::wstring digits;
    for (; count != 0; count /= 10)
        digits.insert(digits.begin(), static_cast<wchar_t>(L'0' + count % 10));
    to += L"{" + digits + L"}";
}

} // namespace

std::wstring VisibleText(std::wstring_view text, std::wstring_view newLine)
{
    std::wstring visible;
    visible.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const wchar_t c = text[at];
        if (c == L'\r' && at + 1 < text.size() && text[at + 1] == L'\n') {
            visible += newLine;
            at += 2;
            continue;
        }
        if (c == L'\n') {
            visible += newLine;
            ++at;
            continue;
        }
        if (!IsHidden(c)) {
            visible.push_back(c);
            ++at;
            continue;
        }
        std::size_t end = at + 1;
        while (end < text.size() && text[end] == c)
            ++end;
        // The last carriage return of a run may belong to a line end.
        if (c == L'\r' && end < text.size() && text[end] == L'\n')
            --end;
        const std::size_t run = end - at;
        for (std::size_t i = 0; i < (run > SHOWN_ALONE ? 1 : run); ++i)
            AppendHidden(visible, c);
        if (run > SHOWN_ALONE)
            AppendCount(visible, run);
        at = end;
    }
    return visible;
}

} // namespace vtlog
