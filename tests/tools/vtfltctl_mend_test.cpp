// The commands that doctor prints: none of them takes off a mark, whether run once, late or twice, whatever stands in
// the lists.
#include "tools/vtfltctl_mends.h"

#include "common/backup_locks.h"

namespace vtfltctl_test {
namespace {

using nlohmann::json;
using vtlog_test::Result;
using vtlog_test::Utf8;

using List = std::vector<std::wstring>;

class VtFltCtlMend : public VtFltCtlMendTest {
protected:
    VtFltCtlMend() : other(machine.AddVolume(1 << 20, 4096, L"F:\\")) { Register(L"Nightly"); }

    // Doctor's first finding of this check; an empty object when there is none.
    [[nodiscard]] json FindingOf(const std::string& check) const
    {
        const json answer = json::parse(Run({L"doctor", L"--json"}).out, nullptr, false);
        for (const json& finding : answer.value("findings", json::array())) {
            if (finding["check"] == check)
                return finding;
        }
        return json::object();
    }
    // The lists that are odd in each way that was ever found to lose a mark.
    [[nodiscard]] std::vector<List> OddLists() const
    {
        const std::wstring& g = volume.guid;
        const std::wstring& f = other.guid;
        return {
            {L"Volume" + g, g},                 // hidden, and odd
            {g + L" "},                         // a blank that nobody sees
            {g + L" ", g},                      //
            {g + L" " + f, f, g},               // two on one line
            {g + L";" + f},                     //
            {g + f},                            //
            {L"\\??\\Volume" + g},              // another name
            {OtherCase(g)},                     //
            {OtherCase(g) + L" ", g},           //
            {g.substr(0, 9), L"-", f},          // parts of names
            {L"{4", L"Volume", g},              //
            {L"Volume" + std::wstring(GONE)},   // of a volume that is away
            {std::wstring(GONE) + L" " + g},    //
            {g + L";{48b5", f},                 //
            {g + L";{48b5", g},                 // behind what has to stay
            {g + L" 48b5a7e5", g},              //
            {g + L";Volume", f, g},             //
            {L"x*", f},                         // what cannot be written
            {f, g + L"*" + f},                  //
            {L"x*", L"y*", f},                  //
            {L"[" + g + L"," + f + L"]", g, f}, // what the command line takes apart
            {L"[" + g + L"]", g},               //
            {L"rubbish", g},                    // nothing at all
            {L"E:", L"E:\\", g},                //
        };
    }

    vtfltsim::Volume other;
};

TEST_F(VtFltCtlMend, NoPrintedCommandTakesAMarkOffWhateverTheListsHold)
{
    Register(L"Weekly");
    for (const List& odd : OddLists()) {
        for (const wchar_t* list : {VERIFY, PENDING, DRIVER_LIST}) {
            SCOPED_TRACE(Utf8(list) + " " + Utf8(odd.front()));
            for (const wchar_t* value :
                 {VERIFY, PENDING, DRIVER_LIST, L"DeviceListForReSyncWeekly.Last", L"DeviceListForReSyncWeekly"})
                StoreList(value, {});
            // Beside it, marks that a merge may drop.
            StoreList(L"DeviceListForReSyncWeekly.Last", {volume.guid, other.guid});
            StoreList(list == VERIFY ? PENDING : VERIFY, {volume.guid, other.guid});
            StoreList(list, odd);
            RunEveryMendTwice();
            if (list == DRIVER_LIST)
                continue;
            // And with no other mark than its own.
            for (const wchar_t* value : {VERIFY, PENDING})
                StoreList(value, {});
            StoreList(list, odd);
            RunEveryMendTwice();
        }
    }
}

TEST_F(VtFltCtlMend, NoPrintedCommandTakesAMarkOffAnOddVerifyListIntoWhichAnotherVolumeComes)
{
    for (const List& odd : OddLists()) {
        for (const wchar_t* list : {PENDING, DRIVER_LIST}) {
            SCOPED_TRACE(Utf8(list) + " " + Utf8(odd.front()));
            for (const wchar_t* value : {PENDING, DRIVER_LIST})
                StoreList(value, {});
            StoreList(VERIFY, odd);
            StoreList(list, {other.guid});
            RunEveryMendTwice();
        }
    }
}

TEST_F(VtFltCtlMend, AHiddenEntryComesToWhereNoMergeDropsIt)
{
    const std::wstring& g = volume.guid;
    const std::wstring longer = g + L";{48b5";
    StoreList(VERIFY, {longer, g});
    StoreList(PENDING, {other.guid});
    ExpectRefusal({L"verify", L"replicate", L"Nightly"}, EXIT_DAMAGED);
    Mend(FindingOf("list-entry-odd"));
    EXPECT_EQ((List{g, longer}), StoredList(VERIFY));
    EXPECT_FALSE(FindingOf("list-entry-hidden").contains("mend"));
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"replicate", L"Nightly"}).exitCode);
    EXPECT_EQ((List{other.guid, g, longer}), StoredList(VERIFY));
    // What the driver hands to another application's pending list.
    Register(L"Weekly");
    StoreList(L"DeviceListForReSyncWeekly", {longer, g});
    StoreList(DRIVER_LIST, {other.guid});
    ExpectRefusal({L"verify", L"replicate", L"Nightly"}, EXIT_DAMAGED);
    EXPECT_NE(std::string::npos,
              FindingOf("list-entry-odd")["consequence"].get<std::string>().find("(verify remove --exact)"));
    // The mark of a volume that is away.
    const std::wstring away = GONE + std::wstring(L" ");
    StoreList(VERIFY, {away, GONE});
    ExpectRefusal({L"verify", L"add", L"Nightly", L"--all"}, EXIT_DAMAGED);
    ExpectRefusal({L"apps", L"unregister", L"Nightly", L"--yes"}, EXIT_DAMAGED);
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"add", L"Nightly", g}).exitCode);
    EXPECT_EQ((List{g, GONE, away}), StoredList(VERIFY));
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"add", L"Nightly", L"--all"}).exitCode);
    EXPECT_EQ(4u, StoredList(VERIFY).size());
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"unregister", L"Nightly", L"--yes"}).exitCode);
    EXPECT_EQ(4u, StoredList(VERIFY).size());
}

