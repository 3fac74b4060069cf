// vtlog show --why: why a volume's next backup must verify, in plain words.
#pragma once

#include "failure.h"
#include "merge.h"

#include <string>

namespace vtlog {

struct WhyOptions {
    std::string volume;
    std::string simulate;      // folder of a simulated machine; empty: this machine
    bool otherMachine = false; // the logs are of another machine: its lists cannot be read
    bool json = false;
};

// Reads the logs and the machine's lists and prints one answer for each application. VerifyRequired when one must
// verify, Unknown when that cannot be told of one, else Ok.
Exit Why(const WhyOptions& options, MergeReader& logs);

} // namespace vtlog
