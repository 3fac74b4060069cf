// The smallest correct backup loop, in C++ with VTFltMgr.hpp: keeps FILE equal to a volume, reading only what changed.
//
//     backup_loop_cpp MACHINE VOLUME APPLICATION FILE
//
// MACHINE is the folder of a simulated machine (vtfltsim create); on a real one the snapshot comes from the system's
// snapshot service, and the lines marked "simulator" go. VOLUME is {GUID}, in whatever letters; FILE is the copy, one for
// each volume and application, and FILE.state says what the next run must know: put FILE back from anywhere, and FILE.state
// has to go. Exit code 0: FILE is the volume as the snapshot has it. 1: it may not be: run it again, which
// reads whatever is missing.
#include <vtfltmgr/VTFltMgr.hpp>
#include <vtfltsim/VTFltSim.hpp>
#include <winioctl.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

class Failure : public std::runtime_error {
public:
    Failure(const std::string& what, DWORD code) : std::runtime_error(what + " failed, " + std::to_string(code)) {}
};

void Check(const char* what, vtfltmgr::Result result)
{
    if (!result.IsSuccess())
        throw Failure(std::string(what) + " (" + result.Name() + ")", result.Code());
}

void Check(const char* what, BOOL done)
{
    if (!done)
        throw Failure(what, GetLastError());
}

class Handle {
public:
    explicit Handle(HANDLE handle) : m_handle(handle) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle()
    {
        if (m_handle != INVALID_HANDLE_VALUE && m_handle != nullptr)
            CloseHandle(m_handle);
    }
    [[nodiscard]] HANDLE get() const { return m_handle; }

private:
    HANDLE m_handle;
};

HANDLE Open(const std::wstring& path, DWORD access, DWORD disposition)
{
    const HANDLE handle = CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, disposition,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    Check("opening a file", handle != INVALID_HANDLE_VALUE);
    return handle;
}

void Seek(HANDLE file, std::uint64_t offset)
{
    LARGE_INTEGER at = {};
    at.QuadPart = static_cast<LONGLONG>(offset);
    Check("seeking", SetFilePointerEx(file, at, nullptr, FILE_BEGIN));
}

// What one run leaves to the next. Without it, or when anything differs, everything is read.
struct State {
    std::uint64_t length = 0;
    DWORD blockSize = 0;
    DWORD everything = 0;    // the next run reads everything, whatever the bitmap says
    wchar_t owner[320] = {}; // the volume and the application; the bitmap speaks of no other one's copy

    bool operator==(const State&) const = default;
};

State ReadState(const std::wstring& path)
{
    if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES)
        return {};
    State state;
    DWORD bytes = 0;
    const Handle file(Open(path, GENERIC_READ, OPEN_EXISTING));
    const bool whole = ReadFile(file.get(), &state, sizeof(state), &bytes, nullptr) && bytes == sizeof(state);
    return whole ? state : State{};
}

void WriteState(const std::wstring& path, const State& state)
{
    DWORD bytes = 0;
    const Handle file(Open(path, GENERIC_WRITE, CREATE_ALWAYS));
    Check("writing the state", WriteFile(file.get(), &state, sizeof(state), &bytes, nullptr));
    Check("writing the state to the disk", FlushFileBuffers(file.get()));
}

// A snapshot for as long as it is needed. Simulator: a real one comes from the system's snapshot service.
class Snapshot {
public:
    Snapshot(vtfltsim::SimMachine& machine, const vtfltsim::Volume& volume)
        : m_machine(machine), m_snapshot(machine.TakeSnapshot(volume))
    {
    }
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;
    ~Snapshot()
    {
        if (VTFltSimDeleteSnapshot(m_machine.handle(), m_snapshot.number) != 0)
            std::fputs("deleting the snapshot failed, which changes nothing of the backup\n", stderr);
    }
    [[nodiscard]] const std::wstring& Path() const { return m_snapshot.path; }

private:
    vtfltsim::SimMachine& m_machine;
    vtfltsim::Snapshot m_snapshot;
};

