// Log files of any bytes, and records as the library writes them.
#include "fuzz/fuzz.h"
#include "log/record_text.h"
#include "vtlog/record_parser.h"
#include "vtlog/visible_text.h"

#include <algorithm>
#include <initializer_list>
#include <memory>

namespace fuzz {

namespace {

using namespace vtlog;

// How the lines of the block begin that stands first in a file.
constexpr std::wstring_view SUMMARY_TEXTS[] = {vtflt::LOG_SUMMARY_LINE,   L"Product Info: ",
                                               L"OS      Info: ",         vtflt::LOG_LEVEL_HINT_LINE,
                                               vtflt::LOG_LEVEL_KEY_LINE, vtflt::LOG_END_LINE};

std::wstring Latin1(std::string_view bytes, bool)
{
    std::wstring text;
    for (const char byte : bytes)
        text.push_back(static_cast<wchar_t>(static_cast<unsigned char>(byte)));
    return text;
}

// Hands out at most step bytes at a time.
PieceReader Pieces(const std::vector<std::uint8_t>& bytes, std::size_t step)
{
    auto at = std::make_shared<std::size_t>(0);
    return PieceReader(
        [at, &bytes, step](std::uint8_t* to, std::size_t room) {
            const std::size_t count = std::min({room, step, bytes.size() - *at});
            std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(*at), count, to);
            *at += count;
            return count;
        },
        Latin1);
}

std::vector<Entry> Entries(const std::vector<std::uint8_t>& bytes, std::size_t step)
{
    EntryReader reader(Pieces(bytes, step));
    std::vector<Entry> entries;
    Entry entry;
    while (reader.Next(entry))
        entries.push_back(entry);
    return entries;
}

bool StandsAt(const std::vector<std::uint8_t>& bytes, std::size_t at, std::initializer_list<std::uint8_t> text)
{
    return at <= bytes.size() && bytes.size() - at >= text.size() &&
           std::equal(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
}

// The bytes here that are to be in no piece: the mark that the file begins with, and the mark of UTF-16 in front of a
// header, which somebody joined to what stood there.
std::size_t MarksAt(const std::vector<std::uint8_t>& bytes, std::size_t at)
{
    std::size_t length = 0;
    if (at == 0)
        length = StandsAt(bytes, 0, {0xFF, 0xFE}) ? 2 : StandsAt(bytes, 0, {0xEF, 0xBB, 0xBF}) ? 3 : 0;
    return length + (StandsAt(bytes, at + length, {0xFF, 0xFE, '[', 0}) ? 2 : 0);
}

// Whether a header begins here, with so many bytes to a character.
bool IsHeaderAt(const std::vector<std::uint8_t>& bytes, std::size_t at, std::size_t unit)
{
    static constexpr std::string_view BEGINNING = "[0000/00/00 "; // a digit stands for any
    if (bytes.size() - at < BEGINNING.size() * unit)
        return false;
    for (const char expected : BEGINNING) {
        const std::uint8_t byte = bytes[at];
        if (expected == '0' ? byte < '0' || byte > '9' : byte != static_cast<std::uint8_t>(expected))
            return false;
        if (unit == 2 && bytes[at + 1] != 0)
            return false;
        at += unit;
    }
    return true;
}

std::wstring WithItsEnd(const Piece& piece)
{
    return piece.text + (piece.ending == Ending::CrLf ? L"\r\n" : piece.ending == Ending::Lf ? L"\n" : L"");
}

// The piece's text and line end are the bytes from its offset on; gives where it ends.
std::size_t CheckPiece(const std::vector<std::uint8_t>& bytes, const Piece& piece)
{
    const std::wstring text = WithItsEnd(piece);
    const std::size_t unit = piece.wide ? 2 : 1;
    const std::size_t end = piece.offset + text.size() * unit + (piece.oddByte ? 1 : 0);
    FUZZ_HOLDS(end > piece.offset && end <= bytes.size());
    FUZZ_HOLDS(piece.text.find(L'\n') == std::wstring::npos);
    FUZZ_HOLDS(piece.wide || !piece.oddByte);
    for (std::size_t i = 0, at = piece.offset; i < text.size(); ++i, at += unit)
        FUZZ_HOLDS(text[i] == (piece.wide ? bytes[at] | bytes[at + 1] << 8 : bytes[at]));
    // A header begins a piece, in its own encoding, wherever it stands.
    FUZZ_HOLDS(!IsHeaderAt(bytes, piece.offset, piece.wide ? 1 : 2));
    for (std::size_t at = piece.offset + 1; at < end; ++at)
        FUZZ_HOLDS(!IsHeaderAt(bytes, at, 1) && !IsHeaderAt(bytes, at, 2));
    return end;
}

// Every byte of the file is in exactly one piece, but for the marks of the encoding.
void CheckPieces(const std::vector<std::uint8_t>& bytes)
{
    PieceReader reader = Pieces(bytes, 1 << 20);
    Piece piece;
    std::size_t end = 0;
    while (reader.Next(piece)) {
        FUZZ_HOLDS(piece.offset == end + MarksAt(bytes, end));
        end = CheckPiece(bytes, piece);
    }
    FUZZ_HOLDS(end + MarksAt(bytes, end) == bytes.size());
}

// The entries are the pieces, joined: nothing of a file is lost.
void CheckEntries(const std::vector<std::uint8_t>& bytes, const std::vector<Entry>& entries)
{
    PieceReader reader = Pieces(bytes, 1 << 20);
    Piece piece;
    bool more = reader.Next(piece);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const std::uint64_t end = i + 1 < entries.size() ? entries[i + 1].offset : bytes.size();
        FUZZ_HOLDS(more && piece.offset == entries[i].offset);
        std::wstring text;
        std::wstring ending;
        bool oddByte = false;
        for (; more && piece.offset < end; more = reader.Next(piece)) {
            text += WithItsEnd(piece);
            ending = WithItsEnd(piece).substr(piece.text.size());
            oddByte = oddByte || piece.oddByte;
        }
        FUZZ_HOLDS(text == entries[i].raw + ending && entries[i].lineEnd == !ending.empty());
        FUZZ_HOLDS(oddByte == entries[i].oddByte);
    }
    FUZZ_HOLDS(!more);
}

void CheckEntry(const Entry& entry)
{
    FUZZ_HOLDS(entry.messageBegin <= entry.messageEnd && entry.messageEnd <= entry.raw.size());
    FUZZ_HOLDS(entry.header.has_value() == (entry.kind == EntryKind::Record || entry.kind == EntryKind::Summary));
    FUZZ_HOLDS(!entry.tail || entry.kind == EntryKind::Record);
    if (entry.header) {
        const auto parsed = ParseHeader(entry.raw);
        FUZZ_HOLDS(parsed && parsed->length == entry.messageBegin && parsed->header.time == entry.header->time);
    }
    if (entry.tail)
        FUZZ_HOLDS(ParseTail(entry.raw) && entry.messageEnd < entry.raw.size());
    // What is printed has nothing that a terminal would act on.
    for (const wchar_t character : VisibleText(entry.Message(), L"\n"))
        FUZZ_HOLDS((character >= 0x20 && character != 0x7F && !(character >= 0x80 && character < 0xA0)) ||
                   character == L'\n' || character == L'\t');
}

bool IsSame(const Entry& a, const Entry& b)
{
    return a.kind == b.kind && a.offset == b.offset && a.raw == b.raw && a.messageBegin == b.messageBegin &&
           a.messageEnd == b.messageEnd && a.lineEnd == b.lineEnd && a.oddByte == b.oddByte;
}

} // namespace

