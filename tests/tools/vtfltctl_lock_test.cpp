// Backups at work: vtfltctl keeps off the bitmap files of their volumes, and never keeps a file open.
#include "tools/vtfltctl_test.h"

#include "support/child.h"

#include <memory>

namespace vtfltctl_test {
namespace {

using nlohmann::json;
using vtlog_test::Result;
using vtlog_test::Utf8;

// How the services' session calls a mutex of its own, seen from another one.
std::wstring InTheServicesSession(const std::wstring& name)
{
    return L"Global\\" + name;
}

class VtFltCtlLock : public VtFltCtlTest {
protected:
    VtFltCtlLock() { Register(L"Nightly"); }

    // With a plan of the simulator.
    [[nodiscard]] Result RunWith(const std::wstring& calls, std::vector<std::wstring> arguments) const
    {
        return Start(std::move(arguments), calls)->Finish();
    }
    // Whatever would look at the volume's files or delete them leaves them alone.
    void ExpectBusy() const
    {
        const std::string before = Fingerprint();
        const auto clean = Start({L"apps", L"clean", L"Nightly", L"--yes"});
        const auto info = Start({L"bitmap", L"info", L"--volume", L"E:", L"--app", L"Nightly"});
        for (const auto& process : {clean, info}) {
            const Result result = process->Finish();
            EXPECT_EQ(EXIT_BUSY, result.exitCode) << result.err;
            EXPECT_NE(std::string::npos, result.err.find("a backup works on the bitmap files")) << result.err;
        }
        EXPECT_TRUE(before == Fingerprint()) << "something was changed";
    }

private:
    [[nodiscard]] std::shared_ptr<vtlog_test::Process> Start(std::vector<std::wstring> arguments,
                                                             const std::wstring& calls = {}) const
    {
        arguments.insert(arguments.end(), {L"--simulate", machine.directory()});
        std::vector<std::wstring> variables;
        if (!calls.empty())
            variables.push_back(VTFLTSIM_CALLS_VARIABLE L"=" + calls);
        return std::make_shared<vtlog_test::Process>(arguments, variables, L"vtfltctl.exe");
    }
};

TEST_F(VtFltCtlLock, ABackupInThisSessionIsLeftAlone)
{
    const vtflt::UniqueHandle mutex(CreateMutexW(nullptr, TRUE, volume.MutexName().c_str()));
    ASSERT_TRUE(mutex.valid());
    ExpectBusy();
    ReleaseMutex(mutex.get());
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"clean", L"Nightly", L"--yes"}).exitCode);
}

TEST_F(VtFltCtlLock, ABackupServiceIsLeftAloneFromAnotherSession)
{
    const vtflt::UniqueHandle mutex(CreateMutexW(nullptr, TRUE, InTheServicesSession(volume.MutexName()).c_str()));
    ASSERT_TRUE(mutex.valid());
    const vtflt::UniqueHandle ours(OpenMutexW(SYNCHRONIZE, FALSE, volume.MutexName().c_str()));
    ASSERT_FALSE(ours.valid()) << "the tests run in the services' session themselves";
    ExpectBusy();
    ReleaseMutex(mutex.get());
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"clean", L"Nightly", L"--yes"}).exitCode);
}

TEST_F(VtFltCtlLock, AMutexMadeByAnotherAccountIsWaitedForAllTheSame)
{
    // Whoever may not have all rights to it may still wait for it.
    const vtflt::UniqueHandle mutex(CreateMutexW(nullptr, FALSE, volume.MutexName().c_str()));
    ASSERT_TRUE(mutex.valid());
    const std::wstring denied = L"fail|CreateMutexW|" + volume.MutexName() + L"|1|1|5";
    const std::wstring held = L";return|WaitForSingleObject|" + volume.MutexName() + L"|1|1|0|258";
    const std::vector<std::wstring> command = {L"bitmap", L"info", L"--volume", L"E:", L"--app", L"Nightly"};
    const Result info = RunWith(denied, command);
    EXPECT_EQ(EXIT_OK, info.exitCode) << info.err;
    const Result busy = RunWith(denied + held, command);
    EXPECT_EQ(EXIT_BUSY, busy.exitCode) << busy.err;
    // One that may not even be waited for.
    const Result refused = RunWith(denied + L";fail|OpenMutexW|" + volume.MutexName() + L"|1|1|5", command);
    EXPECT_EQ(EXIT_UNREADABLE, refused.exitCode) << refused.err;
    EXPECT_NE(std::string::npos, refused.err.find("5)")) << refused.err;
}

