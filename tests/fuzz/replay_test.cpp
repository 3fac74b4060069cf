// The fuzzing targets over kept inputs: those that once found something, the seeds, and variations of the seeds that are
// the same every time. Finding new inputs is ./dev fuzz.
#include "fuzz/fuzz.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace {

using Bytes = std::vector<std::uint8_t>;

// How many of each seed. A command line takes a hundred times as long as anything else.
int VariationsOf(const fuzz::Target& target)
{
    const std::string_view name = target.name;
    return name.ends_with("command_line") ? 10 : name == "vtfltctl_lists" ? 100 : 300;
}

std::vector<Bytes> ReadInputs(const char* kind, const std::string& target)
{
    std::vector<std::filesystem::path> files;
    const std::filesystem::path folder = std::filesystem::path(VT_FUZZ_FOLDER) / kind / target;
    if (std::filesystem::exists(folder)) {
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    std::vector<Bytes> inputs;
    for (const std::filesystem::path& file : files) {
        std::ifstream stream(file, std::ios::binary);
        inputs.emplace_back(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    }
    return inputs;
}

void Vary(Bytes& input, std::mt19937& random)
{
    const auto below = [&random](std::size_t limit) { return static_cast<std::size_t>(random() % limit); };
    for (std::size_t changes = 1 + below(4); changes > 0; --changes) {
        switch (below(4)) {
        case 0:
            input.insert(input.begin() + static_cast<std::ptrdiff_t>(below(input.size() + 1)),
                         static_cast<std::uint8_t>(random()));
            break;
        case 1:
            input.resize(below(input.size() + 1));
            break;
        default:
            if (!input.empty())
                input[below(input.size())] = static_cast<std::uint8_t>(random());
        }
    }
}

class Replay : public testing::TestWithParam<fuzz::Target> {};

TEST_P(Replay, HoldsForInputsThatOnceFoundSomething)
{
    for (const Bytes& input : ReadInputs("found", GetParam().name))
        GetParam().run(input.data(), input.size());
}

TEST_P(Replay, HoldsForTheSeedsAndVariationsOfThem)
{
    const std::vector<Bytes> seeds = ReadInputs("seeds", GetParam().name);
    ASSERT_FALSE(seeds.empty());
    std::mt19937 random(1);
    for (const Bytes& seed : seeds) {
        GetParam().run(seed.data(), seed.size());
        for (int i = VariationsOf(GetParam()); i > 0; --i) {
            Bytes input = seed;
            Vary(input, random);
            GetParam().run(input.data(), input.size());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Fuzz, Replay, testing::ValuesIn(fuzz::Targets()),
                         [](const testing::TestParamInfo<fuzz::Target>& target) {
                             return std::string(target.param.name);
                         });

} // namespace
