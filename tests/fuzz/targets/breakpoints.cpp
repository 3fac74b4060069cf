// The log's breakpoints in a block that any program may have written.
#include "fuzz/fuzz.h"
#include "log/bounded_text.h"
#include "log/breakpoint_block.h"
#include "log/text_compare.h"

#include <algorithm>
#include <memory>

namespace fuzz {

namespace {

using vtflt::LogBreakpoint;
using vtflt::LogBreakpointBlock;

constexpr std::size_t ENTRIES[] = {0, 1, 50, 99};
constexpr std::size_t HITS[] = {0, 1, 2, 9999};

template <std::size_t N>
std::wstring Field(const wchar_t (&field)[N])
{
    const std::wstring whole(field, N);
    return whole.substr(0, whole.find(L'\0'));
}

template <std::size_t N>
void PutField(Input& input, wchar_t (&field)[N])
{
    const std::wstring text = input.Text(input.Byte() % 12);
    if (input.Byte() == 0xFF)
        std::fill(std::begin(field), std::end(field), text.empty() ? L'x' : text[0]);
    else
        std::copy(text.begin(), text.end(), field);
}

bool IsHit(const LogBreakpoint& entry, const vtflt::LogEvent& event)
{
    const bool isFree = std::all_of(std::begin(entry.identifier.bytes), std::end(entry.identifier.bytes),
                                    [](std::uint8_t byte) { return byte == 0; });
    return !isFree && entry.enabled != 0 && (entry.processId == 0 || entry.processId == event.processId) &&
           (entry.threadId == 0 || entry.threadId == event.threadId) &&
           vtflt::EqualIgnoringCase(Field(entry.executableName), event.executableName) &&
           std::wstring(event.text).find(Field(entry.pattern)) != std::wstring::npos;
}

void CheckUuidText(const vtflt::LogUuid& uuid)
{
    wchar_t text[vtflt::LOG_UUID_TEXT_CAPACITY];
    vtflt::BuildUuidText(text, uuid);
    FUZZ_HOLDS(Field(text).size() == 36);
    // Read back, digit for digit.
    static constexpr int ORDER[] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
    std::size_t at = 0;
    for (const int index : ORDER) {
        if (text[at] == L'-')
            ++at;
        unsigned value = 0;
        for (int digit = 0; digit < 2; ++digit, ++at) {
            const bool isLetter = text[at] >= L'A' && text[at] <= L'F';
            FUZZ_HOLDS(isLetter || (text[at] >= L'0' && text[at] <= L'9'));
            value = value * 16 + static_cast<unsigned>(isLetter ? text[at] - L'A' + 10 : text[at] - L'0');
        }
        FUZZ_HOLDS(value == uuid.bytes[index]);
    }
}

} // namespace

void Breakpoints(const std::uint8_t* bytes, std::size_t count)
{
    static const auto owner = std::make_unique<LogBreakpointBlock>();
    LogBreakpointBlock& block = *owner;
    for (const std::size_t index : ENTRIES)
        block.breakpoints[index] = {};
    for (const std::size_t index : HITS)
        block.hits[index] = {};

    Input input(bytes, count);
    block.count = input.Take<std::int32_t>();
    for (const std::size_t index : ENTRIES) {
        LogBreakpoint& entry = block.breakpoints[index];
        entry.identifier.bytes[input.Byte() % 16] = input.Byte();
        entry.processId = input.Byte() % 3;
        entry.threadId = input.Byte() % 3;
        entry.enabled = input.Byte() % 3;
        PutField(input, entry.executableName);
        PutField(input, entry.pattern);
    }
    const std::uint8_t taken = input.Byte();
    std::size_t free = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        const bool isTaken = (taken >> i & 1) != 0;
        block.hits[HITS[i]].breakpoint.bytes[15] = isTaken ? 1 : 0;
        free += isTaken && free == i ? 1 : 0;
    }
    FUZZ_HOLDS(vtflt::FindFreeHit(block) == &block.hits[free]);

    const std::wstring executable = input.Text(input.Byte() % 12);
    const std::wstring text = input.Text(input.Byte() % 40);
    const vtflt::LogEvent event = {executable, text, input.Byte() % 3u, input.Byte() % 3u};
    const LogBreakpoint* expected = nullptr;
    for (std::size_t i = 0; i < vtflt::LOG_BREAKPOINT_COUNT && expected == nullptr && block.count > 0; ++i) {
        if (IsHit(block.breakpoints[i], event))
            expected = &block.breakpoints[i];
    }
    FUZZ_HOLDS(vtflt::FindHitBreakpoint(block, event, vtflt::EqualIgnoringCase) == expected);
    CheckUuidText(input.Take<vtflt::LogUuid>());
}

} // namespace fuzz
