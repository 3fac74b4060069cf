#include "backup_pause.h"

#include "common/backup_locks.h"
#include "output.h"

#include <fmt/format.h>

namespace vtfltctl {
namespace {

// Whether there can be no mutex of a name, so that no backup holds it either: the name is unsuitable, or belongs to an
// object of another kind.
bool CannotBe(DWORD error)
{
    return error == ERROR_PATH_NOT_FOUND || error == ERROR_INVALID_HANDLE || error == ERROR_INVALID_NAME ||
           error == ERROR_BAD_PATHNAME || error == ERROR_FILENAME_EXCED_RANGE;
}

} // namespace

BackupPause::Held::Held(const std::wstring& name, const std::string& what)
{
    const auto refuse = [&what](DWORD error) {
        throw Failure(Exit::Unreadable,
                      fmt::format("whether a backup of {} runs cannot be told: {}", what, ErrorText(error)));
    };
    const DWORD error = Open(name);
    if (CannotBe(error))
        return;
    if (error != ERROR_SUCCESS)
        refuse(error);
    const DWORD waited = WaitForSingleObject(m_mutex.get(), 0);
    if (waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED)
        return;
    if (waited != WAIT_TIMEOUT)
        refuse(GetLastError());
    throw Failure(Exit::Busy, fmt::format("a backup of {} runs, which relies on what would be changed; nothing was "
                                          "changed for it, run this again when it has ended",
                                          what));
}

DWORD BackupPause::Held::Open(const std::wstring& name)
{
    DWORD error = ERROR_SUCCESS;
    for (int attempt = 0; attempt < 2; ++attempt) {
        m_mutex.reset(CreateMutexW(nullptr, FALSE, name.c_str()));
        if (m_mutex)
            return ERROR_SUCCESS;
        error = GetLastError();
        if (error != ERROR_ACCESS_DENIED)
            return error;
        // Made by another account: the right to wait is enough.
        m_mutex.reset(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()));
        if (m_mutex)
            return ERROR_SUCCESS;
        error = GetLastError();
        if (error != ERROR_FILE_NOT_FOUND) // gone in between: it can be made now
            return error;
    }
    return error;
}

BackupPause::Held::~Held()
{
    if (m_mutex)
        ReleaseMutex(m_mutex.get());
}

BackupPause::BackupPause(const Context& context, const std::wstring& application,
                         const std::vector<std::wstring>& volumes)
{
    const toolkit::LockNames names(ToWide(context.simulate));
    if (!application.empty())
        m_held.emplace_back(names.Application(application), Quoted(application));
    for (const std::wstring& volume : volumes)
        m_held.emplace_back(names.Volume(volume), "the volume " + Shown(volume));
}

} // namespace vtfltctl