TEST_F(VtFltCtlMend, TheAdviceForAPendingListNamesIt)
{
    StoreList(PENDING, {L"{11111111-"});
    EXPECT_NE(std::string::npos,
              FindingOf("list-entry-odd")["consequence"].get<std::string>().find("(verify remove --pending --exact)"));
    StoreList(PENDING, {GONE});
    EXPECT_NE(std::string::npos,
              FindingOf("list-volume-gone")["consequence"].get<std::string>().find("(verify remove --pending)"));
}

TEST_F(VtFltCtlMend, UnderAMachineTheCommandsNameItAndItsBackupsAreSeen)
{
    StoreList(PENDING, {volume.guid});
    const auto runUnder = [&](std::vector<std::wstring> arguments) {
        arguments.insert(arguments.begin(), {L"run", machine.directory(), L"vtfltctl.exe"});
        return vtlog_test::Process(arguments, {}, L"vtfltsim.exe").Finish();
    };
    const Result doctor = runUnder({L"doctor"});
    const std::string mend = "vtfltctl verify replicate Nightly --simulate \"" + Utf8(machine.directory()) + "\"";
    EXPECT_NE(std::string::npos, doctor.out.find("mend: " + mend)) << doctor.out << doctor.err;
    const vtflt::UniqueHandle backup(
        CreateMutexW(nullptr, TRUE, toolkit::LockNames(machine.directory()).Application(L"Nightly").c_str()));
    const Result busy = runUnder({L"verify", L"add", L"Nightly", L"E:"});
    EXPECT_EQ(EXIT_BUSY, busy.exitCode) << busy.out << busy.err;
    ReleaseMutex(backup.get());
    EXPECT_EQ(EXIT_OK, runUnder({L"verify", L"add", L"Nightly", L"E:"}).exitCode);
}

TEST_F(VtFltCtlMend, NoPrintedCommandTakesAMarkOffAListThatIsNotWellFormed)
{
    const std::wstring nul(1, L'\0');
    const std::wstring g = volume.guid;
    const std::wstring f = GONE;
    const std::vector<std::pair<DWORD, std::wstring>> texts = {
        {REG_MULTI_SZ, g + nul + nul + f + nul + nul}, // behind an empty string
        {REG_MULTI_SZ, nul + f + nul + nul},
        {REG_MULTI_SZ, g + nul + f + nul}, // no final NUL
        {REG_MULTI_SZ, f},
        {REG_SZ, f + nul},
        {REG_BINARY, L"x" + f},
    };
    for (const auto& [type, text] : texts) {
        for (const wchar_t* list : {VERIFY, PENDING, DRIVER_LIST}) {
            SCOPED_TRACE(Utf8(list) + " type " + std::to_string(type));
            for (const wchar_t* value : {VERIFY, PENDING, DRIVER_LIST})
                StoreList(value, {});
            StoreText(list, text, LISTS_KEY, type);
            EXPECT_EQ("vtfltctl verify rebuild --yes", WithoutMachine(FindingOf("list-damaged").value("mend", "")));
            RunEveryMendTwice();
            EXPECT_TRUE(FindingOf("list-damaged").empty());
        }
    }
}

