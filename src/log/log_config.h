// A process's log configuration, which other programs can read and change while it runs.
//
// The process keeps one block in shared memory (log/config_block.h), under a name that carries its id, with an entry for
// each module that logs: level and log file. Here the process makes or opens its block, enters its modules and asks for
// its levels and paths. A block is read and written only while its mutex is held.
//
// Nothing here fails a caller. When the block cannot be had, its mutex is not given within five seconds, or its marks
// are damaged, an operation does nothing: levels answer not set, and a path stays as the caller has it.
#pragma once

#include "log/config_block.h"
#include "log/shared_objects.h"
#include "win/owners.h"

#include <string_view>

namespace vtflt {

class CLogCfgShareMemory {
public:
    // The process's one. Any thread may call any operation.
    static CLogCfgShareMemory& Instance() noexcept;

    // Closes the block and its mutex and forgets what was found out; the next operation opens them anew. Nothing may log
    // at the same time.
    void Close() noexcept;

    // Enters a module, by its file name, unless it has an entry; does nothing when all 1024 are taken. The path of an
    // entry whose path is automatic becomes the module's default log file.
    void RegisterModule(std::wstring_view name) noexcept;

    // The level that holds for the module: its entry's own, or the process's where the entry leaves it to that and the
    // process has one. An empty name asks for the process's. LOG_LEVEL_NOT_SET when there is none.
    std::uint32_t QueryLevel(std::wstring_view name) noexcept;

    // The log file that holds for the module: its entry's own, or the process's where the entry leaves it to that, the
    // process has one and the module does not refuse it (globalOptionDisabled). An empty name asks for the process's.
    void QueryPath(std::wstring_view name, bool globalOptionDisabled, wchar_t (&path)[LOG_PATH_CAPACITY]) noexcept;

    // Stores where the module logs from now on. While the process has a log file of its own, and for an empty name, that
    // one is replaced (an empty path takes it away), also for a module that refuses it: a rotation moves every module.
    // Otherwise the module's entry is, taken when it has none; an empty path stands for its default log file.
    void StorePath(std::wstring_view name, std::wstring_view path) noexcept;

    // The folder of log files without a path of their own, with its backslash; found out once.
    const wchar_t* DefaultLogFolder() noexcept;

private:
    class Access;

    HANDLE Mutex() noexcept;
    bool OpenBlock() noexcept;
    LogCfgModuleEntry* FindEntry(LogCfgBlock& block, std::wstring_view name) noexcept;
    LogCfgModuleEntry* FindOrTakeEntry(LogCfgBlock& block, std::wstring_view name) noexcept;
    void FindOutFolder() noexcept;

    SRWLOCK m_lock = SRWLOCK_INIT; // guards the making of m_mutex, and m_components and m_folder
    UniqueHandle m_mutex;
    UniqueHandle m_mapping; // from here to m_currentEntry: under the mutex
    UniqueView m_view;
    LogCfgModuleEntry* m_currentEntry = nullptr; // the one last found; in the view
    DWORD m_components = 0;                      // that are present (log/probes.h); with m_folder
    wchar_t m_folder[LOG_PATH_CAPACITY] = {};    // empty until found out
};

} // namespace vtflt
