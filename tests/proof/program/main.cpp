// vtfltproof: long runs of the proof that no change is lost.
//
//     double_host vtfltproof.exe histories [--seed S] [--histories N] [--minutes M] [--part I/N]
//     double_host vtfltproof.exe sweep KIND [--one-in N] [--seed S] [--minutes M] [--part I/N]
//     double_host vtfltproof.exe sweep power-cuts --each-point 1 [...]      at every point, in one or two ways
//     double_host vtfltproof.exe schedules [--count N] [--seed S] [--minutes M] [--part I/N]
//     double_host vtfltproof.exe meetings [--minutes M] [--part I/N]
//     double_host vtfltproof.exe years [--years N] [--seed S] [--minutes M] [--part I/N]
//     double_host vtfltproof.exe count                          how many runs each whole sweep has
//     double_host vtfltproof.exe replay "machine 300:512; register 0; ..."      (a schedule has parts, between |)
#include "proof/current_run.h"
#include "proof/random_history.h"
#include "proof/schedule.h"
#include "proof/sweep.h"
#include "proof/world.h"
#include "proof/years.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vtproof {
namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::uint64_t seed = 1;
    std::uint64_t count = 0; // over all parts; 0: not said
    double minutes = 0;      // 0: not said; of the two what is reached first
    std::uint64_t part = 0;
    std::uint64_t parts = 1;
    std::uint64_t oneIn = 1;
    std::uint64_t eachPoint = 0; // 1: of the power cuts
    std::uint64_t years = 10;
};

double SecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// One line that is written again and again.
class Progress {
public:
    explicit Progress(const Options& options) : m_options(options) {}
    bool Goes(std::uint64_t done)
    {
        constexpr std::uint64_t UNSAID = 10'000;
        if (m_options.count == 0 && m_options.minutes > 0)
            return Goes(done, 0);
        const std::uint64_t count = m_options.count == 0 ? UNSAID : m_options.count;
        return Goes(done, static_cast<double>(done * m_options.parts) / static_cast<double>(count));
    }
    bool Goes(std::uint64_t done, double share)
    {
        const double elapsed = SecondsSince(m_start);
        if (m_options.minutes > 0)
            share = std::max(share, elapsed / (m_options.minutes * 60));
        if (m_options.part == 0 && elapsed >= m_next) {
            m_next = elapsed + 2;
            const double left = share > 0 ? elapsed / share - elapsed : 0;
            std::fprintf(stderr, "%llu done, %.0f a second, %.0f %%, %.0f s left\n",
                         static_cast<unsigned long long>(done), static_cast<double>(done) / elapsed, share * 100, left);
        }
        return share < 1;
    }
    double Seconds() const { return SecondsSince(m_start); }

private:
    const Options& m_options;
    Clock::time_point m_start = Clock::now();
    double m_next = 2;
};

std::string CommandFor(const std::string& text)
{
    return "run it again with\n    ./dev sim --replay \"" + text + "\"";
}

std::string RunTold(const History& history, std::uint64_t* trace = nullptr,
                    World::Thoroughly thoroughly = World::Thoroughly::Yes)
{
    const CurrentRun current(CommandFor(ToText(history)));
    return RunHistory(history, trace, false, thoroughly);
}

int Report(const History& history, const std::string& wrong)
{
    std::fprintf(stderr, "broken: %s\n%s\n", wrong.c_str(), CommandFor(ToText(history)).c_str());
    const History shortest = Shrink(history, [](const History& one) { return !RunTold(one).empty(); });
    std::fprintf(stderr, "%zu operations are left: %s\n%s\n", shortest.operations.size(), RunTold(shortest).c_str(),
                 CommandFor(ToText(shortest)).c_str());
    return 1;
}

