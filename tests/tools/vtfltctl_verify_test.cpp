// verify list, add, remove, replicate and rebuild.
#include "tools/vtfltctl_test.h"

#include "common/backup_locks.h"
#include "support/child.h"

#include <algorithm>
#include <cwctype>

namespace vtfltctl_test {
namespace {

using nlohmann::json;
using vtlog_test::Utf8;

using List = std::vector<std::wstring>;

constexpr wchar_t VERIFY[] = L"DeviceListForReSyncNightly.Last";
constexpr wchar_t PENDING[] = L"DeviceListForReSyncNightly";
constexpr wchar_t DRIVER[] = L"DeviceListForReSync";
constexpr wchar_t GONE[] = L"{11111111-2222-3333-4444-555555555555}";

class VtFltCtlVerify : public VtFltCtlTest {
protected:
    VtFltCtlVerify() { Register(L"Nightly"); }

    // With a plan of the simulator.
    [[nodiscard]] vtlog_test::Result RunWith(const std::wstring& calls, std::vector<std::wstring> arguments) const
    {
        arguments.insert(arguments.end(), {L"--simulate", machine.directory()});
        return vtlog_test::Process(arguments, {VTFLTSIM_CALLS_VARIABLE L"=" + calls}, L"vtfltctl.exe").Finish();
    }
};

TEST_F(VtFltCtlVerify, ListShowsEveryListByItself)
{
    Register(L"Weekly");
    StoreList(DRIVER, {GONE});
    StoreList(VERIFY, {volume.guid});
    StoreList(L"DeviceListForReSyncWeekly", {volume.guid, GONE});
    const json answer = RunJson({L"verify", L"list"}, EXIT_OK);
    EXPECT_EQ(json::array({Utf8(GONE)}), answer["driverList"]["entries"]);
    ASSERT_EQ(2u, answer["applications"].size());
    EXPECT_EQ("Nightly", answer["applications"][0]["application"]);
    EXPECT_EQ(json::array({Utf8(volume.guid)}), answer["applications"][0]["verifyList"]["entries"]);
    EXPECT_EQ(json::array(), answer["applications"][0]["pendingList"]["entries"]);
    EXPECT_EQ(json::array({Utf8(volume.guid), Utf8(GONE)}), answer["applications"][1]["pendingList"]["entries"]);
    EXPECT_EQ("driver: " + Utf8(GONE) + "\n\"Nightly\" verify: " + Utf8(volume.guid) + "\n\"Nightly\" pending: empty\n",
              Run({L"verify", L"list", L"Nightly"}).out);
}

TEST_F(VtFltCtlVerify, AVolumeIsAddedUnderAnyOfItsNames)
{
    const List names = {L"E:", L"E:\\", volume.guid, volume.Path(), volume.Root(), L"Volume" + volume.guid};
    for (const std::wstring& name : names) {
        machine.WriteValue(LISTS_KEY, VERIFY, REG_MULTI_SZ, {0, 0, 0, 0});
        const json answer = RunJson({L"verify", L"add", L"Nightly", name}, EXIT_OK);
        EXPECT_EQ(json::array({Utf8(volume.guid)}), answer["verifyList"]["entries"]) << Utf8(name);
        EXPECT_EQ(List{volume.guid}, StoredList(VERIFY)) << Utf8(name);
    }
}

TEST_F(VtFltCtlVerify, AddingAllTakesEveryFixedVolume)
{
    const vtfltsim::Volume second = machine.AddVolume(1 << 20);
    machine.AddVolume(1 << 20, 65536, nullptr, DRIVE_REMOVABLE);
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"add", L"Nightly", L"--all"}).exitCode);
    EXPECT_EQ(2u, StoredList(VERIFY).size());
}

