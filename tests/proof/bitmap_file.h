// A bitmap file as the expected state sees it, read by the format alone and without the library.
#pragma once

#include <cstdint>
#include <vector>

namespace vtproof {

// One bit a block; zeros at the end are left out, so that bitmaps of different length compare.
using Bits = std::vector<std::uint8_t>;

struct BitmapFile {
    // It is there, and whole: signature, size and trailer.
    bool usable = false;
    // Its beginning is right and says that it is longer than it is.
    bool cutShort = false;
    // It is exactly as long as it says, and has room for its bitmap and four bytes more.
    bool exact = false;
    std::uint32_t blockSize = 0;
    Bits bits;

    bool operator==(const BitmapFile& other) const = default;
};

inline constexpr std::size_t LARGEST_BITMAP_FILE = 1 << 17;

// No bytes: a file that is not there.
BitmapFile ReadBitmapFile(const std::uint8_t* bytes, std::size_t count);

// Both together.
Bits Either(const Bits& one, const Bits& other);
// What a bitmap of so many bytes has of it.
Bits Cut(const Bits& bits, std::size_t bytes);
void TrimZeros(Bits& bits);

// All that a bitmap may be: any of these, and whatever the steps below make of any of these.
class MayBe {
public:
    explicit MayBe(Bits bits) { Add(std::move(bits)); }
    void Add(Bits bits);
    void AddCut(std::size_t bytes);
    void AddWith(const Bits& more);
    bool Holds(const Bits& bits) const;
    // Each sector of the file by itself, each byte.
    bool HoldsBySectors(const Bits& bits) const;
    bool HoldsByBytes(const Bits& bits) const;
    const std::vector<Bits>& All() const { return m_all; }

private:
    bool HoldsByParts(const Bits& bits, std::size_t part, std::size_t inFront) const;

    std::vector<Bits> m_all;
};

} // namespace vtproof
