#include "tools/vtfltctl_mends.h"

#include <algorithm>
#include <cwctype>

namespace vtfltctl_test {
namespace {

using nlohmann::json;
using vtlog_test::Result;
using vtlog_test::Utf8;

constexpr std::size_t GUID_LENGTH = 36;

bool IsGuidAt(const std::wstring& text, std::size_t at)
{
    if (at + GUID_LENGTH > text.size())
        return false;
    for (std::size_t i = 0; i < GUID_LENGTH; ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[at + i] != L'-' : std::iswxdigit(text[at + i]) == 0)
            return false;
    }
    return true;
}

// In lower case, so that each counts once.
void AddGuidsIn(const std::vector<std::uint8_t>& bytes, std::set<std::wstring>& guids)
{
    std::wstring text;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
        text += static_cast<wchar_t>(std::towlower(static_cast<wint_t>(bytes[i] | bytes[i + 1] << 8)));
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (IsGuidAt(text, at))
            guids.insert(L"named " + text.substr(at, GUID_LENGTH));
    }
}

// As a shell parts them: blanks, and quotes around what holds blanks.
std::vector<std::wstring> Arguments(const std::string& line)
{
    std::vector<std::wstring> arguments(1);
    bool quoted = false;
    for (const char c : line) {
        if (c == '"')
            quoted = !quoted;
        else if (c == ' ' && !quoted)
            arguments.emplace_back();
        else
            arguments.back() += static_cast<wchar_t>(static_cast<unsigned char>(c));
    }
    return arguments;
}

std::vector<std::string> Commands(std::string line)
{
    std::vector<std::string> commands;
    for (std::size_t end = line.find(" && "); end != std::string::npos; end = line.find(" && ")) {
        commands.push_back(line.substr(0, end));
        line.erase(0, end + 4);
    }
    commands.push_back(line);
    return commands;
}

} // namespace

std::string VtFltCtlMendTest::WithoutMachine(std::string line) const
{
    const std::string option = " --simulate \"" + Utf8(machine.directory()) + "\"";
    const std::size_t commands = Commands(line).size();
    std::size_t options = 0;
    for (std::size_t at = line.find(option); at != std::string::npos; at = line.find(option)) {
        line.erase(at, option.size());
        ++options;
    }
    EXPECT_EQ(commands, options) << line;
    return line;
}

std::vector<std::string> VtFltCtlMendTest::PrintedMends() const
{
    const Result result = Run({L"doctor", L"--json"});
    std::vector<std::string> mends;
    const json answer = json::parse(result.out, nullptr, false);
    EXPECT_TRUE(answer.is_object()) << result.out << result.err;
    for (const json& finding : answer.value("findings", json::array())) {
        if (finding.contains("mend"))
            mends.push_back(finding["mend"]);
    }
    return mends;
}

VtFltCtlMendTest::Marks VtFltCtlMendTest::AllMarks() const
{
    Marks marks;
    for (const std::wstring& application : StoredList(L"RegisteredAppIDs", IDS_KEY)) {
        std::set<std::wstring>& volumes = marks[application];
        for (const std::wstring& list : {std::wstring(), application, application + L".Last"}) {
            AddGuidsIn(machine.ReadValue(LISTS_KEY, DRIVER_LIST + list), volumes);
            for (const std::wstring& entry : StoredList(DRIVER_LIST + list)) {
                VTFLTSIM_VOLUME_INFO info = {};
                info.size = sizeof(info);
                for (DWORD index = 0; VTFltSimEnumVolume(machine.handle(), index, &info) == 0; ++index) {
                    if ((std::wstring(L"\\\\?\\Volume") + info.guid + L"\\").find(entry) != std::wstring::npos)
                        volumes.insert(L"taken " + std::wstring(info.guid));
                }
            }
        }
    }
    return marks;
}

bool VtFltCtlMendTest::RunPrinted(const std::string& line) const
{
    const std::set<DWORD> harmless = {EXIT_OK, EXIT_REFUSED, EXIT_DAMAGED, EXIT_NOT_FOUND};
    for (const std::string& command : Commands(line)) {
        const std::string program = "vtfltctl ";
        EXPECT_EQ(0u, command.find(program)) << command;
        const Marks before = AllMarks();
        const Result result =
            vtlog_test::Process(Arguments(command.substr(program.size())), {}, L"vtfltctl.exe").Finish();
        EXPECT_TRUE(harmless.contains(result.exitCode)) << command << ": " << result.exitCode << " " << result.err;
        for (const auto& [application, after] : AllMarks()) {
            const auto old = before.find(application);
            if (old == before.end())
                continue;
            for (const std::wstring& mark : old->second)
                EXPECT_TRUE(after.contains(mark))
                    << Utf8(application) << " lost \"" << Utf8(mark) << "\" by " << command << "\nof " << line;
        }
        if (result.exitCode != EXIT_OK)
            return false;
    }
    return true;
}

void VtFltCtlMendTest::Mend(const json& finding) const
{
    const std::string commands = finding.value("mend", "");
    ASSERT_FALSE(commands.empty()) << finding.dump(2);
    EXPECT_TRUE(RunPrinted(commands)) << commands;
}

void VtFltCtlMendTest::RunEveryMendTwice() const
{
    const std::vector<std::string> mends = PrintedMends();
    std::set<std::string> different;
    for (const std::string& mend : mends)
        EXPECT_TRUE(different.insert(mend).second) << "printed twice: " << mend;
    for (int round = 0; round < 2; ++round) {
        for (const std::string& mend : mends)
            RunPrinted(mend);
    }
}

std::wstring VtFltCtlMendTest::OtherCase(std::wstring text)
{
    for (wchar_t& c : text)
        c = static_cast<wchar_t>(std::iswupper(c) ? std::towlower(c) : std::towupper(c));
    return text;
}

void VtFltCtlMendTest::StoreText(const std::wstring& value, const std::wstring& text, const wchar_t* key, DWORD type)
{
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    machine.WriteValue(key, value, type, std::vector<std::uint8_t>(bytes, bytes + text.size() * sizeof(wchar_t)));
}

} // namespace vtfltctl_test