TEST_F(VtFltCtlVerify, WhatIsNotThereIsNotAdded)
{
    ExpectRefusal({L"verify", L"add", L"Weekly", L"E:"}, EXIT_NOT_FOUND);
    ExpectRefusal({L"verify", L"add", L"nightly", L"E:"}, EXIT_NOT_FOUND);
    ExpectRefusal({L"verify", L"add", L"Nightly", GONE}, EXIT_NOT_FOUND);
    ExpectRefusal({L"verify", L"add", L"Nightly", L"Q:"}, EXIT_NOT_FOUND);
    ExpectRefusal({L"verify", L"add", L"Nightly", L"E:", GONE}, EXIT_NOT_FOUND);
    ExpectRefusal({L"verify", L"add", L"Nightly", L"nonsense"}, EXIT_USAGE);
    ExpectRefusal({L"verify", L"add", L"Nightly", std::wstring(3000, L'x')}, EXIT_USAGE);
    ExpectRefusal({L"verify", L"add", L"Nightly"}, EXIT_USAGE);
    ExpectRefusal({L"verify", L"add", L"Nightly", L"E:", L"--all"}, EXIT_USAGE);
    ExpectRefusal({L"verify", L"add", L"", L"E:"}, EXIT_USAGE);
}

TEST_F(VtFltCtlVerify, RemovingNeedsYesAndTakesOffWhatWasNamed)
{
    StoreList(VERIFY, {volume.guid, GONE});
    EXPECT_NE(std::string::npos, ExpectRefusal({L"verify", L"remove", L"Nightly", L"E:"}, EXIT_REFUSED).find("--yes"));
    const json answer = RunJson({L"verify", L"remove", L"Nightly", L"E:", L"--yes"}, EXIT_OK);
    EXPECT_EQ(json::array({Utf8(GONE)}), answer["verifyList"]["entries"]);
    EXPECT_EQ(List{GONE}, StoredList(VERIFY));
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"remove", L"Nightly", GONE, L"--yes"}).exitCode);
    EXPECT_TRUE(StoredList(VERIFY).empty());
}

TEST_F(VtFltCtlVerify, AnEntryThatIsNoVolumeCanBeRemovedAsItStands)
{
    StoreList(VERIFY, {L"rubbish", volume.guid});
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"remove", L"Nightly", L"rubbish", L"--yes"}).exitCode);
    EXPECT_EQ(List{volume.guid}, StoredList(VERIFY));
}

TEST_F(VtFltCtlVerify, TheEntryThatWasNamedIsRemovedAndNotOneInOtherCase)
{
    const auto swap = [](wchar_t c) {
        return static_cast<wchar_t>(std::iswupper(c) ? std::towlower(c) : std::towupper(c));
    };
    std::wstring other = volume.guid;
    std::transform(other.begin(), other.end(), other.begin(), swap);
    for (const std::wstring& name : {volume.guid, std::wstring(L"E:")}) {
        StoreList(VERIFY, {other, volume.guid});
        EXPECT_EQ(EXIT_OK, Run({L"verify", L"remove", L"Nightly", name, L"--yes"}).exitCode);
        EXPECT_EQ(List{other}, StoredList(VERIFY)) << Utf8(name);
    }
    StoreList(VERIFY, {other, volume.guid});
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"remove", L"Nightly", other, L"--yes"}).exitCode);
    EXPECT_EQ(List{volume.guid}, StoredList(VERIFY));
}

TEST_F(VtFltCtlVerify, AVerifyListIsNotHandedOnAsThePendingListOfAnother)
{
    for (const wchar_t* id : {L"Nightly.Last", L"Nightly.LAST"}) {
        StoreList(L"RegisteredAppIDs", {L"Nightly", id}, IDS_KEY);
        StoreList(VERIFY, {volume.guid});
        EXPECT_NE(std::string::npos,
                  ExpectRefusal({L"verify", L"replicate", id}, EXIT_REFUSED).find("verify list of \"Nightly\""));
    }
}

TEST_F(VtFltCtlVerify, AVerifyListThatIsRebuiltIsNotDeletedAsThePendingListOfAnother)
{
    for (const List& ids : {List{L"Nightly", L"Nightly.Last"}, List{L"Nightly.Last"}}) {
        StoreList(L"RegisteredAppIDs", ids, IDS_KEY);
        StoreList(VERIFY, {GONE}, LISTS_KEY, REG_SZ);
        EXPECT_EQ(EXIT_OK, Run({L"verify", L"rebuild", L"--yes"}).exitCode);
        EXPECT_EQ((List{volume.guid, GONE}), StoredList(VERIFY));
    }
}

