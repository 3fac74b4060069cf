// Checks of the registry: registered applications and the lists of volumes.
#include "common/application_id.h"
#include "common/text.h"
#include "common/volume_name.h"
#include "findings_parts.h"
#include "output.h"

#include "apps/resync_lists.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtfltctl {
namespace {

using toolkit::EndsWithIgnoringCase;
using toolkit::EqualIgnoringCase;

std::string Unregister(std::wstring_view application)
{
    return "vtfltctl apps unregister " + ShellArgument(application) + " --yes";
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
             "Its changes are merged twice, which costs time and no change; unregistering it once leaves "
             "it registered without bitmap files.",
             Unregister(later)});
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
    // The longer one hides the shorter: a search for the shorter ends in the longer one's tail.
    const bool laterIsTail = EndsWithIgnoringCase(earlier, later);
    if (!laterIsTail && !EndsWithIgnoringCase(later, earlier))
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
                        Unregister(whole)});
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
                        id.empty() ? std::string() : Unregister(id)});
}

bool IsOnMachine(const MachineFacts& machine, const std::wstring& guid)
{
    return std::any_of(machine.volumeGuids.begin(), machine.volumeGuids.end(),
                       [&](const std::wstring& known) { return EqualIgnoringCase(known, guid); });
}

// One list: where it belongs, how it is called, and how an entry leaves it.
struct NamedList {
    const ListFacts& facts;
    std::wstring application; // empty: the driver's
    std::string name;
    bool verify;
};

std::string RemoveEntry(const NamedList& list, const std::wstring& entry)
{
    if (list.verify)
        return "vtfltctl verify remove " + ShellArgument(list.application) + " " + ShellArgument(entry) + " --yes";
    if (list.application.empty())
        return {};
    return "vtfltctl verify replicate " + ShellArgument(list.application) + " && vtfltctl verify remove " +
           ShellArgument(list.application) + " " + ShellArgument(entry) + " --yes";
}

void CheckEntry(const MachineFacts& machine, const NamedList& list, const std::wstring& entry,
                std::vector<Finding>& findings)
{
    const std::optional<std::wstring> guid = toolkit::ParseVolumeGuid(entry);
    if (!guid || *guid != entry) {
        findings.push_back({"list-entry-odd",
                            Severity::Damaged,
                            list.application,
                            {},
                            fmt::format("{} holds {}, which is no volume's {{GUID}}.", list.name, Quoted(entry)),
                            list.application.empty() ? "It is handed to no application: if it means a volume, that "
                                                       "volume's lost changes are not known to the next backup."
                                                     : "It matches every volume whose name holds it, and no other.",
                            RemoveEntry(list, entry)});
    } else if (machine.volumesError == ERROR_SUCCESS && !IsOnMachine(machine, *guid)) {
        findings.push_back(
            {"list-volume-gone", Severity::Note, list.application, *guid,
             fmt::format("{} names the volume {}, which this machine does not have.", list.name, ToUtf8(*guid)),
             "No backup suffers; should the volume come back, its next backup must verify.", RemoveEntry(list, entry)});
    }
    for (const std::wstring& other : list.facts.entries) {
        if (other != entry && other.find(entry) != std::wstring::npos)
            findings.push_back({"list-entry-hidden", Severity::Damaged, list.application, guid ? *guid : std::wstring(),
                                fmt::format("{} holds {} as a part of {}: merging takes the one for the other.",
                                            list.name, Quoted(entry), Quoted(other)),
                                "The volume of the shorter entry can drop out of the list, and its next backup then "
                                "misses what was lost.",
                                RemoveEntry(list, other)});
    }
}

void CheckList(const MachineFacts& machine, const NamedList& list, std::vector<Finding>& findings)
{
    if (list.facts.error != ERROR_SUCCESS) {
        findings.push_back({"list-damaged",
                            Severity::Damaged,
                            list.application,
                            {},
                            fmt::format("{} cannot be read: {}.", list.name,
                                        list.facts.error == ERROR_INVALID_DATA ? "it is no well-formed multi-string"
                                                                               : ErrorText(list.facts.error)),
                            list.verify ? "Every next backup of the application must verify."
                                        : "Volumes that lost tracking are handed to nobody, and their next backups "
                                          "miss what was lost.",
                            "vtfltctl verify rebuild --yes"});
        return;
    }
    for (const std::wstring& entry : list.facts.entries)
        CheckEntry(machine, list, entry, findings);
}

// What waits to be handed over: the library's question about a volume does not look there.
void CheckWaiting(const MachineFacts& machine, const NamedList& list, std::vector<Finding>& findings)
{
    for (const std::wstring& entry : list.facts.entries) {
        const std::optional<std::wstring> guid = toolkit::ParseVolumeGuid(entry);
        if (!guid || !IsOnMachine(machine, *guid))
            continue;
        const std::string whose =
            list.application.empty() ? "The driver lost track of the volume" : "The application has not yet taken over";
        findings.push_back(
            {list.application.empty() ? "lost-tracking" : "list-pending", Severity::Verify, list.application, *guid,
             fmt::format("{} names {}. {}.", list.name, ToUtf8(*guid), whose + (list.application.empty() ? "" : " it")),
             "The next backup must verify; an application that does not replicate its list first misses changes.",
             list.application.empty()
                 ? (machine.applications.empty()
                        ? std::string()
                        : "vtfltctl verify replicate " + ShellArgument(machine.applications.front().id))
                 : "vtfltctl verify replicate " + ShellArgument(list.application)});
    }
}

} // namespace

void CheckApplications(const MachineFacts& machine, std::vector<Finding>& findings)
{
    if (machine.applicationsError == ERROR_INVALID_DATA) {
        findings.push_back({"applications-unreadable",
                            Severity::Damaged,
                            {},
                            {},
                            "The list of registered applications, RegisteredAppIDs, is no multi-string.",
                            "The library takes its bytes for a list all the same: whom it serves is not certain.",
                            "reg delete HKLM\\SOFTWARE\\Veltrix\\Shared\\CBTDriver\\AppIDs /v RegisteredAppIDs"});
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

void CheckLists(const MachineFacts& machine, std::vector<Finding>& findings)
{
    const NamedList driver{machine.driverList, {}, "The driver's list", false};
    CheckList(machine, driver, findings);
    CheckWaiting(machine, driver, findings);
    for (const ApplicationFacts& application : machine.applications) {
        const NamedList pending{application.pending, application.id, "The pending list of " + Quoted(application.id),
                                false};
        CheckList(machine, pending, findings);
        CheckWaiting(machine, pending, findings);
        CheckList(machine, {application.verify, application.id, "The verify list of " + Quoted(application.id), true},
                  findings);
    }
    for (const std::wstring& suffix : machine.foreignLists)
        findings.push_back(
            {"list-orphaned",
             Severity::Note,
             {},
             {},
             fmt::format("The list DeviceListForReSync{} belongs to no registered application.", ToUtf8(suffix)),
             "No backup suffers. A verify list that stays behind keeps whoever registers under the ID "
             "again from trusting old backups.",
             {}});
}

} // namespace vtfltctl
