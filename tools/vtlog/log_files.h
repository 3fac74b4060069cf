// Log files on disk: finding the successors of a full one, opening, and reading entry by entry.
#pragma once

#include "failure.h"
#include "record_parser.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vtlog {

struct ReadOptions {
    unsigned codePage = 0; // of narrow files; 0: the process's ANSI code page
    bool followSuccessors = true;
    std::function<void(const Failure&)> failed; // told when a file cannot be read; the others are read all the same
};

// The files of one log in the order in which they were filled.
struct LogChain {
    std::vector<std::wstring> paths;
    std::vector<std::string> notes; // what a reader should know: numbers missing in between
};

// A file and its successors, X.dll.Log and X.dll.00000001.log and so on; from a successor on, those behind it. What is
// no file keeps its path, so that opening it says why.
LogChain FindChain(const std::wstring& path, const ReadOptions& options);

// The number of a successor, 0 of a log's first file.
std::uint32_t SuccessorNumber(const std::wstring& path);

// A path as the system completes it, for comparing.
std::wstring FullPath(const std::wstring& path);

// Opens a log file that others may be writing to. Throws Failure: NotFound, Unreadable (a folder too).
EntryReader OpenLog(const std::wstring& path, const ReadOptions& options);

} // namespace vtlog
