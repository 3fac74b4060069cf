// VTFltGetBitmap through the DLL, beside a program that makes the same calls on the same files and merges nothing.
//
// The simulated driver's two requests are answered at once, with nothing done: its time is not the library's. Both sides
// go through the simulator's redirection, so it costs both the same.
#include "measure.h"
#include "memory.h"

#include "vtfltmgr/VTFltMgr.h"

#include <cstring>
#include <memory>

namespace bench {

namespace {

constexpr DWORD BLOCK = 65536;
constexpr DWORD GET_BITMAP = 0xB0000002;
constexpr DWORD REPLICATION_SUCCESS = 0xB0000011;
constexpr DWORD HEAD_BYTES = 88; // what a record's reader looks at first
constexpr LONG TRAILER_BYTES = 4;
constexpr std::uint64_t TEBIBYTE = 1ull << 40;
constexpr std::uint64_t ALLOWANCE = 8ull << 20; // beside the records

std::wstring AppId(int index)
{
    std::wstring id = L"App00";
    id[3] = static_cast<wchar_t>(L'0' + index / 10);
    id[4] = static_cast<wchar_t>(L'0' + index % 10);
    return id;
}

class Handle {
public:
    explicit Handle(HANDLE handle) : m_handle(handle) { Require(handle != INVALID_HANDLE_VALUE, "opening a file"); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { CloseHandle(m_handle); }
    HANDLE get() const { return m_handle; }

private:
    HANDLE m_handle;
};

// The same reads and writes, with one buffer for all of them, which it gets anew for each fetch.
class BareFetch {
public:
    BareFetch(const vtfltsim::Volume& volume, int applications, DWORD recordBytes)
        : m_folder(volume.Path() + L"\\VelVolTrc\\VelVolTrc_"), m_applications(applications), m_size(recordBytes)
    {
    }

    void Run()
    {
        const std::unique_ptr<void, void (*)(void*)> memory(
            VirtualAlloc(nullptr, m_size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE),
            [](void* bytes) { VirtualFree(bytes, 0, MEM_RELEASE); });
        Require(memory != nullptr, "memory for a record");
        m_record = static_cast<std::uint8_t*>(memory.get());
        for (int i = 0; i < m_applications; ++i) {
            Read(L"child_", i);
            if (i != 0)
                Write(L"child_", i);
        }
        Read(L"base_", 0);
        Write(L"base_", 0);
        Write(L"child_", 0);
    }

private:
    std::wstring Path(const wchar_t* kind, int application) const
    {
        return m_folder + kind + AppId(application) + L".dat";
    }
    DWORD Size() const { return m_size; }

