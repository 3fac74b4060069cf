// The driver's bitmap into every application's child bitmap, and a child into its base.
#include "support/manager_test.h"

#include <algorithm>

namespace vttest {

namespace {

class MergeChildren : public ManagerTest {
protected:
    void SetUp() override
    {
        Register(L"app1");
        Register(L"app2");
    }
};

TEST_F(MergeChildren, OrsByteIntoByte)
{
    PutChild(L"app2", Bytes{0x01, 0x00, 0xF0});
    const auto managed = Manage(L"app1");
    EXPECT_EQ(0u, managed->Merge(Bytes{0x80, 0x01, 0x0F}));
    EXPECT_EQ((Bytes{0x81, 0x01, 0xFF}), Child(volume, L"app2").Bitmap());
}

TEST_F(MergeChildren, CutsAFreshChildToTheLengthOfTheDriversBitmap)
{
    const auto managed = Manage(L"app1");
    ASSERT_EQ(FRESH_LENGTH, Child(volume, L"app2").BitmapLength());
    EXPECT_EQ(0u, managed->Merge(Bytes(13, 0x11)));
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(13, 0x11)), Child(volume, L"app2").image);
}

TEST_F(MergeChildren, GrowsAChildWithAClearTail)
{
    PutChild(L"app2", Bytes(2, 0xFF));
    const auto managed = Manage(L"app1");
    EXPECT_EQ(0u, managed->Merge(Bytes(5000)));
    Bytes expected(5000);
    expected[0] = expected[1] = 0xFF;
    EXPECT_EQ(MakeBitmapImage(BLOCK, expected), Child(volume, L"app2").image);
}

TEST_F(MergeChildren, DoesNotSaveTheCurrentApplicationsMergedChild)
{
    PutChild(L"app1", Bytes{0x01, 0x00});
    const auto managed = Manage(L"app1");
    const Bytes before = Child(volume, L"app1").image;
    EXPECT_EQ(0u, managed->Merge(Bytes{0x80, 0x80}));
    EXPECT_EQ(before, Child(volume, L"app1").image);
    // It is in memory, and reaches the base.
    PutBase(L"app1", Bytes{0x02, 0x00});
    EXPECT_EQ(0u, managed->manager.UpdateBaseBitmapWithChild());
    EXPECT_EQ((Bytes{0x83, 0x80}), Base(volume, L"app1").Bitmap());
}

TEST_F(MergeChildren, VisitsTheApplicationsInTheOrderOfTheirIds)
{
    Register(L"B");
    Register(L"a");
    const auto managed = Manage(L"app2");
    VTFltSimRecord(1);
    EXPECT_EQ(0u, managed->Merge(Bytes(FRESH_LENGTH)));
    std::vector<std::wstring> order;
    for (const std::wstring& line : vtfltsim::Trace()) {
        const std::size_t at = line.find(L"_child_");
        if (line.rfind(L"CreateFileW", 0) != 0 || at == std::wstring::npos)
            continue;
        const std::wstring app = line.substr(at + 7, line.find(L".dat") - at - 7);
        if (order.empty() || order.back() != app)
            order.push_back(app);
    }
    EXPECT_EQ((std::vector<std::wstring>{L"B", L"a", L"app1", L"app2"}), order);
}

TEST_F(MergeChildren, AnotherApplicationsMissingChildIsSkippedAndTheOthersAreServed)
{
    Register(L"app3");
    RemoveFile(volume, ChildName(L"app2"));
    const auto managed = Manage(L"app1");
    EXPECT_EQ(0u, managed->Merge(Bytes(FRESH_LENGTH, 0x01)));
    EXPECT_FALSE(FileExists(volume, ChildName(L"app2")));
    EXPECT_EQ(Bytes(FRESH_LENGTH, 0x01), Child(volume, L"app3").Bitmap());
}

TEST_F(MergeChildren, AnotherApplicationsFailureEndsTheOperationWithTheRestUntouched)
{
    Register(L"app3");
    const auto managed = Manage(L"app1");
    vtfltsim::FailCall(L"ReadFile", ERROR_CRC, L"_child_app2");
    const Bytes before = Child(volume, L"app3").image;
    EXPECT_EQ(23u, managed->Merge(Bytes(FRESH_LENGTH, 0x01)));
    EXPECT_EQ(before, Child(volume, L"app3").image);
    log.ExpectLogged(
        0, 23, L"CMultiBitmapManager::UpdateAllChildBitmap: Failed to read child bitmap file " + ChildPath(L"app2"));
}

TEST_F(MergeChildren, TheCurrentApplicationsMissingChildRestartsFromTheDriversBits)
{
    RemoveFile(volume, ChildName(L"app1"));
    const auto managed = Manage(L"app1");
    EXPECT_EQ(VERIFY, managed->Merge(Bytes{0x81, 0x42}));
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(2)), Child(volume, L"app1").image);
    PutBase(L"app1", Bytes(2));
    EXPECT_EQ(0u, managed->manager.UpdateBaseBitmapWithChild());
    EXPECT_EQ((Bytes{0x81, 0x42}), Base(volume, L"app1").Bitmap());
}

