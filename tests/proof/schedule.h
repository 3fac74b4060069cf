// Several processes at once: who does what, and where the turn goes from one to another, as data.
//
// Everything begins one by one. Then each process runs a list of operations on a thread of its own, and a process can lose
// its turn before each call of Windows that it makes. There are two kinds:
//
// A meeting of two exports: each process stops where it calls its export; then both go on, and the turn changes before at
// most two calls that the schedule names. Process 0 may die in its export, while the other one waits for what it owns, say;
// it goes on as one that is started again. When both are through, the first process comes to its end, then the second. They
// may be on the same volume, against rule 3 of docs/guarantees.md, and so nobody writes behind a snapshot whose fetch another
// one's whole fetch precedes (Limit.AWholeFetchOfAnotherFallsBetweenTheSnapshotAndTheFetch): see MeetingOf.
//
// A mix: from the beginning to the end, the seed says before every call whether the turn changes, and who has it whenever
// somebody waits. Rule 3 holds: who backs a volume up waits until nobody else does.
#pragma once

#include "proof/exported.h"
#include "proof/operation.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vtproof {

inline constexpr std::uint32_t MOST_PROCESSES = 4; // process N is application N

struct Schedule {
    History before;
    std::vector<std::vector<Operation>> processes;

    // The meeting: process 0 and process 1 at the nth call of an export.
    struct Place {
        Exported exported = Exported::Count;
        std::uint32_t nth = 1;
    };
    bool meets = false;
    Place places[2];
    std::uint32_t first = 0;         // whose turn it is
    std::uint32_t turns[2] = {0, 0}; // before which of the calls of both the turn changes; 0: never
    std::uint32_t arrives = 0;       // who comes to its place first
    std::uint32_t between = 0;       // the volume that is written to when the first has arrived, plus 1
    std::uint32_t writes = 0;        // before which of the calls volume 0 is written to
    std::uint32_t loses = 0;         // the volume that loses tracking when they have met, plus 1
    std::uint32_t dies = 0;          // behind which of its calls process 0 dies: before the next one; 0: it lives

    // The mix.
    std::uint64_t seed = 0;
    std::uint32_t oneIn = 1; // calls before which the turn changes
};

// "machine 100:512; register 0 | backup 0 0 | backup 1 0 | meet VTFltGetBitmap 2 VTIsVerifyRequired 1 first 0 turns 7 0 loses 0
// arrives 0 between 1 writes 9 dies 0"
// "machine 100:512 | register 0; backup 0 0 | register 1; backup 1 0 | mix 17 4"
std::string ToText(const Schedule& schedule);
std::optional<Schedule> ParseSchedule(std::string_view text);

struct ScheduleRun {
    std::string wrong;               // empty: nothing
    std::uint64_t trace = 0;         // of calls, outcomes and turns
    bool met = false;                // a meeting took place
    std::uint32_t calls[2] = {0, 0}; // of each process between meeting and end of its export
    std::uint32_t changes = 0;       // how often the turn changed
    std::uint32_t alternations = 0;  // calls of a meeting that another process made than the call before
    bool died = false;               // process 0, in its export,
    bool waited = false;             // when the other one was in a wait; a wait that ends so is abandoned,
    bool wentOn = false;             // and that one did more in its export than to give up what it had
};
ScheduleRun RunSchedule(const Schedule& schedule, bool tell = false);

// Which of the schedules of a seed. Even numbers are meetings: of each pair of exports, in each state of the machine, first
// without a change of the turn, then with one (before each call but the first: there it says only who begins) and with two
// (chosen) by turns. Odd ones are mixes.
class Schedules {
public:
    explicit Schedules(std::uint64_t seed) : m_seed(seed) {}
    Schedule Choose(std::uint64_t number);

private:
    struct Lengths {
        bool known = false;
        std::uint32_t calls[2] = {0, 0};
    };
    std::uint64_t m_seed;
    std::vector<Lengths> m_lengths; // by pair and state
};

// The meeting of two exports in one of the states of a machine, the turn not changing.
inline constexpr std::uint32_t MEETING_STATES = 4;
Schedule MeetingOf(Exported first, Exported second, std::uint32_t state);

inline constexpr std::uint32_t MEETINGS = EXPORT_COUNT * EXPORT_COUNT * MEETING_STATES;
// The same by number: of each pair in each state.
Schedule MeetingOf(std::uint32_t which);
// Of a meeting all that differ by one change of the turn: either process begins, and either keeps the turn or loses it before
// one of its calls but the first.
std::vector<Schedule> WithOneChange(const Schedule& meeting);

// The shortest that stays broken.
Schedule Shrink(Schedule schedule);

} // namespace vtproof
