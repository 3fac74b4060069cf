// The command line: help, exit codes, refusals.
#include "tools/vtbackup_test.h"

using namespace vtbackup_test;

namespace {

class VtBackupUsage : public VtBackupTest {};

TEST_F(VtBackupUsage, HelpNamesEveryCommandAndEveryExitCode)
{
    const Result help = Run({L"--help"});
    EXPECT_EQ(EXIT_OK, help.exitCode);
    EXPECT_EQ("", help.err);
    for (const char* word :
         {"init", "backup", "restore", "verify", "list", "report", "busy", "refused", "driver-down", "damaged",
          "not-reported", "interrupted", "device", "not-found", "repository", "lost-tracking", "not-marked"})
        EXPECT_NE(std::string::npos, help.out.find(word)) << word;
}

TEST_F(VtBackupUsage, EveryCommandHasHelpOfItsOwn)
{
    for (const wchar_t* command : {L"init", L"backup", L"restore", L"verify", L"list", L"report"}) {
        const Result help = Run({command, L"--help"});
        EXPECT_EQ(EXIT_OK, help.exitCode);
        EXPECT_NE(std::string::npos, help.out.find("--repo"));
    }
}

TEST_F(VtBackupUsage, AWrongCommandLineIsExitCode2WithTheReasonOnStandardError)
{
    std::vector<std::vector<std::wstring>> wrong = {
        {},
        {L"frobnicate"},
        {L"backup"},
        {L"backup", L"--app", L"App", L"--repo", repository},
        {L"list", L"--repo", repository, L"--unknown"},
        {L"list", L"--repo", repository, L"--simulate", L""},
        {L"list", L"--repo", repository, L"--volume", L""},
        {L"list", L"--volume=", L"--repo", repository},
        {L"restore", L"--app", L"App", L"--repo", repository, L"--volume", volume.guid, L"--to", L"x", L"--backup",
         L"-1"},
        {L"init", L"--app", L"App", L"--repo", repository, L"--reset", L"--undo"},
    };
    for (const wchar_t* count : {L"0", L"-1", L"1.5", L"many", L"", L"99999999999999999999999"}) {
        std::vector<std::wstring> audit = {L"backup",  L"--app",    L"App",     L"--repo",
                                           repository, L"--volume", volume.guid};
        audit.insert(audit.end(), {L"--audit", count});
        wrong.push_back(audit);
    }
    for (const auto& arguments : wrong) {
        const Result result = Run(arguments);
        EXPECT_EQ(EXIT_USAGE, result.exitCode) << result.err;
        EXPECT_EQ("", result.out);
        EXPECT_NE("", result.err);
    }
}

TEST_F(VtBackupUsage, ANumberThatIsNoneIsNamed)
{
    const Result result =
        Run({L"backup", L"--app", L"App", L"--repo", repository, L"--volume", volume.guid, L"--audit", L"0"});
    EXPECT_EQ(EXIT_USAGE, result.exitCode);
    EXPECT_NE(std::string::npos, result.err.find("--audit: 0 is no whole number above 0")) << result.err;
}

TEST_F(VtBackupUsage, AFailureWithJsonIsAnObjectWithResultAndMessage)
{
    const Result result = Run({L"list", L"--json", L"--repo", repository});
    EXPECT_EQ(EXIT_NOT_FOUND, result.exitCode);
    EXPECT_TRUE(result.json) << result.out;
    EXPECT_EQ("not-found", result.result);
    EXPECT_NE("", result.message);
}

TEST_F(VtBackupUsage, MissingThingsAreNotFound)
{
    EXPECT_EQ(EXIT_NOT_FOUND, Backup().exitCode); // no repository
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    EXPECT_EQ(EXIT_NOT_FOUND, Run({L"backup", L"--app", L"App", L"--repo", repository, L"--simulate",
                                   machine.directory(), L"--volume", L"Q:"})
                                  .exitCode);
    EXPECT_EQ(EXIT_NOT_FOUND, Run({L"backup", L"--app", L"App", L"--repo", repository, L"--simulate", repository,
                                   L"--volume", volume.guid})
                                  .exitCode); // no machine there
    ASSERT_EQ(EXIT_OK, Backup().exitCode);
    std::vector<std::wstring> restore = Arguments(L"restore", L"App", &volume);
    restore.insert(restore.end(), {L"--to", repository + L".restored", L"--backup", L"7"});
    EXPECT_EQ(EXIT_NOT_FOUND, Run(restore).exitCode);
    EXPECT_FALSE(Exists(repository + L".restored"));
    // As its folder is called, and not 8.
    restore.back() = L"00000010";
    const Result tenth = Run(restore);
    EXPECT_EQ(EXIT_NOT_FOUND, tenth.exitCode);
    EXPECT_NE(std::string::npos, (tenth.message + tenth.err).find("no backup 10 ")) << tenth.message << tenth.err;
}

TEST_F(VtBackupUsage, AVolumeNameThatIsNoneIsExitCode2)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    EXPECT_EQ(EXIT_USAGE, Run({L"backup", L"--app", L"App", L"--repo", repository, L"--simulate", machine.directory(),
                               L"--volume", L"rubbish"})
                              .exitCode);
}

