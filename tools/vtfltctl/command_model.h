// The command line's definition as plain data: what shell completions and the manual page are made from.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace vtfltctl {

// What stands for a value, as far as a shell can offer it.
enum class ValueKind {
    None, // a flag
    Text,
    Word, // one of a few
    File,
    Folder,
};

struct OptionModel {
    // As they are typed, "-h", "--help"; empty for an argument that is known by its place.
    std::vector<std::string> names;
    // "FILE", "TEXT", "base|child"; empty for a flag.
    std::string value;
    ValueKind kind = ValueKind::None;
    std::vector<std::string> words; // of ValueKind::Word
    std::string description;
    bool required = false;
    bool repeated = false;

    [[nodiscard]] bool IsPositional() const noexcept { return names.empty(); }
};

struct CommandModel {
    std::string name;
    std::string description;
    std::string footer;
    std::vector<OptionModel> options; // in the order of their definition
    std::vector<CommandModel> commands;
};

CommandModel ModelOf(const CLI::App& app);
// Of vtfltctl's own command line.
CommandModel ProgramModel();

// Scripts that complete the program's commands, options and their values; each begins with a comment that says how to
// use it.
std::string BashCompletion(const CommandModel& program);
std::string PowerShellCompletion(const CommandModel& program);

// A manual page in the man macros, section 1. The exit codes are taken from the footer, lines of "number name meaning".
std::string ManualPage(const CommandModel& program, const std::string& version);

} // namespace vtfltctl
