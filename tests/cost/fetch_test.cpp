// What a fetch costs through the shipped DLL, its log included, on volumes as large as they are meant for: memory, calls,
// bytes and allocations. Counts, not times: they are the same on any machine.
#include "cost/peak_watch.h"
#include "support/machine_test.h"

#include <cstdlib>
#include <map>
#include <memory>

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

    // Of a manager's first fetch and the next.
    std::uint64_t PeakOfTwoFetches(const Volume& volume, int caller)
    {
        const std::unique_ptr<Session> session = Make(volume, caller);
        const PeakWatch watch(GetModuleHandleW(L"VTFltMgr.dll"));
        EXPECT_EQ(0u, session->Init());
        EXPECT_EQ(0u, session->GetBitmap(m_length));
        EXPECT_EQ(0u, session->GetBitmap(m_length));
        return watch.Peak();
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

TEST_F(LargeFetchMemory, IsThatOfARecordForEachApplicationAndTwoAtMost)
{
    const Volume volume = AddVolume(16);
    const std::uint64_t record = RecordBytes(Length());
    for (const int applications : {1, 4}) {
        SCOPED_TRACE(applications);
        RegisterUpTo(applications);
        for (const int caller : {0, applications - 1}) {
            SCOPED_TRACE(caller);
            const std::uint64_t peak = PeakOfTwoFetches(volume, caller);
            EXPECT_LE(peak, Limit(applications, record));
            EXPECT_GE(peak, 2 * record); // the child and the base: less would be no measurement
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
    DWORD allocations = 0;
};

std::uint64_t SizeIn(const std::wstring& call)
{
    return std::stoull(Narrow(call.substr(call.rfind(L'|') + 1)));
}

class LargeFetchCost : public LargeFetch {
protected:
    Cost CostWith(const Volume& volume, int applications)
    {
        RegisterUpTo(applications);
        const std::unique_ptr<Session> session = Make(volume, 0);
        EXPECT_EQ(0u, session->Init());
        EXPECT_EQ(0u, session->GetBitmap(Length())); // the files have the driver's length from here on

        Cost cost;
        VTFltSimResetCounts();
        EXPECT_EQ(0u, session->GetBitmap(Length()));
        for (const wchar_t* const function : {L"malloc", L"calloc", L"realloc", L"HeapAlloc", L"LocalAlloc"})
            cost.allocations += VTFltSimGetCallCount(function);

        VTFltSimRecord(1);
        EXPECT_EQ(0u, session->GetBitmap(Length()));
        VTFltSimRecord(0);
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
};

// Beside the files there are the same calls for any number of applications: the driver's two requests, the volume's mutex,
// the questions to the registry, and six records of the log.
TEST_F(LargeFetchCost, CallsAreThoseOnTheFilesAndTheSameOthersForAnyNumberOfApplications)
{
    const Volume volume = AddVolume(1);
    constexpr std::size_t OTHERS = 132;
    for (const int applications : {1, 4, 16}) {
        SCOPED_TRACE(applications);
        const Cost cost = CostWith(volume, applications);
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
}

// Of a manager that has fetched before, and so has its records.
TEST_F(LargeFetchCost, AllocationsAreFewAndTheSameForAnyNumberOfApplications)
{
    const Volume volume = AddVolume(1);
    for (const int applications : {1, 4, 16}) {
        SCOPED_TRACE(applications);
        const DWORD allocations = CostWith(volume, applications).allocations;
        EXPECT_LE(allocations, 5u);
        EXPECT_GE(allocations,
                  1u); // memory for the record that is read before another one is given up: they are counted
    }
}

} // namespace
} // namespace vttest
