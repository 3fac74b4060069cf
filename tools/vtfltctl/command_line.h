// The command line: what is typed becomes an action in a context.
#pragma once

#include "failure.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace vtfltctl {

// What the command line asked for. Options of one command (commands.h) are captured by its action.
struct Context {
    std::string command;                // the full name, such as "apps list"
    std::string simulate;               // --simulate, empty: the real machine
    bool json = false;                  // --json
    bool yes = false;                   // --yes
    std::vector<std::string> arguments; // as they were given
    std::function<Exit()> action;       // run by main, after --simulate took effect; may throw Failure
};

// Throws Failure(Refused) unless --yes was given. what: "would delete ...", one clause.
void RequireYes(const Context& context, const std::string& what);

// The whole definition of the command line, without parsing anything: also what completion and manual are made from.
// commands.cpp
void AddCommands(CLI::App& app, Context& context);

// Parses arguments (UTF-8, without the program's name) into the context. Prints help itself; then, and after an error,
// which it prints to standard error (and as JSON when context.json was set before), the result is the exit code.
std::optional<int> ParseCommandLine(std::vector<std::string> arguments, Context& context);

} // namespace vtfltctl
