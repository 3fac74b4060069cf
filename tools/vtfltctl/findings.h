// What is wrong on a machine: every contradiction between driver, registry, bitmap files and volumes that can be seen
// without changing anything, with what it means for the next backup and the command that mends it.
#pragma once

#include "failure.h"
#include "machine.h"
#include "mend.h"

#include <string>
#include <vector>

namespace vtfltctl {

// From best to worst. The worst finding decides how the command ends.
enum class Severity {
    Note,       // worth knowing; no backup suffers
    Unknown,    // could not be looked at
    Verify,     // a next backup must verify
    DriverDown, // the driver does not work
    Damaged,    // damaged or contradictory: backups fail, or changes can be lost
};

struct Finding {
    const char* check; // its name, stable: docs/cli.md lists them
    Severity severity;
    std::wstring application; // whom it concerns; empty: nobody in particular
    std::wstring volume;      // {...}; empty: none
    std::string text;         // what was found, a sentence
    std::string consequence;  // for the next backup, a sentence
    Mend mend;                // what mends it; empty where nothing needs to be done, or no command can safely do it
};

// In the order of the checks: driver, applications, lists, volumes and files.
std::vector<Finding> FindFaults(const MachineFacts& machine);

// How a command ends that found these.
Exit OutcomeOf(const std::vector<Finding>& findings);

// "note", "unknown", "verify", "driver-down", "damaged"
const char* SeverityName(Severity severity) noexcept;

} // namespace vtfltctl
