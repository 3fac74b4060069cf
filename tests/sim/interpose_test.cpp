// The redirection: this program's own imports are attached, so that every call below is answered by the machine.
#include "support/start_again.h"
#include "vtfltsim/VTFltSim.hpp"
#include "vtfltsim/VTFltSimForget.h"

#include <winioctl.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace vtfltsim;
using Bytes = std::vector<std::uint8_t>;

constexpr DWORD GET_BITMAP = 0xB0000002;
constexpr DWORD GET_BLOCK_SIZE = 0xB0000006;
constexpr DWORD BLOCK_SIZE_CHANGE = 0xB0000009;
constexpr DWORD REPLICATION_SUCCESS = 0xB0000011;
constexpr DWORD PREPARE_FOR_SNAPSHOT = 0xB0000015;
constexpr DWORD STOP_VOLUME = 0xB000001D;
constexpr DWORD UPDATE_DEVICE_CONFIG = 0xB0000046;
constexpr wchar_t SERVICE_KEY[] = L"SYSTEM\\CurrentControlSet\\Services\\VTFlt";
constexpr wchar_t SNAPSHOT_CLASS[] =
    L"System\\CurrentControlSet\\Control\\Class\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}";

std::string Narrow(const std::wstring& text)
{
    std::string result;
    for (const wchar_t c : text)
        result.push_back(c < 128 ? static_cast<char>(c) : '?');
    return result;
}

class SimInterposeTest : public ::testing::Test {
protected:
    SimInterposeTest()
    {
        m_volume = m_machine.AddVolume(64 * 4096, 4096);
        m_machine.AttachProgram();
    }
    ~SimInterposeTest() override
    {
        for (const auto& line : LeftOpen())
            ADD_FAILURE() << "left open: " << Narrow(line);
        m_machine.Detach();
    }

    static HANDLE Open(const std::wstring& path, DWORD access = GENERIC_READ | GENERIC_WRITE,
                       DWORD disposition = OPEN_EXISTING)
    {
        return CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, disposition,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    }
    // The error of a call that should fail. A function of its own: a compiler may fetch an import's address once
    // for a whole function, which then misses what attaching or detaching in its middle changes.
    [[gnu::noinline]] static DWORD OpenError(const std::wstring& path)
    {
        SetLastError(0);
        const HANDLE handle = Open(path);
        const DWORD code = GetLastError();
        if (handle == INVALID_HANDLE_VALUE)
            return code;
        CloseHandle(handle);
        return 0;
    }
    static DWORD Control(HANDLE handle, DWORD code, void* output = nullptr, DWORD outputLength = 0,
                         const void* input = nullptr, DWORD inputLength = 0, DWORD* returned = nullptr)
    {
        DWORD bytes = 0;
        Bytes copy(inputLength);
        if (inputLength != 0)
            std::memcpy(copy.data(), input, inputLength);
        const BOOL done = DeviceIoControl(handle, code, inputLength != 0 ? copy.data() : nullptr, inputLength, output,
                                          outputLength, &bytes, nullptr);
        if (returned != nullptr)
            *returned = bytes;
        return done ? 0 : GetLastError();
    }
    [[gnu::noinline]] static DWORD OpenKeyError(const wchar_t* path)
    {
        HKEY key = nullptr;
        const LSTATUS code = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key);
        if (code == 0)
            RegCloseKey(key);
        return static_cast<DWORD>(code);
    }
    std::vector<std::wstring> ResyncList()
    {
        const Bytes raw = m_machine.ReadValue(SERVICE_KEY, L"DeviceListForReSync");
        std::vector<std::wstring> entries;
        std::wstring entry;
        for (std::size_t i = 0; i + 1 < raw.size(); i += 2) {
            const auto c = static_cast<wchar_t>(raw[i] | (raw[i + 1] << 8));
            if (c != L'\0') {
                entry.push_back(c);
                continue;
            }
            if (!entry.empty())
                entries.push_back(entry);
            entry.clear();
        }
        return entries;
    }

    SimMachine m_machine;
    Volume m_volume;
};

TEST_F(SimInterposeTest, AVolumeOpensWithoutItsBackslashOnly)
{
    EXPECT_EQ(0u, OpenError(m_volume.Path()));
    EXPECT_EQ(3u, OpenError(m_volume.Root()));
    EXPECT_EQ(2u, OpenError(L"\\\\?\\Volume{00000000-0000-0000-0000-000000000000}"));
    EXPECT_EQ(3u, OpenError(L"\\\\?\\Volume{00000000-0000-0000-0000-000000000000}\\x"));
}

TEST_F(SimInterposeTest, TheControlDeviceOpensWhileThereIsADriver)
{
    EXPECT_EQ(0u, OpenError(L"\\\\.\\VTFltMgr"));
    m_machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    EXPECT_EQ(2u, OpenError(L"\\\\.\\VTFltMgr"));
    m_machine.SetDriver(VTFLTSIM_DRIVER_OLDER);
    const HANDLE control = Open(L"\\\\.\\VTFltMgr", GENERIC_READ);
    ASSERT_NE(INVALID_HANDLE_VALUE, control);
    DWORD size = 0;
    EXPECT_EQ(1u, Control(control, GET_BLOCK_SIZE, &size, 4));
    m_machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    EXPECT_EQ(55u, Control(control, GET_BLOCK_SIZE, &size, 4)); // a handle from before
    CloseHandle(control);
}

