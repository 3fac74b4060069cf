// What the log reports of its own troubles: this program puts a function of its own in the place of the empty hook.
#pragma once

#include <string>
#include <vector>

namespace vttest {

// The lines since the last ClearTrace, as they would read.
std::vector<std::wstring> TraceLines();
void ClearTrace();
// A line with the two numbers that stand for "[%d:%d]" in front of it: this thread and this process.
std::wstring TraceLine(const std::wstring& text);
// The line of an operation that met a configuration block with a damaged mark; its numbers are this process's, both.
std::wstring DamagedBlockLine();

} // namespace vttest
