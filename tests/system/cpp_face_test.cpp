// The C++ face of the library, VTFltMgr.hpp, over the exports.
#include <vtfltmgr/VTFltMgr.hpp>

#include "support/cycle_test.h"

#include <type_traits>
#include <utility>
#include <vector>

namespace vttest {

namespace {

using vtfltmgr::BitmapManager;
using vtfltmgr::ChangeMap;
using vtfltmgr::Extent;
using vtfltmgr::Result;

static_assert(!std::is_copy_constructible_v<BitmapManager> && std::is_nothrow_move_constructible_v<BitmapManager>);

constexpr const wchar_t* APP = L"face";

class CppFace : public CycleTest {
protected:
    void SetUp() override { Register(APP); }

    BitmapManager OpenManager(HANDLE handle)
    {
        BitmapManager manager;
        EXPECT_EQ(0u, manager.Open(handle, volume.Root(), APP).Code());
        return manager;
    }
};

std::vector<std::pair<std::uint64_t, std::uint64_t>> ExtentsOf(const ChangeMap& map, std::uint64_t end)
{
    std::vector<std::pair<std::uint64_t, std::uint64_t>> extents;
    for (const Extent& extent : map.Extents(end))
        extents.emplace_back(extent.first, extent.count);
    return extents;
}

using Pairs = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

ChangeMap MapOf(std::size_t length, const BlockSet& blocks)
{
    ChangeMap map(length);
    for (const std::uint64_t block : blocks)
        map.Set(block);
    return map;
}

TEST(CppFaceMap, ExtentsAreTheRunsOfChangedBlocks)
{
    const ChangeMap map = MapOf(16 + 8, {0, 1, 2, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 40, 63});
    EXPECT_EQ(64u, map.Blocks());
    EXPECT_EQ((Pairs{{0, 3}, {7, 10}, {40, 1}, {63, 1}}), ExtentsOf(map, 64));
    EXPECT_EQ(15u, map.CountChanged(64));
}

TEST(CppFaceMap, AnExtentIsCutAtTheEndThatIsAskedFor)
{
    const ChangeMap map = MapOf(16 + 8, {7, 8, 9, 10, 30});
    EXPECT_EQ((Pairs{{7, 3}}), ExtentsOf(map, 10));
    EXPECT_EQ((Pairs{}), ExtentsOf(map, 7));
    EXPECT_EQ((Pairs{}), ExtentsOf(map, 0));
}

TEST(CppFaceMap, AnEndBehindTheMapIsTheMaps)
{
    const ChangeMap map = MapOf(16 + 1, {6, 7});
    EXPECT_EQ((Pairs{{6, 2}}), ExtentsOf(map, ~std::uint64_t{0}));
    EXPECT_EQ(2u, map.CountChanged(1000));
    EXPECT_FALSE(map.IsChanged(8));
}

TEST(CppFaceMap, AnEmptyMapHasNoBlocks)
{
    for (const std::size_t length : {0u, 1u, 16u}) {
        ChangeMap map(length);
        map.Set(0);
        map.ClearHeader();
        EXPECT_EQ(0u, map.Blocks());
        EXPECT_EQ((Pairs{}), ExtentsOf(map, 8));
        EXPECT_FALSE(map.IsChanged(0));
    }
}

TEST(CppFaceMap, AnotherLengthKeepsWhatFits)
{
    ChangeMap map = MapOf(16 + 2, {0, 15});
    EXPECT_TRUE(map.Resize(16 + 4));
    EXPECT_EQ((Pairs{{0, 1}, {15, 1}}), ExtentsOf(map, 32));
    EXPECT_TRUE(map.Resize(16 + 2));
    EXPECT_FALSE(map.Resize(16 + 1)); // the last one does not fit
    EXPECT_EQ((Pairs{{0, 1}}), ExtentsOf(map, 32));
}

TEST(CppFaceMap, TwoRangesGoEachItsOwnWay)
{
    const ChangeMap map = MapOf(16 + 8, {1, 5});
    auto first = map.Extents().begin();
    const auto second = first++;
    EXPECT_EQ(1u, second->first);
    EXPECT_EQ(5u, first->first);
    EXPECT_TRUE(first != second);
    EXPECT_TRUE(++first == map.Extents().end());
}

TEST_F(CppFace, ABackupGetsWhatChanged)
{
    Touch({3, 4, 99});
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    BitmapManager manager = OpenManager(handle.get());
    DWORD blockSize = 0;
    EXPECT_TRUE(manager.GetBlockSize(blockSize).IsSuccess());
    EXPECT_EQ(BLOCK, blockSize);
    EXPECT_TRUE(manager.PrepareForSnapshot().IsSuccess());
    const vtfltsim::Snapshot snapshot = machine.TakeSnapshot(volume);
    Touch({50});

    ChangeMap changes;
    EXPECT_TRUE(manager.Fetch(changes).IsSuccess());
    EXPECT_EQ(BUFFER_LENGTH, changes.Length());
    EXPECT_EQ((Pairs{{3, 2}, {99, 1}}), ExtentsOf(changes, BLOCKS));
    EXPECT_TRUE(manager.ReportSuccess().IsSuccess());

    EXPECT_TRUE(manager.Fetch(changes).IsSuccess());
    EXPECT_EQ((Pairs{{50, 1}}), ExtentsOf(changes, BLOCKS));
    manager.Close();
    machine.DeleteSnapshot(snapshot);
}

TEST_F(CppFace, WhatIsNotReportedIsGivenAgain)
{
    Touch({7});
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    for (int i = 0; i < 2; ++i) {
        const BitmapManager manager = OpenManager(handle.get());
        ChangeMap changes;
        EXPECT_TRUE(manager.Fetch(changes).IsSuccess());
        EXPECT_EQ((Pairs{{7, 1}}), ExtentsOf(changes, BLOCKS));
    }
}

TEST_F(CppFace, SnapshotChangesThatAreHandedBackComeWithTheNextBackup)
{
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    const BitmapManager manager = OpenManager(handle.get());
    ChangeMap changes;
    EXPECT_TRUE(manager.Fetch(changes).IsSuccess());
    ChangeMap written(changes.Length());
    written.Set(11);
    testing::internal::CaptureStdout(); // the library prints a line
    EXPECT_TRUE(manager.HandBack(written).IsSuccess());
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(manager.ReportSuccess().IsSuccess());
    EXPECT_TRUE(manager.Fetch(changes).IsSuccess());
    EXPECT_EQ((Pairs{{11, 1}}), ExtentsOf(changes, BLOCKS));
}

TEST_F(CppFace, AVolumeWhoseBitmapIsGoneIsToBeVerified)
{
    RemoveFile(volume, ChildName(APP));
    EXPECT_TRUE(vtfltmgr::ReplicateVerifyList(APP).IsSuccess());
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    const BitmapManager manager = OpenManager(handle.get());
    ChangeMap changes;
    const Result result = manager.Fetch(changes);
    EXPECT_TRUE(result.IsVerifyRequired());
    EXPECT_TRUE(result.HasBitmap());
    EXPECT_STREQ("verify required", result.Name());
    EXPECT_TRUE(vtfltmgr::IsVerifyRequired(APP, volume.Root()));
}

TEST_F(CppFace, AFetchThatFailsGivesNoMap)
{
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    ChangeMap changes(100);
    const Result result = vtfltmgr::FetchBitmap(handle.get(), changes, false); // there is no manager
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), result.Code());
    EXPECT_FALSE(result.HasBitmap());
    EXPECT_EQ(0u, changes.Length());
}