TEST_F(SimInterposeTest, AVolumeIsReadAndWrittenLikeAFile)
{
    const HANDLE handle = Open(m_volume.Path());
    ASSERT_NE(INVALID_HANDLE_VALUE, handle);
    DWORD moved = 0;
    EXPECT_TRUE(WriteFile(handle, "first", 5, &moved, nullptr));
    EXPECT_EQ(5u, moved);
    LARGE_INTEGER position = {};
    LARGE_INTEGER reached = {};
    position.QuadPart = 10000;
    EXPECT_TRUE(SetFilePointerEx(handle, position, &reached, FILE_BEGIN));
    EXPECT_EQ(10000, reached.QuadPart);
    EXPECT_TRUE(WriteFile(handle, "second", 6, &moved, nullptr));
    EXPECT_EQ(10006u, SetFilePointer(handle, 0, nullptr, FILE_CURRENT));

    OVERLAPPED at = {};
    at.Offset = 10000;
    char text[7] = {};
    EXPECT_TRUE(ReadFile(handle, text, 6, &moved, &at));
    EXPECT_STREQ("second", text);
    EXPECT_EQ(0u, SetFilePointer(handle, 0, nullptr, FILE_BEGIN));
    EXPECT_TRUE(ReadFile(handle, text, 5, &moved, nullptr));
    EXPECT_EQ(0, std::memcmp("first", text, 5));
    LARGE_INTEGER size = {};
    EXPECT_TRUE(GetFileSizeEx(handle, &size));
    EXPECT_EQ(64 * 4096, size.QuadPart);
    EXPECT_TRUE(FlushFileBuffers(handle));

    // At the end: a read is short, then empty; a write does nothing.
    SetFilePointer(handle, -3, nullptr, FILE_END);
    EXPECT_TRUE(ReadFile(handle, text, 7, &moved, nullptr));
    EXPECT_EQ(3u, moved);
    EXPECT_TRUE(ReadFile(handle, text, 7, &moved, nullptr));
    EXPECT_EQ(0u, moved);
    EXPECT_FALSE(WriteFile(handle, "x", 1, &moved, nullptr));
    EXPECT_EQ(27u, GetLastError());
    CloseHandle(handle);
    EXPECT_EQ((Bytes{0xA0, 0, 0, 0, 0, 0, 0, 0}), m_machine.Bits(m_volume));
}

TEST_F(SimInterposeTest, ASeekBeyondEveryNumberIsRefused)
{
    const HANDLE handle = Open(m_volume.Path());
    LARGE_INTEGER distance = {};
    LARGE_INTEGER reached = {};
    distance.QuadPart = 0x7FFFFFFFFFFFFFFF;
    EXPECT_TRUE(SetFilePointerEx(handle, distance, &reached, FILE_BEGIN));
    distance.QuadPart = 1;
    EXPECT_FALSE(SetFilePointerEx(handle, distance, &reached, FILE_CURRENT));
    EXPECT_EQ(87u, GetLastError());
    distance.QuadPart = 0;
    EXPECT_TRUE(SetFilePointerEx(handle, distance, &reached, FILE_CURRENT));
    EXPECT_EQ(0x7FFFFFFFFFFFFFFF, reached.QuadPart);
    CloseHandle(handle);
}

TEST_F(SimInterposeTest, AccessIsHeldTo)
{
    const HANDLE reader = Open(m_volume.Path(), GENERIC_READ);
    DWORD moved = 0;
    EXPECT_FALSE(WriteFile(reader, "x", 1, &moved, nullptr));
    EXPECT_EQ(5u, GetLastError());
    CloseHandle(reader);
    const HANDLE nobody = Open(m_volume.Path(), 0);
    LARGE_INTEGER length = {};
    EXPECT_EQ(5u, Control(nobody, IOCTL_DISK_GET_LENGTH_INFO, &length, 8));
    DWORD size = 0;
    EXPECT_EQ(0u, Control(nobody, GET_BLOCK_SIZE, &size, 4));
    EXPECT_EQ(4096u, size);
    CloseHandle(nobody);
}

TEST_F(SimInterposeTest, ACycleThroughTheDriverSeparatesTheEpochs)
{
    const HANDLE handle = Open(m_volume.Path());
    m_machine.TouchBlock(m_volume, 1);
    EXPECT_EQ(0u, Control(handle, PREPARE_FOR_SNAPSHOT));
    const Snapshot snapshot = m_machine.TakeSnapshot(m_volume);
    m_machine.TouchBlock(m_volume, 2, 77);
    Bytes bitmap(24, 0);
    DWORD returned = 0;
    EXPECT_EQ(0u, Control(handle, GET_BITMAP, bitmap.data(), 24, nullptr, 0, &returned));
    EXPECT_EQ(24u, returned);
    EXPECT_EQ(0x40, bitmap[16]);
    EXPECT_EQ(0u, Control(handle, REPLICATION_SUCCESS));
    EXPECT_EQ((Bytes{0x20, 0, 0, 0, 0, 0, 0, 0}), m_machine.Bits(m_volume));

    const HANDLE old = Open(snapshot.path);
    ASSERT_NE(INVALID_HANDLE_VALUE, old);
    std::uint8_t byte = 9;
    DWORD moved = 0;
    SetFilePointer(old, 2 * 4096, nullptr, FILE_BEGIN);
    EXPECT_TRUE(ReadFile(old, &byte, 1, &moved, nullptr));
    EXPECT_EQ(0, byte);
    EXPECT_EQ(1u, Control(old, GET_BITMAP, bitmap.data(), 24)); // the snapshot class is not filtered
    m_machine.DeleteSnapshot(snapshot);
    EXPECT_FALSE(ReadFile(old, &byte, 1, &moved, nullptr));
    EXPECT_EQ(55u, GetLastError());
    CloseHandle(old);
    CloseHandle(handle);
    EXPECT_EQ(2u, OpenError(snapshot.path));
}

TEST_F(SimInterposeTest, ASnapshotOfAFilteredClassTracksItsOwnWrites)
{
    m_machine.SetFilters({L"VTFlt"}, SNAPSHOT_CLASS);
    const Snapshot snapshot = m_machine.TakeSnapshot(m_volume);
    const HANDLE handle = Open(snapshot.path);
    DWORD moved = 0;
    SetFilePointer(handle, 63 * 4096, nullptr, FILE_BEGIN);
    EXPECT_TRUE(WriteFile(handle, "x", 1, &moved, nullptr));
    Bytes bitmap(24, 0xFF);
    EXPECT_EQ(0u, Control(handle, GET_BITMAP, bitmap.data(), 24));
    EXPECT_EQ(0x01, bitmap[23]);
    CloseHandle(handle);
    EXPECT_EQ(Bytes(8, 0), m_machine.Bits(m_volume));
}

