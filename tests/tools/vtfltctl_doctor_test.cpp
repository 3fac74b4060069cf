// status and doctor, on a healthy machine and on one that is broken in each way that doctor knows.
#include "tools/vtfltctl_test.h"

#include <algorithm>

namespace vtfltctl_test {
namespace {

using nlohmann::json;
using vtlog_test::Result;
using vtlog_test::Utf8;

constexpr wchar_t DRIVER_KEY[] = L"SOFTWARE\\Veltrix\\Shared\\CBTDriver";
constexpr wchar_t DRIVER_LIST[] = L"DeviceListForReSync";
constexpr wchar_t VERIFY[] = L"DeviceListForReSyncNightly.Last";
constexpr wchar_t PENDING[] = L"DeviceListForReSyncNightly";
constexpr wchar_t GONE[] = L"{11111111-2222-3333-4444-555555555555}";

class VtFltCtlDoctor : public VtFltCtlTest {
protected:
    VtFltCtlDoctor() { Register(L"Nightly"); }

    // Runs doctor, as text and as JSON. The case fails unless there is just this finding (or the named number of it)
    // beside the ones that are allowed, and both outputs tell it. The finding is given back.
    json Find(const std::string& check, DWORD exitCode, const std::vector<std::string>& beside = {},
              std::size_t times = 1) const
    {
        const std::string before = Fingerprint();
        const json answer = RunJson({L"doctor"}, exitCode);
        const Result text = Run({L"doctor"});
        EXPECT_EQ(exitCode, text.exitCode);
        EXPECT_TRUE(before == Fingerprint()) << "doctor changed something";
        json found;
        std::size_t count = 0;
        for (const json& finding : answer.value("findings", json::array())) {
            const std::string name = finding["check"];
            EXPECT_FALSE(finding["text"].get<std::string>().empty());
            EXPECT_FALSE(finding["consequence"].get<std::string>().empty());
            EXPECT_NE(std::string::npos, text.out.find(name + ": " + finding["text"].get<std::string>())) << text.out;
            if (finding.contains("mend")) {
                EXPECT_NE(std::string::npos, text.out.find("mend: " + finding["mend"].get<std::string>())) << text.out;
            }
            if (name == check) {
                found = finding;
                ++count;
            } else {
                EXPECT_NE(beside.end(), std::find(beside.begin(), beside.end(), name)) << finding.dump(2);
            }
        }
        EXPECT_EQ(times, count) << answer.dump(2);
        // status sees the same.
        const json status = RunJson({L"status"}, exitCode);
        EXPECT_EQ(exitCode == EXIT_OK, status.value("healthy", false));
        EXPECT_EQ(answer["findings"].size(), status.value("findings", std::size_t{0}));
        return found.is_null() ? json::object() : found;
    }

