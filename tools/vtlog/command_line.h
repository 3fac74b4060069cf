// The command line: every subcommand adds itself.
#pragma once

#include "failure.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace vtlog {

// What the command line asked for, to be run once it is parsed. May throw Failure.
using Action = std::function<Exit()>;

// --- The subcommands, each in a file of its own. A function adds the subcommand with its options to the program, and
// gives it a callback that stores the action. A new subcommand is declared here and called in ParseCommandLine.

void AddShow(CLI::App& app, Action& action);   // show_command.cpp
void AddTail(CLI::App& app, Action& action);   // tail_command.cpp
void AddBreak(CLI::App& app, Action& action);  // break_command.cpp
void AddConfig(CLI::App& app, Action& action); // config_command.cpp

// Arguments without the program's name, UTF-8. Prints help itself; then, and after an error, which it prints to
// standard error, the result is the exit code instead.
struct ParsedCommandLine {
    Action action;
    std::optional<int> exitCode;
};
ParsedCommandLine ParseCommandLine(std::vector<std::string> arguments);

} // namespace vtlog
