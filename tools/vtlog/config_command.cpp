// vtlog config: the command line, and what it prints.
#include "command_line.h"
#include "common/text.h"
#include "config_editor.h"
#include "console.h"
#include "entry_filter.h"
#include "entry_text.h"
#include "live_text.h"
#include "log/bounded_text.h"
#include "logging_processes.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <memory>

namespace vtlog {
namespace {

using namespace vtflt;
using toolkit::ToUtf8;

struct ConfigOptions {
    std::optional<std::uint32_t> processId;
    std::optional<std::string> module;
    std::optional<std::string> level;
    std::optional<std::string> path;
    bool automatic = false;
    std::optional<std::string> globalLevel;
    std::optional<std::string> globalPath;
    bool noGlobalPath = false;
    bool json = false;
};

// --- The command line

std::uint32_t LevelOption(const char* name, const std::string& text)
{
    if (text == "none")
        return LOG_LEVEL_NOT_SET;
    const std::optional<int> level = ParseLevel(text);
    if (!level || *level < 0)
        throw Failure(Exit::Usage, fmt::format("{}: \"{}\" is no level; write error, warning, information, detail, a "
                                               "number from 0 on, or none",
                                               name, text));
    return static_cast<std::uint32_t>(*level);
}

// The process has another current folder than this one: it gets the whole path.
std::wstring PathOption(const char* name, const std::string& text)
{
    const std::wstring given = toolkit::ToWide(text);
    if (given.empty() || given.back() == L'\\' || given.back() == L'/')
        throw Failure(Exit::Usage, fmt::format("{}: \"{}\" is no file", name, text));
    std::wstring full(32768, L'\0');
    const DWORD length = GetFullPathNameW(given.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length == 0 || length >= full.size())
        throw Failure(Exit::Usage, fmt::format("{}: \"{}\" is no path", name, text));
    full.resize(length);
    if (full.size() >= LOG_PATH_CAPACITY)
        throw Failure(Exit::Usage, fmt::format("{}: the path has {} characters; a log file's has {} at most", name,
                                               full.size(), LOG_PATH_CAPACITY - 1));
    return full;
}

ConfigChange ChangeOf(const ConfigOptions& options)
{
    ConfigChange change;
    const bool forModule = options.level || options.path || options.automatic;
    if (forModule && !options.module)
        throw Failure(Exit::Usage, "--level, --path and --auto need --module; for the whole process there are "
                                   "--global-level and --global-path");
    if (options.module && !forModule)
        throw Failure(Exit::Usage, "--module needs --level, --path or --auto");
    if (options.module) {
        change.module = toolkit::ToWide(*options.module);
        change.automatic = options.automatic;
    }
    if (options.level)
        change.level = LevelOption("--level", *options.level);
    if (options.path)
        change.path = PathOption("--path", *options.path);
    if (options.globalLevel)
        change.globalLevel = LevelOption("--global-level", *options.globalLevel);
    if (options.globalPath)
        change.globalPath = PathOption("--global-path", *options.globalPath);
    if (options.noGlobalPath)
        change.globalPath = std::wstring();
    return change;
}

// --- What is printed

std::string LevelText(std::uint32_t level)
{
    return level == LOG_LEVEL_NOT_SET ? "not set" : fmt::format("{} ({})", level, LevelName(static_cast<int>(level)));
}

bool HasFlag(const LogCfgModuleEntry& entry, std::uint32_t flag) noexcept
{
    return (entry.flags & flag) != 0;
}

std::string Table(DWORD processId, const LogCfgBlock& block)
{
    const std::wstring_view globalPath = FieldText(block.path);
    std::string text = fmt::format("process {} {}\n", processId, SafeText(ProcessName(processId)));
    text += fmt::format("  all modules  level {}, file {}\n", LevelText(block.level),
                        globalPath.empty() ? "not set" : SafeText(globalPath));
    for (const LogCfgModuleEntry* entry : UsedEntries(block)) {
        const char* const levelNote = HasFlag(*entry, LOG_CFG_LEVEL_AUTOMATIC) ? "automatic" : "its own";
        const char* const pathNote = HasFlag(*entry, LOG_CFG_PATH_AUTOMATIC) ? "automatic" : "its own";
        text += Coloured(SafeText(FieldText(entry->name)), Colour::Information) + "\n";
        text += fmt::format("  level  {:<18} {}\n", LevelText(entry->level), Coloured(levelNote, Colour::Quiet));
        text +=
            fmt::format("  file   {:<18} {}\n", SafeText(FieldText(entry->path)), Coloured(pathNote, Colour::Quiet));
    }
    return text;
}

nlohmann::ordered_json LevelValue(std::uint32_t level)
{
    return level == LOG_LEVEL_NOT_SET ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(level);
}

nlohmann::ordered_json BlockObject(DWORD processId, const LogCfgBlock& block)
{
    nlohmann::ordered_json object;
    object["pid"] = processId;
    object["program"] = ToUtf8(ProcessName(processId));
    const std::string globalPath = ToUtf8(FieldText(block.path));
    object["globalLevel"] = LevelValue(block.level);
    object["globalPath"] = globalPath.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(globalPath);
    object["modules"] = nlohmann::ordered_json::array();
    for (const LogCfgModuleEntry* entry : UsedEntries(block)) {
        nlohmann::ordered_json module;
        module["name"] = ToUtf8(FieldText(entry->name));
        module["level"] = LevelValue(entry->level);
        module["levelAutomatic"] = HasFlag(*entry, LOG_CFG_LEVEL_AUTOMATIC);
        module["path"] = ToUtf8(FieldText(entry->path));
        module["pathAutomatic"] = HasFlag(*entry, LOG_CFG_PATH_AUTOMATIC);
        module["flags"] = entry->flags;
        object["modules"].push_back(std::move(module));
    }
    return object;
}

Exit ListProcesses(bool json)
{
    const std::vector<LoggingProcess> processes = LoggingProcesses();
    for (const LoggingProcess& process : processes) {
        nlohmann::ordered_json object;
        object["pid"] = process.id;
        object["program"] = ToUtf8(process.name);
        const std::string text = fmt::format("{:5}  {}\n", process.id, SafeText(process.name));
        if (!Print(json ? JsonText(object) : text))
            break;
    }
    if (processes.empty())
        Diagnose("no process logs at the moment");
    return Exit::Ok;
}

Exit Config(const ConfigOptions& options)
{
    const ConfigChange change = ChangeOf(options);
    if (!options.processId) {
        if (!change.Empty())
            throw Failure(Exit::Usage, "a change needs the id of a process; vtlog config lists those that log");
        return ListProcesses(options.json);
    }
    const DWORD processId = *options.processId;
    const std::unique_ptr<LogCfgBlock> block = ConfigEditor(processId).Change(change);
    if (!Print(options.json ? JsonText(BlockObject(processId, *block)) : Table(processId, *block)))
        return Exit::Unreadable;
    return Exit::Ok;
}

} // namespace

void AddConfig(CLI::App& app, Action& action)
{
    CLI::App& command = *app.add_subcommand("config", "Show and change what a running process logs, and where");
    const auto options = std::make_shared<ConfigOptions>();
    command.add_option("pid", options->processId, "the process; without it those that log are listed");
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
    command.callback([options, &action] { action = [options] { return Config(*options); }; });
}

} // namespace vtlog