    // Runs the commands that a finding names.
    void Mend(const json& finding) const
    {
        std::string commands = finding.value("mend", "");
        ASSERT_FALSE(commands.empty());
        while (!commands.empty()) {
            const std::size_t end = commands.find(" && ");
            const std::string one = commands.substr(0, end);
            commands = end == std::string::npos ? "" : commands.substr(end + 4);
            const std::string program = "vtfltctl ";
            ASSERT_EQ(0u, one.find(program)) << one;
            const Result result = Run(Arguments(one.substr(program.size())));
            EXPECT_EQ(EXIT_OK, result.exitCode) << one << ": " << result.err;
        }
    }
    void ExpectHealthy() const
    {
        const Result result = Run({L"doctor"});
        EXPECT_EQ(EXIT_OK, result.exitCode) << result.out;
        EXPECT_EQ("Nothing was found: driver, registry, bitmap files and volumes agree.\n", result.out);
    }
    void StoreIds(const std::vector<std::wstring>& ids) { StoreList(L"RegisteredAppIDs", ids, IDS_KEY); }
    // Changes a bitmap file's bytes.
    template <class Change>
    void Spoil(const wchar_t* which, Change change) const
    {
        std::vector<std::uint8_t> bytes = ReadBytes(BitmapFile(which, L"Nightly"));
        change(bytes);
        WriteBytes(BitmapFile(which, L"Nightly"), bytes);
    }

private:
    // As a shell parts them: blanks, and quotes around what holds blanks.
    static std::vector<std::wstring> Arguments(const std::string& line)
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
};

TEST_F(VtFltCtlDoctor, AHealthyMachineHasNoFindings)
{
    ExpectHealthy();
    EXPECT_EQ(json::array(), RunJson({L"doctor"}, EXIT_OK)["findings"]);
}

TEST_F(VtFltCtlDoctor, StatusShowsAHealthyMachineOnOneScreen)
{
    const Result result = Run({L"status"});
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ("Driver        works (present generation; filters volsnap, VTFlt; service present)\n"
              "Snapshots     not tracked, 0 requests\n"
              "Applications  Nightly\n"
              "\nVolume " +
                  Utf8(volume.guid) +
                  " E:\\  1.0 MiB, blocks of 4.0 KiB, monitored\n"
                  "  Nightly: base sound, child sound; 0 blocks changed, 0 B owed\n"
                  "\nChange tracking is healthy.\n",
              result.out);
    const json status = RunJson({L"status"}, EXIT_OK);
    EXPECT_TRUE(status["driver"]["works"].get<bool>());
    EXPECT_EQ(json::array({"volsnap", "VTFlt"}), status["driver"]["filters"]);
    ASSERT_EQ(1u, status["volumes"].size());
    EXPECT_EQ(1u << 20, status["volumes"][0]["bytes"]);
    EXPECT_EQ(4096, status["volumes"][0]["blockSize"]);
    EXPECT_EQ(0, status["volumes"][0]["applications"][0]["changedBlocks"]);
    EXPECT_FALSE(status["volumes"][0]["applications"][0]["mustVerify"].get<bool>());
}

TEST_F(VtFltCtlDoctor, StatusCountsWhatIsOwed)
{
    // Blocks 0 and 9 in the base, 9 and 255 in the child; the buffer's header takes the first 16 bitmap bytes.
    Spoil(L"base", [](auto& bytes) { bytes[84 + 16] = 0x80, bytes[84 + 17] = 0x40; });
    Spoil(L"child", [](auto& bytes) { bytes[84 + 17] = 0x40, bytes[84 + 16 + 31] = 0x01; });
    const json application = RunJson({L"status"}, EXIT_OK)["volumes"][0]["applications"][0];
    EXPECT_EQ(3, application["changedBlocks"]);
    EXPECT_EQ(3 * 4096, application["owedBytes"]);
    EXPECT_NE(std::string::npos, Run({L"status"}).out.find("3 blocks changed, 12.0 KiB owed"));
}

TEST_F(VtFltCtlDoctor, StatusOfAMachineWithoutAnything)
{
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"unregister", L"Nightly", L"--yes"}).exitCode);
    VTFltSimRemoveVolume(machine.handle(), volume.guid.c_str());
    const json status = RunJson({L"status"}, EXIT_OK);
    EXPECT_EQ(json::array(), status["volumes"]);
    EXPECT_EQ(json::array(), status["applications"]);
    EXPECT_NE(std::string::npos, Run({L"status"}).out.find("none registered"));
}

TEST_F(VtFltCtlDoctor, StatusSaysWhatMustVerify)
{
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"add", L"Nightly", L"E:"}).exitCode);
    const Result result = Run({L"status"});
    EXPECT_EQ(EXIT_VERIFY_REQUIRED, result.exitCode);
    EXPECT_NE(std::string::npos, result.out.find("must verify")) << result.out;
    EXPECT_NE(std::string::npos, result.out.find("Verify list of Nightly: " + Utf8(volume.guid))) << result.out;
    EXPECT_NE(std::string::npos, result.out.find("not healthy: 1 finding (verify-required)")) << result.out;
    EXPECT_TRUE(RunJson({L"status"}, EXIT_VERIFY_REQUIRED)["volumes"][0]["applications"][0]["mustVerify"].get<bool>());
}

