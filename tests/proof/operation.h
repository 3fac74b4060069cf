// What happens in a history, as data: it can be chosen by a seed, written down, taken out and run again.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vtproof {

enum class Do : std::uint8_t {
    Write,         // volume, a: first grain, b: count
    Register,      // application
    Unregister,    // application
    Begin,         // application, volume: up to the snapshot
    Fetch,         // application: the bitmap of the volume that it began
    Finish,        // application; b > 0: the snapshot itself was changed in b grains from a; then the report of success
    Abandon,       // application: ends what it began without a report
    Backup,        // application, volume, a, b: Begin, Fetch and Finish
    Crash,         // application: its process ends as it is
    LoseTracking,  // volume
    Resize,        // volume, a: grains
    SetBlockSize,  // volume, a: bytes
    Damage,        // application, volume, a: 0 child or 1 base, b: see DAMAGES
    PowerCut,      // a: 0 everything written is there, 1 nothing is, else torn by this seed
    StopDriver,    //
    StartDriver,   //
    StopVolume,    // application, volume
    StopVolumes,   // application
    StartTracking, // volume
    MarkAll,       // application: every volume on its verify list
    Unmark,        // application, volume, a: 1 it, 0 one that is not there, off the application's verify list
    Monitor,       // application, a: 1 on, 0 off
    Ask,           // application, volume: the questions that change nothing
    AsksAgain,     // application, a: what it does from now on when fetching fails, see AGAIN_*
    RegisterAgain, // application: registers without asking first whether it is
    Count
};

inline constexpr const char* DAMAGES[] = {"deleted",           "emptied",         "cut to its header",
                                          "without signature", "without trailer", "cut short"};
inline constexpr std::uint32_t DAMAGE_COUNT = 6;
inline constexpr std::uint32_t CUT_SHORT = 5; // stands in every application's way until somebody deletes the file

// Behind a fetch that failed, an application reads everything, this time and the next. Or it takes the library at its word
// that nothing was forgotten: it asks again, with its next backup or at once, for a new snapshot.
inline constexpr std::uint32_t AGAIN_NEVER = 0;
inline constexpr std::uint32_t AGAIN_LATER = 1;
inline constexpr std::uint32_t AGAIN_AT_ONCE = 2;
inline constexpr std::uint32_t AGAIN_COUNT = 3;

// A system that says of a list or file that it is not there, although it is, does not fail but lies; the library has to
// believe it. The runs chosen by seeds and the sweeps leave that out; see docs/guarantees.md. RegCreateKeyW belongs to that:
// it opens the key of the list of applications, and a key that is absent means that there are none. Of these functions the
// first, up to NEVER_ASKED, are never asked whether something is there, and may give any error.
inline constexpr const wchar_t* FUNCTIONS[] = {L"ReadFile",
                                               L"WriteFile",
                                               L"SetFilePointer",
                                               L"FlushFileBuffers",
                                               L"GetFileSizeEx",
                                               L"SetFileAttributesW",
                                               L"DeviceIoControl",
                                               L"CreateDirectoryW",
                                               L"DeleteFileW",
                                               L"RemoveDirectoryW",
                                               L"RegCreateKeyExW",
                                               L"RegSetValueExW",
                                               L"RegDeleteValueW",
                                               L"CreateMutexW",
                                               L"WaitForSingleObject",
                                               L"GetDriveTypeW",
                                               L"OpenSCManagerW",
                                               L"OpenServiceW",
                                               L"GetVolumePathNamesForVolumeNameW",
                                               L"CreateFileW",
                                               L"RegCreateKeyW",
                                               L"RegOpenKeyExW",
                                               L"RegQueryValueExW",
                                               L"FindFirstVolumeW",
                                               L"FindNextVolumeW",
                                               L"FindFirstFileW",
                                               L"FindNextFileW",
                                               L"GetFileAttributesW",
                                               L"OpenMutexW",
                                               L"CreateProcessW"};
