// Text, numbers and times as the page has them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vtbackup {

// The most bytes of one text from a repository that a page shows.
constexpr std::size_t LONGEST_TEXT = 1000;

// Any bytes as text of HTML, for elements and for attributes in double or single quotes. A replacement character stands
// for malformed UTF-8, for control characters and for what turns the direction of writing. A text that is longer than
// the limit is cut, with an ellipsis.
std::string Escaped(std::string_view text, std::size_t longest = LONGEST_TEXT);

// "1,234"
std::string CountText(std::uint64_t count);
// A part of a whole as "12.3 %", "under 0.1 %" or "0 %"; nothing can be a part of nothing.
std::string PercentText(std::uint64_t part, std::uint64_t whole);
// The size for people, and the exact number for programs and on hover. A class of its own names the figure.
std::string SizeElement(std::uint64_t bytes, std::string_view name = {});

// Seconds since 1970 of "2026-01-31T12:00:00Z"; nothing for any other text.
std::optional<std::int64_t> SecondsOf(std::string_view time) noexcept;
// The same back; of years behind 9999 the last second that can be written.
std::string TimeOf(std::int64_t seconds);

} // namespace vtbackup
