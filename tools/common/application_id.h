// Which application IDs are safe to use beside the ones that are registered.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace toolkit {

// The reason why an ID must not be used, or an empty text. Pure.
//
// The library compares IDs exactly, but keeps them in registry values and files whose names ignore case, cuts the paths
// of these files, and searches its lists, exactly, by the tail of an entry. Two applications with unlucky IDs would
// share verify lists or bitmap files, and each would clear what belongs to the other.
std::string UnsuitableBecause(std::wstring_view id, const std::vector<std::wstring>& registered);

} // namespace toolkit
