#include "list_entry.h"

#include "common/text.h"

#include "apps/volume_name.h"

#include <algorithm>

namespace vtfltctl {
namespace {

constexpr std::wstring_view GUID_SHAPE = L"xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";

// In a shape an x stands for any hexadecimal digit.
bool Fits(wchar_t shape, wchar_t c)
{
    const bool hex = (c >= L'0' && c <= L'9') || (c >= L'a' && c <= L'f') || (c >= L'A' && c <= L'F');
    return shape == L'x' ? hex : c == shape;
}

bool FitsAt(std::wstring_view shape, std::size_t at, std::wstring_view text)
{
    return at + text.size() <= shape.size() &&
           std::equal(text.begin(), text.end(), shape.begin() + static_cast<std::ptrdiff_t>(at),
                      [](wchar_t c, wchar_t s) { return Fits(s, c); });
}

struct Guids {
    std::vector<std::wstring> whole; // {...}
    std::wstring around;             // the text without them, their braces and the rest of their paths
};

// Takes the rest of a volume's path off the end of a text: what stands before its {...}.
void DropPathBefore(std::wstring& text)
{
    for (const wchar_t* path : {L"\\\\?\\Volume", L"\\??\\Volume", L"Volume"}) {
        if (!toolkit::EndsWithIgnoringCase(text, path))
            continue;
        text.resize(text.size() - std::wstring_view(path).size());
        return;
    }
}

Guids Part(std::wstring_view text)
{
    Guids parts;
    for (std::size_t at = 0; at < text.size();) {
        const std::wstring_view here = text.substr(at, GUID_SHAPE.size());
        if (here.size() < GUID_SHAPE.size() || !FitsAt(GUID_SHAPE, 0, here)) {
            parts.around += text[at++];
            continue;
        }
        parts.whole.push_back(L"{" + std::wstring(here) + L"}");
        if (parts.around.ends_with(L'{'))
            parts.around.pop_back();
        DropPathBefore(parts.around);
        at += GUID_SHAPE.size();
        if (at < text.size() && text[at] == L'}')
            ++at;
        if (at < text.size() && text[at] == L'\\')
            ++at;
    }
    return parts;
}

} // namespace

std::vector<std::wstring> GuidsIn(std::wstring_view text)
{
    return Part(text).whole;
}

bool CanMatchVolume(std::wstring_view entry)
{
    constexpr std::wstring_view SHAPE = L"\\\\?\\Volume{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}\\";
    for (std::size_t at = 0; at + entry.size() <= SHAPE.size(); ++at) {
        if (FitsAt(SHAPE, at, entry))
            return true;
    }
    return false;
}

Meaning MeaningOf(std::wstring_view entry, const std::vector<std::wstring>& machine)
{
    const auto addIf = [&](auto means, Meaning& meaning) {
        bool any = false;
        for (const std::wstring& guid : machine) {
            if (!means(guid))
                continue;
            any = true;
            if (std::find(meaning.volumes.begin(), meaning.volumes.end(), guid) == meaning.volumes.end())
                meaning.volumes.push_back(guid);
        }
        return any;
    };
    Meaning meaning;
    const Guids parts = Part(entry);
    if (parts.whole.empty()) {
        addIf(
            [&](const std::wstring& guid) {
                return vtflt::ListEntryMatchesVolume(entry, L"\\\\?\\Volume" + guid + L"\\");
            },
            meaning);
        // Not what could be a part of the name of a volume that is away, a drive, or a name that was cut or mistyped.
        meaning.whole = !CanMatchVolume(entry) && entry.find_first_of(L"{}-:\\/0123456789") == std::wstring_view::npos;
        return meaning;
    }
    // Anything but what parts them may be a piece of another name.
    meaning.whole = parts.around.find_first_not_of(L" \t,;") == std::wstring::npos;
    for (const std::wstring& whole : parts.whole) {
        if (!addIf([&](const std::wstring& guid) { return toolkit::EqualIgnoringCase(guid, whole); }, meaning))
            meaning.whole = false;
    }
    return meaning;
}

} // namespace vtfltctl
