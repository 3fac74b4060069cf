#include "proof/random_history.h"

#include <algorithm>

namespace vtproof {

namespace {

struct Weight {
    Do what;
    std::uint32_t weight;
};

// What happens on a machine on which nothing goes wrong.
constexpr Weight CALM[] = {{Do::Write, 40},  {Do::Backup, 24},  {Do::Begin, 8},   {Do::Fetch, 8}, {Do::Finish, 8},
                           {Do::Abandon, 1}, {Do::Register, 4}, {Do::Monitor, 2}, {Do::Ask, 2}};
// And on one on which everything does.
constexpr Weight WILD[] = {{Do::Write, 40},     {Do::Backup, 24},      {Do::Begin, 8},         {Do::Fetch, 8},
                           {Do::Finish, 8},     {Do::Abandon, 3},      {Do::Register, 4},      {Do::Unregister, 2},
                           {Do::Crash, 3},      {Do::LoseTracking, 3}, {Do::Resize, 2},        {Do::SetBlockSize, 2},
                           {Do::Damage, 4},     {Do::PowerCut, 2},     {Do::StopDriver, 1},    {Do::StartDriver, 2},
                           {Do::StopVolume, 1}, {Do::StopVolumes, 1},  {Do::StartTracking, 2}, {Do::MarkAll, 1},
                           {Do::Unmark, 1},     {Do::Monitor, 2},      {Do::Ask, 2},           {Do::RegisterAgain, 1}};

// A backup among three applications writes ten times, and asks the driver eight times.
constexpr std::uint32_t MOST_TRANSFERS = 16;

constexpr std::uint32_t ERRORS[] = {5, 6, 8, 13, 31, 32, 87, 112, 122, 1450, 1359};
// Once: who is told for ever that there is more reads for ever.
constexpr std::uint32_t MORE_DATA = 234;
// Where it is no answer to the question whether something is there.
constexpr std::uint32_t NOT_THERE[] = {2, 3};

template <std::size_t N>
Do Choose(Dice& dice, const Weight (&weights)[N])
{
    std::uint32_t sum = 0;
    for (const Weight& one : weights)
        sum += one.weight;
    std::uint32_t at = dice.Below(sum);
    for (const Weight& one : weights) {
        if (at < one.weight)
            return one.what;
        at -= one.weight;
    }
    return Do::Ask;
}

constexpr std::uint32_t LEAST_GRAINS = 20;
constexpr std::uint32_t MOST_MORE_GRAINS = 900;

std::uint32_t ChooseGrains(Dice& dice)
{
    return LEAST_GRAINS + dice.Below(dice.OneIn(3) ? MOST_MORE_GRAINS : 200);
}

std::uint32_t ChooseBlockSize(Dice& dice)
{
    return 512u << dice.Below(4);
}

// What was not flushed is kept, lost, or torn.
std::uint32_t ChoosePowerCut(Dice& dice)
{
    return dice.OneIn(2) ? dice.Below(2) : 2 + dice.Below(1000);
}

// Whether a fault can strike: the operation calls the library.
bool Calls(Do what)
{
    switch (what) {
    case Do::Write:
    case Do::Crash:
    case Do::LoseTracking:
    case Do::Resize:
    case Do::SetBlockSize:
    case Do::Damage:
    case Do::PowerCut:
    case Do::StopDriver:
    case Do::StartDriver:
    case Do::StartTracking:
        return false;
    default:
        return true;
    }
}

} // namespace

std::uint32_t ChooseGrain(Dice& dice, const VolumeShape& volume)
{
    return dice.Below(std::max(volume.grains, LEAST_GRAINS + MOST_MORE_GRAINS));
}

Operation ChooseOperation(Dice& dice, const std::vector<VolumeShape>& volumes, bool calm)
{
    Operation operation;
    operation.what = calm ? Choose(dice, CALM) : Choose(dice, WILD);
    operation.application = dice.Below(APPLICATIONS);
    operation.volume = dice.Below(static_cast<std::uint32_t>(volumes.size()));
    switch (operation.what) {
    case Do::Write:
        operation.a = ChooseGrain(dice, volumes[operation.volume]);
        operation.b = dice.OneIn(4) ? dice.Below(64) : 0;
        break;
    case Do::Backup:
    case Do::Finish:
        if (dice.OneIn(4)) {
            operation.a = ChooseGrain(dice, volumes[operation.volume]);
            operation.b = 1 + dice.Below(8);
        }
        break;
    case Do::Resize:
        operation.a = ChooseGrains(dice);
        break;
    case Do::SetBlockSize:
        operation.a = ChooseBlockSize(dice);
        break;
    case Do::Damage:
        operation.a = dice.Below(2);
        operation.b = dice.Below(DAMAGE_COUNT);
        break;
    case Do::PowerCut:
        operation.a = ChoosePowerCut(dice);
        break;
    case Do::Monitor:
    case Do::Unmark:
        operation.a = dice.Below(2);
        break;
    default:
        break;
    }
    return operation;
}

Fault ChooseFault(Dice& dice)
{
    Fault fault;
    do
        fault.how = static_cast<Fault::How>(1 + dice.Below(static_cast<std::uint32_t>(Fault::How::ShortRead) - 1));
    while (fault.how == Fault::How::NotThere);
    switch (fault.how) {
    case Fault::How::Short:
    case Fault::How::DieInWrite:
        fault.nth = 1 + dice.Below(MOST_TRANSFERS);
        fault.error = dice.Below(4096);
        break;
    case Fault::How::FailAfter:
        fault.nth = 1 + dice.Below(MOST_TRANSFERS);
        fault.error = dice.Below(std::size(CHANGING));
        break;
    case Fault::How::FailOf:
        fault.nth = 1 + dice.Below(1u << (1 + dice.Below(5)));
        fault.error = dice.Below(NEVER_ASKED);
        fault.error = FailureOf(fault.error, NOT_THERE[dice.Below(std::size(NOT_THERE))]);
        break;
    case Fault::How::FailOfOn:
        fault.nth = 1 + dice.Below(4);
        // A volume whose kind is never told is passed over (an assumption).
        do
            fault.error = dice.Below(NEVER_ASKED);
        while (FUNCTIONS[fault.error] == std::wstring_view(L"GetDriveTypeW"));
        fault.error = FailureOf(fault.error, ERRORS[dice.Below(std::size(ERRORS))]);
        break;
    default:
        fault.nth = 1 + dice.Below(1u << (1 + dice.Below(8)));
        fault.error = ERRORS[dice.Below(std::size(ERRORS))];
        if (fault.how == Fault::How::Fail && dice.OneIn(std::size(ERRORS) + 1))
            fault.error = MORE_DATA;
        break;
    }
    return fault;
}

namespace {

// Of the requests of a fetch the first asks for the block size, and the last tells the driver to forget.
constexpr std::uint32_t REQUESTS_OF_FETCH = 3;

// What lets a fetch fail; or what is reported as failed was done, the forgetting among it.
Fault ChooseFailureOfFetch(Dice& dice)
{
    if (dice.OneIn(4))
        return {Fault::How::FailAfter, 1 + dice.Below(REQUESTS_OF_FETCH), FunctionThatChanges(L"DeviceIoControl")};
    return {dice.OneIn(2) ? Fault::How::Fail : Fault::How::FailOn, 1 + dice.Below(1u << (2 + dice.Below(6))),
            ERRORS[dice.Below(std::size(ERRORS))]};
}

} // namespace

History ChooseHistory(std::uint64_t seed)
{
    Dice dice(seed);
    History history;
    const std::uint32_t volumes = 1 + dice.Below(3);
    for (std::uint32_t i = 0; i < volumes; ++i)
        history.volumes.push_back({ChooseGrains(dice), ChooseBlockSize(dice)});
    // Bitmaps of more than one sector, which can be torn in the middle of what counts.
    if (dice.OneIn(6))
        history.volumes.front() = {8192, 512};
    if (dice.OneIn(400))
        history.volumes.front() = {HUGE_GRAINS + dice.Below(HUGE_GRAINS / 10), 512};
    const bool calm = dice.OneIn(4);
    const std::uint32_t length = 4 + dice.Below(dice.OneIn(4) ? 40 : 16);
    history.operations.push_back({Do::Register, 0, 0, 0, 0, {}});
    for (std::uint32_t application = 1; application < APPLICATIONS; ++application) {
        if (dice.OneIn(2))
            history.operations.push_back({Do::Register, application, 0, 0, 0, {}});
    }
    for (std::uint32_t application = 0; application < APPLICATIONS && !calm; ++application) {
        if (dice.OneIn(2))
            history.operations.push_back({Do::AsksAgain, application, 0, 1 + dice.Below(AGAIN_COUNT - 1), 0, {}});
    }
    for (std::uint32_t i = 0; i < length; ++i) {
        Operation operation = ChooseOperation(dice, history.volumes, calm);
        if (!calm && Calls(operation.what) && dice.OneIn(5))
            operation.faults.push_back(ChooseFault(dice));
        if (!operation.faults.empty() && dice.OneIn(8))
            operation.faults.push_back(ChooseFault(dice));
        // Behind a good backup a fetch fails; whoever asks again takes the reported blocks in the one that comes now.
        if (!calm && operation.what == Do::Backup && dice.OneIn(8)) {
            const std::uint32_t application = operation.application;
            const Fault failure = ChooseFailureOfFetch(dice);
            history.operations.push_back({Do::Backup, application, operation.volume, 0, 0, {}});
            history.operations.push_back({Do::Write, 0, operation.volume, dice.Below(LEAST_GRAINS), 0, {}});
            history.operations.push_back({Do::Begin, application, operation.volume, 0, 0, {}});
            history.operations.push_back({Do::Fetch, application, 0, 0, 0, {failure}});
            history.operations.push_back({Do::Finish, application, 0, 0, 0, {}});
        }
        history.operations.push_back(operation);
        // The power goes in the middle of something.
        if (!calm && !operation.faults.empty() && dice.OneIn(4))
            history.operations.push_back({Do::PowerCut, 0, 0, ChoosePowerCut(dice), 0, {}});
    }
    return history;
}

History Shrink(History history, const std::function<bool(const History&)>& isBroken)
{
    bool changed = true;
    const auto takeIfBroken = [&](History candidate) {
        if (!isBroken(candidate))
            return false;
        history = std::move(candidate);
        changed = true;
        return true;
    };
    while (changed) {
        changed = false;
        for (std::size_t piece = std::max<std::size_t>(1, history.operations.size() / 2);; piece /= 2) {
            for (std::size_t at = 0; at < history.operations.size();) {
                History shorter = history;
                const auto begin = shorter.operations.begin() + static_cast<std::ptrdiff_t>(at);
                const std::size_t end = std::min(at + piece, shorter.operations.size());
                shorter.operations.erase(begin, shorter.operations.begin() + static_cast<std::ptrdiff_t>(end));
                if (!takeIfBroken(std::move(shorter)))
                    at += piece;
            }
            if (piece <= 1)
                break;
        }
        for (std::size_t at = 0; at < history.operations.size(); ++at) {
            History simpler = history;
            Operation& operation = simpler.operations[at];
            if (!operation.faults.empty()) {
                operation.faults.pop_back();
                takeIfBroken(simpler);
            }
            simpler = history;
            if (simpler.operations[at].b != 0 && simpler.operations[at].what != Do::Damage) {
                simpler.operations[at].b = 0;
                takeIfBroken(simpler);
            }
        }
        if (history.volumes.size() > 1) {
            History fewer = history;
            fewer.volumes.pop_back();
            const auto last = static_cast<std::uint32_t>(fewer.volumes.size());
            const bool unused = std::none_of(fewer.operations.begin(), fewer.operations.end(),
                                             [last](const Operation& one) { return one.volume >= last; });
            if (unused)
                takeIfBroken(std::move(fewer));
        }
    }
    return history;
}

} // namespace vtproof
