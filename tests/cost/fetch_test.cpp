// What a fetch costs through the shipped DLL, its log included, on volumes as large as they are meant for: memory, calls,
// bytes and allocations. Counts, not times: they are the same on any machine.
#include "cost/peak_watch.h"
#include "support/machine_test.h"

#include <cstdlib>
#include <map>
#include <memory>
#include <set>

namespace vttest {
namespace {

constexpr std::uint64_t TEBIBYTE = std::uint64_t{1} << 40;
constexpr std::uint64_t MEBIBYTE = std::uint64_t{1} << 20;
constexpr DWORD BLOCK = 65536;
constexpr DWORD GET_BITMAP = 0xB0000002;
constexpr DWORD REPLICATION_SUCCESS = 0xB0000011;
constexpr std::uint64_t HEAD = 88;   // what is looked at before a file is read whole
constexpr std::uint64_t TRAILER = 4; // written last, when the rest is safe

std::uint64_t RecordBytes(DWORD bufferLength)
{
    return (bufferLength + 4187u) & ~4095u;
}

class LargeFetch : public MachineTest {
protected:
    LargeFetch()
    {
        // The driver's memory is none of the library's: its requests are answered at once, with nothing done.
        for (const DWORD code : {GET_BITMAP, REPLICATION_SUCCESS})
            vtfltsim::Check("VTFltSimForgeReply",
                            VTFltSimForgeReply(machine.handle(), code, nullptr, 1, 0, nullptr, 0));
    }

    Volume AddVolume(std::uint64_t tebibytes)
    {
        const Volume volume = machine.AddVolume(tebibytes * TEBIBYTE, BLOCK);
        m_length = BufferLength(machine.Info(volume));
        return volume;
    }
    DWORD Length() const { return m_length; }

    static std::wstring AppId(int index)
    {
        return {L'A', L'p', L'p', static_cast<wchar_t>(L'0' + index / 10), static_cast<wchar_t>(L'0' + index % 10)};
    }
    void RegisterUpTo(int applications)
    {
        for (; m_registered < applications; ++m_registered)
            ASSERT_EQ(0u, VTRegisterApplication(AppId(m_registered).c_str()));
    }

    std::unique_ptr<Session> Make(const Volume& volume, int application)
    {
        auto session = std::make_unique<Session>(OpenVolume(volume), volume.Root(), AppId(application));
        session->Buffer().reserve(2 * std::size_t{m_length}); // the caller's
        return session;
    }

    // Registered applications, whose files have the driver's length.
    void SetUpFiles(const Volume& volume, int applications)
    {
        RegisterUpTo(applications);
        const std::unique_ptr<Session> session = Make(volume, 0);
        EXPECT_EQ(0u, session->Init());
        EXPECT_EQ(0u, session->GetBitmap(m_length));
    }

    struct Peaks {
        std::uint64_t ofFirst; // a manager's first fetch
        std::uint64_t ofBoth;  // that and the next
    };
    Peaks PeaksOfTwoFetches(const Volume& volume, int caller)
    {
        const std::unique_ptr<Session> session = Make(volume, caller);
        const PeakWatch watch(GetModuleHandleW(L"VTFltMgr.dll"));
        EXPECT_EQ(0u, session->Init());
        EXPECT_EQ(0u, session->GetBitmap(m_length));
        const std::uint64_t ofFirst = watch.Peak();
        EXPECT_EQ(0u, session->GetBitmap(m_length));
        return {ofFirst, watch.Peak()};
    }

    static std::uint64_t Limit(int applications, std::uint64_t recordBytes)
    {
        return (static_cast<std::uint64_t>(applications) + 2) * recordBytes + 8 * MEBIBYTE;
    }

private:
    DWORD m_length = 0;
    int m_registered = 0;
};

class LargeFetchMemory : public LargeFetch {};

TEST_F(LargeFetchMemory, WatchSeesWhatIsGivenBackBeforeTheNextCall)
{
    const PeakWatch watch(GetModuleHandleW(nullptr));
    void* const bytes = std::calloc(1, 32 * MEBIBYTE);
    ASSERT_NE(nullptr, bytes);
    std::free(bytes);
    EXPECT_GE(watch.Peak(), 32 * MEBIBYTE);
}

// The child and the base; in a later fetch a record that is read beside the two that the manager has.
TEST_F(LargeFetchMemory, IsThatOfTwoRecordsAndOfThreeInALaterFetchForAnyNumberOfApplications)
{
    const Volume volume = AddVolume(16);
    const std::uint64_t record = RecordBytes(Length());
    for (const int applications : {1, 4}) {
        SCOPED_TRACE(applications);
        SetUpFiles(volume, applications);
        for (const int caller : {0, applications - 1}) {
            SCOPED_TRACE(caller);
            const Peaks peaks = PeaksOfTwoFetches(volume, caller);
            EXPECT_LE(peaks.ofBoth, Limit(applications, record));
            EXPECT_LT(peaks.ofFirst, 2 * record + 8 * MEBIBYTE);
            EXPECT_LT(peaks.ofBoth, 3 * record + 8 * MEBIBYTE);
            EXPECT_GE(peaks.ofFirst, 2 * record); // less would be no measurement
        }
    }
}

// A volume that grows a little: each bitmap is there in its old length and in its new one for a moment.
TEST_F(LargeFetchMemory, StaysBelowThatWhenTheVolumeHasGrown)
{
    const Volume volume = AddVolume(16);
    const DWORD grown = Length() + BLOCK;
    for (const int applications : {1, 4}) {
        SCOPED_TRACE(applications);
        RegisterUpTo(applications);
        const std::unique_ptr<Session> session = Make(volume, 0);
        const PeakWatch watch(GetModuleHandleW(L"VTFltMgr.dll"));
        EXPECT_EQ(0u, session->Init());
        EXPECT_EQ(0u, session->GetBitmap(Length()));
        EXPECT_EQ(0u, session->GetBitmap(grown));
        EXPECT_LE(watch.Peak(), Limit(applications, RecordBytes(grown)));
        EXPECT_EQ(grown, Base(volume, AppId(0)).BitmapLength());
    }
}

// --- calls and bytes

struct Cost {
    std::size_t calls = 0;
    std::map<std::wstring, DWORD> onFiles; // calls on bitmap files, by function
    std::uint64_t bytesRead = 0;
    std::uint64_t bytesWritten = 0;
};

std::uint64_t SizeIn(const std::wstring& call)
{
    return std::stoull(Narrow(call.substr(call.rfind(L'|') + 1)));
}

class LargeFetchCost : public LargeFetch {
protected:
    // Of one fetch.
    Cost CostOf(Session& session) const
    {
        VTFltSimRecord(1);
        EXPECT_EQ(0u, session.GetBitmap(Length()));
        VTFltSimRecord(0);
        Cost cost;
        const std::vector<std::wstring> calls = vtfltsim::Trace();
        cost.calls = calls.size();
        for (const std::wstring& call : calls) {
            if (call.find(L"VelVolTrc_") == std::wstring::npos)
                continue;
            const std::wstring function = call.substr(0, call.find(L' '));
            ++cost.onFiles[function];
            if (function == L"ReadFile")
                cost.bytesRead += SizeIn(call);
            else if (function == L"WriteFile")
                cost.bytesWritten += SizeIn(call);
        }
        return cost;
    }

