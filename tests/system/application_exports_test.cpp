// The thin exports on applications: what they hand on, and in which order.
#include "support/driver_expect.h"

namespace vttest {
namespace {

class ApplicationExports : public MachineTest {
protected:
    ApplicationExports() { volume = machine.AddVolume(8 * 65536); }

    Volume volume;
};

TEST_F(ApplicationExports, RegisterAndUnregisterPassTheirResultsOn)
{
    EXPECT_EQ(VTRegisterApplication(L"Alpha"), 0u);
    EXPECT_EQ(RegisteredIds(), std::vector<std::wstring>{L"Alpha"});
    EXPECT_EQ(VTUnregisterApplication(L"Alpha"), 0u);
    EXPECT_TRUE(RegisteredIds().empty());
    EXPECT_EQ(VTUnregisterApplication(L"Alpha"), 0x10009u);
    EXPECT_EQ(VTRegisterApplication(L""), 160u);
    EXPECT_EQ(VTUnregisterApplication(L""), 160u);
}

TEST_F(ApplicationExports, ANullIdIsTakenForAnEmptyOne)
{
    EXPECT_EQ(VTRegisterApplication(nullptr), 160u);
    EXPECT_EQ(VTUnregisterApplication(nullptr), 160u);
    EXPECT_EQ(VTReplicateVerifyList(nullptr), 87u);
    EXPECT_EQ(VTAddVolumesToAppVerifyList(nullptr), 87u);
    EXPECT_EQ(VTIsVerifyRequired(nullptr, volume.Root().c_str()), 1u);
    EXPECT_EQ(VTIsVerifyRequired(L"Alpha", nullptr), 1u);
}

TEST_F(ApplicationExports, AnAbsentApplicationListCountsAsZero)
{
    DWORD count = 77;
    EXPECT_EQ(VTGetRegisteredAppCount(&count), 0u);
    EXPECT_EQ(count, 0u);
    std::vector<std::wstring> list{L"old"};
    EXPECT_EQ(VTGetRegisteredAppList(&list), 0u);
    EXPECT_TRUE(list.empty());
}

TEST_F(ApplicationExports, CountAndListNameTheApplicationsInTheOrderOfRegistration)
{
    ASSERT_EQ(VTRegisterApplication(L"Zeta"), 0u);
    ASSERT_EQ(VTRegisterApplication(L"Alpha"), 0u);
    DWORD count = 0;
    EXPECT_EQ(VTGetRegisteredAppCount(&count), 0u);
    EXPECT_EQ(count, 2u);
    std::vector<std::wstring> list{L"old"};
    EXPECT_EQ(VTGetRegisteredAppList(&list), 0u);
    EXPECT_EQ(list, (std::vector<std::wstring>{L"Zeta", L"Alpha"}));
}

TEST_F(ApplicationExports, ANullOutputIsAnInvalidParameter)
{
    EXPECT_EQ(VTGetRegisteredAppCount(nullptr), 87u);
    EXPECT_EQ(VTGetRegisteredAppList(nullptr), 87u);
    EXPECT_EQ(VTRemoveApplicationVolResyncList(L"Alpha", nullptr), 87u);
}

TEST_F(ApplicationExports, AnUnreadableListLeavesTheCountAndReturnsTheError)
{
    ASSERT_EQ(VTRegisterApplication(L"Alpha"), 0u);
    DWORD count = 77;
    vtfltsim::FailCall(L"RegQueryValueExW", ERROR_ACCESS_DENIED, L"RegisteredAppIDs");
    EXPECT_EQ(VTGetRegisteredAppCount(&count), 5u);
    EXPECT_EQ(count, 77u);
}

TEST_F(ApplicationExports, ReplicateVerifyListServesTheNamedApplication)
{
    ASSERT_EQ(VTRegisterApplication(L"Alpha"), 0u);
    ASSERT_EQ(VTRegisterApplication(L"Beta"), 0u);
    SetList(SERVICE_KEY, DRIVER_LIST, {volume.guid});
    EXPECT_EQ(VTReplicateVerifyList(L"Alpha"), 0u);
    EXPECT_EQ(VerifyList(L"Alpha"), std::vector<std::wstring>{volume.guid});
    EXPECT_EQ(PendingList(L"Beta"), std::vector<std::wstring>{volume.guid});
    EXPECT_FALSE(ValueExists(SERVICE_KEY, DRIVER_LIST));
}

TEST_F(ApplicationExports, IsVerifyRequiredTakesTheApplicationFirstAndTheVolumeSecond)
{
    ASSERT_EQ(VTRegisterApplication(L"Alpha"), 0u);
    EXPECT_EQ(VTIsVerifyRequired(L"Alpha", volume.Root().c_str()), 0u);
    SetVerifyList(L"Alpha", {volume.guid});
    EXPECT_EQ(VTIsVerifyRequired(L"Alpha", volume.Root().c_str()), 1u);
    EXPECT_TRUE(VerifyList(volume.Root()).empty()) << "the volume was taken for an application";
}

TEST_F(ApplicationExports, AddVolumesPutsEveryFixedVolumeOnTheVerifyList)
{
    machine.AddVolume(65536, 65536, L"R:\\", DRIVE_REMOVABLE);
    EXPECT_EQ(VTAddVolumesToAppVerifyList(L"Alpha"), 0u);
    EXPECT_EQ(VerifyList(L"Alpha"), std::vector<std::wstring>{volume.guid});
}

TEST_F(ApplicationExports, RemoveApplicationVolResyncListTakesTheNamedVolumesOffAndLeavesTheCallersList)
{
    ASSERT_EQ(VTRegisterApplication(L"Alpha"), 0u);
    SetVerifyList(L"Alpha", {L"{1}", L"{2}", L"{3}"});
    std::vector<std::wstring> volumes{L"{2}"};
    EXPECT_EQ(VTRemoveApplicationVolResyncList(L"Alpha", &volumes), 0u);
    EXPECT_EQ(VerifyList(L"Alpha"), (std::vector<std::wstring>{L"{1}", L"{3}"}));
    EXPECT_EQ(volumes, std::vector<std::wstring>{L"{2}"});
}

TEST_F(ApplicationExports, RemoveApplicationVolResyncListPassesItsFailuresOn)
{
    std::vector<std::wstring> volumes{L"{2}"};
    EXPECT_EQ(VTRemoveApplicationVolResyncList(L"", &volumes), 87u);
    EXPECT_EQ(VTRemoveApplicationVolResyncList(L"Alpha", &volumes), 0x10009u);
}

} // namespace
} // namespace vttest
