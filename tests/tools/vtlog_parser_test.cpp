// From bytes to entries: what vtlog makes of any file. Needs no Windows; also run natively, under the sanitizers.
#include "vtlog/record_parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>

namespace {

using namespace vtlog;

const std::wstring HEADER = L"[2026/11/21 04:03:47:123   00   00100   00200   0X00000005] ";
const std::wstring PLAIN_HEADER = L"[2026/11/21 04:03:47:123   02   00100   00200             ] ";
const std::wstring TAIL = L"   {a.exe::b.dll(1.2)}";
const std::wstring RECORD = HEADER + L"message" + TAIL;
const std::wstring COLUMNS = L"[   Date        Time      Level  PID     TID   ErrCode    ] .......";

std::string WideBytes(const std::wstring& text)
{
    std::string bytes;
    for (const wchar_t unit : text) {
        bytes.push_back(static_cast<char>(unit & 0xFF));
        bytes.push_back(static_cast<char>(unit >> 8 & 0xFF));
    }
    return bytes;
}

std::string Marked(const std::wstring& text)
{
    return "\xFF\xFE" + WideBytes(text);
}

std::string NarrowBytes(const std::wstring& text)
{
    std::string bytes;
    for (const wchar_t unit : text)
        bytes.push_back(static_cast<char>(unit));
    return bytes;
}

std::wstring Latin1(std::string_view bytes, bool)
{
    std::wstring text;
    for (const char byte : bytes)
        text.push_back(static_cast<wchar_t>(static_cast<unsigned char>(byte)));
    return text;
}

// Hands out at most step bytes at a time, so that everything stands across the border of two reads once.
PieceReader Pieces(const std::string& bytes, std::size_t step)
{
    auto at = std::make_shared<std::size_t>(0);
    auto kept = std::make_shared<std::string>(bytes);
    return PieceReader(
        [at, kept, step](std::uint8_t* to, std::size_t room) {
            const std::size_t count = std::min({room, step, kept->size() - *at});
            std::memcpy(to, kept->data() + *at, count);
            *at += count;
            return count;
        },
        Latin1);
}

std::vector<Entry> Read(const std::string& bytes, std::size_t step = 1000000)
{
    EntryReader reader(Pieces(bytes, step));
    std::vector<Entry> entries;
    Entry entry;
    while (reader.Next(entry))
        entries.push_back(entry);
    return entries;
}

void ExpectRecord(const Entry& entry, const std::wstring& message)
{
    EXPECT_EQ(EntryKind::Record, entry.kind);
    EXPECT_TRUE(entry.Message() == message);
    EXPECT_FALSE(entry.Cut());
}

void ExpectText(const Entry& entry, const std::wstring& text)
{
    EXPECT_EQ(EntryKind::Text, entry.kind);
    EXPECT_TRUE(entry.raw == text);
}

TEST(RecordHeader, EveryFieldIsTaken)
{
    const auto parsed = ParseHeader(HEADER + L"text");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(HEADER.size(), parsed->length);
    EXPECT_EQ((RecordTime{2026, 11, 21, 4, 3, 47, 123}), parsed->header.time);
    EXPECT_EQ(0, parsed->header.level);
    EXPECT_EQ(100u, parsed->header.processId);
    EXPECT_EQ(200u, parsed->header.threadId);
    EXPECT_EQ(5u, parsed->header.code);
}

TEST(RecordHeader, ThirteenBlanksAreCodeZeroAndTwelveAreNoHeader)
{
    const auto parsed = ParseHeader(PLAIN_HEADER);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(0u, parsed->header.code);
    std::wstring twelve = PLAIN_HEADER;
    twelve.erase(twelve.find(L"]") - 1, 1);
    EXPECT_FALSE(ParseHeader(twelve));
}

TEST(RecordHeader, NumbersWiderThanTheirColumnsAndTheHighestCodeAreTaken)
{
    const auto parsed = ParseHeader(L"[2026/11/21 04:03:47:123   9999   4294967295   1234567   0Xffffffff] ");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(9999, parsed->header.level);
    EXPECT_EQ(0xFFFFFFFFu, parsed->header.processId);
    EXPECT_EQ(1234567u, parsed->header.threadId);
    EXPECT_EQ(0xFFFFFFFFu, parsed->header.code);
}

TEST(RecordHeader, ANegativeLevelAndANegativeProcessIdAreTaken)
{
    const auto parsed = ParseHeader(L"[2026/11/21 04:03:47:123   -1   -0004   00200   0X00000005] ");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(-1, parsed->header.level);
    EXPECT_EQ(0xFFFFFFFCu, parsed->header.processId);
}

TEST(RecordHeader, TimesThatNoClockShowsAreNoHeader)
{
    for (const wchar_t* time : {L"2026/00/21 04:03:47:123", L"2026/13/21 04:03:47:123", L"2026/11/00 04:03:47:123",
                                L"2026/11/32 04:03:47:123", L"2026/11/21 24:03:47:123", L"2026/11/21 04:60:47:123",
                                L"2026/11/21 04:03:60:123"})
        EXPECT_FALSE(ParseHeader(L"[" + std::wstring(time) + L"   00   00100   00200   0X00000005] "));
}

TEST(RecordHeader, EveryShorterTextIsNoHeader)
{
    for (std::size_t length = 0; length < HEADER.size(); ++length)
        EXPECT_FALSE(ParseHeader(std::wstring_view(HEADER).substr(0, length))) << length;
}

TEST(RecordHeader, OneWrongCharacterAnywhereMakesItNoHeader)
{
    for (std::size_t at = 0; at < HEADER.size(); ++at) {
        std::wstring wrong = HEADER;
        wrong[at] = L'~';
        EXPECT_FALSE(ParseHeader(wrong)) << at;
    }
}

TEST(RecordHeader, ANumberBeyond32BitsIsNoHeader)
{
    EXPECT_FALSE(ParseHeader(L"[2026/11/21 04:03:47:123   00   4294967296   00200   0X00000005] "));
}

TEST(RecordTail, NamesAndVersionAreTaken)
{
    const auto tail = ParseTail(L"message" + TAIL);
    ASSERT_TRUE(tail);
    EXPECT_EQ(7u, tail->begin);
    EXPECT_TRUE(tail->program == L"a.exe");
    EXPECT_TRUE(tail->module == L"b.dll");
    EXPECT_EQ(1u, tail->versionHigh);
    EXPECT_EQ(2u, tail->versionLow);
}

TEST(RecordTail, NamesWithParenthesesAndBracesAndEmptyNamesAreTails)
{
    const auto tail = ParseTail(L"x   {a (2) {b}.exe::c(1).dll(0.65535)}");
    ASSERT_TRUE(tail);
    EXPECT_TRUE(tail->program == L"a (2) {b}.exe");
    EXPECT_TRUE(tail->module == L"c(1).dll");
    EXPECT_TRUE(ParseTail(L"   {::(0.0)}"));
}

TEST(RecordTail, WhatOnlyLooksLikeOneIsNone)
{
    for (const wchar_t* text : {L"", L")}", L"   {)}", L"   {a::b(1.2)", L"  {a::b(1.2)}", L"   {a:b(1.2)}",
                                L"   {a::b(1)}", L"   {a::b(1.2.3)}", L"   {a::b(65536.0)}", L"   {a::b(.)}",
                                L"   {a::b1.2)}", L"   {a\n::b(1.2)}", L"   {a::b(1.2)} "})
        EXPECT_FALSE(ParseTail(text));
}

TEST(ReadingALog, AWideFileGivesItsRecordsWithTheirPlaces)
{
    const auto entries = Read(Marked(RECORD + L"\r\n" + RECORD + L"\r\n"));
    ASSERT_EQ(2u, entries.size());
    ExpectRecord(entries[0], L"message");
    ExpectRecord(entries[1], L"message");
    EXPECT_EQ(2u, entries[0].offset);
    EXPECT_EQ(2 + 2 * (RECORD.size() + 2), entries[1].offset);
    EXPECT_TRUE(entries[0].raw == RECORD);
}

TEST(ReadingALog, ANarrowFileGivesTheSame)
{
    const auto entries = Read(NarrowBytes(RECORD + L"\r\n" + RECORD + L"\r\n"));
    ASSERT_EQ(2u, entries.size());
    ExpectRecord(entries[1], L"message");
    EXPECT_EQ(RECORD.size() + 2, entries[1].offset);
}

TEST(ReadingALog, AnEmptyFileAndAFileOfTheMarkAloneHoldNothing)
{
    EXPECT_TRUE(Read("").empty());
    EXPECT_TRUE(Read("\xFF\xFE").empty());
    EXPECT_EQ(1u, Read("\xFF").size());
}

TEST(ReadingALog, TheSummaryBlockIsToldApartFromRecords)
{
    const auto entries =
        Read(Marked(COLUMNS + L"\r\n" + PLAIN_HEADER + L"================ SUMMARY LOG =======================\r\n" +
                    PLAIN_HEADER + L"=====================================================\r\n" + RECORD + L"\r\n"));
    ASSERT_EQ(4u, entries.size());
    EXPECT_EQ(EntryKind::Columns, entries[0].kind);
    EXPECT_EQ(EntryKind::Summary, entries[1].kind);
    EXPECT_EQ(EntryKind::Summary, entries[2].kind);
    EXPECT_EQ(2, entries[1].header->level);
    ExpectRecord(entries[3], L"message");
}

TEST(ReadingALog, AMessageOfASummaryLinesTextWithATailIsARecord)
{
    const auto entries = Read(Marked(PLAIN_HEADER + L"Product Info: x" + TAIL + L"\r\n"));
    ASSERT_EQ(1u, entries.size());
    ExpectRecord(entries[0], L"Product Info: x");
}

TEST(ReadingALog, LineEndsInsideAMessageBelongToIt)
{
    const auto entries =
        Read(Marked(HEADER + L"one\r\ntwo\nthree\rfour\r\n\r\nfive" + TAIL + L"\r\n" + RECORD + L"\r\n"));
    ASSERT_EQ(2u, entries.size());
    ExpectRecord(entries[0], L"one\r\ntwo\nthree\rfour\r\n\r\nfive");
}

TEST(ReadingALog, AnEmptyMessageIsARecord)
{
    const auto entries = Read(Marked(HEADER + TAIL + L"\r\n"));
    ASSERT_EQ(1u, entries.size());
    ExpectRecord(entries[0], L"");
}

// Each part of a record is a write of its own, so a writer can die between any two of them, and the next record then
// begins there.
TEST(ReadingALog, ARecordCutBehindEachOfItsPartsIsCutAndTheNextIsWhole)
{
    for (const std::wstring& part : {HEADER, HEADER + L"mess", HEADER + L"message"}) {
        const auto entries = Read(Marked(part + RECORD + L"\r\n"));
        ASSERT_EQ(2u, entries.size());
        EXPECT_TRUE(entries[0].Cut());
        EXPECT_FALSE(entries[0].lineEnd);
        EXPECT_TRUE(entries[0].raw == part);
        ExpectRecord(entries[1], L"message");
    }
}

TEST(ReadingALog, ARecordWithoutItsLineEndIsWholeAndSoIsTheNext)
{
    const auto entries = Read(Marked(RECORD + RECORD));
    ASSERT_EQ(2u, entries.size());
    ExpectRecord(entries[0], L"message");
    EXPECT_FALSE(entries[0].lineEnd);
    ExpectRecord(entries[1], L"message");
}

TEST(ReadingALog, ARecordWithoutItsTailIsCut)
{
    const auto entries = Read(Marked(HEADER + L"message\r\n" + RECORD + L"\r\n"));
    ASSERT_EQ(2u, entries.size());
    EXPECT_TRUE(entries[0].Cut());
    ExpectRecord(entries[1], L"message");
}

TEST(ReadingALog, AMessageAndATailWithoutTheirHeaderAreText)
{
    const auto entries = Read(Marked(L"message" + TAIL + L"\r\n" + RECORD + L"\r\n"));
    ASSERT_EQ(2u, entries.size());
    ExpectText(entries[0], L"message" + TAIL);
    ExpectRecord(entries[1], L"message");
}

TEST(ReadingALog, HalfACharacterAtACutIsSaidAndTheNextRecordIsWhole)
{
    const auto entries = Read(Marked(HEADER + L"mes") + "s" + WideBytes(RECORD + L"\r\n" + RECORD + L"\r\n"));
    ASSERT_EQ(3u, entries.size());
    EXPECT_TRUE(entries[0].Cut());
    EXPECT_TRUE(entries[0].oddByte);
    EXPECT_TRUE(entries[0].Message() == L"mes");
    ExpectRecord(entries[1], L"message");
    EXPECT_FALSE(entries[1].oddByte);
    ExpectRecord(entries[2], L"message");
}

TEST(ReadingALog, HalfACharacterAtTheEndOfTheFileIsSaid)
{
    const auto entries = Read(Marked(RECORD + L"\r\n") + "x");
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ(EntryKind::Text, entries[1].kind);
    EXPECT_TRUE(entries[1].raw.empty());
    EXPECT_TRUE(entries[1].oddByte);
}

TEST(ReadingALog, NarrowRecordsInAWideFileAndWideOnesInANarrowFileAreRead)
{
    for (const std::string& bytes :
         {Marked(RECORD + L"\r\n") + NarrowBytes(RECORD + L"\r\n") + WideBytes(RECORD + L"\r\n"),
          NarrowBytes(RECORD + L"\r\n") + WideBytes(RECORD + L"\r\n") + NarrowBytes(RECORD + L"\r\n")}) {
        const auto entries = Read(bytes);
        ASSERT_EQ(3u, entries.size());
        for (const Entry& entry : entries)
            ExpectRecord(entry, L"message");
    }
}

TEST(ReadingALog, FilesJoinedBehindOneAnotherKeepTheMarkOutOfTheText)
{
    const std::wstring file = COLUMNS + L"\r\n" + RECORD + L"\r\n";
    for (const std::string& bytes : {Marked(file) + Marked(file), NarrowBytes(file) + Marked(file)}) {
        const auto entries = Read(bytes);
        ASSERT_EQ(4u, entries.size());
        EXPECT_EQ(EntryKind::Columns, entries[2].kind);
        ExpectRecord(entries[3], L"message");
    }
}

TEST(ReadingALog, ARunOfZerosDoesNotHideTheRecordBehindIt)
{
    const auto entries = Read(Marked(RECORD + L"\r\n" + std::wstring(5000, L'\0') + RECORD + L"\r\n"));
    ASSERT_EQ(3u, entries.size());
    ExpectText(entries[1], std::wstring(5000, L'\0'));
    ExpectRecord(entries[2], L"message");
}

TEST(ReadingALog, AZeroInsideAMessageStaysInIt)
{
    const std::wstring message(L"a\0b", 3);
    const auto entries = Read(Marked(HEADER + message + TAIL + L"\r\n"));
    ASSERT_EQ(1u, entries.size());
    ExpectRecord(entries[0], message);
}

TEST(ReadingALog, WhatOnlyBeginsLikeAHeaderStaysInTheMessage)
{
    const auto entries = Read(Marked(HEADER + L"made [2026/11/21 by hand" + TAIL + L"\r\n"));
    ASSERT_EQ(1u, entries.size());
    ExpectRecord(entries[0], L"made [2026/11/21 by hand");
}

TEST(ReadingALog, TextThatIsNoLogComesLineByLine)
{
    const auto entries = Read("one\r\ntwo\n\nlast");
    ASSERT_EQ(4u, entries.size());
    ExpectText(entries[0], L"one");
    ExpectText(entries[1], L"two");
    ExpectText(entries[2], L"");
    ExpectText(entries[3], L"last");
    EXPECT_FALSE(entries[3].lineEnd);
}

TEST(ReadingALog, AVeryLongLineComesInBoundedPartsAndTheRecordBehindItIsWhole)
{
    const std::wstring endless(10 * EntryReader::MAX_ENTRY, L'x');
    for (const bool wide : {true, false}) {
        const std::wstring file = HEADER + endless + L"\r\n" + RECORD + L"\r\n";
        const auto entries = Read(wide ? Marked(file) : NarrowBytes(file));
        ASSERT_GT(entries.size(), 2u);
        EXPECT_TRUE(entries.front().Cut());
        std::size_t characters = 0;
        for (std::size_t i = 0; i + 1 < entries.size(); ++i) {
            EXPECT_LE(entries[i].raw.size(), EntryReader::MAX_ENTRY);
            characters += entries[i].raw.size();
        }
        EXPECT_EQ(HEADER.size() + endless.size(), characters);
        ExpectRecord(entries.back(), L"message");
    }
}

TEST(ReadingALog, APairOfSurrogatesIsNotTornByTheBoundOfAPiece)
{
    std::wstring pairs(1, L'x'); // so that the bound falls inside a pair
    for (std::size_t i = 0; i < PieceReader::MAX_PIECE; ++i)
        pairs += L"\xD83D\xDE00";
    PieceReader reader = Pieces(Marked(pairs), 1000000);
    Piece piece;
    std::wstring all;
    while (reader.Next(piece)) {
        all += piece.text;
        EXPECT_FALSE(piece.text.back() >= 0xD800 && piece.text.back() <= 0xDBFF);
    }
    EXPECT_TRUE(all == pairs);
}

TEST(ReadingALog, LoneSurrogatesAreKeptAsTheyAre)
{
    const std::wstring message = L"a\xD800z\xDC00";
    const auto entries = Read(Marked(HEADER + message + TAIL + L"\r\n"));
    ASSERT_EQ(1u, entries.size());
    ExpectRecord(entries[0], message);
}

// Whatever a file holds, every character of it comes out again, and cutting its bytes into other reads changes nothing.
TEST(ReadingALog, NothingIsLostOfDamagedFiles)
{
    std::mt19937 random(20261121);
    const std::string whole = Marked(COLUMNS + L"\r\n" + RECORD + L"\r\n" + RECORD + L"\r\n") +
                              NarrowBytes(RECORD + L"\r\n") + WideBytes(HEADER + L"one\r\ntwo" + TAIL + L"\r\n");
    for (int round = 0; round < 400; ++round) {
        std::string bytes = whole;
        for (std::size_t change = random() % 6; change > 0; --change) {
            const std::size_t at = random() % bytes.size();
            switch (random() % 3) {
            case 0:
                bytes[at] = static_cast<char>(random());
                break;
            case 1:
                bytes.erase(at, random() % 40);
                break;
            default:
                bytes.insert(at, std::string(random() % 40, static_cast<char>(random())));
                break;
            }
        }
        PieceReader pieces = Pieces(bytes, 1000000);
        Piece piece;
        std::uint64_t accounted = 0;
        while (pieces.Next(piece)) {
            const std::size_t ending = piece.ending == Ending::CrLf ? 2 : piece.ending == Ending::Lf ? 1 : 0;
            const std::size_t unit = piece.wide ? 2 : 1;
            // Between two pieces nothing but a mark.
            EXPECT_TRUE(piece.offset - accounted == 0 || piece.offset - accounted == 2) << round;
            accounted = piece.offset + (piece.text.size() + ending) * unit + (piece.oddByte ? 1 : 0);
        }
        EXPECT_TRUE(accounted == bytes.size() || accounted + 2 == bytes.size()) << round;

        const auto once = Read(bytes);
        const auto slowly = Read(bytes, 1 + random() % 7);
        ASSERT_EQ(once.size(), slowly.size()) << round;
        for (std::size_t i = 0; i < once.size(); ++i) {
            EXPECT_EQ(once[i].kind, slowly[i].kind) << round;
            EXPECT_TRUE(once[i].raw == slowly[i].raw) << round;
            EXPECT_EQ(once[i].offset, slowly[i].offset) << round;
        }
    }
}

} // namespace
