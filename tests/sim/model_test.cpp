// The machine model: change bits and epochs, replies byte for byte, snapshots, faults.
#include "model/bits.h"
#include "model/contents.h"
#include "model/driver.h"
#include "model/state.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace vtfltsim::model;
using Bytes = std::vector<std::uint8_t>;

class MemoryStore final : public Store {
public:
    Status ReadAt(std::uint64_t offset, std::uint8_t* data, std::uint32_t length) override
    {
        Reach(offset + length);
        std::memcpy(data, m_bytes.data() + offset, length);
        return OK;
    }
    Status WriteAt(std::uint64_t offset, const std::uint8_t* data, std::uint32_t length) override
    {
        Reach(offset + length);
        std::memcpy(m_bytes.data() + offset, data, length);
        return OK;
    }

private:
    void Reach(std::uint64_t end)
    {
        if (m_bytes.size() < end)
            m_bytes.resize(end, 0);
    }
    Bytes m_bytes;
};

class SimModelTest : public ::testing::Test {
protected:
    SimModelTest() : m_machine(std::make_unique<MachineRecord>())
    {
        InitialiseMachine(*m_machine);
        SetGeometry(100 * 4096, 4096);
    }

    void SetGeometry(std::uint64_t length, std::uint32_t blockSize)
    {
        m_volume = {};
        m_volume.inUse = 1;
        m_volume.length = length;
        m_volume.blockSize = blockSize;
        const std::size_t bytes = BitmapBytes(length, blockSize);
        m_current.assign(bytes, 0);
        m_frozen.assign(bytes, 0);
        m_pending.assign(bytes, 0);
        m_allocated.assign(BytesForBits(ChunkCount(length)), 0);
        m_maps = {m_current.data(), m_frozen.data(), m_pending.data(), m_allocated.data()};
    }
    void Write(std::uint64_t block) { NoteWrite(*m_machine, m_volume, m_maps, block * m_volume.blockSize, 1); }
    void TakeSnapshot() { NoteSnapshot(m_volume, m_maps); }

    VolumeReply Ask(std::uint32_t code, Bytes* output = nullptr, const Bytes* input = nullptr)
    {
        Request request;
        request.code = code;
        request.input = input != nullptr ? input->data() : nullptr;
        request.inputLength = input != nullptr ? static_cast<std::uint32_t>(input->size()) : 0;
        request.output = output != nullptr ? output->data() : nullptr;
        request.outputLength = output != nullptr ? static_cast<std::uint32_t>(output->size()) : 0;
        return AnswerVolume(*m_machine, m_volume, m_maps, request);
    }
    // The blocks that a fetch hands out; the fetch must succeed.
    std::vector<std::uint64_t> Fetch()
    {
        Bytes reply(16 + (m_current.size() + 7) / 8 * 8, 0xEE);
        EXPECT_EQ(OK, Ask(GET_BITMAP, &reply).status);
        return BlocksOf(reply);
    }
    std::vector<std::uint64_t> BlocksOf(const Bytes& reply)
    {
        std::vector<std::uint64_t> blocks;
        for (std::uint64_t block = 0; block < (reply.size() - 16) * 8; ++block) {
            if (TestBit(reply.data() + 16, block))
                blocks.push_back(block);
        }
        return blocks;
    }
    using Blocks = std::vector<std::uint64_t>;

    std::unique_ptr<MachineRecord> m_machine;
    VolumeRecord m_volume = {};
    VolumeMaps m_maps;
    Bytes m_current, m_frozen, m_pending, m_allocated;
};

TEST(SimBitsTest, SetBitsSetsExactlyItsRange)
{
    for (std::uint64_t first = 0; first < 40; ++first) {
        for (std::uint64_t last = first; last < 40; ++last) {
            Bytes bits(5, 0);
            SetBits(bits.data(), first, last);
            for (std::uint64_t i = 0; i < 40; ++i)
                ASSERT_EQ(i >= first && i <= last, TestBit(bits.data(), i)) << first << " " << last << " " << i;
            ASSERT_EQ(last - first + 1, CountBits(bits.data(), bits.size()));
            ASSERT_EQ(first, FindBit(bits.data(), 0, 40, true));
            ASSERT_EQ(last + 1, FindBit(bits.data(), first, 40, false));
        }
    }
}

TEST(SimBitsTest, MostSignificantBitComesFirst)
{
    Bytes bits(2, 0);
    SetBits(bits.data(), 0, 0);
    SetBits(bits.data(), 15, 15);
    EXPECT_EQ((Bytes{0x80, 0x01}), bits);
}

