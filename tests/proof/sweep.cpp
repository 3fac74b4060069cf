#include "proof/sweep.h"

#include "proof/current_run.h"
#include "proof/random_history.h"
#include "proof/sweep_path.h"

#include <algorithm>

namespace vtproof {

namespace {

using How = Fault::How;

constexpr std::uint32_t SWEEP_ERRORS[] = {5, 8, 31, 32, 112, 1450};
constexpr std::size_t SWEEP_ERROR_COUNT = std::size(SWEEP_ERRORS);
// Once: who is told for ever that there is more reads for ever.
constexpr std::uint32_t SWEEP_MORE_DATA = 234;
// Where it is no answer to the question whether something is there; once: the others are asked that.
constexpr std::uint32_t SWEEP_NOT_THERE[] = {2, 3};
constexpr std::uint32_t TORN = 77; // a seed
// One run in so many looks at everything behind it, the others only for lost changes and what is left open.
constexpr std::uint32_t THOROUGH = 8;
// Bitmaps of this many blocks are longer than a sector, and can be torn and cut in what counts.
constexpr std::uint32_t LONG_GRAINS = 4096;

class Sweeper {
public:
    Sweeper(const SweepOptions& options) : m_options(options) {}

    SweepResult Run(const std::vector<Scenario>& scenarios)
    {
        for (std::size_t i = 0; i < scenarios.size(); ++i) {
            m_scenario = &scenarios[i];
            m_history = scenarios[i].history;
            m_share = static_cast<double>(i) / static_cast<double>(scenarios.size());
            if (!RunScenario())
                break;
        }
        return std::move(m_result);
    }

private:
    // Who is told that a fetch failed reads everything, or takes it that nothing was forgotten and asks again: two in three.
    static void Vary(History& history, Dice& dice)
    {
        const std::uint32_t asksAgain = dice.Below(AGAIN_COUNT);
        for (std::uint32_t application = 0; application < APPLICATIONS && asksAgain != AGAIN_NEVER; ++application)
            history.operations.insert(history.operations.begin(), {Do::AsksAgain, application, 0, asksAgain, 0, {}});
    }

    bool RunScenario()
    {
        const History& history = m_history;
        if (m_scenario->history.operations.empty())
            return Broken(history, "the scenario cannot be read");
        std::string wrong;
        m_path = FollowPath(history, {}, wrong);
        if (!wrong.empty())
            return Broken(history, wrong);
        m_oneIn = m_options.oneIn;
        switch (m_options.kind) {
        case SweepKind::Failures:
            return Each(CountOf(m_path.refusable), [&](std::uint32_t nth) { return FailEach(nth); });
        case SweepKind::Effects:
            return FailBehindEach() && ReadEachShort() && EachCut([&](std::uint32_t nth, std::uint32_t bytes) {
                       return Try({{How::Short, nth, bytes}});
                   });
        case SweepKind::Memory:
            return Each(m_path.allocations, [&](std::uint32_t nth) {
                return Try({{How::NoMemory, nth, 0}}) && Try({{How::NoMemoryOn, nth, 0}});
            });
        case SweepKind::Deaths:
            return Each(CountOf(m_path.calls),
                        [&](std::uint32_t nth) {
                            return Try({{How::DieBefore, nth, 0}}) && Try({{How::DieAfter, nth, 0}});
                        }) &&
                   EachCut([&](std::uint32_t nth, std::uint32_t bytes) {
                       return Try({{How::DieInWrite, nth, bytes}});
                   });
        case SweepKind::PowerCuts:
            return Each(CountOf(m_path.calls),
                        [&](std::uint32_t nth) {
                            return CutPower({How::DieBefore, nth, 0});
                        }) &&
                   (m_path.calls.empty() || CutPower({How::DieAfter, CountOf(m_path.calls), 0})) &&
                   EachCut([&](std::uint32_t nth, std::uint32_t bytes) {
                       return CutPower({How::DieInWrite, nth, bytes});
                   });
        case SweepKind::SecondDeaths:
            return IsHuge() || EachRow(CountOf(m_path.calls), [&](std::uint32_t nth) { return DieAgainBehind(nth); });
        case SweepKind::Lasting:
            return IsHuge() ||
                   EachRow(std::size(FUNCTIONS), [&](std::uint32_t number) { return FailBeside(number - 1); });
        default:
            return IsHuge() ||
                   EachRow(CountOf(m_path.refusable), [&](std::uint32_t nth) { return FailAgainBehind(nth); });
        }
    }

