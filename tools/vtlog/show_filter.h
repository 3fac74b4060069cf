// Which records "vtlog show" is asked for. Pure.
#pragma once

#include "commands.h"
#include "entry_filter.h"

namespace vtlog {

// The options as a filter; times are taken from now. Throws Failure(Usage) for what is no level, code or time.
EntryFilter FilterOf(const ShowOptions& options, const RecordTime& now);

} // namespace vtlog
