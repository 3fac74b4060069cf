#include "locks.h"

#include "failure.h"
#include "text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace vtbackup {
namespace {

// The note beside a mutex. Texts are zero-terminated and cut to their fields; the reader cuts them again,
// because another program may have made a mapping of this name.
struct Note {
    DWORD process;
    wchar_t application[128];
    wchar_t volume[64];
    wchar_t work[32];
};
static_assert(sizeof(Note) == 4 + 2 * (128 + 64 + 32));

template <std::size_t N>
void CopyInto(wchar_t (&field)[N], const std::wstring& text)
{
    const std::size_t length = std::min(text.size(), N - 1);
    std::copy_n(text.data(), length, field);
    field[length] = L'\0';
}

template <std::size_t N>
std::string TextOf(const wchar_t (&field)[N])
{
    const std::wstring_view all(field, N);
    return ToUtf8(all.substr(0, std::min(all.find(L'\0'), N)));
}

std::wstring NoteName(const std::wstring& mutexName)
{
    return mutexName + L".Holder";
}

// Only for a message: a missing note (the holder is just starting or ending) is no error.
std::string DescribeHolder(const std::wstring& mutexName)
{
    const Handle mapping(OpenFileMappingW(FILE_MAP_READ, FALSE, NoteName(mutexName).c_str()));
    const void* view = mapping ? MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, sizeof(Note)) : nullptr;
    if (view == nullptr)
        return "another process";
    Note note;
    std::memcpy(&note, view, sizeof(note));
    UnmapViewOfFile(view);
    std::string text =
        fmt::format("process {} ({} of application \"{}\"", note.process, TextOf(note.work), TextOf(note.application));
    const std::string volume = TextOf(note.volume);
    return text + (volume.empty() ? ")" : fmt::format(", volume {})", volume));
}

Handle LeaveNote(const std::wstring& mutexName, const LockPurpose& purpose)
{
    // A refused note costs the other process the holder's name, nothing more.
    Handle mapping(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(Note),
                                      NoteName(mutexName).c_str()));
    void* view = mapping ? MapViewOfFile(mapping.Get(), FILE_MAP_WRITE, 0, 0, sizeof(Note)) : nullptr;
    if (view == nullptr)
        return {};
    Note note = {};
    note.process = GetCurrentProcessId();
    CopyInto(note.application, purpose.application);
    CopyInto(note.volume, purpose.volume);
    CopyInto(note.work, purpose.work);
    std::memcpy(view, &note, sizeof(note));
    UnmapViewOfFile(view);
    return mapping;
}

Handle OpenMutexOfAnyOwner(const std::wstring& name)
{
    Handle mutex(CreateMutexW(nullptr, FALSE, name.c_str()));
    // Made by another account: the right to wait is enough.
    if (!mutex && GetLastError() == ERROR_ACCESS_DENIED)
        mutex = Handle(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()));
    return mutex;
}

} // namespace

Lock::Lock(const std::wstring& name, const LockPurpose& purpose, const std::string& what)
    : m_mutex(OpenMutexOfAnyOwner(name))
{
    if (!m_mutex)
        throw Failure(Exit::Internal,
                      fmt::format("cannot make the lock {}: {}", ToUtf8(name), ErrorText(GetLastError())));
    switch (WaitForSingleObject(m_mutex.Get(), 0)) {
    case WAIT_OBJECT_0:
    case WAIT_ABANDONED: // its holder died; whatever it left is handled by the work itself
        break;
    case WAIT_TIMEOUT:
        throw Failure(Exit::Busy, fmt::format("{} is busy, held by {}", what, DescribeHolder(name)));
    default:
        throw Failure(Exit::Internal,
                      fmt::format("cannot wait for the lock {}: {}", ToUtf8(name), ErrorText(GetLastError())));
    }
    m_note = LeaveNote(name, purpose);
}

Lock::Lock(Lock&& other) noexcept = default;

Lock::~Lock()
{
    // The note goes first: while the mutex is free, no note names this process.
    m_note.Close();
    if (m_mutex)
        ReleaseMutex(m_mutex.Get());
}

} // namespace vtbackup
