// The double: an in-memory Windows for native tests. This header is its inside; tests see control.h.
//
// One host process holds many simulated processes. Each simulated process has its own copies of the modules it
// loads, its own handles, environment and exit code; files, registry and named objects belong to all of them.
//
// Simulated threads are real threads, but only the one that has the baton runs; it passes the baton on only inside
// calls of the double. So nothing in here needs a lock, a run is repeatable, and time is virtual: when no thread
// can run, the clock jumps to the next timeout. When there is none either, the threads have deadlocked, and the
// double says so and aborts.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <winioctl.h>
#include <winsvc.h>

#include <cstdint>
#include <map>
#include <memory>
#include <memory_resource>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vtdouble {

class Process;
class Thread;

using Text = std::wstring;
using TextView = std::wstring_view;

// What an access list grants: everything when there is none.
struct Security {
    bool restricted = false;
    bool nullList = false;  // set so, as against none said at all
    std::vector<BYTE> list; // as it was set
    DWORD granted = 0;
    bool Grants(DWORD access) const noexcept { return !restricted || (access & ~granted) == 0; }
};
// From the attributes that a caller hands in; nothing is restricted without a list in them.
Security SecurityOf(const SECURITY_ATTRIBUTES* attributes);

// Whatever a handle can stand for.
class Object : public std::enable_shared_from_this<Object> {
public:
    Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    virtual ~Object() = default;
    virtual const char* kind() const noexcept = 0;

    // Waiting. An object that is not waitable is always signalled.
    virtual bool IsSignalledFor(const Thread&) const { return true; }
    // The wait is over: takes what it waited for. True when it was abandoned.
    virtual bool Take(Thread&) { return false; }

    // One handle of the process is gone.
    virtual void HandleClosed(Process&) {}

    Text name; // of a named object, with its directory
    Security security;
};

using ObjectRef = std::shared_ptr<Object>;

class Mutex final : public Object {
public:
    ~Mutex() override;
    const char* kind() const noexcept override { return "mutex"; }
    bool IsSignalledFor(const Thread& thread) const override { return owner == nullptr || owner == &thread; }
    bool Take(Thread& thread) override;
    bool Release(Thread& thread);
    void Abandon();

    Thread* owner = nullptr;
    unsigned depth = 0;
    bool abandoned = false;
};

class Event final : public Object {
public:
    const char* kind() const noexcept override { return "event"; }
    bool IsSignalledFor(const Thread&) const override { return signalled; }
    bool Take(Thread&) override
    {
        signalled = signalled && manual;
        return false;
    }
    bool manual = false;
    bool signalled = false;
};

class ThreadObject final : public Object {
public:
    const char* kind() const noexcept override { return "thread"; }
    bool IsSignalledFor(const Thread&) const override { return thread == nullptr; }
    Thread* thread = nullptr; // null once it has ended
    DWORD id = 0;
    DWORD exitCode = STILL_ACTIVE;
};

class ProcessObject final : public Object {
public:
    const char* kind() const noexcept override { return "process"; }
    bool IsSignalledFor(const Thread&) const override { return process == nullptr; }
    Process* process = nullptr; // null once it has ended
    DWORD id = 0;
    DWORD exitCode = STILL_ACTIVE;
};

// --- Threads and time.

class Thread {
public:
    enum class State { Runnable, Running, Blocked, Ended };

    Process* process = nullptr;
    std::shared_ptr<ThreadObject> object;
    DWORD id = 0;
    DWORD lastError = 0;
    State state = State::Runnable;
    bool doomed = false; // its process was killed, or it was: it leaves at its next look

    // What it waits for.
    std::vector<ObjectRef> waitsFor;
    std::vector<ObjectRef> awaited; // the same, until the wait's result is known
    bool waitsForAll = false;
    const void* waitsAt = nullptr; // a lock of the process's own memory
    std::uint64_t wakesAt = NEVER;
    DWORD waitResult = 0;

    std::set<Mutex*> owned;

    static constexpr std::uint64_t NEVER = ~std::uint64_t{0};

    // For the scheduler.
    int baton = 0;
    void* exitPoint = nullptr;
    unsigned depth = 0; // of the double's functions in one another
    DWORD(WINAPI* entry)(void*) = nullptr;
    void* argument = nullptr;
    bool isMain = false;
};

Thread& Current();
// Null in a thread that the double did not start.
Thread* CurrentOrNull();
// A point where another thread may go on, by the seed.
void MaySwitch();
// Another thread goes on, or this one, as the chooser says.
void GiveWay();
// Something about the object changed: whoever can go on with it becomes runnable.
void Notify(Object& object);
DWORD WaitFor(std::vector<ObjectRef>&& objects, bool all, DWORD milliseconds);
void SleepFor(DWORD milliseconds);
// Waits until WakeAt is called for the address.
void BlockAt(const void* address);
void WakeAt(const void* address);
// Starts a thread of a process; it runs when it gets the baton.
std::shared_ptr<ThreadObject> StartThread(Process& process, DWORD(WINAPI* entry)(void*), void* argument, bool isMain);
// Ends the calling thread and does not come back.
[[noreturn]] void LeaveThread(DWORD exitCode);
// Has another thread leave at its next look.
void Doom(Thread& thread, DWORD exitCode);
std::uint64_t Now(); // nanoseconds of virtual time since the start
// 100-nanosecond steps since 1601, in virtual time.
std::uint64_t FileTimeNow();
std::uint64_t Random(std::uint64_t bound);
void Seed(std::uint64_t seed);
// The program's main thread runs to its end here.
void RunWorld(Process& first);

