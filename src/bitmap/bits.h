// The work on the bits of a bitmap: merging, counting, finding. Block k is byte k / 8, mask 0x80 >> (k mod 8); a set bit
// is a changed block. Nothing here needs the system.
//
// A volume of 64 TiB has a bitmap of 128 MiB, and a backup waits while it is merged: where the processor has AVX2 these
// use it, elsewhere plain words. Both give the same bits. Any thread may call them; nothing is kept between calls.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace vtflt {

// ORs count bytes into others, byte i into byte i. The two must not overlap; any alignment will do.
void OrBits(std::uint8_t* to, const std::uint8_t* from, std::size_t count) noexcept;

// How many bits are set in count bytes.
std::uint64_t CountSetBits(const std::uint8_t* bits, std::size_t count) noexcept;

// The first of count bytes that is not what is given; count when there is none.
std::size_t FindOtherByte(const std::uint8_t* bytes, std::size_t count, std::uint8_t than) noexcept;

// Walks over the runs of set bits. The bits stay the caller's and are needed as long.
class BitCursor {
public:
    // Looks at the blocks from one on and before an end; no byte is read behind the one that holds the last of them.
    BitCursor(const std::uint8_t* bits, std::uint64_t from, std::uint64_t end) noexcept
        : m_bits(bits), m_at(from < end ? from : end), m_end(end)
    {
        if (m_at < m_end)
            Load();
    }

    // The first set, or clear, block from where the cursor stands, which then stands there; the end when there is none.
    std::uint64_t FindSet() noexcept { return Find<ALL_CLEAR>(); }
    std::uint64_t FindClear() noexcept { return Find<ALL_SET>(); }

private:
    static constexpr std::uint8_t ALL_CLEAR = 0x00;
    static constexpr std::uint8_t ALL_SET = 0xFF;
    static constexpr unsigned WORD_BITS = 64;

    template <std::uint8_t Than>
    std::uint64_t Find() noexcept
    {
        constexpr std::uint64_t WANTED = Than * 0x0101010101010101u; // in each byte
        while (m_at < m_end) {
            const auto alike = static_cast<unsigned>(std::countl_zero(m_word ^ WANTED));
            if (alike < m_left) {
                m_word <<= alike;
                m_left -= alike;
                m_at += alike;
                return m_at;
            }
            m_at += m_left;
            if (m_at < m_end && Load() == WANTED && m_left == WORD_BITS) {
                m_at = BehindAlike(m_bits, m_at, m_end, Than);
                if (m_at < m_end)
                    Load();
            }
        }
        return m_end;
    }

    // The word that begins with the cursor's block, which is the first bit of it.
    std::uint64_t Load() noexcept
    {
        const std::uint64_t byte = m_at / 8;
        const auto shift = static_cast<unsigned>(m_at % 8);
        if (m_end - m_at < WORD_BITS) {
            m_word = LastWord(m_bits, m_at, m_end);
            m_left = static_cast<unsigned>(m_end - m_at < WORD_BITS - shift ? m_end - m_at : WORD_BITS - shift);
            return m_word;
        }
        m_word = BigEndian(m_bits + byte) << shift;
        m_left = WORD_BITS - shift;
        return m_word;
    }

    static std::uint64_t BigEndian(const std::uint8_t* bytes) noexcept
    {
        // Compilers make one instruction of it.
        return std::uint64_t{bytes[0]} << 56 | std::uint64_t{bytes[1]} << 48 | std::uint64_t{bytes[2]} << 40 |
               std::uint64_t{bytes[3]} << 32 | std::uint64_t{bytes[4]} << 24 | std::uint64_t{bytes[5]} << 16 |
               std::uint64_t{bytes[6]} << 8 | std::uint64_t{bytes[7]};
    }

    // Neither takes the cursor itself: one that nobody else sees stays in the processor's registers.
    static std::uint64_t LastWord(const std::uint8_t* bits, std::uint64_t at, std::uint64_t end) noexcept;
    static std::uint64_t BehindAlike(const std::uint8_t* bits, std::uint64_t at, std::uint64_t end,
                                     std::uint8_t than) noexcept;

    const std::uint8_t* m_bits;
    std::uint64_t m_at;
    std::uint64_t m_end;
    std::uint64_t m_word = 0; // the blocks from the cursor's on, first block in the highest bit
    unsigned m_left = 0;      // how many of them are in it
};

// The same for one kind of processor each: for tests and measurements, which hold one against the other.
struct BitOperations {
    void (*orBytes)(std::uint8_t* to, const std::uint8_t* from, std::size_t count) noexcept;
    std::uint64_t (*countSet)(const std::uint8_t* bits, std::size_t count) noexcept;
    std::size_t (*findOtherByte)(const std::uint8_t* bytes, std::size_t count, std::uint8_t than) noexcept;
};
extern const BitOperations PORTABLE_BIT_OPERATIONS;
// What the processor at hand runs, when it has AVX2; never null, but to be called only where it does.
const BitOperations& Avx2BitOperations() noexcept;
bool ProcessorHasAvx2() noexcept;
const BitOperations& ChooseBitOperations(bool hasAvx2) noexcept;

} // namespace vtflt
