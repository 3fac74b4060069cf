// Clocks, the process's environment, what the system says of itself, identifiers.
#include "double/api.h"
#include "double/file_system.h"

#include <rpc.h>

#include <algorithm>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

using namespace vtdouble;

namespace {

constexpr std::uint64_t TICKS_PER_MILLISECOND = 10'000;
constexpr std::uint64_t TICKS_PER_DAY = 24ull * 60 * 60 * 1000 * TICKS_PER_MILLISECOND;
constexpr TextView COMPUTER = L"DOUBLE";
constexpr DWORD START_TICKS = 3'600'000; // the system has been up for an hour

// A file time as date and time of day, by the civil calendar.
SYSTEMTIME ToSystemTime(std::uint64_t time)
{
    SYSTEMTIME result = {};
    const std::uint64_t days = time / TICKS_PER_DAY; // since 1601-01-01, a Monday
    std::uint64_t rest = time % TICKS_PER_DAY / TICKS_PER_MILLISECOND;
    result.wMilliseconds = static_cast<WORD>(rest % 1000);
    rest /= 1000;
    result.wSecond = static_cast<WORD>(rest % 60);
    result.wMinute = static_cast<WORD>(rest / 60 % 60);
    result.wHour = static_cast<WORD>(rest / 3600);
    result.wDayOfWeek = static_cast<WORD>((days + 1) % 7);
    // Years that begin in March, in eras of 400 of them.
    const std::uint64_t shifted = days + 306 + 365 * 1600 + 1600 / 4 - 1600 / 100 + 1600 / 400;
    const std::uint64_t era = shifted / 146097;
    const std::uint64_t dayOfEra = shifted % 146097;
    const std::uint64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::uint64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::uint64_t month = (5 * dayOfYear + 2) / 153;
    result.wDay = static_cast<WORD>(dayOfYear - (153 * month + 2) / 5 + 1);
    result.wMonth = static_cast<WORD>(month < 10 ? month + 3 : month - 9);
    result.wYear = static_cast<WORD>(yearOfEra + era * 400 + (result.wMonth <= 2 ? 1 : 0));
    return result;
}

DWORD GiveText(TextView text, LPWSTR buffer, DWORD characters)
{
    if (text.size() >= characters)
        return static_cast<DWORD>(text.size() + 1);
    *std::copy(text.begin(), text.end(), buffer) = L'\0';
    return static_cast<DWORD>(text.size());
}

} // namespace

// --- Clocks: local time is universal time here.

DOUBLE_API void WINAPI GetSystemTimeAsFileTime(LPFILETIME time)
{
    const Entry entry;
    *time = ToFileTime(FileTimeNow());
}

DOUBLE_API void WINAPI GetSystemTime(LPSYSTEMTIME time)
{
    const Entry entry;
    *time = ToSystemTime(FileTimeNow());
}

DOUBLE_API void WINAPI GetLocalTime(LPSYSTEMTIME time)
{
    const Entry entry;
    *time = ToSystemTime(FileTimeNow());
}

DOUBLE_API BOOL WINAPI FileTimeToSystemTime(const FILETIME* time, LPSYSTEMTIME result)
{
    *result = ToSystemTime((static_cast<std::uint64_t>(time->dwHighDateTime) << 32) | time->dwLowDateTime);
    return TRUE;
}

DOUBLE_API BOOL WINAPI SystemTimeToFileTime(const SYSTEMTIME* time, LPFILETIME result)
{
    const Entry entry;
    if (time->wYear < 1601 || time->wMonth < 1 || time->wMonth > 12 || time->wDay < 1 || time->wDay > 31 ||
        time->wHour > 23 || time->wMinute > 59 || time->wSecond > 59 || time->wMilliseconds > 999)
        return Failed(ERROR_INVALID_PARAMETER, FALSE);
    // The inverse of ToSystemTime: years that begin in March.
    const std::uint64_t year = time->wYear - (time->wMonth <= 2 ? 1u : 0u);
    const std::uint64_t month = time->wMonth > 2 ? time->wMonth - 3u : time->wMonth + 9u;
    const std::uint64_t days =
        365 * year + year / 4 - year / 100 + year / 400 + (153 * month + 2) / 5 + time->wDay - 1u;
    constexpr std::uint64_t DAYS_TO_1601 = 306 + 365 * 1600 + 1600 / 4 - 1600 / 100 + 1600 / 400;
    const std::uint64_t seconds = time->wHour * 3600ull + time->wMinute * 60ull + time->wSecond;
    *result = ToFileTime((days - DAYS_TO_1601) * TICKS_PER_DAY +
                         (seconds * 1000 + time->wMilliseconds) * TICKS_PER_MILLISECOND);
    return TRUE;
}