// ---- The driver

TEST_F(VtFltCtlDoctor, ADriverThatIsAwayIsReinstalledOnlyWhenAsked)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    const json finding = Find("driver-down", EXIT_DRIVER_DOWN, {"geometry-unknown"});
    WCHAR command[512] = {};
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_MORE_ITEMS), VTFltSimGetUtilityCommand(machine.handle(), 0, command, 512));
    ExpectRefusal({L"doctor", L"--reinstall"}, EXIT_REFUSED);
    EXPECT_EQ("vtfltctl doctor --reinstall --yes", finding["mend"]);
    // The driver came back, and says that it was away.
    EXPECT_EQ(EXIT_VERIFY_REQUIRED, Run({L"doctor", L"--reinstall", L"--yes"}).exitCode);
    EXPECT_EQ(0u, VTFltSimGetUtilityCommand(machine.handle(), 1, command, 512));
    Find("lost-tracking", EXIT_VERIFY_REQUIRED);
}

TEST_F(VtFltCtlDoctor, AWrongFilterOrderTakesTheDriverDown)
{
    machine.SetFilters({L"VTFlt", L"volsnap"});
    EXPECT_NE(std::string::npos,
              Find("driver-down", EXIT_DRIVER_DOWN)["text"].get<std::string>().find("before volsnap"));
    EXPECT_EQ("before-volsnap", RunJson({L"status"}, EXIT_DRIVER_DOWN)["driver"]["filterOrder"]);
    machine.SetFilters({L"volsnap"});
    EXPECT_NE(std::string::npos, Find("driver-down", EXIT_DRIVER_DOWN)["text"].get<std::string>().find("not among"));
    VTFltSimSetUpperFilters(machine.handle(), nullptr, nullptr);
    EXPECT_NE(std::string::npos, Find("driver-down", EXIT_DRIVER_DOWN)["text"].get<std::string>().find("no list"));
    machine.SetFilters({L"VTFlt"});
    ExpectHealthy();
}

TEST_F(VtFltCtlDoctor, AServiceThatIsAwayLeavesNothingToReinstall)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    EXPECT_FALSE(Find("service-absent", EXIT_DRIVER_DOWN, {"driver-down", "geometry-unknown"}).contains("mend"));
    EXPECT_EQ("absent", RunJson({L"status"}, EXIT_DRIVER_DOWN)["driver"]["service"]);
}

TEST_F(VtFltCtlDoctor, AForbiddenReinstallIsNamed)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    StoreNumber(L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTBackupDll", L"VTFltAutoInstall", 0);
    Find("reinstall-forbidden", EXIT_DRIVER_DOWN, {"driver-down", "geometry-unknown"});
}

TEST_F(VtFltCtlDoctor, AMissingInstallLocationIsNamed)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    StoreNumber(DRIVER_KEY, L"InstallLocation", 1);
    Find("install-location", EXIT_DRIVER_DOWN, {"driver-down", "geometry-unknown"});
}

TEST_F(VtFltCtlDoctor, AnOlderDriverWorks)
{
    machine.SetDriver(VTFLTSIM_DRIVER_OLDER);
    Find("driver-older", EXIT_OK);
    EXPECT_EQ("older", RunJson({L"status"}, EXIT_OK)["driver"]["generation"]);
}

// ---- The switch

TEST_F(VtFltCtlDoctor, ACountThatIsNoNumberIsDamage)
{
    machine.WriteValue(COUNT_KEY, L"SnapshotMonitorCount", REG_SZ, {'1', 0, 0, 0});
    Find("monitor-count", EXIT_DAMAGED);
}

TEST_F(VtFltCtlDoctor, ACountBelowZeroIsDamage)
{
    StoreNumber(COUNT_KEY, L"SnapshotMonitorCount", 0xFFFFFFFF);
    Mend(Find("monitor-count", EXIT_DAMAGED));
    EXPECT_EQ(0, RunJson({L"monitor", L"count"}, EXIT_OK)["count"]);
}

