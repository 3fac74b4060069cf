// Backups whose bitmap files are damaged, through the exports.
#include "support/machine_test.h"

#include <cstring>
#include <memory>

namespace {

using namespace vttest;

constexpr wchar_t APP[] = L"app1";
constexpr std::size_t BITMAP_LENGTH_AT = 12;
constexpr std::size_t RECORD_SIZE_AT = 16;

void SetField(Bytes& image, std::size_t offset, std::uint32_t value)
{
    std::memcpy(image.data() + offset, &value, sizeof(value));
}

// A volume with one application whose base owes block 1 and whose child owes block 2; the driver has block 3.
class Damaged : public MachineTest {
protected:
    Damaged() { UseVolume(64ull * 65536); }

    void TearDown() override
    {
        session.reset();
        MachineTest::TearDown();
    }

    void UseVolume(std::uint64_t length)
    {
        volume = machine.AddVolume(length);
        VTUnregisterApplication(APP); // with another volume before
        DeleteVerifyList();
        vtfltsim::Check("VTRegisterApplication", VTRegisterApplication(APP));
        m_bufferLength = BufferLength(machine.Info(volume));
        PutBase(Image({1}));
        PutChild(Image({2}));
        machine.TouchBlock(volume, 3);
        Start();
    }
    void Start()
    {
        session.reset();
        session = std::make_unique<Session>(OpenVolume(volume), volume.Root(), APP);
        vtfltsim::Check("VTFltInitBitmapManager", session->Init());
    }
    void DeleteVerifyList()
    {
        if (ValueExists(SERVICE_KEY, L"DeviceListForReSyncapp1.Last"))
            DeleteValue(SERVICE_KEY, L"DeviceListForReSyncapp1.Last");
    }

    Bytes Image(const std::vector<unsigned>& blocks) const
    {
        Bytes bitmap(m_bufferLength);
        for (const unsigned block : blocks)
            bitmap[16 + block / 8] |= static_cast<std::uint8_t>(0x80 >> (block % 8));
        return MakeBitmapImage(65536, bitmap);
    }
    void PutBase(const Bytes& image) const { WriteFileBytes(volume, BaseName(APP), image); }
    void PutChild(const Bytes& image) const { WriteFileBytes(volume, ChildName(APP), image); }

    DWORD Fetch()
    {
        vtfltsim::Check("VTFltPrepareForSnapshot", session->Prepare());
        machine.TakeSnapshot(volume);
        return session->GetBitmap(m_bufferLength);
    }

    // The damages that a reader answers with "verify".
    std::vector<Bytes> Unusable() const
    {
        const Bytes sound = Image({1, 2});
        std::vector<Bytes> images;
        images.push_back({});
        images.emplace_back(sound.begin(), sound.begin() + 87);
        Bytes image = sound;
        image[0] = 'X';
        images.push_back(image);
        image = sound;
        image.back() = 'X';
        images.push_back(image);
        for (const std::uint32_t size : {0u, 4u, 88u}) {
            image = sound;
            SetField(image, RECORD_SIZE_AT, size);
            images.push_back(image);
        }
        return images;
    }
    // The damages that a reader answers with a failure.
    std::vector<Bytes> TooLarge() const
    {
        std::vector<Bytes> images;
        for (const std::uint32_t size : {4097u, 0x80000000u, 0xFFFFFFFFu}) {
            Bytes image = Image({1, 2});
            SetField(image, RECORD_SIZE_AT, size);
            images.push_back(image);
            images.emplace_back(image.begin(), image.begin() + 88);
        }
        return images;
    }

    // What follows a fetch that answered "verify": the files are sound again, and the next cycle is in order.
    void ExpectRecovered()
    {
        EXPECT_TRUE(VerifyList(APP) == std::vector<std::wstring>{volume.guid});
        EXPECT_EQ(VTIsVerifyRequired(APP, volume.Root().c_str()), 1u);
        EXPECT_EQ(session->Success(), 0u);
        EXPECT_TRUE(VerifyList(APP).empty());
        EXPECT_EQ(VTIsVerifyRequired(APP, volume.Root().c_str()), 0u);
        machine.TouchBlock(volume, 9);
        EXPECT_EQ(Fetch(), 0u);
        EXPECT_TRUE(session->Blocks() == std::vector<std::uint64_t>{9});
        EXPECT_EQ(session->Success(), 0u);
    }
    // Nothing was forgotten by anyone.
    void ExpectFetchRefused(DWORD code)
    {
        EXPECT_EQ(Fetch(), code);
        EXPECT_TRUE(VerifyList(APP).empty());
        const VTFLTSIM_VOLUME_INFO info = machine.Info(volume);
        EXPECT_EQ(info.currentBlocks + info.frozenBlocks + info.pendingBlocks, 1u);
    }