inline constexpr std::uint32_t NEVER_ASKED = 19;
static_assert(std::wstring_view(FUNCTIONS[NEVER_ASKED - 1]) == L"GetVolumePathNamesForVolumeNameW");

// FailOf and FailOfOn: the number of a function and its error, which has three digits at most, as one number.
inline constexpr std::uint32_t FUNCTION_STEP = 1000;
constexpr std::uint32_t FailureOf(std::uint32_t function, std::uint32_t error)
{
    return FUNCTION_STEP * function + error % FUNCTION_STEP;
}

// What goes wrong while an operation runs; counted over the calls that the operation makes.
struct Fault {
    enum class How : std::uint8_t {
        None,
        Fail,     // the nth call fails with the error
        FailOn,   // and so do all behind it
        NotThere, // the nth CreateFileW says that there is no such file (not chosen by seeds)
        FailOf, // the nth call of one of FUNCTIONS, by its number, fails: error is 1000 times that number and the error
        FailOfOn,   // and so do all calls of that function behind it
        FailAfter,  // the nth call is done, and says that it failed
        Short,      // the nth WriteFile writes error bytes only
        NoMemory,   // the nth allocation
        NoMemoryOn, // and all behind it
        DieBefore,  // the process ends before the nth call
        DieAfter,   // or behind it
        DieInWrite, // or when the nth WriteFile has written error bytes
        // Not chosen by seeds: it takes a look at the call to know whether the library can do anything about it.
        ShortRead, // the nth ReadFile gives error bytes only
        Empties,   // the nth CreateFileW empties its file, and says that it failed
        Count
    };
    How how = How::None;
    std::uint32_t nth = 1;
    std::uint32_t error = 0;
};

// The functions that FailAfter strikes, by number. Those that give a handle or a key are not among them: who is told that
// there is none could not close it.
inline constexpr const wchar_t* CHANGING[] = {
    L"RegSetValueExW", L"RegDeleteValueW", L"WriteFile", L"DeleteFileW", L"DeviceIoControl", L"CreateDirectoryW",
    L"RemoveDirectoryW", L"SetFileAttributesW",
    // What these give back is given back, whatever they answer.
    L"CloseHandle", L"FindClose", L"FindVolumeClose", L"CloseServiceHandle", L"RegCloseKey", L"ReleaseMutex"};
constexpr std::uint32_t FunctionThatChanges(std::wstring_view name)
{
    std::uint32_t index = 0;
    while (CHANGING[index] != name)
        ++index;
    return index;
}

struct Operation {
    Do what = Do::Ask;
    std::uint32_t application = 0;
    std::uint32_t volume = 0;
    std::uint32_t a = 0;
    std::uint32_t b = 0;
    std::vector<Fault> faults;
};

struct VolumeShape {
    std::uint32_t grains = 0;
    std::uint32_t blockSize = 0;
};

// From here on a volume's bitmap files, with blocks of a grain, are of the size whose memory the library keeps for the next.
inline constexpr std::uint32_t HUGE_GRAINS = 500'000;

struct History {
    std::vector<VolumeShape> volumes;
    std::vector<Operation> operations;
};

inline constexpr std::uint32_t APPLICATIONS = 3;

// "machine 300:512 8192:1024; register 0; backup 0 1 0 0 !fail 17 5; ..."
std::string ToText(const Operation& operation);
std::string ToText(const History& history);
std::optional<History> ParseHistory(std::string_view text, std::uint32_t applications = APPLICATIONS);
// The same without a machine: "backup 0 1; write 0 0 5", on a machine of so many volumes.
std::optional<std::vector<Operation>> ParseOperations(std::string_view text, std::uint32_t applications,
                                                      std::size_t volumes);
// The pieces of a text between separators, empty ones left out.
std::vector<std::string_view> Split(std::string_view text, char separator);
bool ParseNumber(std::string_view text, std::uint32_t& number);

} // namespace vtproof
