// The commands of the bitmap group, each in a file of its own.
#pragma once

#include "command_line.h"

namespace vtfltctl {

void AddBitmapInfo(CLI::App& group, Context& context);    // bitmap_info.cpp
void AddBitmapExtents(CLI::App& group, Context& context); // bitmap_extents.cpp
void AddBitmapDiff(CLI::App& group, Context& context);    // bitmap_diff.cpp
void AddBitmapMap(CLI::App& group, Context& context);     // bitmap_map.cpp

} // namespace vtfltctl