    // Of one fetch. VirtualAlloc is not among what the simulator counts: memory that came from it would be seen by
    // LargeFetchMemory only.
    DWORD AllocationsOf(Session& session) const
    {
        VTFltSimResetCounts();
        EXPECT_EQ(0u, session.GetBitmap(Length()));
        DWORD allocations = 0;
        for (const wchar_t* const function : {L"malloc", L"calloc", L"realloc", L"HeapAlloc", L"LocalAlloc"})
            allocations += VTFltSimGetCallCount(function);
        return allocations;
    }

    // Beside the files there are the same calls for any number of applications and any volume: the driver's two requests,
    // the volume's mutex, the questions to the registry, and six records of the log.
    void ExpectCost(const Cost& cost, int applications) const
    {
        constexpr std::size_t OTHERS = 126;
        const auto files = static_cast<DWORD>(applications) + 1; // read, and as many written
        EXPECT_TRUE((std::map<std::wstring, DWORD>{{L"CreateFileW", 2 * files},
                                                   {L"CloseHandle", 2 * files},
                                                   {L"GetFileSizeEx", files},
                                                   {L"ReadFile", 2 * files},
                                                   {L"SetFilePointer", 3 * files},
                                                   {L"WriteFile", 2 * files},
                                                   {L"FlushFileBuffers", 2 * files}}) == cost.onFiles);
        EXPECT_EQ(14 * files + OTHERS, cost.calls);
        EXPECT_EQ(files * (HEAD + RecordBytes(Length())), cost.bytesRead);
        EXPECT_EQ(files * (RecordBytes(Length()) + TRAILER), cost.bytesWritten);
    }

    // By the application whose files are read first and by the one whose are last, each time with a manager that was just
    // made, as a backup makes it, and with the same one again.
    void ExpectCostOfEveryFetch(const Volume& volume, int applications)
    {
        SetUpFiles(volume, applications);
        for (const int caller : {0, applications - 1}) {
            SCOPED_TRACE(caller);
            const std::unique_ptr<Session> session = Make(volume, caller);
            EXPECT_EQ(0u, session->Init());
            ExpectCost(CostOf(*session), applications);
            ExpectCost(CostOf(*session), applications);
        }
    }
};

TEST_F(LargeFetchCost, CallsAreThoseOnTheFilesAndTheSameOthersForAnyNumberOfApplications)
{
    const Volume volume = AddVolume(1);
    for (const int applications : {1, 4, 16}) {
        SCOPED_TRACE(applications);
        ExpectCostOfEveryFetch(volume, applications);
    }
}

TEST_F(LargeFetchCost, CallsAreTheSameOnALargeVolume)
{
    const Volume volume = AddVolume(16);
    for (const int applications : {1, 4}) {
        SCOPED_TRACE(applications);
        ExpectCostOfEveryFetch(volume, applications);
    }
}

TEST_F(LargeFetchCost, AllocationsAreFewAndTheSameForAnyNumberOfApplications)
{
    const Volume volume = AddVolume(1);
    std::set<DWORD> ofNewManagers;
    std::set<DWORD> ofTheSameAgain; // which have their records already
    for (const int applications : {1, 4, 16}) {
        SetUpFiles(volume, applications);
        for (const int caller : {0, applications - 1}) {
            const std::unique_ptr<Session> session = Make(volume, caller);
            EXPECT_EQ(0u, session->Init());
            ofNewManagers.insert(AllocationsOf(*session));
            ofTheSameAgain.insert(AllocationsOf(*session));
        }
    }
    EXPECT_EQ(1u, ofNewManagers.size());
    EXPECT_EQ(1u, ofTheSameAgain.size());
    // At least memory for the record that is read before another one is given up, or they are not counted.
    EXPECT_GE(*ofTheSameAgain.begin(), 1u);
    EXPECT_LE(*ofTheSameAgain.rbegin(), 5u);
    EXPECT_GE(*ofNewManagers.begin(), 2u);
    EXPECT_LE(*ofNewManagers.rbegin(), 8u);
}

} // namespace
} // namespace vttest
