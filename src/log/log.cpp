#include "log/log.h"

#include "log/message_text.h"
#include "log/outputs.h"

#include <initializer_list>
#include <new>

namespace vtflt {

namespace {

constexpr std::size_t MESSAGE_CAPACITY = 1024;

CDBGLog* g_pLog = nullptr;

bool Passes(int level, IDBGLogOutput* output)
{
    // Compared as the outputs report it, unsigned; the file's output compares its own once more, signed.
    return output != nullptr && static_cast<long long>(level) <= static_cast<long long>(output->GetLogLevel());
}

} // namespace

CDBGLog::~CDBGLog()
{
    delete m_pFileOutput;
    delete m_pLiveOutput;
}

void CDBGLog::Log(int level, DWORD errorCode, const wchar_t* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    LogV(level, errorCode, format, arguments);
    va_end(arguments);
}

void CDBGLog::LogV(int level, DWORD errorCode, const wchar_t* format, va_list arguments) noexcept
{
    // Without a file output nothing is logged at all, not even to a live viewer.
    if (m_pFileOutput == nullptr || format == nullptr)
        return;
    try {
        if (!Passes(level, m_pFileOutput) && !Passes(level, m_pLiveOutput))
            return;
    } catch (...) {
        return;
    }

    try {
        wchar_t buffer[MESSAGE_CAPACITY] = {};
        FormatMessageText(buffer, MESSAGE_CAPACITY, format, arguments);
        WriteToBoth(level, errorCode, CleanLineFeeds(buffer));
    } catch (...) {
        WriteFallback(level, errorCode, format);
    }
}

void CDBGLog::WriteToBoth(int level, DWORD errorCode, const wchar_t* text)
{
    m_pFileOutput->WriteLogW(level, errorCode, text);
    if (m_pLiveOutput != nullptr)
        m_pLiveOutput->WriteLogW(level, errorCode, text);
}

// A message that could not be written is at least announced, with its raw format, on each output in turn.
void CDBGLog::WriteFallback(int level, DWORD errorCode, const wchar_t* format) noexcept
{
    for (IDBGLogOutput* output : {m_pFileOutput, m_pLiveOutput}) {
        if (output == nullptr)
            continue;
        try {
            output->WriteLogW(level, errorCode, L"!!!!!Exception when write below log.!!!!!");
            output->WriteLogW(level, errorCode, format);
        } catch (...) {
            // The log never fails its caller.
            continue;
        }
    }
}

void StartLog() noexcept
{
    // The file output first: it settles the names and enters the module in the configuration.
    IDBGLogOutput* const file = MakeFileOutput();
    IDBGLogOutput* const live = MakeLiveOutput();
    g_pLog = new (std::nothrow) CDBGLog(file, live);
    if (g_pLog == nullptr) {
        delete file;
        delete live;
        CloseOutputState();
    }
}

void StopLog() noexcept
{
    delete ExchangeLog(nullptr);
    CloseOutputState();
}

CDBGLog* ExchangeLog(CDBGLog* log) noexcept
{
    CDBGLog* const previous = g_pLog;
    g_pLog = log;
    return previous;
}

void Log(int level, DWORD errorCode, const wchar_t* format, ...) noexcept
{
    if (g_pLog == nullptr)
        return;
    const DWORD lastError = GetLastError();
    va_list arguments;
    va_start(arguments, format);
    g_pLog->LogV(level, errorCode, format, arguments);
    va_end(arguments);
    SetLastError(lastError);
}

} // namespace vtflt
