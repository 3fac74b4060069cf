#include "show_filter.h"

#include "common/text.h"
#include "time_text.h"

#include <fmt/format.h>

namespace vtlog {
namespace {

std::optional<RecordTime> TimeOption(const char* name, const std::string& text, const RecordTime& now,
                                     Rounding rounding)
{
    if (text.empty())
        return std::nullopt;
    const auto time = ParseTimeText(text, now, rounding);
    if (!time)
        throw Failure(
            Exit::Usage,
            fmt::format("{}: \"{}\" is no time; write 2026/11/21, \"2026/11/21 10:00:01\", 10:00 or 2h", name, text));
    return time;
}

} // namespace

EntryFilter FilterOf(const ShowOptions& options, const RecordTime& now)
{
    EntryFilter filter;
    if (!options.level.empty()) {
        filter.level = ParseLevel(options.level);
        if (!filter.level)
            throw Failure(Exit::Usage,
                          fmt::format("--level: \"{}\" is no level; write error, warning, information, detail, or a "
                                      "number",
                                      options.level));
    }
    for (const std::string& text : options.codes) {
        const auto code = ParseCode(text);
        if (!code)
            throw Failure(Exit::Usage,
                          fmt::format("--code: \"{}\" is no error code; write 5, 0x10001 or a name", text));
        filter.codes.push_back(*code);
    }
    filter.processes = options.processes;
    filter.threads = options.threads;
    for (const std::string& text : options.texts)
        filter.texts.push_back(toolkit::ToWide(text));
    filter.ignoreCase = options.ignoreCase;
    filter.since = TimeOption("--since", options.since, now, Rounding::Earliest);
    filter.until = TimeOption("--until", options.until, now, Rounding::Latest);
    return filter;
}

} // namespace vtlog
