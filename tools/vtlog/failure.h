// How a command ends: one exit code per outcome, and the exception that carries it to main().
#pragma once

#include <stdexcept>
#include <string>

namespace vtlog {

// The process's exit codes; docs/vtlog.md lists them for users, and scripts depend on them. Other programs' numbers are
// their own: docs/errors.md has them side by side.
enum class Exit : int {
    Ok = 0,
    Internal = 1,        // something that should not happen, or no memory
    Usage = 2,           // the command line is wrong
    Busy = 3,            // somebody else holds what the command needs
    NoLog = 4,           // no file named holds a record
    Interrupted = 8,     // Ctrl-C
    NotFound = 10,       // no such file, process, block or machine
    Unreadable = 11,     // a file, list or block could not be read or written
    VerifyRequired = 12, // show --why: a next backup of the volume must verify
    Unknown = 13,        // show --why: that cannot be told
};

// Ends the command. The message is UTF-8, one sentence, and says what to do where something can be done.
class Failure : public std::runtime_error {
public:
    Failure(Exit code, const std::string& message) : std::runtime_error(message), m_code(code) {}
    [[nodiscard]] Exit Code() const noexcept { return m_code; }

private:
    Exit m_code;
};

} // namespace vtlog
