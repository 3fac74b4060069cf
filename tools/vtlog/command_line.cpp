#include "command_line.h"

#include "commands.h"
#include "common/option_values.h"
#include "console.h"
#include "vtfltmgr/version.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <memory>

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

using toolkit::TakeDecimal;
using toolkit::TakeOneEach;

// CLI11's own range takes "nan" for a number in it.
std::string RequireSeconds(const std::string& text)
{
    double seconds = 0;
    const bool read = CLI::detail::lexical_cast(text, seconds);
    return read && seconds >= 0 && seconds <= 1e9 ? "" : '"' + text + "\" is no number of seconds from 0 to 1e9";
}

void AddShow(CLI::App& app, Action& action)
{
    CLI::App& command = *app.add_subcommand("show", "Read log files, with their successors, in the order of time");
    const auto options = std::make_shared<ShowOptions>();
    command.add_option("file", options->files, "log files, such as Logs\\VTFltMgr.dll.Log")->required();
    auto* level = command.add_option("--level", options->level,
                                     "this level and more important ones: error, warning, information, "
                                     "detail, or a number");
    auto* processes = command.add_option("--pid", options->processes, "records of these processes");
    auto* threads = command.add_option("--tid", options->threads, "records of these threads");
    auto* codes = command.add_option("--code", options->codes, "records with these error codes: 5, 0x10001 or a name");
    auto* texts = command.add_option("--grep", options->texts, "records that hold this text; repeated: all of them");
    command.add_flag("--ignore-case", options->ignoreCase, "--grep takes capital and small letters as the same");
    auto* since = command.add_option("--since", options->since,
                                     "records from this time on: 2026/11/21, \"2026/11/21 10:00:01\", "
                                     "10:00 of today, or 2h ago (s, m, h, d)");
    auto* until = command.add_option("--until", options->until,
                                     "records up to this time, with all of the day, minute or second "
                                     "that it names");
    auto* json = command.add_flag("--json", options->json, "one JSON object a line");
    auto* plain = command.add_flag("--plain", options->plain, "the records as the files have them, in UTF-8");
    plain->excludes(json);
    command.add_flag("--only", options->only, "read the files named, not their successors");
    TakeDecimal(
        command.add_option("--code-page", options->codePage, "code page of narrow files; the system's without it"));
    auto* why = command.add_option("--why", options->why.volume,
                                   "instead of records: why the next backup of this volume must verify; {GUID}, "
                                   "\\\\?\\Volume{GUID}\\ or a mount path such as E:");
    command.add_option("--simulate", options->why.simulate, "--why looks at the simulated machine in this folder")
        ->needs(why);
    command
        .add_flag("--other-machine", options->why.otherMachine,
                  "--why looks at the log alone, not at the lists of this machine")
        ->needs(why);
    for (CLI::Option* repeated : {processes, threads, codes, texts})
        TakeOneEach(repeated);
    // As the log writes them, with zeros in front.
    TakeDecimal(processes);
    TakeDecimal(threads);
    for (CLI::Option* filter : {level, processes, threads, codes, texts, since, until, plain})
        why->excludes(filter);
    command.callback([options, &action] {
        options->why.json = options->json;
        action = [options] { return RunShow(*options); };
    });
}

void AddTail(CLI::App& app, Action& action)
{
    CLI::App& command = *app.add_subcommand("tail", "Show records live, as processes log them");
    const auto options = std::make_shared<TailOptions>();
    TakeOneEach(command.add_option("--exe", options->programs,
                                   "programs to watch, by file name, running or not; without it every "
                                   "process that logs"));
    command.add_option("--level", options->level,
                       "this level and more important ones: error, warning, information, "
                       "detail, or a number");
    auto* processes = command.add_option("--pid", options->processes, "records of these processes");
    TakeOneEach(processes);
    TakeDecimal(processes);
    TakeOneEach(
        command.add_option("--grep", options->texts, "records whose message holds this text; repeated: all of them"));
    command.add_flag("--ignore-case", options->ignoreCase, "--grep takes capital and small letters as the same");
    command.add_flag("--json", options->json, "one JSON object a line");
    TakeDecimal(
        command.add_option("--count", options->count, "end after this many records")->check(CLI::PositiveNumber));
    command.add_option("--for", options->seconds, "end after this many seconds")->check(RequireSeconds);
    command.add_option("--stop-event", options->stopEvent, "end when this named event is set");
    command.callback([options, &action] { action = [options] { return RunTail(*options); }; });
}

