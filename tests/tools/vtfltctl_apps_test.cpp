// apps list, register, unregister and clean.
#include "tools/vtfltctl_test.h"

namespace vtfltctl_test {
namespace {

using nlohmann::json;
using vtlog_test::Result;
using vtlog_test::Utf8;

class VtFltCtlApps : public VtFltCtlTest {
protected:
    [[nodiscard]] bool HasFiles(const std::wstring& application) const
    {
        return GetFileAttributesW(BitmapFile(L"base", application).c_str()) != INVALID_FILE_ATTRIBUTES &&
               GetFileAttributesW(BitmapFile(L"child", application).c_str()) != INVALID_FILE_ATTRIBUTES;
    }
};

TEST_F(VtFltCtlApps, AnEmptyListIsSaidInWords)
{
    EXPECT_EQ("No application is registered.\n", Run({L"apps", L"list"}).out);
    EXPECT_EQ(json::array(), RunJson({L"apps", L"list"}, EXIT_OK)["applications"]);
}

TEST_F(VtFltCtlApps, LookingMakesNoKey)
{
    for (const std::vector<std::wstring>& command :
         {std::vector<std::wstring>{L"verify", L"list"}, std::vector<std::wstring>{L"apps", L"list"},
          std::vector<std::wstring>{L"status"}, std::vector<std::wstring>{L"doctor"}}) {
        EXPECT_EQ(EXIT_OK, Run(command).exitCode);
        HKEY root = nullptr;
        vtfltsim::Check("VTFltSimOpenKey", VTFltSimOpenKey(machine.handle(), L"", KEY_READ, &root));
        HKEY key = nullptr;
        EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegOpenKeyExW(root, IDS_KEY, 0, KEY_READ, &key)) << Utf8(command.front());
        RegCloseKey(root);
    }
}

TEST_F(VtFltCtlApps, RegisteringGivesFilesAndAPlaceInTheList)
{
    const json answer = RunJson({L"apps", L"register", L"Nightly"}, EXIT_OK);
    EXPECT_TRUE(answer["changed"].get<bool>());
    EXPECT_TRUE(HasFiles(L"Nightly"));
    Register(L"Weekly");
    EXPECT_EQ("Nightly\nWeekly\n", Run({L"apps", L"list"}).out);
    EXPECT_EQ(json::array({"Nightly", "Weekly"}), RunJson({L"apps", L"list"}, EXIT_OK)["applications"]);
}

TEST_F(VtFltCtlApps, RegisteringTwiceChangesNothing)
{
    Register(L"Nightly");
    const std::string before = Fingerprint();
    EXPECT_FALSE(RunJson({L"apps", L"register", L"Nightly"}, EXIT_OK)["changed"].get<bool>());
    EXPECT_NE(std::string::npos, Run({L"apps", L"register", L"Nightly"}).out.find("already"));
    EXPECT_TRUE(before == Fingerprint());
}

TEST_F(VtFltCtlApps, AnIdMayHoldBlanksInsideAndCharactersOutsideTheBasicPlane)
{
    const std::wstring id = L"N\x00E4"
                            L"cht \xD834\xDD1E li\x7D71";
    Register(id);
    EXPECT_TRUE(HasFiles(id));
    EXPECT_EQ(Utf8(id) + "\n", Run({L"apps", L"list"}).out);
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"unregister", id, L"--yes"}).exitCode);
    EXPECT_FALSE(HasFiles(id));
}

TEST_F(VtFltCtlApps, UnsuitableIdsAreRefused)
{
    Register(L"MyApp");
    const std::vector<std::wstring> ids = {
        L"App ",   L" App",  L" ",   L"A*B",  std::wstring(3000, L'x'),
        L"a\\b",   L"a/b",   L"a:b", L"a\tb", L"X.Last",
        L"x.LAST", L"myapp", L"App", L"p",    L"OhMyApp",
    };
    for (const std::wstring& id : ids)
        EXPECT_NE(std::string::npos, ExpectRefusal({L"apps", L"register", id}, EXIT_REFUSED).find("is refused"))
            << Utf8(id);
}

