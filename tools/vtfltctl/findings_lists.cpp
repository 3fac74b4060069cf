// Checks of the lists of volumes.
#include "common/text.h"
#include "common/volume_name.h"
#include "findings_parts.h"
#include "list_entry.h"
#include "output.h"
#include "volume_lists.h"

#include "apps/resync_lists.h"
#include "apps/resync_text.h"
#include "apps/volume_name.h"

#include <fmt/format.h>

#include <algorithm>

namespace vtfltctl {
namespace {

bool IsOnMachine(const MachineFacts& machine, const std::wstring& guid)
{
    return std::any_of(machine.volumeGuids.begin(), machine.volumeGuids.end(),
                       [&](const std::wstring& known) { return toolkit::EqualIgnoringCase(known, guid); });
}

// One list: where it belongs, how it is called, and whether it is a verify list.
struct NamedList {
    const ListFacts& facts;
    std::wstring application; // empty: the driver's
    std::string name;
    bool verify;
};

// Nothing for an application whose pending list is another one's verify list: handing that on would take the other
// one's marks off.
Mend Replicate(const std::wstring& application)
{
    if (application.empty() || PendsInVerifyList(application))
        return {};
    return {{"verify replicate", {application}, {}}};
}

MendStep AddVolumes(const std::wstring& application, const std::vector<std::wstring>& volumes)
{
    MendStep step{"verify add", {application}, {}};
    step.arguments.insert(step.arguments.end(), volumes.begin(), volumes.end());
    return step;
}

// The volumes that an application's verify list does not name by their {GUID}s. While it hides an entry all of them: adding
// puts its entries in an order in which none is hidden.
std::vector<std::wstring> Unlisted(const ApplicationFacts& application, std::vector<std::wstring> volumes)
{
    if (AnyHidden(application.verify.entries))
        return volumes;
    std::erase_if(volumes, [&](const std::wstring& guid) { return Contains(application.verify.entries, guid); });
    return volumes;
}

// What the driver's list means by an entry goes to every application: the library hands it over never, or as it is.
Mend AddForAll(const MachineFacts& machine, const std::vector<std::wstring>& volumes)
{
    Mend mend;
    for (const ApplicationFacts& application : machine.applications) {
        const std::vector<std::wstring> unlisted = Unlisted(application, volumes);
        if (!application.id.empty() && !unlisted.empty())
            mend.push_back(AddVolumes(application.id, unlisted));
    }
    return mend;
}

// What stands behind the separator would be lost.
bool CannotBeWritten(const std::wstring& entry)
{
    return entry.find(ENTRY_SEPARATOR) != std::wstring::npos;
}

// The volumes that an entry means come onto the verify list by their {GUID}s. The entry itself goes, exactly as it stands
// and behind that, when it is certain that it means nothing else.
Mend ReplaceEntry(const MachineFacts& machine, const NamedList& list, const std::wstring& entry)
{
    // The command line takes brackets for a list of arguments.
    const bool bracketed = entry.starts_with(L'[') && entry.ends_with(L']');
    if (machine.volumesError != ERROR_SUCCESS || bracketed ||
        std::any_of(list.facts.entries.begin(), list.facts.entries.end(), CannotBeWritten))
        return {};
    const Meaning meaning = MeaningOf(entry, machine.volumeGuids);
    if (list.application.empty())
        return AddForAll(machine, meaning.volumes);
    const auto owner = std::find_if(machine.applications.begin(), machine.applications.end(),
                                    [&](const ApplicationFacts& facts) { return facts.id == list.application; });
    if (owner == machine.applications.end() || (!list.verify && PendsInVerifyList(list.application)))
        return {};
    if (!meaning.whole) {
        const std::vector<std::wstring> unlisted = Unlisted(*owner, meaning.volumes);
        return unlisted.empty() ? Mend() : Mend{AddVolumes(list.application, unlisted)};
    }
    Mend mend;
    if (!meaning.volumes.empty())
        mend.push_back(AddVolumes(list.application, meaning.volumes));
    mend.push_back(
        {"verify remove", {list.application, entry}, list.verify ? "--exact --yes" : "--pending --exact --yes"});
    return mend;
}

std::string WhatBecomesOf(const NamedList& list, const std::wstring& entry)
{
    if (entry.find(ENTRY_SEPARATOR) != std::wstring::npos)
        return "With \"*\" in it, what stands behind it is lost as soon as the library writes the list. Put the volumes "
               "that the list means on the verify list, and take the entry off by hand.";
    if (!list.application.empty())
        return std::string("It matches every volume whose name holds it, and no other, and drops shorter entries that "
                           "stand in it when the list is handed on.") +
               (list.verify ? " The next successful backup of one of them takes it off for all." : "");
    return vtflt::IsBracedGuid(entry)
               ? "It is handed to every application as it stands, marks nothing there, and drops the marks of volumes "
                 "that stand in it. Write the list anew by hand, a {GUID} for each volume, before the next backup."
               : "It is handed to no application: if it means a volume, that volume's lost changes are not known to the "
                 "next backup.";
}

void CheckOddEntry(const MachineFacts& machine, const NamedList& list, const std::wstring& entry,
                   std::vector<Finding>& findings)
{
    Mend mend = ReplaceEntry(machine, list, entry);
    std::string consequence = WhatBecomesOf(list, entry);
    const bool goes = !mend.empty() && mend.back().command == "verify remove";
    if (!goes && !list.application.empty())
        consequence +=
            fmt::format(" Take it off (verify remove {}--exact) only when it is certain that it means no other "
                        "volume.",
                        list.verify ? "" : "--pending ");
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
             std::string("The library compares exactly, so it marks no volume: the next backup of the volume that "
                         "it means can miss changes.") +
                 (list.application.empty() ? " It is handed on as it stands. Write the list anew by hand, each {GUID} "
                                             "as the system spells it, before the next backup."
                                           : ""),
             ReplaceEntry(machine, list, guid)});
    else if (machine.volumesError == ERROR_SUCCESS)
        findings.push_back(
            {"list-volume-gone",
             Severity::Note,
             list.application,
             guid,
             fmt::format("{} names the volume {}, which this machine does not have.", list.name, Shown(guid)),
             fmt::format(
                 "No backup suffers; should the volume come back, its next backup must verify. Take it off ({}) "
                 "only when the volume is gone for good.",
                 list.application.empty() ? "in the registry"
                 : list.verify            ? "verify remove"
                                          : "verify remove --pending"),
             {}});
}

