// What one fetch costs in calls and bytes. A fetch keeps a backup waiting, and the volume's mutex held: a call or a byte
// more per application is a defect, however fast the machine is.
#include "support/cycle_test.h"

#include <map>

namespace vttest {
namespace {

constexpr std::uint64_t RECORD = 4096; // bytes of a bitmap file of this volume
constexpr std::uint64_t HEAD = 88;     // what is looked at before a file is read whole
constexpr std::uint64_t TRAILER = 4;   // written last, when the rest is safe

struct FetchCost {
    std::map<std::wstring, DWORD> onFiles; // calls on bitmap files, by function
    std::uint64_t bytesRead = 0;
    std::uint64_t bytesWritten = 0;
    std::vector<std::wstring> others; // the library's other calls, in order
};

class FetchCosts : public CycleTest {
protected:
    void RegisterUpTo(int applications)
    {
        for (; m_registered < applications; ++m_registered)
            Register(AppId(m_registered));
    }

    // Of fetches that find every file in the driver's length, as all but the first after a change of size do: by a manager
    // that was just made, as a backup makes it, and by one that has fetched before.
    std::vector<FetchCost> CostsWith(int applications)
    {
        RegisterUpTo(applications);
        Touch({1, 50});
        EXPECT_EQ(0u, Open(AppId(0))->GetBitmap());
        const auto session = Open(AppId(0));
        return {CostOfFetch(*session), CostOfFetch(*session)};
    }

private:
    static FetchCost CostOfFetch(Session& session)
    {
        VTFltSimRecord(1);
        EXPECT_EQ(0u, session.GetBitmap(BUFFER_LENGTH));
        VTFltSimRecord(0);
        return CostOf(LibraryCalls());
    }

    static std::wstring AppId(int index) { return std::wstring(L"App") + static_cast<wchar_t>(L'0' + index); }

    static FetchCost CostOf(const std::vector<std::wstring>& calls)
    {
        FetchCost cost;
        for (const std::wstring& call : calls) {
            if (call.find(L"VelVolTrc_") == std::wstring::npos) {
                cost.others.push_back(call);
                continue;
            }
            const std::wstring function = call.substr(0, call.find(L' '));
            ++cost.onFiles[function];
            if (function == L"ReadFile")
                cost.bytesRead += SizeIn(call);
            else if (function == L"WriteFile")
                cost.bytesWritten += SizeIn(call);
        }
        return cost;
    }

    static std::uint64_t SizeIn(const std::wstring& call)
    {
        std::uint64_t size = 0;
        for (std::size_t i = call.rfind(L'|') + 1; i < call.size(); ++i)
            size = size * 10 + static_cast<std::uint64_t>(call[i] - L'0');
        return size;
    }

    int m_registered = 0;
};

// Every application's child is read, and written but for the current one's; then the current one's base is read and
// written, and its child written clear.
std::map<std::wstring, DWORD> CallsOnFiles(DWORD applications)
{
    const DWORD filesRead = applications + 1;
    const DWORD filesWritten = applications + 1;
    return {
        {L"CreateFileW", filesRead + filesWritten},
        {L"CloseHandle", filesRead + filesWritten},
        {L"GetFileSizeEx", filesRead},
        {L"ReadFile", 2 * filesRead},
        {L"SetFilePointer", filesRead + 2 * filesWritten},
        {L"WriteFile", 2 * filesWritten},
        {L"FlushFileBuffers", 2 * filesWritten},
    };
}

TEST_F(FetchCosts, EachFileIsReadOnceAndWrittenOnceAndNothingElseIsDoneWithIt)
{
    for (const int applications : {1, 4, 8}) {
        SCOPED_TRACE(applications);
        for (const FetchCost& cost : CostsWith(applications))
            EXPECT_TRUE(CallsOnFiles(static_cast<DWORD>(applications)) == cost.onFiles);
    }
}

TEST_F(FetchCosts, BytesReadAndWrittenGrowWithTheApplicationsAndNoFaster)
{
    for (const int applications : {1, 4, 8}) {
        SCOPED_TRACE(applications);
        const auto files = static_cast<std::uint64_t>(applications) + 1;
        for (const FetchCost& cost : CostsWith(applications)) {
            EXPECT_EQ(files * (HEAD + RECORD), cost.bytesRead);
            EXPECT_EQ(files * (RECORD + TRAILER), cost.bytesWritten);
        }
    }
}

// Records of 132 KiB: smaller ones are not worth keeping.
class FetchMemory : public CycleTest {
protected:
    // How often memory for a record was asked for.
    template <class Operation>
    DWORD RecordsAllocatedBy(Operation operation)
    {
        m_allocations = 0;
        vtfltsim::Check("VTFltSimCallBefore", VTFltSimCallBefore(L"calloc", L"135168", 1, 0, Count, this));
        EXPECT_EQ(0u, operation());
        ClearFaults();
        return m_allocations;
    }
    DWORD RecordsAllocated(Session& session)
    {
        return RecordsAllocatedBy([&] { return session.GetBitmap(LARGE_BUFFER); });
    }
    std::unique_ptr<Session> OpenLarge(const std::wstring& appId)
    {
        auto session = std::make_unique<Session>(OpenVolume(large), large.Root(), appId);
        EXPECT_EQ(0u, session->Init());
        return session;
    }

