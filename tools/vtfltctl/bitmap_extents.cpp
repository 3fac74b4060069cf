// bitmap extents: the changed parts of a volume as offsets and lengths in bytes.
#include "bitmap_selection.h"
#include "commands.h"
#include "extent_list.h"
#include "output.h"

#include <fmt/format.h>

namespace vtfltctl {
namespace {

using namespace bitmap;

} // namespace

Exit ListExtents(const Context& context, const ExtentOptions& options)
{
    const std::uint64_t start = SizeOption("--start", options.start);
    Selection selection = Select(options.selection);
    SelectedBits selected(selection);
    const Geometry geometry = selection.geometry;
    if (geometry.blockSize == 0)
        throw Failure(Exit::Usage, "the block size is not known: say it with --block-size, such as 64K");
    if (!context.json)
        WarnOfFlaws(selection);

    ExtentList list(context, "offset,length", fmt::format("\"blockSize\": {},\n  ", geometry.blockSize));
    try {
        BitSource& bits = selected.Bits();
        RunReader runs(bits, start / geometry.blockSize, bits.Blocks());
        std::uint64_t listed = 0;
        for (std::optional<Run> run = runs.Next(); run; run = runs.Next()) {
            const std::uint64_t offset = geometry.Offset(run->first);
            if (listed++ == options.limit)
                return list.End(ExitOf(selection), true, offset);
            if (!list.Add(offset, geometry.Offset(run->End()) - offset))
                break;
        }
    } catch (const ReadError& error) {
        return list.Fail(ReadErrorExit(error), ReadErrorText(ToWide(selection.source), error));
    }
    return list.End(ExitOf(selection), false, 0);
}

} // namespace vtfltctl
