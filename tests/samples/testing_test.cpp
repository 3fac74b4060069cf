// samples/testing: the right program passes every example, and each mistake is found by its own.
#include "samples/machine_tricks.h"
#include "vtfltsim/VTFltSim.hpp"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace vttest {

namespace {

std::string OwnFolder()
{
    char self[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, self, MAX_PATH);
    std::string folder = self;
    folder.resize(folder.rfind('\\') + 1);
    return folder;
}

// What find_bugs prints for a program; ended gets its exit code.
std::string FindBugs(const std::string& program, int& ended)
{
    const std::string folder = OwnFolder();
    std::FILE* const output = _popen((folder + "find_bugs.exe " + folder + program).c_str(), "rt");
    std::string text;
    for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output))
        text.push_back(static_cast<char>(c));
    ended = _pclose(output);
    return text;
}

void ExpectFound(const std::string& program, const std::string& example)
{
    int ended = 0;
    const std::string text = FindBugs(program, ended);
    EXPECT_EQ(1, ended) << text;
    const std::size_t found = text.find(example);
    ASSERT_NE(std::string::npos, found) << text;
    EXPECT_NE(std::string::npos, text.substr(found, text.find('\n', found) - found).find("FAILED")) << text;
}

TEST(FindBugs, PassesTheRightProgram)
{
    int ended = 0;
    const std::string text = FindBugs("loop.exe", ended);
    EXPECT_EQ(0, ended) << text;
    EXPECT_EQ(std::string::npos, text.find("FAILED"));
}

TEST(FindBugs, FindsAReportBeforeTheCopyIsOnTheDisk)
{
    ExpectFound("loop_early_report.exe", "forgets nothing before the copy is on the disk");
}

TEST(FindBugs, FindsThatTheAnswerToVerifyIsIgnored)
{
    ExpectFound("loop_ignored_verify.exe", "reads everything when tracking was lost");
}

TEST(FindBugs, FindsABitmapThatWasFetchedBeforeTheSnapshot)
{
    ExpectFound("loop_early_bitmap.exe", "has what was written right before the snapshot");
}

TEST(FindBugs, SaysWhenTheProgramIsNotThere)
{
    int ended = 0;
    FindBugs("no_such_program.exe", ended);
    EXPECT_EQ(99, ended);
}

TEST(StartProgram, RunsNothingWithoutAMachine)
{
    PROCESS_INFORMATION process = {};
    EXPECT_EQ(DWORD{ERROR_FILE_NOT_FOUND},
              VTFltSimStartProgram(L"C:\\no such machine", L"cmd.exe /c exit", 0, &process));
    EXPECT_EQ(nullptr, process.hProcess);
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, VTFltSimStartProgram(L"C:\\", nullptr, 0, &process));
}

TEST(StartProgram, LetsTheProgramWaitWhenAsked)
{
    const vtfltsim::SimMachine machine;
    PROCESS_INFORMATION process = {};
    ASSERT_EQ(0u, VTFltSimStartProgram(machine.directory().c_str(), L"cmd.exe /c exit 7", 1, &process));
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, WaitForSingleObject(process.hProcess, 0));
    EXPECT_EQ(1u, ResumeThread(process.hThread));
    EXPECT_EQ(DWORD{WAIT_OBJECT_0}, WaitForSingleObject(process.hProcess, INFINITE));
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(process.hProcess, &code));
    EXPECT_EQ(7u, code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
}

DWORD RunUnder(const vtfltsim::SimMachine& machine, const std::wstring& line)
{
    PROCESS_INFORMATION process = {};
    vtfltsim::Check("VTFltSimStartProgram",
                    VTFltSimStartProgram(machine.directory().c_str(), line.c_str(), 0, &process));
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return code;
}

bool FileEquals(const std::wstring& path, const std::vector<std::uint8_t>& expected)
{
    std::vector<std::uint8_t> bytes(expected.size() + 1);
    std::FILE* const opened = _wfopen(path.c_str(), L"rb");
    bytes.resize(opened != nullptr ? std::fread(bytes.data(), 1, bytes.size(), opened) : 0);
    if (opened != nullptr)
        std::fclose(opened);
    return bytes == expected;
}

