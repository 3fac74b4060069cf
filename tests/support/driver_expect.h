// What tests of the exports say about driver requests, calls, and the keys of the monitoring switch and the utility.
#pragma once

#include "support/machine_test.h"

#include <string>
#include <vector>

namespace vttest {

inline constexpr DWORD GET_BITMAP = 0xB0000002;
inline constexpr DWORD GET_BLOCK_SIZE = 0xB0000006;
inline constexpr DWORD REPLICATION_SUCCESS = 0xB0000011;
inline constexpr DWORD PREPARE_FOR_SNAPSHOT = 0xB0000015;
inline constexpr DWORD STOP_VOLUME = 0xB000001D;
inline constexpr DWORD UPDATE_DEVICE_CONFIG = 0xB0000046;

inline constexpr wchar_t CONTROL[] = L"\\\\.\\VTFltMgr";
inline constexpr wchar_t VOLUME_CLASS[] =
    L"System\\CurrentControlSet\\Control\\Class\\{71A27CDD-812A-11D0-BEC7-08002BE2092F}";
inline constexpr wchar_t SNAPSHOT_CLASS[] =
    L"System\\CurrentControlSet\\Control\\Class\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}";
inline constexpr wchar_t SNAPSHOT_CLASS_NAME[] = L"{533C5B84-EC70-11D2-9505-00C04F79DEAF}";
inline constexpr wchar_t SNAPSHOT_CLASS_MUTEX[] = L"Global\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}.VTFlt.Mutex";
inline constexpr wchar_t UPPER_FILTERS[] = L"UpperFilters";
inline constexpr wchar_t COUNT_KEYS[] = L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTFltMgr\\";
inline constexpr wchar_t MONITOR_COUNT[] = L"SnapshotMonitorCount";
inline constexpr wchar_t AUTO_INSTALL_KEY[] = L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTBackupDll";
inline constexpr wchar_t AUTO_INSTALL[] = L"VTFltAutoInstall";
inline constexpr wchar_t INSTALL_LOCATION[] = L"InstallLocation";

// One request as the driver got it.
struct SentRequest {
    DWORD code = 0;
    std::wstring endpoint;
    Bytes input;
    DWORD outputLength = 0;
};

inline void StartRecording()
{
    vtfltsim::Check("VTFltSimRecord", VTFltSimRecord(1));
}

// Since StartRecording the driver got exactly these requests, in this order.
void ExpectRequests(const std::vector<SentRequest>& expected);
// Since StartRecording these functions were called, in this order, and no others.
void ExpectCalls(const std::vector<std::wstring>& functions);
// The recorded calls of one function, each as "Name text".
std::vector<std::wstring> CallsOf(const std::wstring& function);

// Makes the nth matching call return this value with this last error, without doing anything.
void ForceCall(const wchar_t* function, ULONGLONG value, DWORD error, const wchar_t* match = nullptr, DWORD nth = 1);
// Lets the nth matching call do its work and then report a failure.
void FailCallAfterwards(const wchar_t* function, DWORD error, const wchar_t* match = nullptr, DWORD nth = 1);

// The command lines with which the utility was started.
std::vector<std::wstring> UtilityCommands(const vtfltsim::SimMachine& machine);

// Makes a call again and again, with its first, its second, ... allocation failing, until it allocates less than that.
// Before each call prepare runs, behind it check with the result; memory fails in the call alone, which therefore must
// not allocate anything of the test's own. Returns how many calls there were.
template <class Prepare, class Call, class Check>
int ForEveryFailingAllocation(Prepare&& prepare, Call&& call, Check&& check)
{
    for (DWORD nth = 1;; ++nth) {
        prepare();
        vtfltsim::Check("VTFltSimFailCall", VTFltSimFailCall(L"malloc", nullptr, nth, 1, ERROR_NOT_ENOUGH_MEMORY));
        const DWORD result = call();
        const bool struck = VTFltSimGetCallFaultHits() != 0;
        VTFltSimClearCallFaults();
        check(result);
        if (!struck)
            return static_cast<int>(nth);
    }
}

// The 4 bytes of a number.
Bytes NumberBytes(DWORD number);
// "0X" and the handle's low 32 bits, as messages show a handle.
std::wstring ShownHandle(HANDLE handle);

} // namespace vttest
