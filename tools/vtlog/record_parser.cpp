#include "record_parser.h"

#include "log/record_text.h"

#include <array>
#include <utility>

namespace vtlog {
namespace {

// How the lines of the summary block begin, behind their headers.
constexpr std::array<std::wstring_view, 6> SUMMARY_TEXTS = {
    vtflt::LOG_SUMMARY_LINE,    L"Product Info: ",         L"OS      Info: ",
    vtflt::LOG_LEVEL_HINT_LINE, vtflt::LOG_LEVEL_KEY_LINE, vtflt::LOG_END_LINE,
};

constexpr std::size_t MAX_DIGITS = 10; // of a 32-bit number

bool IsDigit(wchar_t c) noexcept
{
    return c >= L'0' && c <= L'9';
}

// Takes a text apart from left to right; once something does not fit, nothing does.
class Cursor {
public:
    explicit Cursor(std::wstring_view text) : m_text(text) {}

    void Expect(std::wstring_view literal)
    {
        m_fits = m_fits && m_text.substr(m_at).starts_with(literal);
        m_at += m_fits ? literal.size() : 0;
    }
    // A number of least to most digits that is no greater than limit.
    std::uint32_t Number(std::size_t least, std::size_t most, std::uint32_t limit)
    {
        std::uint64_t value = 0;
        std::size_t digits = 0;
        for (; m_at + digits < m_text.size() && IsDigit(m_text[m_at + digits]) && digits <= most; ++digits)
            value = value * 10 + static_cast<std::uint64_t>(m_text[m_at + digits] - L'0');
        m_fits = m_fits && digits >= least && digits <= most && value <= limit;
        m_at += m_fits ? digits : 0;
        return m_fits ? static_cast<std::uint32_t>(value) : 0;
    }
    // The same with a sign, as a 32-bit pattern: some writers print their numbers as signed ones.
    std::uint32_t SignedNumber(std::size_t least)
    {
        const bool negative = m_fits && m_at < m_text.size() && m_text[m_at] == L'-';
        m_at += negative ? 1 : 0;
        const std::uint32_t value = Number(negative ? 1 : least, MAX_DIGITS, 0xFFFFFFFF);
        return negative ? 0 - value : value;
    }
    std::uint32_t HexNumber(std::size_t digits)
    {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < digits && m_fits; ++i) {
            const wchar_t c = m_at < m_text.size() ? m_text[m_at] : L'\0';
            const bool letter = c >= L'a' && c <= L'f';
            m_fits = IsDigit(c) || letter;
            value = value << 4 | static_cast<std::uint32_t>(letter ? c - L'a' + 10 : c - L'0');
            ++m_at;
        }
        return m_fits ? value : 0;
    }
    [[nodiscard]] bool Next(wchar_t c) const { return m_at < m_text.size() && m_text[m_at] == c; }
    [[nodiscard]] bool StartsWith(std::wstring_view text) const { return m_text.substr(m_at).starts_with(text); }
    [[nodiscard]] bool Fits() const { return m_fits; }
    [[nodiscard]] std::size_t At() const { return m_at; }

private:
    std::wstring_view m_text;
    std::size_t m_at = 0; // never beyond the end
    bool m_fits = true;
};

int TimePart(Cursor& cursor, std::size_t digits, std::uint32_t limit)
{
    return static_cast<int>(cursor.Number(digits, digits, limit));
}

RecordTime ParseTime(Cursor& cursor)
{
    RecordTime time;
    time.year = TimePart(cursor, 4, 9999);
    cursor.Expect(L"/");
    time.month = TimePart(cursor, 2, 12);
    cursor.Expect(L"/");
    time.day = TimePart(cursor, 2, 31);
    cursor.Expect(L" ");
    time.hour = TimePart(cursor, 2, 23);
    cursor.Expect(L":");
    time.minute = TimePart(cursor, 2, 59);
    cursor.Expect(L":");
    time.second = TimePart(cursor, 2, 59);
    cursor.Expect(L":");
    time.millisecond = TimePart(cursor, 3, 999);
    return time;
}

bool IsSummaryText(std::wstring_view message)
{
    for (const std::wstring_view text : SUMMARY_TEXTS) {
        if (message.starts_with(text))
            return true;
    }
    return false;
}

std::wstring_view EndingText(Ending ending)
{
    switch (ending) {
    case Ending::CrLf:
        return L"\r\n";
    case Ending::Lf:
        return L"\n";
    case Ending::None:
        break;
    }
    return {};
}

bool BeginsEntry(const Piece& piece)
{
    return piece.text == vtflt::LOG_COLUMN_LINE || ParseHeader(piece.text).has_value();
}

void TakeTail(Entry& entry)
{
    const std::wstring_view behindHeader = std::wstring_view(entry.raw).substr(entry.messageBegin);
    entry.tail = ParseTail(behindHeader);
    entry.messageEnd = entry.tail ? entry.messageBegin + entry.tail->begin : entry.raw.size();
}

// An entry of its first piece.
Entry Begin(Piece& piece)
{
    Entry entry;
    entry.offset = piece.offset;
    entry.raw = std::move(piece.text);
    entry.oddByte = piece.oddByte;
    entry.lineEnd = piece.ending != Ending::None;
    entry.messageEnd = entry.raw.size();
    if (const auto parsed = ParseHeader(entry.raw)) {
        entry.kind = EntryKind::Record;
        entry.header = parsed->header;
        entry.messageBegin = parsed->length;
        TakeTail(entry);
        if (!entry.tail && entry.header->code == 0 && IsSummaryText(entry.Message()))
            entry.kind = EntryKind::Summary;
    } else if (entry.raw == vtflt::LOG_COLUMN_LINE) {
        entry.kind = EntryKind::Columns;
    }
    return entry;
}

} // namespace

