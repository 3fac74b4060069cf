// core_bench: the work on bits, beside what others can do on the same bytes. Every group is run in turns
// (--benchmark_enable_random_interleaving), so that all of it sees the same machine.
#include "bitmap/bits.h"
#include "buffers.h"
#include "rivals.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <map>
#include <roaring/roaring.h>
#include <string>
#include <tuple>

namespace {

using bench::Buffer;
using bench::Fill;

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = 1024 * KIB;
// The fits of the caches; the bitmaps of volumes of 1 and 64 TiB at blocks of 64 KiB; and one beyond everything.
constexpr std::size_t SIZES[] = {32 * KIB, 64 * KIB, 2 * MIB, 4 * MIB, 128 * MIB, 1024 * MIB};
// A record's bitmap begins at byte 84, the get-bitmap buffer's at the buffer's start.
struct Offsets {
    std::size_t to;
    std::size_t from;
};
constexpr Offsets OFFSETS[] = {{0, 0}, {84, 0}, {84, 17}};

// Filling a large one takes longer than working on it, so each is made once.
Buffer& Prepared(std::size_t size, std::size_t offset, Fill fill, std::uint64_t seed)
{
    static std::map<std::tuple<std::size_t, std::size_t, Fill, std::uint64_t>, Buffer> buffers;
    const auto key = std::make_tuple(size, offset, fill, seed);
    const auto known = buffers.find(key);
    return known != buffers.end() ? known->second
                                  : buffers.emplace(key, Buffer(size, offset, fill, seed)).first->second;
}

using Or = void (*)(std::uint8_t* to, const std::uint8_t* from, std::size_t count);

void CopyBytes(std::uint8_t* to, const std::uint8_t* from, std::size_t count)
{
    std::memcpy(to, from, count);
}

void RunOr(benchmark::State& state, Or work, std::size_t size, Offsets offsets, Fill fill)
{
    Buffer& to = Prepared(size, offsets.to, Fill::Sparse, 1);
    const Buffer& from = Prepared(size, offsets.from, fill, 2);
    for (auto _ : state) {
        work(to.data(), from.data(), size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
}

// The same bits as a set of 32-bit numbers: at this density all of its containers are bitsets.
roaring_bitmap_t* PreparedSet(std::size_t size, std::uint64_t seed)
{
    static std::map<std::pair<std::size_t, std::uint64_t>, roaring_bitmap_t*> sets;
    roaring_bitmap_t*& set = sets[{size, seed}];
    if (set != nullptr)
        return set;
    set = roaring_bitmap_create();
    const std::uint8_t* const bits = Prepared(size, 0, Fill::Dense, seed).data();
    std::uint32_t numbers[64];
    for (std::size_t i = 0; i < size; i += 8) {
        std::size_t count = 0;
        for (std::size_t bit = 0; bit < 64; ++bit) {
            if ((bits[i + bit / 8] & 0x80 >> bit % 8) != 0)
                numbers[count++] = static_cast<std::uint32_t>(i * 8 + bit);
        }
        roaring_bitmap_add_many(set, count, numbers);
    }
    return set;
}

void RunRoaring(benchmark::State& state, std::size_t size)
{
    roaring_bitmap_t* const to = PreparedSet(size, 4);
    const roaring_bitmap_t* const from = PreparedSet(size, 2);
    for (auto _ : state) {
        roaring_bitmap_or_inplace(to, from);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
}

std::uint64_t WalkLibrary(const std::uint8_t* bits, std::size_t count)
{
    const std::uint64_t end = count * 8;
    vtflt::BitCursor cursor(bits, 0, end);
    std::uint64_t sum = 0;
    for (std::uint64_t at = cursor.FindSet(); at != end; at = cursor.FindSet())
        sum += at + cursor.FindClear();
    return sum;
}

using Sum = std::uint64_t (*)(const std::uint8_t* bits, std::size_t count);

void RunSum(benchmark::State& state, Sum work, std::size_t size, std::size_t offset, Fill fill)
{
    const Buffer& bits = Prepared(size, offset, fill, 3);
    for (auto _ : state)
        benchmark::DoNotOptimize(work(bits.data(), size));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
}

void ClearBytes(std::uint8_t* to, std::size_t count)
{
    std::memset(to, 0, count);
}

void RunClear(benchmark::State& state, void (*work)(std::uint8_t* to, std::size_t count), std::size_t size)
{
    Buffer& to = Prepared(size, 84, Fill::Sparse, 1);
    for (auto _ : state) {
        work(to.data(), size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
}

// work/size in KiB/what is measured/who
std::string Name(const char* work, std::size_t size, const std::string& what, const char* who)
{
    return std::string(work) + "/" + std::to_string(size / KIB) + "/" + what + "/" + who;
}

void AddOr(std::size_t size)
{
    struct Way {
        const char* who;
        Or work;
    };
    const Way ways[] = {{"library", vtflt::OrBits},       {"portable", vtflt::PORTABLE_BIT_OPERATIONS.orBytes},
                        {"avx2", bench::OrAvx2},          {"avx2-unrolled", bench::OrAvx2Unrolled},
                        {"byte-loop", bench::OrByteLoop}, {"memcpy", CopyBytes}};
    for (const Offsets offsets : OFFSETS) {
        for (const Fill fill : {Fill::Dense, Fill::Sparse, Fill::Clear}) {
            // The largest takes a second to fill, each time: the least favourable offsets only.
            if (size > 128 * MIB && offsets.from == 0)
                continue;
            const std::string what =
                std::to_string(offsets.to) + "+" + std::to_string(offsets.from) + "-" + bench::NameOf(fill);
            for (const Way& way : ways)
                benchmark::RegisterBenchmark(Name("or", size, what, way.who).c_str(), RunOr, way.work, size, offsets,
                                             fill);
        }
    }
    // Its numbers have 32 bits, and building a set bit by bit takes its time.
    if (size <= 128 * MIB)
        benchmark::RegisterBenchmark(Name("or", size, "0+0-dense", "roaring").c_str(), RunRoaring, size);
}

void AddOthers(std::size_t size)
{
    for (const Fill fill : {Fill::Clear, Fill::Sparse, Fill::Dense, Fill::Set}) {
        const std::string what = bench::NameOf(fill);
        benchmark::RegisterBenchmark(Name("walk", size, what, "library").c_str(), RunSum, WalkLibrary, size, 84U, fill);
        benchmark::RegisterBenchmark(Name("walk", size, what, "avx2").c_str(), RunSum, bench::WalkAvx2, size, 84U,
                                     fill);
    }
    benchmark::RegisterBenchmark(Name("count", size, "dense", "library").c_str(), RunSum, vtflt::CountSetBits, size,
                                 84U, Fill::Dense);
    benchmark::RegisterBenchmark(Name("count", size, "dense", "portable").c_str(), RunSum,
                                 vtflt::PORTABLE_BIT_OPERATIONS.countSet, size, 84U, Fill::Dense);
    benchmark::RegisterBenchmark(Name("count", size, "dense", "popcnt").c_str(), RunSum, bench::CountPopcnt, size, 84U,
                                 Fill::Dense);
    benchmark::RegisterBenchmark(Name("clear", size, "84", "library").c_str(), RunClear, ClearBytes, size);
    benchmark::RegisterBenchmark(Name("clear", size, "84", "avx2").c_str(), RunClear, bench::ClearAvx2, size);
}

// The rivals are held to the same answers before anybody is measured.
bool RivalsAreRight()
{
    for (const Fill fill : {Fill::Clear, Fill::Sparse, Fill::Dense, Fill::Set}) {
        const Buffer bits(256 * KIB, 84, fill, 3);
        if (WalkLibrary(bits.data(), bits.size()) != bench::WalkAvx2(bits.data(), bits.size()) ||
            vtflt::CountSetBits(bits.data(), bits.size()) != bench::CountPopcnt(bits.data(), bits.size()))
            return false;
        for (const Or rival : {bench::OrAvx2, bench::OrAvx2Unrolled, bench::OrByteLoop}) {
            Buffer one(256 * KIB, 84, Fill::Dense, 4);
            Buffer other(256 * KIB, 84, Fill::Dense, 4);
            vtflt::OrBits(one.data(), bits.data(), one.size());
            rival(other.data(), bits.data(), other.size());
            if (std::memcmp(one.data(), other.data(), one.size()) != 0)
                return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (!vtflt::ProcessorHasAvx2()) {
        std::fputs("core_bench: this processor has no AVX2, against which is measured\n", stderr);
        return 1;
    }
    if (!RivalsAreRight()) {
        std::fputs("core_bench: those compared do not agree\n", stderr);
        return 1;
    }
    for (const std::size_t size : SIZES) {
        AddOr(size);
        AddOthers(size);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
