// Whether the next backup of a volume must verify.
#include "support/apps_test.h"

namespace {

using namespace std::literals;
using namespace vttest;

class VerifyRequired : public AppsTest {
protected:
    VerifyRequired() { Register(L"App1"); }

    DWORD Ask() { return VTIsVerifyRequired(L"App1", volume.Root().c_str()); }

    Volume volume = machine.AddVolume(LENGTH, BLOCK);
    Volume other = machine.AddVolume(LENGTH, BLOCK);
};

TEST_F(VerifyRequired, WithGoodFilesAndNoMarkTheAnswerIsNo)
{
    EXPECT_EQ(0u, Ask());
    ExpectNoList(L"App1.Last");
    ExpectNothingLeftOpen();
}

TEST_F(VerifyRequired, TheBracedGuidOnTheListMatchesEverySpellingOfThePath)
{
    SetVerifyList(L"App1", {L"{other}", volume.guid});
    for (const std::wstring& path : {volume.Root(), volume.Path(), L"Volume" + volume.guid, volume.guid}) {
        log.Clear();
        EXPECT_EQ(1u, VTIsVerifyRequired(L"App1", path.c_str())) << Narrow(path);
        log.ExpectLogged(2, 0, L"IsVerifyRequired::Found the volume for verify backup");
    }
}

TEST_F(VerifyRequired, AnotherVolumesMarkOrAnotherApplicationsIsNotThisOnes)
{
    SetVerifyList(L"App1", {other.guid});
    SetVerifyList(L"App2", {volume.guid});
    EXPECT_EQ(0u, Ask());
}

// Of such a path nothing is left behind its first letter of "Volume": no list can name it.
TEST_F(VerifyRequired, APathWithoutAVolumeTakesNoOthersMarkAway)
{
    SetVerifyList(L"App1", {other.guid, L"{another}"});
    for (const wchar_t* const path : {L"V:\\", L"e:\\", L"D:\\vol\\", L"C:\\mount", L"\\\\?\\Volume\\"}) {
        EXPECT_EQ(1u, VTIsVerifyRequired(L"App1", path)) << Narrow(path);
        EXPECT_EQ((std::vector<std::wstring>{other.guid, L"{another}"}), VerifyList(L"App1")) << Narrow(path);
    }
}

TEST_F(VerifyRequired, LooksAtTheChildAlsoWhenTheBaseIsLost)
{
    RemoveFile(volume, BaseName(L"App1"));
    RemoveFile(volume, ChildName(L"App1"));
    EXPECT_EQ(1u, Ask());
    log.ExpectLogged(0, 2, L"Open bitmap file failed, file name:" + volume.Path() + L"\\" + BaseName(L"App1"));
    log.ExpectLogged(0, 2, L"Open bitmap file failed, file name:" + volume.Path() + L"\\" + ChildName(L"App1"));
}

TEST_F(VerifyRequired, ThePendingListIsNotAsked)
{
    StoreList(L"App1", volume.guid + L"\0\0"s);
    StoreList(L"", volume.guid + L"\0\0"s);
    EXPECT_EQ(0u, Ask());
}

TEST_F(VerifyRequired, EntriesAreMatchedInTheirCase)
{
    std::wstring guid = volume.guid;
    bool changed = false;
    for (wchar_t& character : guid) {
        if (character >= L'a' && character <= L'f') {
            character = static_cast<wchar_t>(character - L'a' + L'A');
            changed = true;
        } else if (character >= L'A' && character <= L'F') {
            character = static_cast<wchar_t>(character - L'A' + L'a');
            changed = true;
        }
    }
    ASSERT_TRUE(changed);
    SetVerifyList(L"App1", {guid});
    EXPECT_EQ(0u, Ask());
}

TEST_F(VerifyRequired, AMarkAnswersWithoutTheVolumesMutexOrItsFiles)
{
    SetVerifyList(L"App1", {volume.guid});
    const auto calls = CallsOf({L"CreateMutexW", L"ReadFile"}, [this] { EXPECT_EQ(1u, Ask()); });
    ExpectCalls({L"CreateMutexW " + ListMutex(L"App1.Last")}, calls);
}

TEST_F(VerifyRequired, AMissingFileAnswersYesAndPutsTheVolumeOnTheListInFront)
{
    for (const std::wstring& name : {BaseName(L"App1"), ChildName(L"App1")}) {
        SetVerifyList(L"App1", {other.guid});
        const Bytes kept = ReadFileBytes(volume, name);
        RemoveFile(volume, name);
        log.Clear();
        EXPECT_EQ(1u, Ask());
        EXPECT_TRUE(VerifyList(L"App1") == (Entries{volume.guid, other.guid}));
        log.ExpectLogged(0, 2, L"Open bitmap file failed, file name:" + volume.Path() + L"\\" + name);
        EXPECT_FALSE(FileExists(volume, name));
        WriteFileBytes(volume, name, kept);
    }
}

TEST_F(VerifyRequired, AnUnusableFileAnswersYesAndMarksTheVolume)
{
    const Bytes bad[] = {Bytes(10), Bytes(4096), TextBytes(L"STCA")};
    for (const Bytes& bytes : bad) {
        for (const std::wstring& name : {BaseName(L"App1"), ChildName(L"App1")}) {
            StoreList(L"App1.Last", L"\0\0"sv);
            const Bytes kept = ReadFileBytes(volume, name);
            WriteFileBytes(volume, name, bytes);
            EXPECT_EQ(1u, Ask());
            EXPECT_TRUE(VerifyList(L"App1") == Entries{volume.guid});
            WriteFileBytes(volume, name, kept);
        }
    }
}

TEST_F(VerifyRequired, AFileThatIsOnlyBusyIsNoReason)
{
    vtfltsim::FailCall(L"CreateFileW", ERROR_SHARING_VIOLATION, L"VelVolTrc_base_App1.dat");
    EXPECT_EQ(0u, Ask());
    ExpectStruck();
    ExpectNoList(L"App1.Last");
}

TEST_F(VerifyRequired, BothFilesAreReadUnderTheVolumesMutex)
{
    const auto calls = CallsOf({L"CreateMutexW", L"ReleaseMutex", L"ReadFile"}, [this] { EXPECT_EQ(0u, Ask()); });
    ASSERT_EQ(8u, calls.size());
    EXPECT_TRUE(calls[2] == L"CreateMutexW " + volume.MutexName());
    EXPECT_TRUE(calls[7] == L"ReleaseMutex " + volume.MutexName());
    for (std::size_t i = 3; i < 7; ++i)
        EXPECT_EQ(0u, calls[i].find(L"ReadFile")) << Narrow(calls[i]);
}

TEST_F(VerifyRequired, AMarkThatCannotBeWrittenChangesNothingInTheAnswer)
{
    RemoveFile(volume, BaseName(L"App1"));
    vtfltsim::FailCall(L"RegSetValueExW", ERROR_DISK_FULL, L"App1.Last");
    EXPECT_EQ(1u, Ask());
    ExpectStruck();
    ExpectNoList(L"App1.Last");
    EXPECT_EQ(1u, Ask());
    EXPECT_TRUE(VerifyList(L"App1") == Entries{volume.guid});
}

TEST_F(VerifyRequired, AListThatIsNotReadMeansVerify)
{
    vtfltsim::FailCall(L"RegQueryValueExW", NO_ACCESS, L"App1.Last");
    EXPECT_EQ(1u, Ask());
    ExpectStruck();
    vtfltsim::FailCall(L"RegCreateKeyExW", NO_ACCESS, SERVICE_KEY);
    EXPECT_EQ(1u, Ask());
    ExpectStruck();
    const vtflt::UniqueHandle event = Occupy(ListMutex(L"App1.Last"));
    EXPECT_EQ(1u, Ask());
}

TEST_F(VerifyRequired, WithoutTheVolumesMutexTheAnswerIsNo)
{
    RemoveFile(volume, BaseName(L"App1"));
    const vtflt::UniqueHandle event = Occupy(volume.MutexName());
    log.Clear();
    EXPECT_EQ(0u, Ask());
    ExpectNoList(L"App1.Last");
    log.ExpectExactly({NotMade(volume.MutexName()), NotTaken(L"IsVerifyRequired", volume.MutexName())}, 0);
}

TEST_F(VerifyRequired, ANamedVolumeThatDoesNotExistIsLost)
{
    EXPECT_EQ(1u, VTIsVerifyRequired(L"App1", L"\\\\?\\Volume{00000000-0000-0000-0000-000000000001}\\"));
    EXPECT_TRUE(VerifyList(L"App1") == Entries{L"{00000000-0000-0000-0000-000000000001}"});
}

} // namespace