TEST_F(SimModelTest, AWriteAcrossBlocksSetsEveryBlockItTouches)
{
    NoteWrite(*m_machine, m_volume, m_maps, 4095, 4098);
    EXPECT_EQ((Blocks{0, 1, 2}), Fetch());
}

TEST_F(SimModelTest, ADriverThatForgetsOverlooksAsManyWritesAsItIsTold)
{
    m_volume.forget = 2;
    Write(1);
    Write(2);
    Write(3);
    EXPECT_EQ((Blocks{3}), Fetch());
    EXPECT_EQ(0u, m_volume.unseen);            // nobody will be told
    EXPECT_TRUE(TestBit(m_maps.allocated, 0)); // that the blocks were written is no secret of the driver's
    m_volume.forget = FORGET_ALL;
    for (std::uint64_t block = 4; block < 8; ++block)
        Write(block);
    m_volume.forget = 0;
    Write(8);
    EXPECT_EQ((Blocks{3, 8}), Fetch());
}

TEST_F(SimModelTest, AnAnnouncedSnapshotSplitsWhatIsBeforeFromWhatIsAfter)
{
    Write(3);
    EXPECT_EQ(OK, Ask(PREPARE_FOR_SNAPSHOT).status);
    Write(4); // announced, not yet taken
    TakeSnapshot();
    Write(5);
    EXPECT_EQ((Blocks{3, 4}), Fetch());
    EXPECT_EQ(OK, Ask(REPLICATION_SUCCESS).status);
    EXPECT_EQ((Blocks{5}), Fetch());
}

TEST_F(SimModelTest, WithoutAnAnnouncedSnapshotAFetchTakesEverything)
{
    Write(3);
    TakeSnapshot(); // not announced
    Write(5);
    EXPECT_EQ((Blocks{3, 5}), Fetch());
}

TEST_F(SimModelTest, AWriteBetweenFetchAndConfirmationIsNotForgotten)
{
    Write(1);
    EXPECT_EQ((Blocks{1}), Fetch());
    Write(2);
    Write(1);
    EXPECT_EQ(OK, Ask(REPLICATION_SUCCESS).status);
    EXPECT_EQ((Blocks{1, 2}), Fetch());
}

TEST_F(SimModelTest, AnUnconfirmedFetchIsAnsweredAgain)
{
    Write(1);
    EXPECT_EQ((Blocks{1}), Fetch());
    EXPECT_EQ((Blocks{1}), Fetch());
    Write(7);
    EXPECT_EQ((Blocks{1, 7}), Fetch());
}

TEST_F(SimModelTest, ARepeatedFetchOfOneSnapshotDoesNotReachBeyondIt)
{
    Write(1);
    Ask(PREPARE_FOR_SNAPSHOT);
    TakeSnapshot();
    Write(2);
    EXPECT_EQ((Blocks{1}), Fetch());
    EXPECT_EQ((Blocks{1}), Fetch());
    Ask(REPLICATION_SUCCESS);
    EXPECT_EQ((Blocks{2}), Fetch());
}

TEST_F(SimModelTest, TwoSnapshotsBeforeAFetchAddUp)
{
    Write(1);
    Ask(PREPARE_FOR_SNAPSHOT);
    TakeSnapshot();
    Write(2);
    Ask(PREPARE_FOR_SNAPSHOT);
    TakeSnapshot();
    Write(3);
    EXPECT_EQ((Blocks{1, 2}), Fetch());
}

TEST_F(SimModelTest, ASnapshotTakenBetweenFetchAndConfirmationKeepsItsEpochClosed)
{
    Write(1);
    Ask(PREPARE_FOR_SNAPSHOT);
    TakeSnapshot();
    EXPECT_EQ((Blocks{1}), Fetch());
    Write(2);
    Ask(PREPARE_FOR_SNAPSHOT);
    TakeSnapshot();
    Write(3); // younger than the second snapshot
    EXPECT_EQ(OK, Ask(REPLICATION_SUCCESS).status);
    EXPECT_EQ((Blocks{2}), Fetch());
    EXPECT_EQ(OK, Ask(REPLICATION_SUCCESS).status);
    EXPECT_EQ((Blocks{3}), Fetch());
}

