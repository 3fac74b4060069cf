// The mark that a user of the library is running: a named mutex which every process with the library keeps open.
//
// Other programs test for it by name. It is made at static initialisation and closed at static teardown; nobody waits
// for it, and nobody releases it.
#pragma once

#include "win/owners.h"

namespace vtflt {

inline constexpr wchar_t ACTIVE_JOB_MUTEX[] =
    L"Global\\{31496db0-cc86-11e5-adcd-1803733db143}.ActiveJob.VTFltMgr.Mutex";

// One hold on the mark, from its making to its end.
class ActiveJobMutex {
public:
    ActiveJobMutex() noexcept;

    DWORD Error() const noexcept { return m_error; }

private:
    void Open() noexcept;

    UniqueHandle m_mutex;
    DWORD m_error = ERROR_SUCCESS;
};

// What was seen when this process's mark was made: 0 for the first user, 183 (ERROR_ALREADY_EXISTS) when there was one
// before, else the error that left the process without a mark.
DWORD ActiveJobError() noexcept;

} // namespace vtflt