// What the runs were held against. One that reads everything cannot miss anything: a library that always asked for that would
// pass, and shows here.
enum class Behind { Told, NotTold };
int PrintVerdicts(std::uint64_t runs, Behind behind = Behind::NotTold)
{
    const Verdicts& verdicts = VerdictsSoFar();
    const auto print = [](const char* what, std::uint64_t count) {
        std::fprintf(stderr, " %s: %llu;", what, static_cast<unsigned long long>(count));
    };
    std::fputs("   ", stderr);
    print("backups of the reported blocks", verdicts.reported);
    print("of everything", verdicts.everything);
    print("bitmaps held against the writes", verdicts.nothingElse);
    print("asked again behind a failed fetch", verdicts.askedAgain);
    print("first backups of what was struck, of the reported blocks", verdicts.behindReported);
    print("and of everything", verdicts.behindEverything);
    print("bitmap files looked at behind a fault", verdicts.files);
    print("unusable of them", verdicts.unusable);
    print("power cuts looked behind", verdicts.cuts);
    print("what was owed sought in files and driver", verdicts.owed);
    print("snapshot changes sought in the child", verdicts.handedBack);
    print("marks of such that failed", verdicts.marked);
    print("operations with a fault", verdicts.faulty);
    print("struck by it", verdicts.struck);
    print("losses of tracking sought on the lists", verdicts.told);
    print("left out, as the driver's list was being handed out", verdicts.leftOut);
    std::fputs("\n", stderr);
    // Of a few it may be so by chance.
    constexpr std::uint64_t ENOUGH = 1'000;
    if (behind == Behind::Told && verdicts.behindEverything >= ENOUGH &&
        20 * verdicts.behindReported < verdicts.behindEverything) {
        std::fputs("broken: nearly all that were struck read everything\n", stderr);
        return 1;
    }
    if (verdicts.reported != 0)
        return 0;
    std::fprintf(stderr, runs == 0 ? "broken: there were no runs\n"
                                   : "broken: no backup was held against the reported blocks\n");
    return 1;
}

int Histories(const Options& options)
{
    Progress progress(options);
    std::uint64_t done = 0;
    std::uint64_t traces = 0;
    for (; progress.Goes(done); ++done) {
        const std::uint64_t seed = options.seed + options.part + done * options.parts;
        const History history = ChooseHistory(seed);
        std::uint64_t trace = 0;
        // A lost change shows in the first backups behind a history; whether nothing at all is left of it takes as long
        // again. What is broken by the short way is so by the long one.
        const auto thoroughly = seed % 4 == 0 ? World::Thoroughly::Yes : World::Thoroughly::No;
        const std::string wrong = RunTold(history, &trace, thoroughly);
        traces = (traces ^ trace) * 0x100000001b3ull;
        if (!wrong.empty()) {
            std::fprintf(stderr, "seed %llu\n", static_cast<unsigned long long>(seed));
            return Report(history, wrong);
        }
    }
    std::fprintf(stderr, "%llu histories from seed %llu, %.0f s, none broken, trace %016llx\n",
                 static_cast<unsigned long long>(done), static_cast<unsigned long long>(options.seed + options.part),
                 progress.Seconds(), static_cast<unsigned long long>(traces));
    return PrintVerdicts(done, Behind::Told);
}

int RunYears(Options options)
{
    YearsOptions years;
    years.seed = options.seed + options.part * 1'000'003; // no other seed's
    years.hours = static_cast<std::uint32_t>(options.years * HOURS_A_YEAR);
    options.count = years.hours;
    options.parts = 1; // each part has a machine of its own for all of the time
    Progress progress(options);
    years.progress = [&](std::uint32_t hour) { return progress.Goes(hour); };
    const YearsResult result = RunYears(years);
    if (!result.wrong.empty()) {
        std::fprintf(stderr, "broken in hour %u of seed %llu, %zu operations since everything was put right: %s\n",
                     result.hours, static_cast<unsigned long long>(years.seed), result.since.operations.size(),
                     result.wrong.c_str());
        if (!RunTold(result.since).empty())
            return Report(result.since, result.wrong);
        std::fprintf(stderr, "it needs what was before: ./dev sim years --seed %llu --years %llu\n",
                     static_cast<unsigned long long>(years.seed), static_cast<unsigned long long>(options.years));
        return 1;
    }
    std::fprintf(stderr,
                 "%u hours of seed %llu: %llu operations, %llu backups, %llu disturbances, %.0f s, none broken, "
                 "trace %016llx\n",
                 result.hours, static_cast<unsigned long long>(years.seed),
                 static_cast<unsigned long long>(result.operations), static_cast<unsigned long long>(result.backups),
                 static_cast<unsigned long long>(result.disturbances), progress.Seconds(),
                 static_cast<unsigned long long>(result.trace));
    return PrintVerdicts(result.hours);
}

