// Handles, named objects, waits, locks of a process's own memory.
#include "double/api.h"
#include "double/kernel.h"
#include "double/mapping.h"

namespace vtdouble {

namespace {

std::map<Text, std::weak_ptr<Object>>& Names()
{
    static auto& names = *new std::map<Text, std::weak_ptr<Object>>();
    return names;
}

// Names are case sensitive; without a directory they are the session's own.
Text FullName(const wchar_t* name)
{
    const TextView text = name;
    if (text.starts_with(L"Global\\"))
        return Text(text);
    if (text.starts_with(L"Local\\"))
        return Text(text);
    return Text(L"Local\\").append(text);
}

bool IsValidName(const wchar_t* name)
{
    TextView text = name;
    if (text.starts_with(L"Global\\"))
        text.remove_prefix(7);
    else if (text.starts_with(L"Local\\"))
        text.remove_prefix(6);
    return text.find(L'\\') == TextView::npos;
}

// Creates a named object, or opens the one that has the name; make gives a new one.
template <class T, class Make>
HANDLE CreateNamed(const SECURITY_ATTRIBUTES* attributes, const wchar_t* name, DWORD allAccess, Make make)
{
    if (name != nullptr && *name != L'\0') {
        if (!IsValidName(name))
            return Failed<HANDLE>(ERROR_PATH_NOT_FOUND, nullptr);
        const Text full = FullName(name);
        if (const ObjectRef existing = FindNamed(full)) {
            const auto same = std::dynamic_pointer_cast<T>(existing);
            if (same == nullptr)
                return Failed<HANDLE>(ERROR_INVALID_HANDLE, nullptr);
            if (!same->security.Grants(allAccess))
                return Failed<HANDLE>(ERROR_ACCESS_DENIED, nullptr);
            Fail(ERROR_ALREADY_EXISTS);
            return CurrentProcess().Open(same, allAccess);
        }
        const std::shared_ptr<T> made = make();
        if (made == nullptr)
            return nullptr;
        made->name = full;
        made->security = SecurityOf(attributes);
        Names()[full] = made;
        Fail(0);
        return CurrentProcess().Open(made, allAccess);
    }
    const std::shared_ptr<T> made = make();
    if (made == nullptr)
        return nullptr;
    Fail(0);
    return CurrentProcess().Open(made, allAccess);
}

template <class T>
HANDLE OpenNamed(const wchar_t* name, DWORD access, DWORD allAccess)
{
    if (name == nullptr)
        return Failed<HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    const ObjectRef existing = FindNamed(FullName(name));
    if (existing == nullptr)
        return Failed<HANDLE>(ERROR_FILE_NOT_FOUND, nullptr);
    const auto same = std::dynamic_pointer_cast<T>(existing);
    if (same == nullptr)
        return Failed<HANDLE>(ERROR_INVALID_HANDLE, nullptr);
    if ((access & MAXIMUM_ALLOWED) != 0)
        access = same->security.restricted ? same->security.granted : allAccess;
    if ((access & (GENERIC_ALL | GENERIC_READ | GENERIC_WRITE)) != 0)
        access = allAccess;
    if (!same->security.Grants(access))
        return Failed<HANDLE>(ERROR_ACCESS_DENIED, nullptr);
    return CurrentProcess().Open(same, access);
}

ObjectRef WaitableOf(HANDLE handle)
{
    if (handle == GetCurrentProcess())
        return CurrentProcess().object;
    if (handle == GetCurrentThread())
        return Current().object;
    return CurrentProcess().Get<Object>(handle, SYNCHRONIZE);
}

constexpr DWORD MUTEX_ALL = STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | MUTANT_QUERY_STATE;
constexpr DWORD EVENT_ALL = EVENT_ALL_ACCESS;

} // namespace

ObjectRef FindNamed(const Text& name)
{
    const auto found = Names().find(name);
    if (found == Names().end())
        return nullptr;
    ObjectRef object = found->second.lock();
    if (object == nullptr)
        Names().erase(found);
    return object;
}

Mutex::~Mutex()
{
    if (owner != nullptr)
        owner->owned.erase(this);
}

bool Mutex::Take(Thread& thread)
{
    const bool wasAbandoned = abandoned;
    abandoned = false;
    owner = &thread;
    ++depth;
    thread.owned.insert(this);
    return wasAbandoned;
}

bool Mutex::Release(Thread& thread)
{
    if (owner != &thread)
        return false;
    if (--depth != 0)
        return true;
    BeforeRelease(this);
    owner = nullptr;
    thread.owned.erase(this);
    Notify(*this);
    return true;
}

void Mutex::Abandon()
{
    owner->owned.erase(this);
    owner = nullptr;
    depth = 0;
    abandoned = true;
    Notify(*this);
}

HANDLE Process::Open(ObjectRef opened, DWORD access, bool isKey)
{
    // Never the value of a closed handle, so that a stale one is noticed.
    const std::uintptr_t value = nextHandle;
    nextHandle += 4;
    handles[value] = HandleEntry{std::move(opened), access, isKey};
    return reinterpret_cast<HANDLE>(value);
}

HandleEntry* Process::Find(HANDLE handle)
{
    const auto found = handles.find(reinterpret_cast<std::uintptr_t>(handle));
    if (found == handles.end() && host != nullptr)
        return host->Find(handle);
    return found != handles.end() ? &found->second : nullptr;
}

bool Process::Close(HANDLE handle)
{
    const auto found = handles.find(reinterpret_cast<std::uintptr_t>(handle));
    if (found == handles.end()) {
        ++badCloses;
        return false;
    }
    const ObjectRef closed = found->second.object; // lives to the end of the call
    handles.erase(found);
    closed->HandleClosed(*this);
    return true;
}

} // namespace vtdouble

