// Making the folder of a log file ready: its parents, LocalService's rights, compression.
#include "log/log_folder.h"
#include "log_file_test.h"

#include <aclapi.h>
#include <sddl.h>

using namespace vtflt;
using namespace vttest;

namespace {

class Folder : public LogFileTest {
protected:
    bool Prepare(const std::wstring& file, const std::wstring& defaultFolder = L"Q:\\elsewhere\\Logs\\")
    {
        VTFltSimRecord(1);
        const bool prepared = PrepareLogFolder(file, defaultFolder);
        VTFltSimRecord(0);
        return prepared;
    }
    // The entries of a folder's list for an account; -1 when the folder has no list. added: the last of them.
    static int EntriesFor(wchar_t* folder, const wchar_t* accountText, ACCESS_ALLOWED_ACE* added = nullptr)
    {
        PACL list = nullptr;
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        EXPECT_EQ(static_cast<DWORD>(ERROR_SUCCESS),
                  GetNamedSecurityInfoW(folder, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &list,
                                        nullptr, &descriptor));
        const UniqueLocalMemory owner(descriptor);
        PSID account = nullptr;
        EXPECT_TRUE(ConvertStringSidToSidW(accountText, &account));
        const UniqueLocalMemory accountOwner(account);
        int count = list != nullptr ? 0 : -1;
        void* entry = nullptr;
        for (DWORD index = 0; list != nullptr && GetAce(list, index, &entry); ++index) {
            auto& allowed = *static_cast<ACCESS_ALLOWED_ACE*>(entry);
            if (!EqualSid(&allowed.SidStart, account))
                continue;
            ++count;
            if (added != nullptr)
                *added = allowed;
        }
        return count;
    }
    static std::wstring SetCompression(const std::wstring& folder)
    {
        return L"DeviceIoControl " + folder + L"|0x0009C040|in 2|out 0";
    }
    // The lines that one failing call leaves on the standard output; the folder's line goes to the trace.
    std::string PrintedWhenFails(const wchar_t* function)
    {
        vtfltsim::FailCall(function, ERROR_ACCESS_DENIED);
        testing::internal::CaptureStdout();
        EXPECT_TRUE(Prepare(m_folder.File(L"x.log")));
        std::fflush(stdout);
        const std::string printed = testing::internal::GetCapturedStdout();
        VTFltSimClearCallFaults();
        EXPECT_TRUE(TraceLines() ==
                    std::vector<std::wstring>{TraceLine(L"Failed to add local service access right for folder " +
                                                        m_folder.Path() + L"\r\n")});
        return printed;
    }
};

TEST_F(Folder, IsMadeWithAllItsMissingParentsOneLevelAtATime)
{
    EXPECT_TRUE(Prepare(m_folder.File(L"a\\b\\c\\x.log")));
    EXPECT_TRUE(Exists(m_folder.File(L"a\\b\\c")));
    EXPECT_FALSE(Exists(m_folder.File(L"a\\b\\c\\x.log")));
    const std::vector<std::wstring> made = Recorded(L"CreateDirectoryW");
    ASSERT_LE(3u, made.size());
    EXPECT_TRUE(made[made.size() - 3] == L"CreateDirectoryW " + m_folder.File(L"a"));
    EXPECT_TRUE(made[made.size() - 2] == L"CreateDirectoryW " + m_folder.File(L"a\\b"));
    EXPECT_TRUE(made[made.size() - 1] == L"CreateDirectoryW " + m_folder.File(L"a\\b\\c"));
}

TEST_F(Folder, ThatExistsIsAsGoodAsOneThatIsMade)
{
    EXPECT_TRUE(Prepare(m_folder.File(L"x.log")));
    EXPECT_TRUE(Prepare(m_folder.File(L"x.log")));
}

TEST_F(Folder, ThatCannotBeMadeIsReported)
{
    MakeFile(m_folder.File(L"file"), "a file stands in the way");
    EXPECT_FALSE(Prepare(m_folder.File(L"file\\x.log")));
    EXPECT_TRUE(Recorded(L"GetNamedSecurityInfoW").empty());
}

TEST_F(Folder, OfAPathWithoutABackslashIsNone)
{
    EXPECT_FALSE(Prepare(L"x.log"));
    EXPECT_FALSE(Prepare(L""));
    EXPECT_TRUE(vtfltsim::Trace().empty());
}

TEST_F(Folder, ADrivesRootIsNotTheDrivesCurrentFolder)
{
    if (ON_DOUBLE) { // there the record of this call shows no path, and an added entry is kept
        const auto isGranted = [] {
            wchar_t root[] = L"C:\\";
            return EntriesFor(root, L"S-1-5-19") != 0;
        };
        EXPECT_FALSE(isGranted());
        EXPECT_TRUE(Prepare(L"C:\\x.log"));
        EXPECT_TRUE(isGranted());
        wchar_t root[] = L"C:\\";
        SetNamedSecurityInfoW(root, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, nullptr, nullptr);
        return;
    }
    vtfltsim::FailCall(L"GetNamedSecurityInfoW", ERROR_ACCESS_DENIED);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(Prepare(L"C:\\x.log"));
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(1u, Recorded(L"GetNamedSecurityInfoW").size());
    EXPECT_EQ(0u, Recorded(L"GetNamedSecurityInfoW")[0].find(L"GetNamedSecurityInfoW C:\\|"));
}

TEST_F(Folder, GetsAnEntryForLocalServiceMergedIntoItsList)
{
    EXPECT_TRUE(Prepare(m_folder.File(L"x.log")));
    EXPECT_EQ(1u, Recorded(L"GetNamedSecurityInfoW").size());
    EXPECT_EQ(1u, Recorded(L"SetEntriesInAclW").size());
    EXPECT_EQ(1u, Recorded(L"SetNamedSecurityInfoW").size());
    EXPECT_TRUE(TraceLines().empty());
}

TEST_F(Folder, KeepsTheOtherEntriesAndGetsNoSecondOneForLocalService)
{
    if (!ON_DOUBLE)
        GTEST_SKIP() << "Wine keeps no added entry";
    std::wstring path = m_folder.Path();
    const int administrators = EntriesFor(path.data(), L"S-1-5-32-544");
    ASSERT_LE(1, administrators);
    EXPECT_TRUE(Prepare(m_folder.File(L"x.log")));
    ACCESS_ALLOWED_ACE added = {};
    EXPECT_EQ(1, EntriesFor(path.data(), L"S-1-5-19", &added));
    EXPECT_EQ(BYTE{ACCESS_ALLOWED_ACE_TYPE}, added.Header.AceType);
    EXPECT_EQ(BYTE{OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE}, added.Header.AceFlags);
    EXPECT_EQ(DWORD{0x1301BF}, added.Mask);
    EXPECT_EQ(administrators, EntriesFor(path.data(), L"S-1-5-32-544"));
    EXPECT_TRUE(Prepare(m_folder.File(L"x.log")));
    EXPECT_EQ(1u, Recorded(L"GetNamedSecurityInfoW").size());
    EXPECT_TRUE(Recorded(L"SetEntriesInAclW").empty());
    EXPECT_EQ(1, EntriesFor(path.data(), L"S-1-5-19"));
}

TEST_F(Folder, WithoutAListIsOpenToEveryoneAndStaysSo)
{
    if (!ON_DOUBLE)
        GTEST_SKIP() << "Wine gives every folder a list";
    std::wstring path = m_folder.Path();
    ASSERT_EQ(static_cast<DWORD>(ERROR_SUCCESS),
              SetNamedSecurityInfoW(path.data(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, nullptr,
                                    nullptr));
    EXPECT_TRUE(Prepare(m_folder.File(L"x.log")));
    EXPECT_TRUE(Recorded(L"SetEntriesInAclW").empty());
    EXPECT_EQ(-1, EntriesFor(path.data(), L"S-1-5-19"));
    EXPECT_TRUE(TraceLines().empty());
}

TEST_F(Folder, AnAccountThatCannotBeNamedIsTraced)
{
    EXPECT_EQ("", PrintedWhenFails(L"ConvertStringSidToSidW"));
}

TEST_F(Folder, ThatIsNeitherMadeNorThereIsReported)
{
    EXPECT_FALSE(Prepare(L"Q:\\missing\\x.log"));
    EXPECT_TRUE(Recorded(L"GetNamedSecurityInfoW").empty());
}

TEST_F(Folder, WhoseAttributesCannotBeReadIsNotCompressed)
{
    vtfltsim::FailCall(L"GetFileAttributesW", ERROR_ACCESS_DENIED);
    EXPECT_TRUE(Prepare(m_folder.File(L"Logs\\x.log"), m_folder.File(L"Logs\\")));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    EXPECT_TRUE(Recorded(L"DeviceIoControl").empty());
}

TEST_F(Folder, AnAccessListThatCannotBeReadIsPrintedAndTraced)
{
    EXPECT_EQ("GetNamedSecurityInfo Error 5\n", PrintedWhenFails(L"GetNamedSecurityInfoW"));
}

TEST_F(Folder, AnEntryThatCannotBeMergedIsPrintedAndTraced)
{
    EXPECT_EQ("SetEntriesInAcl Error 5\n", PrintedWhenFails(L"SetEntriesInAclW"));
}

TEST_F(Folder, AnAccessListThatCannotBeStoredIsPrintedAndTraced)
{
    EXPECT_EQ("SetNamedSecurityInfo Error 5\n", PrintedWhenFails(L"SetNamedSecurityInfoW"));
}

// Access lists of the case's own, because the file system here keeps no added entry.
class AccessList : public testing::Test {
protected:
    static bool Grants(const wchar_t* text)
    {
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(text, SDDL_REVISION_1, &descriptor, nullptr))
            << Narrow(text);
        const UniqueLocalMemory owner(descriptor);
        PSID account = nullptr;
        EXPECT_TRUE(ConvertStringSidToSidW(L"S-1-5-19", &account));
        const UniqueLocalMemory accountOwner(account);
        BOOL isPresent = FALSE;
        BOOL isDefault = FALSE;
        PACL list = nullptr;
        EXPECT_TRUE(GetSecurityDescriptorDacl(descriptor, &isPresent, &list, &isDefault));
        return list != nullptr && GrantsModifyRights(list, account);
    }
};

TEST_F(AccessList, AnOwnEntryWithAllTheRightsIsEnough)
{
    EXPECT_TRUE(Grants(L"D:(A;;0x1301bf;;;S-1-5-19)"));
    EXPECT_TRUE(Grants(L"D:(A;;0x1f01ff;;;S-1-5-19)"));
    EXPECT_TRUE(Grants(L"D:(A;;0x1f01ff;;;WD)(A;OICI;0x1301bf;;;S-1-5-19)"));
}

TEST_F(AccessList, AnEntryThatLacksARightIsNot)
{
    EXPECT_FALSE(Grants(L"D:(A;;0x1301be;;;S-1-5-19)"));
    EXPECT_FALSE(Grants(L"D:(A;;0x1200a9;;;S-1-5-19)(A;;0x110116;;;S-1-5-19)"));
}

TEST_F(AccessList, AnInheritedEntryIsNot)
{
    EXPECT_FALSE(Grants(L"D:(A;OICIID;0x1301bf;;;S-1-5-19)"));
}

TEST_F(AccessList, AnEntryThatDeniesOrIsAnothersIsNot)
{
    EXPECT_FALSE(Grants(L"D:(D;;0x1301bf;;;S-1-5-19)"));
    EXPECT_FALSE(Grants(L"D:(A;;0x1f01ff;;;S-1-5-20)"));
}

TEST_F(Folder, TheDefaultFolderIsCompressed)
{
    EXPECT_TRUE(Prepare(m_folder.File(L"Logs\\x.log"), m_folder.File(L"LOGS\\")));
    EXPECT_TRUE(Recorded(L"DeviceIoControl") == std::vector<std::wstring>{SetCompression(m_folder.File(L"Logs"))});
    if (!ON_DOUBLE)
        GTEST_SKIP() << "Wine compresses nothing";
    EXPECT_NE(0u, GetFileAttributesW(m_folder.File(L"Logs").c_str()) & FILE_ATTRIBUTE_COMPRESSED);
}

TEST_F(Folder, AFolderAboveTheDefaultOneIsCompressedToo)
{
    EXPECT_TRUE(Prepare(m_folder.File(L"x.log"), m_folder.File(L"Logs\\")));
    EXPECT_EQ(1u, Recorded(L"DeviceIoControl").size());
}

TEST_F(Folder, AnotherFolderIsNotCompressed)
{
    EXPECT_TRUE(Prepare(m_folder.File(L"Other\\x.log"), m_folder.File(L"Logs\\")));
    EXPECT_TRUE(Recorded(L"DeviceIoControl").empty());
}

TEST_F(Folder, ACompressedFolderIsLeftAlone)
{
    VTFLTSIM_CALL_FAULT fault = {};
    fault.size = sizeof(fault);
    fault.what = VTFLTSIM_CALL_RETURNS;
    fault.function = L"GetFileAttributesW";
    fault.value = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_COMPRESSED;
    vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    EXPECT_TRUE(Prepare(m_folder.File(L"Logs\\x.log"), m_folder.File(L"Logs\\")));
    EXPECT_TRUE(Recorded(L"DeviceIoControl").empty());
}

TEST_F(Folder, ThatCannotBeOpenedForCompressionIsUsedAllTheSame)
{
    vtfltsim::FailCall(L"CreateFileW", ERROR_ACCESS_DENIED);
    EXPECT_TRUE(Prepare(m_folder.File(L"Logs\\x.log"), m_folder.File(L"Logs\\")));
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    EXPECT_TRUE(Recorded(L"DeviceIoControl").empty());
}

TEST_F(Folder, OfAFirstRecordIsPreparedBeforeTheFileIsOpened)
{
    Start(m_folder.File(L"new\\x.log"));
    Write(L"m");
    EXPECT_TRUE(Texts(m_folder.File(L"new\\x.log")) == std::vector<std::wstring>{L"m"});
}

class AccessListFaults : public LogFileTest {};

TEST_F(AccessListFaults, AnEntryThatCannotBeReadIsPassedOver)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(
        L"D:(A;;0x1301bf;;;S-1-5-19)(A;;0x1301bf;;;S-1-5-19)", SDDL_REVISION_1, &descriptor, nullptr));
    const UniqueLocalMemory owner(descriptor);
    PSID account = nullptr;
    ASSERT_TRUE(ConvertStringSidToSidW(L"S-1-5-19", &account));
    const UniqueLocalMemory accountOwner(account);
    BOOL isPresent = FALSE;
    BOOL isDefault = FALSE;
    PACL list = nullptr;
    ASSERT_TRUE(GetSecurityDescriptorDacl(descriptor, &isPresent, &list, &isDefault));
    vtfltsim::FailCall(L"GetAce", ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(GrantsModifyRights(list, account)) << "the second one grants them";
    VTFltSimClearCallFaults();
    vtfltsim::FailCall(L"GetAce", ERROR_INVALID_PARAMETER, nullptr, 1, 2);
    EXPECT_FALSE(GrantsModifyRights(list, account));
}

} // namespace
