// What vtlog says: see common/console.h, and how a record's level is shown.
#pragma once

#include "common/console.h"

namespace vtlog {

using toolkit::Colour;
using toolkit::Coloured;
using toolkit::Diagnose;
using toolkit::Flush;
using toolkit::OutputInColour;
using toolkit::Print;

// The colour of a record's level. Every level below 1 is an error, as the log itself takes it.
Colour LevelColour(int level) noexcept;
// "error", "warning", "information", "detail", else "level N".
std::string LevelName(int level);

} // namespace vtlog
