// Who runs when.
#include "double/control.h"
#include "proof/current_run.h"
#include "proof/random_history.h"
#include "proof/schedule.h"
#include "proof/world.h"

#include <cwchar>

namespace vtproof {

namespace {

constexpr std::size_t NOBODY = MOST_PROCESSES;
thread_local std::size_t t_process = NOBODY;

class Director final : public ExportWatch {
public:
    Director(World& world, const Schedule& schedule, ScheduleRun& run)
        : m_world(world), m_schedule(schedule), m_run(run), m_dice(schedule.seed)
    {
    }
    Director(const Director&) = delete;
    Director& operator=(const Director&) = delete;

    std::string Run();

    void Enters(std::size_t application, Exported exported) noexcept override;
    void Leaves(std::size_t application, Exported exported) noexcept override;

private:
    enum class State { Before, Waits, Inside, Behind, Ended };
    struct Process {
        Director* director = nullptr;
        std::size_t number = 0;
        std::uint64_t thread = 0;
        std::string wrong;
        State state = State::Before; // as to the meeting
        std::uint32_t reached = 0;   // calls of the export so far
        int place = 0;               // its address: where it stands still
        bool waits = false;          // its last call is a wait
    };

    void Start(Process& process);
    void RunProcess(Process& process);
    void Write(std::uint32_t volume);
    void Meet();
    void WatchCalls();
    void BeforeCall(const wchar_t* function) noexcept;
    void Doom() noexcept;
    void NoteDeath(Process& process);
    void WakeOther(const Process& process) noexcept;
    bool IsMeetingPlace(const Process& process, Exported exported) const
    {
        return m_schedule.meets && process.number < 2 && m_schedule.places[process.number].exported == exported;
    }
    // The main thread waits until the process is beyond the state.
    void Await(const Process& process, State state);

