// Moving volumes from the driver's list to the applications' lists: exact bytes, order, records.
#include "support/apps_test.h"

#include <algorithm>
#include <utility>

namespace {

using namespace std::literals;
using namespace vttest;

class ReplicateVerifyList : public AppsTest {
protected:
    ReplicateVerifyList() { StoreIds(L"App1\0App2\0\0"sv); }
};

TEST_F(ReplicateVerifyList, TheDriversGuidsReachEveryApplicationAndTheCallersVerifyList)
{
    StoreList(L"", L"{1}\0{2}\0\0"sv);
    EXPECT_EQ(0u, VTReplicateVerifyList(L"App1"));
    ExpectNoList(L"");
    ExpectNoList(L"App1");
    ExpectList(L"App1.Last", L"{1}\0{2}\0\0"sv);
    ExpectList(L"App2", L"{1}\0{2}\0\0"sv);
    ExpectNoList(L"App2.Last");
    log.ExpectLogged(0, 0, L"ReplicateVerifyList: Enter ReplicateVerifyList ");
    log.ExpectLogged(2, 0, L"CVolumeListForResync::UpdateApplicationValueAdding the new volume {1}");
    log.ExpectLogged(2, 0,
                     L"CVolumeListForResync::UpdateApplicationValue::SetMultiStringValue DeviceListForReSyncApp2 to "
                     L"{1}*{2}*");
    log.ExpectLogged(4, 0,
                     L"CVolumeListForResync::ClearDriverRegValue::Deleting Driver reg Value DeviceListForReSyncApp1 "
                     L"retcode 0");
    log.ExpectLogged(0, 0, L"ReplicateVerifyList: SUCCESS:: ReplicateVerifyList ");
}

TEST_F(ReplicateVerifyList, TheOtherApplicationGetsItsShareWhenItAsks)
{
    StoreList(L"", L"{1}\0\0"sv);
    EXPECT_EQ(0u, VTReplicateVerifyList(L"App1"));
    EXPECT_EQ(0u, VTReplicateVerifyList(L"App2"));
    ExpectNoList(L"App2");
    ExpectList(L"App2.Last", L"{1}\0\0"sv);
    ExpectList(L"App1.Last", L"{1}\0\0"sv);
}

TEST_F(ReplicateVerifyList, MergesPutTheNewEntriesFirstAndAVolumeOnce)
{
    StoreList(L"", L"{3}\0{1}\0\0"sv);
    StoreList(L"App1", L"{1}\0{2}\0\0"sv);
    StoreList(L"App1.Last", L"{4}\0{2}\0\0"sv);
    EXPECT_EQ(0u, VTReplicateVerifyList(L"App1"));
    ExpectList(L"App1.Last", L"{3}\0{1}\0{2}\0{4}\0\0"sv);
    ExpectNoList(L"App1");
    log.ExpectLogged(2, 0, L"CVolumeListForResync::UpdateApplicationValueAdding the existing volume {4}");
    log.ExpectNotLogged(L"CVolumeListForResync::UpdateApplicationValueAdding the existing volume {1}");
}

TEST_F(ReplicateVerifyList, EntriesWithoutBracesStayOnTheDriversList)
{
    StoreList(L"", L"{1}\0plain\0{2}\0{half\0half}\0\0"sv);
    EXPECT_EQ(0u, VTReplicateVerifyList(L"App1"));
    ExpectList(L"", L"plain\0{half\0half}\0\0"sv);
    ExpectList(L"App1.Last", L"{1}\0{2}\0\0"sv);
}

TEST_F(ReplicateVerifyList, ADriverListWithoutBracesIsLeftAsItIs)
{
    StoreList(L"", L"plain\0{half\0\0"sv);
    const auto calls =
        CallsOf({L"RegSetValueExW", L"RegDeleteValueW"}, [] { EXPECT_EQ(0u, VTReplicateVerifyList(L"App1")); });
    ExpectCalls({}, calls);
    ExpectList(L"", L"plain\0{half\0\0"sv);
    ExpectNoList(L"App1.Last");
}

TEST_F(ReplicateVerifyList, AnAbsentOrEmptyDriverListWritesNothing)
{
    const auto replicate = [] { EXPECT_EQ(0u, VTReplicateVerifyList(L"App1")); };
    ExpectCalls({}, CallsOf({L"RegSetValueExW", L"RegDeleteValueW"}, replicate));
    StoreList(L"", L"\0\0"sv);
    ExpectCalls({}, CallsOf({L"RegSetValueExW", L"RegDeleteValueW"}, replicate));
    ExpectList(L"", L"\0\0"sv);
}

TEST_F(ReplicateVerifyList, AnEmptyPendingListTouchesNeitherValue)
{
    StoreList(L"App1", L"\0\0"sv);
    StoreList(L"App1.Last", L"{4}\0\0"sv);
    const auto calls =
        CallsOf({L"RegSetValueExW", L"RegDeleteValueW"}, [] { EXPECT_EQ(0u, VTReplicateVerifyList(L"App1")); });
    ExpectCalls({}, calls);
    ExpectList(L"App1", L"\0\0"sv);
    ExpectList(L"App1.Last", L"{4}\0\0"sv);
}

TEST_F(ReplicateVerifyList, AnEntryWithAnAsteriskBecomesTwo)
{
    StoreList(L"", L"{a*b}\0\0"sv);
    EXPECT_EQ(0u, VTReplicateVerifyList(L"App1"));
    ExpectList(L"App1.Last", L"{a\0b}\0\0"sv);
    ExpectList(L"App2", L"{a\0b}\0\0"sv);
}

TEST_F(ReplicateVerifyList, AnOldEntryThatIsPartOfANewOneIsDropped)
{
    StoreList(L"", L"{12}\0\0"sv);
    StoreList(L"App1.Last", L"12\0{1\0{3}\0\0"sv);
    EXPECT_EQ(0u, VTReplicateVerifyList(L"App1"));
    ExpectList(L"App1.Last", L"{12}\0{3}\0\0"sv);
}

TEST_F(ReplicateVerifyList, ListsAbove4096CharactersAreMovedWhole)
{
    std::wstring text;
    Entries entries;
    for (unsigned i = 0; i < 400; ++i) {
        entries.push_back(L"{" + std::wstring(30, L'a') + WideNumber(10000 + i) + L"}");
        text.append(entries.back()).push_back(L'\0');
    }
    text.push_back(L'\0');
    ASSERT_GT(text.size(), 12000u);
    StoreList(L"", text);
    EXPECT_EQ(0u, VTReplicateVerifyList(L"App1"));
    ExpectNoList(L"");
    ExpectList(L"App1.Last", text);
    ExpectList(L"App2", text);
}

TEST_F(ReplicateVerifyList, ListsAroundTheFirstBuffersSizeAreReadWhole)
{
    for (const std::size_t characters : {4094u, 4095u, 4096u, 4097u, 4352u, 4353u}) {
        SCOPED_TRACE(characters);
        machine.WriteValue(SERVICE_KEY, std::wstring(DRIVER_LIST) + L"App1.Last", REG_MULTI_SZ, Raw(L"\0\0"sv));
        const std::wstring text = L"{" + std::wstring(characters - 4, L'a') + L"}\0\0"s;
        ASSERT_EQ(characters, text.size());
        StoreList(L"", text);
        EXPECT_EQ(0u, VTReplicateVerifyList(L"App1"));
        ExpectList(L"App1.Last", text);
    }
}

TEST_F(ReplicateVerifyList, AListIsReadInto4096CharactersAndInto256MoreEachTime)
{
    const Volume volume = machine.AddVolume(LENGTH, BLOCK);
    const std::pair<std::size_t, std::size_t> reads[] = {{4096, 1}, {4097, 2}, {4352, 2}, {4353, 3}, {4609, 4}};
    for (const auto& [characters, expected] : reads) {
        // The mark answers the question, so that the list is read once.
        const std::wstring mark = volume.guid + L'\0';
        StoreList(L"App1.Last", mark + std::wstring(characters - mark.size() - 2, L'a') + L"\0\0"s);
        const auto calls = CallsOf({L"RegQueryValueExW"}, [&] { VTIsVerifyRequired(L"App1", volume.Root().c_str()); });
        const auto isOfTheList = [](const auto& call) { return call.find(L"App1.Last") != std::wstring::npos; };
        const auto counted = std::count_if(calls.begin(), calls.end(), isOfTheList);
        EXPECT_EQ(expected, static_cast<std::size_t>(counted)) << characters;
    }
}

TEST_F(ReplicateVerifyList, TheDriverLosingTrackOfAVolumeEndsOnTheVerifyList)
{
    const Volume volume = machine.AddVolume(LENGTH, BLOCK);
    vtfltsim::Check("VTFltSimLoseTracking", VTFltSimLoseTracking(machine.handle(), volume.guid.c_str()));
    EXPECT_EQ(0u, VTReplicateVerifyList(L"App1"));
    EXPECT_TRUE(VerifyList(L"App1") == Entries{volume.guid});
    EXPECT_EQ(1u, VTIsVerifyRequired(L"App1", volume.Root().c_str()));
}

TEST_F(ReplicateVerifyList, AnUnlistedApplicationGetsNothingAndTheDriversListStays)
{
    StoreList(L"", L"{1}\0\0"sv);
    EXPECT_EQ(NOT_REGISTERED, VTReplicateVerifyList(L"app1"));
    ExpectList(L"", L"{1}\0\0"sv);
    ExpectNoList(L"App1");
    log.ExpectExactly({{0, 0, L"ReplicateVerifyList: Enter ReplicateVerifyList "},
                       {0, NOT_REGISTERED, L"ReplicateVerifyListThe application is not registered, app1"}},
                      0);
}

TEST_F(ReplicateVerifyList, WithoutAnyRegisteredApplicationNobodyMayAsk)
{
    machine.WriteValue(APP_IDS_KEY, APP_IDS_VALUE, REG_MULTI_SZ, Raw(L"\0"sv));
    StoreList(L"", L"{1}\0\0"sv);
    EXPECT_EQ(NOT_REGISTERED, VTReplicateVerifyList(L"App1"));
    DeleteValue(APP_IDS_KEY, APP_IDS_VALUE);
    log.Clear();
    EXPECT_EQ(NOT_REGISTERED, VTReplicateVerifyList(L"App1"));
    log.ExpectLogged(1, 2, L"GetRegisteredAppList: RegisteredAppIDs key does not exists !!");
    ExpectList(L"", L"{1}\0\0"sv);
}

TEST_F(ReplicateVerifyList, AnEmptyIdIsAnInvalidParameter)
{
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), VTReplicateVerifyList(L""));
    log.ExpectExactly({{0, 0, L"ReplicateVerifyList: Enter ReplicateVerifyList "},
                       {0, ERROR_INVALID_PARAMETER, L"ReplicateVerifyListEmpty application id"}},
                      0);
}

