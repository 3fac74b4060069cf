// Memory that runs out behind the exports, where only the library's own sizes and functions find the place.
#include "api/driver_health.h"
#include "api/library.h"
#include "apps/application_registry.h"
#include "apps/bitmap_maintenance.h"
#include "apps/resync_lists.h"
#include "bitmap/container.h"
#include "registry/multi_string_value.h"
#include "support/driver_expect.h"

#include <algorithm>

namespace vttest {
namespace {

class ShortMemory : public MachineTest {
protected:
    Volume volume = machine.AddVolume(8 * 65536);
};

TEST_F(ShortMemory, AVerifyQueryWithoutAContainerCannotLookAtTheFilesAndAnswersNo)
{
    vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY, WideNumber(sizeof(vtflt::CBitmapContainer)).c_str());
    EXPECT_EQ(vtflt::IsVerifyRequired(L"app1", volume.Root()), 0u);
    EXPECT_EQ(VTFltSimGetCallFaultHits(), 1u);
    VTFltSimClearCallFaults();
    log.ExpectExactly({{0, 8, L"IsVerifyRequired: pTempContainer is NULL!!"}}, 1);
    ExpectNothingLeftOpen();
    // The files are missing, which is what a query with memory says.
    EXPECT_EQ(vtflt::IsVerifyRequired(L"app1", volume.Root()), 1u);
}

TEST_F(ShortMemory, AnEntryThatCouldNotBeAddedIsNeverASuccessWhateverTheAllocationLeftAsError)
{
    SetList(L"SOFTWARE\\List", L"Entries", {L"An entry that is there"});
    log.SetThreshold(0);
    bool refused = false;
    for (DWORD nth = 1;; ++nth) {
        vtfltsim::Check("VTFltSimFailCall", VTFltSimFailCall(L"malloc", nullptr, nth, 1, ERROR_SUCCESS));
        const DWORD result = vtflt::Guarded(
            L"a test", [] { return vtflt::AddMultiSZRegistryEntry(L"SOFTWARE\\List", L"Entries", L"A second entry"); });
        const bool struck = VTFltSimGetCallFaultHits() != 0;
        VTFltSimClearCallFaults();
        ExpectNothingLeftOpen();
        const std::size_t stored = List(L"SOFTWARE\\List", L"Entries").size();
        if (!struck) {
            EXPECT_EQ(result, 0u);
            EXPECT_EQ(stored, 2u);
            break;
        }
        refused = refused || result != 0;
        EXPECT_TRUE(result == 8 || stored == 2) << nth;
    }
    EXPECT_TRUE(refused);
}

// Of a list of one entry of 101 characters: 206 bytes with both NULs, and 4 and the entry's more with another one.
TEST_F(ShortMemory, WhatAListNeedsIsLoggedWithItsSize)
{
    const std::wstring entry(101, L'x');
    const auto expect = [&](const wchar_t* size, DWORD code, const wchar_t* record, auto&& call) {
        log.Clear();
        vtfltsim::FailCall(L"malloc", ERROR_OUTOFMEMORY, size);
        const DWORD result = call();
        EXPECT_EQ(1u, VTFltSimGetCallFaultHits()) << Narrow(record);
        VTFltSimClearCallFaults();
        EXPECT_EQ(code, result) << Narrow(record);
        log.ExpectLogged(0, code, record);
        ExpectNothingLeftOpen();
    };
    SetList(L"SOFTWARE\\List", L"Entries", {entry});
    const auto add = [] { return vtflt::AddMultiSZRegistryEntry(L"SOFTWARE\\List", L"Entries", L"new"); };
    expect(L"206", ERROR_OUTOFMEMORY, L"Allocate memory 206 bytes failed", add);
    expect(L"216", ERROR_OUTOFMEMORY, L"Allocate memory 206 bytes failed second time", add);
    const auto remove = [&] { return vtflt::RemoveMultiSZRegistryEntry(L"SOFTWARE\\List", L"Entries", entry.c_str()); };
    expect(L"206", ERROR_OUTOFMEMORY, L"Allocate 206 byte memory failed in RemoveMutliSZRegistryValue", remove);
    EXPECT_EQ(List(L"SOFTWARE\\List", L"Entries"), std::vector<std::wstring>{entry});
    SetList(APP_IDS_KEY, APP_IDS_VALUE, {entry});
    std::vector<std::wstring> read;
    expect(L"206", ERROR_NOT_ENOUGH_MEMORY, L"ReadMutliSZRegistryValue: Allocate memory 206 bytes failed",
           [&] { return vtflt::ReadValueEntry(read); });
}

TEST_F(ShortMemory, AVolumeWithoutAContainerDoesNotKeepTheOthersBitmaps)
{
    const Volume second = machine.AddVolume(8 * 65536);
    ASSERT_EQ(vtflt::ResetApplicationBitmaps(L"app1"), 0u);
    log.Clear();
    vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY, WideNumber(sizeof(vtflt::CBitmapContainer)).c_str());
    EXPECT_EQ(vtflt::RemoveApplicationBitmaps(L"app1"), 0u);
    EXPECT_EQ(VTFltSimGetCallFaultHits(), 1u);
    VTFltSimClearCallFaults();
    log.ExpectLogged(0, 8, L"RemoveApplicationBitmaps: pTempContainer is NULL!!");
    EXPECT_NE(FileExists(volume, BaseName(L"app1")), FileExists(second, BaseName(L"app1")))
        << "of the other volume they go";
    ExpectNothingLeftOpen();
}

