// Samples of the sweeps; ./dev sim --sweep does the whole of each, and ./dev test of some.
#include "proof/current_run.h"
#include "proof/sweep.h"
#include "proof/sweep_path.h"
#include "proof/tests/replay.h"
#include "proof/world.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <tuple>

namespace vtproof {
namespace {

// Under sanitizers only so much that they see everything.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::uint32_t SWEEP_SLOWER = 50;
#else
constexpr std::uint32_t SWEEP_SLOWER = 1;
#endif
const bool g_tellsWhatCrashes = (TellWhatCrashes(), true);

std::vector<Scenario> SomeScenarios(std::size_t oneIn)
{
    const std::vector<Scenario> all = AllScenarios();
    std::vector<Scenario> some;
    for (std::size_t i = 0; i < all.size(); i += oneIn)
        some.push_back(all[i]);
    return some;
}

TEST(Scenarios, AreManyAndEachCanBeRead)
{
    std::set<std::string> names;
    for (const Scenario& scenario : AllScenarios()) {
        EXPECT_FALSE(scenario.history.operations.empty()) << scenario.name;
        EXPECT_TRUE(names.insert(scenario.name).second) << scenario.name;
    }
    EXPECT_GE(names.size(), 180u);
}

// Every scenario without a fault, to its end.
TEST(Scenarios, WithoutAFaultLoseNothing)
{
    for (const Scenario& scenario : SomeScenarios(SWEEP_SLOWER)) {
        const CurrentRun current(ToText(scenario.history));
        EXPECT_EQ("", RunHistory(scenario.history)) << scenario.name << Again(scenario.history);
    }
}

struct Sample {
    SweepKind kind;
    std::uint32_t oneIn;
    unsigned atLeast; // runs
};

class Sweeps : public testing::TestWithParam<Sample> {};

TEST_P(Sweeps, LoseNothing)
{
    SweepOptions options;
    options.kind = GetParam().kind;
    options.oneIn = std::max(1u, GetParam().oneIn / (SWEEP_SLOWER == 1 ? 1 : 4)); // of the fewer scenarios more
    const Verdicts before = VerdictsSoFar();
    const SweepResult result = RunSweep(SomeScenarios(SWEEP_SLOWER), options);
    EXPECT_EQ("", result.wrong) << result.scenario << Again(result.history);
    EXPECT_GE(result.runs, GetParam().atLeast / SWEEP_SLOWER);
    EXPECT_EQ(result.runs, result.struck)
        << "nothing went wrong in\n    ./dev sim --replay \"" << ToText(result.missed) << "\"";
    EXPECT_GE(result.thorough, result.runs / 20 / SWEEP_SLOWER); // of a few there may be none by chance
    // Backups that read everything cannot miss anything, and those long behind a fault do not tell of it. Behind a power cut
    // everybody verifies first: there the files are looked at.
    const Verdicts& now = VerdictsSoFar();
    if (GetParam().kind == SweepKind::PowerCuts) {
        EXPECT_GE(now.files - before.files, result.runs);
        EXPECT_GE(4 * (now.cuts - before.cuts), 3 * result.runs);
    } else {
        EXPECT_GE(now.behindReported - before.behindReported, result.runs / 16 / SWEEP_SLOWER) << "of " << result.runs;
    }
}

INSTANTIATE_TEST_SUITE_P(Sampled, Sweeps,
                         testing::Values(Sample{SweepKind::Failures, 120, 1'000}, Sample{SweepKind::Effects, 20, 200},
                                         Sample{SweepKind::Memory, 25, 600}, Sample{SweepKind::Deaths, 40, 600},
                                         Sample{SweepKind::PowerCuts, 90, 400},
                                         Sample{SweepKind::SecondDeaths, 6'000, 100},
                                         Sample{SweepKind::Pairs, 2'000, 70}, Sample{SweepKind::Lasting, 100, 100}),
                         [](const auto& info) {
                             std::string name = SWEEP_NAMES[static_cast<std::size_t>(info.param.kind)];
                             std::erase(name, '-');
                             return name;
                         });

// A bitmap that cannot be read, beside a function that fails for good: where neither a mark nor another file can say what it
// held, it stays. The sample above meets too few of these.
TEST(Sweeps, OfFunctionsThatFailForGoodBesideAnUnreadableBitmapLoseNothing)
{
    std::vector<Scenario> scenarios = AllScenarios();
    std::erase_if(scenarios, [](const Scenario& one) {
        return one.name != "a backup with changes in its snapshot, with its base deleted" &&
               one.name != "a backup with changes in its snapshot, with its child without trailer";
    });
    ASSERT_EQ(2u, scenarios.size());
    SweepOptions options;
    options.kind = SweepKind::Lasting;
    options.oneIn = SWEEP_SLOWER == 1 ? 1 : 20;
    const SweepResult result = RunSweep(scenarios, options);
    EXPECT_EQ("", result.wrong) << result.scenario << Again(result.history);
    EXPECT_GE(result.runs, SWEEP_SLOWER == 1 ? 700u : 15u);
    EXPECT_EQ(result.runs, result.struck) << ToText(result.missed);
}

// What is looked at behind a run does not depend on what went wrong in it: each fault has runs of both kinds.
TEST(Sweeps, LookAtEverythingBehindEveryKindOfFault)
{
    for (const SweepKind kind : {SweepKind::Failures, SweepKind::Effects, SweepKind::Memory, SweepKind::Deaths}) {
        for (const std::uint32_t parts : {1, 2}) {
            std::map<std::pair<Fault::How, std::uint32_t>, std::pair<unsigned, unsigned>> seen; // runs, thorough ones
            SweepOptions options;
            options.kind = kind;
            options.parts = parts;
            options.run = [&](const History& history, bool thoroughly, bool* struck) {
                const Fault& fault = history.operations.back().faults.front();
                auto& [runs, thorough] = seen[{fault.how, fault.error}];
                ++runs;
                thorough += thoroughly ? 1 : 0;
                *struck = true;
                return std::string();
            };
            RunSweep(SomeScenarios(40), options);
            EXPECT_FALSE(seen.empty());
            for (const auto& [fault, counts] : seen) {
                const auto [runs, thorough] = counts;
                const auto said = testing::Message() << SWEEP_NAMES[static_cast<std::size_t>(kind)] << " fault "
                                                     << static_cast<int>(fault.first) << " error " << fault.second
                                                     << ": " << thorough << " of " << runs;
                if (runs >= 100) {
                    EXPECT_GE(thorough, runs / 20) << said;
                    EXPECT_LE(thorough, runs / 4) << said;
                }
            }
        }
    }
}

// Also when everything is done, and nothing more would be flushed.
TEST(Sweeps, CutThePowerBeforeEachCallInEachWriteAndBehindTheLast)
{
    std::vector<Scenario> scenarios = AllScenarios();
    std::erase_if(scenarios, [](const Scenario& one) { return one.name != "a backup, with changes owed to two"; });
    ASSERT_EQ(1u, scenarios.size());
    std::string wrong;
    const std::size_t calls = FollowPath(scenarios.front().history, {}, wrong).calls.size();
    ASSERT_EQ("", wrong);
    std::map<Fault::How, std::set<std::uint32_t>> points;
    SweepOptions options;
    options.kind = SweepKind::PowerCuts;
    options.run = [&](const History& history, bool, bool* struck) {
        EXPECT_EQ(Do::PowerCut, history.operations.back().what);
        const Fault& fault = history.operations[history.operations.size() - 2].faults.front();
        points[fault.how].insert(fault.nth);
        *struck = true;
        return std::string();
    };
    RunSweep(scenarios, options);
    EXPECT_EQ(calls, points[Fault::How::DieBefore].size());
    EXPECT_EQ((std::set<std::uint32_t>{static_cast<std::uint32_t>(calls)}), points[Fault::How::DieAfter]);
    // And in the middle of each write.
    EXPECT_EQ(FollowPath(scenarios.front().history, {}, wrong).writes.size(), points[Fault::How::DieInWrite].size());
}

// Nowhere only what a death would do, too.
TEST(Sweeps, CutThePowerAtEachPointAlsoWhereThereIsNoTimeForAllWays)
{
    std::vector<Scenario> scenarios = AllScenarios();
    std::erase_if(scenarios, [](const Scenario& one) {
        return one.name != "a backup, with changes owed to two" &&
               one.name != "a long backup, with changes owed to two";
    });
    ASSERT_EQ(2u, scenarios.size());
    using Point = std::tuple<std::size_t, Fault::How, std::uint32_t, std::uint32_t>;
    const auto cut = [&](bool eachPoint, std::uint32_t least) {
        std::map<Point, unsigned> points; // how often, in a way from the least on
        for (const std::uint32_t part : {0, 1}) {
            SweepOptions options;
            options.kind = SweepKind::PowerCuts;
            options.eachPoint = eachPoint;
            options.part = part;
            options.parts = 2;
            options.run = [&](const History& history, bool, bool* struck) {
                const Fault& fault = history.operations[history.operations.size() - 2].faults.front();
                points[{history.volumes.front().grains, fault.how, fault.nth, fault.error}] +=
                    history.operations.back().a >= least ? 1 : 0;
                *struck = true;
                return std::string();
            };
            EXPECT_GT(RunSweep(scenarios, options).runs, 0u);
        }
        return points;
    };
    constexpr std::uint32_t LOST = 1;
    constexpr std::uint32_t TORN = 2;
    const auto whole = cut(false, LOST);
    const auto once = cut(true, LOST);
    EXPECT_EQ(whole.size(), once.size());
    EXPECT_GT(once.size(), 100u);
    for (const auto& [point, times] : once)
        EXPECT_GE(times, 1u) << static_cast<int>(std::get<1>(point)) << " " << std::get<2>(point);
    const auto torn = cut(true, TORN);
    const auto tornPoints = std::count_if(torn.begin(), torn.end(), [](const auto& one) { return one.second != 0; });
    EXPECT_GE(3 * static_cast<std::size_t>(tornPoints), torn.size());
}

// So that each call is met by five errors of the six, some of them once and some from then on.
TEST(Sweeps, TheirPartsForTheTestsFailEachCallWithFiveErrors)
{
    std::vector<Scenario> scenarios = AllScenarios();
    std::erase_if(scenarios, [](const Scenario& one) {
        return one.name != "a backup, with changes owed to two" && one.name != "unregistering, with changes in a child";
    });
    ASSERT_EQ(2u, scenarios.size());
    std::map<std::pair<Do, std::uint32_t>, std::set<std::uint32_t>> errors; // of each call
    for (const std::uint32_t part : {0, 2, 4, 7, 9}) {                      // those of ./dev test
        SweepOptions options;
        options.part = part;
        options.parts = 12;
        options.run = [&](const History& history, bool, bool* struck) {
            const Operation& operation = history.operations.back();
            const Fault& fault = operation.faults.front();
            constexpr std::uint32_t OTHERS[] = {2, 3, 234}; // once only
            if (std::count(std::begin(OTHERS), std::end(OTHERS), fault.error) == 0)
                errors[{operation.what, fault.nth}].insert(fault.error);
            *struck = true;
            return std::string();
        };
        RunSweep(scenarios, options);
    }
    EXPECT_GT(errors.size(), 100u);
    for (const auto& [call, of] : errors)
        EXPECT_EQ(5u, of.size()) << static_cast<int>(call.first) << " call " << call.second;
}

// A cut that is as long as what is written, or read, is none.
TEST(Sweeps, CutOnlyWhatIsLonger)
{
    std::vector<Scenario> scenarios = AllScenarios();
    std::erase_if(scenarios, [](const Scenario& one) { return one.name != "a backup, with changes owed to two"; });
    ASSERT_EQ(1u, scenarios.size());
    std::string wrong;
    const SweepPath path = FollowPath(scenarios.front().history, {}, wrong);
    ASSERT_EQ("", wrong);
    constexpr std::uint32_t TRAILER = 4;
    unsigned trailers = 0;
    for (const SweepTransfer& write : path.writes)
        trailers += write.bytes == TRAILER ? 1 : 0;
    EXPECT_EQ(2 * trailers, path.writes.size()) << "each file is written in two pieces";
    unsigned cuts = 0;
    SweepOptions options;
    options.kind = SweepKind::Effects;
    options.run = [&](const History& history, bool, bool* struck) {
        const Fault& fault = history.operations.back().faults.front();
        if (fault.how == Fault::How::Short) {
            EXPECT_LT(fault.error, path.writes.at(fault.nth - 1).bytes);
            ++cuts;
        }
        *struck = true;
        return std::string();
    };
    RunSweep(scenarios, options);
    EXPECT_EQ(7 * trailers, cuts) << "at two places of a trailer, and at five of what is before it";
}

// Every error that a call can give, at every call; those that say "there is none" only where they answer no such question.
TEST(Sweeps, FailEveryCallWithEveryError)
{
    std::map<std::uint32_t, std::set<std::uint32_t>> points; // by error: which calls
    SweepOptions options;
    options.run = [&](const History& history, bool, bool* struck) {
        const Fault& fault = history.operations.back().faults.front();
        if (fault.how == Fault::How::Fail)
            points[fault.error].insert(fault.nth);
        *struck = true;
        return std::string();
    };
    std::vector<Scenario> scenarios = AllScenarios();
    std::erase_if(scenarios, [](const Scenario& one) { return one.name != "a backup, with changes owed to two"; });
    ASSERT_EQ(1u, scenarios.size());
    std::string wrong;
    const SweepPath path = FollowPath(scenarios.front().history, {}, wrong);
    ASSERT_EQ("", wrong);
    RunSweep(scenarios, options);
    std::map<std::wstring, unsigned> denied; // by function: of so many calls it is said that there is none
    for (const std::uint32_t nth : points[2])
        ++denied[path.refusable.at(nth - 1)];
    EXPECT_EQ(0u, denied[L"RegCreateKeyW"]) << "who cannot open the list of applications takes it for empty";
    EXPECT_GT(denied[L"RegCreateKeyExW"], 0u);
    EXPECT_GT(std::count(path.refusable.begin(), path.refusable.end(), L"RegCreateKeyW"), 0);
    for (const std::uint32_t error : {5, 8, 31, 32, 112, 234, 1450})
        EXPECT_EQ(points[5], points[error]) << error;
    EXPECT_GT(points[5].size(), 10u);
    EXPECT_EQ(points[2], points[3]);
    EXPECT_GT(points[2].size(), 1u);
    EXPECT_LT(points[2].size(), points[5].size());
    EXPECT_EQ(9u, points.size());
}

} // namespace
} // namespace vtproof
