#include "log/log_config.h"

#include "log/bounded_text.h"
#include "log/log_folder.h"
#include "log/log_path.h"
#include "log/message_text.h"
#include "log/object_names.h"
#include "log/own_module.h"
#include "log/probes.h"
#include "log/text_compare.h"
#include "log/trace.h"

#include <cstring>

namespace vtflt {

namespace {

constexpr std::size_t OBJECT_NAME_CAPACITY = 128;

// Made before any code runs: the first message of the process may come early.
constinit CLogCfgShareMemory g_configuration;

void BuildName(wchar_t (&name)[OBJECT_NAME_CAPACITY], const wchar_t* format) noexcept
{
    FormatBounded(name, OBJECT_NAME_CAPACITY, format, GetCurrentProcessId());
}

// What a field holds of a name: entries are compared by it, or a long name would take a new entry each time.
std::wstring_view EntryName(std::wstring_view name) noexcept
{
    return name.substr(0, LOG_MODULE_NAME_CAPACITY - 1);
}

bool IsNamed(const LogCfgModuleEntry& entry, std::wstring_view name) noexcept
{
    return EqualIgnoringCase(FieldText(entry.name), EntryName(name));
}

} // namespace

// One operation's hold on the block: open, locked and intact, or not there.
class CLogCfgShareMemory::Access {
public:
    explicit Access(CLogCfgShareMemory& owner) noexcept : m_hold(owner.Mutex())
    {
        if (!m_hold || !owner.OpenBlock())
            return;
        auto* const block = static_cast<LogCfgBlock*>(owner.m_view.get());
        if (IsLogCfgBlockIntact(*block))
            m_block = block;
        else
            Trace(L"[%d:%d] Share memory was destroied\r\n", GetCurrentProcessId(), GetCurrentProcessId());
    }

