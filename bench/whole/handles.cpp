// The table with many volume handles, beside the driver request that a lookup is made for.
#include "call_times.h"
#include "measure.h"

#include "vtfltmgr/VTFltMgr.h"

namespace bench {

namespace {

constexpr wchar_t APPLICATION[] = L"Bench";
constexpr DWORD GET_BLOCK_SIZE = 0xB0000006;
constexpr int LOOKUPS = 1000;
constexpr int PAIRS = 5;
constexpr int FILLINGS = 3; // of the table, and as often emptied
constexpr double NO_TARGET = 0;

HANDLE OpenDevice(const vtfltsim::Volume& volume)
{
    const HANDLE handle = CreateFileW(volume.Path().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    Require(handle != INVALID_HANDLE_VALUE, "opening the volume");
    return handle;
}

Json MeasureCount(const vtfltsim::Volume& volume, int count)
{
    std::vector<HANDLE> handles(static_cast<std::size_t>(count));
    const double open = TimeOf([&] {
        for (HANDLE& handle : handles)
            handle = OpenDevice(volume);
    });
    const auto init = [&](HANDLE handle) {
        RequireZero(VTFltInitBitmapManager(handle, volume.Root().c_str(), APPLICATION), "VTFltInitBitmapManager");
    };
    const auto forEach = [&](const std::function<void(HANDLE)>& work) {
        return [&handles, work] {
            for (const HANDLE handle : handles)
                work(handle);
        };
    };
    const auto deinit = [](HANDLE handle) {
        RequireZero(VTFltDeinitBitmapManager(handle), "VTFltDeinitBitmapManager");
    };
    // Handles all over the table.
    const auto lookups = [&](const std::function<void(HANDLE)>& work) {
        return [&handles, count, work] {
            for (int i = 0; i < LOOKUPS; ++i)
                work(handles[static_cast<std::size_t>(i * 7919 % count)]);
        };
    };
    const auto ask = [](HANDLE handle) {
        DWORD blockSize = 0;
        RequireZero(VTFltGetBlockSize(handle, &blockSize, 0), "VTFltGetBlockSize");
    };
    const auto askBare = [](HANDLE handle) {
        DWORD blockSize = 0;
        DWORD returned = 0;
        Require(DeviceIoControl(handle, GET_BLOCK_SIZE, nullptr, 0, &blockSize, sizeof(blockSize), &returned,
                                nullptr) != FALSE,
                "asking the driver");
    };

    std::vector<double> inits;
    std::vector<double> deinits;
    for (int filling = 0; filling < FILLINGS; ++filling) {
        if (filling > 0)
            deinits.push_back(TimeOf(forEach(deinit)));
        inits.push_back(TimeOf(forEach(init)));
    }
    const SideBySide uses = InTurns(PAIRS, lookups(ask), lookups(askBare));
    // With all the others in the table.
    const Json useCounts = CostOf(CallsOf([&] { ask(handles[0]); }));
    const Json deinitCounts = CostOf(CallsOf([&] { deinit(handles[0]); }));
    const Json initCounts = CostOf(CallsOf([&] { init(handles[0]); }));
    deinits.push_back(TimeOf(forEach(deinit)));
    // Once more, under watch.
    Json initApart;
    Json useApart;
    Json deinitApart;
    {
        CallTimes watch({GetModuleHandleW(L"VTFltMgr.dll")});
        initApart = watch.Of(1, forEach(init));
        useApart = watch.Of(1, lookups(ask));
        deinitApart = watch.Of(1, forEach(deinit));
    }
    const double close = TimeOf([&] {
        for (const HANDLE handle : handles)
            CloseHandle(handle);
    });
    return {{"handles", count},
            {"init_us_per_handle", Rounded(1000 * Median(inits) / count)},
            {"get_block_size_us", Rounded(1000 * Median(uses.library) / LOOKUPS)},
            {"bare_request_us", Rounded(1000 * Median(uses.bare) / LOOKUPS)},
            {"deinit_us_per_handle", Rounded(1000 * Median(deinits) / count)},
            {"bare_open_us_per_handle", Rounded(1000 * open / count)},
            {"bare_close_us_per_handle", Rounded(1000 * close / count)},
            {"init_runs_ms", Rounded(inits)},
            {"deinit_runs_ms", Rounded(deinits)},
            {"lookups", LOOKUPS},
            {"get_block_size", ToJson(uses, NO_TARGET)},
            {"init_times_apart_ms_of_all", initApart},
            {"get_block_size_times_apart_ms_of_all", useApart},
            {"deinit_times_apart_ms_of_all", deinitApart},
            {"init", initCounts},
            {"use", useCounts},
            {"deinit", deinitCounts}};
}

} // namespace

void MeasureHandles(Json& results, bool quick)
{
    vtfltsim::SimMachine machine;
    const vtfltsim::Volume volume = machine.AddVolume(1ull << 30);
    machine.Attach(L"VTFltMgr.dll");
    machine.AttachProgram();
    RequireZero(VTRegisterApplication(APPLICATION), "VTRegisterApplication");

    Json rows = Json::array();
    for (const int count : quick ? std::vector<int>{100} : std::vector<int>{100, 1000, 10000}) {
        rows.push_back(MeasureCount(volume, count));
        const Json& row = rows.back();
        std::printf("handles %5d: init %s us, use %s us, bare %s us, deinit %s us each\n", count,
                    row["init_us_per_handle"].dump().c_str(), row["get_block_size_us"].dump().c_str(),
                    row["bare_request_us"].dump().c_str(), row["deinit_us_per_handle"].dump().c_str());
        std::fflush(stdout);
    }
    machine.Detach();
    results["handle_table"] = std::move(rows);
}

} // namespace bench
