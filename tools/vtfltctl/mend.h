// The commands that mend what doctor finds, as they are pasted into a shell.
//
// A command may be run late, twice, or by a script, when the machine is no longer as doctor found it. So each of them
// says all that it acts on, and none takes off or empties anything that it does not name exactly.
#pragma once

#include <string>
#include <vector>

namespace vtfltctl {

// "vtfltctl COMMAND ARGUMENT... OPTIONS"
struct MendStep {
    std::string command;
    std::vector<std::wstring> arguments;
    std::string options;
};

// Steps of which each is run when the one before has succeeded. Empty where no command can be shown to be safe.
using Mend = std::vector<MendStep>;

// The steps as one line, each argument in quotes where a shell needs them, with --simulate for a simulated machine (an
// empty folder is the real one). Empty when there are none, or when an argument cannot be written so that cmd, PowerShell
// and the program's own start-up code all read it back: then there is no command.
std::string WrittenMend(const Mend& mend, const std::wstring& simulation);

} // namespace vtfltctl
