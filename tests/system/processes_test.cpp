// Several applications, each in its own process, on one machine.
#include "support/apps_test.h"
#include "support/child.h"

#include <set>

namespace {

using namespace std::literals;
using namespace vttest;

class Processes : public AppsTest {
protected:
    ChildProcess Start(const Entries& arguments, const std::wstring& calls = {})
    {
        Entries all{machine.directory()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return ChildProcess(L"apps_child", all, calls);
    }
    // Keeps the object alive, so that a dead owner shows as abandonment and not as a new mutex.
    static vtflt::UniqueHandle Keep(const std::wstring& mutex)
    {
        return vtflt::UniqueHandle(CreateMutexW(nullptr, FALSE, mutex.c_str()));
    }
    // Whether nobody holds the mutex now; the result of the wait.
    static DWORD TryTake(const vtflt::UniqueHandle& mutex)
    {
        const DWORD result = WaitForSingleObject(mutex.get(), 0);
        if (result != WAIT_TIMEOUT)
            ReleaseMutex(mutex.get());
        return result;
    }

    Volume volume = machine.AddVolume(LENGTH, BLOCK);
};

TEST_F(Processes, OfTwoThatRegisterAtOnceTheSecondWaitsAndBothEndUpListed)
{
    const vtflt::UniqueHandle mutex = Keep(APPLICATION_MUTEX);
    const Pause adding(L"VTFltSim.Test.Adding");
    ChildProcess first = Start({L"register", L"First"}, adding.Before(L"RegSetValueExW", APP_IDS_VALUE));
    ASSERT_TRUE(adding.AwaitReached(first));
    EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), TryTake(mutex));

    const Pause waiting(L"VTFltSim.Test.Waiting");
    const Pause inside(L"VTFltSim.Test.Inside");
    ChildProcess second = Start({L"register", L"Second"}, waiting.Before(L"WaitForSingleObject", APPLICATION_MUTEX) +
                                                              L";" + inside.Before(L"FindFirstVolumeW", L""));
    ASSERT_TRUE(waiting.AwaitReached(second));
    waiting.Go();
    // The first holds the mutex until it is told to go on, so the second cannot have gone past it.
    EXPECT_FALSE(inside.IsReached());
    EXPECT_TRUE(RegisteredIds().empty());

    adding.Go();
    EXPECT_EQ(0u, first.Join());
    ASSERT_TRUE(inside.AwaitReached(second));
    ExpectIds(L"First\0\0"sv);
    inside.Go();
    EXPECT_EQ(0u, second.Join());
    ExpectIds(L"First\0Second\0\0"sv);
    EXPECT_TRUE(AreFresh(volume, L"First"));
    EXPECT_TRUE(AreFresh(volume, L"Second"));
}

TEST_F(Processes, ThisOneWaitsForAnotherThatHoldsTheApplicationMutex)
{
    const Pause adding(L"VTFltSim.Test.Adding");
    ChildProcess other = Start({L"register", L"Other"}, adding.Before(L"RegSetValueExW", APP_IDS_VALUE));
    ASSERT_TRUE(adding.AwaitReached(other));
    // The other goes on when this process is at its wait, and not before.
    const auto release = [](void* pause, LPCWSTR, LPCWSTR) { static_cast<const Pause*>(pause)->Go(); };
    vtfltsim::Check("VTFltSimCallBefore", VTFltSimCallBefore(L"WaitForSingleObject", APPLICATION_MUTEX, 1, 1, release,
                                                             const_cast<Pause*>(&adding)));
    EXPECT_EQ(0u, VTRegisterApplication(L"Mine"));
    VTFltSimClearCallFaults();
    EXPECT_EQ(0u, other.Join());
    ExpectIds(L"Other\0Mine\0\0"sv);
}

// Twice each: once to see that the mutex was left behind, once to see the next application go on.
TEST_F(Processes, OneThatDiesWithTheApplicationMutexDoesNotStopTheNext)
{
    const vtflt::UniqueHandle mutex = Keep(APPLICATION_MUTEX);
    const std::wstring plan = DieBefore(L"RegSetValueExW", APP_IDS_VALUE);
    EXPECT_EQ(VTFLTSIM_KILLED, Start({L"register", L"Dead"}, plan).Join());
    EXPECT_EQ(static_cast<DWORD>(WAIT_ABANDONED), TryTake(mutex));

    EXPECT_EQ(VTFLTSIM_KILLED, Start({L"register", L"Dead"}, plan).Join());
    EXPECT_EQ(0u, VTRegisterApplication(L"Next"));
    ExpectIds(L"Next\0\0"sv);
    EXPECT_EQ(0u, VTRegisterApplication(L"Dead"));
    ExpectIds(L"Next\0Dead\0\0"sv);
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), TryTake(mutex));
}

