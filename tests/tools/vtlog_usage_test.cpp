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

} // namespace
} // namespace vtlog_test
