// Bitmap files in memory, and what they say block by block, worked out the slow way.
#pragma once

#include "vtfltctl/bitmap_bits.h"

#include "bitmap/record.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace bitmap_test {

using Bytes = std::vector<std::uint8_t>;

// A file in memory that watches how it is read.
class MemoryBytes final : public vtfltctl::bitmap::ByteSource {
public:
    explicit MemoryBytes(Bytes bytes) : m_bytes(std::move(bytes)) {}

    [[nodiscard]] std::uint64_t Size() const override { return m_bytes.size(); }
    void Read(std::uint64_t offset, std::uint8_t* to, std::size_t count) override
    {
        ASSERT_LE(offset, m_bytes.size()) << "a read behind the end";
        ASSERT_LE(count, m_bytes.size() - offset) << "a read behind the end";
        ASSERT_NE(count, 0U) << "a read of nothing";
        std::memcpy(to, m_bytes.data() + offset, count);
        largestRead = std::max(largestRead, count);
        bytesRead += count;
    }

    std::size_t largestRead = 0;
    std::uint64_t bytesRead = 0;

private:
    Bytes m_bytes;
};

// The blocks of a bitmap, one element each.
using BlockSet = std::vector<bool>;

inline BlockSet RandomBlocks(std::mt19937_64& random, std::size_t count, double share)
{
    BlockSet blocks(count);
    std::bernoulli_distribution changed(share);
    for (std::size_t i = 0; i < count; ++i)
        blocks[i] = changed(random);
    return blocks;
}

// Runs of random lengths, which random blocks never have.
inline BlockSet RandomRuns(std::mt19937_64& random, std::size_t count, std::size_t longest)
{
    BlockSet blocks(count);
    std::uniform_int_distribution<std::size_t> length(1, longest);
    bool changed = false;
    for (std::size_t at = 0; at < count; changed = !changed) {
        const std::size_t end = std::min(count, at + length(random));
        std::fill(blocks.begin() + static_cast<std::ptrdiff_t>(at), blocks.begin() + static_cast<std::ptrdiff_t>(end),
                  changed);
        at = end;
    }
    return blocks;
}

inline Bytes PackBlocks(const BlockSet& blocks)
{
    Bytes bytes((blocks.size() + 7) / 8);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        if (blocks[i])
            bytes[i / 8] = static_cast<std::uint8_t>(bytes[i / 8] | 0x80U >> (i % 8));
    }
    return bytes;
}

inline void SetBlock(Bytes& bits, std::size_t block)
{
    bits[block / 8] = static_cast<std::uint8_t>(bits[block / 8] | 0x80U >> (block % 8));
}

// A record as the library writes it: 16 bytes of buffer header, then the blocks' bits.
inline Bytes RecordOfBits(const Bytes& bits, std::uint32_t blockSize = 65536)
{
    const auto length = static_cast<std::uint32_t>(bits.size()) + vtfltctl::bitmap::LEAD_BYTES;
    const auto record = vtflt::BitmapRecord::Make(blockSize, length);
    if (!bits.empty())
        std::memcpy(record->Bitmap() + vtfltctl::bitmap::LEAD_BYTES, bits.data(), bits.size());
    return {record->Bytes(), record->Bytes() + record->Size()};
}

inline Bytes RecordFile(const BlockSet& blocks, std::uint32_t blockSize = 65536)
{
    return RecordOfBits(PackBlocks(blocks), blockSize);
}

inline void PutWord(Bytes& bytes, std::size_t offset, std::uint32_t word)
{
    std::memcpy(bytes.data() + offset, &word, sizeof(word));
}
inline constexpr std::size_t BLOCK_SIZE_AT = 8;
inline constexpr std::size_t BITMAP_LENGTH_AT = 12;
inline constexpr std::size_t RECORD_SIZE_AT = 16;

// Bits in memory, read as a bitmap of so many blocks.
class MemoryBits final : public vtfltctl::bitmap::BitSource {
public:
    explicit MemoryBits(const BlockSet& blocks) : MemoryBits(PackBlocks(blocks), blocks.size()) {}
    MemoryBits(Bytes bits, std::uint64_t blocks) : m_blocks(blocks), m_bytes(std::move(bits))
    {
        // What lies behind the last block must never be looked at.
        if (m_blocks % 8 != 0)
            m_bytes.back() = static_cast<std::uint8_t>(m_bytes.back() | 0xFFU >> (m_blocks % 8));
    }

    [[nodiscard]] std::uint64_t Blocks() const override { return m_blocks; }
    void Read(std::uint64_t firstByte, std::uint8_t* to, std::size_t count) override
    {
        const std::size_t held = std::min<std::size_t>(count, m_bytes.size() - static_cast<std::size_t>(firstByte));
        std::memcpy(to, m_bytes.data() + firstByte, held);
        std::memset(to + held, 0xFF, count - held);
    }

private:
    std::uint64_t m_blocks;
    Bytes m_bytes;
};

inline std::vector<vtfltctl::bitmap::Run> RunsOf(const BlockSet& blocks, std::size_t from, std::size_t to)
{
    std::vector<vtfltctl::bitmap::Run> runs;
    for (std::size_t i = from; i < std::min(to, blocks.size()); ++i) {
        if (!blocks[i])
            continue;
        if (runs.empty() || runs.back().End() != i)
            runs.push_back({i, 0});
        ++runs.back().count;
    }
    return runs;
}

} // namespace bitmap_test
