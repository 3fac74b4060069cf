// The bytes that are measured: the same for everybody who is compared.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace bench {

enum class Fill {
    Clear,  // nothing changed
    Sparse, // one block in 4096, as behind a quiet day
    Dense,  // half of all blocks, at random
    Set,    // everything changed
};
const char* NameOf(Fill fill);

// Count bytes with room for any offset below OFFSETS before them: what begins At(n) begins n bytes behind the start of a
// page. Touched, so that every page is there.
class Buffer {
public:
    static constexpr std::size_t OFFSETS = 4096;

    Buffer(std::size_t count, Fill fill, std::uint64_t seed);

    [[nodiscard]] std::uint8_t* At(std::size_t offset) noexcept { return m_memory.get() + offset; }
    [[nodiscard]] const std::uint8_t* At(std::size_t offset) const noexcept { return m_memory.get() + offset; }
    [[nodiscard]] std::size_t size() const noexcept { return m_count; }

private:
    struct Free {
        void operator()(std::uint8_t* bytes) const noexcept;
    };
    std::unique_ptr<std::uint8_t, Free> m_memory;
    std::size_t m_count;
};

} // namespace bench
