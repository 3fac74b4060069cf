// What the programs under the targets say, kept for the targets to look at.
#pragma once

#include <string>
#include <vector>

namespace fuzz {

struct Said {
    std::string printed;                // on standard output
    std::vector<std::string> diagnosed; // on standard error

    bool operator==(const Said&) const = default;
};

// Of the running input; who looks at it empties it before.
Said& TheSaid();

} // namespace fuzz
