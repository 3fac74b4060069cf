// The command line of vtlog.
#include "tools/vtlog_test.h"

namespace vtlog_test {
namespace {

class VtLogUsage : public VtLogTest {};

TEST_F(VtLogUsage, HelpGoesToStandardOutputAndIsASuccess)
{
    const Result result = Run({L"--help"});
    EXPECT_EQ(EXIT_OK, result.exitCode);
    EXPECT_NE(std::string::npos, result.out.find("show"));
    EXPECT_EQ("", result.err);
}

TEST_F(VtLogUsage, NoSubcommandIsAUsageErrorOnStandardError)
{
    const Result result = Run({});
    EXPECT_EQ(EXIT_USAGE, result.exitCode);
    EXPECT_EQ("", result.out);
    EXPECT_EQ(0u, result.err.find("vtlog: ")) << result.err;
}

TEST_F(VtLogUsage, AnUnknownSubcommandIsAUsageError)
{
    EXPECT_EQ(EXIT_USAGE, Run({L"peel"}).exitCode);
}

TEST_F(VtLogUsage, ShowWithoutAFileIsAUsageError)
{
    EXPECT_EQ(EXIT_USAGE, Run({L"show"}).exitCode);
}

TEST_F(VtLogUsage, AnEmptyFolderIsNotThisMachine)
{
    const std::wstring log = WriteWide(L"empty.Log", SummaryBlock(L"2026/11/21 10:00:00:000"));
    const Result result = Run({L"show", log, L"--why", L"{11111111-2222-3333-4444-555555555555}", L"--simulate", L""});
    EXPECT_EQ(EXIT_USAGE, result.exitCode);
    EXPECT_EQ("", result.out);
    EXPECT_NE(std::string::npos, result.err.find("--simulate: may not be empty")) << result.err;
}

} // namespace
} // namespace vtlog_test
