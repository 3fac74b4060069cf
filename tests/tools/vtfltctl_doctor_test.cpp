// status and doctor, on a healthy machine and on one that is broken in each way that doctor knows.
#include "tools/vtfltctl_mends.h"

#include <algorithm>

namespace vtfltctl_test {
namespace {

using nlohmann::json;
using vtlog_test::Result;
using vtlog_test::Utf8;

constexpr wchar_t DRIVER_KEY[] = L"SOFTWARE\\Veltrix\\Shared\\CBTDriver";

class VtFltCtlDoctor : public VtFltCtlMendTest {
protected:
    VtFltCtlDoctor() { Register(L"Nightly"); }

    // Runs doctor, as text and as JSON. The case fails unless there is just this finding (or the named number of it)
    // beside the ones that are allowed, and both outputs tell it. The first such is given back.
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
                if (++count == 1)
                    found = finding;
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

    // The same where a call to the system fails by a plan of the simulator: the only finding, and unknown.
    json FindUnknown(const std::string& check, const std::wstring& calls) const
    {
        const auto run = [&](const wchar_t* command) {
            return vtlog_test::Process({command, L"--json", L"--simulate", machine.directory()},
                                       {VTFLTSIM_CALLS_VARIABLE L"=" + calls}, L"vtfltctl.exe")
                .Finish();
        };
        const Result doctor = run(L"doctor");
        EXPECT_EQ(EXIT_UNKNOWN, doctor.exitCode) << doctor.out << doctor.err;
        const json findings = json::parse(doctor.out, nullptr, false).value("findings", json::array());
        EXPECT_EQ(1u, findings.size()) << doctor.out;
        const json finding = findings.empty() ? json::object() : findings[0];
        EXPECT_EQ(check, finding.value("check", ""));
        EXPECT_EQ("unknown", finding.value("severity", ""));
        const Result status = run(L"status");
        EXPECT_EQ(EXIT_UNKNOWN, status.exitCode) << status.out << status.err;
        EXPECT_FALSE(json::parse(status.out, nullptr, false).value("healthy", true)) << status.out;
        return finding;
    }
    void ExpectHealthy() const
    {
        const Result result = Run({L"doctor"});
        EXPECT_EQ(EXIT_OK, result.exitCode) << result.out;
        EXPECT_EQ("Nothing was found: driver, registry, bitmap files and volumes agree.\n", result.out);
    }
    // Changes a bitmap file's bytes.
    template <class Change>
    void Spoil(const wchar_t* which, Change change) const
    {
        std::vector<std::uint8_t> bytes = ReadBytes(BitmapFile(which, L"Nightly"));
        change(bytes);
        WriteBytes(BitmapFile(which, L"Nightly"), bytes);
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

TEST_F(VtFltCtlDoctor, StatusKnowsWhatTheNextBackupWillBeHanded)
{
    const auto mustVerify = [&](DWORD exitCode) {
        return RunJson({L"status"}, exitCode)["volumes"][0]["applications"][0]["mustVerify"].get<bool>();
    };
    StoreList(DRIVER_LIST, {volume.guid});
    EXPECT_TRUE(mustVerify(EXIT_VERIFY_REQUIRED));
    StoreList(DRIVER_LIST, {});
    EXPECT_FALSE(mustVerify(EXIT_OK));
    StoreList(PENDING, {GONE}, LISTS_KEY, REG_SZ);
    EXPECT_TRUE(mustVerify(EXIT_DAMAGED));
}

// ---- The driver

TEST_F(VtFltCtlDoctor, ADriverThatIsAwayIsReinstalledOnlyWhenAsked)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    const json finding = Find("driver-down", EXIT_DRIVER_DOWN, {"geometry-unknown"});
    WCHAR command[512] = {};
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_MORE_ITEMS), VTFltSimGetUtilityCommand(machine.handle(), 0, command, 512));
    ExpectRefusal({L"doctor", L"--reinstall"}, EXIT_REFUSED);
    EXPECT_EQ("vtfltctl doctor --reinstall --yes", WithoutMachine(finding["mend"]));
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
    EXPECT_EQ(EXIT_OK, Run({L"stop", L"E:", L"--yes"}).exitCode);
    Find("not-monitored", EXIT_VERIFY_REQUIRED, {"driver-older", "files-missing"});
}

// ---- The switch

TEST_F(VtFltCtlDoctor, ACountThatIsNoNumberIsDamage)
{
    machine.WriteValue(COUNT_KEY, L"SnapshotMonitorCount", REG_SZ, {'1', 0, 0, 0});
    // A command run late would set a sound count back.
    const json finding = Find("monitor-count", EXIT_DAMAGED);
    EXPECT_FALSE(finding.contains("mend"));
    EXPECT_NE(std::string::npos, finding["consequence"].get<std::string>().find("Set it by hand"));
}

TEST_F(VtFltCtlDoctor, ACountBelowZeroIsDamage)
{
    StoreNumber(COUNT_KEY, L"SnapshotMonitorCount", 0xFFFFFFFF);
    // Counted up to 0 it would say that nobody relies on it.
    EXPECT_FALSE(Find("monitor-count", EXIT_DAMAGED).contains("mend"));
}

TEST_F(VtFltCtlDoctor, RequestsWithoutTheFilterAreDamageThatASwitchMends)
{
    StoreNumber(COUNT_KEY, L"SnapshotMonitorCount", 2);
    const json finding = Find("monitor-filter", EXIT_DAMAGED);
    Mend(finding);
    ExpectHealthy();
    // Run again it ends nobody's tracking either.
    Mend(finding);
    const json count = RunJson({L"monitor", L"count"}, EXIT_OK);
    EXPECT_LE(2, count["count"].get<int>());
    EXPECT_TRUE(count["filterListed"].get<bool>());
}

TEST_F(VtFltCtlDoctor, AFilterThatNobodyAskedForIsANote)
{
    machine.SetFilters({L"VTFlt"},
                       L"System\\CurrentControlSet\\Control\\Class\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}");
    // Behind a request that was taken back twice an application relies on it with a count of 0.
    const json finding = Find("monitor-filter", EXIT_OK);
    EXPECT_FALSE(finding.contains("mend"));
    EXPECT_NE(std::string::npos, finding["consequence"].get<std::string>().find("relies on it all the same"));
}

// ---- The registered applications

TEST_F(VtFltCtlDoctor, AListOfApplicationsOfAnotherTypeIsDamage)
{
    StoreList(VERIFY, {volume.guid}); // no list is taken for one without an owner
    StoreList(L"RegisteredAppIDs", {L"Nightly"}, IDS_KEY, REG_SZ);
    const json finding = Find("applications-unreadable", EXIT_DAMAGED);
    EXPECT_FALSE(finding.contains("mend"));
    EXPECT_NE(std::string::npos, finding["consequence"].get<std::string>().find("\"vtfltctl verify add APP --all\""));
}

TEST_F(VtFltCtlDoctor, AnApplicationThatIsRegisteredTwiceIsDamage)
{
    StoreIds({L"Nightly", L"Nightly"});
    // Run twice, a command would take both away.
    EXPECT_FALSE(Find("id-twice", EXIT_DAMAGED).contains("mend"));
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
    EXPECT_EQ("vtfltctl apps unregister MyNightly --yes", WithoutMachine(finding["mend"]));
    Mend(finding);
    EXPECT_EQ(std::vector<std::wstring>{L"Nightly"}, StoredList(L"RegisteredAppIDs", IDS_KEY));
    StoreIds({L"Nightly", L"MyNightly"});
    const json harmless = Find("id-in-tail", EXIT_DAMAGED, {"files-missing", "verify-listed", "file-orphaned"});
    EXPECT_NE(std::string::npos, harmless["consequence"].get<std::string>().find("cannot be registered again"));
    EXPECT_FALSE(harmless.contains("mend"));
}

TEST_F(VtFltCtlDoctor, ATailInOtherCaseIsNotFoundByTheLibraryEither)
{
    StoreIds({L"Nightly", L"MyNIGHTLY"});
    Find("files-missing", EXIT_VERIFY_REQUIRED);
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"unregister", L"Nightly", L"--yes"}).exitCode);
    EXPECT_EQ(std::vector<std::wstring>{L"MyNIGHTLY"}, StoredList(L"RegisteredAppIDs", IDS_KEY));
    Register(L"Nightly");
    EXPECT_EQ(2u, StoredList(L"RegisteredAppIDs", IDS_KEY).size());
}

