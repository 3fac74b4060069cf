// A backup program as it is shipped: it knows nothing of the simulator, and is what find_bugs.cpp tests.
//
//     loop VOLUME APPLICATION COPY
//
// VOLUME is {GUID}, in whatever letters; APPLICATION an ID unlike every other one (docs/library.md, rule 8). The command in the
// environment variable LOOP_SNAPSHOT takes a snapshot of the volume and prints its device path. Exit code 0: COPY is the volume
// as the snapshot has it; 1: run it again.
//
// The same file is built three times more, each time with a mistake that a real program once might have: PLANT_* says which.
// To try it shorter than samples/backup_loop_cpp.cpp, everything is read again whenever COPY has another length; left out are
// the state beside the copy (so COPY must be nobody else's, and a copy of everything must not be stopped half-way), the lock,
// the second question for lost tracking, what the snapshot itself changed (so nobody may write into it), and another length or
// block size than last time or than at the snapshot, as far as the copy's own length does not tell.
#include <vtfltmgr/VTFltMgr.hpp>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

void Check(const char* what, bool done)
{
    if (!done)
        throw std::runtime_error(what);
}

struct File {
    File(const std::wstring& path, DWORD access, DWORD disposition)
        : handle(
              CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, disposition, 0, nullptr))
    {
        Check("opening a file", handle != INVALID_HANDLE_VALUE);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() { CloseHandle(handle); }
    HANDLE handle;
};

void Seek(HANDLE file, std::uint64_t offset)
{
    LARGE_INTEGER at = {};
    at.QuadPart = static_cast<LONGLONG>(offset);
    Check("seeking", SetFilePointerEx(file, at, nullptr, FILE_BEGIN));
}

std::uint64_t LengthOf(HANDLE device)
{
    std::uint64_t length = 0;
    DWORD bytes = 0;
    constexpr DWORD GET_LENGTH = 0x7405C; // IOCTL_DISK_GET_LENGTH_INFO
    Check("asking for the length",
          DeviceIoControl(device, GET_LENGTH, nullptr, 0, &length, sizeof(length), &bytes, nullptr));
    return length;
}

std::wstring TakeSnapshot()
{
    const wchar_t* const command = _wgetenv(L"LOOP_SNAPSHOT");
    std::FILE* const output = command != nullptr ? _wpopen(command, L"rt") : nullptr;
    if (output == nullptr)
        throw std::runtime_error("starting the snapshot's command");
    char line[256] = {};
    const bool read = std::fgets(line, sizeof(line), output) != nullptr;
    Check("taking the snapshot", _pclose(output) == 0 && read);
    std::wstring path(line, line + std::string(line).find_last_not_of("\r\n") + 1);
    return path;
}

void CopyBlocks(HANDLE from, HANDLE to, std::uint64_t length, DWORD blockSize, vtfltmgr::Extent extent)
{
    std::vector<unsigned char> buffer(blockSize);
    for (std::uint64_t block = extent.first; block < extent.first + extent.count; ++block) {
        const std::uint64_t offset = block * blockSize;
        const DWORD count = length - offset < blockSize ? static_cast<DWORD>(length - offset) : blockSize;
        DWORD bytes = 0;
        Seek(from, offset);
        Check("reading the snapshot", ReadFile(from, buffer.data(), count, &bytes, nullptr) && bytes == count);
        Seek(to, offset);
        Check("writing the copy", WriteFile(to, buffer.data(), count, &bytes, nullptr) && bytes == count);
    }
}

// An application that is not on the list any more has lost what was owed to it, and registering it marks nothing.
void Register(const std::wstring& application, const std::wstring& name)
{
    if (vtfltmgr::CanApplicationUseDriver(application))
        return;
    Check("VTAddVolumesToAppVerifyList", vtfltmgr::AddVolumesToVerifyList(application).IsSuccess());
    // While the driver does not answer, that is no error and marks nothing. Most volumes show it.
    const bool fixed = GetDriveTypeW(name.c_str()) == DRIVE_FIXED;
    Check("marking the volumes",
          vtfltmgr::CanDriverWork() && (!fixed || vtfltmgr::IsVerifyRequired(application, name)));
    // That is no error for the tail of another ID, either, and does not register it.
    Check("VTRegisterApplication",
          vtfltmgr::RegisterApplication(application).IsSuccess() && vtfltmgr::CanApplicationUseDriver(application));
}

