// A report as one HTML page that needs nothing else: no network, no other file, and no script for what it says.
//
// The same report makes the same page, byte for byte. It holds no time but the backups' own.
#pragma once

#include "report/model.h"

#include <string>

namespace vtbackup {

std::string ReportPage(const Report& report);

} // namespace vtbackup
