// What the commands are asked for, as it was typed, and what each of them does. A new command is declared here, has a
// file of its own, and gets its options in command_line.cpp.
#pragma once

#include "failure.h"
#include "why.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vtlog {

struct ShowOptions {
    std::vector<std::string> files;
    std::string level;
    std::vector<std::uint32_t> processes;
    std::vector<std::uint32_t> threads;
    std::vector<std::string> codes;
    std::vector<std::string> texts;
    bool ignoreCase = false;
    std::string since;
    std::string until;
    bool json = false;
    bool plain = false;
    bool only = false;
    unsigned codePage = 0;
    WhyOptions why;
};

struct TailOptions {
    std::vector<std::string> programs;
    std::string level;
    std::vector<std::uint32_t> processes;
    std::vector<std::string> texts;
    bool ignoreCase = false;
    bool json = false;
    std::optional<std::uint64_t> count;
    std::optional<double> seconds;
    std::string stopEvent;
};

struct BreakOptions {
    std::string program;
    std::vector<std::string> texts;
    std::uint32_t processId = 0;
    std::uint32_t threadId = 0;
    std::optional<double> hold;
    bool json = false;
    std::optional<std::uint64_t> count;
    std::optional<double> seconds;
    std::string stopEvent;
};

struct ConfigOptions {
    std::optional<std::uint32_t> processId;
    std::optional<std::string> module;
    std::optional<std::string> level;
    std::optional<std::string> path;
    bool automatic = false;
    std::optional<std::string> globalLevel;
    std::optional<std::string> globalPath;
    bool noGlobalPath = false;
    bool json = false;
};

// All may throw Failure.
Exit RunShow(const ShowOptions& options);     // show_command.cpp
Exit RunTail(const TailOptions& options);     // tail_command.cpp
Exit RunBreak(const BreakOptions& options);   // break_command.cpp
Exit RunConfig(const ConfigOptions& options); // config_command.cpp

} // namespace vtlog
