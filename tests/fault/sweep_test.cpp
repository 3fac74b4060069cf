// Every call that an operation makes fails once; another process dies before and behind every call it makes. Whatever
// happens, nothing stays open, the next operation works, and no change is lost.
#include "support/apps_test.h"
#include "support/child.h"
#include "support/cycle_test.h"

#include <algorithm>
#include <iostream>

namespace vttest {
namespace {

constexpr wchar_t ANY_CALL[] = L"*";
constexpr DWORD MOST_CALLS = 1000; // far more than any operation makes: a sweep ends

class CallSweep : public CycleTest {
protected:
    // Runs the operation with its first, second, ... call failing until it makes no more of them, the state made anew
    // before each.
    template <class Prepare, class Operation, class Check>
    void FailEachCall(DWORD error, const Prepare& prepare, const Operation& operation, const Check& check)
    {
        DWORD nth = 1;
        for (; nth <= MOST_CALLS; ++nth) {
            SCOPED_TRACE("failing call " + std::to_string(nth));
            prepare();
            VTFltSimRecord(1);
            vtfltsim::Check("VTFltSimFailCall", VTFltSimFailCall(ANY_CALL, nullptr, nth, 1, error));
            operation();
            const bool struck = VTFltSimGetCallFaultHits() != 0;
            VTFltSimClearCallFaults();
            VTFltSimRecord(0);
            check();
            if (HasFailure()) {
                for (const std::wstring& line : vtfltsim::Trace())
                    std::cerr << "  " << Narrow(line) << '\n';
                return; // one is enough to look at
            }
            if (!struck)
                break;
        }
        EXPECT_GT(nth, 10u);
        EXPECT_LT(nth, MOST_CALLS);
    }
};

TEST_F(CallSweep, ARegistrationThatFailsAtAnyCallLeavesNothingOpenAndCanBeRepeated)
{
    FailEachCall(
        ERROR_NOT_ENOUGH_MEMORY, [] { VTUnregisterApplication(L"App1"); }, [] { VTRegisterApplication(L"App1"); },
        [&] {
            ExpectNothingLeftOpen();
            EXPECT_EQ(0u, VTRegisterApplication(L"App1"));
            EXPECT_EQ(std::vector<std::wstring>{L"App1"}, RegisteredIds());
        });
}

TEST_F(CallSweep, ABitmapThatFailsAtAnyCallLosesNoBlock)
{
    Register(L"App1");
    std::unique_ptr<Session> session;
    DWORD result = 0;
    BlockSet named;
    BlockSet written;
    FailEachCall(
        ERROR_ACCESS_DENIED,
        [&] {
            session.reset();
            session = Open(L"App1");
            SetVerifyList(L"App1", {});
            // Others each time, or what is left of the last one would pass for them.
            written = written == BlockSet{3, 97} ? BlockSet{5, 60} : BlockSet{3, 97};
            for (const std::uint64_t block : written)
                Touch({block});
            ASSERT_EQ(0u, session->Prepare());
        },
        [&] {
            result = session->GetBitmap();
            named = Blocks(*session);
        },
        [&] {
            if (result == 0 && named == written) {
                EXPECT_EQ(0u, session->Success());
                return;
            }
            // Failed or incomplete: the next one has the blocks, or the application is told to read everything.
            const bool verifies = result == VERIFY || VTIsVerifyRequired(L"App1", volume.Root().c_str()) != 0;
            ASSERT_EQ(0u, session->Prepare());
            const DWORD next = session->GetBitmap();
            const BlockSet later = Blocks(*session);
            EXPECT_TRUE(verifies || next == VERIFY ||
                        (next == 0 && std::includes(later.begin(), later.end(), written.begin(), written.end())))
                << "result " << result << ", then " << next;
            VTFltReplicationSuccess(session->Handle());
        });
    session.reset();
}

class DeathSweep : public AppsTest {
protected:
    Volume volume = machine.AddVolume(LENGTH, BLOCK);
};

TEST_F(DeathSweep, AfterOneThatDiesAtAnyCallOfARegistrationTheNextRegisters)
{
    for (const wchar_t* way : {L"kill-before|*||", L"kill-after|*||"}) {
        DWORD nth = 1;
        for (; nth <= MOST_CALLS; ++nth) {
            SCOPED_TRACE(Narrow(way) + std::to_string(nth));
            ChildProcess child(L"apps_child", {machine.directory(), L"register", L"App1"}, way + WideNumber(nth));
            if (child.Join() == 0)
                break; // it made fewer calls
            ASSERT_EQ(0u, VTRegisterApplication(L"App1"));
            ExpectIds(std::wstring_view(L"App1\0\0", 6));
            EXPECT_TRUE(AreFresh(volume, L"App1"));
            ASSERT_EQ(0u, VTUnregisterApplication(L"App1"));
        }
        EXPECT_GT(nth, 10u);
        EXPECT_LT(nth, MOST_CALLS);
        ASSERT_EQ(0u, VTUnregisterApplication(L"App1"));
    }
}

} // namespace
} // namespace vttest
