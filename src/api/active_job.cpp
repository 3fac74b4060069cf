#include "api/active_job.h"

namespace vtflt {

ActiveJobMutex::ActiveJobMutex() noexcept
{
    // A mutex that is new leaves the last error as it was; a stale one must not be taken for this call's.
    SetLastError(ERROR_SUCCESS);
    m_mutex.reset(CreateMutexW(nullptr, FALSE, ACTIVE_JOB_MUTEX));
    m_error = GetLastError();
    if (m_error == ERROR_ACCESS_DENIED)
        Open();
}

// The mutex of a more privileged process cannot be made again, but it can be held open.
void ActiveJobMutex::Open() noexcept
{
    m_mutex.reset(OpenMutexW(SYNCHRONIZE, FALSE, ACTIVE_JOB_MUTEX));
    m_error = m_mutex.valid() ? ERROR_ALREADY_EXISTS : GetLastError();
}

namespace {

const ActiveJobMutex g_activeJob;

} // namespace

DWORD ActiveJobError() noexcept
{
    return g_activeJob.Error();
}

} // namespace vtflt