// The question for the length has room for a header only.
TEST_F(CppFace, ABitmapWithoutABlockIsToBeVerified)
{
    machine.TouchBlock(volume, 3);
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    const BitmapManager manager = OpenManager(handle.get());
    ChangeMap changes;
    ForceCall(L"DeviceIoControl", L"|0xB0000002|", FALSE);
    EXPECT_TRUE(manager.Fetch(changes).IsVerifyRequired());
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    ClearFaults();
    EXPECT_EQ(0u, changes.Blocks());
    EXPECT_EQ(Pairs{}, ExtentsOf(changes, BLOCKS));
}

TEST_F(CppFace, TheManagerIsClosedWithItsOwnerAndMovesWithIt)
{
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    ChangeMap changes;
    {
        BitmapManager first = OpenManager(handle.get());
        BitmapManager second(std::move(first));
        EXPECT_FALSE(first.IsOpen()); // NOLINT: what is left behind is looked at
        EXPECT_TRUE(second.IsOpen());
        first = std::move(second);
        EXPECT_TRUE(first.IsOpen());
        EXPECT_TRUE(first.Fetch(changes).IsSuccess());
    }
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), vtfltmgr::FetchBitmap(handle.get(), changes, false).Code());
}

TEST_F(CppFace, ASecondOwnerOfAHandleWorksForTheFirstOnesApplication)
{
    Register(L"other");
    machine.TouchBlock(volume, 3);
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    BitmapManager first = OpenManager(handle.get());
    BitmapManager second;
    EXPECT_TRUE(second.Open(handle.get(), volume.Root(), L"other").IsSuccess());
    ChangeMap changes;
    EXPECT_TRUE(second.Fetch(changes).IsSuccess());
    EXPECT_TRUE(second.ReportSuccess().IsSuccess());
    first.Close();
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), second.Fetch(changes).Code());
    EXPECT_TRUE(second.Open(handle.get(), volume.Root(), L"other").IsSuccess());
    EXPECT_TRUE(second.Fetch(changes).IsSuccess());
    EXPECT_TRUE(changes.IsChanged(3)); // what was reported was not the other one's
}

TEST_F(CppFace, AManagerThatCannotBeOpenedIsNotOpen)
{
    const vtflt::UniqueHandle handle = OpenVolume(volume);
    BitmapManager manager;
    EXPECT_EQ(VTFLT_APP_NOT_REGISTERED, manager.Open(handle.get(), volume.Root(), L"nobody").Code());
    EXPECT_FALSE(manager.IsOpen());
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), manager.ReportSuccess().Code());
}

TEST_F(CppFace, ApplicationsRegisterAndUnregister)
{
    EXPECT_FALSE(vtfltmgr::CanApplicationUseDriver(L"other"));
    EXPECT_TRUE(vtfltmgr::AddVolumesToVerifyList(L"other").IsSuccess());
    EXPECT_TRUE(vtfltmgr::RegisterApplication(L"other").IsSuccess());
    EXPECT_TRUE(vtfltmgr::CanApplicationUseDriver(L"other"));
    EXPECT_TRUE(vtfltmgr::IsVerifyRequired(L"other", volume.Root()));
    EXPECT_FALSE(vtfltmgr::IsVerifyRequired(APP, volume.Root()));
    EXPECT_EQ((std::vector<std::wstring>{APP, L"other"}), RegisteredIds());
    EXPECT_TRUE(vtfltmgr::UnregisterApplication(L"other").IsSuccess());
    EXPECT_EQ((Result{VTFLT_APP_NOT_REGISTERED}), vtfltmgr::UnregisterApplication(L"other"));
    EXPECT_TRUE(vtfltmgr::CanDriverWork());
}

} // namespace

} // namespace vttest
