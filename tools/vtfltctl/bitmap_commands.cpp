#include "bitmap_commands.h"

#include <CLI/CLI.hpp>

namespace vtfltctl {

void AddBitmapCommands(CLI::App& app, Context& context)
{
    CLI::App& group = AddGroup(app, "bitmap", "What a change bitmap holds");
    AddBitmapInfo(group, context);
    AddBitmapExtents(group, context);
    AddBitmapDiff(group, context);
    AddBitmapMap(group, context);
}

} // namespace vtfltctl
