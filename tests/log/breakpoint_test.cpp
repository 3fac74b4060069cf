// Log breakpoints: hits, the wait at them, and what ends it.
#include "support/access_list.h"
#include "support/live_output_test.h"

#include <cstring>
#include <rpc.h>

using namespace vtflt;
using namespace vttest;
using NSDBG::CSMOutput;

namespace {

class BreakpointTest : public LiveOutputTest {
protected:
    static constexpr wchar_t HIT_WAIT[] = L"BPHIT_EVENT"; // any wait for a hit event

    // Sets a breakpoint, with the output connected; its waits for a hit time out at once from here on, and the viewer
    // leaves in the spell of this number.
    void LeaveInSpell(WatchedCalls& calls, DWORD spell)
    {
        m_output.WriteLogW(2, 0, L"connects");
        m_breakpoints.Set(0, Executable(), L"stop");
        constexpr DWORD FAR_TOO_MANY = 20;
        calls.ForceWait(HIT_WAIT, WAIT_TIMEOUT, 1, FAR_TOO_MANY);
        calls.ForceWait(HIT_WAIT, WAIT_FAILED, FAR_TOO_MANY + 1); // holds nobody
        ASSERT_EQ(0u, VTFltSimCallBefore(L"WaitForSingleObject", HIT_WAIT, spell, 1, LeaveBefore, &m_viewer));
        calls.Record();
    }
    void ExpectNoHit() const
    {
        EXPECT_FALSE(m_breakpoints.WasHit());
        EXPECT_TRUE(m_breakpoints.Hit().breakpoint.IsNone());
    }
    // One record was logged and waited so often for its hit event, five seconds each time.
    static void ExpectSpells(const WatchedCalls& calls, DWORD spells)
    {
        EXPECT_EQ(spells, calls.Recorded(std::wstring(L"WaitForSingleObject ") + HIT_EVENT));
        EXPECT_EQ(1 + spells, calls.Recorded(L"|5000")); // the ring's mutex too
    }
    static void WINAPI LeaveBefore(void* context, LPCWSTR, LPCWSTR) { static_cast<LiveViewer*>(context)->Leave(); }

    LiveViewer m_viewer{Upper()};
    ViewerBreakpoints m_breakpoints;
    CSMOutput m_output;
};

TEST_F(BreakpointTest, AHitIsStoredAnnouncedAndHoldsItsThreadUntilItIsLetGo)
{
    const LogBreakpoint& breakpoint = m_breakpoints.Set(0, Executable(), L"stop");
    LoggingThread thread(m_output, L"please stop here", m_viewer);
    ASSERT_TRUE(m_breakpoints.AwaitHit(thread.Done()));
    const LogBreakpointHit hit = m_breakpoints.Hit();
    EXPECT_TRUE(breakpoint.identifier == hit.breakpoint);
    EXPECT_FALSE(hit.hit.IsNone());
    EXPECT_EQ(GetCurrentProcessId(), hit.processId);
    EXPECT_TRUE(m_breakpoints.Hit(1).breakpoint.IsNone());
    ExpectRing({L"please stop here"}); // the record is there before its thread goes on

    // The event's name, as the system writes a UUID.
    UUID uuid;
    std::memcpy(&uuid, &hit.hit, sizeof(uuid));
    RPC_WSTR text = nullptr;
    ASSERT_EQ(RPC_S_OK, UuidToStringW(&uuid, &text));
    std::wstring name = reinterpret_cast<const wchar_t*>(text);
    RpcStringFreeW(&text);
    CharUpperBuffW(name.data(), static_cast<DWORD>(name.size()));
    const UniqueHandle event(
        OpenEventW(EVENT_MODIFY_STATE | SYNCHRONIZE | READ_CONTROL, FALSE, (HIT_EVENT + name).c_str()));
    ASSERT_TRUE(event.valid());
    ExpectOpenToEveryone(event);
    EXPECT_FALSE(thread.IsDone());
    SetEvent(event.get());
    EXPECT_EQ(hit.threadId, thread.Join());
    EXPECT_FALSE(IsSignalled(event)) << "the event does not reset itself";
}

TEST_F(BreakpointTest, TheHitEventGoesWithTheWait)
{
    m_breakpoints.Set(0, Executable(), L"stop");
    LoggingThread thread(m_output, L"stop", m_viewer);
    ASSERT_TRUE(m_breakpoints.AwaitHit(thread.Done()));
    ViewerBreakpoints::LetGo(m_breakpoints.Hit().hit);
    thread.Join();
    EXPECT_FALSE(ViewerBreakpoints::HitEvent(m_breakpoints.Hit().hit).valid());
}

TEST_F(BreakpointTest, OtherThreadsGoOnLoggingAndMayHitToo)
{
    m_breakpoints.Set(0, Executable(), L"stop");
    LoggingThread first(m_output, L"stop 1", m_viewer);
    ASSERT_TRUE(m_breakpoints.AwaitHit(first.Done()));
    LoggingThread other(m_output, L"going on", m_viewer);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(other.Done(), HANG_MILLISECONDS));
    EXPECT_EQ(9999u, m_output.GetLogLevel());
    LoggingThread second(m_output, L"stop 2", m_viewer);
    ASSERT_TRUE(m_breakpoints.AwaitHit(second.Done()));
    EXPECT_FALSE(first.IsDone());
    ExpectRing({L"stop 1", L"going on", L"stop 2"});
    EXPECT_FALSE(m_breakpoints.Hit(0).hit == m_breakpoints.Hit(1).hit);
    ViewerBreakpoints::LetGo(m_breakpoints.Hit(1).hit);
    second.Join();
    EXPECT_FALSE(first.IsDone());
    ViewerBreakpoints::LetGo(m_breakpoints.Hit(0).hit);
}

