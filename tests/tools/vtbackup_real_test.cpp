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
        const HANDLE out = Inheritable(L".out");
        const HANDLE err = Inheritable(L".err");
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
                           vtfltsim::Check("VTFltSimCreateSnapshot",
                                           VTFltSimCreateSnapshot(machine.handle(), volume.guid.c_str(), &number,
                                                                  nullptr));
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

private:
    [[nodiscard]] HANDLE Inheritable(const wchar_t* end) const
    {
        SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
        return CreateFileW((repository + end).c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inheritable, CREATE_ALWAYS,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    }

    std::wstring m_program;
    DWORD m_snapshots = 0;
};

// Taken at its word, a device that calls every range unwritten would be backed up as nothing.
TEST_F(VtBackupReal, ADeviceIsNotAskedWhatOfItWasWritten)
{
    ASSERT_EQ(EXIT_OK, RunReal(L"init").exitCode);
    vtfltsim::Check("forge", VTFltSimForgeReply(machine.handle(), FSCTL_QUERY_ALLOCATED_RANGES, nullptr, 1, 0, nullptr,
                                                0));
    const RealRun run = BackUpReal();
    ASSERT_EQ(EXIT_OK, run.exitCode) << run.err;
    EXPECT_EQ(LENGTH, run.out.at("backup").at("bytesRead"));
    EXPECT_TRUE(Contents() == RestoredReal());
}

} // namespace