void CopyBlocks(HANDLE from, HANDLE to, const State& now, vtfltmgr::Extent extent)
{
    std::vector<unsigned char> buffer(now.blockSize);
    for (std::uint64_t block = extent.first; block < extent.first + extent.count; ++block) {
        const std::uint64_t offset = block * now.blockSize;
        const std::uint64_t left = now.length - offset;
        const DWORD count = left < now.blockSize ? static_cast<DWORD>(left) : now.blockSize;
        DWORD bytes = 0;
        Seek(from, offset);
        Check("reading the snapshot", ReadFile(from, buffer.data(), count, &bytes, nullptr) && bytes == count);
        Seek(to, offset);
        Check("writing the copy", WriteFile(to, buffer.data(), count, &bytes, nullptr) && bytes == count);
    }
}

std::uint64_t LengthOf(HANDLE device)
{
    std::uint64_t length = 0;
    DWORD bytes = 0;
    Check("asking for the length",
          DeviceIoControl(device, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, sizeof(length), &bytes, nullptr));
    return length;
}

// In whatever letters.
bool IsTail(const std::wstring& id, const std::wstring& tail)
{
    return id.size() >= tail.size() &&
           CompareStringOrdinal(&id[id.size() - tail.size()], -1, tail.c_str(), -1, TRUE) == CSTR_EQUAL;
}

// Bitmap files are named after IDs, and know no letter case: two that are too much alike clear each other's changes
// (docs/library.md, rule 8).
void CheckId(const std::wstring& id)
{
    std::vector<std::wstring> registered;
#if defined(__GLIBCXX__) || defined(VTFLTMGR_SAME_COMPILER) // with other compilers nobody says what is registered
    Check("VTGetRegisteredAppList", vtfltmgr::Result(VTGetRegisteredAppList(&registered)));
#endif
    bool apart = id.size() <= 179 && id.find(L'*') == std::wstring::npos;
    for (const std::wstring& other : registered)
        apart = apart && (other == id || (!IsTail(other, id) && !IsTail(id, other) && !IsTail(other, id + L".Last") &&
                                          !IsTail(id, other + L".Last")));
    if (!apart)
        throw std::runtime_error("the application's ID is too long, or too much like another one's");
}

// Asks before it registers: an application that was on the list, and is not any more, has lost what was owed to it, and
// registering it again marks nothing. So the marks come first, for its other fixed volumes too; this one's FILE.state goes
// as well, for it may not be fixed.
void Register(const std::wstring& application, const std::wstring& name, const std::wstring& statePath)
{
    if (vtfltmgr::CanApplicationUseDriver(application))
        return;
    Check("deleting the state", DeleteFileW(statePath.c_str()) || GetLastError() == ERROR_FILE_NOT_FOUND);
    Check("VTAddVolumesToAppVerifyList", vtfltmgr::AddVolumesToVerifyList(application));
    // While the driver does not answer, that is no error and marks nothing. Most volumes show it.
    const bool fixed = GetDriveTypeW(name.c_str()) == DRIVE_FIXED;
    if (!vtfltmgr::CanDriverWork() || (fixed && !vtfltmgr::IsVerifyRequired(application, name)))
        throw std::runtime_error("the volumes could not be marked");
    Check("VTRegisterApplication", vtfltmgr::RegisterApplication(application));
    // That is no error for the tail of another ID, either, and does not register it.
    if (!vtfltmgr::CanApplicationUseDriver(application))
        throw std::runtime_error("the application was not registered");
}

// Whether everything is to be read. The driver's list reaches the application by VTReplicateVerifyList only, which gives 0
// and nothing else while the driver is silent: so it is called twice, and the driver asked in between.
bool MustVerify(const std::wstring& application, const std::wstring& volumeName)
{
    Check("VTReplicateVerifyList", vtfltmgr::ReplicateVerifyList(application));
    if (!vtfltmgr::CanDriverWork())
        throw std::runtime_error("the driver did not say what it lost");
    Check("VTReplicateVerifyList", vtfltmgr::ReplicateVerifyList(application));
    return vtfltmgr::IsVerifyRequired(application, volumeName);
}

