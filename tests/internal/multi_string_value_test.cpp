#include "registry/multi_string_value.h"

#include "support/log_capture.h"
#include "support/registry_sandbox.h"

#include <gtest/gtest.h>
#include <memory>
#include <string_view>

namespace {

using namespace std::string_view_literals;
using namespace vtflt;

constexpr wchar_t KEY[] = L"SOFTWARE\\VTFltMgrTest";
constexpr wchar_t VALUE[] = L"Entries";

std::vector<std::uint8_t> BytesOf(std::wstring_view text)
{
    std::vector<std::uint8_t> bytes;
    for (const wchar_t character : text) {
        bytes.push_back(static_cast<std::uint8_t>(character & 0xFF));
        bytes.push_back(static_cast<std::uint8_t>(character >> 8 & 0xFF));
    }
    return bytes;
}

class MultiStringValue : public ::testing::Test {
protected:
    void Store(std::wstring_view text) { registry.Set(KEY, VALUE, REG_MULTI_SZ, BytesOf(text)); }
    void ExpectStored(std::wstring_view text, DWORD type = REG_MULTI_SZ) const
    {
        const vttest::RegistrySandbox::Value value = registry.Get(KEY, VALUE);
        EXPECT_EQ(static_cast<DWORD>(ERROR_SUCCESS), value.error);
        EXPECT_EQ(type, value.type);
        EXPECT_EQ(BytesOf(text), value.bytes);
    }
    void ExpectAbsent() const { EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), registry.Get(KEY, VALUE).error); }

    vttest::RegistrySandbox registry;
    vttest::LogCapture log;
};

using AddEntry = MultiStringValue;
using RemoveEntry = MultiStringValue;
using ReadApplicationIds = MultiStringValue;

TEST_F(AddEntry, ToAnAbsentValueCreatesItWithTheEntryAndTwoNuls)
{
    EXPECT_EQ(0u, AddMultiSZRegistryEntry(KEY, VALUE, L"App1"));
    ExpectStored(L"App1\0\0"sv);
    log.ExpectNothingLogged();
}

TEST_F(AddEntry, ThatIsTheTailOfAnotherLogsThatItIsThereAndWritesNothing)
{
    Store(L"MyApp1\0\0"sv);
    EXPECT_EQ(0u, AddMultiSZRegistryEntry(KEY, VALUE, L"App1"));
    ExpectStored(L"MyApp1\0\0"sv);
    log.ExpectExactly({{2, 0, L"Find App1, need not add it"}});
}

TEST_F(AddEntry, ThatIsTheHeadOfAnotherIsAppended)
{
    Store(L"App12\0\0"sv);
    EXPECT_EQ(0u, AddMultiSZRegistryEntry(KEY, VALUE, L"App1"));
    ExpectStored(L"App12\0App1\0\0"sv);
}

TEST_F(AddEntry, ThatDiffersInCaseIsAppended)
{
    Store(L"App1\0\0"sv);
    EXPECT_EQ(0u, AddMultiSZRegistryEntry(KEY, VALUE, L"app1"));
    ExpectStored(L"App1\0app1\0\0"sv);
}

TEST_F(AddEntry, ToAnEmptiedListStartsItAfresh)
{
    Store(L"\0"sv);
    EXPECT_EQ(0u, AddMultiSZRegistryEntry(KEY, VALUE, L"App1"));
    ExpectStored(L"App1\0\0"sv);
}

TEST_F(AddEntry, ToAValueOfNoBytesStartsItAfresh)
{
    Store(L""sv);
    EXPECT_EQ(0u, AddMultiSZRegistryEntry(KEY, VALUE, L"App1"));
    ExpectStored(L"App1\0\0"sv);
}

TEST_F(AddEntry, KeepsTheTypeOfTheValue)
{
    registry.Set(KEY, VALUE, REG_BINARY, BytesOf(L"A\0\0"sv));
    EXPECT_EQ(0u, AddMultiSZRegistryEntry(KEY, VALUE, L"B"));
    ExpectStored(L"A\0B\0\0"sv, REG_BINARY);
}

