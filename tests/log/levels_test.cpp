// The threshold: what the registry says of a module, what the configuration says while the process runs, and who
// ignores the file of the whole process.
#include "log/log_levels.h"
#include "log_file_test.h"
#include "vtfltsim/VTFltSimTrace.h"

using namespace vtflt;
using namespace vttest;

namespace {

class LogLevels : public LogFileTest {
protected:
    static std::wstring Debug(const wchar_t* key) { return std::wstring(key) + L"\\Debug"; }
    // Every allocation of the call fails once; its answer is then this, and behind it the right one.
    template <class Call>
    void ExpectWithoutMemory(DWORD answer, DWORD right, Call&& call)
    {
        bool refused = false;
        for (DWORD nth = 1;; ++nth) {
            ForgetLogLevels();
            vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY, nullptr, nth);
            const DWORD given = call();
            const bool struck = VTFltSimGetCallFaultHits() != 0;
            VTFltSimClearCallFaults();
            EXPECT_EQ(struck ? answer : right, given) << nth;
            EXPECT_EQ(right, call()) << "the failure was remembered, " << nth;
            if (!struck)
                break;
            refused = true;
        }
        EXPECT_TRUE(refused);
    }
    DWORD Threshold()
    {
        MakeOutput();
        return m_output->GetLogLevel();
    }
};

TEST_F(LogLevels, WithoutAKeyTheThresholdIs2)
{
    EXPECT_EQ(LOG_LEVEL_NOT_SET, GetModuleLogLevel(L"a.exe"));
    EXPECT_EQ(2u, Threshold());
}

TEST_F(LogLevels, OfAModuleOfNoComponentStandsInTheEnginesKey)
{
    SetNumber(Debug(ENGINE), ProgramName(), 4);
    SetNumber(Debug(MANAGEMENT), ProgramName(), 1);
    EXPECT_EQ(4u, Threshold());
}

TEST_F(LogLevels, OfAModuleOfNoComponentStandsInTheManagementsKeyWhereThereIsNoEngine)
{
    SetNumber(Debug(MANAGEMENT), ProgramName(), 1);
    EXPECT_EQ(1u, Threshold());
}

TEST_F(LogLevels, OfAModuleOfNoComponentIsNotSetWhereThereIsTheProductRootAlone)
{
    SetNumber(Debug(PRODUCT), L"a.exe", 4);
    EXPECT_EQ(LOG_LEVEL_NOT_SET, GetModuleLogLevel(L"a.exe"));
}

TEST_F(LogLevels, OfAModuleOfTheManagementStandsInItsOwnKeyAlthoughThereIsAnEngine)
{
    InstallManagementHere();
    SetNumber(Debug(ENGINE), ProgramName(), 4);
    SetNumber(Debug(MANAGEMENT), ProgramName(), 1);
    EXPECT_EQ(1u, Threshold());
}

TEST_F(LogLevels, OnWinPETheNameCountsAsNotSet)
{
    SetText(L"SYSTEM\\Setup", L"CmdLine", L"winpeshl.exe");
    SetNumber(Debug(ENGINE), ProgramName(), 4);
    EXPECT_EQ(2u, Threshold());
}

TEST_F(LogLevels, ALevelOf0LetsOnlyErrorsThrough)
{
    SetNumber(Debug(ENGINE), ProgramName(), 0);
    Start(File(L"t.log"));
    Write(L"information", 2);
    Write(L"warning", 1);
    Write(L"error", 0, 5);
    EXPECT_TRUE(Texts(File(L"t.log")) == std::vector<std::wstring>{L"error"});
}

TEST_F(LogLevels, AValueThatIsNoDwordCountsAsNotSet)
{
    SetText(Debug(ENGINE), L"a.exe", L"4");
    EXPECT_EQ(LOG_LEVEL_NOT_SET, GetModuleLogLevel(L"a.exe"));
}

