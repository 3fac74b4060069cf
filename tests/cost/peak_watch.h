// The process's private memory: what is committed, and what the system counts.
#pragma once

#include "cost/import_table.h"

#include <cstdint>
#include <optional>

namespace vttest {

// Bytes of private memory committed now, by walking the address space.
std::uint64_t CommittedPrivateBytes();
// PrivateUsage as the system counts it.
std::uint64_t PrivateUsage();

// Watches the committed memory while a module works. It looks before each read, write, flush, close and driver request of
// attached modules, before each of their zeroed allocations, and before the module gives back 64 KiB or more: what is
// committed and given back again is seen, whatever happens between. A module gives back by free, which it must import, and
// by VirtualFree, if it does. One at a time. Slow: not for work that is timed.
class PeakWatch {
public:
    explicit PeakWatch(HMODULE module);
    PeakWatch(const PeakWatch&) = delete;
    PeakWatch& operator=(const PeakWatch&) = delete;
    ~PeakWatch() = default;
    // The most so far, beyond what was there at the beginning.
    [[nodiscard]] std::uint64_t Peak() const { return m_most - m_before; }
    void Look();

private:
    static void WatchedFree(void* bytes);
    static BOOL WINAPI WatchedVirtualFree(void* bytes, SIZE_T size, DWORD type);

    // What the overrides and the calls' hooks look into. It ends behind the overrides, also when the constructor throws.
    class Armed {
    public:
        explicit Armed(PeakWatch* watch) { s_watch = watch; }
        Armed(const Armed&) = delete;
        Armed& operator=(const Armed&) = delete;
        ~Armed();
    };

    static PeakWatch* s_watch;
    Armed m_armed;
    std::optional<ImportOverride> m_free;
    std::optional<ImportOverride> m_virtualFree;
    std::uint64_t m_before;
    std::uint64_t m_most;
};

} // namespace vttest