TEST_F(VtFltCtlVerify, RemovingWhatTheListDoesNotNameIsNotFound)
{
    StoreList(VERIFY, {GONE});
    ExpectRefusal({L"verify", L"remove", L"Nightly", L"E:", L"--yes"}, EXIT_NOT_FOUND);
    ExpectRefusal({L"verify", L"remove", L"Weekly", GONE, L"--yes"}, EXIT_NOT_FOUND);
}

TEST_F(VtFltCtlVerify, ReplicatingMovesTheListsOn)
{
    Register(L"Weekly");
    StoreList(DRIVER, {volume.guid});
    EXPECT_EQ(json::array({Utf8(volume.guid)}),
              RunJson({L"verify", L"replicate", L"Nightly"}, EXIT_OK)["verifyList"]["entries"]);
    EXPECT_TRUE(StoredList(DRIVER).empty());
    EXPECT_EQ(List{volume.guid}, StoredList(VERIFY));
    EXPECT_TRUE(StoredList(PENDING).empty());
    EXPECT_EQ(List{volume.guid}, StoredList(L"DeviceListForReSyncWeekly"));
    ExpectRefusal({L"verify", L"replicate", L"Monthly"}, EXIT_NOT_FOUND);
}

TEST_F(VtFltCtlVerify, WithoutTheDriverNothingIsDoneAndNothingReinstalled)
{
    machine.SetDriver(VTFLTSIM_DRIVER_ABSENT);
    EXPECT_NE(std::string::npos,
              ExpectRefusal({L"verify", L"replicate", L"Nightly"}, EXIT_DRIVER_DOWN).find("does not work"));
    ExpectRefusal({L"verify", L"add", L"Nightly", L"--all"}, EXIT_DRIVER_DOWN);
    WCHAR command[8] = {};
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_MORE_ITEMS), VTFltSimGetUtilityCommand(machine.handle(), 0, command, 8));
}

TEST_F(VtFltCtlVerify, NoMarkIsSetWhileABackupRunsThatWouldTakeItOff)
{
    Register(L"Weekly");
    StoreList(PENDING, {volume.guid});
    {
        // The folder as somebody else may write it.
        const std::wstring name = toolkit::LockNames(L"\\\\?\\" + machine.directory() + L"\\").Application(L"Nightly");
        const vtflt::UniqueHandle backup(CreateMutexW(nullptr, TRUE, name.c_str()));
        ExpectRefusal({L"verify", L"add", L"Nightly", L"E:"}, EXIT_BUSY);
        ExpectRefusal({L"verify", L"add", L"Nightly", L"--all"}, EXIT_BUSY);
        ExpectRefusal({L"verify", L"replicate", L"Nightly"}, EXIT_BUSY);
        StoreList(VERIFY, {GONE}, LISTS_KEY, REG_SZ);
        ExpectRefusal({L"verify", L"rebuild", L"--yes"}, EXIT_BUSY);
        EXPECT_EQ(EXIT_OK, Run({L"verify", L"add", L"Weekly", L"E:"}).exitCode);
        ReleaseMutex(backup.get());
    }
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"rebuild", L"--yes"}).exitCode);
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"replicate", L"Nightly"}).exitCode);
}

