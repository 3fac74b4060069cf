// Checks of the registered applications.
#include "common/application_id.h"
#include "common/text.h"
#include "findings_parts.h"
#include "output.h"

#include <fmt/format.h>

namespace vtfltctl {
namespace {

using toolkit::EqualIgnoringCase;

Mend Unregister(const std::wstring& application)
{
    return {{"apps unregister", {application}, "--yes"}};
}

// Two registered IDs that the library cannot keep apart.
void CheckPair(const std::wstring& earlier, const std::wstring& later, std::vector<Finding>& findings)
{
    if (earlier == later) {
        findings.push_back(
            {"id-twice",
             Severity::Damaged,
             later,
             {},
             fmt::format("{} is registered twice.", Quoted(later)),
             "Its changes are merged twice, which costs time and no change. Unregistering it (vtfltctl apps unregister) "
             "once, and not twice, leaves it registered once, without bitmap files.",
             {}});
        return;
    }
    if (EqualIgnoringCase(earlier, later)) {
        findings.push_back({"id-shared-files",
                            Severity::Damaged,
                            later,
                            {},
                            fmt::format("{} and {} differ only in case, so they share bitmap files and lists.",
                                        Quoted(earlier), Quoted(later)),
                            "What one of them reports as backed up is missing in the other's next backup.",
                            Unregister(later)});
        return;
    }
    // The longer one hides the shorter: a search for the shorter, which is exact, ends in the longer one's tail.
    const bool laterIsTail = earlier.ends_with(later);
    if (!laterIsTail && !later.ends_with(earlier))
        return;
    const std::wstring& tail = laterIsTail ? later : earlier;
    const std::wstring& whole = laterIsTail ? earlier : later;
    findings.push_back({"id-in-tail",
                        Severity::Damaged,
                        tail,
                        {},
                        fmt::format("{} is found at the end of {}: the library does not look where an ID begins.",
                                    Quoted(tail), Quoted(whole)),
                        laterIsTail ? "Unregistering the shorter cuts the longer one's ID, whose backups then fail."
                                    : "Backups go on, but the shorter cannot be registered again once it is not.",
                        laterIsTail ? Unregister(whole) : Mend()});
}

void CheckOneId(const std::wstring& id, std::vector<Finding>& findings)
{
    const std::string reason = toolkit::UnsuitableBecause(id, {});
    if (reason.empty())
        return;
    findings.push_back({"id-unsuitable",
                        Severity::Damaged,
                        id,
                        {},
                        fmt::format("The registered ID {} is unsuitable: {}.", Quoted(id), reason),
                        "Its bitmap files or lists can be another application's, or cannot be made: changes can be "
                        "missing in its next backup, or the backup fails.",
                        id.empty() ? Mend() : Unregister(id)});
}

} // namespace

void CheckApplications(const MachineFacts& machine, std::vector<Finding>& findings)
{
    if (machine.applicationsError == ERROR_INVALID_DATA) {
        findings.push_back(
            {"applications-unreadable",
             Severity::Damaged,
             {},
             {},
             "The list of registered applications, RegisteredAppIDs, is no well-formed multi-string.",
             "The library takes its bytes for a list all the same, and passes over an ID that has no end: "
             "whom it serves is not certain, and the others' backups fail. Write it anew as REG_MULTI_SZ with the IDs that it held. Do not just delete it: who "
             "registers again gets empty bitmaps and must be given \"vtfltctl verify add APP --all\" at "
             "once.",
             {}});
        return;
    }
    if (machine.applicationsError != ERROR_SUCCESS) {
        findings.push_back({"applications-unreadable",
                            Severity::Unknown,
                            {},
                            {},
                            fmt::format("The list of registered applications cannot be read: {}.",
                                        ErrorText(machine.applicationsError)),
                            "Lists and bitmap files were not held against it.",
                            {}});
        return;
    }
    const std::vector<ApplicationFacts>& applications = machine.applications;
    for (std::size_t i = 0; i < applications.size(); ++i) {
        CheckOneId(applications[i].id, findings);
        for (std::size_t j = 0; j < i; ++j) {
            if (!applications[i].id.empty() && !applications[j].id.empty())
                CheckPair(applications[j].id, applications[i].id, findings);
        }
    }
}

} // namespace vtfltctl
