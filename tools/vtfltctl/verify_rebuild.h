// verify rebuild: safe lists in the place of damaged ones.
#pragma once

#include "command_line.h"

namespace vtfltctl {

// Throws Failure; before anything is changed, when a list cannot be read for another reason than its form.
Exit RebuildLists(const Context& context);

} // namespace vtfltctl