TEST_F(LogLevels, OfANameIsReadOnceAndNotAgainAlthoughItChanges)
{
    SetNumber(Debug(ENGINE), L"a.exe", 4);
    EXPECT_EQ(4u, GetModuleLogLevel(L"a.exe"));
    SetNumber(Debug(ENGINE), L"a.exe", 0);
    VTFltSimResetCounts();
    EXPECT_EQ(4u, GetModuleLogLevel(L"a.exe"));
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"RegOpenKeyExW"));
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"RegQueryValueExW"));
}

TEST_F(LogLevels, ThatIsNotSetIsRememberedToo)
{
    EXPECT_EQ(LOG_LEVEL_NOT_SET, GetModuleLogLevel(L"a.exe"));
    SetNumber(Debug(ENGINE), L"a.exe", 0);
    VTFltSimResetCounts();
    EXPECT_EQ(LOG_LEVEL_NOT_SET, GetModuleLogLevel(L"a.exe"));
    EXPECT_EQ(0u, VTFltSimGetCallCount(L"RegOpenKeyExW"));
}

TEST_F(LogLevels, KeysAreOpenedForReadingOnly)
{
    MakeOutput();
    VTFltSimRecord(1);
    GetModuleLogLevel(L"a.exe");
    VTFltSimRecord(0);
    EXPECT_TRUE(Recorded(L"RegCreateKeyExW").empty());
    EXPECT_TRUE(Recorded(L"RegSetValueExW").empty());
    // More than KEY_READ is not granted to everybody. One process looks into the 64-bit view.
    int opened = 0;
    wchar_t text[1024] = {};
    for (DWORD i = 0; VTFltSimGetTrace(i, text, 1024) == 0; ++i) {
        if (std::wstring(text).rfind(L"RegOpenKeyExW ", 0) != 0)
            continue;
        ++opened;
        EXPECT_EQ(0u, VTFltSimGetTraceArguments(i, text, 1024));
        EXPECT_TRUE(text == std::wstring(L"options 0|access 0x00020019") ||
                    text == std::wstring(L"options 0|access 0x00020119"))
            << Narrow(text);
    }
    EXPECT_GT(opened, 0);
}

TEST_F(LogLevels, TheEntrysLevelWithTheAutomaticBitClearHoldsAtTheNextRecordWhateverTheProcessSays)
{
    const std::wstring path = File(L"t.log");
    Start(path);
    Write(L"too detailed", 4);
    SetProcessLevel(0);
    SetEntryLevel(4, 0);
    Write(L"detail", 4);
    EXPECT_EQ(4u, m_output->GetLogLevel());
    EXPECT_TRUE(Texts(path) == std::vector<std::wstring>{L"detail"});
}

TEST_F(LogLevels, AProcessWideLevelHoldsForAnAutomaticEntryAndStaysWhenItIsTakenAway)
{
    Start(File(L"t.log"));
    SetProcessLevel(0);
    EXPECT_EQ(0u, m_output->GetLogLevel());
    // Not set replaces nothing: the threshold stays what it was last.
    SetProcessLevel(LOG_LEVEL_NOT_SET);
    EXPECT_EQ(0u, m_output->GetLogLevel());
}

TEST_F(LogLevels, Level3IsAThresholdLikeAnother)
{
    const std::wstring path = File(L"t.log");
    Start(path);
    SetEntryLevel(3, 0);
    Write(L"three", 3);
    Write(L"four", 4);
    EXPECT_TRUE(Texts(path) == std::vector<std::wstring>{L"three"});
}

TEST_F(LogLevels, TheListOfProgramsIsSplitAtEveryBlankAndComparedWithoutRegardToCase)
{
    SetText(ENGINE_DEBUG_KEY, L"DisableGlobalOption", L"  One.exe  two.EXE three.exe ");
    EXPECT_TRUE(IsGlobalOptionDisabled(L"one.EXE"));
    EXPECT_TRUE(IsGlobalOptionDisabled(L"Two.exe"));
    EXPECT_TRUE(IsGlobalOptionDisabled(L"three.exe"));
    EXPECT_FALSE(IsGlobalOptionDisabled(L"three"));
    EXPECT_FALSE(IsGlobalOptionDisabled(L"One.exe two.EXE"));
    EXPECT_FALSE(IsGlobalOptionDisabled(L""));
}

