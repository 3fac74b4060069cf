// The names of log files, apart from the system: the default path of a module's file, and the numbered successors of a
// file that is full.
#pragma once

#include "log/config_block.h"

#include <cstdint>
#include <string_view>

namespace vtflt {

// The full path of a log file. A name that holds a backslash or a slash is one already. Another name, the module's own
// where it is empty, gets the ending ".Log" unless it has it, and the folder (with its backslash) in front. Cut where it
// does not fit.
void DefaultLogFilePath(std::wstring_view name, std::wstring_view moduleName, std::wstring_view folder,
                        wchar_t (&path)[LOG_PATH_CAPACITY]) noexcept;

// A log file's path taken apart: X.dll.Log is (X.dll, 0), X.dll.00000002.log is (X.dll, 2).
struct LogPathParts {
    std::wstring_view base; // in the text that was taken apart
    std::uint32_t number;
};

// Without a final ".Log" (in any case), and without a dot and eight digits before it where those are more than 0.
LogPathParts SplitLogPath(std::wstring_view path) noexcept;

// The path of a successor. False when it does not fit: a cut path would be another file's.
bool BuildSuccessorPath(const LogPathParts& parts, wchar_t (&path)[LOG_PATH_CAPACITY]) noexcept;

// Whether two paths mean one log file: equal as the system compares them, or equal in base and number. sameText compares
// without regard to case.
bool IsSameLogFile(std::wstring_view a, std::wstring_view b,
                   bool (*sameText)(std::wstring_view, std::wstring_view) noexcept) noexcept;

} // namespace vtflt