TEST_F(SimModelTest, ForgottenBitsLeaveTheSnapshotItsEpoch)
{
    Write(1);
    Ask(PREPARE_FOR_SNAPSHOT);
    TakeSnapshot();
    ForgetBits(m_volume, m_maps);
    Write(2); // not in the snapshot: a confirmation of its fetch must not take it along
    EXPECT_EQ((Blocks{}), Fetch());
    EXPECT_EQ(OK, Ask(REPLICATION_SUCCESS).status);
    EXPECT_EQ((Blocks{2}), Fetch());
}

TEST_F(SimModelTest, AnAnnouncedSnapshotClosesItsEpochWhileNoDriverLooks)
{
    Ask(PREPARE_FOR_SNAPSHOT);
    m_machine->driver = DriverState::Absent;
    TakeSnapshot();
    m_machine->driver = DriverState::Working;
    Write(2);
    EXPECT_EQ((Blocks{}), Fetch());
    EXPECT_EQ(OK, Ask(REPLICATION_SUCCESS).status);
    EXPECT_EQ((Blocks{2}), Fetch());
}

TEST_F(SimModelTest, AShortBufferNamesTheLengthAndKeepsTheBits)
{
    SetGeometry(100 * 4096, 4096); // 100 blocks: 13 bytes of bits, 16 with rounding
    Write(9);
    for (std::uint32_t length = 0; length < 32; ++length) {
        Bytes output(length + 8, 0xAA);
        Request request;
        request.code = GET_BITMAP;
        request.output = output.data();
        request.outputLength = length;
        const VolumeReply reply = AnswerVolume(*m_machine, m_volume, m_maps, request);
        ASSERT_EQ(MORE_DATA, reply.status) << length;
        const std::uint32_t filled = length >= 16 ? 16 : length / 8 * 8;
        ASSERT_EQ(filled, reply.bytes);
        for (std::size_t i = filled; i < output.size(); ++i)
            ASSERT_EQ(0xAA, output[i]) << length << " touched " << i;
        if (length < 16)
            continue;
        std::int64_t words[2];
        std::memcpy(words, output.data(), sizeof(words));
        EXPECT_EQ(32, 16 + 8 * ((words[1] - words[0] + 7) / 8));
    }
    EXPECT_EQ(0u, CountBits(m_pending.data(), m_pending.size()));
    EXPECT_EQ((Blocks{9}), Fetch());
}

TEST_F(SimModelTest, ALongBufferIsZeroBehindTheBits)
{
    Write(0);
    Bytes output(100, 0xAA);
    const VolumeReply reply = Ask(GET_BITMAP, &output);
    EXPECT_EQ(OK, reply.status);
    EXPECT_EQ(32u, reply.bytes);
    Bytes expected(100, 0);
    expected[16] = 0x80;
    EXPECT_EQ(expected, output);
}

TEST_F(SimModelTest, ABitmapOfWholeWordsNeedsNoRounding)
{
    SetGeometry(64 * 4096, 4096);
    Bytes output(24, 0);
    EXPECT_EQ(OK, Ask(GET_BITMAP, &output).status);
    Bytes shorter(23, 0);
    EXPECT_EQ(MORE_DATA, Ask(GET_BITMAP, &shorter).status);
}

TEST_F(SimModelTest, ALengthThatIsNoMultipleOfTheBlockSizeHasALastBlock)
{
    SetGeometry(8 * 4096 + 1, 4096);
    EXPECT_EQ(9u, BlockCount(m_volume.length, 4096));
    NoteWrite(*m_machine, m_volume, m_maps, 8 * 4096, 1);
    EXPECT_EQ((Blocks{8}), Fetch());
}

TEST_F(SimModelTest, NumbersAreAnsweredInTheirOwnSize)
{
    Bytes size(4, 0xFF);
    EXPECT_EQ(OK, Ask(GET_BLOCK_SIZE, &size).status);
    EXPECT_EQ((Bytes{0x00, 0x10, 0x00, 0x00}), size);
    Bytes length(8, 0xFF);
    const VolumeReply reply = Ask(DISK_GET_LENGTH_INFO, &length);
    EXPECT_EQ(OK, reply.status);
    EXPECT_EQ(8u, reply.bytes);
    EXPECT_EQ((Bytes{0x00, 0x40, 0x06, 0, 0, 0, 0, 0}), length);
    Bytes three(3, 0);
    EXPECT_EQ(INSUFFICIENT_BUFFER, Ask(GET_BLOCK_SIZE, &three).status);
}

