// Where the log's outputs come from.
#pragma once

#include "log/log.h"

namespace vtflt {

// New outputs for this process's log, owned by the caller; null when there is no memory for one.
IDBGLogOutput* MakeFileOutput() noexcept;
IDBGLogOutput* MakeLiveOutput() noexcept;

// Closes what the outputs share in this process (the configuration block) and forgets what they read once. After the
// outputs are destroyed, while nothing logs.
void CloseOutputState() noexcept;

} // namespace vtflt