TEST_F(VtFltCtlApps, AnEmptyIdIsAUsageError)
{
    ExpectRefusal({L"apps", L"register", L""}, EXIT_USAGE);
    ExpectRefusal({L"apps", L"unregister", L"", L"--yes"}, EXIT_USAGE);
    ExpectRefusal({L"apps", L"clean", L"", L"--yes"}, EXIT_USAGE);
}

TEST_F(VtFltCtlApps, AnIdThatBeginsWithASlashIsNoOption)
{
    ExpectRefusal({L"apps", L"register", L"/help"}, EXIT_REFUSED);
    ExpectRefusal({L"apps", L"unregister", L"/x"}, EXIT_NOT_FOUND);
}

TEST_F(VtFltCtlApps, UnregisteringNeedsYes)
{
    Register(L"Nightly");
    EXPECT_NE(std::string::npos, ExpectRefusal({L"apps", L"unregister", L"Nightly"}, EXIT_REFUSED).find("--yes"));
    EXPECT_TRUE(RunJson({L"apps", L"unregister", L"Nightly", L"--yes"}, EXIT_OK)["changed"].get<bool>());
    EXPECT_FALSE(HasFiles(L"Nightly"));
    EXPECT_EQ("No application is registered.\n", Run({L"apps", L"list"}).out);
}

TEST_F(VtFltCtlApps, UnregisteringWhoIsNotRegisteredIsNotFound)
{
    Register(L"Nightly");
    for (const wchar_t* id : {L"Weekly", L"nightly", L"Night", L"*", L"Nightly "})
        ExpectRefusal({L"apps", L"unregister", id, L"--yes"}, EXIT_NOT_FOUND);
    ExpectRefusal({L"apps", L"unregister", std::wstring(3000, L'x'), L"--yes"}, EXIT_NOT_FOUND);
}

TEST_F(VtFltCtlApps, AnIdThatStandsAtTheEndOfAnotherIsNotUnregisteredFirst)
{
    StoreList(L"RegisteredAppIDs", {L"MyApp", L"App"}, IDS_KEY);
    EXPECT_NE(std::string::npos,
              ExpectRefusal({L"apps", L"unregister", L"App", L"--yes"}, EXIT_REFUSED).find("would be cut"));
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"unregister", L"MyApp", L"--yes"}).exitCode);
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"unregister", L"App", L"--yes"}).exitCode);
    EXPECT_TRUE(StoredList(L"RegisteredAppIDs", IDS_KEY).empty());
}

TEST_F(VtFltCtlApps, AnIdThatIsRegisteredTwiceStaysRegisteredOnce)
{
    Register(L"Nightly");
    StoreList(L"RegisteredAppIDs", {L"Nightly", L"Nightly"}, IDS_KEY);
    const Result first = Run({L"apps", L"unregister", L"Nightly", L"--yes"});
    EXPECT_EQ(EXIT_OK, first.exitCode) << first.err;
    EXPECT_NE(std::string::npos, first.out.find("still is registered")) << first.out;
    EXPECT_EQ(std::vector<std::wstring>{L"Nightly"}, StoredList(L"RegisteredAppIDs", IDS_KEY));
    EXPECT_EQ("is unregistered", Run({L"apps", L"unregister", L"Nightly", L"--yes"}).out.substr(22, 15));
    StoreList(L"RegisteredAppIDs", {L"Nightly", L"Nightly"}, IDS_KEY);
    for (const bool still : {true, false}) {
        const json answer = RunJson({L"apps", L"unregister", L"Nightly", L"--yes"}, EXIT_OK);
        EXPECT_EQ(still, answer["registered"]);
        EXPECT_EQ(true, answer["changed"]);
    }
}

TEST_F(VtFltCtlApps, AListOfAnotherTypeIsUnreadable)
{
    StoreList(L"RegisteredAppIDs", {L"Nightly"}, IDS_KEY, REG_SZ);
    ExpectRefusal({L"apps", L"list"}, EXIT_UNREADABLE);
    ExpectRefusal({L"apps", L"register", L"Nightly"}, EXIT_UNREADABLE);
    ExpectRefusal({L"apps", L"unregister", L"Nightly", L"--yes"}, EXIT_UNREADABLE);
}

