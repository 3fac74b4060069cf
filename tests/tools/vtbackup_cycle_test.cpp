// The cycle: each way in which an application could lose a change, as a story with its right end.
#include "support/child.h"
#include "tools/vtbackup_test.h"

using namespace vtbackup_test;

namespace {

constexpr wchar_t COUNT_KEY[] = L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTFltMgr\\"
                                L"{533C5B84-EC70-11D2-9505-00C04F79DEAF}";

class VtBackupCycle : public VtBackupTest {
protected:
    VtBackupCycle()
    {
        EXPECT_EQ(EXIT_OK, Init().exitCode);
        const Result first = Backup();
        EXPECT_EQ("full", first.kind) << first.err;
        EXPECT_TRUE(first.Has("first-backup"));
    }

    void ExpectIncremental(const Result& result, std::uint64_t blocks) const
    {
        EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
        EXPECT_EQ("incremental", result.kind);
        EXPECT_TRUE(result.reasons.empty());
        EXPECT_EQ(blocks, result.blocksStored);
        EXPECT_TRUE(result.reported);
    }
    void ExpectVerify(const Result& result, const char* reason) const
    {
        EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
        EXPECT_EQ("verify", result.kind);
        EXPECT_TRUE(result.Has(reason)) << result.out;
    }

    // Writes a block of the snapshot itself, which its tracking sees.
    void Scribble(std::uint64_t block, std::uint8_t value) const
    {
        const std::vector<std::uint8_t> bytes(BLOCK, value);
        vtfltsim::Check("write",
                        VTFltSimWriteSnapshot(machine.handle(), OnlySnapshot(), block * BLOCK, bytes.data(), BLOCK));
    }

