// Where the log reports its own troubles: nowhere, by design. A log must not fail the program that uses it, and has no
// other place to write to. A debugging build can give this function a body that sends the text to a debugger.
#pragma once

namespace vtflt {

// printf style. The first two arguments are the thread id and the process id wherever the text starts with "[%d:%d]".
template <class... Arguments>
inline void Trace([[maybe_unused]] const wchar_t* format, [[maybe_unused]] const Arguments&... arguments) noexcept
{
}

} // namespace vtflt