TEST_F(ReplicateVerifyList, HoldsTheApplicationMutexAroundTheMutexesOfTheLists)
{
    StoreIds(L"App1\0\0"sv);
    StoreList(L"", L"{1}\0\0"sv);
    const auto calls = CallsOf({L"CreateMutexW", L"ReleaseMutex", L"RegSetValueExW", L"RegDeleteValueW"},
                               [] { EXPECT_EQ(0u, VTReplicateVerifyList(L"App1")); });
    const auto take = [](const std::wstring& suffix) { return L"CreateMutexW " + ListMutex(suffix); };
    const auto give = [](const std::wstring& suffix) { return L"ReleaseMutex " + ListMutex(suffix); };
    const std::wstring value = std::wstring(SERVICE_KEY) + L"|" + DRIVER_LIST;
    ExpectCalls({std::wstring(L"CreateMutexW ") + APPLICATION_MUTEX, //
                 take(L""),
                 give(L""), // read the driver's
                 take(L"App1"),
                 take(L"App1"),
                 give(L"App1"), // merge
                 L"RegSetValueExW " + value + L"App1",
                 give(L"App1"), //
                 take(L""),
                 L"RegDeleteValueW " + value,
                 give(L""), // nothing kept
                 take(L"App1"),
                 give(L"App1"), // read the pending
                 take(L"App1.Last"),
                 take(L"App1.Last"),
                 give(L"App1.Last"), // merge
                 L"RegSetValueExW " + value + L"App1.Last",
                 give(L"App1.Last"), //
                 take(L"App1"),
                 L"RegDeleteValueW " + value + L"App1",
                 give(L"App1"), // clear
                 std::wstring(L"ReleaseMutex ") + APPLICATION_MUTEX},
                calls);
}

} // namespace
