// The command line: what is typed becomes the options of a command (commands.h).
#pragma once

#include "failure.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vtlog {

// What the command line asked for, to be run once it is parsed. May throw Failure.
using Action = std::function<Exit()>;

// Arguments without the program's name, UTF-8. Prints help itself; then, and after an error, which it prints to
// standard error, the result is the exit code instead.
struct ParsedCommandLine {
    Action action;
    std::optional<int> exitCode;
};
ParsedCommandLine ParseCommandLine(std::vector<std::string> arguments);

} // namespace vtlog
