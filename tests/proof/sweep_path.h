// What an operation of a scenario calls: the points at which something can go wrong.
#pragma once

#include "proof/world.h"

#include <string>
#include <vector>

namespace vtproof {

// A call that moves bytes of a file: which among the calls of its function, from 1, and how many bytes it asks for.
struct SweepTransfer {
    std::uint32_t nth = 0;
    std::uint32_t bytes = 0;
};

struct SweepPath {
    std::vector<std::wstring> calls;     // names of the functions, in order
    std::vector<std::wstring> refusable; // those of them that a fault for any call refuses
    std::uint32_t allocations = 0;
    // By their number among the calls of the function, from 1.
    std::vector<std::uint32_t> emptying; // CreateFileW: of files that are then written
    std::vector<SweepTransfer> writes;
    std::vector<SweepTransfer> heads;  // ReadFile: of a file's first bytes, by which it is told whether it is sound
    std::vector<SweepTransfer> bodies; // ReadFile: of the whole of a file
};

// Of the last operation of the history, when this fault (none: Fault::How::None) strikes it; the operations before run as
// they are. *wrong: what is wrong with these. The recorded calls begin with those of the path.
SweepPath FollowPath(const History& history, const Fault& fault, std::string& wrong);

// An answer of these that something is not there is believed, see docs/guarantees.md.
bool SaysWhetherSomethingIsThere(const std::wstring& function);

} // namespace vtproof
