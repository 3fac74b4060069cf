#include "common/class_lock.h"

#include "driver/protocol.h"

namespace toolkit {
namespace {

// How long another program may switch the class before a command gives up.
constexpr DWORD SWITCH_PATIENCE_MS = 10000;

} // namespace

ClassLock::ClassLock(const std::wstring& classKey)
{
    const std::wstring name =
        L"Global\\" + classKey.substr(classKey.find_last_of(L'\\') + 1) + L"." + vtflt::DRIVER_NAME + L".Mutex";
    m_mutex.reset(CreateMutexW(nullptr, FALSE, name.c_str()));
    // Made by a more privileged process: the right to wait is enough.
    if (!m_mutex && GetLastError() == ERROR_ACCESS_DENIED)
        m_mutex.reset(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()));
    if (!m_mutex) {
        m_error = GetLastError();
        m_error = m_error != 0 ? m_error : ERROR_GEN_FAILURE;
        return;
    }
    const DWORD waited = WaitForSingleObject(m_mutex.get(), SWITCH_PATIENCE_MS);
    if (waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED)
        return;
    m_error = waited == WAIT_TIMEOUT ? ERROR_TIMEOUT : GetLastError();
    m_error = m_error != 0 ? m_error : ERROR_GEN_FAILURE;
}

ClassLock::~ClassLock()
{
    if (m_error == 0)
        ReleaseMutex(m_mutex.get());
}

} // namespace toolkit
