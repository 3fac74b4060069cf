// Guards, stored lists and folder removal, which need no simulated machine.
#include "apps/application_registry.h"
#include "apps/bitmap_maintenance.h"
#include "apps/mutex_controller.h"
#include "apps/resync_lists.h"
#include "bitmap/result_codes.h"
#include "registry/multi_string_value.h"
#include "support/log_capture.h"
#include "support/registry_sandbox.h"
#include "win/owners.h"

#include <gtest/gtest.h>
#include <string_view>
#include <thread>

namespace {

using namespace std::literals;
using namespace vtflt;

using List = std::vector<std::wstring>;

constexpr wchar_t LIST_KEY[] = L"SYSTEM\\CurrentControlSet\\Services\\VTFlt";

std::vector<std::uint8_t> ListBytes(std::wstring_view text)
{
    std::vector<std::uint8_t> bytes;
    for (const wchar_t character : text) {
        bytes.push_back(static_cast<std::uint8_t>(character & 0xFF));
        bytes.push_back(static_cast<std::uint8_t>(character >> 8 & 0xFF));
    }
    return bytes;
}

class StoredLists : public ::testing::Test {
protected:
    void Store(const wchar_t* value, std::wstring_view text, DWORD type = REG_MULTI_SZ) const
    {
        registry.Set(LIST_KEY, value, type, ListBytes(text));
    }
    void ExpectStored(const wchar_t* value, std::wstring_view text) const
    {
        const vttest::RegistrySandbox::Value stored = registry.Get(LIST_KEY, value);
        EXPECT_EQ(static_cast<DWORD>(ERROR_SUCCESS), stored.error);
        EXPECT_EQ(static_cast<DWORD>(REG_MULTI_SZ), stored.type);
        EXPECT_EQ(ListBytes(text), stored.bytes);
    }
    void ExpectAbsent(const wchar_t* value) const
    {
        EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), registry.Get(LIST_KEY, value).error);
    }
    void Register(std::wstring_view ids) const
    {
        registry.Set(APPLICATION_IDS_KEY, APPLICATION_IDS_VALUE, REG_MULTI_SZ, ListBytes(ids));
    }
    // Puts an object of another kind under a mutex's name.
    static UniqueHandle Block(const wchar_t* name) { return UniqueHandle(CreateEventW(nullptr, FALSE, FALSE, name)); }

    vttest::RegistrySandbox registry;
    vttest::LogCapture log;
    CVolumeListForResync lists;
};

using MutexGuard = StoredLists;
using Applications = StoredLists;

TEST_F(MutexGuard, NamesAreBuiltFromPrefixMiddleAndSuffix)
{
    EXPECT_TRUE(BuildMutexName(L"Volume{1}") == L"VTBitmapManager.Volume{1}.Mutex");
    EXPECT_TRUE(BuildApplicationMutexName() == L"VTBitmapManager.AppicationMutex.Mutex");
}

TEST_F(MutexGuard, ANameTakenByAnotherKindOfObjectGivesTheMutexCode)
{
    const UniqueHandle event = Block(L"vtflt test");
    CMutexController mutex;
    EXPECT_EQ(BM_ERR_MUTEX_ACCESS, mutex.getAccess(L"vtflt test"));
    log.ExpectExactly(
        {{0, ERROR_INVALID_HANDLE, L"CMutexController::getAccess Failed to CreateMutex[vtflt test] error: 6"}});
}

TEST_F(MutexGuard, TheSameThreadMayHoldANameTwiceAndGivesItUpTwice)
{
    {
        CMutexController outer;
        EXPECT_EQ(0u, outer.getAccess(L"vtflt test"));
        {
            CMutexController inner;
            EXPECT_EQ(0u, inner.getAccess(L"vtflt test"));
        }
        UniqueHandle other(OpenMutexW(SYNCHRONIZE, FALSE, L"vtflt test"));
        DWORD wait = WAIT_FAILED;
        std::thread([&] { wait = WaitForSingleObject(other.get(), 0); }).join();
        EXPECT_EQ(static_cast<DWORD>(WAIT_TIMEOUT), wait);
    }
    EXPECT_EQ(nullptr, OpenMutexW(SYNCHRONIZE, FALSE, L"vtflt test"));
}

