// Every bitmap of every application onto a new block size.
#include "driver/protocol.h"
#include "support/manager_test.h"

namespace vttest {

namespace {

class Remap : public ManagerTest {
protected:
    void SetUp() override
    {
        Register(L"app1");
        Register(L"app2");
        for (const wchar_t* app : {L"app1", L"app2"}) {
            PutChild(app, Bytes(FRESH_LENGTH, 0x11));
            PutBase(app, Bytes(FRESH_LENGTH, 0x22));
        }
    }

    void SetBlockSize(DWORD size) { ASSERT_EQ(0u, VTFltSimSetBlockSize(machine.handle(), volume.guid.c_str(), size)); }
    static LogRecord Skipped(const std::wstring& path)
    {
        return {1, VERIFY,
                L"CMultiBitmapManager::RemapAllAppBitmap: Other application bitmap file not found. Skip remmaping it. "
                L"File name: " +
                    path};
    }
    LogRecord Missing(const std::wstring& path) const
    {
        return Failed(2, L"Open bitmap file failed, file name:" + path);
    }
    LogRecord ReadFailed(DWORD code, const std::wstring& path) const
    {
        return Failed(code, L"CMultiBitmapManager::RemapAllAppBitmap: Failed to read bitmap file " + path);
    }
};

TEST_F(Remap, RewritesEveryBitmapEmptyInTheSmallerBlocks)
{
    SetBlockSize(4096);
    const auto managed = Manage(L"app1");
    EXPECT_EQ(0u, managed->manager.RemapAllAppBitmap());
    for (const wchar_t* app : {L"app1", L"app2"}) {
        EXPECT_EQ(MakeBitmapImage(4096, Bytes(200)), Child(volume, app).image);
        EXPECT_EQ(MakeBitmapImage(4096, Bytes(200)), Base(volume, app).image);
    }
    log.ExpectNothingLogged();
}

TEST_F(Remap, RewritesEveryBitmapEmptyInTheLargerBlocks)
{
    SetBlockSize(1u << 20);
    const auto managed = Manage(L"app2");
    EXPECT_EQ(0u, managed->manager.RemapAllAppBitmap());
    for (const wchar_t* app : {L"app1", L"app2"}) {
        EXPECT_EQ(MakeBitmapImage(1u << 20, Bytes(1)), Child(volume, app).image);
        EXPECT_EQ(MakeBitmapImage(1u << 20, Bytes(1)), Base(volume, app).image);
    }
}

TEST_F(Remap, RewritesEveryBitmapEmptyInTheSameBlocksToo)
{
    const auto managed = Manage(L"app1");
    EXPECT_EQ(0u, managed->manager.RemapAllAppBitmap());
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(13)), Child(volume, L"app1").image);
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(13)), Base(volume, L"app2").image);
}

TEST_F(Remap, TakesTheChildBeforeTheBaseAndTheApplicationsInOrder)
{
    const auto managed = Manage(L"app2");
    VTFltSimRecord(1);
    EXPECT_EQ(0u, managed->manager.RemapAllAppBitmap());
    std::vector<std::wstring> order;
    for (const std::wstring& line : vtfltsim::Trace()) {
        if (line.rfind(L"WriteFile", 0) != 0)
            continue;
        const std::size_t at = line.rfind(L"VelVolTrc_");
        ASSERT_NE(std::wstring::npos, at) << Narrow(line);
        const std::wstring name = line.substr(at + 10, line.find(L".dat") - at - 10);
        if (order.empty() || order.back() != name)
            order.push_back(name);
    }
    EXPECT_EQ((std::vector<std::wstring>{L"child_app1", L"base_app1", L"child_app2", L"base_app2"}), order);
}

TEST_F(Remap, SkipsAnotherApplicationsMissingBitmapAndGoesOnWithItsNext)
{
    RemoveFile(volume, ChildName(L"app2"));
    const auto managed = Manage(L"app1");
    EXPECT_EQ(0u, managed->manager.RemapAllAppBitmap());
    log.ExpectExactly({Missing(ChildPath(L"app2")), Skipped(ChildPath(L"app2"))});
    EXPECT_FALSE(FileExists(volume, ChildName(L"app2")));
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(13)), Base(volume, L"app2").image);
}

TEST_F(Remap, NamesAnotherApplicationsMissingBaseByItsOwnName)
{
    RemoveFile(volume, BaseName(L"app2"));
    const auto managed = Manage(L"app1");
    EXPECT_EQ(0u, managed->manager.RemapAllAppBitmap());
    log.ExpectExactly({Missing(BasePath(L"app2")), Skipped(BasePath(L"app2"))});
}

TEST_F(Remap, RestartsTheCurrentApplicationsMissingBitmapAndSaysVerify)
{
    RemoveFile(volume, BaseName(L"app1"));
    const auto managed = Manage(L"app1");
    EXPECT_EQ(VERIFY, managed->manager.RemapAllAppBitmap());
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(13)), Base(volume, L"app1").image);
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(13)), Child(volume, L"app2").image);
}

