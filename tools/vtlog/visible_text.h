// Text from a file made safe for a terminal, apart from the system.
#pragma once

#include <string>
#include <string_view>

namespace vtlog {

// The text with everything that a terminal would act on, or that would not be seen (control characters, the direction of
// writing, what has neither shape nor width), written out as \x1b, \u202e or \U000e0041; a run of one such character
// beyond three as \x00{4096}. Blanks, and half a pair of surrogates, stay; line ends (LF and CRLF) become newLine, tabs
// stay.
std::wstring VisibleText(std::wstring_view text, std::wstring_view newLine);

} // namespace vtlog
