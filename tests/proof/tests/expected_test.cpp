// The expected state says what is lost and what is too much, and nothing else.
#include "proof/current_run.h"
#include "proof/expected.h"
#include "proof/operation.h"
#include "proof/random_history.h"
#include "proof/tests/replay.h"
#include "proof/world.h"

#include <gtest/gtest.h>
#include <set>

namespace vtproof {
namespace {

// Under sanitizers only so much that they see everything.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SLOW = true;
#else
constexpr bool SLOW = false;
#endif

Reported Blocks(std::size_t count, std::initializer_list<std::size_t> set, std::uint32_t grainsPerBlock = 1)
{
    Reported reported;
    reported.blocks.resize(count);
    for (const std::size_t block : set)
        reported.blocks[block] = true;
    reported.grainsPerBlock = grainsPerBlock;
    return reported;
}

TEST(ExpectedState, AReportedBlockIsTakenAndAnUnreportedOneIsLost)
{
    Expected expected(1, {16});
    expected.TakeAll(0, 0, expected.Volume(0));
    expected.Write(0, 5, 1);
    EXPECT_EQ("", expected.TakeReported(0, 0, expected.Volume(0), Blocks(16, {5})));
    expected.Write(0, 7, 2);
    EXPECT_NE(std::string::npos,
              expected.TakeReported(0, 0, expected.Volume(0), Blocks(16, {7})).find("LOST: grain 8"));
}

TEST(ExpectedState, OnlyWhatWasWrittenBeforeTheSnapshotIsOwed)
{
    Expected expected(1, {16});
    expected.TakeAll(0, 0, expected.Volume(0));
    const Grains snapshot = expected.Volume(0);
    expected.Write(0, 3, 1);
    EXPECT_EQ("", expected.TakeReported(0, 0, snapshot, Blocks(16, {})));
    EXPECT_NE("", expected.TakeReported(0, 0, expected.Volume(0), Blocks(16, {})));
}

TEST(ExpectedState, EachApplicationIsOwedItsOwn)
{
    Expected expected(2, {16});
    expected.TakeAll(0, 0, expected.Volume(0));
    expected.TakeAll(1, 0, expected.Volume(0));
    expected.Write(0, 3, 1);
    EXPECT_EQ("", expected.TakeReported(0, 0, expected.Volume(0), Blocks(16, {3})));
    EXPECT_NE("", expected.TakeReported(1, 0, expected.Volume(0), Blocks(16, {})));
}

TEST(ExpectedState, ABlockBesideAWriteMayBeReportedAndOneFurtherOffMayNot)
{
    Expected expected(1, {64});
    expected.TakeAll(0, 0, expected.Volume(0));
    expected.NoteSuccess(0, 0, expected.Clock());
    expected.Write(0, 20, 1); // block 5 of four grains
    EXPECT_EQ("", expected.CheckNothingElse(0, 0, expected.Volume(0), Blocks(16, {4, 5, 6}, 4)));
    EXPECT_NE("", expected.CheckNothingElse(0, 0, expected.Volume(0), Blocks(16, {5, 7}, 4)));
    EXPECT_NE("", expected.CheckNothingElse(0, 0, expected.Volume(0), Blocks(16, {3}, 4)));
}

TEST(ExpectedState, WhatWasWrittenIntoASnapshotIsOwedOnceMore)
{
    Expected expected(1, {16});
    expected.TakeAll(0, 0, expected.Volume(0));
    expected.NoteSuccess(0, 0, expected.Clock());
    expected.WriteIntoBackup(0, 0, 9, 1);
    EXPECT_EQ("", expected.CheckNothingElse(0, 0, expected.Volume(0), Blocks(16, {9})));
    EXPECT_NE("", expected.TakeReported(0, 0, expected.Volume(0), Blocks(16, {})));
}

TEST(History, IsReadAsItIsWritten)
{
    for (std::uint64_t seed = 1; seed <= 50; ++seed) {
        const std::string text = ToText(ChooseHistory(seed));
        const auto read = ParseHistory(text);
        ASSERT_TRUE(read.has_value()) << text;
        EXPECT_EQ(text, ToText(*read));
    }
    for (const char* text : {"", "machine", "machine 3", "machine 3:512; frobnicate 0", "machine 3:512; write 0 1",
                             "machine 3:512; write 3", "machine 3:512; write 0 0 !fail 3", "machine 3:512; write 0 x"})
        EXPECT_FALSE(ParseHistory(text).has_value()) << text;
}

TEST(History, ShrinksToWhatIsNeeded)
{
    History history = ChooseHistory(3);
    history.operations.push_back({Do::MarkAll, 1, 0, 0, 0, {}});
    for (std::uint64_t seed = 4; seed < 8; ++seed) {
        for (Operation operation : ChooseHistory(seed).operations) {
            operation.volume = 0;
            history.operations.push_back(operation);
        }
    }
    history.operations.push_back({Do::Crash, 2, 0, 0, 0, {}});
    const History shortest = Shrink(history, [](const History& one) {
        bool marked = false;
        for (const Operation& operation : one.operations) {
            marked = marked || (operation.what == Do::MarkAll && operation.application == 1);
            if (marked && operation.what == Do::Crash && operation.application == 2)
                return true;
        }
        return false;
    });
    EXPECT_EQ(2u, shortest.operations.size());
}

// The same seed gives the same outcomes, log and number of calls, whatever ran before; the test proof_trace looks at another
// process.
TEST(History, HasTheSameTraceEveryTime)
{
    std::vector<std::uint64_t> traces(SLOW ? 5 : 40);
    for (std::uint64_t seed = 1; seed <= traces.size(); ++seed)
        EXPECT_EQ("", RunHistory(ChooseHistory(seed), &traces[seed - 1]));
    for (std::uint64_t seed = traces.size(); seed >= 1; --seed) {
        std::uint64_t again = 0;
        RunHistory(ChooseHistory(seed), &again);
        EXPECT_EQ(traces[seed - 1], again) << "seed " << seed;
    }
    EXPECT_NE(traces[0], traces[1]);
}

TEST(History, ChosenByAnySeedLosesNothing)
{
    const Verdicts before = VerdictsSoFar();
    std::uint64_t histories = 0;
    for (std::uint64_t seed = 1'000; seed < (SLOW ? 1'020 : 1'800); ++seed) {
        const History history = ChooseHistory(seed);
        const CurrentRun current("./dev sim --replay \"" + ToText(history) + "\"");
        const std::string wrong = RunHistory(history);
        ASSERT_EQ("", wrong) << "seed " << seed << Again(history);
        ++histories;
    }
    // Backups that read everything cannot miss anything.
    const std::uint64_t reported = VerdictsSoFar().reported - before.reported;
    EXPECT_GE(reported, 3 * histories);
    EXPECT_GE(3 * reported, VerdictsSoFar().everything - before.everything);
    // Above all those that come first behind what went wrong.
    const std::uint64_t behind = VerdictsSoFar().behindReported - before.behindReported;
    EXPECT_GE(20 * behind, VerdictsSoFar().behindEverything - before.behindEverything);
    EXPECT_GE(20 * behind, histories);
}

// A call fails with whatever errors it can give; those that say "there is none" only where nobody asked.
TEST(History, HasEveryFaultAndError)
{
    std::set<Fault::How> hows;
    std::set<std::uint32_t> once;
    std::set<std::uint32_t> always;
    std::set<std::uint32_t> ofOne;
    Dice dice(1);
    for (int i = 0; i < 5'000; ++i) {
        const Fault fault = ChooseFault(dice);
        hows.insert(fault.how);
        if (fault.how == Fault::How::Fail)
            once.insert(fault.error);
        if (fault.how == Fault::How::FailOn)
            always.insert(fault.error);
        if (fault.how == Fault::How::FailOf)
            ofOne.insert(fault.error);
    }
    // All but the one that is none, the one that lies, and the two that need a look at the call.
    EXPECT_EQ(static_cast<std::size_t>(Fault::How::ShortRead) - 2, hows.size());
    EXPECT_EQ(0u, hows.count(Fault::How::NotThere));
    EXPECT_EQ(1u, once.count(234));
    EXPECT_EQ(0u, always.count(234));
    for (const auto& errors : {once, always}) {
        EXPECT_EQ(0u, errors.count(2) + errors.count(3));
        EXPECT_EQ(1u, errors.count(5));
    }
    EXPECT_EQ(2 * NEVER_ASKED, ofOne.size());
    EXPECT_EQ(2u, *ofOne.begin() % 1000);
}

// What can be drawn at all; each of these takes a different way through the library.
TEST(History, HasEverythingThatCanGoWrong)
{
    std::set<std::uint32_t> writes;  // which one is cut
    std::set<std::uint32_t> changes; // which one is done and fails
    std::set<std::uint32_t> cuts;    // of the power, behind a fault
    bool fetchForgot = false;
    bool two = false;
    bool behindTheOldEnd = false;
    for (std::uint64_t seed = 1; seed <= 20'000; ++seed) {
        const History history = ChooseHistory(seed);
        std::vector<std::uint32_t> grains;
        for (const VolumeShape& shape : history.volumes)
            grains.push_back(shape.grains);
        for (std::size_t i = 0; i < history.operations.size(); ++i) {
            const Operation& operation = history.operations[i];
            if (operation.what == Do::Resize)
                grains[operation.volume] = operation.a;
            if (operation.what == Do::Write &&
                operation.a % grains[operation.volume] >= history.volumes[operation.volume].grains)
                behindTheOldEnd = true;
            two = two || operation.faults.size() == 2;
            for (const Fault& fault : operation.faults) {
                if (fault.how == Fault::How::Short || fault.how == Fault::How::DieInWrite)
                    writes.insert(fault.nth);
                if (fault.how == Fault::How::FailAfter)
                    changes.insert(fault.nth);
                fetchForgot =
                    fetchForgot || (operation.what == Do::Fetch && fault.how == Fault::How::FailAfter &&
                                    fault.nth == 3 && CHANGING[fault.error] == std::wstring_view(L"DeviceIoControl"));
            }
            if (operation.what == Do::PowerCut && i > 0 && !history.operations[i - 1].faults.empty())
                cuts.insert(std::min(operation.a, 2u));
        }
    }
    EXPECT_EQ(16u, writes.size());
    EXPECT_EQ(16u, changes.size());
    EXPECT_EQ((std::set<std::uint32_t>{0, 1, 2}), cuts);
    EXPECT_TRUE(fetchForgot);
    EXPECT_TRUE(two);
    EXPECT_TRUE(behindTheOldEnd);
}

// The control of the verdicts: a library that always asks for a verify loses nothing, and is found out.
TEST(History, IsWrongWhenAVerifyIsAskedForWithoutAReason)
{
    // The library cannot read the list while it is asked.
    class Forger final : public ExportWatch {
    public:
        void Enters(std::size_t, Exported exported) noexcept override
        {
            if (exported == Exported::IsVerifyRequired)
                VTFltSimFailCall(L"RegQueryValueExW", nullptr, 1, 0, ERROR_ACCESS_DENIED);
        }
        void Leaves(std::size_t, Exported) noexcept override { VTFltSimClearCallFaults(); }
    } forger;
    for (const char* text : {"machine 100:512; register 0", "machine 100:512; register 0; backup 0 0; write 0 0 5"}) {
        const auto history = ParseHistory(text);
        World world(history->volumes);
        for (const Operation& operation : history->operations)
            ASSERT_EQ("", world.Run(operation));
        world.AtOnce(forger, World::Volumes::Shared);
        EXPECT_EQ("a verify is required though nothing ever went wrong", world.Run({Do::Backup, 0, 0, 0, 0, {}}))
            << text;
    }
}

} // namespace
} // namespace vtproof
