// The bits of bitmaps, streamed: whatever a bitmap's size, one buffer of it is in memory.
//
// Blocks are numbered from 0. In a word of 64 bits the first block is the most significant bit.
#pragma once

#include "bitmap_file.h"

#include "bitmap/bits.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace vtfltctl::bitmap {

class BitSource {
public:
    BitSource() = default;
    BitSource(const BitSource&) = delete;
    BitSource& operator=(const BitSource&) = delete;
    virtual ~BitSource() = default;

    // How many blocks there are; a bit behind them is never looked at.
    [[nodiscard]] virtual std::uint64_t Blocks() const = 0;
    // Bitmap bytes from one on, first block of the volume in the first; zero behind the end. Throws ReadError.
    virtual void Read(std::uint64_t firstByte, std::uint8_t* to, std::size_t count) = 0;
};

// The bits of one file. What its header claims and the file does not hold is set, as the library has it. The file and
// the facts stay the caller's and are needed as long.
class FileBits final : public BitSource {
public:
    // blocks: those of the volume where they are known, else facts.Blocks(). A volume may have more than the bitmap
    // speaks of: those are clear.
    FileBits(ByteSource& file, const FileFacts& facts, std::uint64_t blocks)
        : m_file(file), m_facts(facts), m_blocks(blocks)
    {
    }

    [[nodiscard]] std::uint64_t Blocks() const override { return m_blocks; }
    void Read(std::uint64_t firstByte, std::uint8_t* to, std::size_t count) override;

private:
    ByteSource& m_file;
    const FileFacts& m_facts;
    std::uint64_t m_blocks;
};

// Two bitmaps as one, block by block; the shorter is clear behind its end. Both stay the caller's.
class CombinedBits final : public BitSource {
public:
    enum class Rule {
        Either,
        OnlyFirst,
        OnlySecond,
        Both,
    };

    CombinedBits(BitSource& first, BitSource& second, Rule rule) : m_first(first), m_second(second), m_rule(rule) {}

    [[nodiscard]] std::uint64_t Blocks() const override;
    void Read(std::uint64_t firstByte, std::uint8_t* to, std::size_t count) override;

private:
    static void ReadOne(BitSource& source, std::uint64_t firstByte, std::uint8_t* to, std::size_t count);

    BitSource& m_first;
    BitSource& m_second;
    Rule m_rule;
    std::vector<std::uint8_t> m_buffer;
};

// The words of a bitmap by their number; best in ascending order, for a buffer of them is kept.
class WordReader {
public:
    static constexpr std::size_t BUFFER_WORDS = 128 * 1024;

    // limit: blocks from there on count as clear.
    WordReader(BitSource& source, std::uint64_t limit);

    // How many words hold all blocks below the limit.
    [[nodiscard]] std::uint64_t Words() const noexcept { return m_words; }
    // The number must be below Words(). Throws ReadError.
    std::uint64_t At(std::uint64_t number)
    {
        if (number - m_first >= m_held)
            Load(number);
        return m_buffer[static_cast<std::size_t>(number - m_first)];
    }

private:
    void Load(std::uint64_t number);

    BitSource& m_source;
    std::uint64_t m_limit;
    std::uint64_t m_words;
    std::uint64_t m_first = 0;
    std::uint64_t m_held = 0;
    std::vector<std::uint64_t> m_buffer;
};

// A run of changed blocks, as long as it goes.
struct Run {
    std::uint64_t first = 0;
    std::uint64_t count = 0;

    [[nodiscard]] std::uint64_t End() const noexcept { return first + count; }
    friend bool operator==(const Run&, const Run&) = default;
};

// The runs of changed blocks in a range, in ascending order. A run that crosses the range's ends is cut there.
class RunReader {
public:
    RunReader(BitSource& source, std::uint64_t from, std::uint64_t to);
    explicit RunReader(BitSource& source) : RunReader(source, 0, source.Blocks()) {}

    // Nothing behind the last one. Throws ReadError, and is of no use then.
    std::optional<Run> Next();

private:
    std::uint64_t Find(std::uint64_t (vtflt::BitCursor::*find)());
    void Load();

    BitSource& m_source;
    std::uint64_t m_to;
    std::uint64_t m_next;     // the first block that is not in the buffer
    std::uint64_t m_base = 0; // the buffer's first block
    std::vector<std::uint8_t> m_buffer;
    vtflt::BitCursor m_cursor{nullptr, 0, 0};
};

// What a whole bitmap adds up to.
class Totals {
public:
    // The next 64 blocks.
    void Add(std::uint64_t word) noexcept;

    [[nodiscard]] std::uint64_t Set() const noexcept { return m_set; }
    [[nodiscard]] std::uint64_t Runs() const noexcept { return m_runs; }
    [[nodiscard]] std::uint64_t LongestRun() const noexcept { return m_longest; }
    // First changed block, and the one behind the last; both 0 when there is none.
    [[nodiscard]] std::uint64_t First() const noexcept { return m_begun; }
    [[nodiscard]] std::uint64_t End() const noexcept { return m_end; }

private:
    std::uint64_t m_words = 0;
    std::uint64_t m_set = 0;
    std::uint64_t m_runs = 0;
    std::uint64_t m_longest = 0;
    std::uint64_t m_current = 0; // the run that reaches the end of the last word
    std::uint64_t m_begun = 0;
    std::uint64_t m_end = 0;
};

Totals TotalsOf(BitSource& source);

// Two bitmaps held against each other.
struct Comparison {
    Totals onlyFirst;
    Totals onlySecond;
    Totals both;
};
Comparison Compare(BitSource& first, BitSource& second);

} // namespace vtfltctl::bitmap
