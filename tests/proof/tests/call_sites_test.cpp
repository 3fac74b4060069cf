// Every call of Windows that the library has in it is made where the scenarios are swept, by themselves or where something
// fails: what is never called there is not swept either.
#include "proof/sweep.h"
#include "proof/sweep_path.h"
#include "proof/tests/library_calls.h"
#include "proof/world.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <set>

namespace vtproof {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool OPTIMISED = false;
#else
constexpr bool OPTIMISED = true;
#endif

// By the function of the library that makes them. What is tried elsewhere stands with its reason.
struct Elsewhere {
    const char* function;
    const char* reason;
};
constexpr Elsewhere ELSEWHERE[] = {
    {"ActiveJobMutex", "when the library is loaded, before there is a machine: tests/internal/active_job_test.cpp"},
    {"DumpBitMapToFile",
     "when bitmaps are dumped for support, into files that nothing reads: tests/system/dumps_test.cpp"},
    {"CMultiBitmapManager::Dump", "the same"},
};

bool IsIn(const LibraryCall& call, const Elsewhere& one)
{
    return call.function.find(one.function) != std::string::npos;
}

bool IsTriedElsewhere(const LibraryCall& call)
{
    return std::any_of(std::begin(ELSEWHERE), std::end(ELSEWHERE),
                       [&](const Elsewhere& one) { return IsIn(call, one); });
}

// Where an owner of src/win/owners.h is inlined its line that gives back is there once more, often where the owner cannot
// have anything. Of these calls one of each is enough.
bool IsOfAnOwner(const LibraryCall& call)
{
    constexpr const char* GIVE_BACK[] = {"CloseHandle", "CloseServiceHandle", "FindClose", "FindVolumeClose",
                                         "RegCloseKey"};
    return std::any_of(std::begin(GIVE_BACK), std::end(GIVE_BACK),
                       [&](const char* function) { return call.calls == function; });
}

class SiteCollector {
public:
    SiteCollector()
    {
        World world({{100, 1024}});
        m_known = LibraryCalls();
    }

    // Notes the places of the calls that the last operation makes: the sweeps strike no other.
    std::string Follow(const History& history, const Fault& fault = {})
    {
        std::string wrong;
        const SweepPath path = FollowPath(history, fault, wrong);
        LPCVOID site = nullptr;
        for (DWORD i = 0; i < path.calls.size() && VTFltSimGetTraceSite(i, &site) == 0; ++i)
            m_made.insert(site);
        return wrong;
    }

    // The same behind each fault of a sweep.
    std::string Sweep(const Scenario& scenario, SweepKind kind)
    {
        SweepOptions options;
        options.kind = kind;
        options.run = [this](const History& history, bool, bool* struck) {
            *struck = true;
            return Follow(history);
        };
        return RunSweep({scenario}, options).wrong;
    }

    const std::vector<LibraryCall>& Known() const { return m_known; }
    bool IsMade(const LibraryCall& call) const { return m_made.count(call.behind) != 0; }

private:
    std::vector<LibraryCall> m_known;
    std::set<const void*> m_made;
};

TEST(LibraryCalls, AreAllMadeByTheScenarios)
{
    if (!OPTIMISED)
        GTEST_SKIP() << "the optimised build does";
    SiteCollector sites;
    const std::vector<LibraryCall>& calls = sites.Known();
    ASSERT_GT(calls.size(), 60u); // so many lines of the library's sources call Windows, without its log
    for (const Scenario& scenario : AllScenarios()) {
        EXPECT_EQ("", sites.Follow(scenario.history)) << scenario.name;
        // A mutex that may not be made is opened, and one that is held is released when memory runs out.
        if (scenario.name == "monitoring on, with a registered application") {
            EXPECT_EQ("", sites.Sweep(scenario, SweepKind::Failures));
            EXPECT_EQ("", sites.Sweep(scenario, SweepKind::Memory));
        }
        // Beside a damaged bitmap the other file is looked for where the verify list refuses the volume.
        if (scenario.name == "a backup, with its base without trailer")
            EXPECT_EQ("", sites.Sweep(scenario, SweepKind::Failures));
    }
    std::map<std::string, bool> givenBack;
    for (const LibraryCall& call : calls) {
        if (IsOfAnOwner(call))
            givenBack[call.calls] = givenBack[call.calls] || sites.IsMade(call);
        else if (!IsTriedElsewhere(call) && call.calls != "UnmapViewOfFile") // of the log's shared block
            EXPECT_TRUE(sites.IsMade(call)) << call.function << " never calls " << call.calls;
    }
    for (const auto& [function, made] : givenBack)
        EXPECT_TRUE(made) << "nobody calls " << function;
    // What is said to be tried elsewhere is there, and is not made here.
    for (const Elsewhere& one : ELSEWHERE) {
        EXPECT_TRUE(std::any_of(calls.begin(), calls.end(), [&](const auto& call) { return IsIn(call, one); }))
            << one.function;
        for (const LibraryCall& call : calls)
            EXPECT_FALSE(IsIn(call, one) && sites.IsMade(call))
                << call.function << " calls " << call.calls << ", not only " << one.reason;
    }
}

// Each of the 22 is called by the last operation of a scenario, which is the one that is swept.
TEST(Scenarios, CallEveryExportWhereTheyAreSwept)
{
    if (!OPTIMISED)
        GTEST_SKIP() << "the optimised build does";
    class Watch final : public ExportWatch {
    public:
        void Enters(std::size_t, Exported exported) noexcept override
        {
            m_called[static_cast<std::size_t>(exported)] = true;
        }
        void Leaves(std::size_t, Exported) noexcept override {}
        bool Has(std::size_t exported) const { return m_called[exported]; }

    private:
        bool m_called[EXPORT_COUNT] = {};
    } watch;
    for (const Scenario& scenario : AllScenarios()) {
        World world(scenario.history.volumes);
        std::vector<Operation> operations = scenario.history.operations;
        const Operation last = operations.back();
        operations.pop_back();
        for (const Operation& operation : operations)
            ASSERT_EQ("", world.Run(operation)) << scenario.name;
        world.AtOnce(watch, World::Volumes::Shared);
        ASSERT_EQ("", world.Run(last)) << scenario.name;
    }
    for (std::size_t exported = 0; exported < EXPORT_COUNT; ++exported)
        EXPECT_TRUE(watch.Has(exported)) << EXPORT_NAMES[exported] << " is called by no scenario";
}

} // namespace
} // namespace vtproof