TEST_F(SimInterposeTest, FilesOnAVolumeAreRealFilesElsewhere)
{
    const std::wstring folder = m_volume.Root() + L"VelVolTrc";
    const std::wstring file = folder + L"\\VelVolTrc_base_app.dat";
    EXPECT_EQ(3u, OpenError(file));
    EXPECT_EQ(INVALID_HANDLE_VALUE, Open(file, GENERIC_WRITE, CREATE_ALWAYS));
    EXPECT_EQ(3u, GetLastError());
    EXPECT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
    EXPECT_TRUE(SetFileAttributesW(folder.c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM));
    EXPECT_EQ(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_DIRECTORY,
              GetFileAttributesW(folder.c_str()));
    const HANDLE handle = Open(file, GENERIC_WRITE, CREATE_ALWAYS);
    ASSERT_NE(INVALID_HANDLE_VALUE, handle);
    DWORD moved = 0;
    EXPECT_TRUE(WriteFile(handle, "abc", 3, &moved, nullptr));
    CloseHandle(handle);

    const std::wstring real =
        std::wstring(m_machine.Info(m_volume).filesDirectory) + L"\\VelVolTrc\\VelVolTrc_base_app.dat";
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(real.c_str()));
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW((folder + L"\\*.*").c_str(), &found);
    ASSERT_NE(INVALID_HANDLE_VALUE, search);
    int files = 0;
    do {
        files += (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0 ? 1 : 0;
    } while (FindNextFileW(search, &found));
    EXPECT_EQ(18u, GetLastError());
    EXPECT_TRUE(FindClose(search));
    EXPECT_EQ(1, files);
    EXPECT_TRUE(DeleteFileW(file.c_str()));
    EXPECT_TRUE(RemoveDirectoryW(folder.c_str()));
    EXPECT_FALSE(RemoveDirectoryW(folder.c_str()));
    EXPECT_EQ(Bytes(8, 0), m_machine.Bits(m_volume)); // files are not the volume's blocks
}

TEST_F(SimInterposeTest, AMountedVolumeIsReachedByItsPath)
{
    const Volume mounted = m_machine.AddVolume(1 << 20, 4096, L"Q:\\");
    EXPECT_EQ(0u, OpenError(L"\\\\.\\Q:"));
    EXPECT_TRUE(CreateDirectoryW(L"q:\\folder", nullptr));
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, GetFileAttributesW((mounted.Root() + L"folder").c_str()));
    EXPECT_EQ(static_cast<UINT>(DRIVE_FIXED), GetDriveTypeW(L"Q:\\"));
    WCHAR name[64] = {};
    EXPECT_TRUE(GetVolumeNameForVolumeMountPointW(L"Q:\\", name, 64));
    EXPECT_TRUE(mounted.Root() == name);
}

TEST_F(SimInterposeTest, AVolumeMountedInAFolderOfAnotherIsReachedThere)
{
    const Volume outer = m_machine.AddVolume(1 << 20, 4096, L"Q:\\");
    const Volume inner = m_machine.AddVolume(1 << 20, 4096, L"Q:\\mnt\\");
    EXPECT_TRUE(CreateDirectoryW(L"Q:\\mnt\\folder", nullptr));
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, GetFileAttributesW((inner.Root() + L"folder").c_str()));
    EXPECT_TRUE(CreateDirectoryW(L"Q:\\mntfolder", nullptr));
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, GetFileAttributesW((outer.Root() + L"mntfolder").c_str()));
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW((outer.Root() + L"mnt").c_str()));
}

TEST_F(SimInterposeTest, TheWalkOverVolumesGivesEveryOneThenEnds)
{
    const Volume removable = m_machine.AddVolume(1 << 20, 4096, nullptr, DRIVE_REMOVABLE);
    const Volume malformed = m_machine.AddVolume(1 << 20, 4096);
    ASSERT_EQ(0u, VTFltSimSetEnumerationName(m_machine.handle(), malformed.guid.c_str(), L"Volume-without-prefix\\"));
    WCHAR name[260] = {};
    std::vector<std::wstring> names;
    const HANDLE search = FindFirstVolumeW(name, 260);
    ASSERT_NE(INVALID_HANDLE_VALUE, search);
    do {
        names.emplace_back(name);
    } while (FindNextVolumeW(search, name, 260));
    EXPECT_EQ(18u, GetLastError());
    EXPECT_TRUE(FindVolumeClose(search));
    EXPECT_TRUE((std::vector<std::wstring>{m_volume.Root(), removable.Root(), L"Volume-without-prefix\\"}) == names);
    EXPECT_EQ(static_cast<UINT>(DRIVE_FIXED), GetDriveTypeW(m_volume.Root().c_str()));
    EXPECT_EQ(static_cast<UINT>(DRIVE_REMOVABLE), GetDriveTypeW(removable.Root().c_str()));
    EXPECT_EQ(static_cast<UINT>(DRIVE_NO_ROOT_DIR), GetDriveTypeW(removable.Path().c_str()));
}

TEST_F(SimInterposeTest, TheWalkFailsAtThePlannedStep)
{
    m_machine.AddVolume(1 << 20, 4096);
    WCHAR name[260] = {};
    ASSERT_EQ(0u, VTFltSimSetEnumerationFault(m_machine.handle(), 1, 1117));
    EXPECT_EQ(INVALID_HANDLE_VALUE, FindFirstVolumeW(name, 260));
    EXPECT_EQ(1117u, GetLastError());
    ASSERT_EQ(0u, VTFltSimSetEnumerationFault(m_machine.handle(), 2, 21));
    const HANDLE search = FindFirstVolumeW(name, 260);
    ASSERT_NE(INVALID_HANDLE_VALUE, search);
    EXPECT_FALSE(FindNextVolumeW(search, name, 260));
    EXPECT_EQ(21u, GetLastError());
    EXPECT_TRUE(FindVolumeClose(search));
}

TEST_F(SimInterposeTest, AWalkCannotFailWithoutAnError)
{
    EXPECT_EQ(87u, VTFltSimSetEnumerationFault(m_machine.handle(), 1, 0));
    WCHAR name[260] = {};
    const HANDLE search = FindFirstVolumeW(name, 260);
    ASSERT_NE(INVALID_HANDLE_VALUE, search);
    EXPECT_TRUE(m_volume.Root() == name);
    EXPECT_TRUE(FindVolumeClose(search));
    EXPECT_EQ(0u, VTFltSimSetEnumerationFault(m_machine.handle(), 0, 0));
}

TEST_F(SimInterposeTest, MountPathsAnswerTheLengthTheyNeed)
{
    DWORD needed = 0;
    WCHAR paths[700] = {};
    EXPECT_TRUE(GetVolumePathNamesForVolumeNameW(m_volume.Root().c_str(), paths, 261, &needed));
    EXPECT_EQ(1u, needed);
    const std::wstring list = MultiString({L"C:\\" + std::wstring(400, L'm') + L"\\", L"R:\\"});
    ASSERT_EQ(0u, VTFltSimSetMountPaths(m_machine.handle(), m_volume.guid.c_str(), list.c_str()));
    EXPECT_FALSE(GetVolumePathNamesForVolumeNameW(m_volume.Root().c_str(), paths, 261, &needed));
    EXPECT_EQ(234u, GetLastError());
    EXPECT_EQ(list.size(), needed);
    EXPECT_TRUE(GetVolumePathNamesForVolumeNameW(m_volume.Root().c_str(), paths, needed, &needed));
    EXPECT_TRUE(std::wstring(paths, needed) == list);
}

