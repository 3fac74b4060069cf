// Where the logging code runs, and what is made of it when the system does not say.
#include "log_file_test.h"

using namespace vtflt;
using namespace vttest;

namespace {

class OwnModules : public LogFileTest {
protected:
    OwnModules() { VTFltSimResetCounts(); }
    static DWORD PathsAsked() { return VTFltSimGetCallCount(L"GetModuleFileNameW"); }

    const std::wstring m_executable{ExecutableModule().Path()};
};

TEST_F(OwnModules, IsFoundOutOnce)
{
    const Elsewhere module(L"");
    VTFltSimResetCounts();
    EXPECT_TRUE(OwnModule().Path() == m_executable); // this program contains the library's code
    EXPECT_TRUE(OwnModule().Path() == m_executable);
    EXPECT_EQ(1u, PathsAsked());
    EXPECT_EQ(1u, VTFltSimGetCallCount(L"GetModuleHandleExW"));
}

TEST_F(OwnModules, ThatCannotBeFoundIsTheExecutable)
{
    const Elsewhere module(L"");
    vtfltsim::FailCall(L"GetModuleHandleExW", ERROR_MOD_NOT_FOUND);
    VTFltSimResetCounts();
    EXPECT_TRUE(OwnModule().Path() == m_executable);
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
    EXPECT_EQ(1u, PathsAsked());
}

TEST_F(OwnModules, WhosePathCannotBeReadIsTheExecutable)
{
    const Elsewhere module(L"");
    vtfltsim::FailCall(L"GetModuleFileNameW", ERROR_INSUFFICIENT_BUFFER);
    VTFltSimResetCounts();
    EXPECT_TRUE(OwnModule().Path() == m_executable);
    EXPECT_EQ(2u, PathsAsked());
}

TEST_F(OwnModules, WhereNoPathCanBeReadThereIsNoneUntilOneCan)
{
    const Elsewhere module(L"");
    const Elsewhere executable(L"", ExecutableModule());
    vtfltsim::FailCall(L"GetModuleFileNameW", ERROR_INSUFFICIENT_BUFFER, nullptr, 1, 0);
    EXPECT_TRUE(OwnModule().Path().empty());
    EXPECT_TRUE(OwnModule().Name().empty());
    EXPECT_TRUE(ExecutableModule().Folder().empty());
    VTFltSimClearCallFaults();
    EXPECT_TRUE(OwnModule().Path() == m_executable);
    EXPECT_TRUE(ExecutableModule().Path() == m_executable);
}

TEST_F(OwnModules, APathThatWasCutIsNone)
{
    const ModulePath& place = OwnModule(); // asked again, it would find itself out
    const Elsewhere module(L"");
    // What the system writes into the buffer before it says that the path did not fit.
    ASSERT_EQ(0u, VTFltSimCallBefore(
                      L"GetModuleFileNameW", nullptr, 1, 1,
                      [](void* context, LPCWSTR, LPCWSTR) {
                          CopyText(static_cast<ModulePath*>(context)->text, L"C:\\the beginning of a pa");
                      },
                      const_cast<ModulePath*>(&place)));
    VTFLTSIM_CALL_FAULT fault = {};
    fault.size = sizeof(fault);
    fault.what = VTFLTSIM_CALL_RETURNS;
    fault.function = L"GetModuleFileNameW";
    fault.count = 1;
    fault.value = MODULE_PATH_CAPACITY;
    fault.error = ERROR_INSUFFICIENT_BUFFER;
    vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    EXPECT_TRUE(OwnModule().Path() == m_executable);
    EXPECT_EQ(1u, VTFltSimGetCallFaultHits());
}

TEST_F(OwnModules, APathWithoutABackslashIsANameInNoFolder)
{
    const ModulePath path = {L"name.exe"};
    EXPECT_TRUE(path.Name() == L"name.exe");
    EXPECT_TRUE(path.Folder().empty());
    const ModulePath root = {L"C:\\name.exe"};
    EXPECT_TRUE(root.Name() == L"name.exe");
    EXPECT_TRUE(root.Folder() == L"C:");
}

} // namespace
