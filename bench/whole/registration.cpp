// Registering and unregistering an application, by the number of volumes.
//
// A simulated machine has up to 64 volumes. Where more are measured than it has, the walk over them is made to begin again:
// the library meets a volume several times and does each time what it does for any volume.
#include "call_times.h"
#include "measure.h"

#include "vtfltmgr/VTFltMgr.h"

#include <memory>

namespace bench {

namespace {

constexpr wchar_t APPLICATION[] = L"Bench";

using FindFirst = HANDLE(WINAPI*)(LPWSTR, DWORD);
using FindNext = BOOL(WINAPI*)(HANDLE, LPWSTR, DWORD);

// A walk that begins again so many times. The handle that the caller has is that of the first walk.
class RepeatedWalk {
public:
    explicit RepeatedWalk(int repetitions)
        : m_module(GetModuleHandleW(L"VTFltMgr.dll")),
          m_first(m_module, "FindFirstVolumeW", reinterpret_cast<void*>(&First)),
          m_next(m_module, "FindNextVolumeW", reinterpret_cast<void*>(&Next))
    {
        s_walk = this;
        m_repetitions = repetitions;
    }
    RepeatedWalk(const RepeatedWalk&) = delete;
    RepeatedWalk& operator=(const RepeatedWalk&) = delete;
    ~RepeatedWalk() { s_walk = nullptr; }

private:
    static HANDLE WINAPI First(LPWSTR name, DWORD capacity)
    {
        s_walk->m_left = s_walk->m_repetitions - 1;
        s_walk->m_again = nullptr;
        return s_walk->FirstOriginal()(name, capacity);
    }
    static BOOL WINAPI Next(HANDLE walk, LPWSTR name, DWORD capacity)
    {
        RepeatedWalk& self = *s_walk;
        const HANDLE current = self.m_again != nullptr ? self.m_again : walk;
        const auto next = reinterpret_cast<FindNext>(self.m_next.Original());
        if (next(current, name, capacity))
            return TRUE;
        if (self.m_again != nullptr)
            FindVolumeClose(self.m_again);
        self.m_again = nullptr;
        if (self.m_left == 0) {
            SetLastError(ERROR_NO_MORE_FILES);
            return FALSE;
        }
        --self.m_left;
        self.m_again = self.FirstOriginal()(name, capacity);
        return self.m_again != INVALID_HANDLE_VALUE;
    }
    FindFirst FirstOriginal() const { return reinterpret_cast<FindFirst>(m_first.Original()); }

    static RepeatedWalk* s_walk;
    HMODULE m_module;
    vttest::ImportOverride m_first;
    vttest::ImportOverride m_next;
    int m_repetitions = 1;
    int m_left = 0;
    HANDLE m_again = nullptr;
};

RepeatedWalk* RepeatedWalk::s_walk = nullptr;

Json MeasureOne(int volumes, int ofMachine, int runs)
{
    vtfltsim::SimMachine machine;
    for (int i = 0; i < std::min(volumes, ofMachine); ++i)
        machine.AddVolume(1ull << 30);
    machine.Attach(L"VTFltMgr.dll");
    machine.AttachProgram();
    std::unique_ptr<RepeatedWalk> walk;
    if (volumes > ofMachine)
        walk = std::make_unique<RepeatedWalk>(volumes / ofMachine);

    const auto enter = [] { RequireZero(VTRegisterApplication(APPLICATION), "VTRegisterApplication"); };
    const auto leave = [] { RequireZero(VTUnregisterApplication(APPLICATION), "VTUnregisterApplication"); };
    const std::vector<std::wstring> registering = CallsOf(enter);
    const std::vector<std::wstring> unregistering = CallsOf(leave);
    std::vector<double> registered;
    std::vector<double> unregistered;
    for (int run = 0; run < runs; ++run) {
        registered.push_back(TimeOf(enter));
        unregistered.push_back(TimeOf(leave));
    }
    Json registeringApart;
    Json unregisteringApart;
    {
        CallTimes watch({GetModuleHandleW(L"VTFltMgr.dll")});
        registeringApart = watch.Of(1, enter);
        unregisteringApart = watch.Of(1, leave);
    }
    walk.reset();
    machine.Detach();
    return {{"volumes", volumes},
            {"register_ms", Rounded(Median(registered))},
            {"register_ms_per_volume", Rounded(Median(registered) / volumes)},
            {"unregister_ms", Rounded(Median(unregistered))},
            {"unregister_ms_per_volume", Rounded(Median(unregistered) / volumes)},
            {"register_runs_ms", Rounded(registered)},
            {"unregister_runs_ms", Rounded(unregistered)},
            {"register", CostOf(registering)},
            {"unregister", CostOf(unregistering)},
            {"register_times_apart", registeringApart},
            {"unregister_times_apart", unregisteringApart}};
}

} // namespace

void MeasureRegistration(Json& results, bool quick)
{
    Json rows = Json::array();
    for (const int volumes : quick ? std::vector<int>{1, 8} : std::vector<int>{1, 8, 64, 512}) {
        rows.push_back(MeasureOne(volumes, quick ? 4 : 64, volumes > 64 ? 3 : 5));
        const Json& row = rows.back();
        std::printf("registration %3d volumes: %s ms, %s calls; unregistration %s ms, %s calls\n", volumes,
                    row["register_ms"].dump().c_str(), row["register"]["calls"].dump().c_str(),
                    row["unregister_ms"].dump().c_str(), row["unregister"]["calls"].dump().c_str());
        std::fflush(stdout);
    }
    results["registration"] = std::move(rows);
}

} // namespace bench
