// What the library lets threads do at the same time: different volume handles, once they are initialised, and whatever
// takes no volume handle. On the double an order of the threads is drawn for each seed; elsewhere the system chooses.
#include "support/cycle_test.h"
#include "support/driver_expect.h"

#include <array>
#include <functional>
#include <thread>

#if !defined(_WIN32)
#include "double/control.h"
#endif

namespace vttest {
namespace {

constexpr std::array APPLICATIONS = {L"App1", L"App2", L"App3", L"App4"};

#if defined(_WIN32)
constexpr unsigned ORDERS = 3;
void ChooseOrder(unsigned) {}
#else
constexpr unsigned ORDERS = 10;
void ChooseOrder(unsigned order)
{
    DoubleSeed(order);
}
#endif

class Threads : public CycleTest {
protected:
    // Runs the work for each application in a thread of its own and gives the results in order.
    static std::array<DWORD, APPLICATIONS.size()> AtOnce(const std::function<DWORD(std::size_t)>& work)
    {
        std::array<DWORD, APPLICATIONS.size()> results = {};
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < results.size(); ++i)
            threads.emplace_back([&work, &results, i] { results[i] = work(i); });
        for (std::thread& thread : threads)
            thread.join();
        return results;
    }
    static constexpr std::array<DWORD, APPLICATIONS.size()> ALL_WELL = {};
};

TEST_F(Threads, FetchOneVolumeOnTheirOwnHandlesAndEachIsGivenEveryChange)
{
    for (const wchar_t* id : APPLICATIONS)
        Register(id);
    for (unsigned order = 1; order <= ORDERS; ++order) {
        SCOPED_TRACE(order);
        const BlockSet changed = {order, order + 40, 99 - order};
        for (const std::uint64_t block : changed)
            machine.TouchBlock(volume, block);
        std::vector<std::unique_ptr<Session>> sessions;
        for (const wchar_t* id : APPLICATIONS)
            sessions.push_back(Open(id));
        ChooseOrder(order);
        const auto fetched = AtOnce([&](std::size_t i) { return sessions[i]->GetBitmap(); });
        const auto confirmed = AtOnce([&](std::size_t i) { return sessions[i]->Success(); });
        ChooseOrder(0);
        EXPECT_EQ(ALL_WELL, fetched);
        EXPECT_EQ(ALL_WELL, confirmed);
        for (const auto& session : sessions)
            EXPECT_EQ(changed, Blocks(*session));
    }
}

TEST_F(Threads, RegisterAndUnregisterAndLeaveNothingOut)
{
    for (unsigned order = 1; order <= ORDERS; ++order) {
        SCOPED_TRACE(order);
        ChooseOrder(order);
        const auto registered = AtOnce([](std::size_t i) { return VTRegisterApplication(APPLICATIONS[i]); });
        ChooseOrder(0);
        EXPECT_EQ(ALL_WELL, registered);
        EXPECT_EQ(APPLICATIONS.size(), RegisteredIds().size());
        for (const wchar_t* id : APPLICATIONS)
            EXPECT_TRUE(Base(volume, id).exists && Child(volume, id).exists) << Narrow(id);
        ChooseOrder(order);
        const auto gone = AtOnce([](std::size_t i) { return VTUnregisterApplication(APPLICATIONS[i]); });
        ChooseOrder(0);
        EXPECT_EQ(ALL_WELL, gone);
        EXPECT_TRUE(RegisteredIds().empty());
    }
}

TEST_F(Threads, ReplicateTheDriversListToTheirOwn)
{
    for (const wchar_t* id : APPLICATIONS)
        Register(id);
    for (unsigned order = 1; order <= ORDERS; ++order) {
        SCOPED_TRACE(order);
        SetList(SERVICE_KEY, DRIVER_LIST, OnlyThisVolume());
        ChooseOrder(order);
        const auto replicated = AtOnce([](std::size_t i) { return VTReplicateVerifyList(APPLICATIONS[i]); });
        const auto asked =
            AtOnce([this](std::size_t i) { return VTIsVerifyRequired(APPLICATIONS[i], volume.Root().c_str()); });
        ChooseOrder(0);
        EXPECT_EQ(ALL_WELL, replicated);
        for (const DWORD answer : asked)
            EXPECT_EQ(1u, answer);
        for (const wchar_t* id : APPLICATIONS) {
            EXPECT_EQ(OnlyThisVolume(), VerifyList(id)) << Narrow(id);
            DeleteValue(SERVICE_KEY, std::wstring(DRIVER_LIST) + id + L".Last");
        }
        EXPECT_TRUE(DriverList().empty());
    }
}

TEST_F(Threads, SwitchMonitoringOnAndOffAndTheCountEndsWhereItBegan)
{
    for (unsigned order = 1; order <= ORDERS; ++order) {
        SCOPED_TRACE(order);
        ChooseOrder(order);
        const auto on = AtOnce([](std::size_t) { return VTFltEnableMonitorForSnapshot(nullptr); });
        const auto off = AtOnce([](std::size_t) { return VTFltDisableMonitorForSnapshot(nullptr); });
        ChooseOrder(0);
        EXPECT_EQ(ALL_WELL, on);
        EXPECT_EQ(ALL_WELL, off);
        EXPECT_EQ(NumberBytes(0), machine.ReadValue(std::wstring(COUNT_KEYS) + SNAPSHOT_CLASS_NAME, MONITOR_COUNT));
        EXPECT_TRUE(List(SNAPSHOT_CLASS, UPPER_FILTERS).empty());
    }
}

} // namespace
} // namespace vttest
