// Streamed bits against the same bits one by one.
#include "vtfltctl_bitmap_test.h"

#include "vtfltctl/bitmap_grid.h"
#include "vtfltctl/bitmap_numbers.h"

using namespace bitmap_test;
using namespace vtfltctl::bitmap;

namespace {

constexpr std::size_t BUFFER_BLOCKS = WordReader::BUFFER_WORDS * 64;

std::vector<BlockSet> Samples()
{
    std::mt19937_64 random(7);
    std::vector<BlockSet> samples;
    for (const std::size_t size : {0U, 1U, 7U, 8U, 9U, 63U, 64U, 65U, 127U, 128U, 129U, 1000U, 4096U}) {
        samples.push_back(BlockSet(size));
        samples.push_back(BlockSet(size, true));
        for (const double share : {0.02, 0.5, 0.98})
            samples.push_back(RandomBlocks(random, size, share));
        samples.push_back(RandomRuns(random, size, 200));
    }
    return samples;
}

using RunList = std::vector<Run>;

RunList ReadRuns(BitSource& source, std::uint64_t from, std::uint64_t to)
{
    RunReader reader(source, from, to);
    std::vector<Run> runs;
    while (const std::optional<Run> run = reader.Next())
        runs.push_back(*run);
    EXPECT_FALSE(reader.Next().has_value()) << "a run behind the last";
    return runs;
}

void ExpectTotals(const Totals& totals, const BlockSet& blocks)
{
    const std::vector<Run> runs = RunsOf(blocks, 0, blocks.size());
    std::uint64_t longest = 0;
    for (const Run& run : runs)
        longest = std::max(longest, run.count);
    ASSERT_EQ(totals.Set(), static_cast<std::uint64_t>(std::count(blocks.begin(), blocks.end(), true)));
    ASSERT_EQ(totals.Runs(), runs.size());
    ASSERT_EQ(totals.LongestRun(), longest);
    ASSERT_EQ(totals.First(), runs.empty() ? 0 : runs.front().first);
    ASSERT_EQ(totals.End(), runs.empty() ? 0 : runs.back().End());
}

BlockSet Combine(const BlockSet& a, const BlockSet& b, bool (*rule)(bool, bool))
{
    BlockSet result(std::max(a.size(), b.size()));
    for (std::size_t i = 0; i < result.size(); ++i)
        result[i] = rule(i < a.size() && a[i], i < b.size() && b[i]);
    return result;
}

} // namespace

TEST(VtfltctlBitmapBits, TotalsOfEverySample)
{
    for (const BlockSet& blocks : Samples()) {
        MemoryBits bits(blocks);
        ExpectTotals(TotalsOf(bits), blocks);
    }
}

TEST(VtfltctlBitmapBits, RunsOfEverySampleInEveryRange)
{
    std::mt19937_64 random(11);
    for (const BlockSet& blocks : Samples()) {
        MemoryBits bits(blocks);
        ASSERT_EQ(ReadRuns(bits, 0, UINT64_MAX), RunsOf(blocks, 0, blocks.size()));
        std::uniform_int_distribution<std::size_t> any(0, blocks.size() + 70);
        for (int i = 0; i < 40; ++i) {
            const std::size_t from = any(random);
            const std::size_t to = any(random);
            ASSERT_EQ(ReadRuns(bits, from, to), RunsOf(blocks, from, to)) << from << " " << to;
        }
    }
}

TEST(VtfltctlBitmapBits, RunAcrossTheBuffersEnd)
{
    constexpr std::size_t COUNT = 2 * BUFFER_BLOCKS + 5;
    Bytes bytes((COUNT + 7) / 8);
    for (const std::size_t edge : {BUFFER_BLOCKS, 2 * BUFFER_BLOCKS}) {
        for (std::size_t i = edge - 70; i < std::min(edge + 70, COUNT); ++i)
            SetBlock(bytes, i);
    }
    MemoryBits bits(std::move(bytes), COUNT);
    EXPECT_EQ(ReadRuns(bits, 0, UINT64_MAX), (RunList{{BUFFER_BLOCKS - 70, 140}, {2 * BUFFER_BLOCKS - 70, 75}}));
    const Totals totals = TotalsOf(bits);
    EXPECT_EQ(totals.Set(), 215U);
    EXPECT_EQ(totals.Runs(), 2U);
    EXPECT_EQ(totals.LongestRun(), 140U);
    EXPECT_EQ(totals.First(), BUFFER_BLOCKS - 70);
    EXPECT_EQ(totals.End(), COUNT);
}

