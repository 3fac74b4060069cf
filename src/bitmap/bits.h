// The work on the bits of a bitmap: merging, counting, finding. Block k is byte k / 8, mask 0x80 >> (k mod 8); a set bit
// is a changed block. Nothing here needs the system.
//
// A volume of 64 TiB has a bitmap of 128 MiB, and a backup waits while it is merged: where the processor has AVX2 these
// use it, elsewhere plain words. Both give the same bits. Any thread may call them; nothing is kept between calls.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vtflt {

// ORs count bytes into others, byte i into byte i. The two must not overlap; any alignment will do.
void OrBits(std::uint8_t* to, const std::uint8_t* from, std::size_t count) noexcept;

// How many bits are set in count bytes.
std::uint64_t CountSetBits(const std::uint8_t* bits, std::size_t count) noexcept;

// The first of count bytes that is not what is given; count when there is none.
std::size_t FindOtherByte(const std::uint8_t* bytes, std::size_t count, std::uint8_t than) noexcept;

// Walks over the runs of set bits. The bits stay the caller's and are needed as long.
//
// A word is turned once into the places where a run begins or ends, so that short runs cost little more than finding the
// next of these.
class BitCursor {
public:
    // Looks at the blocks from one on and before an end; no byte is read behind the one that holds the last of them.
    BitCursor(const std::uint8_t* bits, std::uint64_t from, std::uint64_t end) noexcept
        : m_bits(bits), m_at(from < end ? from : end), m_end(end), m_base(m_at / 8 * 8)
    {
        if (m_at < m_end)
            Begin();
    }

    // The first set, or clear, block from where the cursor stands, which then stands there; the end when there is none.
    std::uint64_t FindSet() noexcept { return Find(true); }
    std::uint64_t FindClear() noexcept { return Find(false); }

private:
    static constexpr unsigned WORD_BITS = 64;

    std::uint64_t Find(bool set) noexcept
    {
        if (m_isSet == set || m_at == m_end)
            return m_at;
        if (m_changes == 0 && !LoadNext())
            return m_at = m_end;
        m_at = m_base + static_cast<unsigned>(std::countr_zero(m_changes));
        m_changes &= m_changes - 1;
        m_isSet = set;
        return m_at;
    }

    void Begin() noexcept
    {
        const std::uint64_t word = WordAt(m_base);
        const auto skipped = static_cast<unsigned>(m_at - m_base);
        m_isSet = (word >> skipped & 1) != 0;
        // Those before the first count as being like it.
        m_changes = ChangesIn(word) & ~std::uint64_t{0} << skipped & ~(std::uint64_t{1} << skipped);
    }

    // Goes to the next word in which a run begins or ends; false when there is none.
    bool LoadNext() noexcept
    {
        do {
            if (m_end - m_base <= WORD_BITS)
                return false;
            m_base += WORD_BITS;
            if (m_end - m_base >= WORD_BITS && IsAlike()) {
                m_base = BehindAlike(m_bits, m_base, m_end, m_isSet ? 0xFF : 0x00);
                if (m_base == m_end)
                    return false;
            }
            m_changes = ChangesIn(WordAt(m_base));
        } while (m_changes == 0);
        return true;
    }

    bool IsAlike() const noexcept
    {
        std::uint64_t word = 0;
        std::memcpy(&word, m_bits + m_base / 8, sizeof(word));
        return word == (m_isSet ? ~std::uint64_t{0} : 0);
    }

    // The word's blocks that are not like the one before them.
    std::uint64_t ChangesIn(std::uint64_t word) const noexcept
    {
        const std::uint64_t changes = word ^ (word << 1 | (m_isSet ? 1 : 0));
        const std::uint64_t left = m_end - m_base;
        return left >= WORD_BITS ? changes : changes & ~(~std::uint64_t{0} << left);
    }

    // The blocks from one on that begins a byte, the first in the lowest bit.
    std::uint64_t WordAt(std::uint64_t block) const noexcept
    {
        if (m_end - block < WORD_BITS)
            return LastWord(m_bits, block, m_end);
        return FirstBlockLowest(m_bits + block / 8);
    }

    static std::uint64_t FirstBlockLowest(const std::uint8_t* bytes) noexcept
    {
        // Compilers make one instruction of it.
        const std::uint64_t word = std::uint64_t{bytes[0]} | std::uint64_t{bytes[1]} << 8 |
                                   std::uint64_t{bytes[2]} << 16 | std::uint64_t{bytes[3]} << 24 |
                                   std::uint64_t{bytes[4]} << 32 | std::uint64_t{bytes[5]} << 40 |
                                   std::uint64_t{bytes[6]} << 48 | std::uint64_t{bytes[7]} << 56;
        return WithBytesReversed(word);
    }

    // The bits of each byte in the other order.
    static constexpr std::uint64_t WithBytesReversed(std::uint64_t word) noexcept
    {
        constexpr std::uint64_t FOURS = 0x0F0F0F0F0F0F0F0F;
        constexpr std::uint64_t TWOS = 0x3333333333333333;
        constexpr std::uint64_t ONES = 0x5555555555555555;
        word = (word & FOURS) << 4 | (word >> 4 & FOURS);
        word = (word & TWOS) << 2 | (word >> 2 & TWOS);
        return (word & ONES) << 1 | (word >> 1 & ONES);
    }

    // Neither takes the cursor itself: one that nobody else sees stays in the processor's registers.
    static std::uint64_t LastWord(const std::uint8_t* bits, std::uint64_t block, std::uint64_t end) noexcept;
    static std::uint64_t BehindAlike(const std::uint8_t* bits, std::uint64_t block, std::uint64_t end,
                                     std::uint8_t than) noexcept;

    const std::uint8_t* m_bits;
    std::uint64_t m_at;
    std::uint64_t m_end;
    std::uint64_t m_base;        // the block that the lowest bit of m_changes stands for; begins a byte
    std::uint64_t m_changes = 0; // behind m_at: the blocks of the word that are not like the one before them
    bool m_isSet = false;        // the block at m_at; not looked at when that is the end
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
