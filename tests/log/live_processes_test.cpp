// Live records of other processes, through the shipped DLL: rings with several writers, writers and viewers that die, and
// what a library leaves that is unloaded.
#include "log/share_memory.h"
#include "support/child.h"
#include "support/live_viewer.h"
#include "support/log_test.h"

#include <map>

using namespace vtflt;
using namespace vttest;

namespace {

const std::wstring CHILD = L"live_child";
const std::wstring CHILD_NAME = L"live_child.exe";
const std::wstring CHILD_RING = L"LIVE_CHILD.EXE";

std::wstring RecordText(unsigned thread, unsigned number)
{
    constexpr wchar_t DIGITS[] = L"0123456789abcdef";
    std::wstring hex;
    for (unsigned value = thread << 16 | number; value != 0; value /= 16)
        hex.insert(hex.begin(), DIGITS[value % 16]);
    return L"VTFltDeinitBitmapManager: Handle 0X" + hex + L" not found. Please provide valid volume handle.";
}

class LiveProcesses : public ::testing::Test {
protected:
    // The ring outlives its writers here, and its record 0, which no reader gets, is behind it.
    void StartRing()
    {
        ASSERT_TRUE(m_ring.OpenAsWriter());
        ASSERT_TRUE(m_ring.WriteMessage(0, 0, L"", L"record 0"));
        ASSERT_TRUE(m_reader.OpenAsReader());
    }
    std::vector<LogMessagePtr> Read()
    {
        std::vector<LogMessagePtr> messages;
        EXPECT_TRUE(m_reader.ReadMessages(messages));
        return messages;
    }
    std::vector<std::wstring> ReadTexts()
    {
        std::vector<std::wstring> texts;
        for (const LogMessagePtr& message : Read())
            texts.push_back(message->GetText());
        return texts;
    }

    LiveViewer m_viewer{CHILD_RING};
    CLogShareMemory m_ring{CHILD_NAME};
    CLogShareMemory m_reader{CHILD_NAME};
};

TEST_F(LiveProcesses, ProcessesOfOneNameShareARingAndNoRecordIsLostDoubledOrTorn)
{
    constexpr unsigned PROCESSES = 3;
    constexpr unsigned THREADS = 2;
    constexpr unsigned RECORDS = 150; // 900 in all, fewer than the ring has slots
    StartRing();
    std::vector<ChildProcess> children;
    for (unsigned i = 0; i < PROCESSES; ++i)
        children.emplace_back(CHILD, std::vector<std::wstring>{L"log", WideNumber(THREADS), WideNumber(RECORDS)});
    std::vector<DWORD> processIds;
    for (ChildProcess& child : children)
        processIds.push_back(GetProcessId(child.Handle()));
    for (ChildProcess& child : children)
        EXPECT_EQ(0u, child.Join());

    std::map<std::pair<DWORD, DWORD>, std::vector<std::wstring>> texts;
    for (const LogMessagePtr& message : Read()) {
        EXPECT_EQ(CHILD_NAME, message->GetExecutableName());
        EXPECT_EQ(L"VTFltMgr.dll", message->GetModuleName());
        EXPECT_EQ(0, message->GetLevel());
        EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), message->GetErrorCode());
        texts[{message->GetProcessId(), message->GetThreadId()}].push_back(message->GetText());
    }
    EXPECT_EQ(PROCESSES * THREADS, texts.size());
    std::map<std::pair<DWORD, unsigned>, unsigned> threadsSeen;
    for (const auto& [writer, written] : texts) {
        EXPECT_NE(processIds.end(), std::find(processIds.begin(), processIds.end(), writer.first));
        ASSERT_EQ(RECORDS, written.size());
        unsigned thread = 1;
        while (thread < THREADS && written[0] != RecordText(thread, 1))
            ++thread;
        ++threadsSeen[{writer.first, thread}];
        for (unsigned number = 1; number <= RECORDS; ++number)
            EXPECT_TRUE(written[number - 1] == RecordText(thread, number)) << Narrow(written[number - 1]);
    }
    EXPECT_EQ(PROCESSES * THREADS, threadsSeen.size());
}

TEST_F(LiveProcesses, AWriterThatDiesWithTheMutexHoldsNobodyUp)
{
    StartRing();
    const vtfltsim::SimMachine machine;
    ChildProcess dying(CHILD, {L"log", L"1", L"5", machine.directory()}, DieBefore(L"ReleaseMutex", CHILD_RING, 2));
    EXPECT_EQ(VTFLTSIM_KILLED, dying.Join()); // opening gives the mutex back once, the first record is the second time
    ChildProcess next(CHILD, {L"log", L"1", L"2"});
    EXPECT_EQ(0u, next.Join());
    EXPECT_EQ((std::vector<std::wstring>{RecordText(1, 1), RecordText(1, 1), RecordText(1, 2)}), ReadTexts());
}

