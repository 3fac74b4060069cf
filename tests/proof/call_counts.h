// How often each function of Windows was called.
#pragma once

#include <cstdint>
#include <vector>

namespace vtproof {

// Counts from its making on, whatever ran in the process before.
class CallCounts {
public:
    CallCounts();
    // Calls of any function.
    std::uint64_t All() const;
    // The calls of each function, as one number.
    std::uint64_t Sum() const;

private:
    std::vector<std::uint32_t> m_before;
    std::uint32_t m_allBefore = 0;
};

} // namespace vtproof