// samples/testing/loop.cpp, with what find_bugs does not try.
class Loop : public testing::Test {
protected:
    static constexpr DWORD LENGTH = 1u << 20;

    Loop() : m_volume(AddVolume(m_machine, L"{abcdef01-2345-6789-abcd-ef0123456789}", LENGTH, 4096))
    {
        SetEnvironmentVariableW(L"TRIAL_MACHINE", m_machine.directory().c_str());
        SetEnvironmentVariableW(L"LOOP_SNAPSHOT", (L"\"" + Folder() + L"find_bugs.exe\" --snapshot").c_str());
    }
    ~Loop() override
    {
        for (const wchar_t* copy : {L"Loop", L"Other", L"Second"})
            DeleteFileW(Copy(copy).c_str());
    }

    std::wstring Copy(const std::wstring& name) const { return m_machine.directory() + L"." + name; }
    DWORD BackUp(const std::wstring& application, const std::wstring& guid, const std::wstring& copy) const
    {
        SetEnvironmentVariableW(L"TRIAL_VOLUME", guid.c_str());
        return RunUnder(m_machine,
                        L"\"" + Folder() + L"loop.exe\" " + guid + L" " + application + L" \"" + Copy(copy) + L"\"");
    }
    DWORD BackUp(const std::wstring& application) const { return BackUp(application, m_volume.guid, application); }
    void ExpectCopied() const { EXPECT_TRUE(FileEquals(Copy(L"Loop"), m_machine.Read(m_volume, 0, LENGTH))); }

    vtfltsim::SimMachine m_machine;
    vtfltsim::Volume m_volume;

private:
    static std::wstring Folder()
    {
        const std::string own = OwnFolder();
        return {own.begin(), own.end()};
    }
};

TEST_F(Loop, ReadsEverythingWhenItsRegistrationWasLost)
{
    ASSERT_EQ(0u, BackUp(L"Loop"));
    m_machine.TouchBlock(m_volume, 3);
    DeleteApplicationList(m_machine);
    ASSERT_EQ(0u, BackUp(L"Other")); // the change is handed to it alone
    EXPECT_EQ(0u, BackUp(L"Loop"));
    ExpectCopied();
}

TEST_F(Loop, ReadsEverythingOfAVolumeThatIsNotFixedWhenAnotherVolumeRegisters)
{
    const vtfltsim::Volume second = m_machine.AddVolume(LENGTH, 4096);
    ASSERT_EQ(0u, VTFltSimSetDriveType(m_machine.handle(), m_volume.guid.c_str(), DRIVE_REMOVABLE));
    ASSERT_EQ(0u, BackUp(L"Loop"));
    m_machine.TouchBlock(m_volume, 3);
    DeleteApplicationList(m_machine);
    ASSERT_EQ(0u, BackUp(L"Other"));
    ASSERT_EQ(0u, BackUp(L"Loop", second.guid, L"Second"));
    EXPECT_EQ(0u, BackUp(L"Loop"));
    ExpectCopied();
}

TEST_F(Loop, RegistersNothingThatItCouldNotMark)
{
    m_machine.SetService(VTFLTSIM_SERVICE_ABSENT); // or the driver would be reinstalled
    const vtfltsim::Volume second = m_machine.AddVolume(LENGTH, 4096);
    ASSERT_EQ(0u, BackUp(L"Loop"));
    ASSERT_EQ(0u, BackUp(L"Loop", second.guid, L"Second"));
    m_machine.TouchBlock(m_volume, 3);
    DeleteApplicationList(m_machine);
    ASSERT_EQ(0u, BackUp(L"Other"));
    SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, L"fail|CreateFileW|\\\\.\\VTFltMgr|2|1|2");
    EXPECT_EQ(1u, BackUp(L"Loop", second.guid, L"Second"));
    SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, nullptr);
    EXPECT_EQ(0u, BackUp(L"Loop", second.guid, L"Second"));
    EXPECT_EQ(0u, BackUp(L"Loop"));
    ExpectCopied();
}