TEST_F(VtFltCtlDoctor, RequestsWithoutTheFilterAreDamageThatASwitchMends)
{
    StoreNumber(COUNT_KEY, L"SnapshotMonitorCount", 2);
    Mend(Find("monitor-filter", EXIT_DAMAGED));
    EXPECT_EQ(2, RunJson({L"monitor", L"count"}, EXIT_OK)["count"]);
    ExpectHealthy();
}

TEST_F(VtFltCtlDoctor, AFilterThatNobodyAskedForIsANote)
{
    machine.SetFilters({L"VTFlt"},
                       L"System\\CurrentControlSet\\Control\\Class\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}");
    Mend(Find("monitor-filter", EXIT_OK));
    ExpectHealthy();
}

// ---- The registered applications

TEST_F(VtFltCtlDoctor, AListOfApplicationsOfAnotherTypeIsDamage)
{
    StoreList(L"RegisteredAppIDs", {L"Nightly"}, IDS_KEY, REG_SZ);
    Find("applications-unreadable", EXIT_DAMAGED);
}

TEST_F(VtFltCtlDoctor, AnApplicationThatIsRegisteredTwiceIsDamage)
{
    StoreIds({L"Nightly", L"Nightly"});
    Find("id-twice", EXIT_DAMAGED);
}

TEST_F(VtFltCtlDoctor, IdsThatDifferOnlyInCaseShareFiles)
{
    StoreIds({L"Nightly", L"NIGHTLY"});
    Find("id-shared-files", EXIT_DAMAGED);
}

TEST_F(VtFltCtlDoctor, AnIdThatHidesInAnothersTailIsDamage)
{
    Register(L"Other");
    StoreIds({L"MyNightly", L"Nightly"});
    const json finding = Find("id-in-tail", EXIT_DAMAGED, {"files-missing", "list-orphaned", "file-orphaned"});
    EXPECT_NE(std::string::npos, finding["consequence"].get<std::string>().find("cuts"));
    EXPECT_EQ("vtfltctl apps unregister MyNightly --yes", finding["mend"]);
    Mend(finding);
    EXPECT_EQ(std::vector<std::wstring>{L"Nightly"}, StoredList(L"RegisteredAppIDs", IDS_KEY));
    StoreIds({L"Nightly", L"MyNightly"});
    EXPECT_NE(std::string::npos,
              Find("id-in-tail", EXIT_DAMAGED, {"files-missing", "verify-listed", "file-orphaned"})["consequence"]
                  .get<std::string>()
                  .find("cannot be registered again"));
}

TEST_F(VtFltCtlDoctor, AnIdWhoseListsAreAnothersIsDamage)
{
    StoreIds({L"Nightly", L"Nightly.Last"});
    const json finding = Find("id-unsuitable", EXIT_DAMAGED, {"files-missing"});
    EXPECT_EQ("Nightly.Last", finding["application"]);
    StoreIds({L"Nightly", L"A*B"});
    Find("id-unsuitable", EXIT_DAMAGED, {"files-missing", "file-unreadable"});
}

// ---- The lists

TEST_F(VtFltCtlDoctor, AListThatCannotBeReadIsRebuilt)
{
    StoreList(VERIFY, {volume.guid}, LISTS_KEY, REG_SZ);
    Mend(Find("list-damaged", EXIT_DAMAGED));
    Find("verify-listed", EXIT_VERIFY_REQUIRED);
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"remove", L"Nightly", L"E:", L"--yes"}).exitCode);
    machine.WriteValue(LISTS_KEY, DRIVER_LIST, REG_MULTI_SZ, {'x', 0, 'y'});
    Mend(Find("list-damaged", EXIT_DAMAGED));
    Find("verify-listed", EXIT_VERIFY_REQUIRED);
}

TEST_F(VtFltCtlDoctor, AnEntryThatIsNoVolumeIsDamage)
{
    StoreList(VERIFY, {L"rubbish"});
    Mend(Find("list-entry-odd", EXIT_DAMAGED));
    ExpectHealthy();
}

