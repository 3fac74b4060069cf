#include "log/own_module.h"

#include "log/bounded_text.h"
#include "log/shared_objects.h"

namespace vtflt {

namespace {

SRWLOCK g_lock = SRWLOCK_INIT; // guards the finding out
ModulePath g_executable = {};
ModulePath g_own = {};
const ModulePath g_none = {};

void ReadPath(HMODULE module, ModulePath& path) noexcept
{
    const DWORD length = GetModuleFileNameW(module, path.text, MODULE_PATH_CAPACITY);
    // A path that does not fit comes back cut, and a part of a path names another file.
    if (length == 0 || length >= MODULE_PATH_CAPACITY)
        path.text[0] = L'\0';
}

// A path is given away when it is there, and does not change any more: who got none must not read in what another thread
// finds out meanwhile.
const ModulePath& FindOut(ModulePath& path, bool ofThisCode) noexcept
{
    const ExclusiveHold hold(g_lock);
    if (path.text[0] != L'\0')
        return path;
    HMODULE module = nullptr;
    // Without a reference: the module must be able to leave while its own log is still there.
    if (ofThisCode &&
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           reinterpret_cast<const wchar_t*>(&OwnModule), &module))
        ReadPath(module, path);
    if (path.text[0] == L'\0')
        ReadPath(nullptr, path);
    return path.text[0] != L'\0' ? path : g_none;
}

} // namespace

std::wstring_view ModulePath::Path() const noexcept
{
    return FieldText(text);
}

std::wstring_view ModulePath::Name() const noexcept
{
    return FileNamePart(Path());
}

std::wstring_view ModulePath::Folder() const noexcept
{
    const std::size_t backslash = Path().rfind(L'\\');
    return backslash == std::wstring_view::npos ? std::wstring_view() : Path().substr(0, backslash);
}

const ModulePath& ExecutableModule() noexcept
{
    return FindOut(g_executable, false);
}

const ModulePath& OwnModule() noexcept
{
    return FindOut(g_own, true);
}

} // namespace vtflt
