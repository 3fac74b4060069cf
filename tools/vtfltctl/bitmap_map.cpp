// bitmap map: the volume as a picture.
#include "bitmap_commands.h"
#include "bitmap_png.h"
#include "bitmap_selection.h"
#include "output.h"

#include "win/windows.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace vtfltctl {
namespace {

using namespace bitmap;

struct MapOptions {
    SelectionOptions selection;
    std::string png;
    bool ansi = false;
    std::uint64_t columns = 64;
};

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

} // namespace

void AddBitmapMap(CLI::App& group, Context& context)
{
    const auto options = std::make_shared<MapOptions>();
    CLI::App& command = AddCommand(group, context, "map",
                                   "Draw the volume as a picture: each square a run of blocks, coloured by how many "
                                   "of them changed",
                                   [&context, options] { return DrawMap(context, *options); });
    AddSelection(command, options->selection);
    CLI::Option* const png = command.add_option("--png", options->png, "write a PNG file")->type_name("FILE");
    CLI::Option* const ansi = command.add_flag("--ansi", options->ansi,
                                               "draw on the terminal, in 24-bit colour; in "
                                               "characters where NO_COLOR is set");
    ansi->excludes(png);
    command.add_option("--columns", options->columns, "columns of the picture on the terminal")
        ->check(CLI::IsMember(std::vector<std::uint64_t>{32, 64, 128, 256}))
        ->needs(ansi)
        ->type_name("");
    AddYes(command, context, "what the PNG file held before");
}

} // namespace vtfltctl
