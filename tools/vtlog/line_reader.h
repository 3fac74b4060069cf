// Lines from standard input, for a program that has other things to wait for.
#pragma once

#include "win/owners.h"

#include <memory>
#include <string>
#include <vector>

namespace vtlog {

// One object in a process: its thread reads until the input ends, or the process does.
class LineReader {
public:
    LineReader();

    // Signalled while there is something to take, and once more at the end of the input.
    [[nodiscard]] HANDLE Event() const noexcept;
    // The lines since the last call, without their ends.
    [[nodiscard]] std::vector<std::string> Take();
    [[nodiscard]] bool Ended() const;

private:
    struct State;
    std::shared_ptr<State> m_state; // the thread has its share, because it is not waited for
};

} // namespace vtlog
