// What the program says: data to standard output, everything else to standard error.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace vtbackup {

// Control characters but line feeds are shown as "?", here and in diagnostics.
void Print(const std::string& text);
void PrintJson(const nlohmann::json& object);
// A whole file, byte for byte. False when it did not get there.
bool PrintExactly(const std::string& bytes);
// "vtbackup: message", in red on a terminal unless NO_COLOR is set.
void Diagnose(const std::string& message);

} // namespace vtbackup
