// The front end of the diagnostic log: one call, Log(level, code, format, ...), from everywhere.
//
// The library's messages go through one CDBGLog per process, made when the library is loaded and destroyed
// when it is unloaded. Log decides whether a message passes, formats it once and hands it to both outputs.
#pragma once

#include "win/windows.h"

#include <cstdarg>

namespace vtflt {

// Lower is more important. A message passes an output when its level is not above the output's threshold.
inline constexpr int LOG_ERROR = 0;       // failures, with the code of the failure
inline constexpr int LOG_WARNING = 1;     // tolerated oddities
inline constexpr int LOG_INFORMATION = 2; // entry and success; the default threshold
inline constexpr int LOG_DETAIL = 4;      // step by step

// One destination of log records. Writers may call from any thread: an output locks for itself.
class IDBGLogOutput {
public:
    virtual ~IDBGLogOutput() = default;
    // Writes one record with narrow (ANSI code page) text.
    virtual void WriteLogA(int level, DWORD errorCode, const char* text) = 0;
    // Writes one record with wide text.
    virtual void WriteLogW(int level, DWORD errorCode, const wchar_t* text) = 0;
    // The output's present threshold.
    virtual DWORD GetLogLevel() = 0;
};

class CDBGLog {
public:
    // Takes ownership of both outputs; either may be null. Without a file output nothing is logged.
    CDBGLog(IDBGLogOutput* fileOutput, IDBGLogOutput* liveOutput) noexcept
        : m_pFileOutput(fileOutput), m_pLiveOutput(liveOutput)
    {
    }
    CDBGLog(const CDBGLog&) = delete;
    CDBGLog& operator=(const CDBGLog&) = delete;
    // Destroys the file output, then the live output.
    ~CDBGLog();

    // Formats and hands out one message, printf style; %s takes wide text. Never throws, and allocates
    // nothing for an ordinary message. Text beyond 1023 characters is cut.
    void Log(int level, DWORD errorCode, const wchar_t* format, ...) noexcept;
    void LogV(int level, DWORD errorCode, const wchar_t* format, va_list arguments) noexcept;

private:
    void WriteToBoth(int level, DWORD errorCode, const wchar_t* text);
    void WriteFallback(int level, DWORD errorCode, const wchar_t* format) noexcept;

    IDBGLogOutput* m_pFileOutput;
    IDBGLogOutput* m_pLiveOutput;
};

// Makes the process's log with its outputs, or leaves the library silent when memory is short.
void StartLog() noexcept;
// Destroys it. Nothing may log at the same time.
void StopLog() noexcept;
// Replaces the process's log and returns the one before; for programs that link the library's objects and
// want to see the records. The caller owns what it gets.
CDBGLog* ExchangeLog(CDBGLog* log) noexcept;

// The library's log call; skipped when there is no log. Keeps the thread's last error.
void Log(int level, DWORD errorCode, const wchar_t* format, ...) noexcept;

} // namespace vtflt
