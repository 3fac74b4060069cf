// One simulated machine as a process sees it: the shared record and maps, the files of contents, the registry.
//
// Every public operation takes the machine's lock for itself (a named mutex, so that processes and threads are
// serialised alike) and holds it only over work on the machine's own memory and files. Nothing else is waited
// for under it, and no code of a user runs under it; so it can be taken whatever else a caller holds.
#pragma once

#include "interpose/storage.h"
#include "interpose/win.h"
#include "model/contents.h"
#include "model/state.h"
#include "vtfltsim/VTFltSim.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace vtfltsim {

// What a simulated handle or a request is about. Serial and number make sure that a handle never speaks of a
// volume or snapshot that took the place of its own.
struct Endpoint {
    enum class Kind { Control, Volume, Snapshot };
    Kind kind = Kind::Control;
    std::uint32_t serial = 0; // of the volume
    std::uint32_t number = 0; // of the snapshot

    std::uint32_t FaultNumber() const noexcept;
};

// A volume's names, as the path resolution needs them.
struct VolumeNames {
    std::uint32_t serial = 0;
    std::wstring guid; // {...}
    std::vector<std::wstring> mountPaths;
    std::wstring enumerationName;
    std::uint32_t driveType = 0;
};

// What starting the utility led to.
struct UtilityRun {
    DWORD launchError = 0;
    DWORD exitCode = 0;
    bool hangs = false;
};

class Machine {
public:
    static DWORD Create(const std::wstring& directory, std::shared_ptr<Machine>& machine);
    static DWORD Open(const std::wstring& directory, std::shared_ptr<Machine>& machine);
    static DWORD Destroy(const std::wstring& directory);
    ~Machine();

    const std::wstring& directory() const noexcept { return m_directory; }
    // A copy of a machine's folder has the machine's id, and is another one all the same.
    bool IsSameAs(const Machine& other) const;

    // --- Volumes. Results as in VTFltSim.h.
    DWORD AddVolume(const VTFLTSIM_VOLUME_CONFIG& config, std::wstring& guid);
    DWORD RemoveVolume(std::uint32_t serial);
    DWORD FillVolumeInfo(std::uint32_t serial, VTFLTSIM_VOLUME_INFO& info);
    DWORD ReadVolume(std::uint32_t serial, std::uint64_t offset, void* data, DWORD length);
    DWORD WriteVolume(std::uint32_t serial, std::uint64_t offset, const void* data, DWORD length);
    DWORD ResizeVolume(std::uint32_t serial, std::uint64_t length);
    DWORD SetBlockSize(std::uint32_t serial, DWORD blockSize);
    DWORD LoseTracking(std::uint32_t serial);
    DWORD StartTracking(std::uint32_t serial);
    DWORD GetBits(std::uint32_t serial, DWORD which, void* bits, DWORD length, DWORD* needed);
    // Changes names or drive type of a volume; change works on its record.
    DWORD ChangeVolume(std::uint32_t serial, const std::function<bool(model::VolumeRecord&)>& change);
    DWORD FlushVolume(std::uint32_t serial);

    // --- Snapshots.
    DWORD CreateSnapshot(std::uint32_t serial, DWORD& number);
    DWORD DeleteSnapshot(DWORD number);
    DWORD FillSnapshotInfo(DWORD number, VTFLTSIM_SNAPSHOT_INFO& info);
    DWORD SnapshotAt(DWORD index, DWORD& number);
    DWORD ReadSnapshot(DWORD number, std::uint64_t offset, void* data, DWORD length);
    DWORD WriteSnapshot(DWORD number, std::uint64_t offset, const void* data, DWORD length);

    // --- Devices as handles see them.
    DWORD Length(const Endpoint& endpoint, std::uint64_t& length);
    DWORD Read(const Endpoint& endpoint, std::uint64_t offset, void* data, DWORD length);
    DWORD Write(const Endpoint& endpoint, std::uint64_t offset, const void* data, DWORD length);
    // Answers a request; faults strike here.
    model::Reply Ask(const Endpoint& endpoint, const model::Request& request);
    std::wstring Describe(const Endpoint& endpoint);

    // --- Driver, utility, faults.
    DWORD SetDriver(DWORD state);
    DWORD Reboot();
    UtilityRun RunUtility(const std::wstring& commandLine);
    // Runs a change of the plain record under the lock.
    void Change(const std::function<void(model::MachineRecord&)>& change);

