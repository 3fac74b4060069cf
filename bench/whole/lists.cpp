// Verify lists with many entries.
#include "call_times.h"
#include "measure.h"

#include "vtfltmgr/VTFltMgr.h"

#include <cstring>

namespace bench {

namespace {

constexpr wchar_t SERVICE_KEY[] = L"SYSTEM\\CurrentControlSet\\Services\\VTFlt";
constexpr wchar_t DRIVER_LIST[] = L"DeviceListForReSync";
constexpr wchar_t VERIFY_LIST[] = L"DeviceListForReSyncBench.Last";
constexpr wchar_t APPLICATION[] = L"Bench";

// {8-4-4-4-12}, different for each number and family.
std::wstring Guid(unsigned family, unsigned number)
{
    char text[40] = {};
    std::snprintf(text, sizeof(text), "{%08X-0000-4000-8000-%012X}", number * 2654435761u, family * 100000 + number);
    return std::wstring(text, text + std::strlen(text));
}

std::vector<std::wstring> Guids(unsigned family, int count)
{
    std::vector<std::wstring> guids;
    for (int i = 0; i < count; ++i)
        guids.push_back(Guid(family, static_cast<unsigned>(i)));
    return guids;
}

void Store(vtfltsim::SimMachine& machine, const wchar_t* value, const std::vector<std::wstring>& entries)
{
    const std::wstring list = vtfltsim::MultiString(entries);
    std::vector<std::uint8_t> bytes(list.size() * sizeof(wchar_t));
    std::memcpy(bytes.data(), list.data(), bytes.size());
    machine.WriteValue(SERVICE_KEY, value, REG_MULTI_SZ, bytes);
}

struct ListCase {
    const char* name;
    std::function<void()> prepare;
    std::function<void()> work;
};

Json MeasureCase(const ListCase& measured, int entries, int runs)
{
    measured.prepare();
    const std::vector<std::wstring> calls = CallsOf(measured.work);
    std::vector<double> times;
    for (int run = 0; run < runs; ++run) {
        measured.prepare();
        times.push_back(TimeOf(measured.work));
    }
    Json apart;
    {
        CallTimes watch({GetModuleHandleW(L"VTFltMgr.dll")});
        measured.prepare();
        apart = watch.Of(1, measured.work);
    }
    const Json counts = CountByFunction(calls);
    std::printf("lists %5d entries, %s: %.4g ms, %zu calls\n", entries, measured.name, Median(times), calls.size());
    std::fflush(stdout);
    return {{"entries", entries},
            {"operation", measured.name},
            {"ms", Rounded(Median(times))},
            {"us_per_entry", Rounded(1000 * Median(times) / entries)},
            {"runs_ms", Rounded(times)},
            {"counts", CostOf(calls)},
            {"times_apart", apart},
            {"log_records", counts.contains("GetLocalTime") ? counts["GetLocalTime"] : Json(0)},
            {"registry_queries", counts.contains("RegQueryValueExW") ? counts["RegQueryValueExW"] : Json(0)}};
}

} // namespace

void MeasureLists(Json& results, bool quick)
{
    vtfltsim::SimMachine machine;
    const vtfltsim::Volume volume = machine.AddVolume(1ull << 30);
    machine.Attach(L"VTFltMgr.dll");
    machine.AttachProgram();
    RequireZero(VTRegisterApplication(APPLICATION), "VTRegisterApplication");

    Json rows = Json::array();
    for (const int entries : quick ? std::vector<int>{10, 100} : std::vector<int>{100, 1000, 10000}) {
        const std::vector<std::wstring> some = Guids(1, entries);
        const std::vector<std::wstring> others = Guids(2, entries);
        std::vector<std::wstring> half(some.begin(), some.begin() + entries / 2);
        const auto replicate = [] { RequireZero(VTReplicateVerifyList(APPLICATION), "VTReplicateVerifyList"); };
        const ListCase cases[] = {
            {"VTIsVerifyRequired, volume not on the list", [&] { Store(machine, VERIFY_LIST, some); },
             [&] { Require(VTIsVerifyRequired(APPLICATION, volume.Root().c_str()) == 0, "VTIsVerifyRequired"); }},
            {"VTReplicateVerifyList, all on the list already",
             [&] {
                 Store(machine, VERIFY_LIST, some);
                 Store(machine, DRIVER_LIST, some);
             },
             replicate},
            {"VTReplicateVerifyList, none on the list yet",
             [&] {
                 Store(machine, VERIFY_LIST, some);
                 Store(machine, DRIVER_LIST, others);
             },
             replicate},
            {"VTRemoveApplicationVolResyncList, half of the list", [&] { Store(machine, VERIFY_LIST, some); },
             [&] {
                 RequireZero(VTRemoveApplicationVolResyncList(APPLICATION, &half), "VTRemoveApplicationVolResyncList");
             }},
        };
        for (const ListCase& one : cases)
            rows.push_back(MeasureCase(one, entries, entries < 10000 ? 5 : 3));
    }
    machine.Detach();
    results["verify_lists"] = std::move(rows);
}

} // namespace bench
