// The bitmap of changed blocks as the library hands it over, with its 16 bytes of header.
#pragma once

#include "volume.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace vtbackup {

class ChangeMap {
public:
    static constexpr std::size_t HEADER_BYTES = 16;

    ChangeMap() = default;
    // All clear; length is a whole get-bitmap buffer's.
    explicit ChangeMap(std::size_t length) : m_buffer(length) {}

    [[nodiscard]] void* Data() noexcept { return m_buffer.data(); }
    [[nodiscard]] std::uint32_t Length() const noexcept { return static_cast<std::uint32_t>(m_buffer.size()); }
    // How many blocks the map can speak of.
    [[nodiscard]] std::uint64_t Bits() const noexcept
    {
        return m_buffer.size() < HEADER_BYTES ? 0 : (m_buffer.size() - HEADER_BYTES) * 8;
    }
    [[nodiscard]] bool Test(std::uint64_t block) const noexcept
    {
        return block < Bits() && (m_buffer[HEADER_BYTES + block / 8] & (0x80U >> (block % 8))) != 0;
    }
    void Set(std::uint64_t block) noexcept
    {
        if (block < Bits())
            m_buffer[HEADER_BYTES + block / 8] |= static_cast<unsigned char>(0x80U >> (block % 8));
    }
    void ClearHeader() noexcept;
    // Sets the other map's bits, those for which there is room. Whether that was all of them.
    bool Add(const ChangeMap& other) noexcept;

    [[nodiscard]] std::uint64_t CountBelow(std::uint64_t blocks) const noexcept;
    // The next run of set bits at or behind a block, and below a limit.
    [[nodiscard]] std::optional<BlockRun> NextRun(std::uint64_t from, std::uint64_t limit) const noexcept;

private:
    std::vector<unsigned char> m_buffer;
};

} // namespace vtbackup
