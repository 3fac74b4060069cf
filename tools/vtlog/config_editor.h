// Another process's log configuration: looked at, and changed while the process runs.
//
// The block (log/config_block.h) is read and written only while its mutex is held, for which nothing waits longer than
// five seconds, and only when both its marks stand. Everything in it may have been written by anybody.
#pragma once

#include "log/config_block.h"
#include "log/shared_objects.h"
#include "win/owners.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vtlog {

// What is to be changed; what is not given stays. A level may be LOG_LEVEL_NOT_SET.
struct ConfigChange {
    std::optional<std::wstring> module; // its entry is changed by the next three
    std::optional<std::uint32_t> level; // from now on the module's own
    std::optional<std::wstring> path;   // the same
    bool automatic = false;             // the entry is as the library makes one, but for its path

    std::optional<std::uint32_t> globalLevel;
    std::optional<std::wstring> globalPath; // empty: none

    [[nodiscard]] bool Empty() const noexcept { return !module && !globalLevel && !globalPath; }
};

// The modules of a block, by what lies before the first free entry.
std::vector<const vtflt::LogCfgModuleEntry*> UsedEntries(const vtflt::LogCfgBlock& block);

// Makes the change in a block. False, with nothing changed, when it has no such module.
[[nodiscard]] bool Apply(const ConfigChange& change, vtflt::LogCfgBlock& block);

class ConfigEditor {
public:
    // Opens the block of a process. Throws Failure: NotFound without such a process or block, Unreadable when this
    // account may not open it.
    explicit ConfigEditor(DWORD processId);

    // Makes the change, if there is one, and gives a copy of the block as it is then. Throws Failure: Busy when the
    // mutex is not given, Unreadable when a mark is damaged, NotFound without such a module. Nothing is changed then.
    std::unique_ptr<vtflt::LogCfgBlock> Change(const ConfigChange& change);

private:
    DWORD m_processId;
    vtflt::UniqueHandle m_mutex;
    vtflt::UniqueHandle m_mapping;
    vtflt::UniqueView m_view;
};

} // namespace vtlog
