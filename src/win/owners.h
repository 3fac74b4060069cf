// Owners for system resources: one class per kind of resource, made from one template.
//
// An owner knows the values that mean "nothing", closes what it held when it is reset, moved over or
// destroyed, and keeps the thread's last error over the close, so that a failure can be read after the
// owner has cleaned up.
#pragma once

#include "win/windows.h"

#include <utility>

namespace vtflt {

template <class Traits>
class Owner {
public:
    using Value = typename Traits::Value;

    constexpr Owner() noexcept = default;
    explicit Owner(Value value) noexcept : m_value(value) {}
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    Owner(Owner&& other) noexcept : m_value(other.release()) {}
    Owner& operator=(Owner&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ~Owner() { reset(); }

    [[nodiscard]] Value get() const noexcept { return m_value; }
    [[nodiscard]] bool valid() const noexcept { return Traits::IsValid(m_value); }
    explicit operator bool() const noexcept { return valid(); }

    // Gives up ownership: the caller closes.
    [[nodiscard]] Value release() noexcept { return std::exchange(m_value, Traits::Empty()); }

    void reset(Value value = Traits::Empty()) noexcept
    {
        const Value old = std::exchange(m_value, value);
        if (!Traits::IsValid(old))
            return;
        const DWORD lastError = GetLastError();
        Traits::Close(old);
        SetLastError(lastError);
    }

    // The place for a function that hands its result out through a pointer; closes what was held.
    [[nodiscard]] Value* put() noexcept
    {
        reset();
        return &m_value;
    }

private:
    Value m_value = Traits::Empty();
};

// Both null and INVALID_HANDLE_VALUE are "nothing": the system's functions do not agree on one of them.
struct HandleTraits {
    using Value = HANDLE;
    static constexpr Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr && value != INVALID_HANDLE_VALUE; }
    static void Close(Value value) noexcept { CloseHandle(value); }
};

struct RegistryKeyTraits {
    using Value = HKEY;
    static constexpr Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { RegCloseKey(value); }
};

struct FileSearchTraits : HandleTraits {
    static void Close(Value value) noexcept { FindClose(value); }
};

struct VolumeSearchTraits : HandleTraits {
    static void Close(Value value) noexcept { FindVolumeClose(value); }
};

struct ServiceTraits {
    using Value = SC_HANDLE;
    static constexpr Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { CloseServiceHandle(value); }
};

struct ViewTraits {
    using Value = void*;
    static constexpr Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { UnmapViewOfFile(value); }
};

struct LocalMemoryTraits {
    using Value = HLOCAL;
    static constexpr Value Empty() noexcept { return nullptr; }
    static bool IsValid(Value value) noexcept { return value != nullptr; }
    static void Close(Value value) noexcept { LocalFree(value); }
};

using UniqueHandle = Owner<HandleTraits>;
using UniqueKey = Owner<RegistryKeyTraits>;
using UniqueFileSearch = Owner<FileSearchTraits>;
using UniqueVolumeSearch = Owner<VolumeSearchTraits>;
using UniqueService = Owner<ServiceTraits>;
using UniqueView = Owner<ViewTraits>; // of a mapping
using UniqueLocalMemory = Owner<LocalMemoryTraits>;

} // namespace vtflt