TEST_F(VtFltCtlLock, AMutexThatCannotBeMadeIsNotTakenForABackup)
{
    // Something else has the name.
    const vtflt::UniqueHandle event(CreateEventW(nullptr, TRUE, TRUE, volume.MutexName().c_str()));
    ASSERT_TRUE(event.valid());
    const std::string clean = ExpectRefusal({L"apps", L"clean", L"Nightly", L"--yes"}, EXIT_UNREADABLE);
    EXPECT_NE(std::string::npos, clean.find("cannot lock the bitmap files")) << clean;
    EXPECT_EQ(std::string::npos, clean.find("a backup works")) << clean;
    ExpectRefusal({L"bitmap", L"info", L"--volume", L"E:", L"--app", L"Nightly"}, EXIT_UNREADABLE);
}

TEST_F(VtFltCtlLock, ABusyVolumeIsWaitedForOnce)
{
    // The first wait ends in vain, and any other would not: after the first file no other of the volume is tried.
    const std::wstring once = L"return|WaitForSingleObject|" + volume.MutexName() + L"|1|1|0|258";
    const Result status = RunWith(once, {L"status", L"--json"});
    EXPECT_EQ(EXIT_UNKNOWN, status.exitCode) << status.err;
    const json answer = json::parse(status.out, nullptr, false);
    ASSERT_TRUE(answer.is_object()) << status.err;
    const json& holding = answer["volumes"][0]["applications"][0];
    EXPECT_EQ("unreadable", holding["base"]);
    EXPECT_EQ("unreadable", holding["child"]);
    // Another command looks anew.
    EXPECT_EQ("sound", RunJson({L"status"}, EXIT_OK)["volumes"][0]["applications"][0]["base"]);
}

TEST_F(VtFltCtlLock, AnotherVolumeThanTheBusyOneIsLookedAt)
{
    const vtfltsim::Volume other = machine.AddVolume(1 << 20, 4096, L"F:\\");
    ASSERT_EQ(EXIT_OK, Run({L"apps", L"unregister", L"Nightly", L"--yes"}).exitCode);
    Register(L"Nightly");
    const std::wstring once = L"return|WaitForSingleObject|" + volume.MutexName() + L"|1|1|0|258";
    const Result status = RunWith(once, {L"status", L"--json"});
    const json answer = json::parse(status.out, nullptr, false);
    ASSERT_TRUE(answer.is_object()) << status.err;
    std::string states;
    for (const json& one : answer["volumes"])
        states += one["applications"][0]["base"].get<std::string>() + " ";
    EXPECT_TRUE(states == "unreadable sound " || states == "sound unreadable ") << states;
}

TEST_F(VtFltCtlLock, NoFileIsKeptOpenBetweenTwoReads)
{
    // Not even one that lies outside a volume's folder: it may be a live file under a name that hides this.
    const std::wstring copy = machine.directory() + L"\\VelVolTrc_base_Copy.dat";
    WriteBytes(copy, ReadBytes(BitmapFile(L"base", L"Nightly")));
    for (const std::wstring& path : {copy, volume.Root() + L"VelVolTrc\\VelVolTrc_base_Nightly.dat"}) {
        vttest::Pause pause(L"VtFltCtlLock");
        // The file was opened, looked at and read; the next read is to come.
        vttest::ChildProcess child(L"vtfltctl",
                                   {L"bitmap", L"info", path, L"--json", L"--simulate", machine.directory()},
                                   pause.Before(L"CreateFileW", L"VelVolTrc_base_", 4));
        ASSERT_TRUE(pause.AwaitReached(child)) << Utf8(path);
        const std::wstring real = path == copy ? copy : BitmapFile(L"base", L"Nightly");
        vtflt::UniqueHandle alone(CreateFileW(real.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                              FILE_ATTRIBUTE_NORMAL, nullptr));
        EXPECT_TRUE(alone.valid()) << Utf8(path) << " " << GetLastError();
        alone.reset();
        pause.Go();
        EXPECT_EQ(EXIT_OK, child.Join()) << Utf8(path);
    }
}

TEST_F(VtFltCtlLock, AFileThatIsRewrittenBetweenTwoReadsIsNotMixed)
{
    const std::wstring copy = machine.directory() + L"\\VelVolTrc_base_Copy.dat";
    std::vector<std::uint8_t> bytes = ReadBytes(BitmapFile(L"base", L"Nightly"));
    WriteBytes(copy, bytes);
    vttest::Pause pause(L"VtFltCtlLock");
    vttest::ChildProcess child(L"vtfltctl", {L"bitmap", L"info", copy, L"--simulate", machine.directory()},
                               pause.Before(L"CreateFileW", L"VelVolTrc_base_", 4));
    ASSERT_TRUE(pause.AwaitReached(child));
    bytes.push_back(0);
    WriteBytes(copy, bytes);
    pause.Go();
    EXPECT_EQ(EXIT_UNREADABLE, child.Join());
}

TEST_F(VtFltCtlLock, ANumberThatAnotherProcessHadNamesNoMachine)
{
    vttest::ChildProcess child(L"simulated_folder", {});
    EXPECT_EQ(0u, child.Join());
}

} // namespace
} // namespace vtfltctl_test
