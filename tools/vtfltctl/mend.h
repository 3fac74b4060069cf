// The commands that mend what doctor finds, as they are pasted into a shell.
#pragma once

#include <string>
#include <vector>

namespace vtfltctl {

// "vtfltctl COMMAND ARGUMENT... OPTIONS", each argument in quotes where a shell needs them. Empty when an argument cannot
// be written so that cmd, PowerShell and the program's own start-up code all read it back: then there is no command.
std::string MendCommand(const std::string& command, const std::vector<std::wstring>& arguments,
                        const std::string& options = {});

// Commands of which each runs when the one before has succeeded. Empty when one of them is.
std::string InTurn(const std::vector<std::string>& commands);

} // namespace vtfltctl