    static constexpr DWORD LARGE_BUFFER = 16 + 131072;
    Volume large = machine.AddVolume(std::uint64_t{BLOCK} * 8 * 131072, BLOCK);

private:
    static void WINAPI Count(void* self, LPCWSTR, LPCWSTR) { ++static_cast<FetchMemory*>(self)->m_allocations; }
    DWORD m_allocations = 0;
};

TEST_F(FetchMemory, IsThatOfTwoRecordsForAnyNumberOfApplications)
{
    Register(L"App0");
    EXPECT_EQ(2u, RecordsAllocated(*OpenLarge(L"App0"))); // its child and its base
    for (const wchar_t* const other : {L"App1", L"App2", L"App3", L"App4", L"App5"})
        Register(other);
    // What it needs beside its own child is for the others, one after the other, and then for its base.
    EXPECT_EQ(2u, RecordsAllocated(*OpenLarge(L"App0")));
    EXPECT_EQ(2u, RecordsAllocated(*OpenLarge(L"App2")));
    EXPECT_EQ(2u, RecordsAllocated(*OpenLarge(L"App5")));
}

TEST_F(FetchMemory, IsUsedAgainByTheNextFetch)
{
    Register(L"App0");
    Register(L"App1");
    const auto session = OpenLarge(L"App0");
    RecordsAllocated(*session);
    // The manager holds the base, which the new one takes the place of, and the memory of one child.
    EXPECT_EQ(1u, RecordsAllocated(*session));
    EXPECT_EQ(1u, RecordsAllocated(*session));
}

TEST_F(FetchMemory, IsUsedForWhatFollowsTheFetch)
{
    Register(L"App0");
    Register(L"App1");
    const auto session = OpenLarge(L"App0");
    RecordsAllocated(*session);
    EXPECT_EQ(0u, RecordsAllocatedBy([&] { return session->SyncChanges(Bytes(LARGE_BUFFER)); }));
    EXPECT_EQ(0u, RecordsAllocatedBy([&] { return session->Success(); }));
}

TEST_F(FetchMemory, KeepsEachApplicationsBitsToItself)
{
    Register(L"App0");
    Register(L"App1");
    machine.TouchBlock(large, 7);
    auto first = OpenLarge(L"App0");
    ASSERT_EQ(0u, first->GetBitmap(LARGE_BUFFER));
    ASSERT_EQ(0u, first->Success());
    first.reset();
    machine.TouchBlock(large, 9);
    // App1 has both changes, App0 only the later one, though they went through the same memory.
    auto second = OpenLarge(L"App1");
    ASSERT_EQ(0u, second->GetBitmap(LARGE_BUFFER));
    EXPECT_EQ((BlockSet{7, 9}), Blocks(*second));
    auto third = OpenLarge(L"App0");
    ASSERT_EQ(0u, third->GetBitmap(LARGE_BUFFER));
    EXPECT_EQ((BlockSet{9}), Blocks(*third));
}

TEST_F(FetchCosts, WhatIsDoneBesideTheFilesIsTheSameForAnyNumberOfApplications)
{
    const std::vector<std::wstring> one = CostsWith(1).front().others;
    EXPECT_EQ(12u, one.size());
    for (const int applications : {1, 4, 8}) {
        for (const FetchCost& cost : CostsWith(applications))
            EXPECT_TRUE(one == cost.others);
    }
}

} // namespace
} // namespace vttest