TEST_F(VtFltCtlVerify, NoListIsChangedWhileTheLibraryMovesEntries)
{
    StoreList(VERIFY, {GONE});
    StoreList(PENDING, {GONE});
    const std::vector<List> commands = {
        {L"verify", L"add", L"Nightly", L"E:"},
        {L"verify", L"add", L"Nightly", L"--all"},
        {L"verify", L"remove", L"Nightly", GONE, L"--yes"},
        {L"verify", L"remove", L"Nightly", GONE, L"--pending", L"--yes"},
        {L"verify", L"replicate", L"Nightly"},
        {L"apps", L"clean", L"Nightly", L"--yes"},
        {L"apps", L"register", L"Weekly"},
        {L"apps", L"unregister", L"Nightly", L"--yes"},
    };
    const auto expectBusy = [&](const wchar_t* mutex, const List& command) {
        const std::string before = Fingerprint();
        // The first wait ends in vain, and any other would not.
        const vtlog_test::Result result =
            RunWith(std::wstring(L"return|WaitForSingleObject|") + mutex + L"|1|1|0|258", command);
        EXPECT_EQ(EXIT_BUSY, result.exitCode) << Utf8(command[1]) << result.out << result.err;
        EXPECT_TRUE(before == Fingerprint()) << Utf8(command[1]);
    };
    for (const wchar_t* mutex :
         {L"VTBitmapManager.AppicationMutex.Mutex", L"Global\\VTBitmapManager.AppicationMutex.Mutex"}) {
        for (const List& command : commands)
            expectBusy(mutex, command);
    }
    // Who marks a volume holds the list's mutex alone.
    for (const std::wstring session : {L"", L"Global\\VTBitmapManager."}) {
        expectBusy((session + L"DeviceListForReSyncNightly.Last.Mutex").c_str(),
                   {L"verify", L"remove", L"Nightly", GONE, L"--yes"});
        expectBusy((session + L"DeviceListForReSyncNightly.Mutex").c_str(),
                   {L"verify", L"remove", L"Nightly", GONE, L"--pending", L"--yes"});
    }
    StoreList(PENDING, {GONE}, LISTS_KEY, REG_SZ);
    expectBusy(L"VTBitmapManager.AppicationMutex.Mutex", {L"verify", L"rebuild", L"--yes"});
    expectBusy(L"DeviceListForReSyncNightly.Last.Mutex", {L"verify", L"add", L"Nightly", L"E:"});
}

TEST_F(VtFltCtlVerify, WhatTheDriverWritesMeanwhileIsNotDeletedUnread)
{
    constexpr wchar_t LATER[] = L"{22222222-2222-3333-4444-555555555555}";
    StoreList(DRIVER, {GONE}, LISTS_KEY, REG_SZ);
    vttest::Pause pause(L"VtFltCtlVerify");
    // The first write is of the fixed volumes; before the second the driver's list was read.
    vttest::ChildProcess child(L"vtfltctl", {L"verify", L"rebuild", L"--yes", L"--simulate", machine.directory()},
                               pause.Before(L"RegSetValueExW", L"DeviceListForReSyncNightly.Last", 2));
    ASSERT_TRUE(pause.AwaitReached(child));
    StoreList(DRIVER, {LATER}, LISTS_KEY, REG_SZ);
    pause.Go();
    EXPECT_EQ(EXIT_OK, child.Join());
    EXPECT_EQ((List{volume.guid, LATER, GONE}), StoredList(VERIFY));
    EXPECT_TRUE(machine.ReadValue(LISTS_KEY, DRIVER).empty());
}

TEST_F(VtFltCtlVerify, AListThatIsWrittenAnewMeanwhileIsNotDeleted)
{
    StoreList(PENDING, {GONE}, LISTS_KEY, REG_SZ);
    vttest::Pause pause(L"VtFltCtlVerify");
    vttest::ChildProcess child(L"vtfltctl", {L"verify", L"rebuild", L"--yes", L"--simulate", machine.directory()},
                               pause.Before(L"RegSetValueExW", L"DeviceListForReSyncNightly.Last", 1));
    ASSERT_TRUE(pause.AwaitReached(child));
    StoreList(PENDING, {volume.guid});
    pause.Go();
    EXPECT_EQ(EXIT_OK, child.Join());
    EXPECT_EQ(List{volume.guid}, StoredList(PENDING));
}