TEST_F(SimInterposeTest, TheMachineHasARegistryOfItsOwn)
{
    HKEY key = nullptr;
    ASSERT_EQ(0, RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Veltrix\\Probe", 0, nullptr, 0, KEY_READ | KEY_WRITE,
                                 nullptr, &key, nullptr));
    const DWORD number = 7;
    EXPECT_EQ(0, RegSetValueExW(key, L"Number", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), 4));
    EXPECT_EQ(0, RegCloseKey(key));
    DWORD type = 0;
    EXPECT_EQ((Bytes{7, 0, 0, 0}), m_machine.ReadValue(L"SOFTWARE\\Veltrix\\Probe", L"Number", &type));
    EXPECT_EQ(static_cast<DWORD>(REG_DWORD), type);
    m_machine.Detach();
    EXPECT_EQ(2u, OpenKeyError(L"SOFTWARE\\Veltrix\\Probe"));
    m_machine.AttachProgram();
    EXPECT_EQ(0u, OpenKeyError(L"SOFTWARE\\Veltrix\\Probe"));
    EXPECT_EQ(0u, OpenKeyError(L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion"));
}

TEST_F(SimInterposeTest, AValueThatChangesWhileItIsReadIsReadWhole)
{
    struct Change {
        SimMachine& machine;
        Bytes value;
    };
    const std::wstring key = L"SOFTWARE\\Veltrix\\Probe";
    auto callback = [](void* context, LPCWSTR, LPCWSTR) {
        const auto& change = *static_cast<const Change*>(context);
        change.machine.WriteValue(L"SOFTWARE\\Veltrix\\Probe", L"Value", REG_BINARY, change.value);
    };
    HKEY made = nullptr;
    ASSERT_EQ(0, RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &made, nullptr));
    ASSERT_EQ(0, RegCloseKey(made));
    for (const Bytes& later : {Bytes{1, 2, 3, 4, 5, 6}, Bytes{1}}) {
        m_machine.WriteValue(key, L"Value", REG_BINARY, {7, 8, 9});
        Change change{m_machine, later};
        // The question for the length comes first.
        ASSERT_EQ(0u, VTFltSimCallBefore(L"RegQueryValueExW", nullptr, 2, 1, callback, &change));
        EXPECT_EQ(later, m_machine.ReadValue(key, L"Value"));
        VTFltSimClearCallFaults();
    }
}

TEST_F(SimInterposeTest, ABlockSizeChangeForgetsAndListsTheVolume)
{
    m_machine.TouchBlock(m_volume, 3);
    EXPECT_TRUE(ResyncList().empty());
    const HANDLE handle = Open(m_volume.Path());
    const DWORD size = 8192;
    EXPECT_EQ(0u, Control(handle, BLOCK_SIZE_CHANGE, nullptr, 0, &size, 4));
    DWORD answered = 0;
    EXPECT_EQ(0u, Control(handle, GET_BLOCK_SIZE, &answered, 4));
    EXPECT_EQ(8192u, answered);
    CloseHandle(handle);
    EXPECT_TRUE(ResyncList() == std::vector<std::wstring>{m_volume.guid});
    EXPECT_EQ(Bytes(4, 0), m_machine.Bits(m_volume));
    ASSERT_EQ(0u, VTFltSimLoseTracking(m_machine.handle(), m_volume.guid.c_str()));
    EXPECT_TRUE(ResyncList() == std::vector<std::wstring>{m_volume.guid}); // once
}

TEST_F(SimInterposeTest, AResizeKeepsTheBitsAndAShrunkVolumeIsListed)
{
    m_machine.TouchBlock(m_volume, 1);
    m_machine.TouchBlock(m_volume, 63);
    const HANDLE handle = Open(m_volume.Path());
    ASSERT_EQ(0u, VTFltSimResizeVolume(m_machine.handle(), m_volume.guid.c_str(), 100 * 4096));
    Bytes bits = m_machine.Bits(m_volume);
    EXPECT_EQ((Bytes{0x40, 0, 0, 0, 0, 0, 0, 0x01, 0, 0, 0, 0, 0}), bits);
    LARGE_INTEGER length = {};
    EXPECT_EQ(0u, Control(handle, IOCTL_DISK_GET_LENGTH_INFO, &length, 8));
    EXPECT_EQ(100 * 4096, length.QuadPart);
    EXPECT_TRUE(ResyncList().empty());
    ASSERT_EQ(0u, VTFltSimResizeVolume(m_machine.handle(), m_volume.guid.c_str(), 10 * 4096));
    EXPECT_EQ((Bytes{0x40, 0}), m_machine.Bits(m_volume));
    ASSERT_EQ(0u, VTFltSimResizeVolume(m_machine.handle(), m_volume.guid.c_str(), 64 * 4096));
    EXPECT_EQ(Bytes(1, 0), m_machine.Read(m_volume, 63 * 4096, 1)); // what was cut off does not come back
    CloseHandle(handle);
    EXPECT_TRUE(ResyncList() == std::vector<std::wstring>{m_volume.guid});
}

TEST_F(SimInterposeTest, ADriverThatComesBackListsWhatWasWrittenMeanwhile)
{
    const Volume quiet = m_machine.AddVolume(1 << 20, 4096);
    m_machine.TouchBlock(quiet, 1);
    m_machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    m_machine.TouchBlock(m_volume, 1);
    EXPECT_EQ(Bytes(8, 0), m_machine.Bits(m_volume));
    m_machine.SetDriver(VTFLTSIM_DRIVER_WORKING);
    EXPECT_TRUE(ResyncList() == std::vector<std::wstring>{m_volume.guid});
    EXPECT_EQ(0x40, m_machine.Bits(quiet)[0]);
}