TEST_F(VtFltCtlDoctor, NoMendHandsOnAVerifyListAsAnothersPendingList)
{
    StoreIds({L"Nightly.Last", L"Nightly"});
    StoreList(VERIFY, {volume.guid, L"{48b5"});
    VTFltSimLoseTracking(machine.handle(), volume.guid.c_str());
    std::vector<std::string> mends;
    for (const std::string& mend : PrintedMends())
        mends.push_back(WithoutMachine(mend));
    EXPECT_NE(mends.end(), std::find(mends.begin(), mends.end(), "vtfltctl verify replicate Nightly"));
    for (const std::string& mend : mends)
        EXPECT_EQ(std::string::npos, mend.find("replicate Nightly.Last")) << mend;
}

TEST_F(VtFltCtlDoctor, ACommandThatAShellWouldReadOtherwiseIsNotPrinted)
{
    for (const wchar_t* id : {L"50%", L"a`b", L"a$b", L"a!b",
                              L"a\x201D"
                              L"b"}) {
        StoreIds({id});
        StoreList(std::wstring(DRIVER_LIST) + id, {volume.guid});
        EXPECT_FALSE(Find("list-pending", EXIT_VERIFY_REQUIRED, {"files-missing", "file-orphaned", "list-orphaned"})
                         .contains("mend"))
            << Utf8(id);
        StoreList(std::wstring(DRIVER_LIST) + id, {});
    }
}