TEST_F(VtFltCtlDoctor, AVolumeThatIsGoneIsANote)
{
    StoreList(VERIFY, {GONE});
    const json finding = Find("list-volume-gone", EXIT_OK);
    EXPECT_EQ(Utf8(GONE), finding["volume"]);
    Mend(finding);
    ExpectHealthy();
    StoreList(PENDING, {GONE});
    Mend(Find("list-volume-gone", EXIT_OK));
    ExpectHealthy();
}

TEST_F(VtFltCtlDoctor, AnEntryThatHidesInALongerOneIsDamage)
{
    StoreList(VERIFY, {L"Volume" + volume.guid, volume.guid});
    Mend(Find("list-entry-hidden", EXIT_DAMAGED, {"list-entry-odd", "verify-listed"}));
    Find("verify-listed", EXIT_VERIFY_REQUIRED);
}

TEST_F(VtFltCtlDoctor, AVolumeThatLostTrackingMustVerify)
{
    VTFltSimLoseTracking(machine.handle(), volume.guid.c_str());
    Mend(Find("lost-tracking", EXIT_VERIFY_REQUIRED));
    Find("verify-listed", EXIT_VERIFY_REQUIRED);
}

TEST_F(VtFltCtlDoctor, AVolumeThatIsPendingMustVerify)
{
    StoreList(PENDING, {volume.guid});
    Mend(Find("list-pending", EXIT_VERIFY_REQUIRED));
    Find("verify-listed", EXIT_VERIFY_REQUIRED);
}

TEST_F(VtFltCtlDoctor, AListThatBelongsToNobodyIsANote)
{
    StoreList(L"DeviceListForReSyncFormer.Last", {volume.guid});
    Find("list-orphaned", EXIT_OK);
}

// ---- Volumes and bitmap files

TEST_F(VtFltCtlDoctor, AVolumeWalkThatBreaksOffIsUnknown)
{
    VTFltSimSetEnumerationFault(machine.handle(), 2, ERROR_NOT_READY);
    Find("volumes-unknown", EXIT_UNKNOWN);
}

TEST_F(VtFltCtlDoctor, DumpsThatFillTheVolumesAreANote)
{
    StoreNumber(DRIVER_KEY, L"DumpBitmap", 1);
    Find("dumps-on", EXIT_OK);
}

TEST_F(VtFltCtlDoctor, AVolumeThatIsNotTrackedMustVerify)
{
    EXPECT_EQ(EXIT_OK, Run({L"stop", L"E:", L"--yes"}).exitCode);
    Find("not-monitored", EXIT_VERIFY_REQUIRED, {"files-missing"});
}

TEST_F(VtFltCtlDoctor, AVolumeThatDoesNotTellItsBlockSizeIsUnknown)
{
    machine.FailRequest(0xB0000006, ERROR_IO_DEVICE, volume.guid.c_str(), 1, 0);
    Find("geometry-unknown", EXIT_UNKNOWN);
}

TEST_F(VtFltCtlDoctor, AnApplicationWithoutFilesMustVerify)
{
    DeleteFileW(BitmapFile(L"child", L"Nightly").c_str());
    Find("files-missing", EXIT_VERIFY_REQUIRED);
    DeleteFileW(BitmapFile(L"base", L"Nightly").c_str());
    const json finding = Find("files-missing", EXIT_VERIFY_REQUIRED);
    EXPECT_EQ("Nightly", finding["application"]);
    EXPECT_EQ(Utf8(volume.guid), finding["volume"]);
    EXPECT_EQ("missing", RunJson({L"status"}, EXIT_VERIFY_REQUIRED)["volumes"][0]["applications"][0]["base"]);
}

