// What the simulator says of the places from which calls are made.
#include "support/cycle_test.h"

#include <numeric>

namespace vttest {
namespace {

using CallSites = CycleTest;

std::map<LPCVOID, DWORD> SitesOf(void (*work)())
{
    VTFltSimRecord(1);
    work();
    VTFltSimRecord(0);
    return vtfltsim::CallsBySite();
}

void CountApplications()
{
    DWORD count = 0;
    EXPECT_EQ(0u, VTGetRegisteredAppCount(&count));
}

TEST_F(CallSites, AreKnownForEachCallAndTheSameEachTime)
{
    Register(L"App1");
    CountApplications();
    const auto first = SitesOf(CountApplications);
    EXPECT_GT(first.size(), 3u);
    EXPECT_EQ(0u, first.count(nullptr));
    const DWORD calls = std::accumulate(first.begin(), first.end(), DWORD{0},
                                        [](DWORD sum, const auto& site) { return sum + site.second; });
    EXPECT_EQ(vtfltsim::Trace().size(), calls);
    EXPECT_EQ(first, SitesOf(CountApplications));
    const auto twice = SitesOf([] {
        CountApplications();
        CountApplications();
    });
    for (const auto& [site, count] : first) {
        ASSERT_EQ(1u, twice.count(site));
        EXPECT_EQ(2 * count, twice.at(site));
    }
}

TEST_F(CallSites, BehindTheLastCallThereIsNone)
{
    SitesOf(CountApplications);
    LPCVOID site = nullptr;
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_MORE_ITEMS),
              VTFltSimGetTraceSite(static_cast<DWORD>(vtfltsim::Trace().size()), &site));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), VTFltSimGetTraceSite(0, nullptr));
}

} // namespace
} // namespace vttest
