// whole_parts_bench [--quick] FILE: parts of the library without system calls, from the DLL's own objects and with its C
// run-time; the results go into FILE as JSON. What the compiler and the run-time of Linux make of the same sources is
// core_bench's.
#include "measure.h"

#include "../core/buffers.h"
#include "../core/rivals.h"
#include "apps/resync_text.h"
#include "bitmap/bits.h"
#include "bitmap/record.h"

#include <cstring>
#include <fstream>
#include <numeric>
#include <random>

namespace {

using namespace bench;

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = 1024 * KIB;
constexpr DWORD BLOCK = 65536;

struct Way {
    const char* work;
    const char* who;
    std::function<void()> run;
};

// Bytes per second and way: the ways in turns, each for as long as its share. In each round in
// another order: what one leaves in the caches does not always meet the same one.
void MeasureWays(Json& rows, std::size_t size, const std::vector<Way>& ways, int rounds, double milliseconds)
{
    std::vector<std::vector<double>> rates(ways.size());
    std::vector<int> repetitions(ways.size(), 1);
    std::vector<std::size_t> order(ways.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::mt19937 random(1);
    for (std::size_t i = 0; i < ways.size(); ++i) {
        const double once = TimeOf(ways[i].run);
        repetitions[i] = std::max(1, static_cast<int>(milliseconds / std::max(once, 0.0005)));
    }
    for (int round = 0; round < rounds; ++round) {
        std::shuffle(order.begin(), order.end(), random);
        for (const std::size_t i : order) {
            const double time = TimeOf([&] {
                for (int k = 0; k < repetitions[i]; ++k)
                    ways[i].run();
            });
            rates[i].push_back(static_cast<double>(size) * repetitions[i] / time / 1e6);
        }
    }
    for (std::size_t i = 0; i < ways.size(); ++i) {
        rows.push_back({{"work", ways[i].work},
                        {"kib", size / KIB},
                        {"who", ways[i].who},
                        {"gb_per_s_best", Rounded(*std::max_element(rates[i].begin(), rates[i].end()))},
                        {"gb_per_s_median", Rounded(Median(rates[i]))},
                        {"runs", Rounded(rates[i])}});
        std::printf("%s %zu KiB, %s: %s GB/s\n", ways[i].work, size / KIB, ways[i].who,
                    rows.back()["gb_per_s_best"].dump().c_str());
    }
    std::fflush(stdout);
}

void MeasureBits(Json& rows, std::size_t size, int rounds, double milliseconds)
{
    const auto count = static_cast<std::uint32_t>(size);
    const std::unique_ptr<vtflt::BitmapRecord> record = vtflt::BitmapRecord::Make(BLOCK, count);
    Require(record != nullptr && record->HeldBitmapBytes() == count, "a record");
    Buffer source(size, Fill::Dense, 1);
    Buffer target(size, Fill::Sparse, 2);
    std::uint8_t* const from = source.At(16);
    std::uint8_t* const to = target.At(16);
    std::uint8_t* const bitmap = record->Bitmap();
    std::memcpy(bitmap, target.At(0), size);
    std::uint64_t sum = 0;
    std::vector<Way> ways = {
        {"merge", "library", [&] { record->Or(from, size); }},
        {"merge", "avx2", [&] { OrAvx2(bitmap, from, size); }},
        {"merge", "avx2-unrolled", [&] { OrAvx2Unrolled(bitmap, from, size); }},
        {"merge", "avx2-aligned", [&] { OrAvx2Aligned(bitmap, from, size); }},
        {"merge", "memcpy", [&] { std::memcpy(bitmap, from, size); }},
        {"copy", "library", [&] { sum += record->CopyBitmap(to, count); }},
        {"copy", "avx2", [&] { CopyAvx2(to, bitmap, size); }},
        {"copy", "memcpy", [&] { std::memcpy(to, bitmap, size); }},
        {"count", "library", [&] { sum += vtflt::CountSetBits(bitmap, size); }},
        {"count", "avx2", [&] { sum += CountAvx2(bitmap, size); }},
        {"count", "avx2-carry-save", [&] { sum += CountAvx2CarrySave(bitmap, size); }},
        {"count", "popcnt", [&] { sum += CountPopcnt(bitmap, size); }},
        {"clear", "library", [&] { record->Clear(); }},
        {"clear", "avx2", [&] { ClearAvx2(bitmap, size); }},
        {"clear", "memset", [&] { std::memset(bitmap, 0, size); }},
    };
    // The library clears a record's bitmap only, which begins at byte 84: at other places there is what it calls.
    for (const auto& [work, offset] : {std::pair<const char*, std::size_t>{"clear at byte 0", 0},
                                       {"clear at byte 1", 1},
                                       {"clear at byte 85", 85}}) {
        std::uint8_t* const cleared = target.At(offset);
        ways.push_back({work, "memset", [=] { std::memset(cleared, 0, size); }});
        ways.push_back({work, "avx2", [=] { ClearAvx2(cleared, size); }});
    }
    MeasureWays(rows, size, ways, rounds, milliseconds);
    Require(sum != 0, "a sum that somebody needs");
}

// Whether each stored entry occurs in the text of the new ones, as a merge of two lists without a common entry asks.
Json MeasureSearch(int entries)
{
    const auto guid = [](unsigned family, unsigned number) {
        char text[40] = {};
        std::snprintf(text, sizeof(text), "{%08X-0000-4000-8000-%012X}", number * 2654435761u,
                      family * 100000 + number);
        return std::wstring(text, text + std::strlen(text));
    };
    std::vector<std::wstring> stored;
    std::wstring text;
    for (int i = 0; i < entries; ++i) {
        stored.push_back(guid(1, static_cast<unsigned>(i)));
        vtflt::AppendToListText(text, guid(2, static_cast<unsigned>(i)));
    }
    std::vector<double> times;
    for (int run = 0; run < 3; ++run) {
        times.push_back(TimeOf([&] {
            std::wstring merged = text;
            for (const std::wstring& entry : stored) {
                Require(!vtflt::ListTextHolds(merged, entry), "no common entry");
                vtflt::AppendToListText(merged, entry);
            }
        }));
    }
    std::printf("search in a list of %d: %.4g ms\n", entries, Median(times));
    std::fflush(stdout);
    return {{"entries", entries}, {"ms", Rounded(Median(times))}, {"runs_ms", Rounded(times)}};
}

int Run(bool quick, const std::string& file)
{
    Require(vtflt::ProcessorHasAvx2(), "a processor with AVX2, against which is measured");
    Json bits = Json::array();
    Json searches = Json::array();
    for (const std::size_t size : quick ? std::vector<std::size_t>{32 * KIB}
                                        : std::vector<std::size_t>{32 * KIB, 2 * MIB, 128 * MIB, 1024 * MIB})
        MeasureBits(bits, size, quick ? 2 : 7, quick ? 1 : 40);
    for (const int entries : quick ? std::vector<int>{100} : std::vector<int>{100, 1000, 10000})
        searches.push_back(MeasureSearch(entries));

    std::ofstream out(file);
    out << Json{{"bits_as_shipped", bits}, {"list_search", searches}}.dump(2) << '\n';
    Require(out.good(), "writing the results");
    return 0;
}

} // namespace

int wmain(int count, wchar_t** values)
{
    try {
        const bool quick = count > 1 && bench::Narrow(values[1]) == "--quick";
        bench::Require(count == (quick ? 3 : 2), "one argument: the file for the results");
        return Run(quick, bench::Narrow(values[count - 1]));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "whole_parts_bench: %s\n", error.what());
        return 1;
    }
}
