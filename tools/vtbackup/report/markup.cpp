#include "report/markup.h"

#include "common/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtbackup {
namespace {

constexpr char32_t REPLACEMENT = 0xFFFD;
constexpr std::int64_t DAY = 86400;

// Takes one character off the front. A byte that begins none is taken alone.
char32_t TakeCharacter(std::string_view& text) noexcept
{
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t length = lead < 0x80                   ? 1
                               : lead >= 0xC2 && lead < 0xE0 ? 2
                               : lead >= 0xE0 && lead < 0xF0 ? 3
                               : lead >= 0xF0 && lead < 0xF5 ? 4
                                                             : 0;
    if (length <= 1 || length > text.size()) {
        text.remove_prefix(1);
        return length == 1 ? lead : REPLACEMENT;
    }
    char32_t character = lead & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0U) != 0x80) {
            text.remove_prefix(1);
            return REPLACEMENT;
        }
        character = character << 6 | (byte & 0x3FU);
    }
    constexpr char32_t SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = character >= 0xD800 && character < 0xE000;
    const bool wellFormed = character >= SMALLEST[length] && character <= 0x10FFFF && !surrogate;
    text.remove_prefix(wellFormed ? length : 1);
    return wellFormed ? character : REPLACEMENT;
}

bool IsUnseen(char32_t c) noexcept
{
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x61C // control characters, direction of writing
           || (c >= 0x200B && c <= 0x200F) || (c >= 0x2028 && c <= 0x202E) || (c >= 0x2060 && c <= 0x206F) ||
           c == 0xFEFF || (c >= 0xFFF9 && c <= 0xFFFB) || (c & 0xFFFE) == 0xFFFE // no characters
           || (c >= 0xE0000 && c < 0xE1000);
}

void AppendUtf8(std::string& to, char32_t c)
{
    const auto byte = [&to](char32_t value) { to.push_back(static_cast<char>(static_cast<unsigned char>(value))); };
    if (c < 0x80) {
        byte(c);
    } else if (c < 0x800) {
        byte(0xC0 | c >> 6);
        byte(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        byte(0xE0 | c >> 12);
        byte(0x80 | (c >> 6 & 0x3F));
        byte(0x80 | (c & 0x3F));
    } else {
        byte(0xF0 | c >> 18);
        byte(0x80 | (c >> 12 & 0x3F));
        byte(0x80 | (c >> 6 & 0x3F));
        byte(0x80 | (c & 0x3F));
    }
}

void AppendEscaped(std::string& to, char32_t c)
{
    switch (c) {
    case '&':
        to += "&amp;";
        return;
    case '<':
        to += "&lt;";
        return;
    case '>':
        to += "&gt;";
        return;
    case '"':
        to += "&quot;";
        return;
    case '\'':
        to += "&#39;";
        return;
    default:
        AppendUtf8(to, IsUnseen(c) ? REPLACEMENT : c);
    }
}

// Days since 1970 of a date of the Gregorian calendar, and back: counted in years that begin with March, so that the
// leap day is a year's last.
std::int64_t DaysOf(std::int64_t year, std::int64_t month, std::int64_t day) noexcept
{
    year -= month <= 2 ? 1 : 0;
    const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
    const std::int64_t yearOfEra = year - era * 400;
    const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    return era * 146097 + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear - 719468;
}

struct Date {
    std::int64_t year;
    std::int64_t month;
    std::int64_t day;
};

Date DateOf(std::int64_t days) noexcept
{
    days += 719468;
    const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const std::int64_t dayOfEra = days - era * 146097;
    const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t shifted = (5 * dayOfYear + 2) / 153;
    const std::int64_t month = shifted < 10 ? shifted + 3 : shifted - 9;
    return {yearOfEra + era * 400 + (month <= 2 ? 1 : 0), month, dayOfYear - (153 * shifted + 2) / 5 + 1};
}

} // namespace

std::string Escaped(std::string_view text, std::size_t longest)
{
    std::string escaped;
    escaped.reserve(text.size());
    const std::size_t end = text.size() > longest ? text.size() - longest : 0;
    while (text.size() > end)
        AppendEscaped(escaped, TakeCharacter(text));
    if (end != 0)
        escaped += "\u2026";
    return escaped;
}

std::string CountText(std::uint64_t count)
{
    const std::string digits = fmt::format("{}", count);
    std::string text;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i != 0 && (digits.size() - i) % 3 == 0)
            text += ',';
        text += digits[i];
    }
    return text;
}

std::string PercentText(std::uint64_t part, std::uint64_t whole)
{
    if (whole == 0 || part == 0)
        return "0 %";
    const double percent = 100.0 * static_cast<double>(part) / static_cast<double>(whole);
    return percent < 0.1 ? "under 0.1 %" : fmt::format("{:.1f} %", percent);
}

std::string SizeElement(std::uint64_t bytes, std::string_view name)
{
    return fmt::format("<data{} value=\"{}\" title=\"{} bytes\">{}</data>",
                       name.empty() ? "" : fmt::format(" class=\"{}\"", name), bytes, CountText(bytes),
                       toolkit::BytesText(bytes));
}

std::optional<std::int64_t> SecondsOf(std::string_view time) noexcept
{
    constexpr std::string_view FORM = "0000-00-00T00:00:00Z";
    if (time.size() != FORM.size())
        return std::nullopt;
    std::int64_t numbers[6] = {};
    std::size_t number = 0;
    for (std::size_t i = 0; i < FORM.size(); ++i) {
        if (FORM[i] != '0') {
            if (time[i] != FORM[i])
                return std::nullopt;
            ++number;
            continue;
        }
        if (time[i] < '0' || time[i] > '9')
            return std::nullopt;
        numbers[number] = numbers[number] * 10 + (time[i] - '0');
    }
    const auto [year, month, day, hour, minute, second] = numbers;
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60)
        return std::nullopt;
    return DaysOf(year, month, day) * DAY + hour * 3600 + minute * 60 + second;
}

std::string TimeOf(std::int64_t seconds)
{
    seconds = std::clamp(seconds, DaysOf(0, 1, 1) * DAY, DaysOf(10000, 1, 1) * DAY - 1);
    std::int64_t days = seconds / DAY;
    days -= seconds % DAY < 0 ? 1 : 0;
    const std::int64_t rest = seconds - days * DAY;
    const Date date = DateOf(days);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", date.year, date.month, date.day, rest / 3600,
                       rest / 60 % 60, rest % 60);
}

} // namespace vtbackup
