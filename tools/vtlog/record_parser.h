// The second step of reading a log file: pieces of text become entries.
//
// A record is a header, a message and a tail; a message may hold line ends of its own, so a record ends where a line
// ends with a tail, where the next header begins, or with the file. What belongs to no record is an entry too:
// nothing of a file is lost.
//
//     record   = header message tail CRLF
//     header   = "[" time "   " level "   " pid "   " tid code "] "
//     time     = 2026/11/21 04:03:47:123        code = "   0X00000005" or 13 blanks
//     tail     = "   {" program "::" module "(" high "." low ")}"
//
// A program that writes a forged header into its own message cannot be told from one that writes a record.
//
// Nothing here needs Windows.
#pragma once

#include "log_pieces.h"

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace vtlog {

// A record's local time.
struct RecordTime {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    int millisecond = 0;
    friend auto operator<=>(const RecordTime&, const RecordTime&) = default;
};

// The fields of a header.
struct RecordHeader {
    RecordTime time;
    int level = 0;
    std::uint32_t processId = 0;
    std::uint32_t threadId = 0;
    std::uint32_t code = 0;
};

// The header that text begins with, and its length in characters.
struct ParsedHeader {
    RecordHeader header;
    std::size_t length = 0;
};
std::optional<ParsedHeader> ParseHeader(std::wstring_view text);

// The tail that text ends with, and where it begins.
struct ParsedTail {
    std::size_t begin = 0;
    std::wstring program;
    std::wstring module;
    unsigned versionHigh = 0;
    unsigned versionLow = 0;
};
std::optional<ParsedTail> ParseTail(std::wstring_view text);

enum class EntryKind {
    Record,
    Summary, // a line of the block that a new file begins with; its level is the writer's threshold
    Columns, // that block's first line, the names of the columns
    Text,    // what is none of these
};

struct Entry {
    EntryKind kind = EntryKind::Text;
    std::uint64_t offset = 0;     // of its first byte in the file
    std::wstring raw;             // all of it as it stands in the file, without the last line end
    std::size_t messageBegin = 0; // the message in raw; all of raw for columns and text
    std::size_t messageEnd = 0;
    std::optional<RecordHeader> header; // of records and summary lines
    std::optional<ParsedTail> tail;     // of records, but for those that were cut
    bool lineEnd = true;                // a line end follows it
    bool oddByte = false;               // half a character stood in it, and is not in raw

    [[nodiscard]] std::wstring_view Message() const
    {
        return std::wstring_view(raw).substr(messageBegin, messageEnd - messageBegin);
    }
    // A record without its tail: the writer died, or could not write all of it; or it is longer than a record can be
    // and goes on as text.
    [[nodiscard]] bool Cut() const { return kind == EntryKind::Record && !tail; }
};

class EntryReader {
public:
    // A record that grows longer than this goes on as text; the library writes none beyond 1,200 characters.
    static constexpr std::size_t MAX_ENTRY = 64 * 1024;

    explicit EntryReader(PieceReader pieces) : m_pieces(std::move(pieces)) {}

    // False at the end of the file.
    [[nodiscard]] bool Next(Entry& entry);
    [[nodiscard]] const PieceReader& Pieces() const noexcept { return m_pieces; }

private:
    bool Peek();

    PieceReader m_pieces;
    Piece m_next; // valid while m_peeked
    bool m_peeked = false;
};

} // namespace vtlog
