#include "cost/peak_watch.h"

#include "vtfltsim/VTFltSim.hpp"

#include <algorithm>
#include <malloc.h>
#include <psapi.h>
#include <stdexcept>

namespace vttest {

namespace {

constexpr std::size_t LARGE = 65536;

void WINAPI LookAtMemory(void* watch, LPCWSTR, LPCWSTR)
{
    static_cast<PeakWatch*>(watch)->Look();
}

} // namespace

PeakWatch* PeakWatch::s_watch = nullptr;

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
    if (!GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                              sizeof(counters)))
        throw std::runtime_error("GetProcessMemoryInfo failed");
    // Not every system fills PrivateUsage; the two mean the same.
    return counters.PrivateUsage != 0 ? counters.PrivateUsage : counters.PagefileUsage;
}

PeakWatch::PeakWatch(HMODULE module) : m_armed(this), m_before(CommittedPrivateBytes()), m_most(m_before)
{
    // A module that gives memory back in another way would have peaks that nobody sees: without this import it throws.
    m_free.emplace(module, "free", reinterpret_cast<void*>(&WatchedFree));
    if (ImportedFunction(module, "VirtualFree") != nullptr)
        m_virtualFree.emplace(module, "VirtualFree", reinterpret_cast<void*>(&WatchedVirtualFree));
    for (const wchar_t* function :
         {L"ReadFile", L"WriteFile", L"FlushFileBuffers", L"CloseHandle", L"DeviceIoControl", L"calloc", L"realloc"})
        vtfltsim::Check("VTFltSimCallBefore", VTFltSimCallBefore(function, nullptr, 1, 0, LookAtMemory, this));
}

PeakWatch::Armed::~Armed()
{
    VTFltSimClearCallFaults();
    s_watch = nullptr;
}

void PeakWatch::Look()
{
    m_most = std::max(m_most, CommittedPrivateBytes());
}

void PeakWatch::WatchedFree(void* bytes)
{
    if (bytes != nullptr && _msize(bytes) >= LARGE)
        s_watch->Look();
    reinterpret_cast<void (*)(void*)>(s_watch->m_free->Original())(bytes);
}

BOOL WINAPI PeakWatch::WatchedVirtualFree(void* bytes, SIZE_T size, DWORD type)
{
    s_watch->Look();
    return reinterpret_cast<BOOL(WINAPI*)(void*, SIZE_T, DWORD)>(s_watch->m_virtualFree->Original())(bytes, size, type);
}

} // namespace vttest