const char* WayOutOfHiding(const NamedList& list)
{
    if (list.application.empty())
        return "";
    return list.verify
               ? " Any \"vtfltctl verify add\" for the application puts shorter entries in front, where they stay until "
                 "the longer one is merged in again."
               : " When the volumes of both are on the verify list, take the longer one off (verify remove --pending "
                 "--exact), while no backup runs; for a volume that is away write the list by hand.";
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
                            std::string("The volume of the shorter entry can drop out of the list, and its next backup "
                                        "then misses what was lost.") +
                                WayOutOfHiding(list),
                            ReplaceEntry(machine, list, otherIsGuid ? entry : other)});
    }
}

// Nobody would take over what the driver's list names.
bool IsForNobody(const MachineFacts& machine, const NamedList& list)
{
    return list.application.empty() && machine.applicationsError == ERROR_SUCCESS &&
           std::all_of(machine.applications.begin(), machine.applications.end(),
                       [](const ApplicationFacts& application) { return application.id.empty(); });
}

void CheckDamagedList(const MachineFacts& machine, const NamedList& list, std::vector<Finding>& findings)
{
    if (list.facts.error != ERROR_INVALID_DATA) {
        findings.push_back({"list-unreadable",
                            Severity::Unknown,
                            list.application,
                            {},
                            fmt::format("{} cannot be read: {}.", list.name, ErrorText(list.facts.error)),
                            "Which volumes it names is not known.",
                            {}});
        return;
    }
    const bool forNobody = IsForNobody(machine, list);
    const char* const consequence =
        forNobody         ? "No application is registered that could take over what it names: leave it until one is."
        : list.facts.tail ? "The volumes that stand there are not marked, and drop out when the list is next written."
        : list.verify     ? "Every next backup of the application must verify."
                      : "Volumes that lost tracking are handed to nobody, and their next backups miss what was lost.";
    findings.push_back({"list-damaged",
                        Severity::Damaged,
                        list.application,
                        {},
                        fmt::format("{} {}.", list.name, WhyDamaged(list.facts)),
                        consequence,
                        forNobody ? Mend() : Mend{{"verify rebuild", {}, "--yes"}}});
}

