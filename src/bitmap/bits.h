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
//
// A word is turned once into the places where a run begins or ends, so that short runs cost little more than finding the
// next of these.
class BitCursor {
public:
    // Looks at the blocks from one on and before an end; no byte is read behind the one that holds the last of them.
    BitCursor(const std::uint8_t* bits, std::uint64_t from, std::uint64_t end) noexcept
        : m_bits(bits), m_at(from < end ? from : end), m_end(end)
    {
        if (m_at >= m_end)
            return;
        m_isSet = (bits[m_at / 8] & 0x80u >> m_at % 8) != 0;
        m_word = FirstWord(bits, m_at, end, m_isSet);
    }

    // The first set, or clear, block from where the cursor stands, which then stands there; the end when there is none.
    std::uint64_t FindSet() noexcept { return Find(true); }
    std::uint64_t FindClear() noexcept { return Find(false); }

private:
    // The blocks of a word that are not like the one before them, the first block in the lowest bit.
    struct Changes {
        std::uint64_t base; // the first block; begins a byte
        std::uint64_t bits;
    };

    std::uint64_t Find(bool set) noexcept
    {
        if (m_isSet == set || m_at == m_end)
            return m_at;
        if (m_word.bits == 0) {
            m_word = NextWord(m_bits, m_word.base, m_end, m_isSet);
            if (m_word.bits == 0)
                return m_at = m_end;
        }
        m_at = m_word.base + static_cast<unsigned>(std::countr_zero(m_word.bits));
        m_word.bits &= m_word.bits - 1;
        m_isSet = set;
        return m_at;
    }

    // None takes the cursor itself: one that nobody else sees stays in the processor's registers.
    static Changes FirstWord(const std::uint8_t* bits, std::uint64_t from, std::uint64_t end, bool isSet) noexcept;
    // The next word with a change, behind the one that begins at base; without any when there is none.
    static Changes NextWord(const std::uint8_t* bits, std::uint64_t base, std::uint64_t end, bool isSet) noexcept;

    const std::uint8_t* m_bits;
    std::uint64_t m_at;
    std::uint64_t m_end;
    Changes m_word = {0, 0}; // what of the cursor's word lies behind it
    bool m_isSet = false;    // the block at m_at; not looked at when that is the end
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
