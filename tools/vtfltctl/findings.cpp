#include "findings.h"

#include "findings_parts.h"
#include "output.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtfltctl {
namespace {

constexpr const char* COUNT_VALUE =
    "SnapshotMonitorCount below HKLM\\SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTFltMgr\\"
    "{533C5B84-EC70-11D2-9505-00C04F79DEAF}";

Mend Reinstall()
{
    return {{"doctor", {}, "--reinstall --yes"}};
}

void CheckDriver(const MachineFacts& machine, std::vector<Finding>& findings)
{
    const DriverFacts& driver = machine.driver;
    const std::string why = WhyDriverFails(driver);
    if (!why.empty()) {
        const bool absent = driver.service == ServiceState::Absent;
        const bool hopeless = absent || !driver.autoInstall || driver.installLocation.empty();
        findings.push_back({"driver-down",
                            Severity::DriverDown,
                            {},
                            {},
                            fmt::format("The driver does not work: {}.", why),
                            "Every next backup must verify, and what is written meanwhile is not tracked.",
                            hopeless ? Mend() : Reinstall()});
        if (absent)
            findings.push_back({"service-absent",
                                Severity::DriverDown,
                                {},
                                {},
                                "The driver's service VTFlt does not exist: it was never installed, or was removed.",
                                "The library does not install a driver that was never installed.",
                                {}});
        if (!driver.autoInstall)
            findings.push_back({"reinstall-forbidden",
                                Severity::Note,
                                {},
                                {},
                                "The registry forbids the library to reinstall the driver (VTFltAutoInstall is 0).",
                                "The driver stays as it is until somebody installs it.",
                                {}});
        if (driver.installLocation.empty())
            findings.push_back({"install-location",
                                Severity::Note,
                                {},
                                {},
                                "The registry does not say where the driver's utility lies (InstallLocation).",
                                "The library cannot reinstall the driver.",
                                {}});
    }
    if (driver.generation == Generation::Older)
        findings.push_back({"driver-older",
                            Severity::Note,
                            {},
                            {},
                            "A driver of the older generation is running.",
                            "Backups go on; the installed driver takes over when the machine is restarted.",
                            {}});
}

// The count can only be set by whoever knows how many applications rely on it: one that is too low ends the tracking of
// an application's snapshots, and one that is too high does no harm.
std::string SetCountByHand()
{
    return fmt::format(
        " Set it by hand, while no backup runs: {}, a REG_DWORD, to the number of applications that asked for "
        "the tracking; if that is not known, to that of all registered ones. Too high does no harm.",
        COUNT_VALUE);
}

void CheckSwitch(const MachineFacts& machine, std::vector<Finding>& findings)
{
    const SwitchFacts& snapshots = machine.snapshots;
    if (snapshots.error == ERROR_INVALID_DATA) {
        findings.push_back({"monitor-count",
                            Severity::Damaged,
                            {},
                            {},
                            "The count of requests for the tracking of snapshots is no number.",
                            "Tracking of snapshots can be asked for and taken back no more." + SetCountByHand(),
                            {}});
        return;
    }
    if (snapshots.error != ERROR_SUCCESS) {
        findings.push_back({"monitor-count",
                            Severity::Unknown,
                            {},
                            {},
                            fmt::format("The count of requests for the tracking of snapshots cannot be read: {}.",
                                        ErrorText(snapshots.error)),
                            "Whether it is sound is not known.",
                            {}});
        return;
    }
    const std::uint32_t count = snapshots.count.value_or(0);
    if (count > 0x7FFFFFFF)
        findings.push_back(
            {"monitor-count",
             Severity::Damaged,
             {},
             {},
             fmt::format("More requests for the tracking of snapshots were taken back than made: the "
                         "count stands at {}.",
                         count),
             "The tracking of snapshots never ends, or ends while an application relies on it." + SetCountByHand(),
             {}});
    else if (count > 0 && !snapshots.listed)
        findings.push_back({"monitor-filter",
                            Severity::Damaged,
                            {},
                            {},
                            fmt::format("{} for the tracking of snapshots stand, but the driver is not among the "
                                        "filters of their class.",
                                        CountText(count, "request")),
                            "What an application changes in its own snapshot is not known to its next backup. One more "
                            "request lists the driver again, and stays; one too many does no harm.",
                            {{"monitor on", {}, {}}}});
    else if (count == 0 && snapshots.listed)
        findings.push_back(
            {"monitor-filter",
             Severity::Note,
             {},
             {},
             "The driver is among the filters of the snapshots' class, but no request for it stands.",
             "No backup suffers. Nobody asked for the tracking of snapshots, or a request was taken back "
             "twice and an application relies on it all the same.",
             {}});
}

void CheckVolumeWalk(const MachineFacts& machine, std::vector<Finding>& findings)
{
    if (machine.volumesError != ERROR_SUCCESS)
        findings.push_back({"volumes-unknown",
                            Severity::Unknown,
                            {},
                            {},
                            fmt::format("The list of volumes broke off: {}.", ErrorText(machine.volumesError)),
                            "What stands on the volumes behind that point is not known.",
                            {}});
    if (machine.dumps)
        findings.push_back({"dumps-on",
                            Severity::Note,
                            {},
                            {},
                            "Every bitmap that crosses the library's boundary is saved (DumpBitmap is 1).",
                            "No backup suffers, but the volumes fill up.",
                            {}});
}

} // namespace

std::vector<Finding> FindFaults(const MachineFacts& machine)
{
    std::vector<Finding> findings;
    CheckDriver(machine, findings);
    CheckSwitch(machine, findings);
    CheckApplications(machine, findings);
    CheckLists(machine, findings);
    CheckVolumeWalk(machine, findings);
    for (const VolumeFacts& volume : machine.volumes)
        CheckVolume(machine, volume, findings);
    return findings;
}

Exit OutcomeOf(const std::vector<Finding>& findings)
{
    Severity worst = Severity::Note;
    for (const Finding& finding : findings)
        worst = std::max(worst, finding.severity);
    switch (worst) {
    case Severity::Note:
        return Exit::Ok;
    case Severity::Unknown:
        return Exit::Unknown;
    case Severity::Verify:
        return Exit::VerifyRequired;
    case Severity::DriverDown:
        return Exit::DriverDown;
    case Severity::Damaged:
        return Exit::Damaged;
    }
    return Exit::Internal;
}

const char* SeverityName(Severity severity) noexcept
{
    switch (severity) {
    case Severity::Note:
        return "note";
    case Severity::Unknown:
        return "unknown";
    case Severity::Verify:
        return "verify";
    case Severity::DriverDown:
        return "driver-down";
    case Severity::Damaged:
        return "damaged";
    }
    return "unknown";
}

} // namespace vtfltctl
