// vtbackup as on a real machine: without --simulate, its snapshots by commands, under "vtfltsim run".
#include "support/child.h"
#include "tools/vtbackup_test.h"

#include <nlohmann/json.hpp>
#include <winioctl.h>

using namespace vtbackup_test;

namespace {

using nlohmann::json;

struct RealRun {
    DWORD exitCode = 0;
    json out; // nothing when it is no JSON object
    std::string err;
};

class VtBackupReal : public VtBackupTest {
protected:
    VtBackupReal()
    {
        std::wstring self(MAX_PATH, L'\0');
        self.resize(GetModuleFileNameW(nullptr, self.data(), MAX_PATH));
        m_program = self.substr(0, self.find_last_of(L'\\') + 1) + L"vtbackup.exe";
    }
    ~VtBackupReal() override
    {
        for (const wchar_t* end : {L".out", L".err"})
            DeleteFileW((repository + end).c_str());
    }

    // The device of the n-th snapshot of the machine.
    static std::wstring Device(unsigned number)
    {
        return L"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy" + std::to_wstring(number);
    }

    RealRun RunReal(const std::wstring& arguments, const std::wstring& calls = {},
                    const std::function<void(HANDLE)>& meanwhile = {}) const
    {
        const std::wstring line =
            L"\"" + m_program + L"\" " + arguments + L" --json --app App --repo \"" + repository + L"\"";
        PROCESS_INFORMATION process = {};
        const HANDLE out = Inheritable(L".out", m_outputAccess);
        const HANDLE err = Inheritable(L".err", GENERIC_WRITE);
        const HANDLE ownOut = GetStdHandle(STD_OUTPUT_HANDLE);
        const HANDLE ownErr = GetStdHandle(STD_ERROR_HANDLE);
        SetStdHandle(STD_OUTPUT_HANDLE, out);
        SetStdHandle(STD_ERROR_HANDLE, err);
        SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, calls.empty() ? nullptr : calls.c_str());
        const DWORD error = VTFltSimStartProgram(machine.directory().c_str(), line.c_str(), 0, &process);
        SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, nullptr);
        SetStdHandle(STD_OUTPUT_HANDLE, ownOut);
        SetStdHandle(STD_ERROR_HANDLE, ownErr);
        CloseHandle(out);
        CloseHandle(err);
        vtfltsim::Check("VTFltSimStartProgram", error);
        if (meanwhile)
            meanwhile(process.hProcess);
        RealRun run;
        WaitForSingleObject(process.hProcess, INFINITE);
        GetExitCodeProcess(process.hProcess, &run.exitCode);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
        const std::vector<std::uint8_t> said = ReadFileBytes(repository + L".out");
        run.out = json::parse(said.begin(), said.end(), nullptr, false);
        const std::vector<std::uint8_t> diagnosed = ReadFileBytes(repository + L".err");
        run.err.assign(diagnosed.begin(), diagnosed.end());
        return run;
    }

    // The command that makes the snapshot prints its device, and the test takes it while that command is started.
    RealRun BackUpReal(const std::wstring& deleteCommand = L"exit 0", const std::wstring& moreCalls = {})
    {
        const std::wstring device = Device(++m_snapshots);
        const std::wstring name = vttest::UniqueName(L"vtbackup_real");
        const vtflt::UniqueHandle reached = vttest::NamedEvent(name + L".reached");
        const vtflt::UniqueHandle go = vttest::NamedEvent(name + L".go");
        return RunReal(L"backup --volume " + volume.guid + L" --snapshot-create \"echo " + device +
                           L"\" --snapshot-delete \"" + deleteCommand + L"\"",
                       L"pause|CreateProcessW|echo|1|" + name + moreCalls, [&](HANDLE process) {
                           const HANDLE either[] = {reached.get(), process};
                           EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(2, either, FALSE, INFINITE));
                           DWORD number = 0;
                           vtfltsim::Check(
                               "VTFltSimCreateSnapshot",
                               VTFltSimCreateSnapshot(machine.handle(), volume.guid.c_str(), &number, nullptr));
                           EXPECT_EQ(m_snapshots, number);
                           SetEvent(go.get());
                       });
    }

    std::vector<std::uint8_t> RestoredReal() const
    {
        const std::wstring file = repository + L".restored";
        EXPECT_EQ(EXIT_OK, RunReal(L"restore --volume " + volume.guid + L" --to \"" + file + L"\"").exitCode);
        std::vector<std::uint8_t> bytes = ReadFileBytes(file);
        DeleteFileW(file.c_str());
        return bytes;
    }

    // As the result says it, and a line on standard error.
    static void ExpectNamed(const RealRun& run, unsigned number, const std::string& why)
    {
        const std::wstring device = Device(number);
        const std::string what = std::string(device.begin(), device.end()) + " " + why;
        for (const std::string& text : {run.out.value("snapshotNote", ""), run.err})
            EXPECT_NE(std::string::npos, text.find(what)) << text;
    }

    DWORD m_outputAccess = GENERIC_WRITE;

