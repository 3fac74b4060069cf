// What follows a loss of tracking that an audit found: marks for everybody, and evidence.
#include "tools/vtbackup_audit_fixture.h"

using namespace vtbackup_test;

namespace {

using nlohmann::json;

class VtBackupLoss : public VtBackupAudit {
protected:
    json Evidence(int sequence) const { return json::parse(ReadFileBytes(LossFile(sequence))); }
};

// ---- everybody is told

TEST_F(VtBackupLoss, EveryApplicationOfTheMachineIsTold)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    ASSERT_EQ(EXIT_OK, Backup(L"Second").exitCode);
    WriteUnseen(20, 0xEE);
    const Result result = Audit(1000);
    EXPECT_EQ(EXIT_LOST_TRACKING, result.exitCode) << result.err;
    EXPECT_EQ(json::array({"App", "Second"}), AuditOf(result).at("marked"));
    EXPECT_TRUE(IsOnVerifyList(L"Second"));
    ExpectHealed("verify-required", L"Second");
    ExpectHealed("audit-found-loss");
    EXPECT_FALSE(IsOnVerifyList(L"Second")) << "it was told once";
}

TEST_F(VtBackupLoss, AMarkThatCannotBeSetIsSaidPlainlyAndSetByTheNextBackup)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    ASSERT_EQ(EXIT_OK, Backup(L"Second").exitCode);
    WriteUnseen(20, 0xEE);
    const std::wstring denied = L"fail|RegSetValueExW|DeviceListForReSyncSecond.Last|1|0|5";
    const Result result = Audit(1000, denied);
    EXPECT_EQ(EXIT_NOT_MARKED, result.exitCode) << result.err;
    EXPECT_EQ("not-marked", result.result);
    EXPECT_NE(std::string::npos, result.message.find("NOT MARKED: application \"Second\": VTAddVolumesToAppVerifyList"))
        << result.message;
    EXPECT_EQ(json::array({"App"}), AuditOf(result).at("marked"));
    EXPECT_TRUE(IsOnVerifyList(L"App"));
    EXPECT_FALSE(IsOnVerifyList(L"Second"));

    const Result still = Backup(L"App", denied);
    EXPECT_EQ(EXIT_NOT_MARKED, still.exitCode) << still.err;
    EXPECT_EQ("verify", still.kind) << still.out;
    EXPECT_TRUE(still.reported);
    EXPECT_NE(std::string::npos, still.err.find("Second")) << still.err;
    EXPECT_TRUE(Contents() == Restored());

    const Result now = Backup();
    EXPECT_EQ(EXIT_OK, now.exitCode) << now.err;
    EXPECT_EQ("incremental", now.kind);
    EXPECT_TRUE(IsOnVerifyList(L"Second"));
    EXPECT_FALSE(IsOnVerifyList(L"App"));
    ExpectHealed("verify-required", L"Second");
}

TEST_F(VtBackupLoss, ItsOwnMarkThatCannotBeSetIsMadeUpForByTheEvidence)
{
    WriteUnseen(20, 0xEE);
    const Result result = Audit(1000, L"fail|RegSetValueExW|DeviceListForReSyncApp.Last|1|0|5");
    EXPECT_EQ(EXIT_NOT_MARKED, result.exitCode) << result.err;
    EXPECT_FALSE(IsOnVerifyList(L"App"));
    ExpectHealed("audit-found-loss");
}

TEST_F(VtBackupLoss, AnApplicationThatIsInABackupIsToldAgain)
{
    const vtfltsim::Volume other = machine.AddVolume(65536, BLOCK);
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    ASSERT_EQ(EXIT_OK, Backup(L"Second").exitCode);
    WriteUnseen(20, 0xEE);
    const Result second =
        RunWith(Arguments(L"backup", L"Second", &other), L"DeviceIoControl|0xB0000002", [&](Process&) {
            const Result result = Audit(1000);
            EXPECT_EQ(EXIT_NOT_MARKED, result.exitCode) << result.err;
            EXPECT_NE(std::string::npos, result.message.find("may be taken off again")) << result.message;
            EXPECT_TRUE(IsOnVerifyList(L"Second"));
            ClearVerifyList(L"Second"); // as that backup may, when it ends
        });
    EXPECT_EQ(EXIT_OK, second.exitCode) << second.err;
    ExpectHealed("audit-found-loss");
    EXPECT_TRUE(IsOnVerifyList(L"Second"));
    ExpectHealed("verify-required", L"Second");
}