    World& m_world;
    const Schedule& m_schedule;
    ScheduleRun& m_run;
    Dice m_dice;
    std::vector<Process> m_processes;
    bool m_changing = false; // the turn may change now
    std::uint32_t m_calls = 0;
    std::size_t m_caller = NOBODY; // who made the last call
    bool m_doomed = false;         // whose turn it is dies before its next call
    int m_main = 0;                // its address: where the main thread stands still
};

std::string Director::Run()
{
    m_world.AtOnce(*this, m_schedule.meets ? World::Volumes::Shared : World::Volumes::Locked);
    WatchCalls();
    DoubleTakeStuck();
    if (!m_schedule.meets) {
        m_changing = true;
        DoubleChoose(
            [](void* context, std::size_t runnable) -> std::size_t {
                return static_cast<Director*>(context)->m_dice.Below(static_cast<std::uint32_t>(runnable));
            },
            this);
    }
    m_processes.resize(m_schedule.processes.size());
    for (std::size_t i = 0; i < m_processes.size(); ++i) {
        m_processes[i].director = this;
        m_processes[i].number = i;
        if (!m_schedule.meets)
            Start(m_processes[i]);
    }
    if (m_schedule.meets)
        Meet();
    for (Process& process : m_processes) {
        DoubleWake(&process.place);
        DoubleJoinThread(process.thread);
    }
    DoubleChoose(nullptr, nullptr);
    VTFltSimClearCallFaults();
    const std::string stuck = DoubleTakeStuck();
    if (!stuck.empty())
        return "nobody could go on:\n" + stuck;
    for (const Process& process : m_processes) {
        if (!process.wrong.empty())
            return "process " + std::to_string(process.number) + ": " + process.wrong;
    }
    return m_world.OneByOne();
}

void Director::WatchCalls()
{
    vtfltsim::Check("VTFltSimCallBefore", VTFltSimCallBefore(
                                              L"*", nullptr, 1, 0,
                                              [](void* context, LPCWSTR function, LPCWSTR) {
                                                  static_cast<Director*>(context)->BeforeCall(function);
                                              },
                                              this));
}

void Director::Start(Process& process)
{
    process.thread = DoubleStartThread(
        [](void* argument) {
            auto& one = *static_cast<Process*>(argument);
            one.director->RunProcess(one);
        },
        &process);
}

void Director::RunProcess(Process& process)
{
    t_process = process.number;
    for (const Operation& operation : m_schedule.processes[process.number]) {
        process.wrong = m_world.RunAtOnce(static_cast<std::uint32_t>(process.number), operation);
        if (!process.wrong.empty())
            break;
        if (process.number == 0 && m_doomed && !m_run.died && VTFltSimGetCallFaultHits() != 0)
            NoteDeath(process);
    }
    m_world.EndAtOnce(static_cast<std::uint32_t>(process.number));
    process.state = State::Ended;
    DoubleWake(&m_main);
}

// Nobody had the turn since it died. What it did not come to need not be as in one that lives.
void Director::NoteDeath(Process& process)
{
    const Process& other = m_processes[1 - process.number];
    m_run.died = true;
    m_run.waited = other.state == State::Inside && other.waits;
    Operation crash;
    crash.what = Do::Crash;
    crash.application = static_cast<std::uint32_t>(process.number);
    m_world.Happens(crash);
    WakeOther(process);
    process.state = State::Behind;
    DoubleWake(&m_main);
    DoubleStandStill(&process.place);
}

void Director::Await(const Process& process, State state)
{
    while (process.state <= state)
        DoubleStandStill(&m_main);
}

void Director::Write(std::uint32_t volume)
{
    Operation write;
    write.what = Do::Write;
    write.volume = volume;
    write.a = 20 + 2 * m_calls;
    write.b = 2;
    m_world.Happens(write);
}

// The first two processes: side by side until both are through their exports, then one after the other.
void Director::Meet()
{
    Process& arrives = m_processes[m_schedule.arrives % 2];
    Process& follows = m_processes[1 - m_schedule.arrives % 2];
    Start(arrives);
    Await(arrives, State::Before);
    if (m_schedule.between != 0)
        Write(m_schedule.between - 1);
    Start(follows);
    Await(follows, State::Before);
    m_run.met = arrives.state == State::Waits && follows.state == State::Waits;
    if (m_run.met) {
        if (m_schedule.loses != 0) {
            Operation lose;
            lose.what = Do::LoseTracking;
            lose.volume = m_schedule.loses - 1;
            m_world.Happens(lose);
        }
        Process& first = m_processes[m_schedule.first % 2];
        m_changing = true;
        first.state = State::Inside;
        DoubleWake(&first.place); // the other one follows with the first call of this one
        Await(arrives, State::Inside);
        Await(follows, State::Inside);
        m_changing = false;
    }
    DoubleWake(&m_processes[0].place);
    Await(m_processes[0], State::Behind);
}

void Director::WakeOther(const Process& process) noexcept
{
    Process& other = m_processes[1 - process.number];
    if (other.state != State::Waits)
        return;
    other.state = State::Inside;
    DoubleWake(&other.place);
}

void Director::Enters(std::size_t application, Exported exported) noexcept
{
    Process& process = m_processes[application];
    if (!IsMeetingPlace(process, exported) || ++process.reached != m_schedule.places[application].nth)
        return;
    process.state = State::Waits;
    DoubleWake(&m_main);
    DoubleStandStill(&process.place);
}

void Director::Leaves(std::size_t application, Exported exported) noexcept
{
    Process& process = m_processes[application];
    if (!IsMeetingPlace(process, exported) || process.state != State::Inside)
        return;
    if (m_doomed && !m_run.died && process.number == 0) {
        // It was through before its next call, and nobody else is to die: the hits from now on are those of the watch.
        m_doomed = false;
        DoubleRunOutside(
            [](void* director) {
                auto& self = *static_cast<Director*>(director);
                VTFltSimClearCallFaults();
                self.m_world.WatchReplications();
                self.WatchCalls();
            },
            this);
    }
    WakeOther(process);
    process.state = State::Behind;
    DoubleWake(&m_main);
    DoubleStandStill(&process.place);
}

void Director::Doom() noexcept
{
    m_doomed = true;
    DoubleRunOutside(
        [](void*) {
            VTFLTSIM_CALL_FAULT death = {};
            death.size = sizeof(death);
            death.what = VTFLTSIM_CALL_KILLS_BEFORE;
            death.function = L"*";
            death.nth = 1;
            death.count = 1;
            VTFltSimSetCallFault(&death);
        },
        nullptr);
}

// In the process that is about to make the call; allocates nothing.
void Director::BeforeCall(const wchar_t* function) noexcept
{
    if (!m_changing || t_process == NOBODY)
        return;
    const std::uint32_t call = ++m_calls;
    bool changes = false;
    if (m_schedule.meets) {
        Process& process = m_processes[t_process];
        ++m_run.calls[t_process];
        process.waits = std::wcscmp(function, L"WaitForSingleObject") == 0;
        m_run.wentOn =
            m_run.wentOn || (m_run.died && process.state == State::Inside && !process.waits &&
                             std::wcscmp(function, L"ReleaseMutex") != 0 && std::wcscmp(function, L"CloseHandle") != 0);
        m_run.alternations += m_caller != NOBODY && m_caller != t_process ? 1 : 0;
        m_caller = t_process;
        WakeOther(process);
        if (call == m_schedule.writes)
            DoubleRunOutside([](void* director) { static_cast<Director*>(director)->Write(0); }, this);
        changes = call == m_schedule.turns[0] || call == m_schedule.turns[1];
    } else {
        changes = m_dice.OneIn(m_schedule.oneIn);
    }
    // One that is to die keeps the turn until it does, or another's call would be struck.
    if (changes && (!m_doomed || m_run.died)) {
        ++m_run.changes;
        m_world.Mix(call * MOST_PROCESSES + t_process);
        DoubleYield();
    }
    // From here to its next call nobody else has the turn, unless this one is a wait.
    if (m_schedule.meets && m_schedule.dies != 0 && !m_doomed && t_process == 0 &&
        m_processes[0].state == State::Inside && m_run.calls[0] >= m_schedule.dies && !m_processes[0].waits)
        Doom();
}

std::string RunIn(World& world, const Schedule& schedule, ScheduleRun& run)
{
    for (const Operation& operation : schedule.before.operations) {
        const std::string wrong = world.Run(operation);
        if (!wrong.empty())
            return "before: " + wrong;
    }
    std::string wrong = Director(world, schedule, run).Run();
    if (!wrong.empty())
        return wrong;
    wrong = world.Settle(schedule.seed % 8 == 0 ? World::Thoroughly::Yes : World::Thoroughly::No);
    return wrong.empty() ? wrong : "at the end: " + wrong;
}

} // namespace

ScheduleRun RunSchedule(const Schedule& schedule, bool tell)
{
    ScheduleRun run;
    const std::string text = "./dev sim --replay \"" + ToText(schedule) + "\"";
    const CurrentRun current(text);
    DoubleTellIfStuck(text.c_str());
    {
        World world(schedule.before.volumes, MOST_PROCESSES);
        if (tell)
            world.TellStory();
        run.wrong = RunIn(world, schedule, run);
        run.trace = world.Trace();
    }
    DoubleTellIfStuck(nullptr);
    return run;
}

} // namespace vtproof