TEST_F(VtFltCtlVerify, NoApplicationThatComesMeanwhileIsPassedOverByARebuild)
{
    StoreList(DRIVER, {GONE}, LISTS_KEY, REG_SZ);
    vttest::Pause pause(L"VtFltCtlVerify");
    // The lists were looked at, and the locks are not all there yet.
    vttest::ChildProcess child(
        L"vtfltctl", {L"verify", L"rebuild", L"--yes", L"--simulate", machine.directory()},
        pause.Before(L"WaitForSingleObject", L"Global\\VTBitmapManager.AppicationMutex.Mutex", 1));
    ASSERT_TRUE(pause.AwaitReached(child));
    StoreList(L"RegisteredAppIDs", {L"Nightly", L"Weekly"}, IDS_KEY);
    pause.Go();
    EXPECT_EQ(EXIT_BUSY, child.Join());
    EXPECT_FALSE(machine.ReadValue(LISTS_KEY, DRIVER).empty());
    EXPECT_EQ(json::array({"Nightly", "Weekly"}), RunJson({L"verify", L"rebuild", L"--yes"}, EXIT_OK)["rebuilt"]);
    EXPECT_EQ((List{volume.guid, GONE}), StoredList(L"DeviceListForReSyncWeekly.Last"));
}

TEST_F(VtFltCtlVerify, ADamagedListThatNobodyCanTakeOverStays)
{
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"unregister", L"Nightly", L"--yes"}).exitCode);
    StoreList(DRIVER, {GONE}, LISTS_KEY, REG_SZ);
    ExpectRefusal({L"verify", L"rebuild", L"--yes"}, EXIT_REFUSED);
    Register(L"Nightly");
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"rebuild", L"--yes"}).exitCode);
    EXPECT_EQ((List{volume.guid, GONE}), StoredList(VERIFY));
}

TEST_F(VtFltCtlVerify, WhetherABackupRunsIsNotGuessed)
{
    const std::vector<std::wstring> command = {L"verify", L"add", L"Nightly", L"E:"};
    const std::wstring denied = L"fail|CreateMutexW|VTBackup.|1|1|5;fail|OpenMutexW|VTBackup.|1|1|2";
    // The mutex of another account went in between: it can be made now, or somebody else's came.
    EXPECT_EQ(EXIT_OK, RunWith(denied, command).exitCode);
    EXPECT_EQ(EXIT_BUSY, RunWith(denied + L";return|WaitForSingleObject|VTBackup.|1|1|0|258", command).exitCode);
    EXPECT_EQ(EXIT_UNREADABLE,
              RunWith(L"fail|CreateMutexW|VTBackup.|1|0|5;fail|OpenMutexW|VTBackup.|1|0|2", command).exitCode);
    EXPECT_EQ(EXIT_UNREADABLE, RunWith(L"return|WaitForSingleObject|VTBackup.|1|1|6|4294967295", command).exitCode);
    // Without memory or handles the backup's mutex may be there all the same.
    for (const wchar_t* error : {L"8", L"14", L"1450", L"1816"})
        EXPECT_EQ(EXIT_UNREADABLE, RunWith(std::wstring(L"fail|CreateMutexW|VTBackup.|1|0|") + error, command).exitCode)
            << Utf8(error);
    // No mutex has a name that none can have.
    for (const wchar_t* error : {L"6", L"123", L"206"})
        EXPECT_EQ(EXIT_OK, RunWith(std::wstring(L"fail|CreateMutexW|VTBackup.|1|0|") + error, command).exitCode)
            << Utf8(error);
}

