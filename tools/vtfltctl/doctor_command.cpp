// doctor: every finding with its consequence and the command that mends it.
#include "commands.h"
#include "common/simulation.h"
#include "machine_json.h"

#include <fmt/format.h>
#include <vtfltmgr/VTFltMgr.h>

#include <memory>
#include <set>

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

std::string FindingText(const Finding& finding, const std::string& mend)
{
    std::string text =
        fmt::format("{} {}: {}\n    {}\n", Coloured(SeverityName(finding.severity), ColourOf(finding.severity)),
                    finding.check, finding.text, finding.consequence);
    if (!mend.empty())
        text += "    mend: " + mend + "\n";
    return text;
}

} // namespace

Exit RunDoctor(const Context& context, bool reinstall)
{
    if (reinstall) {
        RequireYes(context, "lets the library uninstall and install a driver that does not work");
        // Its answer is found again by the look at the machine that follows.
        VTCanBLIDriverWork();
    }
    const std::vector<Finding> findings = FindFaults(LookAtMachine());
    const std::wstring machine = toolkit::SimulatedFolder(ToWide(context.simulate));
    Json list = Json::array();
    std::string text;
    std::set<std::string> mends;
    for (const Finding& finding : findings) {
        std::string mend = WrittenMend(finding.mend, machine);
        // What mends several findings is said with the first.
        if (!mends.insert(mend).second)
            mend.clear();
        list.push_back(FindingJson(finding, mend));
        text += FindingText(finding, mend);
    }
    if (text.empty())
        text = "Nothing was found: driver, registry, bitmap files and volumes agree.\n";
    return Answer(context, OutcomeOf(findings), {{"findings", list}}, text);
}

} // namespace vtfltctl
