#include "demo.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <thread>

namespace vtdemo {
namespace {

constexpr DWORD EXIT_BUSY = 3;
constexpr int BUSY_RETRIES = 600;
constexpr std::uint64_t INCREMENTAL_PART = 3; // an incremental backup reads less than a third of its volume

void Check(const char* what, DWORD error)
{
    if (error != 0)
        throw std::runtime_error(std::string(what) + " failed with error " + std::to_string(error));
}

std::string Narrow(const std::wstring& text)
{
    std::string out;
    for (const wchar_t c : text)
        out += static_cast<char>(c);
    return out;
}

std::string SizeText(std::uint64_t bytes)
{
    char text[32];
    if (bytes >= 1ULL << 30)
        std::snprintf(text, sizeof(text), "%.1f GiB", static_cast<double>(bytes) / (1 << 30));
    else if (bytes >= 1ULL << 20)
        std::snprintf(text, sizeof(text), "%.1f MiB", static_cast<double>(bytes) / (1 << 20));
    else
        std::snprintf(text, sizeof(text), "%.0f KiB", static_cast<double>(bytes) / (1 << 10));
    return text;
}

std::string ShortName(const DemoVolume& volume)
{
    const std::string name = volume.name;
    return name.substr(0, name.find(' '));
}

// Overwrites a bitmap file's beginning, as a failing disk would.
void DamageFile(const std::wstring& path)
{
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    DWORD written = 0;
    const char garbage[] = "this is no bitmap";
    const bool done = file != INVALID_HANDLE_VALUE && WriteFile(file, garbage, sizeof(garbage), &written, nullptr);
    if (file != INVALID_HANDLE_VALUE)
        CloseHandle(file);
    if (!done)
        throw std::runtime_error("a bitmap file is not where it should be");
}

} // namespace

Demo::Demo(std::wstring root) : m_root(std::move(root)), m_volumes(DemoVolumes())
{
    Check("VTFltSimCreate", VTFltSimCreate((m_root + L"\\machine").c_str(), &m_machine));
}

Demo::~Demo()
{
    m_writers.clear();
    VTFltSimClose(m_machine);
    VTFltSimDestroy((m_root + L"\\machine").c_str());
}

std::vector<std::wstring> Demo::Arguments(const wchar_t* command, std::size_t application, std::size_t volume) const
{
    std::vector<std::wstring> arguments = {command,       L"--json",
                                           L"--app",      m_applications[application],
                                           L"--repo",     m_root + L"\\repository",
                                           L"--simulate", m_root + L"\\machine"};
    if (volume < VOLUMES) {
        arguments.push_back(L"--volume");
        arguments.push_back(m_volumes[volume].guid);
    }
    return arguments;
}

void Demo::Prepare()
{
    std::printf("volumes:\n");
    for (std::size_t i = 0; i < VOLUMES; ++i) {
        AddVolume(m_machine, m_volumes[i], static_cast<wchar_t>(L'E' + i));
        std::printf("  %c:  %s\n", static_cast<char>('E' + i), m_volumes[i].name);
    }
    for (std::size_t i = 0; i < APPLICATIONS; ++i) {
        const Answer answer = RunChild(Arguments(L"init", i, VOLUMES));
        if (answer.exitCode != 0)
            throw std::runtime_error("vtbackup init failed: " + answer.message);
    }
    for (std::size_t i = 0; i < VOLUMES; ++i)
        m_writers.push_back(std::make_unique<Writer>(m_machine, m_volumes[i], static_cast<unsigned>(i)));
    std::printf("\n%5s  %-8s %-6s %-12s %8s %10s %10s  %-10s %s\n", "cycle", "app", "volume", "kind", "changed", "read",
                "of", "restored", "why");
}

void Demo::Print(const Row& row) const
{
    std::printf("%5d  %-8s %-6s %-12s %8llu %10s %10s  %-10s %s\n", row.cycle,
                Narrow(m_applications[row.application]).c_str(), ShortName(m_volumes[row.volume]).c_str(),
                row.kind.c_str(), static_cast<unsigned long long>(row.blocks), SizeText(row.bytesRead).c_str(),
                SizeText(row.volumeLength).c_str(), row.result.c_str(), row.why.c_str());
    std::fflush(stdout);
}

bool Demo::Run()
{
    Prepare();
    for (int step = 1; step <= STEPS; ++step) {
        if (!RunStep(step))
            return false;
    }
    bool written = true;
    for (const auto& writer : m_writers) {
        m_totals.writes += writer->Writes();
        written = written && writer->Writes() != 0;
    }
    m_writers.clear();
    if (!written) {
        std::printf("FAILED: a volume was never written to\n");
        return false;
    }
    std::printf("\n");
    for (const std::string& problem : {RestoreOldOnes(), CheckRepositories()}) {
        if (!problem.empty()) {
            std::printf("FAILED: %s\n", problem.c_str());
            return false;
        }
    }
    for (std::size_t i = 0; i < APPLICATIONS; ++i) {
        if (m_cycles[i] < 10) {
            std::printf("FAILED: %s had only %d cycles\n", Narrow(m_applications[i]).c_str(), m_cycles[i]);
            return false;
        }
    }
    return true;
}

bool Demo::RunStep(int step)
{
    std::vector<std::string> names;
    for (const std::wstring& application : m_applications)
        names.push_back(Narrow(application));
    std::vector<std::string> volumes;
    for (const DemoVolume& volume : m_volumes)
        volumes.push_back(ShortName(volume));
    for (const Event& event : Events()) {
        if (event.step != step)
            continue;
        std::printf("       -- %s\n", Describe(event, names, volumes).c_str());
        if (!IsKill(event.kind))
            Apply(event);
    }
    std::vector<Row> rows[APPLICATIONS];
    std::string errors[APPLICATIONS];
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < APPLICATIONS; ++i) {
        threads.emplace_back([&, i] {
            try {
                RunApplication(i, step, rows[i]);
            } catch (const std::exception& error) {
                errors[i] = error.what();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    bool good = true;
    for (std::size_t i = 0; i < APPLICATIONS; ++i) {
        for (const Row& row : rows[i]) {
            Print(row);
            good = good && row.good;
        }
        if (!errors[i].empty()) {
            std::printf("FAILED: %s: %s\n", names[i].c_str(), errors[i].c_str());
            good = false;
        }
    }
    if (!good)
        std::printf("FAILED in step %d\n", step);
    return good;
}

void Demo::Apply(const Event& event)
{
    const wchar_t* volume = m_volumes[event.volume].guid.c_str();
    VTFLTSIM_VOLUME_INFO info = {};
    info.size = sizeof(info);
    Check("VTFltSimGetVolumeInfo", VTFltSimGetVolumeInfo(m_machine, volume, &info));
    bool everyApplication = true;
    switch (event.kind) {
    case EventKind::LoseTracking:
        Check("VTFltSimLoseTracking", VTFltSimLoseTracking(m_machine, volume));
        break;
    case EventKind::Resize:
        Check("VTFltSimResizeVolume", VTFltSimResizeVolume(m_machine, volume, event.value));
        break;
    case EventKind::BlockSize:
        Check("VTFltSimSetBlockSize", VTFltSimSetBlockSize(m_machine, volume, static_cast<DWORD>(event.value)));
        break;
    case EventKind::DamageChild:
    case EventKind::DamageBase:
        DamageFile(std::wstring(info.filesDirectory) +
                   (event.kind == EventKind::DamageChild ? L"\\VelVolTrc\\VelVolTrc_child_"
                                                         : L"\\VelVolTrc\\VelVolTrc_base_") +
                   m_applications[event.application] + L".dat");
        everyApplication = false;
        break;
    case EventKind::KillWhileCopying:
    case EventKind::KillBeforeManifest:
    case EventKind::KillBeforeReport:
        return;
    }
    for (std::size_t i = 0; i < APPLICATIONS; ++i) {
        if (everyApplication || i == event.application)
            Expect(m_series[i][event.volume].next, event.kind);
    }
}

void Demo::RunApplication(std::size_t application, int step, std::vector<Row>& rows)
{
    const std::vector<std::size_t> due = VolumesDue(application, step);
    if (due.empty())
        return;
    ++m_cycles[application];
    for (const std::size_t volume : due) {
        for (const Event& event : Events()) {
            if (event.step == step && IsKill(event.kind) && event.application == application &&
                event.volume == volume) {
                const std::string problem = Kill(application, volume, event.kind);
                if (!problem.empty())
                    throw std::runtime_error(problem);
            }
        }
        rows.push_back(BackUp(application, volume));
        rows.back().cycle = m_cycles[application];
        if (!rows.back().good)
            return;
    }
}

Row Demo::BackUp(std::size_t application, std::size_t volume)
{
    Row row;
    row.application = application;
    row.volume = volume;
    Series& series = m_series[application][volume];
    std::vector<std::wstring> arguments = Arguments(L"backup", application, volume);
    arguments.push_back(L"--keep-snapshot");
    Answer answer = RunChild(arguments);
    for (int i = 0; answer.exitCode == EXIT_BUSY && i < BUSY_RETRIES; ++i) {
        {
            const std::lock_guard guard(m_totalsMutex);
            ++m_totals.busy;
        }
        Sleep(50);
        answer = RunChild(arguments);
    }
    row.kind = answer.kind;
    row.blocks = answer.blocks;
    row.bytesRead = answer.bytesRead;
    row.volumeLength = answer.volumeLength;
    for (const std::string& reason : answer.reasons)
        row.why += (row.why.empty() ? "" : ", ") + reason;
    if (answer.exitCode != 0 || !answer.reported) {
        row.result = "exit code " + std::to_string(answer.exitCode) + ": " + answer.message;
        return row;
    }

    const Contents* earlier = series.snapshots.empty() ? nullptr : &series.snapshots.rbegin()->second;
    series.snapshots[answer.sequence] = CopySnapshot(m_machine, answer.snapshot, earlier);
    Check("VTFltSimDeleteSnapshot", VTFltSimDeleteSnapshot(m_machine, answer.snapshot));

    if (answer.kind != series.next.kind) {
        row.result = "should be " + series.next.kind;
        return row;
    }
    for (const std::string& reason : series.next.reasons) {
        if (std::find(answer.reasons.begin(), answer.reasons.end(), reason) == answer.reasons.end()) {
            row.result = "misses the reason " + reason;
            return row;
        }
    }
    if (answer.sequence != series.sequence + 1) {
        row.result = "is number " + std::to_string(answer.sequence);
        return row;
    }
    if (answer.kind == "incremental" && answer.bytesRead * INCREMENTAL_PART > answer.volumeLength) {
        row.result = "reads too much";
        return row;
    }
    series.sequence = answer.sequence;
    series.next = {"incremental", {}};

    const std::string difference = RestoreAndCompare(application, volume, answer.sequence);
    row.good = difference.empty();
    row.result = row.good ? "equal" : difference;
    const std::lock_guard guard(m_totalsMutex);
    ++m_totals.backups;
    ++(answer.kind == "full" ? m_totals.full : answer.kind == "verify" ? m_totals.verify : m_totals.incremental);
    return row;
}

std::string Demo::Kill(std::size_t application, std::size_t volume, EventKind kind)
{
    Series& series = m_series[application][volume];
    std::string problem;
    if (kind == EventKind::KillWhileCopying) {
        problem = KillWhileCopying(application, volume);
    } else {
        const wchar_t* calls = kind == EventKind::KillBeforeManifest ? L"kill-before|MoveFileExW|manifest.json|1"
                                                                     : L"kill-after|MoveFileExW|manifest.json|1";
        Answer answer = RunChild(Arguments(L"backup", application, volume), calls);
        for (int i = 0; answer.exitCode == EXIT_BUSY && i < BUSY_RETRIES; ++i) {
            Sleep(50);
            answer = RunChild(Arguments(L"backup", application, volume), calls);
        }
        if (answer.exitCode != VTFLTSIM_KILLED)
            problem = "the run that should be killed ended with " + std::to_string(answer.exitCode);
        else if (kind == EventKind::KillBeforeReport)
            problem = TakeOverLeftSnapshot(volume, series);
    }
    const std::lock_guard guard(m_totalsMutex);
    ++m_totals.kills;
    return problem;
}

// The process is stopped where it writes the first data, and then ended from outside.
std::string Demo::KillWhileCopying(std::size_t application, std::size_t volume)
{
    const std::wstring name = L"vtdemo." + std::to_wstring(GetCurrentProcessId()) + L".pause";
    const HANDLE reached = CreateEventW(nullptr, TRUE, FALSE, (name + L".reached").c_str());
    const HANDLE go = CreateEventW(nullptr, TRUE, FALSE, (name + L".go").c_str());
    std::string problem = "the run that should be killed never wrote data";
    for (int i = 0; i < BUSY_RETRIES; ++i) {
        Child child(Arguments(L"backup", application, volume), L"pause|WriteFile|data.bin|1|" + name);
        const HANDLE either[] = {reached, child.Process()};
        if (WaitForMultipleObjects(2, either, FALSE, INFINITE) == WAIT_OBJECT_0) {
            child.Terminate();
            child.Finish();
            problem.clear();
            break;
        }
        if (child.Finish().exitCode != EXIT_BUSY)
            break;
        Sleep(50);
    }
    CloseHandle(reached);
    CloseHandle(go);
    return problem;
}

// A run that was killed behind its manifest left a backup that counts, and its snapshot.
std::string Demo::TakeOverLeftSnapshot(std::size_t volume, Series& series)
{
    for (DWORD i = 0;; ++i) {
        VTFLTSIM_SNAPSHOT_INFO info = {};
        info.size = sizeof(info);
        if (VTFltSimEnumSnapshot(m_machine, i, &info) != 0)
            return "the killed run's snapshot is gone";
        if (m_volumes[volume].guid == info.volumeGuid) {
            series.snapshots[++series.sequence] = CopySnapshot(m_machine, info.number, nullptr);
            return {};
        }
    }
}

std::string Demo::RestoreAndCompare(std::size_t application, std::size_t volume, std::uint64_t sequence)
{
    const Contents& expected = m_series[application][volume].snapshots.at(sequence);
    std::vector<std::wstring> arguments = Arguments(L"restore", application, volume);
    arguments.insert(arguments.end(), {L"--backup", std::to_wstring(sequence), L"--to"});
    std::string difference;
    if (volume == BIG) {
        // A removable volume is none of the applications' business.
        VTFLTSIM_VOLUME_CONFIG config = {};
        config.size = sizeof(config);
        config.length = expected.length;
        config.driveType = DRIVE_REMOVABLE;
        WCHAR guid[VTFLTSIM_GUID_CHARS] = {};
        Check("VTFltSimAddVolume", VTFltSimAddVolume(m_machine, &config, guid));
        arguments.emplace_back(guid);
        const Answer answer = RunChild(arguments);
        difference = answer.exitCode == 0 ? CompareVolume(m_machine, guid, expected) : "restore: " + answer.message;
        Check("VTFltSimRemoveVolume", VTFltSimRemoveVolume(m_machine, guid));
    } else {
        const std::wstring file = m_root + L"\\restored-" + m_applications[application];
        arguments.insert(arguments.end(), {file, L"--overwrite"});
        const Answer answer = RunChild(arguments);
        difference = answer.exitCode == 0 ? CompareFile(file, expected) : "restore: " + answer.message;
        DeleteFileW(file.c_str());
    }
    const std::lock_guard guard(m_totalsMutex);
    m_totals.compared += expected.length;
    return difference;
}

// Every backup was restored when it was the latest. Some are restored again now that many came after them, and the
// one that a killed run left for the first time.
std::string Demo::RestoreOldOnes()
{
    for (std::size_t application = 0; application < APPLICATIONS; ++application) {
        for (std::size_t volume = 0; volume < VOLUMES; ++volume) {
            const Series& series = m_series[application][volume];
            for (const auto& [sequence, contents] : series.snapshots) {
                const bool killed = application == 0 && volume == ODD;
                if (sequence != 2 && !killed)
                    continue;
                const std::string difference = RestoreAndCompare(application, volume, sequence);
                if (!difference.empty())
                    return "backup " + std::to_string(sequence) + " of " + ShortName(m_volumes[volume]) + " for " +
                           Narrow(m_applications[application]) + ", restored again: " + difference;
            }
        }
    }
    return {};
}

std::string Demo::CheckRepositories()
{
    const Answer answer = RunChild({L"verify", L"--json", L"--repo", m_root + L"\\repository"});
    return answer.exitCode == 0 ? std::string() : "vtbackup verify: " + answer.output;
}

Totals Demo::Sum() const
{
    const std::lock_guard guard(m_totalsMutex);
    return m_totals;
}

} // namespace vtdemo
