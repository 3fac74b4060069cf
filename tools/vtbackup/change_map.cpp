#include "change_map.h"

#include <algorithm>
#include <bit>

namespace vtbackup {

void ChangeMap::ClearHeader() noexcept
{
    std::fill_n(m_buffer.begin(), std::min(m_buffer.size(), HEADER_BYTES), static_cast<unsigned char>(0));
}

std::uint64_t ChangeMap::CountBelow(std::uint64_t blocks) const noexcept
{
    const std::uint64_t limit = std::min(blocks, Bits());
    std::uint64_t count = 0;
    for (std::uint64_t i = 0; i < limit / 8; ++i)
        count += static_cast<std::uint64_t>(std::popcount(m_buffer[HEADER_BYTES + i]));
    for (std::uint64_t block = limit / 8 * 8; block < limit; ++block)
        count += Test(block) ? 1U : 0U;
    return count;
}

std::optional<BlockRun> ChangeMap::NextRun(std::uint64_t from, std::uint64_t limit) const noexcept
{
    limit = std::min(limit, Bits());
    std::uint64_t block = from;
    while (block < limit && !Test(block)) {
        // Whole clear bytes are the common case on a large volume.
        if (block % 8 == 0 && m_buffer[HEADER_BYTES + block / 8] == 0)
            block += 8;
        else
            ++block;
    }
    if (block >= limit)
        return std::nullopt;
    BlockRun run{block, block + 1};
    while (run.end < limit && Test(run.end))
        ++run.end;
    return run;
}

} // namespace vtbackup