void LogFile(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    const std::size_t step = 1 + input.Byte();
    const std::vector<std::uint8_t> file = input.Bytes(6000);
    CheckPieces(file);
    const std::vector<Entry> entries = Entries(file, 1 << 20);
    const std::vector<Entry> again = Entries(file, step);
    FUZZ_HOLDS(std::equal(entries.begin(), entries.end(), again.begin(), again.end(), IsSame));
    CheckEntries(file, entries);
    for (const Entry& entry : entries)
        CheckEntry(entry);
}

// What the library writes of a record, its reader gives back.
void LogRecord(const std::uint8_t* bytes, std::size_t count)
{
    Input input(bytes, count);
    vtflt::LogRecordTime when = {};
    when.year = static_cast<std::uint16_t>(1601 + input.Take<std::uint16_t>() % 8399);
    when.month = static_cast<std::uint16_t>(1 + input.Byte() % 12);
    when.day = static_cast<std::uint16_t>(1 + input.Byte() % 31);
    when.hour = input.Byte() % 24;
    when.minute = input.Byte() % 60;
    when.second = input.Byte() % 60;
    when.milliseconds = input.Take<std::uint16_t>() % 1000;
    const vtflt::RecordHeader header = {input.Take<std::int32_t>(), input.Take<std::uint32_t>(),
                                        input.Take<std::uint32_t>(), input.Take<std::uint32_t>()};
    const auto version = input.Take<std::uint32_t>();
    wchar_t timeText[vtflt::TIME_TEXT_CAPACITY];
    wchar_t headerText[vtflt::LOG_HEADER_CAPACITY];
    wchar_t tailText[vtflt::LOG_TAIL_CAPACITY];
    vtflt::BuildTimeText(timeText, when);
    vtflt::BuildRecordHeader(headerText, timeText, header);
    vtflt::BuildRecordTail(tailText, L"program.exe", L"VTFltMgr.dll", version);

    // Any message but one that itself looks like a part of a record.
    std::wstring message = input.Text(1000);
    std::replace(message.begin(), message.end(), L'[', L'(');
    std::replace(message.begin(), message.end(), L'{', L'(');
    // A record without a code whose first line is one of the summary's, and no more of it, is read as that line.
    const bool isSummaryLine = header.errorCode == 0 && message.find(L'\n') != std::wstring::npos &&
                               std::any_of(std::begin(SUMMARY_TEXTS), std::end(SUMMARY_TEXTS),
                                           [&](std::wstring_view line) { return message.starts_with(line); });
    const std::wstring record = headerText + message + tailText;
    std::wstring text = record + L"\r\n" + record + L"\r\n";
    std::vector<std::uint8_t> file = {0xFF, 0xFE};
    const auto* const raw = reinterpret_cast<const std::uint8_t*>(text.data());
    file.insert(file.end(), raw, raw + text.size() * 2);

    // Units whose bytes are a header in the other encoding, or one byte off, cannot be told from one.
    const std::size_t second = 2 + (record.size() + 2) * 2;
    for (std::size_t at = 0; at < file.size(); ++at) {
        if (at != 2 && at != second && (IsHeaderAt(file, at, 1) || IsHeaderAt(file, at, 2)))
            return;
    }
    if (isSummaryLine)
        return;
    const std::vector<Entry> entries = Entries(file, 1 << 20);
    FUZZ_HOLDS(entries.size() == 2);
    for (const Entry& entry : entries) {
        FUZZ_HOLDS(entry.kind == EntryKind::Record && entry.header && entry.tail && !entry.Cut());
        FUZZ_HOLDS(entry.raw == record && entry.Message() == message);
        FUZZ_HOLDS(entry.header->level == header.level && entry.header->code == header.errorCode);
        FUZZ_HOLDS(entry.header->processId == header.processId && entry.header->threadId == header.threadId);
        FUZZ_HOLDS((entry.header->time == RecordTime{when.year, when.month, when.day, when.hour, when.minute,
                                                     when.second, when.milliseconds}));
        FUZZ_HOLDS(entry.tail->program == L"program.exe" && entry.tail->versionHigh == version >> 16);
        FUZZ_HOLDS(entry.tail->versionLow == (version & 0xFFFF));
    }
}

} // namespace fuzz
