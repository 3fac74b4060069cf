// The log of this process as it is when an administrator takes errors only into it: of a fetch's six records one is left, for its
// result is logged as an error whatever it is.
#pragma once

#include "measure.h"

#include "log/config_block.h"
#include "log/log.h"
#include "support/config_names.h"

#include <utility>

namespace bench {

class QuietLog {
public:
    // The DLL has logged before: then there is a configuration.
    QuietLog()
    {
        for (const wchar_t* const name : {vttest::CONFIG_MAPPING, vttest::CONFIG_LOCAL_MAPPING}) {
            if (m_mapping == nullptr)
                m_mapping = OpenFileMappingW(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, vttest::ConfigName(name).c_str());
        }
        Require(m_mapping != nullptr, "the log's configuration");
        m_block = static_cast<vtflt::LogCfgBlock*>(
            MapViewOfFile(m_mapping, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, sizeof(vtflt::LogCfgBlock)));
        Require(m_block != nullptr && vtflt::IsLogCfgBlockIntact(*m_block), "the log's configuration in memory");
        for (vtflt::LogCfgModuleEntry& entry : m_block->modules)
            m_levels.push_back(std::exchange(entry.level, ERRORS_ONLY));
    }
    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;
    ~QuietLog()
    {
        // Told no level any more, the library would keep the last one that it was told.
        for (std::size_t i = 0; i < m_levels.size(); ++i)
            m_block->modules[i].level = m_levels[i] != vtflt::LOG_LEVEL_NOT_SET ? m_levels[i] : ITS_OWN;
        UnmapViewOfFile(m_block);
        CloseHandle(m_mapping);
    }

private:
    static constexpr std::uint32_t ERRORS_ONLY = vtflt::LOG_ERROR;
    static constexpr std::uint32_t ITS_OWN = static_cast<std::uint32_t>(vtflt::LOG_INFORMATION);

    HANDLE m_mapping = nullptr;
    vtflt::LogCfgBlock* m_block = nullptr;
    std::vector<std::uint32_t> m_levels;
};

} // namespace bench