TEST_F(VtFltCtlVerify, ADriverThatGoesDownMeanwhileIsNoSuccess)
{
    StoreNumber(L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTBackupDll", L"VTFltAutoInstall", 0);
    const auto goDown = [&] { machine.FailRequest(0xB0000006, ERROR_IO_DEVICE, VTFLTSIM_ENDPOINT_CONTROL, 2, 0); };
    goDown();
    const vtlog_test::Result added = Run({L"verify", L"add", L"Nightly", L"--all"});
    EXPECT_EQ(EXIT_DRIVER_DOWN, added.exitCode) << added.out;
    EXPECT_NE(std::string::npos, added.err.find("went down meanwhile")) << added.err;
    VTFltSimClearFaults(machine.handle());
    StoreList(DRIVER, {volume.guid});
    goDown();
    EXPECT_EQ(EXIT_DRIVER_DOWN, Run({L"verify", L"replicate", L"Nightly"}).exitCode);
    VTFltSimClearFaults(machine.handle());
    StoreList(DRIVER, {});
    StoreList(PENDING, {volume.guid});
    goDown();
    EXPECT_EQ(EXIT_DRIVER_DOWN, Run({L"verify", L"replicate", L"Nightly"}).exitCode);
}

TEST_F(VtFltCtlVerify, AListOfAnotherTypeOrWithoutItsEndIsUnreadable)
{
    for (const DWORD type : {DWORD{REG_SZ}, DWORD{REG_BINARY}, DWORD{REG_DWORD}}) {
        StoreList(VERIFY, {volume.guid}, LISTS_KEY, type);
        ExpectRefusal({L"verify", L"add", L"Nightly", L"E:"}, EXIT_UNREADABLE);
        ExpectRefusal({L"verify", L"remove", L"Nightly", L"E:", L"--yes"}, EXIT_UNREADABLE);
        ExpectRefusal({L"verify", L"replicate", L"Nightly"}, EXIT_UNREADABLE);
        const json answer = RunJson({L"verify", L"list"}, EXIT_UNREADABLE);
        EXPECT_TRUE(answer["applications"][0]["verifyList"].contains("error"));
    }
    machine.WriteValue(LISTS_KEY, DRIVER, REG_BINARY, {'x', 0});
    ExpectRefusal({L"verify", L"replicate", L"Nightly"}, EXIT_UNREADABLE);
}

TEST_F(VtFltCtlVerify, RebuildingReplacesWhatCannotBeReadBySafeLists)
{
    Register(L"Weekly");
    StoreList(VERIFY, {GONE}, LISTS_KEY, REG_SZ);
    StoreList(L"DeviceListForReSyncWeekly.Last", {GONE});
    ExpectRefusal({L"verify", L"rebuild"}, EXIT_REFUSED);
    EXPECT_EQ(json::array({"Nightly"}), RunJson({L"verify", L"rebuild", L"--yes"}, EXIT_OK)["rebuilt"]);
    EXPECT_EQ((List{volume.guid, GONE}), StoredList(VERIFY));
    EXPECT_EQ(List{GONE}, StoredList(L"DeviceListForReSyncWeekly.Last"));

    StoreList(DRIVER, {GONE}, LISTS_KEY, REG_SZ);
    EXPECT_EQ(json::array({"Nightly", "Weekly"}), RunJson({L"verify", L"rebuild", L"--yes"}, EXIT_OK)["rebuilt"]);
    EXPECT_TRUE(StoredList(DRIVER).empty());
    EXPECT_EQ(2u, StoredList(L"DeviceListForReSyncWeekly.Last").size());

    StoreList(PENDING, {GONE}, LISTS_KEY, REG_DWORD);
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"rebuild", L"--yes"}).exitCode);
    EXPECT_TRUE(machine.ReadValue(LISTS_KEY, PENDING).empty());
    EXPECT_EQ("Every list can be read; nothing was changed.\n", Run({L"verify", L"rebuild", L"--yes"}).out);
}

TEST_F(VtFltCtlVerify, AnExactEntryIsThatOneOrNone)
{
    StoreList(VERIFY, {volume.guid});
    for (const std::wstring& name : {L"Volume" + volume.guid, std::wstring(L"E:"), volume.Root()})
        ExpectRefusal({L"verify", L"remove", L"Nightly", name, L"--exact", L"--yes"}, EXIT_NOT_FOUND);
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"remove", L"Nightly", volume.guid, L"--exact", L"--yes"}).exitCode);
    EXPECT_TRUE(StoredList(VERIFY).empty());
}

TEST_F(VtFltCtlVerify, AnEntryIsTakenOffThePendingListAlone)
{
    StoreList(VERIFY, {volume.guid});
    StoreList(PENDING, {L"rubbish", volume.guid, GONE});
    ExpectRefusal({L"verify", L"remove", L"Nightly", L"rubbish", L"--pending"}, EXIT_REFUSED);
    ExpectRefusal({L"verify", L"remove", L"Nightly", L"nothing", L"--pending", L"--exact", L"--yes"}, EXIT_NOT_FOUND);
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"remove", L"Nightly", L"rubbish", L"--pending", L"--yes"}).exitCode);
    EXPECT_EQ((List{volume.guid, GONE}), StoredList(PENDING));
    EXPECT_EQ(List{volume.guid}, StoredList(VERIFY));
    // One that is another application's verify list.
    StoreList(L"RegisteredAppIDs", {L"Nightly", L"Nightly.Last"}, IDS_KEY);
    ExpectRefusal({L"verify", L"remove", L"Nightly.Last", volume.guid, L"--pending", L"--yes"}, EXIT_REFUSED);
}

