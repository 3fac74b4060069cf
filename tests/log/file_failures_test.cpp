// What becomes of a record when something under the log fails: what is traced, what is still tried, what is dropped, and
// that the log works again behind it.
#include "log_file_test.h"
#include "support/access_list.h"

#include <algorithm>
#include <thread>

using namespace vtflt;
using namespace vttest;
using vtfltsim::Check;

namespace {

class FileFailures : public LogFileTest {
protected:
    // A file that has its summary block and is open.
    void StartOpen()
    {
        Start(m_path);
        Write(L"first");
        ClearTrace();
    }
    static void Fail(const wchar_t* function, DWORD error, DWORD nth = 1, DWORD count = 1,
                     const wchar_t* match = nullptr)
    {
        Check("VTFltSimFailCall", VTFltSimFailCall(function, match, nth, count, error));
    }
    // The next CreateFileW gives this handle.
    static void OpenInstead(HANDLE handle)
    {
        VTFLTSIM_CALL_FAULT fault = {};
        fault.size = sizeof(fault);
        fault.what = VTFLTSIM_CALL_RETURNS;
        fault.function = L"CreateFileW";
        fault.count = 1;
        fault.value = reinterpret_cast<ULONG_PTR>(handle);
        Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    }
    // Starts the output so that its file gets a handle whose value the case knows.
    void StartWithKnownHandle()
    {
        Start(m_path);
        m_handle = CreateFileW(m_path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                               nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        ASSERT_TRUE(m_handle != INVALID_HANDLE_VALUE);
        OpenInstead(m_handle);
    }
    // The same, and the file has its first record.
    void StartOpenWithKnownHandle()
    {
        StartWithKnownHandle();
        Write(L"first");
        ClearTrace();
    }
    static void ForceWait(DWORD result, const std::wstring& mutex)
    {
        VTFLTSIM_CALL_FAULT fault = {};
        fault.size = sizeof(fault);
        fault.what = VTFLTSIM_CALL_RETURNS;
        fault.function = L"WaitForSingleObject";
        fault.match = mutex.c_str();
        fault.count = 1;
        fault.value = result;
        Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    }
    void ExpectTrace(const std::vector<std::wstring>& lines)
    {
        std::vector<std::wstring> expected;
        for (const std::wstring& line : lines)
            expected.push_back(TraceLine(line));
        const std::vector<std::wstring> traced = TraceLines();
        std::string shown;
        for (const std::wstring& line : traced)
            shown += Narrow(line) + "\n";
        EXPECT_TRUE(traced == expected) << "traced:\n" << shown;
    }
    // One line, which names the handle of the file and its path.
    void ExpectWriteTrace(const std::wstring& what, DWORD error)
    {
        const std::wstring handle = WideNumber(reinterpret_cast<ULONG_PTR>(m_handle));
        ExpectTrace({what + L" ERR=" + WideNumber(error) + L", [" + handle + L"]File=" + m_path + L"\r\n"});
    }
    // The name of the file's mutex, of a path without other letters than ASCII ones.
    static std::wstring MutexName(std::wstring path)
    {
        path.resize(std::min<std::size_t>(path.size(), 260));
        for (wchar_t& c : path)
            c = c == L'\\' ? L'/' : c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c + 32) : c;
        return L"Global\\" + path;
    }

