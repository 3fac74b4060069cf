// The picture as a PNG decoder sees it, held against the bitmap that it shows.
#include "vtfltctl_bitmap_test.h"

#include "vtfltctl/bitmap_picture.h"
#include "vtfltctl/bitmap_png.h"

#include <png.h>

#include <bit>

using namespace bitmap_test;
using namespace vtfltctl::bitmap;

namespace {

struct Decoded {
    int width = 0;
    int height = 0;
    Bytes pixels;

    [[nodiscard]] Colour At(int x, int y) const
    {
        const std::size_t at =
            (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)) * 3;
        return {pixels[at], pixels[at + 1], pixels[at + 2]};
    }
};

// With the PNG reference library.
Decoded Decode(const Bytes& file)
{
    Decoded decoded;
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_memory(&image, file.data(), file.size()) == 0) {
        ADD_FAILURE() << image.message;
        return decoded;
    }
    EXPECT_EQ(image.format, static_cast<png_uint_32>(PNG_FORMAT_RGB)) << "not plain red, green, blue";
    image.format = PNG_FORMAT_RGB;
    decoded.width = static_cast<int>(image.width);
    decoded.height = static_cast<int>(image.height);
    decoded.pixels.resize(PNG_IMAGE_SIZE(image));
    EXPECT_NE(png_image_finish_read(&image, nullptr, decoded.pixels.data(), 0, nullptr), 0) << image.message;
    return decoded;
}

// The colour that a run of blocks must have, by its share of changed ones alone.
Colour Expected(std::size_t changed, std::size_t blocks)
{
    if (changed == 0)
        return {0xE9, 0xEC, 0xF0};
    if (changed == blocks)
        return {0x4A, 0x07, 0x2C};
    const double share = static_cast<double>(changed) / static_cast<double>(blocks);
    if (share <= 0.01)
        return {0xF4, 0xB8, 0x0B};
    if (share <= 0.1)
        return {0xF5, 0x8A, 0x1F};
    return share <= 0.5 ? Colour{0xE2, 0x4A, 0x2B} : Colour{0xA8, 0x14, 0x3C};
}

Caption SomeCaption(std::uint64_t blocks, std::uint32_t blockSize = 65536)
{
    return {.title = "Base bitmap of app1",
            .source = "Volume{1}",
            .geometry = {.blockSize = blockSize, .volumeBytes = blocks * blockSize}};
}

std::size_t CountChanged(const Bytes& bits, std::size_t from, std::size_t to)
{
    std::size_t changed = 0;
    for (std::size_t i = from; i < to;) {
        const std::size_t step = i % 8 == 0 && to - i >= 8 ? 8 : 1;
        const unsigned byte = bits[i / 8];
        changed += step == 8 ? static_cast<std::size_t>(std::popcount(byte)) : (byte >> (7 - i % 8) & 1);
        i += step;
    }
    return changed;
}

void ExpectShows(const Bytes& packed, std::size_t blocks, std::uint64_t expectedBlocksPerCell)
{
    MemoryBits bits(packed, blocks);
    const Grid grid = CountGrid(bits, PICTURE_LIMITS);
    ASSERT_EQ(grid.blocksPerCell, expectedBlocksPerCell);
    const Picture picture = DrawPicture(grid, SomeCaption(blocks));
    const Decoded decoded = Decode(EncodePng(picture.canvas));
    ASSERT_EQ(decoded.width, picture.canvas.Width());
    ASSERT_EQ(decoded.height, picture.canvas.Height());
    ASSERT_TRUE(decoded.pixels == picture.canvas.Pixels());

    const auto run = static_cast<std::size_t>(grid.blocksPerCell);
    const auto columns = static_cast<std::size_t>(1024 / picture.plot.cell);
    for (std::size_t first = 0; first < blocks; first += run) {
        const std::size_t end = std::min(blocks, first + run);
        const std::size_t cell = first / run;
        const int x = picture.plot.left + static_cast<int>(cell % columns) * picture.plot.cell;
        const int y = picture.plot.top + static_cast<int>(cell / columns) * picture.plot.cell;
        const int last = picture.plot.cell - picture.plot.gap - 1;
        const Colour expected = Expected(CountChanged(packed, first, end), end - first);
        ASSERT_EQ(decoded.At(x, y), expected) << "cell " << cell;
        ASSERT_EQ(decoded.At(x + last, y + last), expected) << "cell " << cell;
    }
    // Behind the volume's last block nothing is drawn.
    const std::size_t cells = (blocks + run - 1) / run;
    const int behind = picture.plot.left + static_cast<int>(cells % columns) * picture.plot.cell + 1;
    EXPECT_TRUE(cells % columns == 0 ||
                decoded.At(behind, picture.plot.top + static_cast<int>(cells / columns) * picture.plot.cell) ==
                    (Colour{255, 255, 255}));
}