private:
    [[nodiscard]] HANDLE Inheritable(const wchar_t* end, DWORD access) const
    {
        SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
        return CreateFileW((repository + end).c_str(), access, FILE_SHARE_READ, &inheritable, CREATE_ALWAYS,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    }

    std::wstring m_program;
    DWORD m_snapshots = 0;
};

// Taken at its word, a device that calls every range unwritten would be backed up as nothing.
TEST_F(VtBackupReal, ADeviceIsNotAskedWhatOfItWasWritten)
{
    ASSERT_EQ(EXIT_OK, RunReal(L"init").exitCode);
    vtfltsim::Check("forge",
                    VTFltSimForgeReply(machine.handle(), FSCTL_QUERY_ALLOCATED_RANGES, nullptr, 1, 0, nullptr, 0));
    const RealRun run = BackUpReal();
    ASSERT_EQ(EXIT_OK, run.exitCode) << run.err;
    EXPECT_EQ(LENGTH, run.out.at("backup").at("bytesRead"));
    EXPECT_TRUE(Contents() == RestoredReal());
}

// Noted on the real machine, what a simulated one did would hold up the real one's next backup.
TEST_F(VtBackupReal, ItsNotesAreTheSimulatedMachines)
{
    ASSERT_EQ(EXIT_OK, RunReal(L"init").exitCode);
    ASSERT_EQ(EXIT_OK, BackUpReal().exitCode);
    EXPECT_TRUE(Exists(machine.directory() + L"\\vtbackup"));
    EXPECT_EQ("incremental", Backup().kind) << "the same machine with --simulate";
}

TEST_F(VtBackupReal, ASnapshotThatCannotBeDeletedIsNamedUntilItIsGone)
{
    ASSERT_EQ(EXIT_OK, RunReal(L"init").exitCode);
    const RealRun first = BackUpReal(L"exit 3");
    EXPECT_EQ(EXIT_OK, first.exitCode) << first.err;
    ExpectNamed(first, 1, "could not be deleted");

    Write(20, 0x31);
    const RealRun failed = BackUpReal(L"exit 3", L";fail|ReadFile|HarddiskVolumeShadowCopy|1|0|1117");
    EXPECT_EQ(EXIT_DEVICE, failed.exitCode);
    for (const char* name : {"ShadowCopy1 of an earlier backup", "ShadowCopy2 could not be deleted"})
        EXPECT_NE(std::string::npos, failed.err.find(name)) << failed.err;

    const RealRun next = BackUpReal(L"echo %VTBACKUP_SNAPSHOT%>>" + repository + L".deleted");
    EXPECT_EQ(EXIT_OK, next.exitCode) << next.err;
    ExpectNamed(next, 1, "of an earlier backup");
    ExpectNamed(next, 2, "of an earlier backup");
    // By its name it could be somebody else's by now: only the own one is deleted.
    const std::vector<std::uint8_t> deleted = ReadFileBytes(repository + L".deleted");
    const std::string names(deleted.begin(), deleted.end());
    EXPECT_EQ(std::string::npos, names.find("ShadowCopy1")) << names;
    EXPECT_NE(std::string::npos, names.find("ShadowCopy3")) << names;
    DeleteFileW((repository + L".deleted").c_str());

    for (const DWORD number : {1U, 2U})
        vtfltsim::Check("delete", VTFltSimDeleteSnapshot(machine.handle(), number));
    const RealRun last = BackUpReal();
    EXPECT_EQ(std::string::npos, last.err.find("ShadowCopy")) << last.err;
}

TEST_F(VtBackupReal, TheSnapshotOfAKilledBackupIsNamed)
{
    ASSERT_EQ(EXIT_OK, RunReal(L"init").exitCode);
    ASSERT_EQ(VTFLTSIM_KILLED, BackUpReal(L"exit 0", L";kill-before|ReadFile|HarddiskVolumeShadowCopy|1").exitCode);
    const RealRun next = BackUpReal();
    EXPECT_EQ(EXIT_OK, next.exitCode) << next.err;
    ExpectNamed(next, 1, "of an earlier backup");
}

TEST_F(VtBackupReal, AnAnswerThatDidNotGetThereIsNoSuccess)
{
    ASSERT_EQ(EXIT_OK, RunReal(L"init").exitCode);
    ASSERT_EQ(EXIT_OK, BackUpReal().exitCode);
    m_outputAccess = GENERIC_READ; // nothing can be written to it
    const RealRun list = RunReal(L"list");
    EXPECT_EQ(EXIT_REPOSITORY, list.exitCode);
    EXPECT_NE(std::string::npos, list.err.find("could not be written to standard output")) << list.err;
}

} // namespace
