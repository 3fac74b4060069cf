// What ends a command that watches: Ctrl-C and its relatives, an event of the caller's choice, or a time limit. The
// command goes on to clean up; nothing of it is cut off.
#pragma once

#include "failure.h"
#include "win/owners.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vtlog {

class StopSignal {
public:
    // Watches the console from now on; one object in a process. eventName (UTF-8, may be empty) is a named event that
    // counts as a way to end, made when it does not exist; seconds is the limit, if there is one. Throws Failure.
    StopSignal(const std::string& eventName, std::optional<double> seconds);

    // To wait for; both stay signalled once they are.
    [[nodiscard]] std::vector<HANDLE> Handles() const;
    // Milliseconds to the time limit, at most the given number.
    [[nodiscard]] DWORD Spell(DWORD milliseconds) const noexcept;
    // How to end, or nothing while the command is to go on: Interrupted after Ctrl-C, else Ok.
    [[nodiscard]] std::optional<Exit> Ending() const noexcept;

private:
    vtflt::UniqueHandle m_event;
    std::uint64_t m_end = UINT64_MAX; // of GetTickCount64
};

} // namespace vtlog
