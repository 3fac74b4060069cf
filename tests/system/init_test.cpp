// Initialising a bitmap manager through the exports.
#include "support/machine_test.h"

namespace {

using namespace vttest;

class Init : public MachineTest {
protected:
    static constexpr wchar_t APP[] = L"app1";
    static constexpr wchar_t OTHER[] = L"app2";

    Init() : volume(machine.AddVolume(64 * 65536)) {}

    void TearDown() override
    {
        handle.reset();
        MachineTest::TearDown();
    }
    void Register(const std::vector<std::wstring>& ids) { SetList(APP_IDS_KEY, APP_IDS_VALUE, ids); }
    DWORD InitFor(const wchar_t* appId)
    {
        handle = OpenVolume(volume);
        return VTFltInitBitmapManager(handle.get(), volume.Root().c_str(), appId);
    }
    // The handle has no manager: operations on it do not find it.
    void ExpectNoManager() { EXPECT_EQ(VTFltPrepareForSnapshot(handle.get()), DWORD{ERROR_INVALID_PARAMETER}); }
    void ExpectInitFailed(DWORD code) const
    {
        log.ExpectLogged(0, code, L"VTFltInitBitmapManager: Failed to initialize bitmap manager");
    }

    Volume volume;
    vtflt::UniqueHandle handle;
};

TEST_F(Init, WithNoApplicationRegisteredIs10007)
{
    EXPECT_EQ(InitFor(APP), 0x10007u);
    log.ExpectLogged(0, 0x10007,
                     L"CMultiBitmapManager::InitBitMapManager: No application registered. Register an application and "
                     L"try again.");
    ExpectInitFailed(0x10007);
    ExpectNoManager();
}

TEST_F(Init, ForAnApplicationThatIsNotRegisteredIs10009)
{
    Register({OTHER});
    EXPECT_EQ(InitFor(APP), 0x10009u);
    log.ExpectLogged(0, 0x10009,
                     L"CMultiBitmapManager::InitBitMapManager: Application app1 is not registered. Register "
                     L"application and try again.");
    ExpectInitFailed(0x10009);
    ExpectNoManager();
}

TEST_F(Init, ApplicationIdIsCaseSensitive)
{
    Register({APP});
    EXPECT_EQ(InitFor(L"App1"), 0x10009u);
    ExpectNoManager();
}

TEST_F(Init, WithAListThatCannotBeReadIs10008)
{
    Register({APP});
    vtfltsim::FailCall(L"RegQueryValueExW", ERROR_ACCESS_DENIED, L"RegisteredAppIDs", 1, 0);
    EXPECT_EQ(InitFor(APP), 0x10008u);
    VTFltSimClearCallFaults();
    log.ExpectLogged(0, ERROR_ACCESS_DENIED, L"CMultiBitmapManager::initAppsFailed to initialize applications");
    log.ExpectLogged(0, 0x10008, L"CMultiBitmapManager::InitBitMapManager: Failed to get registered applications.");
    ExpectInitFailed(0x10008);
    ExpectNoManager();
}

TEST_F(Init, TouchesNeitherFilesNorListsNorTheDriver)
{
    Register({APP, OTHER});
    VTFltSimRecord(1);
    EXPECT_EQ(InitFor(APP), 0u);
    VTFltSimRecord(0);
    EXPECT_TRUE(RequestCodes().empty());
    EXPECT_FALSE(FileExists(volume, L"VelVolTrc"));
    EXPECT_TRUE(VerifyList(APP).empty());
    EXPECT_EQ(VTFltDeinitBitmapManager(handle.get()), 0u);
}

TEST_F(Init, MutexOfTheVolumeIsTheSameForAllSpellingsOfItsName)
{
    Register({APP});
    for (const std::wstring& name : {volume.Root(), volume.Path(), L"Volume" + volume.guid}) {
        handle = OpenVolume(volume);
        ASSERT_EQ(VTFltInitBitmapManager(handle.get(), name.c_str(), APP), 0u);
        vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED,
                           (L"VTBitmapManager.Volume" + volume.guid + L".Mutex").c_str());
        EXPECT_EQ(VTFltPrepareForSnapshot(handle.get()), 0x10005u) << Narrow(name);
        VTFltSimClearCallFaults();
        EXPECT_EQ(VTFltDeinitBitmapManager(handle.get()), 0u);
    }
}

TEST_F(Init, ApplicationThatRegistersLaterGetsNothingFromAnEarlierManager)
{
    ASSERT_EQ(VTRegisterApplication(APP), 0u);
    ASSERT_EQ(InitFor(APP), 0u);
    ASSERT_EQ(VTRegisterApplication(OTHER), 0u);
    const Bytes before = Child(volume, OTHER).image;
    machine.TouchBlock(volume, 3);
    ASSERT_EQ(VTFltPrepareForSnapshot(handle.get()), 0u);
    machine.TakeSnapshot(volume);
    Bytes buffer(BufferLength(machine.Info(volume)));
    BYTE input = 0;
    DWORD size = 0;
    ASSERT_EQ(VTFltGetBitmap(handle.get(), &input, 0, buffer.data(), static_cast<DWORD>(buffer.size()), &size, 0), 0u);
    EXPECT_TRUE(BlocksInBuffer(buffer) == std::vector<std::uint64_t>{3});
    EXPECT_TRUE(Child(volume, OTHER).image == before);
    EXPECT_EQ(VTFltDeinitBitmapManager(handle.get()), 0u);
}

} // namespace