// Owned from its making it would have to be given up twice.
TEST_F(MutexGuard, AMutexThatItMakesIsFreeBehindIt)
{
    UniqueHandle other;
    {
        CMutexController guard;
        EXPECT_EQ(0u, guard.getAccess(L"vtflt test"));
        other.reset(OpenMutexW(SYNCHRONIZE, FALSE, L"vtflt test"));
        ASSERT_TRUE(other.valid());
    }
    DWORD wait = WAIT_FAILED;
    std::thread([&] { wait = WaitForSingleObject(other.get(), 0); }).join();
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), wait);
}

TEST_F(MutexGuard, GivesItsMutexUpWhenItGoes)
{
    const UniqueHandle other(CreateMutexW(nullptr, FALSE, L"vtflt test"));
    {
        CMutexController guard;
        EXPECT_EQ(0u, guard.getAccess(L"vtflt test"));
    }
    DWORD wait = WAIT_FAILED;
    std::thread([&] {
        wait = WaitForSingleObject(other.get(), 0);
        ReleaseMutex(other.get());
    }).join();
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), wait);
}

TEST_F(MutexGuard, TakingAnotherMutexGivesTheFirstOneUp)
{
    const UniqueHandle first(CreateMutexW(nullptr, FALSE, L"vtflt test"));
    CMutexController guard;
    EXPECT_EQ(0u, guard.getAccess(L"vtflt test"));
    EXPECT_EQ(0u, guard.getAccess(L"vtflt test 2"));
    DWORD wait = WAIT_FAILED;
    std::thread([&] {
        wait = WaitForSingleObject(first.get(), 0);
        ReleaseMutex(first.get());
    }).join();
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), wait);
}

TEST_F(MutexGuard, GivingItsMutexUpKeepsTheLastError)
{
    CMutexController guard;
    EXPECT_EQ(0u, guard.getAccess(L"vtflt test"));
    SetLastError(1234);
    guard.release();
    EXPECT_EQ(1234u, GetLastError());
}

TEST_F(MutexGuard, AMutexAbandonedByItsOwnerIsTakenOver)
{
    UniqueHandle mutex(CreateMutexW(nullptr, FALSE, L"vtflt test"));
    std::thread([&] { WaitForSingleObject(mutex.get(), INFINITE); }).join();
    CMutexController guard;
    EXPECT_EQ(0u, guard.getAccess(L"vtflt test"));
    log.ExpectNothingLogged();
}

TEST_F(StoredLists, AnAbsentListAddsNothing)
{
    List volumes{L"before"};
    EXPECT_EQ(0u, lists.GetDriverVolumeList(volumes, L""));
    EXPECT_TRUE(volumes == (List{L"before"}));
    log.ExpectNothingLogged();
}

TEST_F(StoredLists, AListIsReadUpToItsFirstEmptyString)
{
    Store(L"DeviceListForReSync", L"{1}\0{2}\0\0x\0\0"sv);
    List volumes{L"before"};
    EXPECT_EQ(0u, lists.GetDriverVolumeList(volumes, L""));
    EXPECT_TRUE(volumes == (List{L"before", L"{1}", L"{2}"}));
}

TEST_F(StoredLists, AListBeyondTheFirstBufferIsReadWhole)
{
    std::wstring text;
    for (int i = 0; i < 3000; ++i)
        text += L"{1}"s + L'\0';
    text += L'\0';
    Store(L"DeviceListForReSync", text);
    List volumes;
    EXPECT_EQ(0u, lists.GetDriverVolumeList(volumes, L""));
    EXPECT_EQ(3000u, volumes.size());
}

