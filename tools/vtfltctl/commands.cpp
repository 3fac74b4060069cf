// The definition of all commands: how they are called, their options, and what runs them.
#include "commands.h"

#include "common/option_values.h"
#include "common/text.h"
#include "vtfltmgr/version.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace vtfltctl {
namespace {

using toolkit::TakeDecimal;
using toolkit::ToWide;

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

// Adds one command below a parent (the program or a group), with --json, --simulate, its exit codes in the help, and
// the action that runs it. The caller adds the command's own options.
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

// Adds a group, which does nothing without one of its commands.
CLI::App& AddGroup(CLI::App& app, const std::string& name, const std::string& description)
{
    CLI::App& group = *app.add_subcommand(name, description);
    group.require_subcommand(1);
    group.footer(FOOTER);
    return group;
}

// Adds --yes, for a command that deletes. what: "what is deleted", for the help.
void AddYes(CLI::App& command, Context& context, const std::string& what)
{
    command.add_flag("--yes", context.yes, "really delete " + what);
}

void AddStatusCommand(CLI::App& app, Context& context)
{
    AddCommand(app, context, "status", "Show whether this machine's change tracking is healthy, on one screen",
               [&context] { return ShowStatus(context); });
}

void AddDoctorCommand(CLI::App& app, Context& context)
{
    const auto reinstall = std::make_shared<bool>(false);
    CLI::App& command = AddCommand(
        app, context, "doctor",
        "Check driver, registry, bitmap files and volumes against each other, and say what mends what is wrong",
        [&context, reinstall] { return RunDoctor(context, *reinstall); });
    command.add_flag("--reinstall", *reinstall,
                     "first let the library reinstall a driver that does not work, which may take 20 minutes");
    command.add_flag("--yes", context.yes, "really reinstall it");
}

void AddCleanCommand(CLI::App& group, Context& context)
{
    const auto options = std::make_shared<CleanOptions>();
    CLI::App& clean = AddCommand(group, context, "clean",
                                 "Delete the bitmap files of an application, registered or not: if it is, its next "
                                 "backup must verify",
                                 [&context, options] { return CleanApplication(context, *options); });
    clean.add_option("APP", options->application, "application ID that the files are named after")->required();
    clean.add_option("--volume", options->volume, "of this volume only: {...}, \\\\?\\Volume{...}\\ or a mount path")
        ->type_name("VOLUME");
    AddYes(clean, context, "the bitmap files");
}

void AddAppsCommands(CLI::App& app, Context& context)
{
    CLI::App& group = AddGroup(app, "apps", "The registered applications");
    AddCommand(group, context, "list", "List the registered applications, in the order of registration",
               [&context] { return ListApplications(context); });

    const auto id = std::make_shared<std::string>();
    CLI::App& add = AddCommand(group, context, "register",
                               "Register an application with fresh bitmaps; its first backup of every fixed volume "
                               "must verify",
                               [&context, id] { return RegisterApplication(context, ToWide(*id)); });
    add.add_option("APP", *id, "application ID, taken exactly")->required();
    add.add_flag("--yes", context.yes, "empty bitmap files that are there already");
    CLI::App& remove = AddCommand(group, context, "unregister",
                                  "Unregister an application and delete its bitmap files on every fixed volume",
                                  [&context, id] { return UnregisterApplication(context, ToWide(*id)); });
    remove.add_option("APP", *id, "application ID, compared exactly")->required();
    AddYes(remove, context, "the application's bitmap files");

    AddCleanCommand(group, context);
}

void AddVerifyCommands(CLI::App& app, Context& context)
{
    CLI::App& group = AddGroup(app, "verify", "The lists of volumes whose next backup must verify");
    const auto options = std::make_shared<VerifyOptions>();
    const auto command = [&](const char* name, const char* description,
                             Exit (*run)(const Context&, const VerifyOptions&)) {
        return &AddCommand(group, context, name, description,
                           [&context, options, run] { return run(context, *options); });
    };
    constexpr const char* APP = "application ID, compared exactly";
    constexpr const char* VOLUME = "{...}, \\\\?\\Volume{...}\\ or a mount path such as E:";

    CLI::App* list = command("list", "Show the driver's list and the pending and verify lists", ListVerify);
    list->add_option("APP", options->application, "of this application only");
    CLI::App* add = command(
        "add",
        "Put volumes on an application's verify list; not while a backup of it runs, whose success takes them off",
        AddVerify);
    add->add_option("APP", options->application, APP)->required();
    add->add_option("VOLUME", options->volumes, VOLUME);
    add->add_flag("--all", options->all, "every fixed volume");
    CLI::App* remove = command("remove", "Take volumes off an application's verify list", RemoveVerify);
    remove->add_option("APP", options->application, APP)->required();
    remove->add_option("VOLUME", options->volumes, VOLUME)->required();
    remove->add_flag("--exact", options->exact, "only entries that stand in the list just as they are written here");
    remove->add_flag("--pending", options->pending, "off the pending list instead");
    AddYes(*remove, context, "the entries");
    CLI::App* replicate = command(
        "replicate",
        "Hand the driver's list to the applications, and the pending list to the verify list; not while a backup of the "
        "application runs, whose success takes the marks off",
        ReplicateVerify);
    replicate->add_option("APP", options->application, APP)->required();
    CLI::App& rebuild =
        AddCommand(group, context, "rebuild",
                   "Replace lists that cannot be read: every fixed volume must then verify; not while a backup runs, "
                   "whose success takes the marks off",
                   [&context] { return RebuildLists(context); });
    AddYes(rebuild, context, "the lists that cannot be read");
}

void AddMonitorCommands(CLI::App& app, Context& context)
{
    CLI::App& group = AddGroup(app, "monitor", "The tracking of a device class, by default of snapshots");
    const auto name = std::make_shared<std::string>();
    const auto withClass = [&](CLI::App& command) -> CLI::App& {
        command.add_option("CLASS", *name, "{...} or the class key below HKEY_LOCAL_MACHINE; snapshots without it");
        return command;
    };
    withClass(AddCommand(group, context, "count", "Show how many requests stand, and whether the filter is listed",
                         [&context, name] { return CountRequests(context, ToWide(*name)); }));
    withClass(AddCommand(group, context, "on", "Ask for the tracking of a class; takes effect for new devices",
                         [&context, name] { return SwitchOn(context, ToWide(*name)); }));
    AddYes(withClass(AddCommand(group, context, "off", "Take one request back; the last one ends the tracking",
                                [&context, name] { return SwitchOff(context, ToWide(*name)); })),
           context, "the request, and with the last one the filter's entry");
}

void AddStopCommand(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<StopOptions>();
    CLI::App& command = AddCommand(app, context, "stop",
                                   "End the tracking of a volume and delete its bitmap files; with --all, delete the "
                                   "bitmap files of every fixed volume",
                                   [&context, options] { return StopTracking(context, *options); });
    command.add_option("VOLUME", options->volume, "{...}, \\\\?\\Volume{...}\\ or a mount path such as E:");
    command.add_flag("--all", options->all, "every fixed volume; the driver is not told");
    AddYes(command, context, "the bitmap files");
}

void AddDeviceCommand(CLI::App& app, Context& context)
{
    const auto name = std::make_shared<std::string>();
    AddCommand(app, context, "device", "Ask the driver whether it tracks a device",
               [&context, name] { return AskAboutDevice(context, ToWide(*name)); })
        .add_option("NAME", *name, "device name, such as \\\\?\\Volume{...} or a snapshot's device path")
        ->required();
}

// What is common to all readers of bitmap files.
void AddReading(CLI::App& command, bitmap::SelectionOptions& options)
{
    command.add_flag("--dump", options.dump, "the file is a diagnostic dump, whatever its name");
    command
        .add_option("--block-size", options.blockSize,
                    "block size of a dump, such as 64K; without it, that of the bitmap files beside it")
        ->type_name("SIZE");
    command
        .add_option("--volume-size", options.volumeSize,
                    "size of the volume, such as 1T; without it a file shows all blocks that it has room for")
        ->type_name("SIZE");
    TakeDecimal(command
                    .add_option("--buffer-header", options.leadBytes,
                                "bytes at the start of the bitmap that belong to the get-bitmap buffer's header")
                    ->check(CLI::IsMember(std::vector<std::uint32_t>{0, bitmap::LEAD_BYTES}))
                    ->type_name(""));
}

void AddSelection(CLI::App& command, bitmap::SelectionOptions& options)
{
    CLI::Option* const file =
        command.add_option("FILE", options.file, "a bitmap file or a diagnostic dump")->type_name("FILE");
    CLI::Option* const volume =
        command.add_option("--volume", options.volume, "the volume whose bitmap files are meant, with --app")
            ->type_name("VOLUME");
    CLI::Option* const application =
        command.add_option("--app", options.application, "the application whose bitmap files are meant")
            ->type_name("APP");
    command
        .add_option("--which", options.which,
                    "of an application's files: the base, the child, or both as one bitmap, which is the default")
        ->check(CLI::IsMember(std::vector<std::string>{"base", "child", "both"}))
        ->needs(volume)
        ->type_name("");
    volume->needs(application);
    application->needs(volume);
    file->excludes(volume);
    AddReading(command, options);
}

CLI::Option* AddLimit(CLI::App& command, std::uint64_t& limit)
{
    CLI::Option* const option =
        command.add_option("--limit", limit, "list no more than so many extents, and say where to go on")
            ->type_name("COUNT");
    TakeDecimal(option);
    return option;
}

void AddBitmapInfo(CLI::App& group, Context& context)
{
    const auto options = std::make_shared<bitmap::SelectionOptions>();
    AddSelection(AddCommand(group, context, "info",
                            "Show the header of a bitmap file, whether it is sound, and how much has changed",
                            [&context, options] { return ShowBitmap(context, *options); }),
                 *options);
}

void AddBitmapExtents(CLI::App& group, Context& context)
{
    const auto options = std::make_shared<ExtentOptions>();
    CLI::App& command = AddCommand(group, context, "extents",
                                   "List what has changed as offsets and lengths in bytes: CSV, or JSON with --json",
                                   [&context, options] { return ListExtents(context, *options); });
    AddSelection(command, options->selection);
    command.add_option("--start", options->start, "leave out what lies before the block at this offset, such as 512G")
        ->type_name("OFFSET");
    AddLimit(command, options->limit);
}

void AddBitmapDiff(CLI::App& group, Context& context)
{
    const auto options = std::make_shared<DiffOptions>();
    CLI::App& command =
        AddCommand(group, context, "diff", "Compare the changed blocks of two bitmap files or dumps of one volume",
                   [&context, options] { return ShowDifference(context, *options); });
    command.add_option("FILE1", options->first, "the first file")->type_name("FILE")->required();
    command.add_option("FILE2", options->second, "the second file")->type_name("FILE")->required();
    CLI::Option* const list = command.add_flag("--list", options->list, "list the differing extents instead of totals");
    command.add_option("--start", options->start, "leave out what lies before the block at this offset")
        ->type_name("OFFSET")
        ->needs(list);
    AddLimit(command, options->limit)->needs(list);
    AddReading(command, options->reading);
}

void AddBitmapMap(CLI::App& group, Context& context)
{
    const auto options = std::make_shared<MapOptions>();
    CLI::App& command = AddCommand(group, context, "map",
                                   "Draw the volume as a picture: each square a run of blocks, coloured by how many "
                                   "of them changed",
                                   [&context, options] { return DrawMap(context, *options); });
    AddSelection(command, options->selection);
    CLI::Option* const png = command.add_option("--png", options->png, "write a PNG file")->type_name("FILE");
    CLI::Option* const ansi = command.add_flag("--ansi", options->ansi,
                                               "draw on the terminal, in 24-bit colour; in "
                                               "characters where NO_COLOR is set");
    ansi->excludes(png);
    TakeDecimal(command.add_option("--columns", options->columns, "columns of the picture on the terminal")
                    ->check(CLI::IsMember(std::vector<std::uint64_t>{32, 64, 128, 256}))
                    ->needs(ansi)
                    ->type_name(""));
    AddYes(command, context, "what the PNG file held before");
}

void AddBitmapCommands(CLI::App& app, Context& context)
{
    CLI::App& group = AddGroup(app, "bitmap", "What a change bitmap holds");
    AddBitmapInfo(group, context);
    AddBitmapExtents(group, context);
    AddBitmapDiff(group, context);
    AddBitmapMap(group, context);
}

void AddGeneratedCommands(CLI::App& app, Context& context)
{
    const auto shell = std::make_shared<std::string>();
    CLI::App& completion = AddCommand(app, context, "completion", "Print a script that completes commands in a shell",
                                      [&context, shell] { return PrintCompletion(context, *shell); });
    completion.add_option("SHELL", *shell, "the shell")
        ->required()
        ->check(CLI::IsMember(std::vector<std::string>{"bash", "powershell"}))
        ->type_name("");
    AddCommand(app, context, "man", "Print the manual page, for man or groff -man",
               [&context] { return PrintManual(context); });
}

} // namespace

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
    toolkit::RefuseEmptyValues(app);
}

} // namespace vtfltctl
