#include "time_text.h"

#include <array>
#include <chrono>
#include <cstdint>

namespace vtlog {
namespace {

using std::chrono::sys_days;
using std::chrono::year_month_day;

bool IsDigit(char c) noexcept
{
    return c >= '0' && c <= '9';
}

std::optional<std::uint64_t> TakeNumber(std::string_view& text)
{
    std::uint64_t value = 0;
    std::size_t digits = 0;
    for (; digits < text.size() && IsDigit(text[digits]) && digits < 9; ++digits)
        value = value * 10 + static_cast<std::uint64_t>(text[digits] - '0');
    if (digits == 0)
        return std::nullopt;
    text.remove_prefix(digits);
    return value;
}

bool TakeOne(std::string_view& text, std::string_view characters)
{
    if (text.empty() || characters.find(text.front()) == std::string_view::npos)
        return false;
    text.remove_prefix(1);
    return true;
}

year_month_day DateOf(const RecordTime& time)
{
    return std::chrono::year(time.year) / time.month / time.day;
}

RecordTime Before(const RecordTime& now, std::chrono::seconds amount)
{
    using namespace std::chrono;
    const auto point = sys_days(DateOf(now)) + hours(now.hour) + minutes(now.minute) + seconds(now.second) - amount;
    const auto day = floor<days>(point);
    const year_month_day date(day);
    const hh_mm_ss clock(point - day);
    return {static_cast<int>(date.year()),
            static_cast<int>(static_cast<unsigned>(date.month())),
            static_cast<int>(static_cast<unsigned>(date.day())),
            static_cast<int>(clock.hours().count()),
            static_cast<int>(clock.minutes().count()),
            static_cast<int>(clock.seconds().count()),
            now.millisecond};
}

std::optional<RecordTime> ParseAmount(std::string_view text, const RecordTime& now)
{
    const auto number = TakeNumber(text);
    if (!number || text.size() != 1)
        return std::nullopt;
    constexpr std::string_view UNITS = "smhd";
    constexpr std::array<std::int64_t, 4> SECONDS = {1, 60, 3600, 86400};
    // Beyond this the year would leave the four digits that a record has.
    constexpr std::int64_t MOST = 1000LL * 365 * 86400;
    const std::size_t unit = UNITS.find(text.front());
    if (unit == std::string_view::npos)
        return std::nullopt;
    const auto amount = static_cast<std::int64_t>(*number) * SECONDS[unit];
    if (amount > MOST)
        return std::nullopt;
    return Before(now, std::chrono::seconds(amount));
}

// Year, month and day with the separator "/" or "-"; takes the blank or "T" behind them, too.
bool ParseDate(std::string_view& text, RecordTime& time)
{
    std::string_view rest = text;
    const auto year = TakeNumber(rest);
    const char separator = rest.empty() ? '\0' : rest.front();
    if (!year || !TakeOne(rest, "/-"))
        return false;
    const auto month = TakeNumber(rest);
    if (!month || !TakeOne(rest, std::string_view(&separator, 1)))
        return false;
    const auto day = TakeNumber(rest);
    // The calendar's types hold a byte each and would take month 257 for January.
    if (!day || *year < 1000 || *year > 9999 || *month > 12 || *day > 31)
        return false;
    time.year = static_cast<int>(*year);
    time.month = static_cast<int>(*month);
    time.day = static_cast<int>(*day);
    if (!DateOf(time).ok())
        return false;
    if (!rest.empty() && !(TakeOne(rest, " T") && !rest.empty()))
        return false;
    text = rest;
    return true;
}

// As much of hh:mm[:ss[.mmm]] as is there.
bool ParseClock(std::string_view text, RecordTime& time)
{
    struct Part {
        int& value;
        std::uint64_t limit;
        std::string_view separators; // in front of it
    };
    const std::array<Part, 4> parts = {
        {{time.hour, 23, ""}, {time.minute, 59, ":"}, {time.second, 59, ":"}, {time.millisecond, 999, ".:,"}}};
    std::size_t known = 0;
    for (const Part& part : parts) {
        if (text.empty())
            break;
        if (!part.separators.empty() && !TakeOne(text, part.separators))
            return false;
        const std::size_t before = text.size();
        auto value = TakeNumber(text);
        if (!value || *value > part.limit)
            return false;
        // Digits behind a point are a fraction: .5 is 500 milliseconds.
        if (part.limit == 999) {
            for (std::size_t digits = before - text.size(); digits < 3; ++digits)
                *value *= 10;
        }
        part.value = static_cast<int>(*value);
        ++known;
    }
    // An hour alone is no time of day: it is more likely a mistake.
    return text.empty() && known != 1;
}

char* Put(char* to, int value, int digits, char behind)
{
    for (int i = digits - 1; i >= 0; --i) {
        to[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    to[digits] = behind;
    return to + digits + 1;
}

std::string FormatTime(const RecordTime& time, char inDate, char between)
{
    std::array<char, 24> text = {};
    char* to = Put(text.data(), time.year, 4, inDate);
    to = Put(to, time.month, 2, inDate);
    to = Put(to, time.day, 2, between);
    to = Put(to, time.hour, 2, ':');
    to = Put(to, time.minute, 2, ':');
    to = Put(to, time.second, 2, '.');
    Put(to, time.millisecond, 3, '\0');
    return text.data();
}

} // namespace

std::optional<RecordTime> ParseTimeText(std::string_view text, const RecordTime& now, Rounding rounding)
{
    if (const auto amount = ParseAmount(text, now))
        return amount;
    RecordTime time;
    if (rounding == Rounding::Latest)
        time = {0, 0, 0, 23, 59, 59, 999};
    const bool dated = ParseDate(text, time);
    if (!dated) {
        time.year = now.year;
        time.month = now.month;
        time.day = now.day;
        if (text.empty())
            return std::nullopt;
    }
    const bool dateAlone = dated && text.empty();
    if (!dateAlone && !ParseClock(text, time))
        return std::nullopt;
    return time;
}

std::string IsoTime(const RecordTime& time)
{
    return FormatTime(time, '-', 'T');
}

std::string PlainTime(const RecordTime& time)
{
    return FormatTime(time, '/', ' ');
}

} // namespace vtlog