// ---- a volume that no list can name

TEST_F(VtBackupLoss, OnAVolumeThatIsNotFixedItIsToldOnceAndMarksTheFixedOnesOnce)
{
    const vtfltsim::Volume fixed = machine.AddVolume(65536, BLOCK);
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    ASSERT_EQ(EXIT_OK, Backup(L"Second").exitCode);
    vtfltsim::Check("type", VTFltSimSetDriveType(machine.handle(), volume.guid.c_str(), DRIVE_REMOVABLE));
    WriteUnseen(20, 0xEE);
    const Result result = Audit(1000);
    EXPECT_EQ(EXIT_NOT_MARKED, result.exitCode) << result.err;
    EXPECT_NE(std::string::npos, result.message.find("no verify list can name this one, which is not fixed"))
        << result.message;
    EXPECT_EQ(json::array({"App", "Second"}), AuditOf(result).at("fixedOnly"));
    EXPECT_EQ(false, AuditOf(result).at("allMarked"));
    EXPECT_TRUE(IsOnVerifyList(L"Second", fixed));
    ClearVerifyList(L"Second");

    const Result next = Backup();
    EXPECT_EQ(EXIT_OK, next.exitCode) << next.err;
    EXPECT_EQ("verify", next.kind);
    EXPECT_TRUE(next.Has("audit-found-loss")) << next.out;
    EXPECT_TRUE(Contents() == Restored());
    EXPECT_EQ("incremental", Backup().kind);
    EXPECT_FALSE(IsOnVerifyList(L"Second", fixed)) << "it was told once";
}

TEST_F(VtBackupLoss, AKilledRunOnAVolumeThatIsNotFixedIsToldByTheNextBackup)
{
    vtfltsim::Check("type", VTFltSimSetDriveType(machine.handle(), volume.guid.c_str(), DRIVE_REMOVABLE));
    WriteUnseen(20, 0xEE);
    ASSERT_EQ(VTFLTSIM_KILLED, Audit(1000, L"kill-after|MoveFileExW|lost-tracking|1").exitCode);
    const Result next = Backup();
    EXPECT_EQ(EXIT_NOT_MARKED, next.exitCode) << next.err;
    EXPECT_EQ("verify", next.kind);
    const Result later = Backup();
    EXPECT_EQ(EXIT_OK, later.exitCode) << later.err;
    EXPECT_EQ("incremental", later.kind);
}

TEST_F(VtBackupLoss, WithAMarkThatIsOwedItIsStillSaidWhySuccessWasNotReported)
{
    vtfltsim::Check("type", VTFltSimSetDriveType(machine.handle(), volume.guid.c_str(), DRIVE_REMOVABLE));
    WriteUnseen(20, 0xEE);
    ASSERT_EQ(VTFLTSIM_KILLED, Audit(1000, L"kill-after|MoveFileExW|lost-tracking|1").exitCode);
    const Result next = Backup(L"App", L"fail|MoveFileExW|.success.json|2|1|5");
    EXPECT_EQ(EXIT_NOT_MARKED, next.exitCode) << next.err;
    EXPECT_FALSE(next.reported);
    EXPECT_NE(std::string::npos, json::parse(next.out).value("notReported", "").find(".success.json")) << next.out;
}

