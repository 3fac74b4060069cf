// vtlog show --why: the lists and bitmap files of a simulated machine, and the log that tells how it came to that.
#include "tools/vtlog_test.h"

#include "vtfltsim/VTFltSim.hpp"

#include <stdexcept>

namespace vtlog_test {
namespace {

constexpr wchar_t SERVICE_KEY[] = L"SYSTEM\\CurrentControlSet\\Services\\VTFlt";
constexpr wchar_t VOLUME[] = L"{11111111-2222-3333-4444-55555555aBcD}";
constexpr wchar_t OTHER[] = L"{99999999-2222-3333-4444-555555555555}";

class VtLogWhy : public VtLogTest {
protected:
    VtLogWhy()
    {
        VTFLTSIM_VOLUME_CONFIG config = {};
        config.size = sizeof(config);
        config.length = 1024 * 1024;
        config.blockSize = 4096;
        config.driveType = DRIVE_FIXED;
        config.mountPath = L"E:\\";
        config.guid = VOLUME;
        WCHAR guid[VTFLTSIM_GUID_CHARS] = {};
        if (VTFltSimAddVolume(machine.handle(), &config, guid) != 0 || Backup(L"init", {}).exitCode != EXIT_OK)
            throw std::runtime_error("the machine could not be made");
    }

