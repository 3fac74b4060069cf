// vtlog break against the library's DLL in a process that logs.
#include "tools/vtlog_live_test.h"

namespace vtlog_test {
namespace {

constexpr wchar_t PATTERN[] = L"Unregistering application Nightly";

class VtLogBreak : public VtLogLiveTest {};

class Breaker : public Process {
public:
    explicit Breaker(std::vector<std::wstring> options = {}) : Process(Arguments(std::move(options)))
    {
        EXPECT_TRUE(AwaitDiagnosis("breakpoint set"));
    }

private:
    static std::vector<std::wstring> Arguments(std::vector<std::wstring> options)
    {
        options.insert(options.begin(), {L"break", L"--exe", WRITER, L"--text", PATTERN});
        return options;
    }
};

TEST_F(VtLogBreak, ShowsAStoppedThreadWithItsRecordAndEnterLetsItGo)
{
    Breaker breaker({L"--json", L"--count", L"1"});
    Writer writer;
    writer.Start("Nightly");
    ASSERT_TRUE(breaker.AwaitOutput("\"hit\":1"));
    breaker.Type("\n");
    EXPECT_TRUE(writer.AwaitSaid("Nightly"));
    const Result result = breaker.Finish();
    EXPECT_EQ(EXIT_OK, result.exitCode);
    const auto lines = result.Json();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(writer.Id(), lines[0]["pid"]);
    EXPECT_EQ("UnregisterApplication: Unregistering application Nightly", lines[0]["record"]["message"]);
    EXPECT_EQ("enter", lines[1]["how"]);
    writer.Finish();
}

TEST_F(VtLogBreak, TheEndOfItsInputTakesTheBreakpointBackAndLetsEveryoneGo)
{
    const SharedBreakpoints block;
    Breaker breaker;
    Writer writer;
    writer.Start("Nightly");
    ASSERT_TRUE(breaker.AwaitOutput("hit 1"));
    EXPECT_EQ(1, block.Copy()->count);
    EXPECT_EQ(EXIT_OK, breaker.Finish().exitCode);
    EXPECT_TRUE(writer.AwaitSaid("Nightly"));
    const auto after = block.Copy();
    EXPECT_EQ(0, after->count);
    EXPECT_TRUE(after->breakpoints[0].identifier.IsNone());
    EXPECT_TRUE(after->hits[0].breakpoint.IsNone());
    writer.Finish();
}

TEST_F(VtLogBreak, AViewerThatIsKilledLeavesTheThreadToTheContractsWait)
{
    Breaker breaker;
    Writer writer;
    writer.Start("Nightly");
    ASSERT_TRUE(breaker.AwaitOutput("hit 1"));
    breaker.Terminate();
    EXPECT_TRUE(writer.AwaitSaid("Nightly"));
    breaker.Finish();
    writer.Finish();
}

TEST_F(VtLogBreak, AThreadWhoseViewerWasKilledIsLetGoByATailThatStillWatches)
{
    Process tail({L"tail", L"--exe", WRITER});
    ASSERT_TRUE(tail.AwaitDiagnosis("watching"));
    Breaker breaker;
    Writer writer;
    writer.Start("Nightly");
    ASSERT_TRUE(breaker.AwaitOutput("hit 1"));
    breaker.Terminate();
    EXPECT_TRUE(writer.AwaitSaid("Nightly"));
    tail.Terminate();
    tail.Finish();
    breaker.Finish();
    writer.Finish();
}

TEST_F(VtLogBreak, AFullTableOfAnotherViewerIsLeftAloneAndEndsItAsBusy)
{
    const SharedBreakpoints block;
    block.Edit([](vtflt::LogBreakpointBlock& one) {
        one.count = 2'000'000'000;
        for (vtflt::LogBreakpoint& entry : one.breakpoints)
            entry.identifier.bytes[0] = 7;
    });
    const auto before = block.Copy();
    EXPECT_EQ(EXIT_BUSY, Run({L"break", L"--exe", WRITER, L"--text", PATTERN}).exitCode);
    EXPECT_EQ(before->breakpoints[99].identifier, block.Copy()->breakpoints[99].identifier);
}

} // namespace
} // namespace vtlog_test
