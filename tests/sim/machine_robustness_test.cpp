// What the simulator does with arguments and files that nobody should give it, and what a failure half-way leaves.
#include "model/state.h"
#include "vtfltsim/VTFltSim.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace vtfltsim;
using Bytes = std::vector<std::uint8_t>;

constexpr wchar_t SERVICE_KEY[] = L"SYSTEM\\CurrentControlSet\\Services\\VTFlt";
constexpr wchar_t RESYNC_LIST[] = L"DeviceListForReSync";

// Real files of a machine: this program is not attached here.
Bytes ReadAll(const std::wstring& path)
{
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_NE(INVALID_HANDLE_VALUE, file);
    Bytes data(GetFileSize(file, nullptr));
    DWORD moved = 0;
    EXPECT_TRUE(ReadFile(file, data.data(), static_cast<DWORD>(data.size()), &moved, nullptr));
    CloseHandle(file);
    return data;
}

void WriteAll(const std::wstring& path, const Bytes& data)
{
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                    nullptr, CREATE_ALWAYS, 0, nullptr);
    EXPECT_NE(INVALID_HANDLE_VALUE, file);
    DWORD moved = 0;
    EXPECT_TRUE(WriteFile(file, data.data(), static_cast<DWORD>(data.size()), &moved, nullptr));
    CloseHandle(file);
}