TEST_F(VtFltCtlDoctor, AnIdThatBeginsWithADashIsNoOptionInACommand)
{
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"register", L"--", L"-x"}).exitCode);
    StoreList(L"DeviceListForReSync-x", {volume.guid});
    const json finding = Find("list-pending", EXIT_VERIFY_REQUIRED, {"verify-listed"});
    EXPECT_EQ("vtfltctl verify replicate -- \"-x\"", WithoutMachine(finding["mend"]));
    Mend(finding);
    EXPECT_EQ(std::vector<std::wstring>{volume.guid}, StoredList(L"DeviceListForReSync-x.Last"));
    WriteBytes(BitmapFile(L"base", L"-x"), {});
    Mend(Find("file-damaged", EXIT_DAMAGED, {"verify-listed"}));
    Find("files-missing", EXIT_VERIFY_REQUIRED, {"verify-listed"});
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

TEST_F(VtFltCtlDoctor, ADamagedListThatNobodyCanTakeOverIsNotRebuilt)
{
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"unregister", L"Nightly", L"--yes"}).exitCode);
    StoreList(DRIVER_LIST, {volume.guid}, LISTS_KEY, REG_SZ);
    const json finding = Find("list-damaged", EXIT_DAMAGED, {"list-orphaned"});
    EXPECT_FALSE(finding.contains("mend"));
    EXPECT_NE(std::string::npos, finding["consequence"].get<std::string>().find("leave it until one is"));
}