TEST_F(StoredLists, AMalformedListFailsWith13AndTheLogNamesTheValue)
{
    const auto expectMalformed = [this] {
        log.Clear();
        List volumes;
        EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_DATA), lists.GetDriverVolumeList(volumes, L"App1.Last"));
        EXPECT_TRUE(volumes.empty());
        log.ExpectExactly({{0, ERROR_INVALID_DATA,
                            L"CVolumeListForResync::GetDriverVolumeList::QueryMultiStringValue "
                            L"DeviceListForReSyncApp1.Last error 13"}});
    };
    Store(L"DeviceListForReSyncApp1.Last", L"{1}\0\0"sv, REG_BINARY);
    expectMalformed();
    Store(L"DeviceListForReSyncApp1.Last", L"{1}\0"sv);
    expectMalformed();
    Store(L"DeviceListForReSyncApp1.Last", L"\0"sv);
    expectMalformed();
    Store(L"DeviceListForReSyncApp1.Last", L""sv);
    expectMalformed();
}

TEST_F(StoredLists, AMergeWritesTheNewEntriesFirstAndAVolumeOnce)
{
    Store(L"DeviceListForReSyncApp1", L"{1}\0{2}\0\0"sv);
    EXPECT_EQ(0u, lists.UpdateApplicationValue({L"{3}", L"{2}"}, L"App1", 0));
    ExpectStored(L"DeviceListForReSyncApp1", L"{3}\0{2}\0{1}\0\0"sv);
    log.ExpectExactly({{2, 0, L"CVolumeListForResync::UpdateApplicationValueAdding the new volume {3}"},
                       {2, 0, L"CVolumeListForResync::UpdateApplicationValueAdding the new volume {2}"},
                       {2, 0, L"CVolumeListForResync::UpdateApplicationValueAdding the existing volume {1}"},
                       {2, 0,
                        L"CVolumeListForResync::UpdateApplicationValue::SetMultiStringValue DeviceListForReSyncApp1 to "
                        L"{3}*{2}*{1}*"}});
}

TEST_F(StoredLists, AMergeWhoseOldListCannotBeReadWritesNothing)
{
    Store(L"DeviceListForReSyncApp1", L"{1}\0"sv);
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_DATA), lists.UpdateApplicationValue({L"{3}"}, L"App1", 0));
    ExpectStored(L"DeviceListForReSyncApp1", L"{1}\0"sv);
}

TEST_F(StoredLists, AVolumeWithoutANameIsRefusedAndNothingIsWritten)
{
    Store(L"DeviceListForReSyncApp1", L"{1}\0\0"sv);
    for (const DWORD replace : {0u, 1u}) {
        log.Clear();
        EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER),
                  lists.UpdateApplicationValue({L"{3}", L""}, L"App1", replace));
        ExpectStored(L"DeviceListForReSyncApp1", L"{1}\0\0"sv);
        log.ExpectExactly({{0, ERROR_INVALID_PARAMETER,
                            L"CVolumeListForResync::UpdateApplicationValue: A volume without a name cannot be added to "
                            L"DeviceListForReSyncApp1"}});
    }
}

TEST_F(StoredLists, ADamagedEntryTakesNoOtherAway)
{
    Store(L"DeviceListForReSyncApp1", L"{1}\0\0"sv);
    EXPECT_EQ(0u, lists.UpdateApplicationValue({L"{**}"}, L"App1", 0));
    ExpectStored(L"DeviceListForReSyncApp1", L"{\0}\0{1}\0\0"sv);
}

TEST_F(StoredLists, ReplacingDropsTheOldEntries)
{
    Store(L"DeviceListForReSyncApp1", L"{1}\0\0"sv);
    EXPECT_EQ(0u, lists.UpdateApplicationValue({L"{3}"}, L"App1", 1));
    ExpectStored(L"DeviceListForReSyncApp1", L"{3}\0\0"sv);
}

