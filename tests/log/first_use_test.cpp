// Two threads that need at the same moment what the log finds out, makes or opens once: it is found out once, and each has
// it. What a lock that is not taken would do shows under the thread sanitizer.
#include "log/log_config.h"
#include "log/log_levels.h"
#include "log_file_test.h"
#include "support/live_output_test.h"

#include <algorithm>
#include <thread>

using namespace vtflt;
using namespace vttest;
using NSDBG::CSMOutput;

namespace {

constexpr int ROUNDS = 20; // a race may be missed once

// Each call is given its thread's number. Nothing orders the two: neither waits for the other before the end.
template <class Call>
void OnTwoThreads(const Call& call)
{
    std::thread other([&] { call(1); });
    call(0);
    other.join();
}

// How many calls of a function the body makes.
template <class Body>
DWORD CallsOf(const wchar_t* function, const Body& body)
{
    VTFltSimResetCounts();
    body();
    return VTFltSimGetCallCount(function);
}

class FirstUse : public LogFileTest {};

TEST_F(FirstUse, OfTheModulesPathByTwoThreadsFindsItOutOnce)
{
    const std::wstring executable(ExecutableModule().Path());
    for (int round = 0; round < ROUNDS; ++round) {
        const Elsewhere module(L"");
        std::wstring paths[2];
        EXPECT_EQ(1u, CallsOf(L"GetModuleFileNameW",
                              [&] { OnTwoThreads([&](std::size_t number) { paths[number] = OwnModule().Path(); }); }));
        EXPECT_TRUE(paths[0] == executable && paths[1] == executable);
    }
}

// Where there is no path the library itself writes into the place that the other thread reads.
TEST_F(FirstUse, OfAModulesPathThatCannotBeHadByTwoThreadsAsksForEach)
{
    const std::wstring executable(ExecutableModule().Path());
    const Elsewhere module(L"");
    vtfltsim::FailCall(L"GetModuleFileNameW", ERROR_INSUFFICIENT_BUFFER, nullptr, 1, 0);
    for (int round = 0; round < ROUNDS; ++round) {
        EXPECT_EQ(4u, CallsOf(L"GetModuleFileNameW",
                              [&] { OnTwoThreads([&](std::size_t) { EXPECT_TRUE(OwnModule().Path().empty()); }); }));
    }
    VTFltSimClearCallFaults();
    EXPECT_TRUE(OwnModule().Path() == executable);
}

TEST_F(FirstUse, OfAModulesLevelByTwoThreadsReadsItOnce)
{
    SetNumber(std::wstring(ENGINE) + L"\\Debug", L"a.exe", 4);
    ForgetLogLevels();
    const DWORD once = CallsOf(L"RegOpenKeyExW", [] { GetModuleLogLevel(L"a.exe"); });
    EXPECT_LT(0u, once);
    for (int round = 0; round < ROUNDS; ++round) {
        ForgetLogLevels();
        DWORD levels[2] = {};
        EXPECT_EQ(once, CallsOf(L"RegOpenKeyExW", [&] {
                      OnTwoThreads([&](std::size_t number) { levels[number] = GetModuleLogLevel(L"a.exe"); });
                  }));
        EXPECT_TRUE(levels[0] == 4 && levels[1] == 4);
    }
}

TEST_F(FirstUse, OfTheProgramsThatKeepTheirFileByTwoThreadsReadsThemOnce)
{
    SetText(std::wstring(ENGINE) + L"\\Debug", L"DisableGlobalOption", L"one.exe two.exe");
    ForgetLogLevels();
    const DWORD once = CallsOf(L"RegOpenKeyExW", [] { IsGlobalOptionDisabled(L"two.exe"); });
    EXPECT_LT(0u, once);
    for (int round = 0; round < ROUNDS; ++round) {
        ForgetLogLevels();
        bool disabled[2] = {};
        EXPECT_EQ(once, CallsOf(L"RegOpenKeyExW", [&] {
                      OnTwoThreads([&](std::size_t number) { disabled[number] = IsGlobalOptionDisabled(L"two.exe"); });
                  }));
        EXPECT_TRUE(disabled[0] && disabled[1]);
    }
}

TEST_F(FirstUse, OfTheDefaultFolderByTwoThreadsFindsItOutOnce)
{
    InstallEngineHere();
    CLogCfgShareMemory first;
    std::wstring folder;
    const DWORD once = CallsOf(L"RegOpenKeyExW", [&] { folder = first.DefaultLogFolder(); });
    EXPECT_LT(0u, once);
    for (int round = 0; round < ROUNDS; ++round) {
        CLogCfgShareMemory configuration;
        std::wstring folders[2];
        EXPECT_EQ(once, CallsOf(L"RegOpenKeyExW", [&] {
                      OnTwoThreads([&](std::size_t number) { folders[number] = configuration.DefaultLogFolder(); });
                  }));
        EXPECT_TRUE(folders[0] == folder && folders[1] == folder);
    }
}

TEST_F(FirstUse, OfTheConfigurationByTwoThreadsMakesItsMutexOnce)
{
    for (int round = 0; round < ROUNDS; ++round) {
        CLogCfgShareMemory configuration;
        DWORD levels[2] = {};
        EXPECT_EQ(1u, CallsOf(L"CreateMutexW", [&] {
                      OnTwoThreads([&](std::size_t number) { levels[number] = configuration.QueryLevel(L"a.dll"); });
                  }));
        EXPECT_TRUE(levels[0] == LOG_LEVEL_NOT_SET && levels[1] == LOG_LEVEL_NOT_SET);
    }
}

// Without a simulated machine: its own lock, which each call takes, would order what the library has to.
class UnwatchedUse : public LiveOutputTest {
protected:
    UnwatchedUse() { CloseOutputState(); }
    ~UnwatchedUse() override { CloseOutputState(); }

    ScratchFolder m_folder;
};

TEST_F(UnwatchedUse, OfAFileByTwoThreadsOpensItOnceAndHasBothRecords)
{
    for (int round = 0; round < ROUNDS; ++round) {
        const std::wstring path = m_folder.File(WideNumber(static_cast<DWORD>(round)) + L".log");
        NSDBG::CFileOutput output;
        CLogCfgShareMemory::Instance().StorePath(OwnModule().Name(), path);
        OnTwoThreads([&](std::size_t number) { output.WriteLogW(0, 0, number == 0 ? L"zero" : L"one"); });
        const std::wstring text = WideFileText(path);
        EXPECT_TRUE(text.find(L"] zero ") != text.npos && text.find(L"] one ") != text.npos) << text.size();
    }
}

TEST_F(UnwatchedUse, OfTheLiveOutputByTwoThreadsWhoseViewerLeftClosesEverything)
{
    LiveViewer viewer(Upper());
    const ViewerBreakpoints breakpoints;
    CSMOutput output;
    for (int round = 0; round < ROUNDS; ++round) {
        output.WriteLogW(0, 0, L"text");
        EXPECT_TRUE(MappingExists(RingName()));
        viewer.Leave();
        OnTwoThreads([&](std::size_t) { output.WriteLogW(0, 0, L"nobody looks"); });
        EXPECT_FALSE(MappingExists(RingName()) || MutexExists(RING_MUTEX + Upper()));
        viewer.ComeBack();
    }
}

} // namespace
