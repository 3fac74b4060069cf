// What attached modules have open, and what simulated handles stand for.
//
// A simulated handle is a real kernel object of its own (an event), so that its value is unique in the process
// and closes like any other; this table says what it means.
#pragma once

#include "interpose/machine.h"
#include "interpose/win.h"

#include <cstdint>
#include <memory>
#include <string>

namespace vtfltsim {

enum class OpenKind : unsigned { File, Key, Mutex, Search, VolumeSearch, Service, Process, Other };

class SimObject {
public:
    virtual ~SimObject() = default;
};

// A volume, a snapshot or the control device, opened.
class DeviceObject final : public SimObject {
public:
    std::shared_ptr<Machine> machine;
    Endpoint endpoint;
    DWORD access = 0;
    ProcessLock lock;
    std::uint64_t position = 0; // guarded by lock
};

// A walk over the machine's volumes, as they were when it began.
class VolumeSearchObject final : public SimObject {
public:
    std::vector<std::wstring> names;
    DWORD faultStep = 0;
    DWORD faultError = 0;
    ProcessLock lock;
    std::size_t next = 0; // guarded by lock
    DWORD step = 1;       // guarded by lock
};

class ProcessObject final : public SimObject {
public:
    DWORD exitCode = 0;
    bool hangs = false;
};

class ServiceObject final : public SimObject {
public:
    std::shared_ptr<Machine> machine;
};

namespace handles {

// Makes the placeholder of a simulated handle and enters it; null when the system gives none.
HANDLE OpenSimulated(OpenKind kind, const std::wstring& text, std::shared_ptr<SimObject> object);
// Enters a real handle that an attached module got.
void NoteOpened(OpenKind kind, const void* value, const std::wstring& text);
// Runs a close and takes the handle out of the table when it succeeds; counts a refused close.
template <class R, class Close>
R Closing(OpenKind kind, const void* value, R success, Close close);
// What the handle was opened as; empty when unknown.
std::wstring TextOf(OpenKind kind, const void* value);
bool IsKnown(OpenKind kind, const void* value);
void NoteMutexOwned(const void* value, int change);

DWORD OpenCount(DWORD kind); // VTFLTSIM_OPEN_*, VTFLTSIM_OWNED_MUTEXES, VTFLTSIM_FAILED_CLOSES
DWORD OpenTextAt(DWORD kind, DWORD index, wchar_t* text, DWORD characters);
void ForgetAll();

std::shared_ptr<SimObject> ObjectOf(OpenKind kind, const void* value);
template <class T>
std::shared_ptr<T> Find(OpenKind kind, const void* value)
{
    return std::dynamic_pointer_cast<T>(ObjectOf(kind, value));
}

struct Taken; // an entry out of the table
std::shared_ptr<Taken> TakeOut(OpenKind kind, const void* value);
void PutBack(const std::shared_ptr<Taken>& taken);
void NoteFailedClose();

template <class R, class Close>
R Closing(OpenKind kind, const void* value, R success, Close close)
{
    // Out of the table first: once closed, the value may be another thread's new handle.
    const auto taken = TakeOut(kind, value);
    const R result = close();
    if (result == success)
        return result;
    const LastErrorKeeper keeper;
    PutBack(taken);
    NoteFailedClose();
    return result;
}

} // namespace handles

} // namespace vtfltsim
