#include "config_editor.h"

#include "common/text.h"
#include "failure.h"
#include "live_text.h"
#include "log/bounded_text.h"
#include "log/object_names.h"
#include "log/text_compare.h"
#include "logging_processes.h"

#include <fmt/format.h>

#include <cstring>

namespace vtlog {
namespace {

using namespace vtflt;

LogCfgModuleEntry* FindModule(LogCfgBlock& block, std::wstring_view name)
{
    const std::wstring_view stored = name.substr(0, LOG_MODULE_NAME_CAPACITY - 1);
    for (LogCfgModuleEntry& entry : block.modules) {
        if (entry.name[0] == L'\0')
            return nullptr;
        if (EqualIgnoringCase(FieldText(entry.name), stored))
            return &entry;
    }
    return nullptr;
}

void ApplyTo(LogCfgModuleEntry& entry, const ConfigChange& change)
{
    if (change.automatic) {
        entry.level = LOG_LEVEL_NOT_SET;
        entry.flags = LOG_CFG_FLAGS_TAKEN;
    }
    if (change.level) {
        entry.level = *change.level;
        entry.flags &= ~LOG_CFG_LEVEL_AUTOMATIC;
    }
    if (change.path) {
        CopyText(entry.path, *change.path);
        entry.flags &= ~LOG_CFG_PATH_AUTOMATIC;
    }
}

[[noreturn]] void FailToOpen(DWORD processId, DWORD error)
{
    if (error != ERROR_FILE_NOT_FOUND)
        throw Failure(Exit::Unreadable, fmt::format("the log configuration of process {} cannot be opened: {}",
                                                    processId, toolkit::ErrorText(error)));
    const std::wstring name = ProcessName(processId);
    if (name.empty())
        throw Failure(Exit::NotFound, fmt::format("there is no process {}", processId));
    throw Failure(Exit::NotFound, fmt::format("process {} ({}) has no log configuration: it has not loaded the library",
                                              processId, SafeText(name)));
}

std::string ModuleList(const LogCfgBlock& block)
{
    std::string list;
    for (const LogCfgModuleEntry* entry : UsedEntries(block))
        list += (list.empty() ? "" : ", ") + SafeText(FieldText(entry->name));
    return list.empty() ? "none" : list;
}

} // namespace

std::vector<const LogCfgModuleEntry*> UsedEntries(const LogCfgBlock& block)
{
    std::vector<const LogCfgModuleEntry*> used;
    for (const LogCfgModuleEntry& entry : block.modules) {
        if (entry.name[0] == L'\0')
            break;
        used.push_back(&entry);
    }
    return used;
}

bool Apply(const ConfigChange& change, LogCfgBlock& block)
{
    if (change.module) {
        LogCfgModuleEntry* const entry = FindModule(block, *change.module);
        if (entry == nullptr)
            return false;
        ApplyTo(*entry, change);
    }
    if (change.globalLevel)
        block.level = *change.globalLevel;
    if (change.globalPath)
        CopyText(block.path, *change.globalPath);
    return true;
}

ConfigEditor::ConfigEditor(DWORD processId) : m_processId(processId)
{
    m_mutex.reset(
        OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, ConfigObjectName(LOG_CFG_MUTEX_NAME, processId).c_str()));
    if (!m_mutex)
        FailToOpen(processId, GetLastError());
    const std::wstring global = ConfigObjectName(LOG_CFG_GLOBAL_MAPPING_NAME, processId);
    const std::wstring local = ConfigObjectName(LOG_CFG_LOCAL_MAPPING_NAME, processId);
    m_mapping = OpenSharedMapping({global.c_str(), local.c_str()});
    if (!m_mapping)
        FailToOpen(processId, GetLastError());
    m_view = MapShared(m_mapping.get(), sizeof(LogCfgBlock));
    if (!m_view)
        throw Failure(Exit::Unreadable,
                      fmt::format("the log configuration of process {} is damaged: it is smaller than "
                                  "it must be",
                                  processId));
}

std::unique_ptr<LogCfgBlock> ConfigEditor::Change(const ConfigChange& change)
{
    auto copy = std::make_unique<LogCfgBlock>();
    bool intact = false;
    bool found = false;
    {
        const MutexHold hold(m_mutex.get());
        if (!hold)
            throw Failure(Exit::Busy, fmt::format("the log configuration of process {} is held by a thread or program "
                                                  "that does not give it back; nothing was changed",
                                                  m_processId));
        auto& block = *static_cast<LogCfgBlock*>(m_view.get());
        intact = IsLogCfgBlockIntact(block);
        found = intact && Apply(change, block);
        std::memcpy(copy.get(), &block, sizeof(block));
    }
    if (!intact)
        throw Failure(Exit::Unreadable, fmt::format("the log configuration of process {} is damaged, and the process "
                                                    "ignores it; it lasts until the process ends",
                                                    m_processId));
    if (!found)
        throw Failure(Exit::NotFound, fmt::format("process {} has no module {}; it has: {}", m_processId,
                                                  toolkit::ToUtf8(*change.module), ModuleList(*copy)));
    return copy;
}

} // namespace vtlog
