// A live record as it is printed: in the same words, and with the same names in JSON, as one from a file.
#pragma once

#include "log/log_message.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

namespace vtlog {

// Without a line end, in colour on a terminal; what a terminal would act on is written out.
std::string LiveText(const vtflt::CLogMessage& record);
// Everything but the kind.
nlohmann::ordered_json LiveObject(const vtflt::CLogMessage& record);

// "writer.exe: 976 records missed, ..."
std::string MissedText(const std::wstring& executableName, std::uint64_t records);

// Text that comes from somewhere else, on one line and safe for a terminal.
std::string SafeText(std::wstring_view text);

} // namespace vtlog
