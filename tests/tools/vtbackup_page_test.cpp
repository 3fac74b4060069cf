// What vtbackup report makes of figures, without a repository. Needs no Windows: run natively, under the sanitizers.
#include "report/assets.h"
#include "report/content_map.h"
#include "report/markup.h"
#include "report/model.h"
#include "report/page.h"

#include <gtest/gtest.h>

#include <bit>
#include <limits>
#include <random>
#include <set>

namespace {

using namespace vtbackup;

constexpr std::uint64_t MOST = std::numeric_limits<std::uint64_t>::max();

std::size_t CountOf(const std::string& text, const std::string& part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

// ---- text

TEST(ReportMarkup, WhatMarksUpIsEscaped)
{
    EXPECT_EQ("&lt;a b=&quot;c&quot; d=&#39;e&#39;&gt; &amp;amp;", Escaped("<a b=\"c\" d='e'> &amp;"));
}

TEST(ReportMarkup, LettersOfAnyScriptStay)
{
    const std::string text = "\u00E4\u05D0\u4E2D\U0001F600";
    EXPECT_EQ(text, Escaped(text));
}

TEST(ReportMarkup, WhatIsNotSeenIsReplaced)
{
    for (const char* const hidden : {"\x01", "\n", "\x7F", "\u0085", "\u200B", "\u202E", "\u2066", "\uFEFF", "\u061C"})
        EXPECT_EQ("a\uFFFDb", Escaped(std::string("a") + hidden + "b"));
    EXPECT_EQ("a\uFFFDb", Escaped(std::string_view("a\0b", 3)));
}

TEST(ReportMarkup, MalformedTextIsReplaced)
{
    EXPECT_EQ("\uFFFD", Escaped("\x80"));
    EXPECT_EQ("\uFFFDa", Escaped("\xC3"
                                 "a"));
    EXPECT_EQ("\uFFFD", Escaped("\xC3"));
    EXPECT_EQ("\uFFFD\uFFFD&lt;", Escaped("\xC0\xBC<"));      // an overlong "<"
    EXPECT_EQ("\uFFFD\uFFFD\uFFFD", Escaped("\xED\xA0\x80")); // a surrogate
    EXPECT_EQ("\uFFFD\uFFFD\uFFFD\uFFFD", Escaped("\xF5\x80\x80\x80"));
    EXPECT_EQ("\uFFFD&lt;", Escaped("\xE2<")); // the markup behind it is not swallowed
}

TEST(ReportMarkup, ALongTextIsCutBetweenCharacters)
{
    EXPECT_EQ("ab\u2026", Escaped("abcd", 2));
    EXPECT_EQ("abcd", Escaped("abcd", 4));
    EXPECT_EQ("a\u00E4\u2026", Escaped("a\u00E4b", 2));
}

TEST(ReportMarkup, RandomBytesAreNeverMarkup)
{
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        std::string bytes(random() % 40, '\0');
        for (char& byte : bytes)
            byte =
                static_cast<char>(random() % 3 == 0 ? "<>\"'&\xE2\x80\xC3"[random() % 8] : static_cast<char>(random()));
        const std::string escaped = Escaped(bytes);
        EXPECT_EQ(std::string::npos, escaped.find_first_of("<>\"'\r\n")) << round;
        EXPECT_EQ(escaped.find('&') == std::string::npos, bytes.find_first_of("<>\"'&") == std::string::npos) << round;
    }
}

TEST(ReportMarkup, NumbersAreReadable)
{
    EXPECT_EQ("0", CountText(0));
    EXPECT_EQ("999", CountText(999));
    EXPECT_EQ("1,000", CountText(1000));
    EXPECT_EQ("18,446,744,073,709,551,615", CountText(MOST));
    EXPECT_EQ("0 %", PercentText(0, 0));
    EXPECT_EQ("0 %", PercentText(3, 0));
    EXPECT_EQ("under 0.1 %", PercentText(1, 100000));
    EXPECT_EQ("33.3 %", PercentText(1, 3));
    EXPECT_EQ("100.0 %", PercentText(MOST, MOST));
    EXPECT_EQ("<data value=\"2048\" title=\"2,048 bytes\">2.0 KiB</data>", SizeElement(2048));
}

TEST(ReportMarkup, TimesAreReadAndWritten)
{
    EXPECT_EQ(0, SecondsOf("1970-01-01T00:00:00Z"));
    EXPECT_EQ(951782400, SecondsOf("2000-02-29T00:00:00Z"));
    EXPECT_EQ(1795269599, SecondsOf("2026-11-21T13:59:59Z"));
    for (const char* const time : {"0000-01-01T00:00:00Z", "1969-12-31T23:59:59Z", "2000-02-29T12:30:01Z",
                                   "2100-02-28T00:00:00Z", "9999-12-31T23:59:59Z"})
        EXPECT_EQ(time, TimeOf(SecondsOf(time).value()));
    for (const char* const wrong :
         {"", "yesterday", "2026-11-21", "2026-11-21T13:59:59", "2026-11-21T13:59:59+", "2026-13-21T13:59:59Z",
          "2026-00-21T13:59:59Z", "2026-11-21 13:59:59Z", "2026-11-21T25:59:59Z", "-026-11-21T13:59:59Z"})
        EXPECT_FALSE(SecondsOf(wrong).has_value()) << wrong;
    EXPECT_EQ("9999-12-31T23:59:59Z", TimeOf(std::numeric_limits<std::int64_t>::max()));
    EXPECT_EQ("0000-01-01T00:00:00Z", TimeOf(std::numeric_limits<std::int64_t>::min()));
}

// ---- figures

TEST(ReportPlaces, EveryBlockLiesInOneRangeAndTheRangesHaveAllBlocks)
{
    for (const std::uint64_t length : {1ull, 4095ull, 4096ull, 4097ull, 1049576ull, 1ull << 40, 1ull << 62}) {
        for (const std::uint32_t blockSize : {1u, 512u, 4096u, 5000u, 64u << 20}) {
            const PlaceScale places = PlaceScale::For(length, blockSize, 48);
            ASSERT_GE(48u, places.ranges);
            ASSERT_LE(1u, places.ranges);
            EXPECT_EQ(0u, places.rangeBytes % blockSize);
            EXPECT_TRUE(std::has_single_bit(places.rangeBytes / blockSize));
            // Of the volume itself, and of one that is shorter and has smaller blocks.
            for (const std::uint64_t other : {length, length / 3 + 1}) {
                std::uint64_t sum = 0;
                for (std::size_t i = 0; i < places.ranges; ++i)
                    sum += places.BlocksIn(i, other, blockSize);
                EXPECT_EQ(other / blockSize + (other % blockSize != 0 ? 1 : 0), sum) << length << " " << blockSize;
            }
            EXPECT_EQ(0u, places.RangeOf(0));
            EXPECT_EQ(places.ranges - 1, places.RangeOf(length - 1));
            EXPECT_EQ(places.ranges - 1, places.RangeOf(MOST));
        }
    }
    EXPECT_EQ(0u, PlaceScale::For(0, 4096, 48).ranges);
}

TEST(ReportPlaces, BlocksAreCountedWhereTheyBegin)
{
    const PlaceScale places = PlaceScale::For(100 * 4096, 4096, 10);
    for (const std::uint32_t blockSize : {4096u, 1000u, 7u}) {
        std::vector<std::uint64_t> blocks(places.ranges);
        for (std::uint64_t offset = 0; offset < 90 * 4096; offset += blockSize)
            ++blocks[places.RangeOf(offset)];
        for (std::size_t i = 0; i < places.ranges; ++i)
            EXPECT_EQ(blocks[i], places.BlocksIn(i, 90 * 4096, blockSize)) << i << " " << blockSize;
    }
}

TEST(ReportContent, KnowsWhatASetOfBlocksKnows)
{
    std::mt19937_64 random(3);
    ContentMap map;
    std::set<std::uint64_t> expected;
    for (int step = 0; step < 20000; ++step) {
        const std::uint64_t block = random() % 3 == 0 ? random() : random() % 20000;
        const bool holds = random() % 3 != 0;
        map.Set(block, holds);
        if (holds)
            expected.insert(block);
        else
            expected.erase(block);
        if (random() % 500 == 0) {
            const std::uint64_t blocks = random() % 2 == 0 ? random() % 20000 : random();
            map.Truncate(blocks);
            expected.erase(expected.lower_bound(blocks), expected.end());
        }
        ASSERT_EQ(expected.size(), map.Count()) << step;
        ASSERT_EQ(expected.contains(block), map.Test(block));
    }
    for (const std::uint64_t block : expected)
        ASSERT_TRUE(map.Test(block));
    map.Truncate(0);
    EXPECT_EQ(0u, map.Count());
}

ReportBackup SomeBackup(std::uint64_t sequence, ReportKind kind)
{
    ReportBackup backup;
    backup.sequence = sequence;
    backup.described = true;
    backup.kind = kind;
    backup.reported = true;
    backup.time = TimeOf(1700000000 + static_cast<std::int64_t>(sequence) * 86400);
    backup.volumeLength = 48 * 4096;
    backup.blockSize = 4096;
    backup.bytesStored = kind == ReportKind::Full ? 40960 : 4096;
    backup.fullBytes = 40960;
    backup.recorded.assign(48, 0);
    backup.recorded[sequence % 48] = 1;
    return backup;
}

ReportChain SomeChain(std::size_t backups)
{
    ReportChain chain;
    chain.application = "App";
    chain.volume = "{0}";
    chain.places = PlaceScale::For(48 * 4096, 4096, 48);
    for (std::size_t i = 1; i <= backups; ++i)
        chain.backups.push_back(SomeBackup(i, i == 1 ? ReportKind::Full : ReportKind::Incremental));
    return chain;
}

TEST(ReportColumns, AreBackupsAsLongAsThereIsRoom)
{
    const std::vector<ReportColumn> columns = ColumnsOf(SomeChain(96), 96);
    ASSERT_EQ(96u, columns.size());
    EXPECT_EQ(ReportColumn::Mark::Full, columns[0].mark);
    EXPECT_FALSE(columns[0].showsChanges);
    EXPECT_EQ(ReportColumn::Mark::Incremental, columns[1].mark);
    EXPECT_EQ(1u, columns[1].changed[2]);
    EXPECT_EQ(1u, columns[1].blocks[2]);
    EXPECT_EQ(0u, columns[1].changed[3]);
}

TEST(ReportColumns, AreGroupsOfBackupsWhenThereAreMany)
{
    ReportChain chain = SomeChain(500);
    chain.backups[250].problem = "broken";
    const std::vector<ReportColumn> columns = ColumnsOf(chain, 96);
    ASSERT_EQ(84u, columns.size()); // of six each, the last of two
    EXPECT_EQ(498u, columns.back().begin);
    EXPECT_EQ(500u, columns.back().end);
    EXPECT_EQ(ReportColumn::Mark::Full, columns[0].mark);
    EXPECT_EQ(ReportColumn::Mark::Damaged, columns[250 / 6].mark);
    // The full one says nothing of changes: five backups of one block in each range.
    EXPECT_EQ(5u, columns[0].blocks[2]);
    EXPECT_EQ(1u, columns[0].changed[2]);
    EXPECT_EQ(40960u + 5 * 4096, columns[0].bytesStored);
}

TEST(ReportTotalsTest, StayAtTheLargestNumber)
{
    ReportTotals totals;
    ReportBackup backup = SomeBackup(1, ReportKind::Incremental);
    backup.bytesStored = MOST - 1;
    backup.fullBytes = MOST;
    backup.bytesRead = MOST;
    totals.Add(backup);
    totals.Add(backup);
    EXPECT_EQ(MOST, totals.bytesStored);
    EXPECT_EQ(MOST, totals.bytesRead);
    EXPECT_EQ(2u, totals.saved);
    backup.fullBytes = 3; // less than it stored: nothing was saved
    totals.Add(backup);
    EXPECT_EQ(2u, totals.saved);
}

// ---- the page

TEST(ReportPageTest, HundredsOfBackupsAreAPictureOfBoundedSize)
{
    const std::string page = ReportPage({"id", "folder", {SomeChain(700)}, {}});
    EXPECT_EQ(88u, CountOf(page, "<g class=\"column\"")); // 700 in groups of eight
    EXPECT_EQ(700u, CountOf(page, "<tr id=\"chain-1-backup-"));
    EXPECT_NE(std::string::npos, page.find("A column is 8 backups, its colour their average."));
    EXPECT_NE(std::string::npos, page.find("<title>backups 9 to 16: 0 full, 0 verify, 8 incremental\n32.0 KiB stored"));
    EXPECT_NE(std::string::npos, page.find("1 of 8 blocks changed (12.5 %), all these backups together"));
}

TEST(ReportPageTest, HoldsItsStyleAndItsScriptAsThePolicyNamesThem)
{
    const std::string page = ReportPage({"id", "folder", {SomeChain(3)}, {}});
    EXPECT_NE(std::string::npos, page.find("<style>" + std::string(PageStyle()) + "</style>"));
    EXPECT_NE(std::string::npos, page.find("<script>" + std::string(PageScript()) + "</script>"));
    EXPECT_EQ(44u, PageStyleChecksum().size());
    EXPECT_NE(std::string::npos, page.find("style-src 'sha256-" + std::string(PageStyleChecksum()) + "'"));
    EXPECT_NE(std::string::npos, page.find("script-src 'sha256-" + std::string(PageScriptChecksum()) + "'"));
    // The policy forbids both.
    EXPECT_EQ(0u, CountOf(page, " style=\""));
    EXPECT_EQ(0u, CountOf(page, " onclick"));
}

TEST(ReportPageTest, TheColourOfACellIsItsShare)
{
    ReportChain chain = SomeChain(2);
    const struct {
        std::uint64_t changed;
        const char* step;
    } cases[] = {{1, "step-1"},   {2, "step-2"},   {11, "step-3"},  {51, "step-4"},
                 {201, "step-5"}, {501, "step-6"}, {1000, "step-6"}};
    for (const auto& item : cases) {
        chain.places = PlaceScale::For(1000 * 4096, 4096, 1);
        chain.backups[1].volumeLength = 1000 * 4096;
        chain.backups[1].recorded = {item.changed};
        const std::string page = ReportPage({"id", "folder", {chain}, {}});
        EXPECT_EQ(1u, CountOf(page, std::string("<rect class=\"heat ") + item.step + "\" x=")) << item.changed;
    }
}

TEST(ReportPageTest, TheTimelineHasAPlaceForEveryTime)
{
    ReportChain chain = SomeChain(3);
    chain.backups[0].time = "2026-01-01T00:00:00Z";
    chain.backups[1].time = "2026-01-02T00:00:00Z";
    chain.backups[2].time = "2026-01-05T00:00:00Z";
    const std::string page = ReportPage({"id", "folder", {chain}, {}});
    for (const char* const place : {"x=\"2.00%\"", "x=\"26.00%\"", "x=\"98.00%\""})
        EXPECT_NE(std::string::npos, page.find(place)) << place;
    const std::size_t begin = page.find("id=\"timeline\"");
    EXPECT_EQ(5u, CountOf(page.substr(begin, page.find("</section>", begin) - begin), "<g class=\"tick\">")); // days
    // All at one time, and times that are thousands of years apart.
    for (ReportBackup& backup : chain.backups)
        backup.time = "2026-01-01T00:00:00Z";
    EXPECT_NE(std::string::npos, ReportPage({"id", "folder", {chain}, {}}).find("x=\"50.00%\""));
    chain.backups[0].time = "0000-01-01T00:00:00Z";
    chain.backups[1].time = "9999-12-31T23:59:59Z";
    EXPECT_GT(30u, CountOf(ReportPage({"id", "folder", {chain}, {}}), "<g class=\"tick\">"));
    for (ReportBackup& backup : chain.backups)
        backup.time = "whenever";
    EXPECT_EQ(std::string::npos, ReportPage({"id", "folder", {chain}, {}}).find("id=\"timeline\""));
}

TEST(ReportPageTest, NothingIsKnownOfAChainWithDamagedManifestsOnly)
{
    ReportChain chain;
    chain.application = "App";
    ReportBackup damaged;
    damaged.sequence = 7;
    damaged.problem = "broken";
    chain.backups = {damaged, damaged};
    const std::string page = ReportPage({"id", "folder", {chain, {}}, {"a chain"}});
    EXPECT_NE(std::string::npos, page.find("data-chains=\"2\" data-backups=\"2\" data-problems=\"3\""));
    EXPECT_NE(std::string::npos, page.find("no backup yet"));
}

TEST(ReportPageTest, RareMarksLieOverFrequentOnes)
{
    ReportChain chain = SomeChain(3);
    chain.backups[1].kind = ReportKind::Verify;
    const std::string page = ReportPage({"id", "folder", {chain}, {}});
    const std::size_t incremental = page.find("<use class=\"mark incremental\" data-to=");
    const std::size_t verify = page.find("<use class=\"mark verify\" data-to=");
    EXPECT_LT(incremental, verify);
    EXPECT_LT(verify, page.find("<use class=\"mark full\" data-to="));
}

TEST(ReportPageTest, WhatBuildsOnABrokenBackupIsOneItem)
{
    ReportChain chain = SomeChain(9);
    chain.backups[2].problem = "broken";
    for (const std::size_t place : {3u, 4u, 5u, 8u}) {
        chain.backups[place].problem = "it builds on it";
        chain.backups[place].onlyLinked = true;
    }
    const std::string page = ReportPage({"id", "folder", {chain}, {}});
    const std::size_t begin = page.find("id=\"problems\"");
    const std::string problems = page.substr(begin, page.find("</section>", begin) - begin);
    EXPECT_EQ(3u, CountOf(problems, "<li>")) << problems;
    EXPECT_NE(std::string::npos, problems.find(">Backup 3 of")) << problems;
    EXPECT_NE(std::string::npos, problems.find(">backup 6</a>: 3 in all</li>")) << problems;
    EXPECT_NE(std::string::npos, problems.find(">Backup 9 of")) << problems;
    EXPECT_NE(std::string::npos, page.find("data-problems=\"5\""));
}

TEST(ReportPageTest, FiguresOfAnySizeAreDrawn)
{
    ReportChain chain = SomeChain(2);
    for (ReportBackup& backup : chain.backups) {
        backup.volumeLength = 1ull << 62;
        backup.blockSize = 1;
        backup.bytesStored = MOST;
        backup.fullBytes = MOST;
        backup.blocksReported = MOST;
        backup.bytesRead = MOST;
    }
    chain.places = PlaceScale::For(1ull << 62, 1, 48);
    EXPECT_NE(std::string::npos, ReportPage({"id", "folder", {chain}, {}}).find("16.0 EiB"));
}

} // namespace