using namespace vtdouble;

DOUBLE_API DWORD WINAPI GetLastError()
{
    return Current().lastError;
}

DOUBLE_API void WINAPI SetLastError(DWORD error)
{
    Thread* const thread = CurrentOrNull();
    if (thread != nullptr)
        thread->lastError = error;
}

DOUBLE_API BOOL WINAPI CloseHandle(HANDLE handle)
{
    const Entry entry;
    if (handle == GetCurrentProcess() || handle == GetCurrentThread())
        return TRUE;
    const HandleEntry* const found = CurrentProcess().Find(handle);
    if ((found != nullptr && found->isKey) || !CurrentProcess().Close(handle))
        return Failed(ERROR_INVALID_HANDLE, FALSE);
    return TRUE;
}

DOUBLE_API BOOL WINAPI GetHandleInformation(HANDLE handle, LPDWORD flags)
{
    const Entry entry;
    if (CurrentProcess().Find(handle) == nullptr)
        return Failed(ERROR_INVALID_HANDLE, FALSE);
    if (flags != nullptr)
        *flags = 0;
    return TRUE;
}

DOUBLE_API BOOL WINAPI DuplicateHandle(HANDLE fromProcess, HANDLE handle, HANDLE toProcess, LPHANDLE duplicate,
                                       DWORD access, BOOL, DWORD options)
{
    const Entry entry;
    if (fromProcess != GetCurrentProcess() || toProcess != GetCurrentProcess())
        return Failed(ERROR_NOT_SUPPORTED, FALSE);
    if (handle == GetCurrentThread()) {
        *duplicate = CurrentProcess().Open(Current().object, THREAD_ALL_ACCESS);
        return TRUE;
    }
    const HandleEntry* const found = CurrentProcess().Find(handle);
    if (found == nullptr)
        return Failed(ERROR_INVALID_HANDLE, FALSE);
    const HandleEntry copy = *found;
    *duplicate = CurrentProcess().Open(copy.object, (options & DUPLICATE_SAME_ACCESS) != 0 ? copy.access : access);
    if ((options & DUPLICATE_CLOSE_SOURCE) != 0)
        CurrentProcess().Close(handle);
    return TRUE;
}

