#include "proof/call_counts.h"

#include "vtfltsim/VTFltSim.hpp"

#include <algorithm>

namespace vtproof {

namespace {

constexpr wchar_t ANY_FUNCTION[] = L"*";

// What the library calls outside its log, and the applications of the proof.
constexpr const wchar_t* COUNTED[] = {
    L"CreateFileW",        L"ReadFile",         L"WriteFile",           L"SetFilePointer",
    L"GetFileSizeEx",      L"FlushFileBuffers", L"DeviceIoControl",     L"CloseHandle",
    L"DeleteFileW",        L"CreateDirectoryW", L"RemoveDirectoryW",    L"SetFileAttributesW",
    L"FindFirstFileW",     L"FindNextFileW",    L"FindClose",           L"FindFirstVolumeW",
    L"FindNextVolumeW",    L"FindVolumeClose",  L"GetDriveTypeW",       L"GetVolumePathNamesForVolumeNameW",
    L"GetFileAttributesW", L"OpenSCManagerW",   L"OpenServiceW",        L"CreateProcessW",
    L"CloseServiceHandle", L"RegCreateKeyExW",  L"RegCreateKeyW",       L"RegQueryValueExW",
    L"RegSetValueExW",     L"RegDeleteValueW",  L"RegCloseKey",         L"CreateMutexW",
    L"OpenMutexW",         L"ReleaseMutex",     L"WaitForSingleObject",
};

std::vector<std::uint32_t> CountsOfEach()
{
    std::vector<std::uint32_t> counts;
    for (const wchar_t* function : COUNTED)
        counts.push_back(VTFltSimGetCallCount(function));
    return counts;
}

} // namespace

CallCounts::CallCounts() : m_before(CountsOfEach()), m_allBefore(VTFltSimGetCallCount(ANY_FUNCTION)) {}

std::uint64_t CallCounts::All() const
{
    return VTFltSimGetCallCount(ANY_FUNCTION) - m_allBefore;
}

std::uint64_t CallCounts::Sum() const
{
    std::uint64_t sum = 0xcbf29ce484222325ull;
    const std::vector<std::uint32_t> counts = CountsOfEach();
    for (std::size_t i = 0; i < counts.size(); ++i)
        sum = (sum ^ (counts[i] - m_before[i])) * 0x100000001b3ull;
    return sum;
}

bool GivesBack(std::wstring_view function)
{
    constexpr const wchar_t* GIVE_BACK[] = {L"CloseHandle", L"FindClose",    L"FindVolumeClose", L"CloseServiceHandle",
                                            L"RegCloseKey", L"ReleaseMutex", L"UnmapViewOfFile"};
    return std::find(std::begin(GIVE_BACK), std::end(GIVE_BACK), function) != std::end(GIVE_BACK);
}

} // namespace vtproof