    std::wstring m_path = File(L"Test.LOG");
    HANDLE m_handle = nullptr; // the output's, where a case started it so
};

struct Part {
    DWORD nth;
    const wchar_t* trace;
    std::wstring left; // of the record
};

TEST_F(FileFailures, EachPartOfARecordIsAWriteOfItsOwnAndAFailedOneDoesNotTakeTheOthersWithIt)
{
    const std::wstring header = MaskedHeader(2);
    const Part parts[] = {
        {1, L"Failed to Write log header.", L"text" + Tail() + L"\r\n"},
        {2, L"Failed to Write log message.", header + Tail() + L"\r\n"},
        {3, L"Failed to Write log tail.", header + L"text\r\n"},
        {4, L"Failed to Write [rn].", header + L"text" + Tail()},
    };
    StartOpenWithKnownHandle();
    for (const Part& part : parts) {
        const std::size_t before = WideFileText(m_path).size();
        Fail(L"WriteFile", ERROR_DISK_FULL, part.nth);
        Write(L"text");
        VTFltSimClearCallFaults();
        EXPECT_TRUE(MaskTimes(WideFileText(m_path).substr(before)) == part.left) << Narrow(part.trace);
        ExpectWriteTrace(part.trace, ERROR_DISK_FULL);
        ClearTrace();
    }
}

TEST_F(FileFailures, TheFourPartsOfANarrowRecordFailAsTheWideOnesDo)
{
    MakeFile(m_path, "...");
    StartOpenWithKnownHandle();
    DWORD nth = 0;
    for (const wchar_t* const what : {L"Failed to Write log header.", L"Failed to Write log message.",
                                      L"Failed to Write log tail.", L"Failed to Write [rn]."}) {
        ClearTrace();
        Fail(L"WriteFile", ERROR_DISK_FULL, ++nth);
        m_output->WriteLogA(2, 0, "text");
        VTFltSimClearCallFaults();
        ExpectWriteTrace(what, ERROR_DISK_FULL);
    }
}

TEST_F(FileFailures, AWriteThatMovesLessThanItShouldIsAFailedOne)
{
    StartOpen();
    VTFLTSIM_CALL_FAULT fault = {};
    fault.size = sizeof(fault);
    fault.what = VTFLTSIM_CALL_SHORT;
    fault.function = L"WriteFile";
    fault.nth = 2;
    fault.count = 1;
    fault.value = 2;
    Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    Write(L"text");
    VTFltSimClearCallFaults();
    const std::vector<std::wstring> records = Records(m_path);
    ASSERT_EQ(2u, records.size());
    EXPECT_TRUE(records[1] == MaskedHeader(2) + L"t" + Tail());
    ASSERT_EQ(1u, TraceLines().size());
    EXPECT_NE(std::wstring::npos, TraceLines()[0].find(L"Failed to Write log message."));
}

TEST_F(FileFailures, AFullDiskLosesTheRecordsAndNothingElse)
{
    StartOpen();
    Fail(L"WriteFile", ERROR_DISK_FULL, 1, 0);
    Write(L"lost");
    Write(L"lost too");
    VTFltSimClearCallFaults();
    Write(L"last");
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"first", L"last"}));
    EXPECT_EQ(8u, TraceLines().size());
}

TEST_F(FileFailures, ADiskThatIsFullFromTheStartLeavesAnEmptyFileThatTheNextRecordBegins)
{
    Start(m_path);
    Fail(L"WriteFile", ERROR_DISK_FULL, 1, 0);
    Write(L"lost");
    VTFltSimClearCallFaults();
    EXPECT_EQ(0, SizeOf(m_path));
    Write(L"kept");
    EXPECT_TRUE(Texts(m_path) == std::vector<std::wstring>{L"kept"});
}

TEST_F(FileFailures, AFailedMoveToTheEndSkipsTheWholeRecord)
{
    StartOpenWithKnownHandle();
    VTFltSimResetCounts();
    Fail(L"SetFilePointerEx", ERROR_NEGATIVE_SEEK, 2); // the first goes to the mark
    Write(L"skipped");
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"WriteFile"));
    ExpectWriteTrace(L"Failed to SetFilePointer.", ERROR_NEGATIVE_SEEK);
    VTFltSimClearCallFaults();
    Write(L"last");
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"first", L"last"}));
}

TEST_F(FileFailures, AMarkThatCannotBeReadLeavesTheFormAsItWas)
{
    StartOpen();
    Fail(L"ReadFile", ERROR_CRC);
    Write(L"still wide");
    VTFltSimClearCallFaults();
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"first", L"still wide"}));
}

TEST_F(FileFailures, AFileThatCannotBeOpenedIsReportedAndTheRecordDropped)
{
    Start(m_path);
    Fail(L"CreateFileW", ERROR_ACCESS_DENIED, 1, 1, m_path.c_str());
    Write(L"dropped");
    ExpectTrace({L"Failed to create file [" + m_path + L"]. ERR=5\r\n"});
    EXPECT_FALSE(Exists(m_path));
    Write(L"written");
    EXPECT_TRUE(Texts(m_path) == std::vector<std::wstring>{L"written"});
}

