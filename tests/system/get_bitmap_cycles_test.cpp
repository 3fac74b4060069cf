// Whole cycles of two applications with different schedules, each compared with a reference set of block numbers that
// the case keeps beside the library.
#include "driver/protocol.h"
#include "support/cycle_test.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <random>

namespace vttest {

namespace {

using namespace vtflt;

// What one application must be given: what changed since its last confirmed fetch.
struct Owed {
    BlockSet fetched; // handed out, not confirmed
    BlockSet since;   // changed since the last fetch
    BlockSet All() const
    {
        BlockSet all = fetched;
        all.insert(since.begin(), since.end());
        return all;
    }
    void Fetch()
    {
        fetched = All();
        since.clear();
    }
};

class GetBitmapCycles : public CycleTest {
protected:
    void SetUp() override
    {
        for (const wchar_t* app : {L"daily", L"hourly"}) {
            Register(app);
            m_owed[app];
        }
    }

    void Change(const BlockSet& blocks)
    {
        for (const std::uint64_t block : blocks) {
            machine.TouchBlock(volume, block);
            for (auto& [app, owed] : m_owed)
                owed.since.insert(block);
        }
    }

    void Resize(std::uint64_t blocks, DWORD lastPart = 0)
    {
        ASSERT_EQ(0u, VTFltSimResizeVolume(machine.handle(), volume.guid.c_str(), blocks * BLOCK - lastPart));
        m_blocks = blocks;
        for (auto& [app, owed] : m_owed) {
            owed.fetched.erase(owed.fetched.lower_bound(blocks), owed.fetched.end());
            owed.since.erase(owed.since.lower_bound(blocks), owed.since.end());
        }
    }

    // A fetch through a new manager, as every backup makes it; the bits behind the volume's end mean nothing.
    BlockSet Fetch(const std::wstring& app, bool success)
    {
        const auto session = Open(app);
        EXPECT_EQ(0u, session->GetBitmap());
        BlockSet blocks = Blocks(*session);
        blocks.erase(blocks.lower_bound(m_blocks), blocks.end());
        m_owed[app].Fetch();
        if (success) {
            EXPECT_EQ(0u, session->Success());
        }
        return blocks;
    }

    void ExpectBackup(const std::wstring& app, bool success = true)
    {
        const BlockSet delivered = Fetch(app, success);
        EXPECT_EQ(m_owed[app].fetched, delivered) << Narrow(app);
        if (success)
            m_owed[app].fetched.clear();
    }

    std::map<std::wstring, Owed> m_owed;
    std::uint64_t m_blocks = BLOCKS;
};

TEST_F(GetBitmapCycles, TwoApplicationsWithDifferentSchedulesEachGetTheirOwnChanges)
{
    for (std::uint64_t day = 0; day < 3; ++day) {
        for (std::uint64_t hour = 0; hour < 5; ++hour) {
            Change({day * 20 + hour, 99 - hour * 3, 42});
            ExpectBackup(L"hourly");
        }
        Change({day});
        ExpectBackup(L"daily");
    }
    ExpectBackup(L"hourly");
}

TEST_F(GetBitmapCycles, AnApplicationThatNeverSucceedsKeepsWhatItIsOwed)
{
    for (std::uint64_t block = 0; block < 10; ++block) {
        Change({block, block + 50});
        ExpectBackup(L"daily", false);
        ExpectBackup(L"hourly");
    }
    EXPECT_EQ(20u, m_owed[L"daily"].fetched.size());
    ExpectBackup(L"daily");
    ExpectBackup(L"daily");
}

TEST_F(GetBitmapCycles, GrowthOfTheVolumeKeepsOldChangesAndTakesNewBlocks)
{
    Change({1, 99});
    ExpectBackup(L"hourly");
    Resize(1000);
    Change({2, 999});
    ExpectBackup(L"hourly");
    Resize(40000, 1);
    Change({3, 39999});
    ExpectBackup(L"hourly");
    EXPECT_EQ((BlockSet{1, 2, 3, 99, 999, 39999}), m_owed[L"daily"].since);
    ExpectBackup(L"daily");
    // 5000 bytes of bits and the header.
    EXPECT_EQ(5016u, Base(volume, L"daily").BitmapLength());
}

TEST_F(GetBitmapCycles, ShrinkageOfTheVolumeDropsTheBlocksThatAreGone)
{
    Resize(40000);
    Change({1, 63, 64, 39999});
    ExpectBackup(L"hourly", false);
    Resize(64);
    Change({2});
    ExpectBackup(L"hourly");
    ExpectBackup(L"daily");
    EXPECT_EQ(24u, Base(volume, L"daily").BitmapLength());
    EXPECT_EQ(4096u, Base(volume, L"daily").RecordSize());
    // What was cut off does not come back with the length.
    Resize(40000);
    ExpectBackup(L"hourly");
    ExpectBackup(L"daily");
}

TEST_F(GetBitmapCycles, TheBufferOfALengthBeforeGrowthIsRefusedWithTheNewLength)
{
    const auto session = Open(L"daily");
    ASSERT_EQ(0u, session->GetBitmap(BUFFER_LENGTH));
    Resize(1000);
    Change({999});
    EXPECT_EQ(234u, session->GetBitmap(BUFFER_LENGTH));
    EXPECT_EQ(144u, session->Size());
    EXPECT_EQ(0u, session->GetBitmap(144));
    EXPECT_EQ((BlockSet{999}), Blocks(*session));
}

TEST_F(GetBitmapCycles, ABufferOfALengthBeforeShrinkageStillServes)
{
    Resize(1000);
    const auto session = Open(L"daily");
    ASSERT_EQ(0u, session->GetBitmap(144));
    Resize(100);
    Change({5});
    EXPECT_EQ(0u, session->GetBitmap(144));
    EXPECT_EQ((BlockSet{5}), Blocks(*session));
}

// A long history of changes, backups, handed-back changes and single failures of any call. Whatever happens, a bitmap
// that comes with 0, for a volume that is not on the application's verify list and whose last verify backup ended with
// success, has every block of the reference.
class GetBitmapHistory : public GetBitmapCycles {
protected:
    struct Target {
        const wchar_t* function;
        const wchar_t* match;
        DWORD error;
    };

