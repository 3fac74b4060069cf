#include "command_line.h"

#include "output.h"
#include "vtfltmgr/version.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>

namespace vtfltctl {
namespace {

constexpr const char* FOOTER = R"(Exit codes:
   0 ok               the work is done; of a check: what was looked at is sound
   1 internal         something that should not happen
   2 usage            the command line is wrong
   3 busy             another process works on the volume, the lists or the applications
   4 refused          it would do harm, or needs --yes, or the library refuses it
   5 driver-down      the change-tracking driver does not work
   6 damaged          something is damaged or contradicts itself
   9 device           a volume or a request to the driver failed
  10 not-found        no such application, volume, file or machine
  11 unreadable       a file or a registry value could not be read or written
  12 verify-required  a next backup must verify
  13 unknown          that cannot be told
  14 not-monitored    device: the driver does not track it
  15 different        bitmap diff: the two differ)";

// What a script passes for a variable that is not set. As if it were not there it would widen what a command does: to
// the machine itself, to every volume.
void RefuseEmptyValues(CLI::App& app)
{
    for (CLI::Option* option : app.get_options()) {
        if (option->get_items_expected_max() != 0) // no flag
            option->check([](const std::string& value) { return value.empty() ? "may not be empty" : ""; });
    }
    for (CLI::App* command : app.get_subcommands({}))
        RefuseEmptyValues(*command);
}

} // namespace

CLI::App& AddCommand(CLI::App& parent, Context& context, const std::string& name, const std::string& description,
                     std::function<Exit()> action)
{
    CLI::App& command = *parent.add_subcommand(name, description);
    command.footer(FOOTER);
    command.add_flag("--json", context.json, "print the result as one JSON object");
    command.add_option("--simulate", context.simulate, "work on the simulated machine in this folder")
        ->type_name("DIR");
    const std::string fullName = parent.get_parent() == nullptr ? name : parent.get_name() + " " + name;
    command.callback([&context, fullName, action = std::move(action)] {
        context.command = fullName;
        context.action = action;
    });
    return command;
}

CLI::App& AddGroup(CLI::App& app, const std::string& name, const std::string& description)
{
    CLI::App& group = *app.add_subcommand(name, description);
    group.require_subcommand(1);
    group.footer(FOOTER);
    return group;
}

void AddYes(CLI::App& command, Context& context, const std::string& what)
{
    command.add_flag("--yes", context.yes, "really delete " + what);
}

void RequireYes(const Context& context, const std::string& what)
{
    if (!context.yes)
        throw Failure(Exit::Refused, "this " + what + "; nothing was changed, repeat the command with --yes to do it");
}

void AddCommands(CLI::App& app, Context& context)
{
    app.description("Shows and steers what the change tracking of VTFltMgr keeps on a machine.");
    app.name("vtfltctl");
    app.set_version_flag("--version", "vtfltctl " VTFLTMGR_VERSION, "print the version");
    app.require_subcommand(1);
    app.footer(FOOTER);
    // Application IDs and device names may begin with a slash.
    app.allow_windows_style_options(false);
    AddStatusCommand(app, context);
    AddDoctorCommand(app, context);
    AddAppsCommands(app, context);
    AddVerifyCommands(app, context);
    AddMonitorCommands(app, context);
    AddStopCommand(app, context);
    AddDeviceCommand(app, context);
    AddBitmapCommands(app, context);
    AddGeneratedCommands(app, context);
    RefuseEmptyValues(app);
}

namespace {

// CLI11 takes the next word for the value of "--option=".
std::optional<std::string> OptionWithoutValue(const std::vector<std::string>& arguments)
{
    for (const std::string& argument : arguments) {
        if (argument == "--")
            break;
        if (argument.starts_with("--") && argument.find('=') == argument.size() - 1)
            return argument;
    }
    return std::nullopt;
}

} // namespace

std::optional<int> ParseCommandLine(std::vector<std::string> arguments, Context& context)
{
    if (const std::optional<std::string> option = OptionWithoutValue(arguments))
        return static_cast<int>(AnswerFailure(
            context, Exit::Usage, fmt::format("{} may not be empty", option->substr(0, option->size() - 1))));
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