TEST_F(ShortMemory, WithoutAContainerNoApplicationGetsBitmaps)
{
    vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY, WideNumber(sizeof(vtflt::CBitmapContainer)).c_str());
    EXPECT_EQ(vtflt::ResetApplicationBitmaps(L"app1"), 8u);
    EXPECT_EQ(VTFltSimGetCallFaultHits(), 1u);
    VTFltSimClearCallFaults();
    log.ExpectLogged(0, 8, L"ResetApplicationBitmaps::pTempContainer is NULL!!");
    log.ExpectNotLogged(L"ResetApplicationBitmaps: SUCCESS:: Bitmaps reset completed");
    EXPECT_FALSE(FileExists(volume, BaseName(L"app1")));
    ExpectNothingLeftOpen();
}

TEST_F(ShortMemory, ARegistrationThatCannotBeStoredFailsWithTheStoresError)
{
    const std::wstring appId = L"An application with a long name";
    bool cleanedUpWithoutMemory = false;
    for (DWORD nth = 1;; ++nth) {
        log.Clear();
        vtfltsim::FailCall(L"RegSetValueExW", ERROR_NOT_READY, vtflt::APPLICATION_IDS_VALUE);
        vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY, nullptr, nth);
        const DWORD result = vtflt::Guarded(L"a test", [&] { return vtflt::RegisterApplication(appId); });
        const DWORD hits = VTFltSimGetCallFaultHits();
        VTFltSimClearCallFaults();
        ExpectNothingLeftOpen();
        const bool stored = hits == 2 || result == ERROR_NOT_READY;
        EXPECT_EQ(stored ? DWORD{ERROR_NOT_READY} : DWORD{ERROR_NOT_ENOUGH_MEMORY}, result) << nth;
        cleanedUpWithoutMemory = cleanedUpWithoutMemory || hits == 2;
        if (hits == 1 && result == ERROR_NOT_READY)
            break;
    }
    EXPECT_TRUE(cleanedUpWithoutMemory);
    EXPECT_TRUE(RegisteredIds().empty());
}

// A driver that was taken away must be put back, whatever runs out in between.
TEST_F(ShortMemory, TheDriverIsNotUninstalledWithoutBeingInstalledAgain)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    machine.WriteValue(CBT_DRIVER_KEY, INSTALL_LOCATION, REG_SZ, TextBytes(L"D:\\A folder with a long name"));
    std::size_t before = 0;
    int installed = 0;
    ForEveryFailingAllocation([&] { before = UtilityCommands(machine).size(); },
                              [] { return vtflt::Guarded(L"a test", [] { return vtflt::VTFltInstall(); }); },
                              [&](DWORD) {
                                  const std::size_t run = UtilityCommands(machine).size() - before;
                                  EXPECT_TRUE(run == 0 || run == 2) << run;
                                  installed += run == 2 ? 1 : 0;
                              });
    EXPECT_GT(installed, 0);
}

TEST_F(ShortMemory, IsLogged)
{
    ASSERT_EQ(vtflt::RegisterApplication(L"app1"), 0u);
    log.Clear();
    vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(VTRegisterApplication(L"An application with a long name"), 8u);
    VTFltSimClearCallFaults();
    log.ExpectExactly({{0, 8, L"VTRegisterApplication: There is not enough memory for this operation."}});
}