TEST_F(VtBackupUsage, AVolumeMayBeNamedInEveryForm)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    for (const std::wstring& name : {volume.guid, L"Volume" + volume.guid, volume.Path(), std::wstring(L"E:")}) {
        const Result result = Run({L"backup", L"--json", L"--app", L"App", L"--repo", repository, L"--simulate",
                                   machine.directory(), L"--volume", name});
        EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    }
    EXPECT_TRUE(Contents() == Restored(4));
}

TEST_F(VtBackupUsage, TheRealMachineNeedsCommandsForSnapshots)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    const Result result =
        Run({L"backup", L"--json", L"--app", L"App", L"--repo", repository, L"--volume", volume.guid});
    EXPECT_EQ(EXIT_USAGE, result.exitCode);
    EXPECT_NE(std::string::npos, result.message.find("--snapshot-create"));
}

TEST_F(VtBackupUsage, AFolderWithOtherFilesIsNoPlaceForARepository)
{
    CreateDirectoryW(repository.c_str(), nullptr);
    WriteFileBytes(repository + L"\\letter.txt", {1, 2, 3});
    EXPECT_EQ(EXIT_REPOSITORY, Init().exitCode);
}

TEST_F(VtBackupUsage, ADriverThatDoesNotWorkIsExitCode5)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    const Result result = Backup();
    EXPECT_EQ(EXIT_DRIVER_DOWN, result.exitCode);
    EXPECT_EQ("driver-down", result.result);
}

TEST_F(VtBackupUsage, AnUnregisteredApplicationIsRefusedUnlessItIsToBeRegistered)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    EXPECT_EQ(EXIT_REFUSED, Backup(L"Other").exitCode);
    std::vector<std::wstring> arguments = Arguments(L"backup", L"Other", &volume);
    arguments.push_back(L"--register");
    const Result result = Run(arguments);
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ("full", result.kind);
}

TEST_F(VtBackupUsage, ApplicationIdsThatWouldShareFilesOrListsAreRefusedWithTheReason)
{
    ASSERT_EQ(EXIT_OK, Init(L"Nightly").exitCode);
    const struct {
        std::wstring id;
        const char* reason;
    } refused[] = {
        {L"nightly", "only in case"},       {L"Nightly.Last", ".Last"},         {L"App.LAST", ".Last"},
        {L"ly", "is the tail of"},          {L"MyNightly", "ends in the"},      {L"a*b", "\\\"*\\\""},
        {L"a/b", "cannot stand in a file"}, {L"a?b", "cannot stand in a file"}, {std::wstring(181, L'x'), "longer"},
    };
    for (const auto& item : refused) {
        const Result result = Init(item.id.c_str());
        EXPECT_EQ(EXIT_REFUSED, result.exitCode) << item.reason;
        EXPECT_NE(std::string::npos, result.out.find(item.reason)) << result.out;
    }
    EXPECT_EQ(EXIT_USAGE, Init(L"").exitCode);
    // Nothing of that is an accident of a rule that refuses everything.
    EXPECT_EQ(EXIT_OK, Init(L"Hourly").exitCode);
    EXPECT_EQ(EXIT_OK, Init(std::wstring(180, L'x').c_str()).exitCode);
}