TEST_F(AddEntry, WithoutWriteAccessLogsTheFailedWriteAndKeepsTheValue)
{
    Store(L"A\0\0"sv);
    UniqueKey key;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, KEY, 0, KEY_READ, key.put()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_ACCESS_DENIED), AllMultiString(key.get(), VALUE, L"B"));
    ExpectStored(L"A\0\0"sv);
    log.ExpectExactly({{0, ERROR_ACCESS_DENIED, L"Set Valume failed Key Entries"}});
}

TEST_F(AddEntry, OnAKeyThatCannotBeReadLogsTheFailedQuery)
{
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), AllMultiString(reinterpret_cast<HKEY>(~0xFFF), VALUE, L"B"));
    log.ExpectExactly({{0, ERROR_INVALID_HANDLE, L"Query value failed for Entries"}});
}

TEST_F(RemoveEntry, FromAnAbsentValueCreatesNoValue)
{
    EXPECT_EQ(0u, RemoveMultiSZRegistryEntry(KEY, VALUE, L"App1"));
    EXPECT_TRUE(registry.Exists(KEY));
    ExpectAbsent();
    log.ExpectNothingLogged();
}

TEST_F(RemoveEntry, ThatIsTheOnlyOneLeavesTheValuePresentAndEmpty)
{
    Store(L"App1\0\0"sv);
    EXPECT_EQ(0u, RemoveMultiSZRegistryEntry(KEY, VALUE, L"App1"));
    ExpectStored(L"\0"sv);
    log.ExpectExactly({{4, 0, L"getting Entries key "}, {4, 0, L"Index 0 Value : App1"}});
}

TEST_F(RemoveEntry, ThatIsOnlyTheTailOfAnotherJoinsTheHeadToTheNextEntry)
{
    Store(L"MyApp1\0App2\0\0"sv);
    EXPECT_EQ(0u, RemoveMultiSZRegistryEntry(KEY, VALUE, L"App1"));
    ExpectStored(L"MyApp2\0\0"sv);
    log.ExpectExactly(
        {{4, 0, L"getting Entries key "}, {4, 0, L"Index 0 Value : MyApp1"}, {4, 0, L"Index 1 Value : App2"}});
}

TEST_F(RemoveEntry, ThatDiffersInCaseLeavesTheValueUnchanged)
{
    Store(L"App1\0\0"sv);
    EXPECT_EQ(0u, RemoveMultiSZRegistryEntry(KEY, VALUE, L"app1"));
    ExpectStored(L"App1\0\0"sv);
    log.ExpectLogged(2, 0, L"Could not found app1 on the key Entries in the registry");
}

TEST_F(RemoveEntry, FromAValueWithoutItsEndStoresExactlyWhatRemains)
{
    Store(L"A\0BC"sv);
    EXPECT_EQ(0u, RemoveMultiSZRegistryEntry(KEY, VALUE, L"A"));
    ExpectStored(L"BC"sv);
}

TEST_F(RemoveEntry, KeepsTheTypeOfTheValue)
{
    registry.Set(KEY, VALUE, REG_BINARY, BytesOf(L"A\0B\0\0"sv));
    EXPECT_EQ(0u, RemoveMultiSZRegistryEntry(KEY, VALUE, L"A"));
    ExpectStored(L"B\0\0"sv, REG_BINARY);
}

TEST_F(RemoveEntry, WithoutWriteAccessLogsTheFailedWriteAndKeepsTheValue)
{
    Store(L"A\0\0"sv);
    UniqueKey key;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, KEY, 0, KEY_READ, key.put()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_ACCESS_DENIED), RemoveMutliSZRegistryValue(key.get(), VALUE, L"A"));
    ExpectStored(L"A\0\0"sv);
    log.ExpectLogged(0, ERROR_ACCESS_DENIED, L"RegSetValueEx Entries failed after remove value A");
}

TEST_F(RemoveEntry, OnAKeyThatCannotBeReadLogsTheFailedQuery)
{
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE),
              RemoveMutliSZRegistryValue(reinterpret_cast<HKEY>(~0xFFF), VALUE, L"B"));
    log.ExpectExactly({{0, ERROR_INVALID_HANDLE, L"Query value for Entries failed"}});
}

