// The process's log configuration: registration, questions, what another program edits, and damage.
#include "log/own_module.h"
#include "support/access_list.h"
#include "support/live_viewer.h"
#include "support/log_test.h"
#include "trace_capture.h"

#include <cstring>
#include <thread>

using namespace vtflt;
using namespace vttest;

namespace {

class ConfigTest : public LogTest {
protected:
    CLogCfgShareMemory& m_configuration = CLogCfgShareMemory::Instance();

    std::wstring Path(std::wstring_view name, bool globalOptionDisabled = false)
    {
        wchar_t path[LOG_PATH_CAPACITY] = L"unchanged";
        m_configuration.QueryPath(name, globalOptionDisabled, path);
        return path;
    }
    std::wstring DefaultPath(const std::wstring& fileName)
    {
        return std::wstring(ExecutableModule().Folder()) + L"\\Logs\\" + fileName;
    }
    // What the block holds for a module, as another program reads it.
    LogCfgModuleEntry Entry(const std::wstring& name)
    {
        const ConfigEditor editor;
        const LogCfgModuleEntry* const entry = editor.Find(name);
        EXPECT_NE(nullptr, entry);
        return entry != nullptr ? *entry : LogCfgModuleEntry{};
    }
    static void FillAll(LogCfgBlock& block)
    {
        DWORD number = 0;
        for (LogCfgModuleEntry& entry : block.modules)
            CopyText(entry.name, L"module" + ScratchFolder::Digits(number++));
    }
};

TEST_F(ConfigTest, ANewBlockHasItsMarksNoLevelsAndFreeEntriesWithFlags1)
{
    EXPECT_EQ(LOG_LEVEL_NOT_SET, m_configuration.QueryLevel(L""));
    const ConfigEditor editor;
    ASSERT_NE(nullptr, editor.block);
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(editor.block);
    std::vector<std::uint8_t> expected(0x12240C);
    const auto put = [&](std::size_t offset, std::uint32_t value) { std::memcpy(&expected[offset], &value, 4); };
    put(0, 0xE6E6);
    put(1028, 0xFFFFFFFF);
    for (std::size_t entry = 0; entry < 1024; ++entry)
        put(1032 + entry * 1160 + 1156, 1);
    put(0x122408, 0xE6E6);
    EXPECT_EQ(0, std::memcmp(expected.data(), bytes, expected.size()));
}

TEST_F(ConfigTest, RegistrationTakesTheFirstFreeEntryWithAllAutomaticAndTheDefaultFile)
{
    m_configuration.RegisterModule(L"First.dll");
    m_configuration.RegisterModule(L"Second.exe");
    const ConfigEditor editor;
    ASSERT_NE(nullptr, editor.block);
    const LogCfgModuleEntry& first = editor.block->modules[0];
    EXPECT_STREQ(L"First.dll", first.name);
    EXPECT_EQ(DefaultPath(L"First.dll.Log"), first.path);
    EXPECT_EQ(0xFFFFFFFFu, first.level);
    EXPECT_EQ(0xFFFFu, first.flags);
    EXPECT_STREQ(L"Second.exe", editor.block->modules[1].name);
    EXPECT_STREQ(L"", editor.block->modules[2].name);
    EXPECT_EQ(0u, editor.block->modules[2].level);
    EXPECT_EQ(1u, editor.block->modules[2].flags);
}

TEST_F(ConfigTest, RegisteringAgainFindsTheEntryWithoutRegardToCase)
{
    m_configuration.RegisterModule(L"First.dll");
    m_configuration.RegisterModule(L"FIRST.DLL");
    const ConfigEditor editor;
    ASSERT_NE(nullptr, editor.block);
    EXPECT_STREQ(L"First.dll", editor.block->modules[0].name);
    EXPECT_STREQ(L"", editor.block->modules[1].name);
}

TEST_F(ConfigTest, RegisteringAgainReplacesAnAutomaticPathAndKeepsAnother)
{
    m_configuration.RegisterModule(L"First.dll");
    m_configuration.RegisterModule(L"Second.dll");
    {
        const ConfigEditor editor;
        CopyText(editor.block->modules[0].path, L"C:\\elsewhere.log");
        CopyText(editor.block->modules[1].path, L"C:\\elsewhere.log");
        editor.block->modules[1].flags = 0;
    }
    m_configuration.RegisterModule(L"First.dll");
    m_configuration.RegisterModule(L"Second.dll");
    EXPECT_EQ(DefaultPath(L"First.dll.Log"), Entry(L"First.dll").path);
    EXPECT_STREQ(L"C:\\elsewhere.log", Entry(L"Second.dll").path);
}

// A second library in the same process that logs finds the block already there and does not reinitialise it.
TEST_F(ConfigTest, ABlockThatIsThereIsUsedAsItStands)
{
    m_configuration.RegisterModule(L"First.dll");
    const ConfigEditor other; // holds the block open, as a second library does
    other.block->modules[0].level = 3;
    other.block->level = 1;
    // The editor's lock is this thread's own, so the same thread may go on.
    m_configuration.Close();
    EXPECT_EQ(1u, m_configuration.QueryLevel(L""));
    EXPECT_EQ(3u, other.block->modules[0].level);
    EXPECT_STREQ(L"First.dll", other.block->modules[0].name);
}

TEST_F(ConfigTest, With1024ModulesAFurtherOneLivesByTheProcessWideFields)
{
    m_configuration.RegisterModule(L"seed");
    {
        const ConfigEditor editor;
        FillAll(*editor.block);
        editor.block->level = 4;
        CopyText(editor.block->path, L"C:\\whole.log");
    }
    m_configuration.RegisterModule(L"late.dll");
    EXPECT_EQ(4u, m_configuration.QueryLevel(L"late.dll"));
    EXPECT_EQ(L"C:\\whole.log", Path(L"late.dll"));
    {
        const ConfigEditor editor;
        EXPECT_EQ(nullptr, editor.Find(L"late.dll"));
        EXPECT_TRUE(IsLogCfgBlockIntact(*editor.block));
        editor.block->level = LOG_LEVEL_NOT_SET;
        editor.block->path[0] = L'\0';
    }
    EXPECT_EQ(LOG_LEVEL_NOT_SET, m_configuration.QueryLevel(L"late.dll"));
    EXPECT_EQ(L"unchanged", Path(L"late.dll"));
    m_configuration.StorePath(L"late.dll", L"C:\\late.log");
    EXPECT_EQ(L"unchanged", Path(L"late.dll"));
    EXPECT_STREQ(L"module1023", Entry(L"module1023").name);
}

TEST_F(ConfigTest, AnEntrysOwnLevelHoldsWhateverTheProcessWideOneSays)
{
    m_configuration.RegisterModule(L"First.dll");
    {
        const ConfigEditor editor;
        editor.block->modules[0].flags = 0;
        editor.block->modules[0].level = 4;
        editor.block->level = 0;
    }
    EXPECT_EQ(4u, m_configuration.QueryLevel(L"First.dll"));
    {
        const ConfigEditor editor;
        editor.block->modules[0].level = LOG_LEVEL_NOT_SET;
    }
    // Its own, even when that is not set.
    EXPECT_EQ(LOG_LEVEL_NOT_SET, m_configuration.QueryLevel(L"First.dll"));
}

TEST_F(ConfigTest, AnAutomaticLevelIsTheProcessWideOneOrElseTheEntrys)
{
    m_configuration.RegisterModule(L"First.dll");
    {
        const ConfigEditor editor;
        editor.block->modules[0].level = 3;
        editor.block->level = 1;
    }
    EXPECT_EQ(1u, m_configuration.QueryLevel(L"First.dll"));
    {
        const ConfigEditor editor;
        editor.block->level = LOG_LEVEL_NOT_SET;
    }
    EXPECT_EQ(3u, m_configuration.QueryLevel(L"First.dll"));
    EXPECT_EQ(LOG_LEVEL_NOT_SET, m_configuration.QueryLevel(L"unknown.dll"));
    EXPECT_EQ(LOG_LEVEL_NOT_SET, m_configuration.QueryLevel(L""));
}

TEST_F(ConfigTest, TheProcessWidePathWinsOverAnAutomaticOneUnlessItIsDisabled)
{
    m_configuration.RegisterModule(L"First.dll");
    EXPECT_EQ(DefaultPath(L"First.dll.Log"), Path(L"First.dll"));
    {
        const ConfigEditor editor;
        CopyText(editor.block->path, L"C:\\whole.log");
    }
    EXPECT_EQ(L"C:\\whole.log", Path(L"First.dll"));
    EXPECT_EQ(L"C:\\whole.log", Path(L"unknown.dll"));
    EXPECT_EQ(L"C:\\whole.log", Path(L""));
    EXPECT_EQ(DefaultPath(L"First.dll.Log"), Path(L"First.dll", true));
    EXPECT_EQ(L"unchanged", Path(L"unknown.dll", true));
    {
        const ConfigEditor editor;
        editor.block->modules[0].flags = 0;
    }
    EXPECT_EQ(DefaultPath(L"First.dll.Log"), Path(L"First.dll"));
}

TEST_F(ConfigTest, AnEmptyProcessWidePathIsTheAnswerToAnEmptyName)
{
    EXPECT_EQ(L"", Path(L""));
}

TEST_F(ConfigTest, AStoredPathBecomesAFullPathOfTheModule)
{
    m_configuration.RegisterModule(L"First.dll");
    m_configuration.StorePath(L"First.dll", L"short");
    EXPECT_EQ(DefaultPath(L"short.Log"), Path(L"First.dll"));
    m_configuration.StorePath(L"First.dll", L"C:/slash");
    EXPECT_EQ(L"C:/slash", Path(L"First.dll"));
    m_configuration.StorePath(L"First.dll", L"");
    EXPECT_EQ(DefaultPath(L"First.dll.Log"), Path(L"First.dll"));
}

TEST_F(ConfigTest, StoringAPathTakesAnEntryForAModuleWithoutOne)
{
    m_configuration.StorePath(L"New.dll", L"C:\\new.log");
    const LogCfgModuleEntry entry = Entry(L"New.dll");
    EXPECT_STREQ(L"C:\\new.log", entry.path);
    EXPECT_EQ(0xFFFFu, entry.flags);
    EXPECT_EQ(LOG_LEVEL_NOT_SET, entry.level);
}

// The global option is not consulted on storing, on purpose: a rotation moves every module.
TEST_F(ConfigTest, WhileAProcessWidePathIsSetAStoredPathReplacesIt)
{
    m_configuration.RegisterModule(L"First.dll");
    m_configuration.StorePath(L"", L"C:\\whole.log");
    m_configuration.StorePath(L"First.dll", L"C:\\next.log");
    EXPECT_EQ(L"C:\\next.log", Path(L""));
    EXPECT_EQ(DefaultPath(L"First.dll.Log"), Entry(L"First.dll").path);
    m_configuration.StorePath(L"First.dll", L"");
    EXPECT_EQ(L"", Path(L""));
    EXPECT_EQ(DefaultPath(L"First.dll.Log"), Entry(L"First.dll").path);
}

TEST_F(ConfigTest, AnEmptyNameAndAnEmptyPathClearTheProcessWidePath)
{
    m_configuration.StorePath(L"", L"C:\\whole.log");
    EXPECT_EQ(L"C:\\whole.log", Path(L""));
    m_configuration.StorePath(L"", L"");
    EXPECT_EQ(L"", Path(L""));
}

TEST_F(ConfigTest, ABlockWithADamagedMarkIsIgnoredByEveryOperation)
{
    m_configuration.RegisterModule(L"First.dll");
    for (const bool tail : {true, false}) {
        {
            const ConfigEditor editor;
            editor.block->level = 4;
            (tail ? editor.block->tailMagic : editor.block->headMagic) = 0;
        }
        ClearTrace();
        EXPECT_EQ(LOG_LEVEL_NOT_SET, m_configuration.QueryLevel(L"First.dll"));
        EXPECT_EQ(L"unchanged", Path(L"First.dll"));
        m_configuration.RegisterModule(L"Second.dll");
        m_configuration.StorePath(L"First.dll", L"C:\\new.log");
        EXPECT_TRUE(TraceLines() == std::vector<std::wstring>(4, DamagedBlockLine()));
        const ConfigEditor editor;
        EXPECT_EQ(nullptr, editor.Find(L"Second.dll"));
        EXPECT_EQ(DefaultPath(L"First.dll.Log"), editor.block->modules[0].path);
        editor.block->headMagic = editor.block->tailMagic = LOG_CFG_MAGIC;
    }
    ClearTrace();
    EXPECT_EQ(4u, m_configuration.QueryLevel(L"First.dll"));
    EXPECT_TRUE(TraceLines().empty());
}

// Programs of every account may edit the block.
TEST_F(ConfigTest, TheBlockAndItsMutexHaveANullAccessList)
{
    m_configuration.RegisterModule(L"First.dll");
    ExpectOpenToEveryone(UniqueHandle(OpenMutexW(READ_CONTROL, FALSE, ConfigName(CONFIG_MUTEX).c_str())));
    ExpectOpenToEveryone(UniqueHandle(OpenFileMappingW(READ_CONTROL, FALSE, ConfigName(CONFIG_MAPPING).c_str())));
}

TEST_F(ConfigTest, NamesAndPathsWithoutAnEndAreReadNoFurtherThanTheirFields)
{
    m_configuration.RegisterModule(L"First.dll");
    {
        const ConfigEditor editor;
        for (LogCfgModuleEntry& entry : editor.block->modules) {
            std::fill(std::begin(entry.name), std::end(entry.name), L'n');
            std::fill(std::begin(entry.path), std::end(entry.path), L'p');
            entry.flags = 0xFFFFFFFC;
            entry.level = 0x80000000;
        }
        std::fill(std::begin(editor.block->path), std::end(editor.block->path), L'w');
    }
    EXPECT_EQ(std::wstring(511, L'w'), Path(L""));
    EXPECT_EQ(std::wstring(511, L'w'), Path(L"First.dll"));
    EXPECT_EQ(L"unchanged", Path(L"First.dll", true));
    m_configuration.RegisterModule(L"First.dll");
    m_configuration.StorePath(L"First.dll", std::wstring(2000, L'\\'));
    EXPECT_EQ(std::wstring(511, L'\\'), Path(L""));
    const ConfigEditor editor;
    EXPECT_TRUE(IsLogCfgBlockIntact(*editor.block));
    EXPECT_EQ(L'n', editor.block->modules[1023].name[63]);
}

TEST_F(ConfigTest, AModuleNameThatIsTooLongTakesOneEntry)
{
    const std::wstring name(200, L'x');
    m_configuration.RegisterModule(name);
    m_configuration.RegisterModule(name);
    const ConfigEditor editor;
    EXPECT_EQ(std::wstring(63, L'x'), editor.block->modules[0].name);
    EXPECT_STREQ(L"", editor.block->modules[1].name);
}

TEST_F(ConfigTest, TheRememberedEntryIsLookedAtAgain)
{
    m_configuration.RegisterModule(L"First.dll");
    EXPECT_EQ(LOG_LEVEL_NOT_SET, m_configuration.QueryLevel(L"First.dll"));
    {
        const ConfigEditor editor;
        editor.block->modules[1] = editor.block->modules[0];
        CopyText(editor.block->modules[0].name, L"Other.dll");
        editor.block->modules[1].level = 3;
    }
    EXPECT_EQ(3u, m_configuration.QueryLevel(L"First.dll"));
}

TEST_F(ConfigTest, AnAccessThatCannotHaveTheMutexIsSkipped)
{
    m_configuration.RegisterModule(L"First.dll");
    const ConfigEditor stuck;
    stuck.block->level = 4;
    std::uint32_t level = 0;
    std::thread([&] { level = m_configuration.QueryLevel(L"First.dll"); }).join();
    EXPECT_EQ(LOG_LEVEL_NOT_SET, level);
    EXPECT_EQ(4u, m_configuration.QueryLevel(L"First.dll"));
}

TEST_F(ConfigTest, AMutexThatItsOwnerLeftBehindIsOwned)
{
    m_configuration.RegisterModule(L"First.dll");
    const UniqueHandle mutex(OpenMutexW(SYNCHRONIZE, FALSE, ConfigName(CONFIG_MUTEX).c_str()));
    {
        const UniqueHandle thread(CreateThread(
            nullptr, 0,
            [](void* mutexHandle) -> DWORD {
                WaitForSingleObject(mutexHandle, INFINITE);
                ExitThread(0);
            },
            mutex.get(), 0, nullptr));
        WaitForSingleObject(thread.get(), INFINITE);
    }
    EXPECT_EQ(DefaultPath(L"First.dll.Log"), Path(L"First.dll"));
}

TEST_F(ConfigTest, AMappingThatIsTooSmallIsNotUsed)
{
    const UniqueHandle tooSmall(
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, ConfigName(CONFIG_MAPPING).c_str()));
    ASSERT_TRUE(tooSmall.valid());
    m_configuration.RegisterModule(L"First.dll");
    EXPECT_EQ(LOG_LEVEL_NOT_SET, m_configuration.QueryLevel(L"First.dll"));
    EXPECT_EQ(L"unchanged", Path(L"First.dll"));
}

