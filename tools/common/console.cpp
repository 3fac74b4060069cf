#include "common/console.h"

#include "win/windows.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <io.h>

#include <cstdio>

namespace toolkit {
namespace {

#ifndef ENABLE_VIRTUAL_TERMINAL_PROCESSING
#define ENABLE_VIRTUAL_TERMINAL_PROCESSING 0x0004
#endif

const char* programName = "";

bool IsTerminal(DWORD which) noexcept
{
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(which), &mode) != 0;
}

bool ShowsColour(DWORD which) noexcept
{
    const HANDLE handle = GetStdHandle(which);
    DWORD mode = 0;
    if (!GetConsoleMode(handle, &mode))
        return false;
    // https://no-color.org: any value but an empty one switches colour off.
    if (GetEnvironmentVariableW(L"NO_COLOR", nullptr, 0) > 1)
        return false;
    return SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

const char* Sequence(Colour colour) noexcept
{
    switch (colour) {
    case Colour::Error:
        return "\x1b[31m";
    case Colour::Warning:
        return "\x1b[33m";
    case Colour::Information:
        return "\x1b[32m";
    case Colour::Detail:
        return "\x1b[36m";
    case Colour::Quiet:
        return "\x1b[90m";
    }
    return "";
}

} // namespace

void PrepareConsole(const char* program) noexcept
{
    programName = program;
    SetConsoleOutputCP(CP_UTF8);
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
    std::setvbuf(stdout, nullptr, _IOFBF, 64 * 1024);
}

bool OutputInColour() noexcept
{
    static const bool colour = ShowsColour(STD_OUTPUT_HANDLE);
    return colour;
}

std::string Coloured(std::string_view text, Colour colour)
{
    return OutputInColour() ? fmt::format("{}{}\x1b[0m", Sequence(colour), text) : std::string(text);
}

bool Print(std::string_view text) noexcept
{
    static const bool terminal = IsTerminal(STD_OUTPUT_HANDLE);
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
        return false;
    return !terminal || Flush();
}

bool Flush() noexcept
{
    return std::fflush(stdout) == 0;
}

void Diagnose(const std::string& message)
{
    // In the order in which things happened, when both streams go to one place.
    std::fflush(stdout);
    static const bool colour = ShowsColour(STD_ERROR_HANDLE);
    const std::string line =
        fmt::format("{}{}: {}{}\n", colour ? "\x1b[31m" : "", programName, message, colour ? "\x1b[0m" : "");
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

} // namespace toolkit