// Another program registered an ID that is too long for its files: their paths are cut.
TEST_F(VtBackupUsage, AnIdWhoseFileALongerRegisteredOneHasToBecauseItsPathIsCutIsRefused)
{
    const struct {
        std::wstring id;
        std::wstring registered;
        DWORD exitCode;
    } cases[] = {
        {std::wstring(180, L'x'), std::wstring(180, L'X') + L".dAtabase", EXIT_REFUSED},
        {std::wstring(180, L'x'), std::wstring(180, L'x') + L".da", EXIT_OK},
        {std::wstring(179, L'x'), std::wstring(179, L'x') + L".database", EXIT_OK},
    };
    for (const auto& item : cases) {
        const std::wstring list = vtfltsim::MultiString({item.registered});
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(list.data());
        machine.WriteValue(L"SOFTWARE\\Veltrix\\Shared\\CBTDriver\\AppIDs", L"RegisteredAppIDs", REG_MULTI_SZ,
                           {bytes, bytes + list.size() * sizeof(wchar_t)});
        const Result result = Init(item.id.c_str());
        EXPECT_EQ(item.exitCode, result.exitCode) << result.out << result.err;
        EXPECT_EQ(item.exitCode == EXIT_REFUSED, result.out.find("is cut to its own") != std::string::npos)
            << result.out;
    }
}

TEST_F(VtBackupUsage, InitMayBeRepeatedAndTakenBack)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    EXPECT_FALSE(machine.ReadValue(SNAPSHOT_CLASS, L"UpperFilters").empty());
    std::vector<std::wstring> undo = Arguments(L"init");
    undo.push_back(L"--undo");
    EXPECT_EQ(EXIT_OK, Run(undo).exitCode);
    // The filter is off again: an empty list at most.
    EXPECT_LE(machine.ReadValue(SNAPSHOT_CLASS, L"UpperFilters").size(), 4u);
    EXPECT_EQ(EXIT_REFUSED, Backup().exitCode);
}

TEST_F(VtBackupUsage, AnUndoThatWasKilledDoesNotTakeBackAnotherApplicationsRequest)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    std::vector<std::wstring> undo = Arguments(L"init");
    undo.push_back(L"--undo");
    for (const wchar_t* calls : {L"kill-before|DeleteFileW|monitoring|1", L"kill-after|DeleteFileW|monitoring|1"})
        EXPECT_EQ(VTFLTSIM_KILLED, Run(undo, calls).exitCode);
    EXPECT_EQ(EXIT_OK, Run(undo).exitCode);
    EXPECT_GT(machine.ReadValue(SNAPSHOT_CLASS, L"UpperFilters").size(), 4u) << "the second application's snapshots";
    EXPECT_EQ(EXIT_REFUSED, Backup().exitCode);
}

TEST_F(VtBackupUsage, ARequestThatASilentDriverDidNotCountIsNotTakenBack)
{
    machine.SetService(VTFLTSIM_SERVICE_ABSENT); // or the driver would be reinstalled
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    const Result silent = Run(Arguments(L"init"), L"fail|CreateFileW|\\\\.\\VTFltMgr|2|1|2");
    EXPECT_EQ(EXIT_DRIVER_DOWN, silent.exitCode) << silent.out;
    EXPECT_NE(std::string::npos, silent.message.find("was not counted")) << silent.message;
    std::vector<std::wstring> undo = Arguments(L"init");
    undo.push_back(L"--undo");
    EXPECT_EQ(EXIT_OK, Run(undo).exitCode);
    EXPECT_GT(machine.ReadValue(SNAPSHOT_CLASS, L"UpperFilters").size(), 4u) << "the second application's snapshots";
    // Repeated with a driver that answers, it is counted, and so taken back.
    EXPECT_EQ(EXIT_OK, Init().exitCode);
    EXPECT_EQ(EXIT_OK, Run(undo).exitCode);
    undo = Arguments(L"init", L"Second");
    undo.push_back(L"--undo");
    EXPECT_EQ(EXIT_OK, Run(undo).exitCode);
    EXPECT_LE(machine.ReadValue(SNAPSHOT_CLASS, L"UpperFilters").size(), 4u);
}

// The count is then as it was, which is how a driver that was silent looks.
TEST_F(VtBackupUsage, ARequestThatIsTakenBackMeanwhileDoesNotHideOnesOwn)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    const Result result = RunWith(Arguments(L"init"), L"CreateMutexW|.VTFlt.Mutex", [&](Process&) {
        std::vector<std::wstring> undo = Arguments(L"init", L"Second");
        undo.push_back(L"--undo");
        EXPECT_EQ(EXIT_OK, Run(undo).exitCode);
    });
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.out;
    EXPECT_GT(machine.ReadValue(SNAPSHOT_CLASS, L"UpperFilters").size(), 4u);
    std::vector<std::wstring> undo = Arguments(L"init");
    undo.push_back(L"--undo");
    EXPECT_EQ(EXIT_OK, Run(undo).exitCode);
    EXPECT_LE(machine.ReadValue(SNAPSHOT_CLASS, L"UpperFilters").size(), 4u);
}

