// core_bench [--quick]: the work on bits, beside what others can do on the same bytes. Every group is run in turns
// (--benchmark_enable_random_interleaving), so that all of it sees the same machine.
//
// How the DLL clears and copies depends on the C run-time that it is linked with: that is measured with the DLL's own
// objects, under Wine (whole/parts_main.cpp).
#include "bitmap/bits.h"
#include "buffers.h"
#include "rivals.h"
#include "roaring_set.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <tuple>

namespace {

using bench::Buffer;
using bench::Fill;
using bench::RoaringSets;

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = 1024 * KIB;
// The fits of the caches; the bitmaps of volumes of 1 and 64 TiB at blocks of 64 KiB; and one beyond everything.
constexpr std::size_t SIZES[] = {32 * KIB, 64 * KIB, 2 * MIB, 4 * MIB, 128 * MIB, 1024 * MIB};
constexpr std::size_t QUICK_SIZES[] = {32 * KIB};
// A record's bitmap begins at byte 84, the driver's in the caller's buffer anywhere; and odd ones.
struct Offsets {
    std::size_t to;
    std::size_t from;
};
constexpr Offsets OFFSETS[] = {{0, 0}, {84, 0}, {84, 17}, {1, 0}, {85, 17}};

// Filling a large one takes longer than working on it, so each is made once.
Buffer& Prepared(std::size_t size, Fill fill, std::uint64_t seed)
{
    static std::map<std::tuple<std::size_t, Fill, std::uint64_t>, Buffer> buffers;
    const auto key = std::make_tuple(size, fill, seed);
    const auto known = buffers.find(key);
    return known != buffers.end() ? known->second : buffers.emplace(key, Buffer(size, fill, seed)).first->second;
}

constexpr std::uint64_t TARGET_SEED = 1;
constexpr std::uint64_t SOURCE_SEED = 2;

void SetBytes(benchmark::State& state, std::size_t size)
{
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
}

using Or = void (*)(std::uint8_t* to, const std::uint8_t* from, std::size_t count);

void CopyBytes(std::uint8_t* to, const std::uint8_t* from, std::size_t count)
{
    std::memcpy(to, from, count);
}

void RunOr(benchmark::State& state, Or work, std::size_t size, Offsets offsets, Fill fill)
{
    std::uint8_t* const to = Prepared(size, Fill::Sparse, TARGET_SEED).At(offsets.to);
    const std::uint8_t* const from = Prepared(size, fill, SOURCE_SEED).At(offsets.from);
    for (auto _ : state) {
        work(to, from, size);
        benchmark::ClobberMemory();
    }
    SetBytes(state, size);
}

RoaringSets& PreparedSets(std::size_t size, std::uint64_t seed)
{
    static std::map<std::pair<std::size_t, std::uint64_t>, RoaringSets> sets;
    const auto known = sets.find({size, seed});
    if (known != sets.end())
        return known->second;
    const Buffer bits(size, Fill::Dense, seed);
    return sets.emplace(std::make_pair(size, seed), RoaringSets(bits.At(0), size)).first->second;
}

void RunRoaring(benchmark::State& state, void (RoaringSets::*work)(const RoaringSets&), std::size_t size)
{
    RoaringSets& to = PreparedSets(size, TARGET_SEED);
    const RoaringSets& from = PreparedSets(size, SOURCE_SEED);
    for (auto _ : state) {
        (to.*work)(from);
        benchmark::ClobberMemory();
    }
    SetBytes(state, size);
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
    const std::uint8_t* const bits = Prepared(size, fill, SOURCE_SEED).At(offset);
    for (auto _ : state)
        benchmark::DoNotOptimize(work(bits, size));
    SetBytes(state, size);
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
    const Way always[] = {{"library", vtflt::OrBits},
                          {"avx2", bench::OrAvx2},
                          {"avx2-unrolled", bench::OrAvx2Unrolled},
                          {"avx2-aligned", bench::OrAvx2Aligned},
                          {"memcpy", CopyBytes}};
    const Way slow[] = {{"portable", vtflt::PORTABLE_BIT_OPERATIONS.orBytes}, {"byte-loop", bench::OrByteLoop}};
    for (const Offsets offsets : OFFSETS) {
        for (const Fill fill : {Fill::Dense, Fill::Sparse, Fill::Clear}) {
            const bool ofARecord = offsets.to == 84 && offsets.from == 0;
            const bool aligned = offsets.to == 0;
            if (fill != Fill::Dense && !ofARecord && !aligned)
                continue;
            const std::string what =
                std::to_string(offsets.to) + "+" + std::to_string(offsets.from) + "-" + bench::NameOf(fill);
            const auto add = [&](const Way& way) {
                benchmark::RegisterBenchmark(Name("or", size, what, way.who).c_str(), RunOr, way.work, size, offsets,
                                             fill);
            };
            for (const Way& way : always)
                add(way);
            for (const Way& way : slow) {
                if (fill == Fill::Dense && (aligned || ofARecord))
                    add(way);
            }
        }
    }
    benchmark::RegisterBenchmark(Name("or", size, "0+0-dense", "roaring").c_str(), RunRoaring, &RoaringSets::Or, size);
    benchmark::RegisterBenchmark(Name("or", size, "0+0-dense", "roaring-lazy").c_str(), RunRoaring,
                                 &RoaringSets::OrLazily, size);
    benchmark::RegisterBenchmark(Name("or", size, "0+0-dense", "roaring-no-count").c_str(), RunRoaring,
                                 &RoaringSets::OrWithoutCounts, size);
}

void AddSum(const std::string& name, Sum work, std::size_t size, Fill fill)
{
    auto* const added = benchmark::RegisterBenchmark(name.c_str(), RunSum, work, size, std::size_t{84}, fill);
    // A walk over runs of one or two blocks in the largest takes ten seconds.
    if (size > 128 * MIB && fill == Fill::Dense)
        added->Repetitions(3);
}

void AddOthers(std::size_t size)
{
    for (const Fill fill : {Fill::Clear, Fill::Sparse, Fill::Dense, Fill::Set}) {
        AddSum(Name("walk", size, bench::NameOf(fill), "library"), WalkLibrary, size, fill);
        AddSum(Name("walk", size, bench::NameOf(fill), "avx2"), bench::WalkAvx2, size, fill);
    }
    AddSum(Name("count", size, "dense", "library"), vtflt::CountSetBits, size, Fill::Dense);
    AddSum(Name("count", size, "dense", "portable"), vtflt::PORTABLE_BIT_OPERATIONS.countSet, size, Fill::Dense);
    AddSum(Name("count", size, "dense", "popcnt"), bench::CountPopcnt, size, Fill::Dense);
    AddSum(Name("count", size, "dense", "avx2"), bench::CountAvx2, size, Fill::Dense);
    AddSum(Name("count", size, "dense", "avx2-carry-save"), bench::CountAvx2CarrySave, size, Fill::Dense);
}

// The rivals are held to the same answers before anybody is measured.
bool RivalsAreRight()
{
    constexpr std::size_t SIZE = 256 * KIB;
    for (const Fill fill : {Fill::Clear, Fill::Sparse, Fill::Dense, Fill::Set}) {
        const Buffer source(SIZE, fill, 3);
        const std::uint8_t* const bits = source.At(84);
        if (WalkLibrary(bits, SIZE) != bench::WalkAvx2(bits, SIZE) ||
            vtflt::CountSetBits(bits, SIZE) != bench::CountPopcnt(bits, SIZE) ||
            vtflt::CountSetBits(bits, SIZE) != bench::CountAvx2(bits, SIZE) ||
            vtflt::CountSetBits(bits, SIZE) != bench::CountAvx2CarrySave(bits, SIZE))
            return false;
        for (const Or rival : {bench::OrAvx2, bench::OrAvx2Unrolled, bench::OrAvx2Aligned, bench::OrByteLoop}) {
            Buffer one(SIZE, Fill::Dense, 4);
            Buffer other(SIZE, Fill::Dense, 4);
            vtflt::OrBits(one.At(85), bits, SIZE);
            rival(other.At(85), bits, SIZE);
            if (std::memcmp(one.At(85), other.At(85), SIZE) != 0)
                return false;
        }
    }
    Buffer to(SIZE, Fill::Dense, 5);
    const Buffer from(SIZE, Fill::Dense, 6);
    RoaringSets set(to.At(0), SIZE);
    RoaringSets lazy(to.At(0), SIZE);
    RoaringSets uncounted(to.At(0), SIZE);
    const RoaringSets other(from.At(0), SIZE);
    set.Or(other);
    lazy.OrLazily(other);
    uncounted.OrWithoutCounts(other);
    uncounted.Count();
    vtflt::OrBits(to.At(0), from.At(0), SIZE);
    const std::uint64_t expected = vtflt::CountSetBits(to.At(0), SIZE);
    return set.Cardinality() == expected && lazy.Cardinality() == expected && uncounted.Cardinality() == expected;
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
    const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    for (const std::size_t size : quick ? std::span<const std::size_t>(QUICK_SIZES) : SIZES) {
        AddOr(size);
        AddOthers(size);
    }
    if (quick) {
        argv[1] = argv[0];
        ++argv;
        --argc;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
