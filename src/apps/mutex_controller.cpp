#include "apps/mutex_controller.h"

#include "bitmap/result_codes.h"
#include "log/log.h"

namespace vtflt {

namespace {

constexpr wchar_t MUTEX_PREFIX[] = L"VTBitmapManager.";
// Every process that shares the state builds this very name, so its spelling stays.
constexpr wchar_t APPLICATION_MUTEX[] = L"AppicationMutex";
constexpr wchar_t MUTEX_SUFFIX[] = L".Mutex";

// Half an hour. After that the operation goes ahead without the lock rather than fail the backup.
constexpr DWORD MUTEX_WAIT_MILLISECONDS = 1800000;

} // namespace

std::wstring BuildMutexName(std::wstring_view middle)
{
    std::wstring name = MUTEX_PREFIX;
    name.append(middle);
    name.append(MUTEX_SUFFIX);
    return name;
}

std::wstring BuildApplicationMutexName()
{
    return BuildMutexName(APPLICATION_MUTEX);
}

CMutexController::~CMutexController()
{
    release();
}

DWORD CMutexController::getAccess(const std::wstring& name)
{
    release();
    m_hMutex = CreateMutexW(nullptr, FALSE, name.c_str());
    if (m_hMutex == nullptr) {
        const DWORD error = GetLastError();
        Log(LOG_ERROR, error, L"CMutexController::getAccess Failed to CreateMutex[%s] error: %d", name.c_str(), error);
        return BM_ERR_MUTEX_ACCESS;
    }

    switch (WaitForSingleObject(m_hMutex, MUTEX_WAIT_MILLISECONDS)) {
    case WAIT_OBJECT_0:
    case WAIT_ABANDONED: // its owner died: the state behind it is checked wherever it is read
    case WAIT_TIMEOUT:
        return ERROR_SUCCESS;
    default:
        return BM_ERR_MUTEX_ACCESS;
    }
}

void CMutexController::release() noexcept
{
    if (m_hMutex == nullptr)
        return;
    const DWORD lastError = GetLastError();
    // After a wait that gave no ownership this fails, which is no matter.
    ReleaseMutex(m_hMutex);
    CloseHandle(m_hMutex);
    m_hMutex = nullptr;
    SetLastError(lastError);
}

} // namespace vtflt
