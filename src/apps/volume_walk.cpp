#include "apps/volume_walk.h"

#include "log/guarded.h"

#include <algorithm>
#include <array>

namespace vtflt {

namespace {

using PathBuffer = std::array<wchar_t, 260>;

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
    return Keep(buffer.data(), buffer.size());
}

DWORD VolumeWalk::Next()
{
    PathBuffer buffer = {};
    if (!FindNextVolumeW(m_search.get(), buffer.data(), static_cast<DWORD>(buffer.size())))
        return FailureCode();
    return Keep(buffer.data(), buffer.size());
}

DWORD VolumeWalk::Keep(const wchar_t* buffer, std::size_t size)
{
    return Guarded(L"VolumeWalk", [&] {
        m_path.assign(buffer, std::find(buffer, buffer + size, L'\0'));
        return DWORD{ERROR_SUCCESS};
    });
}

bool VolumeWalk::IsFixedDisk() const
{
    return GetDriveTypeW(m_path.c_str()) == DRIVE_FIXED;
}

} // namespace vtflt
