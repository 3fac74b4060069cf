// The walk over the runs of a bitmap, as those who use the library's cursor make it.
#pragma once

#include "bitmap/bits.h"

namespace bench {

inline std::uint64_t WalkLibrary(const std::uint8_t* bits, std::size_t count)
{
    const std::uint64_t end = count * 8;
    vtflt::BitCursor cursor(bits, 0, end);
    std::uint64_t sum = 0;
    for (std::uint64_t at = cursor.FindSet(); at != end; at = cursor.FindSet())
        sum += at + cursor.FindClear();
    return sum;
}

} // namespace bench