// --- Mutexes and events.

DOUBLE_API HANDLE WINAPI CreateMutexW(LPSECURITY_ATTRIBUTES attributes, BOOL owned, LPCWSTR name)
{
    const Entry entry;
    return CreateNamed<Mutex>(attributes, name, MUTEX_ALL, [&] {
        auto mutex = std::make_shared<Mutex>();
        if (owned)
            mutex->Take(Current());
        return mutex;
    });
}

DOUBLE_API HANDLE WINAPI OpenMutexW(DWORD access, BOOL, LPCWSTR name)
{
    const Entry entry;
    return OpenNamed<Mutex>(name, access, MUTEX_ALL);
}

DOUBLE_API BOOL WINAPI ReleaseMutex(HANDLE handle)
{
    const Entry entry;
    const auto mutex = CurrentProcess().Get<Mutex>(handle);
    if (mutex == nullptr)
        return FALSE;
    return mutex->Release(Current()) ? TRUE : Failed(ERROR_NOT_OWNER, FALSE);
}

DOUBLE_API HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES attributes, BOOL manual, BOOL signalled, LPCWSTR name)
{
    const Entry entry;
    return CreateNamed<Event>(attributes, name, EVENT_ALL, [&] {
        auto event = std::make_shared<Event>();
        event->manual = manual != FALSE;
        event->signalled = signalled != FALSE;
        return event;
    });
}

DOUBLE_API HANDLE WINAPI OpenEventW(DWORD access, BOOL, LPCWSTR name)
{
    const Entry entry;
    return OpenNamed<Event>(name, access, EVENT_ALL);
}

DOUBLE_API BOOL WINAPI SetEvent(HANDLE handle)
{
    const Entry entry;
    const auto event = CurrentProcess().Get<Event>(handle, EVENT_MODIFY_STATE);
    if (event == nullptr)
        return FALSE;
    BeforeRelease(event.get());
    event->signalled = true;
    Notify(*event);
    return TRUE;
}

DOUBLE_API BOOL WINAPI ResetEvent(HANDLE handle)
{
    const Entry entry;
    const auto event = CurrentProcess().Get<Event>(handle, EVENT_MODIFY_STATE);
    if (event == nullptr)
        return FALSE;
    event->signalled = false;
    return TRUE;
}

// --- Mappings by name; the views are in mapping.cpp.

DOUBLE_API HANDLE WINAPI CreateFileMappingW(HANDLE file, LPSECURITY_ATTRIBUTES attributes, DWORD protection, DWORD high,
                                            DWORD low, LPCWSTR name)
{
    const Entry entry;
    return CreateNamed<Mapping>(attributes, name, FILE_MAP_ALL_ACCESS | STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE, [&] {
        return Mapping::Make(file, protection, (static_cast<std::uint64_t>(high) << 32) | low);
    });
}

DOUBLE_API HANDLE WINAPI OpenFileMappingW(DWORD access, BOOL, LPCWSTR name)
{
    const Entry entry;
    return OpenNamed<Mapping>(name, access, FILE_MAP_ALL_ACCESS);
}

// --- Waits.

DOUBLE_API DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD milliseconds)
{
    const Entry entry;
    // Nothing is left on the stack: a killed process's thread does not come back from the wait.
    std::vector<ObjectRef> objects;
    objects.push_back(WaitableOf(handle));
    return objects[0] != nullptr ? WaitFor(std::move(objects), false, milliseconds) : WAIT_FAILED;
}

DOUBLE_API DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds)
{
    const Entry entry;
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS)
        return Failed(ERROR_INVALID_PARAMETER, WAIT_FAILED);
    std::vector<ObjectRef> objects;
    for (DWORD i = 0; i < count; ++i) {
        objects.push_back(WaitableOf(handles[i]));
        if (objects.back() == nullptr)
            return WAIT_FAILED;
    }
    return WaitFor(std::move(objects), all != FALSE, milliseconds);
}