// Whoever locks all volumes would lock some.
TEST_F(VtBackupUsage, AWalkOverTheVolumesThatBreaksOffWithoutAReasonIsNotItsEnd)
{
    machine.AddVolume(65536, BLOCK);
    const Result result = Run(Arguments(L"init"), L"fail|FindNextVolumeW||1|1|0");
    EXPECT_EQ(EXIT_DEVICE, result.exitCode) << result.out;
    EXPECT_NE(std::string::npos, result.message.find("cannot list the volumes")) << result.message;
}

TEST_F(VtBackupUsage, ARequestThatASilentDriverDidNotTakeBackIsSaidToStand)
{
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    std::vector<std::wstring> undo = Arguments(L"init");
    undo.push_back(L"--undo");
    const Result silent = Run(undo, L"fail|CreateFileW|\\\\.\\VTFltMgr|2|1|2");
    EXPECT_EQ(EXIT_DRIVER_DOWN, silent.exitCode) << silent.out;
    EXPECT_NE(std::string::npos, silent.message.find("seems to stand")) << silent.message;
    EXPECT_EQ(EXIT_OK, Run(undo).exitCode);
    EXPECT_EQ(EXIT_REFUSED, Backup().exitCode);
}

// A count that somebody deleted is none that a silent driver left as it was.
TEST_F(VtBackupUsage, AnUndoWithoutACountHasNothingToTakeBack)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    HKEY key = nullptr;
    vtfltsim::Check("key", VTFltSimOpenKey(machine.handle(),
                                           L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTFltMgr\\"
                                           L"{533C5B84-EC70-11D2-9505-00C04F79DEAF}",
                                           KEY_WRITE, &key));
    EXPECT_EQ(ERROR_SUCCESS, RegDeleteValueW(key, L"SnapshotMonitorCount"));
    RegCloseKey(key);
    std::vector<std::wstring> undo = Arguments(L"init");
    undo.push_back(L"--undo");
    EXPECT_EQ(EXIT_OK, Run(undo).exitCode);
}

TEST_F(VtBackupUsage, AnExistingFileIsOnlyOverwrittenOnRequest)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    ASSERT_EQ(EXIT_OK, Backup().exitCode);
    const std::wstring file = repository + L".restored";
    WriteFileBytes(file, {1, 2, 3});
    std::vector<std::wstring> restore = Arguments(L"restore", L"App", &volume);
    restore.insert(restore.end(), {L"--to", file});
    EXPECT_EQ(EXIT_USAGE, Run(restore).exitCode);
    EXPECT_EQ(3u, ReadFileBytes(file).size());
    DeleteFileW(file.c_str());
}

TEST_F(VtBackupUsage, AFileThatComesToBeDuringARestoreIsNotReplaced)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    ASSERT_EQ(EXIT_OK, Backup().exitCode);
    const std::wstring file = repository + L".restored";
    std::vector<std::wstring> restore = Arguments(L"restore", L"App", &volume);
    restore.insert(restore.end(), {L"--to", file});
    const Result result = RunWith(restore, L"MoveFileExW|.restored", [&](Process&) {
        WriteFileBytes(file, {1, 2, 3});
    });
    EXPECT_EQ(EXIT_USAGE, result.exitCode) << result.out;
    EXPECT_EQ(3u, ReadFileBytes(file).size());
    EXPECT_FALSE(Exists(file + L".partial"));

    // Nor is one of which nobody could say whether it is there.
    const Result unknown = Run(restore, L"fail|GetFileAttributesW|.restored|1|1|5");
    EXPECT_EQ(EXIT_REPOSITORY, unknown.exitCode) << unknown.out;
    EXPECT_EQ(3u, ReadFileBytes(file).size());

    restore.push_back(L"--overwrite");
    EXPECT_EQ(EXIT_OK, Run(restore).exitCode);
    EXPECT_TRUE(Contents() == ReadFileBytes(file));
    DeleteFileW(file.c_str());
}

TEST_F(VtBackupUsage, AFileWithThePartialNameIsNotReplacedEither)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    ASSERT_EQ(EXIT_OK, Backup().exitCode);
    const std::wstring file = repository + L".restored";
    WriteFileBytes(file + L".partial", {1, 2, 3});
    std::vector<std::wstring> restore = Arguments(L"restore", L"App", &volume);
    restore.insert(restore.end(), {L"--to", file});
    const Result result = Run(restore);
    EXPECT_EQ(EXIT_USAGE, result.exitCode) << result.out;
    EXPECT_NE(std::string::npos, result.message.find("delete it, or add --overwrite")) << result.message;
    EXPECT_EQ(3u, ReadFileBytes(file + L".partial").size());
    EXPECT_FALSE(Exists(file));
    restore.push_back(L"--overwrite");
    EXPECT_EQ(EXIT_OK, Run(restore).exitCode);
    EXPECT_TRUE(Contents() == ReadFileBytes(file));
    DeleteFileW(file.c_str());
}