TEST_F(LogLevels, TheListStandsInTheEnginesKeyWhateverTheComponent)
{
    InstallManagementHere();
    SetText(Debug(MANAGEMENT), L"DisableGlobalOption", L"other.exe");
    SetText(ENGINE_DEBUG_KEY, L"DisableGlobalOption", L"a.exe");
    EXPECT_TRUE(IsGlobalOptionDisabled(L"a.exe"));
    EXPECT_FALSE(IsGlobalOptionDisabled(L"other.exe"));
}

TEST_F(LogLevels, TheListIsReadOnce)
{
    EXPECT_FALSE(IsGlobalOptionDisabled(L"a.exe"));
    SetText(ENGINE_DEBUG_KEY, L"DisableGlobalOption", L"a.exe");
    EXPECT_FALSE(IsGlobalOptionDisabled(L"a.exe"));
}

TEST_F(LogLevels, ALongListIsReadWhole)
{
    std::wstring list;
    for (int i = 0; i < 2000; ++i)
        list += L"program.exe ";
    SetText(ENGINE_DEBUG_KEY, L"DisableGlobalOption", list + L"last.exe");
    EXPECT_TRUE(IsGlobalOptionDisabled(L"last.exe"));
}

TEST_F(LogLevels, OfAModuleOfTheProductRootStandsInItsOwnKeyWhereThereIsNeitherEngineNorManagement)
{
    const Elsewhere module(InstallProductRoot());
    SetNumber(Debug(PRODUCT), L"a.exe", 4);
    EXPECT_EQ(4u, GetModuleLogLevel(L"a.exe"));
}

TEST_F(LogLevels, OfAModuleOfTheProductRootStandsInTheEnginesKeyWhereThereIsOne)
{
    const Elsewhere module(InstallProductRoot());
    SetNumber(Debug(PRODUCT), L"a.exe", 4);
    SetNumber(Debug(ENGINE), L"a.exe", 1);
    EXPECT_EQ(1u, GetModuleLogLevel(L"a.exe"));
}

TEST_F(LogLevels, AValueThatIsADwordOfTwoBytesCountsAsNotSet)
{
    UniqueKey key;
    ASSERT_EQ(0u, VTFltSimOpenKey(m_machine.handle(), Debug(ENGINE).c_str(), KEY_WRITE, key.put()));
    const BYTE bytes[] = {4, 0};
    ASSERT_EQ(0, RegSetValueExW(key.get(), L"a.exe", 0, REG_DWORD, bytes, sizeof(bytes)));
    EXPECT_EQ(LOG_LEVEL_NOT_SET, GetModuleLogLevel(L"a.exe"));
}

TEST_F(LogLevels, WithoutMemoryForItsNameALevelIsNotSetAndWithoutMemoryToRememberItItIsReadAgainLater)
{
    const std::wstring name = L"a program with a long name.exe";
    SetNumber(Debug(ENGINE), name, 4);
    std::vector<DWORD> given;
    for (bool struck = true; struck;) {
        ForgetLogLevels();
        vtfltsim::FailCall(L"malloc", ERROR_NOT_ENOUGH_MEMORY, nullptr, static_cast<DWORD>(given.size()) + 1);
        given.push_back(GetModuleLogLevel(name));
        struck = VTFltSimGetCallFaultHits() != 0;
        VTFltSimClearCallFaults();
        EXPECT_EQ(4u, GetModuleLogLevel(name)) << "the failure was remembered, " << given.size();
    }
    ASSERT_LE(3u, given.size());
    EXPECT_EQ(LOG_LEVEL_NOT_SET, given.front());
    EXPECT_EQ(4u, given[given.size() - 2]); // it was read, and only not remembered
}

TEST_F(LogLevels, WithoutMemoryForTheListNoProgramIsOnItAndItIsReadAgainLater)
{
    const std::wstring name(40, L'p');
    SetText(ENGINE_DEBUG_KEY, L"DisableGlobalOption", L"b.exe " + name);
    ExpectWithoutMemory(0, 1, [&] { return IsGlobalOptionDisabled(name) ? 1u : 0u; });
}

} // namespace