void CheckList(const MachineFacts& machine, const NamedList& list, std::vector<Finding>& findings)
{
    if (list.facts.error != ERROR_SUCCESS) {
        CheckDamagedList(machine, list, findings);
        return;
    }
    for (const std::wstring& entry : list.facts.entries)
        CheckEntry(machine, list, entry, findings);
}

// Of the driver's list: an entry that "verify replicate" refuses to hand to everybody, and that no command takes off.
bool HoldsWhatIsNotHandedOut(const MachineFacts& machine)
{
    std::vector<std::wstring> handedOut;
    std::vector<std::wstring> kept;
    vtflt::SplitDriverList(machine.driverList.entries, handedOut, kept);
    if (handedOut.empty())
        return false;
    if (std::any_of(machine.driverList.entries.begin(), machine.driverList.entries.end(), CannotBeWritten))
        return true;
    return std::any_of(handedOut.begin(), handedOut.end(), [&](const std::wstring& entry) {
        return toolkit::ParseVolumeGuid(entry) != entry ||
               (!Contains(machine.volumeGuids, entry) && IsOnMachine(machine, entry));
    });
}

// Whoever replicates hands the driver's list to every application.
Mend ReplicateAny(const MachineFacts& machine)
{
    for (const ApplicationFacts& application : machine.applications) {
        if (Mend mend = Replicate(application.id); !mend.empty() && !WrittenMend(mend, {}).empty())
            return mend;
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
        // Any other entry has a finding of its own, and is handed over as it stands, or never.
        const bool exact = Contains(machine.volumeGuids, entry);
        // Whoever replicates is handed the driver's list, too.
        const Mend mend = HoldsWhatIsNotHandedOut(machine) ? Mend()
                          : list.application.empty()       ? ReplicateAny(machine)
                                                           : Replicate(list.application);
        findings.push_back(
            {list.application.empty() ? "lost-tracking" : "list-pending", Severity::Verify, list.application, *guid,
             fmt::format("{} names {}. {}.", list.name, Shown(*guid), whose + (list.application.empty() ? "" : " it")),
             "The next backup must verify; an application that does not replicate its list first misses changes. Do not "
             "replicate while a backup of the application runs: its success takes the mark off.",
             exact ? mend : Mend()});
    }
}

} // namespace

void CheckLists(const MachineFacts& machine, std::vector<Finding>& findings)
{
    // An empty ID has the driver's list for its pending one.
    std::vector<NamedList> verify;
    std::vector<NamedList> waiting;
    for (const ApplicationFacts& application : machine.applications) {
        if (application.id.empty())
            continue;
        verify.push_back({application.verify, application.id, "The verify list of " + Quoted(application.id), true});
        waiting.push_back(
            {application.pending, application.id, "The pending list of " + Quoted(application.id), false});
    }
    waiting.push_back({machine.driverList, {}, "The driver's list", false});
    // Against the way that a volume goes: what is merged into a list drops entries of it that are parts of others, so
    // all the odd ones have to be mended before anything comes in.
    for (const std::vector<NamedList>* lists : {&verify, &waiting}) {
        for (const NamedList& list : *lists)
            CheckList(machine, list, findings);
    }
    for (const NamedList& list : waiting)
        CheckWaiting(machine, list, findings);
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
