// Where the log reports its own troubles: nowhere, by design. A log must not fail the program that uses it, and has no
// other place to write to. A debugging build puts a function of its own in the place of this one.
#pragma once

namespace vtflt {

// printf style. The first two arguments are the thread id and the process id wherever the text starts with "[%d:%d]".
// Keeps the thread's last error.
void Trace(const wchar_t* format, ...) noexcept;

} // namespace vtflt
