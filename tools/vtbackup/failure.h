// How a command ends: one exit code per outcome, and the exception that carries it to main().
#pragma once

#include <stdexcept>
#include <string>

namespace vtbackup {

// The process's exit codes; docs/vtbackup.md lists them for users, and scripts depend on them.
enum class Exit : int {
    Ok = 0,
    Internal = 1,      // something that should not happen, or no memory
    Usage = 2,         // the command line is wrong
    Busy = 3,          // another process holds the application or the volume
    Refused = 4,       // the application ID is unsuitable, or not registered
    DriverDown = 5,    // the change-tracking driver does not work
    Damaged = 6,       // the repository holds damaged or missing data
    NotReported = 7,   // the backup is in the repository, but its success could not be reported
    Interrupted = 8,   // Ctrl-C
    Device = 9,        // a volume, snapshot or request to the driver failed
    NotFound = 10,     // no such repository, chain, backup, machine or volume
    Repository = 11,   // the repository or another file could not be read or written
    LostTracking = 12, // the audit found missed changes; no backup was made, every application will verify
    NotMarked = 13,    // missed changes were found, and an application may not know that it has to verify
};

// The outcome as one word, for --json.
const char* OutcomeName(Exit code) noexcept;

// Ends the command. The message is UTF-8, one sentence, and says what to do where something can be done.
class Failure : public std::runtime_error {
public:
    Failure(Exit code, const std::string& message) : std::runtime_error(message), m_code(code) {}
    [[nodiscard]] Exit Code() const noexcept { return m_code; }

private:
    Exit m_code;
};

} // namespace vtbackup
