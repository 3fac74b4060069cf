#include "apps/bitmap_maintenance.h"

#include "log/message_text.h"
#include "win/owners.h"

#include <string>
#include <string_view>

namespace vtflt {

namespace {

// Keeps a mistaken path from emptying a drive's root.
constexpr std::size_t MINIMUM_PATH_CHARACTERS = 9;
// With the NUL. A path that was cut would name something else, so a longer one is refused.
constexpr std::size_t PATH_CAPACITY = 512;

// Whether path\name can be built; the last error says so when not.
bool Fits(std::wstring_view path, std::wstring_view name)
{
    if (path.size() + 1 + name.size() < PATH_CAPACITY)
        return true;
    SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return false;
}

bool IsDotEntry(std::wstring_view name)
{
    return name == L"." || name == L"..";
}

} // namespace

DWORD RemoveDirectoryTree(const wchar_t* path)
{
    if (path == nullptr || std::wstring_view(path).size() < MINIMUM_PATH_CHARACTERS) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (!Fits(path, L"*.*"))
        return 0;
    const std::wstring pattern = FormatText(PATH_CAPACITY, L"%s\\*.*", path);

    WIN32_FIND_DATAW entry = {};
    UniqueFileSearch search(FindFirstFileW(pattern.c_str(), &entry));
    if (!search.valid())
        return 0;
    do {
        if (IsDotEntry(entry.cFileName))
            continue;
        if (!Fits(path, entry.cFileName))
            return 0;
        const std::wstring found = FormatText(PATH_CAPACITY, L"%s\\%s", path, entry.cFileName);
        // Bitmap folders have no folders inside. One that somebody made ends the work here.
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
            return RemoveDirectoryTree(found.c_str());
        DeleteFileW(found.c_str());
    } while (FindNextFileW(search.get(), &entry));

    search.reset();
    return RemoveDirectoryW(path) ? 1 : 0;
}

} // namespace vtflt
