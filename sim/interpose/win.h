// The system headers, small owners and text helpers of the simulator's Windows side.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <winioctl.h>
#include <winsvc.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vtfltsim {

class Handle {
public:
    Handle() noexcept = default;
    explicit Handle(HANDLE value) noexcept : m_value(value == INVALID_HANDLE_VALUE ? nullptr : value) {}
    Handle(Handle&& other) noexcept : m_value(std::exchange(other.m_value, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept
    {
        std::swap(m_value, other.m_value);
        return *this;
    }
    ~Handle()
    {
        if (m_value != nullptr)
            CloseHandle(m_value);
    }
    HANDLE get() const noexcept { return m_value; }
    explicit operator bool() const noexcept { return m_value != nullptr; }

private:
    HANDLE m_value = nullptr;
};

class Key {
public:
    Key() noexcept = default;
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    ~Key()
    {
        if (m_value != nullptr)
            RegCloseKey(m_value);
    }
    HKEY get() const noexcept { return m_value; }
    HKEY* put() noexcept { return &m_value; }
    HKEY release() noexcept { return std::exchange(m_value, nullptr); }

private:
    HKEY m_value = nullptr;
};

// A lock of this process; held over a few instructions, never over a call that may block on another process.
class ProcessLock {
public:
    void lock() noexcept { AcquireSRWLockExclusive(&m_lock); }
    void unlock() noexcept { ReleaseSRWLockExclusive(&m_lock); }
    void lock_shared() noexcept { AcquireSRWLockShared(&m_lock); }
    void unlock_shared() noexcept { ReleaseSRWLockShared(&m_lock); }

private:
    SRWLOCK m_lock = SRWLOCK_INIT;
};

// Puts the thread's last error back at the end of a scope, so that bookkeeping stays invisible.
class LastErrorKeeper {
public:
    LastErrorKeeper() noexcept : m_error(GetLastError()) {}
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;
    ~LastErrorKeeper() { SetLastError(m_error); }
    void Keep(DWORD error) noexcept { m_error = error; }

private:
    DWORD m_error;
};

inline wchar_t LowerAscii(wchar_t c)
{
    return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

inline bool EqualNoCase(std::wstring_view a, std::wstring_view b)
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (LowerAscii(a[i]) != LowerAscii(b[i]))
            return false;
    }
    return true;
}

inline bool StartsNoCase(std::wstring_view text, std::wstring_view start)
{
    return text.size() >= start.size() && EqualNoCase(text.substr(0, start.size()), start);
}

inline bool ContainsNoCase(std::wstring_view text, std::wstring_view part)
{
    for (std::size_t i = 0; i + part.size() <= text.size(); ++i) {
        if (EqualNoCase(text.substr(i, part.size()), part))
            return true;
    }
    return false;
}

std::wstring Decimal(unsigned long long value);
std::wstring Hexadecimal(DWORD value); // 0x and upper-case digits

// Text in the machine's shared record.
template <std::size_t N>
std::wstring FromRecord(const char16_t (&text)[N]) // up to its NUL or, in a damaged record, the end of the field
{
    return std::wstring(text, std::find(text, text + N, u'\0'));
}
template <std::size_t N>
bool ToRecord(char16_t (&target)[N], std::wstring_view text)
{
    if (text.size() >= N)
        return false;
    for (std::size_t i = 0; i < N; ++i)
        target[i] = i < text.size() ? static_cast<char16_t>(text[i]) : u'\0';
    return true;
}

// Copies text with its NUL into a caller's array of this many units; cut to fit.
void CopyCut(wchar_t* target, std::size_t units, std::wstring_view text);

// Entries of a double-NUL-ended list, up to units.
std::vector<std::wstring> SplitList(const wchar_t* list, std::size_t units);
std::wstring JoinList(const std::vector<std::wstring>& entries); // with all its NULs but the last one

} // namespace vtfltsim
