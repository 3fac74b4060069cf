#include "log/log_path.h"

#include "log/bounded_text.h"
#include "log/message_text.h"

#include <algorithm>
#include <string>

namespace vtflt {

namespace {

constexpr std::wstring_view LOG_EXTENSION = L".Log";
constexpr std::size_t NUMBER_DIGITS = 8;

wchar_t Lower(wchar_t character) noexcept
{
    return character >= L'A' && character <= L'Z' ? static_cast<wchar_t>(character - L'A' + L'a') : character;
}

bool EndsInLogExtension(std::wstring_view text) noexcept
{
    if (text.size() < LOG_EXTENSION.size())
        return false;
    const std::wstring_view end = text.substr(text.size() - LOG_EXTENSION.size());
    return std::equal(end.begin(), end.end(), LOG_EXTENSION.begin(),
                      [](wchar_t a, wchar_t b) { return Lower(a) == Lower(b); });
}

// The number that exactly these digits write; 0 when they are no digits.
std::uint32_t ReadNumber(std::wstring_view digits) noexcept
{
    std::uint32_t number = 0;
    for (const wchar_t digit : digits) {
        if (digit < L'0' || digit > L'9')
            return 0;
        number = number * 10 + static_cast<std::uint32_t>(digit - L'0');
    }
    return number;
}

} // namespace

void DefaultLogFilePath(std::wstring_view name, std::wstring_view moduleName, std::wstring_view folder,
                        wchar_t (&path)[LOG_PATH_CAPACITY]) noexcept
{
    if (name.find_first_of(L"\\/") != std::wstring_view::npos) {
        CopyText(path, name);
        return;
    }
    const std::wstring_view fileName = name.empty() ? moduleName : name;
    CopyText(path, folder);
    AppendText(path, fileName);
    if (!EndsInLogExtension(fileName))
        AppendText(path, LOG_EXTENSION);
}

LogPathParts SplitLogPath(std::wstring_view path) noexcept
{
    if (EndsInLogExtension(path))
        path.remove_suffix(LOG_EXTENSION.size());
    if (path.size() <= NUMBER_DIGITS || path[path.size() - NUMBER_DIGITS - 1] != L'.')
        return {path, 0};
    const std::uint32_t number = ReadNumber(path.substr(path.size() - NUMBER_DIGITS));
    if (number == 0)
        return {path, 0};
    return {path.substr(0, path.size() - NUMBER_DIGITS - 1), number};
}

bool BuildSuccessorPath(const LogPathParts& parts, wchar_t (&path)[LOG_PATH_CAPACITY]) noexcept
{
    // A dot, ten digits at most, ".log" and the end.
    if (parts.base.size() + 16 > LOG_PATH_CAPACITY)
        return false;
    wchar_t base[LOG_PATH_CAPACITY];
    CopyText(base, parts.base);
    FormatBounded(path, LOG_PATH_CAPACITY, L"%s.%08d.log", base, parts.number);
    return true;
}

bool IsSameLogFile(std::wstring_view a, std::wstring_view b,
                   bool (*sameText)(std::wstring_view, std::wstring_view) noexcept) noexcept
{
    if (sameText(a, b))
        return true;
    const LogPathParts first = SplitLogPath(a);
    const LogPathParts second = SplitLogPath(b);
    return first.number == second.number && sameText(first.base, second.base);
}

} // namespace vtflt
