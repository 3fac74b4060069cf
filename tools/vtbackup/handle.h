// Owner of a system handle. Null and INVALID_HANDLE_VALUE both mean "nothing".
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <winioctl.h>

#include <utility>

namespace vtbackup {

class Handle {
public:
    Handle() noexcept = default;
    explicit Handle(HANDLE value) noexcept : m_value(value) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    Handle(Handle&& other) noexcept : m_value(std::exchange(other.m_value, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept
    {
        if (this != &other) {
            Close();
            m_value = std::exchange(other.m_value, nullptr);
        }
        return *this;
    }
    ~Handle() { Close(); }

    [[nodiscard]] HANDLE Get() const noexcept { return m_value; }
    [[nodiscard]] bool Valid() const noexcept { return m_value != nullptr && m_value != INVALID_HANDLE_VALUE; }
    explicit operator bool() const noexcept { return Valid(); }

    // Keeps the last error, so that a failure can still be read after the owner went.
    void Close() noexcept
    {
        if (!Valid())
            return;
        const DWORD lastError = GetLastError();
        CloseHandle(std::exchange(m_value, nullptr));
        SetLastError(lastError);
    }

private:
    HANDLE m_value = nullptr;
};

} // namespace vtbackup
