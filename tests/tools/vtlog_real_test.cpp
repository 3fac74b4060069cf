// vtlog show on files that the real library wrote: a backup program in a folder of its own loads it.
#include "tools/vtlog_test.h"

#include "vtfltsim/VTFltSim.hpp"

#include <algorithm>

namespace vtlog_test {
namespace {

constexpr LONGLONG FULL = 104857600;

class VtLogReal : public VtLogTest {
protected:
    VtLogReal() : log(Path(L"Logs\\VTFltMgr.dll.Log"))
    {
        const std::wstring programs = folder.substr(0, folder.rfind(L'\\') + 1);
        for (const wchar_t* name : {L"vtbackup.exe", L"VTFltMgr.dll", L"VTFltSim.dll"})
            EXPECT_TRUE(CopyFileW((programs + name).c_str(), Path(name).c_str(), TRUE)) << Utf8(name);
        volume = machine.AddVolume(1024 * 1024, 4096, L"E:\\");
    }
    // Runs vtbackup; calls is what the simulator shall do to it.
    DWORD Backup(const wchar_t* command, std::vector<std::wstring> more = {}, const std::wstring& calls = {}) const
    {
        more.insert(more.begin(),
                    {command, L"--app", L"App", L"--repo", Path(L"repository"), L"--simulate", machine.directory()});
        const std::wstring program = folder.substr(folder.rfind(L'\\') + 1) + L"\\vtbackup.exe";
        return Process(more, {L"VTFLTSIM_CALLS=" + calls}, program).Finish().exitCode;
    }
    [[nodiscard]] std::vector<nlohmann::json> Entries() const { return Run({L"show", L"--json", log}).Json(); }
    static std::ptrdiff_t Count(const std::vector<nlohmann::json>& entries, const char* kind)
    {
        return std::count_if(entries.begin(), entries.end(),
                             [kind](const nlohmann::json& entry) { return entry.at("kind") == kind; });
    }
    static bool AnyMessage(const std::vector<nlohmann::json>& entries, const std::string& message)
    {
        return std::any_of(entries.begin(), entries.end(), [&](const nlohmann::json& entry) {
            return entry.at("message") == message && entry.value("cut", true) == false;
        });
    }
    void MakeLog(std::string_view bytes, LONGLONG size) const
    {
        CreateDirectoryW(Path(L"Logs").c_str(), nullptr);
        WriteBytes(L"Logs\\VTFltMgr.dll.Log", bytes);
        const vtflt::UniqueHandle file(
            CreateFileW(log.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        LARGE_INTEGER end = {};
        end.QuadPart = size;
        ASSERT_TRUE(SetFilePointerEx(file.get(), end, nullptr, FILE_BEGIN) && SetEndOfFile(file.get()));
    }

    const std::wstring log;
    const std::string registered = "RegisterApplication: SUCCESS::Application registered";
    vtfltsim::SimMachine machine;
    vtfltsim::Volume volume;
};

TEST_F(VtLogReal, AFreshLogIsItsBlockAndWholeRecords)
{
    ASSERT_EQ(EXIT_OK, Backup(L"init"));
    const auto entries = Entries();
    EXPECT_EQ(1, Count(entries, "columns"));
    EXPECT_EQ(6, Count(entries, "summary"));
    EXPECT_EQ(0, Count(entries, "text"));
    EXPECT_TRUE(AnyMessage(entries, registered));
    for (const nlohmann::json& entry : entries) {
        if (entry.at("kind") != "record")
            continue;
        EXPECT_EQ(false, entry.at("cut"));
        EXPECT_EQ("vtbackup.exe", entry.at("program"));
        EXPECT_EQ("VTFltMgr.dll", entry.at("module"));
    }
}

TEST_F(VtLogReal, PlainGivesBackTheFileToTheCharacter)
{
    ASSERT_EQ(EXIT_OK, Backup(L"init"));
    std::wstring text;
    {
        const vtflt::UniqueHandle file(
            CreateFileW(log.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        text.resize(GetFileSize(file.get(), nullptr) / sizeof(wchar_t));
        DWORD got = 0;
        ASSERT_TRUE(
            ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)), &got, nullptr));
    }
    ASSERT_EQ(0xFEFF, text.front());
    text.erase(0, 1);
    text.erase(std::remove(text.begin(), text.end(), L'\r'), text.end());
    EXPECT_EQ(Utf8(text), Run({L"show", L"--plain", log}).out);
}

TEST_F(VtLogReal, ALogThatBeganWithoutTheMarkIsWrittenAndReadNarrow)
{
    MakeLog("begun by hand\r\n", 15);
    ASSERT_EQ(EXIT_OK, Backup(L"init"));
    const auto entries = Entries();
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ("begun by hand", entries.front().at("message"));
    EXPECT_EQ(1, Count(entries, "text"));
    EXPECT_TRUE(AnyMessage(entries, registered));
    EXPECT_EQ("vtbackup.exe", entries.back().value("program", ""));
    EXPECT_EQ("VTFltMgr.dll", entries.back().value("module", ""));
}

TEST_F(VtLogReal, TheRecordsBehindAFullLogAreReadFromItsSuccessor)
{
    MakeLog("\xFF\xFE", FULL);
    ASSERT_EQ(EXIT_OK, Backup(L"init"));
    // Of the full log, which is all zeros, nothing is printed.
    const Result result = Run({L"show", L"--json", L"--grep", L"SUCCESS::Application registered", log});
    const auto entries = result.Json();
    ASSERT_EQ(1u, entries.size());
    EXPECT_TRUE(AnyMessage(entries, registered));
    EXPECT_EQ(Utf8(Path(L"Logs\\VTFltMgr.dll.00000001.log")), entries.front().at("file"));
    EXPECT_NE(std::string::npos, result.err.find("that are no record left out")) << result.err;
}

// The driver loses track of the volume; a backup collects that, and is killed before it is done.
TEST_F(VtLogReal, ALossOfTrackingIsExplainedAndGoneAfterTheNextBackup)
{
    const std::vector<std::wstring> onVolume = {L"--volume", L"E:\\\\"};
    const auto why = [this] {
        const auto answers = Run({L"show", L"--json", L"--why", L"E:", L"--simulate", machine.directory(), log}).Json();
        return answers.size() == 1 ? answers.front() : nlohmann::json::object();
    };
    ASSERT_EQ(EXIT_OK, Backup(L"init"));
    ASSERT_EQ(EXIT_OK, Backup(L"backup", onVolume));
    EXPECT_EQ(false, why().at("verify"));
    ASSERT_EQ(0u, VTFltSimLoseTracking(machine.handle(), volume.guid.c_str()));
    EXPECT_EQ(true, why().at("verify"));
    EXPECT_TRUE(why().at("records").empty()); // nobody has collected it, so no record tells of it

    ASSERT_EQ(VTFLTSIM_KILLED, Backup(L"backup", onVolume, L"kill-before|DeviceIoControl|0xB0000015|1"));
    const auto answer = why();
    EXPECT_EQ(true, answer.at("verify"));
    EXPECT_EQ("tracking-lost", answer.at("cause"));
    ASSERT_EQ(3u, answer.at("records").size());
    EXPECT_EQ("ReplicateVerifyList: Enter ReplicateVerifyList ", answer.at("records")[0].at("message"));
    for (const std::size_t written : {1u, 2u})
        EXPECT_NE(std::string::npos,
                  answer.at("records")[written].at("message").get<std::string>().find(Utf8(volume.guid)));

    ASSERT_EQ(EXIT_OK, Backup(L"backup", onVolume));
    EXPECT_EQ(false, why().at("verify"));
}

} // namespace
} // namespace vtlog_test
