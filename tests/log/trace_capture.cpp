#include "trace_capture.h"

#include "log/message_text.h"
#include "log/trace.h"
#include "support/text.h"
#include "win/windows.h"

#include <cstdarg>
#include <mutex>

namespace {

std::mutex g_lock;
std::vector<std::wstring> g_lines; // under g_lock

} // namespace

namespace vtflt {

void Trace(const wchar_t* format, ...) noexcept
{
    const DWORD lastError = GetLastError();
    wchar_t line[2048];
    va_list arguments;
    va_start(arguments, format);
    FormatMessageText(line, 2048, format, arguments);
    va_end(arguments);
    const std::lock_guard guard(g_lock);
    g_lines.emplace_back(line);
    SetLastError(lastError);
}

} // namespace vtflt

namespace vttest {

std::vector<std::wstring> TraceLines()
{
    const std::lock_guard guard(g_lock);
    return g_lines;
}

void ClearTrace()
{
    const std::lock_guard guard(g_lock);
    g_lines.clear();
}

std::wstring TraceLine(const std::wstring& text)
{
    return L"[" + WideNumber(GetCurrentThreadId()) + L":" + WideNumber(GetCurrentProcessId()) + L"] " + text;
}

std::wstring DamagedBlockLine()
{
    const std::wstring process = WideNumber(GetCurrentProcessId());
    return L"[" + process + L":" + process + L"] Share memory was destroied\r\n";
}

} // namespace vttest