std::optional<ParsedHeader> ParseHeader(std::wstring_view text)
{
    constexpr std::wstring_view GAP = L"   ";
    constexpr std::wstring_view NO_CODE = L"             ] "; // thirteen blanks
    ParsedHeader parsed;
    RecordHeader& header = parsed.header;
    Cursor cursor(text);
    cursor.Expect(L"[");
    header.time = ParseTime(cursor);
    if (header.time.month == 0 || header.time.day == 0)
        return std::nullopt;
    cursor.Expect(GAP);
    header.level = static_cast<int>(cursor.SignedNumber(2));
    cursor.Expect(GAP);
    header.processId = cursor.SignedNumber(5);
    cursor.Expect(GAP);
    header.threadId = cursor.SignedNumber(5);
    if (cursor.StartsWith(NO_CODE)) {
        cursor.Expect(NO_CODE);
    } else {
        cursor.Expect(L"   0X");
        header.code = cursor.HexNumber(8);
        cursor.Expect(L"] ");
    }
    if (!cursor.Fits())
        return std::nullopt;
    parsed.length = cursor.At();
    return parsed;
}

std::optional<ParsedTail> ParseTail(std::wstring_view text)
{
    constexpr std::wstring_view OPENING = L"   {";
    // Names hold up to 63 characters, so a tail is short: a long text is not searched through.
    constexpr std::size_t MAX_TAIL = 64 + 2 * MAX_DIGITS + 2 * 260;
    if (!text.ends_with(L")}"))
        return std::nullopt;
    const std::size_t from = text.size() > MAX_TAIL ? text.size() - MAX_TAIL : 0;
    std::size_t begin = text.substr(from).rfind(OPENING);
    if (begin == std::wstring_view::npos)
        return std::nullopt;
    begin += from;
    const std::wstring_view inside = text.substr(begin + OPENING.size(), text.size() - begin - OPENING.size() - 2);
    const std::size_t names = inside.find(L"::");
    const std::size_t version = inside.rfind(L'(');
    if (names == std::wstring_view::npos || version == std::wstring_view::npos || version < names + 2 ||
        inside.find_first_of(L"\r\n") != std::wstring_view::npos)
        return std::nullopt;
    Cursor cursor(inside.substr(version + 1));
    ParsedTail tail;
    tail.versionHigh = cursor.Number(1, 5, 0xFFFF);
    cursor.Expect(L".");
    tail.versionLow = cursor.Number(1, 5, 0xFFFF);
    if (!cursor.Fits() || cursor.At() != inside.size() - version - 1)
        return std::nullopt;
    tail.begin = begin;
    tail.program = inside.substr(0, names);
    tail.module = inside.substr(names + 2, version - names - 2);
    return tail;
}

bool EntryReader::Peek()
{
    if (!m_peeked)
        m_peeked = m_pieces.Next(m_next);
    return m_peeked;
}

bool EntryReader::Next(Entry& entry)
{
    if (!Peek())
        return false;
    Ending ending = m_next.ending;
    entry = Begin(m_next);
    m_peeked = false;
    // A line that breaks off before something that only looked like a header goes on behind it; a record goes on
    // until its tail.
    const auto goesOn = [&] {
        if (entry.kind == EntryKind::Record)
            return !(entry.tail && ending != Ending::None);
        return ending == Ending::None;
    };
    while (goesOn() && Peek() && !BeginsEntry(m_next) && entry.raw.size() + m_next.text.size() <= MAX_ENTRY) {
        entry.raw += EndingText(ending);
        entry.raw += m_next.text;
        entry.oddByte = entry.oddByte || m_next.oddByte;
        ending = m_next.ending;
        m_peeked = false;
        if (entry.kind == EntryKind::Record)
            TakeTail(entry);
        else
            entry.messageEnd = entry.raw.size();
    }
    entry.lineEnd = ending != Ending::None;
    return true;
}

} // namespace vtlog