TEST_F(ConfigTest, AGlobalNameThatIsRefusedFallsBackToTheLocalOne)
{
    // Nobody may do anything with it.
    ACL nobody = {};
    ASSERT_TRUE(InitializeAcl(&nobody, sizeof(nobody), ACL_REVISION));
    SECURITY_DESCRIPTOR descriptor = {};
    ASSERT_TRUE(InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION));
    ASSERT_TRUE(SetSecurityDescriptorDacl(&descriptor, TRUE, &nobody, FALSE));
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), &descriptor, FALSE};
    const UniqueHandle barred(CreateFileMappingW(INVALID_HANDLE_VALUE, &attributes, PAGE_READWRITE, 0, 4096,
                                                 ConfigName(CONFIG_MAPPING).c_str()));
    ASSERT_TRUE(barred.valid());
    m_configuration.RegisterModule(L"First.dll");
    EXPECT_EQ(DefaultPath(L"First.dll.Log"), Path(L"First.dll"));
    const UniqueHandle local(OpenFileMappingW(FILE_MAP_READ, FALSE, ConfigName(CONFIG_LOCAL_MAPPING).c_str()));
    EXPECT_TRUE(local.valid());
}

TEST_F(ConfigTest, AMutexThatCannotBeMadeLeavesTheBlockClosed)
{
    // The name belongs to an object of another kind.
    const UniqueHandle event(CreateEventW(nullptr, FALSE, FALSE, ConfigName(CONFIG_MUTEX).c_str()));
    ASSERT_TRUE(event.valid());
    m_configuration.RegisterModule(L"First.dll");
    EXPECT_EQ(LOG_LEVEL_NOT_SET, m_configuration.QueryLevel(L"First.dll"));
    EXPECT_EQ(L"unchanged", Path(L"First.dll"));
    EXPECT_EQ(nullptr, ConfigEditor().block);
}

