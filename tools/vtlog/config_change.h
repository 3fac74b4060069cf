// What "vtlog config" is asked to change.
#pragma once

#include "commands.h"
#include "config_editor.h"

namespace vtlog {

// The options as a change, paths completed as the system completes them. Throws Failure(Usage).
ConfigChange ChangeOf(const ConfigOptions& options);

} // namespace vtlog