DOUBLE_API BOOL WINAPI FileTimeToLocalFileTime(const FILETIME* time, LPFILETIME result)
{
    *result = *time;
    return TRUE;
}

DOUBLE_API ULONGLONG WINAPI GetTickCount64()
{
    const Entry entry;
    return START_TICKS + Now() / 1'000'000;
}

DOUBLE_API DWORD WINAPI GetTickCount()
{
    return static_cast<DWORD>(GetTickCount64());
}

DOUBLE_API BOOL WINAPI QueryPerformanceCounter(LARGE_INTEGER* counter)
{
    const Entry entry;
    counter->QuadPart = static_cast<LONGLONG>(Now() / 100);
    return TRUE;
}

DOUBLE_API BOOL WINAPI QueryPerformanceFrequency(LARGE_INTEGER* frequency)
{
    frequency->QuadPart = 10'000'000;
    return TRUE;
}

// --- The environment.

DOUBLE_API DWORD WINAPI GetEnvironmentVariableW(LPCWSTR name, LPWSTR buffer, DWORD characters)
{
    const Entry entry;
    const auto& variables = CurrentProcess().environment;
    const auto found = variables.find(Upper(name));
    if (found == variables.end())
        return Failed<DWORD>(ERROR_ENVVAR_NOT_FOUND, 0);
    return GiveText(found->second, buffer, characters);
}

DOUBLE_API BOOL WINAPI SetEnvironmentVariableW(LPCWSTR name, LPCWSTR value)
{
    const Entry entry;
    auto& variables = CurrentProcess().environment;
    if (value == nullptr)
        variables.erase(Upper(name));
    else
        variables[Upper(name)] = value;
    return TRUE;
}

// --- The system.

DOUBLE_API BOOL WINAPI GetComputerNameW(LPWSTR buffer, LPDWORD characters)
{
    const Entry entry;
    if (*characters <= COMPUTER.size()) {
        *characters = static_cast<DWORD>(COMPUTER.size() + 1);
        return Failed(ERROR_BUFFER_OVERFLOW, FALSE);
    }
    *characters = GiveText(COMPUTER, buffer, *characters);
    return TRUE;
}

DOUBLE_API BOOL WINAPI GetVersionExW(LPOSVERSIONINFOW information)
{
    const Entry entry;
    const DWORD size = information->dwOSVersionInfoSize;
    if (size != sizeof(OSVERSIONINFOW) && size != sizeof(OSVERSIONINFOEXW))
        return Failed(ERROR_INSUFFICIENT_BUFFER, FALSE);
    std::memset(information, 0, size);
    information->dwOSVersionInfoSize = size;
    information->dwMajorVersion = 6; // what a program without a manifest is told
    information->dwMinorVersion = 2;
    information->dwBuildNumber = 9200;
    information->dwPlatformId = VER_PLATFORM_WIN32_NT;
    if (size == sizeof(OSVERSIONINFOEXW))
        reinterpret_cast<OSVERSIONINFOEXW*>(information)->wProductType = VER_NT_SERVER;
    return TRUE;
}

DOUBLE_API void WINAPI GetNativeSystemInfo(LPSYSTEM_INFO information)
{
    const Entry entry;
    *information = {};
    information->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_AMD64;
    information->dwPageSize = 4096;
    information->dwNumberOfProcessors = 4;
    information->dwAllocationGranularity = 65536;
    information->dwActiveProcessorMask = 15;
}

DOUBLE_API void WINAPI GetSystemInfo(LPSYSTEM_INFO information)
{
    GetNativeSystemInfo(information);
}

DOUBLE_API BOOL WINAPI IsWow64Process(HANDLE, PBOOL answer)
{
    const Entry entry;
    *answer = FALSE;
    return TRUE;
}

DOUBLE_API int WINAPI GetSystemMetrics(int)
{
    return 0;
}

DOUBLE_API BOOL WINAPI GlobalMemoryStatusEx(LPMEMORYSTATUSEX status)
{
    const Entry entry;
    status->ullTotalPhys = 8ull << 30;
    status->ullAvailPhys = 4ull << 30;
    return TRUE;
}