    void Read(const wchar_t* kind, int application)
    {
        const Handle file(CreateFileW(Path(kind, application).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        std::uint8_t head[HEAD_BYTES];
        DWORD moved = 0;
        Require(ReadFile(file.get(), head, HEAD_BYTES, &moved, nullptr) && moved == HEAD_BYTES, "reading a head");
        Require(SetFilePointer(file.get(), 0, nullptr, FILE_BEGIN) == 0, "seeking");
        LARGE_INTEGER size = {};
        Require(GetFileSizeEx(file.get(), &size) && size.QuadPart == Size(), "a file of the expected size");
        Require(ReadFile(file.get(), m_record, Size(), &moved, nullptr) && moved == Size(), "reading");
    }

    void Write(const wchar_t* kind, int application)
    {
        const Handle file(CreateFileW(Path(kind, application).c_str(), GENERIC_WRITE, FILE_SHARE_WRITE, nullptr,
                                      CREATE_ALWAYS, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM, nullptr));
        DWORD moved = 0;
        Require(SetFilePointer(file.get(), 0, nullptr, FILE_BEGIN) == 0, "seeking");
        Require(WriteFile(file.get(), m_record, Size(), &moved, nullptr) && moved == Size(), "writing");
        Require(FlushFileBuffers(file.get()) != FALSE, "flushing");
        Require(SetFilePointer(file.get(), -TRAILER_BYTES, nullptr, FILE_END) != INVALID_SET_FILE_POINTER, "seeking");
        Require(WriteFile(file.get(), m_record + Size() - TRAILER_BYTES, TRAILER_BYTES, &moved, nullptr) != FALSE,
                "writing the trailer");
        Require(FlushFileBuffers(file.get()) != FALSE, "flushing");
    }

    std::wstring m_folder;
    int m_applications;
    DWORD m_size;
    std::uint8_t* m_record = nullptr;
};

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

std::uint64_t Bytes(const std::vector<std::wstring>& calls, const std::wstring& function)
{
    std::uint64_t total = 0;
    for (const std::wstring& call : calls) {
        if (call.starts_with(function + L" "))
            total += std::stoull(Narrow(call.substr(call.rfind(L'|') + 1)));
    }
    return total;
}

class Fetch {
public:
    Fetch(vtfltsim::SimMachine& machine, const vtfltsim::Volume& volume)
        : m_volume(CreateFileW(volume.Path().c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                               nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)),
          m_root(volume.Root()), m_buffer(VTFLT_BITMAP_HEADER_BYTES + machine.Info(volume).bitmapBytes)
    {
        Scatter();
    }
    Fetch(const Fetch&) = delete;
    Fetch& operator=(const Fetch&) = delete;
    ~Fetch() { EndManager(); }

    // One block in a hundred is changed: anywhere,
    void Scatter()
    {
        std::fill(m_buffer.begin(), m_buffer.end(), std::uint8_t{0});
        std::uint32_t random = 1;
        for (std::size_t i = VTFLT_BITMAP_HEADER_BYTES; i < m_buffer.size(); i += 12) {
            random = random * 1664525 + 1013904223;
            m_buffer[i] = static_cast<std::uint8_t>(0x80u >> (random >> 29));
        }
    }
    // or in runs of 8192 blocks.
    void Cluster()
    {
        std::fill(m_buffer.begin(), m_buffer.end(), std::uint8_t{0});
        constexpr std::size_t RUN = 1024;
        for (std::size_t i = VTFLT_BITMAP_HEADER_BYTES; i + RUN <= m_buffer.size(); i += 100 * RUN)
            std::fill_n(m_buffer.begin() + static_cast<std::ptrdiff_t>(i), RUN, std::uint8_t{0xFF});
    }

    void StartManager()
    {
        RequireZero(VTFltInitBitmapManager(m_volume.get(), m_root.c_str(), AppId(0).c_str()), "VTFltInitBitmapManager");
    }
    void EndManager() { VTFltDeinitBitmapManager(m_volume.get()); }

    void Run()
    {
        std::memset(m_buffer.data(), 0, VTFLT_BITMAP_HEADER_BYTES);
        BYTE input = 0;
        DWORD size = 0;
        RequireZero(
            VTFltGetBitmap(m_volume.get(), &input, 0, m_buffer.data(), static_cast<DWORD>(m_buffer.size()), &size, 0),
            "VTFltGetBitmap");
    }

    DWORD RecordBytes() const { return (static_cast<DWORD>(m_buffer.size()) + 4187) & ~4095u; }

private:
    Handle m_volume;
    std::wstring m_root;
    std::vector<std::uint8_t> m_buffer;
};

Json MeasureOne(vtfltsim::SimMachine& machine, const vtfltsim::Volume& volume, int tebibytes, int applications,
                int pairs)
{
    Fetch fetch(machine, volume);
    const DWORD recordBytes = fetch.RecordBytes();
    Json row = {{"volume_tib", tebibytes}, {"applications", applications}, {"record_bytes", recordBytes}};
    {
        // The first fetch of a manager, and then another: when it has its records already.
        const std::uint64_t usage = PrivateUsage();
        PeakWatch watch;
        fetch.StartManager();
        fetch.Run();
        const std::uint64_t first = watch.Peak();
        fetch.Run();
        const std::uint64_t limit = (static_cast<std::uint64_t>(applications) + 2) * recordBytes + ALLOWANCE;
        row["memory"] = {{"peak_bytes", watch.Peak()},
                         {"peak_of_first_bytes", first},
                         {"limit_bytes", limit},
                         {"private_usage_before", usage},
                         {"private_usage_after", PrivateUsage()}};
        fetch.EndManager();
    }

    BareFetch bare(volume, applications, recordBytes);
    bare.Run();
    const auto run = [&] { fetch.Run(); };
    const auto runBare = [&] { bare.Run(); };
    fetch.StartManager();
    const std::vector<std::wstring> calls = CallsOf(run);
    const std::vector<std::wstring> files = FileCalls(calls);
    const std::vector<std::wstring> bareCalls = FileCalls(CallsOf(runBare));
    if (files != bareCalls)
        throw std::runtime_error("the library's calls on bitmap files are not those of the bare program");
    VTFltSimResetCounts();
    fetch.Run();
    row["calls"] = {{"all", calls.size()},
                    {"on_bitmap_files", files.size()},
                    {"bytes_read", Bytes(files, L"ReadFile")},
                    {"bytes_written", Bytes(files, L"WriteFile")},
                    {"heap_allocations", VTFltSimGetCallCount(L"malloc") + VTFltSimGetCallCount(L"calloc")},
                    {"of_bitmap_files_by_function", CountByFunction(files)},
                    {"by_function", CountByFunction(calls)}};
    SideBySide times;
    SideBySide clustered;
    std::vector<double> again;
    for (int pair = 0; pair < pairs; ++pair) {
        // A manager is made for a backup, and fetches once. What it costs to make it is no part of the fetch.
        const auto fresh = [&](void (Fetch::*change)(), SideBySide& both) {
            fetch.EndManager();
            fetch.StartManager();
            (fetch.*change)();
            const SideBySide turn = pair % 2 == 0 ? InTurns(1, run, runBare) : InTurns(1, runBare, run);
            both.library.push_back(pair % 2 == 0 ? turn.library[0] : turn.bare[0]);
            both.bare.push_back(pair % 2 == 0 ? turn.bare[0] : turn.library[0]);
        };
        fresh(&Fetch::Scatter, times);
        again.push_back(TimeOf(run));
        fresh(&Fetch::Cluster, clustered);
    }
    row["time"] = ToJson(times, 1.10);
    row["time"]["fetch_again_ms"] = Rounded(Median(again));
    row["time"]["ratio_of_fetch_again"] = Rounded(Median(again) / Median(times.bare));
    row["time_clustered"] = ToJson(clustered, 1.10);
    return row;
}

} // namespace

void MeasureFetch(Json& results, bool quick)
{
    struct Size {
        int tebibytes;
        int pairs;
    };
    const std::vector<Size> sizes = quick ? std::vector<Size>{{1, 4}} : std::vector<Size>{{1, 20}, {16, 6}, {64, 4}};
    Json rows = Json::array();
    for (const Size& size : sizes) {
        vtfltsim::SimMachine machine;
        const vtfltsim::Volume volume = machine.AddVolume(static_cast<std::uint64_t>(size.tebibytes) * TEBIBYTE, BLOCK);
        machine.Attach(L"VTFltMgr.dll");
        machine.AttachProgram();
        for (const DWORD code : {GET_BITMAP, REPLICATION_SUCCESS})
            vtfltsim::Check("VTFltSimForgeReply",
                            VTFltSimForgeReply(machine.handle(), code, nullptr, 1, 0, nullptr, 0));
        int registered = 0;
        for (const int applications : {1, 4, 16}) {
            for (; registered < applications; ++registered)
                RequireZero(VTRegisterApplication(AppId(registered).c_str()), "VTRegisterApplication");
            Json row = MeasureOne(machine, volume, size.tebibytes, applications, size.pairs);
            std::printf(
                "fetch %2d TiB %2d applications: %s ms, bare %s ms, ratio %s, clustered %s; peak %.1f MiB of %.1f\n",
                size.tebibytes, applications, row["time"]["library_ms"].dump().c_str(),
                row["time"]["bare_ms"].dump().c_str(), row["time"]["ratio"].dump().c_str(),
                row["time_clustered"]["ratio"].dump().c_str(), row["memory"]["peak_bytes"].get<double>() / 1048576,
                row["memory"]["limit_bytes"].get<double>() / 1048576);
            std::fflush(stdout);
            rows.push_back(std::move(row));
        }
        machine.Detach();
    }
    results["fetch"] = std::move(rows);
}

} // namespace bench