TEST(VtfltctlBitmapBits, FileIsReadPieceByPiece)
{
    Bytes bytes(2 * BUFFER_BLOCKS / 8);
    SetBlock(bytes, BUFFER_BLOCKS + 1);
    MemoryBytes file(RecordOfBits(bytes));
    const FileFacts facts = Inspect(file, Kind::Record);
    FileBits bits(file, facts, facts.Blocks());
    EXPECT_EQ(TotalsOf(bits).Set(), 1U);
    EXPECT_LE(file.largestRead, WordReader::BUFFER_WORDS * 8);
    EXPECT_GE(file.bytesRead, bytes.size());
    EXPECT_LE(file.bytesRead, bytes.size() + 8192) << "read more than once";
}

TEST(VtfltctlBitmapBits, VolumeSmallerOrLargerThanTheBitmap)
{
    const BlockSet blocks(100, true);
    MemoryBytes file(RecordFile(blocks));
    const FileFacts facts = Inspect(file, Kind::Record);
    ASSERT_EQ(facts.Blocks(), 104U);
    FileBits fewer(file, facts, 90);
    EXPECT_EQ(TotalsOf(fewer).Set(), 90U);
    FileBits more(file, facts, 1000);
    EXPECT_EQ(TotalsOf(more).Set(), 100U);
    EXPECT_EQ(more.Blocks(), 1000U);
}

TEST(VtfltctlBitmapBits, TwoBitmapsCombinedAndCompared)
{
    const std::vector<BlockSet> samples = Samples();
    for (std::size_t i = 0; i < samples.size(); i += 5) {
        for (std::size_t j = 1; j < samples.size(); j += 4) {
            const BlockSet& a = samples[i];
            const BlockSet& b = samples[j];
            MemoryBits first(a);
            MemoryBits second(b);
            const BlockSet onlyFirst = Combine(a, b, [](bool x, bool y) { return x && !y; });
            const BlockSet onlySecond = Combine(a, b, [](bool x, bool y) { return y && !x; });
            const BlockSet both = Combine(a, b, [](bool x, bool y) { return x && y; });
            const BlockSet either = Combine(a, b, [](bool x, bool y) { return x || y; });
            const Comparison comparison = Compare(first, second);
            ExpectTotals(comparison.onlyFirst, onlyFirst);
            ExpectTotals(comparison.onlySecond, onlySecond);
            ExpectTotals(comparison.both, both);

            const auto runs = [&](CombinedBits::Rule rule) {
                CombinedBits combined(first, second, rule);
                return ReadRuns(combined, 0, UINT64_MAX);
            };
            ASSERT_EQ(runs(CombinedBits::Rule::Either), RunsOf(either, 0, either.size()));
            ASSERT_EQ(runs(CombinedBits::Rule::OnlyFirst), RunsOf(onlyFirst, 0, onlyFirst.size()));
            ASSERT_EQ(runs(CombinedBits::Rule::OnlySecond), RunsOf(onlySecond, 0, onlySecond.size()));
            ASSERT_EQ(runs(CombinedBits::Rule::Both), RunsOf(both, 0, both.size()));
        }
    }
}