bool Exists(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// The resync list's mutex, or that of a machine: whoever needs it waits until this is gone.
class Held {
public:
    explicit Held(const std::wstring& name) : m_mutex(CreateMutexW(nullptr, FALSE, name.c_str()))
    {
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(m_mutex, 60000));
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    ~Held()
    {
        ReleaseMutex(m_mutex);
        CloseHandle(m_mutex);
    }

private:
    HANDLE m_mutex;
};

constexpr wchar_t LIST_MUTEX[] = L"VTBitmapManager.DeviceListForReSync.Mutex";

class SimRobustnessTest : public ::testing::Test {
protected:
    SimRobustnessTest() { m_volume = m_machine.AddVolume(64 * 4096, 4096); }

    std::wstring VolumeFile(const wchar_t* name) const
    {
        return m_machine.directory() + L"\\volumes\\" + m_volume.guid + name;
    }
    bool IsListed() const { return !m_machine.ReadValue(SERVICE_KEY, RESYNC_LIST).empty(); }
    void EmptyList()
    {
        HKEY key = nullptr;
        ASSERT_EQ(0u, VTFltSimOpenKey(m_machine.handle(), SERVICE_KEY, KEY_WRITE, &key));
        RegDeleteValueW(key, RESYNC_LIST);
        RegCloseKey(key);
    }
    DWORD Resize(std::uint64_t length)
    {
        return VTFltSimResizeVolume(m_machine.handle(), m_volume.guid.c_str(), length);
    }
    std::unique_ptr<model::MachineRecord> State() const
    {
        auto record = std::make_unique<model::MachineRecord>();
        const Bytes state = ReadAll(m_machine.directory() + L"\\machine.bin");
        EXPECT_EQ(sizeof(*record), state.size());
        std::memcpy(record.get(), state.data(), sizeof(*record));
        return record;
    }
    void AwaitResyncOwed(std::size_t volume) const
    {
        while (State()->volumes[volume].resyncOwed == 0)
            SwitchToThread();
    }

    SimMachine m_machine;
    Volume m_volume;
};

TEST_F(SimRobustnessTest, AMissingBufferIsRefused)
{
    const VTFLTSIM_MACHINE machine = m_machine.handle();
    const wchar_t* guid = m_volume.guid.c_str();
    const Snapshot snapshot = m_machine.TakeSnapshot(m_volume);
    EXPECT_EQ(87u, VTFltSimWriteVolume(machine, guid, 0, nullptr, 1));
    EXPECT_EQ(87u, VTFltSimReadVolume(machine, guid, 0, nullptr, 1));
    EXPECT_EQ(87u, VTFltSimWriteSnapshot(machine, snapshot.number, 0, nullptr, 1));
    EXPECT_EQ(87u, VTFltSimReadSnapshot(machine, snapshot.number, 0, nullptr, 1));
    EXPECT_EQ(0u, VTFltSimWriteVolume(machine, guid, 0, nullptr, 0));
    EXPECT_EQ(0u, VTFltSimReadSnapshot(machine, snapshot.number, 0, nullptr, 0));
    EXPECT_EQ(Bytes(8, 0), m_machine.Bits(m_volume));
}

TEST_F(SimRobustnessTest, AGeometryBeyondTheLimitIsRefusedAndChangesNothing)
{
    constexpr ULONGLONG LIMIT = 512ull << 31; // 2^31 blocks of 512
    VTFLTSIM_VOLUME_CONFIG config = {};
    config.size = sizeof(config);
    config.blockSize = 512;
    config.length = LIMIT + 1;
    WCHAR guid[VTFLTSIM_GUID_CHARS] = {};
    EXPECT_EQ(87u, VTFltSimAddVolume(m_machine.handle(), &config, guid));

    const Volume large = m_machine.AddVolume(LIMIT + 1, 65536);
    EXPECT_EQ(87u, VTFltSimSetBlockSize(m_machine.handle(), large.guid.c_str(), 512));
    EXPECT_EQ(65536u, m_machine.Info(large).blockSize);
    EXPECT_EQ(87u, Resize((4096ull << 31) + 1));
    EXPECT_EQ(87u, Resize(0));
    EXPECT_EQ(64u * 4096, m_machine.Info(m_volume).length);
    EXPECT_FALSE(IsListed());
}

TEST_F(SimRobustnessTest, APathThatDoesNotFitIsLeftOutNotCut)
{
    const std::wstring mount = L"C:\\" + std::wstring(300, L'm') + L"\\";
    const Volume deep = m_machine.AddVolume(4096, 4096, mount.c_str());
    EXPECT_EQ(0u, std::wstring(m_machine.Info(deep).mountPath).size());
    EXPECT_NE(0u, std::wstring(m_machine.Info(deep).filesDirectory).size());

    const std::wstring directory = m_machine.directory() + L"\\" + std::wstring(200, L'd');
    VTFLTSIM_MACHINE machine = nullptr;
    ASSERT_EQ(0u, VTFltSimCreate(directory.c_str(), &machine));
    VTFLTSIM_VOLUME_CONFIG config = {};
    config.size = sizeof(config);
    config.length = 4096;
    config.mountPath = L"Q:\\";
    VTFLTSIM_VOLUME_INFO info = {};
    info.size = sizeof(info);
    WCHAR guid[VTFLTSIM_GUID_CHARS] = {};
    EXPECT_EQ(0u, VTFltSimAddVolume(machine, &config, guid));
    EXPECT_EQ(0u, VTFltSimGetVolumeInfo(machine, guid, &info));
    EXPECT_EQ(0u, std::wstring(info.filesDirectory).size());
    EXPECT_TRUE(std::wstring(info.mountPath) == L"Q:\\");
    VTFltSimClose(machine);
    EXPECT_EQ(0u, VTFltSimDestroy(directory.c_str()));
}

TEST_F(SimRobustnessTest, AShrinkThatFailsKeepsTheContents)
{
    m_machine.TouchBlock(m_volume, 63, 9);
    const std::wstring obstacle = VolumeFile(L"\\tracking.2.bin"); // where the maps of the new geometry would go
    ASSERT_TRUE(CreateDirectoryW(obstacle.c_str(), nullptr));
    EXPECT_NE(0u, Resize(10 * 4096));
    EXPECT_EQ(64u * 4096, m_machine.Info(m_volume).length);
    EXPECT_EQ(Bytes(1, 9), m_machine.Read(m_volume, 63 * 4096, 1));
    ASSERT_TRUE(RemoveDirectoryW(obstacle.c_str()));
    EXPECT_EQ(0u, Resize(10 * 4096));
    EXPECT_EQ(10u * 4096, m_machine.Info(m_volume).length);
}

TEST_F(SimRobustnessTest, WhatAnInterruptedShrinkLeftBehindTheEndDoesNotComeBack)
{
    m_machine.TouchBlock(m_volume, 1);
    ASSERT_EQ(0u, Resize(10 * 4096));
    Bytes contents = ReadAll(VolumeFile(L"\\contents.img"));
    ASSERT_EQ(10u * 4096, contents.size());
    contents.resize(64 * 4096, 7); // as if the process had ended before it cut the file
    WriteAll(VolumeFile(L"\\contents.img"), contents);
    ASSERT_EQ(0u, Resize(64 * 4096));
    EXPECT_EQ(Bytes(6 * 4096, 0), m_machine.Read(m_volume, 10 * 4096, 6 * 4096)); // the rest of the written chunk
    EXPECT_EQ(Bytes(1, 1), m_machine.Read(m_volume, 4096, 1));
}

TEST_F(SimRobustnessTest, ASnapshotThatFailedLeavesItsNumberBehind)
{
    const std::wstring folder = m_machine.directory() + L"\\snapshots\\1";
    ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW((folder + L"\\maps.bin").c_str(), nullptr)); // no file can be made here
    DWORD number = 0;
    EXPECT_NE(0u, VTFltSimCreateSnapshot(m_machine.handle(), m_volume.guid.c_str(), &number, nullptr));
    EXPECT_EQ(0u, VTFltSimCreateSnapshot(m_machine.handle(), m_volume.guid.c_str(), &number, nullptr));
    EXPECT_EQ(2u, number);
}

