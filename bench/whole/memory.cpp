#include "memory.h"

#include "measure.h"

#include <psapi.h>

namespace bench {

namespace {

void WINAPI LookAtMemory(void* context, LPCWSTR, LPCWSTR)
{
    static_cast<PeakWatch*>(context)->Look();
}

} // namespace

std::uint64_t CommittedPrivateBytes()
{
    std::uint64_t total = 0;
    MEMORY_BASIC_INFORMATION region = {};
    std::uintptr_t address = 0;
    while (VirtualQuery(reinterpret_cast<const void*>(address), &region, sizeof(region)) == sizeof(region)) {
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE)
            total += region.RegionSize;
        address = reinterpret_cast<std::uintptr_t>(region.BaseAddress) + region.RegionSize;
    }
    return total;
}

std::uint64_t PrivateUsage()
{
    PROCESS_MEMORY_COUNTERS_EX counters = {};
    counters.cb = sizeof(counters);
    Require(GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                                 sizeof(counters)) != FALSE,
            "GetProcessMemoryInfo");
    // Not every system fills PrivateUsage; the two mean the same.
    return counters.PrivateUsage != 0 ? counters.PrivateUsage : counters.PagefileUsage;
}

PeakWatch::PeakWatch() : m_before(CommittedPrivateBytes()), m_most(m_before)
{
    // A record is largest in number right before its file is read: allocated, and the one before not yet released.
    for (const wchar_t* function : {L"ReadFile", L"WriteFile", L"FlushFileBuffers", L"CloseHandle", L"DeviceIoControl"})
        vtfltsim::Check("VTFltSimCallBefore", VTFltSimCallBefore(function, nullptr, 1, 0, LookAtMemory, this));
}

PeakWatch::~PeakWatch()
{
    VTFltSimClearCallFaults();
}

void PeakWatch::Look()
{
    m_most = std::max(m_most, CommittedPrivateBytes());
}

} // namespace bench