TEST_F(Remap, ListsTheVolumeBeforeAMissingBitmapIsMadeAnew)
{
    for (const std::wstring& name : {ChildName(L"app1"), BaseName(L"app1")}) {
        RemoveFile(volume, name);
        const auto managed = Manage(L"app1");
        const std::vector<std::wstring> writes =
            Writes(L"app1", [&] { EXPECT_EQ(VERIFY, managed->manager.RemapAllAppBitmap()); });
        // The child comes first, and there it is sound when the base is missing.
        if (name == ChildName(L"app1")) {
            EXPECT_EQ((std::vector<std::wstring>{L"list", L"file"}), writes);
        } else {
            EXPECT_EQ((std::vector<std::wstring>{L"file", L"list", L"file"}), writes);
        }
        DeleteValue(SERVICE_KEY, std::wstring(DRIVER_LIST) + L"app1.Last");
    }
}

TEST_F(Remap, SkipsTheRestOfTheContainerWhenTheVolumeCannotBeListed)
{
    RemoveFile(volume, ChildName(L"app1"));
    const auto managed = Manage(L"app1");
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_ACCESS_DENIED, L"app1.Last");
    EXPECT_EQ(5u, managed->manager.RemapAllAppBitmap());
    EXPECT_FALSE(FileExists(volume, ChildName(L"app1")));
    EXPECT_FALSE(FileExists(volume, BaseName(L"app1")));
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(13)), Child(volume, L"app2").image);
}

TEST_F(Remap, NamesTheChildWhicheverBitmapCannotBeReadAndGoesOnWithTheNextApplication)
{
    const auto managed = Manage(L"app2");
    vtfltsim::FailCall(L"ReadFile", ERROR_CRC, L"_base_app1");
    EXPECT_EQ(23u, managed->manager.RemapAllAppBitmap());
    log.ExpectLogged(0, 23, ReadFailed(23, ChildPath(L"app1")).text);
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(13)), Child(volume, L"app1").image);
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(FRESH_LENGTH, 0x22)), Base(volume, L"app1").image);
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(13)), Base(volume, L"app2").image);
}

TEST_F(Remap, SkipsTheBaseOfAContainerWhoseChildCannotBeRead)
{
    const auto managed = Manage(L"app2");
    vtfltsim::FailCall(L"ReadFile", ERROR_CRC, L"_child_app1");
    EXPECT_EQ(23u, managed->manager.RemapAllAppBitmap());
    log.ExpectLogged(0, 23, ReadFailed(23, ChildPath(L"app1")).text);
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(FRESH_LENGTH, 0x22)), Base(volume, L"app1").image);
}

TEST_F(Remap, GivesTheLastFailure)
{
    const auto managed = Manage(L"app1");
    vtfltsim::FailCall(L"ReadFile", ERROR_CRC, L"_child_app1");
    vtfltsim::FailCall(L"WriteFile", ERROR_DISK_FULL, L"_base_app2");
    EXPECT_EQ(112u, managed->manager.RemapAllAppBitmap());
}

TEST_F(Remap, WithoutTheVolumesLengthFailsGenerallyAndLogsNothing)
{
    const auto managed = Manage(L"app1");
    machine.FailRequest(IOCTL_DISK_GET_LENGTH_INFO, ERROR_NOT_READY, nullptr, 1, 0);
    EXPECT_EQ(0xFFFFFFFFu, managed->manager.RemapAllAppBitmap());
    ClearFaults();
    log.ExpectNothingLogged();
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(FRESH_LENGTH, 0x11)), Child(volume, L"app1").image);
}

TEST_F(Remap, WithoutTheBlockSizeFailsGenerallyAndLogsTheDriversError)
{
    const auto managed = Manage(L"app1");
    machine.FailRequest(vtflt::VTFLTCTL_GET_BLOCK_SIZE, ERROR_NOT_READY);
    EXPECT_EQ(0xFFFFFFFFu, managed->manager.RemapAllAppBitmap());
    log.ExpectExactly(
        {Failed(21, L"CBitmapContainer::RemapOldBitmapToNewBlockSize::VTFLTCTL_GET_BLOCK_SIZE failed, mserr=21.")});
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(FRESH_LENGTH, 0x11)), Child(volume, L"app1").image);
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(13)), Base(volume, L"app1").image);
}

// What the reset could not make the next step makes.
TEST_F(Remap, OfAMissingBitmapIsMadeAlsoWhenItsResetFails)
{
    RemoveFile(volume, ChildName(L"app1"));
    const auto managed = Manage(L"app1");
    machine.FailRequest(IOCTL_DISK_GET_LENGTH_INFO, ERROR_NOT_READY);
    EXPECT_EQ(VERIFY, managed->manager.RemapAllAppBitmap());
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(13)), Child(volume, L"app1").image);
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(13)), Base(volume, L"app1").image);
}

} // namespace

} // namespace vttest