TEST_F(SimRobustnessTest, ASnapshotWithCutMapsIsDamaged)
{
    const Snapshot snapshot = m_machine.TakeSnapshot(m_volume);
    const std::wstring maps =
        m_machine.directory() + L"\\snapshots\\" + std::to_wstring(snapshot.number) + L"\\maps.bin";
    Bytes cut = ReadAll(maps);
    cut.resize(cut.size() - 1);
    ASSERT_TRUE(MoveFileW(maps.c_str(), (maps + L".whole").c_str())); // this process still has the whole one
    WriteAll(maps, cut);
    SimMachine again(m_machine.directory());
    std::uint8_t byte = 0;
    EXPECT_EQ(1392u, VTFltSimReadSnapshot(again.handle(), snapshot.number, 0, &byte, 1));
    EXPECT_EQ(0u, VTFltSimReadSnapshot(m_machine.handle(), snapshot.number, 0, &byte, 1));
}

TEST_F(SimRobustnessTest, ADriverThatComesBackIsSilentUntilTheVolumesAreListed)
{
    m_machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    m_machine.TouchBlock(m_volume, 1);
    DWORD code = 0xFFFFFFFF;
    DWORD state = 0;
    std::thread returning;
    {
        const Held list(LIST_MUTEX);
        returning = std::thread([&] { code = VTFltSimSetDriverState(m_machine.handle(), VTFLTSIM_DRIVER_WORKING); });
        AwaitResyncOwed(0); // about to write the list
        EXPECT_EQ(0u, VTFltSimGetDriverState(m_machine.handle(), &state));
        EXPECT_EQ(VTFLTSIM_DRIVER_ABSENT, state);
        EXPECT_FALSE(IsListed());
    }
    returning.join();
    EXPECT_EQ(0u, code);
    EXPECT_EQ(0u, VTFltSimGetDriverState(m_machine.handle(), &state));
    EXPECT_EQ(VTFLTSIM_DRIVER_WORKING, state);
    EXPECT_TRUE(IsListed());
}

TEST_F(SimRobustnessTest, OfTwoResizesAtOnceTheOneThatShrinksListsTheVolume)
{
    SimMachine other(m_machine.directory()); // as another process has it
    const auto state = State();
    const std::wstring id(state->id, state->id + model::ID_UNITS);
    const std::wstring lock = L"VTFltSim." + id + L".Mutex";
    int shrunk = 0;
    for (int round = 0; round < 40; ++round) {
        ASSERT_EQ(0u, Resize(40 * 4096));
        EmptyList();
        std::thread shorter;
        std::thread longer;
        {
            const Held machine(lock); // both are about to begin
            shorter = std::thread([&] { EXPECT_EQ(0u, Resize(50 * 4096)); });
            Sleep(2);
            longer = std::thread(
                [&] { EXPECT_EQ(0u, VTFltSimResizeVolume(other.handle(), m_volume.guid.c_str(), 60 * 4096)); });
            Sleep(2);
        }
        shorter.join();
        longer.join();
        // From 40 blocks to 50 to 60 it only grows.
        const bool shrinks = m_machine.Info(m_volume).length == 50u * 4096;
        EXPECT_EQ(shrinks, IsListed()) << round;
        shrunk += shrinks ? 1 : 0;
    }
    RecordProperty("shrunk", shrunk);
}

TEST_F(SimRobustnessTest, ABlockSizeThatTheVolumeOutgrewMeanwhileIsRefused)
{
    constexpr ULONGLONG LIMIT = 512ull << 31; // 2^31 blocks of 512
    const Volume large = m_machine.AddVolume(LIMIT, 65536);
    DWORD code = 0;
    std::thread changing;
    {
        const Held list(LIST_MUTEX);
        changing = std::thread([&] { code = VTFltSimSetBlockSize(m_machine.handle(), large.guid.c_str(), 512); });
        AwaitResyncOwed(1); // it was looked at, and is not changed yet
        EXPECT_EQ(0u, VTFltSimResizeVolume(m_machine.handle(), large.guid.c_str(), LIMIT + 65536));
    }
    changing.join();
    EXPECT_EQ(87u, code);
    EXPECT_EQ(65536u, m_machine.Info(large).blockSize);
    VTFLTSIM_MACHINE again = nullptr;
    EXPECT_EQ(0u, VTFltSimOpen(m_machine.directory().c_str(), &again));
    VTFltSimClose(again);
}

