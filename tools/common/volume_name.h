// Names of volumes as people give them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace toolkit {

// The {...} of a volume that is named by its GUID: {...}, Volume{...} or \\?\Volume{...}, with a backslash behind it or
// without. Nothing for any other name.
std::optional<std::wstring> ParseVolumeGuid(std::wstring_view text);

// Appends the names of the machine's volumes, \\?\Volume{...}\, as enumeration gives them. 0, or the error with which
// the walk broke off.
unsigned long EnumerateVolumePaths(std::vector<std::wstring>& paths);

// Whether the volume is mounted at a path (with its backslash).
bool IsMountedAt(const std::wstring& volumePath, std::wstring_view mountPath);

} // namespace toolkit
