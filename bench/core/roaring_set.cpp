#include "roaring_set.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>

namespace bench {

namespace {

constexpr std::size_t CONTAINER_BYTES = 8192;
constexpr std::size_t CONTAINERS_OF_SET = 65536;
constexpr std::uint32_t COOKIE_WITHOUT_RUNS = 12346;

template <class Number>
void Append(std::vector<char>& image, Number number)
{
    const std::size_t at = image.size();
    image.resize(at + sizeof(number));
    std::memcpy(image.data() + at, &number, sizeof(number));
}

std::uint64_t CountIn(const std::uint8_t* bits)
{
    std::uint64_t count = 0;
    for (std::size_t i = 0; i < CONTAINER_BYTES; i += sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, bits + i, sizeof(word));
        count += static_cast<std::uint64_t>(std::popcount(word));
    }
    return count;
}

// The portable image: adding a thousand million numbers one by one would take minutes.
std::vector<char> ImageOf(const std::uint8_t* bits, std::size_t containers)
{
    std::vector<char> image;
    image.reserve(8 + containers * (8 + CONTAINER_BYTES));
    Append(image, COOKIE_WITHOUT_RUNS);
    Append(image, static_cast<std::uint32_t>(containers));
    for (std::size_t i = 0; i < containers; ++i) {
        const std::uint64_t count = CountIn(bits + i * CONTAINER_BYTES);
        if (count <= 4096)
            throw std::runtime_error("a container that is no bitset");
        Append(image, static_cast<std::uint16_t>(i));
        Append(image, static_cast<std::uint16_t>(count - 1));
    }
    const std::size_t first = image.size() + containers * sizeof(std::uint32_t);
    for (std::size_t i = 0; i < containers; ++i)
        Append(image, static_cast<std::uint32_t>(first + i * CONTAINER_BYTES));
    image.insert(image.end(), bits, bits + containers * CONTAINER_BYTES);
    return image;
}

void RequireBitsets(const roaring_array_t& containers)
{
    for (std::int32_t i = 0; i < containers.size; ++i) {
        if (containers.typecodes[i] != BITSET_CONTAINER_TYPE_CODE)
            throw std::runtime_error("a container that is no bitset");
    }
}

bitset_container_t* BitsetAt(const roaring_array_t& containers, std::int32_t index)
{
    return static_cast<bitset_container_t*>(containers.containers[index]);
}

} // namespace

RoaringSets::RoaringSets(const std::uint8_t* bits, std::size_t count)
{
    for (std::size_t at = 0; at < count;) {
        const std::size_t containers = std::min((count - at) / CONTAINER_BYTES, CONTAINERS_OF_SET);
        const std::vector<char> image = ImageOf(bits + at, containers);
        m_sets.emplace_back(roaring_bitmap_portable_deserialize_safe(image.data(), image.size()));
        if (m_sets.back() == nullptr)
            throw std::runtime_error("no set from its image");
        RequireBitsets(m_sets.back()->high_low_container);
        at += containers * CONTAINER_BYTES;
    }
}

void RoaringSets::Or(const RoaringSets& other)
{
    for (std::size_t i = 0; i < m_sets.size(); ++i)
        roaring_bitmap_or_inplace(m_sets[i].get(), other.m_sets[i].get());
}

// Both have the same keys: every container is there. The set's own lazy union counts in this build, too.
void RoaringSets::OrWithoutCounts(const RoaringSets& other)
{
    for (std::size_t i = 0; i < m_sets.size(); ++i) {
        const roaring_array_t& to = m_sets[i]->high_low_container;
        const roaring_array_t& from = other.m_sets[i]->high_low_container;
        for (std::int32_t k = 0; k < to.size; ++k)
            bitset_container_or_nocard(BitsetAt(to, k), BitsetAt(from, k), BitsetAt(to, k));
    }
}

void RoaringSets::Count()
{
    for (const auto& set : m_sets)
        roaring_bitmap_repair_after_lazy(set.get());
}

std::uint64_t RoaringSets::CountBits() const
{
    std::uint64_t count = 0;
    for (const auto& set : m_sets) {
        const roaring_array_t& containers = set->high_low_container;
        for (std::int32_t i = 0; i < containers.size; ++i)
            count += static_cast<std::uint64_t>(bitset_container_compute_cardinality(BitsetAt(containers, i)));
    }
    return count;
}

std::uint64_t RoaringSets::Cardinality() const
{
    std::uint64_t count = 0;
    for (const auto& set : m_sets)
        count += roaring_bitmap_get_cardinality(set.get());
    return count;
}

} // namespace bench