TEST_F(Processes, OneThatDiesWithAVolumeMutexDoesNotStopTheNext)
{
    Register(L"App1");
    const vtflt::UniqueHandle mutex = Keep(volume.MutexName());
    const std::wstring plan = DieBefore(L"ReadFile", L"");
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(VTFLTSIM_KILLED, Start({L"verify", L"App1", volume.Path()}, plan).Join());
        if (round == 0) {
            EXPECT_EQ(static_cast<DWORD>(WAIT_ABANDONED), TryTake(mutex));
        }
    }
    // Without the mutex the answer would be no.
    RemoveFile(volume, BaseName(L"App1"));
    EXPECT_EQ(1u, VTIsVerifyRequired(L"App1", volume.Root().c_str()));
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), TryTake(mutex));
}

TEST_F(Processes, OneThatDiesWithAListMutexDoesNotStopTheNext)
{
    const vtflt::UniqueHandle mutex = Keep(ListMutex(L"App1.Last"));
    const std::wstring plan = DieBefore(L"RegSetValueExW", L"App1.Last");
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(VTFLTSIM_KILLED, Start({L"add", L"App1"}, plan).Join());
        ExpectNoList(L"App1.Last");
        if (round == 0) {
            EXPECT_EQ(static_cast<DWORD>(WAIT_ABANDONED), TryTake(mutex));
        }
    }
    EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(L"App1"));
    EXPECT_TRUE(VerifyList(L"App1") == Entries{volume.guid});
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), TryTake(mutex));
}

TEST_F(Processes, OneThatDiesWhileItMovesListsLosesNoVolume)
{
    const wchar_t* const functions[] = {L"RegSetValueExW", L"RegDeleteValueW"};
    for (const wchar_t* const function : functions) {
        bool killed = true;
        for (unsigned nth = 1; killed; ++nth) {
            SCOPED_TRACE(Narrow(function) + " " + std::to_string(nth));
            ASSERT_LT(nth, 10u);
            StoreIds(L"App1\0App2\0\0"sv);
            StoreList(L"", L"{1}\0plain\0\0"sv);
            StoreList(L"App1", L"{2}\0\0"sv);
            for (const wchar_t* const suffix : {L"App1.Last", L"App2", L"App2.Last"})
                StoreList(suffix, L"\0\0"sv);
            killed = Start({L"replicate", L"App1"}, DieAfter(function, DRIVER_LIST, nth)).Join() == VTFLTSIM_KILLED;
            EXPECT_EQ(0u, VTReplicateVerifyList(L"App1"));
            EXPECT_EQ(0u, VTReplicateVerifyList(L"App2"));
            const Entries list = VerifyList(L"App1");
            EXPECT_TRUE(list == (Entries{L"{1}", L"{2}"}) || list == (Entries{L"{2}", L"{1}"}));
            EXPECT_TRUE(VerifyList(L"App2") == Entries{L"{1}"});
            ExpectList(L"", L"plain\0\0"sv);
        }
    }
}

TEST_F(Processes, OneThatDiesWhileItRegistersCanRegisterAgain)
{
    const wchar_t* const functions[] = {L"CreateDirectoryW", L"CreateFileW", L"WriteFile"};
    for (const wchar_t* const function : functions) {
        SCOPED_TRACE(Narrow(function));
        EXPECT_EQ(VTFLTSIM_KILLED, Start({L"register", L"App1"}, DieAfter(function, L"")).Join());
        EXPECT_TRUE(RegisteredIds().empty());
    }
    EXPECT_EQ(0u, VTRegisterApplication(L"App1"));
    EXPECT_TRUE(AreFresh(volume, L"App1"));
}

