// tried_bench FILE: other ways than the library's, where it misses a target, beside it on the same bytes. FILE is a name for a
// file of 32 MiB, which is made and deleted.
#include "bitmap/bits.h"
#include "buffers.h"
#include "library_walk.h"
#include "rivals.h"

#include <benchmark/benchmark.h>
#include <bit>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <immintrin.h>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#define AVX2 __attribute__((target("avx2")))
#define AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline

namespace {

using bench::Buffer;
using bench::Fill;

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = 1024 * KIB;
constexpr std::size_t PAGE = 4096;
constexpr std::size_t VECTOR = 32;
constexpr std::size_t STEP = 4 * VECTOR;

using Or = void (*)(std::uint8_t* to, const std::uint8_t* from, std::size_t count);

// --- merging what no longer fits the caches ---

enum class Hint { None, Read, Write };

AVX2_INLINE __m256i Load(const std::uint8_t* from)
{
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
}

AVX2_INLINE void OrStep(std::uint8_t* to, const std::uint8_t* from, bool past)
{
    for (std::size_t i = 0; i < STEP; i += VECTOR) {
        const __m256i both = _mm256_or_si256(Load(to + i), Load(from + i));
        if (past)
            _mm256_stream_si256(reinterpret_cast<__m256i*>(to + i), both);
        else
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(to + i), both);
    }
}

template <Hint HINT, std::size_t AHEAD>
AVX2_INLINE void Fetch(std::uint8_t* to, const std::uint8_t* from)
{
    if constexpr (HINT != Hint::None) {
        for (std::size_t i = 0; i < STEP; i += 64) {
            __builtin_prefetch(from + AHEAD + i, 0);
            __builtin_prefetch(to + AHEAD + i, HINT == Hint::Write ? 1 : 0);
        }
    }
}

// So many pieces of so many bytes in turn; none is asked whether it is clear.
template <std::size_t PIECES, std::size_t PIECE, Hint HINT = Hint::None, std::size_t AHEAD = 0, bool PAST = false>
AVX2 void OrPieces(std::uint8_t* to, const std::uint8_t* from, std::size_t count)
{
    std::size_t i = (VECTOR - reinterpret_cast<std::uintptr_t>(to) % VECTOR) % VECTOR;
    for (std::size_t k = 0; k < i; ++k)
        to[k] |= from[k];
    for (; i + PIECES * PIECE <= count; i += PIECES * PIECE) {
        for (std::size_t at = i; at < i + PIECE; at += STEP) {
            for (std::size_t piece = 0; piece < PIECES; ++piece) {
                Fetch<HINT, AHEAD>(to + at + piece * PIECE, from + at + piece * PIECE);
                OrStep(to + at + piece * PIECE, from + at + piece * PIECE, PAST);
            }
        }
    }
    if (PAST)
        _mm_sfence();
    for (; i < count; ++i)
        to[i] |= from[i];
}

// --- merging what fits the first cache ---

// So many vectors in a step. Steps begin where the target's address is a multiple of ALIGNMENT, or, like the library's, behind
// the first vector when it is one already.
template <std::size_t VECTORS, std::size_t ALIGNMENT, bool SKIPS_FIRST>
AVX2 void OrSteps(std::uint8_t* to, const std::uint8_t* from, std::size_t count)
{
    const auto orVector = [&](std::size_t at) AVX2 {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(to + at), _mm256_or_si256(Load(to + at), Load(from + at)));
    };
    const std::size_t behind = reinterpret_cast<std::uintptr_t>(to) % ALIGNMENT;
    std::size_t i = behind == 0 && !SKIPS_FIRST ? 0 : ALIGNMENT - behind;
    for (std::size_t k = 0; k < i; k += VECTOR)
        orVector(k);
    for (; i + VECTORS * VECTOR <= count; i += VECTORS * VECTOR) {
        __m256i both[VECTORS];
#pragma GCC unroll 8
        for (std::size_t k = 0; k < VECTORS; ++k)
            both[k] = _mm256_or_si256(Load(to + i + k * VECTOR), Load(from + i + k * VECTOR));
#pragma GCC unroll 8
        for (std::size_t k = 0; k < VECTORS; ++k)
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(to + i + k * VECTOR), both[k]);
    }
    for (; i + VECTOR <= count; i += VECTOR)
        orVector(i);
    orVector(count - VECTOR);
}

