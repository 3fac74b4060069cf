#include "proof/bitmap_file.h"

#include <algorithm>
#include <cstring>

namespace vtproof {

namespace {

constexpr std::size_t BLOCK_SIZE_AT = 8;
constexpr std::size_t BITMAP_LENGTH_AT = 12;
constexpr std::size_t RECORD_SIZE_AT = 16;
constexpr std::size_t BITMAP_AT = 84;
// The bitmap begins with room for the header of the buffer that it is handed out in.
constexpr std::size_t BITS_AT = BITMAP_AT + 16;
constexpr std::size_t TRAILER_BYTES = 4;
constexpr std::size_t SECTOR = 512;

std::uint32_t Number(const std::uint8_t* bytes)
{
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < 4; ++i)
        number |= static_cast<std::uint32_t>(bytes[i]) << 8 * i;
    return number;
}

} // namespace

BitmapFile ReadBitmapFile(const std::uint8_t* bytes, std::size_t count)
{
    BitmapFile file;
    if (count < BITMAP_AT + TRAILER_BYTES || std::memcmp(bytes, "STCA", 4) != 0)
        return file;
    const std::size_t size = Number(bytes + RECORD_SIZE_AT);
    const std::size_t length = Number(bytes + BITMAP_LENGTH_AT);
    file.cutShort = size > count;
    if (size < BITMAP_AT + TRAILER_BYTES || size > count ||
        std::memcmp(bytes + size - TRAILER_BYTES, "ACDE", TRAILER_BYTES) != 0)
        return file;
    file.usable = true;
    file.exact = size == count && BITMAP_AT + length + 4 + TRAILER_BYTES <= size;
    file.blockSize = Number(bytes + BLOCK_SIZE_AT);
    const std::size_t end = std::min(BITMAP_AT + length, size - TRAILER_BYTES);
    if (end > BITS_AT)
        file.bits.assign(bytes + BITS_AT, bytes + end);
    TrimZeros(file.bits);
    return file;
}

Bits Either(const Bits& one, const Bits& other)
{
    Bits both = one;
    both.resize(std::max(one.size(), other.size()));
    for (std::size_t i = 0; i < other.size(); ++i)
        both[i] |= other[i];
    return both;
}

Bits Cut(const Bits& bits, std::size_t bytes)
{
    Bits shorter(bits.begin(), bits.begin() + static_cast<std::ptrdiff_t>(std::min(bytes, bits.size())));
    TrimZeros(shorter);
    return shorter;
}

void TrimZeros(Bits& bits)
{
    while (!bits.empty() && bits.back() == 0)
        bits.pop_back();
}

void MayBe::Add(Bits bits)
{
    if (!Holds(bits))
        m_all.push_back(std::move(bits));
}

void MayBe::AddCut(std::size_t bytes)
{
    for (std::size_t i = 0, count = m_all.size(); i < count; ++i)
        Add(Cut(m_all[i], bytes));
}

void MayBe::AddWith(const Bits& more)
{
    for (std::size_t i = 0, count = m_all.size(); i < count; ++i)
        Add(Either(m_all[i], more));
}

bool MayBe::HoldsBySectors(const Bits& bits) const
{
    return HoldsByParts(bits, SECTOR, BITS_AT);
}

bool MayBe::HoldsByBytes(const Bits& bits) const
{
    return HoldsByParts(bits, 1, 0);
}

// Parts of so many bytes, of which the first one begins so far in front of the bits.
bool MayBe::HoldsByParts(const Bits& bits, std::size_t part, std::size_t inFront) const
{
    std::size_t longest = bits.size();
    for (const Bits& one : m_all)
        longest = std::max(longest, one.size());
    const auto at = [](const Bits& all, std::size_t i) { return i < all.size() ? all[i] : std::uint8_t{0}; };
    for (std::size_t from = 0; from < longest;) {
        const std::size_t end = (inFront + from) / part * part + part - inFront;
        const bool held = std::any_of(m_all.begin(), m_all.end(), [&](const Bits& one) {
            for (std::size_t i = from; i < end; ++i) {
                if (at(one, i) != at(bits, i))
                    return false;
            }
            return true;
        });
        if (!held)
            return false;
        from = end;
    }
    return true;
}

bool MayBe::Holds(const Bits& bits) const
{
    return std::find(m_all.begin(), m_all.end(), bits) != m_all.end();
}

} // namespace vtproof