// Hours may lie between the marks and the end of the audit, which is where it is said.
TEST_F(VtBackupLoss, ARunThatIsKilledBehindItsMarksLeavesWhatItHadToSayToTheNextBackup)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    ASSERT_EQ(EXIT_OK, Backup(L"Second").exitCode);
    vtfltsim::Check("type", VTFltSimSetDriveType(machine.handle(), volume.guid.c_str(), DRIVE_REMOVABLE));
    WriteUnseen(20, 0xEE);
    ASSERT_EQ(VTFLTSIM_KILLED, Audit(1000, L"kill-after|MoveFileExW|lost-tracking|2").exitCode);
    ASSERT_EQ(true, Evidence(2).at("settled"));
    EXPECT_FALSE(Evidence(2).contains("told"));
    const Result next = Backup();
    EXPECT_EQ(EXIT_NOT_MARKED, next.exitCode) << next.err;
    EXPECT_EQ("verify", next.kind);
    EXPECT_NE(std::string::npos, next.err.find("application \"Second\": its fixed volumes are marked")) << next.err;
    EXPECT_EQ(json::array({"App", "Second"}), Evidence(2).at("told"));
    const Result later = Backup();
    EXPECT_EQ(EXIT_OK, later.exitCode) << later.err;
    EXPECT_EQ("incremental", later.kind);
}

TEST_F(VtBackupLoss, WhatWasSaidIsSaidAgainWhenItCouldNotBeNoted)
{
    vtfltsim::Check("type", VTFltSimSetDriveType(machine.handle(), volume.guid.c_str(), DRIVE_REMOVABLE));
    WriteUnseen(20, 0xEE);
    const Result killed = Audit(1000, L"kill-before|MoveFileExW|lost-tracking|4");
    EXPECT_EQ(VTFLTSIM_KILLED, killed.exitCode);
    EXPECT_NE(std::string::npos, killed.err.find("NOT MARKED")) << "it is noted once it is said";
    EXPECT_EQ(EXIT_NOT_MARKED, Backup(L"App", L"fail|MoveFileExW|lost-tracking|1|0|5").exitCode);
    EXPECT_EQ(EXIT_NOT_MARKED, Backup().exitCode);
    EXPECT_EQ(EXIT_OK, Backup().exitCode);
}

TEST_F(VtBackupLoss, AMarkThatIsStillOwedDoesNotHideOneThatCannotBe)
{
    machine.AddVolume(65536, BLOCK); // a fixed one, so that there is something to mark
    for (const wchar_t* other : {L"Second", L"Third"})
        ASSERT_EQ(EXIT_OK, Init(other).exitCode);
    vtfltsim::Check("type", VTFltSimSetDriveType(machine.handle(), volume.guid.c_str(), DRIVE_REMOVABLE));
    WriteUnseen(20, 0xEE);
    ASSERT_EQ(VTFLTSIM_KILLED, Audit(1000, L"fail|RegSetValueExW|DeviceListForReSyncThird.Last|1|0|5;"
                                           L"kill-after|MoveFileExW|lost-tracking|2")
                                   .exitCode);
    ASSERT_EQ(json::array({"App", "Second"}), Evidence(2).at("fixedOnly"));
    ASSERT_EQ(false, Evidence(2).at("settled"));
    const Result next = Backup();
    EXPECT_EQ(EXIT_NOT_MARKED, next.exitCode) << next.err;
    for (const char* name : {"Second", "Third"})
        EXPECT_NE(std::string::npos, next.err.find(std::string("application \"") + name + "\": its fixed volumes"))
            << next.err;
    EXPECT_EQ(EXIT_OK, Backup().exitCode);
}

TEST_F(VtBackupLoss, OfSeveralLossesEachIsSaid)
{
    const auto write = [this](int sequence, const char* name) {
        const std::string text = json{{"settled", true}, {"fixedOnly", {name}}}.dump();
        WriteFileBytes(LossFile(sequence), {text.begin(), text.end()});
    };
    write(2, "Second");
    write(3, "Third");
    const Result next = Backup();
    EXPECT_EQ(EXIT_NOT_MARKED, next.exitCode) << next.err;
    EXPECT_NE(std::string::npos, next.err.find("application \"Second\"")) << next.err;
    EXPECT_NE(std::string::npos, next.err.find("application \"Third\"")) << next.err;
    EXPECT_EQ(EXIT_OK, Backup().exitCode);
}