TEST_F(SimModelTest, AStoppedVolumeForgetsAndAnswersNoBitmap)
{
    Write(1);
    EXPECT_EQ(OK, Ask(STOP_VOLUME).status);
    Write(2);
    Bytes output(64, 0);
    EXPECT_EQ(NOT_READY, Ask(GET_BITMAP, &output).status);
    EXPECT_EQ(NOT_READY, Ask(PREPARE_FOR_SNAPSHOT).status);
    EXPECT_EQ(NOT_READY, Ask(REPLICATION_SUCCESS).status);
    EXPECT_EQ(OK, Ask(GET_BLOCK_SIZE, &output).status);
    EXPECT_EQ(0u, CountBits(m_current.data(), m_current.size()));
}

TEST_F(SimModelTest, WithoutADriverItsCodesAreUnknownAndWritesGoUnseen)
{
    m_machine->driver = DriverState::Absent;
    Write(1);
    EXPECT_EQ(0u, CountBits(m_current.data(), m_current.size()));
    EXPECT_EQ(1u, m_volume.unseen);
    Bytes output(64, 0);
    EXPECT_EQ(INVALID_FUNCTION, Ask(GET_BLOCK_SIZE, &output).status);
    EXPECT_EQ(INVALID_FUNCTION, Ask(GET_BITMAP, &output).status);
    EXPECT_EQ(OK, Ask(DISK_GET_LENGTH_INFO, &output).status);
}

TEST_F(SimModelTest, TheOlderDriverFailsOnlyTheProbe)
{
    Request probe;
    Bytes output(4, 0);
    probe.code = GET_BLOCK_SIZE;
    probe.output = output.data();
    probe.outputLength = 4;
    EXPECT_EQ(OK, AnswerProbe(*m_machine, probe).status);
    m_machine->driver = DriverState::Older;
    EXPECT_EQ(INVALID_FUNCTION, AnswerProbe(*m_machine, probe).status);
    EXPECT_EQ(OK, Ask(GET_BLOCK_SIZE, &output).status);
    Write(1);
    EXPECT_EQ((Blocks{1}), Fetch());
}

TEST_F(SimModelTest, TheProbeFindsTheDeviceOfAnAbsentDriverGone)
{
    Request probe;
    Bytes output(4, 0xEE);
    probe.code = GET_BLOCK_SIZE;
    probe.output = output.data();
    probe.outputLength = 4;
    m_machine->driver = DriverState::Absent;
    EXPECT_EQ(55u, AnswerProbe(*m_machine, probe).status); // 1 is the older generation's answer
    EXPECT_EQ(Bytes(4, 0xEE), output);
}

TEST_F(SimModelTest, ABlockSizeChangeIsCheckedAndHandedOn)
{
    const Bytes good = {0x00, 0x02, 0x00, 0x00};
    const VolumeReply reply = Ask(VOLUME_BLOCK_SIZE_CHANGE, nullptr, &good);
    EXPECT_EQ(OK, reply.status);
    EXPECT_EQ(Effect::ChangeBlockSize, reply.effect);
    EXPECT_EQ(512u, reply.newBlockSize);
    const Bytes zero = {0, 0, 0, 0};
    EXPECT_EQ(INVALID_PARAMETER, Ask(VOLUME_BLOCK_SIZE_CHANGE, nullptr, &zero).status);
    const Bytes three = {0, 2, 0};
    EXPECT_EQ(INVALID_PARAMETER, Ask(VOLUME_BLOCK_SIZE_CHANGE, nullptr, &three).status);
    EXPECT_EQ(INVALID_PARAMETER, Ask(VOLUME_BLOCK_SIZE_CHANGE).status);
}

TEST_F(SimModelTest, AGeometryIsLimitedToBitmapsThatARequestCanCarry)
{
    EXPECT_TRUE(IsValidGeometry(1, 512));
    EXPECT_FALSE(IsValidGeometry(0, 512));
    EXPECT_FALSE(IsValidGeometry(1 << 20, 0));
    EXPECT_FALSE(IsValidGeometry(1 << 20, 513));
    EXPECT_TRUE(IsValidGeometry(512ull << 31, 512));
    EXPECT_FALSE(IsValidGeometry((512ull << 31) + 1, 512));
    EXPECT_TRUE(IsValidGeometry(65536ull << 31, 1 << 20));
    EXPECT_FALSE(IsValidGeometry((65536ull << 31) + 1, 1 << 20)); // the map of written chunks
    EXPECT_FALSE(IsValidGeometry(~0ull, 0xFFFFFE00));
}

