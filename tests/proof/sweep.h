// Sweeps: a scenario is run again and again, and each time something goes wrong at another point of its last operation.
#pragma once

#include "proof/operation.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace vtproof {

// The last operation is the one that is swept.
struct Scenario {
    std::string name;
    History history;
};

// States of a machine times operations that reach every export.
std::vector<Scenario> AllScenarios();

enum class SweepKind : std::uint8_t {
    Failures,     // every call fails with every error, once and from then on
    Effects,      // every changing call is done and reported as failed; every write and read is short
    Memory,       // every allocation fails, once and from then on
    Deaths,       // the process ends before and behind every call, and in the middle of every write
    PowerCuts,    // the same for the machine: what was written is there, is lost, or is torn
    SecondDeaths, // the process ends once more, in the operation that comes behind its death
    Pairs,        // two calls fail
    Lasting,      // all calls of a function fail, and one of another
    Count
};
inline constexpr const char* SWEEP_NAMES[] = {"failures",   "effects",       "memory", "deaths",
                                              "power-cuts", "second-deaths", "pairs",  "lasting"};
static_assert(sizeof(SWEEP_NAMES) / sizeof(SWEEP_NAMES[0]) == static_cast<std::size_t>(SweepKind::Count));

struct SweepOptions {
    SweepKind kind = SweepKind::Failures;
    std::uint32_t part = 0; // of parts: which share of the runs is done here
    std::uint32_t parts = 1;
    std::uint32_t oneIn = 1; // a sample: every so-manieth run, chosen by its number and the seed
    std::uint64_t seed = 0;
    bool eachPoint = false; // power cuts: at every point, but in one or two ways only
    // Called now and then with the runs done and the share of the scenarios; false ends the sweep.
    std::function<bool(std::uint64_t runs, double share)> progress;
    // Done in the place of a run; gives what the run gives, *struck included. Empty: runs.
    std::function<std::string(const History& history, bool thoroughly, bool* struck)> run;
};

struct SweepResult {
    std::uint64_t runs = 0;
    std::uint64_t struck =
        0;                   // runs in which the fault met something: all, or the sweep is mistaken about the operation
    History missed;          // one of the others
    std::uint64_t trace = 0; // of all runs
    std::uint64_t thorough = 0; // runs behind which everything is looked at
    bool endedEarly = false;    // somebody had it end before the last scenario was through
    std::string scenario;       // of a broken run
    std::string wrong;          // empty: none is broken
    History history;
};

SweepResult RunSweep(const std::vector<Scenario>& scenarios, const SweepOptions& options);

} // namespace vtproof
