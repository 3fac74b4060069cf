// What the program says: data to standard output, everything else to standard error.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace vtbackup {

// One line, without its line feed: whatever a name or text in it holds, it stays one line and steers no terminal. What
// cannot be shown (toolkit::IsUnshowable) is shown as "?", here and in diagnostics.
void PrintLine(const std::string& text);
void PrintJson(const nlohmann::json& object);
// A whole file, byte for byte. False when it did not get there.
bool PrintExactly(const std::string& bytes);
// Whether everything that these three were given got there.
[[nodiscard]] bool AllWritten() noexcept;
// "vtbackup: message" as one line, in red on a terminal unless NO_COLOR is set.
void Diagnose(const std::string& message);

} // namespace vtbackup
