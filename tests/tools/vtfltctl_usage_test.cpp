// The command line of vtfltctl.
#include "tools/vtfltctl_test.h"

namespace vtfltctl_test {
namespace {

using vtlog_test::Process;
using vtlog_test::Result;

class VtFltCtlUsage : public VtFltCtlTest {};

Result RunPlainly(const std::vector<std::wstring>& arguments)
{
    return Process(arguments, {}, L"vtfltctl.exe").Finish();
}

TEST_F(VtFltCtlUsage, EveryCommandExplainsItself)
{
    const std::vector<std::vector<std::wstring>> commands = {
        {},
        {L"status"},
        {L"doctor"},
        {L"apps"},
        {L"apps", L"list"},
        {L"apps", L"register"},
        {L"apps", L"unregister"},
        {L"apps", L"clean"},
        {L"verify"},
        {L"verify", L"list"},
        {L"verify", L"add"},
        {L"verify", L"remove"},
        {L"verify", L"replicate"},
        {L"verify", L"rebuild"},
        {L"monitor"},
        {L"monitor", L"count"},
        {L"monitor", L"on"},
        {L"monitor", L"off"},
        {L"stop"},
        {L"device"},
    };
    for (std::vector<std::wstring> command : commands) {
        const bool group =
            command.empty() ||
            (command.size() == 1 && (command[0] == L"apps" || command[0] == L"verify" || command[0] == L"monitor"));
        const std::string name = command.empty() ? "vtfltctl" : vtlog_test::Utf8(command.back());
        command.emplace_back(L"--help");
        const Result result = RunPlainly(command);
        EXPECT_EQ(EXIT_OK, result.exitCode) << name;
        EXPECT_EQ("", result.err) << name;
        EXPECT_NE(std::string::npos, result.out.find("Exit codes:")) << name;
        if (!group) {
            EXPECT_NE(std::string::npos, result.out.find("--json")) << name;
            EXPECT_NE(std::string::npos, result.out.find("--simulate")) << name;
        }
    }
}

TEST_F(VtFltCtlUsage, AWrongCommandLineIsAUsageError)
{
    const std::vector<std::vector<std::wstring>> lines = {
        {},
        {L"apps"},
        {L"peel"},
        {L"apps", L"peel"},
        {L"apps", L"list", L"surplus"},
        {L"apps", L"register"},
        {L"verify", L"add"},
        {L"verify", L"remove", L"App"},
        {L"status", L"--yes"},
        {L"status", L"--simulate"},
        {L"device"},
    };
    for (const std::vector<std::wstring>& line : lines) {
        const Result result = RunPlainly(line);
        EXPECT_EQ(EXIT_USAGE, result.exitCode) << result.out << result.err;
        EXPECT_EQ("", result.out);
        EXPECT_EQ(0u, result.err.find("vtfltctl: ")) << result.err;
    }
}

TEST_F(VtFltCtlUsage, AWrongCommandLineIsToldAsJsonToo)
{
    EXPECT_NE("", RunJson({L"apps", L"peel"}, EXIT_USAGE).value("message", ""));
}

TEST_F(VtFltCtlUsage, AnEmptyFolderIsNotThisMachine)
{
    const std::vector<std::vector<std::wstring>> commands = {
        {L"status"},
        {L"doctor"},
        {L"apps", L"list"},
        {L"verify", L"list"},
        {L"monitor", L"count"},
        {L"device", L"\\Device\\Nothing"},
        {L"bitmap", L"info", L"C:\\nothing.dat"},
        {L"man"},
    };
    for (std::vector<std::wstring> command : commands) {
        command.insert(command.end(), {L"--simulate", L""});
        const Result result = RunPlainly(command);
        EXPECT_EQ(EXIT_USAGE, result.exitCode) << vtlog_test::Utf8(command[0]);
        EXPECT_EQ("", result.out);
        EXPECT_NE(std::string::npos, result.err.find("--simulate: may not be empty")) << result.err;
    }
}

TEST_F(VtFltCtlUsage, AnEmptyValueDoesNotWidenWhatACommandDoes)
{
    Register(L"Nightly");
    ASSERT_EQ(EXIT_OK, Run({L"monitor", L"on"}).exitCode);
    const std::vector<std::vector<std::wstring>> lines = {
        {L"apps", L"clean", L"Nightly", L"--volume", L"", L"--yes"},
        {L"monitor", L"off", L"", L"--yes"},
        {L"monitor", L"on", L""},
        {L"monitor", L"count", L""},
        {L"stop", L"", L"--all", L"--yes"},
        {L"verify", L"list", L""},
        {L"verify", L"add", L"Nightly", L"", L"--all"},
        {L"bitmap", L"info", L"--volume", L"E:", L"--app", L"Nightly", L"--which", L""},
        {L"bitmap", L"map", L"--volume", L"E:", L"--app", L"Nightly", L"--png", L"", L"--yes"},
        // Not the next word.
        {L"stop", L"--all", L"--yes="},
        {L"bitmap", L"map", L"--volume", L"E:", L"--app", L"Nightly", L"--png=", L"--yes"},
    };
    for (const std::vector<std::wstring>& line : lines)
        EXPECT_NE("", ExpectRefusal(line, EXIT_USAGE)) << vtlog_test::Utf8(line[0] + L" " + line[1]);
    // A value that ends like one without.
    EXPECT_NE(EXIT_USAGE, Run({L"apps", L"clean", L"Nightly", L"--volume=C:\\no\\such=", L"--yes"}).exitCode);
}

TEST_F(VtFltCtlUsage, AFolderWithoutAMachineIsNotFound)
{
    const Result result = RunPlainly({L"status", L"--simulate", L"C:\\no\\such\\machine"});
    EXPECT_EQ(EXIT_NOT_FOUND, result.exitCode);
    EXPECT_EQ("", result.out);
    EXPECT_NE(std::string::npos, result.err.find("holds no simulated machine")) << result.err;
}

TEST_F(VtFltCtlUsage, HalfACharacterPairIsRefused)
{
    EXPECT_NE(std::string::npos,
              ExpectRefusal({L"apps", L"register", L"App\xD834"}, EXIT_USAGE).find("no valid Unicode"));
}

} // namespace
} // namespace vtfltctl_test
