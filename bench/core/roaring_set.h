// A bitmap as CRoaring's sets of 32-bit numbers, all of whose containers are bitsets. A set reaches over 512 MiB of bitmap;
// a larger one is several sets.
#pragma once

#include "buffers.h"

#include <roaring/roaring.h>
extern "C" {
#include <roaring/containers/bitset.h>
}

#include <memory>
#include <vector>

namespace bench {

class RoaringSets {
public:
    // Of count bytes, a multiple of 8 KiB, with more than 4096 bits set in every 8 KiB.
    RoaringSets(const std::uint8_t* bits, std::size_t count);

    // In-place unions of all of them.
    void Or(const RoaringSets& other);
    // The same, container by container, by what CRoaring has for two bitsets whose count nobody wants, as a merge does.
    // Count finds out what the sets hold: before it they do not know.
    void OrWithoutCounts(const RoaringSets& other);
    void Count();

    // What the sets say that they hold.
    [[nodiscard]] std::uint64_t Cardinality() const;
    // The bits themselves counted, container by container, as CRoaring counts those of a bitset.
    [[nodiscard]] std::uint64_t CountBits() const;

private:
    struct Free {
        void operator()(roaring_bitmap_t* set) const { roaring_bitmap_free(set); }
    };
    std::vector<std::unique_ptr<roaring_bitmap_t, Free>> m_sets;
};

} // namespace bench
