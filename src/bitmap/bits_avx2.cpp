// The work on bits with vectors of 32 bytes. Only functions marked VT_AVX2 may use them: the rest of the file, and
// every inline function that it shares with others, runs on any processor.
#include "bitmap/bits.h"

#include <bit>

#if defined(__x86_64__) || defined(_M_X64)

#include <immintrin.h>

#if defined(_MSC_VER) && !defined(__clang__)
#include <intrin.h>
#define VT_AVX2
#define VT_AVX2_INLINE __forceinline
#else
#define VT_AVX2 __attribute__((target("avx2,popcnt,bmi")))
#define VT_AVX2_INLINE __attribute__((target("avx2,popcnt,bmi"), always_inline)) inline
#endif

namespace vtflt {

namespace {

constexpr std::size_t VECTOR = sizeof(__m256i);
constexpr std::size_t PAGE = 4096;
// From here on the bytes do not fit the first cache, and the way from memory counts.
constexpr std::size_t LARGE = 128 * 1024;
constexpr int PAGES_AT_ONCE = 4;

VT_AVX2_INLINE __m256i Load(const std::uint8_t* from) noexcept
{
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
}

VT_AVX2_INLINE void Store(std::uint8_t* to, __m256i vector) noexcept
{
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), vector);
}

VT_AVX2_INLINE bool IsZero(__m256i vector) noexcept
{
    return _mm256_testz_si256(vector, vector) != 0;
}

VT_AVX2_INLINE void OrVector(std::uint8_t* to, const std::uint8_t* from) noexcept
{
    Store(to, _mm256_or_si256(Load(to), Load(from)));
}

VT_AVX2_INLINE void OrFourVectors(std::uint8_t* to, const std::uint8_t* from) noexcept
{
    const __m256i a = _mm256_or_si256(Load(to), Load(from));
    const __m256i b = _mm256_or_si256(Load(to + VECTOR), Load(from + VECTOR));
    const __m256i c = _mm256_or_si256(Load(to + 2 * VECTOR), Load(from + 2 * VECTOR));
    const __m256i d = _mm256_or_si256(Load(to + 3 * VECTOR), Load(from + 3 * VECTOR));
    Store(to, a);
    Store(to + VECTOR, b);
    Store(to + 2 * VECTOR, c);
    Store(to + 3 * VECTOR, d);
}

// Most of a large volume did not change: where nothing is to be added, the target is neither read nor written.
VT_AVX2_INLINE void OrFourVectorsUnlessClear(std::uint8_t* to, const std::uint8_t* from) noexcept
{
    const __m256i a = Load(from);
    const __m256i b = Load(from + VECTOR);
    const __m256i c = Load(from + 2 * VECTOR);
    const __m256i d = Load(from + 3 * VECTOR);
    if (IsZero(_mm256_or_si256(_mm256_or_si256(a, b), _mm256_or_si256(c, d))))
        return;
    Store(to, _mm256_or_si256(Load(to), a));
    Store(to + VECTOR, _mm256_or_si256(Load(to + VECTOR), b));
    Store(to + 2 * VECTOR, _mm256_or_si256(Load(to + 2 * VECTOR), c));
    Store(to + 3 * VECTOR, _mm256_or_si256(Load(to + 3 * VECTOR), d));
}

VT_AVX2 void OrAvx2(std::uint8_t* to, const std::uint8_t* from, std::size_t count) noexcept
{
    if (count < VECTOR) {
        PORTABLE_BIT_OPERATIONS.orBytes(to, from, count);
        return;
    }
    // What is ORed twice is ORed once: the first and the last vector may overlap the others, which start where writes
    // are aligned.
    OrVector(to, from);
    std::size_t i = VECTOR - reinterpret_cast<std::uintptr_t>(to) % VECTOR;
    // Several pages in turn keep more of the memory's channels busy than one after the other.
    if (count >= LARGE) {
        for (; i + PAGES_AT_ONCE * PAGE <= count; i += PAGES_AT_ONCE * PAGE) {
            for (std::size_t at = i; at < i + PAGE; at += 4 * VECTOR) {
                OrFourVectorsUnlessClear(to + at, from + at);
                OrFourVectorsUnlessClear(to + at + PAGE, from + at + PAGE);
                OrFourVectorsUnlessClear(to + at + 2 * PAGE, from + at + 2 * PAGE);
                OrFourVectorsUnlessClear(to + at + 3 * PAGE, from + at + 3 * PAGE);
            }
        }
    }
    for (; i + 4 * VECTOR <= count; i += 4 * VECTOR)
        OrFourVectors(to + i, from + i);
    for (; i + VECTOR <= count; i += VECTOR)
        OrVector(to + i, from + i);
    OrVector(to + count - VECTOR, from + count - VECTOR);
}

// Four sums of 64 bits of the set bits of each byte: the table holds those of each half of one.
VT_AVX2_INLINE __m256i CountVector(__m256i vector) noexcept
{
    const __m256i table = _mm256_setr_epi8(0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4, //
                                           0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4);
    const __m256i half = _mm256_set1_epi8(0x0F);
    const __m256i low = _mm256_and_si256(vector, half);
    const __m256i high = _mm256_and_si256(_mm256_srli_epi16(vector, 4), half);
    const __m256i ofBytes = _mm256_add_epi8(_mm256_shuffle_epi8(table, low), _mm256_shuffle_epi8(table, high));
    return _mm256_sad_epu8(ofBytes, _mm256_setzero_si256());
}

