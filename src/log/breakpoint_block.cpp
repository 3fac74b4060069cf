#include "log/breakpoint_block.h"

#include "log/bounded_text.h"

#include <algorithm>

namespace vtflt {

namespace {

bool PassesFilter(std::uint32_t filter, std::uint32_t id) noexcept
{
    return filter == 0 || filter == id;
}

} // namespace

const LogBreakpoint* FindHitBreakpoint(const LogBreakpointBlock& block, const LogEvent& event,
                                       bool (*sameName)(std::wstring_view, std::wstring_view) noexcept) noexcept
{
    if (block.count <= 0)
        return nullptr;
    const auto isHit = [&](const LogBreakpoint& entry) {
        return !entry.identifier.IsNone() && entry.enabled != 0 && PassesFilter(entry.processId, event.processId) &&
               PassesFilter(entry.threadId, event.threadId) &&
               sameName(FieldText(entry.executableName), event.executableName) &&
               event.text.find(FieldText(entry.pattern)) != std::wstring_view::npos;
    };
    const auto found = std::find_if(std::begin(block.breakpoints), std::end(block.breakpoints), isHit);
    return found != std::end(block.breakpoints) ? found : nullptr;
}

LogBreakpointHit* FindFreeHit(LogBreakpointBlock& block) noexcept
{
    const auto isFree = [](const LogBreakpointHit& entry) { return entry.breakpoint.IsNone(); };
    const auto found = std::find_if(std::begin(block.hits), std::end(block.hits), isFree);
    return found != std::end(block.hits) ? found : nullptr;
}

void BuildUuidText(wchar_t (&text)[LOG_UUID_TEXT_CAPACITY], const LogUuid& uuid) noexcept
{
    constexpr wchar_t DIGITS[] = L"0123456789ABCDEF";
    constexpr int DASH = -1;
    constexpr int ORDER[] = {3, 2, 1, 0, DASH, 5, 4, DASH, 7, 6, DASH, 8, 9, DASH, 10, 11, 12, 13, 14, 15};
    wchar_t* to = text;
    for (const int index : ORDER) {
        if (index == DASH) {
            *to++ = L'-';
            continue;
        }
        *to++ = DIGITS[uuid.bytes[index] >> 4];
        *to++ = DIGITS[uuid.bytes[index] & 0xF];
    }
    *to = L'\0';
}

} // namespace vtflt
