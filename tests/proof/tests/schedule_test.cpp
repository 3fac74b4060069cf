// Samples of the schedules; ./dev sim schedules does as many as one likes.
#include "proof/schedule.h"

#include "double/control.h"
#include "proof/tests/replay.h"
#include "support/text.h"
#include "win/owners.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

namespace vtproof {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr std::uint32_t SLOWER = 20;
#else
constexpr std::uint32_t SLOWER = 1;
#endif

TEST(Meetings, OfAllPairsOfExportsTakePlaceAndLoseNothing)
{
    for (std::size_t first = 0; first < EXPORT_COUNT; ++first) {
        for (std::size_t second = 0; second < EXPORT_COUNT; ++second) {
            for (std::uint32_t state = 0; state < MEETING_STATES; ++state) {
                // Under the sanitizers a few, of each state.
                if (((first * EXPORT_COUNT + second) * (MEETING_STATES + 1) + state) % (4 * SLOWER - 3) != 0)
                    continue;
                const Schedule schedule = MeetingOf(static_cast<Exported>(first), static_cast<Exported>(second), state);
                const ScheduleRun run = RunSchedule(schedule);
                EXPECT_TRUE(run.met) << ToText(schedule);
                EXPECT_EQ("", run.wrong) << Again(schedule);
            }
        }
    }
}

// Each of the two begins, and keeps the turn or loses it before one of its calls: nothing is left out, and nothing is twice.
TEST(Meetings, WithOneChangeHaveItBeforeEveryCall)
{
    const Schedule meeting = MeetingOf(Exported::ReplicationSuccess, Exported::IsVerifyRequired, 0);
    const ScheduleRun plain = RunSchedule(meeting);
    std::set<std::string> texts;
    std::set<std::uint32_t> turns[2];
    for (const Schedule& one : WithOneChange(meeting)) {
        EXPECT_TRUE(texts.insert(ToText(one)).second);
        ASSERT_LT(one.first, 2u);
        turns[one.first].insert(one.turns[0]);
        EXPECT_EQ(0u, one.turns[1]);
        const ScheduleRun run = RunSchedule(one);
        EXPECT_EQ("", run.wrong) << Again(one);
        EXPECT_EQ(one.turns[0] != 0, run.changes != 0) << ToText(one);
    }
    for (std::uint32_t first = 0; first < 2; ++first) {
        EXPECT_EQ(plain.calls[first], turns[first].size());
        EXPECT_EQ(0u, *turns[first].begin());
        EXPECT_EQ(plain.calls[first], *turns[first].rbegin());
    }
    std::set<std::string> meetings;
    for (std::uint32_t which = 0; which < MEETINGS; ++which)
        meetings.insert(ToText(MeetingOf(which)));
    EXPECT_EQ(MEETINGS - 1, meetings.size()) << "two that register have nothing that could be to verify";
}

// A turn that changes in the middle of an export, and another one that changes it back.
TEST(Meetings, ChangeTheTurnWhereTheyAreTold)
{
    Schedule schedule = MeetingOf(Exported::GetBitmap, Exported::GetBitmap, 0);
    const ScheduleRun undisturbed = RunSchedule(schedule);
    EXPECT_EQ(0u, undisturbed.changes);
    EXPECT_GT(undisturbed.calls[0], 20u);
    EXPECT_GT(undisturbed.calls[1], 20u);
    schedule.turns[0] = 3;
    schedule.turns[1] = 5;
    const ScheduleRun changed = RunSchedule(schedule);
    EXPECT_EQ(2u, changed.changes);
    EXPECT_GE(changed.alternations, 2u);
    EXPECT_EQ("", changed.wrong);
    EXPECT_NE(undisturbed.trace, changed.trace);
}

// What shares the bitmap files most: before each call of the one, the other has the turn.
TEST(Meetings, OfAFetchWithWhatWritesBitmapsLoseNothingWhereverTheTurnChanges)
{
    for (const Exported other : {Exported::GetBitmap, Exported::SyncSnapshotChanges, Exported::ReplicationSuccess}) {
        Schedule schedule = MeetingOf(other, Exported::GetBitmap, 0);
        const ScheduleRun undisturbed = RunSchedule(schedule);
        for (schedule.first = 0; schedule.first < 2; ++schedule.first) {
            // Not before the first: nothing has happened then.
            for (std::uint32_t call = 2; call <= undisturbed.calls[schedule.first]; call += SLOWER == 1 ? 1 : 4) {
                schedule.turns[0] = call;
                const ScheduleRun run = RunSchedule(schedule);
                ASSERT_EQ("", run.wrong) << Again(schedule);
                EXPECT_TRUE(run.met) << ToText(schedule);
            }
        }
    }
}

// Before each of its calls the one dies that has the mutexes which the other one waits for.
TEST(Meetings, OfOneThatDiesWhileTheOtherWaitsLoseNothing)
{
    unsigned runs = 0;
    unsigned died = 0;
    unsigned waited = 0;
    unsigned wentOn = 0;
    for (const Exported dying : {Exported::GetBitmap, Exported::SyncSnapshotChanges, Exported::ReplicationSuccess,
                                 Exported::IsVerifyRequired, Exported::ReplicateVerifyList}) {
        for (const Exported other : {dying, Exported::GetBitmap, Exported::Register}) {
            Schedule schedule = MeetingOf(dying, other, 1);
            const ScheduleRun undisturbed = RunSchedule(schedule);
            EXPECT_FALSE(undisturbed.died);
            for (std::uint32_t call = 1; call < undisturbed.calls[0]; call += SLOWER) {
                schedule.turns[0] = std::max(2u, call);
                schedule.dies = call;
                const ScheduleRun run = RunSchedule(schedule);
                ASSERT_EQ("", run.wrong) << Again(schedule);
                ++runs;
                died += run.died ? 1 : 0;
                waited += run.waited ? 1 : 0;
                wentOn += run.waited && run.wentOn ? 1 : 0;
            }
        }
    }
    EXPECT_GE(runs, 400 / SLOWER);
    EXPECT_GE(died, runs * 3 / 4);
    EXPECT_GE(waited, runs / 4);
    EXPECT_EQ(waited, wentOn) << "a mutex that its dead owner left is one that can be had";
}

TEST(Schedules, ChosenByAnySeedLoseNothing)
{
    constexpr std::uint64_t BELOW = 1'000'000;
    constexpr std::uint64_t STEP = 7'919; // so that they are of many pairs of exports
    Schedules schedules(1);
    for (std::uint64_t i = 0; i < 400 / SLOWER; ++i) {
        const Schedule schedule = schedules.Choose(i * STEP % BELOW);
        const ScheduleRun run = RunSchedule(schedule);
        ASSERT_EQ("", run.wrong) << Again(schedule);
        EXPECT_EQ(schedule.meets, run.met) << ToText(schedule);
    }
}

// Of the rounds with one change each has it before another call, none before the first: there it says only who begins.
TEST(Schedules, ChangeTheTurnBeforeEveryCallButTheFirst)
{
    // The same meeting round by round: two fetches of one volume.
    constexpr auto FETCH = static_cast<std::uint64_t>(Exported::GetBitmap);
    constexpr std::uint64_t WHICH = (FETCH * EXPORT_COUNT + FETCH) * MEETING_STATES;
    const ScheduleRun plain = RunSchedule(MeetingOf(Exported::GetBitmap, Exported::GetBitmap, 0));
    Schedules schedules(1);
    std::set<std::uint32_t> ones[2];
    std::set<std::uint32_t> twos;
    const std::uint64_t rounds = 4 * std::uint64_t{std::max(plain.calls[0], plain.calls[1])};
    for (std::uint64_t round = 2; round < 2 + rounds; ++round) {
        const Schedule schedule = schedules.Choose(2 * (round * MEETINGS + WHICH));
        ASSERT_TRUE(schedule.meets);
        EXPECT_GE(schedule.turns[0], 2u);
        EXPECT_LE(schedule.turns[0], plain.calls[schedule.first]);
        if (schedule.turns[1] == 0)
            EXPECT_TRUE(ones[schedule.first].insert(schedule.turns[0]).second) << ToText(schedule);
        else
            twos.insert(schedule.turns[1] - schedule.turns[0]);
        if (round < 2 + 20 / SLOWER)
            EXPECT_GE(RunSchedule(schedule).alternations, 2u) << ToText(schedule);
    }
    for (std::uint32_t first = 0; first < 2; ++first)
        EXPECT_EQ(plain.calls[first] - 1, ones[first].size());
    EXPECT_GE(*twos.begin(), 2u);
}

TEST(Schedules, AreReadAsTheyAreWritten)
{
    Schedules schedules(3);
    for (std::uint64_t number = 0; number < 40; ++number) {
        const std::string text = ToText(schedules.Choose(number));
        const auto read = ParseSchedule(text);
        ASSERT_TRUE(read.has_value()) << text;
        EXPECT_EQ(text, ToText(*read));
    }
    for (
        const char* text :
        {"", "machine 100:512", "machine 100:512 | mix 1 1", "machine 100:512 | register 0 | mix 1 0",
         "machine 100:512 | register 9 | mix 1 1", "machine 100:512 | register 0 | meet VTOther 1",
         "machine 100:512 | backup 0 | backup 1 | meet VTFltGetBitmap 1 VTOther 1 first 0 turns 0 0 loses 0 arrives 0 between 0 writes 0 dies 0",
         "machine 100:512 | backup 0 | backup 1 | meet VTFltGetBitmap 1 VTFltGetBitmap 1 first 0 turns 0 0 loses 2 arrives 0 between 0 writes 0 dies 0",
         "machine 100:512 | backup 0 | backup 1 | meet VTFltGetBitmap 1 VTFltGetBitmap 1 first 0 turns 0 0 loses 0 arrives 0 between 0 writes 0"})
        EXPECT_FALSE(ParseSchedule(text).has_value()) << text;
}

// A process does what is its own; nothing fails there, and nobody takes the power away.
TEST(Schedules, AreReadOnlyWhereEachProcessDoesItsOwn)
{
    for (const char* text :
         {"machine 100:512 | backup 3 0 | backup 1 0 | mix 1 1", "machine 100:512 | backup 1 0 | backup 1 0 | mix 1 1",
          "machine 100:512 | backup 0 0 | backup 1 0; power-cut 1 0 1 | mix 1 1",
          "machine 100:512 | backup 0 0 0 0 !fail 5 5 | backup 1 0 | mix 1 1",
          "machine 100:512 | backup 0 0; resize 0 0 0 | backup 1 0 | mix 1 1",
          "machine 0:512 | backup 0 0 | backup 1 0 | mix 1 1"})
        EXPECT_FALSE(ParseSchedule(text).has_value()) << text;
    EXPECT_TRUE(ParseSchedule("machine 100:512 | damage 1 0 | backup 1 0; write 0 0 5 | mix 1 1").has_value());
}

// Whatever was chosen before it, by this part of a run or another one.
TEST(Schedules, AreTheSameByTheirNumberAlone)
{
    constexpr std::uint64_t ROUND = MEETINGS;
    for (std::uint64_t which = 5; which < ROUND; which += 400 * SLOWER) {
        Schedules alone(1);
        Schedules behind(1);
        behind.Choose(2 * (2 * ROUND + which));
        const std::uint64_t number = 2 * (5 * ROUND + which);
        EXPECT_EQ(ToText(alone.Choose(number)), ToText(behind.Choose(number)));
    }
}

// A process that dies while it has the driver's list does not keep it from what comes behind that.
TEST(Meetings, OfOneThatDiesWithTheDriversListLeaveNothingOut)
{
    Schedule schedule = MeetingOf(Exported::ReplicateVerifyList, Exported::IsVerifyRequired, 1);
    const ScheduleRun undisturbed = RunSchedule(schedule);
    Operation loses;
    loses.what = Do::LoseTracking;
    schedule.processes[1].push_back(loses);
    unsigned died = 0;
    const std::uint64_t leftOut = VerdictsSoFar().leftOut;
    for (schedule.dies = 1; schedule.dies < undisturbed.calls[0]; schedule.dies += SLOWER) {
        const ScheduleRun run = RunSchedule(schedule);
        EXPECT_EQ("", run.wrong) << ToText(schedule);
        died += run.died ? 1 : 0;
    }
    EXPECT_GT(died, 0u);
    EXPECT_EQ(leftOut, VerdictsSoFar().leftOut);
}

// The driver waits for its list, and meanwhile somebody begins to hand that out.
TEST(Schedules, LoseNothingThatTheDriverListsWhileItWaitsForTheList)
{
    for (
        const char* text :
        {"machine 100:1024 60:512; register 1 0 0 0; register 2 0 0 0 | lose-tracking 0 1 0 0; | backup 1 1 0 0; | "
         "start-tracking 2 0 0 0; backup 2 0 0 0; | mix 4295056600 4",
         "machine 100:1024 60:512; register 0 0 0 0; register 1 0 0 0; register 3 0 0 0; backup 3 0 0 0 | backup 0 1 612 "
         "6; | unmark 1 0 0 0; write 1 0 104 0; | unregister 2 1 0 0; start-tracking 2 0 0 0; | start-tracking 3 1 0 0; "
         "ask 3 0 0 0; | mix 4294991532 1",
         "machine 100:1024 60:512; register 2 0 0 0; register 3 0 0 0 | lose-tracking 0 1 0 0; | start-tracking 1 0 0 0; "
         "| backup 2 1 0 0; | backup 3 0 0 0; | mix 4295060806 8"}) {
        const std::optional<Schedule> schedule = ParseSchedule(text);
        ASSERT_TRUE(schedule) << text;
        EXPECT_EQ("", RunSchedule(*schedule).wrong) << text;
    }
}

// The same schedule gives the same outcomes, log, turns and number of calls, whatever ran before.
TEST(Schedules, HaveTheSameTraceEveryTime)
{
    Schedules schedules(5);
    std::vector<Schedule> chosen;
    std::vector<std::uint64_t> traces;
    for (std::uint64_t number = 0; number < 40 / SLOWER; ++number) {
        chosen.push_back(schedules.Choose(50'000 + number));
        traces.push_back(RunSchedule(chosen.back()).trace);
    }
    for (std::size_t i = chosen.size(); i-- > 0;)
        EXPECT_EQ(traces[i], RunSchedule(chosen[i]).trace) << ToText(chosen[i]);
    Schedule other = chosen[1];
    ASSERT_FALSE(other.meets);
    other.oneIn = 1;
    ++other.seed;
    EXPECT_NE(traces[1], RunSchedule(other).trace);
}

// Two threads, each with what the other waits for.
TEST(Schedules, SayWhenNobodyCouldGoOn)
{
    struct Both {
        const wchar_t* first;
        const wchar_t* second;
    };
    const auto takeBoth = [](void* argument) {
        const auto& names = *static_cast<const Both*>(argument);
        const vtflt::UniqueHandle first(CreateMutexW(nullptr, FALSE, names.first));
        const vtflt::UniqueHandle second(CreateMutexW(nullptr, FALSE, names.second));
        WaitForSingleObject(first.get(), INFINITE);
        DoubleYield();
        WaitForSingleObject(second.get(), 1'800'000);
        ReleaseMutex(second.get());
        ReleaseMutex(first.get());
    };
    DoubleTakeStuck();
    Both there{L"Here", L"There"};
    Both back{L"There", L"Here"};
    const std::uint64_t first = DoubleStartThread(takeBoth, &there);
    const std::uint64_t second = DoubleStartThread(takeBoth, &back);
    DoubleJoinThread(first);
    DoubleJoinThread(second);
    const std::string stuck = DoubleTakeStuck();
    EXPECT_NE(std::string::npos, stuck.find("Here")) << stuck;
    EXPECT_NE(std::string::npos, stuck.find("There")) << stuck;
    EXPECT_STREQ("", DoubleTakeStuck());
}

} // namespace
} // namespace vtproof
