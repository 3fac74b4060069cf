// How often each function of Windows was called.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace vtproof {

// A fault for any call lets these be: who holds something has no other way to give it back. Allocates nothing.
bool GivesBack(std::wstring_view function);

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
