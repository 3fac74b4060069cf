// Multi-string registry values, as raw bytes that any program may have stored.
#include "registry/multi_string.h"

#include "fuzz/fuzz.h"

#include <algorithm>

namespace fuzz {

namespace {

using vtflt::RegistryBytes;

std::wstring Characters(const RegistryBytes& value)
{
    std::wstring text;
    for (std::size_t i = 0; i + 1 < value.size(); i += 2)
        text.push_back(static_cast<wchar_t>(value[i] | value[i + 1] << 8));
    return text;
}

RegistryBytes AsBytes(const std::wstring& text)
{
    RegistryBytes bytes;
    for (const wchar_t character : text) {
        bytes.push_back(static_cast<std::uint8_t>(character & 0xFF));
        bytes.push_back(static_cast<std::uint8_t>(character >> 8 & 0xFF));
    }
    return bytes;
}

// The first place at which the entry stands with a NUL behind it.
int PlaceOf(const std::wstring& text, const std::wstring& entry)
{
    const std::size_t found = text.find(entry + L'\0');
    return found == std::wstring::npos ? -1 : static_cast<int>(found);
}

void CheckRawValue(const RegistryBytes& value, const std::wstring& entry)
{
    const std::wstring text = Characters(value);
    const int place = vtflt::FindMultiSZEntry(value, entry);
    FUZZ_HOLDS(place == PlaceOf(text, entry));
    FUZZ_HOLDS(place == vtflt::FindMultiSZEntry(text.data(), text.size(), value.size(), entry));

    const bool endsTwice = text.size() >= 2 && text[text.size() - 1] == 0 && text[text.size() - 2] == 0;
    FUZZ_HOLDS(vtflt::IsWellFormedMultiString(value) == (value.size() % 2 == 0 && endsTwice));

    std::vector<std::wstring> entries;
    vtflt::AppendValueEntries(value, entries);
    const std::wstring walked = text.substr(0, text.empty() ? 0 : text.size() - 1);
    FUZZ_HOLDS(entries.size() == static_cast<std::size_t>(std::count(walked.begin(), walked.end(), L'\0')));
    std::wstring joined;
    for (const std::wstring& one : entries)
        joined += one + L'\0';
    FUZZ_HOLDS(walked.compare(0, joined.size(), joined) == 0);

    std::vector<std::wstring> strings;
    vtflt::AppendStrings(value, strings);
    for (const std::wstring& one : strings)
        FUZZ_HOLDS(!one.empty() && one.find(L'\0') == std::wstring::npos);

    const RegistryBytes added = vtflt::ComposeAddedEntry(value, entry);
    FUZZ_HOLDS(added.size() >= 4 && added.size() <= value.size() + 4 + 2 * entry.size());
    FUZZ_HOLDS(std::all_of(added.end() - 4, added.end(), [](std::uint8_t byte) { return byte == 0; }));

    const std::size_t entryBytes = 2 * (entry.size() + 1);
    if (place < 0 || value.size() < entryBytes)
        return;
    RegistryBytes expected = value;
    const auto begin = expected.begin() + 2 * static_cast<std::ptrdiff_t>(place);
    expected.erase(begin, begin + static_cast<std::ptrdiff_t>(entryBytes));
    if (value.size() == entryBytes)
        expected = {0, 0};
    FUZZ_HOLDS(vtflt::ComposeRemovedEntry(value, static_cast<std::size_t>(place), entry) == expected);
}

std::vector<std::wstring> StringsOf(const RegistryBytes& value)
{
    std::vector<std::wstring> strings;
    vtflt::AppendStrings(value, strings);
    return strings;
}

// A list as the library writes it: what is added is there, at the end; what is removed is gone, and nothing else.
void CheckList(Input& input, const std::wstring& entry)
{
    std::vector<std::wstring> list;
    std::wstring text;
    while (input.Left() > 0 && list.size() < 20) {
        std::wstring one = input.Text(input.Byte() % 8);
        std::replace(one.begin(), one.end(), L'\0', L'a');
        if (one.empty())
            continue;
        list.push_back(one);
        text += one + L'\0';
    }
    if (list.empty() || entry.empty())
        return;
    const RegistryBytes value = AsBytes(text + L'\0');
    FUZZ_HOLDS(StringsOf(value) == list);
    const RegistryBytes added = vtflt::ComposeAddedEntry(value, entry);
    list.push_back(entry);
    FUZZ_HOLDS(vtflt::IsWellFormedMultiString(added) && StringsOf(added) == list);
    list.pop_back();
    const int place = vtflt::FindMultiSZEntry(added, entry);
    FUZZ_HOLDS(place >= 0);
    const auto whole = static_cast<std::size_t>(place);
    if (whole == text.size())
        FUZZ_HOLDS(StringsOf(vtflt::ComposeRemovedEntry(added, whole, entry)) == list);
}

} // namespace

void MultiString(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    const bool isList = input.Flag();
    std::wstring entry = input.Text(input.Byte() % 12);
    // An entry comes as a C string.
    entry = entry.substr(0, entry.find(L'\0'));
    if (isList)
        CheckList(input, entry);
    else
        CheckRawValue(input.Bytes(2000), entry);
}

} // namespace fuzz
