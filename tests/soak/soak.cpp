#include "soak.h"

#include "demo/child.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <utility>

namespace vtsoak {

namespace {

constexpr DWORD EXIT_OK = 0;
constexpr DWORD EXIT_BUSY = 3;
constexpr DWORD EXIT_REFUSED = 4; // not registered
// No process may take longer. It is far beyond what any takes on a machine that is busy with other things.
constexpr DWORD HANG_MILLISECONDS = 5 * 60 * 1000;
constexpr std::uint64_t BACKUPS_IN_A_CHAIN = 25;
constexpr ULONGLONG PROGRESS_MILLISECONDS = 10'000;
constexpr std::uint64_t LENGTHS[VOLUMES] = {1024 * 1024 + 4611, 3 * 1024 * 1024};
constexpr DWORD BLOCKS[VOLUMES] = {4096, 16384};

unsigned Below(std::mt19937& random, unsigned bound)
{
    return static_cast<unsigned>(random() % bound);
}

std::string Narrow(const std::wstring& text)
{
    std::string narrow;
    for (const wchar_t character : text)
        narrow += static_cast<char>(character);
    return narrow;
}

unsigned long long Number(const std::atomic<std::uint64_t>& value)
{
    return value.load();
}

} // namespace

Soak::Soak(std::wstring root, const Options& options)
    : m_root(std::move(root)), m_options(options), m_started(GetTickCount64())
{
    vtfltsim::Check("VTFltSimCreate", VTFltSimCreate((m_root + L"\\machine").c_str(), &m_machine));
}

Soak::~Soak()
{
    VTFltSimClose(m_machine);
    VTFltSimDestroy((m_root + L"\\machine").c_str());
}

std::vector<std::wstring> Soak::Arguments(const wchar_t* command, const Worker& worker, std::size_t volume) const
{
    std::vector<std::wstring> arguments = {command,       L"--json",
                                           L"--app",      worker.name,
                                           L"--repo",     m_root + L"\\repository",
                                           L"--simulate", m_root + L"\\machine"};
    if (volume < VOLUMES)
        arguments.insert(arguments.end(), {L"--volume", m_volumes[volume]});
    return arguments;
}

void Soak::Prepare()
{
    std::mt19937 random(m_options.seed);
    for (std::size_t i = 0; i < VOLUMES; ++i) {
        const std::wstring mountPath = std::wstring(1, static_cast<wchar_t>(L'E' + i)) + L":\\";
        VTFLTSIM_VOLUME_CONFIG config = {};
        config.size = sizeof(config);
        config.length = LENGTHS[i];
        config.blockSize = BLOCKS[i];
        config.mountPath = mountPath.c_str();
        WCHAR guid[VTFLTSIM_GUID_CHARS] = {};
        vtfltsim::Check("VTFltSimAddVolume", VTFltSimAddVolume(m_machine, &config, guid));
        m_volumes[i] = guid;
        std::vector<unsigned char> data(static_cast<std::size_t>(LENGTHS[i]));
        std::generate(data.begin(), data.end(), [&] { return static_cast<unsigned char>(random()); });
        vtfltsim::Check("VTFltSimWriteVolume",
                        VTFltSimWriteVolume(m_machine, guid, 0, data.data(), static_cast<DWORD>(data.size())));
    }
    for (std::size_t i = 0; i < APPLICATIONS; ++i) {
        Worker& worker = m_workers[i];
        worker.number = i;
        worker.name = L"Soak" + std::to_wstring(i);
        worker.random.seed(m_options.seed * 1000 + static_cast<unsigned>(i));
        if (RunOnce(worker, Arguments(L"init", worker), Victim::No).ended != Ended::Well)
            throw std::runtime_error("vtbackup init failed");
    }
}

bool Soak::Run()
{
    Prepare();
    std::vector<std::thread> threads;
    for (Worker& worker : m_workers) {
        threads.emplace_back([&] {
            try {
                Work(worker);
            } catch (const std::exception& error) {
                ++m_totals.failures;
                Report(Narrow(worker.name) + ": " + error.what());
            }
        });
    }
    for (std::size_t i = 0; i < VOLUMES; ++i)
        threads.emplace_back([this, i] { Write(i); });
    threads.emplace_back([this] { Disturb(); });
    for (std::thread& thread : threads)
        thread.join();
    const bool wasTried = WasTried();
    if (!wasTried)
        Report("nothing was killed, or an application restored nothing or had no incremental backup, in this time");
    const bool wasEnough = m_totals.kills >= m_options.kills;
    if (!wasEnough)
        Report("fewer runs were killed than were asked for, in this time");
    return wasTried && wasEnough && m_totals.differences + m_totals.hangs + m_totals.failures == 0;
}

// Kills alone show nothing, and who always reads everything loses nothing either.
bool Soak::WasTried() const
{
    return m_totals.kills != 0 && std::all_of(m_workers.begin(), m_workers.end(), [](const Worker& worker) {
               return worker.restores != 0 && worker.incremental != 0;
           });
}

bool Soak::GoesOn()
{
    const double minutes = static_cast<double>(GetTickCount64() - m_started) / 60'000;
    const bool isEnough = m_options.kills != 0 && m_totals.kills >= m_options.kills && WasTried();
    if (minutes >= m_options.minutes || isEnough)
        m_over = true;
    return !m_over;
}

// The first problem ends the soak.
void Soak::Report(const std::string& text)
{
    m_over = true;
    const std::lock_guard guard(m_printing);
    std::printf("WRONG: %s\n", text.c_str());
    std::fflush(stdout);
}

void Soak::Work(Worker& worker)
{
    while (GoesOn()) {
        const std::size_t volume = Below(worker.random, VOLUMES);
        if (Below(worker.random, 20) == 0)
            RegisterAnew(worker);
        BackUp(worker, volume);
    }
}

Soak::Outcome Soak::RunOnce(Worker& worker, std::vector<std::wstring> arguments, Victim victim)
{
    std::wstring calls;
    DWORD patience = HANG_MILLISECONDS;
    // Ended from outside, whatever it does then, or at any call of its own.
    const bool fromOutside = victim == Victim::Yes && Below(worker.random, 2) == 0;
    if (fromOutside)
        patience = static_cast<DWORD>(Below(worker.random, static_cast<unsigned>(worker.milliseconds * 1.2) + 1));
    else if (victim == Victim::Yes)
        calls = (Below(worker.random, 2) == 0 ? L"kill-before|*||" : L"kill-after|*||") +
                std::to_wstring(1 + Below(worker.random, 1u << (5 + Below(worker.random, 7))));
    vtdemo::Child child(arguments, calls);
    const ULONGLONG began = GetTickCount64();
    const ULONGLONG busySince = std::exchange(worker.busySince, 0);
    Outcome outcome;
    const bool came = WaitForSingleObject(child.Process(), patience) == WAIT_OBJECT_0;
    if (!came)
        child.Terminate();
    const vtdemo::Answer answer = child.Finish();
    outcome.sequence = answer.sequence;
    outcome.snapshot = answer.snapshot;
    outcome.incremental = answer.kind == "incremental";
    if (!came && !fromOutside) {
        ++m_totals.hangs;
        Report(Narrow(worker.name) + ": vtbackup " + Narrow(arguments.front()) + " did not end within five minutes");
        return outcome;
    }
    constexpr DWORD TERMINATED = 99; // what Child::Terminate gives
    const bool isUndo = arguments.back() == L"--undo";
    if (victim == Victim::Yes && (answer.exitCode == TERMINATED || answer.exitCode == VTFLTSIM_KILLED)) {
        ++m_totals.kills;
        worker.mayBeUnregistered |= isUndo;
        outcome.ended = Ended::Killed;
        return outcome;
    }
    if (answer.exitCode == EXIT_BUSY) {
        worker.busySince = busySince;
        return Busy(worker, outcome);
    }
    // An earlier run that was ended had got as far as unregistering.
    const bool refused = answer.exitCode == EXIT_REFUSED && isUndo && worker.mayBeUnregistered;
    if (answer.exitCode == EXIT_OK || refused) {
        worker.mayBeUnregistered &= !isUndo;
        m_totals.survived += victim == Victim::Yes ? 1 : 0;
        worker.milliseconds = 0.9 * worker.milliseconds + 0.1 * static_cast<double>(GetTickCount64() - began);
        outcome.ended = Ended::Well;
        return outcome;
    }
    ++m_totals.failures;
    Report(Narrow(worker.name) + ": vtbackup " + Narrow(arguments.front()) + " ended with " +
           std::to_string(answer.exitCode) + ": " + answer.message);
    return outcome;
}

// Somebody else is at work. A lock that nobody gives back would be a hang, too.
Soak::Outcome Soak::Busy(Worker& worker, Outcome outcome)
{
    ++m_totals.busy;
    outcome.ended = Ended::Busy;
    const ULONGLONG now = GetTickCount64();
    if (worker.busySince == 0)
        worker.busySince = now;
    if (now - worker.busySince >= HANG_MILLISECONDS) {
        ++m_totals.hangs;
        Report(Narrow(worker.name) + ": somebody else is at work for five minutes");
        outcome.ended = Ended::Badly;
    }
    return outcome;
}

bool Soak::RunThrough(Worker& worker, const std::vector<std::wstring>& arguments, Outcome& outcome)
{
    unsigned victims = Below(worker.random, 4);
    while (GoesOn()) {
        outcome = RunOnce(worker, arguments, victims != 0 ? Victim::Yes : Victim::No);
        if (outcome.ended == Ended::Well)
            return true;
        if (outcome.ended == Ended::Badly)
            return false;
        if (outcome.ended == Ended::Killed)
            --victims;
        else
            Sleep(20 + Below(worker.random, 60));
    }
    return false;
}

std::string Soak::SnapshotNumbers() const
{
    std::string numbers;
    VTFLTSIM_SNAPSHOT_INFO info = {};
    info.size = sizeof(info);
    for (DWORD i = 0; VTFltSimEnumSnapshot(m_machine, i, &info) == 0; ++i)
        numbers += " " + std::to_string(info.number);
    return numbers;
}

void Soak::BackUp(Worker& worker, std::size_t volume)
{
    Series& series = worker.series[volume];
    std::vector<std::wstring> arguments = Arguments(L"backup", worker, volume);
    arguments.emplace_back(L"--keep-snapshot");
    arguments.insert(arguments.end(), {L"--audit", L"100"}); // a loss that it finds is one of the library's
    const bool anew = series.since >= BACKUPS_IN_A_CHAIN;
    if (anew)
        arguments.emplace_back(L"--full");
    {
        const SnapshotGate::Inside inside(m_gate);
        Outcome outcome;
        if (!RunThrough(worker, arguments, outcome))
            return;
        NoteBackup(worker, volume, outcome);
        series.since = anew ? 0 : series.since + 1;
    }
    if (anew)
        RemoveBefore(worker, volume, series.sequence);
    Restore(worker, volume);
    // What runs that were ended later have left must not harm what was there before.
    Outcome later;
    if (Below(worker.random, 4) == 0 && GoesOn()) {
        const SnapshotGate::Inside inside(m_gate);
        later = RunOnce(worker, arguments, Victim::Yes);
        if (later.ended == Ended::Well)
            NoteBackup(worker, volume, later);
    }
    if (later.ended == Ended::Well || (Below(worker.random, 4) == 0 && GoesOn()))
        Restore(worker, volume);
}

// A backup that came to its end: what its snapshot has is what a restore must give.
void Soak::NoteBackup(Worker& worker, std::size_t volume, const Outcome& outcome)
{
    Series& series = worker.series[volume];
    ++m_totals.backups;
    m_totals.incremental += outcome.incremental ? 1 : 0;
    worker.incremental += outcome.incremental ? 1 : 0;
    try {
        series.contents = vtdemo::CopySnapshot(m_machine, outcome.snapshot, nullptr);
    } catch (const std::exception& error) {
        throw std::runtime_error("backup " + std::to_string(outcome.sequence) + " of " + Narrow(m_volumes[volume]) +
                                 ", snapshot " + std::to_string(outcome.snapshot) + ": " + error.what() +
                                 "; there are" + SnapshotNumbers());
    }
    vtfltsim::Check("VTFltSimDeleteSnapshot", VTFltSimDeleteSnapshot(m_machine, outcome.snapshot));
    series.sequence = outcome.sequence;
}

void Soak::Restore(Worker& worker, std::size_t volume)
{
    const Series& series = worker.series[volume];
    const std::wstring file = m_root + L"\\restored-" + worker.name;
    std::vector<std::wstring> arguments = Arguments(L"restore", worker, volume);
    arguments.insert(arguments.end(), {L"--backup", std::to_wstring(series.sequence), L"--to", file, L"--overwrite"});
    Outcome outcome = RunOnce(worker, arguments, Victim::No);
    while (outcome.ended == Ended::Busy) {
        Sleep(20);
        outcome = RunOnce(worker, arguments, Victim::No);
    }
    if (outcome.ended != Ended::Well)
        return;
    const std::string difference = vtdemo::CompareFile(file, series.contents);
    ++m_totals.restores;
    ++worker.restores;
    m_totals.bytes += series.contents.length;
    if (difference.empty())
        return;
    ++m_totals.differences;
    Report("backup " + std::to_string(series.sequence) + " of " + Narrow(m_volumes[volume]) + " for " +
           Narrow(worker.name) + ": " + difference);
}

// Unregisters the application and registers it again; either may be ended in the middle, and is begun again.
void Soak::RegisterAnew(Worker& worker)
{
    std::vector<std::wstring> undo = Arguments(L"init", worker);
    undo.emplace_back(L"--undo");
    Outcome outcome;
    if (RunThrough(worker, undo, outcome) && RunThrough(worker, Arguments(L"init", worker), outcome))
        ++m_totals.registrations;
    // Whoever goes on must be registered.
    while (outcome.ended == Ended::Killed || outcome.ended == Ended::Busy)
        outcome = RunOnce(worker, Arguments(L"init", worker), Victim::No);
}

// A chain begins with a full backup: what came before it can go.
void Soak::RemoveBefore(const Worker& worker, std::size_t volume, std::uint64_t sequence)
{
    for (const auto& application : std::filesystem::directory_iterator(m_root + L"\\repository\\chains")) {
        if (!application.path().filename().wstring().starts_with(worker.name + L"-"))
            continue;
        for (const auto& chain : std::filesystem::directory_iterator(application.path())) {
            if (m_volumes[volume].find(chain.path().filename().wstring()) == std::wstring::npos)
                continue;
            for (const auto& backup : std::filesystem::directory_iterator(chain.path())) {
                const std::wstring name = backup.path().filename().wstring();
                if (backup.is_directory() && std::stoull(name) < sequence)
                    std::filesystem::remove_all(backup.path());
            }
        }
    }
}

// Keeps changing a volume.
void Soak::Write(std::size_t volume)
{
    std::mt19937 random(m_options.seed * 77 + static_cast<unsigned>(volume));
    std::vector<unsigned char> data;
    while (!m_over) {
        data.assign(1 + Below(random, 6000), 0);
        if (Below(random, 8) != 0)
            std::generate(data.begin(), data.end(), [&] { return static_cast<unsigned char>(random()); });
        const std::uint64_t offset =
            Below(random, static_cast<unsigned>(LENGTHS[volume] - data.size())) / (Below(random, 4) != 0 ? 8 : 1);
        vtfltsim::Check("VTFltSimWriteVolume", VTFltSimWriteVolume(m_machine, m_volumes[volume].c_str(), offset,
                                                                   data.data(), static_cast<DWORD>(data.size())));
        ++m_totals.writes;
        Sleep(5 + Below(random, 30));
    }
}

// Snapshots that nobody knows any more: their process was ended between taking and noting them.
void Soak::RemoveLeftSnapshots()
{
    m_gate.WhileNobodyIsInside([this] {
        VTFLTSIM_SNAPSHOT_INFO info = {};
        info.size = sizeof(info);
        while (VTFltSimEnumSnapshot(m_machine, 0, &info) == 0)
            vtfltsim::Check("VTFltSimDeleteSnapshot", VTFltSimDeleteSnapshot(m_machine, info.number));
    });
}

// Says how far it is, loses tracking now and then, and tidies up.
void Soak::Disturb()
{
    std::mt19937 random(m_options.seed * 99);
    ULONGLONG next = m_started + PROGRESS_MILLISECONDS;
    while (GoesOn()) {
        Sleep(200);
        const ULONGLONG now = GetTickCount64();
        if (now < next)
            continue;
        next = now + PROGRESS_MILLISECONDS;
        if (Below(random, 3) == 0) {
            vtfltsim::Check("VTFltSimLoseTracking",
                            VTFltSimLoseTracking(m_machine, m_volumes[Below(random, VOLUMES)].c_str()));
            ++m_totals.losses;
        }
        if (Below(random, 2) == 0)
            RemoveLeftSnapshots();
        const double seconds = static_cast<double>(now - m_started) / 1000;
        double left = std::max(0.0, m_options.minutes * 60 - seconds);
        if (m_options.kills != 0 && m_totals.kills != 0)
            left = std::min(left, seconds / static_cast<double>(m_totals.kills) * static_cast<double>(m_options.kills) -
                                      seconds);
        const std::lock_guard guard(m_printing);
        std::printf(
            "%5.0f s  %llu kills  %llu backups, %llu incremental  %llu restores  %.0f MB compared  %.0f s left\n",
            seconds, Number(m_totals.kills), Number(m_totals.backups), Number(m_totals.incremental),
            Number(m_totals.restores), static_cast<double>(m_totals.bytes) / 1e6, left);
        std::fflush(stdout);
    }
}

} // namespace vtsoak