TEST_F(VtFltCtlDoctor, WhatCannotBeReadForTheMomentIsNoDamage)
{
    StoreList(VERIFY, {volume.guid});
    StoreNumber(COUNT_KEY, L"SnapshotMonitorCount", 3);
    for (const auto& [value, check] : {std::pair{L"DeviceListForReSyncNightly.Last", "list-unreadable"},
                                       {L"SnapshotMonitorCount", "monitor-count"}}) {
        const Result result =
            vtlog_test::Process({L"doctor", L"--json", L"--simulate", machine.directory()},
                                {std::wstring(L"VTFLTSIM_CALLS=fail|RegQueryValueExW|") + value + L"|1|0|5"},
                                L"vtfltctl.exe")
                .Finish();
        json found = json::object();
        const json answer = json::parse(result.out, nullptr, false);
        for (const json& finding : answer.value("findings", json::array())) {
            if (finding["check"] == std::string(check))
                found = finding;
        }
        EXPECT_EQ("unknown", found.value("severity", "")) << result.out;
        EXPECT_FALSE(found.contains("mend")) << result.out;
    }
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
    // It may be a disk in a drawer.
    EXPECT_FALSE(finding.contains("mend"));
    EXPECT_NE(std::string::npos, finding["consequence"].get<std::string>().find("gone for good"));
    StoreList(VERIFY, {});
    StoreList(PENDING, {GONE});
    EXPECT_FALSE(Find("list-volume-gone", EXIT_OK).contains("mend"));
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

TEST_F(VtFltCtlDoctor, AVolumeThatCannotBeOpenedIsUnknown)
{
    const json finding = FindUnknown("volume-unreadable", L"fail|CreateFileW|Volume" + volume.guid + L"|1|1|5");
    EXPECT_EQ(Utf8(volume.guid), finding.value("volume", ""));
    EXPECT_NE(std::string::npos, finding.value("text", "").find("error 5)")) << finding;
    EXPECT_FALSE(finding.contains("mend"));
}

TEST_F(VtFltCtlDoctor, AFolderOfBitmapFilesThatCannotBeListedIsUnknown)
{
    const json finding = FindUnknown("folder-unreadable", L"fail|FindFirstFileW|VelVolTrc|1|0|5");
    EXPECT_EQ(Utf8(volume.guid), finding.value("volume", ""));
    EXPECT_FALSE(finding.contains("mend"));
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

TEST_F(VtFltCtlDoctor, ABaseBitmapThatIsCutShortConcernsItsApplicationOnly)
{
    Spoil(L"base", [](auto& bytes) { bytes.resize(bytes.size() - 100); });
    const json finding = Find("file-cut-short", EXIT_DAMAGED);
    EXPECT_EQ("Until it is gone, every fetch of the application's changes from this volume fails.",
              finding["consequence"]);
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
    // Bits of the driver's blocks cannot be told from such files.
    EXPECT_TRUE(RunJson({L"status"}, EXIT_DAMAGED)["volumes"][0]["applications"][0]["changedBlocks"].is_null());
    const json finding = Find("block-size-differs", EXIT_DAMAGED, {"lost-tracking", "size-differs"}, 2);
    Mend(finding);
    Find("lost-tracking", EXIT_VERIFY_REQUIRED, {"files-missing", "verify-listed"});
}

TEST_F(VtFltCtlDoctor, ASizeThatNoLongerFitsTheVolumeIsANote)
{
    VTFltSimResizeVolume(machine.handle(), volume.guid.c_str(), 64 << 20);
    EXPECT_NE(std::string::npos, Find("size-differs", EXIT_OK, {}, 2)["consequence"].get<std::string>().find("longer"));
}

TEST_F(VtFltCtlDoctor, AFileOfSomebodyWhoUnregisteredIsANote)
{
    CopyFileW(BitmapFile(L"base", L"Nightly").c_str(), BitmapFile(L"base", L"Former App").c_str(), TRUE);
    CopyFileW(BitmapFile(L"base", L"Nightly").c_str(), BitmapFile(L"child", L"Former App").c_str(), TRUE);
    StoreList(L"DeviceListForReSyncFormer App.Last", {volume.guid});
    const json finding = Find("file-orphaned", EXIT_OK, {"list-orphaned"});
    EXPECT_EQ("Former App", finding["application"]);
    Mend(finding);
    Find("list-orphaned", EXIT_OK);
}

TEST_F(VtFltCtlDoctor, AFileOfSomebodyWhoseRegistrationWasLostIsNotCleanedAway)
{
    Register(L"Weekly");
    StoreIds({L"Nightly"});
    const json finding = Find("file-orphaned", EXIT_VERIFY_REQUIRED);
    EXPECT_EQ("Weekly", finding["application"]);
    EXPECT_FALSE(finding.contains("mend"));
    EXPECT_NE(std::string::npos, finding["text"].get<std::string>().find("probably lost"));
}

TEST_F(VtFltCtlDoctor, AListOfApplicationsWithoutItsEndIsDamage)
{
    Register(L"Weekly");
    StoreText(L"RegisteredAppIDs", std::wstring(L"Nightly\0Weekly\0", 15), IDS_KEY);
    EXPECT_FALSE(Find("applications-unreadable", EXIT_DAMAGED).contains("mend"));
    ExpectRefusal({L"apps", L"list"}, EXIT_UNREADABLE);
    // What the library leaves of a list of which it took the last entry off.
    StoreText(L"RegisteredAppIDs", std::wstring(1, L'\0'), IDS_KEY);
    EXPECT_EQ("No application is registered.\n", Run({L"apps", L"list"}).out);
}

TEST_F(VtFltCtlDoctor, AFileThatTheLibraryWouldHaveWrittenOtherwiseIsANote)
{
    Spoil(L"base", [](auto& bytes) { bytes[20] = 1; }); // reserved
    // To clean it away would cost a full verify.
    EXPECT_FALSE(Find("file-doubtful", EXIT_OK).contains("mend"));
}

TEST_F(VtFltCtlDoctor, TheWorstFindingDecidesTheExitCode)
{
    Spoil(L"base", [](auto& bytes) { bytes[0] = 'X'; });
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    Find("file-damaged", EXIT_DAMAGED, {"driver-down", "geometry-unknown"});
}

} // namespace
} // namespace vtfltctl_test