void ExpectShows(const BlockSet& blocks, std::uint64_t expectedBlocksPerCell)
{
    ExpectShows(PackBlocks(blocks), blocks.size(), expectedBlocksPerCell);
}

std::string Terminal(const BlockSet& blocks, bool colour, std::uint64_t columns = 64)
{
    MemoryBits bits(blocks);
    const Grid grid = CountGrid(bits, TerminalLimits(colour, columns));
    return TerminalPicture(grid, SomeCaption(blocks.size()), colour);
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        lines.push_back(text.substr(at, end - at));
        at = end == std::string::npos ? text.size() : end + 1;
    }
    return lines;
}

} // namespace

TEST(VtfltctlBitmapPicture, SmallVolumesABlockASquare)
{
    std::mt19937_64 random(3);
    for (const std::size_t size : {1U, 2U, 31U, 33U, 1600U, 16384U, 163840U})
        ExpectShows(RandomRuns(random, size, 60), 1);
}

TEST(VtfltctlBitmapPicture, LargeVolumesARunOfBlocksASquare)
{
    std::mt19937_64 random(4);
    ExpectShows(RandomRuns(random, 163841, 60), 2);
    ExpectShows(RandomRuns(random, 1000003, 400), 8);
}

TEST(VtfltctlBitmapPicture, OneChangedBlockOfMillionsIsSeen)
{
    for (const std::size_t at : {0U, 7777777U, 16777215U}) {
        Bytes bits(16777216 / 8);
        SetBlock(bits, at);
        ExpectShows(bits, 16777216, 128);
    }
}

TEST(VtfltctlBitmapPicture, AllAndNothingChanged)
{
    ExpectShows(Bytes(125000), 1000000, 8);
    ExpectShows(Bytes(125000, 0xFF), 1000000, 8);
}

TEST(VtfltctlBitmapPicture, NoBlocksAndHostileSizesAreDrawnToo)
{
    MemoryBits none{BlockSet{}};
    const Grid empty = CountGrid(none, PICTURE_LIMITS);
    EXPECT_GT(Decode(EncodePng(DrawPicture(empty, SomeCaption(0)).canvas)).height, 0);

    MemoryBits some{BlockSet(100, true)};
    Grid grid = CountGrid(some, PICTURE_LIMITS);
    Caption caption{
        .title = std::string(5000, 'W'), .source = "\xFF\xC0\x80\xF4 bad", .geometry = {.blockSize = 0xFFFFFFFF}};
    const Decoded decoded = Decode(EncodePng(DrawPicture(grid, caption).canvas));
    EXPECT_LT(decoded.width, 1400);
}

TEST(VtfltctlBitmapPicture, WhatTheFileLacksHasAColourOfItsOwn)
{
    MemoryBits bits{BlockSet(1600, true)};
    const Grid grid = CountGrid(bits, PICTURE_LIMITS);
    Caption caption = SomeCaption(1600);
    caption.heldBlocks = 64;
    const Picture picture = DrawPicture(grid, caption);
    const Decoded decoded = Decode(EncodePng(picture.canvas));
    const int row = picture.plot.top + picture.plot.cell;
    EXPECT_EQ(decoded.At(picture.plot.left, picture.plot.top), ColourOf(Shade::All));
    EXPECT_EQ(decoded.At(picture.plot.left, row), MISSING_COLOUR);
}

TEST(VtfltctlBitmapPicture, TextIsDrawn)
{
    // The header has ink in it, and differs when the caption does.
    MemoryBits bits{BlockSet(100)};
    const Grid grid = CountGrid(bits, PICTURE_LIMITS);
    Caption caption = SomeCaption(100);
    const Bytes first = DrawPicture(grid, caption).canvas.Pixels();
    caption.title = "Base bitmap of app2";
    const Bytes second = DrawPicture(grid, caption).canvas.Pixels();
    ASSERT_EQ(first.size(), second.size());
    EXPECT_NE(first, second);
    EXPECT_GT(Canvas::TextWidth(20, "WWWW"), Canvas::TextWidth(20, "iiii"));
    EXPECT_EQ(Canvas::TextWidth(20, ""), 0);
}

