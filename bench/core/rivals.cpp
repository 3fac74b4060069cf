#include "rivals.h"

#include <bit>
#include <cstring>
#include <immintrin.h>

#define AVX2 __attribute__((target("avx2,popcnt,bmi,lzcnt")))
#define AVX2_INLINE __attribute__((target("avx2,popcnt,bmi,lzcnt"), always_inline)) inline

namespace bench {

namespace {

AVX2_INLINE __m256i Load(const std::uint8_t* from)
{
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
}

AVX2_INLINE void Store(std::uint8_t* to, __m256i vector)
{
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), vector);
}

AVX2_INLINE std::uint64_t BigEndianWord(const std::uint8_t* from)
{
    std::uint64_t word = 0;
    std::memcpy(&word, from, sizeof(word));
    return __builtin_bswap64(word);
}

// Four sums of 64 bits: the set bits of a vector, by a table of those of half a byte.
AVX2_INLINE __m256i CountVector(__m256i vector)
{
    const __m256i table = _mm256_setr_epi8(0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4, //
                                           0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4);
    const __m256i half = _mm256_set1_epi8(0x0F);
    const __m256i low = _mm256_shuffle_epi8(table, _mm256_and_si256(vector, half));
    const __m256i high = _mm256_shuffle_epi8(table, _mm256_and_si256(_mm256_srli_epi16(vector, 4), half));
    return _mm256_sad_epu8(_mm256_add_epi8(low, high), _mm256_setzero_si256());
}

AVX2_INLINE std::uint64_t SumOf(__m256i sums)
{
    std::uint64_t sum[4];
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(sum), sums);
    return sum[0] + sum[1] + sum[2] + sum[3];
}

// Adds two bits to one in each place: the sum stays, the carry is returned.
AVX2_INLINE __m256i AddBits(__m256i& sum, __m256i a, __m256i b)
{
    const __m256i either = _mm256_xor_si256(sum, a);
    const __m256i carry = _mm256_or_si256(_mm256_and_si256(sum, a), _mm256_and_si256(either, b));
    sum = _mm256_xor_si256(either, b);
    return carry;
}

} // namespace

// As a compiler leaves it that may not assume anything: byte for byte.
__attribute__((optimize("no-tree-vectorize"))) void OrByteLoop(std::uint8_t* to, const std::uint8_t* from,
                                                               std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        to[i] |= from[i];
}

AVX2 void OrAvx2(std::uint8_t* to, const std::uint8_t* from, std::size_t count)
{
    std::size_t i = 0;
    for (; i + 32 <= count; i += 32)
        Store(to + i, _mm256_or_si256(Load(to + i), Load(from + i)));
    for (; i < count; ++i)
        to[i] |= from[i];
}

AVX2 void OrAvx2Unrolled(std::uint8_t* to, const std::uint8_t* from, std::size_t count)
{
    std::size_t i = 0;
    for (; i + 128 <= count; i += 128) {
        const __m256i a = _mm256_or_si256(Load(to + i), Load(from + i));
        const __m256i b = _mm256_or_si256(Load(to + i + 32), Load(from + i + 32));
        const __m256i c = _mm256_or_si256(Load(to + i + 64), Load(from + i + 64));
        const __m256i d = _mm256_or_si256(Load(to + i + 96), Load(from + i + 96));
        Store(to + i, a);
        Store(to + i + 32, b);
        Store(to + i + 64, c);
        Store(to + i + 96, d);
    }
    for (; i < count; ++i)
        to[i] |= from[i];
}

AVX2 void OrAvx2Aligned(std::uint8_t* to, const std::uint8_t* from, std::size_t count)
{
    std::size_t i = 0;
    for (; i < count && reinterpret_cast<std::uintptr_t>(to + i) % 32 != 0; ++i)
        to[i] |= from[i];
    OrAvx2Unrolled(to + i, from + i, count - i);
}

AVX2 void CopyAvx2(std::uint8_t* to, const std::uint8_t* from, std::size_t count)
{
    std::size_t i = 0;
    for (; i + 128 <= count; i += 128) {
        const __m256i a = Load(from + i);
        const __m256i b = Load(from + i + 32);
        const __m256i c = Load(from + i + 64);
        const __m256i d = Load(from + i + 96);
        Store(to + i, a);
        Store(to + i + 32, b);
        Store(to + i + 64, c);
        Store(to + i + 96, d);
    }
    for (; i < count; ++i)
        to[i] = from[i];
}

