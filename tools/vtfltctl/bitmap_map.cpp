// bitmap map: the volume as a picture.
#include "bitmap_png.h"
#include "bitmap_selection.h"
#include "commands.h"
#include "output.h"

#include "win/windows.h"

#include <fmt/format.h>

namespace vtfltctl {
namespace {

using namespace bitmap;

// https://no-color.org: any value but an empty one switches colour off.
bool ColourIsUnwanted() noexcept
{
    return GetEnvironmentVariableW(L"NO_COLOR", nullptr, 0) > 1;
}

Json GridJson(const Grid& grid, const Geometry& geometry)
{
    Json json{{"blocks", grid.blocks},
              {"blockSize", geometry.blockSize},
              {"blocksPerCell", grid.blocksPerCell},
              {"columns", grid.columns},
              {"rows", grid.rows},
              {"changedBlocks", grid.totals.Set()},
              {"extents", grid.totals.Runs()}};
    if (geometry.blockSize != 0)
        json["changedBytes"] = ChangedBytes(grid.totals, geometry);
    return json;
}

} // namespace

Exit DrawMap(const Context& context, const MapOptions& options)
{
    if (options.png.empty() && !options.ansi && !context.json)
        throw Failure(Exit::Usage, "say how to draw: --png FILE, or --ansi for the terminal");
    Selection selection = Select(options.selection);
    SelectedBits selected(selection);
    if (!context.json)
        WarnOfFlaws(selection);
    const Caption caption{.title = selection.title,
                          .source = Shown(ToWide(selection.source)),
                          .geometry = selection.geometry,
                          .heldBlocks = selection.HeldBlocks()};
    const bool colour = !ColourIsUnwanted();
    const GridLimits limits =
        options.ansi && options.png.empty() ? TerminalLimits(colour, options.columns) : PICTURE_LIMITS;
    const Grid grid = Reading(selection.source, [&] { return CountGrid(selected.Bits(), limits); });

    Json fields = GridJson(grid, caption.geometry);
    std::string text;
    if (!options.png.empty()) {
        const std::vector<std::uint8_t> file = EncodePng(DrawPicture(grid, caption).canvas);
        WriteWholeFile(ToWide(options.png), file.data(), file.size(), context.yes);
        fields["png"] = options.png;
        for (const std::string& line : Summary(grid, caption.geometry))
            text += line + "\n";
        text += fmt::format("Drawn: {}\n", Shown(ToWide(options.png)));
    } else if (options.ansi) {
        text = TerminalPicture(grid, caption, colour);
    }
    if (options.png.empty())
        fields["changed"] = grid.changed;
    return Answer(context, ExitOf(selection), fields, text);
}

} // namespace vtfltctl
