#include "buffers.h"

#include <cstring>
#include <new>

namespace bench {

namespace {

constexpr std::size_t PAGE = 4096;

// xorshift64*: fast enough for a gibibyte.
class Random {
public:
    explicit Random(std::uint64_t seed) : m_state(seed * 2 + 1) {}
    std::uint64_t Next() noexcept
    {
        m_state ^= m_state >> 12;
        m_state ^= m_state << 25;
        m_state ^= m_state >> 27;
        return m_state * 0x2545F4914F6CDD1DU;
    }

private:
    std::uint64_t m_state;
};

} // namespace

const char* NameOf(Fill fill)
{
    switch (fill) {
    case Fill::Clear:
        return "clear";
    case Fill::Sparse:
        return "sparse";
    case Fill::Dense:
        return "dense";
    case Fill::Set:
        return "set";
    }
    return "";
}

Buffer::Buffer(std::size_t count, std::size_t offset, Fill fill, std::uint64_t seed) : m_offset(offset), m_count(count)
{
    const std::size_t room = (offset + count + 2 * PAGE - 1) / PAGE * PAGE;
    m_memory.reset(static_cast<std::uint8_t*>(std::aligned_alloc(PAGE, room)));
    if (m_memory == nullptr)
        throw std::bad_alloc();
    std::memset(m_memory.get(), fill == Fill::Set ? 0xFF : 0, room);
    Random random(seed);
    if (fill == Fill::Dense) {
        for (std::size_t i = 0; i + sizeof(std::uint64_t) <= count; i += sizeof(std::uint64_t)) {
            const std::uint64_t word = random.Next();
            std::memcpy(data() + i, &word, sizeof(word));
        }
    }
    if (fill == Fill::Sparse) {
        for (std::size_t i = 0; i < count; i += 512) {
            const std::uint64_t at = i + random.Next() % 512;
            if (at < count)
                data()[at] = static_cast<std::uint8_t>(0x80U >> random.Next() % 8);
        }
    }
}

} // namespace bench
