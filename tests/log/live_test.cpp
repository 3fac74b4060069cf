// The live output: when it is connected, what it writes, and what it leaves.
#include "log/log.h"
#include "support/access_list.h"
#include "support/live_output_test.h"

using namespace vtflt;
using namespace vttest;
using NSDBG::CSMOutput;

namespace {

class LiveTest : public LiveOutputTest {
protected:
    void MakeViewer() { m_viewer = std::make_unique<LiveViewer>(Upper()); }

    std::unique_ptr<LiveViewer> m_viewer; // none at first
};

TEST_F(LiveTest, WithoutAViewerTheThresholdIs0AndOneFailedOpeningOfAnEventIsAllThatHappens)
{
    WatchedCalls calls;
    CSMOutput output;
    const std::wstring one = std::wstring(L"OpenEventW ") + VIEWER_EVENT + L"\n";
    calls.Record();
    EXPECT_EQ(0u, output.GetLogLevel());
    EXPECT_EQ(one, calls.Trace());
    output.WriteLogW(0, 5, L"text");
    EXPECT_EQ(one + one, calls.Trace());
    EXPECT_FALSE(MutexExists(RING_MUTEX + Upper()));
    EXPECT_FALSE(MappingExists(RingName()));
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS));
}

TEST_F(LiveTest, WithAViewerTheThresholdIs9999)
{
    MakeViewer();
    CSMOutput output;
    EXPECT_EQ(9999u, output.GetLogLevel());
    m_viewer->Leave();
    EXPECT_EQ(0u, output.GetLogLevel());
}

TEST_F(LiveTest, ARecordHasTheNamesOfExecutableAndModule)
{
    MakeViewer();
    CSMOutput output;
    output.WriteLogW(4, 87, L"text");
    const BlockView<LogRingBlock> ring(RingName());
    ASSERT_NE(nullptr, ring.block);
    EXPECT_EQ(0, ring.block->writeSequence);
    const LogRecordBlock& record = ring.block->slots[0];
    EXPECT_EQ(Executable(), record.executableName);
    EXPECT_EQ(std::wstring(OwnModule().Name()), record.moduleName);
    EXPECT_EQ(4, record.level);
    EXPECT_EQ(87u, record.errorCode);
    EXPECT_EQ(GetCurrentProcessId(), record.processId);
    EXPECT_EQ(GetCurrentThreadId(), record.threadId);
    EXPECT_STREQ(L"text", record.text);
    EXPECT_TRUE(m_viewer->WasWoken());
}

TEST_F(LiveTest, AnEmptyTextAndANullOneAreNotWritten)
{
    MakeViewer();
    CSMOutput output;
    output.WriteLogW(0, 0, L"");
    output.WriteLogW(0, 0, nullptr);
    output.WriteLogA(0, 0, nullptr);
    output.WriteLogA(0, 0, "");
    ExpectRing({});
    EXPECT_FALSE(m_viewer->WasWoken());
}

TEST_F(LiveTest, NarrowTextIsConvertedFromTheAnsiCodePage)
{
    MakeViewer();
    CSMOutput output;
    const char narrow[] = "narrow \xE9";
    wchar_t wide[32] = {};
    ASSERT_NE(0, MultiByteToWideChar(CP_ACP, 0, narrow, -1, wide, 32));
    output.WriteLogA(1, 2, narrow);
    ExpectRing({wide});
}

TEST_F(LiveTest, NarrowTextOfMoreThan1024CharactersBecomesEmptyAndIsNotWritten)
{
    MakeViewer();
    CSMOutput output;
    output.WriteLogA(1, 2, std::string(1025, 'x').c_str());
    ExpectRing({});
    output.WriteLogA(1, 2, std::string(1024, 'x').c_str());
    ExpectRing({std::wstring(1023, L'x')});
}

TEST_F(LiveTest, WithoutTheRingsEventNothingIsWrittenUntilItIsThere)
{
    MakeViewer();
    m_viewer->CloseRingEvent();
    CSMOutput output;
    EXPECT_EQ(9999u, output.GetLogLevel());
    output.WriteLogW(0, 0, L"too early");
    EXPECT_FALSE(MutexExists(RING_MUTEX + Upper()));
    const UniqueHandle event = MakeAutoEvent(RING_EVENT + Upper());
    output.WriteLogW(0, 0, L"in time");
    ExpectRing({L"in time"});
}

TEST_F(LiveTest, TheFirstRecordBehindTheViewersLeaveClosesEverything)
{
    MakeViewer();
    ViewerBreakpoints breakpoints;
    WatchedCalls calls;
    CSMOutput output;
    output.WriteLogW(0, 0, L"text");
    EXPECT_EQ(4u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS)); // two events, two mappings
    EXPECT_EQ(2u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_MUTEXES));
    m_viewer->Leave();
    output.WriteLogW(0, 0, L"nobody looks");
    EXPECT_FALSE(MappingExists(RingName()));
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS));
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_MUTEXES));
}

TEST_F(LiveTest, AViewerThatComesBackFindsANewRing)
{
    MakeViewer();
    CSMOutput output;
    output.WriteLogW(0, 0, L"first");
    m_viewer->Leave();
    output.WriteLogW(0, 0, L"nobody looks");
    m_viewer->ComeBack();
    output.WriteLogW(0, 0, L"second");
    ExpectRing({L"second"});
}

