// What a command says: text for people or, with --json, one JSON object. Both go to standard output; what went wrong
// goes to standard error, and with --json into the object, too.
//
// Every object begins with "command" and "result" (the exit code as one word). The schemas in schema/ describe them.
#pragma once

#include "command_line.h"
#include "common/console.h"
#include "common/text.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

namespace vtfltctl {

using toolkit::BytesText;
using toolkit::Colour;
using toolkit::Coloured;
using toolkit::Diagnose;
using toolkit::ErrorText;
using toolkit::Flush;
using toolkit::Print;
using toolkit::Shown;
using toolkit::ToUtf8;
using toolkit::ToWide;

using Json = nlohmann::ordered_json; // its members stay in the order in which they were given

// Ends a command that did its work: prints text, or the fields as JSON. Gives outcome back, or Unreadable when standard
// output could not be written.
Exit Answer(const Context& context, Exit outcome, const Json& fields, const std::string& text);

// Ends a command that failed: the message on standard error, with --json also as {"command", "result", "message"}.
Exit AnswerFailure(const Context& context, Exit outcome, const std::string& message);

// "1 volume", "2 volumes"
std::string CountText(std::uint64_t count, const std::string& noun);
// The text in double quotes as a message shows what was typed: control characters made visible, long ones cut.
std::string Quoted(std::wstring_view text);

} // namespace vtfltctl