TEST(VtfltctlBitmapPicture, SummarySaysSizesAndTotals)
{
    BlockSet blocks(16);
    blocks[1] = blocks[2] = blocks[15] = true;
    MemoryBits bits(blocks);
    const Grid grid = CountGrid(bits, PICTURE_LIMITS);
    EXPECT_EQ(
        Summary(grid, {.blockSize = 65536, .volumeBytes = 1000000}),
        (std::vector<std::string>{"Volume of 976.56 KiB in 16 blocks of 64 KiB",
                                  "Changed: 144.56 KiB (18.75 %): 3 blocks in 2 extents, the longest of 128 KiB"}));
    EXPECT_EQ(Summary(grid, {.blockSize = 65536})[0], "Covers 1 MiB in 16 blocks of 64 KiB");
    EXPECT_EQ(Summary(grid, {}),
              (std::vector<std::string>{"16 blocks of unknown size",
                                        "Changed: 3 blocks (18.75 %) in 2 extents, the longest of 2 blocks"}));
    EXPECT_EQ(ChangedBytes(grid.totals, {.blockSize = 65536, .volumeBytes = 1000000}), 2 * 65536U + 1000000 - 983040);
    EXPECT_EQ(ChangedBytes(grid.totals, {.blockSize = 65536}), 3 * 65536U);
}

TEST(VtfltctlBitmapTerminal, PlainCharactersShowEachCell)
{
    BlockSet blocks(64 * 24 * 128);
    // Cells of 128 blocks: a trace, a little, half, most, all.
    const std::size_t changed[] = {1, 10, 64, 100, 128};
    for (std::size_t cell = 0; cell < 5; ++cell) {
        for (std::size_t i = 0; i < changed[cell]; ++i)
            blocks[(64 + cell * 2) * 128 + i] = true;
    }
    const std::vector<std::string> lines = Lines(Terminal(blocks, false));
    ASSERT_GT(lines.size(), 30U);
    EXPECT_EQ(lines[0], "Base bitmap of app1");
    EXPECT_EQ(lines[2], "Volume of 12 GiB in 196,608 blocks of 64 KiB");
    EXPECT_EQ(lines[6], "           0 " + std::string(64, '.'));
    EXPECT_EQ(lines[7], "     512 MiB -.+.x.%.#" + std::string(55, '.'));
    EXPECT_EQ(lines[30], "  12,288 MiB");
    EXPECT_EQ(lines[32], "One square is 8 MiB, 128 blocks. A row is 512 MiB.");
    EXPECT_EQ(lines[33], ". unchanged   - up to 1 %   + up to 10 %   x up to 50 %   % under 100 %   # all changed   ");
    for (const std::string& line : lines)
        EXPECT_EQ(line.find('\x1b'), std::string::npos) << "an escape sequence without colour";
}

TEST(VtfltctlBitmapTerminal, ColourPutsTwoRowsInALine)
{
    BlockSet blocks(64 * 2);
    blocks[64] = true; // the lower half of the first character
    const std::vector<std::string> lines = Lines(Terminal(blocks, true));
    const std::string cell = "\x1b[48;2;74;7;44m\x1b[38;2;233;236;240m\xE2\x96\x80";
    const std::string next = "\x1b[48;2;233;236;240m\x1b[38;2;233;236;240m\xE2\x96\x80";
    EXPECT_EQ(lines[6].substr(0, 13 + cell.size() + next.size()), "           0 " + cell + next);
    EXPECT_TRUE(lines[6].ends_with("\x1b[0m"));
}

TEST(VtfltctlBitmapTerminal, NoLineIsWiderThanItsColumns)
{
    std::mt19937_64 random(5);
    for (const std::size_t size : {0U, 1U, 63U, 64U, 65U, 100000U}) {
        for (const std::uint64_t columns : {32U, 64U, 128U}) {
            const std::vector<std::string> lines = Lines(Terminal(RandomRuns(random, size, 9), false, columns));
            for (std::size_t i = 6; i + 4 < lines.size(); ++i)
                EXPECT_LE(lines[i].size(), 13 + columns);
        }
    }
}
