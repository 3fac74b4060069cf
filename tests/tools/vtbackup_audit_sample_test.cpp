// What an audit chooses, and what it may say afterwards.
#include "vtbackup/audit_sample.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

using namespace vtbackup;

namespace {

std::vector<std::uint64_t> Sample(std::uint64_t population, std::uint64_t wanted, std::mt19937_64& random)
{
    SampleChooser chooser(population, wanted, random);
    random.discard(population); // another sample next time
    std::vector<std::uint64_t> chosen;
    for (std::uint64_t i = 0; i < population; ++i) {
        if (chooser.Take())
            chosen.push_back(i);
    }
    EXPECT_EQ(0u, chooser.Wanted());
    EXPECT_FALSE(chooser.Take()); // nobody is left
    return chosen;
}

TEST(VtBackupSample, ExactlyAsManyAsWantedAreChosen)
{
    std::mt19937_64 random(1);
    for (const std::uint64_t population : {1u, 2u, 3u, 10u, 257u}) {
        for (std::uint64_t wanted = 0; wanted <= population + 2; ++wanted)
            EXPECT_EQ(std::min(population, wanted), Sample(population, wanted, random).size());
    }
    EXPECT_TRUE(Sample(0, 5, random).empty());
}

// With 20,000 samples a count of five standard deviations beside its mean is no chance; the seed makes it repeatable.
TEST(VtBackupSample, EveryMemberAndEveryPairIsChosenEquallyOften)
{
    constexpr int SAMPLES = 20000;
    constexpr std::uint64_t POPULATION = 20;
    constexpr std::uint64_t WANTED = 5;
    std::mt19937_64 random(2);
    std::vector<int> single(POPULATION);
    std::vector<int> pairs(POPULATION * POPULATION);
    for (int i = 0; i < SAMPLES; ++i) {
        const std::vector<std::uint64_t> sample = Sample(POPULATION, WANTED, random);
        for (const std::uint64_t a : sample) {
            ++single[a];
            for (const std::uint64_t b : sample)
                ++pairs[a * POPULATION + b];
        }
    }
    const auto expectNear = [](double probability, int count) {
        const double mean = SAMPLES * probability;
        EXPECT_NEAR(mean, count, 5 * std::sqrt(mean * (1 - probability)));
    };
    for (std::uint64_t a = 0; a < POPULATION; ++a) {
        expectNear(5.0 / 20, single[a]);
        for (std::uint64_t b = 0; b < a; ++b)
            expectNear(5.0 / 20 * 4 / 19, pairs[a * POPULATION + b]);
    }
}

TEST(VtBackupSample, TheSystemsRandomNumbersDifferFromRunToRun)
{
    std::mt19937_64 first = SystemRandom();
    std::mt19937_64 second = SystemRandom();
    EXPECT_NE(first(), second());
}

TEST(VtBackupBound, TheFractionIsExactAndBelowThreeInN)
{
    EXPECT_NEAR(0.95, BoundOf({1, 1000, 1}).fraction, 1e-12);
    EXPECT_NEAR(0.048703, BoundOf({60, 1000, 60}).fraction, 1e-6);
    EXPECT_NEAR(2.995732e-9, BoundOf({1000000000, 4000000000, 1000000000}).fraction, 1e-14);
    for (std::uint64_t n = 1; n < 100000; n = n * 2 + 1)
        EXPECT_LT(BoundOf({n, 1000000, n}).fraction, 3.0 / static_cast<double>(n));
}

TEST(VtBackupBound, NothingComparedBoundsNothingAndEverythingComparedIsCertain)
{
    EXPECT_EQ(1.0, BoundOf({5, 100, 0}).fraction);
    EXPECT_EQ(100u, BoundOf({5, 100, 0}).blocks);
    EXPECT_EQ(0.0, BoundOf({500, 100, 100}).fraction);
    EXPECT_EQ(0u, BoundOf({500, 100, 100}).blocks);
    EXPECT_EQ(0.0, BoundOf({5, 0, 0}).fraction);
    EXPECT_EQ(1u, BoundOf({99, 100, 99}).blocks); // no more than were not looked at
}

// Were one block more changed than the bound says, a sample without any of them had a chance below 5 %: the chance is
// counted here, choice by choice.
TEST(VtBackupBound, OneMoreThanTheBoundWouldHaveBeenSeen)
{
    for (const std::uint64_t clean : {2u, 10u, 100u, 1000u}) {
        for (std::uint64_t compared = 1; compared < clean; compared += 1 + compared / 8) {
            const std::uint64_t changed = BoundOf({compared, clean, compared}).blocks + 1;
            double unseen = 1;
            for (std::uint64_t i = 0; i < compared; ++i)
                unseen *=
                    clean - i > changed ? static_cast<double>(clean - i - changed) / static_cast<double>(clean - i) : 0;
            EXPECT_LT(unseen, 0.05) << compared << " of " << clean;
        }
    }
}

TEST(VtBackupBound, TheSentenceSaysWhatIsKnown)
{
    EXPECT_EQ("100 of 256 clean blocks were read again and none differs from the repository: with 95 % confidence at "
              "most 2.95 % of the clean blocks (about 3/100), 7 blocks or 28.0 KiB, hold a change that was missed",
              CleanAuditText({100, 256, 100}, "28.0 KiB"));
    EXPECT_EQ("2 of 256 clean blocks were read again and none differs from the repository: with 95 % confidence at "
              "most 77.6 % of the clean blocks, 198 blocks or SIZE, hold a change that was missed",
              CleanAuditText({2, 256, 2}, "SIZE"));
    EXPECT_EQ("all 256 clean blocks were read again and none differs from the repository: up to this snapshot no "
              "change was missed",
              CleanAuditText({1000, 256, 256}, "SIZE"));
    EXPECT_EQ("nothing to compare: the bitmap reports every block as changed", CleanAuditText({1000, 0, 0}, "SIZE"));
}

} // namespace
