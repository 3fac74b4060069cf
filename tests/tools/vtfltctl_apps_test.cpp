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

TEST_F(VtFltCtlApps, CleaningWaitsForNoBackupForEver)
{
    Register(L"Nightly");
    const vtflt::UniqueHandle mutex(CreateMutexW(nullptr, TRUE, volume.MutexName().c_str()));
    const Result result = Run({L"apps", L"clean", L"Nightly", L"--yes"});
    ReleaseMutex(mutex.get());
    EXPECT_EQ(EXIT_BUSY, result.exitCode) << result.err;
    EXPECT_TRUE(HasFiles(L"Nightly"));
}

} // namespace
} // namespace vtfltctl_test
