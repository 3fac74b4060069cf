// What an entry of a volume list can mean, beside what the library takes it for. Pure.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vtfltctl {

// The library parts entries by it while it writes: behind an entry that holds one nothing is read any more.
inline constexpr wchar_t ENTRY_SEPARATOR = L'*';

// Every volume GUID that stands whole in a text, as {...}, whatever stands around it and with or without its braces.
std::vector<std::wstring> GuidsIn(std::wstring_view text);

// Whether a text can be a part of some volume's path. If it cannot, the library takes it for no volume of any machine.
bool CanMatchVolume(std::wstring_view entry);

struct Meaning {
    std::vector<std::wstring> volumes; // of the machine, as it writes them: {...}
    bool whole = false;                // it means these and, as far as can be told, nothing else
};

// machine: the volumes of the machine, {...}.
Meaning MeaningOf(std::wstring_view entry, const std::vector<std::wstring>& machine);

} // namespace vtfltctl
