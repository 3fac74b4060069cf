// Which file a record goes to: full files and their successors, paths that change, and what the configuration then holds.
#include "log_file_test.h"

using namespace vtflt;
using namespace vttest;

namespace {

class Rotation : public LogFileTest {
protected:
    void MakeFull(const std::wstring& path) { MakeFile(path, "\xFF\xFE", LOG_SIZE_LIMIT); }
    // The folders that were made, or tried, since recording began.
    static std::size_t FoldersTried() { return Recorded(L"CreateDirectoryW").size(); }

    std::wstring m_path = File(L"X.dll.Log");
    std::wstring m_first = File(L"X.dll.00000001.log");
    std::wstring m_second = File(L"X.dll.00000002.log");
    std::wstring m_third = File(L"X.dll.00000003.log");
};

TEST_F(Rotation, AFileOfExactly104857600BytesIsFullAndTheRecordGoesToTheSuccessor)
{
    MakeFull(m_path);
    Start(m_path);
    Write(L"next");
    EXPECT_EQ(LOG_SIZE_LIMIT, SizeOf(m_path));
    EXPECT_TRUE(Texts(m_first) == std::vector<std::wstring>{L"next"});
    EXPECT_TRUE(EntryPath() == m_first);
}

TEST_F(Rotation, AFileOfOneByteLessTakesTheRecord)
{
    MakeFile(m_path, "\xFF\xFE", LOG_SIZE_LIMIT - 1);
    Start(m_path);
    Write(L"last");
    EXPECT_LT(LOG_SIZE_LIMIT, SizeOf(m_path));
    EXPECT_FALSE(Exists(m_first));
    EXPECT_TRUE(EntryPath() == m_path);
}

TEST_F(Rotation, FullSuccessorsAreSkipped)
{
    MakeFull(m_path);
    MakeFull(m_first);
    MakeFull(m_second);
    Start(m_path);
    Write(L"third");
    EXPECT_TRUE(Texts(m_third) == std::vector<std::wstring>{L"third"});
    EXPECT_TRUE(EntryPath() == m_third);
}

TEST_F(Rotation, ASuccessorThatHasRoomIsContinued)
{
    MakeFull(m_path);
    Start(m_first);
    Write(L"earlier");
    m_output.reset();
    Start(m_path);
    Write(L"later");
    EXPECT_TRUE(Texts(m_first) == (std::vector<std::wstring>{L"earlier", L"later"}));
}

TEST_F(Rotation, AnOpenFileThatFillsUpIsLeftForItsSuccessorAndNeitherDeletedNorRenamed)
{
    Start(m_path);
    Write(L"first");
    {
        const UniqueHandle file(CreateFileW(m_path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                            OPEN_EXISTING, 0, nullptr));
        LARGE_INTEGER size = {};
        size.QuadPart = LOG_SIZE_LIMIT;
        DWORD done = 0;
        DeviceIoControl(file.get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &done, nullptr);
        ASSERT_TRUE(SetFilePointerEx(file.get(), size, nullptr, FILE_BEGIN) && SetEndOfFile(file.get()));
    }
    VTFltSimRecord(1);
    Write(L"second");
    VTFltSimRecord(0);
    EXPECT_EQ(LOG_SIZE_LIMIT, SizeOf(m_path));
    EXPECT_TRUE(Texts(m_first) == std::vector<std::wstring>{L"second"});
    EXPECT_TRUE(TraceLines() == std::vector<std::wstring>{
                                    TraceLine(L"Redirect file from [" + m_path + L"] to [" + m_first + L"]\r\n")});
    // The folder is that of the file before: it is not prepared again.
    EXPECT_EQ(0u, FoldersTried());
    EXPECT_TRUE(Recorded(L"GetNamedSecurityInfoW").empty());
    // The successor has a mutex of its own; the old one is closed.
    const std::vector<std::wstring> mutexes = Recorded(L"CreateMutexW");
    ASSERT_EQ(1u, mutexes.size());
    EXPECT_NE(std::wstring::npos, mutexes[0].find(L"x.dll.00000001.log"));
    const UniqueHandle alone(CreateFileW(m_path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(alone.valid());
}

TEST_F(Rotation, AFullFileThatWasNotOpenHasItsFolderPrepared)
{
    MakeFull(m_path);
    Start(m_path);
    VTFltSimRecord(1);
    Write(L"next");
    VTFltSimRecord(0);
    EXPECT_LT(0u, FoldersTried());
}

TEST_F(Rotation, SuccessorsAreOnlyLookedForByTheirAttributes)
{
    MakeFull(m_path);
    MakeFull(m_first);
    Start(m_path);
    VTFltSimRecord(1);
    Write(L"next");
    VTFltSimRecord(0);
    const std::vector<std::wstring> asked = Recorded(L"GetFileAttributesExW");
    EXPECT_TRUE(asked ==
                (std::vector<std::wstring>{L"GetFileAttributesExW " + m_path, L"GetFileAttributesExW " + m_first,
                                           L"GetFileAttributesExW " + m_second}));
    for (const std::wstring& opened : Recorded(L"CreateFileW"))
        EXPECT_EQ(std::wstring::npos, opened.find(L"00000001")) << Narrow(opened);
}

TEST_F(Rotation, TheNumberGoesOnFromTheFilesOwn)
{
    const std::wstring path = File(L"Y.00000041.LOG");
    MakeFull(path);
    Start(path);
    Write(L"next");
    EXPECT_TRUE(Texts(File(L"Y.00000042.log")) == std::vector<std::wstring>{L"next"});
}

TEST_F(Rotation, OfAProcessWideFileMovesTheWholeProcessAndLeavesTheEntryAlone)
{
    const std::wstring entry = File(L"own.log");
    MakeFull(m_path);
    Start(entry);
    SetProcessPath(m_path);
    Write(L"next");
    EXPECT_TRUE(Texts(m_first) == std::vector<std::wstring>{L"next"});
    EXPECT_TRUE(ProcessPath() == m_first);
    EXPECT_TRUE(EntryPath() == entry);
}

TEST_F(Rotation, OfAListedProcessesOwnFileMovesTheProcessWidePathAllTheSame)
{
    SetText(ENGINE_DEBUG_KEY, L"DisableGlobalOption", ProgramName());
    MakeFull(m_path);
    Start(m_path);
    SetProcessPath(File(L"all.log"));
    Write(L"next");
    EXPECT_TRUE(Texts(m_first) == std::vector<std::wstring>{L"next"});
    EXPECT_TRUE(ProcessPath() == m_first);
    EXPECT_TRUE(EntryPath() == m_path);
}

TEST_F(Rotation, AnAutomaticPathGivesWayToTheProcessWideOneAtTheNextRecord)
{
    Start(m_path);
    Write(L"here");
    const std::wstring other = File(L"all.log");
    SetProcessPath(other);
    Write(L"there");
    SetProcessPath(L"");
    Write(L"here again");
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"here", L"here again"}));
    EXPECT_TRUE(Texts(other) == std::vector<std::wstring>{L"there"});
}

