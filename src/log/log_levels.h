// What the registry says of the log: the threshold of each module, and the programs that keep a log file of their own.
#pragma once

#include "win/windows.h"

#include <string_view>

namespace vtflt {

// The threshold that the Debug key of the component that owns this module holds under a module's file name;
// LOG_LEVEL_NOT_SET when it holds none. Read once per name and process. Any thread may ask.
DWORD GetModuleLogLevel(std::wstring_view moduleName) noexcept;

// Whether the DisableGlobalOption list names the program: it ignores the log file that the configuration block sets for
// the whole process. The list is read once per process. Any thread may ask.
bool IsGlobalOptionDisabled(std::wstring_view executableName) noexcept;

// Forgets what was read, for the next life of the log in this process. Nothing may log at the same time.
void ForgetLogLevels() noexcept;

} // namespace vtflt
