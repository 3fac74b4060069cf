// The layout of a process's log configuration in shared memory.
//
// Every process that logs keeps one block, named by its process id. Another program may open it and change levels and
// paths while the process runs: so the layout is fixed to the byte, and nothing read from it is trusted to be in range
// or terminated. All access is under the block's mutex.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vtflt {

inline constexpr std::uint32_t LOG_CFG_MAGIC = 0x0000E6E6;
inline constexpr std::uint32_t LOG_LEVEL_NOT_SET = 0xFFFFFFFF;
inline constexpr std::size_t LOG_CFG_MODULE_COUNT = 1024;
inline constexpr std::size_t LOG_PATH_CAPACITY = 512;       // characters, the end included
inline constexpr std::size_t LOG_MODULE_NAME_CAPACITY = 64; // the same

// LogCfgModuleEntry::flags
inline constexpr std::uint32_t LOG_CFG_PATH_AUTOMATIC = 1;  // the library may replace the path; a process-wide one wins
inline constexpr std::uint32_t LOG_CFG_LEVEL_AUTOMATIC = 2; // the process-wide level wins
inline constexpr std::uint32_t LOG_CFG_FLAGS_TAKEN = 0x0000FFFF; // of an entry that was just taken
inline constexpr std::uint32_t LOG_CFG_FLAGS_FREE = 1;           // of the entries of a new block

// One module that logs. Entries are used from the first on without gaps: an empty name ends the list.
struct LogCfgModuleEntry {
    wchar_t name[LOG_MODULE_NAME_CAPACITY]; // the module's file name
    wchar_t path[LOG_PATH_CAPACITY];        // its log file
    std::uint32_t level;                    // or LOG_LEVEL_NOT_SET
    std::uint32_t flags;
};

struct LogCfgBlock {
    std::uint32_t headMagic;
    wchar_t path[LOG_PATH_CAPACITY]; // of the whole process; empty when there is none
    std::uint32_t level;             // of the whole process, or LOG_LEVEL_NOT_SET
    LogCfgModuleEntry modules[LOG_CFG_MODULE_COUNT];
    std::uint32_t tailMagic;
};

static_assert(sizeof(wchar_t) == 2);
static_assert(sizeof(LogCfgModuleEntry) == 1160);
static_assert(offsetof(LogCfgModuleEntry, name) == 0);
static_assert(offsetof(LogCfgModuleEntry, path) == 128);
static_assert(offsetof(LogCfgModuleEntry, level) == 1152);
static_assert(offsetof(LogCfgModuleEntry, flags) == 1156);
static_assert(sizeof(LogCfgBlock) == 0x12240C);
static_assert(offsetof(LogCfgBlock, headMagic) == 0);
static_assert(offsetof(LogCfgBlock, path) == 4);
static_assert(offsetof(LogCfgBlock, level) == 1028);
static_assert(offsetof(LogCfgBlock, modules) == 1032);
static_assert(offsetof(LogCfgBlock, tailMagic) == 0x122408);

// Both marks stand: the block is what it claims to be.
inline bool IsLogCfgBlockIntact(const LogCfgBlock& block) noexcept
{
    return block.headMagic == LOG_CFG_MAGIC && block.tailMagic == LOG_CFG_MAGIC;
}

// Makes a new block of zeroed memory: no level is set, and every entry is free. The level of a free entry reads 0 until
// the entry is taken.
inline void StartLogCfgBlock(LogCfgBlock& block) noexcept
{
    block.headMagic = LOG_CFG_MAGIC;
    block.tailMagic = LOG_CFG_MAGIC;
    block.level = LOG_LEVEL_NOT_SET;
    for (LogCfgModuleEntry& entry : block.modules)
        entry.flags = LOG_CFG_FLAGS_FREE;
}

} // namespace vtflt
