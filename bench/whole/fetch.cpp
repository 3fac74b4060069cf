// VTFltGetBitmap through the DLL, beside a program that makes the same calls on the same files and merges nothing; and the
// other operations that move bitmaps.
//
// The simulated driver's two requests are answered at once, with nothing done: its time is not the library's. Both sides
// go through the simulator's redirection, so it costs both the same.
#include "call_times.h"
#include "fetch_session.h"
#include "quiet_log.h"

#include "cost/peak_watch.h"

namespace bench {

namespace {

constexpr DWORD BLOCK = 65536;
constexpr DWORD GET_BITMAP = 0xB0000002;
constexpr DWORD REPLICATION_SUCCESS = 0xB0000011;
constexpr std::uint64_t TEBIBYTE = 1ull << 40;
constexpr std::uint64_t ALLOWANCE = 8ull << 20; // beside the records
constexpr double TARGET = 1.10;
constexpr std::size_t RUNS_APART = 5;
constexpr int APPLICATIONS_OF_OPERATIONS = 4;

// How a volume's size is measured.
struct Plan {
    int tebibytes;
    int pairs;                     // of fetches by a new manager
    int otherPairs;                // of everything else
    std::vector<int> applications; // ascending
    bool onlyTime;                 // for the line through the sizes
};

HMODULE Library()
{
    return GetModuleHandleW(L"VTFltMgr.dll");
}

// What was done to bitmap files, in order, with sizes.
std::vector<std::wstring> FileCalls(const std::vector<std::wstring>& calls)
{
    std::vector<std::wstring> files;
    for (const std::wstring& call : calls) {
        if (call.find(L"VelVolTrc_") != std::wstring::npos)
            files.push_back(call);
    }
    return files;
}

// What is timed is the same work on both sides: by a new manager, and by the same one again. Gives the new one's calls.
std::vector<std::wstring> RequireSameFileCalls(FetchSession& session, BareFetch& bare)
{
    const auto fetch = [&] { session.Fetch(); };
    session.RenewManager();
    const std::vector<std::wstring> calls = CallsOf(fetch);
    const std::vector<std::wstring> again = FileCalls(CallsOf(fetch));
    const std::vector<std::wstring> wanted = FileCalls(CallsOf([&] { bare.Fetch(); }));
    if (FileCalls(calls) != wanted || again != wanted)
        throw std::runtime_error("the library's calls on bitmap files are not those of the bare program");
    return calls;
}

// Of one fetch.
DWORD AllocationsOf(FetchSession& session)
{
    VTFltSimResetCounts();
    session.Fetch();
    return HeapAllocations();
}

// The first fetch of a manager, and then another: when it has its records already.
Json MemoryOf(FetchSession& session, int applications)
{
    session.RenewManager(); // what the manager before held is given back
    const std::uint64_t usage = vttest::PrivateUsage();
    vttest::PeakWatch watch(Library());
    session.Fetch();
    const std::uint64_t first = watch.Peak();
    session.Fetch();
    const std::uint64_t limit = (static_cast<std::uint64_t>(applications) + 2) * session.RecordBytes() + ALLOWANCE;
    return {{"peak_bytes", watch.Peak()},
            {"peak_of_first_bytes", first},
            {"limit_bytes", limit},
            {"private_usage_before", usage},
            {"private_usage_after", vttest::PrivateUsage()}};
}

Json CountsOf(FetchSession& session, const std::vector<std::wstring>& calls)
{
    const std::vector<std::wstring> files = FileCalls(calls);
    session.RenewManager();
    const DWORD allocations = AllocationsOf(session);
    const DWORD allocationsAgain = AllocationsOf(session);
    return {{"all", calls.size()},
            {"on_bitmap_files", files.size()},
            {"bytes_read", BytesMoved(files, L"ReadFile")},
            {"bytes_written", BytesMoved(files, L"WriteFile")},
            {"heap_allocations", allocations},
            {"heap_allocations_again", allocationsAgain},
            {"of_bitmap_files_by_function", CountByFunction(files)},
            {"by_function", CountByFunction(calls)}};
}

// A pair more: a fetch by a new manager, beside the bare program with new memory. Giving memory back is timed for neither.
void AddPair(SideBySide& times, FetchSession& session, BareFetch& bare, Changes changes)
{
    session.RenewManager();
    session.Change(changes);
    bare.Release();
    times.Add([&] { return TimeOf([&] { session.Fetch(); }); }, [&] { return TimeOf([&] { bare.Fetch(); }); });
}

// The manager and the bare program both keep what they have from the fetch before.
void AddPairAgain(SideBySide& times, FetchSession& session, BareFetch& bare)
{
    session.Change(Changes::Scattered);
    times.Add([&] { return TimeOf([&] { session.Fetch(); }); }, [&] { return TimeOf([&] { bare.Fetch(); }); });
}

// Of each kind by itself: a run that something disturbed says nothing. They need not make up the median of all.
Json MediansOf(const std::vector<Json>& runs)
{
    Json medians = Json::object();
    for (const auto& [kind, value] : runs.front().items()) {
        std::vector<double> values;
        for (const Json& run : runs)
            values.push_back(run[kind].get<double>());
        medians[kind] = Rounded(Median(values));
    }
    return medians;
}

// Where the time of a fetch goes, call by call; the other runs are free of these watches.
Json TimesApart(FetchSession& session, BareFetch& bare)
{
    CallTimes watch({Library(), GetModuleHandleW(nullptr)});
    std::vector<Json> ofLibrary;
    std::vector<Json> ofBare;
    const auto library = [&] { ofLibrary.push_back(watch.Of(1, [&] { session.Fetch(); })); };
    const auto plain = [&] { ofBare.push_back(watch.Of(1, [&] { bare.Fetch(); })); };
    for (std::size_t run = 0; run < RUNS_APART; ++run) {
        session.RenewManager();
        session.Change(Changes::Scattered);
        bare.Release();
        InTurn(run, library, plain);
    }
    return {{"runs", RUNS_APART}, {"library", MediansOf(ofLibrary)}, {"bare", MediansOf(ofBare)}};
}

// What the calls beside the files cost: the most of them are those of the log's records.
Json WithoutLog(FetchSession& session, BareFetch& bare, int pairs)
{
    const QuietLog quiet;
    session.RenewManager();
    const std::vector<std::wstring> calls = CallsOf([&] { session.Fetch(); });
    SideBySide times;
    for (int pair = 0; pair < pairs; ++pair)
        AddPair(times, session, bare, Changes::Scattered);
    return {{"calls", calls.size()}, {"time", ToJson(times, TARGET)}};
}

Json MeasureRow(vtfltsim::SimMachine& machine, const vtfltsim::Volume& volume, const Plan& plan, int applications)
{
    FetchSession session(machine, volume, 0);
    const DWORD recordBytes = session.RecordBytes();
    Json row = {{"volume_tib", plan.tebibytes},
                {"applications", applications},
                {"record_bytes", recordBytes},
                {"bitmap_bytes", machine.Info(volume).bitmapBytes}};
    session.Fetch(); // the files have the driver's length from here on
    BareFetch bare(volume, applications, 0, recordBytes);
    const std::vector<std::wstring> calls = RequireSameFileCalls(session, bare);
    if (!plan.onlyTime) {
        row["memory"] = MemoryOf(session, applications);
        row["calls"] = CountsOf(session, calls);
    }

    SideBySide times;
    SideBySide again;
    SideBySide inRuns;
    std::vector<double> withoutFlushes;
    for (int pair = 0; pair < plan.pairs; ++pair) {
        AddPair(times, session, bare, Changes::Scattered);
        if (plan.onlyTime || pair >= plan.otherPairs)
            continue;
        AddPairAgain(again, session, bare);
        AddPair(inRuns, session, bare, Changes::InRuns);
        bare.Release();
        withoutFlushes.push_back(TimeOf([&] { bare.FetchWithoutFlushes(); }));
        bare.Fetch(); // what is not on the disk yet is none of the next pair's
    }
    row["time"] = ToJson(times, TARGET);
    if (plan.onlyTime)
        return row;
    row["time_again"] = ToJson(again, TARGET);
    row["time_in_runs"] = ToJson(inRuns, TARGET);
    row["bare_without_flushes_ms"] = Rounded(Median(withoutFlushes));
    row["bare_without_flushes_runs_ms"] = Rounded(withoutFlushes);
    row["times_apart"] = TimesApart(session, bare);
    if (plan.tebibytes == 1) // they are the same for any volume, and matter on the smallest
        row["without_log"] = WithoutLog(session, bare, plan.otherPairs);
    return row;
}

// The caller's files are the last of the walk over the applications, not the first.
void AddCallerLast(Json& row, vtfltsim::SimMachine& machine, const vtfltsim::Volume& volume, const Plan& plan)
{
    const int applications = row["applications"];
    FetchSession session(machine, volume, applications - 1);
    session.Fetch();
    BareFetch bare(volume, applications, applications - 1, session.RecordBytes());
    RequireSameFileCalls(session, bare);
    row["memory_caller_last"] = MemoryOf(session, applications);
    SideBySide times;
    for (int pair = 0; pair < plan.otherPairs; ++pair)
        AddPair(times, session, bare, Changes::Scattered);
    row["time_caller_last"] = ToJson(times, TARGET);
}

// What follows a fetch, and a fetch after the volume has grown.
void MeasureOperations(Json& rows, vtfltsim::SimMachine& machine, const vtfltsim::Volume& volume, const Plan& plan)
{
    FetchSession session(machine, volume, 0);
    session.Fetch();
    BareFetch bare(volume, APPLICATIONS_OF_OPERATIONS, 0, session.RecordBytes());
    BareFetch grown(volume, APPLICATIONS_OF_OPERATIONS, 0, session.GrownRecordBytes());
    const auto shrink = [&] {
        session.RenewManager();
        session.Fetch();
        session.RenewManager();
        session.Change(Changes::Scattered);
        grown.Release();
    };
    struct Operation {
        const char* name;
        std::function<void()> prepare; // before either side
        std::function<void()> library;
        std::function<void()> bare;
    };
    const Operation operations[] = {
        {"VTFltReplicationSuccess", [&] { bare.HoldBase(); }, [&] { session.ReplicationSuccess(); },
         [&] { bare.ReplicationSuccess(); }},
        {"VTFltSynSnapshotChangeBitmapToVolume", [&] { session.Change(Changes::Scattered); },
         [&] { session.SyncSnapshotChanges(); }, [&] { bare.SyncSnapshotChanges(); }},
        {"VTFltGetBitmap, the volume a quarter larger", shrink, [&] { session.FetchGrown(); },
         [&] { grown.FetchFrom(session.RecordBytes()); }},
    };
    for (const Operation& operation : operations) {
        const auto prepared = [&](const std::function<void()>& work) {
            operation.prepare();
            return CallsOf(work);
        };
        const std::vector<std::wstring> calls = prepared(operation.library);
        if (FileCalls(calls) != FileCalls(prepared(operation.bare)))
            throw std::runtime_error(std::string(operation.name) +
                                     ": the calls on bitmap files are not those of the bare program");
        SideBySide times;
        const auto timed = [&](const std::function<void()>& work) {
            return [&] {
                operation.prepare();
                return TimeOf(work);
            };
        };
        for (int pair = 0; pair < plan.otherPairs; ++pair)
            times.Add(timed(operation.library), timed(operation.bare));
        rows.push_back({{"operation", operation.name},
                        {"volume_tib", plan.tebibytes},
                        {"applications", APPLICATIONS_OF_OPERATIONS},
                        {"counts", CostOf(calls)},
                        {"time", ToJson(times, TARGET)}});
        std::printf("%s, %d TiB: ratio %s\n", operation.name, plan.tebibytes,
                    rows.back()["time"]["ratio"].dump().c_str());
        std::fflush(stdout);
    }
    session.RenewManager();
    session.Fetch(); // the files are as they were
}

void Print(const Json& row)
{
    std::printf("fetch %s TiB %s applications: %s ms, bare %s ms, ratio %s\n", row["volume_tib"].dump().c_str(),
                row["applications"].dump().c_str(), row["time"]["library_ms"].dump().c_str(),
                row["time"]["bare_ms"].dump().c_str(), row["time"]["ratio"].dump().c_str());
    std::fflush(stdout);
}

std::vector<Plan> Plans(bool quick)
{
    if (quick)
        return {{1, 2, 1, {1, 2, 4}, false}, {2, 2, 0, {1}, true}, {3, 2, 0, {1}, true}};
    return {{1, 20, 10, {1, 2, 4, 8, 16}, false}, {4, 6, 0, {1, 4, 16}, true},    {16, 12, 6, {1, 2, 4, 8, 16}, false},
            {32, 4, 0, {1, 4, 16}, true},         {64, 10, 5, {1, 4, 16}, false}, {64, 5, 0, {2, 8}, true}};
}

} // namespace

void MeasureFetch(Json& results, bool quick)
{
    Json rows = Json::array();
    Json operations = Json::array();
    for (const Plan& plan : Plans(quick)) {
        vtfltsim::SimMachine machine;
        const vtfltsim::Volume volume = machine.AddVolume(static_cast<std::uint64_t>(plan.tebibytes) * TEBIBYTE, BLOCK);
        machine.Attach(L"VTFltMgr.dll");
        machine.AttachProgram();
        for (const DWORD code : {GET_BITMAP, REPLICATION_SUCCESS})
            vtfltsim::Check("VTFltSimForgeReply",
                            VTFltSimForgeReply(machine.handle(), code, nullptr, 1, 0, nullptr, 0));
        int registered = 0;
        for (const int applications : plan.applications) {
            for (; registered < applications; ++registered)
                RequireZero(VTRegisterApplication(AppIdOf(registered).c_str()), "VTRegisterApplication");
            Json row = MeasureRow(machine, volume, plan, applications);
            if (!plan.onlyTime && applications > 1)
                AddCallerLast(row, machine, volume, plan);
            Print(row);
            rows.push_back(std::move(row));
            if (!plan.onlyTime && applications == APPLICATIONS_OF_OPERATIONS)
                MeasureOperations(operations, machine, volume, plan);
        }
        machine.Detach();
    }
    results["fetch"] = std::move(rows);
    results["bitmap_operations"] = std::move(operations);
}

} // namespace bench