DOUBLE_API void WINAPI Sleep(DWORD milliseconds)
{
    const Entry entry;
    SleepFor(milliseconds);
}

// --- Locks of the process's own memory. The word counts the shared holders; -1 is one exclusive holder. A process that
// was killed waits for no lock any more: its threads hold some for ever.

namespace {

std::intptr_t Holders(const SRWLOCK* lock)
{
    return reinterpret_cast<std::intptr_t>(lock->Ptr);
}

void SetHolders(SRWLOCK* lock, std::intptr_t holders)
{
    lock->Ptr = reinterpret_cast<void*>(holders);
}

} // namespace

DOUBLE_API void WINAPI InitializeSRWLock(SRWLOCK* lock)
{
    lock->Ptr = nullptr;
}

DOUBLE_API void WINAPI AcquireSRWLockExclusive(SRWLOCK* lock)
{
    while (Holders(lock) != 0 && !CurrentProcess().dead)
        BlockAt(lock);
    SetHolders(lock, -1);
    AfterAcquire(lock);
}

DOUBLE_API void WINAPI ReleaseSRWLockExclusive(SRWLOCK* lock)
{
    BeforeRelease(lock);
    SetHolders(lock, 0);
    WakeAt(lock);
}

DOUBLE_API void WINAPI AcquireSRWLockShared(SRWLOCK* lock)
{
    while (Holders(lock) < 0 && !CurrentProcess().dead)
        BlockAt(lock);
    SetHolders(lock, Holders(lock) + 1);
    AfterAcquire(lock);
}

DOUBLE_API void WINAPI ReleaseSRWLockShared(SRWLOCK* lock)
{
    BeforeRelease(lock);
    SetHolders(lock, Holders(lock) - 1);
    if (Holders(lock) == 0)
        WakeAt(lock);
}

DOUBLE_API void WINAPI InitializeCriticalSection(CRITICAL_SECTION* section)
{
    *section = {};
    section->LockCount = -1;
}

DOUBLE_API BOOL WINAPI InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* section, DWORD)
{
    InitializeCriticalSection(section);
    return TRUE;
}

DOUBLE_API BOOL WINAPI InitializeCriticalSectionEx(CRITICAL_SECTION* section, DWORD, DWORD)
{
    InitializeCriticalSection(section);
    return TRUE;
}

DOUBLE_API void WINAPI DeleteCriticalSection(CRITICAL_SECTION* section)
{
    if (section->RecursionCount != 0 && !CurrentProcess().dead)
        Die("a critical section is deleted while it is held");
    *section = {};
}

DOUBLE_API void WINAPI EnterCriticalSection(CRITICAL_SECTION* section)
{
    const Entry entry;
    const HANDLE me = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(Current().id));
    while (section->OwningThread != nullptr && section->OwningThread != me && !CurrentProcess().dead)
        BlockAt(section);
    section->OwningThread = me;
    ++section->RecursionCount;
    ++section->LockCount;
    AfterAcquire(section);
}

DOUBLE_API BOOL WINAPI TryEnterCriticalSection(CRITICAL_SECTION* section)
{
    const Entry entry;
    const HANDLE me = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(Current().id));
    if (section->OwningThread != nullptr && section->OwningThread != me)
        return FALSE;
    section->OwningThread = me;
    ++section->RecursionCount;
    ++section->LockCount;
    AfterAcquire(section);
    return TRUE;
}

DOUBLE_API void WINAPI LeaveCriticalSection(CRITICAL_SECTION* section)
{
    BeforeRelease(section);
    --section->LockCount;
    if (--section->RecursionCount != 0)
        return;
    section->OwningThread = nullptr;
    WakeAt(section);
}
