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
    Dense,  // every other bit at random
    Set,    // everything changed
};
const char* NameOf(Fill fill);

// Count bytes that begin so many bytes behind the start of a page; touched, so that every page is there.
class Buffer {
public:
    Buffer(std::size_t count, std::size_t offset, Fill fill, std::uint64_t seed);

    [[nodiscard]] std::uint8_t* data() noexcept { return m_memory.get() + m_offset; }
    [[nodiscard]] const std::uint8_t* data() const noexcept { return m_memory.get() + m_offset; }
    [[nodiscard]] std::size_t size() const noexcept { return m_count; }

private:
    struct Free {
        void operator()(std::uint8_t* bytes) const noexcept { std::free(bytes); }
    };
    std::unique_ptr<std::uint8_t, Free> m_memory;
    std::size_t m_offset;
    std::size_t m_count;
};

} // namespace bench