std::uint64_t Copy(HANDLE from, HANDLE to, const State& now, const vtfltmgr::ChangeMap& changes, bool everything)
{
    const std::uint64_t blocks = (now.length + now.blockSize - 1) / now.blockSize;
    if (everything) {
        CopyBlocks(from, to, now, {0, blocks});
    } else {
        for (const vtfltmgr::Extent& extent : changes.Extents(blocks))
            CopyBlocks(from, to, now, extent);
    }
    Seek(to, now.length);
    Check("cutting the copy to its length", SetEndOfFile(to));
    Check("writing the copy to the disk", FlushFileBuffers(to));
    return everything ? blocks : changes.CountChanged(blocks);
}

// Whether the driver tracks a snapshot: it refuses every question about one that it does not.
bool IsTracked(HANDLE snapshot)
{
    DWORD blockSize = 0;
    const DWORD code = VTFltGetBlockSize(snapshot, &blockSize, 1);
    return code != ERROR_INVALID_FUNCTION && code != ERROR_NOT_SUPPORTED;
}

// What was written into the snapshot itself is in the copy and not on the volume: the next bitmap must have it. It goes
// back in a map as long as the fetched one. tracked: whether the snapshot was, when it was taken.
void HandBack(const vtfltmgr::BitmapManager& manager, HANDLE snapshot, bool tracked, DWORD blockSize, DWORD length)
{
    vtfltmgr::ChangeMap written;
    DWORD writtenBlockSize = 0;
    // One question that is refused says nothing of the snapshot: somebody may have written into it.
    if (IsTracked(snapshot) != tracked)
        throw std::runtime_error("it is not known what the snapshot changed");
    if (!tracked) {
        // Snapshots are not tracked here, and this program only reads its own. A driver that is away answers so, too;
        // then this fails as well.
        Check("VTFltGetBlockSize", manager.GetBlockSize(writtenBlockSize));
        return;
    }
    Check("asking what the snapshot changed", vtfltmgr::FetchBitmap(snapshot, written, true));
    if (written.CountChanged(written.Blocks()) == 0)
        return;
    Check("VTFltGetBlockSize", vtfltmgr::Result(VTFltGetBlockSize(snapshot, &writtenBlockSize, 1)));
    if (writtenBlockSize != blockSize || !written.Resize(length))
        throw std::runtime_error("what the snapshot changed cannot be handed back");
    Check("VTFltSynSnapshotChangeBitmapToVolume", manager.HandBack(written));
}