TEST_F(StoredLists, ReplacingWithNothingDeletesTheValue)
{
    Store(L"DeviceListForReSyncApp1", L"{1}\0\0"sv);
    EXPECT_EQ(0u, lists.UpdateApplicationValue({}, L"App1", 1));
    ExpectAbsent(L"DeviceListForReSyncApp1");
    EXPECT_EQ(0u, lists.UpdateApplicationValue({}, L"App1", 1));
    log.ExpectNothingLogged();
}

TEST_F(StoredLists, ClearingDeletesTheValueAndAnAbsentOneIsNoError)
{
    Store(L"DeviceListForReSyncApp1", L"{1}\0\0"sv);
    for (int round = 0; round < 2; ++round) {
        log.Clear();
        EXPECT_EQ(0u, lists.ClearDriverRegValue(L"App1"));
        ExpectAbsent(L"DeviceListForReSyncApp1");
        log.ExpectExactly({{4, 0,
                            L"CVolumeListForResync::ClearDriverRegValue::Deleting Driver reg Value "
                            L"DeviceListForReSyncApp1 retcode 0"}});
    }
}

TEST_F(StoredLists, WithoutTheirMutexNothingIsTouched)
{
    Store(L"DeviceListForReSyncApp1", L"{1}\0\0"sv);
    const wchar_t name[] = L"VTBitmapManager.DeviceListForReSyncApp1.Mutex";
    const UniqueHandle event = Block(name);
    List volumes;
    EXPECT_EQ(BM_ERR_MUTEX_ACCESS, lists.GetDriverVolumeList(volumes, L"App1"));
    EXPECT_EQ(BM_ERR_MUTEX_ACCESS, lists.ClearDriverRegValue(L"App1"));
    EXPECT_EQ(BM_ERR_MUTEX_ACCESS, lists.UpdateApplicationValue({L"{2}"}, L"App1", 1));
    ExpectStored(L"DeviceListForReSyncApp1", L"{1}\0\0"sv);
    for (const wchar_t* operation : {L"GetDriverVolumeList", L"ClearDriverRegValue", L"UpdateApplicationValue"}) {
        log.ExpectLogged(0, BM_ERR_MUTEX_ACCESS,
                         L"CVolumeListForResync::"s + operation + L"Failed to get the access while creating mutex: " +
                             name);
    }
}

TEST_F(StoredLists, TheDriversGuidsGoToEveryApplicationAndTheRestStays)
{
    Register(L"App1\0App2\0\0"sv);
    Store(L"DeviceListForReSync", L"{1}\0x\0{2}\0\0"sv);
    Store(L"DeviceListForReSyncApp2", L"{0}\0{2}\0\0"sv);
    EXPECT_EQ(0u, ReplicateDriverResyncList());
    ExpectStored(L"DeviceListForReSync", L"x\0\0"sv);
    ExpectStored(L"DeviceListForReSyncApp1", L"{1}\0{2}\0\0"sv);
    ExpectStored(L"DeviceListForReSyncApp2", L"{1}\0{2}\0{0}\0\0"sv);
}

TEST_F(StoredLists, AnAbsentDriverListIsHandedOutAsNothing)
{
    Register(L"App1\0\0"sv);
    EXPECT_EQ(0u, ReplicateDriverResyncList());
    ExpectAbsent(L"DeviceListForReSync");
    ExpectAbsent(L"DeviceListForReSyncApp1");
}

TEST_F(StoredLists, ADriverListWithoutBracesIsLeftAsItIs)
{
    Register(L"App1\0\0"sv);
    Store(L"DeviceListForReSync", L"x\0y\0\0"sv);
    EXPECT_EQ(0u, ReplicateDriverResyncList());
    ExpectStored(L"DeviceListForReSync", L"x\0y\0\0"sv);
    ExpectAbsent(L"DeviceListForReSyncApp1");
}

