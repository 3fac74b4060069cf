// The process's private memory: what is committed, and what the system counts.
#pragma once

#include <cstdint>

namespace bench {

// Bytes of private memory committed now, by walking the address space.
std::uint64_t CommittedPrivateBytes();
// PrivateUsage as the system counts it.
std::uint64_t PrivateUsage();

// Watches the committed memory from every read, write and allocation that attached modules make until it is destroyed.
// Slow: not for work that is timed.
class PeakWatch {
public:
    PeakWatch();
    PeakWatch(const PeakWatch&) = delete;
    PeakWatch& operator=(const PeakWatch&) = delete;
    ~PeakWatch();
    // The most so far, beyond what was there at the beginning.
    [[nodiscard]] std::uint64_t Peak() const { return m_most - m_before; }
    [[nodiscard]] std::uint64_t Before() const { return m_before; }
    void Look();

private:
    std::uint64_t m_before;
    std::uint64_t m_most;
};

} // namespace bench
