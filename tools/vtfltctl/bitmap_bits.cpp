#include "bitmap_bits.h"

#include "bitmap/bits.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace vtfltctl::bitmap {
namespace {

constexpr std::uint64_t WORD_BITS = 64;
constexpr std::uint64_t ALL_SET = ~std::uint64_t{0};
constexpr int NOT_CHANGED = 0x00;
constexpr int CHANGED = 0xFF;
constexpr std::size_t BUFFER_BYTES = 1024 * 1024;

std::uint64_t FromBigEndian(const std::uint8_t* bytes) noexcept
{
    std::uint64_t word = 0;
    for (int i = 0; i < 8; ++i)
        word = word << 8 | bytes[i];
    return word;
}

// The length of the longest run of ones inside a word.
std::uint64_t LongestInside(std::uint64_t word) noexcept
{
    std::uint64_t length = 0;
    for (; word != 0; ++length)
        word &= word << 1;
    return length;
}

} // namespace

void FileBits::Read(std::uint64_t firstByte, std::uint8_t* to, std::size_t count)
{
    const std::uint64_t held = firstByte < m_facts.heldBytes ? m_facts.heldBytes - firstByte : 0;
    const auto fromFile = static_cast<std::size_t>(std::min<std::uint64_t>(held, count));
    if (fromFile != 0)
        m_file.Read(m_facts.bitsOffset + firstByte, to, fromFile);

    const std::uint64_t at = firstByte + fromFile;
    const std::uint64_t claimedEnd = m_facts.heldBytes + m_facts.missingBytes;
    const std::uint64_t claimed = at < claimedEnd ? claimedEnd - at : 0;
    const auto missing = static_cast<std::size_t>(std::min<std::uint64_t>(claimed, count - fromFile));
    std::memset(to + fromFile, CHANGED, missing);
    std::memset(to + fromFile + missing, NOT_CHANGED, count - fromFile - missing);
}

std::uint64_t CombinedBits::Blocks() const
{
    return std::max(m_first.Blocks(), m_second.Blocks());
}

// The bits of one of the two, clear behind its own last block.
void CombinedBits::ReadOne(BitSource& source, std::uint64_t firstByte, std::uint8_t* to, std::size_t count)
{
    const std::uint64_t bytes = (source.Blocks() + 7) / 8;
    const std::uint64_t left = firstByte < bytes ? bytes - firstByte : 0;
    const auto held = static_cast<std::size_t>(std::min<std::uint64_t>(left, count));
    if (held != 0)
        source.Read(firstByte, to, held);
    std::memset(to + held, NOT_CHANGED, count - held);
    const auto spare = static_cast<unsigned>(bytes * 8 - source.Blocks());
    if (held != 0 && held == left)
        to[held - 1] = static_cast<std::uint8_t>(to[held - 1] & (0xFFU << spare));
}

void CombinedBits::Read(std::uint64_t firstByte, std::uint8_t* to, std::size_t count)
{
    m_buffer.resize(std::max(m_buffer.size(), count));
    ReadOne(m_first, firstByte, to, count);
    ReadOne(m_second, firstByte, m_buffer.data(), count);
    const std::uint8_t* const second = m_buffer.data();
    for (std::size_t i = 0; i < count; ++i) {
        const unsigned a = to[i];
        const unsigned b = second[i];
        switch (m_rule) {
        case Rule::Either:
            to[i] = static_cast<std::uint8_t>(a | b);
            break;
        case Rule::OnlyFirst:
            to[i] = static_cast<std::uint8_t>(a & ~b);
            break;
        case Rule::OnlySecond:
            to[i] = static_cast<std::uint8_t>(b & ~a);
            break;
        case Rule::Both:
            to[i] = static_cast<std::uint8_t>(a & b);
            break;
        }
    }
}

WordReader::WordReader(BitSource& source, std::uint64_t limit)
    : m_source(source), m_limit(std::min(limit, source.Blocks())), m_words((m_limit + WORD_BITS - 1) / WORD_BITS)
{
}