TEST_F(ReadApplicationIds, AppendsThemInStoredOrder)
{
    registry.Set(APPLICATION_IDS_KEY, APPLICATION_IDS_VALUE, REG_MULTI_SZ, BytesOf(L"b\0a\0\0"sv));
    std::vector<std::wstring> list{L"before"};
    EXPECT_EQ(0u, ReadValueEntry(list));
    EXPECT_TRUE(list == (std::vector<std::wstring>{L"before", L"b", L"a"}));
    log.ExpectNothingLogged();
}

TEST_F(ReadApplicationIds, AnAbsentValueAnswers2AndCreatesTheKey)
{
    std::vector<std::wstring> list{L"before"};
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), ReadValueEntry(list));
    EXPECT_TRUE(list == (std::vector<std::wstring>{L"before"}));
    EXPECT_TRUE(registry.Exists(APPLICATION_IDS_KEY));
    log.ExpectExactly({{0, 2, L"ReadMutliSZRegistryValue:RegQueryValueEx failed for RegisteredAppIDs"},
                       {0, 2, L"ReadValueEntry: ReadMutliSZRegistryValue failed for key RegisteredAppIDs"}});
}

TEST_F(ReadApplicationIds, AStrayEmptyEntryReadsAsTheEmptyString)
{
    registry.Set(APPLICATION_IDS_KEY, APPLICATION_IDS_VALUE, REG_MULTI_SZ, BytesOf(L"A\0\0\0"sv));
    std::vector<std::wstring> list;
    EXPECT_EQ(0u, ReadValueEntry(list));
    EXPECT_TRUE(list == (std::vector<std::wstring>{L"A", L""}));
}

TEST_F(ReadApplicationIds, AnEmptiedOrByteLessValueIsAnEmptyList)
{
    for (const std::wstring_view text : {L"\0"sv, L""sv}) {
        registry.Set(APPLICATION_IDS_KEY, APPLICATION_IDS_VALUE, REG_MULTI_SZ, BytesOf(text));
        std::vector<std::wstring> list;
        EXPECT_EQ(0u, ReadValueEntry(list));
        EXPECT_TRUE(list.empty());
    }
}

TEST_F(ReadApplicationIds, ANullOutputIsABadArgument)
{
    DWORD size = 0;
    EXPECT_EQ(static_cast<DWORD>(ERROR_BAD_ARGUMENTS), ReadMutliSZRegistryValue(nullptr, nullptr, &size));
    log.ExpectExactly({{0, ERROR_BAD_ARGUMENTS, L"ReadMutliSZRegistryValue: szValue is NULL !!"}});
}

TEST_F(ReadApplicationIds, HandsTheBytesToTheCaller)
{
    registry.Set(APPLICATION_IDS_KEY, APPLICATION_IDS_VALUE, REG_MULTI_SZ, BytesOf(L"A\0\0"sv));
    BYTE* bytes = nullptr;
    DWORD size = 0;
    EXPECT_EQ(0u, ReadMutliSZRegistryValue(registry.Open(APPLICATION_IDS_KEY).get(), &bytes, &size));
    const std::unique_ptr<BYTE[]> owner(bytes);
    EXPECT_EQ(BytesOf(L"A\0\0"sv), std::vector<std::uint8_t>(bytes, bytes + size));
}

TEST_F(ReadApplicationIds, AnAbsentValueSetsBothOutputs)
{
    BYTE something = 0;
    BYTE* bytes = &something;
    DWORD size = 77;
    EXPECT_EQ(2u, ReadMutliSZRegistryValue(registry.Open(APPLICATION_IDS_KEY).get(), &bytes, &size));
    EXPECT_EQ(nullptr, bytes);
    EXPECT_EQ(0u, size);
}

TEST_F(ReadApplicationIds, ANullSizeIsABadArgumentToo)
{
    BYTE* value = nullptr;
    EXPECT_EQ(160u, ReadMutliSZRegistryValue(HKEY_LOCAL_MACHINE, &value, nullptr));
    EXPECT_EQ(nullptr, value);
    log.ExpectExactly({{0, 160, L"ReadMutliSZRegistryValue: szValue is NULL !!"}});
}

} // namespace