    Volume volume;
    std::unique_ptr<Session> session;
    DWORD m_bufferLength = 0;
};

TEST_F(Damaged, SoundFilesGiveWhatBaseChildAndDriverOwe)
{
    EXPECT_EQ(Fetch(), 0u);
    EXPECT_TRUE(session->Blocks() == (std::vector<std::uint64_t>{1, 2, 3}));
    EXPECT_TRUE(VerifyList(APP).empty());
}

TEST_F(Damaged, UnusableBaseMeansVerifyAndIsStartedAfresh)
{
    for (const Bytes& image : Unusable()) {
        PutBase(image);
        EXPECT_EQ(Fetch(), 0x10001u);
        ExpectRecovered();
    }
}

TEST_F(Damaged, UnusableChildMeansVerifyAndIsStartedAfresh)
{
    for (const Bytes& image : Unusable()) {
        PutChild(image);
        EXPECT_EQ(Fetch(), 0x10001u);
        ExpectRecovered();
    }
}

TEST_F(Damaged, MissingFilesMeanVerifyAndAreStartedAfresh)
{
    RemoveFile(volume, BaseName(APP));
    EXPECT_EQ(Fetch(), 0x10001u);
    ExpectRecovered();
    RemoveFile(volume, ChildName(APP));
    EXPECT_EQ(Fetch(), 0x10001u);
    ExpectRecovered();
}

TEST_F(Damaged, BaseThatClaimsMoreThanItsFileIsAFailureAndNothingIsForgotten)
{
    for (const Bytes& image : TooLarge()) {
        PutBase(image);
        ExpectFetchRefused(0xFFFFFFFF);
        EXPECT_TRUE(Base(volume, APP).image == image);
    }
}

TEST_F(Damaged, ChildThatClaimsMoreThanItsFileIsAFailureAndNothingIsForgotten)
{
    for (const Bytes& image : TooLarge()) {
        PutChild(image);
        ExpectFetchRefused(0xFFFFFFFF);
        EXPECT_TRUE(Child(volume, APP).image == image);
        EXPECT_TRUE(Base(volume, APP).image == Image({1}));
    }
}

TEST_F(Damaged, UnusableFilesAreFoundByTheVerifyQueryToo)
{
    for (const Bytes& image : Unusable()) {
        PutChild(image);
        EXPECT_EQ(VTIsVerifyRequired(APP, volume.Root().c_str()), 1u);
        EXPECT_TRUE(VerifyList(APP) == std::vector<std::wstring>{volume.guid});
        DeleteVerifyList();
    }
}

TEST_F(Damaged, SnapshotChangesCannotBeHandedToAnUnusableChild)
{
    for (const Bytes& image : Unusable()) {
        PutChild(image);
        EXPECT_EQ(session->SyncChanges(Bytes(m_bufferLength, 0xFF)), 0x10001u);
        EXPECT_TRUE(VerifyList(APP) == std::vector<std::wstring>{volume.guid});
        EXPECT_TRUE(Child(volume, APP).Blocks().empty());
        DeleteVerifyList();
    }
}

TEST_F(Damaged, BitmapLengthBeyondTheRecordKeepsWhatTheRecordHolds)
{
    for (const std::uint32_t length : {4096u, 5000u, 0xFFFFFFFFu}) {
        Bytes image = Image({1});
        SetField(image, BITMAP_LENGTH_AT, length);
        PutBase(image);
        image = Image({2});
        SetField(image, BITMAP_LENGTH_AT, length);
        PutChild(image);
        EXPECT_EQ(Fetch(), 0u);
        const std::vector<std::uint64_t> blocks = session->Blocks();
        ASSERT_GE(blocks.size(), 2u) << length;
        EXPECT_EQ(blocks[0], 1u);
        EXPECT_EQ(blocks[1], 2u);
        EXPECT_EQ(Base(volume, APP).BitmapLength(), m_bufferLength);
        EXPECT_EQ(Base(volume, APP).image.size(), 4096u);
    }
}

TEST_F(Damaged, BitmapBytesThatAreClaimedAndNotThereCountAsChanged)
{
    session.reset();
    UseVolume(131072ull * 65536); // a bitmap of 16 KiB
    Bytes image = MakeBitmapImage(65536, Bytes(32));
    SetField(image, BITMAP_LENGTH_AT, m_bufferLength);
    PutChild(image);
    EXPECT_EQ(Fetch(), 0u);
    // Blocks 1 of the base and 3 of the driver, then all that lies behind the 4008 bytes that the record holds.
    constexpr std::uint64_t FIRST_LOST = (4008 - 16) * 8;
    const std::vector<std::uint64_t> blocks = session->Blocks();
    ASSERT_EQ(blocks.size(), 2u + 131072u - FIRST_LOST);
    EXPECT_EQ(blocks[0], 1u);
    EXPECT_EQ(blocks[1], 3u);
    EXPECT_EQ(blocks[2], FIRST_LOST);
    EXPECT_EQ(blocks.back(), 131071u);
}

TEST_F(Damaged, SmallestValidChildGrowsToTheDriversBitmap)
{
    Bytes image(88);
    std::memcpy(image.data(), "STCA", 4);
    SetField(image, RECORD_SIZE_AT, 88);
    std::memcpy(image.data() + 84, "ACDE", 4);
    PutChild(image);
    EXPECT_EQ(Fetch(), 0u);
    EXPECT_TRUE(session->Blocks() == (std::vector<std::uint64_t>{1, 3}));
}

TEST_F(Damaged, FileOf4GiBWithASoundRecordInFrontIsUsedAndCutToItsRecord)
{
    {
        const vtflt::UniqueHandle file(
            CreateFileW(RealPath(volume, BaseName(APP)).c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(file.valid());
        LARGE_INTEGER end = {};
        end.QuadPart = 4ll << 30;
        ASSERT_TRUE(SetFilePointerEx(file.get(), end, nullptr, FILE_BEGIN));
        ASSERT_TRUE(SetEndOfFile(file.get()));
    }
    EXPECT_EQ(Fetch(), 0u);
    EXPECT_TRUE(session->Blocks() == (std::vector<std::uint64_t>{1, 2, 3}));
    EXPECT_EQ(Base(volume, APP).image.size(), 4096u);
}

} // namespace
