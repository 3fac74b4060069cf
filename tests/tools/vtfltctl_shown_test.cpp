// Names that would steer a terminal: text shows them without, JSON has them as they are.
#include "tools/vtfltctl_test.h"

#include <algorithm>

namespace vtfltctl_test {
namespace {

using nlohmann::json;
using vtlog_test::Result;
using vtlog_test::Utf8;

// Colour, a bell, an 8-bit control sequence, and the direction of writing turned round.
constexpr wchar_t STEERING[] = L"Ni\x1B[31mght\x07ly\x9B"
                               L"2J\x202Etxt";
constexpr char SHOWN[] = "Ni\xEF\xBF\xBD[31mght\xEF\xBF\xBDly\xEF\xBF\xBD"
                         "2J\xEF\xBF\xBDtxt";
// The same without what cannot stand in a file name.
constexpr wchar_t STEERING_FILE[] = L"X\x9B"
                                    L"2J\x202Etxt";
constexpr char SHOWN_FILE[] = "X\xEF\xBF\xBD"
                              "2J\xEF\xBF\xBDtxt";

bool Steers(const std::string& text)
{
    const auto control = [](unsigned char c) { return (c < 0x20 && c != '\n') || c == 0x7F; };
    if (std::any_of(text.begin(), text.end(), control) || text.find("\xE2\x80\xAE") != std::string::npos)
        return true;
    for (std::size_t at = text.find('\xC2'); at != std::string::npos; at = text.find('\xC2', at + 1)) {
        if (at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) < 0xA0)
            return true;
    }
    return false;
}

class VtFltCtlShown : public VtFltCtlTest {
protected:
    // The one thing that may steer is the program's own colour.
    VtFltCtlShown() { SetEnvironmentVariableW(L"NO_COLOR", L"1"); }
    ~VtFltCtlShown() override { SetEnvironmentVariableW(L"NO_COLOR", nullptr); }

    // Runs a command whose text, on either stream, holds the name as it may be shown and nothing that steers.
    void ExpectShown(const std::vector<std::wstring>& arguments, const char* shown = SHOWN) const
    {
        const Result result = Run(arguments);
        const std::string text = result.out + result.err;
        EXPECT_NE(std::string::npos, text.find(shown)) << text;
        EXPECT_FALSE(Steers(text)) << json(text).dump(-1, ' ', true);
    }
};

TEST_F(VtFltCtlShown, AnIdThatSteersTheTerminalDoesNot)
{
    StoreList(L"RegisteredAppIDs", {STEERING}, IDS_KEY);
    for (const std::vector<std::wstring>& command :
         std::vector<std::vector<std::wstring>>{{L"apps", L"list"},
                                                {L"status"},
                                                {L"doctor"},
                                                {L"verify", L"list"},
                                                {L"verify", L"add", STEERING, L"E:"},
                                                {L"apps", L"unregister", STEERING},
                                                {L"bitmap", L"info", L"--volume", L"E:", L"--app", STEERING}})
        ExpectShown(command);
    EXPECT_EQ(Utf8(STEERING), RunJson({L"apps", L"list"}, EXIT_OK)["applications"][0]);
    EXPECT_EQ(Utf8(STEERING), RunJson({L"status"}, EXIT_DAMAGED)["applications"][0]["application"]);
    StoreList(L"RegisteredAppIDs", {STEERING_FILE}, IDS_KEY);
    ExpectShown({L"apps", L"register", std::wstring(L"My") + STEERING_FILE}, SHOWN_FILE);
}

TEST_F(VtFltCtlShown, AListEntryThatSteersTheTerminalDoesNot)
{
    Register(L"Nightly");
    StoreList(L"DeviceListForReSyncNightly.Last", {STEERING});
    ExpectShown({L"status"});
    ExpectShown({L"doctor"});
    ExpectShown({L"verify", L"list"});
    StoreList(std::wstring(L"DeviceListForReSync") + STEERING, {volume.guid});
    ExpectShown({L"doctor"});
    machine.WriteValue(L"System\\CurrentControlSet\\Control\\Class\\{71A27CDD-812A-11D0-BEC7-08002BE2092F}",
                       L"UpperFilters", REG_MULTI_SZ, [] {
                           const std::wstring list = vtfltsim::MultiString({L"volsnap", L"VTFlt", STEERING});
                           const auto* const bytes = reinterpret_cast<const std::uint8_t*>(list.data());
                           return std::vector<std::uint8_t>(bytes, bytes + list.size() * sizeof(wchar_t));
                       }());
    ExpectShown({L"status"});
}

TEST_F(VtFltCtlShown, AFileNameThatSteersTheTerminalDoesNot)
{
    Register(L"Nightly");
    const std::wstring left = BitmapFile(L"base", STEERING_FILE);
    const std::wstring name = left.substr(left.rfind(L'\\') + 1);
    WriteBytes(left, ReadBytes(BitmapFile(L"base", L"Nightly")));
    ExpectShown({L"doctor"}, SHOWN_FILE);
    const std::wstring path = volume.Root() + L"VelVolTrc\\" + name;
    ExpectShown({L"bitmap", L"info", path}, SHOWN_FILE);
    EXPECT_EQ(Utf8(path), json::parse(Run({L"bitmap", L"info", path, L"--json"}).out)["files"][0]["path"]);
    ExpectShown({L"bitmap", L"map", path, L"--ansi", L"--columns", L"32"}, SHOWN_FILE);
    ExpectShown({L"bitmap", L"info", path, L"--block-size", L"4K"}, SHOWN_FILE);
    WriteBytes(left, std::vector<std::uint8_t>(200));
    ExpectShown({L"bitmap", L"diff", path, path}, SHOWN_FILE);
    ExpectShown({L"bitmap", L"extents", path}, SHOWN_FILE);
    ExpectShown({L"apps", L"clean", STEERING_FILE, L"--yes"}, SHOWN_FILE);
    ExpectShown({L"bitmap", L"info", path}, SHOWN_FILE); // that is not there
}

TEST_F(VtFltCtlShown, ANameThatIsNothingIsShownAsWell)
{
    ExpectShown({L"stop", STEERING, L"--yes"});
    ExpectShown({L"stop", std::wstring(L"Q:") + STEERING, L"--yes"});
    ExpectShown({L"device", STEERING});
    ExpectShown({L"monitor", L"count", std::wstring(L"System\\") + STEERING});
}

} // namespace
} // namespace vtfltctl_test