TEST_F(SimInterposeTest, AnOverlookedWriteChangesTheContentsAndNothingElse)
{
    ASSERT_EQ(0u, VTFltSimForgetWrites(m_machine.handle(), m_volume.guid.c_str(), 1));
    const HANDLE handle = Open(m_volume.Path());
    const Snapshot before = m_machine.TakeSnapshot(m_volume);
    const std::uint8_t byte = 7;
    DWORD moved = 0;
    SetFilePointer(handle, 3 * 4096, nullptr, FILE_BEGIN);
    EXPECT_TRUE(WriteFile(handle, &byte, 1, &moved, nullptr));
    CloseHandle(handle);
    EXPECT_EQ(Bytes(1, 7), m_machine.Read(m_volume, 3 * 4096, 1));
    EXPECT_EQ(Bytes(8, 0), m_machine.Bits(m_volume));
    std::uint8_t old = 9;
    EXPECT_EQ(0u, VTFltSimReadSnapshot(m_machine.handle(), before.number, 3 * 4096, &old, 1));
    EXPECT_EQ(0, old);
    m_machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    m_machine.SetDriver(VTFLTSIM_DRIVER_WORKING);
    EXPECT_TRUE(ResyncList().empty());
    m_machine.TouchBlock(m_volume, 4);
    EXPECT_EQ(0x08, m_machine.Bits(m_volume)[0]);
    EXPECT_EQ(87u, VTFltSimForgetWrites(nullptr, m_volume.guid.c_str(), 1));
}

TEST_F(SimInterposeTest, AStoppedVolumeIsListedWhenItIsTrackedAgain)
{
    const HANDLE handle = Open(m_volume.Path());
    EXPECT_EQ(0u, Control(handle, STOP_VOLUME));
    Bytes bitmap(24, 0);
    EXPECT_EQ(21u, Control(handle, GET_BITMAP, bitmap.data(), 24));
    EXPECT_EQ(0u, m_machine.Info(m_volume).tracked);
    EXPECT_TRUE(ResyncList().empty());
    ASSERT_EQ(0u, VTFltSimStartTracking(m_machine.handle(), m_volume.guid.c_str()));
    EXPECT_EQ(0u, Control(handle, GET_BITMAP, bitmap.data(), 24));
    EXPECT_TRUE(ResyncList() == std::vector<std::wstring>{m_volume.guid});
    CloseHandle(handle);
}

DWORD QueryDevice(const std::wstring& name, std::wstring* device)
{
    Bytes query(24 + name.size() * 2, 0);
    const DWORD header[4] = {24, 8, 24, static_cast<DWORD>(name.size() * 2)};
    std::memcpy(query.data(), header, sizeof(header));
    std::memcpy(query.data() + 24, name.data(), name.size() * 2);
    Bytes reply(616, 0);
    const DWORD size = 616;
    std::memcpy(reply.data(), &size, 4);
    const HANDLE control = CreateFileW(L"\\\\.\\VTFltMgr", GENERIC_READ, 3, nullptr, OPEN_EXISTING, 0, nullptr);
    DWORD bytes = 0;
    const BOOL done = DeviceIoControl(control, UPDATE_DEVICE_CONFIG, query.data(), static_cast<DWORD>(query.size()),
                                      reply.data(), 616, &bytes, nullptr);
    CloseHandle(control);
    EXPECT_TRUE(done);
    WCHAR text[256];
    std::memcpy(text, reply.data() + 100, sizeof(text));
    *device = text;
    DWORD filtered = 0;
    std::memcpy(&filtered, reply.data() + 612, 4);
    return filtered;
}

TEST_F(SimInterposeTest, TheDeviceQueryKnowsItsVolumes)
{
    std::wstring device;
    EXPECT_EQ(1u, QueryDevice(m_volume.Root(), &device));
    EXPECT_TRUE(device == L"\\Device\\HarddiskVolume1");
    EXPECT_EQ(1u, QueryDevice(m_volume.Path(), &device));
    EXPECT_EQ(0u, QueryDevice(L"\\\\?\\Volume{none}\\", &device));
    EXPECT_EQ(0u, QueryDevice(L"", &device));
    EXPECT_TRUE(device.empty());
}

TEST_F(SimInterposeTest, TheServiceIsThereOrNotAsSet)
{
    auto open = [](DWORD* error) {
        *error = 0;
        const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ENUMERATE_SERVICE);
        if (manager == nullptr) {
            *error = GetLastError();
            return std::string("no manager");
        }
        const SC_HANDLE service = OpenServiceW(manager, L"VTFlt", SERVICE_QUERY_STATUS);
        *error = service == nullptr ? GetLastError() : 0;
        if (service != nullptr)
            CloseServiceHandle(service);
        CloseServiceHandle(manager);
        return std::string(service != nullptr ? "service" : "no service");
    };
    DWORD error = 0;
    EXPECT_EQ("service", open(&error));
    m_machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    EXPECT_EQ("no service", open(&error));
    EXPECT_EQ(1060u, error);
    m_machine.SetService(VTFLTSIM_SERVICE_MANAGER_REFUSED);
    EXPECT_EQ("no manager", open(&error));
    EXPECT_EQ(5u, error);
}

// Starts the utility; the exit code, or 0x10000 + the error of the start, or 0x20000 when the wait timed out.
DWORD RunUtility(const std::wstring& option, const std::wstring& folder = L"C:\\nowhere")
{
    std::wstring line = L"\"" + folder + L"\\VTFltUtl.exe\" " + option + L" -output=\"" + folder + L"\\x.log\" ";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
        return 0x10000 + GetLastError();
    DWORD code = 0x20000;
    if (WaitForSingleObject(process.hProcess, 600000) == WAIT_OBJECT_0)
        GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
    return code;
}

TEST_F(SimInterposeTest, TheUtilityTakesTheDriverAwayAndPutsItBack)
{
    EXPECT_EQ(0u, RunUtility(L"-r"));
    DWORD state = 99;
    VTFltSimGetDriverState(m_machine.handle(), &state);
    EXPECT_EQ(VTFLTSIM_DRIVER_ABSENT, state);
    EXPECT_EQ(0u, RunUtility(L"-i"));
    VTFltSimGetDriverState(m_machine.handle(), &state);
    EXPECT_EQ(VTFLTSIM_DRIVER_WORKING, state);
    EXPECT_TRUE(ResyncList() == std::vector<std::wstring>{m_volume.guid});
    WCHAR line[200] = {};
    EXPECT_EQ(0u, VTFltSimGetUtilityCommand(m_machine.handle(), 1, line, 200));
    EXPECT_STREQ("\"C:\\nowhere\\VTFltUtl.exe\" -i -output=\"C:\\nowhere\\x.log\" ", Narrow(line).c_str());
    EXPECT_EQ(259u, VTFltSimGetUtilityCommand(m_machine.handle(), 2, line, 200));
}