TEST_F(BreakpointTest, ABreakpointOfAnotherExecutableProcessOrThreadIsNotHit)
{
    m_breakpoints.Set(0, L"other.exe", L"stop");
    m_breakpoints.Set(1, Executable(), L"stop").processId = GetCurrentProcessId() + 1;
    m_breakpoints.Set(2, Executable(), L"stop").threadId = GetCurrentThreadId() + 1;
    m_breakpoints.Set(3, Executable(), L"Stop");
    m_breakpoints.Set(4, Executable(), L"stop").enabled = 0;
    m_output.WriteLogW(2, 0, L"stop");
    ExpectNoHit();
    ExpectRing({L"stop"});
}

TEST_F(BreakpointTest, ACountOf0OrLessMatchesNothing)
{
    m_breakpoints.Set(0, Executable(), L"stop");
    for (const std::int32_t count : {0, -1}) {
        m_breakpoints.block->count = count;
        m_output.WriteLogW(2, 0, L"stop");
        ExpectNoHit();
    }
}

TEST_F(BreakpointTest, ACountOfTwoThousandMillionSearchesAHundredEntriesInTheirOrder)
{
    m_breakpoints.Set(99, L"LOG_TESTS.exe", L"stop");
    m_breakpoints.Set(98, Executable(), L"stop").threadId = GetCurrentThreadId(); // not the thread that logs
    LogBreakpoint& endless = m_breakpoints.Set(5, Executable(), L"stop");         // name and pattern without an end
    std::memset(endless.executableName, 0x61, sizeof(endless.executableName));
    std::memset(endless.pattern, 0x61, sizeof(endless.pattern));
    m_breakpoints.block->count = 2000000000;
    LoggingThread thread(m_output, L"stop", m_viewer);
    ASSERT_TRUE(m_breakpoints.AwaitHit(thread.Done()));
    EXPECT_TRUE(m_breakpoints.block->breakpoints[99].identifier == m_breakpoints.Hit().breakpoint);
    ViewerBreakpoints::LetGo(m_breakpoints.Hit().hit);
}

TEST_F(BreakpointTest, WithNoFreePlaceAHitIsDroppedAndHoldsNobody)
{
    m_breakpoints.Set(0, Executable(), L"stop");
    for (LogBreakpointHit& hit : m_breakpoints.block->hits)
        hit.breakpoint.bytes[0] = 1;
    const auto before = std::make_unique<LogBreakpointBlock>(*m_breakpoints.block);
    m_output.WriteLogW(2, 0, L"stop");
    EXPECT_FALSE(m_breakpoints.WasHit());
    EXPECT_EQ(0, std::memcmp(before.get(), m_breakpoints.block, sizeof(*before)));
}

TEST_F(BreakpointTest, AHitTakesTheFirstFreePlaceAndChangesNothingElse)
{
    const LogBreakpoint& breakpoint = m_breakpoints.Set(0, Executable(), L"stop");
    for (LogBreakpointHit& hit : m_breakpoints.block->hits)
        hit.breakpoint.bytes[0] = 1;
    m_breakpoints.block->hits[9999].breakpoint = {};
    const auto expected = std::make_unique<LogBreakpointBlock>(*m_breakpoints.block);
    LoggingThread thread(m_output, L"stop", m_viewer);
    ASSERT_TRUE(m_breakpoints.AwaitHit(thread.Done()));
    const LogBreakpointHit hit = m_breakpoints.Hit(9999);
    ViewerBreakpoints::LetGo(hit.hit);
    expected->hits[9999] = {breakpoint.identifier, hit.hit, GetCurrentProcessId(), thread.Join()};
    EXPECT_EQ(0, std::memcmp(expected.get(), m_breakpoints.block, sizeof(*expected)));
}

