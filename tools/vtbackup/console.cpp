#include "console.h"

#include "handle.h"

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

} // namespace

void Print(const std::string& text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

void PrintJson(const nlohmann::json& object)
{
    Print(object.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

void Diagnose(const std::string& message)
{
    const bool colour = ErrorsInColour();
    std::fprintf(stderr, "%svtbackup: %s%s\n", colour ? "\x1b[31m" : "", message.c_str(), colour ? "\x1b[0m" : "");
}

} // namespace vtbackup