TEST_F(VtFltCtlVerify, AddingDropsNoEntry)
{
    const List entries = {volume.guid.substr(0, 5), L"Volume", GONE};
    StoreList(VERIFY, entries);
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"add", L"Nightly", L"E:"}).exitCode);
    EXPECT_EQ((List{entries[0], entries[1], volume.guid, entries[2]}), StoredList(VERIFY));
    StoreList(VERIFY, entries);
    ExpectRefusal({L"verify", L"add", L"Nightly", L"--all"}, EXIT_DAMAGED);
}

TEST_F(VtFltCtlVerify, AddingNoVolumeDropsNoEntryEither)
{
    VTFltSimRemoveVolume(machine.handle(), volume.guid.c_str());
    // Merged with nothing the library takes the second for a part of the first.
    StoreList(VERIFY, {GONE, std::wstring(GONE).substr(0, 5)});
    ExpectRefusal({L"verify", L"add", L"Nightly", L"--all"}, EXIT_DAMAGED);
    ExpectRefusal({L"apps", L"unregister", L"Nightly", L"--yes"}, EXIT_DAMAGED);
    // Replicating nothing merges nothing.
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"replicate", L"Nightly"}).exitCode);
    EXPECT_EQ(2u, StoredList(VERIFY).size());
}

TEST_F(VtFltCtlVerify, AVolumeInOtherCaseIsNotHandedOutAsAMark)
{
    std::wstring other = volume.guid;
    std::transform(other.begin(), other.end(), other.begin(), [](wchar_t c) {
        return static_cast<wchar_t>(std::iswupper(c) ? std::towlower(c) : std::towupper(c));
    });
    ASSERT_NE(volume.guid, other);
    StoreList(DRIVER, {other});
    EXPECT_NE(std::string::npos, ExpectRefusal({L"verify", L"replicate", L"Nightly"}, EXIT_DAMAGED).find("other case"));
    // That of a volume which is not here is its own.
    StoreList(DRIVER, {L"{AAAAAAAA-2222-3333-4444-555555555555}"});
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"replicate", L"Nightly"}).exitCode);
}

TEST_F(VtFltCtlVerify, ReplicatingThatWouldDropAnEntryIsRefused)
{
    Register(L"Weekly");
    const std::wstring two = volume.guid + L" " + GONE + std::wstring(L"}");
    const auto reset = [&] {
        for (const wchar_t* list : {DRIVER, PENDING, L"DeviceListForReSyncWeekly"})
            StoreList(list, {});
        StoreList(VERIFY, {volume.guid, GONE});
    };
    reset();
    StoreList(DRIVER, {two});
    ExpectRefusal({L"verify", L"replicate", L"Nightly"}, EXIT_DAMAGED);
    reset();
    StoreList(PENDING, {volume.guid + L" "});
    ExpectRefusal({L"verify", L"replicate", L"Nightly"}, EXIT_DAMAGED);
    // Another application's pending list.
    reset();
    StoreList(DRIVER, {L"{" + volume.guid + L"}"});
    StoreList(VERIFY, {});
    StoreList(L"DeviceListForReSyncWeekly", {volume.guid});
    ExpectRefusal({L"verify", L"replicate", L"Nightly"}, EXIT_DAMAGED);
    // What a later hand-over from a pending list to its verify list would drop.
    reset();
    StoreList(DRIVER, {L"{" + volume.guid + L"}"});
    StoreList(VERIFY, {});
    StoreList(L"DeviceListForReSyncWeekly.Last", {volume.guid});
    ExpectRefusal({L"verify", L"replicate", L"Nightly"}, EXIT_DAMAGED);
    StoreList(L"DeviceListForReSyncWeekly.Last", {});
    // What stands behind an entry that cannot be written would be lost.
    reset();
    StoreList(VERIFY, {L"x*", GONE});
    StoreList(PENDING, {volume.guid});
    ExpectRefusal({L"verify", L"replicate", L"Nightly"}, EXIT_DAMAGED);
    // {GUID}s that are there already drop nothing.
    reset();
    StoreList(DRIVER, {volume.guid});
    StoreList(PENDING, {GONE});
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"replicate", L"Nightly"}).exitCode);
    EXPECT_EQ(2u, StoredList(VERIFY).size());
}

