// The library's log records, as a test sees them.
//
// Programs that link the library's objects put an output of their own into the log; programs that load the shipped
// DLL cannot look behind its exports, and there every expectation of a record is skipped: VISIBLE says which it is.
// Tests therefore always expect results and stored state too.
#pragma once

#include "win/windows.h"

#include <mutex>
#include <string>
#include <vector>

namespace vttest {

struct LogRecord {
    int level = 0;
    DWORD code = 0;
    std::wstring text; // as the outputs get it: line feeds cleaned
};

class LogCapture {
public:
    static const bool VISIBLE;

    // Takes the process's log over until the end of this object. Everything passes (threshold 4).
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // What was logged since the start or the last Clear; empty when not VISIBLE.
    const std::vector<LogRecord>& Records() const { return m_records; }
    void Clear() { m_records.clear(); }
    void SetThreshold(DWORD threshold) { m_threshold = threshold; }

    // Exactly this record was logged at least once (line feeds at the end of text are ignored).
    void ExpectLogged(int level, DWORD code, std::wstring text) const;
    void ExpectNotLogged(std::wstring text) const;
    // No record at all.
    void ExpectNothingLogged() const;
    // The records whose level is not above maximumLevel are exactly these, in this order.
    void ExpectExactly(const std::vector<LogRecord>& expected, int maximumLevel = 4) const;

    // For the output, from any thread.
    void Add(int level, DWORD code, const wchar_t* text);
    DWORD Threshold() const { return m_threshold; }

private:
    std::mutex m_mutex;
    std::vector<LogRecord> m_records;
    DWORD m_threshold = 4;
    void* m_previous = nullptr;
};

} // namespace vttest