TEST_F(BreakpointTest, AHitWithTheViewerGoneReturnsAfterOneWaitAtMost)
{
    WatchedCalls calls;
    LeaveInSpell(calls, 1);
    m_output.WriteLogW(2, 0, L"stop");
    calls.EndFaults();
    ExpectSpells(calls, 1);
    EXPECT_TRUE(m_breakpoints.WasHit());
    m_output.Disconnect();
}

TEST_F(BreakpointTest, AViewerThatIsGoneBeforeTheWaitHoldsNobody)
{
    WatchedCalls calls;
    m_breakpoints.Set(0, Executable(), L"stop");
    ASSERT_EQ(0u, VTFltSimCallBefore(L"SetEvent", nullptr, 2, 1, LeaveBefore, &m_viewer)); // the first wakes the viewer
    calls.Record();
    m_output.WriteLogW(2, 0, L"stop");
    EXPECT_TRUE(m_breakpoints.WasHit());
    ExpectSpells(calls, 0);
    m_output.Disconnect();
}

TEST_F(BreakpointTest, WhileTheViewerIsThereTheThreadWaitsInSpellsOfFiveSeconds)
{
    WatchedCalls calls;
    LeaveInSpell(calls, 4);
    m_output.WriteLogW(2, 0, L"stop");
    calls.EndFaults();
    ExpectSpells(calls, 4);
    m_output.Disconnect();
}

TEST_F(BreakpointTest, AFailedWaitHoldsNobody)
{
    WatchedCalls calls;
    m_output.WriteLogW(2, 0, L"connects");
    m_breakpoints.Set(0, Executable(), L"stop");
    calls.ForceWait(HIT_WAIT, WAIT_FAILED);
    m_output.WriteLogW(2, 0, L"stop");
    EXPECT_EQ(1u, calls.Struck());
    calls.EndFaults();
    m_output.Disconnect();
}

TEST_F(BreakpointTest, TheBreakpointsMutexIsWaitedForTenSecondsAndThenGivenUp)
{
    WatchedCalls calls;
    m_breakpoints.Set(0, Executable(), L"stop");
    calls.ForceWait(L"MU_BREAKPOINTS", WAIT_TIMEOUT);
    calls.Record();
    m_output.WriteLogW(2, 0, L"stop");
    EXPECT_EQ(1u, calls.Recorded(std::wstring(BREAKPOINT_MUTEX) + L"|10000"));
    EXPECT_EQ(0u, calls.Recorded(std::wstring(L"ReleaseMutex ") + BREAKPOINT_MUTEX));
    calls.EndFaults();
    ExpectNoHit();
    ExpectRing({L"stop"});
    m_output.Disconnect();
}

TEST_F(BreakpointTest, AnAbandonedBreakpointsMutexIsOwned)
{
    std::thread([&] { EXPECT_EQ(0u, WaitForSingleObject(m_breakpoints.Mutex(), INFINITE)); }).join();
    m_breakpoints.block->breakpoints[0].identifier.bytes[0] = 1;
    m_breakpoints.block->breakpoints[0].enabled = 1;
    CopyText(m_breakpoints.block->breakpoints[0].executableName, Executable());
    CopyText(m_breakpoints.block->breakpoints[0].pattern, L"stop");
    m_breakpoints.block->count = 1;
    LoggingThread thread(m_output, L"stop", m_viewer);
    ASSERT_TRUE(m_breakpoints.AwaitHit(thread.Done()));
    ViewerBreakpoints::LetGo(m_breakpoints.Hit().hit);
}

TEST_F(BreakpointTest, ARecordThatCouldNotBeWrittenIsTestedAllTheSame)
{
    WatchedCalls calls;
    m_breakpoints.Set(0, Executable(), L"stop");
    m_output.WriteLogW(2, 0, L"connects");
    calls.ForceWait(L"_MUTEXT_", WAIT_TIMEOUT);
    calls.Fail(L"CreateEventW", L"BPHIT", ERROR_ACCESS_DENIED); // holds nobody here
    m_output.WriteLogW(2, 0, L"stop");
    EXPECT_EQ(2u, calls.Struck());
    calls.EndFaults();
    EXPECT_FALSE(m_breakpoints.Hit().breakpoint.IsNone());
    ExpectRing({L"connects"});
    m_output.Disconnect();
}

