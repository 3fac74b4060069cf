// The command line: every group of commands adds itself.
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

// What the command line asked for. Options of one command live in an object of that command's, captured by its action.
struct Context {
    std::string command;                // the full name, such as "apps list"
    std::string simulate;               // --simulate, empty: the real machine
    bool json = false;                  // --json
    bool yes = false;                   // --yes
    std::vector<std::string> arguments; // as they were given
    std::function<Exit()> action;       // run by main, after --simulate took effect; may throw Failure
};

// Adds one command below a parent (the program or a group), with --json, --simulate, its exit codes in the help, and
// the action that runs it. The caller adds the command's own options.
CLI::App& AddCommand(CLI::App& parent, Context& context, const std::string& name, const std::string& description,
                     std::function<Exit()> action);
// Adds a group, which does nothing without one of its commands.
CLI::App& AddGroup(CLI::App& app, const std::string& name, const std::string& description);
// Adds --yes, for a command that deletes. what: "what is deleted", for the help.
void AddYes(CLI::App& command, Context& context, const std::string& what);
// Throws Failure(Refused) unless --yes was given. what: "would delete ...", one clause.
void RequireYes(const Context& context, const std::string& what);

// --- The commands, each group in a file of its own. A new group is declared here and called in AddCommands.

void AddStatusCommand(CLI::App& app, Context& context);   // status_command.cpp
void AddAppsCommands(CLI::App& app, Context& context);    // apps_commands.cpp
void AddVerifyCommands(CLI::App& app, Context& context);  // verify_commands.cpp
void AddMonitorCommands(CLI::App& app, Context& context); // monitor_commands.cpp
void AddStopCommand(CLI::App& app, Context& context);     // stop_command.cpp
void AddDeviceCommand(CLI::App& app, Context& context);   // device_command.cpp
void AddDoctorCommand(CLI::App& app, Context& context);   // doctor_command.cpp

// What bitmap files hold.
void AddBitmapCommands(CLI::App& app, Context& context); // bitmap_commands.cpp

// What is generated from the commands themselves.
void AddGeneratedCommands(CLI::App& app, Context& context); // generated_commands.cpp

// The whole definition of the command line, without parsing anything: also what completion and manual are made from.
void AddCommands(CLI::App& app, Context& context);

// Parses arguments (UTF-8, without the program's name) into the context. Prints help itself; then, and after an error,
// which it prints to standard error (and as JSON when context.json was set before), the result is the exit code.
std::optional<int> ParseCommandLine(std::vector<std::string> arguments, Context& context);

} // namespace vtfltctl