// --- Processes.

struct HandleEntry {
    ObjectRef object;
    DWORD access = 0;
    bool isKey = false;
};

struct View {
    std::size_t size = 0;
    Text name;
    std::shared_ptr<std::size_t> committed; // the bytes from the start that have memory; null: all
};

struct Module {
    Text name; // VTFltMgr.dll
    void* library = nullptr;
    void* base = nullptr;
    const void* dynamic = nullptr;
    unsigned references = 1;
    bool attached = false;
};

// A piece of the heap that a module asked for.
struct Allocation {
    std::size_t size = 0;
    const void* site = nullptr;
    bool isMeant = false; // the module that it is for has said so itself
};

class RegistryKey;

class Process {
public:
    DWORD id = 0;
    std::shared_ptr<ProcessObject> object;
    std::map<std::uintptr_t, HandleEntry> handles;
    std::uintptr_t nextHandle = 4;
    std::map<const void*, View> views;
    // Its nodes come from a pool: one beside each allocation of the modules would take as long as the allocation itself.
    std::pmr::unsynchronized_pool_resource allocationNodes;
    std::pmr::unordered_map<std::uintptr_t, Allocation> allocations{&allocationNodes};
    std::map<Text, Text, std::less<>> environment;
    std::map<HKEY, std::shared_ptr<RegistryKey>> predefinedKeys; // RegOverridePredefKey
    std::set<Thread*> threads;
    std::vector<Module> modules; // the program first
    Text commandLine;
    std::vector<std::string> arguments;
    std::vector<char*> argumentPointers;
    Text directory;     // C:\x, no end
    std::string suffix; // what its copies of the modules carry in their names
    bool dead = false;
    Process* host = nullptr; // of a guest: whose modules it shares, and so the handles that these keep in variables
    unsigned badCloses = 0;

    HANDLE Open(ObjectRef object, DWORD access, bool isKey = false);
    HandleEntry* Find(HANDLE handle);
    bool Close(HANDLE handle);
    // Null with the last error set to 6 when the handle is none of this kind.
    template <class T>
    std::shared_ptr<T> Get(HANDLE handle, DWORD access = 0);
};

Process& CurrentProcess();
// Loads a program of the images' folder into a new process; null with the Windows error when that fails.
Process* MakeProcess(const Text& program, const Text& commandLine, const Process* parent, DWORD& error);
void EndProcess(Process& process, DWORD exitCode);
// Finds the program's modules in memory, and calls their entry points.
void LoadModules(Process& process);
void AttachModules(Process& process);
void DetachModules(Process& process, bool processEnds);
int RunMain(Process& process);
void UnloadModules(Process& process);
// What the module of this name has on the process's heap.
std::size_t CountAllocations(const Process& process, TextView moduleName, std::size_t& bytes);
void FreeAllocations(Process& process);
void SetImageFolder(const std::string& folder);

// --- The rest of the system.

inline void Fail(DWORD error)
{
    Current().lastError = error;
}
// Sets the last error and gives the failure.
template <class R>
R Failed(DWORD error, R result)
{
    Fail(error);
    return result;
}

inline wchar_t Upper(wchar_t character)
{
    if ((character >= L'a' && character <= L'z') || (character >= 0xE0 && character <= 0xFE && character != 0xF7))
        return static_cast<wchar_t>(character - 0x20);
    return character;
}
wchar_t Lower(wchar_t character);
Text Upper(TextView text);
bool EqualNoCase(TextView left, TextView right);
// The order of names that are compared without their case.
struct LessNoCase {
    using is_transparent = void;
    bool operator()(TextView left, TextView right) const;
};
std::string Narrow(TextView text);
Text Widen(std::string_view text);
Text Decimal(std::uint64_t number);

// Named objects by their full name; the object is forgotten with its last handle.
ObjectRef FindNamed(const Text& name);

[[noreturn]] void Die(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Every function of the double starts with one: a killed process's calls end here, and others may run now.
class Entry {
public:
    Entry();
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    ~Entry();
};

template <class T>
std::shared_ptr<T> Process::Get(HANDLE handle, DWORD access)
{
    HandleEntry* const entry = Find(handle);
    auto found = entry != nullptr ? std::dynamic_pointer_cast<T>(entry->object) : nullptr;
    if (found == nullptr) {
        Fail(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    if ((access & ~entry->access) != 0) {
        Fail(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return found;
}

} // namespace vtdouble