TEST_F(VtBackupLoss, NoMarkIsSetAsLongAsItCannotBeNoted)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    ASSERT_EQ(EXIT_OK, Backup(L"Second").exitCode);
    WriteUnseen(20, 0xEE);
    ASSERT_EQ(EXIT_NOT_MARKED, Audit(1000, L"fail|RegSetValueExW|DeviceListForReSyncSecond.Last|1|0|5").exitCode);
    const Result result = Backup(L"App", L"fail|MoveFileExW|lost-tracking|1|0|5");
    EXPECT_EQ(EXIT_NOT_MARKED, result.exitCode) << result.err;
    EXPECT_NE(std::string::npos, result.err.find("no mark is set as long as it cannot be noted")) << result.err;
    EXPECT_FALSE(IsOnVerifyList(L"Second"));
    EXPECT_EQ(EXIT_OK, Backup().exitCode);
    EXPECT_TRUE(IsOnVerifyList(L"Second"));
}

// ---- an application whose backups are another program's

TEST_F(VtBackupLoss, AStrangersMarkThatIsOffBeforeTheAuditEndsIsSetAgain)
{
    ASSERT_EQ(EXIT_OK, Init(L"Stranger").exitCode);
    ASSERT_EQ(EXIT_OK, Init(L"Third").exitCode);
    WriteUnseen(20, 0xEE);
    const Result result = AuditWith(L"RegSetValueExW|DeviceListForReSyncThird.Last", [&](Process&) {
        EXPECT_TRUE(IsOnVerifyList(L"Stranger"));
        ClearVerifyList(L"Stranger");
    });
    EXPECT_EQ(EXIT_LOST_TRACKING, result.exitCode) << result.err;
    EXPECT_TRUE(IsOnVerifyList(L"Stranger"));
    EXPECT_NE(std::string::npos, result.message.find("The mark of Stranger was off again and was set once more"))
        << result.message;
    EXPECT_NE(std::string::npos, result.message.find("Of Third, Stranger it is not known")) << result.message;
    EXPECT_EQ(true, AuditOf(result).at("allMarked"));
}

TEST_F(VtBackupLoss, AStrangersMarkThatIsOffAtTheNextBackupIsToldOnce)
{
    ASSERT_EQ(EXIT_OK, Init(L"Stranger").exitCode);
    ASSERT_EQ(EXIT_OK, Init(L"Steady").exitCode);
    WriteUnseen(20, 0xEE);
    ASSERT_EQ(EXIT_LOST_TRACKING, Audit(1000).exitCode);
    ClearVerifyList(L"Stranger");
    const Result next = Backup();
    EXPECT_EQ(EXIT_NOT_MARKED, next.exitCode) << next.err;
    EXPECT_EQ("verify", next.kind);
    EXPECT_NE(std::string::npos, next.err.find("the mark of Stranger is off again")) << next.err;
    EXPECT_EQ(json::array({"Stranger"}), Evidence(2).at("marksGone"));
    EXPECT_FALSE(IsOnVerifyList(L"Stranger")) << "it may have verified";
    const Result later = Backup();
    EXPECT_EQ(EXIT_OK, later.exitCode) << later.err;
    EXPECT_EQ("incremental", later.kind);
}

TEST_F(VtBackupLoss, AStrangersMarkThatIsOffIsToldByTheFirstBackupThatIsMade)
{
    ASSERT_EQ(EXIT_OK, Init(L"Stranger").exitCode);
    WriteUnseen(20, 0xEE);
    ASSERT_EQ(EXIT_LOST_TRACKING, Audit(1000).exitCode);
    ClearVerifyList(L"Stranger");
    const Result failed = Backup(L"App", L"fail|ReadFile|HarddiskVolumeShadowCopy|1|1|1117");
    EXPECT_EQ(EXIT_DEVICE, failed.exitCode) << failed.err;
    ASSERT_EQ(json::array({"Stranger"}), Evidence(2).at("marksGone"));
    const Result next = Backup();
    EXPECT_EQ(EXIT_NOT_MARKED, next.exitCode) << next.err;
    EXPECT_EQ("verify", next.kind);
    EXPECT_NE(std::string::npos, next.err.find("the mark of Stranger is off again")) << next.err;
    EXPECT_EQ(json::array({"Stranger"}), Evidence(2).at("told"));
    EXPECT_EQ(EXIT_OK, Backup().exitCode);
}