TEST_F(VtFltCtlVerify, AListIsNotWrittenWhileAnotherEntryWouldCutIt)
{
    StoreList(VERIFY, {L"x*", L"y*", GONE});
    ExpectRefusal({L"verify", L"add", L"Nightly", L"E:"}, EXIT_DAMAGED);
    ExpectRefusal({L"verify", L"remove", L"Nightly", L"x*", L"--exact", L"--yes"}, EXIT_DAMAGED);
    ExpectRefusal({L"apps", L"clean", L"Nightly", L"--yes"}, EXIT_DAMAGED);
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"remove", L"Nightly", L"x*", L"y*", L"--exact", L"--yes"}).exitCode);
    EXPECT_EQ(List{GONE}, StoredList(VERIFY));
}

TEST_F(VtFltCtlVerify, VolumesInBracketsAreNotTakenApart)
{
    StoreList(VERIFY, {volume.guid, GONE});
    const std::wstring both = L"[" + volume.guid + L"," + GONE + L"]";
    ExpectRefusal({L"verify", L"remove", L"Nightly", both, L"--yes"}, EXIT_USAGE);
    ExpectRefusal({L"verify", L"remove", L"Nightly", L"[" + volume.guid + L"]", L"--yes"}, EXIT_USAGE);
    ExpectRefusal({L"verify", L"add", L"Nightly", both}, EXIT_USAGE);
    // An application may have them.
    Register(L"[x]");
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"add", L"[x]", L"E:"}).exitCode);
    ExpectRefusal({L"verify", L"remove", L"[x]", L"[x]", L"--yes"}, EXIT_USAGE);
}

TEST_F(VtFltCtlVerify, TextBehindAnEmptyStringMakesAListUnreadable)
{
    const std::wstring nul(1, L'\0');
    for (const std::wstring& text :
         {volume.guid + nul + nul + GONE + nul + nul, nul + volume.guid + nul + GONE + nul + nul}) {
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
        machine.WriteValue(LISTS_KEY, VERIFY, REG_MULTI_SZ,
                           std::vector<std::uint8_t>(bytes, bytes + text.size() * sizeof(wchar_t)));
        EXPECT_NE(std::string::npos,
                  ExpectRefusal({L"verify", L"add", L"Nightly", L"E:"}, EXIT_UNREADABLE).find("empty string"));
        EXPECT_EQ(EXIT_OK, Run({L"verify", L"rebuild", L"--yes"}).exitCode);
        EXPECT_EQ((List{volume.guid, GONE}), StoredList(VERIFY));
    }
}

TEST_F(VtFltCtlVerify, AListThatCannotBeReadForTheMomentIsNotRebuilt)
{
    StoreList(VERIFY, {GONE});
    StoreList(PENDING, {GONE}, LISTS_KEY, REG_SZ);
    const std::string before = Fingerprint();
    const vtlog_test::Result result =
        vtlog_test::Process({L"verify", L"rebuild", L"--yes", L"--simulate", machine.directory()},
                            {L"VTFLTSIM_CALLS=fail|RegQueryValueExW|DeviceListForReSyncNightly.Last|1|0|5"},
                            L"vtfltctl.exe")
            .Finish();
    EXPECT_EQ(EXIT_UNREADABLE, result.exitCode) << result.out << result.err;
    EXPECT_TRUE(before == Fingerprint());
}

} // namespace
} // namespace vtfltctl_test
