// whole_log_bench [--quick] FILE: what a log message costs, beside the system calls that it demands; the results go into FILE
// as JSON. It starts itself again as a writer: whole_log_bench --writer|--bare-writer COUNT.
#include "log_bare.h"
#include "measure.h"

#include "log/log.h"

#include <fstream>
#include <vector>

namespace {

using namespace bench;

constexpr wchar_t RING_NAME[] = L"WHOLE_LOG_BENCH.EXE";
constexpr wchar_t READY_NAME[] = L"Local\\vtflt.bench.ready";
constexpr wchar_t GO_NAME[] = L"Local\\vtflt.bench.go";
constexpr double TARGET = 1.15;
constexpr int WRITERS = 8;

struct Amounts {
    int messages;
    int pairs;
    int messagesOfWriter;
    int writerPairs;
};
constexpr Amounts FULL = {400, 15, 200, 8};
constexpr Amounts QUICK = {5, 2, 3, 2};

std::wstring Folder()
{
    WCHAR program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring folder = program;
    return folder.substr(0, folder.rfind(L'\\') + 1);
}

std::wstring LibraryFile()
{
    return Folder() + L"Logs\\whole_log_bench.exe.Log";
}

std::wstring BareFile()
{
    return Folder() + L"Logs\\bare.Log";
}

void LogAccepted()
{
    vtflt::Log(vtflt::LOG_INFORMATION, 0, L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Updated child bitmaps.");
}

void LogRejected()
{
    vtflt::Log(vtflt::LOG_DETAIL, 0, L"CMultiBitmapManager::resetVerifyVolume::Need to delete %s", L"a volume");
}

template <class Work>
auto Times(int count, Work work)
{
    return [=] {
        for (int i = 0; i < count; ++i)
            work();
    };
}

std::uint64_t SizeOf(const std::wstring& path)
{
    const vtflt::UniqueHandle file(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                               nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    Require(file.valid(), "opening a log file");
    LARGE_INTEGER size = {};
    Require(GetFileSizeEx(file.get(), &size) != FALSE, "asking for a log file's size");
    return static_cast<std::uint64_t>(size.QuadPart);
}

// How much a file grew in each timed run. A message that fails says so to nobody, and would be a fast one.
class Growth {
public:
    explicit Growth(std::wstring path) : m_path(std::move(path)) {}

    // The time of the work, which it gives itself, in ms.
    template <class Timed>
    double Watch(const Timed& timed)
    {
        const std::uint64_t before = SizeOf(m_path);
        const double time = timed();
        m_grown.push_back(SizeOf(m_path) - before);
        return time;
    }

    // Messages of one program are all of the same width.
    void RequireMessages(int messages, const Json& bytesOfMessage) const
    {
        const std::uint64_t wanted = static_cast<std::uint64_t>(messages) * bytesOfMessage.get<std::uint64_t>();
        for (const std::uint64_t grown : m_grown) {
            if (grown != wanted)
                throw std::runtime_error("a log file grew by " + std::to_string(grown) + " bytes, not by " +
                                         std::to_string(wanted));
        }
    }

private:
    std::wstring m_path;
    std::vector<std::uint64_t> m_grown;
};

// What one message does, as counts.
Json CountsOf(void (*log)())
{
    log();
    vtfltsim::SimMachine machine;
    machine.AttachProgram();
    VTFltSimResetCounts();
    log();
    const DWORD allocations = HeapAllocations();
    const std::vector<std::wstring> calls = CallsOf([log] { log(); });
    machine.Detach();
    Json counts = CostOf(calls);
    counts["heap_allocations"] = allocations;
    return counts;
}

Json CountsOfBare(BareLog& bare, void (BareLog::*message)())
{
    vtfltsim::SimMachine machine;
    machine.AttachProgram();
    const std::vector<std::wstring> calls = CallsOf([&] { (bare.*message)(); });
    machine.Detach();
    return CostOf(calls);
}

// What the library calls more often than the bare program, and less often (below zero), by function.
Json CallsBeyond(const Json& counts, const Json& bare)
{
    Json more = Json::object();
    for (const auto& [function, count] : counts["by_function"].items())
        more[function] = count.get<int>();
    for (const auto& [function, count] : bare["by_function"].items())
        more[function] = (more.contains(function) ? more[function].get<int>() : 0) - count.get<int>();
    Json beyond = Json::object();
    for (const auto& [function, count] : more.items()) {
        if (count != 0)
            beyond[function] = count;
    }
    return beyond;
}

Json Compare(const char* name, void (*log)(), BareLog& bare, void (BareLog::*message)(), const Amounts& amounts)
{
    const auto library = Times(amounts.messages, log);
    const auto plain = Times(amounts.messages, [&bare, message] { (bare.*message)(); });
    library();
    plain();
    Growth ofLibrary(LibraryFile());
    Growth ofBare(BareFile());
    SideBySide times;
    for (int pair = 0; pair < amounts.pairs; ++pair)
        times.Add([&] { return ofLibrary.Watch([&] { return TimeOf(library); }); },
                  [&] { return ofBare.Watch([&] { return TimeOf(plain); }); });
    Json row = {{"messages", amounts.messages}, {"time", ToJson(times, TARGET)}};
    row["counts"] = CountsOf(log);
    row["bare_counts"] = CountsOfBare(bare, message);
    ofLibrary.RequireMessages(amounts.messages, row["counts"]["bytes_written"]);
    ofBare.RequireMessages(amounts.messages, row["bare_counts"]["bytes_written"]);
    row["calls_beyond_bare"] = CallsBeyond(row["counts"], row["bare_counts"]);
    std::printf("log %s: %s ms for %d, bare %s ms, ratio %s; %s calls, bare %s; %s allocations\n", name,
                row["time"]["library_ms"].dump().c_str(), amounts.messages, row["time"]["bare_ms"].dump().c_str(),
                row["time"]["ratio"].dump().c_str(), row["counts"]["calls"].dump().c_str(),
                row["bare_counts"]["calls"].dump().c_str(), row["counts"]["heap_allocations"].dump().c_str());
    std::fflush(stdout);
    return row;
}

// --- several processes, one file

vtflt::UniqueHandle StartWriter(const std::wstring& arguments)
{
    WCHAR program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring line = L"\"" + std::wstring(program) + L"\" " + arguments;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION started = {};
    Require(CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &started) !=
                FALSE,
            "starting a writer");
    CloseHandle(started.hThread);
    return vtflt::UniqueHandle(started.hProcess);
}

// From the moment when all may begin until the last has ended.
double TimeOfWriters(const std::wstring& arguments)
{
    const vtflt::UniqueHandle ready(CreateSemaphoreW(nullptr, 0, WRITERS, READY_NAME));
    const vtflt::UniqueHandle go(CreateEventW(nullptr, TRUE, FALSE, GO_NAME));
    std::vector<vtflt::UniqueHandle> processes;
    for (int i = 0; i < WRITERS; ++i)
        processes.push_back(StartWriter(arguments));
    for (int i = 0; i < WRITERS; ++i)
        Require(WaitForSingleObject(ready.get(), 60000) == WAIT_OBJECT_0, "a writer that is ready");
    const double begin = Milliseconds();
    SetEvent(go.get());
    for (int i = 0; i < WRITERS; ++i)
        Require(WaitForSingleObject(ready.get(), 600000) == WAIT_OBJECT_0, "a writer that is done");
    const double time = Milliseconds() - begin;
    for (const vtflt::UniqueHandle& process : processes) {
        DWORD code = 0;
        Require(WaitForSingleObject(process.get(), 60000) == WAIT_OBJECT_0, "a writer that has ended");
        Require(GetExitCodeProcess(process.get(), &code) != FALSE && code == 0, "a writer that could write");
    }
    return time;
}

void WriteAsOneOfMany(int messages, const std::function<void()>& message)
{
    const vtflt::UniqueHandle ready(OpenSemaphoreW(SEMAPHORE_ALL_ACCESS, FALSE, READY_NAME));
    const vtflt::UniqueHandle go(OpenEventW(SYNCHRONIZE, FALSE, GO_NAME));
    message(); // opens what stays open
    ReleaseSemaphore(ready.get(), 1, nullptr);
    Require(WaitForSingleObject(go.get(), INFINITE) == WAIT_OBJECT_0, "the common start");
    for (int i = 0; i < messages; ++i)
        message();
    ReleaseSemaphore(ready.get(), 1, nullptr);
}

// bytesOfMessage: of an accepted message. Each writer also writes one before the start.
Json MeasureWriters(const Amounts& amounts, const Json& bytesOfMessage)
{
    const std::wstring count = L" " + std::to_wstring(amounts.messagesOfWriter);
    Growth ofLibrary(LibraryFile());
    Growth ofBare(BareFile());
    SideBySide times;
    for (int pair = 0; pair < amounts.writerPairs; ++pair)
        times.Add([&] { return ofLibrary.Watch([&] { return TimeOfWriters(L"--writer" + count); }); },
                  [&] { return ofBare.Watch([&] { return TimeOfWriters(L"--bare-writer" + count); }); });
    for (const Growth* const growth : {&ofLibrary, &ofBare})
        growth->RequireMessages(WRITERS * (amounts.messagesOfWriter + 1), bytesOfMessage);
    const int messages = WRITERS * amounts.messagesOfWriter;
    Json row = {{"processes", WRITERS}, {"messages", messages}, {"time", ToJson(times, TARGET)}};
    std::printf("log of %d processes: %s ms for %d, bare %s ms, ratio %s\n", WRITERS,
                row["time"]["library_ms"].dump().c_str(), messages, row["time"]["bare_ms"].dump().c_str(),
                row["time"]["ratio"].dump().c_str());
    return row;
}

void RemoveLogs()
{
    DeleteFileW(LibraryFile().c_str());
    DeleteFileW(BareFile().c_str());
}

int Measure(const std::string& file, const Amounts& amounts)
{
    RemoveLogs();
    Json log;
    vtflt::StartLog();
    LogAccepted(); // makes the folder
    {
        BareLog bare(BareFile());
        log["rejected"] = Compare("rejected", LogRejected, bare, &BareLog::Reject, amounts);
        log["accepted"] = Compare("accepted", LogAccepted, bare, &BareLog::Accept, amounts);
        const Viewer viewer(RING_NAME);
        LogAccepted();
        bare.ConnectToViewer(RING_NAME);
        log["with_viewer"] = Compare("with a viewer", LogAccepted, bare, &BareLog::AcceptWithViewer, amounts);
    }
    vtflt::StopLog();
    log["eight_processes"] = MeasureWriters(amounts, log["accepted"]["counts"]["bytes_written"]);
    RemoveLogs();

    std::ofstream out(file);
    out << Json{{"log", log}}.dump(2) << '\n';
    Require(out.good(), "writing the results");
    return 0;
}

int Run(const std::vector<std::string>& arguments)
{
    Require(!arguments.empty() && arguments.size() <= 2, "one argument: the file for the results");
    const std::string& first = arguments.front();
    const std::string& last = arguments.back();
    if (first == "--writer") {
        vtflt::StartLog();
        WriteAsOneOfMany(std::stoi(last), LogAccepted);
        vtflt::StopLog();
        return 0;
    }
    if (first == "--bare-writer") {
        BareLog bare(BareFile());
        WriteAsOneOfMany(std::stoi(last), [&] { bare.Accept(); });
        return 0;
    }
    return Measure(last, first == "--quick" ? QUICK : FULL);
}

} // namespace

int wmain(int count, wchar_t** values)
{
    try {
        std::vector<std::string> arguments;
        for (int i = 1; i < count; ++i)
            arguments.push_back(bench::Narrow(values[i]));
        return Run(arguments);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "whole_log_bench: %s\n", error.what());
        return 1;
    }
}
