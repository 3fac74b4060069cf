#include "command_line.h"

#include "console.h"
#include "vtfltmgr/version.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace vtlog {
namespace {

constexpr const char* FOOTER = R"(Exit codes:
   0 ok               the work is done; with --why: no next backup must verify
   1 internal         something that should not happen
   2 usage            the command line is wrong
   3 busy             somebody else holds what the command needs
   4 no-log           no file named holds a record
   8 interrupted      stopped by Ctrl-C
  10 not-found        no such file, process, block or machine
  11 unreadable       a file, list or block could not be read or written
  12 verify-required  with --why: a next backup of the volume must verify
  13 unknown          with --why: that cannot be told)";

} // namespace

ParsedCommandLine ParseCommandLine(std::vector<std::string> arguments)
{
    ParsedCommandLine parsed;
    CLI::App app("Reads, watches and steers the diagnostic log of VTFltMgr.", "vtlog");
    app.set_version_flag("--version", "vtlog " VTFLTMGR_VERSION, "print the version");
    app.require_subcommand(1);
    app.footer(FOOTER);
    AddShow(app, parsed.action);
    AddTail(app, parsed.action);
    AddBreak(app, parsed.action);
    AddConfig(app, parsed.action);
    for (CLI::App* command : app.get_subcommands({}))
        command->footer(FOOTER);

    std::reverse(arguments.begin(), arguments.end()); // as CLI11 takes them
    try {
        app.parse(arguments);
    } catch (const CLI::CallForHelp&) {
        parsed.exitCode = Print(app.help()) && Flush() ? 0 : static_cast<int>(Exit::Unreadable);
    } catch (const CLI::CallForVersion& version) {
        parsed.exitCode = Print(std::string(version.what()) + "\n") && Flush() ? 0 : static_cast<int>(Exit::Unreadable);
    } catch (const CLI::ParseError& error) {
        Diagnose(std::string(error.what()) + "\nTry \"vtlog --help\".");
        parsed.exitCode = static_cast<int>(Exit::Usage);
    }
    return parsed;
}

} // namespace vtlog
