#include "apps/resync_text.h"

#include <algorithm>

namespace vtflt {

namespace {

constexpr wchar_t LIST_VALUE_NAME[] = L"DeviceListForReSync";
constexpr wchar_t SEPARATOR = L'*';
constexpr std::size_t LIST_END_CHARACTERS = 2;

} // namespace

std::wstring MakeListValueName(std::wstring_view suffix)
{
    std::wstring name = LIST_VALUE_NAME;
    name.append(suffix);
    return name;
}

void AppendToListText(std::wstring& text, std::wstring_view entry)
{
    text.append(entry);
    text.push_back(SEPARATOR);
}

bool ListTextHolds(std::wstring_view text, std::wstring_view entry)
{
    return text.find(entry) != std::wstring_view::npos;
}

std::wstring ListTextToMultiString(std::wstring_view text)
{
    std::wstring stored;
    stored.reserve(text.size() + LIST_END_CHARACTERS);
    while (!text.empty()) {
        const std::wstring_view entry = text.substr(0, text.find(SEPARATOR));
        text.remove_prefix(std::min(text.size(), entry.size() + 1));
        if (entry.empty())
            continue;
        stored.append(entry);
        stored.push_back(L'\0');
    }
    // A list of nothing still ends with two of them.
    stored.resize(std::max(stored.size() + 1, LIST_END_CHARACTERS));
    return stored;
}

bool IsBracedGuid(std::wstring_view entry)
{
    return entry.starts_with(L'{') && entry.ends_with(L'}');
}

void SplitDriverList(const std::vector<std::wstring>& driverList, std::vector<std::wstring>& handOut,
                     std::vector<std::wstring>& keep)
{
    for (const std::wstring& entry : driverList)
        (IsBracedGuid(entry) ? handOut : keep).push_back(entry);
}

} // namespace vtflt