    bool FailEach(std::uint32_t nth)
    {
        for (const std::uint32_t error : SWEEP_ERRORS) {
            if (!Try({{How::Fail, nth, error}}) || !Try({{How::FailOn, nth, error}}))
                return false;
        }
        if (!Try({{How::Fail, nth, SWEEP_MORE_DATA}}))
            return false;
        if (SaysWhetherSomethingIsThere(m_path.refusable[nth - 1]))
            return true;
        return std::all_of(std::begin(SWEEP_NOT_THERE), std::end(SWEEP_NOT_THERE), [&](std::uint32_t error) {
            return Try({{How::Fail, nth, error}});
        });
    }

    bool FailBehindEach()
    {
        for (std::uint32_t function = 0; function < std::size(CHANGING); ++function) {
            const auto made = std::count(m_path.calls.begin(), m_path.calls.end(), CHANGING[function]);
            if (!Each(static_cast<std::uint32_t>(made), [&](std::uint32_t nth) {
                    return Try({{How::FailAfter, nth, function}});
                }))
                return false;
        }
        return std::all_of(m_path.emptying.begin(), m_path.emptying.end(), [&](std::uint32_t nth) {
            return Try({{How::Empties, nth, 0}});
        });
    }

    // Nothing, a part of the header, all but one byte of what is asked for first; of the whole also a part of the bits, and
    // all but the trailer.
    bool ReadEachShort()
    {
        const auto read = [&](const SweepTransfer& one, std::initializer_list<std::uint32_t> sizes) {
            return std::all_of(sizes.begin(), sizes.end(), [&](std::uint32_t bytes) {
                return bytes >= one.bytes || Try({{How::ShortRead, one.nth, bytes}});
            });
        };
        return std::all_of(m_path.heads.begin(), m_path.heads.end(),
                           [&](const SweepTransfer& one) {
                               return read(one, {0, 60, 87});
                           }) &&
               std::all_of(m_path.bodies.begin(), m_path.bodies.end(), [&](const SweepTransfer& one) {
                   return read(one, {0, 87, 102, 4092});
               });
    }

    // Each write, cut at: nothing, in the signature (or the trailer, when it is written by itself), in the header, in the
    // bits, and near the end; in long bitmaps also in another sector of the bits. A write that has no more bytes than that
    // is not cut, and one behind which all is over is a death before the next call.
    template <class Work>
    bool EachCut(const Work& work)
    {
        return std::all_of(m_path.writes.begin(), m_path.writes.end(), [&](const SweepTransfer& write) {
            const auto cut = [&](std::uint32_t bytes) { return bytes >= write.bytes || work(write.nth, bytes); };
            return cut(0) && cut(2) && cut(60) && cut(90) && cut(4092) && (!IsLong() || cut(600));
        });
    }

    // What was written is there, is lost, or is torn in some ways. Where one run a point has to do it is lost, and at every
    // second point, by dice, torn: as after a death everything is there.
    bool CutPower(const Fault& death)
    {
        const std::uint32_t torn = IsLong() ? 4 : 2;
        if (m_options.eachPoint) {
            Dice dice(++m_points ^ m_options.seed << 32);
            return TryThen({death}, PowerCut(1)) &&
                   (dice.OneIn(2) || TryThen({death}, PowerCut(TORN * (1 + dice.Below(torn)) + death.nth)));
        }
        if (!TryThen({death}, PowerCut(0)) || !TryThen({death}, PowerCut(1)))
            return false;
        return Each(torn, [&](std::uint32_t way) { return TryThen({death}, PowerCut(TORN * way + death.nth)); });
    }