TEST_F(ShortMemory, AWalkWithoutRoomForANameIsAWalkThatFails)
{
    ASSERT_EQ(vtflt::ResetApplicationBitmaps(L"app1"), 0u);
    bool brokenOff = false;
    ForEveryFailingAllocation(
        [&] { log.Clear(); },
        [&] {
            std::vector<std::wstring> volumes;
            return vtflt::Guarded(L"a test", [&] { return vtflt::EnumerateVolumes(volumes); });
        },
        [&](DWORD result) {
            EXPECT_TRUE(result == 0 || result == 8) << result;
            for (const LogRecord& record : log.Records())
                brokenOff = brokenOff || record.text == L"EnumerateVolumes: FindFirstVolumeW failed. Error code 8";
            ExpectNothingLeftOpen();
        });
    EXPECT_TRUE(brokenOff);
}

TEST_F(ShortMemory, NamesOfVolumesAreAppendedWithoutTheirTrailingBackslash)
{
    const Volume second = machine.AddVolume(8 * 65536);
    std::vector<std::wstring> volumes{L"before"};
    EXPECT_EQ(vtflt::EnumerateVolumes(volumes), 0u);
    EXPECT_EQ(volumes, (std::vector<std::wstring>{L"before", volume.Path(), second.Path()}));
}

// On the list, or without files: the next backup verifies either way.
TEST_F(ShortMemory, AMarkThatIsNotMadeLeavesNoFiles)
{
    ASSERT_EQ(vtflt::ResetApplicationBitmaps(L"app1"), 0u);
    const Bytes image = Base(volume, L"app1").image;
    vtflt::CBitmapContainer container;
    container.init(L"Volume" + volume.guid, L"app1");
    int unmarked = 0;
    ForEveryFailingAllocation(
        [&] {
            WriteFileBytes(volume, BaseName(L"app1"), image);
            WriteFileBytes(volume, ChildName(L"app1"), image);
            SetVerifyList(L"app1", {L"{11111111-2222-3333-4444-555555555555}"});
        },
        [&] { return container.AddVolumeToResyncList(); },
        [&](DWORD result) {
            EXPECT_EQ(VerifyList(L"app1").size(), result == 0 ? 2u : 1u) << result;
            EXPECT_EQ(FileExists(volume, BaseName(L"app1")), result == 0);
            EXPECT_EQ(FileExists(volume, ChildName(L"app1")), result == 0);
            unmarked += result == 8 ? 1 : 0;
        });
    EXPECT_GT(unmarked, 0);
}

// The steps of the report behind the mark are done all the same.
TEST_F(ShortMemory, ASuccessWhoseMarkCannotBeTakenOffClearsTheBitmap)
{
    ASSERT_EQ(vtflt::RegisterApplication(L"app1"), 0u);
    const std::wstring notTaken =
        L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Removing volume from application resync list, Volume" +
        volume.guid;
    Session session(OpenVolume(volume), volume.Root(), L"app1");
    ASSERT_EQ(session.Init(), 0u);
    bool stayed = false;
    ForEveryFailingAllocation(
        [&] {
            machine.TouchBlock(volume, 3);
            SetVerifyList(L"app1", {volume.guid, L"{11111111-2222-3333-4444-555555555555}"});
            ASSERT_NE(session.GetBitmap(), 8u);
            log.Clear();
        },
        [&] { return session.Success(); },
        [&](DWORD result) {
            for (const LogRecord& record : log.Records()) {
                if (record.text != notTaken)
                    continue;
                stayed = true;
                EXPECT_EQ(record.code, 8u);
                EXPECT_EQ(VerifyList(L"app1").size(), 2u);
                if (result == 0) {
                    EXPECT_TRUE(Base(volume, L"app1").Blocks().empty());
                }
            }
        });
    EXPECT_TRUE(stayed);
}

