// What the results of a wait mean: time-out and abandonment go ahead, a failed wait does not.
#include "support/apps_test.h"

#include <thread>

namespace {

using namespace std::literals;
using namespace vttest;

class MutexWaits : public AppsTest {
protected:
    MutexWaits() { StoreIds(L"App1\0\0"sv); }

    Volume volume = machine.AddVolume(LENGTH, BLOCK);
};

TEST_F(MutexWaits, ATimeOutGoesAheadWithoutTheMutexAndOwnsNothing)
{
    ForceCall(L"WaitForSingleObject", APPLICATION_MUTEX, WAIT_TIMEOUT);
    EXPECT_EQ(0u, VTRegisterApplication(L"App2"));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    VTFltSimClearCallFaults();
    ExpectIds(L"App1\0App2\0\0"sv);
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_MUTEXES));
}

TEST_F(MutexWaits, AnAbandonedMutexIsTakenOver)
{
    // A thread that ends with the mutex leaves it abandoned; the handle here keeps the object alive. The system's own
    // function waits, so that what the thread never gives back is not counted as the library's.
    const vtflt::UniqueHandle held(CreateMutexW(nullptr, FALSE, APPLICATION_MUTEX));
    using Wait = DWORD(WINAPI*)(HANDLE, DWORD);
    const auto wait = reinterpret_cast<Wait>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "WaitForSingleObject")));
    std::thread([&] { EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), wait(held.get(), INFINITE)); }).join();
    EXPECT_EQ(0u, VTRegisterApplication(L"App2"));
    ExpectIds(L"App1\0App2\0\0"sv);
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), WaitForSingleObject(held.get(), 0));
    ReleaseMutex(held.get());
}

TEST_F(MutexWaits, EveryOperationGoesAheadAfterATimeOutAndAfterAbandonment)
{
    for (const DWORD result : {static_cast<DWORD>(WAIT_TIMEOUT), static_cast<DWORD>(WAIT_ABANDONED)}) {
        SCOPED_TRACE(result);
        const auto force = [result](const std::wstring& mutex, DWORD nth = 1) {
            ForceCall(L"WaitForSingleObject", mutex, result, nth);
        };
        force(volume.MutexName());
        EXPECT_EQ(0u, VTRegisterApplication(L"App2"));
        ExpectStruck();
        EXPECT_TRUE(AreFresh(volume, L"App2"));

        force(APPLICATION_MUTEX);
        force(ListMutex(L""));
        force(ListMutex(L"App1"));
        StoreList(L"", L"{1}\0\0"sv);
        EXPECT_EQ(0u, VTReplicateVerifyList(L"App1"));
        ExpectStruck(3);
        ExpectList(L"App1.Last", L"{1}\0\0"sv);

        force(volume.MutexName());
        EXPECT_EQ(1u, VTIsVerifyRequired(L"App1", volume.Root().c_str())); // App1 has no files
        ExpectStruck();

        force(APPLICATION_MUTEX);
        force(ListMutex(L"App1.Last"), 2);
        Entries both{L"{1}", volume.guid};
        EXPECT_EQ(0u, VTRemoveApplicationVolResyncList(L"App1", &both));
        ExpectStruck(2);
        ExpectNoList(L"App1.Last");

        force(ListMutex(L"App2.Last"));
        EXPECT_EQ(0u, VTAddVolumesToAppVerifyList(L"App2"));
        ExpectStruck();
        EXPECT_TRUE(VerifyList(L"App2") == Entries{volume.guid});

        force(APPLICATION_MUTEX);
        force(volume.MutexName());
        EXPECT_EQ(0u, VTUnregisterApplication(L"App2"));
        ExpectStruck(2);
        EXPECT_TRUE(HasNoBitmaps(volume, L"App2"));
        ExpectIds(L"App1\0\0"sv);
    }
}

TEST_F(MutexWaits, AFailedWaitIsLoggedByEachOperationUnderItsOwnName)
{
    const auto expect = [this](const std::wstring& mutex, DWORD result, const std::wstring& message) {
        SCOPED_TRACE(Narrow(message));
        EXPECT_EQ(NO_MUTEX, result);
        ExpectStruck();
        log.ExpectLogged(0, NO_MUTEX, message + mutex);
        for (const LogRecord& record : log.Records())
            EXPECT_EQ(std::wstring::npos, record.text.find(L"CMutexController")) << Narrow(record.text);
        ExpectNothingLeftOpen();
        log.Clear();
    };
    const std::wstring failed = L"Failed to get the access while creating mutex: ";
    const std::wstring lists = L"CVolumeListForResync::";
    const auto fail = [](const std::wstring& mutex, DWORD nth = 1) {
        vtfltsim::FailCall(L"WaitForSingleObject", ERROR_INVALID_HANDLE, mutex.c_str(), nth);
    };
    Entries none;

    fail(APPLICATION_MUTEX);
    expect(APPLICATION_MUTEX, VTUnregisterApplication(L"App1"), L"UnregisterApplication" + failed);
    fail(APPLICATION_MUTEX);
    expect(APPLICATION_MUTEX, VTReplicateVerifyList(L"App1"), L"ReplicateVerifyList" + failed);
    fail(APPLICATION_MUTEX);
    expect(APPLICATION_MUTEX, VTRemoveApplicationVolResyncList(L"App1", &none),
           L"RemoveApplicationVolResyncList" + failed);
    fail(ListMutex(L""));
    expect(ListMutex(L""), VTReplicateVerifyList(L"App1"), lists + L"GetDriverVolumeList" + failed);
    fail(ListMutex(L"App1.Last"));
    expect(ListMutex(L"App1.Last"), VTAddVolumesToAppVerifyList(L"App1"), lists + L"UpdateApplicationValue" + failed);
    // Inside the merge the same mutex is taken again for the reading.
    fail(ListMutex(L"App1.Last"), 2);
    expect(ListMutex(L"App1.Last"), VTAddVolumesToAppVerifyList(L"App1"), lists + L"GetDriverVolumeList" + failed);
    // Reading, merge, its reading, then the clearing.
    StoreList(L"App1", L"{1}\0\0"sv);
    fail(ListMutex(L"App1"), 2);
    expect(ListMutex(L"App1"), VTReplicateVerifyList(L"App1"), lists + L"ClearDriverRegValue" + failed);
    ExpectList(L"App1", L"{1}\0\0"sv);
    ExpectList(L"App1.Last", L"{1}\0\0"sv);
}

} // namespace
