// Where the log's outputs come from.
#pragma once

#include "log/log.h"

namespace vtflt {

// New outputs for this process's log, owned by the caller; null when there is none (or no memory for it).
IDBGLogOutput* MakeFileOutput() noexcept;
IDBGLogOutput* MakeLiveOutput() noexcept;

} // namespace vtflt