    const std::wstring beforePrepare = L"DeviceIoControl|0xB0000015";
    const std::wstring beforeFetch = L"DeviceIoControl|0xB0000002";
};

TEST_F(VtBackupCycle, AnIncrementalBackupReadsAndStoresJustTheChangedBlocks)
{
    Write(20, 0xAA);
    Write(200, 0xBB);
    machine.Write(volume, 256ull * BLOCK, std::vector<std::uint8_t>(1000, 0xCC)); // the last block is shorter
    const Result result = Backup();
    ExpectIncremental(result, 3);
    EXPECT_EQ(2u * BLOCK + 1000, result.bytesRead);
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupCycle, NoChangeIsAnEmptyIncrementalBackup)
{
    const Result result = Backup();
    ExpectIncremental(result, 0);
    EXPECT_EQ(0u, result.bytesRead);
}

TEST_F(VtBackupCycle, EveryPastBackupCanBeRestored)
{
    std::vector<std::vector<std::uint8_t>> states = {Contents()};
    for (std::uint8_t i = 1; i <= 4; ++i) {
        Write(20 + i, 0); // becomes zero
        Write(100, i);
        ASSERT_EQ(EXIT_OK, Backup().exitCode);
        states.push_back(Contents());
    }
    for (std::uint64_t i = 0; i < states.size(); ++i)
        EXPECT_TRUE(states[i] == Restored(i + 1)) << "backup " << i + 1;
}

TEST_F(VtBackupCycle, AWriteBetweenSnapshotAndFetchBelongsToTheNextBackup)
{
    Write(30, 0x11);
    const std::vector<std::uint8_t> atSnapshot = Contents();
    const Result result = BackupWith(beforeFetch, [&](Process&) { Write(30, 0x22); });
    ExpectIncremental(result, 1);
    EXPECT_TRUE(atSnapshot == Restored());
    ExpectIncremental(Backup(), 1);
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupCycle, AVolumeThatLostTrackingIsReadWhole)
{
    Write(40, 0x11);
    vtfltsim::Check("lose", VTFltSimLoseTracking(machine.handle(), volume.guid.c_str()));
    ExpectVerify(Backup(), "verify-required");
    EXPECT_TRUE(Contents() == Restored());
    ExpectIncremental(Backup(), 0); // the mark is off
}

TEST_F(VtBackupCycle, TrackingLostBetweenTheQuestionAndTheSnapshotMakesThisBackupAVerify)
{
    Write(40, 0x11);
    const Result result = BackupWith(beforePrepare, [&](Process&) {
        Write(41, 0x12);
        vtfltsim::Check("lose", VTFltSimLoseTracking(machine.handle(), volume.guid.c_str()));
    });
    ExpectVerify(result, "tracking-lost-meanwhile");
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupCycle, TrackingLostBehindTheSnapshotMakesTheNextBackupAVerifyToo)
{
    const Result result = BackupWith(beforeFetch, [&](Process&) {
        Write(42, 0x13); // not in the snapshot, and forgotten by the driver
        vtfltsim::Check("lose", VTFltSimLoseTracking(machine.handle(), volume.guid.c_str()));
    });
    ExpectVerify(result, "tracking-lost-meanwhile");
    ExpectVerify(Backup(), "tracking-lost-meanwhile");
    EXPECT_TRUE(Contents() == Restored());
    ExpectIncremental(Backup(), 0);
}

// A silent driver hands no list out, with result 0.
TEST_F(VtBackupCycle, ADriverThatIsSilentForAQuestionIsNotOneThatLostNothing)
{
    machine.SetService(VTFLTSIM_SERVICE_ABSENT); // or the driver would be reinstalled
    const struct {
        int from; // the how-maniest look for the driver is the first that finds none; from 6 on behind the snapshot
        int count;
    } silences[] = {{4, 1}, {5, 1}, {6, 1}, {7, 1}, {8, 1}, {9, 1}, {5, 2}, {6, 2}, {6, 100}};
    std::uint8_t value = 0x60;
    for (const auto& silence : silences) {
        Write(41, ++value);
        const Result result = BackupWith(
            beforePrepare,
            [&](Process&) { vtfltsim::Check("lose", VTFltSimLoseTracking(machine.handle(), volume.guid.c_str())); },
            L";fail|CreateFileW|\\\\.\\VTFltMgr|" + std::to_wstring(silence.from) + L"|" +
                std::to_wstring(silence.count) + L"|2");
        ASSERT_EQ(EXIT_OK, result.exitCode) << result.out;
        EXPECT_EQ("verify", result.kind) << silence.from << ", " << silence.count;
        EXPECT_TRUE(Contents() == Restored()) << silence.from << ", " << silence.count;
        EXPECT_EQ(EXIT_OK, Backup().exitCode); // takes what is left of the loss
    }
}

TEST_F(VtBackupCycle, ADriverThatIsSilentInTheFirstQuestionEndsTheBackup)
{
    machine.SetService(VTFLTSIM_SERVICE_ABSENT);
    Write(41, 0x61);
    vtfltsim::Check("lose", VTFltSimLoseTracking(machine.handle(), volume.guid.c_str()));
    for (const wchar_t* count : {L"3", L"100"}) {
        const Result result = Backup(L"App", std::wstring(L"fail|CreateFileW|\\\\.\\VTFltMgr|2|") + count + L"|2");
        EXPECT_EQ(EXIT_DEVICE, result.exitCode) << result.out;
        EXPECT_FALSE(Exists(BackupFile(2, L"")));
    }
    ExpectVerify(Backup(), "verify-required");
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupCycle, ABitmapThatMayBeShortMakesTheWholeVolumeBeReadAtOnce)
{
    for (const wchar_t* which : {L"child", L"base"}) {
        Write(50, static_cast<std::uint8_t>(which[0]));
        const Result result = BackupWith(beforePrepare, [&](Process&) {
            WriteFileBytes(BitmapFile(which), {'r', 'u', 'b', 'b', 'i', 's', 'h'});
        });
        ExpectVerify(result, "bitmap-incomplete");
        EXPECT_FALSE(result.Has("verify-required")); // it came after the question
        EXPECT_TRUE(Contents() == Restored());
        ExpectIncremental(Backup(), 0);
    }
}

TEST_F(VtBackupCycle, AMissingBitmapFileMakesTheWholeVolumeBeRead)
{
    Write(51, 0x31);
    DeleteFileW(BitmapFile(L"child").c_str());
    ExpectVerify(Backup(), "bitmap-incomplete");
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupCycle, ABitmapFileThatCannotBeReadDoesNotStandInTheWayOfABackup)
{
    Write(52, 0x32);
    std::vector<std::uint8_t> file = ReadFileBytes(BitmapFile(L"child"));
    ASSERT_GT(file.size(), 1000u);
    file.resize(1000); // its header still promises all of it
    WriteFileBytes(BitmapFile(L"child"), file);
    const Result result = Backup();
    EXPECT_EQ(EXIT_NOT_REPORTED, result.exitCode);
    EXPECT_FALSE(result.reported);
    EXPECT_TRUE(result.Has("bitmap-unavailable"));
    EXPECT_EQ(
        "VTFltGetBitmap failed: error 0xffffffff; if this goes on, \"vtfltctl doctor\" says whose file is damaged, and "
        "\"vtbackup init --reset\" begins afresh",
        result.message);
    EXPECT_TRUE(Contents() == Restored());

    std::vector<std::wstring> reset = Arguments(L"init");
    reset.push_back(L"--reset");
    ASSERT_EQ(EXIT_OK, Run(reset).exitCode);
    Write(53, 0x33);
    ExpectVerify(Backup(), "bitmap-unavailable");
    EXPECT_TRUE(Contents() == Restored());
    ExpectIncremental(Backup(), 0);
}

TEST_F(VtBackupCycle, WhatWasWrittenIntoTheSnapshotComesFromTheVolumeWithTheNextBackup)
{
    Write(30, 0x44);
    std::vector<std::uint8_t> snapshot = Contents();
    const std::vector<std::uint8_t> scribble(BLOCK, 0x55);
    std::copy(scribble.begin(), scribble.end(), snapshot.begin() + 30 * BLOCK);
    const Result result = BackupWith(beforeFetch, [&](Process&) {
        vtfltsim::Check("write",
                        VTFltSimWriteSnapshot(machine.handle(), OnlySnapshot(), 30 * BLOCK, scribble.data(), BLOCK));
    });
    ExpectIncremental(result, 1);
    EXPECT_TRUE(result.json) << "the library's own line is among the data";
    EXPECT_EQ("handed-back", result.snapshotChanges);
    EXPECT_TRUE(snapshot == Restored());
    ExpectIncremental(Backup(), 1);
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupCycle, SnapshotChangesThatCannotBeHandedBackAreNoSuccess)
{
    Write(30, 0x44);
    const std::vector<std::uint8_t> scribble(BLOCK, 0x55);
    // The first write of the child bitmap clears it after the fetch, the second one takes the changes.
    const Result result = BackupWith(
        beforeFetch,
        [&](Process&) {
            vtfltsim::Check(
                "write", VTFltSimWriteSnapshot(machine.handle(), OnlySnapshot(), 31 * BLOCK, scribble.data(), BLOCK));
        },
        L";fail|WriteFile|VelVolTrc_child_|2|1|112");
    EXPECT_EQ(EXIT_NOT_REPORTED, result.exitCode) << result.out;
    EXPECT_EQ("failed", result.snapshotChanges);
    EXPECT_FALSE(result.reported);
    EXPECT_FALSE(Exists(BackupFile(2, L"reported")));
    ExpectVerify(Backup(), "snapshot-changes-lost");
    EXPECT_TRUE(Contents() == Restored());
    ExpectIncremental(Backup(), 0);
}

TEST_F(VtBackupCycle, SnapshotChangesThatCannotBeFetchedAreNoSuccess)
{
    const Result result = BackupWith(beforeFetch, [&](Process&) {
        VTFLTSIM_SNAPSHOT_INFO info = {};
        info.size = sizeof(info);
        vtfltsim::Check("info", VTFltSimGetSnapshotInfo(machine.handle(), OnlySnapshot(), &info));
        machine.FailRequest(GET_BITMAP, ERROR_CRC, info.devicePath);
    });
    EXPECT_EQ(EXIT_NOT_REPORTED, result.exitCode) << result.out;
    EXPECT_FALSE(Exists(BackupFile(2, L"reported")));
    ExpectVerify(Backup(), "snapshot-changes-lost");
    EXPECT_TRUE(Exists(BackupFile(3, L"reported")));
}

// Taken for a snapshot that nobody tracks, the copy of what somebody wrote into it would stay.
TEST_F(VtBackupCycle, OneRefusalDoesNotMakeATrackedSnapshotAnUntrackedOne)
{
    const struct {
        const wchar_t* before; // this call the snapshot is written to, and the refusal planned
        DWORD request;
        DWORD error;
    } refusals[] = {
        {L"DeviceIoControl|0xB0000002", GET_BITMAP, ERROR_INVALID_FUNCTION},
        {L"DeviceIoControl|0xB0000002", GET_BITMAP, ERROR_NOT_SUPPORTED},
        {L"DeviceIoControl|0xB0000002", GET_BLOCK_SIZE, ERROR_INVALID_FUNCTION},
        {L"CreateFileW|HarddiskVolumeShadowCopy", GET_BLOCK_SIZE, ERROR_INVALID_FUNCTION}, // the first question of all
    };
    std::uint8_t value = 0x60;
    for (const auto& refusal : refusals) {
        Write(30, ++value);
        const Result result = BackupWith(refusal.before, [&](Process&) {
            Scribble(30, 0x55);
            machine.FailRequest(refusal.request, refusal.error, SnapshotPath().c_str());
        });
        EXPECT_EQ(EXIT_NOT_REPORTED, result.exitCode) << result.out;
        EXPECT_EQ("failed", result.snapshotChanges);
        ExpectVerify(Backup(), "snapshot-changes-lost");
        EXPECT_TRUE(Contents() == Restored());
        ExpectIncremental(Backup(), 0);
    }
}

TEST_F(VtBackupCycle, ASnapshotWhoseTrackingEndsIsNotOneThatNobodyTracks)
{
    const Result result = BackupWith(beforeFetch, [&](Process&) {
        Scribble(30, 0x55);
        for (const DWORD request : {GET_BITMAP, GET_BLOCK_SIZE})
            machine.FailRequest(request, ERROR_INVALID_FUNCTION, SnapshotPath().c_str(), 1, 0);
    });
    EXPECT_EQ(EXIT_NOT_REPORTED, result.exitCode) << result.out;
    EXPECT_EQ("failed", result.snapshotChanges);
    vtfltsim::Check("clear", VTFltSimClearFaults(machine.handle()));
    ExpectVerify(Backup(), "snapshot-changes-lost");
}

TEST_F(VtBackupCycle, ADriverThatGoesAwayIsNoSnapshotThatNobodyTracks)
{
    machine.SetService(VTFLTSIM_SERVICE_ABSENT); // or the driver would be reinstalled
    Write(30, 0x61);
    const Result result =
        BackupWith(L"ReadFile|HarddiskVolumeShadowCopy", [&](Process&) { machine.SetDriver(VTFLTSIM_DRIVER_ABSENT); });
    EXPECT_EQ(EXIT_DEVICE, result.exitCode) << result.out;
    machine.SetDriver(VTFLTSIM_DRIVER_WORKING);
    EXPECT_EQ(EXIT_OK, Backup().exitCode);
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupCycle, WithoutTrackedSnapshotsTheBackupSaysSo)
{
    std::vector<std::wstring> other = Arguments(L"init", L"Other");
    other.push_back(L"--no-monitor");
    ASSERT_EQ(EXIT_OK, Run(other).exitCode);
    machine.SetFilters({}, SNAPSHOT_CLASS);
    const Result result = Backup();
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ("untracked", result.snapshotChanges);
    // It asked for it, so somebody ended it.
    for (const std::string& text : {result.snapshotNote, result.err})
        EXPECT_NE(std::string::npos, text.find("\"vtfltctl monitor on\" asks again")) << text;
    const Result unasked = Backup(L"Other");
    EXPECT_EQ("untracked", unasked.snapshotChanges);
    EXPECT_EQ("", unasked.snapshotNote);
    EXPECT_EQ("", unasked.err);
}

TEST_F(VtBackupCycle, ABlockSizeChangeMakesTheNextBackupFull)
{
    Write(60, 0x61);
    vtfltsim::Check("block size", VTFltSimSetBlockSize(machine.handle(), volume.guid.c_str(), 8192));
    const Result result = Backup();
    EXPECT_EQ("full", result.kind);
    EXPECT_TRUE(result.Has("block-size-changed"));
    EXPECT_TRUE(Contents() == Restored());
    Write(61, 0x62);
    ExpectIncremental(Backup(), 1);
    EXPECT_TRUE(Contents() == Restored());
    EXPECT_EQ(LENGTH, Restored(1).size());
}

TEST_F(VtBackupCycle, ABlockSizeChangeInTheMiddleOfABackupLosesNothing)
{
    Write(62, 0x63);
    const Result result = BackupWith(beforeFetch, [&](Process&) {
        vtfltsim::Check("block size", VTFltSimSetBlockSize(machine.handle(), volume.guid.c_str(), 8192));
        Write(63, 0x64);
    });
    EXPECT_EQ("full", result.kind) << result.out;
    const Result next = Backup();
    EXPECT_EQ(EXIT_OK, next.exitCode) << next.err;
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupCycle, AGrownAndAShrunkVolumeAreCompared)
{
    for (const std::uint64_t length : {LENGTH + 300000, LENGTH - 500000, LENGTH + 100}) {
        vtfltsim::Check("resize", VTFltSimResizeVolume(machine.handle(), volume.guid.c_str(), length));
        machine.Write(volume, length - 10, {1, 2, 3});
        ExpectVerify(Backup(), "length-changed");
        EXPECT_TRUE(Contents() == Restored());
        ExpectIncremental(Backup(), 0);
    }
}

TEST_F(VtBackupCycle, AResizeInTheMiddleOfABackupLosesNothing)
{
    Write(64, 0x65);
    const Result result = BackupWith(beforeFetch, [&](Process&) {
        vtfltsim::Check("resize", VTFltSimResizeVolume(machine.handle(), volume.guid.c_str(), LENGTH + 70000));
        machine.Write(volume, LENGTH + 60000, {9});
    });
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ(EXIT_OK, Backup().exitCode);
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupCycle, AVolumeThatShrinksBehindTheSnapshotIsStoredAsTheSnapshotIs)
{
    Write(250, 0x66); // the bitmap of the shorter volume will not speak of it
    const std::vector<std::uint8_t> atSnapshot = Contents();
    const Result result = BackupWith(beforeFetch, [&](Process&) {
        vtfltsim::Check("resize", VTFltSimResizeVolume(machine.handle(), volume.guid.c_str(), 600000));
    });
    ExpectVerify(result, "geometry-changed-meanwhile");
    EXPECT_TRUE(atSnapshot == Restored());
    ExpectVerify(Backup(), "length-changed");
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupCycle, TwoRepositoriesOfOneApplicationLoseNothing)
{
    const std::wstring first = repository;
    Write(70, 0x71);
    repository = first + L"-second";
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    EXPECT_EQ("full", Backup().kind); // takes the change of block 70, and reports it
    RemoveTree(repository);
    repository = first;
    ExpectVerify(Backup(), "changes-taken-elsewhere");
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupCycle, ARepositoryThatWasPutBackFromAnOlderCopyIsVerified)
{
    Write(71, 0x72);
    ASSERT_EQ(EXIT_OK, Backup().exitCode);
    RemoveTree(BackupFile(2, L""));
    ExpectVerify(Backup(), "changes-taken-elsewhere");
    EXPECT_TRUE(Contents() == Restored());
}

// The chain ends with a backup of which this machine knows nothing, although it holds the last one that it knows.
TEST_F(VtBackupCycle, AMachineThatWasRolledBackWhileItsRepositoryWasNotIsVerified)
{
    std::wstring note;
    WIN32_FIND_DATAW found = {};
    const std::wstring state = machine.directory() + L"\\vtbackup";
    const HANDLE search = FindFirstFileW((state + L"\\*").c_str(), &found);
    ASSERT_NE(INVALID_HANDLE_VALUE, search);
    do {
        if (found.cFileName[0] != L'.')
            note = state + L"\\" + found.cFileName + L"\\" + volume.guid + L".success.json";
    } while (FindNextFileW(search, &found));
    FindClose(search);
    const std::vector<std::uint8_t> earlier = ReadFileBytes(note);
    ASSERT_FALSE(earlier.empty());
    ExpectIncremental(Backup(), 0);
    WriteFileBytes(note, earlier);
    ExpectVerify(Backup(), "changes-taken-elsewhere");
    EXPECT_TRUE(Contents() == Restored());
    ExpectIncremental(Backup(), 0);
}

TEST_F(VtBackupCycle, AVolumeThatShrankAndGrewAgainIsVerified)
{
    Write(64, 0x66);
    ASSERT_EQ(EXIT_OK, Backup().exitCode);
    vtfltsim::Check("resize", VTFltSimResizeVolume(machine.handle(), volume.guid.c_str(), LENGTH / 2));
    vtfltsim::Check("resize", VTFltSimResizeVolume(machine.handle(), volume.guid.c_str(), LENGTH));
    ExpectVerify(Backup(), "verify-required");
    EXPECT_TRUE(Contents() == Restored());
}

// An export that answers 0 for "not registered" answers so too when it could not ask.
TEST_F(VtBackupCycle, AResetBeginsAfreshOrSaysThatItDidNot)
{
    machine.SetService(VTFLTSIM_SERVICE_ABSENT); // or the driver would be reinstalled
    std::vector<std::wstring> reset = Arguments(L"init");
    reset.push_back(L"--reset");
    std::vector<std::wstring> plans = {L"fail|CreateFileW|\\\\.\\VTFltMgr|2|1|2"}; // the driver is silent
    for (int read = 1; read <= 9; ++read)                                          // the list grows while it is read
        plans.push_back(L"fail|RegQueryValueExW|RegisteredAppIDs|" + std::to_wstring(read) + L"|1|234");
    for (const std::wstring& plan : plans) {
        const Result result = Run(reset, plan);
        if (result.exitCode == EXIT_OK) {
            ExpectVerify(Backup(), "changes-taken-elsewhere");
            continue;
        }
        // It was unregistering that could not read the list; the library says so, or that the application is not on it.
        EXPECT_NE(plans.front(), plan);
        EXPECT_TRUE(result.exitCode == EXIT_DEVICE || result.exitCode == EXIT_REFUSED) << result.out;
        ASSERT_EQ(EXIT_OK, Init().exitCode);
        EXPECT_EQ(EXIT_OK, Backup().exitCode);
    }
}

TEST_F(VtBackupCycle, AnApplicationThatWasUnregisteredInBetweenIsVerified)
{
    std::vector<std::wstring> undo = Arguments(L"init");
    undo.push_back(L"--undo");
    ASSERT_EQ(EXIT_OK, Run(undo).exitCode);
    Write(72, 0x73);
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    const Result result = Backup();
    EXPECT_EQ("verify", result.kind) << result.out;
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupCycle, TwoApplicationsEachGetEveryChange)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    ASSERT_EQ("full", Backup(L"Second").kind);
    Write(80, 1);
    ExpectIncremental(Backup(), 1);
    Write(81, 2);
    ExpectIncremental(Backup(L"Second"), 2);
    EXPECT_TRUE(Contents() == Restored(0, L"Second"));
    ExpectIncremental(Backup(), 1);
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupCycle, TheSnapshotIsGoneAfterwardsUnlessItIsToBeKept)
{
    VTFLTSIM_SNAPSHOT_INFO info = {};
    info.size = sizeof(info);
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_MORE_ITEMS), VTFltSimEnumSnapshot(machine.handle(), 0, &info));
    machine.FailRequest(GET_BITMAP, ERROR_CRC, volume.Path().c_str(), 1, 0);
    EXPECT_EQ(EXIT_NOT_REPORTED, Backup().exitCode);
    vtfltsim::Check("clear", VTFltSimClearFaults(machine.handle()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_MORE_ITEMS), VTFltSimEnumSnapshot(machine.handle(), 0, &info));
    std::vector<std::wstring> keep = Arguments(L"backup", L"App", &volume);
    keep.push_back(L"--keep-snapshot");
    EXPECT_EQ(EXIT_OK, Run(keep).exitCode);
    EXPECT_EQ(0u, VTFltSimEnumSnapshot(machine.handle(), 0, &info));
}

