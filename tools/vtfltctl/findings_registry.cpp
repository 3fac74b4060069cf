// Checks of the registry: registered applications and the lists of volumes.
#include "common/application_id.h"
#include "common/text.h"
#include "common/volume_name.h"
#include "findings_parts.h"
#include "mend.h"
#include "output.h"

#include "apps/resync_lists.h"
#include "apps/volume_name.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtfltctl {
namespace {

using toolkit::EndsWithIgnoringCase;
using toolkit::EqualIgnoringCase;

std::string Unregister(const std::wstring& application)
{
    return MendCommand("apps unregister", {application}, "--yes");
}

// Its pending list is another application's verify list: handing that on would take the other one's marks off.
std::string Replicate(const std::wstring& application)
{
    return EndsWithIgnoringCase(application, L".Last") ? std::string() : MendCommand("verify replicate", {application});
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

bool Contains(const std::vector<std::wstring>& texts, const std::wstring& text)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

bool IsOnMachine(const MachineFacts& machine, const std::wstring& guid)
{
    return std::any_of(machine.volumeGuids.begin(), machine.volumeGuids.end(),
                       [&](const std::wstring& known) { return EqualIgnoringCase(known, guid); });
}

// One list: where it belongs, how it is called, and whether it is a verify list.
struct NamedList {
    const ListFacts& facts;
    std::wstring application; // empty: the driver's
    std::string name;
    bool verify;
};

// Whether a text can be a part of some volume's path. If it cannot, it marks no volume of any machine.
bool CanMeanVolume(std::wstring_view entry)
{
    constexpr std::wstring_view SHAPE = L"\\\\?\\Volume{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}\\";
    const auto fits = [](wchar_t shape, wchar_t c) {
        const bool hex = (c >= L'0' && c <= L'9') || (c >= L'a' && c <= L'f') || (c >= L'A' && c <= L'F');
        return shape == L'x' ? hex : c == shape;
    };
    for (std::size_t at = 0; at + entry.size() <= SHAPE.size(); ++at) {
        if (std::equal(entry.begin(), entry.end(), SHAPE.begin() + static_cast<std::ptrdiff_t>(at),
                       [&](wchar_t c, wchar_t shape) { return fits(shape, c); }))
            return true;
    }
    return false;
}

// The volumes for which an entry stands that is not itself the volume's {GUID}: those whose name holds it, as the library
// looks, and the one that it names in other case.
void AddVolumesMeant(const MachineFacts& machine, const std::wstring& entry, std::vector<std::wstring>& volumes)
{
    const std::optional<std::wstring> named = toolkit::ParseVolumeGuid(entry);
    for (const std::wstring& guid : machine.volumeGuids) {
        const bool meant = guid != entry && (vtflt::ListEntryMatchesVolume(entry, L"\\\\?\\Volume" + guid + L"\\") ||
                                             (named && EqualIgnoringCase(*named, guid)));
        if (meant && std::find(volumes.begin(), volumes.end(), guid) == volumes.end())
            volumes.push_back(guid);
    }
}

// All the volumes that both lists of an application mean by entries that are not their {GUID}. Writing one of them down
// drops every entry that is a part of it, so the others that such an entry means are written down with it.
std::vector<std::wstring> VolumesMeantByLists(const MachineFacts& machine, const std::wstring& application)
{
    std::vector<std::wstring> volumes;
    for (const ApplicationFacts& facts : machine.applications) {
        if (facts.id != application)
            continue;
        for (const ListFacts* list : {&facts.pending, &facts.verify}) {
            for (const std::wstring& entry : list->entries)
                AddVolumesMeant(machine, entry, volumes);
        }
    }
    return volumes;
}

// Takes an entry off that is no {GUID} of this machine, after its place was taken by the {GUID}s of the volumes that it
// means. No command where a mark could go with it.
std::string ReplaceEntry(const MachineFacts& machine, const NamedList& list, const std::wstring& entry)
{
    if (list.application.empty() || machine.volumesError != ERROR_SUCCESS)
        return {};
    std::vector<std::wstring> meant;
    AddVolumesMeant(machine, entry, meant);
    if (meant.empty() && CanMeanVolume(entry))
        return {};
    std::vector<std::string> commands;
    if (!list.verify)
        commands.push_back(Replicate(list.application));
    bool dropped = false;
    if (!meant.empty()) {
        std::vector<std::wstring> arguments = VolumesMeantByLists(machine, list.application);
        dropped = std::any_of(arguments.begin(), arguments.end(),
                              [&](const std::wstring& guid) { return guid.find(entry) != std::wstring::npos; });
        arguments.insert(arguments.begin(), list.application);
        commands.push_back(MendCommand("verify add", arguments));
    }
    if (!dropped)
        commands.push_back(MendCommand("verify remove", {list.application, entry}, "--yes"));
    return InTurn(commands);
}

void CheckOddEntry(const MachineFacts& machine, const NamedList& list, const std::wstring& entry,
                   std::vector<Finding>& findings)
{
    std::string mend = ReplaceEntry(machine, list, entry);
    std::string consequence = list.application.empty()
                                  ? "It is handed to no application: if it means a volume, that volume's lost changes "
                                    "are not known to the next backup."
                                  : "It matches every volume whose name holds it, and no other.";
    if (mend.empty() && !list.application.empty())
        consequence += " Take it off only when it is certain that it means no volume.";
    findings.push_back({"list-entry-odd",
                        Severity::Damaged,
                        list.application,
                        {},
                        fmt::format("{} holds {}, which is no volume's {{GUID}}.", list.name, Quoted(entry)),
                        std::move(consequence),
                        std::move(mend)});
}

void CheckGuid(const MachineFacts& machine, const NamedList& list, const std::wstring& guid,
               std::vector<Finding>& findings)
{
    if (Contains(machine.volumeGuids, guid))
        return;
    if (IsOnMachine(machine, guid))
        findings.push_back(
            {"list-entry-odd", Severity::Damaged, list.application, guid,
             fmt::format("{} writes the volume {} in other case than the system.", list.name, Shown(guid)),
             "The library compares exactly, so it marks no volume: the next backup of the volume that "
             "it means can miss changes.",
             ReplaceEntry(machine, list, guid)});
    else if (machine.volumesError == ERROR_SUCCESS)
        findings.push_back(
            {"list-volume-gone",
             Severity::Note,
             list.application,
             guid,
             fmt::format("{} names the volume {}, which this machine does not have.", list.name, Shown(guid)),
             "No backup suffers; should the volume come back, its next backup must verify. Take it off (verify "
             "remove) only when the volume is gone for good.",
             {}});
}

void CheckEntry(const MachineFacts& machine, const NamedList& list, const std::wstring& entry,
                std::vector<Finding>& findings)
{
    const std::optional<std::wstring> guid = toolkit::ParseVolumeGuid(entry);
    if (guid && *guid == entry)
        CheckGuid(machine, list, entry, findings);
    else
        CheckOddEntry(machine, list, entry, findings);
    for (const std::wstring& other : list.facts.entries) {
        if (other == entry || other.find(entry) == std::wstring::npos)
            continue;
        const bool otherIsGuid = toolkit::ParseVolumeGuid(other) == other;
        findings.push_back({"list-entry-hidden", Severity::Damaged, list.application, guid ? *guid : std::wstring(),
                            fmt::format("{} holds {} as a part of {}: merging takes the one for the other.", list.name,
                                        Quoted(entry), Quoted(other)),
                            "The volume of the shorter entry can drop out of the list, and its next backup then "
                            "misses what was lost.",
                            ReplaceEntry(machine, list, otherIsGuid ? entry : other)});
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

// Whoever replicates hands the driver's list to every application.
std::string ReplicateAny(const MachineFacts& machine)
{
    for (const ApplicationFacts& application : machine.applications) {
        if (std::string command = Replicate(application.id); !command.empty())
            return command;
    }
    return {};
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
             fmt::format("{} names {}. {}.", list.name, Shown(*guid), whose + (list.application.empty() ? "" : " it")),
             "The next backup must verify; an application that does not replicate its list first misses changes. Do not "
             "replicate while a backup of the application runs: its success takes the mark off.",
             list.application.empty() ? ReplicateAny(machine) : Replicate(list.application)});
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
                            "The library takes its bytes for a list all the same: whom it serves is not certain. "
                            "Write it anew as REG_MULTI_SZ with the IDs that it held. Do not just delete it: who "
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

void CheckLists(const MachineFacts& machine, std::vector<Finding>& findings)
{
    // Against the way that a volume goes: what is merged into a list drops entries of it that are parts of others, so
    // the odd ones have to be mended before anything comes in.
    for (const ApplicationFacts& application : machine.applications)
        CheckList(machine, {application.verify, application.id, "The verify list of " + Quoted(application.id), true},
                  findings);
    for (const ApplicationFacts& application : machine.applications) {
        const NamedList pending{application.pending, application.id, "The pending list of " + Quoted(application.id),
                                false};
        CheckList(machine, pending, findings);
        CheckWaiting(machine, pending, findings);
    }
    const NamedList driver{machine.driverList, {}, "The driver's list", false};
    CheckList(machine, driver, findings);
    CheckWaiting(machine, driver, findings);
    // Without the list of applications every list would belong to nobody.
    if (machine.applicationsError != ERROR_SUCCESS)
        return;
    for (const std::wstring& suffix : machine.foreignLists)
        findings.push_back(
            {"list-orphaned",
             Severity::Note,
             {},
             {},
             fmt::format("The list DeviceListForReSync{} belongs to no registered application.", Shown(suffix)),
             "No backup suffers. A verify list that stays behind keeps whoever registers under the ID "
             "again from trusting old backups.",
             {}});
}

} // namespace vtfltctl