void CopyBytes(std::uint8_t* to, const std::uint8_t* from, std::size_t count)
{
    std::memcpy(to, from, count);
}

// What both bitmaps cost to be read, and nothing written.
AVX2 void ReadBoth(std::uint8_t* to, const std::uint8_t* from, std::size_t count)
{
    __m256i any = _mm256_setzero_si256();
    for (std::size_t i = 0; i + STEP <= count; i += STEP) {
        for (std::size_t k = 0; k < STEP; k += VECTOR)
            any = _mm256_or_si256(any, _mm256_or_si256(Load(to + i + k), Load(from + i + k)));
    }
    benchmark::DoNotOptimize(any);
}

// Where target and source begin in a page.
struct Offsets {
    std::size_t to;
    std::size_t from;
};

void RunOr(benchmark::State& state, Or work, std::size_t size, Offsets offsets, Fill fill)
{
    static std::unique_ptr<Buffer> target;
    static std::unique_ptr<Buffer> sources[2];
    std::unique_ptr<Buffer>& source = sources[fill == Fill::Dense];
    if (target == nullptr || target->size() != size)
        target = std::make_unique<Buffer>(size, Fill::Sparse, 1);
    if (source == nullptr || source->size() != size)
        source = std::make_unique<Buffer>(size, fill, 2);
    for (auto _ : state) {
        work(target->At(offsets.to), source->At(offsets.from), size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
}

struct MergeWay {
    const char* name;
    Or work;
};

template <std::size_t COUNT>
void AddMerges(const char* group, const MergeWay (&ways)[COUNT], std::size_t size, Offsets offsets, Fill fill)
{
    for (const MergeWay& way : ways)
        benchmark::RegisterBenchmark((std::string(group) + "/" + way.name).c_str(), RunOr, way.work, size, offsets,
                                     fill);
}

void AddLargeMerges()
{
    const MergeWay ways[] = {
        {"library", vtflt::OrBits},
        {"library-again", vtflt::OrBits},
        {"memcpy", CopyBytes},
        {"read-both", ReadBoth},
        {"1-page", OrPieces<1, PAGE>},
        {"2-pages", OrPieces<2, PAGE>},
        {"3-pages", OrPieces<3, PAGE>},
        {"4-pages", OrPieces<4, PAGE>},
        {"6-pages", OrPieces<6, PAGE>},
        {"8-pages", OrPieces<8, PAGE>},
        {"4-pieces-64K", OrPieces<4, 64 * KIB>},
        {"4-pieces-1M", OrPieces<4, MIB>},
        {"ahead-256", OrPieces<4, PAGE, Hint::Read, 256>},
        {"ahead-512", OrPieces<4, PAGE, Hint::Read, 512>},
        {"ahead-256-to-write", OrPieces<4, PAGE, Hint::Write, 256>},
        {"ahead-512-to-write", OrPieces<4, PAGE, Hint::Write, 512>},
        {"past-the-caches", OrPieces<4, PAGE, Hint::None, 0, true>},
    };
    constexpr Offsets OF_A_RECORD = {84, 17};
    AddMerges("merge-dense", ways, 128 * MIB, OF_A_RECORD, Fill::Dense);
    AddMerges("merge-sparse", ways, 128 * MIB, OF_A_RECORD, Fill::Sparse);
    AddMerges("merge-largest-dense", ways, 1024 * MIB, OF_A_RECORD, Fill::Dense);
    AddMerges("merge-largest-sparse", ways, 1024 * MIB, OF_A_RECORD, Fill::Sparse);
}

void AddSmallMerges()
{
    const MergeWay ways[] = {
        {"library", vtflt::OrBits},
        {"library-again", vtflt::OrBits},
        {"avx2", bench::OrAvx2},
        {"avx2-unrolled", bench::OrAvx2Unrolled},
        {"four-behind-the-first", OrSteps<4, VECTOR, true>},
        {"four-from-the-first", OrSteps<4, VECTOR, false>},
        {"two-from-the-first", OrSteps<2, VECTOR, false>},
        {"eight-from-the-first", OrSteps<8, VECTOR, false>},
        {"four-behind-a-line", OrSteps<4, 2 * VECTOR, true>},
    };
    AddMerges("merge-small", ways, 32 * KIB, {0, 0}, Fill::Dense);
}

// --- walking over short runs ---

// A word that is shifted to the block that was found, and compared with what is looked for.
class ShiftedWords {
public:
    ShiftedWords(const std::uint8_t* bits, std::uint64_t end) : m_bits(bits), m_end(end) { Load(); }
    template <std::uint64_t THAN>
    std::uint64_t Find()
    {
        while (m_at < m_end) {
            const auto alike = static_cast<unsigned>(std::countl_zero(m_word ^ THAN));
            if (alike < m_left) {
                m_word <<= alike;
                m_left -= alike;
                m_at += alike;
                return m_at;
            }
            m_at += m_left;
            if (m_at < m_end)
                Load();
        }
        return m_end;
    }

private:
    void Load()
    {
        std::memcpy(&m_word, m_bits + m_at / 8, sizeof(m_word));
        m_word = __builtin_bswap64(m_word);
        m_left = 64;
    }

    const std::uint8_t* m_bits;
    std::uint64_t m_at = 0;
    std::uint64_t m_end;
    std::uint64_t m_word = 0;
    unsigned m_left = 0;
};

std::uint64_t WalkShifted(const std::uint8_t* bits, std::size_t count)
{
    const std::uint64_t end = count * 8;
    ShiftedWords words(bits, end);
    std::uint64_t sum = 0;
    for (std::uint64_t at = words.Find<0>(); at != end; at = words.Find<0>())
        sum += at + words.Find<~std::uint64_t{0}>();
    return sum;
}

std::uint64_t WalkBlocks(const std::uint8_t* bits, std::size_t count)
{
    std::uint64_t sum = 0;
    bool inRun = false;
    for (std::size_t i = 0; i < count * 8; ++i) {
        const bool isSet = (bits[i / 8] & 0x80 >> i % 8) != 0;
        if (isSet != inRun)
            sum += i;
        inRun = isSet;
    }
    return inRun ? sum + count * 8 : sum;
}

using Walk = std::uint64_t (*)(const std::uint8_t* bits, std::size_t count);

void RunWalk(benchmark::State& state, Walk work)
{
    static const Buffer bits(2 * MIB, Fill::Dense, 2);
    for (auto _ : state)
        benchmark::DoNotOptimize(work(bits.At(84), bits.size()));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(bits.size()));
}

void AddWalks()
{
    struct Way {
        const char* name;
        Walk work;
    };
    for (const Way& way :
         {Way{"library", bench::WalkLibrary}, Way{"library-again", bench::WalkLibrary}, Way{"avx2", bench::WalkAvx2},
          Way{"shifted-words", WalkShifted}, Way{"block-by-block", WalkBlocks}})
        benchmark::RegisterBenchmark((std::string("walk-dense/") + way.name).c_str(), RunWalk, way.work);
}

// --- a bitmap's file, read and merged ---

constexpr std::size_t FILE_BYTES = 32 * MIB;
std::string g_file; // lies in the system's cache

class OpenFile {
public:
    OpenFile() : m_descriptor(open(g_file.c_str(), O_RDONLY))
    {
        if (m_descriptor < 0)
            std::abort();
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile() { close(m_descriptor); }
    void Read(std::uint8_t* to, std::size_t count) const
    {
        if (read(m_descriptor, to, count) != static_cast<ssize_t>(count))
            std::abort();
    }

private:
    int m_descriptor;
};

struct Unmap {
    std::size_t count = FILE_BYTES;
    void operator()(std::uint8_t* bytes) const { munmap(bytes, count); }
};
using Pages = std::unique_ptr<std::uint8_t, Unmap>;

Pages NewPages(int flags = 0, std::size_t count = FILE_BYTES)
{
    void* const pages = mmap(nullptr, count, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | flags, -1, 0);
    if (pages == MAP_FAILED)
        std::abort();
    return Pages(static_cast<std::uint8_t*>(pages), Unmap{count});
}

std::uint8_t* UsedPages()
{
    static const Pages pages = NewPages(MAP_POPULATE);
    return pages.get();
}

void Touch(std::uint8_t* bytes, std::size_t count)
{
    for (std::size_t i = 0; i < count; i += PAGE)
        *const_cast<volatile std::uint8_t*>(bytes + i) = 0;
}

Pages ReadIntoUsed()
{
    OpenFile().Read(UsedPages(), FILE_BYTES);
    return nullptr;
}

Pages ReadIntoNew()
{
    Pages pages = NewPages();
    OpenFile().Read(pages.get(), FILE_BYTES);
    return pages;
}

Pages ReadIntoTouched()
{
    Pages pages = NewPages();
    Touch(pages.get(), FILE_BYTES);
    OpenFile().Read(pages.get(), FILE_BYTES);
    return pages;
}

Pages ReadIntoTouchedPieces()
{
    Pages pages = NewPages();
    const OpenFile file;
    for (std::size_t i = 0; i < FILE_BYTES; i += MIB) {
        Touch(pages.get() + i, MIB);
        file.Read(pages.get() + i, MIB);
    }
    return pages;
}

Pages ReadIntoPopulated()
{
    Pages pages = NewPages(MAP_POPULATE);
    OpenFile().Read(pages.get(), FILE_BYTES);
    return pages;
}

Pages ReadIntoHugePages()
{
    Pages pages = NewPages();
    madvise(pages.get(), FILE_BYTES, MADV_HUGEPAGE);
    OpenFile().Read(pages.get(), FILE_BYTES);
    return pages;
}

std::uint8_t* MergedInto()
{
    static Buffer bits(FILE_BYTES, Fill::Sparse, 3);
    return bits.At(84);
}

// As a fetch does it: the file into memory of its own, and another bitmap into that.
Pages MergeNew()
{
    Pages pages = ReadIntoNew();
    vtflt::OrBits(pages.get(), MergedInto(), FILE_BYTES);
    return pages;
}

Pages MergeUsed()
{
    ReadIntoUsed();
    vtflt::OrBits(UsedPages(), MergedInto(), FILE_BYTES);
    return nullptr;
}

// The file goes through a small buffer, piece by piece, into the bitmap that is in memory.
template <std::size_t PIECE>
Pages MergePieces()
{
    static std::uint8_t piece[PIECE];
    const OpenFile file;
    for (std::size_t i = 0; i < FILE_BYTES; i += PIECE) {
        file.Read(piece, PIECE);
        vtflt::OrBits(MergedInto() + i, piece, PIECE);
    }
    return nullptr;
}

using FileWork = Pages (*)();

// Memory is given back when nobody looks at the clock.
void RunFile(benchmark::State& state, FileWork work)
{
    for (auto _ : state) {
        const auto begin = std::chrono::steady_clock::now();
        const Pages pages = work();
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(FILE_BYTES));
}

// As a fetch does it after a volume has grown: the file as it is, and its bits into longer, clear memory.
constexpr std::size_t GROWN_BYTES = FILE_BYTES + FILE_BYTES / 4;

Pages GrowByCopy()
{
    const Pages read = ReadIntoNew();
    Pages grown = NewPages(0, GROWN_BYTES);
    std::memcpy(grown.get(), read.get(), FILE_BYTES);
    return grown;
}

// Who knows the new length beforehand needs no copy.
Pages GrowBeforeReading()
{
    Pages grown = NewPages(0, GROWN_BYTES);
    OpenFile().Read(grown.get(), FILE_BYTES);
    return grown;
}

// The pages are given another address and more behind them. Windows has no call for this.
Pages GrowByMoving()
{
    Pages read = ReadIntoNew();
    void* const moved = mremap(read.release(), FILE_BYTES, GROWN_BYTES, MREMAP_MAYMOVE);
    if (moved == MAP_FAILED)
        std::abort();
    return Pages(static_cast<std::uint8_t*>(moved), Unmap{GROWN_BYTES});
}

void AddFiles()
{
    const auto add = [](const char* name, FileWork work) {
        benchmark::RegisterBenchmark(name, RunFile, work)->UseManualTime();
    };
    add("read/new-memory", ReadIntoNew);
    add("read/new-memory-again", ReadIntoNew);
    add("read/used-memory", ReadIntoUsed);
    add("read/touched-before", ReadIntoTouched);
    add("read/touched-in-pieces-1M", ReadIntoTouchedPieces);
    add("read/populated-at-once", ReadIntoPopulated);
    add("read/huge-pages", ReadIntoHugePages);
    add("read-and-merge/new-memory", MergeNew);
    add("read-and-merge/new-memory-again", MergeNew);
    add("read-and-merge/used-memory", MergeUsed);
    add("read-and-merge/in-pieces-256K", MergePieces<256 * KIB>);
    add("read-and-merge/in-pieces-1M", MergePieces<MIB>);
    add("grow/copied", GrowByCopy);
    add("grow/copied-again", GrowByCopy);
    add("grow/read-into-the-longer", GrowBeforeReading);
    add("grow/pages-moved", GrowByMoving);
}

bool MakeFile()
{
    const Buffer bits(FILE_BYTES, Fill::Sparse, 4);
    std::FILE* const file = std::fopen(g_file.c_str(), "wb");
    if (file == nullptr)
        return false;
    const bool written = std::fwrite(bits.At(0), 1, FILE_BYTES, file) == FILE_BYTES;
    return std::fclose(file) == 0 && written;
}

// Every way is held to the library's answer before it is measured.
bool WaysAreRight()
{
    constexpr std::size_t SIZE = 9 * MIB + 77;
    const Buffer source(SIZE, Fill::Dense, 5);
    Buffer expected(SIZE, Fill::Sparse, 6);
    vtflt::OrBits(expected.At(84), source.At(17), SIZE);
    for (const Or way : {OrPieces<1, PAGE>, OrPieces<2, PAGE>, OrPieces<3, PAGE>, OrPieces<4, PAGE>, OrPieces<6, PAGE>,
                         OrPieces<8, PAGE>, OrPieces<4, 64 * KIB>, OrPieces<4, MIB>, OrPieces<4, PAGE, Hint::Read, 256>,
                         OrPieces<4, PAGE, Hint::Write, 512>, OrPieces<4, PAGE, Hint::None, 0, true>,
                         OrSteps<4, VECTOR, true>, OrSteps<4, VECTOR, false>, OrSteps<2, VECTOR, false>,
                         OrSteps<8, VECTOR, false>, OrSteps<4, 2 * VECTOR, true>}) {
        Buffer given(SIZE, Fill::Sparse, 6);
        way(given.At(84), source.At(17), SIZE);
        if (std::memcmp(given.At(84), expected.At(84), SIZE) != 0)
            return false;
    }
    const std::uint64_t walked = bench::WalkLibrary(source.At(84), MIB);
    return WalkShifted(source.At(84), MIB) == walked && WalkBlocks(source.At(84), MIB) == walked;
}

} // namespace

int main(int argc, char** argv)
{
    if (!vtflt::ProcessorHasAvx2()) {
        std::fputs("tried_bench: this processor has no AVX2, which the ways need\n", stderr);
        return 1;
    }
    if (argc < 2 || !WaysAreRight()) {
        std::fputs(argc < 2 ? "tried_bench FILE\n" : "tried_bench: the ways do not agree\n", stderr);
        return 1;
    }
    g_file = argv[1];
    if (!MakeFile()) {
        std::fputs("tried_bench: the file cannot be written\n", stderr);
        return 1;
    }
    argv[1] = argv[0];
    ++argv;
    --argc;
    AddLargeMerges();
    AddSmallMerges();
    AddWalks();
    AddFiles();
    benchmark::Initialize(&argc, argv);
    const bool wrong = benchmark::ReportUnrecognizedArguments(argc, argv);
    if (!wrong)
        benchmark::RunSpecifiedBenchmarks();
    unlink(g_file.c_str());
    return wrong ? 1 : 0;
}
