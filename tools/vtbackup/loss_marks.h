// The marks that a loss of tracking puts on the verify lists of all applications.
#pragma once

#include "machine.h"
#include "repository.h"

#include <string>
#include <vector>

namespace vtbackup {

// What became of the marks.
struct Marking {
    std::vector<std::string> marked; // applications that are known to have the volume on their verify lists
    // Applications of which all fixed volumes were marked, but not this one: it is not fixed, so no list names it, and
    // more marks would only make every backup of the others a verify.
    std::vector<std::string> fixedOnly;
    std::string problem; // not empty: somebody else may not know and can still be told by another try; why
};

// Both texts with a separator between them, when there are both.
std::string Joined(const std::string& first, const std::string& second);
// What is to be said of applications of which only the fixed volumes are marked; empty when there are none.
std::string FixedOnlyText(const std::vector<std::string>& applications);

// Marks the volume for the chain's application and every other registered one, but for those that before names. The
// caller holds the locks of the chain's application and volume.
Marking MarkApplications(const Machine& machine, const Chain& chain, const Marking& before);

// The marked applications that are not known to take this program's locks, since none of their backups of the volume is
// this program's: a backup of theirs that was running when the mark was set may take it off without having verified.
std::vector<std::string> Strangers(const Machine& machine, const Chain& chain, const Marking& marking);
// Those of them that have no mark now.
std::vector<std::string> WithoutMark(const Chain& chain, const std::vector<std::string>& applications);

} // namespace vtbackup