    // Null: the operation is to be skipped.
    LogCfgBlock* Block() const noexcept { return m_block; }

private:
    MutexHold m_hold;
    LogCfgBlock* m_block = nullptr;
};

CLogCfgShareMemory& CLogCfgShareMemory::Instance() noexcept
{
    return g_configuration;
}

void CLogCfgShareMemory::Close() noexcept
{
    m_currentEntry = nullptr;
    m_view.reset();
    m_mapping.reset();
    m_mutex.reset();
    m_components = 0;
    m_folder[0] = L'\0';
}

void CLogCfgShareMemory::RegisterModule(std::wstring_view name) noexcept
{
    const Access access(*this);
    if (access.Block() == nullptr)
        return;
    LogCfgModuleEntry* const entry = FindOrTakeEntry(*access.Block(), name);
    if (entry == nullptr || (entry->flags & LOG_CFG_PATH_AUTOMATIC) == 0)
        return;
    wchar_t path[LOG_PATH_CAPACITY] = {};
    DefaultLogFilePath(name, OwnModule().Name(), DefaultLogFolder(), path);
    CopyText(entry->path, FieldText(path));
}

std::uint32_t CLogCfgShareMemory::QueryLevel(std::wstring_view name) noexcept
{
    const Access access(*this);
    if (access.Block() == nullptr)
        return LOG_LEVEL_NOT_SET;
    const LogCfgModuleEntry* const entry = FindEntry(*access.Block(), name);
    if (entry != nullptr && (entry->flags & LOG_CFG_LEVEL_AUTOMATIC) == 0)
        return entry->level;
    if (access.Block()->level != LOG_LEVEL_NOT_SET || name.empty())
        return access.Block()->level;
    return entry != nullptr ? entry->level : LOG_LEVEL_NOT_SET;
}

void CLogCfgShareMemory::QueryPath(std::wstring_view name, bool globalOptionDisabled,
                                   wchar_t (&path)[LOG_PATH_CAPACITY]) noexcept
{
    const Access access(*this);
    if (access.Block() == nullptr)
        return;
    const std::wstring_view processPath = FieldText(access.Block()->path);
    if (name.empty()) {
        CopyText(path, processPath);
        return;
    }
    const LogCfgModuleEntry* const entry = FindEntry(*access.Block(), name);
    const bool isOwn = entry != nullptr && (entry->flags & LOG_CFG_PATH_AUTOMATIC) == 0;
    if (!isOwn && !processPath.empty() && !globalOptionDisabled)
        CopyText(path, processPath);
    else if (entry != nullptr)
        CopyText(path, FieldText(entry->path));
}

void CLogCfgShareMemory::StorePath(std::wstring_view name, std::wstring_view path) noexcept
{
    const Access access(*this);
    if (access.Block() == nullptr)
        return;
    wchar_t fullPath[LOG_PATH_CAPACITY] = {};
    if (!path.empty())
        DefaultLogFilePath(path, OwnModule().Name(), DefaultLogFolder(), fullPath);
    if (name.empty() || !FieldText(access.Block()->path).empty()) {
        CopyText(access.Block()->path, FieldText(fullPath));
        return;
    }
    if (path.empty())
        DefaultLogFilePath(name, OwnModule().Name(), DefaultLogFolder(), fullPath);
    if (LogCfgModuleEntry* const entry = FindOrTakeEntry(*access.Block(), name))
        CopyText(entry->path, FieldText(fullPath));
}

const wchar_t* CLogCfgShareMemory::DefaultLogFolder() noexcept
{
    FindOutFolder();
    return m_folder;
}

void CLogCfgShareMemory::FindOutFolder() noexcept
{
    const ExclusiveHold hold(m_lock);
    if (m_folder[0] != L'\0')
        return;
    m_components = ComponentsPresent();
    ResolveLogFolder(m_components, m_folder);
}

HANDLE CLogCfgShareMemory::Mutex() noexcept
{
    const ExclusiveHold hold(m_lock);
    if (!m_mutex) {
        OpenToEveryone everyone;
        wchar_t name[OBJECT_NAME_CAPACITY];
        BuildName(name, LOG_CFG_MUTEX_NAME);
        m_mutex.reset(CreateMutexW(everyone.get(), FALSE, name));
    }
    return m_mutex.get();
}

// Under the mutex: what is made here is the block of all threads, and a program that edits it sees it whole.
bool CLogCfgShareMemory::OpenBlock() noexcept
{
    if (m_view)
        return true;
    bool existed = true;
    wchar_t global[OBJECT_NAME_CAPACITY];
    wchar_t local[OBJECT_NAME_CAPACITY];
    BuildName(global, LOG_CFG_GLOBAL_MAPPING_NAME);
    BuildName(local, LOG_CFG_LOCAL_MAPPING_NAME);
    m_mapping = CreateSharedMapping({global, local}, sizeof(LogCfgBlock), existed);
    if (m_mapping)
        m_view = MapShared(m_mapping.get(), sizeof(LogCfgBlock));
    if (!m_view) {
        // The next operation makes it anew: kept, it would count as one that somebody else has filled.
        m_mapping.reset();
        return false;
    }
    if (!existed) {
        std::memset(m_view.get(), 0, sizeof(LogCfgBlock));
        StartLogCfgBlock(*static_cast<LogCfgBlock*>(m_view.get()));
    }
    return true;
}

LogCfgModuleEntry* CLogCfgShareMemory::FindEntry(LogCfgBlock& block, std::wstring_view name) noexcept
{
    if (name.empty())
        return nullptr;
    if (m_currentEntry != nullptr && IsNamed(*m_currentEntry, name))
        return m_currentEntry;
    for (LogCfgModuleEntry& entry : block.modules) {
        if (entry.name[0] == L'\0')
            return nullptr;
        if (IsNamed(entry, name))
            return m_currentEntry = &entry;
    }
    return nullptr;
}

LogCfgModuleEntry* CLogCfgShareMemory::FindOrTakeEntry(LogCfgBlock& block, std::wstring_view name) noexcept
{
    if (name.empty())
        return nullptr;
    if (LogCfgModuleEntry* const entry = FindEntry(block, name))
        return entry;
    for (LogCfgModuleEntry& entry : block.modules) {
        if (entry.name[0] != L'\0')
            continue;
        entry.level = LOG_LEVEL_NOT_SET;
        entry.flags = LOG_CFG_FLAGS_TAKEN;
        CopyText(entry.name, EntryName(name));
        return m_currentEntry = &entry;
    }
    return nullptr;
}

} // namespace vtflt
