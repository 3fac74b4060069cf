// What an operation of a scenario calls: the points at which something can go wrong.
#pragma once

#include "proof/world.h"

#include <string>
#include <vector>

namespace vtproof {

struct SweepPath {
    std::vector<std::wstring> calls;     // names of the functions, in order
    std::vector<std::wstring> refusable; // those of them that a fault for any call refuses
    std::uint32_t allocations = 0;
};

// Of the last operation of the history, when this fault (Fault::How::Fail or None) strikes it; the operations before run as
// they are. *wrong: what is wrong with these.
SweepPath FollowPath(const History& history, const Fault& fault, std::string& wrong);

// An answer of these that something is not there is believed, see docs/guarantees.md.
bool SaysWhetherSomethingIsThere(const std::wstring& function);

} // namespace vtproof