    // --- Registry: below HKEY_CURRENT_USER.
    std::wstring RealKeyPath(const std::wstring& subKey) const;
    DWORD OpenKey(const std::wstring& subKey, REGSAM access, HKEY* key) const;
    DWORD ResetRegistry();
    DWORD SetUpperFilters(const std::wstring& classKeyPath, const std::vector<std::wstring>* filters) const;
    std::vector<std::wstring> UpperFilters(const std::wstring& classKeyPath) const;

    // --- Names. These take the lock only when the names changed since the last time.
    std::shared_ptr<const std::vector<VolumeNames>> Names();
    // {...}, Volume{...}, \\?\Volume{...}[\] or a mount path; 0 when there is no such volume.
    std::uint32_t FindVolume(std::wstring_view name);
    std::wstring FilesDirectory(const std::wstring& guid) const;

private:
    struct Volume;   // this process's view of a volume's files
    struct Snapshot; // and of a snapshot's
    class Lock;
    friend class Lock;

    Machine() = default;
    DWORD OpenState(const std::wstring& directory, bool create);
    model::MachineRecord& record() const noexcept;
    model::VolumeRecord* FindRecord(std::uint32_t serial) const noexcept;
    model::SnapshotRecord* FindSnapshotRecord(DWORD number) const noexcept;

    std::wstring VolumeDirectory(const std::wstring& guid) const;
    std::wstring SnapshotDirectory(DWORD number) const;
    DWORD MapVolume(model::VolumeRecord& volume, Volume*& mapped);
    DWORD MapSnapshot(model::SnapshotRecord& snapshot, Snapshot*& mapped);
    DWORD MapSnapshotsOf(const model::VolumeRecord& volume, std::vector<model::SnapshotContents>& snapshots);
    DWORD Shrink(model::VolumeRecord& volume, Volume& mapped, std::uint64_t length);
    DWORD Grow(model::VolumeRecord& volume, Volume& mapped, std::uint64_t length);
    DWORD NewGeometry(model::VolumeRecord& volume, std::uint64_t length, std::uint32_t blockSize, bool keepBits);
    void DropSnapshot(model::SnapshotRecord& snapshot);
    DWORD WithVolume(std::uint32_t serial, const std::function<DWORD(model::VolumeRecord&, Volume&)>& work);
    DWORD WithSnapshot(DWORD number,
                       const std::function<DWORD(const model::VolumeContents&, const model::SnapshotContents&)>& work);

    // Lists a volume for resync around a change that makes the driver forget its bits.
    DWORD ForgetWith(std::uint32_t serial, const std::function<DWORD(model::VolumeRecord&, Volume&)>& change);
    DWORD ListForResync(const std::wstring& guid) const;
    void ListWhatIsOwed();
    DWORD DriverReturns();
    bool IsSnapshotClassFiltered() const;
    void InstallFilter(bool present) const;

    model::Reply AskDeviceQuery(const model::Request& request);
    model::Reply AskVolume(std::uint32_t serial, const model::Request& request);
    model::Reply AskSnapshot(DWORD number, const model::Request& request);

    std::wstring m_directory;
    std::wstring m_id;
    std::unique_ptr<MappedFile> m_state;
    Handle m_mutex;
    std::map<std::uint32_t, std::unique_ptr<Volume>> m_volumes;     // guarded by the machine's lock
    std::map<std::uint32_t, std::unique_ptr<Snapshot>> m_snapshots; // guarded by the machine's lock
    ProcessLock m_namesLock;
    std::uint32_t m_namesVersion = 0;                        // guarded by m_namesLock
    std::shared_ptr<const std::vector<VolumeNames>> m_names; // guarded by m_namesLock
};

inline constexpr wchar_t VOLUME_CLASS_KEY[] =
    L"System\\CurrentControlSet\\Control\\Class\\{71A27CDD-812A-11D0-BEC7-08002BE2092F}";
inline constexpr wchar_t SNAPSHOT_CLASS_KEY[] =
    L"System\\CurrentControlSet\\Control\\Class\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}";
inline constexpr wchar_t SERVICE_KEY[] = L"SYSTEM\\CurrentControlSet\\Services\\VTFlt";
inline constexpr wchar_t SNAPSHOT_DEVICE[] = L"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy";
inline constexpr wchar_t CONTROL_DEVICE[] = L"\\\\.\\VTFltMgr";

} // namespace vtfltsim