// A death in between leaves a mark for nothing, and never an empty child that nobody doubts.
TEST_F(MergeChildren, TheVolumeOfAMissingChildIsListedBeforeTheChildIsMadeAnew)
{
    RemoveFile(volume, ChildName(L"app1"));
    const auto managed = Manage(L"app1");
    const std::vector<std::wstring> writes =
        Writes(L"app1", [&] { EXPECT_EQ(VERIFY, managed->Merge(Bytes(FRESH_LENGTH, 0x11))); });
    EXPECT_EQ((std::vector<std::wstring>{L"list", L"file"}), writes);
}

TEST_F(MergeChildren, TheOthersAreServedAfterTheCurrentApplicationsMissingChild)
{
    RemoveFile(volume, ChildName(L"app1"));
    const auto managed = Manage(L"app1");
    EXPECT_EQ(VERIFY, managed->Merge(Bytes(FRESH_LENGTH, 0x01)));
    EXPECT_EQ(Bytes(FRESH_LENGTH, 0x01), Child(volume, L"app2").Bitmap());
}

TEST_F(MergeChildren, WithoutTheCurrentApplicationsContainerEveryOperationFails)
{
    vtflt::CMultiBitmapManager manager;
    const Bytes bits(4);
    EXPECT_EQ(0xFFFFFFFFu, manager.UpdateAllChildBitmap(4, bits.data()));
    EXPECT_EQ(0xFFFFFFFFu, manager.UpdateBaseBitmapWithChild());
    EXPECT_EQ(0xFFFFFFFFu, manager.SyncSnapshotChangesToChildBitmap(4, bits.data()));
    EXPECT_EQ(0xFFFFFFFFu, manager.RemapAllAppBitmap());
}

class MergeBase : public MergeChildren {};

TEST_F(MergeBase, TakesTheChildsLengthAndKeepsItsOwnBits)
{
    PutBase(L"app1", Bytes(20, 0x10));
    const auto managed = Manage(L"app1");
    ASSERT_EQ(0u, managed->Merge(Bytes(13, 0x01)));
    EXPECT_EQ(0u, managed->manager.UpdateBaseBitmapWithChild());
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(13, 0x11)), Base(volume, L"app1").image);
}

TEST_F(MergeBase, WithoutALoadedChildFails)
{
    const auto managed = Manage(L"app1");
    EXPECT_EQ(0xFFFFFFFFu, managed->manager.UpdateBaseBitmapWithChild());
}

TEST_F(MergeBase, ThatIsMissingStartsFreshAndTakesNoBitOfTheChild)
{
    const auto managed = Manage(L"app1");
    ASSERT_EQ(0u, managed->Merge(Bytes(13, 0x01)));
    RemoveFile(volume, BaseName(L"app1"));
    EXPECT_EQ(VERIFY, managed->manager.UpdateBaseBitmapWithChild());
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(FRESH_LENGTH)), Base(volume, L"app1").image);
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
}

TEST_F(MergeBase, ThatIsMissingGivesTheListsErrorAndIsStartedFreshAllTheSame)
{
    const auto managed = Manage(L"app1");
    ASSERT_EQ(0u, managed->Merge(Bytes(13, 0x01)));
    RemoveFile(volume, BaseName(L"app1"));
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_ACCESS_DENIED, L"app1.Last");
    EXPECT_EQ(5u, managed->manager.UpdateBaseBitmapWithChild());
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(FRESH_LENGTH)), Base(volume, L"app1").image);
    EXPECT_FALSE(FileExists(volume, ChildName(L"app1"))) << "what makes the next job a verify backup";
}

class MergeSnapshotChanges : public MergeChildren {};

TEST_F(MergeSnapshotChanges, AreOredIntoTheChildFile)
{
    PutChild(L"app1", Bytes{0x01, 0x02});
    const auto managed = Manage(L"app1");
    EXPECT_EQ(0u, managed->SyncChanges(Bytes{0x80, 0x40}));
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes{0x81, 0x42}), Child(volume, L"app1").image);
}

TEST_F(MergeSnapshotChanges, ShorterThanTheChildChangeNothing)
{
    PutChild(L"app1", Bytes{0x01, 0x02});
    const auto managed = Manage(L"app1");
    EXPECT_EQ(0u, managed->SyncChanges(Bytes{0x80}));
    EXPECT_EQ(0u, managed->SyncChanges(Bytes{}));
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes{0x01, 0x02}), Child(volume, L"app1").image);
}

TEST_F(MergeSnapshotChanges, LongerThanTheRecordItselfAreCutAtTheBitmap)
{
    PutChild(L"app1", Bytes{0x01, 0x02});
    const auto managed = Manage(L"app1");
    EXPECT_EQ(0u, managed->SyncChanges(Bytes(100000, 0xFF)));
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes{0xFF, 0xFF}), Child(volume, L"app1").image);
}

TEST_F(MergeSnapshotChanges, OnAMissingChildReplaceItAndSayVerify)
{
    const auto managed = Manage(L"app1");
    RemoveFile(volume, ChildName(L"app1"));
    EXPECT_EQ(VERIFY, managed->SyncChanges(Bytes(100, 0xFF)));
    EXPECT_EQ(MakeBitmapImage(BLOCK, Bytes(FRESH_LENGTH)), Child(volume, L"app1").image);
    EXPECT_EQ(OnlyThisVolume(), VerifyList(L"app1"));
}

} // namespace

} // namespace vttest
