// Which applications a manager serves, and under which names.
#include "bitmap/container.h"
#include "driver/protocol.h"
#include "internal/manager_fixture.h"

namespace {

using namespace vttest;

class ManagerInit : public ListedManagerTest {
protected:
    std::wstring BaseNamed(const std::wstring& volumeName, const std::wstring& id) const
    {
        return L"CBitmapContainer::init:: Basebitmap Name is \\\\?\\" + volumeName + L"\\VelVolTrc\\VelVolTrc_base_" +
               id + L".dat";
    }
    std::wstring ChildNamed(const std::wstring& volumeName, const std::wstring& id) const
    {
        return L"CBitmapContainer::initChild bitmap Name is \\\\?\\" + volumeName + L"\\VelVolTrc\\VelVolTrc_child_" +
               id + L".dat";
    }
    // Memory runs out for the nth container that is made, and for nothing else.
    static void FailContainer(DWORD nth)
    {
        vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY, WideNumber(sizeof(vtflt::CBitmapContainer)).c_str(),
                           nth);
    }
    DWORD Fetch(vtflt::CMultiBitmapManager& from)
    {
        const auto handle = OpenVolume(volume);
        Bytes buffer(BITMAP_BYTES);
        DWORD returned = 0;
        return from.VTDeviceIoControl(handle.get(), vtflt::VTFLTCTL_GET_BITMAP, nullptr, 0, buffer.data(),
                                      static_cast<DWORD>(buffer.size()), &returned, nullptr);
    }
    // A fetch of block 5 gives this, changes no file and tells the driver nothing.
    void ExpectRefusedFetch(DWORD error)
    {
        MakeFolder(volume, L"VelVolTrc");
        for (const wchar_t* const id : {APP, OTHER}) {
            WriteFileBytes(volume, BaseName(id), MakeBitmapImage(BLOCK_SIZE, Bytes(BITMAP_BYTES)));
            WriteFileBytes(volume, ChildName(id), MakeBitmapImage(BLOCK_SIZE, Bytes(BITMAP_BYTES)));
        }
        machine.TouchBlock(volume, 5);
        log.Clear();
        VTFltSimRecord(1);
        EXPECT_EQ(Fetch(manager), error);
        VTFltSimRecord(0);
        EXPECT_EQ(RequestCodes(), std::vector<DWORD>{vtflt::VTFLTCTL_GET_BITMAP});
        log.ExpectExactly({{0, error, L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Updating child bitmaps."}}, 0);
        EXPECT_EQ(machine.Bits(volume), (Bytes{0x04, 0, 0, 0, 0, 0, 0, 0}));
        for (const wchar_t* const id : {APP, OTHER})
            EXPECT_TRUE(Child(volume, id).Blocks().empty());
    }
    // No container: the operations on the current application's say so.
    void ExpectNoContainer()
    {
        log.Clear();
        EXPECT_EQ(manager.ResetBaseBitmap(), 0xFFFFFFFFu);
        ASSERT_EQ(log.Records().size(), 1u);
        EXPECT_EQ(log.Records()[0].text.find(
                      L"CMultiBitmapManager::ResetBaseBitmap: Failed to find bitmap container for application"),
                  0u);
    }
};

TEST_F(ManagerInit, MakesAContainerPerRegisteredApplicationInTheOrderOfTheList)
{
    Register({L"zeta", L"app1", L"beta"});
    EXPECT_EQ(manager.InitBitMapManager(volume.Root(), APP), 0u);
    log.ExpectExactly({{2, 0, BaseNamed(VolumeName(), L"zeta")},
                       {2, 0, ChildNamed(VolumeName(), L"zeta")},
                       {2, 0, BaseNamed(VolumeName(), L"app1")},
                       {2, 0, ChildNamed(VolumeName(), L"app1")},
                       {2, 0, BaseNamed(VolumeName(), L"beta")},
                       {2, 0, ChildNamed(VolumeName(), L"beta")}},
                      2);
}

TEST_F(ManagerInit, ReadsNoFileAndAsksTheDriverNothing)
{
    VTFltSimRecord(1);
    EXPECT_EQ(manager.InitBitMapManager(volume.Root(), APP), 0u);
    VTFltSimRecord(0);
    EXPECT_TRUE(RequestCodes().empty());
    for (const std::wstring& line : vtfltsim::Trace()) {
        EXPECT_EQ(line.find(L"CreateFileW"), std::wstring::npos) << Narrow(line);
        EXPECT_EQ(line.find(L"CreateMutexW"), std::wstring::npos) << Narrow(line);
    }
}

TEST_F(ManagerInit, AllSpellingsOfAVolumeGuidPathNameTheSameVolume)
{
    for (const std::wstring& name : {volume.Root(), volume.Path(), VolumeName(), VolumeName() + L"\\"}) {
        log.Clear();
        vtflt::CMultiBitmapManager other;
        EXPECT_EQ(other.InitBitMapManager(name, APP), 0u);
        log.ExpectLogged(2, 0, BaseNamed(VolumeName(), APP));
        log.ExpectLogged(2, 0, ChildNamed(VolumeName(), APP));
    }
}

TEST_F(ManagerInit, DrivePathHasNoneOfTheCharactersAndOnlyLosesItsBackslash)
{
    EXPECT_EQ(manager.InitBitMapManager(L"C:\\", APP), 0u);
    log.ExpectLogged(2, 0, BaseNamed(L"C:", APP));
}

TEST_F(ManagerInit, VolumeNameStartsAtTheFirstOfTheCharactersWhateverWordItIs)
{
    EXPECT_EQ(manager.InitBitMapManager(L"\\\\?\\home\\disk\\", APP), 0u);
    log.ExpectLogged(2, 0, BaseNamed(L"ome\\disk", APP));
}

TEST_F(ManagerInit, EmptyListOfApplicationsIs10007)
{
    Register({});
    EXPECT_EQ(manager.InitBitMapManager(volume.Root(), APP), 0x10007u);
    log.ExpectExactly({{0, 0x10007,
                        L"CMultiBitmapManager::InitBitMapManager: No application registered. Register an application "
                        L"and try again."}},
                      0);
    ExpectNoContainer();
}

TEST_F(ManagerInit, AbsentListOfApplicationsIsAnEmptyOne)
{
    DeleteValue(APP_IDS_KEY, APP_IDS_VALUE);
    EXPECT_EQ(manager.InitBitMapManager(volume.Root(), APP), 0x10007u);
    log.ExpectLogged(0, 0x10007,
                     L"CMultiBitmapManager::InitBitMapManager: No application registered. Register an application and "
                     L"try again.");
}

TEST_F(ManagerInit, ApplicationThatIsNotRegisteredIs10009AndGetsNoContainer)
{
    EXPECT_EQ(manager.InitBitMapManager(volume.Root(), L"stranger"), 0x10009u);
    log.ExpectExactly({{0, 0x10009,
                        L"CMultiBitmapManager::InitBitMapManager: Application stranger is not registered. Register "
                        L"application and try again."}},
                      2);
    ExpectNoContainer();
}

TEST_F(ManagerInit, ApplicationIdsAreComparedExactlyAndCaseSensitively)
{
    for (const wchar_t* const id : {L"APP1", L"app", L"app12", L"app1 "}) {
        vtflt::CMultiBitmapManager other;
        EXPECT_EQ(other.InitBitMapManager(volume.Root(), id), 0x10009u) << Narrow(id);
    }
}

TEST_F(ManagerInit, ListThatCannotBeReadIs10008WithTheReadsErrorLoggedFirst)
{
    vtfltsim::FailCall(L"RegQueryValueExW", ERROR_ACCESS_DENIED, L"RegisteredAppIDs", 1, 0);
    EXPECT_EQ(manager.InitBitMapManager(volume.Root(), APP), 0x10008u);
    ASSERT_GE(log.Records().size(), 2u);
    const LogRecord& first = log.Records()[log.Records().size() - 2];
    EXPECT_EQ(first.level, 0);
    EXPECT_EQ(first.code, DWORD{ERROR_ACCESS_DENIED});
    EXPECT_TRUE(first.text == L"CMultiBitmapManager::initAppsFailed to initialize applications");
    const LogRecord& second = log.Records().back();
    EXPECT_EQ(second.level, 0);
    EXPECT_EQ(second.code, 0x10008u);
    EXPECT_TRUE(second.text == L"CMultiBitmapManager::InitBitMapManager: Failed to get registered applications.");
    ExpectNoContainer();
}

TEST_F(ManagerInit, ContainerThatCannotBeAllocatedIsSkippedAndTheOthersAreMade)
{
    Register({L"zeta", L"app1", L"beta"});
    FailContainer(2);
    EXPECT_EQ(manager.InitBitMapManager(volume.Root(), APP), 0u);
    EXPECT_EQ(VTFltSimGetCallFaultHits(), 1u);
    log.ExpectExactly({{2, 0, BaseNamed(VolumeName(), L"zeta")},
                       {2, 0, ChildNamed(VolumeName(), L"zeta")},
                       {2, 0, BaseNamed(VolumeName(), L"beta")},
                       {2, 0, ChildNamed(VolumeName(), L"beta")}},
                      2);
    ExpectNoContainer();
}

TEST_F(ManagerInit, FetchWithoutTheCurrentApplicationsContainerIsAGeneralFailure)
{
    FailContainer(1);
    EXPECT_EQ(manager.InitBitMapManager(volume.Root(), APP), 0u);
    ExpectRefusedFetch(0xFFFFFFFF);
}

TEST_F(ManagerInit, FetchIsRefusedWith8WhileAnotherApplicationHasNoContainerAndTheDriverKeepsItsBits)
{
    FailContainer(2);
    EXPECT_EQ(manager.InitBitMapManager(volume.Root(), APP), 0u);
    ExpectRefusedFetch(ERROR_NOT_ENOUGH_MEMORY);

    // A manager with room for everybody delivers what was refused, to both.
    vtflt::CMultiBitmapManager whole;
    EXPECT_EQ(whole.InitBitMapManager(volume.Root(), APP), 0u);
    EXPECT_EQ(Fetch(whole), 0u);
    EXPECT_EQ(Base(volume, APP).Blocks(), std::vector<std::uint64_t>{5});
    EXPECT_EQ(Child(volume, OTHER).Blocks(), std::vector<std::uint64_t>{5});
    EXPECT_EQ(machine.Bits(volume), Bytes(8, 0));
    whole.DeinitBitMapManager();
}

// A second one would be merged into and written as well.
TEST_F(ManagerInit, AnIdThatIsListedTwiceHasOneContainer)
{
    const auto callsOfAFetch = [&](const std::vector<std::wstring>& ids) {
        Register(ids);
        if (!FileExists(volume, L"VelVolTrc"))
            MakeFolder(volume, L"VelVolTrc");
        for (const wchar_t* const id : {APP, OTHER}) {
            WriteFileBytes(volume, BaseName(id), MakeBitmapImage(BLOCK_SIZE, Bytes(BITMAP_BYTES)));
            WriteFileBytes(volume, ChildName(id), MakeBitmapImage(BLOCK_SIZE, Bytes(BITMAP_BYTES)));
        }
        machine.TouchBlock(volume, 5);
        vtflt::CMultiBitmapManager each;
        EXPECT_EQ(each.InitBitMapManager(volume.Root(), APP), 0u);
        VTFltSimRecord(1);
        EXPECT_EQ(Fetch(each), 0u);
        VTFltSimRecord(0);
        EXPECT_EQ(Base(volume, APP).Blocks(), std::vector<std::uint64_t>{5});
        EXPECT_EQ(Child(volume, OTHER).Blocks(), std::vector<std::uint64_t>{5});
        return LibraryCalls();
    };
    const std::vector<std::wstring> once = callsOfAFetch({APP, OTHER});
    EXPECT_FALSE(once.empty());
    EXPECT_TRUE(callsOfAFetch({APP, OTHER, APP, OTHER}) == once);
    EXPECT_TRUE(callsOfAFetch({OTHER, OTHER, APP}) == once);
}

TEST_F(ManagerInit, ApplicationThatRegistersLaterGetsNoContainer)
{
    Register({APP});
    Load(0, 0, 0);
    Register({APP, OTHER});
    const Bytes driver(BITMAP_BYTES, 0xFF);
    EXPECT_EQ(manager.UpdateAllChildBitmap(BITMAP_BYTES, driver.data()), 0u);
    EXPECT_TRUE(Child(volume, OTHER).Bitmap() == Bytes(BITMAP_BYTES, 0));
}

TEST_F(ManagerInit, DeinitReleasesTheContainersAndAnswers0EvenTwice)
{
    Load(0, 0);
    EXPECT_EQ(manager.DeinitBitMapManager(), 0u);
    EXPECT_EQ(manager.DeinitBitMapManager(), 0u);
    ExpectNoContainer();
    DWORD length = 5;
    BYTE buffer[5] = {};
    EXPECT_EQ(manager.GetBaseBitmap(&length, buffer), 0u);
    EXPECT_EQ(length, 0u);
}

TEST_F(ManagerInit, DeinitOfANewManagerAnswers0)
{
    EXPECT_EQ(manager.DeinitBitMapManager(), 0u);
    log.ExpectNothingLogged();
}

TEST_F(ManagerInit, AnOperationPassesOverTheNullEntryThatALookUpLeft)
{
    FailContainer(1);
    EXPECT_EQ(manager.InitBitMapManager(volume.Root(), APP), 0u);
    ExpectNoContainer();
    // The next one hands the volume's handle to every container that there is.
    log.Clear();
    EXPECT_EQ(Fetch(manager), 0xFFFFFFFFu);
    log.ExpectLogged(0, 0xFFFFFFFF, L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Updating child bitmaps.");
    EXPECT_EQ(manager.RemapAllAppBitmap(), 0xFFFFFFFFu);
}

} // namespace
