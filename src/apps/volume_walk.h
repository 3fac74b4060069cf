// One walk over the volumes that the system knows. Whoever walks keeps its own messages and its own view of names
// that are no volume GUID paths (IsVolumeGuidPath).
//
//     VolumeWalk walk;
//     DWORD error = walk.First();
//     for (; error == ERROR_SUCCESS; error = walk.Next())
//         ... walk.Path() ...
//     // ERROR_NO_MORE_FILES: every volume was visited
#pragma once

#include "win/owners.h"

#include <cstddef>
#include <string>

namespace vtflt {

class VolumeWalk {
public:
    // Goes to the first volume. 0 or the error, never 0 for a failure; 8 (ERROR_NOT_ENOUGH_MEMORY) without memory for
    // its name. Once per walk.
    DWORD First();
    // Goes to the next volume. 0; 18 (ERROR_NO_MORE_FILES) behind the last; else the error.
    DWORD Next();

    // The volume's name as the system gave it: a volume GUID path with its trailing backslash, if all is well.
    [[nodiscard]] const std::wstring& Path() const noexcept { return m_path; }
    // Whether the volume is a fixed disk, the only kind that has bitmaps.
    [[nodiscard]] bool IsFixedDisk() const;

private:
    DWORD Keep(const wchar_t* buffer, std::size_t size);

    UniqueVolumeSearch m_search;
    std::wstring m_path;
};

} // namespace vtflt