TEST_F(StoredLists, WithoutApplicationsTheDriversGuidsAreDropped)
{
    Store(L"DeviceListForReSync", L"{1}\0\0"sv);
    EXPECT_EQ(0u, ReplicateDriverResyncList());
    ExpectAbsent(L"DeviceListForReSync");
}

TEST_F(StoredLists, AnApplicationThatCannotBeServedKeepsTheDriversList)
{
    Register(L"App1\0App2\0App3\0\0"sv);
    Store(L"DeviceListForReSync", L"{1}\0\0"sv);
    Store(L"DeviceListForReSyncApp2", L"{0}\0"sv);
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_DATA), ReplicateDriverResyncList());
    ExpectStored(L"DeviceListForReSync", L"{1}\0\0"sv);
    ExpectStored(L"DeviceListForReSyncApp1", L"{1}\0\0"sv);
    ExpectAbsent(L"DeviceListForReSyncApp3");
    log.ExpectLogged(0, ERROR_INVALID_DATA,
                     L"ReplicateDriverResyncListFailed to replicate resync list from driver to application App2");
}

TEST_F(StoredLists, APendingListMovesIntoTheVerifyList)
{
    Store(L"DeviceListForReSyncApp1", L"{1}\0\0"sv);
    Store(L"DeviceListForReSyncApp1.Last", L"{2}\0\0"sv);
    EXPECT_EQ(0u, ReplicateAppResyncList(L"App1"));
    ExpectAbsent(L"DeviceListForReSyncApp1");
    ExpectStored(L"DeviceListForReSyncApp1.Last", L"{1}\0{2}\0\0"sv);
}

TEST_F(StoredLists, AnEmptyPendingListTouchesNeitherValue)
{
    Store(L"DeviceListForReSyncApp1.Last", L"{2}\0\0"sv);
    EXPECT_EQ(0u, ReplicateAppResyncList(L"App1"));
    ExpectAbsent(L"DeviceListForReSyncApp1");
    Store(L"DeviceListForReSyncApp1", L"\0\0"sv);
    EXPECT_EQ(0u, ReplicateAppResyncList(L"App1"));
    ExpectStored(L"DeviceListForReSyncApp1", L"\0\0"sv);
    ExpectStored(L"DeviceListForReSyncApp1.Last", L"{2}\0\0"sv);
}

TEST_F(StoredLists, APendingListStaysWhenTheVerifyListCannotTakeIt)
{
    Store(L"DeviceListForReSyncApp1", L"{1}\0\0"sv);
    Store(L"DeviceListForReSyncApp1.Last", L"{2}\0"sv);
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_DATA), ReplicateAppResyncList(L"App1"));
    ExpectStored(L"DeviceListForReSyncApp1", L"{1}\0\0"sv);
}

TEST_F(StoredLists, ReplicatingServesRegisteredApplicationsOnly)
{
    Register(L"App1\0\0"sv);
    Store(L"DeviceListForReSync", L"{1}\0\0"sv);
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), ReplicateVerifyList(L""));
    EXPECT_EQ(BM_ERR_APP_NOT_REGISTERED, ReplicateVerifyList(L"app1"));
    ExpectStored(L"DeviceListForReSync", L"{1}\0\0"sv);
    EXPECT_EQ(0u, ReplicateVerifyList(L"App1"));
    ExpectAbsent(L"DeviceListForReSync");
    ExpectStored(L"DeviceListForReSyncApp1.Last", L"{1}\0\0"sv);
    log.ExpectLogged(0, 0, L"ReplicateVerifyList: Enter ReplicateVerifyList ");
    log.ExpectLogged(0, 0, L"ReplicateVerifyList: SUCCESS:: ReplicateVerifyList ");
}