// ---- locks

TEST_F(VtBackupCycle, ASecondBackupOfTheVolumeIsBusyAndSaysWhoHoldsIt)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    const vtfltsim::Volume other = machine.AddVolume(65536, BLOCK);
    const Result result = BackupWith(beforeFetch, [&](Process& holder) {
        const Result second = Backup(L"Second");
        EXPECT_EQ(EXIT_BUSY, second.exitCode) << second.out;
        EXPECT_EQ("busy", second.result);
        EXPECT_NE(std::string::npos, second.message.find("process " + std::to_string(holder.Id())));
        EXPECT_NE(std::string::npos, second.message.find("\"App\""));
        // The same application on another volume is busy too, another application there is not.
        EXPECT_EQ(EXIT_BUSY, Run(Arguments(L"backup", L"App", &other)).exitCode);
        EXPECT_EQ(EXIT_OK, Run(Arguments(L"backup", L"Second", &other)).exitCode);
        // Registering would give this backup's changes no place to go.
        EXPECT_EQ(EXIT_BUSY, Init(L"Third").exitCode);
    });
    EXPECT_EQ(EXIT_OK, result.exitCode);
    EXPECT_EQ(EXIT_OK, Init(L"Third").exitCode);
}

TEST_F(VtBackupCycle, ABackupThatRegistersARegisteredApplicationWaitsForNoOtherVolume)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    const vtfltsim::Volume other = machine.AddVolume(65536, BLOCK);
    const Result second = RunWith(Arguments(L"backup", L"Second", &other), beforeFetch, [&](Process&) {
        std::vector<std::wstring> arguments = Arguments(L"backup", L"App", &volume);
        arguments.push_back(L"--register");
        ExpectIncremental(Run(arguments), 0);
    });
    EXPECT_EQ(EXIT_OK, second.exitCode) << second.err;
}

