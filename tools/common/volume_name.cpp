#include "common/volume_name.h"

#include "common/text.h"

#include "win/owners.h"

namespace toolkit {
namespace {

bool IsGuidInBraces(std::wstring_view text)
{
    constexpr std::wstring_view SHAPE = L"{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}";
    if (text.size() != SHAPE.size())
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const wchar_t c = text[i];
        const bool hex = (c >= L'0' && c <= L'9') || (c >= L'a' && c <= L'f') || (c >= L'A' && c <= L'F');
        if (SHAPE[i] == L'x' ? !hex : c != SHAPE[i])
            return false;
    }
    return true;
}

} // namespace

std::optional<std::wstring> ParseVolumeGuid(std::wstring_view text)
{
    if (text.starts_with(L"\\\\?\\"))
        text.remove_prefix(4);
    if (text.size() > 6 && EqualIgnoringCase(text.substr(0, 6), L"Volume"))
        text.remove_prefix(6);
    if (text.ends_with(L'\\'))
        text.remove_suffix(1);
    if (!IsGuidInBraces(text))
        return std::nullopt;
    return std::wstring(text);
}

unsigned long EnumerateVolumePaths(std::vector<std::wstring>& paths)
{
    wchar_t name[MAX_PATH] = {};
    const vtflt::UniqueVolumeSearch search(FindFirstVolumeW(name, MAX_PATH));
    if (search.valid()) {
        do {
            paths.emplace_back(name);
        } while (FindNextVolumeW(search.get(), name, MAX_PATH));
    }
    const DWORD error = GetLastError();
    if (error == ERROR_NO_MORE_FILES)
        return 0;
    return error != 0 ? error : ERROR_GEN_FAILURE; // a walk that ends without a reason broke off
}

bool IsMountedAt(const std::wstring& volumePath, std::wstring_view mountPath)
{
    std::vector<wchar_t> names(1024);
    DWORD needed = 0;
    if (!GetVolumePathNamesForVolumeNameW(volumePath.c_str(), names.data(), static_cast<DWORD>(names.size()),
                                          &needed)) {
        if (GetLastError() != ERROR_MORE_DATA)
            return false;
        names.assign(needed + 2, L'\0');
        if (!GetVolumePathNamesForVolumeNameW(volumePath.c_str(), names.data(), static_cast<DWORD>(names.size()),
                                              &needed))
            return false;
    }
    names.back() = L'\0';
    names[names.size() - 2] = L'\0';
    for (const wchar_t* p = names.data(); *p != L'\0'; p += std::wstring_view(p).size() + 1) {
        if (EqualIgnoringCase(p, mountPath))
            return true;
    }
    return false;
}

} // namespace toolkit
