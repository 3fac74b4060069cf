// The first step of reading a log file: bytes become pieces of text, whatever the bytes are.
//
// A log file is UTF-16 behind the mark FF FE, or text in a code page without one. A program that died while it wrote
// may have left half a record, or half a character, and the next record then begins wherever that ended. So the
// reader looks for the one thing that cannot be mistaken, the first twelve characters of a record's header
// ("[2026/11/21 "), in both encodings and at every byte, and takes up the encoding and the alignment that it finds.
//
// Memory is bounded whatever the file holds: a line beyond MAX_PIECE comes in several pieces. Every byte of the file
// is in exactly one piece, but for the marks of the encoding.
//
// Nothing here needs Windows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vtlog {

// Gives up to room bytes, 0 at the end. What it throws goes through the readers to their caller.
using ByteSource = std::function<std::size_t(std::uint8_t* to, std::size_t room)>;
// Text in a code page becomes UTF-16; utf8 when the file said that it is UTF-8.
using NarrowDecoder = std::function<std::wstring(std::string_view bytes, bool utf8)>;

enum class Ending {
    None, // a header begins behind it, the encoding changes, the piece is long, or the file ends
    Lf,
    CrLf,
};

// A line, or a part of one.
struct Piece {
    std::uint64_t offset = 0; // of its first byte in the file
    std::wstring text;        // without its line end
    Ending ending = Ending::None;
    bool wide = false;
    bool oddByte = false; // half a character follows it: one byte of the file that is in no text
};

class PieceReader {
public:
    // The most characters (narrow: bytes) of a piece.
    static constexpr std::size_t MAX_PIECE = 32 * 1024;

    PieceReader(ByteSource source, NarrowDecoder decoder);

    // False at the end of the file.
    [[nodiscard]] bool Next(Piece& piece);
    // Whether the file began with the mark of UTF-16; known from the first Next on.
    [[nodiscard]] bool Marked() const noexcept { return m_marked; }

private:
    enum class Encoding { Wide, Narrow, Utf8 };

    void Start();
    bool Have(std::size_t count); // makes so many bytes available behind m_position; false when there are fewer
    [[nodiscard]] const std::uint8_t* At(std::size_t ahead) const { return m_buffer.data() + m_position + ahead; }
    bool WideSignature(std::size_t ahead);
    bool NarrowSignature(std::size_t ahead);
    bool WideMark(std::size_t ahead);
    void Settle();
    std::size_t WideLength(Piece& piece);
    std::size_t NarrowLength(Piece& piece);

    ByteSource m_source;
    NarrowDecoder m_decoder;
    std::vector<std::uint8_t> m_buffer;
    std::size_t m_position = 0;
    std::uint64_t m_offset = 0; // of m_position in the file
    Encoding m_encoding = Encoding::Narrow;
    bool m_started = false;
    bool m_marked = false;
    bool m_ended = false; // the source has no more
};

} // namespace vtlog
