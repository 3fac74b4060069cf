// apps clean: deletes bitmap files by the ID that they are named after.
#pragma once

#include "command_line.h"

namespace vtfltctl {

void AddCleanCommand(CLI::App& group, Context& context);

} // namespace vtfltctl
