// Samples of the sweeps; ./dev sim --sweep does the whole of each.
#include "proof/sweep.h"
#include "proof/world.h"

#include <gtest/gtest.h>
#include <set>

namespace vtproof {
namespace {

// Under sanitizers only so much that they see everything.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::uint32_t SWEEP_SLOWER = 50;
#else
constexpr std::uint32_t SWEEP_SLOWER = 1;
#endif

TEST(Scenarios, AreManyAndEachCanBeRead)
{
    std::set<std::string> names;
    for (const Scenario& scenario : AllScenarios()) {
        EXPECT_FALSE(scenario.history.operations.empty()) << scenario.name;
        EXPECT_TRUE(names.insert(scenario.name).second) << scenario.name;
    }
    EXPECT_GE(names.size(), 120u);
}

// Every scenario without a fault, to its end.
TEST(Scenarios, WithoutAFaultLoseNothing)
{
    const std::vector<Scenario> scenarios = AllScenarios();
    for (std::size_t i = 0; i < scenarios.size(); i += SWEEP_SLOWER)
        EXPECT_EQ("", RunHistory(scenarios[i].history)) << scenarios[i].name;
}

struct Sample {
    SweepKind kind;
    std::uint32_t oneIn;
    unsigned atLeast; // runs in which a fault struck
};

class Sweeps : public testing::TestWithParam<Sample> {};

TEST_P(Sweeps, LoseNothing)
{
    SweepOptions options;
    options.kind = GetParam().kind;
    options.oneIn = GetParam().oneIn * SWEEP_SLOWER;
    const SweepResult result = RunSweep(AllScenarios(), options);
    EXPECT_EQ("", result.wrong) << result.scenario << "\n./dev sim --replay \"" << ToText(result.history) << "\"";
    EXPECT_GE(result.struck, GetParam().atLeast / SWEEP_SLOWER) << "of " << result.runs;
}

INSTANTIATE_TEST_SUITE_P(Sampled, Sweeps,
                         testing::Values(Sample{SweepKind::Failures, 100, 400}, Sample{SweepKind::Effects, 20, 60},
                                         Sample{SweepKind::Memory, 40, 200}, Sample{SweepKind::Deaths, 50, 250},
                                         Sample{SweepKind::PowerCuts, 80, 250},
                                         Sample{SweepKind::SecondDeaths, 20'000, 50},
                                         Sample{SweepKind::Pairs, 20'000, 20}),
                         [](const auto& info) {
                             std::string name = SWEEP_NAMES[static_cast<std::size_t>(info.param.kind)];
                             std::erase(name, '-');
                             return name;
                         });

} // namespace
} // namespace vtproof
