// The arithmetic on resync lists, apart from the system: names, merging and splitting.
//
// A list is merged as one text, every entry followed by "*", which is also how the log shows it; the stored value
// has a NUL for every "*". An entry that holds a "*" itself becomes two.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vtflt {

// The key below HKEY_LOCAL_MACHINE that holds the lists: the driver's service key.
inline constexpr wchar_t RESYNC_LISTS_KEY[] = L"SYSTEM\\CurrentControlSet\\Services\\VTFlt";

// The registry value of a list, and the middle part of its mutex's name.
std::wstring MakeListValueName(std::wstring_view suffix);

// Appends an entry and its separator.
void AppendToListText(std::wstring& text, std::wstring_view entry);

// Whether an entry of the old list is in the new text already: it occurs anywhere, case-sensitively, also as a part
// of a longer entry.
bool ListTextHolds(std::wstring_view text, std::wstring_view entry);

// The characters to store for a list's text: every entry with its NUL, then the final NUL. Nothing is stored of what stands
// between two separators without a character: an empty entry would end the list for whoever reads it.
std::wstring ListTextToMultiString(std::wstring_view text);

// Whether an entry is a volume GUID in braces, the driver's own form.
bool IsBracedGuid(std::wstring_view entry);

// Parts the driver's list: volume GUIDs are handed out, everything else is kept. Both in the order of the list.
void SplitDriverList(const std::vector<std::wstring>& driverList, std::vector<std::wstring>& handOut,
                     std::vector<std::wstring>& keep);

} // namespace vtflt