TEST_F(SimModelTest, AnInterruptedGeometrySwitchIsFinishedByWhoeverLooksNext)
{
    m_volume.next = {50 * 512, 512, 7};
    FinishGeometry(m_volume); // nobody switches: what stands there is of an earlier time
    EXPECT_EQ(4096u, m_volume.blockSize);
    m_volume.switching = 1;
    m_volume.length = 50 * 512; // ended here
    FinishGeometry(m_volume);
    EXPECT_EQ(50u * 512, m_volume.length);
    EXPECT_EQ(512u, m_volume.blockSize);
    EXPECT_EQ(7u, m_volume.mapSequence);
    EXPECT_EQ(0u, m_volume.switching);
    SwitchGeometry(m_volume, {4096, 1024, 8});
    EXPECT_EQ(4096u, m_volume.length);
    EXPECT_EQ(1024u, m_volume.blockSize);
    EXPECT_EQ(8u, m_volume.mapSequence);
    EXPECT_EQ(0u, m_volume.switching);
}

class SimSoundTest : public SimModelTest {
protected:
    SimSoundTest()
    {
        SetId(u"01234567-89ab-cdef-ABCD-EF0123456789");
        m_volume.guid[0] = u'{';
        m_volume.serial = 4;
        m_machine->volumes[3] = m_volume;
        m_machine->snapshots[2].inUse = 1;
        m_machine->snapshots[2].number = 7;
        m_machine->snapshots[2].length = 4096;
        m_machine->snapshots[2].blockSize = 512;
        EXPECT_TRUE(IsSound(*m_machine));
    }

    void SetId(std::u16string_view id)
    {
        std::fill(std::begin(m_machine->id), std::end(m_machine->id), u'\0');
        std::copy(id.begin(), id.end(), m_machine->id);
    }
    template <class Damage>
    bool IsUnsound(Damage damage)
    {
        MachineRecord& record = *m_machine;
        const auto before = std::make_unique<MachineRecord>(record);
        damage(record);
        const bool sound = IsSound(record);
        record = *before;
        return !sound;
    }
};

TEST_F(SimSoundTest, AnIdThatIsNoMachinesIsNotSound)
{
    const std::u16string id = u"01234567-89ab-cdef-ABCD-EF0123456789";
    const auto isSound = [this](const std::u16string& text) {
        SetId(text);
        EXPECT_EQ(HasSoundId(*m_machine), IsSound(*m_machine));
        return HasSoundId(*m_machine);
    };
    EXPECT_TRUE(isSound(id));
    EXPECT_FALSE(isSound(u"")); // the registry below it would be that of all machines
    EXPECT_FALSE(isSound(id.substr(1)));
    EXPECT_FALSE(isSound(id + u"0"));
    EXPECT_FALSE(isSound(id.substr(1) + u"g"));
    EXPECT_FALSE(isSound(id.substr(1) + u"\\"));
    EXPECT_FALSE(isSound(id.substr(1) + u" "));
    EXPECT_FALSE(isSound(std::u16string(40, u'a'))); // no end
}

TEST_F(SimSoundTest, TwoThatWouldBeTakenForEachOtherAreNotSound)
{
    m_machine->volumes[5] = m_volume;
    m_machine->volumes[5].serial = 9;
    m_machine->volumes[5].guid[1] = u'x';
    m_machine->snapshots[90] = m_machine->snapshots[2];
    m_machine->snapshots[90].number = 8;
    ASSERT_TRUE(IsSound(*m_machine));
    EXPECT_TRUE(IsUnsound([](auto& m) { m.volumes[5].serial = 4; }));
    EXPECT_TRUE(IsUnsound([](auto& m) { m.volumes[5].guid[1] = u'\0'; }));
    EXPECT_TRUE(IsUnsound([](auto& m) { m.volumes[3].guid[1] = u'X'; })); // one folder for both
    EXPECT_TRUE(IsUnsound([](auto& m) { m.snapshots[90].number = 7; }));
    EXPECT_FALSE(IsUnsound([](auto& m) { m.volumes[3].guid[2] = u'y'; })); // behind the end of the name
    EXPECT_FALSE(IsUnsound([](auto& m) {
        m.volumes[5].serial = 4;
        m.volumes[5].inUse = 0;
        m.snapshots[90].number = 7;
        m.snapshots[90].inUse = 0;
    }));
}

