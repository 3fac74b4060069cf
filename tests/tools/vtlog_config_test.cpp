// vtlog config against a process that logs, and against blocks that somebody damaged.
#include "tools/vtlog_live_test.h"

namespace vtlog_test {
namespace {

class VtLogConfig : public VtLogTest {
protected:
    static Result Configure(DWORD pid, std::vector<std::wstring> options)
    {
        options.insert(options.begin(), {L"config", std::to_wstring(pid)});
        options.push_back(L"--json");
        return Run(options);
    }
};

TEST_F(VtLogConfig, ChangesAModuleSetsItBackAndRefusesWhatIsWrong)
{
    Writer writer;
    auto changed =
        Configure(writer.Id(), {L"--module", L"vtfltmgr.DLL", L"--level", L"4", L"--global-level", L"1"}).Json();
    ASSERT_EQ(1u, changed.size());
    EXPECT_EQ(1, changed[0]["globalLevel"]);
    EXPECT_EQ(4, changed[0]["modules"][0]["level"]);
    EXPECT_EQ(0xFFFD, changed[0]["modules"][0]["flags"]);
    changed = Configure(writer.Id(), {L"--module", L"VTFltMgr.dll", L"--auto", L"--global-level", L"none"}).Json();
    ASSERT_EQ(1u, changed.size());
    EXPECT_TRUE(changed[0]["globalLevel"].is_null());
    EXPECT_TRUE(changed[0]["modules"][0]["level"].is_null());
    EXPECT_EQ(0xFFFF, changed[0]["modules"][0]["flags"]);
    EXPECT_EQ(EXIT_NOT_FOUND, Configure(writer.Id(), {L"--module", L"none.dll", L"--auto"}).exitCode);
    EXPECT_EQ(EXIT_USAGE, Configure(writer.Id(), {L"--global-path", L"C:\\" + std::wstring(509, L'x')}).exitCode);
    EXPECT_EQ(EXIT_USAGE, Configure(writer.Id(), {L"--level", L"4"}).exitCode);
    writer.Finish();
}

TEST_F(VtLogConfig, TheNextRecordGoesToTheNewFile)
{
    Writer writer;
    EXPECT_EQ(EXIT_OK, Configure(writer.Id(), {L"--global-path", Path(L"moved.log")}).exitCode);
    writer.Do("errors 1 1");
    EXPECT_NE(std::string::npos, Run({L"show", Path(L"moved.log")}).out.find("0X1 not found"));
    writer.Finish();
}

TEST_F(VtLogConfig, AModulesFileBecomesTheProcessesWhereThatHasOneAndElseStaysTheModules)
{
    Writer writer;
    const auto globalPath = [&writer] { return Configure(writer.Id(), {}).Json().at(0).at("globalPath"); };
    const std::vector<std::wstring> toModule = {L"--module", L"VTFltMgr.dll", L"--path", Path(L"module.log")};
    EXPECT_EQ(EXIT_OK, Configure(writer.Id(), {L"--global-path", Path(L"whole.log")}).exitCode);
    EXPECT_EQ(EXIT_OK, Configure(writer.Id(), toModule).exitCode);
    EXPECT_EQ(Utf8(Path(L"whole.log")), globalPath());
    writer.Do("errors 1 1");
    EXPECT_EQ(Utf8(Path(L"module.log")), globalPath());

    EXPECT_EQ(EXIT_OK,
              Configure(writer.Id(), {L"--no-global-path", L"--module", L"VTFltMgr.dll", L"--path", Path(L"alone.log")})
                  .exitCode);
    writer.Do("errors 1 2");
    EXPECT_TRUE(globalPath().is_null()) << globalPath();
    EXPECT_NE(std::string::npos, Run({L"show", Path(L"alone.log")}).out.find("0X1 not found"));
    writer.Finish();
}

TEST_F(VtLogConfig, ADamagedMarkAHeldMutexAndAMissingProcessAreToldApart)
{
    Writer writer;
    const SharedConfig block(writer.Id());
    block.Lock();
    EXPECT_EQ(EXIT_BUSY, Configure(writer.Id(), {}).exitCode);
    block.Unlock();
    block.Edit([](vtflt::LogCfgBlock& one) { one.tailMagic = 0; });
    EXPECT_EQ(EXIT_UNREADABLE, Configure(writer.Id(), {L"--global-level", L"4"}).exitCode);
    EXPECT_EQ(0xFFFFFFFF, block.Copy()->level);
    EXPECT_EQ(EXIT_NOT_FOUND, Configure(999999, {}).exitCode);
    writer.Finish();
}

TEST_F(VtLogConfig, AHostileBlockIsShownWithinItsFields)
{
    Writer writer;
    const SharedConfig block(writer.Id());
    block.Edit([](vtflt::LogCfgBlock& one) {
        for (vtflt::LogCfgModuleEntry& entry : one.modules) {
            std::fill(std::begin(entry.name), std::end(entry.name), L'n');
            std::fill(std::begin(entry.path), std::end(entry.path), L'p');
        }
    });
    const auto shown = Configure(writer.Id(), {}).Json();
    ASSERT_EQ(1u, shown.size());
    ASSERT_EQ(1024u, shown[0]["modules"].size());
    EXPECT_EQ(std::string(64, 'n'), shown[0]["modules"][1023]["name"]);
    EXPECT_EQ(std::string(512, 'p'), shown[0]["modules"][1023]["path"]);
    writer.Finish();
}

} // namespace
} // namespace vtlog_test