TEST_F(VtBackupCycle, AnUndoThatMeetsABusyVolumeTakesNothingBack)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    std::vector<std::wstring> undo = Arguments(L"init");
    undo.push_back(L"--undo");
    const auto count = [this] { return machine.ReadValue(COUNT_KEY, L"SnapshotMonitorCount"); };
    const std::vector<std::uint8_t> before = count();
    ASSERT_FALSE(before.empty());
    const std::vector<std::uint8_t> filters = machine.ReadValue(SNAPSHOT_CLASS, L"UpperFilters");
    const Result second = RunWith(Arguments(L"backup", L"Second", &volume), beforeFetch, [&](Process&) {
        const Result result = Run(undo);
        EXPECT_EQ(EXIT_BUSY, result.exitCode) << result.out;
        EXPECT_TRUE(before == count());
        EXPECT_TRUE(filters == machine.ReadValue(SNAPSHOT_CLASS, L"UpperFilters"));
    });
    EXPECT_EQ(EXIT_OK, second.exitCode) << second.err;
    ExpectIncremental(Backup(), 0);
    ASSERT_EQ(EXIT_OK, Init().exitCode);
    EXPECT_TRUE(before == count()) << "the request was still noted";
    EXPECT_EQ(EXIT_OK, Run(undo).exitCode);
    EXPECT_FALSE(before == count());
}