    // A death behind the nth call; then the operation again, or who lost what it was in the middle of backs up, and dies
    // before each of its calls; or another application that backs the volume up does.
    bool DieAgainBehind(std::uint32_t nth)
    {
        const Operation& last = m_history.operations.back();
        Operation again = last;
        if (again.what == Do::Fetch || again.what == Do::Finish || again.what == Do::Abandon)
            again = BackupBy(last.application, 0);
        return DieIn(again, nth) && DieIn(BackupBy((last.application + 1) % APPLICATIONS, last.volume), nth);
    }

    static Operation BackupBy(std::uint32_t application, std::uint32_t volume)
    {
        Operation backup;
        backup.what = Do::Backup;
        backup.application = application;
        backup.volume = volume;
        return backup;
    }

    bool DieIn(Operation again, std::uint32_t nth)
    {
        History history = m_history;
        history.operations.back().faults = {{How::DieAfter, nth, 0}};
        history.operations.push_back(again);
        std::string wrong;
        const SweepPath path = FollowPath(history, {}, wrong);
        if (!wrong.empty())
            return Broken(history, wrong);
        return Each(CountOf(path.calls), [&](std::uint32_t second) {
            again.faults = {{How::DieBefore, second, 0}};
            return TryThen({{How::DieAfter, nth, 0}}, again);
        });
    }

    // The nth call fails, and then each of those that are made behind it.
    bool FailAgainBehind(std::uint32_t nth)
    {
        const Fault first = {How::Fail, nth, SWEEP_ERRORS[nth % SWEEP_ERROR_COUNT]};
        return WithPathOf(first, [&](const SweepPath& path) {
            return Each(CountOf(path.refusable) - nth, [&](std::uint32_t further) {
                return Try({first, {How::Fail, nth + further, SWEEP_ERRORS[further % SWEEP_ERROR_COUNT]}});
            });
        });
    }

    // No call of the function succeeds, as when a value cannot be written or a file not deleted for as long as it takes;
    // and of the other calls behind the first of these each fails once. A volume whose kind is never told is passed over
    // (an assumption).
    bool FailBeside(std::uint32_t function)
    {
        const std::wstring name = FUNCTIONS[function];
        if (name == L"GetDriveTypeW" || std::count(m_path.refusable.begin(), m_path.refusable.end(), name) == 0)
            return true;
        const Fault lasting = {How::FailOfOn, 1, FailureOf(function, SWEEP_ERRORS[function % SWEEP_ERROR_COUNT])};
        return WithPathOf(lasting, [&](const SweepPath& path) {
            bool begun = false;
            return Each(CountOf(path.refusable), [&](std::uint32_t nth) {
                const bool isOne = path.refusable[nth - 1] == name;
                begun = begun || isOne;
                return !begun || isOne || Try({lasting, {How::Fail, nth, SWEEP_ERRORS[nth % SWEEP_ERROR_COUNT]}});
            });
        });
    }

    // What is called behind a failure depends on who asks again.
    template <class Work>
    bool WithPathOf(const Fault& fault, const Work& work)
    {
        const History before = m_history;
        // Other dice than those by which the row was chosen: their first number is known.
        Dice dice(~m_row ^ m_options.seed << 32);
        Vary(m_history, dice);
        std::string wrong;
        const SweepPath path = FollowPath(m_history, fault, wrong);
        if (!wrong.empty())
            return Broken(m_history, wrong);
        const bool goesOn = work(path);
        m_history = before;
        return goesOn;
    }

    template <class Work>
    static bool Each(std::uint32_t count, const Work& work)
    {
        for (std::uint32_t nth = 1; nth <= count; ++nth) {
            if (!work(nth))
                return false;
        }
        return true;
    }

