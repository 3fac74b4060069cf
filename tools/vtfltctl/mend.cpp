#include "mend.h"

#include "common/text.h"

#include <algorithm>
#include <optional>

namespace vtfltctl {
namespace {

using toolkit::ToUtf8;
using toolkit::ToWide;

// Inside double quotes these are still read by one of the shells; PowerShell takes the curly quotes for straight ones.
constexpr std::wstring_view NEVER = L"\"`$%!\x201C\x201D\x201E";
constexpr std::wstring_view QUOTED = L" '&|<>()[]^;,{}@#*?~=";

// The part of a command line that stands for one argument; nothing when there is no such part.
std::optional<std::string> ShellArgument(const std::wstring& text)
{
    std::string shown = ToUtf8(text);
    if (text.empty() || text.back() == L'\\' || text.find_first_of(NEVER) != std::wstring::npos ||
        std::any_of(text.begin(), text.end(), toolkit::IsUnshowable) || ToWide(shown) != text)
        return std::nullopt;
    return text.find_first_of(QUOTED) == std::wstring::npos ? shown : '"' + shown + '"';
}

} // namespace

std::string MendCommand(const std::string& command, const std::vector<std::wstring>& arguments,
                        const std::string& options)
{
    std::string written;
    bool dash = false;
    for (const std::wstring& argument : arguments) {
        const std::optional<std::string> part = ShellArgument(argument);
        if (!part)
            return {};
        written += " " + *part;
        dash = dash || argument.front() == L'-';
    }
    const std::string after = options.empty() ? "" : " " + options;
    // What begins with a dash would be taken for an option.
    return "vtfltctl " + command + (dash ? after + " --" + written : written + after);
}

std::string InTurn(const std::vector<std::string>& commands)
{
    std::string all;
    for (const std::string& command : commands) {
        if (command.empty())
            return {};
        all += (all.empty() ? "" : " && ") + command;
    }
    return all;
}

} // namespace vtfltctl