TEST_F(ConfigTest, AnEmptyNameTakesNoEntry)
{
    m_configuration.RegisterModule(L"");
    const ConfigEditor editor;
    ASSERT_NE(nullptr, editor.block);
    EXPECT_STREQ(L"", editor.block->modules[0].path);
    EXPECT_EQ(LOG_CFG_FLAGS_FREE, editor.block->modules[0].flags);
}

TEST_F(ConfigTest, ABlockWhoseNamesAreBothRefusedIsTriedAgain)
{
    {
        const UniqueHandle global = MakeBarredMapping(ConfigName(CONFIG_MAPPING));
        const UniqueHandle local = MakeBarredMapping(ConfigName(CONFIG_LOCAL_MAPPING));
        m_configuration.RegisterModule(L"First.dll");
        EXPECT_EQ(L"unchanged", Path(L"First.dll"));
    }
    m_configuration.RegisterModule(L"First.dll");
    EXPECT_EQ(DefaultPath(L"First.dll.Log"), Path(L"First.dll"));
}

TEST_F(ConfigTest, ABlockThatCannotBeMappedIsMadeAndFilledByTheNextOperation)
{
    WatchedCalls calls;
    vtfltsim::FailCall(L"MapViewOfFile", ERROR_NOT_ENOUGH_MEMORY);
    m_configuration.RegisterModule(L"First.dll");
    EXPECT_EQ(1u, calls.Struck());
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OPEN_OTHERS)) << "the mapping is open";
    EXPECT_EQ(0u, VTFltSimGetOpenCount(VTFLTSIM_OWNED_MUTEXES));
    calls.EndFaults();
    m_configuration.RegisterModule(L"First.dll");
    EXPECT_EQ(DefaultPath(L"First.dll.Log"), Path(L"First.dll"));
    CloseOutputState();
}

} // namespace