TEST_F(SimInterposeTest, AFolderThatIsNamedLikeAnOptionIsNone)
{
    m_machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    EXPECT_EQ(0u, RunUtility(L"-i", L"C:\\my -runs\\a -r \\m"));
    DWORD state = 99;
    VTFltSimGetDriverState(m_machine.handle(), &state);
    EXPECT_EQ(VTFLTSIM_DRIVER_WORKING, state);
    EXPECT_EQ(0u, RunUtility(L"-r", L"C:\\my -i \\m"));
    VTFltSimGetDriverState(m_machine.handle(), &state);
    EXPECT_EQ(VTFLTSIM_DRIVER_ABSENT, state);
    EXPECT_EQ(static_cast<DWORD>(ERROR_BAD_ARGUMENTS), RunUtility(L"", L"C:\\my -runs\\a -i \\m"));
    VTFltSimGetDriverState(m_machine.handle(), &state);
    EXPECT_EQ(VTFLTSIM_DRIVER_ABSENT, state);
}

TEST_F(SimInterposeTest, TheUtilityFailsHangsOrWantsARestartAsSet)
{
    m_machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    VTFLTSIM_UTILITY utility = {};
    utility.size = sizeof(utility);
    utility.uninstallExit = 7;
    utility.installExit = 3010;
    ASSERT_EQ(0u, VTFltSimSetUtility(m_machine.handle(), &utility));
    EXPECT_EQ(7u, RunUtility(L"-r"));
    EXPECT_EQ(3010u, RunUtility(L"-i"));
    DWORD state = 0;
    VTFltSimGetDriverState(m_machine.handle(), &state);
    EXPECT_EQ(VTFLTSIM_DRIVER_ABSENT, state);
    ASSERT_EQ(0u, VTFltSimReboot(m_machine.handle()));
    VTFltSimGetDriverState(m_machine.handle(), &state);
    EXPECT_EQ(VTFLTSIM_DRIVER_WORKING, state);
    utility.hangs = 2;
    ASSERT_EQ(0u, VTFltSimSetUtility(m_machine.handle(), &utility));
    EXPECT_EQ(0x20000u, RunUtility(L"-i"));
    utility.launchError = 2;
    ASSERT_EQ(0u, VTFltSimSetUtility(m_machine.handle(), &utility));
    EXPECT_EQ(0x10002u, RunUtility(L"-r"));
}

TEST_F(SimInterposeTest, ARequestFaultStrikesOnceAndAForgedReplyIsBelieved)
{
    const HANDLE handle = Open(m_volume.Path());
    m_machine.FailRequest(GET_BLOCK_SIZE, 1117, m_volume.guid.c_str(), 2);
    DWORD size = 0;
    EXPECT_EQ(0u, Control(handle, GET_BLOCK_SIZE, &size, 4));
    EXPECT_EQ(1117u, Control(handle, GET_BLOCK_SIZE, &size, 4));
    EXPECT_EQ(0u, Control(handle, GET_BLOCK_SIZE, &size, 4));
    const DWORD zero = 0;
    ASSERT_EQ(0u, VTFltSimForgeReply(m_machine.handle(), GET_BLOCK_SIZE, nullptr, 1, 1, &zero, 4));
    EXPECT_EQ(0u, Control(handle, GET_BLOCK_SIZE, &size, 4));
    EXPECT_EQ(0u, size);
    CloseHandle(handle);
}

TEST_F(SimInterposeTest, ARequestCanFailWithoutAnError)
{
    const HANDLE handle = Open(m_volume.Path());
    m_machine.FailRequest(GET_BLOCK_SIZE, 0);
    DWORD size = 5;
    DWORD bytes = 9;
    SetLastError(77);
    EXPECT_FALSE(DeviceIoControl(handle, GET_BLOCK_SIZE, nullptr, 0, &size, 4, &bytes, nullptr));
    EXPECT_EQ(77u, GetLastError()); // nothing was said
    EXPECT_EQ(5u, size);
    EXPECT_EQ(0u, bytes);
    EXPECT_TRUE(DeviceIoControl(handle, GET_BLOCK_SIZE, nullptr, 0, &size, 4, &bytes, nullptr));
    EXPECT_EQ(4096u, size);
    CloseHandle(handle);
}

TEST_F(SimInterposeTest, ACallFailsWhereItsTextMatches)
{
    FailCall(L"CreateMutexW", 5, L".Mutex", 2);
    const HANDLE other = CreateMutexW(nullptr, FALSE, L"sim-test.Other");
    const HANDLE first = CreateMutexW(nullptr, FALSE, L"sim-test.A.Mutex");
    EXPECT_NE(nullptr, other);
    EXPECT_NE(nullptr, first);
    EXPECT_EQ(nullptr, CreateMutexW(nullptr, FALSE, L"sim-test.B.Mutex"));
    EXPECT_EQ(5u, GetLastError());
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    EXPECT_EQ(3u, VTFltSimGetCallCount(L"CreateMutexW"));
    EXPECT_EQ(2u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_MUTEXES));
    CloseHandle(other);
    CloseHandle(first);
    EXPECT_EQ(127u, VTFltSimFailCall(L"NoSuchFunction", nullptr, 1, 1, 5));
}

TEST_F(SimInterposeTest, AWaitReturnsWhatIsPlannedWithoutWaiting)
{
    const HANDLE mutex = CreateMutexW(nullptr, TRUE, nullptr);
    VTFLTSIM_CALL_FAULT fault = {};
    fault.size = sizeof(fault);
    fault.what = VTFLTSIM_CALL_RETURNS;
    fault.function = L"WaitForSingleObject";
    fault.count = 1;
    fault.value = WAIT_TIMEOUT;
    ASSERT_EQ(0u, VTFltSimSetCallFault(&fault));
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), WaitForSingleObject(mutex, 1800000));
    FailCall(L"WaitForSingleObject", 6);
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(mutex, 1800000));
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OWNED_MUTEXES));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(mutex, 1800000));
    EXPECT_EQ(1u, VTFltSimGetOpenCount(VTFLTSIM_OWNED_MUTEXES));
    EXPECT_TRUE(ReleaseMutex(mutex));
    CloseHandle(mutex);
}

TEST_F(SimInterposeTest, ReadsAndWritesAreShortAsPlanned)
{
    const std::wstring path = m_volume.Root() + L"short.dat";
    VTFLTSIM_CALL_FAULT fault = {};
    fault.size = sizeof(fault);
    fault.what = VTFLTSIM_CALL_SHORT;
    fault.function = L"WriteFile";
    fault.match = L"short.dat";
    fault.count = 1;
    fault.value = 2;
    ASSERT_EQ(0u, VTFltSimSetCallFault(&fault));
    const HANDLE handle = Open(path, GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS);
    DWORD moved = 0;
    EXPECT_TRUE(WriteFile(handle, "abcd", 4, &moved, nullptr));
    EXPECT_EQ(2u, moved);
    EXPECT_TRUE(WriteFile(handle, "abcd", 4, &moved, nullptr));
    EXPECT_EQ(4u, moved);
    CloseHandle(handle);
}

