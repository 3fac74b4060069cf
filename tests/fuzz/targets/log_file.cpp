// Log files of any bytes, and records as the library writes them.
#include "fuzz/fuzz.h"
#include "log/record_text.h"
#include "vtlog/record_parser.h"
#include "vtlog/visible_text.h"

#include <algorithm>
#include <memory>

namespace fuzz {

namespace {

using namespace vtlog;

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

// Every byte of the file is in exactly one piece, but for the marks of the encoding.
void CheckPieces(const std::vector<std::uint8_t>& bytes)
{
    PieceReader reader = Pieces(bytes, 1 << 20);
    Piece piece;
    std::uint64_t end = 0;
    while (reader.Next(piece)) {
        FUZZ_HOLDS(piece.text.size() <= PieceReader::MAX_PIECE);
        FUZZ_HOLDS(piece.offset >= end);
        // In front of a piece nothing is left out but a mark of two or three bytes.
        FUZZ_HOLDS(piece.offset - end <= 3);
        const std::uint64_t unit = piece.wide ? 2 : 1;
        const std::uint64_t ending = piece.ending == Ending::CrLf ? 2 : piece.ending == Ending::Lf ? 1 : 0;
        end = piece.offset + (piece.text.size() + ending) * unit + (piece.oddByte ? 1 : 0);
        FUZZ_HOLDS(end <= bytes.size());
    }
    FUZZ_HOLDS(bytes.size() - end <= 3);
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
    std::uint64_t behind = 0;
    for (const Entry& entry : entries) {
        FUZZ_HOLDS(entry.offset >= behind);
        behind = entry.offset + 1;
        CheckEntry(entry);
    }
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
    const std::wstring record = headerText + message + tailText;
    std::wstring text = record + L"\r\n" + record + L"\r\n";
    std::vector<std::uint8_t> file = {0xFF, 0xFE};
    const auto* const raw = reinterpret_cast<const std::uint8_t*>(text.data());
    file.insert(file.end(), raw, raw + text.size() * 2);

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