TEST_F(Rotation, AListedProcessIgnoresTheProcessWideFile)
{
    SetText(ENGINE_DEBUG_KEY, L"DisableGlobalOption", L"other.exe " + ProgramName());
    Start(m_path);
    SetProcessPath(File(L"all.log"));
    Write(L"here");
    EXPECT_TRUE(Texts(m_path) == std::vector<std::wstring>{L"here"});
    EXPECT_FALSE(Exists(File(L"all.log")));
}

TEST_F(Rotation, AnotherCaseOfThePathIsTheSameFile)
{
    Start(m_path);
    Write(L"first");
    SetEntryPath(File(L"x.DLL.log"));
    VTFltSimResetCounts();
    Write(L"second");
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"CreateFileW"));
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"first", L"second"}));
}

TEST_F(Rotation, ThePathWithoutItsEndingIsTheSameFile)
{
    Start(m_path);
    Write(L"first");
    SetEntryPath(File(L"X.dll"));
    Write(L"second");
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"first", L"second"}));
    EXPECT_FALSE(Exists(File(L"X.dll")));
}

TEST_F(Rotation, AChangedPathClosesTheFileAndIsWrittenBackAsAFullPath)
{
    Start(m_path);
    Write(L"first");
    const std::wstring other = File(L"other.log");
    SetEntryPath(other);
    Write(L"second");
    EXPECT_TRUE(EntryPath() == other);
    EXPECT_TRUE(Texts(other) == std::vector<std::wstring>{L"second"});
    const UniqueHandle alone(CreateFileW(m_path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(alone.valid());
}

// Such a path is written as it stands once, and from then on as what it was made.
TEST_F(Rotation, AChangedPathWithoutAFolderHasOneRecordInTheCurrentFolderAndTheOthersInTheDefaultOne)
{
    SetText(std::wstring(ENGINE) + L"\\InstallPath", L"Path", m_folder.Path());
    const Elsewhere module(m_folder.File(ProgramName()));
    MakeOutput();
    Write(L"first");
    const std::wstring bare = L"vtlogtest.bare";
    DeleteFileW(bare.c_str());
    SetEntryPath(bare);
    VTFltSimRecord(1);
    Write(L"second");
    VTFltSimRecord(0);
    EXPECT_EQ(0u, FoldersTried());
    EXPECT_TRUE(Texts(bare) == std::vector<std::wstring>{L"second"});
    const std::wstring whole = File(L"Logs\\vtlogtest.bare.Log");
    EXPECT_TRUE(EntryPath() == whole);
    EXPECT_FALSE(Exists(whole));
    Write(L"third");
    Write(L"fourth");
    EXPECT_TRUE(DeleteFileW(bare.c_str()));
    EXPECT_TRUE(EntryPath() == whole);
    EXPECT_TRUE(Texts(whole) == (std::vector<std::wstring>{L"third", L"fourth"}));
    EXPECT_TRUE(Texts(File(L"Logs\\" + ProgramName() + L".Log")) == std::vector<std::wstring>{L"first"});
}

TEST_F(Rotation, AChangedPathWithRoomIsOpenedWithoutPreparingItsFolderWhileAFileWasOpen)
{
    Start(m_path);
    Write(L"first");
    const std::wstring other = File(L"new\\other.log");
    SetEntryPath(other);
    Write(L"lost: the folder is not there");
    EXPECT_FALSE(Exists(other));
    // Now nothing was open, and the folder is prepared.
    Write(L"second");
    EXPECT_TRUE(Texts(other) == std::vector<std::wstring>{L"second"});
}

TEST_F(Rotation, AChangedPathThatIsFullHasTheSuccessorsFolderPrepared)
{
    Start(m_path);
    Write(L"first");
    const std::wstring other = File(L"other.log");
    MakeFull(other);
    SetEntryPath(other);
    VTFltSimRecord(1);
    Write(L"second");
    VTFltSimRecord(0);
    EXPECT_LT(0u, FoldersTried());
    EXPECT_TRUE(Texts(File(L"other.00000001.log")) == std::vector<std::wstring>{L"second"});
    EXPECT_TRUE(EntryPath() == File(L"other.00000001.log"));
}

TEST_F(Rotation, NarrowStaysNarrowInTheSuccessorWhichBeginsWithoutAMark)
{
    MakeFile(m_path, "narrow", LOG_SIZE_LIMIT - 1);
    Start(m_path);
    Write(L"the last narrow one");
    Write(L"in the successor");
    const std::vector<std::uint8_t> bytes = FileBytes(m_first);
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_EQ(0u, text.find("[   Date        Time      Level  PID     TID   ErrCode    ] .......\r\n["));
    EXPECT_NE(std::string::npos, text.find("] in the successor   {"));
}

TEST_F(Rotation, ANarrowFileThatStartsOverIsWideAgainOnceAMarkIsMet)
{
    MakeFile(m_path, "narrow\r\n");
    Start(m_path);
    Write(L"narrow");
    const std::wstring wide = File(L"wide.log");
    MakeFile(wide, std::string("\xFF\xFE[\0", 4));
    SetEntryPath(wide);
    Write(L"wide");
    const std::wstring fresh = File(L"fresh.log");
    SetEntryPath(fresh);
    Write(L"fresh");
    EXPECT_TRUE(Texts(fresh) == std::vector<std::wstring>{L"fresh"});
}

TEST_F(Rotation, ANewFileBehindANarrowOneIsNarrow)
{
    MakeFile(m_path, "narrow\r\n");
    Start(m_path);
    Write(L"narrow");
    const std::wstring fresh = File(L"fresh.log");
    SetEntryPath(fresh);
    Write(L"narrow too");
    const std::vector<std::uint8_t> bytes = FileBytes(fresh);
    ASSERT_LT(2u, bytes.size());
    EXPECT_EQ('[', bytes[0]);
    EXPECT_EQ(' ', bytes[1]);
}

TEST_F(Rotation, TheDefaultFileLiesBelowThisProgramWhereNoComponentIs)
{
    MakeOutput();
    EXPECT_TRUE(EntryPath() == ProgramFolder() + L"\\Logs\\" + ProgramName() + L".Log");
}

TEST_F(Rotation, TheDefaultFolderIsFoundOutOnceAndStaysAlthoughTheComponentMoves)
{
    const std::wstring key = std::wstring(ENGINE) + L"\\InstallPath";
    const Elsewhere module(L"C:\\Lumen\\Engine\\" + ProgramName());
    SetText(key, L"Path", L"C:\\Lumen");
    CLogCfgShareMemory& configuration = CLogCfgShareMemory::Instance();
    configuration.RegisterModule(L"first.dll");
    SetText(key, L"Path", L"C:\\Lumen\\Engine");
    configuration.RegisterModule(L"second.dll");
    {
        const ConfigEditor editor;
        ASSERT_NE(nullptr, editor.block);
        EXPECT_STREQ(L"C:\\Lumen\\Logs\\first.dll.Log", editor.block->modules[0].path);
        EXPECT_STREQ(L"C:\\Lumen\\Logs\\second.dll.Log", editor.block->modules[1].path);
    }
    // Found out anew it is the other.
    vtflt::CloseOutputState();
    configuration.RegisterModule(L"third.dll");
    const ConfigEditor editor;
    ASSERT_NE(nullptr, editor.block);
    EXPECT_STREQ(L"C:\\Lumen\\Engine\\Logs\\third.dll.Log", editor.block->modules[0].path);
}

} // namespace
