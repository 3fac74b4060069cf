// How a command ends: one exit code per outcome, and the exception that carries it to main().
#pragma once

#include <stdexcept>
#include <string>

namespace vtfltctl {

// The process's exit codes; docs/cli.md lists them for users, and scripts depend on them. Other programs' numbers are
// their own: docs/errors.md has them side by side.
enum class Exit : int {
    Ok = 0,              // the work is done; of a check: what was looked at is sound
    Internal = 1,        // something that should not happen, or no memory
    Usage = 2,           // the command line is wrong
    Busy = 3,            // another process works on the volume
    Refused = 4,         // the request would do harm, is not confirmed by --yes, or the library refuses it
    DriverDown = 5,      // the change-tracking driver does not work
    Damaged = 6,         // something is damaged or contradicts itself
    Device = 9,          // a volume or a request to the driver failed
    NotFound = 10,       // no such application, volume, file or machine
    Unreadable = 11,     // a file or a registry value could not be read or written
    VerifyRequired = 12, // a next backup must verify
    Unknown = 13,        // that cannot be told
    NotMonitored = 14,   // device: the driver does not track it
    Different = 15,      // bitmap diff: the two differ
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

} // namespace vtfltctl
