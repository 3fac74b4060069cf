// bitmap diff: two bitmaps held against each other.
#include "bitmap_selection.h"
#include "commands.h"
#include "extent_list.h"
#include "output.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtfltctl {
namespace {

using namespace bitmap;

// Two opened bitmaps that can be compared, and their bits.
class Pair {
public:
    // Throws Failure.
    explicit Pair(const DiffOptions& options)
        : m_first(OpenPath(options.first, options.reading)), m_second(OpenPath(options.second, options.reading))
    {
        for (const Opened* file : {&m_first, &m_second}) {
            if (!file->facts.Readable())
                throw Failure(Exit::Damaged, fmt::format("{} holds no bitmap: {}", Shown(file->path),
                                                         file->facts.flaws.empty()
                                                             ? "it has no room for a block"
                                                             : FlawText(file->facts.flaws.front(), file->facts)));
        }
        // A dump without a block size takes the other's.
        const std::uint32_t first = m_first.geometry.blockSize;
        const std::uint32_t second = m_second.geometry.blockSize;
        if (first != 0 && second != 0 && first != second)
            throw Failure(Exit::Unknown,
                          fmt::format("blocks of {} and of {} cannot be compared", SizeText(first), SizeText(second)));
        m_geometry = first != 0 ? m_first.geometry : m_second.geometry;
        m_firstBits = std::make_unique<FileBits>(*m_first.bytes, m_first.facts, BlocksOf(m_first));
        m_secondBits = std::make_unique<FileBits>(*m_second.bytes, m_second.facts, BlocksOf(m_second));
    }

    [[nodiscard]] BitSource& First() noexcept { return *m_firstBits; }
    [[nodiscard]] BitSource& Second() noexcept { return *m_secondBits; }
    [[nodiscard]] const Geometry& Sizes() const noexcept { return m_geometry; }
    [[nodiscard]] bool Sound() const noexcept
    {
        return VerdictOf(m_first.facts) == Verdict::Sound && VerdictOf(m_second.facts) == Verdict::Sound;
    }
    void WarnOfFlaws() const
    {
        for (const Opened* file : {&m_first, &m_second}) {
            for (const Flaw flaw : file->facts.flaws)
                Diagnose(fmt::format("{}: {}", Shown(file->path), FlawText(flaw, file->facts)));
        }
    }

private:
    [[nodiscard]] std::uint64_t BlocksOf(const Opened& file) const noexcept
    {
        return m_geometry.volumeBytes != 0 ? m_geometry.VolumeBlocks() : file.facts.Blocks();
    }

    Opened m_first;
    Opened m_second;
    Geometry m_geometry;
    std::unique_ptr<BitSource> m_firstBits;
    std::unique_ptr<BitSource> m_secondBits;
};

Json PartJson(const Totals& totals, const Geometry& geometry)
{
    Json json{{"blocks", totals.Set()}, {"extents", totals.Runs()}};
    if (geometry.blockSize != 0)
        json["bytes"] = ChangedBytes(totals, geometry);
    return json;
}

std::string PartText(const char* what, const Totals& totals, const Geometry& geometry)
{
    std::string text = fmt::format("{:<17}{} blocks", what, Grouped(totals.Set()));
    if (geometry.blockSize != 0)
        text += ", " + SizeText(ChangedBytes(totals, geometry));
    if (totals.Set() != 0)
        text += fmt::format(", in {}", CountText(totals.Runs(), "extent"));
    return text + "\n";
}

Exit Outcome(const Pair& pair, bool same)
{
    if (!pair.Sound())
        return Exit::Damaged;
    return same ? Exit::Ok : Exit::Different;
}

Exit Summarise(const Context& context, Pair& pair)
{
    const Comparison comparison = Compare(pair.First(), pair.Second());
    const bool same = comparison.onlyFirst.Set() == 0 && comparison.onlySecond.Set() == 0;
    const Json fields{{"same", same},
                      {"blockSize", pair.Sizes().blockSize},
                      {"blocks", {pair.First().Blocks(), pair.Second().Blocks()}},
                      {"onlyFirst", PartJson(comparison.onlyFirst, pair.Sizes())},
                      {"onlySecond", PartJson(comparison.onlySecond, pair.Sizes())},
                      {"both", PartJson(comparison.both, pair.Sizes())}};
    std::string text = same ? "The same blocks have changed.\n" : "The changed blocks differ.\n";
    if (pair.First().Blocks() != pair.Second().Blocks())
        text += fmt::format("The first has {} blocks, the second {}; a block that one lacks is unchanged there.\n",
                            Grouped(pair.First().Blocks()), Grouped(pair.Second().Blocks()));
    text += PartText("only the first", comparison.onlyFirst, pair.Sizes());
    text += PartText("only the second", comparison.onlySecond, pair.Sizes());
    text += PartText("both", comparison.both, pair.Sizes());
    return Answer(context, Outcome(pair, same), fields, text);
}

bool DifferBefore(Pair& pair, std::uint64_t end)
{
    for (const CombinedBits::Rule rule : {CombinedBits::Rule::OnlyFirst, CombinedBits::Rule::OnlySecond}) {
        CombinedBits only(pair.First(), pair.Second(), rule);
        RunReader runs(only, 0, std::min(end, only.Blocks()));
        if (runs.Next())
            return true;
    }
    return false;
}

// The differences in ascending order; each side's are found by a reader of its own.
Exit ListDifferences(const Context& context, Pair& pair, const DiffOptions& options)
{
    const Geometry& geometry = pair.Sizes();
    if (geometry.blockSize == 0)
        throw Failure(Exit::Usage, "the block size is not known: say it with --block-size, such as 64K");
    const std::uint64_t from = SizeOption("--start", options.start) / geometry.blockSize;
    CombinedBits onlyFirst(pair.First(), pair.Second(), CombinedBits::Rule::OnlyFirst);
    CombinedBits onlySecond(pair.First(), pair.Second(), CombinedBits::Rule::OnlySecond);
    RunReader firstRuns(onlyFirst, from, onlyFirst.Blocks());
    RunReader secondRuns(onlySecond, from, onlySecond.Blocks());

    ExtentList list(context, "offset,length,in", fmt::format("\"blockSize\": {},\n  ", geometry.blockSize));
    try {
        std::optional<Run> first = firstRuns.Next();
        std::optional<Run> second = secondRuns.Next();
        std::uint64_t listed = 0;
        while (first || second) {
            const bool takeFirst = first && (!second || first->first < second->first);
            const Run run = takeFirst ? *first : *second;
            const std::uint64_t offset = geometry.Offset(run.first);
            if (listed++ == options.limit)
                return list.End(Outcome(pair, false), true, offset);
            if (!list.Add(offset, geometry.Offset(run.End()) - offset, takeFirst ? "first" : "second"))
                break;
            (takeFirst ? first : second) = (takeFirst ? firstRuns : secondRuns).Next();
        }
        // What is left out of the list differs all the same.
        return list.End(Outcome(pair, listed == 0 && (from == 0 || !DifferBefore(pair, from))), false, 0);
    } catch (const ReadError& error) {
        return list.Fail(ReadErrorExit(error), ReadErrorText(L"one of the files", error));
    }
}

} // namespace

Exit ShowDifference(const Context& context, const DiffOptions& options)
{
    Pair pair(options);
    pair.WarnOfFlaws();
    if (options.list)
        return ListDifferences(context, pair, options);
    return Reading("one of the files", [&] { return Summarise(context, pair); });
}

} // namespace vtfltctl