// The folder's name needs memory, and a file that could not be made is the step's failure then, too.
TEST_F(ShortMemory, ASuccessWhoseFolderCannotBeMadeSaysSo)
{
    ASSERT_EQ(vtflt::RegisterApplication(L"app1"), 0u);
    Session session(OpenVolume(volume), volume.Root(), L"app1");
    ASSERT_EQ(session.Init(), 0u);
    ASSERT_EQ(session.GetBitmap(), 0u);
    bool failed = false;
    ForEveryFailingAllocation(
        [&] {
            for (const std::wstring& name : {BaseName(L"app1"), ChildName(L"app1")}) {
                if (FileExists(volume, name))
                    RemoveFile(volume, name);
            }
            RemoveDirectoryW(RealPath(volume, L"VelVolTrc").c_str());
            log.Clear();
        },
        [&] { return session.Success(); },
        [&](DWORD result) {
            bool isSaid = false;
            bool isInTheWrite = false;
            for (const LogRecord& record : log.Records()) {
                isSaid = isSaid || record.text == L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Resetting the base "
                                                  L"bitmap. Next job will include the changes again.";
                isInTheWrite = isInTheWrite || record.text == L"CBitmapContainer::WriteBitMapToFile: There is not "
                                                              L"enough memory for this operation.";
            }
            EXPECT_FALSE(isInTheWrite && !isSaid);
            EXPECT_FALSE(isInTheWrite && result != 8) << result;
            failed = failed || isInTheWrite;
        });
    EXPECT_TRUE(failed);
}

TEST_F(ShortMemory, ADumpThatCannotBeNamedIsLoggedAndLeftOut)
{
    ASSERT_EQ(vtflt::RegisterApplication(L"app1"), 0u);
    SetDword(CBT_DRIVER_KEY, L"DumpBitmap", 1);
    Session session(OpenVolume(volume), volume.Root(), L"app1");
    ASSERT_EQ(session.Init(), 0u);
    ASSERT_EQ(session.GetBitmap(), 0u);
    Bytes changes;
    bool leftOut = false;
    ForEveryFailingAllocation(
        [&] {
            changes.assign(session.Buffer().size(), 0);
            log.Clear();
        },
        [&] { return session.SyncChanges(std::move(changes)); },
        [&](DWORD) {
            for (const LogRecord& record : log.Records())
                leftOut = leftOut || record.text ==
                                         L"CMultiBitmapManager::DumpBitMapToFile: There is not enough memory "
                                         L"for this operation.";
        });
    EXPECT_TRUE(leftOut);
}

TEST_F(ShortMemory, SnapshotChangesAreMergedThoughTheMarkCannotBeTakenOff)
{
    ASSERT_EQ(vtflt::RegisterApplication(L"app1"), 0u);
    const std::wstring notTaken = L"CMultiBitmapManager::VTDeviceIoControl: Failed to remove volume Volume" +
                                  volume.guid + L" from verify list. Next job will be verify backup.";
    Session session(OpenVolume(volume), volume.Root(), L"app1");
    ASSERT_EQ(session.Init(), 0u);
    ASSERT_EQ(session.GetBitmap(), 0u);
    Bytes changes(session.Buffer().size());
    changes[16] = 0x10; // block 3
    const std::wstring merged = L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS :: "
                                L"VTFLTCTL_SYNC_SNAPSHOT_CHANGES_TO_VOLUME_BITMAP";
    bool stayed = false;
    bool markedInDoubt = false;
    ForEveryFailingAllocation(
        [&] {
            SetVerifyList(L"app1", {L"{11111111-2222-3333-4444-555555555555}"});
            log.Clear();
        },
        [&] {
            return VTFltSynSnapshotChangeBitmapToVolume(session.Handle(), changes.data(),
                                                        static_cast<DWORD>(changes.size()));
        },
        [&](DWORD result) {
            const bool tried = std::any_of(log.Records().begin(), log.Records().end(),
                                           [&](const LogRecord& record) { return record.text == notTaken; });
            // Whether it was listed could not be asked: it is now, and stays so.
            if (!tried && result == 0 && VerifyList(L"app1").size() == 2) {
                markedInDoubt = true;
                log.ExpectLogged(2, 0, merged);
            }
            for (const LogRecord& record : log.Records()) {
                if (record.text != notTaken)
                    continue;
                stayed = true;
                EXPECT_EQ(record.code, 8u);
                EXPECT_EQ(result, 0u);
                EXPECT_EQ(VerifyList(L"app1").size(), 2u);
                EXPECT_EQ(Child(volume, L"app1").Blocks(), std::vector<std::uint64_t>{3});
            }
        });
    EXPECT_TRUE(stayed);
    EXPECT_TRUE(markedInDoubt);
}

} // namespace
} // namespace vttest
