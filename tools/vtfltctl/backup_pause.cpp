#include "backup_pause.h"

#include "common/backup_locks.h"
#include "output.h"

#include <fmt/format.h>

namespace vtfltctl {

BackupPause::Held::Held(const std::wstring& name, const std::string& what)
    : m_mutex(CreateMutexW(nullptr, FALSE, name.c_str()))
{
    // Made by another account: the right to wait is enough.
    if (!m_mutex && GetLastError() == ERROR_ACCESS_DENIED)
        m_mutex.reset(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()));
    if (!m_mutex && GetLastError() == ERROR_ACCESS_DENIED)
        throw Failure(Exit::Unreadable, fmt::format("whether a backup of {} runs cannot be told: {}", what,
                                                    ErrorText(ERROR_ACCESS_DENIED)));
    // Without an object: none can have this name, so no backup holds one.
    if (m_mutex && WaitForSingleObject(m_mutex.get(), 0) == WAIT_TIMEOUT)
        throw Failure(Exit::Busy, fmt::format("a backup of {} runs, which relies on what would be changed; nothing was "
                                              "changed for it, run this again when it has ended",
                                              what));
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
