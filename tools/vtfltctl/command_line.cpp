#include "command_line.h"

#include "common/option_values.h"
#include "output.h"
#include "vtfltmgr/version.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>

namespace vtfltctl {

void RequireYes(const Context& context, const std::string& what)
{
    if (!context.yes)
        throw Failure(Exit::Refused, "this " + what + "; nothing was changed, repeat the command with --yes to do it");
}

std::optional<int> ParseCommandLine(std::vector<std::string> arguments, Context& context)
{
    if (const std::optional<std::string> option = toolkit::OptionWithoutValue(arguments))
        return static_cast<int>(AnswerFailure(context, Exit::Usage, fmt::format("{} may not be empty", *option)));
    CLI::App app;
    AddCommands(app, context);
    const bool json = context.json;
    context.json = false;
    context.arguments = arguments;
    std::reverse(arguments.begin(), arguments.end()); // as CLI11 takes them
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::CallForHelp&) {
        return Print(app.help()) && Flush() ? 0 : static_cast<int>(Exit::Unreadable);
    } catch (const CLI::CallForVersion& version) {
        return Print(std::string(version.what()) + "\n") && Flush() ? 0 : static_cast<int>(Exit::Unreadable);
    } catch (const CLI::ParseError& error) {
        context.json = json;
        return static_cast<int>(AnswerFailure(context, Exit::Usage, error.what()));
    }
    return std::nullopt;
}

} // namespace vtfltctl