TEST_F(SimSoundTest, ARecordThatWouldLeadAstrayIsNotSound)
{
    EXPECT_TRUE(IsUnsound([](auto& m) { m.volumes[3].blockSize = 0; }));
    EXPECT_TRUE(IsUnsound([](auto& m) { m.volumes[3].length = 0; }));
    EXPECT_TRUE(IsUnsound([](auto& m) { m.volumes[3].switching = 1; })); // to a geometry of zeros
    EXPECT_TRUE(IsUnsound([](auto& m) { m.volumes[3].epoch = static_cast<Epoch>(3); }));
    EXPECT_TRUE(IsUnsound([](auto& m) { m.volumes[3].guid[0] = u'\0'; })); // its folder would be that of all volumes
    EXPECT_TRUE(IsUnsound([](auto& m) { m.volumes[3].guid[1] = u'\\'; }));
    EXPECT_TRUE(IsUnsound([](auto& m) { m.snapshots[2].blockSize = 1; }));
    EXPECT_TRUE(IsUnsound([](auto& m) { m.faults[0].replyLength = sizeof(m.faults[0].reply) + 1; }));
    EXPECT_TRUE(IsUnsound([](auto& m) { m.driver = static_cast<DriverState>(9); }));
    EXPECT_FALSE(IsUnsound([](auto& m) { m.volumes[4].length = 0; })); // not in use
}

TEST_F(SimModelTest, AllocatedRangesAreTheChunksEverWritten)
{
    SetGeometry(10 * CHUNK + 100, 4096);
    NoteWrite(*m_machine, m_volume, m_maps, 2 * CHUNK + 5, CHUNK);
    NoteWrite(*m_machine, m_volume, m_maps, 10 * CHUNK, 100);
    auto ask = [&](std::int64_t offset, std::int64_t length, std::size_t room) {
        const AllocatedRange wanted = {offset, length};
        Bytes input(sizeof(wanted));
        std::memcpy(input.data(), &wanted, sizeof(wanted));
        Bytes output(room * sizeof(AllocatedRange));
        const VolumeReply reply = Ask(QUERY_ALLOCATED_RANGES, &output, &input);
        std::vector<std::pair<std::int64_t, std::int64_t>> ranges;
        for (std::uint32_t at = 0; at < reply.bytes; at += sizeof(AllocatedRange)) {
            AllocatedRange range = {};
            std::memcpy(&range, output.data() + at, sizeof(range));
            ranges.emplace_back(range.offset, range.length);
        }
        return std::make_pair(reply.status, ranges);
    };
    using Ranges = std::vector<std::pair<std::int64_t, std::int64_t>>;
    const auto all = ask(0, 1 << 30, 4);
    EXPECT_EQ(OK, all.first);
    EXPECT_EQ((Ranges{{2 * CHUNK, 2 * CHUNK}, {10 * CHUNK, 100}}), all.second);
    const auto part = ask(3 * CHUNK + 7, 10, 4);
    EXPECT_EQ((Ranges{{3 * CHUNK + 7, 10}}), part.second);
    const auto tight = ask(0, 1 << 30, 1);
    EXPECT_EQ(MORE_DATA, tight.first);
    EXPECT_EQ(1u, tight.second.size());
    EXPECT_TRUE(ask(20 * CHUNK, 5, 4).second.empty());
}

class SimDeviceQueryTest : public ::testing::Test {
protected:
    SimDeviceQueryTest() : m_input(30, 0), m_output(616, 0)
    {
        Put(m_input, 0, 24);
        Put(m_input, 4, 8);
        Put(m_input, 8, 24);
        Put(m_input, 12, 6);
        m_input[24] = 'a';
        Put(m_output, 0, 616);
    }
    static void Put(Bytes& bytes, std::size_t at, std::uint32_t value) { std::memcpy(bytes.data() + at, &value, 4); }
    Status Parse()
    {
        m_request.input = m_input.data();
        m_request.inputLength = static_cast<std::uint32_t>(m_input.size());
        m_request.output = m_output.data();
        m_request.outputLength = static_cast<std::uint32_t>(m_output.size());
        return ParseDeviceQuery(m_request, &m_name, &m_nameBytes);
    }
    Bytes m_input, m_output;
    Request m_request;
    const std::uint8_t* m_name = nullptr;
    std::uint32_t m_nameBytes = 0;
};

TEST_F(SimDeviceQueryTest, AWellFormedQueryGivesItsName)
{
    EXPECT_EQ(OK, Parse());
    EXPECT_EQ(m_input.data() + 24, m_name);
    EXPECT_EQ(6u, m_nameBytes);
    const Reply reply = BuildDeviceReply(m_request, u"V", u"D", true);
    EXPECT_EQ(616u, reply.bytes);
    Bytes expected(616, 0);
    Put(expected, 0, 616);
    expected[4] = 'V';
    expected[100] = 'D';
    Put(expected, 612, 1);
    EXPECT_EQ(expected, m_output);
}