TEST_F(LiveTest, ItsEndClosesEverything)
{
    MakeViewer();
    ViewerBreakpoints breakpoints;
    WatchedCalls calls;
    {
        CSMOutput output;
        output.WriteLogW(0, 0, L"text");
        EXPECT_TRUE(MappingExists(RingName()));
    }
    EXPECT_FALSE(MappingExists(RingName()));
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS));
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_MUTEXES));
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OWNED_MUTEXES));
}

TEST_F(LiveTest, TheOperationsOfConnectingDoOneStepEach)
{
    CSMOutput output;
    EXPECT_FALSE(output.IsViewerPresent());
    EXPECT_FALSE(output.Connect());
    MakeViewer();
    EXPECT_TRUE(output.IsViewerPresent());
    EXPECT_FALSE(MappingExists(RingName()));
    output.Write(0, 0, L"not connected");
    EXPECT_TRUE(output.OpenRing());
    EXPECT_TRUE(MappingExists(RingName()));
    EXPECT_FALSE(output.OpenBreakpoints());
    EXPECT_TRUE(output.Connect());
    output.Write(0, 0, L"connected");
    ExpectRing({L"connected"});
    output.Disconnect();
    EXPECT_FALSE(MappingExists(RingName()));
    output.ReleaseText(nullptr);
}

TEST_F(LiveTest, AConnectedOutputWithARingThatCannotBeHadDisconnects)
{
    MakeViewer();
    const UniqueHandle shortRing = MakeMapping(RingName(), 4096);
    WatchedCalls calls;
    CSMOutput output;
    EXPECT_FALSE(output.Connect());
    output.WriteLogW(0, 0, L"text");
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS));
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_MUTEXES));
    EXPECT_EQ(9999u, output.GetLogLevel());
}

TEST_F(LiveTest, MessagesAllocateNothingWithoutAViewerAndNothingOnceConnected)
{
    WatchedCalls calls;
    CSMOutput output;
    const auto mallocs = [] {
        return VTFltSimGetCallCount(L"malloc") + VTFltSimGetCallCount(L"HeapAlloc") +
               VTFltSimGetCallCount(L"LocalAlloc");
    };
    const DWORD before = mallocs();
    const std::unique_ptr<int> control(new int(1));
    EXPECT_LT(before, mallocs()) << "allocations are not seen";

    const DWORD start = mallocs();
    for (int i = 0; i < 10; ++i) {
        output.GetLogLevel();
        output.WriteLogW(0, 0, L"text");
    }
    EXPECT_EQ(start, mallocs());

    MakeViewer();
    ViewerBreakpoints breakpoints;
    output.WriteLogW(0, 0, L"connects");
    const DWORD connected = mallocs();
    for (int i = 0; i < 10; ++i) {
        output.GetLogLevel();
        output.WriteLogW(0, 0, L"text");
    }
    EXPECT_EQ(connected, mallocs());
}

// Programs of every account share the objects.
TEST_F(LiveTest, TheRingsObjectsHaveANullAccessList)
{
    MakeViewer();
    CSMOutput output;
    output.WriteLogW(0, 0, L"text");
    ExpectOpenToEveryone(UniqueHandle(OpenMutexW(READ_CONTROL, FALSE, (RING_MUTEX + Upper()).c_str())));
    ExpectOpenToEveryone(UniqueHandle(OpenFileMappingW(READ_CONTROL, FALSE, RingName().c_str())));
}

// The file's threshold is 2 and nobody looks: a detail message is not even formatted. With a viewer every message passes.
TEST_F(LiveTest, TheFrontEndGivesADetailMessageToAViewerOnly)
{
    class Silent final : public IDBGLogOutput {
    public:
        void WriteLogA(int, DWORD, const char*) override {}
        void WriteLogW(int, DWORD, const wchar_t*) override {}
        DWORD GetLogLevel() override { return 2; }
    };
    CDBGLog log(new Silent, new CSMOutput);
    log.Log(4, 0, L"unseen %d", 1);
    EXPECT_FALSE(MappingExists(RingName()));
    MakeViewer();
    log.Log(4, 0, L"seen %d\n", 2);
    ExpectRing({L"seen 2"});
}

TEST_F(LiveTest, WithoutMemoryForTheRingTheRecordIsDroppedAndTheNextOneWritten)
{
    MakeViewer();
    WatchedCalls calls;
    CSMOutput output;
    vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY);
    output.WriteLogW(0, 0, L"dropped");
    EXPECT_EQ(1u, calls.Struck());
    calls.EndFaults();
    EXPECT_FALSE(MappingExists(RingName()));
    output.WriteLogW(0, 0, L"written");
    ExpectRing({L"written"});
    output.Disconnect();
}

TEST_F(LiveTest, WithoutMemoryForTheBreakpointsTheRecordIsWrittenAndTheNextOneLooksForThemAgain)
{
    MakeViewer();
    ViewerBreakpoints breakpoints;
    WatchedCalls calls;
    CSMOutput output;
    vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY, nullptr, 2); // behind the ring's
    output.WriteLogW(0, 0, L"first");
    EXPECT_EQ(1u, calls.Struck());
    calls.EndFaults();
    EXPECT_EQ(2u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS)); // the ring's event and mapping
    output.WriteLogW(0, 0, L"second");
    EXPECT_EQ(4u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS));
    ExpectRing({L"first", L"second"});
    output.Disconnect();
}

} // namespace
