// The small functions on volume names, apart from the system.
//
// A volume GUID path is \\?\Volume{...}\. Its component Volume{...} names the volume's mutex and directory, its
// part {...} stands in the resync and verify lists.
#pragma once

#include <string>
#include <string_view>

namespace vtflt {

// The text without one trailing backslash; an empty text stays empty.
std::wstring StripTrailingBackslash(std::wstring_view text);

// The position of the first character that is any one of V, o, l, u, m, e, or -1. It is a set of characters and
// not the word: volume GUID paths begin with the word, and for other paths this is the rule to keep.
int FindVolumeKeyword(std::wstring_view text);

// Volume{...}: the text from the keyword position on (all of it when there is none), without one trailing
// backslash.
std::wstring GetVolumeName(std::wstring_view volumePath);

// {...}: without one trailing backslash, the text from 6 characters behind the keyword position on (unchanged
// when there is none, empty when there is less).
std::wstring GetVolumeGuid(std::wstring_view volumePath);

// Whether a name that the volume walk returned is a volume GUID path: \\?\ in front, a backslash at the end.
bool IsVolumeGuidPath(std::wstring_view path);

// Whether an entry of a list names the volume: it occurs anywhere in the volume's name, case-sensitively. That
// lets {...} match Volume{...}.
bool ListEntryMatchesVolume(std::wstring_view entry, std::wstring_view volume);

} // namespace vtflt