TEST_F(SimDeviceQueryTest, EveryMalformedFieldIsRefused)
{
    for (std::size_t at = 0; at < 24; at += 4) {
        std::uint32_t value = 0;
        std::memcpy(&value, m_input.data() + at, 4);
        Put(m_input, at, value + 2);
        EXPECT_EQ(INVALID_PARAMETER, Parse()) << at;
        Put(m_input, at, value);
    }
    EXPECT_EQ(OK, Parse());
    m_input.push_back(0);
    EXPECT_EQ(INVALID_PARAMETER, Parse());
    m_input.resize(23);
    EXPECT_EQ(INVALID_PARAMETER, Parse());
    m_input.resize(24);
    Put(m_input, 12, 0);
    EXPECT_EQ(OK, Parse());
    Put(m_output, 0, 615);
    EXPECT_EQ(INVALID_PARAMETER, Parse());
    m_output.resize(615);
    EXPECT_EQ(INVALID_PARAMETER, Parse());
}

TEST_F(SimModelTest, AFaultStrikesTheNthRequestsOfItsCodeAndEndpoint)
{
    FaultRecord fault = {};
    fault.code = GET_BITMAP;
    fault.endpoint = VolumeEndpoint(1);
    fault.skip = 1;
    fault.remaining = 2;
    fault.error = 5;
    ASSERT_TRUE(AddFault(*m_machine, fault));
    auto strikes = [&](std::uint32_t code, std::uint32_t serial) {
        return StrikeFault(*m_machine, code, VolumeEndpoint(serial)) != nullptr;
    };
    EXPECT_FALSE(strikes(GET_BITMAP, 1));
    EXPECT_FALSE(strikes(GET_BITMAP, 2));
    EXPECT_FALSE(strikes(GET_BLOCK_SIZE, 1));
    EXPECT_TRUE(strikes(GET_BITMAP, 1));
    EXPECT_TRUE(strikes(GET_BITMAP, 1));
    EXPECT_FALSE(strikes(GET_BITMAP, 1));
}

TEST_F(SimModelTest, AFaultWithoutAnErrorIsAFailureAllTheSame)
{
    const FaultRecord fault = {};
    const Request request;
    const Reply reply = ForgedReply(fault, request);
    EXPECT_TRUE(reply.failed);
    EXPECT_EQ(OK, reply.status);
    FaultRecord forged = {};
    forged.forged = 1;
    EXPECT_FALSE(ForgedReply(forged, request).failed);
}

TEST_F(SimModelTest, AForgedReplyStaysInsideTheBuffer)
{
    FaultRecord fault = {};
    fault.forged = 1;
    fault.replyLength = 8;
    std::memset(fault.reply, 7, 8);
    Bytes output(4, 0);
    Request request;
    request.output = output.data();
    request.outputLength = 2;
    const Reply reply = ForgedReply(fault, request);
    EXPECT_EQ(OK, reply.status);
    EXPECT_EQ(2u, reply.bytes);
    EXPECT_EQ((Bytes{7, 7, 0, 0}), output);
}

// A volume with two snapshots against plain copies of what they must hold.
class SimContentsTest : public SimModelTest {
protected:
    static constexpr std::uint64_t LENGTH = 5 * CHUNK + 777;

    SimContentsTest() : m_expected(LENGTH, 0)
    {
        SetGeometry(LENGTH, 4096);
        m_contents = {&m_volume, m_maps, &m_store};
    }