TEST_F(SimInterposeTest, RegistryCallsFailWithTheirResult)
{
    HKEY key = nullptr;
    FailCall(L"RegOpenKeyExW", 5, L"Services\\VTFlt");
    EXPECT_EQ(5, RegOpenKeyExW(HKEY_LOCAL_MACHINE, SERVICE_KEY, 0, KEY_READ, &key));
    ASSERT_EQ(0, RegCreateKeyW(HKEY_LOCAL_MACHINE, SERVICE_KEY, &key));
    FailCall(L"RegQueryValueExW", 1018, L"|Gone");
    DWORD size = 0;
    EXPECT_EQ(1018, RegQueryValueExW(key, L"Gone", nullptr, nullptr, nullptr, &size));
    EXPECT_EQ(2, RegQueryValueExW(key, L"Gone", nullptr, nullptr, nullptr, &size));
    EXPECT_EQ(1u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_KEYS));
    EXPECT_EQ(0, RegCloseKey(key));
}

TEST_F(SimInterposeTest, MemoryRunsOutAsPlanned)
{
    FailCall(L"malloc", 8, L"123457");
    volatile std::size_t size = 123457;
    void* first = std::malloc(size);
    void* second = std::malloc(size);
    EXPECT_EQ(nullptr, first);
    EXPECT_NE(nullptr, second);
    std::free(second);
}

TEST_F(SimInterposeTest, ACallbackRunsBeforeItsCall)
{
    struct Seen {
        std::vector<std::string> lines;
    } seen;
    auto callback = [](void* context, LPCWSTR function, LPCWSTR text) {
        static_cast<Seen*>(context)->lines.push_back(Narrow(function) + " " + Narrow(text));
        CloseHandle(CreateMutexW(nullptr, FALSE, L"inside")); // no callback for this one
    };
    ASSERT_EQ(0u, VTFltSimCallBefore(L"CreateMutexW", nullptr, 2, 1, callback, &seen));
    for (const wchar_t* name : {L"one", L"two", L"three"})
        CloseHandle(CreateMutexW(nullptr, FALSE, name));
    EXPECT_EQ((std::vector<std::string>{"CreateMutexW two"}), seen.lines);
}

TEST_F(SimInterposeTest, TheTraceTellsWhatHappenedInOrder)
{
    VTFltSimRecord(1);
    const HANDLE handle = Open(m_volume.Path());
    DWORD size = 0;
    Control(handle, GET_BLOCK_SIZE, &size, 4);
    CloseHandle(handle);
    VTFltSimRecord(0);
    std::vector<std::string> lines;
    for (const auto& line : Trace())
        lines.push_back(Narrow(line));
    const std::string path = Narrow(m_volume.Path());
    EXPECT_EQ((std::vector<std::string>{"CreateFileW " + path, "DeviceIoControl " + path + "|0xB0000006|in 0|out 4",
                                        "CloseHandle " + path}),
              lines);
    const auto requests = Requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ(GET_BLOCK_SIZE, requests[0].code);
    EXPECT_TRUE(m_volume.Path() == requests[0].endpoint);
    EXPECT_EQ(4u, requests[0].outputLength);
    EXPECT_EQ(4u, requests[0].bytesReturned);
    EXPECT_EQ(0x10, requests[0].output[1]);
}

TEST_F(SimInterposeTest, WhatIsLeftOpenIsNamed)
{
    const HANDLE handle = Open(m_volume.Path());
    const auto left = LeftOpen();
    ASSERT_EQ(1u, left.size());
    EXPECT_TRUE(left[0] == m_volume.Path());
    CloseHandle(handle);
    EXPECT_TRUE(LeftOpen().empty());
}

TEST_F(SimInterposeTest, DetachingGivesTheImportsBack)
{
    m_machine.Detach();
    EXPECT_NE(0u, OpenError(m_volume.Path()));
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"CreateFileW"));
    m_machine.AttachProgram();
    EXPECT_EQ(0u, OpenError(m_volume.Path()));
    EXPECT_EQ(1u, VTFltSimGetCallCount(L"CreateFileW"));
}

// As much of an image as attaching looks at: its size, and one function that it imports, with the place of its address.
void* volatile* WriteImage(BYTE* base, DWORD size, DWORD place)
{
    constexpr DWORD HEADERS = 0x80;
    constexpr DWORD IMPORTS = 0x400;
    constexpr DWORD THUNKS = 0x500;
    constexpr DWORD NAME = 0x580;
    std::memset(base, 0, 4096);
    IMAGE_DOS_HEADER dos = {};
    dos.e_magic = IMAGE_DOS_SIGNATURE;
    dos.e_lfanew = HEADERS;
    std::memcpy(base, &dos, sizeof(dos));
    IMAGE_NT_HEADERS headers = {};
    headers.OptionalHeader.SizeOfImage = size;
    headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress = IMPORTS;
    std::memcpy(base + HEADERS, &headers, sizeof(headers));
    IMAGE_IMPORT_DESCRIPTOR import = {};
    import.OriginalFirstThunk = THUNKS;
    import.Name = NAME;
    import.FirstThunk = place;
    std::memcpy(base + IMPORTS, &import, sizeof(import));
    const ULONGLONG thunk = NAME;
    std::memcpy(base + THUNKS, &thunk, sizeof(thunk));
    std::memcpy(base + NAME + sizeof(WORD), "CreateMutexW", sizeof("CreateMutexW"));
    void* const function = base; // any address but the replacement's
    std::memcpy(base + place, &function, sizeof(function));
    return reinterpret_cast<void* volatile*>(base + place);
}