int Sweep(const Options& options, SweepKind kind)
{
    Progress progress(options);
    SweepOptions sweep;
    sweep.kind = kind;
    sweep.part = static_cast<std::uint32_t>(options.part);
    sweep.parts = static_cast<std::uint32_t>(options.parts);
    sweep.oneIn = static_cast<std::uint32_t>(options.oneIn);
    sweep.seed = options.seed;
    sweep.eachPoint = options.eachPoint != 0;
    sweep.progress = [&](std::uint64_t runs, double share) { return progress.Goes(runs, share); };
    const std::vector<Scenario> scenarios = AllScenarios();
    const SweepResult result = RunSweep(scenarios, sweep);
    if (!result.wrong.empty()) {
        std::fprintf(stderr, "%s\n", result.scenario.c_str());
        return Report(result.history, result.wrong);
    }
    std::fprintf(
        stderr, "%s: %llu runs of %zu scenarios%s, the fault struck in %llu, %.0f s, none broken, trace %016llx\n",
        SWEEP_NAMES[static_cast<std::size_t>(kind)], static_cast<unsigned long long>(result.runs), scenarios.size(),
        result.endedEarly ? " (ended early, not all of them)" : "", static_cast<unsigned long long>(result.struck),
        progress.Seconds(), static_cast<unsigned long long>(result.trace));
    // Behind a power cut everybody verifies first.
    const int held = PrintVerdicts(result.runs, kind == SweepKind::PowerCuts ? Behind::NotTold : Behind::Told);
    if (result.struck == result.runs)
        return held;
    std::fprintf(stderr, "broken: in %llu runs nothing went wrong, such as\n    ./dev sim --replay \"%s\"\n",
                 static_cast<unsigned long long>(result.runs - result.struck), ToText(result.missed).c_str());
    return 1;
}

// Counts without running.
int Count()
{
    const std::vector<Scenario> scenarios = AllScenarios();
    for (std::size_t kind = 0; kind < std::size(SWEEP_NAMES); ++kind) {
        SweepOptions sweep;
        sweep.kind = static_cast<SweepKind>(kind);
        sweep.seed = Options().seed; // what is called behind a failure depends on it
        sweep.run = [](const History&, bool, bool* struck) {
            *struck = true;
            return std::string();
        };
        const SweepResult result = RunSweep(scenarios, sweep);
        if (!result.wrong.empty())
            return Report(result.history, result.wrong);
        std::fprintf(stderr, "%s: %llu runs of %zu scenarios\n", SWEEP_NAMES[kind],
                     static_cast<unsigned long long>(result.runs), scenarios.size());
    }
    return 0;
}

int SweepNamed(const Options& options, const char* name)
{
    for (std::size_t kind = 0; kind < std::size(SWEEP_NAMES); ++kind) {
        if (std::strcmp(name, SWEEP_NAMES[kind]) == 0)
            return Sweep(options, static_cast<SweepKind>(kind));
    }
    std::fprintf(stderr, "there is no sweep %s\n", name);
    return 2;
}

int Report(const Schedule& schedule, const std::string& wrong)
{
    std::fprintf(stderr, "broken: %s\n%s\n", wrong.c_str(), CommandFor(ToText(schedule)).c_str());
    const Schedule shortest = Shrink(schedule);
    std::fprintf(stderr, "shorter: %s\n%s\n", RunSchedule(shortest).wrong.c_str(),
                 CommandFor(ToText(shortest)).c_str());
    return 1;
}

