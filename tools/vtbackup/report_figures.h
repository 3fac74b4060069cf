// The figures of a report, collected from a repository: every manifest and every index is read and checked, the stored
// blocks are not.
#pragma once

#include "report/model.h"
#include "repository.h"

#include <string>
#include <vector>

namespace vtbackup {

// What is damaged becomes a problem in the report; only an interruption, or a folder that cannot be listed, throws
// Failure.
ReportChain CollectFigures(const Chain& chain);

} // namespace vtbackup
