// status: one screen that says whether this machine's change tracking is healthy.
#include "commands.h"
#include "machine_json.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtfltctl {
namespace {

std::string DriverText(const DriverFacts& driver)
{
    std::string filters;
    for (const std::wstring& filter : driver.filters)
        filters += (filters.empty() ? "" : ", ") + Shown(filter);
    const char* const generation = driver.generation == Generation::Present ? "present generation"
                                   : driver.generation == Generation::Older ? "older generation"
                                                                            : "no answer";
    const char* const service = driver.service == ServiceState::Present  ? "service present"
                                : driver.service == ServiceState::Absent ? "service absent"
                                                                         : "service unknown";
    const std::string verdict = driver.Works()
                                    ? Coloured("works", Colour::Information)
                                    : Coloured("does not work", Colour::Error) + ": " + WhyDriverFails(driver);
    return fmt::format("Driver        {} ({}; filters {}; {})\n", verdict, generation,
                       filters.empty() ? "none" : filters, service);
}

std::string SnapshotsText(const SwitchFacts& facts)
{
    if (facts.error != ERROR_SUCCESS)
        return fmt::format("Snapshots     count unreadable: {}\n", ErrorText(facts.error));
    return fmt::format("Snapshots     {}, {}\n", facts.listed ? "tracked" : "not tracked",
                       CountText(facts.count.value_or(0), "request"));
}

std::string ListText(const char* name, const ListFacts& list)
{
    if (list.error != ERROR_SUCCESS)
        return fmt::format("{} unreadable: {}\n", name, ErrorText(list.error));
    std::string text;
    for (const std::wstring& entry : list.entries)
        text += " " + Shown(entry);
    return text.empty() ? std::string() : fmt::format("{}{}\n", name, text);
}

std::string ApplicationsText(const MachineFacts& machine)
{
    if (machine.applicationsError != ERROR_SUCCESS)
        return fmt::format("Applications  unreadable: {}\n", ErrorText(machine.applicationsError));
    std::string names;
    for (const ApplicationFacts& application : machine.applications)
        names += (names.empty() ? "" : ", ") + Shown(application.id);
    return fmt::format("Applications  {}\n", names.empty() ? "none registered" : names);
}

std::string HoldingText(const MachineFacts& machine, const VolumeFacts& volume, const HoldingFacts& holding)
{
    std::string text = fmt::format("  {}: base {}, child {}", Shown(holding.application), FileStateName(holding.base),
                                   FileStateName(holding.child));
    if (holding.owedBlocks)
        text +=
            fmt::format("; {} changed, {} owed", CountText(*holding.owedBlocks, "block"), BytesText(holding.owedBytes));
    const auto application = std::find_if(machine.applications.begin(), machine.applications.end(),
                                          [&](const ApplicationFacts& a) { return a.id == holding.application; });
    if (application != machine.applications.end() && MustVerify(machine, *application, volume, holding))
        text += "; " + Coloured("must verify", Colour::Warning);
    return text + "\n";
}

std::string VolumeText(const MachineFacts& machine, const VolumeFacts& volume)
{
    std::string places;
    for (const std::wstring& path : volume.mountPaths)
        places += " " + Shown(path);
    std::string text = fmt::format(
        "\nVolume {}{}  {}, {}, {}\n", Shown(volume.guid), places,
        volume.geometry.volumeBytes != 0 ? BytesText(volume.geometry.volumeBytes) : "length unknown",
        volume.geometry.blockSize != 0 ? "blocks of " + BytesText(volume.geometry.blockSize) : "block size unknown",
        volume.monitored ? "monitored" : Coloured("not monitored", Colour::Warning));
    for (const HoldingFacts& holding : volume.holdings)
        text += HoldingText(machine, volume, holding);
    return text;
}

std::string VerdictText(Exit outcome, std::size_t findings)
{
    if (outcome == Exit::Ok)
        return "\n" + Coloured("Change tracking is healthy.", Colour::Information) +
               (findings == 0 ? "\n" : fmt::format(" \"vtfltctl doctor\" has {}.\n", CountText(findings, "note")));
    return "\n" + Coloured("Change tracking is not healthy: ", Colour::Error) +
           fmt::format("{} ({}). \"vtfltctl doctor\" explains.\n", CountText(findings, "finding"),
                       OutcomeName(outcome));
}

} // namespace

Exit ShowStatus(const Context& context)
{
    const MachineFacts machine = LookAtMachine();
    const std::vector<Finding> findings = FindFaults(machine);
    const Exit outcome = OutcomeOf(findings);
    Json applications = Json::array();
    std::string lists = ListText("Driver list  ", machine.driverList);
    for (const ApplicationFacts& application : machine.applications) {
        const std::string id = Shown(application.id);
        lists += ListText(fmt::format("Pending list of {}:", id).c_str(), application.pending);
        lists += ListText(fmt::format("Verify list of {}:", id).c_str(), application.verify);
        applications.push_back({{"application", ToUtf8(application.id)},
                                {"verifyList", ListJson(application.verify)},
                                {"pendingList", ListJson(application.pending)}});
    }
    Json volumes = Json::array();
    std::string volumesText;
    for (const VolumeFacts& volume : machine.volumes) {
        volumes.push_back(VolumeJson(machine, volume));
        volumesText += VolumeText(machine, volume);
    }
    const Json fields = {{"healthy", outcome == Exit::Ok},
                         {"findings", findings.size()},
                         {"driver", DriverJson(machine.driver)},
                         {"snapshots", SwitchJson(machine.snapshots)},
                         {"driverList", ListJson(machine.driverList)},
                         {"applications", applications},
                         {"volumes", volumes}};
    return Answer(context, outcome, fields,
                  DriverText(machine.driver) + SnapshotsText(machine.snapshots) + ApplicationsText(machine) + lists +
                      volumesText + VerdictText(outcome, findings.size()));
}

} // namespace vtfltctl
