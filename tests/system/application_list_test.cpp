// The list and the count of registered applications, from whatever bytes the value holds.
#include "support/apps_test.h"

namespace {

using namespace std::literals;
using namespace vttest;

class ApplicationList : public AppsTest {
protected:
    void ExpectListed(const Entries& expected)
    {
        Entries list{L"from before"};
        DWORD count = 77;
        EXPECT_EQ(0u, VTGetRegisteredAppList(&list));
        EXPECT_EQ(0u, VTGetRegisteredAppCount(&count));
        EXPECT_TRUE(list == expected);
        EXPECT_EQ(expected.size(), count);
    }
};

TEST_F(ApplicationList, AnAbsentValueIsAnEmptyListWithAWarning)
{
    ExpectListed({});
    log.Clear();
    Entries list;
    EXPECT_EQ(0u, VTGetRegisteredAppList(&list));
    log.ExpectExactly({{0, 2, L"ReadMutliSZRegistryValue:RegQueryValueEx failed for RegisteredAppIDs"},
                       {0, 2, L"ReadValueEntry: ReadMutliSZRegistryValue failed for key RegisteredAppIDs"},
                       {1, 2, L"GetRegisteredAppList: RegisteredAppIDs key does not exists !!"}});
    log.Clear();
    DWORD count = 0;
    EXPECT_EQ(0u, VTGetRegisteredAppCount(&count));
    log.ExpectLogged(1, 2, L"GetRegisteredAppList: RegisteredAppIDs key does not exists !!");
    ExpectNoIds();
}

TEST_F(ApplicationList, TheIdsComeInStoredOrder)
{
    StoreIds(L"zeta\0App1\0beta\0\0"sv);
    ExpectListed({L"zeta", L"App1", L"beta"});
    log.ExpectNothingLogged();
}

TEST_F(ApplicationList, AStrayEmptyEntryIsAnEntry)
{
    StoreIds(L"A\0\0\0"sv);
    ExpectListed({L"A", L""});
}

TEST_F(ApplicationList, AnEmptyMultiStringHasNoEntries)
{
    StoreIds(L"\0"sv);
    ExpectListed({});
    // Two NULs are an empty entry and the end.
    StoreIds(L"\0\0"sv);
    ExpectListed({L""});
    StoreIds(L""sv);
    ExpectListed({});
}

TEST_F(ApplicationList, AnOddSizeCountsWholeCharacters)
{
    Bytes bytes = Raw(L"A\0B\0\0"sv);
    bytes.push_back(0x41);
    machine.WriteValue(APP_IDS_KEY, APP_IDS_VALUE, REG_BINARY, bytes);
    ExpectListed({L"A", L"B"});
}

TEST_F(ApplicationList, AValueOfAnotherTypeIsReadAsItsBytes)
{
    StoreIds(L"A\0B\0\0"sv, REG_BINARY);
    ExpectListed({L"A", L"B"});
    StoreIds(L"A\0"sv, REG_SZ);
    ExpectListed({}); // one character and its NUL: the last character is not looked at, and "A" has no NUL before it
    SetDword(APP_IDS_KEY, APP_IDS_VALUE, 0x00410042);
    ExpectListed({});
}

TEST_F(ApplicationList, AnAddKeepsTheTypeThatItMeets)
{
    const Volume volume = machine.AddVolume(LENGTH, BLOCK);
    StoreIds(L"A\0\0"sv, REG_BINARY);
    EXPECT_EQ(0u, VTRegisterApplication(L"B"));
    DWORD type = 0;
    EXPECT_TRUE(machine.ReadValue(APP_IDS_KEY, APP_IDS_VALUE, &type) == Raw(L"A\0B\0\0"sv));
    EXPECT_EQ(static_cast<DWORD>(REG_BINARY), type);
    EXPECT_EQ(0u, VTUnregisterApplication(L"A"));
    EXPECT_TRUE(machine.ReadValue(APP_IDS_KEY, APP_IDS_VALUE, &type) == Raw(L"B\0\0"sv));
    EXPECT_EQ(static_cast<DWORD>(REG_BINARY), type);
}

TEST_F(ApplicationList, AnAddOverAValueWithoutAnyEndStartsItAnew)
{
    machine.AddVolume(LENGTH, BLOCK);
    StoreIds(L"AB"sv, REG_BINARY);
    EXPECT_EQ(0u, VTRegisterApplication(L"New"));
    EXPECT_TRUE(machine.ReadValue(APP_IDS_KEY, APP_IDS_VALUE) == Raw(L"New\0\0"sv));
}

TEST_F(ApplicationList, AReadThatFailsEmptiesTheListKeepsTheCountAndReturnsTheError)
{
    StoreIds(L"A\0\0"sv);
    struct Step {
        const wchar_t* function;
        DWORD nth;
        const wchar_t* message;
    };
    const std::wstring key = std::wstring(L"Open key ") + APP_IDS_KEY + L" failed";
    const Step steps[] = {
        {L"RegCreateKeyW", 1, key.c_str()},
        {L"RegQueryValueExW", 1, L"ReadMutliSZRegistryValue:RegQueryValueEx failed for RegisteredAppIDs"},
        {L"RegQueryValueExW", 2, L"ReadMutliSZRegistryValue: RegQueryValueEx failed for RegisteredAppIDs"}};
    for (const Step& step : steps) {
        SCOPED_TRACE(Narrow(step.message));
        log.Clear();
        Entries list{L"from before"};
        vtfltsim::FailCall(step.function, NO_ACCESS, nullptr, step.nth);
        EXPECT_EQ(NO_ACCESS, VTGetRegisteredAppList(&list));
        ExpectStruck();
        EXPECT_TRUE(list.empty());
        log.ExpectLogged(0, NO_ACCESS, step.message);
        log.ExpectLogged(0, NO_ACCESS, L"GetRegisteredAppListFailed to get registered application list");

        log.Clear();
        DWORD count = 77;
        vtfltsim::FailCall(step.function, NO_ACCESS, nullptr, step.nth);
        EXPECT_EQ(NO_ACCESS, VTGetRegisteredAppCount(&count));
        ExpectStruck();
        EXPECT_EQ(77u, count);
        log.ExpectLogged(0, NO_ACCESS, L"GetRegisteredAppListFailed to get registered application list");
        ExpectNothingLeftOpen();
    }
}

TEST_F(ApplicationList, ReadingTakesNoMutex)
{
    StoreIds(L"A\0\0"sv);
    const vtflt::UniqueHandle event = Occupy(APPLICATION_MUTEX);
    ExpectListed({L"A"});
}

} // namespace