// Schedules one behind another, until one is broken.
class ScheduleRuns {
public:
    // False: it is broken, and reported.
    bool Run(const Schedule& schedule, std::uint64_t number)
    {
        const ScheduleRun run = RunSchedule(schedule);
        ++m_done;
        m_traces = (m_traces ^ run.trace) * 0x100000001b3ull;
        m_changes += run.changes;
        m_meetings += schedule.meets ? 1 : 0;
        // Somebody, then the other one, then the first one again.
        m_interrupted += run.alternations >= 2 ? 1 : 0;
        if (!run.wrong.empty()) {
            std::fprintf(stderr, "schedule %llu\n", static_cast<unsigned long long>(number));
            Report(schedule, run.wrong);
            return false;
        }
        if (!schedule.meets || run.met)
            return true;
        std::fprintf(stderr, "broken: schedule %llu, a meeting that does not take place\n%s\n",
                     static_cast<unsigned long long>(number), CommandFor(ToText(schedule)).c_str());
        return false;
    }
    std::uint64_t Done() const { return m_done; }
    int Print(const char* of, double seconds) const
    {
        std::fprintf(stderr,
                     "%llu schedules%s, %llu of them meetings, in %llu of these an export was interrupted; %llu "
                     "changes of turn, %.0f s, none broken, trace %016llx\n",
                     static_cast<unsigned long long>(m_done), of, static_cast<unsigned long long>(m_meetings),
                     static_cast<unsigned long long>(m_interrupted), static_cast<unsigned long long>(m_changes),
                     seconds, static_cast<unsigned long long>(m_traces));
        return PrintVerdicts(m_done);
    }

private:
    std::uint64_t m_done = 0;
    std::uint64_t m_changes = 0;
    std::uint64_t m_meetings = 0;
    std::uint64_t m_interrupted = 0;
    std::uint64_t m_traces = 0;
};

int RunSchedules(const Options& options)
{
    Progress progress(options);
    Schedules schedules(options.seed);
    ScheduleRuns runs;
    while (progress.Goes(runs.Done())) {
        // Pairwise, so that every part has meetings and mixes.
        const std::uint64_t done = runs.Done();
        const std::uint64_t number = done / 2 * 2 * options.parts + 2 * options.part + done % 2;
        if (!runs.Run(schedules.Choose(number), number))
            return 1;
    }
    return runs.Print((" of seed " + std::to_string(options.seed)).c_str(), progress.Seconds());
}

// Every meeting, with the turn changing before every call of either.
int RunMeetings(const Options& options)
{
    Progress progress(options);
    ScheduleRuns runs;
    for (auto which = static_cast<std::uint32_t>(options.part); which < MEETINGS;
         which += static_cast<std::uint32_t>(options.parts)) {
        for (const Schedule& one : WithOneChange(MeetingOf(which))) {
            if (!runs.Run(one, which))
                return 1;
        }
        if (!progress.Goes(runs.Done(), static_cast<double>(which) / MEETINGS))
            return runs.Print(" (ended early, not all of them)", progress.Seconds());
    }
    return runs.Print(" with one change of the turn at most", progress.Seconds());
}

int ReplaySchedule(const char* text)
{
    const auto schedule = ParseSchedule(text);
    if (!schedule) {
        std::fputs("that is no schedule\n", stderr);
        return 2;
    }
    const ScheduleRun run = RunSchedule(*schedule, true);
    const bool missed = schedule->meets && !run.met;
    const char* const right = missed ? "nothing is wrong, but the meeting does not take place" : "nothing is wrong";
    std::fprintf(stderr, "%s, trace %016llx\n", run.wrong.empty() ? right : run.wrong.c_str(),
                 static_cast<unsigned long long>(run.trace));
    return run.wrong.empty() && !missed ? 0 : 1;
}