AVX2 void ClearAvx2(std::uint8_t* to, std::size_t count)
{
    const __m256i zero = _mm256_setzero_si256();
    std::size_t i = 0;
    for (; i + 128 <= count; i += 128) {
        Store(to + i, zero);
        Store(to + i + 32, zero);
        Store(to + i + 64, zero);
        Store(to + i + 96, zero);
    }
    for (; i < count; ++i)
        to[i] = 0;
}

AVX2 std::uint64_t CountPopcnt(const std::uint8_t* bits, std::size_t count)
{
    std::uint64_t sums[4] = {};
    std::size_t i = 0;
    for (; i + 32 <= count; i += 32) {
        std::uint64_t words[4];
        std::memcpy(words, bits + i, sizeof(words));
        sums[0] += static_cast<std::uint64_t>(std::popcount(words[0]));
        sums[1] += static_cast<std::uint64_t>(std::popcount(words[1]));
        sums[2] += static_cast<std::uint64_t>(std::popcount(words[2]));
        sums[3] += static_cast<std::uint64_t>(std::popcount(words[3]));
    }
    for (; i < count; ++i)
        sums[0] += static_cast<std::uint64_t>(std::popcount(bits[i]));
    return sums[0] + sums[1] + sums[2] + sums[3];
}

AVX2 std::uint64_t CountAvx2(const std::uint8_t* bits, std::size_t count)
{
    __m256i sums = _mm256_setzero_si256();
    std::size_t i = 0;
    for (; i + 32 <= count; i += 32)
        sums = _mm256_add_epi64(sums, CountVector(Load(bits + i)));
    std::uint64_t sum = SumOf(sums);
    for (; i < count; ++i)
        sum += static_cast<std::uint64_t>(std::popcount(bits[i]));
    return sum;
}

AVX2 std::uint64_t CountAvx2CarrySave(const std::uint8_t* bits, std::size_t count)
{
    __m256i sixteens = _mm256_setzero_si256();
    __m256i ones = sixteens;
    __m256i twos = sixteens;
    __m256i fours = sixteens;
    __m256i eights = sixteens;
    std::size_t i = 0;
    for (; i + 512 <= count; i += 512) {
        __m256i ofEights[2];
#pragma GCC unroll 2
        for (std::size_t half = 0; half < 2; ++half) {
            __m256i ofFours[2];
#pragma GCC unroll 2
            for (std::size_t quarter = 0; quarter < 2; ++quarter) {
                const std::uint8_t* const four = bits + i + half * 256 + quarter * 128;
                const __m256i a = AddBits(ones, Load(four), Load(four + 32));
                const __m256i b = AddBits(ones, Load(four + 64), Load(four + 96));
                ofFours[quarter] = AddBits(twos, a, b);
            }
            ofEights[half] = AddBits(fours, ofFours[0], ofFours[1]);
        }
        sixteens = _mm256_add_epi64(sixteens, CountVector(AddBits(eights, ofEights[0], ofEights[1])));
    }
    const std::uint64_t left = SumOf(CountVector(ones)) + 2 * SumOf(CountVector(twos)) + 4 * SumOf(CountVector(fours)) +
                               8 * SumOf(CountVector(eights));
    return 16 * SumOf(sixteens) + left + CountAvx2(bits + i, count - i);
}

AVX2 std::uint64_t WalkAvx2(const std::uint8_t* bits, std::size_t count)
{
    const __m256i zero = _mm256_setzero_si256();
    const __m256i ones = _mm256_cmpeq_epi8(zero, zero);
    std::uint64_t sum = 0;
    bool inRun = false;
    for (std::size_t i = 0; i + 32 <= count; i += 32) {
        const __m256i vector = Load(bits + i);
        const __m256i same = _mm256_cmpeq_epi8(vector, inRun ? ones : zero);
        if (_mm256_movemask_epi8(same) == -1)
            continue;
        for (std::size_t k = 0; k < 4; ++k) {
            std::uint64_t word = BigEndianWord(bits + i + k * 8);
            const std::uint64_t base = (i + k * 8) * 8;
            std::uint64_t done = 0;
            while (done < 64) {
                const std::uint64_t wanted = (inRun ? ~word : word) << done;
                if (wanted == 0)
                    break;
                done += static_cast<std::uint64_t>(std::countl_zero(wanted));
                sum += base + done;
                inRun = !inRun;
            }
        }
    }
    return inRun ? sum + count * 8 : sum;
}

} // namespace bench