TEST_F(FileFailures, AMutexThatCannotBeMadeIsReportedAndTheFileClosedAgain)
{
    Start(m_path);
    const std::wstring name = MutexName(m_path);
    Fail(L"CreateMutexW", ERROR_ACCESS_DENIED, 1, 1, name.c_str());
    Write(L"dropped");
    ExpectTrace({L"Failed to create mutex with name [" + name + L"]. ERR=5\r\n"});
    EXPECT_EQ(0, SizeOf(m_path));
    const UniqueHandle alone(CreateFileW(m_path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(alone.valid()) << "the file is open";
}

TEST_F(FileFailures, AVersionThatCouldNotBeReadIsReadForTheNextRecord)
{
    unsigned file = 0;
    for (const wchar_t* const function : {L"GetFileVersionInfoSizeW", L"GetFileVersionInfoW", L"VerQueryValueW"}) {
        m_output.reset();
        const std::wstring path = File(L"version" + WideNumber(file++) + L".log");
        Start(path);
        const Elsewhere module(VersionedProgram());
        Fail(function, ERROR_NOT_ENOUGH_MEMORY);
        Write(L"first");
        EXPECT_EQ(1u, VTFltSimGetCallFaultHits()) << Narrow(function);
        VTFltSimClearCallFaults();
        Write(L"second");
        EXPECT_TRUE(Records(path) == (std::vector<std::wstring>{MaskedHeader(2) + L"first" + Tail(),
                                                                MaskedHeader(2) + L"second" + Tail(L"2.773")}))
            << Narrow(function);
    }
}

TEST_F(FileFailures, AVersionIsReadOnceAndBehindAFailureAgain)
{
    Start(m_path);
    // Its third and fourth number are 0.
    const Elsewhere module(ProgramFolder() + L"\\VTFltMgr.dll");
    Write(L"first");
    VTFltSimResetCounts();
    Write(L"second");
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"GetFileVersionInfoSizeW"));
    const std::wstring other = File(L"other.log");
    SetEntryPath(other);
    Fail(L"CreateMutexW", ERROR_ACCESS_DENIED, 1, 1, L"other.log");
    Write(L"dropped");
    VTFltSimResetCounts();
    Write(L"third");
    EXPECT_LE(1u, VTFltSimGetCallCount(L"GetFileVersionInfoSizeW"));
    EXPECT_TRUE(Texts(other) == std::vector<std::wstring>{L"third"});
}

TEST_F(FileFailures, WithoutAnEntryAndAProcessWidePathTheEmptyPathFailsEveryRecordAtTheFile)
{
    // All entries are taken: the module gets none, and no path.
    CLogCfgShareMemory::Instance().RegisterModule(L"other");
    {
        const ConfigEditor editor;
        ASSERT_NE(nullptr, editor.block);
        for (LogCfgModuleEntry& entry : editor.block->modules)
            CopyText(entry.name, L"taken");
    }
    MakeOutput();
    for (int record = 0; record < 2; ++record) {
        ClearTrace();
        Write(L"dropped");
        const std::vector<std::wstring> traced = TraceLines();
        ASSERT_EQ(1u, traced.size());
        EXPECT_EQ(0u, traced[0].find(TraceLine(L"Failed to create file []. ERR="))) << Narrow(traced[0]);
    }
}

TEST_F(FileFailures, APathThatIsEmptiedDropsTheRecordAndComesBackAsTheDefault)
{
    StartOpen();
    SetEntryPath(L"");
    Write(L"dropped");
    ASSERT_EQ(1u, TraceLines().size());
    EXPECT_EQ(0u, TraceLines()[0].find(TraceLine(L"Failed to create file []. ERR=")));
    EXPECT_TRUE(EntryPath() == ProgramFolder() + L"\\Logs\\" + ProgramName() + L".Log");
}

TEST_F(FileFailures, AWaitThatDoesNotSucceedDropsTheRecordAndStillCallsRelease)
{
    StartOpen();
    const std::wstring mutex = MutexName(m_path);
    for (const DWORD result : {DWORD{WAIT_TIMEOUT}, DWORD{WAIT_FAILED}}) {
        ForceWait(result, mutex);
        VTFltSimRecord(1);
        Write(L"dropped");
        VTFltSimRecord(0);
        VTFltSimClearCallFaults();
        EXPECT_EQ(1u, Recorded(L"WaitForSingleObject").size() - 2); // two more for the configuration
        EXPECT_TRUE(Recorded(L"ReleaseMutex").back() == L"ReleaseMutex " + mutex);
        EXPECT_TRUE(Recorded(L"WriteFile").empty());
        EXPECT_TRUE(TraceLines().empty());
    }
    Write(L"last");
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"first", L"last"}));
}