    struct Taken {
        SnapshotRecord record = {};
        Bytes present, allocated, written, expected;
        MemoryStore store;
        SnapshotContents contents;
    };
    Taken& Take()
    {
        auto taken = std::make_unique<Taken>();
        taken->record.length = m_volume.length;
        taken->record.blockSize = m_volume.blockSize;
        taken->record.tracked = 1;
        taken->present.assign(m_allocated.size(), 0);
        taken->allocated = m_allocated;
        taken->written.assign(m_current.size(), 0);
        taken->expected = m_expected;
        taken->contents = {
            &taken->record, {taken->present.data(), taken->allocated.data(), taken->written.data()}, &taken->store};
        m_live.push_back(taken->contents);
        m_taken.push_back(std::move(taken));
        return *m_taken.back();
    }
    void Put(std::uint64_t offset, const Bytes& data)
    {
        ASSERT_EQ(OK, WriteVolume(*m_machine, m_contents, m_live, offset, data.data(),
                                  static_cast<std::uint32_t>(data.size())));
        std::copy(data.begin(), data.end(), m_expected.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    void PutIntoSnapshot(Taken& taken, std::uint64_t offset, const Bytes& data)
    {
        ASSERT_EQ(OK, WriteSnapshot(m_contents, taken.contents, offset, data.data(),
                                    static_cast<std::uint32_t>(data.size())));
        std::copy(data.begin(), data.end(), taken.expected.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    Bytes ReadBack(Taken& taken)
    {
        Bytes data(taken.expected.size(), 0xCC);
        EXPECT_EQ(OK,
                  ReadSnapshot(m_contents, taken.contents, 0, data.data(), static_cast<std::uint32_t>(data.size())));
        return data;
    }
    void ExpectAllAsTheyShouldBe()
    {
        Bytes data(m_expected.size(), 0xCC);
        ASSERT_EQ(OK, ReadVolume(m_contents, 0, data.data(), static_cast<std::uint32_t>(data.size())));
        EXPECT_TRUE(data == m_expected);
        for (const auto& taken : m_taken)
            EXPECT_TRUE(ReadBack(*taken) == taken->expected);
    }

    MemoryStore m_store;
    VolumeContents m_contents;
    Bytes m_expected;
    std::vector<SnapshotContents> m_live;
    std::vector<std::unique_ptr<Taken>> m_taken;
};

TEST_F(SimContentsTest, SnapshotsKeepWhatTheyHeldUnderRandomWrites)
{
    std::mt19937 random(7);
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 12; ++i) {
            const std::uint64_t offset = random() % LENGTH;
            const std::uint64_t length = std::min<std::uint64_t>(random() % (CHUNK / 2) + 1, LENGTH - offset);
            const Bytes data(length, static_cast<std::uint8_t>(random()));
            if (!m_taken.empty() && i % 4 == 3)
                PutIntoSnapshot(*m_taken[random() % m_taken.size()], offset, data);
            else
                Put(offset, data);
        }
        Take();
        ExpectAllAsTheyShouldBe();
    }
}

TEST_F(SimContentsTest, WritesIntoASnapshotSetItsOwnBitsAndLeaveTheVolumeAlone)
{
    Put(0, Bytes(10, 1));
    Ask(PREPARE_FOR_SNAPSHOT);
    TakeSnapshot();
    Taken& taken = Take();
    PutIntoSnapshot(taken, 4096 * 3, Bytes(4097, 9));
    Request request;
    Bytes output(64, 0);
    request.code = GET_BITMAP;
    request.output = output.data();
    request.outputLength = 64;
    EXPECT_EQ(OK, AnswerSnapshot(*m_machine, taken.record, taken.contents.maps, request).status);
    EXPECT_EQ((Blocks{3, 4}), BlocksOf(output));
    EXPECT_EQ((Blocks{0}), Fetch());
    ExpectAllAsTheyShouldBe();
    taken.record.tracked = 0;
    EXPECT_EQ(INVALID_FUNCTION, AnswerSnapshot(*m_machine, taken.record, taken.contents.maps, request).status);
}

TEST_F(SimContentsTest, ASnapshotOutlivesTheVolumesEnd)
{
    Put(0, Bytes(LENGTH, 5));
    Take();
    const std::uint64_t shorter = 2 * CHUNK + 10;
    ASSERT_EQ(OK, KeepForSnapshots(m_contents, m_live, shorter, LENGTH - shorter));
    m_volume.length = shorter;
    m_expected.resize(shorter);
    Put(shorter - 5, Bytes(5, 6));
    ExpectAllAsTheyShouldBe();
}

TEST_F(SimContentsTest, ARangeThatLeavesTheDeviceIsRefused)
{
    std::uint8_t byte = 1;
    EXPECT_EQ(SECTOR_NOT_FOUND, WriteVolume(*m_machine, m_contents, m_live, LENGTH, &byte, 1));
    EXPECT_EQ(SECTOR_NOT_FOUND, ReadVolume(m_contents, LENGTH, &byte, 1));
    EXPECT_EQ(SECTOR_NOT_FOUND, ReadVolume(m_contents, ~std::uint64_t{0}, &byte, 1));
    EXPECT_EQ(OK, ReadVolume(m_contents, LENGTH, &byte, 0));
    EXPECT_EQ(0u, CountBits(m_current.data(), m_current.size()));
}

} // namespace