TEST_F(VtFltCtlDoctor, AFileThatIsCutShortBlocksEveryFetchUntilItIsGone)
{
    Register(L"Weekly");
    Spoil(L"child", [](auto& bytes) { bytes.resize(bytes.size() - 100); });
    const json finding = Find("file-cut-short", EXIT_DAMAGED);
    EXPECT_NE(std::string::npos, finding["consequence"].get<std::string>().find("every application"));
    EXPECT_EQ("blocks-all", RunJson({L"status"}, EXIT_DAMAGED)["volumes"][0]["applications"][0]["child"]);
    Mend(finding);
    Find("files-missing", EXIT_VERIFY_REQUIRED, {"verify-listed"});
}

TEST_F(VtFltCtlDoctor, AFileWithoutItsSignatureOrTrailerIsDamaged)
{
    Spoil(L"base", [](auto& bytes) { bytes[0] = 'X'; });
    const json finding = Find("file-damaged", EXIT_DAMAGED);
    EXPECT_NE(std::string::npos, finding["text"].get<std::string>().find("VelVolTrc_base_Nightly.dat"));
    Spoil(L"base", [](auto& bytes) { bytes[0] = 'S', bytes.back() = 0; });
    Find("file-damaged", EXIT_DAMAGED);
    Spoil(L"base", [](auto& bytes) { bytes.resize(20); });
    Find("file-damaged", EXIT_DAMAGED);
    Spoil(L"base", [](auto& bytes) { bytes.clear(); });
    Mend(Find("file-damaged", EXIT_DAMAGED));
    Find("files-missing", EXIT_VERIFY_REQUIRED, {"verify-listed"});
}

TEST_F(VtFltCtlDoctor, AFileThatIsHeldByAnotherProgramIsUnknown)
{
    const vtflt::UniqueHandle held(CreateFileW(BitmapFile(L"base", L"Nightly").c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                                               nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(held.valid());
    const json answer = RunJson({L"doctor"}, EXIT_UNKNOWN);
    ASSERT_EQ(1u, answer["findings"].size());
    EXPECT_EQ("file-unreadable", answer["findings"][0]["check"]);
    EXPECT_EQ("unreadable", RunJson({L"status"}, EXIT_UNKNOWN)["volumes"][0]["applications"][0]["base"]);
}

TEST_F(VtFltCtlDoctor, AnotherBlockSizeThanTheDriversIsDamage)
{
    VTFltSimSetBlockSize(machine.handle(), volume.guid.c_str(), 8192);
    const json finding = Find("block-size-differs", EXIT_DAMAGED, {"lost-tracking", "size-differs"}, 2);
    Mend(finding);
    Find("lost-tracking", EXIT_VERIFY_REQUIRED, {"files-missing", "verify-listed"});
}

TEST_F(VtFltCtlDoctor, ASizeThatNoLongerFitsTheVolumeIsANote)
{
    VTFltSimResizeVolume(machine.handle(), volume.guid.c_str(), 64 << 20);
    EXPECT_NE(std::string::npos, Find("size-differs", EXIT_OK, {}, 2)["consequence"].get<std::string>().find("longer"));
}

TEST_F(VtFltCtlDoctor, AFileThatBelongsToNobodyIsANote)
{
    CopyFileW(BitmapFile(L"base", L"Nightly").c_str(), BitmapFile(L"base", L"Former App").c_str(), TRUE);
    CopyFileW(BitmapFile(L"base", L"Nightly").c_str(), BitmapFile(L"child", L"Former App").c_str(), TRUE);
    const json finding = Find("file-orphaned", EXIT_OK);
    EXPECT_EQ("Former App", finding["application"]);
    Mend(finding);
    ExpectHealthy();
}

TEST_F(VtFltCtlDoctor, AFileThatTheLibraryWouldHaveWrittenOtherwiseIsANote)
{
    Spoil(L"base", [](auto& bytes) { bytes[20] = 1; }); // reserved
    Find("file-doubtful", EXIT_OK);
}

TEST_F(VtFltCtlDoctor, TheWorstFindingDecidesTheExitCode)
{
    Spoil(L"base", [](auto& bytes) { bytes[0] = 'X'; });
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    Find("file-damaged", EXIT_DAMAGED, {"driver-down", "geometry-unknown"});
}

} // namespace
} // namespace vtfltctl_test
