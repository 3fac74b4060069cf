#include "log_pieces.h"

#include <algorithm>
#include <utility>

namespace vtlog {
namespace {

constexpr std::size_t READ_BYTES = 64 * 1024;
// "[2026/11/21 ": a digit stands for any.
constexpr std::string_view SIGNATURE = "[0000/00/00 ";

bool Fits(std::uint8_t byte, char pattern) noexcept
{
    return pattern == '0' ? byte >= '0' && byte <= '9' : byte == static_cast<std::uint8_t>(pattern);
}

wchar_t UnitAt(const std::uint8_t* bytes) noexcept
{
    return static_cast<wchar_t>(bytes[0] | bytes[1] << 8);
}

// How many bytes of a long UTF-8 text can be taken without tearing its last character.
std::size_t WholeUtf8(const std::uint8_t* bytes, std::size_t length) noexcept
{
    std::size_t back = 0;
    while (back < 3 && back + 1 < length && (bytes[length - 1 - back] & 0xC0) == 0x80)
        ++back;
    const std::uint8_t lead = bytes[length - 1 - back];
    const std::size_t wants = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    return wants > back + 1 && length > back + 1 ? length - 1 - back : length;
}

} // namespace

PieceReader::PieceReader(ByteSource source, NarrowDecoder decoder)
    : m_source(std::move(source)), m_decoder(std::move(decoder))
{
}

bool PieceReader::Have(std::size_t count)
{
    while (!m_ended && m_buffer.size() - m_position < count) {
        m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<std::ptrdiff_t>(m_position));
        m_position = 0;
        const std::size_t had = m_buffer.size();
        m_buffer.resize(had + std::max(READ_BYTES, count));
        const std::size_t got = m_source(m_buffer.data() + had, m_buffer.size() - had);
        m_buffer.resize(had + got);
        m_ended = got == 0;
    }
    return m_buffer.size() - m_position >= count;
}

void PieceReader::Start()
{
    m_started = true;
    std::size_t mark = 0;
    if (Have(2) && UnitAt(At(0)) == 0xFEFF) {
        m_encoding = Encoding::Wide;
        m_marked = true;
        mark = 2;
    } else if (Have(3) && *At(0) == 0xEF && *At(1) == 0xBB && *At(2) == 0xBF) {
        m_encoding = Encoding::Utf8;
        mark = 3;
    }
    m_position += mark;
    m_offset += mark;
}

bool PieceReader::WideSignature(std::size_t ahead)
{
    if (!Have(ahead + 1) || *At(ahead) != '[' || !Have(ahead + 2 * SIGNATURE.size()))
        return false;
    for (std::size_t i = 0; i < SIGNATURE.size(); ++i) {
        if (!Fits(*At(ahead + 2 * i), SIGNATURE[i]) || *At(ahead + 2 * i + 1) != 0)
            return false;
    }
    return true;
}

bool PieceReader::NarrowSignature(std::size_t ahead)
{
    if (!Have(ahead + 1) || *At(ahead) != '[' || !Have(ahead + SIGNATURE.size()))
        return false;
    for (std::size_t i = 0; i < SIGNATURE.size(); ++i) {
        if (!Fits(*At(ahead + i), SIGNATURE[i]))
            return false;
    }
    return true;
}

// The start of a UTF-16 log file inside other text: somebody joined files.
bool PieceReader::WideMark(std::size_t ahead)
{
    return Have(ahead + 1) && *At(ahead) == 0xFF && Have(ahead + 4) && UnitAt(At(ahead)) == 0xFEFF &&
           UnitAt(At(ahead + 2)) == L'[';
}

// Takes the encoding of the header that stands at the current position, if one does.
void PieceReader::Settle()
{
    const bool mark = WideMark(0);
    if (mark || WideSignature(0))
        m_encoding = Encoding::Wide;
    else if (m_encoding == Encoding::Wide && NarrowSignature(0))
        m_encoding = Encoding::Narrow;
    if (mark) {
        m_position += 2;
        m_offset += 2;
    }
}

// The bytes of the piece at the current position, line end and odd byte included.
std::size_t PieceReader::WideLength(Piece& piece)
{
    std::size_t length = 0;
    while (Have(length + 2)) {
        if (length > 0 && (WideSignature(length) || NarrowSignature(length) || WideMark(length)))
            return length;
        // A header that begins at the second byte: the first is half of a character that was never finished.
        if (WideSignature(length + 1) || NarrowSignature(length + 1)) {
            piece.oddByte = true;
            return length + 1;
        }
        const wchar_t unit = UnitAt(At(length));
        length += 2;
        if (unit == L'\n') {
            piece.ending = Ending::Lf;
            return length;
        }
        // Pairs of surrogates are not torn.
        if (length >= 2 * MAX_PIECE && (unit < 0xD800 || unit > 0xDBFF))
            return length;
        if (length >= 2 * (MAX_PIECE + 1))
            return length;
    }
    if (Have(length + 1)) {
        piece.oddByte = true;
        ++length;
    }
    return length;
}

std::size_t PieceReader::NarrowLength(Piece& piece)
{
    std::size_t length = 0;
    while (Have(length + 1)) {
        if (length > 0 && (NarrowSignature(length) || WideSignature(length) || WideMark(length)))
            return length;
        const std::uint8_t byte = *At(length);
        ++length;
        if (byte == '\n') {
            piece.ending = Ending::Lf;
            return length;
        }
        if (length >= MAX_PIECE)
            return m_encoding == Encoding::Utf8 ? WholeUtf8(At(0), length) : length;
    }
    return length;
}

bool PieceReader::Next(Piece& piece)
{
    if (!m_started)
        Start();
    piece = Piece();
    if (!Have(1))
        return false;
    Settle();
    piece.offset = m_offset;
    piece.wide = m_encoding == Encoding::Wide;
    const std::size_t length = piece.wide ? WideLength(piece) : NarrowLength(piece);
    if (piece.wide) {
        piece.text.reserve(length / 2);
        for (std::size_t at = 0; at + 1 < length; at += 2)
            piece.text.push_back(UnitAt(At(at)));
    } else {
        const std::string bytes(At(0), At(0) + length);
        // Without its line end, which is the same in every code page, so that no conversion can lose it.
        const std::size_t kept = piece.ending == Ending::Lf ? length - 1 : length;
        piece.text = m_decoder(std::string_view(bytes).substr(0, kept), m_encoding == Encoding::Utf8);
    }
    if (piece.wide && piece.ending == Ending::Lf)
        piece.text.pop_back();
    if (piece.ending == Ending::Lf && !piece.text.empty() && piece.text.back() == L'\r') {
        piece.ending = Ending::CrLf;
        piece.text.pop_back();
    }
    m_position += length;
    m_offset += length;
    return true;
}

} // namespace vtlog
