// Lists that are no well-formed multi-strings: every reader says 13, names the value, and leaves it alone.
#include "support/apps_test.h"

namespace {

using namespace std::literals;
using namespace vttest;

constexpr DWORD BAD_DATA = ERROR_INVALID_DATA;

class MalformedLists : public AppsTest {
protected:
    MalformedLists() { StoreIds(L"App1\0\0"sv); }

    struct Kind {
        const char* what;
        DWORD type;
        Bytes bytes;
    };
    static std::vector<Kind> Kinds()
    {
        Bytes odd = Raw(L"{1}\0\0"sv);
        odd.push_back(0);
        return {{"a binary value", REG_BINARY, Raw(L"{1}\0\0"sv)},
                {"a string", REG_SZ, Raw(L"{1}\0"sv)},
                {"a string with two NULs", REG_SZ, Raw(L"{1}\0\0"sv)},
                {"a number", REG_DWORD, Bytes(4)},
                {"an expandable string", REG_EXPAND_SZ, Raw(L"{1}\0\0"sv)},
                {"one NUL at the end", REG_MULTI_SZ, Raw(L"{1}\0"sv)},
                {"an odd size", REG_MULTI_SZ, odd},
                {"a single NUL", REG_MULTI_SZ, Raw(L"\0"sv)},
                {"nothing", REG_MULTI_SZ, {}}};
    }
    static std::wstring Message(const std::wstring& suffix)
    {
        return std::wstring(L"CVolumeListForResync::GetDriverVolumeList::QueryMultiStringValue ") + DRIVER_LIST +
               suffix + L" error 13";
    }
    // Runs the operation with each kind of bad value as this list.
    template <class Operation>
    void ForEachKind(const std::wstring& suffix, const Operation& operation)
    {
        const std::wstring value = DRIVER_LIST + suffix;
        for (const Kind& kind : Kinds()) {
            SCOPED_TRACE(kind.what);
            machine.WriteValue(SERVICE_KEY, value, kind.type, kind.bytes);
            const Bytes before = machine.ReadValue(SERVICE_KEY, value);
            log.Clear();
            operation();
            log.ExpectLogged(0, BAD_DATA, Message(suffix));
            EXPECT_TRUE(before == machine.ReadValue(SERVICE_KEY, value));
            ExpectNothingLeftOpen();
        }
    }
};

TEST_F(MalformedLists, TheDriversListEndsAReplication)
{
    StoreList(L"App1", L"{2}\0\0"sv);
    ForEachKind(L"", [this] {
        EXPECT_EQ(BAD_DATA, VTReplicateVerifyList(L"App1"));
        log.ExpectLogged(0, BAD_DATA, L"ReplicateDriverResyncListFailed to get volume resync list from driver");
        ExpectList(L"App1", L"{2}\0\0"sv);
    });
}

TEST_F(MalformedLists, AnApplicationsPendingListKeepsTheDriversList)
{
    StoreList(L"", L"{1}\0\0"sv);
    ForEachKind(L"App1", [this] {
        EXPECT_EQ(BAD_DATA, VTReplicateVerifyList(L"App1"));
        log.ExpectLogged(0, BAD_DATA,
                         L"ReplicateDriverResyncListFailed to replicate resync list from driver to application App1");
        ExpectList(L"", L"{1}\0\0"sv);
    });
}

TEST_F(MalformedLists, AnOwnPendingListThatIsBadMovesNothing)
{
    ForEachKind(L"App1", [this] {
        EXPECT_EQ(BAD_DATA, VTReplicateVerifyList(L"App1"));
        log.ExpectLogged(0, BAD_DATA, L"ReplicateAppResyncListFailed to get volume resync list");
        ExpectNoList(L"App1.Last");
    });
}

TEST_F(MalformedLists, ABadVerifyListKeepsThePendingList)
{
    StoreList(L"App1", L"{2}\0\0"sv);
    ForEachKind(L"App1.Last", [this] {
        EXPECT_EQ(BAD_DATA, VTReplicateVerifyList(L"App1"));
        ExpectList(L"App1", L"{2}\0\0"sv);
    });
}

TEST_F(MalformedLists, NothingIsTakenOffABadVerifyList)
{
    ForEachKind(L"App1.Last", [this] {
        Entries volumes{L"{1}"};
        EXPECT_EQ(BAD_DATA, VTRemoveApplicationVolResyncList(L"App1", &volumes));
        log.ExpectLogged(0, BAD_DATA,
                         L"RemoveApplicationVolResyncListFailed to get volume resync list for application App1");
    });
}

TEST_F(MalformedLists, NothingIsAddedToABadVerifyList)
{
    machine.AddVolume(LENGTH, BLOCK);
    ForEachKind(L"App1.Last", [this] {
        EXPECT_EQ(BAD_DATA, VTAddVolumesToAppVerifyList(L"App1"));
        log.ExpectLogged(0, BAD_DATA, L"AddVolumesToAppVerifyList: Failed to add volumes to application verify list.");
    });
}

TEST_F(MalformedLists, ABadVerifyListMeansVerify)
{
    const Volume volume = machine.AddVolume(LENGTH, BLOCK);
    DeleteValue(APP_IDS_KEY, APP_IDS_VALUE);
    Register(L"App1");
    ForEachKind(L"App1.Last", [&] { EXPECT_EQ(1u, VTIsVerifyRequired(L"App1", volume.Root().c_str())); });
}

TEST_F(MalformedLists, ABadVerifyListKeepsAnApplicationRegistered)
{
    machine.AddVolume(LENGTH, BLOCK);
    ForEachKind(L"App1.Last", [this] {
        EXPECT_EQ(BAD_DATA, VTUnregisterApplication(L"App1"));
        ExpectIds(L"App1\0\0"sv);
    });
}

TEST_F(MalformedLists, WhatFollowsTheFirstEmptyEntryIsNotRead)
{
    StoreList(L"", L"{1}\0\0{2}\0\0"sv);
    EXPECT_EQ(0u, VTReplicateVerifyList(L"App1"));
    ExpectList(L"App1.Last", L"{1}\0\0"sv);
}

TEST_F(MalformedLists, TwoNulsAreAnEmptyList)
{
    StoreList(L"App1.Last", L"\0\0"sv);
    Entries volumes{L"{1}"};
    EXPECT_EQ(0u, VTRemoveApplicationVolResyncList(L"App1", &volumes));
    ExpectNoList(L"App1.Last");
}

} // namespace
