// Deleting bitmap files, and the verify list as the place of last resort.
#include "internal/container_fixture.h"
#include "support/driver_expect.h"

namespace {

using namespace vttest;

class ContainerRemove : public ContainerTest {
protected:
    void PutBoth() const
    {
        PutBase(MakeBitmapImage(BLOCK_SIZE, Bytes(4)));
        PutChild(MakeBitmapImage(BLOCK_SIZE, Bytes(4)));
    }
    static void StartRecordingSearches() { StartRecording(); }
    // The only search since then.
    static std::wstring Searched()
    {
        const std::vector<std::wstring> searches = vttest::CallsOf(L"FindFirstFileW");
        return searches.size() == 1 ? searches[0] : L"(not one search)";
    }
    std::wstring BaseFailed() const
    {
        return L"CBitmapContainer::RemoveBitmaps::Failed to delete base bitmap " + BasePath();
    }
    // The base file's name stands in the child's line.
    std::wstring ChildFailed() const
    {
        return L"CBitmapContainer::RemoveBitmaps::Failed to delete child bitmap " + BasePath();
    }
};

TEST_F(ContainerRemove, DeletesBothFilesAndNothingElse)
{
    PutBoth();
    WriteFileBytes(volume, BaseName(L"app2"), Bytes(3));
    HaveBase(Bytes(4, 0x11));
    EXPECT_EQ(container->RemoveBitmaps(), 0u);
    EXPECT_FALSE(BaseFile().exists);
    EXPECT_FALSE(ChildFile().exists);
    EXPECT_TRUE(FileExists(volume, BaseName(L"app2")));
    EXPECT_NE(container->m_pBaseBitmap, nullptr) << "records in memory stay";
    log.ExpectNothingLogged();
}

TEST_F(ContainerRemove, BaseFailureIsReturnedAndTheChildIsDeletedAllTheSame)
{
    PutBoth();
    vtfltsim::FailCall(L"DeleteFileW", ERROR_ACCESS_DENIED, nullptr, 1);
    EXPECT_EQ(container->RemoveBitmaps(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_TRUE(BaseFile().exists);
    EXPECT_FALSE(ChildFile().exists);
    log.ExpectExactly({{0, ERROR_ACCESS_DENIED, BaseFailed()}});
}

TEST_F(ContainerRemove, ChildFailureIsReturnedAndItsLineNamesTheBaseFile)
{
    PutBoth();
    vtfltsim::FailCall(L"DeleteFileW", ERROR_ACCESS_DENIED, nullptr, 2);
    EXPECT_EQ(container->RemoveBitmaps(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_FALSE(BaseFile().exists);
    EXPECT_TRUE(ChildFile().exists);
    log.ExpectExactly({{0, ERROR_ACCESS_DENIED, ChildFailed()}});
}

TEST_F(ContainerRemove, BaseErrorGoesBeforeTheChildsWhenBothFail)
{
    PutBoth();
    vtfltsim::FailCall(L"DeleteFileW", ERROR_ACCESS_DENIED, nullptr, 1);
    vtfltsim::FailCall(L"DeleteFileW", ERROR_SHARING_VIOLATION, L"_child_", 1);
    EXPECT_EQ(container->RemoveBitmaps(), DWORD{ERROR_ACCESS_DENIED});
    log.ExpectExactly({{0, ERROR_ACCESS_DENIED, BaseFailed()}, {0, ERROR_SHARING_VIOLATION, ChildFailed()}});
}

// No list can name a volume of which no name is left: then its files must not stay.
TEST_F(ContainerRemove, AVolumeThatNoListCanNameLosesItsFilesAndTakesNoMarkAway)
{
    PutBoth();
    SetVerifyList(APP, {L"{1}", L"{2}"});
    container->m_strVolume = L"V:";
    EXPECT_EQ(container->AddVolumeToResyncList(), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_FALSE(BaseFile().exists);
    EXPECT_FALSE(ChildFile().exists);
    EXPECT_EQ(VerifyList(APP), (std::vector<std::wstring>{L"{1}", L"{2}"}));
}

TEST_F(ContainerRemove, MissingFilesAreFailures)
{
    MakeBitmapFolder();
    EXPECT_EQ(container->RemoveBitmaps(), DWORD{ERROR_FILE_NOT_FOUND});
    log.ExpectExactly({{0, ERROR_FILE_NOT_FOUND, BaseFailed()}, {0, ERROR_FILE_NOT_FOUND, ChildFailed()}});
}

TEST_F(ContainerRemove, AllBitmapsOfAVolumeGoWithTheirFolderAndThePathIsConsumed)
{
    for (std::wstring path : {volume.Root(), volume.Path()}) {
        PutBoth();
        WriteFileBytes(volume, ChildName(L"app2"), Bytes(3));
        EXPECT_EQ(vtflt::CBitmapContainer().RemoveAllBitmaps(path), 0u);
        EXPECT_TRUE(path.empty());
        EXPECT_FALSE(FileExists(volume, FOLDER));
    }
    log.ExpectNothingLogged();
}

// A folder that somebody searches is not removed: the system refuses, or it stays until the search ends.
TEST_F(ContainerRemove, TheSearchOfTheFolderEndsBeforeTheFolderIsRemoved)
{
    PutBoth();
    std::wstring path = volume.Root();
    StartRecording();
    EXPECT_EQ(container->RemoveAllBitmaps(path), 0u);
    std::vector<std::wstring> calls;
    for (const std::wstring& line : vttest::LibraryCalls()) {
        for (const wchar_t* const name : {L"FindClose", L"RemoveDirectoryW"}) {
            if (line.starts_with(name))
                calls.emplace_back(name);
        }
    }
    EXPECT_TRUE(calls == (std::vector<std::wstring>{L"FindClose", L"RemoveDirectoryW"}));
}

TEST_F(ContainerRemove, FolderThatStaysReturnsTheErrorAndThePathIsConsumed)
{
    PutBoth();
    vtfltsim::FailCall(L"RemoveDirectoryW", ERROR_SHARING_VIOLATION);
    std::wstring path = volume.Root();
    EXPECT_EQ(container->RemoveAllBitmaps(path), DWORD{ERROR_SHARING_VIOLATION});
    EXPECT_TRUE(path.empty());
    log.ExpectExactly({{0, ERROR_SHARING_VIOLATION,
                        L"CBitmapContainer::RemoveAllBitmaps::Failed to delete directory " + FolderPath()}});
    EXPECT_TRUE(FileExists(volume, FOLDER));
    EXPECT_FALSE(BaseFile().exists);
}

TEST_F(ContainerRemove, FolderThatIsMissingIsAFailure)
{
    std::wstring path = volume.Root();
    EXPECT_EQ(container->RemoveAllBitmaps(path), DWORD{ERROR_PATH_NOT_FOUND});
    log.ExpectExactly(
        {{0, ERROR_PATH_NOT_FOUND, L"CBitmapContainer::RemoveAllBitmaps::Failed to delete directory " + FolderPath()}});
}

class ContainerResyncList : public ContainerRemove {
protected:
    std::wstring AddFailed() const
    {
        return L"CBitmapContainer::AddVolumeToResyncList: Failed to add volume Volume" + volume.guid +
               L" to app1 application verify list. So deleting the application bitmap files of the volume.";
    }
};

TEST_F(ContainerResyncList, PutsTheGuidOnTheApplicationsVerifyListAndOnNoOther)
{
    PutBoth();
    EXPECT_EQ(container->AddVolumeToResyncList(), 0u);
    DWORD type = 0;
    EXPECT_TRUE(machine.ReadValue(SERVICE_KEY, L"DeviceListForReSyncapp1.Last", &type) ==
                MultiStringBytes({volume.guid}));
    EXPECT_EQ(type, DWORD{REG_MULTI_SZ});
    EXPECT_FALSE(ValueExists(SERVICE_KEY, L"DeviceListForReSyncapp1"));
    EXPECT_FALSE(ValueExists(SERVICE_KEY, L"DeviceListForReSync"));
    EXPECT_TRUE(BaseFile().exists);
    log.ExpectExactly({}, 0);
}

TEST_F(ContainerResyncList, KeepsTheVolumesThatAreListedBehindTheNewOne)
{
    SetVerifyList(APP, {L"{other}", volume.guid});
    EXPECT_EQ(container->AddVolumeToResyncList(), 0u);
    EXPECT_TRUE(VerifyList(APP) == (std::vector<std::wstring>{volume.guid, L"{other}"}));
}

TEST_F(ContainerResyncList, WhenTheListCannotBeWrittenTheFilesAreDeletedAndTheListsErrorIsReturned)
{
    PutBoth();
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_REGISTRY_IO_FAILED);
    EXPECT_EQ(container->AddVolumeToResyncList(), DWORD{ERROR_REGISTRY_IO_FAILED});
    log.ExpectExactly({{0, ERROR_REGISTRY_IO_FAILED, AddFailed()}}, 0);
    EXPECT_FALSE(BaseFile().exists);
    EXPECT_FALSE(ChildFile().exists);
    ExpectNoVerifyList();
}

TEST_F(ContainerResyncList, WhenTheListsMutexCannotBeHadTheFilesAreDeleted)
{
    PutBoth();
    vtfltsim::FailCall(L"CreateMutexW", ERROR_ACCESS_DENIED, L"DeviceListForReSyncapp1.Last");
    EXPECT_EQ(container->AddVolumeToResyncList(), vtflt::BM_ERR_MUTEX_ACCESS);
    log.ExpectLogged(0, vtflt::BM_ERR_MUTEX_ACCESS, AddFailed());
    EXPECT_FALSE(BaseFile().exists);
    EXPECT_FALSE(ChildFile().exists);
}

TEST_F(ContainerResyncList, WhenTheFilesCannotBeDeletedEitherThatIsLoggedAndTheListsErrorStays)
{
    PutBoth();
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_REGISTRY_IO_FAILED);
    vtfltsim::FailCall(L"DeleteFileW", ERROR_ACCESS_DENIED, nullptr, 1, 2);
    EXPECT_EQ(container->AddVolumeToResyncList(), DWORD{ERROR_REGISTRY_IO_FAILED});
    log.ExpectExactly({{0, ERROR_REGISTRY_IO_FAILED, AddFailed()},
                       {0, ERROR_ACCESS_DENIED, BaseFailed()},
                       {0, ERROR_ACCESS_DENIED, ChildFailed()},
                       {0, ERROR_ACCESS_DENIED,
                        L"CBitmapContainer::AddVolumeToResyncList: Failed to delete app1 application bitmaps."}},
                      0);
    EXPECT_TRUE(BaseFile().exists);
    EXPECT_TRUE(ChildFile().exists);
}

TEST_F(ContainerResyncList, KeyIsTheRestOfTheVolumeNameBehindSixCharacters)
{
    vtflt::CBitmapContainer other;
    other.init(L"Volume{x}\\", APP);
    EXPECT_EQ(other.AddVolumeToResyncList(), 0u);
    other.init(L"C:", APP);
    EXPECT_EQ(other.AddVolumeToResyncList(), 0u);
    EXPECT_TRUE(VerifyList(APP) == (std::vector<std::wstring>{L"C:", L"{x}"}));
}

TEST_F(ContainerRemove, OfEveryApplicationWithoutARootLooksInTheRootOfTheDrive)
{
    std::wstring root;
    StartRecordingSearches();
    EXPECT_NE(container->RemoveAllBitmaps(root), 0u);
    EXPECT_EQ(Searched(), L"FindFirstFileW \\VelVolTrc\\*.*");
}

TEST_F(ContainerRemove, WhereMemoryIsShortTheVolumeIsOnTheVerifyListOrHasNoFiles)
{
    bool refused = false;
    const std::vector<std::wstring> listed{volume.guid};
    const auto prepare = [&] {
        if (ValueExists(SERVICE_KEY, L"DeviceListForReSyncapp1.Last"))
            DeleteValue(SERVICE_KEY, L"DeviceListForReSyncapp1.Last");
        PutBoth();
        log.Clear();
    };
    ForEveryFailingAllocation(
        prepare, [&] { return container->AddVolumeToResyncList(); },
        [&](DWORD result) {
            EXPECT_EQ(BaseFile().exists, result == 0);
            EXPECT_EQ(ChildFile().exists, result == 0);
            if (result == 0) {
                EXPECT_EQ(VerifyList(APP), listed);
                return;
            }
            refused = true;
            EXPECT_EQ(result, 8u);
            log.ExpectLogged(
                0, 8,
                L"CBitmapContainer::AddVolumeToResyncList: Failed to add volume Volume" + volume.guid +
                    L" to app1 application verify list. So deleting the application bitmap files of the volume.");
        });
    EXPECT_TRUE(refused);
    ExpectOnVerifyList();
}

TEST_F(ContainerRemove, AnswersAWalkOverTheVolumesThatFails)
{
    PutBoth();
    for (const wchar_t* step : {L"FindFirstVolumeW", L"FindNextVolumeW"}) {
        vtfltsim::FailCall(step, ERROR_NOT_READY);
        EXPECT_EQ(vtflt::RemoveApplicationBitmaps(APP), static_cast<DWORD>(ERROR_NOT_READY));
        VTFltSimClearCallFaults();
    }
}

} // namespace
