#include "apps/volume_name.h"

namespace vtflt {

namespace {

constexpr std::wstring_view KEYWORD = L"Volume";
constexpr std::wstring_view GUID_PATH_PREFIX = L"\\\\?\\";

std::wstring_view WithoutTrailingBackslash(std::wstring_view text)
{
    if (text.ends_with(L'\\'))
        text.remove_suffix(1);
    return text;
}

} // namespace

std::wstring StripTrailingBackslash(std::wstring_view text)
{
    return std::wstring(WithoutTrailingBackslash(text));
}

int FindVolumeKeyword(std::wstring_view text)
{
    const std::size_t position = text.find_first_of(KEYWORD);
    return position == std::wstring_view::npos ? -1 : static_cast<int>(position);
}

std::wstring GetVolumeName(std::wstring_view volumePath)
{
    const int keyword = FindVolumeKeyword(volumePath);
    if (keyword >= 0)
        volumePath.remove_prefix(static_cast<std::size_t>(keyword));
    return StripTrailingBackslash(volumePath);
}

std::wstring GetVolumeGuid(std::wstring_view volumePath)
{
    const std::wstring_view path = WithoutTrailingBackslash(volumePath);
    const int keyword = FindVolumeKeyword(path);
    if (keyword < 0)
        return std::wstring(path);
    const std::size_t begin = static_cast<std::size_t>(keyword) + KEYWORD.size();
    return begin < path.size() ? std::wstring(path.substr(begin)) : std::wstring();
}

bool IsVolumeGuidPath(std::wstring_view path)
{
    return path.starts_with(GUID_PATH_PREFIX) && path.ends_with(L'\\');
}

bool ListEntryMatchesVolume(std::wstring_view entry, std::wstring_view volume)
{
    return volume.find(entry) != std::wstring_view::npos;
}

} // namespace vtflt