TEST_F(VtFltCtlMend, ACommandThatIsRunTwiceFindsItsEntryGone)
{
    StoreList(VERIFY, {L"Volume" + volume.guid, volume.guid});
    const std::vector<std::string> mends = PrintedMends();
    ASSERT_EQ(1u, mends.size());
    EXPECT_NE(std::string::npos, mends[0].find("--exact --yes"));
    EXPECT_TRUE(RunPrinted(mends[0]));
    EXPECT_EQ(List{volume.guid}, StoredList(VERIFY));
    EXPECT_FALSE(RunPrinted(mends[0]));
    EXPECT_EQ(List{volume.guid}, StoredList(VERIFY));
    // The same for a GUID in other case.
    StoreList(VERIFY, {OtherCase(volume.guid)});
    const json odd = FindingOf("list-entry-odd");
    Mend(odd);
    EXPECT_FALSE(RunPrinted(odd["mend"]));
    EXPECT_EQ(List{volume.guid}, StoredList(VERIFY));
}

TEST_F(VtFltCtlMend, AnEntryThatHoldsWholeGuidsGivesWayToThem)
{
    const std::wstring& g = volume.guid;
    for (const std::wstring& entry :
         {L"Volume" + g, volume.Path(), L"Volume" + OtherCase(g), g + L" ", L"\\??\\Volume" + g, g.substr(1)}) {
        StoreList(VERIFY, {entry});
        Mend(FindingOf("list-entry-odd"));
        EXPECT_EQ(List{g}, StoredList(VERIFY)) << Utf8(entry);
        StoreList(VERIFY, {});
        StoreList(PENDING, {entry});
        Mend(FindingOf("list-entry-odd"));
        EXPECT_EQ(List{g}, StoredList(VERIFY)) << Utf8(entry);
        EXPECT_TRUE(StoredList(PENDING).empty()) << Utf8(entry);
    }
    StoreList(VERIFY, {g + L" " + other.guid});
    Mend(FindingOf("list-entry-odd"));
    EXPECT_EQ((List{g, other.guid}), StoredList(VERIFY));
}

TEST_F(VtFltCtlMend, APartOfANameStaysBesideTheVolumesThatItMeans)
{
    // It may mean one that is away, too.
    const std::wstring part = volume.guid.substr(0, 9);
    StoreList(VERIFY, {part, L"-"});
    RunEveryMendTwice();
    EXPECT_EQ((List{other.guid, volume.guid, part, L"-"}.size()), StoredList(VERIFY).size());
    const json finding = FindingOf("list-entry-odd");
    EXPECT_FALSE(finding.contains("mend"));
    EXPECT_NE(std::string::npos, finding["consequence"].get<std::string>().find("only when it is certain"));
}

TEST_F(VtFltCtlMend, AnEntryOfAVolumeThatIsAwayIsNotTakenOff)
{
    for (const std::wstring& entry :
         {std::wstring(L"{11111111-"), L"Volume" + std::wstring(GONE), GONE + std::wstring(L" "),
          volume.guid + L";{48b5", volume.guid + L" 48b5a7e5", volume.guid + L";Volume", L"x" + volume.guid}) {
        StoreList(VERIFY, {entry, volume.guid});
        EXPECT_EQ(std::string::npos, FindingOf("list-entry-odd").value("mend", "").find("remove")) << Utf8(entry);
    }
    // Nor is anything said of volumes behind the point where the walk broke off.
    StoreList(VERIFY, {L"Volume" + volume.guid});
    VTFltSimSetEnumerationFault(machine.handle(), 2, ERROR_NOT_READY);
    EXPECT_FALSE(FindingOf("list-entry-odd").contains("mend"));
}

TEST_F(VtFltCtlMend, AnEntryThatNoCommandCanNameHasNone)
{
    StoreList(VERIFY, {volume.Root()}); // a backslash at the end
    EXPECT_FALSE(FindingOf("list-entry-odd").contains("mend"));
    StoreList(VERIFY, {L"[" + volume.guid + L"," + other.guid + L"]"});
    EXPECT_FALSE(FindingOf("list-entry-odd").contains("mend"));
    StoreList(VERIFY, {L"x*", other.guid});
    EXPECT_FALSE(FindingOf("list-entry-odd").contains("mend"));
}

TEST_F(VtFltCtlMend, AGuidInOtherCaseMarksNothingUntilItIsMended)
{
    for (const wchar_t* list : {VERIFY, PENDING}) {
        StoreList(VERIFY, {});
        StoreList(list, {OtherCase(volume.guid)});
        Mend(FindingOf("list-entry-odd"));
        EXPECT_EQ(List{volume.guid}, StoredList(VERIFY));
        EXPECT_TRUE(StoredList(PENDING).empty());
    }
}

