#include "change_map.h"

#include "bitmap/bits.h"

#include <algorithm>

namespace vtbackup {

void ChangeMap::ClearHeader() noexcept
{
    std::fill_n(m_buffer.begin(), std::min(m_buffer.size(), HEADER_BYTES), static_cast<unsigned char>(0));
}

bool ChangeMap::Add(const ChangeMap& other) noexcept
{
    bool all = true;
    for (std::optional<BlockRun> run = other.NextRun(0, other.Bits()); run;
         run = other.NextRun(run->end, other.Bits())) {
        all = all && run->end <= Bits();
        for (std::uint64_t block = run->begin; block < std::min(run->end, Bits()); ++block)
            Set(block);
    }
    return all;
}

std::uint64_t ChangeMap::CountBelow(std::uint64_t blocks) const noexcept
{
    const std::uint64_t limit = std::min(blocks, Bits());
    if (limit == 0)
        return 0;
    std::uint64_t count = vtflt::CountSetBits(m_buffer.data() + HEADER_BYTES, static_cast<std::size_t>(limit / 8));
    for (std::uint64_t block = limit / 8 * 8; block < limit; ++block)
        count += Test(block) ? 1U : 0U;
    return count;
}

std::optional<BlockRun> ChangeMap::NextRun(std::uint64_t from, std::uint64_t limit) const noexcept
{
    limit = std::min(limit, Bits());
    if (from >= limit)
        return std::nullopt;
    vtflt::BitCursor cursor(m_buffer.data() + HEADER_BYTES, from, limit);
    const std::uint64_t first = cursor.FindSet();
    if (first == limit)
        return std::nullopt;
    return BlockRun{first, cursor.FindClear()};
}

} // namespace vtbackup
