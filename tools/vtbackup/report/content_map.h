// Which blocks of a volume hold something else than zeros, one bit a block. Memory grows with the blocks that were
// entered, whatever their numbers are.
#pragma once

#include <array>
#include <cstdint>
#include <unordered_map>

namespace vtbackup {

class ContentMap {
public:
    void Set(std::uint64_t block, bool holdsData);
    // Forgets the blocks from this one on.
    void Truncate(std::uint64_t blocks);
    void Clear() noexcept;

    [[nodiscard]] bool Test(std::uint64_t block) const;
    [[nodiscard]] std::uint64_t Count() const noexcept { return m_count; }

private:
    static constexpr std::uint64_t PAGE_WORDS = 64;
    static constexpr std::uint64_t PAGE_BLOCKS = PAGE_WORDS * 64;
    using Page = std::array<std::uint64_t, PAGE_WORDS>;

    std::unordered_map<std::uint64_t, Page> m_pages;
    std::uint64_t m_count = 0;
};

} // namespace vtbackup