// Version 4 identifiers, the same ones in every run of the same seed.
DOUBLE_API RPC_STATUS WINAPI UuidCreate(UUID* uuid)
{
    const Entry entry;
    static std::uint64_t state = 0x5DEECE66Dull;
    const auto next = [&] {
        state += 0x9E3779B97F4A7C15ull;
        std::uint64_t mixed = (state ^ (state >> 30)) * 0xBF58476D1CE4E5B9ull;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBull;
        return mixed ^ (mixed >> 31);
    };
    const std::uint64_t halves[2] = {next(), next()};
    std::memcpy(uuid, halves, sizeof(halves));
    uuid->Data3 = static_cast<unsigned short>((uuid->Data3 & 0x0FFF) | 0x4000);
    uuid->Data4[0] = static_cast<unsigned char>((uuid->Data4[0] & 0x3F) | 0x80);
    return RPC_S_OK;
}

DOUBLE_API RPC_STATUS WINAPI UuidToStringW(UUID* uuid, RPC_WSTR* result)
{
    const Entry entry;
    const auto* bytes = reinterpret_cast<const unsigned char*>(uuid);
    constexpr unsigned ORDER[] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
    auto* const text = static_cast<wchar_t*>(__wrap_calloc(37, sizeof(wchar_t)));
    std::size_t length = 0;
    for (unsigned i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text[length++] = L'-';
        text[length++] = L"0123456789abcdef"[bytes[ORDER[i]] >> 4];
        text[length++] = L"0123456789abcdef"[bytes[ORDER[i]] & 15];
    }
    *result = reinterpret_cast<RPC_WSTR>(text);
    return RPC_S_OK;
}

DOUBLE_API RPC_STATUS WINAPI RpcStringFreeW(RPC_WSTR* text)
{
    __wrap_free(*text);
    *text = nullptr;
    return RPC_S_OK;
}

DOUBLE_API void WINAPI OutputDebugStringW(LPCWSTR) {}

DOUBLE_API BOOL WINAPI IsDebuggerPresent()
{
    return FALSE;
}

// --- Services: there are none.

DOUBLE_API SC_HANDLE WINAPI OpenSCManagerW(LPCWSTR, LPCWSTR, DWORD)
{
    const Entry entry;
    class Manager final : public Object {
        const char* kind() const noexcept override { return "service manager"; }
    };
    return static_cast<SC_HANDLE>(CurrentProcess().Open(std::make_shared<Manager>(), 0));
}

DOUBLE_API SC_HANDLE WINAPI OpenServiceW(SC_HANDLE, LPCWSTR, DWORD)
{
    const Entry entry;
    return Failed<SC_HANDLE>(ERROR_SERVICE_DOES_NOT_EXIST, nullptr);
}

DOUBLE_API BOOL WINAPI CloseServiceHandle(SC_HANDLE service)
{
    const Entry entry;
    return CurrentProcess().Close(service) ? TRUE : Failed(ERROR_INVALID_HANDLE, FALSE);
}

// --- Memory of the program.

DOUBLE_API BOOL WINAPI VirtualProtect(LPVOID address, SIZE_T size, DWORD protection, PDWORD old)
{
    const Entry entry;
    constexpr std::uintptr_t PAGE = 4096;
    const auto start = reinterpret_cast<std::uintptr_t>(address) & ~(PAGE - 1);
    const auto end = (reinterpret_cast<std::uintptr_t>(address) + size + PAGE - 1) & ~(PAGE - 1);
    const int flags = protection == PAGE_READONLY   ? PROT_READ
                      : protection == PAGE_NOACCESS ? PROT_NONE
                                                    : PROT_READ | PROT_WRITE;
    if (mprotect(reinterpret_cast<void*>(start), end - start, flags) != 0)
        return Failed(ERROR_INVALID_ADDRESS, FALSE);
    *old = PAGE_READWRITE; // the modules' tables of imports stay writable
    return TRUE;
}

DOUBLE_API HANDLE WINAPI GetProcessHeap()
{
    return reinterpret_cast<HANDLE>(std::uintptr_t{1});
}

DOUBLE_API LPVOID WINAPI HeapAlloc(HANDLE, DWORD flags, SIZE_T size)
{
    return LocalAlloc((flags & HEAP_ZERO_MEMORY) != 0 ? LMEM_ZEROINIT : 0, size);
}

DOUBLE_API BOOL WINAPI HeapFree(HANDLE, DWORD, LPVOID memory)
{
    LocalFree(memory);
    return TRUE;
}
