// The work on bits, beside what others can do on the same bytes.
//
//     core_bench list [--quick]                                        the cases, one in a line: work/KiB/what
//     core_bench CASE ROUNDS [ARGUMENT OF THE BENCHMARK LIBRARY...]    measures one of them
//
// In a round everybody runs once, in an order of its own. So what is compared of one round ran within a moment, on the same
// machine in the same state, and its ratios say more than those of runs that lie minutes apart. A process measures one case,
// or the memory of all of them would be needed at once.
//
// How the DLL clears and copies depends on the C run-time that it is linked with: that is measured with the DLL's own
// objects, under Wine (whole/parts_main.cpp).
#include "bitmap/bits.h"
#include "buffers.h"
#include "library_walk.h"
#include "rivals.h"
#include "roaring_set.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <span>
#include <string>
#include <tuple>
#include <vector>

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
constexpr std::size_t RECORD_OFFSET = 84;
constexpr Offsets OFFSETS[] = {{0, 0}, {84, 0}, {84, 17}, {1, 0}, {85, 17}};
// Of what is only read.
constexpr std::size_t READ_OFFSETS[] = {0, 1, RECORD_OFFSET, 85};

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

void RunRoaringCount(benchmark::State& state, std::size_t size)
{
    const RoaringSets& bits = PreparedSets(size, SOURCE_SEED);
    for (auto _ : state)
        benchmark::DoNotOptimize(bits.CountBits());
    SetBytes(state, size);
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

using Sum = std::uint64_t (*)(const std::uint8_t* bits, std::size_t count);

void RunSum(benchmark::State& state, Sum work, std::size_t size, std::size_t offset, Fill fill)
{
    const std::uint8_t* const bits = Prepared(size, fill, SOURCE_SEED).At(offset);
    for (auto _ : state)
        benchmark::DoNotOptimize(work(bits, size));
    SetBytes(state, size);
}

using Run = std::function<void(benchmark::State&)>;

struct Way {
    const char* who;
    Run run;
    int rounds = INT_MAX; // no more than these
};
// Those that are no rivals, only shown: they are slow.
constexpr int ROUNDS_OF_SLOW = 3;

struct Case {
    std::string name;
    std::vector<Way> ways;
};

// One rival runs twice under two names: how far its ratio to itself is from 1 is what the other ratios leave open.
constexpr const char* CONTROL = "avx2-again";

std::string Name(const char* work, std::size_t size, const std::string& what)
{
    return std::string(work) + "/" + std::to_string(size / KIB) + "/" + what;
}

Run OrBy(Or work, std::size_t size, Offsets offsets, Fill fill)
{
    return [=](benchmark::State& state) { RunOr(state, work, size, offsets, fill); };
}

Run RoaringBy(void (RoaringSets::*work)(const RoaringSets&), std::size_t size)
{
    return [=](benchmark::State& state) { RunRoaring(state, work, size); };
}

Run SumBy(Sum work, std::size_t size, std::size_t offset, Fill fill)
{
    return [=](benchmark::State& state) { RunSum(state, work, size, offset, fill); };
}

Case OrCase(std::size_t size, Offsets offsets, Fill fill)
{
    const auto by = [&](Or work) { return OrBy(work, size, offsets, fill); };
    const bool aligned = offsets.to == 0;
    const bool ofARecord = offsets.to == RECORD_OFFSET && offsets.from == 0;
    Case made = {
        Name("or", size, std::to_string(offsets.to) + "+" + std::to_string(offsets.from) + "-" + bench::NameOf(fill)),
        {{"library", by(vtflt::OrBits)},
         {"avx2", by(bench::OrAvx2)},
         {CONTROL, by(bench::OrAvx2)},
         {"avx2-unrolled", by(bench::OrAvx2Unrolled)},
         {"avx2-aligned", by(bench::OrAvx2Aligned)},
         {"memcpy", by(CopyBytes)}}};
    if (fill == Fill::Dense && (aligned || ofARecord)) {
        made.ways.push_back({"portable", by(vtflt::PORTABLE_BIT_OPERATIONS.orBytes), ROUNDS_OF_SLOW});
        made.ways.push_back({"byte-loop", by(bench::OrByteLoop), ROUNDS_OF_SLOW});
    }
    // Sets have memory of their own, of which nobody chooses the offset: the same for all.
    if (fill == Fill::Dense) {
        made.ways.push_back({"roaring", RoaringBy(&RoaringSets::Or, size)});
        made.ways.push_back({"roaring-no-count", RoaringBy(&RoaringSets::OrWithoutCounts, size)});
    }
    return made;
}

Case WalkCase(std::size_t size, std::size_t offset, Fill fill)
{
    const auto by = [&](Sum work) { return SumBy(work, size, offset, fill); };
    return {Name("walk", size, std::to_string(offset) + "-" + bench::NameOf(fill)),
            {{"library", by(bench::WalkLibrary)}, {"avx2", by(bench::WalkAvx2)}, {CONTROL, by(bench::WalkAvx2)}}};
}

Case CountCase(std::size_t size, std::size_t offset)
{
    const auto by = [&](Sum work) { return SumBy(work, size, offset, Fill::Dense); };
    return {Name("count", size, std::to_string(offset) + "-dense"),
            {{"library", by(vtflt::CountSetBits)},
             {"popcnt", by(bench::CountPopcnt)},
             {"avx2", by(bench::CountAvx2)},
             {CONTROL, by(bench::CountAvx2)},
             {"avx2-carry-save", by(bench::CountAvx2CarrySave)},
             {"roaring", [=](benchmark::State& state) { RunRoaringCount(state, size); }},
             {"portable", by(vtflt::PORTABLE_BIT_OPERATIONS.countSet), ROUNDS_OF_SLOW}}};
}

// A walk over short runs takes the longest by far, and in a large bitmap its place makes the least difference.
bool IsWalkedAnywhere(std::size_t size, Fill fill)
{
    return fill == Fill::Sparse || (fill == Fill::Dense && size < 128 * MIB);
}

void AddCases(std::vector<Case>& cases, std::size_t size)
{
    for (const Offsets offsets : OFFSETS)
        cases.push_back(OrCase(size, offsets, Fill::Dense));
    for (const Offsets offsets : {Offsets{0, 0}, Offsets{84, 0}}) {
        for (const Fill fill : {Fill::Sparse, Fill::Clear})
            cases.push_back(OrCase(size, offsets, fill));
    }
    for (const std::size_t offset : READ_OFFSETS) {
        for (const Fill fill : {Fill::Clear, Fill::Sparse, Fill::Dense, Fill::Set}) {
            if (offset == RECORD_OFFSET || IsWalkedAnywhere(size, fill))
                cases.push_back(WalkCase(size, offset, fill));
        }
        cases.push_back(CountCase(size, offset));
    }
}

std::vector<Case> Cases(std::span<const std::size_t> sizes)
{
    std::vector<Case> cases;
    for (const std::size_t size : sizes)
        AddCases(cases, size);
    return cases;
}

// Benchmarks run in the order in which they are made known. Names: work/KiB/what/who/round.
void Register(const Case& measured, int rounds)
{
    std::vector<const Way*> order;
    for (const Way& way : measured.ways)
        order.push_back(&way);
    std::mt19937 random(1);
    for (int round = 0; round < rounds; ++round) {
        std::shuffle(order.begin(), order.end(), random);
        for (const Way* const way : order) {
            const std::string name = measured.name + "/" + way->who + "/" + std::to_string(round);
            if (round < way->rounds)
                benchmark::RegisterBenchmark(name.c_str(), way->run);
        }
    }
}

// A union that counts nothing does not know its count until it is asked for.
bool RoaringIsRight()
{
    constexpr std::size_t SIZE = 256 * KIB;
    Buffer to(SIZE, Fill::Dense, 5);
    const Buffer from(SIZE, Fill::Dense, 6);
    RoaringSets counted(to.At(0), SIZE);
    RoaringSets uncounted(to.At(0), SIZE);
    const RoaringSets other(from.At(0), SIZE);
    counted.Or(other);
    uncounted.OrWithoutCounts(other);
    vtflt::OrBits(to.At(0), from.At(0), SIZE);
    const std::uint64_t expected = vtflt::CountSetBits(to.At(0), SIZE);
    if (counted.Cardinality() != expected || uncounted.Cardinality() == expected)
        return false;
    if (uncounted.CountBits() != expected)
        return false;
    uncounted.Count();
    return uncounted.Cardinality() == expected;
}

// The rivals are held to the same answers before anybody is measured.
bool RivalsAreRight()
{
    constexpr std::size_t SIZE = 256 * KIB;
    for (const Fill fill : {Fill::Clear, Fill::Sparse, Fill::Dense, Fill::Set}) {
        const Buffer source(SIZE, fill, 3);
        for (const std::size_t offset : READ_OFFSETS) {
            const std::uint8_t* const read = source.At(offset);
            if (bench::WalkLibrary(read, SIZE) != bench::WalkAvx2(read, SIZE) ||
                vtflt::CountSetBits(read, SIZE) != bench::CountPopcnt(read, SIZE) ||
                vtflt::CountSetBits(read, SIZE) != bench::CountAvx2(read, SIZE) ||
                vtflt::CountSetBits(read, SIZE) != bench::CountAvx2CarrySave(read, SIZE))
                return false;
        }
        const std::uint8_t* const bits = source.At(RECORD_OFFSET);
        for (const Or rival : {bench::OrAvx2, bench::OrAvx2Unrolled, bench::OrAvx2Aligned, bench::OrByteLoop}) {
            Buffer one(SIZE, Fill::Dense, 4);
            Buffer other(SIZE, Fill::Dense, 4);
            vtflt::OrBits(one.At(85), bits, SIZE);
            rival(other.At(85), bits, SIZE);
            if (std::memcmp(one.At(85), other.At(85), SIZE) != 0)
                return false;
        }
    }
    return RoaringIsRight();
}

int List(bool quick)
{
    for (const Case& one : Cases(quick ? std::span<const std::size_t>(QUICK_SIZES) : SIZES))
        std::puts(one.name.c_str());
    return 0;
}

int Measure(const std::string& name, int rounds)
{
    if (!vtflt::ProcessorHasAvx2()) {
        std::fputs("core_bench: this processor has no AVX2, against which is measured\n", stderr);
        return 1;
    }
    if (!RivalsAreRight()) {
        std::fputs("core_bench: those compared do not agree\n", stderr);
        return 1;
    }
    const std::vector<Case> cases = Cases(SIZES);
    const auto found = std::find_if(cases.begin(), cases.end(), [&](const Case& one) { return one.name == name; });
    if (found == cases.end() || rounds <= 0) {
        std::fputs("core_bench: one of the cases that it lists, and how many rounds\n", stderr);
        return 1;
    }
    Register(*found, rounds);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv); // takes its own arguments away
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (!arguments.empty() && arguments[0] == "list")
        return List(arguments.size() > 1 && arguments[1] == "--quick");
    if (arguments.size() != 2) {
        std::fputs("core_bench list [--quick] | CASE ROUNDS [ARGUMENT OF THE BENCHMARK LIBRARY...]\n", stderr);
        return 1;
    }
    return Measure(arguments[0], std::atoi(arguments[1].c_str()));
}
