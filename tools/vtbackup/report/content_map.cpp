#include "report/content_map.h"

#include <bit>
#include <iterator>

namespace vtbackup {

void ContentMap::Set(std::uint64_t block, bool holdsData)
{
    const std::uint64_t bit = std::uint64_t{1} << block % 64;
    const auto found = m_pages.find(block / PAGE_BLOCKS);
    if (found == m_pages.end() && !holdsData)
        return;
    Page& page = found != m_pages.end() ? found->second : m_pages[block / PAGE_BLOCKS];
    std::uint64_t& word = page[block % PAGE_BLOCKS / 64];
    const bool held = (word & bit) != 0;
    if (held == holdsData)
        return;
    word ^= bit;
    if (holdsData)
        ++m_count;
    else
        --m_count;
}

void ContentMap::Truncate(std::uint64_t blocks)
{
    for (auto entry = m_pages.begin(); entry != m_pages.end();) {
        const std::uint64_t first = entry->first * PAGE_BLOCKS;
        if (first + PAGE_BLOCKS <= blocks) {
            ++entry;
            continue;
        }
        for (std::uint64_t i = 0; i < PAGE_WORDS; ++i) {
            std::uint64_t& word = entry->second[i];
            const std::uint64_t wordFirst = first + i * 64;
            const std::uint64_t kept = blocks <= wordFirst        ? 0
                                       : blocks - wordFirst >= 64 ? ~std::uint64_t{0}
                                                                  : (std::uint64_t{1} << (blocks - wordFirst)) - 1;
            m_count -= static_cast<std::uint64_t>(std::popcount(word & ~kept));
            word &= kept;
        }
        entry = first >= blocks ? m_pages.erase(entry) : std::next(entry);
    }
}

void ContentMap::Clear() noexcept
{
    m_pages.clear();
    m_count = 0;
}

bool ContentMap::Test(std::uint64_t block) const
{
    const auto found = m_pages.find(block / PAGE_BLOCKS);
    return found != m_pages.end() && (found->second[block % PAGE_BLOCKS / 64] >> block % 64 & 1) != 0;
}

} // namespace vtbackup