int Replay(const char* text)
{
    if (std::strchr(text, '|') != nullptr)
        return ReplaySchedule(text);
    const auto history = ParseHistory(text);
    if (!history) {
        std::fputs("that is no history\n", stderr);
        return 2;
    }
    std::uint64_t trace = 0;
    bool struck = false;
    const std::string wrong = RunHistory(*history, &trace, true, World::Thoroughly::Yes, &struck);
    // That a chosen fault meets nothing is allowed; that one of a sweep does is not.
    const bool missed = !struck && std::any_of(history->operations.begin(), history->operations.end(),
                                               [](const Operation& one) { return !one.faults.empty(); });
    const char* const right = missed ? "nothing is wrong, and the last fault met nothing" : "nothing is wrong";
    std::fprintf(stderr, "%s, trace %016llx\n", wrong.empty() ? right : wrong.c_str(),
                 static_cast<unsigned long long>(trace));
    return wrong.empty() ? 0 : 1;
}

bool Parse(int argc, char** argv, int first, Options& options)
{
    for (int i = first; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        char* rest = nullptr;
        if (name == "--seed")
            options.seed = std::strtoull(argv[i + 1], &rest, 0);
        else if (name == "--histories" || name == "--count") {
            options.count = std::strtoull(argv[i + 1], &rest, 0);
            if (options.count == 0)
                return false;
        } else if (name == "--one-in")
            options.oneIn = std::strtoull(argv[i + 1], &rest, 0);
        else if (name == "--each-point")
            options.eachPoint = std::strtoull(argv[i + 1], &rest, 0);
        else if (name == "--years")
            options.years = std::strtoull(argv[i + 1], &rest, 0);
        else if (name == "--minutes")
            options.minutes = std::strtod(argv[i + 1], &rest);
        else if (name == "--part") {
            options.part = std::strtoull(argv[i + 1], &rest, 0);
            options.parts = *rest == '/' ? std::strtoull(rest + 1, &rest, 0) : 0;
        } else
            return false;
        if (*rest != '\0' || options.part >= options.parts || options.oneIn == 0 || options.years == 0 ||
            options.years > 1000)
            return false;
    }
    return (argc - first) % 2 == 0;
}

} // namespace
} // namespace vtproof

int main(int argc, char** argv)
{
    using namespace vtproof;
    Options options;
    TellWhatCrashes();
    if (argc == 2 && std::strcmp(argv[1], "count") == 0)
        return Count();
    if (argc == 3 && std::strcmp(argv[1], "replay") == 0)
        return Replay(argv[2]);
    if (argc >= 2 && std::strcmp(argv[1], "histories") == 0 && Parse(argc, argv, 2, options))
        return Histories(options);
    if (argc >= 2 && std::strcmp(argv[1], "schedules") == 0 && Parse(argc, argv, 2, options))
        return RunSchedules(options);
    if (argc >= 2 && std::strcmp(argv[1], "meetings") == 0 && Parse(argc, argv, 2, options))
        return RunMeetings(options);
    if (argc >= 2 && std::strcmp(argv[1], "years") == 0 && Parse(argc, argv, 2, options))
        return RunYears(options);
    if (argc >= 3 && std::strcmp(argv[1], "sweep") == 0 && Parse(argc, argv, 3, options))
        return SweepNamed(options, argv[2]);
    std::fputs(
        "vtfltproof histories [--seed S] [--histories N] [--minutes M] [--part I/N]\n"
        "vtfltproof sweep failures|effects|memory|deaths|power-cuts|second-deaths|pairs|lasting [--one-in N] [--seed S] "
        "[--minutes M] [--part I/N]\n"
        "vtfltproof sweep power-cuts --each-point 1 [...]\n"
        "vtfltproof schedules [--count N] [--seed S] [--minutes M] [--part I/N]\n"
        "vtfltproof meetings [--minutes M] [--part I/N]\n"
        "vtfltproof years [--years N] [--seed S] [--minutes M] [--part I/N]\n"
        "vtfltproof count\n"
        "vtfltproof replay \"machine ...\"\n",
        stderr);
    return 2;
}
