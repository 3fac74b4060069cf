#include "visible_text.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace vtlog {
namespace {

constexpr std::size_t SHOWN_ALONE = 3;

struct Range {
    char32_t first;
    char32_t last;
};

// By their numbers.
constexpr Range HIDDEN[] = {
    {0x00, 0x08},       // control characters; the tab between them stays
    {0x0A, 0x1F},       // control characters
    {0x7F, 0x9F},       // control characters
    {0xAD, 0xAD},       // a hyphen that shows at the end of a line only
    {0x34F, 0x34F},     // a joiner without width
    {0x61C, 0x61C},     // direction of writing
    {0x115F, 0x1160},   // letters without a shape
    {0x17B4, 0x17B5},   // letters without a shape
    {0x180B, 0x180F},   // choices of a letter's shape, and a space without width
    {0x200B, 0x200F},   // marks without width
    {0x2028, 0x202E},   // separators, direction of writing
    {0x2060, 0x206F},   // joiners, operators that are not written, direction of writing, and what was given up
    {0x3164, 0x3164},   // a letter without a shape
    {0xFE00, 0xFE0F},   // choices of a character's shape
    {0xFEFF, 0xFEFF},   // the mark at the beginning of a file
    {0xFFA0, 0xFFA0},   // a letter without a shape
    {0xFFF0, 0xFFFB},   // kept for such, and marks of notes between the lines
    {0x1BCA0, 0x1BCA3}, // marks of shorthand
    {0x1D173, 0x1D17A}, // marks of music
    {0xE0000, 0xE0FFF}, // letters of tags, choices of a character's shape, and kept for such
};

bool IsHidden(char32_t c) noexcept
{
    const auto* const range =
        std::find_if(std::begin(HIDDEN), std::end(HIDDEN), [c](const Range& one) { return c <= one.last; });
    return range != std::end(HIDDEN) && c >= range->first;
}

// The character at the beginning of a text that is not empty: of a pair both halves, of half a pair that half.
char32_t FirstCharacter(std::wstring_view text) noexcept
{
    const wchar_t high = text[0];
    if (high < 0xD800 || high > 0xDBFF || text.size() == 1 || text[1] < 0xDC00 || text[1] > 0xDFFF)
        return high;
    return 0x10000 + (static_cast<char32_t>(high - 0xD800) << 10) + static_cast<char32_t>(text[1] - 0xDC00);
}

std::size_t UnitsOf(char32_t c) noexcept
{
    return c < 0x10000 ? 1 : 2;
}

void AppendHex(std::wstring& to, unsigned value, unsigned digits)
{
    while (digits-- > 0)
        to.push_back(L"0123456789abcdef"[value >> (4 * digits) & 0xF]);
}

void AppendHidden(std::wstring& to, char32_t c)
{
    to += c < 0x100 ? L"\\x" : c < 0x10000 ? L"\\u" : L"\\U";
    AppendHex(to, static_cast<unsigned>(c), c < 0x100 ? 2 : c < 0x10000 ? 4 : 8);
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
        const char32_t c = FirstCharacter(text.substr(at));
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
        const std::size_t units = UnitsOf(c);
        if (!IsHidden(c)) {
            visible += text.substr(at, units);
            at += units;
            continue;
        }
        std::size_t end = at + units;
        while (end < text.size() && FirstCharacter(text.substr(end)) == c)
            end += units;
        // The last carriage return of a run may belong to a line end.
        if (c == L'\r' && end < text.size() && text[end] == L'\n')
            --end;
        const std::size_t run = (end - at) / units;
        for (std::size_t i = 0; i < (run > SHOWN_ALONE ? 1 : run); ++i)
            AppendHidden(visible, c);
        if (run > SHOWN_ALONE)
            AppendCount(visible, run);
        at = end;
    }
    return visible;
}

} // namespace vtlog
