// Years on one machine: hourly backups, writes in between, and now and then everything that can happen to it.
//
// The random histories are short and begin on a new machine; what builds up over a long time shows here: version numbers,
// lists and files that are changed tens of thousands of times, a clock that passes every limit of its counters.
#pragma once

#include "proof/operation.h"

#include <cstdint>
#include <functional>
#include <string>

namespace vtproof {

inline constexpr std::uint32_t HOURS_A_YEAR = 8766;

struct YearsOptions {
    std::uint64_t seed = 1;
    std::uint32_t hours = HOURS_A_YEAR;
    // Called before every hour; false ends the run.
    std::function<bool(std::uint32_t hour)> progress;
};

struct YearsResult {
    std::string wrong; // empty: nothing
    std::uint32_t hours = 0;
    std::uint64_t operations = 0;
    std::uint64_t backups = 0;      // that came as far as a copy
    std::uint64_t disturbances = 0; // that took place, and faults that struck
    std::uint64_t trace = 0;
    History
        since; // what happened since everything was last put right: the history to replay, if it is broken by itself
};

YearsResult RunYears(const YearsOptions& options);

} // namespace vtproof
