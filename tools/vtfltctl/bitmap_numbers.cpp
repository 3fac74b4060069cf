#include "bitmap_numbers.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace vtfltctl::bitmap {
namespace {

constexpr std::array<std::string_view, 7> UNITS{"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
constexpr std::uint64_t LONGEST_MARK = 99999;
constexpr std::string_view UNIT_LETTERS = "KMGTP";

std::string WithoutTrailingZeros(std::string text)
{
    text.erase(text.find_last_not_of('0') + 1);
    if (text.ends_with('.'))
        text.pop_back();
    return text;
}

} // namespace

std::string Grouped(std::uint64_t number)
{
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3;) {
        at -= 3;
        text.insert(at, 1, ',');
    }
    return text;
}

std::string SizeText(std::uint64_t bytes)
{
    std::size_t unit = 0;
    for (std::uint64_t rest = bytes; rest >= 1024; rest /= 1024)
        ++unit;
    if (unit == 0)
        return fmt::format("{} {}", bytes, bytes == 1 ? "byte" : UNITS[0]);
    const double scaled = static_cast<double>(bytes) / static_cast<double>(std::uint64_t{1} << (10 * unit));
    return fmt::format("{} {}", WithoutTrailingZeros(fmt::format("{:.2f}", scaled)), UNITS[unit]);
}

std::string MarkText(std::uint64_t bytes, std::uint64_t step)
{
    if (bytes == 0)
        return "0";
    std::size_t unit = 0;
    for (; step != 0 && step % 1024 == 0; step /= 1024)
        ++unit;
    const std::uint64_t size = std::uint64_t{1} << (10 * unit);
    if (unit == 0 || bytes % size != 0 || bytes / size > LONGEST_MARK)
        return SizeText(bytes);
    return fmt::format("{} {}", Grouped(bytes / size), UNITS[unit]);
}

std::string ShareText(std::uint64_t part, std::uint64_t whole)
{
    if (part == 0 || whole == 0)
        return "0 %";
    if (part >= whole)
        return "100 %";
    const double percent = 100.0 * static_cast<double>(part) / static_cast<double>(whole);
    if (percent < 0.01)
        return "under 0.01 %";
    if (percent > 99.99)
        return "over 99.99 %";
    return WithoutTrailingZeros(fmt::format("{:.2f}", percent)) + " %";
}

std::optional<std::uint64_t> ParseSize(std::string_view text)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{})
        return std::nullopt;
    std::string_view unit(end, static_cast<std::size_t>(text.data() + text.size() - end));
    if (unit.empty())
        return number;

    const char letter =
        unit.front() >= 'a' && unit.front() <= 'z' ? static_cast<char>(unit.front() - 'a' + 'A') : unit.front();
    const std::size_t power = UNIT_LETTERS.find(letter);
    unit.remove_prefix(1);
    const bool known = unit.empty() || unit == "iB" || unit == "ib" || unit == "B" || unit == "b";
    if (power == std::string_view::npos || !known)
        return std::nullopt;
    const std::uint64_t factor = std::uint64_t{1} << (10 * (power + 1));
    if (number > UINT64_MAX / factor)
        return std::nullopt;
    return number * factor;
}

std::uint64_t Geometry::Offset(std::uint64_t block) const noexcept
{
    const std::uint64_t offset = SaturatedProduct(block, blockSize);
    return volumeBytes != 0 ? std::min(offset, volumeBytes) : offset;
}

} // namespace vtfltctl::bitmap