TEST_F(FileFailures, ANarrowRecordsFailedWaitIsReported)
{
    StartOpen();
    ForceWait(WAIT_TIMEOUT, MutexName(m_path));
    m_output->WriteLogA(2, 0, "dropped");
    ExpectTrace({L"Failed to wait mutex for file[" + m_path + L"]\r\n"});
}

TEST_F(FileFailures, AnAbandonedMutexIsOwnedTheRecordIsWrittenAndTheMutexGivenBack)
{
    StartOpen();
    const std::wstring name = MutexName(m_path);
    const UniqueHandle mutex(OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, name.c_str()));
    ASSERT_TRUE(mutex.valid());
    // By a function that the simulator does not count: the thread leaves it owned on purpose.
    const HANDLE handle = mutex.get();
    std::thread([&] { WaitForMultipleObjects(1, &handle, FALSE, INFINITE); }).join();
    Write(L"behind a dead owner");
    EXPECT_TRUE(Texts(m_path).back() == L"behind a dead owner");
    DWORD result = WAIT_FAILED;
    std::thread([&] {
        result = WaitForSingleObject(mutex.get(), 0);
        ReleaseMutex(mutex.get());
    }).join();
    EXPECT_EQ(WAIT_OBJECT_0, result);
}

TEST_F(FileFailures, AMutexThatAnotherHoldsIsWaitedForFiveSecondsAndNoLonger)
{
    StartOpen();
    const std::wstring name = MutexName(m_path);
    const UniqueHandle mutex(OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, name.c_str()));
    ASSERT_TRUE(mutex.valid());
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(mutex.get(), 0));
    VTFltSimRecord(1);
    std::thread([&] { Write(L"dropped"); }).join();
    VTFltSimRecord(0);
    // Not alone: the joining of the thread is a wait too.
    const std::vector<std::wstring> waits = Recorded(L"WaitForSingleObject");
    EXPECT_EQ(1, std::count(waits.begin(), waits.end(), L"WaitForSingleObject " + name + L"|5000"));
    // The failed release of a thread that does not own it has not taken it from its owner.
    DWORD result = WAIT_FAILED;
    std::thread([&] { result = WaitForSingleObject(mutex.get(), 0); }).join();
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, result);
    ReleaseMutex(mutex.get());
    Write(L"last");
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"first", L"last"}));
}

TEST_F(FileFailures, TheMutexsNameIsThePathInLowerCaseWithSlashes)
{
    StartOpen();
    const UniqueHandle mutex(OpenMutexW(SYNCHRONIZE, FALSE, MutexName(m_path).c_str()));
    EXPECT_TRUE(mutex.valid());
}

// Programs of every account write into the file.
TEST_F(FileFailures, TheFileAndItsMutexHaveANullAccessList)
{
    StartOpen();
    ExpectOpenToEveryone(UniqueHandle(OpenMutexW(READ_CONTROL, FALSE, MutexName(m_path).c_str())));
    if (!ON_DOUBLE)
        GTEST_SKIP() << "Wine gives every file a list";
    ExpectFileOpenToEveryone(m_path);
}

TEST_F(FileFailures, LettersBeyondAsciiAreLowerCasedInTheMutexsName)
{
    const std::wstring path = File(L"\u00DCBER.Log");
    Start(path);
    Write(L"m");
    const UniqueHandle mutex(OpenMutexW(SYNCHRONIZE, FALSE, MutexName(File(L"\u00FCber.log")).c_str()));
    EXPECT_TRUE(mutex.valid());
}

TEST_F(FileFailures, TheMutexsNameIsCutBehindThePathsFirst260Characters)
{
    std::wstring folder = m_folder.Path();
    while (folder.size() < 250)
        folder += L"\\" + std::wstring(std::min<std::size_t>(40, 250 - folder.size()), L'D');
    const std::wstring path = L"\\\\?\\" + folder + L"\\" + std::wstring(60, L'N');
    Start(path);
    VTFltSimRecord(1);
    Write(L"m");
    VTFltSimRecord(0);
    const std::vector<std::wstring> made = Recorded(L"CreateMutexW");
    ASSERT_EQ(1u, made.size());
    EXPECT_TRUE(made[0] == L"CreateMutexW " + MutexName(path));
    EXPECT_EQ(std::wstring(L"CreateMutexW Global\\").size() + 260, made[0].size());
    EXPECT_TRUE(Texts(path) == std::vector<std::wstring>{L"m"});
}