void BackUp(const std::wstring& guid, const std::wstring& application, const std::wstring& copyPath)
{
    // In the system's own letters: the verify lists and the names of mutexes know case.
    const std::wstring name = vtfltmgr::VolumeNameOf(L"\\\\?\\Volume" + guid + L"\\");
    Check("finding the volume", !name.empty());
    Register(application, name);
    // Twice: while the driver is silent the list of what it lost stays with it, and the answer is success.
    Check("VTReplicateVerifyList", vtfltmgr::ReplicateVerifyList(application).IsSuccess() &&
                                       vtfltmgr::CanDriverWork() &&
                                       vtfltmgr::ReplicateVerifyList(application).IsSuccess());
    // Registering again marks fixed volumes only, and the run that does it may be another volume's.
    bool everything = vtfltmgr::IsVerifyRequired(application, name) || GetDriveTypeW(name.c_str()) != DRIVE_FIXED;

    const File volume(name.substr(0, name.size() - 1), GENERIC_READ, OPEN_EXISTING);
    vtfltmgr::BitmapManager manager;
    Check("VTFltInitBitmapManager", manager.Open(volume.handle, name, application).IsSuccess());
    DWORD blockSize = 0;
    Check("VTFltGetBlockSize", manager.GetBlockSize(blockSize).IsSuccess() && blockSize != 0);
    Check("VTFltPrepareForSnapshot", manager.PrepareForSnapshot().IsSuccess());

    vtfltmgr::ChangeMap changes;
#ifdef PLANT_EARLY_BITMAP
    const vtfltmgr::Result fetched =
        manager.Fetch(changes); // the mistake: what is written from here on is missing in it
    const File snapshot(TakeSnapshot(), GENERIC_READ, OPEN_EXISTING);
#else
    const File snapshot(TakeSnapshot(), GENERIC_READ, OPEN_EXISTING);
    const vtfltmgr::Result fetched = manager.Fetch(changes);
#endif
    Check("VTFltGetBitmap", fetched.HasBitmap());
    everything = everything || fetched.IsVerifyRequired();
#ifdef PLANT_IGNORED_VERIFY
    everything = false; // the mistake: nobody looks at what the library said
#endif

    const std::uint64_t length = LengthOf(snapshot.handle);
    const std::uint64_t blocks = (length + blockSize - 1) / blockSize;
    const File copy(copyPath, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
    LARGE_INTEGER size = {};
    Check("asking for the copy's size", GetFileSizeEx(copy.handle, &size));
    everything = everything || static_cast<std::uint64_t>(size.QuadPart) != length || changes.Blocks() < blocks;
    if (everything) {
        CopyBlocks(snapshot.handle, copy.handle, length, blockSize, {0, blocks});
    } else {
        for (const vtfltmgr::Extent& extent : changes.Extents(blocks))
            CopyBlocks(snapshot.handle, copy.handle, length, blockSize, extent);
    }
    Seek(copy.handle, length);
    Check("cutting the copy", SetEndOfFile(copy.handle));
#ifdef PLANT_EARLY_REPORT
    Check("VTFltReplicationSuccess", manager.ReportSuccess().IsSuccess()); // the mistake: nothing is on the disk yet
    Check("flushing the copy", FlushFileBuffers(copy.handle));
#else
    Check("flushing the copy", FlushFileBuffers(copy.handle));
    Check("VTFltReplicationSuccess", manager.ReportSuccess().IsSuccess());
#endif
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc != 4)
        return 2;
    try {
        BackUp(argv[1], argv[2], argv[3]);
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "loop: %s\n", failure.what());
        return 1;
    }
}
