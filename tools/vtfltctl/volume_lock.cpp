#include "volume_lock.h"

#include "bitmap_bytes.h"

#include "apps/mutex_controller.h"

#include <set>

namespace vtfltctl {
namespace {

// How long another program may keep a mutex before a command gives up.
constexpr ULONGLONG PATIENCE_MS = 10000;

[[noreturn]] void Refuse(DWORD error)
{
    throw bitmap::ReadError(error, "a mutex of the library");
}

// A command looks at many files of a volume; for a busy one it waits only once.
std::set<std::wstring>& BusyOnes()
{
    static std::set<std::wstring> names;
    return names;
}

ULONGLONG DeadlineFor(const std::wstring& name)
{
    if (BusyOnes().contains(name))
        Refuse(WAIT_TIMEOUT);
    return GetTickCount64() + PATIENCE_MS;
}

// Open to everybody: a backup under another account that meets an object of ours must be able to take it, or it fails.
// One that another account made before may be waited for at least.
vtflt::UniqueHandle OpenForAll(const std::wstring& name)
{
    SECURITY_DESCRIPTOR everybody = {};
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), &everybody, FALSE};
    if (!InitializeSecurityDescriptor(&everybody, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorDacl(&everybody, TRUE, nullptr, FALSE))
        Refuse(GetLastError());
    vtflt::UniqueHandle mutex(CreateMutexW(&attributes, FALSE, name.c_str()));
    DWORD error = GetLastError();
    if (!mutex && error == ERROR_ACCESS_DENIED) {
        mutex.reset(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()));
        error = GetLastError();
    }
    if (!mutex)
        Refuse(error);
    return mutex;
}

} // namespace

LibraryLock::Held::Held(const std::wstring& prefix, const std::wstring& name, ULONGLONG deadline)
    : m_mutex(OpenForAll(prefix + name))
{
    const ULONGLONG now = GetTickCount64();
    switch (WaitForSingleObject(m_mutex.get(), static_cast<DWORD>(deadline > now ? deadline - now : 0))) {
    case WAIT_OBJECT_0:
    case WAIT_ABANDONED: // its holder died; what it left half written shows in the files and lists
        return;
    case WAIT_TIMEOUT:
        BusyOnes().insert(name);
        Refuse(WAIT_TIMEOUT);
    default:
        Refuse(GetLastError());
    }
}

LibraryLock::Held::~Held()
{
    ReleaseMutex(m_mutex.get());
}

LibraryLock::LibraryLock(const std::wstring& name)
    : m_deadline(DeadlineFor(name)), m_ours({}, name, m_deadline), m_services(L"Global\\", name, m_deadline)
{
}

VolumeLock::VolumeLock(const std::wstring& volume) : LibraryLock(vtflt::BuildMutexName(volume)) {}

} // namespace vtfltctl
