#include "buffers.h"

#include <cstring>
#include <new>
#if defined(_WIN32)
#include <malloc.h>
#endif

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

void Buffer::Free::operator()(std::uint8_t* bytes) const noexcept
{
#if defined(_WIN32)
    _aligned_free(bytes);
#else
    std::free(bytes);
#endif
}

// The pattern is all over the room, so that any part of it has as many bits set.
Buffer::Buffer(std::size_t count, Fill fill, std::uint64_t seed) : m_count(count)
{
    const std::size_t room = (count + OFFSETS + PAGE - 1) / PAGE * PAGE;
#if defined(_WIN32)
    m_memory.reset(static_cast<std::uint8_t*>(_aligned_malloc(room, PAGE)));
#else
    m_memory.reset(static_cast<std::uint8_t*>(std::aligned_alloc(PAGE, room)));
#endif
    if (m_memory == nullptr)
        throw std::bad_alloc();
    std::uint8_t* const bytes = m_memory.get();
    std::memset(bytes, fill == Fill::Set ? 0xFF : 0, room);
    Random random(seed);
    if (fill == Fill::Dense) {
        for (std::size_t i = 0; i < room; i += sizeof(std::uint64_t)) {
            const std::uint64_t word = random.Next();
            std::memcpy(bytes + i, &word, sizeof(word));
        }
    }
    if (fill == Fill::Sparse) {
        for (std::size_t i = 0; i < room; i += 512)
            bytes[i + random.Next() % 512] = static_cast<std::uint8_t>(0x80U >> random.Next() % 8);
    }
}

} // namespace bench
