// The commands: each prints its result to standard output and returns how it ended.
#pragma once

#include "command_line.h"
#include "failure.h"

namespace vtbackup {

// Throws Failure.
Exit RunCommand(const Options& options);

} // namespace vtbackup
