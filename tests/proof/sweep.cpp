#include "proof/sweep.h"

#include "proof/random_history.h"
#include "proof/world.h"

#include <optional>

namespace vtproof {

namespace {

using How = Fault::How;

constexpr std::uint32_t SWEEP_ERRORS[] = {5, 8, 31, 1450};
constexpr std::uint32_t TORN = 77; // a seed
// One run in so many looks at everything behind it, the others only for lost changes and what is left open.
constexpr std::uint64_t THOROUGH = 8;

class Sweeper {
public:
    Sweeper(const SweepOptions& options) : m_options(options) {}

    SweepResult Run(const std::vector<Scenario>& scenarios)
    {
        for (std::size_t i = 0; i < scenarios.size(); ++i) {
            m_scenario = &scenarios[i];
            m_share = static_cast<double>(i) / static_cast<double>(scenarios.size());
            if (!RunScenario())
                break;
        }
        return std::move(m_result);
    }

private:
    bool RunScenario()
    {
        const History& history = m_scenario->history;
        if (history.operations.empty())
            return Broken(history, "the scenario cannot be read");
        World::Calls calls;
        {
            World world(history.volumes);
            for (std::size_t i = 0; i + 1 < history.operations.size(); ++i) {
                const std::string wrong = world.Run(history.operations[i]);
                if (!wrong.empty())
                    return Broken(history, wrong);
            }
            calls = world.CountCalls(history.operations.back());
        }
        switch (m_options.kind) {
        case SweepKind::Failures:
            return Each(calls.all, [&](std::uint32_t nth) {
                for (const std::uint32_t error : SWEEP_ERRORS) {
                    if (!Try({{How::Fail, nth, error}}) || !Try({{How::FailOn, nth, error}}))
                        return false;
                }
                return true;
            });
        case SweepKind::Effects:
            return Each(calls.writes + 10, [&](std::uint32_t nth) {
                for (std::uint32_t function = 0; function < 5; ++function) {
                    if (!Try({{How::FailAfter, nth, function}}))
                        return false;
                }
                return Try({{How::Short, nth, 0}}) && Try({{How::Short, nth, 90}}) && Try({{How::Short, nth, 4095}});
            });
        case SweepKind::Memory:
            return Each(calls.allocations, [&](std::uint32_t nth) {
                return Try({{How::NoMemory, nth, 0}}) && Try({{How::NoMemoryOn, nth, 0}});
            });
        case SweepKind::Deaths:
            return Each(calls.all,
                        [&](std::uint32_t nth) {
                            return Try({{How::DieBefore, nth, 0}}) && Try({{How::DieAfter, nth, 0}});
                        }) &&
                   Each(calls.writes, [&](std::uint32_t nth) {
                       return Try({{How::DieInWrite, nth, 0}}) && Try({{How::DieInWrite, nth, 60}}) &&
                              Try({{How::DieInWrite, nth, 4092}});
                   });
        case SweepKind::PowerCuts:
            return Each(calls.all, [&](std::uint32_t nth) {
                return TryThen({{How::DieBefore, nth, 0}}, PowerCut(0)) &&
                       TryThen({{How::DieBefore, nth, 0}}, PowerCut(1)) &&
                       TryThen({{How::DieBefore, nth, 0}}, PowerCut(TORN + nth));
            });
        case SweepKind::SecondDeaths:
            return Each(calls.all, [&](std::uint32_t nth) {
                return Each(calls.all, [&](std::uint32_t second) {
                    Operation again = m_scenario->history.operations.back();
                    again.faults = {{How::DieBefore, second, 0}};
                    return TryThen({{How::DieAfter, nth, 0}}, again);
                });
            });
        default:
            return Each(calls.all, [&](std::uint32_t nth) {
                return Each(calls.all - nth, [&](std::uint32_t further) {
                    return Try({{How::Fail, nth, SWEEP_ERRORS[nth % 4]},
                                {How::Fail, nth + further, SWEEP_ERRORS[further % 4]}});
                });
            });
        }
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
        if (m_options.oneIn > 1 && Dice(number ^ m_options.seed << 32).Below(m_options.oneIn) != 0)
            return true;
        History history = m_scenario->history;
        history.operations.back().faults = std::move(faults);
        if (then != nullptr)
            history.operations.push_back(*then);
        bool struck = false;
        const auto thoroughly = m_result.runs % THOROUGH == 0 ? World::Thoroughly::Yes : World::Thoroughly::No;
        const std::string wrong = RunHistory(history, thoroughly, &struck);
        ++m_result.runs;
        m_result.struck += struck ? 1 : 0;
        if (!wrong.empty())
            return Broken(history, wrong);
        return m_result.runs % 64 != 0 || !m_options.progress || m_options.progress(m_result.runs, m_share);
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
    double m_share = 0;
    std::uint64_t m_number = 0;
    SweepResult m_result;
};

} // namespace

SweepResult RunSweep(const std::vector<Scenario>& scenarios, const SweepOptions& options)
{
    return Sweeper(options).Run(scenarios);
}

} // namespace vtproof
