// vtlog config: what it prints.
#include "commands.h"
#include "common/text.h"
#include "config_change.h"
#include "console.h"
#include "entry_text.h"
#include "live_text.h"
#include "log/bounded_text.h"
#include "logging_processes.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>

namespace vtlog {
namespace {

using namespace vtflt;
using toolkit::ToUtf8;

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

} // namespace

Exit RunConfig(const ConfigOptions& options)
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

} // namespace vtlog
