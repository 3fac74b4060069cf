#include "output.h"

#include <fmt/format.h>

namespace vtfltctl {
namespace {

constexpr std::size_t LONGEST_QUOTE = 80;

bool PrintJson(const Context& context, Exit outcome, const Json& fields)
{
    Json object;
    object["command"] = context.command;
    object["result"] = OutcomeName(outcome);
    object.update(fields);
    // Text that is no valid UTF-8 cannot come here: all of it was made from UTF-16.
    return Print(object.dump(2, ' ', false, Json::error_handler_t::replace) + "\n") && Flush();
}

} // namespace

Exit Answer(const Context& context, Exit outcome, const Json& fields, const std::string& text)
{
    const bool printed = context.json ? PrintJson(context, outcome, fields) : Print(text) && Flush();
    if (printed)
        return outcome;
    Diagnose("the result could not be written to standard output");
    return Exit::Unreadable;
}

Exit AnswerFailure(const Context& context, Exit outcome, const std::string& message)
{
    Diagnose(outcome == Exit::Usage && context.command.empty() ? message + "\nTry \"vtfltctl --help\"." : message);
    if (context.json)
        PrintJson(context, outcome, {{"message", message}});
    return outcome;
}

std::string CountText(std::uint64_t count, const std::string& noun)
{
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string Quoted(std::wstring_view text)
{
    std::string quoted = '"' + Shown(text.substr(0, LONGEST_QUOTE)) + '"';
    if (text.size() > LONGEST_QUOTE)
        quoted += fmt::format(" ... ({} characters)", text.size());
    return quoted;
}

} // namespace vtfltctl
