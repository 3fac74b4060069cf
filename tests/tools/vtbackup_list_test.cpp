// The list of registered applications grows while it is read: vtbackup asks again.
#include "support/child.h"
#include "tools/vtbackup_test.h"

using namespace vtbackup_test;

namespace {

constexpr wchar_t QUERY[] = L"RegQueryValueExW|RegisteredAppIDs|";

class VtBackupList : public VtBackupTest {
protected:
    void SetUp() override
    {
        ASSERT_EQ(EXIT_OK, Init().exitCode);
        ASSERT_EQ(EXIT_OK, Backup().exitCode);
        Write(20, 0x99);
    }

    // A backup in which these questions for the list, counted from the first, are told that it does not fit.
    Result BackupWithFailures(unsigned first, unsigned count) const
    {
        return Backup(L"App", L"fail|" + std::wstring(QUERY) + std::to_wstring(first) + L"|" + std::to_wstring(count) +
                                  L"|" + std::to_wstring(ERROR_MORE_DATA));
    }
};

TEST_F(VtBackupList, AnApplicationThatRegistersBetweenItsLengthAndItselfDoesNotEndTheBackup)
{
    const std::wstring name = vttest::UniqueName(L"vtbackup_list");
    const vtflt::UniqueHandle reached = vttest::NamedEvent(name + L".reached");
    const vtflt::UniqueHandle go = vttest::NamedEvent(name + L".go");
    Process process(Arguments(L"backup", L"App", &volume), L"pause|" + std::wstring(QUERY) + L"2|" + name);
    const HANDLE either[] = {reached.get(), process.Get()};
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(2, either, FALSE, INFINITE));
    EXPECT_EQ(EXIT_OK, Init(L"Another").exitCode);
    SetEvent(go.get());
    const Result result = process.Finish();
    EXPECT_EQ(EXIT_OK, result.exitCode) << result.err;
    EXPECT_EQ("incremental", result.kind);
    EXPECT_TRUE(Contents() == Restored());
}

TEST_F(VtBackupList, ThreeMoreQuestionsAreAsked)
{
    EXPECT_EQ(EXIT_OK, BackupWithFailures(1, 3).exitCode);
    const Result result = BackupWithFailures(1, 4);
    EXPECT_EQ(EXIT_DEVICE, result.exitCode);
    EXPECT_NE(std::string::npos, result.message.find("reading the registered applications failed")) << result.message;
}

TEST_F(VtBackupList, SoTheyAreForTheVerifyList)
{
    constexpr unsigned REPLICATION = 7; // the question that its replication begins with
    EXPECT_EQ(EXIT_OK, BackupWithFailures(REPLICATION, 3).exitCode);
    const Result result = BackupWithFailures(REPLICATION, 4);
    EXPECT_EQ(EXIT_DEVICE, result.exitCode);
    EXPECT_NE(std::string::npos, result.message.find("VTReplicateVerifyList failed")) << result.message;
}

TEST_F(VtBackupList, SoTheyAreForTheManager)
{
    constexpr unsigned MANAGER = 15; // the question for the length that its making begins with
    EXPECT_EQ(EXIT_OK, BackupWithFailures(MANAGER, 3).exitCode);
    const Result result = BackupWithFailures(MANAGER, 4);
    EXPECT_EQ(EXIT_DEVICE, result.exitCode);
    EXPECT_NE(std::string::npos, result.message.find("VTFltInitBitmapManager failed")) << result.message;
}

} // namespace
