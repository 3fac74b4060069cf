// What a program that edits the configuration block brings about at the very next record of the file output.
#include "log/file_output.h"
#include "log/own_module.h"
#include "support/log_test.h"

#include <memory>

using namespace vtflt;
using namespace vttest;

namespace {

class ConfigEffects : public LogTest {
protected:
    void Start()
    {
        m_output = std::make_unique<NSDBG::CFileOutput>();
        Edit([&](LogCfgBlock&, LogCfgModuleEntry& own) { CopyText(own.path, OwnFile()); });
    }
    template <class Change>
    void Edit(const Change& change)
    {
        const ConfigEditor editor;
        LogCfgModuleEntry* const entry = editor.Find(std::wstring(OwnModule().Name()));
        ASSERT_NE(nullptr, entry);
        change(*editor.block, *entry);
    }
    std::wstring OwnFile() const { return m_folder.File(L"own.Log"); }
    std::wstring WholeFile() const { return m_folder.File(L"whole.Log"); }
    static bool Holds(const std::wstring& path, const std::wstring& text)
    {
        return WideFileText(path).find(L"] " + text + L"   {") != std::wstring::npos;
    }
    void TearDown() override
    {
        m_output.reset();
        LogTest::TearDown();
    }

    std::unique_ptr<NSDBG::CFileOutput> m_output;
};

TEST_F(ConfigEffects, AModuleWithItsOwnLevel4LogsDetailsAtItsNextRecordWhateverTheProcessWideLevelSays)
{
    Start();
    m_output->WriteLogW(4, 0, L"before");
    Edit([](LogCfgBlock& block, LogCfgModuleEntry& own) {
        block.level = 0;
        own.flags = 0;
        own.level = 4;
    });
    m_output->WriteLogW(4, 0, L"after");
    EXPECT_FALSE(Holds(OwnFile(), L"before"));
    EXPECT_TRUE(Holds(OwnFile(), L"after"));
}

TEST_F(ConfigEffects, AProcessWideLevelHoldsForAModuleWithAnAutomaticOne)
{
    Start();
    Edit([](LogCfgBlock& block, LogCfgModuleEntry&) { block.level = 0; });
    m_output->WriteLogW(1, 0, L"above it");
    m_output->WriteLogW(0, 0, L"at it");
    EXPECT_FALSE(Holds(OwnFile(), L"above it"));
    EXPECT_TRUE(Holds(OwnFile(), L"at it"));
}

TEST_F(ConfigEffects, AProcessWidePathTakesTheNextRecordOfAModuleWithAnAutomaticPath)
{
    Start();
    m_output->WriteLogW(0, 0, L"first");
    Edit([&](LogCfgBlock& block, LogCfgModuleEntry&) { CopyText(block.path, WholeFile()); });
    m_output->WriteLogW(0, 0, L"second");
    EXPECT_TRUE(Holds(OwnFile(), L"first"));
    EXPECT_FALSE(Holds(OwnFile(), L"second"));
    EXPECT_TRUE(Holds(WholeFile(), L"second"));
}

TEST_F(ConfigEffects, AModuleWithAPathOfItsOwnKeepsIt)
{
    Start();
    Edit([&](LogCfgBlock& block, LogCfgModuleEntry& own) {
        CopyText(block.path, WholeFile());
        own.flags = 0xFFFE;
    });
    m_output->WriteLogW(0, 0, L"text");
    EXPECT_TRUE(Holds(OwnFile(), L"text"));
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(WholeFile().c_str()));
    // And takes the others along: a changed path is written back, into the process's field where that holds one.
    Edit([&](LogCfgBlock& block, LogCfgModuleEntry&) { EXPECT_TRUE(FieldText(block.path) == OwnFile()); });
    wchar_t other[LOG_PATH_CAPACITY] = {};
    CLogCfgShareMemory::Instance().QueryPath(L"other.dll", false, other);
    EXPECT_TRUE(other == OwnFile());
}

TEST_F(ConfigEffects, AModuleWithAPathOfItsOwnLeavesAnEmptyPathOfTheProcessEmpty)
{
    Start();
    Edit([](LogCfgBlock&, LogCfgModuleEntry& own) { own.flags = 0xFFFE; });
    m_output->WriteLogW(0, 0, L"text");
    EXPECT_TRUE(Holds(OwnFile(), L"text"));
    Edit([&](LogCfgBlock& block, LogCfgModuleEntry& own) {
        EXPECT_TRUE(FieldText(block.path).empty());
        EXPECT_TRUE(FieldText(own.path) == OwnFile());
    });
}

TEST_F(ConfigEffects, AnExecutableThatIsNamedInDisableGlobalOptionKeepsItsOwnFile)
{
    const UniqueKey key = m_registry.Open(ENGINE_DEBUG_KEY);
    const std::wstring names = L"other.exe " + std::wstring(ExecutableModule().Name());
    ASSERT_EQ(ERROR_SUCCESS,
              RegSetValueExW(key.get(), L"DisableGlobalOption", 0, REG_SZ, reinterpret_cast<const BYTE*>(names.c_str()),
                             static_cast<DWORD>((names.size() + 1) * sizeof(wchar_t))));
    Start();
    Edit([&](LogCfgBlock& block, LogCfgModuleEntry&) { CopyText(block.path, WholeFile()); });
    m_output->WriteLogW(0, 0, L"text");
    EXPECT_TRUE(Holds(OwnFile(), L"text"));
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(WholeFile().c_str()));
}

TEST_F(ConfigEffects, WithTheBlockDamagedTheLevelAndThePathStayAsTheyWere)
{
    Start();
    m_output->WriteLogW(0, 0, L"first");
    Edit([&](LogCfgBlock& block, LogCfgModuleEntry& own) {
        CopyText(block.path, WholeFile());
        own.flags = 1;
        own.level = 4;
        block.tailMagic = 0;
    });
    m_output->WriteLogW(4, 0, L"a detail");
    m_output->WriteLogW(0, 0, L"second");
    EXPECT_FALSE(Holds(OwnFile(), L"a detail"));
    EXPECT_TRUE(Holds(OwnFile(), L"second"));
}

} // namespace
