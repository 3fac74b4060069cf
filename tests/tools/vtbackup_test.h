// What the tests of vtbackup share: a simulated machine with one volume, a repository, and the program as a
// child process.
#pragma once

#include "vtfltsim/VTFltSim.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vtbackup_test {

constexpr DWORD GET_BITMAP = 0xB0000002;
constexpr DWORD GET_BLOCK_SIZE = 0xB0000006;
// Whose filters decide whether snapshots are tracked.
constexpr wchar_t SNAPSHOT_CLASS[] =
    L"System\\CurrentControlSet\\Control\\Class\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}";

// Exit codes, as the manual lists them.
enum : DWORD {
    EXIT_OK = 0,
    EXIT_USAGE = 2,
    EXIT_BUSY = 3,
    EXIT_REFUSED = 4,
    EXIT_DRIVER_DOWN = 5,
    EXIT_DAMAGED = 6,
    EXIT_NOT_REPORTED = 7,
    EXIT_DEVICE = 9,
    EXIT_NOT_FOUND = 10,
    EXIT_REPOSITORY = 11,
};

// What one run of vtbackup said. The fields below "json" come from its JSON object and are empty without one.
struct Result {
    DWORD exitCode = 0;
    std::string out;
    std::string err;
    bool json = false; // standard output was one JSON object and nothing else
    std::string result;
    std::string message;
    std::string kind;
    std::vector<std::string> reasons;
    std::string snapshotChanges;
    std::string snapshotNote;
    std::uint64_t sequence = 0;
    std::uint64_t blocksStored = 0;
    std::uint64_t bytesRead = 0;
    bool reported = false;

    [[nodiscard]] bool Has(const std::string& reason) const;
};

// A running vtbackup. calls is what the simulator shall do to it, as VTFLTSIM_CALLS.
class Process {
public:
    explicit Process(const std::vector<std::wstring>& arguments, const std::wstring& calls = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    [[nodiscard]] DWORD Id() const noexcept { return m_id; }
    [[nodiscard]] HANDLE Get() const noexcept { return m_process; }
    void Terminate();
    Result Finish();

private:
    HANDLE m_process = nullptr;
    HANDLE m_out = nullptr;
    HANDLE m_err = nullptr;
    DWORD m_id = 0;
};

class VtBackupTest : public testing::Test {
protected:
    static constexpr std::uint64_t LENGTH = 1024 * 1024 + 1000; // no multiple of the block size
    static constexpr DWORD BLOCK = 4096;

    VtBackupTest();
    ~VtBackupTest() override;

    Result Run(const std::vector<std::wstring>& arguments, const std::wstring& calls = {}) const;
    [[nodiscard]] std::vector<std::wstring> Arguments(const wchar_t* command, const wchar_t* application = L"App",
                                                      const vtfltsim::Volume* volume = nullptr) const;
    Result Init(const wchar_t* application = L"App") const;
    // Backs up the volume; calls as above.
    Result Backup(const wchar_t* application = L"App", const std::wstring& calls = {}) const;
    // Runs the program up to a call, does something there, and lets it go on.
    Result RunWith(const std::vector<std::wstring>& arguments, const std::wstring& call,
                   const std::function<void(Process&)>& meanwhile, const std::wstring& moreCalls = {}) const;
    // Runs a backup up to a call, does something there, and lets it go on.
    Result BackupWith(const std::wstring& call, const std::function<void(Process&)>& meanwhile,
                      const std::wstring& moreCalls = {}) const;

    // Writes a block full of one value.
    void Write(std::uint64_t block, std::uint8_t value);
    [[nodiscard]] std::vector<std::uint8_t> Contents() const;
    // The contents of a backup (0: the latest), restored into a file; fails the test when that fails.
    std::vector<std::uint8_t> Restored(std::uint64_t sequence = 0, const wchar_t* application = L"App") const;
    [[nodiscard]] DWORD OnlySnapshot() const; // its number
    [[nodiscard]] std::wstring SnapshotPath() const;
    [[nodiscard]] std::wstring BitmapFile(const wchar_t* which, const wchar_t* application = L"App") const;
    [[nodiscard]] std::wstring BackupFile(std::uint64_t sequence, const wchar_t* name) const;

    vtfltsim::SimMachine machine;
    vtfltsim::Volume volume;
    std::wstring repository;
};

std::vector<std::uint8_t> ReadFileBytes(const std::wstring& path);
void WriteFileBytes(const std::wstring& path, const std::vector<std::uint8_t>& bytes);
bool Exists(const std::wstring& path);
void RemoveTree(const std::wstring& path);

} // namespace vtbackup_test
