#include "entry_filter.h"

#include "code_names.h"
#include "win/windows.h"

#include <algorithm>
#include <charconv>

namespace vtlog {
namespace {

template <class T>
bool AnyOrNone(const std::vector<T>& wanted, T value)
{
    return wanted.empty() || std::find(wanted.begin(), wanted.end(), value) != wanted.end();
}

bool Contains(std::wstring_view text, std::wstring_view part, bool ignoreCase)
{
    if (!ignoreCase)
        return text.find(part) != std::wstring_view::npos;
    return FindStringOrdinal(FIND_FROMSTART, text.data(), static_cast<int>(text.size()), part.data(),
                             static_cast<int>(part.size()), TRUE) >= 0;
}

template <class T>
std::optional<T> ParseNumber(std::string_view text, int base)
{
    T value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

} // namespace

bool EntryFilter::Empty() const
{
    return !level && processes.empty() && threads.empty() && codes.empty() && texts.empty() && !since && !until;
}

bool EntryFilter::HoldsTexts(std::wstring_view text) const
{
    return std::all_of(texts.begin(), texts.end(),
                       [&](const std::wstring& part) { return Contains(text, part, ignoreCase); });
}

bool EntryFilter::Passes(const Entry& record) const
{
    const RecordHeader& header = *record.header;
    if (level && header.level > *level)
        return false;
    if (!AnyOrNone(processes, header.processId) || !AnyOrNone(threads, header.threadId) ||
        !AnyOrNone(codes, header.code))
        return false;
    if ((since && header.time < *since) || (until && header.time > *until))
        return false;
    return texts.empty() || HoldsTexts(std::wstring_view(record.raw).substr(record.messageBegin));
}

std::optional<int> ParseLevel(const std::string& text)
{
    if (text == "error")
        return 0;
    if (text == "warning")
        return 1;
    if (text == "information")
        return 2;
    if (text == "detail")
        return 4;
    return ParseNumber<int>(text, 10);
}

std::optional<std::uint32_t> ParseCode(const std::string& text)
{
    if (text.starts_with("0x") || text.starts_with("0X"))
        return ParseNumber<std::uint32_t>(std::string_view(text).substr(2), 16);
    if (const auto number = ParseNumber<std::uint32_t>(text, 10))
        return number;
    return CodeOfName(text);
}

} // namespace vtlog
