// The smallest correct backup loop, in C++ with VTFltMgr.hpp: keeps FILE equal to a volume, reading only what changed.
//
//     backup_loop_cpp MACHINE VOLUME APPLICATION FILE
//
// MACHINE is the folder of a simulated machine (vtfltsim create); on a real one the snapshot comes from the system's
// snapshot service, and the lines marked "simulator" go. VOLUME is {GUID}; FILE.state says what the next run must know.
// Exit code 0: FILE is the volume as it was at the snapshot. 1: it is not, and nothing was forgotten: run it again.
#include <vtfltmgr/VTFltMgr.hpp>
#include <vtfltsim/VTFltSim.hpp>

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
    DWORD everything = 0; // the next run reads everything, whatever the bitmap says
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
    ~Snapshot() { VTFltSimDeleteSnapshot(m_machine.handle(), m_snapshot.number); }
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

// The driver's list reaches the application by the first call only.
bool MustVerify(const std::wstring& application, const std::wstring& volumeName)
{
    Check("VTReplicateVerifyList", vtfltmgr::ReplicateVerifyList(application));
    return vtfltmgr::IsVerifyRequired(application, volumeName);
}

void BackUp(vtfltsim::SimMachine& machine, const vtfltsim::Volume& volume, const std::wstring& application,
            const std::wstring& path)
{
    if (!vtfltmgr::CanDriverWork())
        throw std::runtime_error("the driver does not work");
    Check("VTRegisterApplication", vtfltmgr::RegisterApplication(application)); // once more changes nothing
    bool everything = MustVerify(application, volume.Root());

    const Handle device(Open(volume.Path(), GENERIC_READ, OPEN_EXISTING));
    vtfltmgr::BitmapManager manager;
    Check("VTFltInitBitmapManager", manager.Open(device.get(), volume.Root(), application));
    State now;
    Check("VTFltGetBlockSize", manager.GetBlockSize(now.blockSize));
    Check("VTFltPrepareForSnapshot", manager.PrepareForSnapshot());
    const Snapshot snapshot(machine, volume);
    now.length = machine.Info(volume).length;

    vtfltmgr::ChangeMap changes;
    const vtfltmgr::Result fetched = manager.Fetch(changes);
    if (!fetched.HasBitmap())
        Check("VTFltGetBitmap", fetched);
    everything |= fetched.IsVerifyRequired();
    // Tracking that was lost since the first question may have been lost behind the snapshot too: this run and the next
    // one read everything, for this one's report takes the mark off. A run that reads everything anyway does not ask:
    // what the driver lists from here on then stays in its list.
    if (!everything && MustVerify(application, volume.Root())) {
        everything = true;
        now.everything = 1;
    }

    const std::uint64_t blocks = (now.length + now.blockSize - 1) / now.blockSize;
    const std::wstring statePath = path + L".state";
    const State last = ReadState(statePath);
    const Handle from(Open(snapshot.Path(), GENERIC_READ, OPEN_EXISTING));
    const Handle to(Open(path, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS));
    LARGE_INTEGER size = {};
    // A bitmap means nothing for a copy of another length or block size, or beyond what it speaks of.
    everything |= last.everything != 0 || last.length != now.length || last.blockSize != now.blockSize ||
                  !GetFileSizeEx(to.get(), &size) || size.QuadPart != static_cast<LONGLONG>(now.length) ||
                  changes.Blocks() < blocks;

    std::uint64_t copied = blocks;
    if (everything) {
        CopyBlocks(from.get(), to.get(), now, {0, blocks});
    } else {
        copied = changes.CountChanged(blocks);
        for (const vtfltmgr::Extent& extent : changes.Extents(blocks))
            CopyBlocks(from.get(), to.get(), now, extent);
    }
    Seek(to.get(), now.length);
    Check("cutting the copy to its length", SetEndOfFile(to.get()));
    Check("writing the copy to the disk", FlushFileBuffers(to.get()));
    WriteState(statePath, now);

    // Only now, that the copy is on the disk, may the changes be forgotten.
    const vtfltmgr::Result reported = manager.ReportSuccess();
    if (!reported.IsSuccess()) {
        // The changes come once more, but the mark of a run that read everything may be gone already.
        now.everything = 1;
        WriteState(statePath, now);
    }
    Check("VTFltReplicationSuccess", reported);
    std::printf("%llu of %llu blocks read%s\n", static_cast<unsigned long long>(copied),
                static_cast<unsigned long long>(blocks), everything ? " (everything)" : "");
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
