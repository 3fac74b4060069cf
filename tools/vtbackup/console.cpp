#include "console.h"

#include "handle.h"
#include "text.h"

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cstdio>

namespace vtbackup {
namespace {

#ifndef ENABLE_VIRTUAL_TERMINAL_PROCESSING
#define ENABLE_VIRTUAL_TERMINAL_PROCESSING 0x0004
#endif

bool ErrorsInColour()
{
    const HANDLE handle = GetStdHandle(STD_ERROR_HANDLE);
    DWORD mode = 0;
    if (!GetConsoleMode(handle, &mode))
        return false;
    // https://no-color.org: any value but an empty one switches colour off.
    if (GetEnvironmentVariableW(L"NO_COLOR", nullptr, 0) > 1)
        return false;
    return SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

// Texts from a repository may hold anything, and nothing of it is meant to steer a terminal or to look like a line of
// this program.
std::string Visible(const std::string& text)
{
    std::wstring shown = ToWide(text);
    std::replace_if(shown.begin(), shown.end(), toolkit::IsUnshowable, L'?');
    return ToUtf8(shown);
}

bool allWritten = true;

bool Write(const std::string& text)
{
    const std::size_t written = std::fwrite(text.data(), 1, text.size(), stdout);
    const bool done = std::fflush(stdout) == 0 && written == text.size();
    allWritten = allWritten && done;
    return done;
}

} // namespace

void PrintLine(const std::string& text)
{
    Write(Visible(text) + "\n");
}

void PrintJson(const nlohmann::json& object)
{
    Write(object.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

bool PrintExactly(const std::string& bytes)
{
    _setmode(_fileno(stdout), _O_BINARY);
    return Write(bytes);
}

bool AllWritten() noexcept
{
    return allWritten;
}

void Diagnose(const std::string& message)
{
    const bool colour = ErrorsInColour();
    std::fprintf(stderr, "%svtbackup: %s%s\n", colour ? "\x1b[31m" : "", Visible(message).c_str(),
                 colour ? "\x1b[0m" : "");
}

} // namespace vtbackup
