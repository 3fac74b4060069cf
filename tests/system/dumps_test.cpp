// The diagnostic dumps: when they appear, their names and bytes, and that nothing depends on them.
#include "driver/protocol.h"
#include "support/cycle_test.h"

#include <algorithm>
#include <map>

namespace vttest {

namespace {

using namespace vtflt;

constexpr wchar_t DRIVER[] = L"DriverBitmap-app1-";
constexpr wchar_t TO_APPLICATION[] = L"DriverBitmap2App-app1-";
constexpr wchar_t CHANGES[] = L"AppSnapChanges-app1-";

class Dumps : public CycleTest {
protected:
    void SetUp() override
    {
        Register(L"app1");
        Touch({1, 50});
    }

    void SetSwitch(DWORD value) { SetDword(CBT_DRIVER_KEY, L"DumpBitmap", value); }

    // The dump files, by what their names begin with.
    std::vector<std::wstring> Names(const std::wstring& prefix) const
    {
        std::vector<std::wstring> names;
        WIN32_FIND_DATAW found = {};
        const HANDLE search = FindFirstFileW((RealPath(volume, L"VelVolTrc") + L"\\*").c_str(), &found);
        if (search == INVALID_HANDLE_VALUE)
            return names;
        do {
            const std::wstring name = found.cFileName;
            if (name.rfind(prefix, 0) == 0)
                names.push_back(name);
        } while (FindNextFileW(search, &found));
        FindClose(search);
        std::sort(names.begin(), names.end());
        return names;
    }
    std::size_t Count() const { return Names(DRIVER).size() + Names(TO_APPLICATION).size() + Names(CHANGES).size(); }
    Bytes Content(const std::wstring& name) const { return ReadFileBytes(volume, L"VelVolTrc\\" + name); }
    DWORD Attributes(const std::wstring& name) const { return FileAttributes(volume, L"VelVolTrc\\" + name); }
};

TEST_F(Dumps, AreOffWithoutTheValue)
{
    const auto session = Open(L"app1");
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(0u, session->SyncChanges(Bytes(BUFFER_LENGTH)));
    EXPECT_EQ(0u, Count());
}

TEST_F(Dumps, AreOffForAnyValueButOne)
{
    const auto session = Open(L"app1");
    for (const DWORD value : {0u, 2u, 0xFFFFFFFFu}) {
        SetSwitch(value);
        EXPECT_EQ(0u, session->GetBitmap());
        EXPECT_EQ(0u, session->SyncChanges(Bytes(BUFFER_LENGTH)));
        EXPECT_EQ(0u, Count()) << value;
    }
}

TEST_F(Dumps, AreOffForAValueOfAnotherType)
{
    machine.WriteValue(CBT_DRIVER_KEY, L"DumpBitmap", REG_SZ, TextBytes(L"1"));
    const auto session = Open(L"app1");
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(0u, Count());
}

TEST_F(Dumps, AreOffWhenTheKeyCannotBeOpened)
{
    SetSwitch(1);
    const auto session = Open(L"app1");
    vtfltsim::FailCall(L"RegCreateKeyExW", ERROR_ACCESS_DENIED, CBT_DRIVER_KEY, 1, 0);
    EXPECT_EQ(0u, session->GetBitmap(BUFFER_LENGTH));
    ClearFaults();
    EXPECT_EQ(0u, Count());
    log.ExpectNotLogged(L"CMultiBitmapManager::DumpBitMapToFile::WriteFile disk bitmap failed.");
}

TEST_F(Dumps, FollowTheSwitchWithoutARestart)
{
    const auto session = Open(L"app1");
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(0u, Count());
    SetSwitch(1);
    EXPECT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(2u, Count());
}

TEST_F(Dumps, OfAFetchHoldWhatTheDriverGaveAndWhatTheApplicationGot)
{
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    SetSwitch(1);
    Touch({2});
    ASSERT_EQ(0u, session->GetBitmap(64));
    ASSERT_EQ(1u, Names(DRIVER).size());
    ASSERT_EQ(1u, Names(TO_APPLICATION).size());
    EXPECT_EQ(BufferOf(64, {2}), Content(Names(DRIVER)[0]));
    EXPECT_EQ(BufferOf(64, {1, 2, 50}), Content(Names(TO_APPLICATION)[0]));
}

TEST_F(Dumps, ToTheApplicationHaveAsManyBytesAsWereCopied)
{
    SetSwitch(1);
    const auto session = Open(L"app1");
    RemoveFile(volume, BaseName(L"app1"));
    ASSERT_EQ(VERIFY, session->GetBitmap(BUFFER_LENGTH));
    ASSERT_EQ(1u, Names(TO_APPLICATION).size());
    EXPECT_EQ(Bytes(FRESH_LENGTH), Content(Names(TO_APPLICATION)[0]));
    EXPECT_EQ(BUFFER_LENGTH, Content(Names(DRIVER)[0]).size());
}

TEST_F(Dumps, OfSnapshotChangesHoldTheInputAndComeBeforeAnythingElse)
{
    SetSwitch(1);
    const auto session = Open(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    VTFltSimRecord(1);
    EXPECT_EQ(VERIFY, session->SyncChanges(BufferOf(20, {3})));
    VTFltSimRecord(0);
    ASSERT_EQ(1u, Names(CHANGES).size());
    EXPECT_EQ(BufferOf(20, {3}), Content(Names(CHANGES)[0]));
    const std::vector<std::wstring> calls = LibraryCalls();
    const auto first = [&](const std::wstring& text) {
        return std::find_if(calls.begin(), calls.end(),
                            [&](const std::wstring& call) { return call.find(text) != std::wstring::npos; });
    };
    ASSERT_NE(calls.end(), first(L"AppSnapChanges-"));
    EXPECT_LT(first(L"AppSnapChanges-"), first(DRIVER_LIST));
    EXPECT_LT(first(L"AppSnapChanges-"), first(L"VelVolTrc_child_"));
}

TEST_F(Dumps, CarryTheApplicationAndTheLocalTimeInTheirNames)
{
    SetSwitch(1);
    const auto session = Open(L"app1");
    SYSTEMTIME before = {};
    GetLocalTime(&before);
    ASSERT_EQ(0u, session->GetBitmap());
    SYSTEMTIME after = {};
    GetLocalTime(&after);
    const std::wstring name = Names(DRIVER).at(0);
    const std::wstring stamp = name.substr(std::wstring(DRIVER).size());
    const auto shown = [](const SYSTEMTIME& time) {
        wchar_t text[64] = {};
        wsprintfW(text, L"%04u%02u%02u-%02u%02u%02u-%03u.dat", time.wYear, time.wMonth, time.wDay, time.wHour,
                  time.wMinute, time.wSecond, time.wMilliseconds);
        return std::wstring(text);
    };
    EXPECT_EQ(23u, stamp.size());
    EXPECT_TRUE(shown(before) <= stamp && stamp <= shown(after)) << Narrow(stamp);
}

// 260 characters with the end: the application's bitmap files still have room for their names, its dumps have not.
TEST_F(Dumps, WhoseNamesWouldBeLongerAreCutAt260Characters)
{
    const std::wstring id(170, L'x');
    Register(id);
    SetSwitch(1);
    const auto session = Open(id);
    Touch({2});
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(0u, session->SyncChanges(Bytes(BUFFER_LENGTH)));
    const std::size_t room = 259 - (volume.Path() + L"\\VelVolTrc\\").size();
    for (const wchar_t* const kind : {L"DriverBitmap-", L"DriverBitmap2App-", L"AppSnapChanges-"}) {
        const std::vector<std::wstring> names = Names(kind + id + L"-");
        ASSERT_EQ(1u, names.size()) << Narrow(kind);
        EXPECT_EQ(room, names[0].size()) << Narrow(names[0]);
        EXPECT_EQ(std::wstring::npos, names[0].find(L".dat"));
    }
}

TEST_F(Dumps, AreHiddenSystemFilesWhenTheFolderIsThere)
{
    SetSwitch(1);
    const auto session = Open(L"app1");
    ASSERT_EQ(0u, session->GetBitmap());
    EXPECT_EQ(static_cast<DWORD>(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM),
              Attributes(Names(DRIVER).at(0)) & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM));
}

TEST_F(Dumps, ThatHadToMakeTheFolderAreOrdinaryVisibleFilesInAHiddenFolder)
{
    SetSwitch(1);
    const auto session = Open(L"app1");
    RemoveFile(volume, BaseName(L"app1"));
    RemoveFile(volume, ChildName(L"app1"));
    ASSERT_NE(FALSE, RemoveDirectoryW(RealPath(volume, L"VelVolTrc").c_str()));
    ASSERT_EQ(VERIFY, session->GetBitmap());
    constexpr DWORD HIDDEN_SYSTEM = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    EXPECT_EQ(HIDDEN_SYSTEM, FileAttributes(volume, L"VelVolTrc") & HIDDEN_SYSTEM);
    EXPECT_EQ(0u, Attributes(Names(DRIVER).at(0)) & HIDDEN_SYSTEM);
    EXPECT_EQ(HIDDEN_SYSTEM, Attributes(Names(TO_APPLICATION).at(0)) & HIDDEN_SYSTEM);
}

TEST_F(Dumps, AreNotWrittenWhenTheDriverFails)
{
    SetSwitch(1);
    const auto session = Open(L"app1");
    EXPECT_EQ(234u, session->GetBitmap(16));
    machine.FailRequest(VTFLTCTL_GET_BITMAP, ERROR_GEN_FAILURE);
    EXPECT_EQ(31u, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ(0u, Count());
}

TEST_F(Dumps, ToTheApplicationAreNotWrittenWhenTheFetchEndsBefore)
{
    SetSwitch(1);
    const auto session = Open(L"app1");
    machine.FailRequest(VTFLTCTL_REPLICATION_SUCCESS, ERROR_GEN_FAILURE);
    EXPECT_EQ(31u, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ(1u, Names(DRIVER).size());
    EXPECT_EQ(0u, Names(TO_APPLICATION).size());
}

TEST_F(Dumps, ThatCannotBeCreatedAreLoggedAndTheFetchGoesOn)
{
    SetSwitch(1);
    const auto session = Open(L"app1");
    vtfltsim::FailCall(L"CreateFileW", ERROR_ACCESS_DENIED, L"DriverBitmap-");
    EXPECT_EQ(0u, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ((BlockSet{1, 50}), Blocks(*session));
    // The folder is there already.
    log.ExpectLogged(0, 183, L"CMultiBitmapManager::DumpBitMapToFile::Failed to created bitmaps directory 183");
    EXPECT_EQ(0u, Names(DRIVER).size());
    EXPECT_EQ(1u, Names(TO_APPLICATION).size());
}

TEST_F(Dumps, ThatCannotBeCreatedInANewFolderAreLoggedWithTheirName)
{
    SetSwitch(1);
    const auto session = Open(L"app1");
    RemoveFile(volume, BaseName(L"app1"));
    RemoveFile(volume, ChildName(L"app1"));
    ASSERT_NE(FALSE, RemoveDirectoryW(RealPath(volume, L"VelVolTrc").c_str()));
    vtfltsim::FailCall(L"CreateFileW", ERROR_ACCESS_DENIED, L"DriverBitmap-", 2);
    EXPECT_EQ(VERIFY, session->GetBitmap(BUFFER_LENGTH));
    const std::wstring start = L"CMultiBitmapManager::DumpBitMapToFile::Create disk bitmap file failed, file name:" +
                               volume.Path() + L"\\VelVolTrc\\" + DRIVER;
    if (LogCapture::VISIBLE) {
        EXPECT_EQ(1, std::count_if(log.Records().begin(), log.Records().end(), [&](const LogRecord& record) {
                      return record.level == 0 && record.code == 5 && record.text.rfind(start, 0) == 0;
                  }));
    }
    EXPECT_EQ(0u, Names(DRIVER).size());
}

TEST_F(Dumps, WhoseFolderCannotBeMadeAreLoggedWithTheErrorAsANumber)
{
    SetSwitch(1);
    const auto session = Open(L"app1");
    RemoveFile(volume, BaseName(L"app1"));
    RemoveFile(volume, ChildName(L"app1"));
    ASSERT_NE(FALSE, RemoveDirectoryW(RealPath(volume, L"VelVolTrc").c_str()));
    vtfltsim::FailCall(L"CreateDirectoryW", ERROR_WRITE_PROTECT, L"VelVolTrc");
    EXPECT_EQ(VERIFY, session->GetBitmap(BUFFER_LENGTH));
    log.ExpectLogged(0, 19, L"CMultiBitmapManager::DumpBitMapToFile::Failed to created bitmaps directory 19");
    EXPECT_EQ(0u, Names(DRIVER).size());
}

TEST_F(Dumps, ThatCannotBeWrittenAreLoggedAndTheFetchGoesOn)
{
    SetSwitch(1);
    const auto session = Open(L"app1");
    vtfltsim::FailCall(L"WriteFile", ERROR_DISK_FULL, L"DriverBitmap-");
    CutCall(L"WriteFile", L"DriverBitmap2App-", 3);
    EXPECT_EQ(0u, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ((BlockSet{1, 50}), Blocks(*session));
    log.ExpectLogged(0, 112, L"CMultiBitmapManager::DumpBitMapToFile::WriteFile disk bitmap failed.");
    log.ExpectLogged(0, 0, L"CMultiBitmapManager::DumpBitMapToFile::WriteFile disk bitmap failed.");
    EXPECT_EQ(3u, Content(Names(TO_APPLICATION).at(0)).size());
}
TEST_F(Dumps, ADumpWithoutMemoryForItsNameIsLeftOutAndNothingElse)
{
    SetSwitch(1);
    const auto session = Open(L"app1");
    // The name is made right behind the look at the clock.
    ASSERT_EQ(0u, VTFltSimCallBefore(
                      L"GetLocalTime", nullptr, 1, 1,
                      [](void*, LPCWSTR, LPCWSTR) { VTFltSimFailCall(L"malloc", nullptr, 1, 1, 8); }, nullptr));
    log.SetThreshold(0);
    EXPECT_EQ(0u, session->GetBitmap(BUFFER_LENGTH));
    ClearFaults();
    EXPECT_EQ(session->Blocks(), (std::vector<std::uint64_t>{1, 50}));
    EXPECT_EQ(0u, Names(DRIVER).size());
    EXPECT_EQ(1u, Names(TO_APPLICATION).size());
}

} // namespace

} // namespace vttest
