#include "interpose/win.h"

#include <algorithm>

namespace vtfltsim {

std::wstring Decimal(unsigned long long value)
{
    std::wstring text;
    do {
        text.insert(text.begin(), static_cast<wchar_t>(L'0' + value % 10));
        value /= 10;
    } while (value != 0);
    return text;
}

std::wstring Hexadecimal(DWORD value)
{
    std::wstring text = L"0x";
    for (int shift = 28; shift >= 0; shift -= 4)
        text.push_back(L"0123456789ABCDEF"[(value >> shift) & 15]);
    return text;
}

void CopyCut(wchar_t* target, std::size_t units, std::wstring_view text)
{
    if (units == 0)
        return;
    const std::size_t length = std::min(units - 1, text.size());
    std::copy_n(text.begin(), length, target);
    target[length] = L'\0';
}

std::vector<std::wstring> SplitList(const wchar_t* list, std::size_t units)
{
    std::vector<std::wstring> entries;
    std::size_t at = 0;
    while (at < units && list[at] != L'\0') {
        const std::size_t start = at;
        while (at < units && list[at] != L'\0')
            ++at;
        entries.emplace_back(list + start, at - start);
        ++at;
    }
    return entries;
}

std::wstring JoinList(const std::vector<std::wstring>& entries)
{
    std::wstring list;
    for (const auto& entry : entries)
        list.append(entry).push_back(L'\0');
    return list;
}

} // namespace vtfltsim
