// Comparing names and paths as the system does: without regard to case, whatever the user's language.
#pragma once

#include <string_view>

namespace vtflt {

bool EqualIgnoringCase(std::wstring_view a, std::wstring_view b) noexcept;

// Whether prefix stands at the start of text. An empty prefix never does: an install path that is not known is no
// prefix of every path.
bool StartsWithIgnoringCase(std::wstring_view text, std::wstring_view prefix) noexcept;

} // namespace vtflt
