// Files and folders by path, file searches.
#include "interpose/attach.h"
#include "interpose/calls.h"
#include "interpose/handles.h"
#include "interpose/hook_functions.h"
#include "interpose/paths.h"

namespace vtfltsim {

namespace {

std::wstring TextOf(const wchar_t* path)
{
    return path != nullptr ? path : L"";
}

// The path to give to the system; false with the last error set when the machine has no such file.
class RealPath {
public:
    explicit RealPath(const wchar_t* path) : m_path(path)
    {
        const auto machine = AttachedMachine();
        if (machine == nullptr || path == nullptr)
            return;
        Target target = ResolvePath(*machine, path);
        if (target.kind == Target::Kind::Real)
            return;
        if (target.kind == Target::Kind::File) {
            m_storage = std::move(target.realPath);
            m_path = m_storage.c_str();
            return;
        }
        m_error = target.kind == Target::Kind::Missing ? target.error : ERROR_INVALID_NAME; // a device is no file
    }
    RealPath(const RealPath&) = delete;
    RealPath& operator=(const RealPath&) = delete;

    const wchar_t* get() const noexcept { return m_path; }
    bool valid() const
    {
        if (m_error != 0)
            SetLastError(m_error);
        return m_error == 0;
    }

private:
    const wchar_t* m_path;
    std::wstring m_storage;
    DWORD m_error = 0;
};

template <class R, class Work>
R OnPath(Hook hook, const wchar_t* path, R failure, Work work)
{
    return Call<R>(
        hook, failure, [&] { return TextOf(path); },
        [&](const Verdict&) {
            const RealPath real(path);
            return real.valid() ? work(real.get()) : failure;
        });
}

template <class Work>
BOOL OnTwoPaths(Hook hook, const wchar_t* from, const wchar_t* to, Work work)
{
    return Call<BOOL>(
        hook, FALSE, [&] { return TextOf(from) + L"|" + TextOf(to); },
        [&](const Verdict&) {
            const RealPath realFrom(from);
            const RealPath realTo(to);
            return realFrom.valid() && realTo.valid() ? work(realFrom.get(), realTo.get()) : FALSE;
        });
}

BOOL WINAPI SimDeleteFileW(LPCWSTR path)
{
    return OnPath<BOOL>(Hook::DeleteFileW, path, FALSE, [](const wchar_t* real) { return DeleteFileW(real); });
}

BOOL WINAPI SimCreateDirectoryW(LPCWSTR path, LPSECURITY_ATTRIBUTES security)
{
    return OnPath<BOOL>(Hook::CreateDirectoryW, path, FALSE,
                        [&](const wchar_t* real) { return CreateDirectoryW(real, security); });
}

BOOL WINAPI SimRemoveDirectoryW(LPCWSTR path)
{
    return OnPath<BOOL>(Hook::RemoveDirectoryW, path, FALSE,
                        [](const wchar_t* real) { return RemoveDirectoryW(real); });
}

BOOL WINAPI SimSetFileAttributesW(LPCWSTR path, DWORD attributes)
{
    return OnPath<BOOL>(Hook::SetFileAttributesW, path, FALSE,
                        [&](const wchar_t* real) { return SetFileAttributesW(real, attributes); });
}

DWORD WINAPI SimGetFileAttributesW(LPCWSTR path)
{
    return OnPath<DWORD>(Hook::GetFileAttributesW, path, INVALID_FILE_ATTRIBUTES,
                         [](const wchar_t* real) { return GetFileAttributesW(real); });
}

BOOL WINAPI SimGetFileAttributesExW(LPCWSTR path, GET_FILEEX_INFO_LEVELS level, LPVOID data)
{
    return OnPath<BOOL>(Hook::GetFileAttributesExW, path, FALSE,
                        [&](const wchar_t* real) { return GetFileAttributesExW(real, level, data); });
}

BOOL WINAPI SimMoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags)
{
    return OnTwoPaths(Hook::MoveFileExW, from, to,
                      [&](const wchar_t* a, const wchar_t* b) { return MoveFileExW(a, b, flags); });
}

BOOL WINAPI SimMoveFileW(LPCWSTR from, LPCWSTR to)
{
    return OnTwoPaths(Hook::MoveFileW, from, to, [](const wchar_t* a, const wchar_t* b) { return MoveFileW(a, b); });
}

BOOL WINAPI SimCopyFileW(LPCWSTR from, LPCWSTR to, BOOL failIfExists)
{
    return OnTwoPaths(Hook::CopyFileW, from, to,
                      [&](const wchar_t* a, const wchar_t* b) { return CopyFileW(a, b, failIfExists); });
}

HANDLE NoteSearch(HANDLE search, const wchar_t* path)
{
    if (search != INVALID_HANDLE_VALUE)
        handles::NoteOpened(OpenKind::Search, search, TextOf(path));
    return search;
}

HANDLE WINAPI SimFindFirstFileW(LPCWSTR path, LPWIN32_FIND_DATAW data)
{
    return OnPath<HANDLE>(Hook::FindFirstFileW, path, INVALID_HANDLE_VALUE,
                          [&](const wchar_t* real) { return NoteSearch(FindFirstFileW(real, data), path); });
}

HANDLE WINAPI SimFindFirstFileExW(LPCWSTR path, FINDEX_INFO_LEVELS level, LPVOID data, FINDEX_SEARCH_OPS operation,
                                  LPVOID filter, DWORD flags)
{
    return OnPath<HANDLE>(Hook::FindFirstFileExW, path, INVALID_HANDLE_VALUE, [&](const wchar_t* real) {
        return NoteSearch(FindFirstFileExW(real, level, data, operation, filter, flags), path);
    });
}

BOOL WINAPI SimFindNextFileW(HANDLE search, LPWIN32_FIND_DATAW data)
{
    return Call<BOOL>(
        Hook::FindNextFileW, FALSE, [&] { return handles::TextOf(OpenKind::Search, search); },
        [&](const Verdict&) { return FindNextFileW(search, data); });
}

BOOL WINAPI SimFindClose(HANDLE search)
{
    return Call<BOOL>(
        Hook::FindClose, FALSE, [&] { return handles::TextOf(OpenKind::Search, search); },
        [&](const Verdict&) {
            return handles::Closing<BOOL>(OpenKind::Search, search, TRUE, [&] { return FindClose(search); });
        });
}

} // namespace

VTFLTSIM_DEFINE(DeleteFileW, SimDeleteFileW)
VTFLTSIM_DEFINE(CreateDirectoryW, SimCreateDirectoryW)
VTFLTSIM_DEFINE(RemoveDirectoryW, SimRemoveDirectoryW)
VTFLTSIM_DEFINE(SetFileAttributesW, SimSetFileAttributesW)
VTFLTSIM_DEFINE(GetFileAttributesW, SimGetFileAttributesW)
VTFLTSIM_DEFINE(GetFileAttributesExW, SimGetFileAttributesExW)
VTFLTSIM_DEFINE(MoveFileExW, SimMoveFileExW)
VTFLTSIM_DEFINE(MoveFileW, SimMoveFileW)
VTFLTSIM_DEFINE(CopyFileW, SimCopyFileW)
VTFLTSIM_DEFINE(FindFirstFileW, SimFindFirstFileW)
VTFLTSIM_DEFINE(FindFirstFileExW, SimFindFirstFileExW)
VTFLTSIM_DEFINE(FindNextFileW, SimFindNextFileW)
VTFLTSIM_DEFINE(FindClose, SimFindClose)

} // namespace vtfltsim