TEST_F(BreakpointTest, WithoutAHitEventOrAUuidNobodyIsHeldAndNoHitIsAnnounced)
{
    WatchedCalls calls;
    m_breakpoints.Set(0, Executable(), L"stop");
    calls.Fail(L"UuidCreate", nullptr, ERROR_NOT_ENOUGH_MEMORY);
    m_output.WriteLogW(2, 0, L"stop");
    EXPECT_EQ(1u, calls.Struck());
    calls.EndFaults();
    ExpectNoHit();
    calls.Fail(L"CreateEventW", L"BPHIT", ERROR_ACCESS_DENIED);
    m_output.WriteLogW(2, 0, L"stop");
    EXPECT_EQ(1u, calls.Struck());
    calls.EndFaults();
    EXPECT_FALSE(m_breakpoints.WasHit());
    m_output.Disconnect();
}

class BreakpointObjects : public LiveOutputTest {
protected:
    LiveViewer m_viewer{Upper()};
    CSMOutput m_output;
};

TEST_F(BreakpointObjects, AMissingTableDoesNotKeepRecordsFromTheRing)
{
    WatchedCalls calls;
    m_output.WriteLogW(2, 0, L"none");
    EXPECT_EQ(2u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS)); // the ring's
    {
        const UniqueHandle event = MakeAutoEvent(BREAKPOINT_EVENT);
        m_output.WriteLogW(2, 0, L"an event only");
        const UniqueHandle mutex(CreateMutexW(nullptr, FALSE, BREAKPOINT_MUTEX));
        m_output.WriteLogW(2, 0, L"no block");
        EXPECT_EQ(3u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS)); // and the case's own event
        EXPECT_EQ(2u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_MUTEXES));
    }
    ExpectRing({L"none", L"an event only", L"no block"});
    m_output.Disconnect();
}

TEST_F(BreakpointObjects, ATableThatAppearsLaterIsOpenedByTheNextRecord)
{
    m_output.WriteLogW(2, 0, L"stop");
    ViewerBreakpoints breakpoints;
    breakpoints.Set(0, Executable(), L"stop");
    LoggingThread thread(m_output, L"stop", m_viewer);
    ASSERT_TRUE(breakpoints.AwaitHit(thread.Done()));
    ViewerBreakpoints::LetGo(breakpoints.Hit().hit);
}

TEST_F(BreakpointObjects, TheTableMayLieUnderTheLocalName)
{
    ViewerBreakpoints breakpoints(BREAKPOINT_LOCAL_MAPPING);
    breakpoints.Set(0, Executable(), L"stop");
    LoggingThread thread(m_output, L"stop", m_viewer);
    ASSERT_TRUE(breakpoints.AwaitHit(thread.Done()));
    ViewerBreakpoints::LetGo(breakpoints.Hit().hit);
}

TEST_F(BreakpointObjects, ATableThatIsTooSmallOrReservedOnlyIsNotTouched)
{
    for (const bool isSmall : {true, false}) {
        const UniqueHandle event = MakeAutoEvent(BREAKPOINT_EVENT);
        const UniqueHandle mutex(CreateMutexW(nullptr, FALSE, BREAKPOINT_MUTEX));
        const UniqueHandle mapping = isSmall ? MakeMapping(BREAKPOINT_MAPPING, 4096)
                                             : MakeMapping(BREAKPOINT_MAPPING, sizeof(LogBreakpointBlock), nullptr,
                                                           PAGE_READWRITE | SEC_RESERVE);
        m_output.WriteLogW(2, 0, L"text");
        ExpectRing({L"text"});
        EXPECT_FALSE(IsSignalled(event));
        m_output.Disconnect();
    }
}

TEST_F(BreakpointTest, AUuidThatIsUniqueOnThisMachineOnlyNamesAHit)
{
    WatchedCalls calls;
    m_breakpoints.Set(0, Executable(), L"stop");
    VTFLTSIM_CALL_FAULT fault = {};
    fault.size = sizeof(fault);
    fault.what = VTFLTSIM_CALL_FAILS_AFTER;
    fault.function = L"UuidCreate";
    fault.count = 1;
    fault.error = RPC_S_UUID_LOCAL_ONLY;
    vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    calls.Fail(L"CreateEventW", L"BPHIT", ERROR_ACCESS_DENIED); // holds nobody here
    m_output.WriteLogW(2, 0, L"stop");
    EXPECT_EQ(2u, calls.Struck());
    calls.EndFaults();
    EXPECT_FALSE(m_breakpoints.Hit().breakpoint.IsNone());
    EXPECT_FALSE(m_breakpoints.Hit().hit.IsNone());
    m_output.Disconnect();
}

} // namespace
