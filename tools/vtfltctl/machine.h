// What a machine keeps of change tracking, as it stands: driver, registry, volumes and bitmap files. Everything is
// read and nothing changed, so no export is asked that makes keys, writes lists or reinstalls the driver on the way.
#pragma once

#include "bitmap_file.h"
#include "bitmap_live.h"

#include "win/windows.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vtfltctl {

// ---- The driver

enum class Generation { None, Older, Present };
enum class FilterOrder { Good, NoList, NotListed, BeforeSnapshots };
enum class ServiceState { Present, Absent, Unknown };

struct DriverFacts {
    DWORD openError = 0;  // of the control device
    DWORD probeError = 0; // of the request that it has to answer
    Generation generation = Generation::None;
    FilterOrder order = FilterOrder::Good;
    std::vector<std::wstring> filters; // of the volume class
    ServiceState service = ServiceState::Unknown;
    bool autoInstall = true;
    std::wstring installLocation; // empty: absent, or no text

    // What the library's own check would say before it reinstalls anything.
    [[nodiscard]] bool Works() const noexcept { return generation != Generation::None && order == FilterOrder::Good; }
};

DriverFacts LookAtDriver();
// One clause that says why the driver does not work; empty when it does.
std::string WhyDriverFails(const DriverFacts& driver);
// Throws Failure(DriverDown) when the driver does not work: the exports behind it would answer 0 without doing
// anything, after having tried to reinstall the driver.
void RequireDriver();

// ---- The monitoring switch of a device class

inline constexpr wchar_t SNAPSHOT_CLASS[] =
    L"System\\CurrentControlSet\\Control\\Class\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}";

struct SwitchFacts {
    std::wstring classKey;
    DWORD error = 0;                    // 0, or why the count could not be read (13: of another type)
    std::optional<std::uint32_t> count; // nothing: never asked for
    bool listed = false;                // the driver stands in the class's filter list
};

SwitchFacts LookAtSwitch(const std::wstring& classKey);

// ---- Lists

struct ListFacts {
    bool present = false;
    DWORD error = 0;   // 13: no multi-string, a malformed one, or one whose end the library does not read
    bool tail = false; // of these the last: text stands behind an empty string
    std::vector<std::wstring> entries;
};

ListFacts ReadVolumeList(const std::wstring& suffix);
bool Contains(const std::vector<std::wstring>& texts, const std::wstring& text);
// Of a list with error 13, a clause: "is no well-formed multi-string".
const char* WhyDamaged(const ListFacts& list) noexcept;

// ---- Volumes and bitmap files

struct BitmapFileFacts {
    std::wstring path;
    bool there = false;
    std::optional<bitmap::FileFacts> file; // nothing when it is not there, or could not be read
    std::vector<bitmap::Flaw> misfits;     // of a readable file on a volume whose geometry is known
    std::string readError;                 // why it could not be read, a sentence

    // Whether the library would use it.
    [[nodiscard]] bool Usable() const noexcept
    {
        return readError.empty() && file &&
               (bitmap::VerdictOf(*file) == bitmap::Verdict::Sound ||
                bitmap::VerdictOf(*file) == bitmap::Verdict::Doubtful);
    }
};

// One application on one volume.
struct HoldingFacts {
    std::wstring application;
    BitmapFileFacts base;
    BitmapFileFacts child;
    std::optional<std::uint64_t>
        owedBlocks; // changed in either; nothing when one is not usable, or sizes of blocks differ
    std::uint64_t owedBytes = 0;
};

struct VolumeFacts {
    bitmap::VolumeName name;
    std::wstring guid; // {...}
    std::vector<std::wstring> mountPaths;
    DWORD openError = 0;
    bitmap::Geometry geometry; // 0 for what the volume or the driver did not answer
    bool monitored = false;
    std::vector<HoldingFacts> holdings; // of every registered application
    std::vector<std::wstring> files;    // names of all files in the bitmap folder
    DWORD folderError = 0;              // 0, also when there is no folder
};

// Whether an entry of the list stands for the volume, as the library sees it.
bool Names(const ListFacts& list, const VolumeFacts& volume);

// ---- The whole

struct ApplicationFacts {
    std::wstring id;
    ListFacts pending;
    ListFacts verify;
};

struct MachineFacts {
    DriverFacts driver;
    SwitchFacts snapshots;
    DWORD applicationsError = 0; // the list of applications could not be read; 13: of another type or not well formed
    std::vector<ApplicationFacts> applications;
    ListFacts driverList;
    std::vector<std::wstring> foreignLists; // suffixes of lists that belong to no registered application
    DWORD volumesError = 0;                 // with which the walk over the volumes broke off
    std::vector<VolumeFacts> volumes;       // fixed ones
    std::vector<std::wstring> volumeGuids;  // of all
    bool dumps = false;                     // every bitmap that crosses the library's boundary is saved
};

MachineFacts LookAtMachine();

} // namespace vtfltctl