void BackUp(vtfltsim::SimMachine& machine, const vtfltsim::Volume& volume, const std::wstring& application,
            const std::wstring& path)
{
    // In the system's own letters: files know no case, but the lists and the names of mutexes do.
    const std::wstring name = vtfltmgr::VolumeNameOf(volume.Root());
    Check("finding the volume", !name.empty());
    const std::wstring statePath = path + L".state";
    const std::wstring owner = name + L" " + application;
    State now;
    if (owner.size() >= std::size(now.owner))
        throw std::runtime_error("the application's ID is too long");
    owner.copy(now.owner, owner.size());
    if (!vtfltmgr::CanDriverWork())
        throw std::runtime_error("the driver does not work");
    CheckId(application);
    Register(application, name, statePath);
    bool everything = MustVerify(application, name);
    // Registering again marks fixed volumes only, and the run that does it may be another volume's.
    now.everything = GetDriveTypeW(name.c_str()) != DRIVE_FIXED ? 1 : 0;
    everything |= now.everything != 0;

    // Without the backslash: with it, it would be the root folder.
    const Handle device(Open(name.substr(0, name.size() - 1), GENERIC_READ, OPEN_EXISTING));
    vtfltmgr::BitmapManager manager;
    Check("VTFltInitBitmapManager", manager.Open(device.get(), name, application));
    Check("VTFltGetBlockSize", manager.GetBlockSize(now.blockSize));
    Check("VTFltGetBlockSize", now.blockSize != 0);
    Check("VTFltPrepareForSnapshot", manager.PrepareForSnapshot());
    const Snapshot taken(machine, volume);
    const Handle snapshot(Open(taken.Path(), GENERIC_READ, OPEN_EXISTING));
    const bool tracked = IsTracked(snapshot.get());

    vtfltmgr::ChangeMap changes;
    const vtfltmgr::Result fetched = manager.Fetch(changes);
    if (!fetched.HasBitmap())
        Check("VTFltGetBitmap", fetched);
    everything |= fetched.IsVerifyRequired();
    // Tracking that was lost since the first question may have been lost behind the snapshot too: this run and the next
    // one read everything, for this one's report takes the mark off. A run that reads everything anyway does not ask:
    // what the driver lists from here on then stays in its list.
    if (!everything && MustVerify(application, name))
        now.everything = 1;
    // The bitmap of a volume whose length or block size changed since the snapshot may have dropped blocks of it.
    now.length = LengthOf(snapshot.get());
    DWORD blockSize = 0;
    Check("VTFltGetBlockSize", manager.GetBlockSize(blockSize));
    if (blockSize != now.blockSize || LengthOf(device.get()) != now.length ||
        changes.Blocks() < (now.length + now.blockSize - 1) / now.blockSize)
        now.everything = 1;
    // It means nothing for a copy of another volume, application, length or block size.
    const Handle file(Open(path, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS));
    LARGE_INTEGER size = {};
    everything |= now.everything != 0 || ReadState(statePath) != now || !GetFileSizeEx(file.get(), &size) ||
                  size.QuadPart != static_cast<LONGLONG>(now.length);

    // Until a copy of everything is whole, FILE is nobody's, and no later run may take it for one.
    State unfinished = now;
    unfinished.everything = 1;
    if (everything)
        WriteState(statePath, unfinished);
    const std::uint64_t copied = Copy(snapshot.get(), file.get(), now, changes, everything);
    // Should one of the next steps fail, the mark of a run that read everything may be gone already.
    WriteState(statePath, unfinished);
    HandBack(manager, snapshot.get(), tracked, now.blockSize, changes.Length());
    // Only now, that the copy is on the disk, may the changes be forgotten.
    Check("VTFltReplicationSuccess", manager.ReportSuccess());
    WriteState(statePath, now);
    std::printf("%llu of %llu blocks read%s\n", static_cast<unsigned long long>(copied),
                static_cast<unsigned long long>((now.length + now.blockSize - 1) / now.blockSize),
                everything ? " (everything)" : "");
}

// One backup at a time, of whatever volume and application: two would take each other's changes and marks.
class Lock {
public:
    Lock() : m_mutex(CreateMutexW(nullptr, FALSE, L"Global\\VTFltMgr.Sample.BackupLoop.Lock"))
    {
        const DWORD waited = m_mutex.get() != nullptr ? WaitForSingleObject(m_mutex.get(), 0) : WAIT_FAILED;
        if (waited != WAIT_OBJECT_0 && waited != WAIT_ABANDONED)
            throw std::runtime_error("another backup runs");
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock() { ReleaseMutex(m_mutex.get()); }

private:
    Handle m_mutex;
};

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc != 5) {
        std::fputs("usage: backup_loop_cpp MACHINE VOLUME APPLICATION FILE\n", stderr);
        return 2;
    }
    try {
        const Lock lock;
        vtfltsim::SimMachine machine{std::wstring(argv[1])}; // simulator
        machine.Attach(L"VTFltMgr.dll");                     // simulator: the library's calls, and this program's own
        machine.AttachProgram();
        BackUp(machine, vtfltsim::Volume{argv[2]}, argv[3], argv[4]);
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "backup_loop_cpp: %s\n", failure.what());
        return 1;
    }
}