    std::uint32_t Random(std::uint32_t bound) { return static_cast<std::uint32_t>(m_random()) % bound; }

    BlockSet RandomBlocks()
    {
        BlockSet blocks;
        for (std::uint32_t count = Random(4); count > 0; --count)
            blocks.insert(Random(static_cast<std::uint32_t>(m_blocks)));
        return blocks;
    }

    void RandomFault()
    {
        static constexpr Target CALLS[] = {
            {L"CreateFileW", L"VelVolTrc", ERROR_ACCESS_DENIED},  {L"ReadFile", L"VelVolTrc", ERROR_CRC},
            {L"WriteFile", L"VelVolTrc", ERROR_DISK_FULL},        {L"SetFilePointer", L"VelVolTrc", ERROR_SEEK},
            {L"FlushFileBuffers", L"VelVolTrc", ERROR_IO_DEVICE}, {L"RegSetValueExW", nullptr, ERROR_ACCESS_DENIED},
            {L"RegDeleteValueW", nullptr, ERROR_ACCESS_DENIED},   {L"RegQueryValueExW", nullptr, ERROR_ACCESS_DENIED},
            {L"RegCreateKeyExW", nullptr, ERROR_ACCESS_DENIED},   {L"CreateMutexW", nullptr, ERROR_ACCESS_DENIED},
        };
        static constexpr DWORD REQUESTS[] = {VTFLTCTL_GET_BITMAP, VTFLTCTL_REPLICATION_SUCCESS, VTFLTCTL_GET_BLOCK_SIZE,
                                             IOCTL_DISK_GET_LENGTH_INFO};
        const std::uint32_t choice = Random(14);
        if (choice < std::size(CALLS))
            vtfltsim::FailCall(CALLS[choice].function, CALLS[choice].error, CALLS[choice].match, 1 + Random(8));
        else
            machine.FailRequest(REQUESTS[choice - std::size(CALLS)], ERROR_NOT_READY);
    }

    // A missing file is the commonest damage.
    void RandomLoss(const std::wstring& app)
    {
        const std::wstring name = Random(2) == 0 ? BaseName(app) : ChildName(app);
        if (FileExists(volume, name))
            RemoveFile(volume, name);
    }

    bool MustVerify(const std::wstring& app) const
    {
        const std::vector<std::wstring> list = VerifyList(app);
        return std::find(list.begin(), list.end(), volume.guid) != list.end();
    }

    // One backup with at most one failure somewhere in it. Verify backups read the whole volume, so that they owe
    // nothing to the bitmap. A verify backup that does not end with success is repeated as one: the mark may be gone.
    void Backup(const std::wstring& app, std::size_t step)
    {
        const auto session = Open(app);
        Owed& owed = m_owed[app];
        const std::uint32_t failing = Random(4);
        if (failing == 0)
            RandomFault();
        const DWORD result = session->GetBitmap(BUFFER_LENGTH);
        ClearFaults();
        if (result != 0 && result != VERIFY)
            return;
        if (result == VERIFY || MustVerify(app))
            m_verifyAgain[app] = true;
        if (!m_verifyAgain[app]) {
            const BlockSet delivered = Blocks(*session);
            const BlockSet wanted = owed.All();
            EXPECT_TRUE(std::includes(delivered.begin(), delivered.end(), wanted.begin(), wanted.end()))
                << Narrow(app) << " lost changes at step " << step;
            ++m_incremental;
        }
        owed.Fetch();

        if (failing == 1)
            RandomFault();
        const BlockSet written = RandomBlocks();
        const DWORD handedBack = session->SyncChanges(BufferOf(BUFFER_LENGTH, written));
        ClearFaults();
        if (handedBack != 0)
            return;
        owed.since.insert(written.begin(), written.end());

        if (failing == 2)
            RandomFault();
        const DWORD success = session->Success();
        ClearFaults();
        if (success != 0)
            return;
        owed.fetched.clear();
        m_verifyAgain[app] = false;
    }

    std::mt19937 m_random{20240305};
    std::map<std::wstring, bool> m_verifyAgain;
    std::size_t m_incremental = 0;
};

TEST_F(GetBitmapHistory, LosesNoChangeWhateverFails)
{
    for (std::size_t step = 0; step < 300 && !HasFailure(); ++step) {
        Change(RandomBlocks());
        const std::wstring app = Random(3) == 0 ? L"daily" : L"hourly";
        if (Random(12) == 0)
            RandomLoss(app);
        Backup(app, step);
    }
    EXPECT_GT(m_incremental, 100u);
}

} // namespace

} // namespace vttest
