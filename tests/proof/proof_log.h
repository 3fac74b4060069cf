// The library's log, taken as numbers: it must not touch the heap of whoever logs.
#pragma once

#include "log/log.h"

#include <cstdint>

namespace vtproof {

class ProofLog {
public:
    ProofLog();
    ProofLog(const ProofLog&) = delete;
    ProofLog& operator=(const ProofLog&) = delete;
    ~ProofLog();
    // Changes with every record.
    std::uint64_t Sum() const { return m_sum; }
    // Records that were no single line of text.
    unsigned Broken() const { return m_broken; }
    void Add(int level, DWORD code, const wchar_t* text) noexcept;
    // Writes every record to the standard error.
    void Show(bool on) { m_shows = on; }

private:
    std::uint64_t m_sum = 0xcbf29ce484222325ull;
    unsigned m_broken = 0;
    bool m_shows = false;
    vtflt::CDBGLog* m_previous = nullptr;
};

} // namespace vtproof
