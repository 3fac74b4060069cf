// A short piece of the years; ./dev sim years does ten.
#include "proof/proof_log.h"
#include "proof/random_history.h"
#include "proof/tests/replay.h"
#include "proof/years.h"

#include <gtest/gtest.h>
#include <set>

namespace vtproof {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::uint32_t DAYS = 8;
#else
constexpr std::uint32_t DAYS = 90;
#endif

TEST(Years, LoseNothing)
{
    YearsOptions options;
    options.seed = 7;
    options.hours = DAYS * 24;
    const Verdicts before = VerdictsSoFar();
    const YearsResult result = RunYears(options);
    EXPECT_EQ("", result.wrong) << Again(result.since);
    EXPECT_EQ(DAYS * 24, result.hours);
    EXPECT_GE(result.backups, DAYS * 24u * 2);
    EXPECT_GT(result.disturbances, DAYS / 2);
    // Backups that read everything cannot miss anything: most do not.
    EXPECT_GE(2 * (VerdictsSoFar().reported - before.reported), result.backups);
    // One in some twelve days.
    if (DAYS > 30) {
        EXPECT_GT(VerdictsSoFar().cuts, before.cuts) << "no power cut behind a backup was looked at";
    }
}

TEST(Years, GoTheSameWayEveryTime)
{
    YearsOptions options;
    options.hours = 48;
    const std::uint64_t trace = RunYears(options).trace;
    EXPECT_EQ(trace, RunYears(options).trace);
    options.seed = 2;
    EXPECT_NE(trace, RunYears(options).trace);
}

TEST(Years, EndWhenTheyAreTold)
{
    YearsOptions options;
    options.progress = [](std::uint32_t hour) { return hour < 5; };
    const YearsResult result = RunYears(options);
    EXPECT_EQ("", result.wrong);
    EXPECT_EQ(5u, result.hours);
}

// Neighbouring seeds choose other things, and not the same ones a little later.
TEST(Dice, OfSeedsNextToEachOtherHaveNothingInCommon)
{
    std::set<std::uint64_t> numbers;
    for (std::uint64_t seed = 0; seed < 20; ++seed) {
        Dice dice(seed);
        for (int i = 0; i < 50; ++i)
            EXPECT_TRUE(numbers.insert(dice.Next()).second) << "seed " << seed << ", number " << i;
    }
}

// One record has the address of a name in it, which differs from process to process.
TEST(Traces, LeaveAnAddressOut)
{
    const auto sumWith = [](const wchar_t* text) {
        ProofLog log;
        log.Add(0, 32, text);
        EXPECT_EQ(0u, log.Broken());
        return log.Sum();
    };
    EXPECT_EQ(sumWith(L"Error: failed to query volume upper filter list. rc: 1028113672."),
              sumWith(L"Error: failed to query volume upper filter list. rc: -23063288."));
    EXPECT_NE(sumWith(L"Error: failed to query volume upper filter list."),
              sumWith(L"Error: failed to query volume upper"));
    EXPECT_NE(sumWith(L"rc: 1"), sumWith(L"rc: 2"));
}

} // namespace
} // namespace vtproof