    // What is behind each is found out by a run of its own: a sample takes few of them, and of those more.
    template <class Work>
    bool EachRow(std::uint32_t count, const Work& work)
    {
        std::uint32_t rows = 1;
        while ((rows + 1) * (rows + 1) <= m_options.oneIn)
            ++rows;
        m_oneIn = (m_options.oneIn + rows - 1) / rows;
        return Each(count, [&](std::uint32_t nth) {
            return Dice(++m_row ^ m_options.seed << 32).Below(rows) != 0 || work(nth);
        });
    }

    static std::uint32_t CountOf(const std::vector<std::wstring>& calls)
    {
        return static_cast<std::uint32_t>(calls.size());
    }
    // A run of these takes as long as many others: there one thing goes wrong, and no two.
    bool IsHuge() const { return m_history.volumes.front().grains >= HUGE_GRAINS; }
    bool IsLong() const { return m_history.volumes.front().grains >= LONG_GRAINS; }

    static Operation PowerCut(std::uint32_t how)
    {
        Operation operation;
        operation.what = Do::PowerCut;
        operation.a = how;
        return operation;
    }

    bool Try(std::vector<Fault> faults) { return TryWith(std::move(faults), nullptr); }
    bool TryThen(std::vector<Fault> faults, const Operation& then) { return TryWith(std::move(faults), &then); }

    // One run, when it is one of ours. False ends the sweep.
    bool TryWith(std::vector<Fault> faults, const Operation* then)
    {
        const std::uint64_t number = m_number++;
        if (number % m_options.parts != m_options.part)
            return true;
        Dice dice(number ^ m_options.seed << 32);
        if (dice.Below(m_oneIn) != 0)
            return true;
        History history = m_history;
        history.operations.back().faults = std::move(faults);
        if (m_options.kind != SweepKind::Pairs && m_options.kind != SweepKind::Lasting)
            Vary(history, dice);
        if (then != nullptr)
            history.operations.push_back(*then);
        // Behind a power cut everything is to be verified: what it did to the files shows only later.
        const bool thoroughly = dice.OneIn(THOROUGH) || m_options.kind == SweepKind::PowerCuts;
        bool struck = false;
        const std::string wrong = RunOne(history, thoroughly, &struck);
        ++m_result.runs;
        m_result.struck += struck ? 1 : 0;
        if (!struck)
            m_result.missed = history;
        m_result.thorough += thoroughly ? 1 : 0;
        if (!wrong.empty())
            return Broken(history, wrong);
        if (m_result.runs % 64 == 0 && m_options.progress)
            m_result.endedEarly = !m_options.progress(m_result.runs, m_share);
        return !m_result.endedEarly;
    }

    std::string RunOne(const History& history, bool thoroughly, bool* struck)
    {
        if (m_options.run)
            return m_options.run(history, thoroughly, struck);
        const CurrentRun current("./dev sim --replay \"" + ToText(history) + "\"");
        std::uint64_t trace = 0;
        std::string wrong =
            RunHistory(history, &trace, false, thoroughly ? World::Thoroughly::Yes : World::Thoroughly::No, struck);
        m_result.trace = (m_result.trace ^ trace) * 0x100000001b3ull;
        return wrong;
    }

    bool Broken(const History& history, const std::string& wrong)
    {
        m_result.scenario = m_scenario->name;
        m_result.wrong = wrong;
        m_result.history = history;
        return false;
    }

    const SweepOptions& m_options;
    const Scenario* m_scenario = nullptr;
    History m_history; // of the scenario
    SweepPath m_path;
    double m_share = 0;
    std::uint32_t m_oneIn = 1;
    std::uint64_t m_number = 0;
    std::uint64_t m_row = 0;
    std::uint64_t m_points = 0; // at which the power is cut
    SweepResult m_result;
};

} // namespace

SweepResult RunSweep(const std::vector<Scenario>& scenarios, const SweepOptions& options)
{
    return Sweeper(options).Run(scenarios);
}

} // namespace vtproof