TEST(VtfltctlBitmapGrid, CellsOfEverySample)
{
    for (const BlockSet& blocks : Samples()) {
        for (const std::uint64_t cells : {1U, 5U, 64U, 100U, 100000U}) {
            MemoryBits bits(blocks);
            const Grid grid =
                CountGrid(bits, {.cells = cells, .smallestColumns = 4, .largestColumns = 64, .widthToHeight = 16});
            ASSERT_LE(grid.changed.size(), cells);
            ASSERT_EQ(grid.blocks, blocks.size());
            ASSERT_EQ(grid.changed.size(), (blocks.size() + grid.blocksPerCell - 1) / grid.blocksPerCell);
            ASSERT_EQ(grid.rows, (grid.changed.size() + grid.columns - 1) / grid.columns);
            ASSERT_TRUE(grid.blocksPerCell == 1 ||
                        (blocks.size() + grid.blocksPerCell / 2 - 1) / (grid.blocksPerCell / 2) > cells)
                << "cells larger than they must be";
            for (std::size_t cell = 0; cell < grid.changed.size(); ++cell) {
                std::uint64_t changed = 0;
                std::uint64_t counted = 0;
                for (std::size_t i = cell * grid.blocksPerCell;
                     i < std::min<std::size_t>(blocks.size(), (cell + 1) * grid.blocksPerCell); ++i) {
                    changed += blocks[i] ? 1U : 0U;
                    ++counted;
                }
                ASSERT_EQ(grid.changed[cell], changed);
                ASSERT_EQ(grid.BlocksOf(cell), counted);
            }
            ExpectTotals(grid.totals, blocks);
        }
    }
}

TEST(VtfltctlBitmapGrid, ShapeIsBoundedWhateverTheBitmapClaims)
{
    constexpr GridLimits LIMITS{.cells = 163840, .smallestColumns = 32, .largestColumns = 512, .widthToHeight = 16};
    for (std::uint64_t blocks = 1; blocks < std::uint64_t{1} << 36; blocks = blocks * 3 + 1) {
        const Grid grid = ShapeGrid(blocks, LIMITS);
        EXPECT_LE(grid.rows * grid.columns, LIMITS.cells + grid.columns) << blocks;
        EXPECT_GE(grid.rows * grid.columns * grid.blocksPerCell, blocks) << blocks;
        // Never higher than it is wide, by more than a row.
        EXPECT_LE((grid.rows - 1) * 16, grid.columns * 10) << blocks;
    }
    EXPECT_EQ(ShapeGrid(0, LIMITS).rows, 0U);
    // 64 TiB in blocks of 64 KiB: 512 MiB a cell.
    const Grid large = ShapeGrid(std::uint64_t{1} << 30, LIMITS);
    EXPECT_EQ(large.blocksPerCell, 8192U);
    EXPECT_EQ(large.columns, 512U);
    EXPECT_EQ(large.rows, 256U);
}

TEST(VtfltctlBitmapGrid, ShadesLoseNoChangeAndNoLeftBlock)
{
    EXPECT_EQ(ShadeOf(0, 1), Shade::None);
    EXPECT_EQ(ShadeOf(1, 1), Shade::All);
    EXPECT_EQ(ShadeOf(1, std::uint64_t{1} << 35), Shade::Traces);
    EXPECT_EQ(ShadeOf((std::uint64_t{1} << 35) - 1, std::uint64_t{1} << 35), Shade::Most);
    EXPECT_EQ(ShadeOf(1, 100), Shade::Traces);
    EXPECT_EQ(ShadeOf(2, 100), Shade::Little);
    EXPECT_EQ(ShadeOf(10, 100), Shade::Little);
    EXPECT_EQ(ShadeOf(11, 100), Shade::Half);
    EXPECT_EQ(ShadeOf(50, 100), Shade::Half);
    EXPECT_EQ(ShadeOf(51, 100), Shade::Most);
    EXPECT_EQ(ShadeOf(99, 100), Shade::Most);
    EXPECT_EQ(ShadeOf(100, 100), Shade::All);
    for (const std::uint64_t blocks : {1U, 2U, 4U, 8U, 64U, 128U}) {
        for (std::uint64_t changed = 0; changed <= blocks; ++changed)
            EXPECT_TRUE(CanHave(blocks, ShadeOf(changed, blocks))) << changed << " of " << blocks;
    }
    EXPECT_FALSE(CanHave(1, Shade::Half));
    EXPECT_FALSE(CanHave(2, Shade::Most));
    EXPECT_FALSE(CanHave(64, Shade::Traces));
}

