// The groups of checks that FindFaults runs; each appends what it finds.
#pragma once

#include "findings.h"

namespace vtfltctl {

void CheckApplications(const MachineFacts& machine, std::vector<Finding>& findings); // findings_registry.cpp
void CheckLists(const MachineFacts& machine, std::vector<Finding>& findings);        // findings_registry.cpp
void CheckVolume(const MachineFacts& machine, const VolumeFacts& volume,
                 std::vector<Finding>& findings); // findings_files.cpp

} // namespace vtfltctl
