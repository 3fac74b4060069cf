// Schedules as text, and the choice of them.
#include "proof/schedule.h"

#include "proof/random_history.h"

#include <algorithm>
#include <charconv>
#include <functional>

namespace vtproof {

namespace {

// The way to a call of an export by an application A on a volume V; what is done before anybody meets, and what then.
struct Way {
    std::uint32_t nth;
    const char* before; // what A must have done
    const char* process;
};

constexpr char REGISTERED[] = "register A; write A V 3 5; backup A V";

Way WayTo(Exported exported)
{
    switch (exported) {
    case Exported::GetBitmap:
        return {2, REGISTERED, "backup A V"}; // the first asks for the size
    case Exported::SyncSnapshotChanges:
        return {1, REGISTERED, "backup A V 12 4"};
    case Exported::Register:
        return {1, "", "register A; backup A V"};
    case Exported::Unregister:
        return {1, REGISTERED, "unregister A; register A; backup A V"};
    case Exported::AppCount:
    case Exported::CanAppUseDriver:
    case Exported::IsDeviceMonitored:
        return {1, REGISTERED, "ask A V; backup A V"};
    case Exported::AddVolumesToVerifyList:
        return {1, REGISTERED, "mark-all A; backup A V"};
    case Exported::RemoveFromVerifyList:
        return {1, REGISTERED, "unmark A; backup A V"};
    case Exported::EnableMonitor:
        return {1, REGISTERED, "monitor A 0 1"};
    case Exported::DisableMonitor:
        return {1, "register A; write A V 3 5; backup A V; monitor A 0 1", "monitor A 0 0"};
    case Exported::StopVolume:
        return {1, REGISTERED, "stop-volume A V; start-tracking A V; backup A V"};
    case Exported::StopVolumes:
        return {1, REGISTERED, "stop-volumes A; backup A V"};
    default:
        return {1, REGISTERED, "backup A V"};
    }
}

std::string Said(std::string text, std::uint32_t application, std::uint32_t volume)
{
    std::replace(text.begin(), text.end(), 'A', static_cast<char>('0' + application));
    std::replace(text.begin(), text.end(), 'V', static_cast<char>('0' + volume));
    return text;
}

// What a process of a schedule can do: by itself, to a volume, or to any application's files. Nobody has the world look
// behind a fault there, and a power cut would end the others in the middle of what they do.
bool IsOfProcess(const Operation& operation, std::uint32_t process)
{
    if (!operation.faults.empty())
        return false;
    switch (operation.what) {
    case Do::Damage:
    case Do::Write:
    case Do::LoseTracking:
    case Do::StartTracking:
    case Do::Resize:
    case Do::SetBlockSize:
        return true;
    case Do::PowerCut:
    case Do::StopDriver:
    case Do::StartDriver:
        return false;
    default:
        return operation.application == process;
    }
}

bool ParseSeed(std::string_view text, std::uint64_t& number)
{
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

bool ParseExport(std::string_view text, Exported& exported)
{
    const auto found = std::find(std::begin(EXPORT_NAMES), std::end(EXPORT_NAMES), text);
    exported = static_cast<Exported>(found - std::begin(EXPORT_NAMES));
    return found != std::end(EXPORT_NAMES);
}

bool ParseMeeting(const std::vector<std::string_view>& words, Schedule& schedule)
{
    schedule.meets = true;
    return words.size() == 20 && words[0] == "meet" && ParseExport(words[1], schedule.places[0].exported) &&
           ParseNumber(words[2], schedule.places[0].nth) && ParseExport(words[3], schedule.places[1].exported) &&
           ParseNumber(words[4], schedule.places[1].nth) && words[5] == "first" &&
           ParseNumber(words[6], schedule.first) && words[7] == "turns" && ParseNumber(words[8], schedule.turns[0]) &&
           ParseNumber(words[9], schedule.turns[1]) && words[10] == "loses" && ParseNumber(words[11], schedule.loses) &&
           words[12] == "arrives" && ParseNumber(words[13], schedule.arrives) && words[14] == "between" &&
           ParseNumber(words[15], schedule.between) && words[16] == "writes" &&
           ParseNumber(words[17], schedule.writes) && words[18] == "dies" && ParseNumber(words[19], schedule.dies) &&
           schedule.loses <= schedule.before.volumes.size() && schedule.between <= schedule.before.volumes.size() &&
           schedule.processes.size() == 2;
}

bool ParseMix(const std::vector<std::string_view>& words, Schedule& schedule)
{
    return words.size() == 3 && words[0] == "mix" && ParseSeed(words[1], schedule.seed) &&
           ParseNumber(words[2], schedule.oneIn) && schedule.oneIn != 0;
}

struct ScheduleWeight {
    Do what;
    std::uint32_t weight;
};

constexpr ScheduleWeight WEIGHTS[] = {
    {Do::Write, 30},      {Do::Backup, 34},  {Do::Begin, 4},      {Do::Fetch, 4},         {Do::Finish, 4},
    {Do::Abandon, 1},     {Do::Register, 4}, {Do::Unregister, 3}, {Do::MarkAll, 2},       {Do::Unmark, 2},
    {Do::Monitor, 3},     {Do::Ask, 3},      {Do::StopVolume, 1}, {Do::StartTracking, 2}, {Do::LoseTracking, 2},
    {Do::StopVolumes, 1}, {Do::Damage, 2},   {Do::Resize, 1},     {Do::SetBlockSize, 1},  {Do::Crash, 2}};

// Backups behind it need not be as those are of a machine on which nothing goes wrong.
bool Disturbs(Do what)
{
    switch (what) {
    case Do::StopVolume:
    case Do::StopVolumes:
    case Do::LoseTracking:
    case Do::StartTracking:
    case Do::MarkAll:
    case Do::Unregister:
    case Do::Damage:
    case Do::Resize:
    case Do::SetBlockSize:
    case Do::Crash:
        return true;
    default:
        return false;
    }
}

Operation ChooseOperation(Dice& dice, std::uint32_t application, const std::vector<VolumeShape>& volumes, bool calm)
{
    std::uint32_t sum = 0;
    for (const ScheduleWeight& one : WEIGHTS)
        sum += one.weight;
    Operation operation;
    operation.what = Do::Backup;
    std::uint32_t at = dice.Below(sum);
    for (const ScheduleWeight& one : WEIGHTS) {
        if (at < one.weight) {
            operation.what = one.what;
            break;
        }
        at -= one.weight;
    }
    if (calm && Disturbs(operation.what))
        operation.what = Do::Write;
    operation.application = application;
    operation.volume = dice.Below(static_cast<std::uint32_t>(volumes.size()));
    if (operation.what == Do::Write) {
        operation.a = ChooseGrain(dice, volumes[operation.volume]);
        operation.b = dice.OneIn(4) ? dice.Below(32) : 0;
    } else if ((operation.what == Do::Backup || operation.what == Do::Finish) && dice.OneIn(4)) {
        operation.a = ChooseGrain(dice, volumes[operation.volume]);
        operation.b = 1 + dice.Below(8);
    } else if (operation.what == Do::Monitor) {
        operation.a = dice.Below(2);
    } else if (operation.what == Do::Damage) {
        operation.application = dice.Below(MOST_PROCESSES);
        operation.a = dice.Below(2);
        operation.b = dice.Below(CUT_SHORT); // none that stands in everybody's way
    } else if (operation.what == Do::Resize) {
        operation.a = 40 + dice.Below(100);
    } else if (operation.what == Do::SetBlockSize) {
        operation.a = 512u << dice.Below(3);
    }
    return operation;
}

// Who died in one of these does not know what was counted, and the world does not either.
bool MayDieIn(Exported exported)
{
    return exported != Exported::EnableMonitor && exported != Exported::DisableMonitor;
}

Schedule ChooseMix(std::uint64_t seed)
{
    Dice dice(seed);
    Schedule schedule;
    const std::uint32_t processes = 2 + dice.Below(MOST_PROCESSES - 1);
    schedule.before.volumes = {{100, 1024}};
    if (dice.OneIn(2))
        schedule.before.volumes.push_back({60, 512});
    const auto volumes = static_cast<std::uint32_t>(schedule.before.volumes.size());
    for (std::uint32_t application = 0; application < processes; ++application) {
        if (dice.OneIn(5))
            continue;
        schedule.before.operations.push_back({Do::Register, application, 0, 0, 0, {}});
        for (std::uint32_t volume = 0; volume < volumes; ++volume) {
            if (!dice.OneIn(4))
                schedule.before.operations.push_back({Do::Backup, application, volume, 0, 0, {}});
        }
        schedule.before.operations.push_back({Do::Write, application, dice.Below(volumes), dice.Below(60), 3, {}});
    }
    const bool calm = dice.OneIn(3);
    schedule.processes.resize(processes);
    for (std::uint32_t application = 0; application < processes; ++application) {
        const std::uint32_t length = 2 + dice.Below(6);
        for (std::uint32_t i = 0; i < length; ++i)
            schedule.processes[application].push_back(
                ChooseOperation(dice, application, schedule.before.volumes, calm));
    }
    schedule.seed = seed;
    constexpr std::uint32_t ONE_IN[] = {1, 2, 4, 8, 32, 128};
    schedule.oneIn = ONE_IN[dice.Below(std::size(ONE_IN))];
    return schedule;
}

} // namespace

Schedule MeetingOf(Exported first, Exported second, std::uint32_t state)
{
    const Exported exports[] = {first, second};
    // 0: one volume; 1: it loses tracking; 2: two volumes, the first loses tracking; 3: everything is to be verified.
    const std::uint32_t volumes[] = {0, state == 2 ? 1u : 0u};
    std::string text = "machine 100:1024 60:512; register 2; backup 2 0; backup 2 1";
    for (std::uint32_t i = 0; i < 2; ++i) {
        const std::string before = Said(WayTo(exports[i]).before, i, volumes[i]);
        text += before.empty() ? before : "; " + before;
    }
    text += "; write 0 0 40 9; write 0 1 7";
    for (std::uint32_t i = 0; i < 2 && state == 3; ++i)
        text += exports[i] != Exported::Register ? Said("; mark-all A", i, 0) : std::string();
    Schedule schedule;
    schedule.meets = true;
    if (const auto before = ParseHistory(text, MOST_PROCESSES))
        schedule.before = *before;
    for (std::uint32_t i = 0; i < 2; ++i) {
        const Way way = WayTo(exports[i]);
        const auto process = ParseOperations(Said(way.process, i, volumes[i]), MOST_PROCESSES, 2);
        schedule.processes.push_back(process ? *process : std::vector<Operation>());
        schedule.places[i] = {exports[i], way.nth};
    }
    schedule.loses = state == 1 || state == 2 ? 1 : 0;
    // Who is about to fetch has a snapshot: it comes last, and when both are on one volume nobody writes to it.
    schedule.arrives = first == Exported::GetBitmap ? 1 : 0;
    if (!(first == Exported::GetBitmap && second == Exported::GetBitmap && volumes[0] == volumes[1]))
        schedule.between = 1 + volumes[1 - schedule.arrives];
    return schedule;
}

Schedule MeetingOf(std::uint32_t which)
{
    const std::uint32_t pair = which / MEETING_STATES;
    return MeetingOf(static_cast<Exported>(pair / EXPORT_COUNT), static_cast<Exported>(pair % EXPORT_COUNT),
                     which % MEETING_STATES);
}

std::vector<Schedule> WithOneChange(const Schedule& meeting)
{
    const ScheduleRun run = RunSchedule(meeting);
    std::vector<Schedule> schedules;
    Schedule one = meeting;
    for (one.first = 0; one.first < 2; ++one.first) {
        one.turns[0] = 0;
        schedules.push_back(one);
        for (one.turns[0] = 2; one.turns[0] <= run.calls[one.first]; ++one.turns[0])
            schedules.push_back(one);
    }
    return schedules;
}

Schedule Schedules::Choose(std::uint64_t number)
{
    if (number % 2 != 0)
        return ChooseMix(m_seed * 0x10000'0001ull + number);
    const std::uint64_t which = number / 2 % MEETINGS;
    const std::uint64_t round = number / 2 / MEETINGS;
    Schedule schedule = MeetingOf(static_cast<std::uint32_t>(which));
    const bool mayWrite = schedule.between != 0;
    m_lengths.resize(MEETINGS);
    Lengths& lengths = m_lengths[which];
    // Of the meeting as it is, whichever round is the first to ask: a number gives one schedule, alone and behind others.
    if (round >= 2 && !lengths.known) {
        const ScheduleRun run = RunSchedule(schedule);
        lengths.known = true;
        std::copy(std::begin(run.calls), std::end(run.calls), std::begin(lengths.calls));
    }
    schedule.first = round % 2;
    if (round < 2)
        return schedule;
    // A change of the turn before somebody's first call only says who begins: who makes a single call has no other.
    if (lengths.calls[schedule.first] < 2 && lengths.calls[1 - schedule.first] >= 2)
        schedule.first = 1 - schedule.first;
    const std::uint32_t own = lengths.calls[schedule.first];
    const std::uint32_t others = lengths.calls[1 - schedule.first];
    Dice dice(m_seed ^ number << 20);
    schedule.writes = mayWrite && dice.OneIn(2) ? 1 + dice.Below(std::max(1u, own + others)) : 0;
    if (own < 2)
        return schedule;
    // By turns one change of the turn and two; the one before each of the calls, in an order that is soon everywhere.
    constexpr std::uint64_t STRIDE = 10'007; // a prime above any number of calls
    const std::uint64_t nth = (round - 2) / 4;
    if ((round - 2) / 2 % 2 == 0 && nth < own - 1) {
        schedule.turns[0] = static_cast<std::uint32_t>(2 + nth * STRIDE % (own - 1));
        return schedule;
    }
    schedule.turns[0] = 2 + dice.Below(own - 1);
    // The other one's first call is the next: back before its second or a later one.
    if (others >= 2)
        schedule.turns[1] = schedule.turns[0] + 2 + dice.Below(others - 1);
    if (lengths.calls[0] >= 2 && MayDieIn(schedule.places[0].exported) && dice.OneIn(4))
        schedule.dies = 1 + dice.Below(lengths.calls[0] - 1);
    return schedule;
}

std::string ToText(const Schedule& schedule)
{
    std::string text = ToText(schedule.before);
    for (const auto& process : schedule.processes) {
        text += " |";
        for (const Operation& operation : process)
            text += " " + ToText(operation) + ";";
    }
    if (!schedule.meets)
        return text + " | mix " + std::to_string(schedule.seed) + " " + std::to_string(schedule.oneIn);
    text += " | meet";
    for (const Schedule::Place& place : schedule.places)
        text +=
            std::string(" ") + EXPORT_NAMES[static_cast<std::size_t>(place.exported)] + " " + std::to_string(place.nth);
    return text + " first " + std::to_string(schedule.first) + " turns " + std::to_string(schedule.turns[0]) + " " +
           std::to_string(schedule.turns[1]) + " loses " + std::to_string(schedule.loses) + " arrives " +
           std::to_string(schedule.arrives) + " between " + std::to_string(schedule.between) + " writes " +
           std::to_string(schedule.writes) + " dies " + std::to_string(schedule.dies);
}

std::optional<Schedule> ParseSchedule(std::string_view text)
{
    const auto parts = Split(text, '|');
    if (parts.size() < 3 || parts.size() > 2 + MOST_PROCESSES)
        return std::nullopt;
    const auto before = ParseHistory(parts.front(), MOST_PROCESSES);
    if (!before)
        return std::nullopt;
    Schedule schedule;
    schedule.before = *before;
    for (std::size_t i = 1; i + 1 < parts.size(); ++i) {
        const auto operations = ParseOperations(parts[i], MOST_PROCESSES, before->volumes.size());
        const auto process = static_cast<std::uint32_t>(schedule.processes.size());
        if (!operations || !std::all_of(operations->begin(), operations->end(),
                                        [process](const Operation& one) { return IsOfProcess(one, process); }))
            return std::nullopt;
        schedule.processes.push_back(*operations);
    }
    const auto words = Split(parts.back(), ' ');
    if (words.empty() || !(words[0] == "meet" ? ParseMeeting(words, schedule) : ParseMix(words, schedule)))
        return std::nullopt;
    return schedule;
}

namespace {

// The schedule itself, or one with another seed for its turns, that is broken; nothing when none of a few is.
bool IsBroken(Schedule& schedule)
{
    constexpr std::uint64_t SEEDS = 12;
    if (schedule.meets)
        return !RunSchedule(schedule).wrong.empty();
    const std::uint64_t seed = schedule.seed;
    for (std::uint64_t i = 0; i < SEEDS; ++i) {
        schedule.seed = seed + i;
        if (!RunSchedule(schedule).wrong.empty())
            return true;
    }
    return false;
}

// Tries the schedule without each of the operations of a list.
bool Shorten(Schedule& schedule, const std::function<std::vector<Operation>&(Schedule&)>& list)
{
    bool changed = false;
    for (std::size_t at = 0; at < list(schedule).size();) {
        Schedule shorter = schedule;
        list(shorter).erase(list(shorter).begin() + static_cast<std::ptrdiff_t>(at));
        if (IsBroken(shorter)) {
            schedule = std::move(shorter);
            changed = true;
        } else {
            ++at;
        }
    }
    return changed;
}

} // namespace

Schedule Shrink(Schedule schedule)
{
    for (bool changed = true; changed;) {
        changed = Shorten(schedule, [](Schedule& one) -> std::vector<Operation>& { return one.before.operations; });
        for (std::size_t i = 0; i < schedule.processes.size(); ++i)
            changed = Shorten(schedule, [i](Schedule& one) -> std::vector<Operation>& { return one.processes[i]; }) ||
                      changed;
    }
    return schedule;
}

} // namespace vtproof