TEST_F(StoredLists, RemovingTakesExactEntriesOnly)
{
    Register(L"App1\0\0"sv);
    Store(L"DeviceListForReSyncApp1.Last", L"{1}\0{a}\0{2}\0\0"sv);
    EXPECT_EQ(0u, RemoveApplicationVolResyncList(L"App1", {L"{2}", L"{A}", L"\\\\?\\Volume{1}\\"}));
    ExpectStored(L"DeviceListForReSyncApp1.Last", L"{1}\0{a}\0\0"sv);
    EXPECT_EQ(0u, RemoveApplicationVolResyncList(L"App1", {L"{1}", L"{a}"}));
    ExpectAbsent(L"DeviceListForReSyncApp1.Last");
}

TEST_F(StoredLists, AVolumeOnTheVerifyListMustBeVerified)
{
    Store(L"DeviceListForReSyncApp1.Last", L"{1}\0\0"sv);
    EXPECT_EQ(1u, IsVerifyRequired(L"App1", L"\\\\?\\Volume{1}\\"));
    log.ExpectExactly({{2, 0, L"IsVerifyRequired::Found the volume for verify backup"}});
}

TEST_F(StoredLists, AVerifyListThatCannotBeReadMeansVerify)
{
    Store(L"DeviceListForReSyncApp1.Last", L"{1}\0"sv);
    EXPECT_EQ(1u, IsVerifyRequired(L"App1", L"\\\\?\\Volume{2}\\"));
}