TEST_F(VtBackupUsage, AFileThatComesToBeWhileAReportIsMadeIsNotReplaced)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    const std::wstring file = repository + L".html";
    const std::vector<std::wstring> report = {L"report", L"--json", L"--repo",     repository,
                                              L"--html", file,      L"--simulate", machine.directory()};
    const Result result = RunWith(report, L"MoveFileExW|.html", [&](Process&) { WriteFileBytes(file, {1, 2, 3}); });
    EXPECT_EQ(EXIT_USAGE, result.exitCode) << result.out;
    EXPECT_EQ(3u, ReadFileBytes(file).size());
    EXPECT_FALSE(Exists(file + L".tmp"));
    DeleteFileW(file.c_str());
    WriteFileBytes(file + L".tmp", {1, 2, 3});
    EXPECT_EQ(EXIT_USAGE, Run(report).exitCode);
    EXPECT_EQ(3u, ReadFileBytes(file + L".tmp").size());
    DeleteFileW((file + L".tmp").c_str());
}

TEST_F(VtBackupUsage, ATemporaryFileThatSomebodyMakesWhileAReportIsMadeStays)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    const std::wstring file = repository + L".html";
    const std::wstring temporary = file + L".tmp";
    const Result result =
        RunWith({L"report", L"--json", L"--repo", repository, L"--html", file, L"--simulate", machine.directory()},
                L"CreateFileW|.html.tmp", [&](Process&) {
                    WriteFileBytes(temporary, {1, 2, 3});
                });
    EXPECT_EQ(EXIT_USAGE, result.exitCode) << result.out;
    ASSERT_TRUE(Exists(temporary));
    EXPECT_EQ(3u, ReadFileBytes(temporary).size());
    EXPECT_FALSE(Exists(file));
    DeleteFileW(temporary.c_str());
}

TEST_F(VtBackupUsage, ARestoreOntoTheVolumeOfItsRepositoryIsRefused)
{
    wchar_t root[MAX_PATH] = {};
    ASSERT_TRUE(GetVolumePathNameW(repository.c_str(), root, MAX_PATH));
    // What the program does there from here on, it does on this volume.
    const vtfltsim::Volume target = machine.AddVolume(LENGTH, BLOCK, root);
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    ASSERT_EQ(EXIT_OK, Backup().exitCode);
    std::vector<std::wstring> restore = Arguments(L"restore", L"App", &volume);
    restore.insert(restore.end(), {L"--to", target.guid});
    const Result result = Run(restore);
    EXPECT_EQ(EXIT_USAGE, result.exitCode) << result.out;
    EXPECT_NE(std::string::npos, result.message.find("the repository lies on volume")) << result.message;
}

TEST_F(VtBackupUsage, ARestoreOntoAVolumeReplacesAllOfIt)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    ASSERT_EQ(EXIT_OK, Backup().exitCode);
    const std::vector<std::uint8_t> before = Contents();
    for (std::uint64_t block = 0; block < 250; block += 7)
        Write(block, 0xEE); // also where the backup holds zeros
    std::vector<std::wstring> restore = Arguments(L"restore", L"App", &volume);
    restore.insert(restore.end(), {L"--to", volume.guid});
    const Result restored = Run(restore);
    EXPECT_EQ(EXIT_OK, restored.exitCode);
    EXPECT_NE(std::string::npos, restored.err.find("has to be made with --verify")) << restored.err;
    EXPECT_TRUE(before == Contents());
    const Result next = Backup();
    EXPECT_EQ("incremental", next.kind);
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupUsage, ARestoreOntoAShorterVolumeIsRefused)
{
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    ASSERT_EQ(EXIT_OK, Backup().exitCode);
    const vtfltsim::Volume shorter = machine.AddVolume(LENGTH - 1, BLOCK);
    std::vector<std::wstring> restore = Arguments(L"restore", L"App", &volume);
    restore.insert(restore.end(), {L"--to", shorter.guid});
    EXPECT_EQ(EXIT_USAGE, Run(restore).exitCode);
}

} // namespace