TEST_F(FileFailures, APathOf511CharactersIsWrittenWhereTheSystemAllowsIt)
{
    std::wstring path = L"\\\\?\\" + m_folder.Path();
    while (path.size() < 400)
        path += L"\\" + std::wstring(40, L'd');
    path += L"\\" + std::wstring(511 - path.size() - 1, L'n');
    ASSERT_EQ(511u, path.size());
    Start(path);
    Write(L"deep");
    EXPECT_TRUE(EntryPath() == path);
    EXPECT_TRUE(Texts(path) == std::vector<std::wstring>{L"deep"});
}

TEST_F(FileFailures, AFullFileWithAPathOf511CharactersHasNoSuccessorAndItsRecordsAreDropped)
{
    std::wstring path = L"\\\\?\\" + m_folder.Path() + L"\\";
    path += std::wstring(200, L'd');
    CreateDirectoryW(path.c_str(), nullptr);
    path += L"\\" + std::wstring(200, L'e');
    CreateDirectoryW(path.c_str(), nullptr);
    path += L"\\" + std::wstring(511 - path.size() - 1, L'n');
    MakeFile(path, "\xFF\xFE", LOG_SIZE_LIMIT);
    Start(path);
    Write(L"dropped");
    EXPECT_EQ(LOG_SIZE_LIMIT, SizeOf(path));
    EXPECT_TRUE(EntryPath() == path);
}

TEST_F(FileFailures, AFileThatIsDeletedBetweenTwoRecordsCannotBeAndOneThatIsGoneIsMadeAnew)
{
    StartOpen();
    // While it is open, others may not delete it.
    EXPECT_FALSE(DeleteFileW(m_path.c_str()));
    const std::wstring other = File(L"other.log");
    SetEntryPath(other);
    Write(L"elsewhere");
    EXPECT_TRUE(DeleteFileW(m_path.c_str()));
    SetEntryPath(m_path);
    Write(L"back");
    EXPECT_TRUE(Texts(m_path) == std::vector<std::wstring>{L"back"});
}

TEST_F(FileFailures, AFolderThatRefusesTheFileLosesItsRecordsUntilItAllowsIt)
{
    Start(m_path);
    Fail(L"CreateFileW", ERROR_ACCESS_DENIED, 1, 0, m_path.c_str());
    for (int record = 0; record < 3; ++record)
        Write(L"refused");
    VTFltSimClearCallFaults();
    EXPECT_EQ(3u, TraceLines().size());
    Write(L"allowed");
    EXPECT_TRUE(Texts(m_path) == std::vector<std::wstring>{L"allowed"});
}

TEST_F(FileFailures, ABlockThatCannotBeHadLeavesPathAndThresholdAsTheyAre)
{
    StartOpen();
    {
        const ConfigEditor editor;
        ASSERT_NE(nullptr, editor.block);
        editor.block->tailMagic = 0;
    }
    Write(L"second");
    Write(L"too detailed", 3);
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"first", L"second"}));
    EXPECT_EQ(2u, m_output->GetLogLevel());
    // Each question is one: level and path of the first record, level of the second, and the threshold.
    EXPECT_TRUE(TraceLines() == std::vector<std::wstring>(4, DamagedBlockLine()));
}

TEST_F(FileFailures, AFailedMoveToTheEndSkipsANarrowRecordToo)
{
    MakeFile(m_path, "narrow\r\n");
    StartOpenWithKnownHandle();
    const LONGLONG before = SizeOf(m_path);
    Fail(L"SetFilePointerEx", ERROR_NEGATIVE_SEEK, 2);
    Write(L"skipped");
    VTFltSimClearCallFaults();
    EXPECT_EQ(before, SizeOf(m_path));
    ExpectWriteTrace(L"Failed to SetFilePointer.", ERROR_NEGATIVE_SEEK);
}