TEST_F(SimInterposeTest, AnImageInThePlaceOfALongerOneIsAttachedAnew)
{
    BYTE* const base = static_cast<BYTE*>(VirtualAlloc(nullptr, 3 * 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    ASSERT_NE(nullptr, base);
    const auto module = reinterpret_cast<HMODULE>(base);
    void* volatile* const longers = WriteImage(base, 3 * 4096, 2 * 4096);
    EXPECT_EQ(0u, VTFltSimAttachModule(m_machine.handle(), module));
    EXPECT_NE(static_cast<void*>(base), *longers);
    EXPECT_EQ(0u, VTFltSimAttachModule(m_machine.handle(), module)); // twice is no error
    // What lies behind the shorter one's end is none of its own.
    void* volatile* const shorters = WriteImage(base, 4096, 0x700);
    void* const redirected = *longers;
    EXPECT_EQ(0u, VTFltSimAttachModule(m_machine.handle(), module));
    EXPECT_EQ(redirected, *shorters);
    EXPECT_EQ(0u, VTFltSimDetachModule(module));
    EXPECT_TRUE(VirtualFree(base, 0, MEM_RELEASE));
}

TEST_F(SimInterposeTest, ACopyOfTheAttachedMachineIsAnotherOne)
{
    const std::wstring copy = m_machine.directory() + L"-copy";
    ASSERT_TRUE(CreateDirectoryW(copy.c_str(), nullptr));
    ASSERT_TRUE(CopyFileW((m_machine.directory() + L"\\machine.bin").c_str(), (copy + L"\\machine.bin").c_str(), TRUE));
    VTFLTSIM_MACHINE copied = nullptr;
    ASSERT_EQ(0u, VTFltSimOpen(copy.c_str(), &copied));
    EXPECT_EQ(170u, VTFltSimAttachModule(copied, nullptr));
    EXPECT_EQ(0u, VTFltSimClose(copied));
    EXPECT_TRUE(DeleteFileW((copy + L"\\machine.bin").c_str()));
    EXPECT_TRUE(RemoveDirectoryW(copy.c_str()));

    // The machine itself by another path: without its long name, and with a way back in it.
    WCHAR brief[MAX_PATH] = {};
    ASSERT_NE(0u, GetShortPathNameW(m_machine.directory().c_str(), brief, MAX_PATH));
    SimMachine same(std::wstring(brief) + L"\\volumes\\..");
    EXPECT_EQ(0u, VTFltSimAttachModule(same.handle(), nullptr));
}

TEST_F(SimInterposeTest, AHugeVolumeCostsOnlyWhatIsWritten)
{
    const Volume huge = m_machine.AddVolume(64ull << 30, 65536);
    m_machine.Write(huge, (63ull << 30) + 12345, Bytes(100000, 7));
    const HANDLE handle = Open(huge.Path());
    FILE_ALLOCATED_RANGE_BUFFER wanted = {};
    wanted.Length.QuadPart = 64ll << 30;
    FILE_ALLOCATED_RANGE_BUFFER ranges[4] = {};
    DWORD returned = 0;
    EXPECT_EQ(
        0u, Control(handle, FSCTL_QUERY_ALLOCATED_RANGES, ranges, sizeof(ranges), &wanted, sizeof(wanted), &returned));
    ASSERT_EQ(sizeof(ranges[0]), returned);
    EXPECT_EQ(63ll << 30, ranges[0].FileOffset.QuadPart);
    EXPECT_EQ(2 * 65536, ranges[0].Length.QuadPart);
    CloseHandle(handle);
    EXPECT_EQ(2u, m_machine.Info(huge).allocatedChunks);
    EXPECT_EQ(2u, m_machine.Info(huge).currentBlocks);
}

TEST_F(SimInterposeTest, TheMachineOutlivesItsProcesses)
{
    SimMachine again(m_machine.directory());
    again.TouchBlock(m_volume, 8, 42);
    EXPECT_EQ(0x80, m_machine.Bits(m_volume)[1]);
    EXPECT_EQ(Bytes(1, 42), m_machine.Read(m_volume, 8 * 4096, 1));
    VTFLTSIM_MACHINE handle = nullptr;
    EXPECT_EQ(183u, VTFltSimCreate(m_machine.directory().c_str(), &handle));
    EXPECT_EQ(2u, VTFltSimOpen((m_machine.directory() + L"-none").c_str(), &handle));
}

// A second process on the same machine.
class SimProcessTest : public SimInterposeTest {
protected:
    HANDLE Start()
    {
        WCHAR program[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, program, MAX_PATH);
        std::wstring line =
            L"\"" + std::wstring(program) + L"\" --child \"" + m_machine.directory() + L"\" " + m_volume.guid;
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION process = {};
        const bool started = vttest::StartAgain([&] {
            return CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                                  &process);
        });
        if (!started)
            return nullptr;
        CloseHandle(process.hThread);
        return process.hProcess;
    }
    static DWORD ExitCode(HANDLE process)
    {
        DWORD code = 0xFFFFFFFF;
        WaitForSingleObject(process, 60000);
        GetExitCodeProcess(process, &code);
        CloseHandle(process);
        return code;
    }
    DWORD RunWith(const wchar_t* plan)
    {
        SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, plan);
        const HANDLE process = Start();
        SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, nullptr);
        return ExitCode(process);
    }
};

TEST_F(SimProcessTest, AnotherProcessWritesToTheSameVolume)
{
    m_machine.TouchBlock(m_volume, 0); // this process has the maps open already
    EXPECT_EQ(0u, RunWith(nullptr));
    EXPECT_EQ(0x84, m_machine.Bits(m_volume)[0]);
    EXPECT_EQ((Bytes{'c', 'h', 'i', 'l', 'd'}), m_machine.Read(m_volume, 5 * 4096, 5));
}

TEST_F(SimProcessTest, AChildEndsWhereItsPlanSays)
{
    EXPECT_EQ(VTFLTSIM_KILLED, RunWith(L"kill-before|WriteFile|Volume{|1"));
    EXPECT_EQ(Bytes(8, 0), m_machine.Bits(m_volume));
    EXPECT_EQ(VTFLTSIM_KILLED, RunWith(L"kill-after|WriteFile|Volume{|1"));
    EXPECT_EQ(0x04, m_machine.Bits(m_volume)[0]);
    EXPECT_EQ(112u, RunWith(L"fail|WriteFile||1|1|112"));
    EXPECT_EQ(87u, RunWith(L"nonsense|WriteFile"));
}

TEST_F(SimProcessTest, AChildPausesUntilItIsToldToGoOn)
{
    const HANDLE reached = CreateEventW(nullptr, TRUE, FALSE, L"sim-test.pause.reached");
    const HANDLE go = CreateEventW(nullptr, TRUE, FALSE, L"sim-test.pause.go");
    SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, L"pause|WriteFile||1|sim-test.pause");
    const HANDLE process = Start();
    SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, nullptr);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(reached, 60000));
    EXPECT_EQ(Bytes(8, 0), m_machine.Bits(m_volume));
    SetEvent(go);
    EXPECT_EQ(0u, ExitCode(process));
    EXPECT_EQ(0x04, m_machine.Bits(m_volume)[0]);
    CloseHandle(reached);
    CloseHandle(go);
}

} // namespace