TEST_F(VtBackupLoss, AStrangerIsLookedForAlsoWhenTheListOfApplicationsCannotBeRead)
{
    ASSERT_EQ(EXIT_OK, Init(L"Stranger").exitCode);
    WriteUnseen(20, 0xEE);
    ASSERT_EQ(EXIT_LOST_TRACKING, Audit(1000).exitCode);
    ClearVerifyList(L"Stranger");
    // The later the read that fails, the farther a backup comes; the first that looks at the mark has its own read fail.
    for (int read = 1; read < 30 && !Evidence(2).contains("lookedAgain"); ++read)
        Backup(L"App", L"fail|RegQueryValueExW|RegisteredAppIDs|" + std::to_wstring(read) + L"|1|5");
    EXPECT_EQ(json::array({"Stranger"}), Evidence(2).at("marksGone"));
}

// ---- evidence

// Compared by number only, it would make every backup a verify for as long as the chain is shorter.
TEST_F(VtBackupLoss, EvidenceNumberedBehindTheChainIsAnsweredOnce)
{
    WriteFileBytes(LossFile(4), {'{', '}'});
    Write(20, 0x21);
    const Result answer = Backup();
    EXPECT_EQ(EXIT_OK, answer.exitCode) << answer.err;
    EXPECT_EQ("verify", answer.kind);
    EXPECT_TRUE(answer.Has("audit-found-loss")) << answer.out;
    const Result next = Backup();
    EXPECT_EQ(EXIT_OK, next.exitCode) << next.err;
    EXPECT_EQ("incremental", next.kind) << next.out;
    EXPECT_EQ(3u, next.sequence);

    // An own one of that number is another loss.
    WriteUnseen(20, 0xEE);
    ASSERT_EQ(EXIT_LOST_TRACKING, Audit(1000).exitCode);
    EXPECT_EQ(1u, Evidence(4).at("differing"));
    EXPECT_TRUE(Exists(LossFile(4) + L".kept-1"));
    ClearVerifyList(L"App");
    ExpectHealed("audit-found-loss");
}

TEST_F(VtBackupLoss, AFullBackupAnswersEvidenceOfAnyNumber)
{
    WriteFileBytes(LossFile(9), {'{', '}'});
    std::vector<std::wstring> arguments = Arguments(L"backup", L"App", &volume);
    arguments.push_back(L"--full");
    ASSERT_EQ(EXIT_OK, Run(arguments).exitCode);
    EXPECT_EQ("incremental", Backup().kind);
    // Evidence that takes its place was not answered.
    WriteFileBytes(LossFile(9), {'{', '}', ' '});
    EXPECT_EQ("verify", Backup().kind);
    EXPECT_EQ("incremental", Backup().kind);
}

TEST_F(VtBackupLoss, DamagedEvidenceIsTakenForALossOfWhichNobodyKnows)
{
    WriteUnseen(20, 0xEE);
    ASSERT_EQ(EXIT_LOST_TRACKING, Audit(1000).exitCode);
    ClearVerifyList(L"App");
    const std::string deep(100000, '[');
    WriteFileBytes(LossFile(2), {deep.begin(), deep.end()});
    const Result list = Run(Arguments(L"list"));
    EXPECT_EQ(2u, json::parse(list.out).at("chains").at(0).at("lostTracking").at(0).at("backup"));
    ExpectHealed("verify-required");
    EXPECT_EQ("incremental", Backup().kind);
    const std::vector<std::uint8_t> kept = ReadFileBytes(LossFile(2) + L".kept-1");
    EXPECT_TRUE(deep == std::string(kept.begin(), kept.end()));
    EXPECT_EQ("lost-tracking-00000002.json.kept-1", Evidence(2).at("kept"));
    EXPECT_FALSE(Exists(LossFile(2) + L".kept-2"));
}

} // namespace
