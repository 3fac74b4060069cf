// The groups of checks that FindFaults runs; each appends what it finds.
#pragma once

#include "findings.h"

namespace vtfltctl {

void CheckApplications(const MachineFacts& machine, std::vector<Finding>& findings); // findings_applications.cpp
void CheckLists(const MachineFacts& machine, std::vector<Finding>& findings);        // findings_lists.cpp
void CheckVolume(const MachineFacts& machine, const VolumeFacts& volume,
                 std::vector<Finding>& findings); // findings_files.cpp

} // namespace vtfltctl
