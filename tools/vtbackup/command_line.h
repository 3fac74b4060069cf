// The command line as plain data.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vtbackup {

struct Options {
    std::string command; // init, backup, restore, verify, list, report
    std::string application;
    std::string volume;
    std::string repository;
    std::string simulate;
    std::string snapshotCreate;
    std::string snapshotDelete;
    bool json = false;
    // init
    bool reset = false;
    bool undo = false;
    bool noMonitor = false;
    // backup
    bool full = false;
    bool verify = false;
    bool registerFirst = false;
    bool keepSnapshot = false;
    std::uint64_t audit = 0; // 0: none
    // restore
    std::uint64_t backup = 0;
    std::string to;
    bool overwrite = false; // report, too
    // report
    std::string html;
};

// Arguments without the program's name, UTF-8. Prints help itself; then, and after an error, which it prints to
// standard error, the result is the exit code instead.
struct ParsedCommandLine {
    Options options;
    std::optional<int> exitCode;
};
ParsedCommandLine ParseCommandLine(std::vector<std::string> arguments);

} // namespace vtbackup