TEST_F(VtFltCtlMend, ADriversListThatReplicateRefusesIsWrittenByHand)
{
    for (const std::wstring& odd : {OtherCase(volume.guid), std::wstring(L"{no volume}"), std::wstring(L"x*")}) {
        StoreList(VERIFY, {});
        StoreList(PENDING, {other.guid});
        StoreList(DRIVER_LIST, {odd, other.guid});
        EXPECT_TRUE(FindingOf("lost-tracking").contains("volume"));
        for (const std::string& mend : PrintedMends())
            EXPECT_EQ(std::string::npos, mend.find("verify replicate")) << mend;
        const std::string consequence = FindingOf("list-entry-odd").at("consequence");
        EXPECT_NE(std::string::npos, consequence.find("by hand")) << consequence;
    }
}

TEST_F(VtFltCtlMend, WhatTheDriversListCannotHandOverComesOntoEveryVerifyList)
{
    Register(L"Weekly");
    StoreList(DRIVER_LIST, {L"Volume" + volume.guid});
    EXPECT_FALSE(FindingOf("lost-tracking").contains("mend"));
    Mend(FindingOf("list-entry-odd"));
    EXPECT_EQ(List{volume.guid}, StoredList(VERIFY));
    EXPECT_EQ(List{volume.guid}, StoredList(L"DeviceListForReSyncWeekly.Last"));
    EXPECT_FALSE(FindingOf("list-entry-odd").contains("mend"));
}

TEST_F(VtFltCtlMend, OddEntriesAreMendedBeforeAnythingIsHandedOver)
{
    Register(L"Weekly");
    StoreList(PENDING, {volume.guid});
    StoreList(DRIVER_LIST, {volume.guid});
    StoreList(L"DeviceListForReSyncWeekly", {L"Volume" + other.guid});
    const std::vector<std::string> mends = PrintedMends();
    ASSERT_LE(2u, mends.size());
    EXPECT_NE(std::string::npos, mends.front().find("verify add Weekly")) << mends.front();
    EXPECT_NE(std::string::npos, mends.back().find("verify replicate")) << mends.back();
    RunEveryMendTwice();
    EXPECT_EQ(List{volume.guid}, StoredList(VERIFY));
    EXPECT_EQ(List{other.guid}, StoredList(L"DeviceListForReSyncWeekly.Last"));
    EXPECT_EQ(List{volume.guid}, StoredList(L"DeviceListForReSyncWeekly"));
}

TEST_F(VtFltCtlMend, EveryCommandNamesTheSimulatedMachine)
{
    StoreList(PENDING, {volume.guid});
    StoreList(VERIFY, {L"Volume" + other.guid});
    const std::vector<std::string> mends = PrintedMends();
    ASSERT_EQ(2u, mends.size());
    EXPECT_EQ("vtfltctl verify add Nightly \"" + Utf8(other.guid) + "\" && vtfltctl verify remove Nightly \"Volume" +
                  Utf8(other.guid) + "\" --exact --yes",
              WithoutMachine(mends[0]));
    EXPECT_EQ("vtfltctl verify replicate Nightly", WithoutMachine(mends[1]));
}

TEST_F(VtFltCtlMend, EverythingThatAShellMightReadIsInQuotes)
{
    for (const wchar_t* id : {L"a\x2019"
                              L"b",
                              L"a\x00A0"
                              L"b",
                              L"a+b", L"a b"}) {
        StoreIds({id});
        StoreList(std::wstring(DRIVER_LIST) + id, {volume.guid});
        EXPECT_EQ("vtfltctl verify replicate \"" + Utf8(id) + "\"",
                  WithoutMachine(FindingOf("list-pending").value("mend", "")));
        StoreList(std::wstring(DRIVER_LIST) + id, {});
    }
}

TEST_F(VtFltCtlMend, TheDriversListIsNotTakenForThatOfAnEmptyId)
{
    StoreText(L"RegisteredAppIDs", std::wstring(L"\0Nightly\0\0", 10), IDS_KEY);
    StoreList(DRIVER_LIST, {GONE}, LISTS_KEY, REG_SZ);
    RunEveryMendTwice();
    EXPECT_NE(List{}, StoredList(VERIFY));
    StoreList(DRIVER_LIST, {volume.guid});
    EXPECT_TRUE(FindingOf("list-pending").empty());
    EXPECT_EQ(EXIT_OK, Run({L"verify", L"replicate", L"Nightly"}).exitCode);
}

} // namespace
} // namespace vtfltctl_test
