// Times on the command line, apart from the system.
#pragma once

#include "record_parser.h"

#include <optional>
#include <string>
#include <string_view>

namespace vtlog {

// A point in time, or an amount of time before now ("90s", "30m", "2h", "7d"). A point is a date, and a time of day
// down to where it is known: 2026/11/21, 2026-11-21 10:00, 2026/11/21T10:00:01.500, and as the log writes it
// 2026/11/21 10:00:01:500; or a time of today alone. What is not said is the earliest that it can be, or the latest:
// until 10:00 goes up to 10:00:59.999. Nothing when the text is no time.
enum class Rounding { Earliest, Latest };
std::optional<RecordTime> ParseTimeText(std::string_view text, const RecordTime& now, Rounding rounding);

// 2026-11-21T10:00:01.500, and as people read it 2026/11/21 10:00:01.500.
std::string IsoTime(const RecordTime& time);
std::string PlainTime(const RecordTime& time);

} // namespace vtlog
