#include "commands.h"

#include "audit_output.h"
#include "common/class_lock.h"
#include "console.h"
#include "cycle.h"
#include "file.h"
#include "library.h"
#include "machine.h"
#include "report/page.h"
#include "report_figures.h"
#include "repository.h"
#include "restore.h"
#include "text.h"
#include "verify.h"

#include <vtfltmgr/VTFltMgr.h>

#include <fmt/format.h>

namespace vtbackup {
namespace {

using nlohmann::json;

Machine MachineOf(const Options& options)
{
    return Machine(ToWide(options.simulate), ToWide(options.snapshotCreate), ToWide(options.snapshotDelete));
}

std::string ReasonCodes(const Manifest& manifest)
{
    std::string text;
    for (const Reason& reason : manifest.reasons)
        text += (text.empty() ? "" : ", ") + reason.code;
    return text;
}

std::optional<VolumeName> VolumeOf(const Options& options)
{
    if (options.volume.empty())
        return std::nullopt;
    return ResolveVolumeName(ToWide(options.volume));
}

// ---- init

void SwitchMonitoring(const Machine& machine, const Options& options, bool on)
{
    if (options.noMonitor)
        return;
    // The library counts the requests: two of these at once would count twice and note it once.
    const std::wstring application = ToWide(options.application);
    const Lock lock(machine.Locks().Application(application), {application, {}, L"monitoring"},
                    fmt::format("application \"{}\"", options.application));
    if (machine.State().AskedForMonitoring(options.application) == on)
        return;
    // From one look at the count to the other: another application's request in between would be taken for this one's, or
    // hide it.
    const toolkit::ClassLock count(L"{533C5B84-EC70-11D2-9505-00C04F79DEAF}");
    if (count.Error() == ERROR_TIMEOUT)
        throw Failure(Exit::Busy, "another program switches the tracking of snapshots");
    if (count.Error() != 0)
        throw Failure(Exit::Device, fmt::format("cannot lock the count of requests for the tracking of snapshots: {}",
                                                ErrorText(count.Error())));
    // A run that is killed in between leaves one request too many, which costs little. One too few would end the tracking
    // of another application's snapshots.
    if (!on)
        machine.State().NoteMonitoring(options.application, false);
    const std::vector<std::uint8_t> before = StoredMonitoringCount();
    const DWORD result = on ? VTFltEnableMonitorForSnapshot(nullptr) : VTFltDisableMonitorForSnapshot(nullptr);
    // While the driver is silent the library says 0 and counts nothing. Where nobody ever asked, nothing is taken back.
    const bool silent = result == 0 && (on || !before.empty()) && StoredMonitoringCount() == before;
    if ((result == 0) == on && !silent)
        machine.State().NoteMonitoring(options.application, true);
    if (silent)
        throw Failure(
            Exit::DriverDown,
            on ? "the driver was silent while the tracking of snapshots was asked for, and the request was not "
                 "counted; run \"vtbackup init\" again"
               : "the driver was silent while the request for the tracking of snapshots was taken back, so it "
                 "seems to stand, which costs little; run \"vtbackup init --undo\" again for the rest");
    if (result != 0)
        throw Failure(Exit::Device, fmt::format("switching the tracking of snapshots {} failed: {}", on ? "on" : "off",
                                                ErrorText(result)));
}

Exit Init(const Options& options)
{
    const Machine machine = MachineOf(options);
    const std::wstring application = ToWide(options.application);
    CheckApplicationId(application);
    RequireDriver();
    std::string id;
    // For the whole of it: one volume that is busy would otherwise end it half done, with the request taken back or the
    // application gone.
    std::vector<Lock> locks;
    if (options.undo || options.reset)
        locks = LockEverything(machine, application, options.undo ? L"init --undo" : L"init --reset");
    if (options.undo) {
        // In this order a run that was killed in between can be repeated: once the application is gone, another
        // attempt would be refused before it took the request back.
        SwitchMonitoring(machine, options, false);
        UnregisterApplication(machine, application);
    } else {
        id = Repository::Create(ToWide(options.repository)).Id();
        if (options.reset && IsRegistered(application))
            UnregisterApplication(machine, application);
        RegisterApplication(machine, application);
        SwitchMonitoring(machine, options, true);
    }
    if (options.json)
        PrintJson({{"result", "ok"},
                   {"application", options.application},
                   {"repository", id},
                   {"registered", !options.undo}});
    else
        PrintLine(options.undo ? fmt::format("application \"{}\" is no longer registered", options.application)
                               : fmt::format("application \"{}\" is registered, repository {}", options.application,
                                             options.repository));
    return Exit::Ok;
}

// ---- backup

Exit Backup(const Options& options)
{
    const Machine machine = MachineOf(options);
    static_cast<void>(machine.Snapshots()); // before anything else happens
    const Repository repository = Repository::Open(ToWide(options.repository));
    BackupRequest request;
    request.application = ToWide(options.application);
    request.volume = ResolveVolumeName(ToWide(options.volume));
    request.full = options.full;
    request.verify = options.verify;
    request.registerFirst = options.registerFirst;
    request.audit = options.audit;
    request.keepSnapshot = options.keepSnapshot;
    const Chain chain = repository.ChainOf(request.application, request.volume);
    BackupResult result;
    try {
        result = RunBackup(machine, repository, request);
    } catch (const LostTracking& loss) {
        const Exit code = PrintLoss(loss, options.json);
        NoteSaid(machine, chain, {loss.Once()});
        return code;
    }
    const Manifest& m = result.manifest;
    const std::string& notMarked = result.losses.text;
    const Exit code = !notMarked.empty() ? Exit::NotMarked : !result.notReported.empty() ? Exit::NotReported : Exit::Ok;
    if (options.json) {
        json object = {{"result", OutcomeName(code)},
                       {"backup", ToJson(m)},
                       {"reported", result.notReported.empty()},
                       {"snapshotChanges", result.snapshotChanges}};
        if (!result.snapshotNote.empty())
            object["snapshotNote"] = result.snapshotNote;
        if (code != Exit::Ok)
            object["message"] = code == Exit::NotMarked ? notMarked : result.notReported;
        if (!result.notReported.empty())
            object["notReported"] = result.notReported;
        if (m.audit)
            object["audit"] = AuditJson(m);
        if (options.keepSnapshot) {
            object["snapshotDevice"] = result.snapshotDevice;
            object["snapshotId"] = result.snapshotId;
        }
        PrintJson(object);
    } else {
        PrintLine(fmt::format("backup {} of {}: {}{}", m.sequence, m.volume, KindName(m.kind),
                              m.reasons.empty() ? "" : " (" + ReasonCodes(m) + ")"));
        for (const Reason& reason : m.reasons)
            PrintLine(fmt::format("  {}: {}", reason.code, reason.text));
        PrintLine(fmt::format("  {} blocks stored, {} zero, {} read of {}", m.blocksStored, m.blocksZero,
                              BytesText(m.bytesRead), BytesText(m.geometry.length)));
        if (m.audit)
            PrintLine(fmt::format("  audit: {}", AuditText(m)));
        if (options.keepSnapshot)
            PrintLine(fmt::format("  snapshot {}", result.snapshotDevice));
    }
    if (code == Exit::NotMarked)
        Diagnose(fmt::format("backup {} is stored, but after the loss of tracking that an audit found, not everybody "
                             "knows of it: {}; do not trust an incremental backup of such an application",
                             m.sequence, notMarked));
    if (!result.snapshotNote.empty())
        Diagnose(result.snapshotNote);
    if (!result.notReported.empty())
        Diagnose(
            fmt::format("backup {} is stored, but its success was not reported: {}", m.sequence, result.notReported));
    NoteSaid(machine, chain, result.losses.once);
    return code;
}

// ---- restore

Exit RestoreCommand(const Options& options)
{
    const Machine machine = MachineOf(options);
    const Repository repository = Repository::Open(ToWide(options.repository));
    const Chain chain = repository.ChainOf(ToWide(options.application), ResolveVolumeName(ToWide(options.volume)));
    const RestoreResult result =
        Restore(machine, repository, chain, {options.backup, ToWide(options.to), options.overwrite});
    if (options.json)
        PrintJson({{"result", "ok"},
                   {"backup", result.sequence},
                   {"volumeLength", result.volumeLength},
                   {"bytesWritten", result.bytesWritten}});
    else
        PrintLine(fmt::format("backup {} restored to {}: {} written of {}", result.sequence, options.to,
                              BytesText(result.bytesWritten), BytesText(result.volumeLength)));
    // Its bitmap files and what they say of the volume are as old as the backup.
    if (result.ontoVolume)
        Diagnose(
            fmt::format("the bitmaps on volume {} are those of the backup now: the next backup of it has to be made "
                        "with --verify, for each application",
                        options.to));
    return Exit::Ok;
}

// ---- verify, list

struct FoundChains {
    std::vector<Chain> chains;
    std::vector<std::string> problems; // of chains that do not say whose they are, which may be any
};

FoundChains ChainsOf(const Options& options, const Repository& repository)
{
    const std::optional<VolumeName> volume = VolumeOf(options);
    FoundChains found;
    found.chains = repository.Chains(ToWide(options.application), volume ? &*volume : nullptr, found.problems);
    if (found.chains.empty() && found.problems.empty() && (volume || !options.application.empty()))
        throw Failure(Exit::NotFound, "the repository holds no such chain");
    for (const std::string& problem : found.problems)
        Diagnose(problem);
    return found;
}

Exit Verify(const Options& options)
{
    const Machine machine = MachineOf(options);
    const Repository repository = Repository::Open(ToWide(options.repository));
    json list = json::array();
    const FoundChains found = ChainsOf(options, repository);
    bool good = found.problems.empty();
    for (const Chain& chain : found.chains) {
        const ChainCheck check = CheckChain(chain);
        good = good && check.Good();
        const std::string volume = ToUtf8(chain.Volume().guid);
        json backups = json::array();
        for (const CheckedBackup& backup : check.backups) {
            backups.push_back(
                {{"backup", backup.sequence}, {"good", backup.problem.empty()}, {"problem", backup.problem}});
            if (!backup.problem.empty())
                Diagnose(fmt::format("backup {} of {} for \"{}\": {}", backup.sequence, volume, chain.Application(),
                                     backup.problem));
        }
        list.push_back({{"application", chain.Application()},
                        {"volume", volume},
                        {"backups", backups},
                        {"blocks", check.blocks},
                        {"bytes", check.bytes}});
        if (!options.json)
            PrintLine(fmt::format("{} {}: {} backups, {} blocks, {} checked: {}", chain.Application(), volume,
                                  check.backups.size(), check.blocks, BytesText(check.bytes),
                                  check.Good() ? "good" : "DAMAGED"));
    }
    const Exit code = good ? Exit::Ok : Exit::Damaged;
    json object = {{"result", OutcomeName(code)}, {"chains", list}, {"problems", found.problems}};
    if (found.chains.empty() && good) {
        const std::string nothing = "the repository holds no chain: there was no backup to check";
        object["message"] = nothing;
        Diagnose(nothing);
    }
    if (options.json)
        PrintJson(object);
    return code;
}

Exit List(const Options& options)
{
    const Machine machine = MachineOf(options);
    const Repository repository = Repository::Open(ToWide(options.repository));
    json list = json::array();
    const FoundChains found = ChainsOf(options, repository);
    bool good = found.problems.empty();
    for (const Chain& chain : found.chains) {
        json backups = json::array();
        if (!options.json)
            PrintLine(fmt::format("{} {}", chain.Application(), ToUtf8(chain.Volume().guid)));
        for (const std::uint64_t sequence : chain.Folders()) {
            try {
                const Manifest m = chain.ReadManifest(sequence);
                const bool reported = chain.WasReported(sequence);
                json object = ToJson(m);
                object["reported"] = reported;
                backups.push_back(std::move(object));
                if (!options.json)
                    PrintLine(fmt::format("  {:>6}  {}  {:<11}  {:>10} stored  {}{}", sequence, m.time,
                                          KindName(m.kind), BytesText(m.dataLength), ReasonCodes(m),
                                          reported ? "" : " [success not reported]"));
            } catch (const Failure& failure) {
                if (failure.Code() == Exit::NotFound)
                    continue; // what an ended run left
                if (failure.Code() != Exit::Damaged)
                    throw;
                good = false;
                backups.push_back({{"sequence", sequence}, {"damaged", failure.what()}});
                Diagnose(failure.what());
            }
        }
        json losses = json::array();
        for (const std::uint64_t sequence : chain.Losses()) {
            losses.push_back(ReadLoss(chain, sequence));
            if (!options.json)
                PrintLine(fmt::format("  {}", LossLine(losses.back())));
        }
        list.push_back({{"application", chain.Application()},
                        {"volume", ToUtf8(chain.Volume().guid)},
                        {"backups", backups},
                        {"lostTracking", losses}});
    }
    const Exit code = good ? Exit::Ok : Exit::Damaged;
    if (options.json)
        PrintJson({{"result", OutcomeName(code)},
                   {"repository", repository.Id()},
                   {"chains", list},
                   {"problems", found.problems}});
    return code;
}

// ---- report

void WritePage(const std::wstring& file, const std::string& page, Existing existing)
{
    const std::wstring temporary = file + L".tmp";
    if (existing == Existing::Refuse && AnythingExists(temporary))
        throw Failure(Exit::Usage,
                      fmt::format("{} exists already: a report that was killed left it, unless it is another "
                                  "file of yours; delete it, or add --overwrite",
                                  ToUtf8(temporary)));
    WriteSmallFileDurably(file, page, existing);
}

// All that is wrong, after it was said.
std::vector<std::string> ProblemsOf(const Report& report)
{
    std::vector<std::string> problems = report.problems; // said when they were found
    for (const ReportChain& chain : report.chains) {
        for (const ReportBackup& backup : chain.backups) {
            if (backup.problem.empty())
                continue;
            problems.push_back(fmt::format("backup {} of {} for \"{}\": {}", backup.sequence, chain.volume,
                                           chain.application, backup.problem));
            Diagnose(problems.back());
        }
    }
    return problems;
}

Exit ReportCommand(const Options& options)
{
    const bool toOutput = options.html == "-";
    if (toOutput && options.json)
        throw Failure(Exit::Usage, "--json and the page cannot both go to standard output");
    const Machine machine = MachineOf(options);
    const Repository repository = Repository::Open(ToWide(options.repository));
    const std::wstring file = toOutput ? std::wstring() : AbsolutePath(ToWide(options.html));
    const Existing existing = options.overwrite ? Existing::Replace : Existing::Refuse;
    if (!toOutput && existing == Existing::Refuse && AnythingExists(file))
        RefuseExisting(ToWide(options.html));
    const FoundChains found = ChainsOf(options, repository);
    Report report{repository.Id(), options.repository, {}, found.problems};
    for (const Chain& chain : found.chains)
        report.chains.push_back(CollectFigures(chain));
    if (!toOutput)
        WritePage(file, ReportPage(report), existing);
    else if (!PrintExactly(ReportPage(report)))
        throw Failure(Exit::Repository, "the page could not be written to standard output");

    const std::vector<std::string> problems = ProblemsOf(report);
    const Exit code = problems.empty() ? Exit::Ok : Exit::Damaged;
    const ReportTotals totals = TotalsOf(report);
    if (options.json)
        PrintJson({{"result", OutcomeName(code)},
                   {"file", options.html},
                   {"chains", report.chains.size()},
                   {"backups", totals.Backups()},
                   {"bytesStored", totals.bytesStored},
                   {"bytesSaved", totals.saved},
                   {"problems", problems}});
    else if (!toOutput)
        PrintLine(fmt::format("{}: {} backups, {} stored, {} saved against full backups", options.html,
                              totals.Backups(), BytesText(totals.bytesStored), BytesText(totals.saved)));
    return code;
}

} // namespace

Exit RunCommand(const Options& options)
{
    if (options.command == "init")
        return Init(options);
    if (options.command == "backup")
        return Backup(options);
    if (options.command == "restore")
        return RestoreCommand(options);
    if (options.command == "verify")
        return Verify(options);
    if (options.command == "report")
        return ReportCommand(options);
    return List(options);
}

} // namespace vtbackup
