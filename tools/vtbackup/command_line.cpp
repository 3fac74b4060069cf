#include "command_line.h"

#include "common/option_values.h"
#include "console.h"
#include "failure.h"
#include "vtfltmgr/version.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <iostream>

namespace vtbackup {
namespace {

constexpr const char* FOOTER = R"(Exit codes:
   0 ok             the work is done
   1 internal       something that should not happen
   2 usage          the command line is wrong
   3 busy           another process works on this application or volume
   4 refused        the application ID is unsuitable or not registered
   5 driver-down    the change-tracking driver does not work
   6 damaged        the repository holds damaged or missing data
   7 not-reported   the backup is stored, but its success could not be reported
   8 interrupted    stopped by Ctrl-C; run the command again
   9 device         a volume, a snapshot or a request to the driver failed
  10 not-found      no such repository, chain, backup, machine or volume
  11 repository     a file could not be read or written
  12 lost-tracking  the audit found missed changes: no backup was made, the next ones read everything
  13 not-marked     as 12, but an application may not know that it has to read everything)";

// Of a count or a number that starts at 1.
std::string RequireAboveZero(const std::string& text)
{
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data(), end, number); // CLI's own reading cuts large ones
    return read.ec == std::errc() && read.ptr == end && number > 0 ? "" : text + " is no whole number above 0";
}

void AddCommon(CLI::App& command, Options& options, bool needsApplication)
{
    auto* application = command.add_option("--app", options.application, "application ID, compared exactly");
    if (needsApplication)
        application->required();
    command.add_option("--repo", options.repository, "folder of the repository")->required();
    command.add_option("--simulate", options.simulate, "work on the simulated machine in this folder");
    command.add_flag("--json", options.json, "print the result as one JSON object");
}

void AddVolume(CLI::App& command, Options& options, bool required)
{
    auto* volume =
        command.add_option("--volume", options.volume, "\\\\?\\Volume{...}\\, {...}, or a mount path such as E:\\");
    if (required)
        volume->required();
}

void AddInit(CLI::App& app, Options& options)
{
    CLI::App& command = *app.add_subcommand("init", "Make a repository, register the application, track snapshots");
    AddCommon(command, options, true);
    auto* reset = command.add_flag("--reset", options.reset,
                                   "unregister the application first: fresh bitmaps, every next backup a verify");
    auto* undo = command.add_flag(
        "--undo", options.undo, "unregister the application and stop tracking snapshots for it; keeps the repository");
    reset->excludes(undo);
    command.add_flag("--no-monitor", options.noMonitor, "leave the tracking of snapshots as it is");
}

void AddBackup(CLI::App& app, Options& options)
{
    CLI::App& command = *app.add_subcommand("backup", "Back up what changed on a volume since the last backup");
    AddCommon(command, options, true);
    AddVolume(command, options, true);
    auto* full = command.add_flag("--full", options.full, "store everything, independent of earlier backups");
    command.add_flag("--verify", options.verify, "read everything, store what differs")->excludes(full);
    command.add_flag("--register", options.registerFirst, "register the application if it is not");
    toolkit::TakeDecimal(
        command
            .add_option("--audit", options.audit,
                        "compare N random blocks that count as unchanged with the repository, before the backup")
            ->type_name("N")
            ->check(RequireAboveZero));
    command.add_flag("--keep-snapshot", options.keepSnapshot, "do not delete the snapshot; its device is printed");
    command.add_option("--snapshot-create", options.snapshotCreate,
                       "command that takes a snapshot of %VTBACKUP_VOLUME% and prints its device path");
    command.add_option("--snapshot-delete", options.snapshotDelete, "command that deletes %VTBACKUP_SNAPSHOT%");
}

void AddRestore(CLI::App& app, Options& options)
{
    CLI::App& command = *app.add_subcommand("restore", "Write a backup of the chain to a file or a volume");
    AddCommon(command, options, true);
    AddVolume(command, options, true);
    // As the folders of backups are called, with zeros in front.
    toolkit::TakeDecimal(command.add_option("--backup", options.backup, "number of the backup; the latest without it")
                             ->check(RequireAboveZero));
    command.add_option("--to", options.to, "file to make, or {...} of the volume to overwrite")->required();
    command.add_flag("--overwrite", options.overwrite, "replace an existing file");
}

void AddReport(CLI::App& app, Options& options)
{
    CLI::App& command = *app.add_subcommand("report", "Show the repository as one HTML page");
    AddCommon(command, options, false);
    AddVolume(command, options, false);
    command.add_option("--html", options.html, "file to make; - for standard output")->required();
    command.add_flag("--overwrite", options.overwrite, "replace an existing file");
}

} // namespace

ParsedCommandLine ParseCommandLine(std::vector<std::string> arguments)
{
    ParsedCommandLine parsed;
    CLI::App app("Backs up the changed blocks of volumes into a repository that can restore every backup.", "vtbackup");
    app.set_version_flag("--version", "vtbackup " VTFLTMGR_VERSION, "print the version");
    app.require_subcommand(1);
    app.footer(FOOTER);
    AddInit(app, parsed.options);
    AddBackup(app, parsed.options);
    AddRestore(app, parsed.options);
    CLI::App& verify = *app.add_subcommand("verify", "Check every block and every chain of the repository");
    AddCommon(verify, parsed.options, false);
    AddVolume(verify, parsed.options, false);
    CLI::App& list = *app.add_subcommand("list", "List the backups of the repository");
    AddCommon(list, parsed.options, false);
    AddVolume(list, parsed.options, false);
    AddReport(app, parsed.options);
    for (CLI::App* command : app.get_subcommands({}))
        command->footer(FOOTER);
    toolkit::RefuseEmptyValues(app);

    const bool json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
    const auto refuse = [&parsed, json](const std::string& message) {
        Diagnose(message); // with what was typed in it
        std::cerr << "Try \"vtbackup --help\".\n";
        if (json)
            PrintJson({{"result", OutcomeName(Exit::Usage)}, {"message", message}});
        parsed.exitCode = static_cast<int>(Exit::Usage);
    };
    if (const std::optional<std::string> option = toolkit::OptionWithoutValue(arguments)) {
        refuse(*option + " may not be empty");
        return parsed;
    }
    std::reverse(arguments.begin(), arguments.end()); // as CLI11 takes them
    try {
        app.parse(arguments);
        parsed.options.command = app.get_subcommands().front()->get_name();
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help();
        parsed.exitCode = 0;
    } catch (const CLI::CallForVersion& version) {
        std::cout << version.what() << "\n";
        parsed.exitCode = 0;
    } catch (const CLI::ParseError& error) {
        refuse(error.what());
    }
    return parsed;
}

} // namespace vtbackup
