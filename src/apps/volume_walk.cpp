#include "apps/volume_walk.h"

#include <algorithm>
#include <array>

namespace vtflt {

namespace {

using PathBuffer = std::array<wchar_t, 260>;

std::wstring TextOf(const PathBuffer& buffer)
{
    return std::wstring(buffer.begin(), std::find(buffer.begin(), buffer.end(), L'\0'));
}

// A failure that gives no reason is still one: taken for a success it would pass volumes over in silence.
DWORD FailureCode()
{
    const DWORD error = GetLastError();
    return error != ERROR_SUCCESS ? error : ERROR_GEN_FAILURE;
}

} // namespace

DWORD VolumeWalk::First()
{
    PathBuffer buffer = {};
    m_search.reset(FindFirstVolumeW(buffer.data(), static_cast<DWORD>(buffer.size())));
    if (!m_search.valid())
        return FailureCode();
    m_path = TextOf(buffer);
    return ERROR_SUCCESS;
}

DWORD VolumeWalk::Next()
{
    PathBuffer buffer = {};
    if (!FindNextVolumeW(m_search.get(), buffer.data(), static_cast<DWORD>(buffer.size())))
        return FailureCode();
    m_path = TextOf(buffer);
    return ERROR_SUCCESS;
}

bool VolumeWalk::IsFixedDisk() const
{
    return GetDriveTypeW(m_path.c_str()) == DRIVE_FIXED;
}

} // namespace vtflt
