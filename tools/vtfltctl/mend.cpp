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

// What no shell reads otherwise without quotes.
bool IsPlain(wchar_t c)
{
    return (c >= L'0' && c <= L'9') || (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z') || c == L'.' || c == L'_' ||
           c == L'-';
}

// The part of a command line that stands for one argument; nothing when there is no such part.
std::optional<std::string> ShellArgument(const std::wstring& text)
{
    std::string shown = ToUtf8(text);
    if (text.empty() || text.back() == L'\\' || text.find_first_of(NEVER) != std::wstring::npos ||
        std::any_of(text.begin(), text.end(), toolkit::IsUnshowable) || ToWide(shown) != text)
        return std::nullopt;
    const bool plain = text.front() != L'-' && std::all_of(text.begin(), text.end(), IsPlain);
    return plain ? shown : '"' + shown + '"';
}

std::optional<std::string> Written(const MendStep& step, const std::string& simulate)
{
    std::string written;
    bool dash = false;
    for (const std::wstring& argument : step.arguments) {
        const std::optional<std::string> part = ShellArgument(argument);
        if (!part)
            return std::nullopt;
        written += " " + *part;
        dash = dash || argument.front() == L'-';
    }
    const std::string options = (step.options.empty() ? "" : " " + step.options) + simulate;
    // What begins with a dash would be taken for an option.
    return "vtfltctl " + step.command + (dash ? options + " --" + written : written + options);
}

} // namespace

std::string WrittenMend(const Mend& mend, const std::wstring& simulation)
{
    std::string simulate;
    if (!simulation.empty()) {
        std::wstring folder = simulation;
        while (folder.size() > 1 && (folder.ends_with(L'\\') || folder.ends_with(L'/')) &&
               folder[folder.size() - 2] != L':')
            folder.pop_back();
        const std::optional<std::string> part = ShellArgument(folder);
        if (!part || folder.front() == L'-')
            return {};
        simulate = " --simulate " + *part;
    }
    std::string all;
    for (const MendStep& step : mend) {
        const std::optional<std::string> written = Written(step, simulate);
        if (!written)
            return {};
        all += (all.empty() ? "" : " && ") + *written;
    }
    return all;
}

} // namespace vtfltctl