TEST_F(Processes, OneThatDiesWhileItUnregistersLeavesTheVolumesMarked)
{
    Register(L"App1");
    EXPECT_EQ(VTFLTSIM_KILLED, Start({L"unregister", L"App1"}, DieAfter(L"RegSetValueExW", APP_IDS_VALUE)).Join());
    EXPECT_TRUE(RegisteredIds().empty());
    EXPECT_TRUE(HasBitmaps(volume, L"App1"));
    EXPECT_TRUE(VerifyList(L"App1") == Entries{volume.guid});
    EXPECT_EQ(0u, VTRegisterApplication(L"App1"));
    EXPECT_EQ(1u, VTIsVerifyRequired(L"App1", volume.Root().c_str()));
}

class TwoApplications : public Processes {
protected:
    using Blocks = std::set<std::uint64_t>;
    static constexpr unsigned CYCLES = 12;
    static constexpr unsigned WRITTEN_PER_CYCLE = 8;

    std::wstring Output(const std::wstring& appId) const { return machine.directory() + L"\\" + appId + L".blocks"; }
    ChildProcess StartCycles(const std::wstring& appId, std::uint64_t firstBlock, const std::wstring& ready,
                             const std::wstring& start) const
    {
        return ChildProcess(L"cycle_child", {machine.directory(), busy.guid, appId, WideNumber(firstBlock),
                                             WideNumber(CYCLES), ready, start, Output(appId)});
    }
    Blocks Named(const std::wstring& appId) const
    {
        const vtflt::UniqueHandle file(
            CreateFileW(Output(appId).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_TRUE(file.valid());
        std::vector<std::uint64_t> numbers(4096);
        DWORD read = 0;
        EXPECT_TRUE(ReadFile(file.get(), numbers.data(), static_cast<DWORD>(numbers.size() * sizeof(numbers[0])), &read,
                             nullptr));
        return Blocks(numbers.begin(), numbers.begin() + static_cast<std::ptrdiff_t>(read / sizeof(numbers[0])));
    }
    // What is still owed when both have ended.
    Blocks LastCycle(const std::wstring& appId)
    {
        Session session(OpenVolume(busy), busy.Root(), appId);
        EXPECT_EQ(0u, session.Init());
        EXPECT_EQ(0u, session.Prepare());
        const Snapshot snapshot = machine.TakeSnapshot(busy);
        EXPECT_EQ(0u, session.GetBitmap());
        EXPECT_EQ(0u, session.Success());
        machine.DeleteSnapshot(snapshot);
        const std::vector<std::uint64_t> blocks = session.Blocks();
        return Blocks(blocks.begin(), blocks.end());
    }

    Volume busy = machine.AddVolume(4096ull * BLOCK, BLOCK);
};

TEST_F(TwoApplications, RunningCyclesAtOnceOnOneVolumeLoseNoChangedBlock)
{
    Register(L"Even");
    Register(L"Odd");
    const std::wstring start = UniqueName(L"VTFltSim.Test.Start");
    const std::wstring evenReady = UniqueName(L"VTFltSim.Test.Ready");
    const std::wstring oddReady = UniqueName(L"VTFltSim.Test.Ready");
    const vtflt::UniqueHandle startEvent = NamedEvent(start);
    const vtflt::UniqueHandle evenEvent = NamedEvent(evenReady);
    const vtflt::UniqueHandle oddEvent = NamedEvent(oddReady);
    ChildProcess even = StartCycles(L"Even", 0, evenReady, start);
    ChildProcess odd = StartCycles(L"Odd", 1, oddReady, start);
    ASSERT_TRUE(even.Await(evenEvent));
    ASSERT_TRUE(odd.Await(oddEvent));
    SetEvent(startEvent.get());
    EXPECT_EQ(0u, even.Join());
    EXPECT_EQ(0u, odd.Join());

    Blocks written;
    for (std::uint64_t block = 0; block < 2ull * CYCLES * WRITTEN_PER_CYCLE; ++block)
        written.insert(block);
    for (const wchar_t* const appId : {L"Even", L"Odd"}) {
        Blocks named = Named(appId);
        EXPECT_FALSE(named.empty());
        const Blocks last = LastCycle(appId);
        named.insert(last.begin(), last.end());
        EXPECT_TRUE(named == written) << Narrow(appId) << " was told of " << named.size() << " of " << written.size()
                                      << " blocks";
        ExpectNoList(std::wstring(appId) + L".Last");
    }
    DeleteFileW(Output(L"Even").c_str());
    DeleteFileW(Output(L"Odd").c_str());
}

} // namespace