// In between the application would be gone, and busy volumes could end the reset there.
TEST_F(VtBackupCycle, NoBackupComesBetweenTheStepsOfAReset)
{
    ASSERT_EQ(EXIT_OK, Init(L"Second").exitCode);
    const std::wstring name = vttest::UniqueName(L"vtbackup_reset");
    const vtflt::UniqueHandle reached = vttest::NamedEvent(name + L".reached");
    const vtflt::UniqueHandle go = vttest::NamedEvent(name + L".go");
    std::vector<std::wstring> reset = Arguments(L"init");
    reset.push_back(L"--reset");
    Process process(reset, L"pause|CreateMutexW|VTBackup.Simulated|3|" + name);
    const HANDLE either[] = {reached.get(), process.Get()};
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(2, either, FALSE, INFINITE));
    EXPECT_EQ(EXIT_BUSY, Backup(L"Second").exitCode);
    SetEvent(go.get());
    EXPECT_EQ(EXIT_OK, process.Finish().exitCode);
    ExpectVerify(Backup(), "changes-taken-elsewhere");
}

TEST_F(VtBackupCycle, ALockWhoseHolderDiedIsTakenOver)
{
    Write(90, 1);
    BackupWith(beforeFetch, [](Process& holder) { holder.Terminate(); });
    ExpectIncremental(Backup(), 1);
    EXPECT_TRUE(Contents() == Restored());
}

} // namespace
