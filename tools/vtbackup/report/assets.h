// The page's style and script, as they were when the program was built, and their SHA-256 checksums in base 64, as a
// content security policy names them.
#pragma once

#include <string_view>

namespace vtbackup {

std::string_view PageStyle() noexcept;
std::string_view PageScript() noexcept;
std::string_view PageStyleChecksum() noexcept;
std::string_view PageScriptChecksum() noexcept;

} // namespace vtbackup