TEST_F(Loop, TakesNoSilenceOfTheDriverForAWordThatNothingWasLost)
{
    m_machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    ASSERT_EQ(0u, BackUp(L"Loop"));
    unsigned succeeded = 0;
    for (unsigned silence = 2; silence <= 6; ++silence) {
        SCOPED_TRACE(silence);
        m_machine.TouchBlock(m_volume, silence);
        ASSERT_EQ(0u, VTFltSimLoseTracking(m_machine.handle(), m_volume.guid.c_str()));
        const std::wstring plan = L"fail|CreateFileW|\\\\.\\VTFltMgr|" + std::to_wstring(silence) + L"|1|2";
        SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, plan.c_str());
        const DWORD result = BackUp(L"Loop");
        SetEnvironmentVariableW(VTFLTSIM_CALLS_VARIABLE, nullptr);
        if (result == 0) {
            ++succeeded;
            ExpectCopied();
        }
        EXPECT_EQ(0u, BackUp(L"Loop"));
        ExpectCopied();
    }
    EXPECT_LE(3u, succeeded);
}

TEST_F(Loop, TakesNoTailOfAnotherId)
{
    ASSERT_EQ(0u, BackUp(L"Loop"));
    EXPECT_EQ(1u, BackUp(L"oop", m_volume.guid, L"Other"));
}

TEST_F(Loop, TakesAVolumeInOtherLetters)
{
    const std::wstring given = L"{ABCDEF01-2345-6789-ABCD-EF0123456789}";
    ASSERT_EQ(0u, BackUp(L"Loop", given, L"Loop"));
    m_machine.TouchBlock(m_volume, 3);
    ASSERT_EQ(0u, VTFltSimLoseTracking(m_machine.handle(), m_volume.guid.c_str()));
    EXPECT_EQ(0u, BackUp(L"Loop", given, L"Loop"));
    ExpectCopied();
    EXPECT_EQ(1u, BackUp(L"Loop", L"{abcdef01-2345-6789-abcd-ef0000000000}", L"Loop"));
}

// vtbackup as on a real machine: without --simulate, its snapshots by commands.
class RealMachineWay : public testing::Test {
protected:
    RealMachineWay() : m_volume(m_machine.AddVolume(1u << 20, 4096)), m_repository(m_machine.directory() + L".repo")
    {
        SetEnvironmentVariableW(L"TRIAL_MACHINE", m_machine.directory().c_str());
        SetEnvironmentVariableW(L"TRIAL_VOLUME", m_volume.guid.c_str());
    }

    DWORD Run(const std::wstring& arguments) const
    {
        const std::string folder = OwnFolder();
        const std::wstring line = L"\"" + std::wstring(folder.begin(), folder.end()) + L"vtbackup.exe\" " + arguments +
                                  L" --repo \"" + m_repository + L"\"";
        return RunUnder(m_machine, line);
    }
    DWORD BackUp() const
    {
        const std::string folder = OwnFolder(); // find_bugs --snapshot takes one and prints its device path
        return Run(L"backup --app Real --volume " + m_volume.guid + L" --snapshot-create \"" +
                   std::wstring(folder.begin(), folder.end()) +
                   L"find_bugs.exe --snapshot\" --snapshot-delete \"cmd.exe /c exit\"");
    }

    vtfltsim::SimMachine m_machine;
    vtfltsim::Volume m_volume;
    std::wstring m_repository;
};

TEST_F(RealMachineWay, BacksUpAndRestores)
{
    ASSERT_EQ(0u, Run(L"init --app Real"));
    m_machine.TouchBlock(m_volume, 3, 1);
    EXPECT_EQ(0u, BackUp());
    m_machine.TouchBlock(m_volume, 7, 2);
    EXPECT_EQ(0u, BackUp());
    const std::wstring file = m_machine.directory() + L".restored";
    EXPECT_EQ(0u, Run(L"restore --app Real --volume " + m_volume.guid + L" --to \"" + file + L"\""));
    EXPECT_TRUE(FileEquals(file, m_machine.Read(m_volume, 0, 1u << 20)));
    DeleteFileW(file.c_str());
    _wsystem((L"cmd.exe /c rmdir /s /q \"" + m_repository + L"\"").c_str());
    _wsystem((L"cmd.exe /c rmdir /s /q \"" + m_machine.directory() + L"\\vtbackup\"").c_str()); // its notes
}

} // namespace

} // namespace vttest