void AddBreak(CLI::App& app, Action& action)
{
    CLI::App& command = *app.add_subcommand("break", "Stop threads that log a certain text, and let them go");
    const auto options = std::make_shared<BreakOptions>();
    command.add_option("--exe", options->program, "the program whose threads are to stop, by file name")->required();
    TakeOneEach(
        command
            .add_option("--text", options->texts, "the message holds this text, in this case; repeated: any of them")
            ->required());
    TakeDecimal(command.add_option("--pid", options->processId, "only in this process"));
    TakeDecimal(command.add_option("--tid", options->threadId, "only in this thread"));
    command.add_option("--hold", options->hold, "let each thread go after this many seconds, instead of at Enter")
        ->check(RequireSeconds);
    command.add_flag("--json", options->json, "one JSON object a line");
    TakeDecimal(command.add_option("--count", options->count, "end after this many threads were let go")
                    ->check(CLI::PositiveNumber));
    command.add_option("--for", options->seconds, "end after this many seconds")->check(RequireSeconds);
    command.add_option("--stop-event", options->stopEvent, "end when this named event is set");
    command.callback([options, &action] { action = [options] { return RunBreak(*options); }; });
}

void AddConfig(CLI::App& app, Action& action)
{
    CLI::App& command = *app.add_subcommand("config", "Show and change what a running process logs, and where");
    const auto options = std::make_shared<ConfigOptions>();
    TakeDecimal(command.add_option("pid", options->processId, "the process; without it those that log are listed"));
    command.add_option("--module", options->module, "the module whose entry to change, such as VTFltMgr.dll");
    auto* level = command.add_option("--level", options->level,
                                     "the module's own level: error, warning, information, "
                                     "detail, a number, or none");
    auto* path = command.add_option("--path", options->path, "the module's own log file");
    command.add_flag("--auto", options->automatic, "the module follows the process again, with no level of its own")
        ->excludes(level)
        ->excludes(path);
    command.add_option("--global-level", options->globalLevel,
                       "the level of all modules that follow the process, or "
                       "none");
    auto* globalPath = command.add_option("--global-path", options->globalPath,
                                          "the log file of all modules that "
                                          "follow the process");
    command.add_flag("--no-global-path", options->noGlobalPath, "those modules log into files of their own again")
        ->excludes(globalPath);
    command.add_flag("--json", options->json, "one JSON object");
    command.callback([options, &action] { action = [options] { return RunConfig(*options); }; });
}

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
    toolkit::RefuseEmptyValues(app);

    const auto refuse = [&parsed](const std::string& message) {
        Diagnose(message + "\nTry \"vtlog --help\".");
        parsed.exitCode = static_cast<int>(Exit::Usage);
    };
    if (const std::optional<std::string> option = toolkit::OptionWithoutValue(arguments)) {
        refuse(*option + " may not be empty");
        return parsed;
    }
    std::reverse(arguments.begin(), arguments.end()); // as CLI11 takes them
    try {
        app.parse(arguments);
    } catch (const CLI::CallForHelp&) {
        parsed.exitCode = Print(app.help()) && Flush() ? 0 : static_cast<int>(Exit::Unreadable);
    } catch (const CLI::CallForVersion& version) {
        parsed.exitCode = Print(std::string(version.what()) + "\n") && Flush() ? 0 : static_cast<int>(Exit::Unreadable);
    } catch (const CLI::ParseError& error) {
        refuse(error.what());
    }
    return parsed;
}

} // namespace vtlog