TEST_F(LiveProcesses, AViewerThatIsKilledWhileAThreadStandsAtABreakpointHoldsItNoLonger)
{
    m_viewer.Leave();
    const std::wstring readyName = UniqueName(L"VTFltMgr.Test.Viewer");
    const UniqueHandle ready = NamedEvent(readyName);
    ChildProcess viewer(CHILD, {L"view", readyName});
    ASSERT_TRUE(viewer.Await(ready));

    ViewerBreakpoints breakpoints;
    breakpoints.Set(0, CHILD_NAME, L"0X10002 ");
    StartRing();
    ChildProcess writer(CHILD, {L"log", L"1", L"3"});
    const DWORD processId = GetProcessId(writer.Handle());
    ASSERT_TRUE(breakpoints.AwaitHit(writer.Handle()));
    EXPECT_EQ(processId, breakpoints.Hit().processId);
    EXPECT_FALSE(writer.Ended());
    EXPECT_EQ((std::vector<std::wstring>{RecordText(1, 1), RecordText(1, 2)}), ReadTexts());
    ASSERT_TRUE(TerminateProcess(viewer.Handle(), 1));
    EXPECT_EQ(1u, viewer.Join());
    EXPECT_EQ(0u, writer.Join());
    EXPECT_TRUE(ReadTexts().empty()); // what came behind has no viewer to go to
}

TEST_F(LiveProcesses, AThreadAtABreakpointGoesOnWhenItIsLetGo)
{
    ViewerBreakpoints breakpoints;
    breakpoints.Set(0, L"LIVE_child.EXE", L"0X20001 ");
    StartRing();
    ChildProcess writer(CHILD, {L"log", L"2", L"1"});
    ASSERT_TRUE(breakpoints.AwaitHit(writer.Handle()));
    ViewerBreakpoints::LetGo(breakpoints.Hit().hit);
    EXPECT_EQ(0u, writer.Join());
    EXPECT_EQ(2u, ReadTexts().size());
}

// The shipped library in this very process, beside the library that this program is linked with.
class UnloadedLibrary : public LogTest {
protected:
    using Deinit = DWORD(WINAPI*)(HANDLE);

    void Load()
    {
        m_library = LoadLibraryW(L"VTFltMgr.dll");
        ASSERT_NE(nullptr, m_library);
        m_deinit =
            reinterpret_cast<Deinit>(reinterpret_cast<void*>(GetProcAddress(m_library, "VTFltDeinitBitmapManager")));
        ASSERT_NE(nullptr, m_deinit);
    }
    void Unload()
    {
        EXPECT_TRUE(FreeLibrary(m_library));
        EXPECT_EQ(nullptr, GetModuleHandleW(L"VTFltMgr.dll"));
    }
    static DWORD MarkedHandle() { return 0x77; }
    void LogOne() const { m_deinit(reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(MarkedHandle()))); }
    // Where the library logs: its entry's path in the block.
    void LogInto(const std::wstring& path, DWORD flags, DWORD level) const
    {
        const ConfigEditor editor;
        LogCfgModuleEntry* const entry = editor.Find(L"VTFltMgr.dll");
        ASSERT_NE(nullptr, entry);
        CopyText(entry->path, path);
        entry->flags = flags;
        entry->level = level;
    }

    HMODULE m_library = nullptr;
    Deinit m_deinit = nullptr;
};

TEST_F(UnloadedLibrary, LeavesNoObjectNoRingAndNoModule)
{
    constexpr wchar_t PROGRAM_RING[] = L"LOG_TESTS.EXE";
    for (int turn = 0; turn < 2; ++turn) {
        Load();
        LogInto(m_folder.File(L"turn.log"), 0, LOG_LEVEL_NOT_SET);
        {
            const LiveViewer viewer(PROGRAM_RING);
            const ViewerBreakpoints breakpoints;
            LogOne();
            const BlockView<LogRingBlock> ring(std::wstring(RING_MAPPING) + PROGRAM_RING);
            ASSERT_NE(nullptr, ring.block);
            EXPECT_EQ(RecordText(0, MarkedHandle()), ring.block->slots[0].text);
            EXPECT_STREQ(L"VTFltMgr.dll", ring.block->slots[0].moduleName);
        }
        Unload();
        EXPECT_FALSE(MappingExists(std::wstring(RING_MAPPING) + PROGRAM_RING));
        EXPECT_FALSE(MutexExists(std::wstring(RING_MUTEX) + PROGRAM_RING));
        EXPECT_FALSE(MappingExists(BREAKPOINT_MAPPING));
        EXPECT_FALSE(MutexExists(ConfigName(CONFIG_MUTEX)));
        EXPECT_FALSE(MappingExists(ConfigName(CONFIG_MAPPING)));
        EXPECT_FALSE(MappingExists(ConfigName(CONFIG_LOCAL_MAPPING)));
        EXPECT_TRUE(DeleteFileW(m_folder.File(L"turn.log").c_str())); // nobody holds it open
    }
}

TEST_F(UnloadedLibrary, ASecondLibraryOfAProcessFindsTheBlockThereAndDoesNotStartItAgain)
{
    CLogCfgShareMemory& own = CLogCfgShareMemory::Instance();
    own.RegisterModule(L"First.dll");
    {
        const ConfigEditor editor;
        editor.block->level = 3;
        editor.block->modules[0].level = 1;
    }
    Load();
    {
        const ConfigEditor editor;
        EXPECT_EQ(3u, editor.block->level);
        EXPECT_EQ(1u, editor.block->modules[0].level);
        EXPECT_STREQ(L"First.dll", editor.block->modules[0].name);
        EXPECT_STREQ(L"VTFltMgr.dll", editor.block->modules[1].name);
        EXPECT_STREQ(L"", editor.block->modules[2].name);
    }
    Unload();
    EXPECT_EQ(3u, own.QueryLevel(L"First.dll"));
}

} // namespace