    // Runs vtbackup on the machine; calls is what the simulator shall do to it.
    Result Backup(const wchar_t* command, const std::vector<std::wstring>& more, const std::wstring& calls = {}) const
    {
        std::vector<std::wstring> arguments = {
            command, L"--app", L"App", L"--repo", Path(L"repository"), L"--simulate", machine.directory()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return Process(arguments, {L"VTFLTSIM_CALLS=" + calls}, L"vtbackup.exe").Finish();
    }
    void SetList(const std::wstring& suffix, const std::vector<std::wstring>& entries, DWORD type = REG_MULTI_SZ)
    {
        const std::wstring list = vtfltsim::MultiString(entries);
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(list.data());
        machine.WriteValue(SERVICE_KEY, L"DeviceListForReSync" + suffix, type,
                           std::vector<std::uint8_t>(bytes, bytes + list.size() * sizeof(wchar_t)));
    }
    [[nodiscard]] Result Why(const std::wstring& log, const std::vector<std::wstring>& more = {},
                             const std::wstring& name = VOLUME) const
    {
        std::vector<std::wstring> arguments = {L"show",   L"--why", name, L"--simulate", machine.directory(),
                                               L"--only", log};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return Run(arguments);
    }
    // The one answer, as JSON.
    [[nodiscard]] nlohmann::json Answer(const std::wstring& log, const std::vector<std::wstring>& more = {}) const
    {
        std::vector<std::wstring> arguments = {L"--json"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const auto answers = Why(log, arguments).Json();
        EXPECT_EQ(1u, answers.size());
        return answers.empty() ? nlohmann::json::object() : answers.front();
    }
    // The story of a log in which the records of a thread are these, a second apart.
    std::wstring LogOf(const std::vector<std::pair<int, std::wstring>>& records) const
    {
        std::wstring text = SummaryBlock(L"2026/11/21 10:00:00:000");
        wchar_t time[] = L"2026/11/21 10:00:00:000";
        for (const auto& [level, message] : records) {
            ++time[18];
            text += Record(time, level, 0, message);
        }
        return WriteWide(L"story.Log", text);
    }
    static std::wstring Written(const std::wstring& list, const std::wstring& entries)
    {
        return L"CVolumeListForResync::UpdateApplicationValue::SetMultiStringValue DeviceListForReSync" + list +
               L" to " + entries;
    }
    // The cause that is told when the volume is on the verify list and the log tells this story.
    std::string CauseOf(const std::vector<std::pair<int, std::wstring>>& records)
    {
        SetList(L"App.Last", {VOLUME});
        return Answer(LogOf(records)).value("cause", "");
    }
    // A record that names one of the application's bitmap files, "base" or "child".
    static std::wstring BitmapFailure(const std::wstring& which)
    {
        return L"Open bitmap file failed, file name:\\\\?\\Volume" + std::wstring(VOLUME) + L"\\VelVolTrc\\VelVolTrc_" +
               which + L"_App.dat";
    }
    void DeleteBitmap(const std::wstring& which)
    {
        const std::wstring bitmap =
            std::wstring(machine.Info(volume).filesDirectory) + L"\\VelVolTrc\\VelVolTrc_" + which + L"_App.dat";
        SetFileAttributesW(bitmap.c_str(), FILE_ATTRIBUTE_NORMAL);
        ASSERT_TRUE(DeleteFileW(bitmap.c_str()));
    }
    // Of the records that an answer tells.
    static std::vector<std::string> Messages(const nlohmann::json& answer)
    {
        std::vector<std::string> messages;
        for (const nlohmann::json& record : answer.at("records"))
            messages.push_back(record.at("message"));
        return messages;
    }
    const std::wstring on = Written(L"App.Last", std::wstring(VOLUME) + L"*");

    vtfltsim::SimMachine machine;
    const vtfltsim::Volume volume{VOLUME};
};

TEST_F(VtLogWhy, AVolumeInOrderNeedNotVerify)
{
    const Result result = Why(LogOf({}));
    EXPECT_EQ(EXIT_OK, result.exitCode);
    EXPECT_EQ("Volume " + Utf8(VOLUME) + "\n\nApp: the next backup need not verify.\n", result.out);
    EXPECT_EQ(false, Answer(LogOf({})).at("verify"));
}

TEST_F(VtLogWhy, EverySpellingOfTheVolumeIsTheSame)
{
    SetList(L"App.Last", {VOLUME});
    for (const wchar_t* name :
         {L"{11111111-2222-3333-4444-55555555ABCD}", L"Volume{11111111-2222-3333-4444-55555555abcd}",
          L"\\\\?\\Volume{11111111-2222-3333-4444-55555555aBcD}", L"E:", L"e:\\\\"}) {
        const Result result = Why(LogOf({}), {}, name);
        EXPECT_EQ(EXIT_VERIFY_REQUIRED, result.exitCode) << Utf8(name) << result.err;
        EXPECT_EQ(0u, result.out.find("Volume " + Utf8(VOLUME) + "\n")) << result.out;
    }
}

TEST_F(VtLogWhy, AnUnknownDriveIsNotFoundAndANameThatIsNoVolumeIsAUsageError)
{
    EXPECT_EQ(EXIT_NOT_FOUND, Why(LogOf({}), {}, L"Q:").exitCode);
    EXPECT_EQ(EXIT_USAGE, Why(LogOf({}), {}, L"disk").exitCode);
}

TEST_F(VtLogWhy, TheDriversLossIsToldWithItsHandOverAndItsMove)
{
    SetList(L"App.Last", {VOLUME});
    const std::wstring pending = Written(L"App", std::wstring(VOLUME) + L"*");
    const auto answer = Answer(LogOf({{0, L"ReplicateVerifyList: Enter ReplicateVerifyList "},
                                      {2, pending},
                                      {2, on},
                                      {0, L"ReplicateVerifyList: SUCCESS:: ReplicateVerifyList "}}));
    EXPECT_EQ(true, answer.at("verify"));
    EXPECT_EQ("tracking-lost", answer.at("cause"));
    ASSERT_EQ(3u, answer.at("records").size());
    EXPECT_EQ(Utf8(pending), answer.at("records")[1].at("message"));
    EXPECT_EQ("2026-11-21T10:00:02.000", answer.at("records")[1].at("time"));
    EXPECT_EQ(Utf8(on), answer.at("records")[2].at("message"));
}

TEST_F(VtLogWhy, AHandOverThatStandsAtTheSamePlaceOfAnotherLogIsToldToo)
{
    SetList(L"App.Last", {VOLUME});
    const std::wstring pending = Written(L"App", std::wstring(VOLUME) + L"*");
    const std::wstring enter = L"ReplicateVerifyList: Enter ReplicateVerifyList ";
    const std::wstring handed = WriteWide(L"a.Log", Record(L"2026/11/21 10:00:01:000", 0, 0, enter, 100) +
                                                        Record(L"2026/11/21 10:00:02:000", 2, 0, pending, 100));
    const std::wstring moved = WriteWide(L"b.Log", Record(L"2026/11/21 10:00:03:000", 0, 0, enter, 101) +
                                                       Record(L"2026/11/21 10:00:04:000", 2, 0, on, 101));
    EXPECT_EQ((std::vector<std::string>{Utf8(pending), Utf8(enter), Utf8(on)}), Messages(Answer(handed, {moved})));
}

TEST_F(VtLogWhy, RecordsOfOneTimeStandInTheOrderOfTheirLogsAndOfOneLogInItsOwn)
{
    SetList(L"App.Last", {VOLUME});
    DeleteBitmap(L"base");
    const std::wstring pending = Written(L"App", std::wstring(VOLUME) + L"*");
    const std::wstring enter = L"ReplicateVerifyList: Enter ReplicateVerifyList ";
    const std::wstring time = L"2026/11/21 10:00:01:000";
    const std::wstring first =
        WriteWide(L"z.Log", Record(time, 0, 2, BitmapFailure(L"base"), 100) + Record(time, 2, 0, pending, 101));
    const std::wstring second = WriteWide(L"a.Log", Record(time, 0, 0, enter, 102) + Record(time, 2, 0, on, 102));
    EXPECT_EQ((std::vector<std::string>{Utf8(BitmapFailure(L"base")), Utf8(pending), Utf8(enter), Utf8(on)}),
              Messages(Answer(first, {second})));
}

TEST_F(VtLogWhy, RecordsStandAsInTheLogAlsoWhereTheClockWentBack)
{
    SetList(L"App.Last", {VOLUME});
    const std::wstring enter = L"ReplicateVerifyList: Enter ReplicateVerifyList ";
    const std::wstring log = WriteWide(L"story.Log", Record(L"2026/11/21 10:00:05:000", 0, 0, enter) +
                                                         Record(L"2026/11/21 10:00:01:000", 2, 0, on));
    EXPECT_EQ((std::vector<std::string>{Utf8(enter), Utf8(on)}), Messages(Answer(log)));
}

TEST_F(VtLogWhy, ARecordThatShowsTwoThingsIsToldOnce)
{
    SetList(L"App.Last", {VOLUME});
    DeleteBitmap(L"base");
    const std::wstring failure = BitmapFailure(L"base");
    EXPECT_EQ((std::vector<std::string>{Utf8(failure), Utf8(on)}), Messages(Answer(LogOf({{0, failure}, {2, on}}))));
}

TEST_F(VtLogWhy, ADamagedBitmapIsToldWithTheRecordThatNamesIt)
{
    const std::wstring damaged =
        L"CBitmapContainer::ReadBitMapFromFile: Bitmap file corrupted, file name:\\\\?\\Volume" + std::wstring(VOLUME) +
        L"\\VelVolTrc\\VelVolTrc_child_App.dat";
    EXPECT_EQ("bitmap-unusable", CauseOf({{0, damaged}, {2, on}}));
    EXPECT_NE(std::string::npos, Why(Path(L"story.Log")).out.find("Bitmap file corrupted"));
}

TEST_F(VtLogWhy, ChangesOfASnapshotThatCouldNotBeMergedAreTold)
{
    EXPECT_EQ("snapshot-changes",
              CauseOf({{2, on},
                       {0, L"CMultiBitmapManager::VTDeviceIoControl: Failed to sync snapshot changes to child bitmap. "
                           L"Next job will be verify backup."}}));
}

TEST_F(VtLogWhy, AProgramThatEndedWhileItMergedSnapshotChangesIsTold)
{
    EXPECT_EQ("snapshot-interrupted",
              CauseOf({{0, L"CMultiBitmapManager::VTDeviceIoControl::Get bitmap is returning =0."}, {2, on}}));
}

TEST_F(VtLogWhy, AVolumeThatWasOnTheListOnlyWhileChangesWereMergedIsNotExplainedByThat)
{
    EXPECT_EQ("not-told", CauseOf({{0, L"CMultiBitmapManager::VTDeviceIoControl::Get bitmap is returning =0."},
                                   {2, on},
                                   {2, L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS :: "
                                       L"VTFLTCTL_SYNC_SNAPSHOT_CHANGES_TO_VOLUME_BITMAP"}}));
}

TEST_F(VtLogWhy, AVolumeThatCouldNotBeTakenOffAgainIsTold)
{
    EXPECT_EQ("list-not-shortened",
              CauseOf({{2, on},
                       {0, L"CMultiBitmapManager::VTDeviceIoControl: Failed to remove volume Volume" +
                               std::wstring(VOLUME) + L" from verify list. Next job will be verify backup."}}));
}

TEST_F(VtLogWhy, UnregisteringIsTold)
{
    EXPECT_EQ("unregistered", CauseOf({{2, L"UnregisterApplication: Unregistering application App"}, {2, on}}));
}

TEST_F(VtLogWhy, AnOperationThatHadEndedExplainsNothing)
{
    EXPECT_EQ("not-told", CauseOf({{2, L"UnregisterApplication: Unregistering application App"},
                                   {2, L"UnregisterApplication: SUCCESS::Application un-registered"},
                                   {2, on}}));
}

TEST_F(VtLogWhy, AnOperationThatFailedExplainsNothingBehindIt)
{
    EXPECT_EQ("not-told", CauseOf({{2, L"UnregisterApplication: Unregistering application App"},
                                   {0, L"UnregisterApplication: Failed to add volumes to application verify list."},
                                   {2, on}}));
}

TEST_F(VtLogWhy, AnOperationThatWritesOneListExplainsNoSecondOne)
{
    EXPECT_EQ("on-list-before",
              CauseOf({{0, L"RemoveApplicationVolResyncList: Enter RemoveApplicationVolResyncList "}, {2, on}}));
    EXPECT_EQ("not-told", CauseOf({{0, L"RemoveApplicationVolResyncList: Enter RemoveApplicationVolResyncList "},
                                   {2, Written(L"App.Last", std::wstring(OTHER) + L"*")},
                                   {2, on}}));
}

TEST_F(VtLogWhy, RecordsOfAnotherThreadExplainNothing)
{
    SetList(L"App.Last", {VOLUME});
    const std::wstring log =
        WriteWide(L"story.Log", Record(L"2026/11/21 10:00:01:000", 2, 0,
                                       L"UnregisterApplication: Unregistering application App", 1, 1) +
                                    Record(L"2026/11/21 10:00:02:000", 2, 0, on, 1, 2));
    EXPECT_EQ("not-told", Answer(log).at("cause"));
}

TEST_F(VtLogWhy, AListWrittenWithoutTheVolumeEndsWhatWasBefore)
{
    EXPECT_EQ("not-told", CauseOf({{2, L"UnregisterApplication: Unregistering application App"},
                                   {2, on},
                                   {2, Written(L"App.Last", std::wstring(OTHER) + L"*")}}));
}

TEST_F(VtLogWhy, TheLatestCauseIsToldAndARewritingOfTheListIsNone)
{
    EXPECT_EQ("tracking-lost", CauseOf({{2, L"UnregisterApplication: Unregistering application App"},
                                        {2, on},
                                        {2, L"UnregisterApplication: SUCCESS::Application un-registered"},
                                        {0, L"ReplicateVerifyList: Enter ReplicateVerifyList "},
                                        {2, on},
                                        {0, L"ReplicateVerifyList: SUCCESS:: ReplicateVerifyList "},
                                        {0, L"RemoveApplicationVolResyncList: Enter RemoveApplicationVolResyncList "},
                                        {2, on}}));
}

TEST_F(VtLogWhy, AListThatTheLogCutIsReadFromTheRecordsBeforeIt)
{
    std::wstring longList;
    while (Written(L"App.Last", longList).size() < 1023)
        longList += std::wstring(OTHER) + L"*";
    const std::wstring cut = Written(L"App.Last", longList).substr(0, 1023);
    const std::wstring adding = L"CVolumeListForResync::UpdateApplicationValueAdding the new volume ";
    EXPECT_EQ("tracking-lost", CauseOf({{0, L"ReplicateVerifyList: Enter ReplicateVerifyList "},
                                        {2, adding + VOLUME},
                                        {2, adding + OTHER},
                                        {2, cut}}));
}

TEST_F(VtLogWhy, ALogOfErrorsAloneIsSaidToTellTooLittle)
{
    SetList(L"App.Last", {VOLUME});
    const std::wstring log = WriteWide(L"story.Log", Record(L"2026/11/21 10:00:01:000", 0, 5, L"something else"));
    const Result result = Why(log);
    EXPECT_EQ(EXIT_VERIFY_REQUIRED, result.exitCode);
    EXPECT_NE(std::string::npos, result.out.find("no record of information level")) << result.out;
}

TEST_F(VtLogWhy, ALogThatBeginsTooLateIsSaidToDoSo)
{
    SetList(L"App.Last", {VOLUME});
    const Result result = Why(LogOf({{2, L"something"}, {2, L"else"}}));
    EXPECT_NE(std::string::npos, result.out.find("The log tells of 2026/11/21 10:00:01.000 to 2026/11/21 10:00:02.000"))
        << result.out;
}

TEST_F(VtLogWhy, AMissingBitmapFileIsToldWithTheRecordThatNamesItIfThereIsOne)
{
    DeleteBitmap(L"base");
    EXPECT_EQ("bitmap-unusable", Answer(LogOf({})).at("cause"));
    EXPECT_NE(std::string::npos, Why(Path(L"story.Log")).out.find("No record of the log names it"));
    const std::wstring log = LogOf({{0, BitmapFailure(L"base")}});
    EXPECT_EQ(1u, Answer(log).at("records").size());
}

TEST_F(VtLogWhy, WhatTheDriverNamedAndNobodyCollectedIsTold)
{
    SetList(L"", {VOLUME});
    const auto answer = Answer(LogOf({}));
    EXPECT_EQ(true, answer.at("verify"));
    EXPECT_EQ("tracking-lost", answer.at("cause"));
}

TEST_F(VtLogWhy, APendingVolumeWillHaveToVerify)
{
    SetList(L"App", {VOLUME});
    const Result result = Why(LogOf({}));
    EXPECT_EQ(EXIT_VERIFY_REQUIRED, result.exitCode);
    EXPECT_NE(std::string::npos, result.out.find("on its pending list"));
}

TEST_F(VtLogWhy, AnotherVolumeOrAnotherApplicationOnAListIsNoReason)
{
    SetList(L"App.Last", {OTHER});
    SetList(L"Other.Last", {VOLUME});
    EXPECT_EQ(false, Answer(LogOf({})).at("verify"));
}

TEST_F(VtLogWhy, AListThatCannotBeReadMeansVerify)
{
    SetList(L"App.Last", {VOLUME}, REG_SZ);
    const auto answer = Answer(LogOf({}));
    EXPECT_EQ(true, answer.at("verify"));
    EXPECT_EQ("list-unreadable", answer.at("cause"));
}

TEST_F(VtLogWhy, EveryRegisteredApplicationHasAnAnswer)
{
    std::vector<std::wstring> arguments = {L"init",       L"--app",           L"Second", L"--repo", Path(L"repository"),
                                           L"--simulate", machine.directory()};
    ASSERT_EQ(EXIT_OK, Process(arguments, {}, L"vtbackup.exe").Finish().exitCode);
    SetList(L"Second.Last", {VOLUME});
    const auto answers = Why(LogOf({}), {L"--json"}).Json();
    ASSERT_EQ(2u, answers.size());
    EXPECT_EQ("App", answers[0].at("application"));
    EXPECT_EQ(false, answers[0].at("verify"));
    EXPECT_EQ("Second", answers[1].at("application"));
    EXPECT_EQ(true, answers[1].at("verify"));
}

TEST_F(VtLogWhy, NoRegisteredApplicationIsUnknown)
{
    const vtfltsim::SimMachine empty;
    const Result result = Run({L"show", L"--why", VOLUME, L"--simulate", empty.directory(), LogOf({})});
    EXPECT_EQ(EXIT_UNKNOWN, result.exitCode);
    EXPECT_NE(std::string::npos, result.out.find("No application is registered"));
}

TEST_F(VtLogWhy, ALogOfAnotherMachineIsReadWithoutThisMachinesLists)
{
    const auto answer =
        Answer(LogOf({{0, L"ReplicateVerifyList: Enter ReplicateVerifyList "}, {2, on}}), {L"--other-machine"});
    EXPECT_TRUE(answer.at("verify").is_null());
    EXPECT_EQ("tracking-lost", answer.at("cause"));
    EXPECT_EQ(EXIT_UNKNOWN, Why(Path(L"story.Log"), {L"--other-machine"}).exitCode);
}

TEST_F(VtLogWhy, LookingChangesNothingOnTheMachine)
{
    SetList(L"App.Last", {VOLUME});
    EXPECT_EQ(EXIT_VERIFY_REQUIRED, Why(LogOf({})).exitCode);
    DWORD type = 0;
    EXPECT_FALSE(machine.ReadValue(SERVICE_KEY, L"DeviceListForReSyncApp.Last", &type).empty());
    EXPECT_TRUE(machine.ReadValue(SERVICE_KEY, L"DeviceListForReSyncApp", &type).empty());
    EXPECT_TRUE(machine.ReadValue(SERVICE_KEY, L"DeviceListForReSync", &type).empty());
}

TEST_F(VtLogWhy, AFolderWithoutAMachineIsNotFound)
{
    EXPECT_EQ(EXIT_NOT_FOUND, Run({L"show", L"--why", VOLUME, L"--simulate", folder, LogOf({})}).exitCode);
}

} // namespace
} // namespace vtlog_test