TEST_F(VtFltCtlApps, CleaningDeletesTheFilesAndMakesTheNextBackupVerify)
{
    Register(L"Nightly");
    Register(L"Weekly");
    EXPECT_NE(std::string::npos,
              ExpectRefusal({L"apps", L"clean", L"Nightly", L"--volume", L"E:"}, EXIT_REFUSED).find("2 bitmap files"));
    const json answer = RunJson({L"apps", L"clean", L"Nightly", L"--volume", volume.Root(), L"--yes"}, EXIT_OK);
    EXPECT_EQ(2u, answer["deleted"].size());
    EXPECT_FALSE(HasFiles(L"Nightly"));
    EXPECT_TRUE(HasFiles(L"Weekly"));
    EXPECT_EQ(std::vector<std::wstring>{volume.guid}, StoredList(L"DeviceListForReSyncNightly.Last"));
    EXPECT_TRUE(StoredList(L"DeviceListForReSyncWeekly.Last").empty());
}

TEST_F(VtFltCtlApps, CleaningWorksForWhoIsNotRegistered)
{
    Register(L"Nightly");
    StoreList(L"RegisteredAppIDs", {L"Weekly"}, IDS_KEY);
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"clean", L"Nightly", L"--yes"}).exitCode);
    EXPECT_FALSE(HasFiles(L"Nightly"));
    EXPECT_TRUE(StoredList(L"DeviceListForReSyncNightly.Last").empty());
}

TEST_F(VtFltCtlApps, FilesSharedByCaseMakeTheirRegisteredOwnerVerify)
{
    Register(L"Nightly");
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"clean", L"NIGHTLY", L"--yes"}).exitCode);
    EXPECT_EQ(std::vector<std::wstring>{volume.guid}, StoredList(L"DeviceListForReSyncNightly.Last"));
}

TEST_F(VtFltCtlApps, CleaningWhatIsNotThereIsNotFound)
{
    Register(L"Nightly");
    ExpectRefusal({L"apps", L"clean", L"Weekly", L"--yes"}, EXIT_NOT_FOUND);
    ExpectRefusal({L"apps", L"clean", L"..\\x", L"--yes"}, EXIT_USAGE);
    ExpectRefusal({L"apps", L"clean", L"*", L"--yes"}, EXIT_USAGE);
    ExpectRefusal({L"apps", L"clean", L"Nightly", L"--volume", L"Q:", L"--yes"}, EXIT_NOT_FOUND);
}

TEST_F(VtFltCtlApps, AnIdTooLongForItsFilesIsNotCleaned)
{
    // The path of such an ID's files is cut to this other one's.
    const std::wstring longest(180, L'x');
    Register(longest);
    for (const std::size_t more : {std::size_t{1}, std::size_t{4}, std::size_t{5}, std::size_t{200}}) {
        const std::wstring id = longest + std::wstring(more, L'x');
        EXPECT_NE(std::string::npos,
                  ExpectRefusal({L"apps", L"clean", id, L"--yes"}, EXIT_REFUSED).find("is too long"));
    }
    EXPECT_TRUE(HasFiles(longest));
    EXPECT_EQ(EXIT_OK, Run({L"apps", L"clean", longest, L"--yes"}).exitCode);
    EXPECT_FALSE(HasFiles(longest));
}

TEST_F(VtFltCtlApps, AFileThatCannotBeDeletedIsToldWithItsReason)
{
    Register(L"Nightly");
    // The look whether the file is still there leaves another error behind.
    const vtlog_test::Result result =
        vtlog_test::Process({L"apps", L"clean", L"Nightly", L"--yes", L"--simulate", machine.directory()},
                            {L"VTFLTSIM_CALLS=fail|DeleteFileW|VelVolTrc_base_|1|1|32;"
                             L"return|GetFileAttributesW|VelVolTrc_base_|2|1|1234|128"},
                            L"vtfltctl.exe")
            .Finish();
    EXPECT_EQ(EXIT_UNREADABLE, result.exitCode) << result.err;
    EXPECT_NE(std::string::npos, result.err.find("cannot delete")) << result.err;
    EXPECT_NE(std::string::npos, result.err.find("32)")) << result.err;
    EXPECT_TRUE(HasFiles(L"Nightly"));
}

} // namespace
} // namespace vtfltctl_test