VT_AVX2_INLINE std::uint64_t SumOf(__m256i sums) noexcept
{
    std::uint64_t sum[VECTOR / sizeof(std::uint64_t)];
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(sum), sums);
    return sum[0] + sum[1] + sum[2] + sum[3];
}

// Adds two bits to one in each place of the vectors: the lower bit of the sum stays, the higher one is returned.
VT_AVX2_INLINE __m256i AddBits(__m256i& sum, __m256i a, __m256i b) noexcept
{
    const __m256i either = _mm256_xor_si256(a, b);
    const __m256i carry = _mm256_or_si256(_mm256_and_si256(a, b), _mm256_and_si256(either, sum));
    sum = _mm256_xor_si256(either, sum);
    return carry;
}

// How often a bit was set in each place: a number in binary, of which each vector holds one digit.
struct PlaceCounts {
    __m256i ones;
    __m256i twos;
    __m256i fours;
    __m256i eights;
};

// Each of these adds so many vectors and returns the carry into the digit that it is named for.
VT_AVX2_INLINE __m256i AddTwo(PlaceCounts& counts, const std::uint8_t* bits) noexcept
{
    return AddBits(counts.ones, Load(bits), Load(bits + VECTOR));
}

VT_AVX2_INLINE __m256i AddFour(PlaceCounts& counts, const std::uint8_t* bits) noexcept
{
    const __m256i first = AddTwo(counts, bits);
    return AddBits(counts.twos, first, AddTwo(counts, bits + 2 * VECTOR));
}

VT_AVX2_INLINE __m256i AddEight(PlaceCounts& counts, const std::uint8_t* bits) noexcept
{
    const __m256i first = AddFour(counts, bits);
    return AddBits(counts.fours, first, AddFour(counts, bits + 4 * VECTOR));
}

VT_AVX2_INLINE __m256i AddSixteen(PlaceCounts& counts, const std::uint8_t* bits) noexcept
{
    const __m256i first = AddEight(counts, bits);
    return AddBits(counts.eights, first, AddEight(counts, bits + 8 * VECTOR));
}

VT_AVX2 std::uint64_t CountAvx2(const std::uint8_t* bits, std::size_t count) noexcept
{
    // Looking up the bits of every vector costs more than adding them up place by place: only what is carried out of the
    // four digits, one vector in sixteen, is looked up.
    constexpr std::size_t GROUP = 16;
    const __m256i zero = _mm256_setzero_si256();
    PlaceCounts counts = {zero, zero, zero, zero};
    __m256i sixteens = zero;
    std::size_t i = 0;
    for (; i + GROUP * VECTOR <= count; i += GROUP * VECTOR)
        sixteens = _mm256_add_epi64(sixteens, CountVector(AddSixteen(counts, bits + i)));
    __m256i rest = zero;
    for (; i + VECTOR <= count; i += VECTOR)
        rest = _mm256_add_epi64(rest, CountVector(Load(bits + i)));
    return 16 * SumOf(sixteens) + 8 * SumOf(CountVector(counts.eights)) + 4 * SumOf(CountVector(counts.fours)) +
           2 * SumOf(CountVector(counts.twos)) + SumOf(CountVector(counts.ones)) + SumOf(rest) +
           PORTABLE_BIT_OPERATIONS.countSet(bits + i, count - i);
}

// A bit for each byte that is not what is wanted.
VT_AVX2_INLINE std::uint32_t OthersIn(const std::uint8_t* bytes, __m256i wanted) noexcept
{
    return ~static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(Load(bytes), wanted)));
}

VT_AVX2 std::size_t FindOtherByteAvx2(const std::uint8_t* bytes, std::size_t count, std::uint8_t than) noexcept
{
    const __m256i wanted = _mm256_set1_epi8(static_cast<char>(than));
    std::size_t i = 0;
    for (; i + 2 * VECTOR <= count; i += 2 * VECTOR) {
        const std::uint64_t others = OthersIn(bytes + i, wanted) | std::uint64_t{OthersIn(bytes + i + VECTOR, wanted)}
                                                                       << VECTOR;
        if (others != 0)
            return i + static_cast<std::size_t>(std::countr_zero(others));
    }
    return i + PORTABLE_BIT_OPERATIONS.findOtherByte(bytes + i, count - i, than);
}

constexpr BitOperations AVX2_BIT_OPERATIONS = {OrAvx2, CountAvx2, FindOtherByteAvx2};

} // namespace

const BitOperations& Avx2BitOperations() noexcept
{
    return AVX2_BIT_OPERATIONS;
}

bool ProcessorHasAvx2() noexcept
{
#if defined(_MSC_VER) && !defined(__clang__)
    int registers[4] = {};
    __cpuid(registers, 0);
    if (registers[0] < 7)
        return false;
    __cpuid(registers, 1);
    constexpr int SAVES_STATE_AND_AVX = 1 << 27 | 1 << 28;
    constexpr int AVX2 = 1 << 5;
    constexpr unsigned long long VECTOR_STATE = 6;
    // The system must save these registers, too, when it changes threads.
    if ((registers[2] & SAVES_STATE_AND_AVX) != SAVES_STATE_AND_AVX || (_xgetbv(0) & VECTOR_STATE) != VECTOR_STATE)
        return false;
    __cpuidex(registers, 7, 0);
    return (registers[1] & AVX2) != 0;
#else
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") != 0;
#endif
}

} // namespace vtflt

#else

namespace vtflt {

const BitOperations& Avx2BitOperations() noexcept
{
    return PORTABLE_BIT_OPERATIONS;
}

bool ProcessorHasAvx2() noexcept
{
    return false;
}

} // namespace vtflt

#endif
