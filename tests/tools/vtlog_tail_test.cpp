// vtlog tail against the library's DLL in a process that logs.
#include "tools/vtlog_live_test.h"

#include <tlhelp32.h>

#include <algorithm>

namespace vtlog_test {
namespace {

using nlohmann::json;

class VtLogTail : public VtLogLiveTest {};

// A running vtlog tail that watches.
class Tail : public Process {
public:
    explicit Tail(std::vector<std::wstring> options = {}) : Process(Arguments(std::move(options)))
    {
        EXPECT_TRUE(AwaitDiagnosis("watching"));
    }

private:
    static std::vector<std::wstring> Arguments(std::vector<std::wstring> options)
    {
        options.insert(options.begin(), {L"tail", L"--exe", WRITER});
        return options;
    }
};

std::string Message(int handle)
{
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string digits;
    for (; handle != 0; handle /= 16)
        digits.insert(digits.begin(), DIGITS[handle % 16]);
    return "VTFltReplicationSuccess: Handle 0X" + digits + " not found. Please provide valid volume handle.";
}

// Stops a process between two of its steps under the ring's mutex.
class Suspended {
public:
    Suspended(const Process& process, const SharedRing& ring)
    {
        ring.Lock();
        const vtflt::UniqueHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
        THREADENTRY32 entry = {};
        entry.dwSize = sizeof(entry);
        for (BOOL more = Thread32First(snapshot.get(), &entry); more; more = Thread32Next(snapshot.get(), &entry)) {
            if (entry.th32OwnerProcessID != process.Id())
                continue;
            m_threads.emplace_back(OpenThread(THREAD_SUSPEND_RESUME, FALSE, entry.th32ThreadID));
            EXPECT_NE(static_cast<DWORD>(-1), SuspendThread(m_threads.back().get()));
        }
        EXPECT_FALSE(m_threads.empty());
        ring.Unlock();
    }
    ~Suspended()
    {
        for (const vtflt::UniqueHandle& thread : m_threads)
            ResumeThread(thread.get());
    }

private:
    std::vector<vtflt::UniqueHandle> m_threads;
};

TEST_F(VtLogTail, ShowsEveryRecordFromTheVeryFirstOnWithAllItsFields)
{
    Tail tail({L"--json", L"--count", L"3"});
    Writer writer;
    writer.Do("errors 1 3");
    const Result result = tail.Finish();
    EXPECT_EQ(EXIT_OK, result.exitCode);
    const std::vector<json> records = result.Json();
    ASSERT_EQ(3u, records.size());
    for (int i = 0; i < 3; ++i) {
        const json& record = records[static_cast<std::size_t>(i)];
        EXPECT_EQ("record", record["kind"]);
        EXPECT_EQ(Message(i + 1), record["message"]);
        EXPECT_EQ(0, record["level"]);
        EXPECT_EQ("error", record["levelName"]);
        EXPECT_EQ(writer.Id(), record["pid"]);
        EXPECT_NE(0, record["tid"]);
        EXPECT_EQ(87, record["code"]);
        EXPECT_EQ("ERROR_INVALID_PARAMETER", record["codeName"]);
        EXPECT_EQ("log_writer.exe", record["program"]);
        EXPECT_EQ("VTFltMgr.dll", record["module"]);
        EXPECT_EQ(23u, record["time"].get<std::string>().size());
    }
    EXPECT_EQ(EXIT_OK, writer.Finish().exitCode);
}

TEST_F(VtLogTail, ShowsWhatAProcessLoggedThatEndedBeforeItWasRead)
{
    const SharedRing ring;
    Tail tail({L"--json", L"--count", L"3"});
    {
        const Suspended suspended(tail, ring);
        Writer writer;
        writer.Do("errors 1 3");
        writer.Finish();
    }
    EXPECT_EQ(3u, tail.Finish().Json().size());
}

TEST_F(VtLogTail, SaysHowManyRecordsItMissedWhenItFellBehindByMoreThan1024)
{
    const SharedRing ring;
    Tail tail({L"--json", L"--count", L"1025"});
    Writer writer;
    writer.Do("errors 1 1");
    ASSERT_TRUE(tail.AwaitOutput(Message(1)));
    {
        const Suspended suspended(tail, ring);
        writer.Do("errors 2 1500");
    }
    const std::vector<json> lines = tail.Finish().Json();
    ASSERT_EQ(1026u, lines.size());
    EXPECT_EQ("missed", lines[1]["kind"]);
    EXPECT_EQ(476u, lines[1]["records"]);
    EXPECT_EQ("log_writer.exe", lines[1]["program"]);
    // None of the others twice, none in another's place.
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(Message(478 + i), lines[static_cast<std::size_t>(2 + i)]["message"]);
    writer.Finish();
}

TEST_F(VtLogTail, TextSaysInWordsWhatWasMissed)
{
    const SharedRing ring;
    Tail tail({L"--count", L"2"});
    Writer writer;
    writer.Do("errors 1 1");
    ASSERT_TRUE(tail.AwaitOutput("0X1 not found"));
    {
        const Suspended suspended(tail, ring);
        writer.Do("errors 2 1025");
    }
    const Result result = tail.Finish();
    EXPECT_NE(std::string::npos,
              result.out.find("-- log_writer.exe: 1 record missed, overwritten before it could be read"))
        << result.out;
    // Output that goes to no terminal has no colour.
    EXPECT_EQ(std::string::npos, result.out.find('\x1b'));
    writer.Finish();
}

TEST_F(VtLogTail, ShowsOnlyWhatLevelTextAndProcessAskFor)
{
    Writer writer;
    Tail errors({L"--json", L"--level", L"error", L"--grep", L"0X2 ", L"--pid", std::to_wstring(writer.Id()),
                 L"--count", L"1"});
    writer.Do("say 0X2 of another level");
    writer.Do("errors 1 3");
    const std::vector<json> records = errors.Finish().Json();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(Message(2), records[0]["message"]);
    Tail nobody({L"--pid", L"1", L"--stop-event", L"vtlog_tail_test.stop"});
    const vtflt::UniqueHandle stop(OpenEventW(EVENT_MODIFY_STATE, FALSE, L"vtlog_tail_test.stop"));
    writer.Do("errors 4 3");
    SetEvent(stop.get());
    EXPECT_EQ("", nobody.Finish().out);
    writer.Finish();
}

TEST_F(VtLogTail, TheStopEventEndsItAndLeavesNoObjectBehind)
{
    Tail tail({L"--stop-event", L"vtlog_tail_test.stop"});
    Writer writer;
    writer.Do("errors 1 1");
    ASSERT_TRUE(tail.AwaitOutput("0X1 not found"));
    EXPECT_TRUE(EventExists(vtflt::LOG_VIEWER_EVENT_NAME));
    EXPECT_TRUE(EventExists(WriterRing(vtflt::LOG_RING_EVENT_PREFIX)));
    const vtflt::UniqueHandle stop(OpenEventW(EVENT_MODIFY_STATE, FALSE, L"vtlog_tail_test.stop"));
    SetEvent(stop.get());
    EXPECT_EQ(EXIT_OK, tail.Finish().exitCode);
    EXPECT_FALSE(EventExists(vtflt::LOG_VIEWER_EVENT_NAME));
    // The writer lets go of its side with the next record.
    writer.Do("errors 2 1");
    EXPECT_FALSE(EventExists(WriterRing(vtflt::LOG_RING_EVENT_PREFIX)));
    EXPECT_FALSE(MappingExists(WriterRing(vtflt::LOG_RING_GLOBAL_MAPPING_PREFIX)));
    writer.Finish();
}

TEST_F(VtLogTail, WithoutNamesItFindsAProcessThatStartsLater)
{
    Process tail({L"tail", L"--json", L"--count", L"1"});
    ASSERT_TRUE(tail.AwaitDiagnosis("waiting for one"));
    Writer writer;
    ASSERT_TRUE(tail.AwaitDiagnosis("watching log_writer.exe"));
    writer.Do("errors 1 1");
    const std::vector<json> records = tail.Finish().Json();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(Message(1), records[0]["message"]);
    writer.Finish();
}

// A ring has one read position: two readers would share the records out between them.
TEST_F(VtLogTail, ASecondReaderOfOneProgramIsRefusedAndTheFirstGoesOn)
{
    Tail first({L"--count", L"1"});
    const Result second = Run({L"tail", L"--exe", L"LOG_WRITER.EXE"});
    EXPECT_EQ(EXIT_BUSY, second.exitCode);
    EXPECT_NE(std::string::npos, second.err.find("another vtlog tail reads")) << second.err;
    Writer writer;
    writer.Do("errors 1 1");
    EXPECT_EQ(EXIT_OK, first.Finish().exitCode);
    writer.Finish();
}

TEST_F(VtLogTail, AfterAViewerThatWasKilledTheProgramLogsOnAndTheNextViewerReads)
{
    Writer writer;
    {
        Tail killed;
        writer.Do("errors 1 1");
        ASSERT_TRUE(killed.AwaitOutput("0X1 not found"));
        killed.Terminate();
        killed.Finish();
    }
    writer.Do("errors 2 1");
    Tail next({L"--json", L"--count", L"1"});
    writer.Do("errors 3 1");
    const std::vector<json> records = next.Finish().Json();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(Message(3), records[0]["message"]);
    writer.Finish();
}

TEST_F(VtLogTail, NumbersBeyondBeliefAreSaidToBeDamagedAndTheNextRecordIsShown)
{
    const SharedRing ring;
    Tail tail({L"--grep", L"0X2 "});
    Writer writer;
    writer.Do("errors 1 1");
    for (const std::int64_t number : {std::int64_t{-500}, std::int64_t{1} << 62}) {
        ring.Edit([&](vtflt::LogRingBlock& block) { block.writeSequence = number; });
        const vtflt::UniqueHandle event(
            OpenEventW(EVENT_MODIFY_STATE, FALSE, WriterRing(vtflt::LOG_RING_EVENT_PREFIX).c_str()));
        SetEvent(event.get());
    }
    ASSERT_TRUE(tail.AwaitOutput("the ring's numbers are damaged"));
    writer.Do("errors 2 1");
    EXPECT_TRUE(tail.AwaitOutput("0X2 not found"));
    tail.Terminate();
    tail.Finish();
    writer.Finish();
}

TEST_F(VtLogTail, AHostileRecordIsCutAtItsFieldsAndCannotSteerATerminal)
{
    const SharedRing ring;
    Tail tail({L"--count", L"1"});
    ring.Edit([](vtflt::LogRingBlock& block) {
        vtflt::LogRecordBlock& record = block.slots[1];
        std::fill(std::begin(record.executableName), std::end(record.executableName), L'e');
        std::fill(std::begin(record.moduleName), std::end(record.moduleName), L'm');
        std::fill(std::begin(record.text), std::end(record.text), L'\x1b');
        record.time = {65535, 65535, 65535, 65535, 65535, 65535, 65535, 65535};
        record.level = -2147483647 - 1;
        block.writeSequence = 1; // number 0 of a ring that another program made counts as read
    });
    const Result result = tail.Finish();
    EXPECT_EQ(EXIT_OK, result.exitCode);
    EXPECT_EQ(std::string::npos, result.out.find('\x1b'));
    EXPECT_NE(std::string::npos, result.out.find("{" + std::string(128, 'e') + "::" + std::string(128, 'm') + "}"))
        << result.out;
}

TEST_F(VtLogTail, ARingThatIsTooSmallIsRefused)
{
    const vtflt::UniqueHandle small(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096,
                                                       WriterRing(vtflt::LOG_RING_GLOBAL_MAPPING_PREFIX).c_str()));
    const Result result = Run({L"tail", L"--exe", WRITER});
    EXPECT_EQ(EXIT_UNREADABLE, result.exitCode);
    EXPECT_NE(std::string::npos, result.err.find("live log")) << result.err;
}

TEST_F(VtLogTail, AStuckHolderOfTheRingEndsItAsBusy)
{
    const SharedRing ring;
    ring.Lock();
    EXPECT_EQ(EXIT_BUSY, Run({L"tail", L"--exe", WRITER}).exitCode);
    ring.Unlock();
}

TEST_F(VtLogTail, WrongWordsOnTheCommandLineAreUsageErrors)
{
    EXPECT_EQ(EXIT_USAGE, Run({L"tail", L"--exe", L"C:\\folder\\a.exe"}).exitCode);
    EXPECT_EQ(EXIT_USAGE, Run({L"tail", L"--level", L"loud"}).exitCode);
    EXPECT_EQ(EXIT_USAGE, Run({L"tail", L"--count", L"0"}).exitCode);
}

} // namespace
} // namespace vtlog_test