TEST(VtfltctlBitmapNumbers, Sizes)
{
    EXPECT_EQ(SizeText(0), "0 bytes");
    EXPECT_EQ(SizeText(1), "1 byte");
    EXPECT_EQ(SizeText(1023), "1023 bytes");
    EXPECT_EQ(SizeText(1024), "1 KiB");
    EXPECT_EQ(SizeText(1536), "1.5 KiB");
    EXPECT_EQ(SizeText(std::uint64_t{64} << 40), "64 TiB");
    EXPECT_EQ(SizeText(UINT64_MAX), "16 EiB");
    EXPECT_EQ(Grouped(0), "0");
    EXPECT_EQ(Grouped(999), "999");
    EXPECT_EQ(Grouped(1000), "1,000");
    EXPECT_EQ(Grouped(1234567), "1,234,567");
    EXPECT_EQ(ShareText(0, 0), "0 %");
    EXPECT_EQ(ShareText(1, 1000000), "under 0.01 %");
    EXPECT_EQ(ShareText(999999, 1000000), "over 99.99 %");
    EXPECT_EQ(ShareText(5, 5), "100 %");
    EXPECT_EQ(ShareText(1, 8), "12.5 %");
}

TEST(VtfltctlBitmapNumbers, MarksOfAnAxisShareAUnit)
{
    constexpr std::uint64_t GIBIBYTE = std::uint64_t{1} << 30;
    EXPECT_EQ(MarkText(0, 64 * GIBIBYTE), "0");
    EXPECT_EQ(MarkText(64 * GIBIBYTE, 64 * GIBIBYTE), "64 GiB");
    EXPECT_EQ(MarkText(1088 * GIBIBYTE, 64 * GIBIBYTE), "1,088 GiB");
    EXPECT_EQ(MarkText(4096 * GIBIBYTE, 4096 * GIBIBYTE), "4 TiB");
    EXPECT_EQ(MarkText(1500, 1000), "1.46 KiB");
    EXPECT_EQ(MarkText(GIBIBYTE + 1, GIBIBYTE), "1 GiB") << "no more than two decimals";
    EXPECT_EQ(MarkText(GIBIBYTE, 1024), "1 GiB") << "a short text instead of 1,048,576 KiB";
    EXPECT_EQ(MarkText(UINT64_MAX, 0), "16 EiB");
}

TEST(VtfltctlBitmapNumbers, SizesReadBack)
{
    EXPECT_EQ(ParseSize("0"), 0U);
    EXPECT_EQ(ParseSize("4096"), 4096U);
    EXPECT_EQ(ParseSize("64k"), 65536U);
    EXPECT_EQ(ParseSize("64KiB"), 65536U);
    EXPECT_EQ(ParseSize("2TB"), std::uint64_t{2} << 40);
    EXPECT_EQ(ParseSize("18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(ParseSize("16383P"), std::uint64_t{16383} << 50);
    for (const char* wrong : {"", " 1", "1 ", "-1", "+1", "0x10", "K", "1X", "1KK", "1KiBB", "1.5G",
                              "18446744073709551616", "16384P", "99999999999999999999999"})
        EXPECT_FALSE(ParseSize(wrong).has_value()) << wrong;
}

TEST(VtfltctlBitmapNumbers, OffsetsAreCutAtTheVolumeAndNeverOverflow)
{
    const Geometry volume{.blockSize = 65536, .volumeBytes = 1000000};
    EXPECT_EQ(volume.VolumeBlocks(), 16U);
    EXPECT_EQ(volume.Offset(15), 983040U);
    EXPECT_EQ(volume.Offset(16), 1000000U);
    const Geometry hostile{.blockSize = 0xFFFFFFFF};
    EXPECT_EQ(hostile.Offset(std::uint64_t{1} << 35), UINT64_MAX);
}