TEST_F(Applications, AnAbsentListIsEmptyAndItsAbsenceAWarning)
{
    List list{L"before"};
    DWORD count = 7;
    EXPECT_EQ(0u, GetRegisteredAppList(list));
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(0u, GetRegisteredAppCount(count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(0u, IsApplicationRegistered(L"App1"));
    log.ExpectLogged(1, 2, L"GetRegisteredAppList: RegisteredAppIDs key does not exists !!");
}

TEST_F(Applications, IdsAreComparedExactly)
{
    Register(L"MyApp1\0App2\0\0"sv);
    EXPECT_EQ(1u, IsApplicationRegistered(L"App2"));
    EXPECT_EQ(0u, IsApplicationRegistered(L"app2"));
    EXPECT_EQ(0u, IsApplicationRegistered(L"App1"));
}

TEST_F(Applications, RegisteringAListedIdChangesNothing)
{
    Register(L"App1\0\0"sv);
    EXPECT_EQ(0u, RegisterApplication(L"App1"));
    log.ExpectExactly({{2, 0, L"RegisterApplication: Registering application App1"},
                       {2, 0, L"RegisterApplication: The application is already registered. Application name= App1"}});
}

TEST_F(Applications, UnregisteringAnUnlistedIdIsAnError)
{
    EXPECT_EQ(BM_ERR_APP_NOT_REGISTERED, UnregisterApplication(L"App1"));
    log.ExpectLogged(2, BM_ERR_APP_NOT_REGISTERED,
                     L"UnregisterApplication: The application is not registered. Application name= App1");
}

TEST_F(Applications, AnEmptyIdIsABadArgument)
{
    EXPECT_EQ(static_cast<DWORD>(ERROR_BAD_ARGUMENTS), RegisterApplication(L""));
    EXPECT_EQ(static_cast<DWORD>(ERROR_BAD_ARGUMENTS), UnregisterApplication(L""));
    log.Clear();
    EXPECT_EQ(static_cast<DWORD>(ERROR_BAD_ARGUMENTS), RemoveApplicationBitmaps(L""));
    log.ExpectExactly({{0, ERROR_BAD_ARGUMENTS, L"RemoveApplicationBitmaps: Application ID is empty !!"}});
    log.Clear();
    EXPECT_EQ(static_cast<DWORD>(ERROR_BAD_ARGUMENTS), ResetApplicationBitmaps(L""));
    log.ExpectExactly({{0, ERROR_BAD_ARGUMENTS, L"ResetApplicationBitmaps: Application ID is empty !!"}});
}

TEST_F(Applications, WithoutTheApplicationMutexNothingIsDone)
{
    Register(L"App1\0\0"sv);
    const UniqueHandle event = Block(L"VTBitmapManager.AppicationMutex.Mutex");
    EXPECT_EQ(BM_ERR_MUTEX_ACCESS, RegisterApplication(L"App2"));
    EXPECT_EQ(BM_ERR_MUTEX_ACCESS, UnregisterApplication(L"App1"));
    EXPECT_EQ(BM_ERR_MUTEX_ACCESS, ReplicateVerifyList(L"App1"));
    EXPECT_EQ(BM_ERR_MUTEX_ACCESS, RemoveApplicationVolResyncList(L"App1", {}));
    for (const wchar_t* operation :
         {L"RegisterApplication", L"UnregisterApplication", L"ReplicateVerifyList", L"RemoveApplicationVolResyncList"})
        log.ExpectLogged(0, BM_ERR_MUTEX_ACCESS,
                         std::wstring(operation) +
                             L"Failed to get the access while creating mutex: VTBitmapManager.AppicationMutex.Mutex");
}

class FolderRemoval : public ::testing::Test {
protected:
    FolderRemoval()
    {
        wchar_t temporary[MAX_PATH] = {};
        GetTempPathW(MAX_PATH, temporary);
        folder = std::wstring(temporary) + L"vtflt folder removal";
        Clean();
        EXPECT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
    }
    ~FolderRemoval() override { Clean(); }
    void Clean() const
    {
        for (const wchar_t* const file : {L"\\a", L"\\z", L"\\sub\\b", L"\\m\\b"})
            DeleteFileW((folder + file).c_str());
        RemoveDirectoryW((folder + L"\\sub").c_str());
        RemoveDirectoryW((folder + L"\\m").c_str());
        RemoveDirectoryW(folder.c_str());
    }
    static void Make(const std::wstring& path, DWORD attributes = FILE_ATTRIBUTE_NORMAL)
    {
        const UniqueHandle file(
            CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, attributes, nullptr));
        EXPECT_TRUE(file.valid());
    }
    static bool Exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

    std::wstring folder;
};

TEST_F(FolderRemoval, TakesFilesAndFolderHiddenAndSystemOnesToo)
{
    Make(folder + L"\\a", FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
    SetFileAttributesW(folder.c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
    EXPECT_NE(0u, RemoveDirectoryTree(folder.c_str()));
    EXPECT_FALSE(Exists(folder));
}

TEST_F(FolderRemoval, ASubdirectoryGoesAndLeavesItsParentInPlace)
{
    CreateDirectoryW((folder + L"\\sub").c_str(), nullptr);
    Make(folder + L"\\sub\\b");
    EXPECT_NE(0u, RemoveDirectoryTree(folder.c_str()));
    EXPECT_FALSE(Exists(folder + L"\\sub"));
    EXPECT_TRUE(Exists(folder));
}

// As the system lists them: in the order of their names.
TEST_F(FolderRemoval, FilesBeforeASubdirectoryGoAndWhatComesBehindItStays)
{
    Make(folder + L"\\a");
    CreateDirectoryW((folder + L"\\m").c_str(), nullptr);
    Make(folder + L"\\m\\b");
    Make(folder + L"\\z");
    WIN32_FIND_DATAW entry = {};
    const UniqueFileSearch search(FindFirstFileW((folder + L"\\*.*").c_str(), &entry));
    std::vector<std::wstring> order;
    do {
        if (entry.cFileName[0] != L'.')
            order.emplace_back(entry.cFileName);
    } while (FindNextFileW(search.get(), &entry));
    EXPECT_NE(0u, RemoveDirectoryTree(folder.c_str()));
    bool behind = false;
    for (const std::wstring& name : order) {
        if (name == L"m")
            behind = true;
        EXPECT_EQ(behind && name != L"m", Exists(folder + L"\\" + name)) << vttest::Narrow(name);
    }
    EXPECT_TRUE(behind);
    EXPECT_TRUE(Exists(folder));
}

TEST_F(FolderRemoval, ASubdirectoryThatCannotGoIsTheResult)
{
    CreateDirectoryW((folder + L"\\m").c_str(), nullptr);
    {
        const UniqueHandle held(CreateFileW((folder + L"\\m\\b").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                            FILE_ATTRIBUTE_NORMAL, nullptr));
        ASSERT_TRUE(held.valid());
        EXPECT_EQ(0u, RemoveDirectoryTree(folder.c_str()));
        EXPECT_TRUE(Exists(folder + L"\\m\\b"));
    }
    EXPECT_TRUE(Exists(folder));
}

TEST_F(FolderRemoval, RefusesNullAndPathsOfLessThan9Characters)
{
    EXPECT_EQ(0u, RemoveDirectoryTree(nullptr));
    EXPECT_EQ(0u, RemoveDirectoryTree(L""));
    SetLastError(ERROR_SUCCESS);
    EXPECT_EQ(0u, RemoveDirectoryTree(L"C:\\12345"));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), GetLastError());
}

TEST_F(FolderRemoval, LooksForAPathOf9Characters)
{
    EXPECT_EQ(0u, RemoveDirectoryTree(L"C:\\123456"));
    EXPECT_NE(static_cast<DWORD>(ERROR_INVALID_PARAMETER), GetLastError());
}

TEST_F(FolderRemoval, AMissingFolderGives0WithTheReason)
{
    EXPECT_EQ(0u, RemoveDirectoryTree((folder + L"\\missing").c_str()));
    EXPECT_TRUE(GetLastError() == ERROR_PATH_NOT_FOUND || GetLastError() == ERROR_FILE_NOT_FOUND);
}

TEST_F(FolderRemoval, RefusesAPathThatDoesNotFitRatherThanCutIt)
{
    Make(folder + L"\\a");
    std::wstring path = folder;
    while (path.size() < 510)
        path += L"\\.";
    EXPECT_EQ(0u, RemoveDirectoryTree(path.c_str()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILENAME_EXCED_RANGE), GetLastError());
    EXPECT_TRUE(Exists(folder + L"\\a"));
}

TEST_F(FolderRemoval, TheLongestPathThatFitsIsLookedForAndOneCharacterMoreIsRefused)
{
    constexpr std::size_t LONGEST = 511 - 4; // with "\\*.*" behind it and its end, 512
    std::wstring path = folder + L"\\missing";
    while (path.size() <= LONGEST)
        path += L"\\d";
    SetLastError(ERROR_SUCCESS);
    EXPECT_EQ(0u, RemoveDirectoryTree(path.substr(0, LONGEST).c_str()));
    EXPECT_NE(static_cast<DWORD>(ERROR_FILENAME_EXCED_RANGE), GetLastError());
    EXPECT_EQ(0u, RemoveDirectoryTree(path.substr(0, LONGEST + 1).c_str()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILENAME_EXCED_RANGE), GetLastError());
}

TEST_F(FolderRemoval, AnEntryWhoseNameDoesNotFitBehindThePathEndsIt)
{
    const std::wstring path = L"\\\\?\\" + folder + L"\\" + std::wstring(200, L'd');
    const std::wstring inner = path + L"\\" + std::wstring(200, L'e');
    const std::wstring file = inner + L"\\" + std::wstring(200, L'f');
    ASSERT_TRUE(CreateDirectoryW(path.c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW(inner.c_str(), nullptr));
    Make(file);
    ASSERT_LE(512u, file.size());
    EXPECT_EQ(0u, RemoveDirectoryTree(inner.c_str()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILENAME_EXCED_RANGE), GetLastError());
    EXPECT_TRUE(Exists(file));
    DeleteFileW(file.c_str());
    EXPECT_NE(0u, RemoveDirectoryTree(inner.c_str())) << "the search was left open";
    RemoveDirectoryW(path.c_str());
}

} // namespace