void WordReader::Load(std::uint64_t number)
{
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(m_words - number, BUFFER_WORDS));
    m_buffer.resize(count);
    m_held = 0;
    auto* const bytes = reinterpret_cast<std::uint8_t*>(m_buffer.data());
    m_source.Read(number * sizeof(std::uint64_t), bytes, count * sizeof(std::uint64_t));
    // In place: each word is read before it is written.
    for (std::size_t i = 0; i < count; ++i)
        m_buffer[i] = FromBigEndian(bytes + i * sizeof(std::uint64_t));
    const std::uint64_t spare = m_words * WORD_BITS - m_limit;
    if (number + count == m_words && spare != 0)
        m_buffer.back() &= ALL_SET << spare;
    m_first = number;
    m_held = count;
}

RunReader::RunReader(BitSource& source, std::uint64_t from, std::uint64_t to)
    : m_source(source), m_to(std::min(to, source.Blocks())), m_next(std::min(from, m_to))
{
}

void RunReader::Load()
{
    const std::uint64_t first = m_next / 8;
    const std::uint64_t bytes = std::min<std::uint64_t>((m_to + 7) / 8 - first, BUFFER_BYTES);
    m_buffer.resize(static_cast<std::size_t>(bytes));
    m_source.Read(first, m_buffer.data(), m_buffer.size());
    m_base = first * 8;
    const std::uint64_t end = std::min(m_to, m_base + bytes * 8);
    m_cursor = vtflt::BitCursor(m_buffer.data(), m_next - m_base, end - m_base);
    m_next = end;
}

// The first block from where the reader stands that is found; the range's end when there is none.
std::uint64_t RunReader::Find(std::uint64_t (vtflt::BitCursor::*find)())
{
    for (;;) {
        const std::uint64_t found = m_buffer.empty() ? m_next : m_base + (m_cursor.*find)();
        if (found != m_next || m_next == m_to)
            return found;
        Load();
    }
}

std::optional<Run> RunReader::Next()
{
    const std::uint64_t first = Find(&vtflt::BitCursor::FindSet);
    if (first == m_to)
        return std::nullopt;
    return Run{first, Find(&vtflt::BitCursor::FindClear) - first};
}

void Totals::Add(std::uint64_t word) noexcept
{
    const std::uint64_t at = m_words++ * WORD_BITS;
    if (word == 0) {
        m_current = 0;
        return;
    }
    if (m_set == 0)
        m_begun = at + static_cast<std::uint64_t>(std::countl_zero(word));
    m_end = at + WORD_BITS - static_cast<std::uint64_t>(std::countr_zero(word));
    m_set += static_cast<std::uint64_t>(std::popcount(word));
    // A run begins at every one with a zero before it.
    const std::uint64_t carried = m_current != 0 ? std::uint64_t{1} << 63 : 0;
    m_runs += static_cast<std::uint64_t>(std::popcount(word & ~(word >> 1 | carried)));

    if (word == ALL_SET) {
        m_current += WORD_BITS;
        m_longest = std::max(m_longest, m_current);
        return;
    }
    m_longest = std::max(m_longest, m_current + static_cast<std::uint64_t>(std::countl_one(word)));
    if (m_longest < WORD_BITS)
        m_longest = std::max(m_longest, LongestInside(word));
    m_current = static_cast<std::uint64_t>(std::countr_one(word));
}

Totals TotalsOf(BitSource& source)
{
    Totals totals;
    WordReader words(source, source.Blocks());
    for (std::uint64_t i = 0; i < words.Words(); ++i)
        totals.Add(words.At(i));
    return totals;
}

Comparison Compare(BitSource& first, BitSource& second)
{
    Comparison result;
    WordReader firstWords(first, first.Blocks());
    WordReader secondWords(second, second.Blocks());
    const std::uint64_t words = std::max(firstWords.Words(), secondWords.Words());
    for (std::uint64_t i = 0; i < words; ++i) {
        const std::uint64_t a = i < firstWords.Words() ? firstWords.At(i) : 0;
        const std::uint64_t b = i < secondWords.Words() ? secondWords.At(i) : 0;
        result.onlyFirst.Add(a & ~b);
        result.onlySecond.Add(b & ~a);
        result.both.Add(a & b);
    }
    return result;
}

} // namespace vtfltctl::bitmap
