// Text from a file made safe for a terminal, apart from the system.
#pragma once

#include <string>
#include <string_view>

namespace vtlog {

// The text with everything that a terminal would act on, or that would not be seen, written out as \x1b or \u202e;
// a run of one such character beyond three as \x00{4096}. Line ends (LF and CRLF) become newLine, tabs stay.
std::wstring VisibleText(std::wstring_view text, std::wstring_view newLine);

} // namespace vtlog
