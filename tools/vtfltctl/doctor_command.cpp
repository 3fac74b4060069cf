// doctor: every finding with its consequence and the command that mends it.
#include "machine_json.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <vtfltmgr/VTFltMgr.h>

#include <algorithm>
#include <memory>

namespace vtfltctl {
namespace {

Colour ColourOf(Severity severity)
{
    switch (severity) {
    case Severity::Note:
        return Colour::Quiet;
    case Severity::Unknown:
    case Severity::Verify:
        return Colour::Warning;
    case Severity::DriverDown:
    case Severity::Damaged:
        return Colour::Error;
    }
    return Colour::Quiet;
}

std::string FindingText(const Finding& finding)
{
    std::string text =
        fmt::format("{} {}: {}\n    {}\n", Coloured(SeverityName(finding.severity), ColourOf(finding.severity)),
                    finding.check, finding.text, finding.consequence);
    if (!finding.mend.empty())
        text += "    mend: " + finding.mend + "\n";
    return text;
}

bool HasMend(const std::vector<Finding>& findings)
{
    return std::any_of(findings.begin(), findings.end(), [](const Finding& finding) { return !finding.mend.empty(); });
}

// What another program would do, it would do to the machine that this one runs on.
void ForgetMendsOfThisMachine(std::vector<Finding>& findings)
{
    for (Finding& finding : findings) {
        if (!finding.mend.starts_with("vtfltctl "))
            finding.mend.clear();
    }
}

Exit Doctor(const Context& context, bool reinstall)
{
    if (reinstall) {
        RequireYes(context, "lets the library uninstall and install a driver that does not work");
        // Its answer is found again by the look at the machine that follows.
        VTCanBLIDriverWork();
    }
    std::vector<Finding> findings = FindFaults(LookAtMachine());
    Json list = Json::array();
    std::string text;
    if (!context.simulate.empty())
        ForgetMendsOfThisMachine(findings);
    for (const Finding& finding : findings) {
        list.push_back(FindingJson(finding));
        text += FindingText(finding);
    }
    if (text.empty())
        text = "Nothing was found: driver, registry, bitmap files and volumes agree.\n";
    if (!context.simulate.empty() && HasMend(findings))
        text += "\nThis machine is a simulated one: these commands need --simulate DIR, too.\n";
    return Answer(context, OutcomeOf(findings), {{"findings", list}}, text);
}

} // namespace

void AddDoctorCommand(CLI::App& app, Context& context)
{
    const auto reinstall = std::make_shared<bool>(false);
    CLI::App& command = AddCommand(
        app, context, "doctor",
        "Check driver, registry, bitmap files and volumes against each other, and say what mends what is wrong",
        [&context, reinstall] { return Doctor(context, *reinstall); });
    command.add_flag("--reinstall", *reinstall,
                     "first let the library reinstall a driver that does not work, which may take 20 minutes");
    command.add_flag("--yes", context.yes, "really reinstall it");
}

} // namespace vtfltctl