TEST_F(SimRobustnessTest, AVolumeThatIsLongerThanAFileCanBeIsResized)
{
    constexpr ULONGLONG TIB = 1ull << 40;
    const Volume huge = m_machine.AddVolume(100 * TIB, 1 << 20);
    const auto resize = [&](ULONGLONG length) {
        EXPECT_EQ(0u, VTFltSimResizeVolume(m_machine.handle(), huge.guid.c_str(), length));
        EXPECT_EQ(length, m_machine.Info(huge).length);
    };
    m_machine.Write(huge, 0, Bytes(1, 7));
    resize(120 * TIB);
    resize(90 * TIB);
    EXPECT_EQ(Bytes(1, 7), m_machine.Read(huge, 0, 1));
    EXPECT_EQ(Bytes(1, 0), m_machine.Read(huge, 90 * TIB - 1, 1));
    resize(1 << 20);
    EXPECT_EQ(Bytes(1, 7), m_machine.Read(huge, 0, 1));
    resize(100 * TIB);
    EXPECT_EQ(Bytes(1, 0), m_machine.Read(huge, 100 * TIB - 1, 1));
}

// A folder beside the machine's, removed with whatever of this the case left there.
class Folder {
public:
    explicit Folder(std::wstring path) : m_path(std::move(path))
    {
        EXPECT_TRUE(CreateDirectoryW(m_path.c_str(), nullptr));
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder()
    {
        for (const wchar_t* file : {L"\\machine.bin", L"\\volumes\\mine.txt", L"\\mine.txt"})
            DeleteFileW((m_path + file).c_str());
        for (const wchar_t* folder : {L"\\volumes", L"\\snapshots", L"\\CBTDriver", L""})
            RemoveDirectoryW((m_path + folder).c_str());
    }
    const std::wstring& path() const { return m_path; }

private:
    std::wstring m_path;
};

TEST_F(SimRobustnessTest, DestroyingAMachineTakesNothingElseInItsFolder)
{
    const Folder folder(m_machine.directory() + L"-shared");
    WriteAll(folder.path() + L"\\mine.txt", Bytes(1, 1));
    VTFLTSIM_MACHINE machine = nullptr;
    ASSERT_EQ(0u, VTFltSimCreate(folder.path().c_str(), &machine));
    VTFltSimClose(machine);
    const std::wstring notes = folder.path() + L"\\vtbackup"; // as vtbackup keeps them
    ASSERT_TRUE(CreateDirectoryW(notes.c_str(), nullptr));
    WriteAll(notes + L"\\note.json", Bytes(1, 1));
    EXPECT_EQ(0u, VTFltSimDestroy(folder.path().c_str()));
    EXPECT_TRUE(Exists(folder.path() + L"\\mine.txt"));
    for (const wchar_t* own : {L"\\machine.bin", L"\\volumes", L"\\snapshots", L"\\CBTDriver", L"\\vtbackup"})
        EXPECT_FALSE(Exists(folder.path() + own)) << own;
    EXPECT_EQ(2u, VTFltSimDestroy(folder.path().c_str())); // no machine any more
}

TEST_F(SimRobustnessTest, AFolderWhoseStateFileIsNoMachinesIsLeftAlone)
{
    const Folder folder(m_machine.directory() + L"-foreign");
    ASSERT_TRUE(CreateDirectoryW((folder.path() + L"\\volumes").c_str(), nullptr));
    WriteAll(folder.path() + L"\\volumes\\mine.txt", Bytes(1, 1));
    const std::wstring state = folder.path() + L"\\machine.bin";
    Bytes whole(sizeof(model::MachineRecord), 0);
    whole[0] = 1;
    for (const Bytes& foreign : {Bytes(3, 0), Bytes(5000, 7), Bytes(5000, 0), whole}) {
        WriteAll(state, foreign);
        EXPECT_EQ(1392u, VTFltSimDestroy(folder.path().c_str()));
        EXPECT_TRUE(Exists(folder.path() + L"\\volumes\\mine.txt"));
        EXPECT_TRUE(ReadAll(state) == foreign);
    }
}

TEST_F(SimRobustnessTest, AMachineThatIsDamagedOrHalfMadeCanBeDestroyed)
{
    const std::wstring copy = m_machine.directory() + L"-half";
    const Bytes state = ReadAll(m_machine.directory() + L"\\machine.bin");
    for (const Bytes& damaged : {Bytes(state.begin(), state.begin() + 100), Bytes(state.size(), 0)}) {
        const Folder folder(copy);
        WriteAll(copy + L"\\machine.bin", damaged);
        ASSERT_TRUE(CreateDirectoryW((copy + L"\\volumes").c_str(), nullptr));
        EXPECT_EQ(0u, VTFltSimDestroy(copy.c_str()));
        EXPECT_FALSE(Exists(copy));
    }
}

// Opens a machine whose closed state file went through damage; the code that opening it gave.
template <class Damage>
DWORD OpenDamaged(Damage damage)
{
    SimMachine machine;
    machine.AddVolume(4096, 4096);
    const std::wstring path = machine.directory() + L"\\machine.bin";
    Bytes bytes = ReadAll(path);
    EXPECT_EQ(sizeof(model::MachineRecord), bytes.size());
    damage(bytes);
    const std::wstring copy = machine.directory() + L"-damaged";
    EXPECT_TRUE(CreateDirectoryW(copy.c_str(), nullptr));
    WriteAll(copy + L"\\machine.bin", bytes);
    VTFLTSIM_MACHINE opened = nullptr;
    const DWORD code = VTFltSimOpen(copy.c_str(), &opened);
    if (code == 0)
        VTFltSimClose(opened);
    EXPECT_TRUE(DeleteFileW((copy + L"\\machine.bin").c_str()));
    EXPECT_TRUE(RemoveDirectoryW(copy.c_str()));
    return code;
}

TEST(SimDamagedStateTest, AMachineThatLostItsIdTakesNoOtherOnesRegistry)
{
    SimMachine bystander;
    bystander.WriteValue(SERVICE_KEY, L"Mark", REG_BINARY, Bytes(3, 9));
    SimMachine victim;
    Bytes state = ReadAll(victim.directory() + L"\\machine.bin");
    std::memset(&state[offsetof(model::MachineRecord, id)], 0, sizeof(model::MachineRecord::id));
    const std::wstring damaged = victim.directory() + L"-damaged";
    ASSERT_TRUE(CreateDirectoryW(damaged.c_str(), nullptr));
    WriteAll(damaged + L"\\machine.bin", state);
    VTFLTSIM_MACHINE opened = nullptr;
    EXPECT_EQ(1392u, VTFltSimOpen(damaged.c_str(), &opened));
    VTFltSimClose(opened);
    EXPECT_EQ(Bytes(3, 9), bystander.ReadValue(SERVICE_KEY, L"Mark"));
    EXPECT_EQ(0u, VTFltSimDestroy(damaged.c_str()));
    EXPECT_FALSE(Exists(damaged));
    EXPECT_EQ(Bytes(3, 9), bystander.ReadValue(SERVICE_KEY, L"Mark"));
}

TEST(SimDamagedStateTest, ADamagedStateFileIsRefused)
{
    using model::MachineRecord;
    const std::size_t blockSize = offsetof(MachineRecord, volumes) + offsetof(model::VolumeRecord, blockSize);
    EXPECT_EQ(0u, OpenDamaged([](Bytes&) {}));
    EXPECT_EQ(1392u, OpenDamaged([](Bytes& file) { file.resize(file.size() - 1); }));
    EXPECT_EQ(1392u, OpenDamaged([](Bytes& file) { ++file[offsetof(MachineRecord, version)]; }));
    EXPECT_EQ(1392u, OpenDamaged([](Bytes& file) { file[offsetof(MachineRecord, magic)] ^= 1; }));
    EXPECT_EQ(1392u, OpenDamaged([&](Bytes& file) { std::memset(&file[blockSize], 0, 4); }));
    EXPECT_EQ(1392u, OpenDamaged([](Bytes& file) { file[offsetof(MachineRecord, id)] = 'x'; }));
    // A text without an end is read up to the end of its field.
    EXPECT_EQ(0u, OpenDamaged([](Bytes& file) {
                  std::memset(&file[offsetof(MachineRecord, utility) + offsetof(model::UtilityRecord, commands)], 'x',
                              sizeof(model::UtilityRecord::commands));
              }));
}

} // namespace