TEST_F(FileFailures, AFailedMoveToTheEndLeavesTheSummaryOutAndNotTheRecord)
{
    StartWithKnownHandle();
    Fail(L"SetFilePointerEx", ERROR_NEGATIVE_SEEK, 2); // behind the one that writes the mark
    Write(L"text");
    VTFltSimClearCallFaults();
    ExpectWriteTrace(L"Failed to SetFilePointer.", ERROR_NEGATIVE_SEEK);
    EXPECT_TRUE(MaskTimes(WideFileText(m_path)) == MaskedHeader(2) + L"text" + Tail() + L"\r\n");
}

TEST_F(FileFailures, AMarkWhosePlaceCannotBeReachedOrThatIsReadInPartLeavesTheFormAsItWas)
{
    StartOpen();
    Fail(L"SetFilePointerEx", ERROR_NEGATIVE_SEEK);
    Write(L"second");
    VTFltSimClearCallFaults();
    VTFLTSIM_CALL_FAULT fault = {};
    fault.size = sizeof(fault);
    fault.what = VTFLTSIM_CALL_SHORT;
    fault.function = L"ReadFile";
    fault.count = 1;
    fault.value = 1;
    Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    Write(L"third");
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    VTFltSimClearCallFaults();
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"first", L"second", L"third"}));
    EXPECT_TRUE(TraceLines().empty());
}

TEST_F(FileFailures, ANewFileWhoseStartCannotBeReachedHasNoMark)
{
    Start(m_path);
    Fail(L"SetFilePointerEx", ERROR_NEGATIVE_SEEK);
    Write(L"text");
    VTFltSimClearCallFaults();
    const std::vector<std::uint8_t> bytes = FileBytes(m_path);
    ASSERT_LE(2u, bytes.size());
    EXPECT_EQ('[', bytes[0]);
    EXPECT_EQ(0, bytes[1]);
}

TEST_F(FileFailures, AFileWhoseSizeCannotBeHadGetsNeitherMarkNorSummary)
{
    StartOpen();
    Fail(L"GetFileSizeEx", ERROR_GEN_FAILURE, 1, 0);
    Write(L"second");
    VTFltSimClearCallFaults();
    Write(L"third");
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"first", L"second", L"third"}));
}

TEST_F(FileFailures, AnEmptyPathWhoseFileOpensAllTheSameHasNoMutex)
{
    StartOpen();
    SetEntryPath(L"");
    const HANDLE file = CreateFileW(File(L"other").c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_TRUE(file != INVALID_HANDLE_VALUE);
    OpenInstead(file);
    Write(L"dropped");
    VTFltSimClearCallFaults();
    ExpectTrace({L"Failed to create mutex. File name is empty\r\n"});
    LARGE_INTEGER size = {};
    EXPECT_FALSE(GetFileSizeEx(file, &size)) << "the file was left open";
    EXPECT_TRUE(Texts(m_path) == std::vector<std::wstring>{L"first"});
}

// The path comes from a block that every program may write.
TEST_F(FileFailures, WhatIsNoFileOfADiskIsClosedAgainAndTheRecordDropped)
{
    Start(m_path);
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    OpenInstead(event);
    Write(L"dropped");
    VTFltSimClearCallFaults();
    ExpectTrace({L"Failed to create file [" + m_path + L"]. ERR=123\r\n"});
    EXPECT_FALSE(SetEvent(event)) << "it was left open";
    Write(L"written");
    EXPECT_TRUE(Texts(m_path) == std::vector<std::wstring>{L"written"});
}

#if defined(_WIN32) // there are no pipes on the double
TEST_F(FileFailures, APipeGetsNothing)
{
    const std::wstring path = L"\\\\.\\pipe\\VTFltMgr.Test." + WideNumber(GetCurrentProcessId());
    const UniqueHandle pipe(
        CreateNamedPipeW(path.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, 1, 65536, 65536, 0, nullptr));
    ASSERT_TRUE(pipe.valid());
    StartOpen();
    SetEntryPath(path);
    Write(L"dropped");
    Write(L"dropped, too");
    DWORD bytes = 0;
    EXPECT_TRUE(!PeekNamedPipe(pipe.get(), nullptr, 0, nullptr, &bytes, nullptr) || bytes == 0);
    SetEntryPath(m_path);
    Write(L"written");
    EXPECT_TRUE(Texts(m_path) == (std::vector<std::wstring>{L"first", L"written"}));
}
#endif

} // namespace
