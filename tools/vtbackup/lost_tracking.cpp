#include "lost_tracking.h"

#include "file.h"
#include "library.h"
#include "manifest.h"
#include "text.h"

#include <vtfltmgr/VTFltMgr.h>

#include <fmt/format.h>

#include <algorithm>
#include <new>

namespace vtbackup {
namespace {

using nlohmann::json;

constexpr const char* FORMAT = "vtbackup-lost-tracking";
constexpr std::uint64_t LIMIT = 1024 * 1024;

// Puts every fixed volume on one application's verify list and looks whether this volume is there. Returns why it may
// not be, or stay, there.
std::string MarkOne(const Machine& machine, const std::wstring& id, const std::wstring& own, const VolumeName& volume)
{
    // A backup of that application, of another volume, writes its verify list back when it ends, and a mark set
    // meanwhile may get lost. It is set all the same; but it is not relied on.
    std::optional<Lock> lock;
    std::string busy;
    if (id != own) {
        try {
            lock.emplace(machine.Locks().Application(id), LockPurpose{id, volume.guid, L"mark"},
                         fmt::format("application \"{}\"", ToUtf8(id)));
        } catch (const Failure& failure) {
            busy = fmt::format("the mark is set, but may be taken off again: {}", failure.what());
        }
    }
    if (const DWORD result = VTAddVolumesToAppVerifyList(id.c_str()); result != 0)
        return fmt::format("VTAddVolumesToAppVerifyList failed: {}", ErrorText(result));
    // 0 is the answer of a driver that is down as well, and volumes that are not fixed are left out.
    if (VTCanBLIDriverWork() == 0)
        return "the driver went down";
    if (VTIsVerifyRequired(id.c_str(), volume.Path().c_str()) == 0)
        return "the volume is not on its verify list";
    return busy;
}

// The driver keeps one bitmap for all applications: what it missed is missing in each one's. The library's export
// marks all fixed volumes or none, which suits the case: a driver that missed a write on one volume is not to be
// believed on the others. done: applications that are marked already.
Marking MarkApplications(const Machine& machine, const Chain& chain, std::vector<std::string> done)
{
    const std::wstring own = ToWide(chain.Application());
    Marking marking{std::move(done), {}};
    std::vector<std::wstring> ids = {own};
    std::string separator;
    const auto addProblem = [&](const std::string& text) {
        marking.problem += separator + text;
        separator = "; ";
    };
    try {
        for (std::wstring& id : RegisteredApplications()) {
            if (id != own)
                ids.push_back(std::move(id));
        }
    } catch (const Failure& failure) {
        addProblem(fmt::format("which applications there are is not known: {}", failure.what()));
    }
    for (const std::wstring& id : ids) {
        const std::string name = ToUtf8(id);
        if (std::find(marking.marked.begin(), marking.marked.end(), name) != marking.marked.end())
            continue;
        const std::string problem = MarkOne(machine, id, own, chain.Volume());
        if (problem.empty())
            marking.marked.push_back(name);
        else
            addProblem(fmt::format("application \"{}\": {}", name, problem));
    }
    return marking;
}

json ToJson(const std::vector<MissedBlock>& blocks)
{
    json list = json::array();
    for (const MissedBlock& b : blocks)
        list.push_back({{"block", b.block},
                        {"offset", b.offset},
                        {"length", b.length},
                        {"expected", b.expected},
                        {"backup", b.backup},
                        {"found", b.found}});
    return list;
}

void AddMarking(json& evidence, const Marking& marking)
{
    evidence["marked"] = marking.marked;
    evidence["allMarked"] = marking.problem.empty();
    if (marking.problem.empty())
        evidence.erase("notMarked");
    else
        evidence["notMarked"] = marking.problem;
}

std::string FileText(const json& evidence)
{
    return evidence.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::vector<std::string> MarkedOf(const json& evidence)
{
    std::vector<std::string> ids;
    const auto marked = evidence.find("marked");
    if (marked == evidence.end() || !marked->is_array())
        return ids;
    for (const json& id : *marked) {
        if (id.is_string())
            ids.push_back(id.get<std::string>());
    }
    return ids;
}

} // namespace

LossReport::LossReport(const Machine& machine, const Chain& chain, std::uint64_t sequence, std::string time)
    : m_machine(machine), m_chain(chain), m_sequence(sequence),
      m_time(std::move(time)), m_marking{{}, "the marks are not set yet"}
{
}

void LossReport::Keep(const AuditResult& audit)
{
    m_evidence = {{"format", FORMAT},
                  {"version", 1},
                  {"application", m_chain.Application()},
                  {"volume", ToUtf8(m_chain.Volume().guid)},
                  {"backup", m_sequence},
                  {"time", m_time},
                  {"requested", audit.counts.requested},
                  {"clean", audit.counts.clean},
                  {"compared", audit.counts.compared},
                  {"differing", audit.differing},
                  {"endedEarly", audit.endedEarly},
                  {"doubt", audit.doubt},
                  {"blocks", ToJson(audit.missed)}};
    AddMarking(m_evidence, m_marking);
    try {
        WriteSmallFileDurably(m_chain.LossPath(m_sequence), FileText(m_evidence));
        m_notKept.clear();
    } catch (const Failure& failure) {
        m_notKept = failure.what(); // the marks matter more
    }
}

void LossReport::Found(const AuditResult& audit)
{
    Keep(audit);
    m_marking = MarkApplications(m_machine, m_chain, {});
    Keep(audit);
}

void LossReport::Fail(const AuditResult& audit)
{
    Keep(audit);
    const bool marked = m_marking.problem.empty();
    std::string message = fmt::format(
        "lost tracking: {} of {} clean blocks that were read again are not what the repository says, and the bitmap "
        "does not report them; backup {} was not made. ",
        audit.differing, audit.counts.compared, m_sequence);
    if (!audit.endedEarly.empty())
        message += fmt::format("The audit ended early: {}. ", audit.endedEarly);
    if (!audit.doubt.empty())
        message += fmt::format("Another cause cannot be excluded: {}. ", audit.doubt);
    if (!m_marking.marked.empty())
        message += fmt::format("All fixed volumes are on the verify list of {}. ", fmt::join(m_marking.marked, ", "));
    if (!marked)
        message += fmt::format("NOT MARKED: {}; do not trust an incremental backup of such an application. ",
                               m_marking.problem);
    if (m_notKept.empty())
        message += fmt::format("The next backup reads the whole volume; the evidence is in {}",
                               ToUtf8(m_chain.LossPath(m_sequence)));
    else
        message += fmt::format("The evidence could not be kept: {}; make the next backup with --verify", m_notKept);
    throw LostTracking(marked ? Exit::LostTracking : Exit::NotMarked, message, m_evidence);
}

std::optional<Reason> OpenLoss(const Chain& chain, std::uint64_t lastBackup)
{
    const std::vector<std::uint64_t> losses = chain.Losses();
    if (losses.empty() || losses.back() <= lastBackup)
        return std::nullopt;
    return reason::AuditFoundLoss(fmt::format("the audit before this backup found changes that the bitmap did not "
                                              "report: {}",
                                              ToUtf8(chain.LossPath(losses.back()))));
}

json ReadLoss(const Chain& chain, std::uint64_t sequence)
{
    std::string problem = "it is no JSON object";
    try {
        const std::optional<std::string> text = ReadSmallFile(chain.LossPath(sequence), LIMIT);
        json evidence = ParseShallow(text.value_or(""));
        if (evidence.is_object())
            return evidence;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const Failure& failure) {
        problem = failure.what();
    } catch (const std::exception&) {
        // The parser's message quotes what is damaged, and says no more.
    }
    return {{"format", FORMAT}, {"version", 1}, {"backup", sequence}, {"damaged", problem}};
}

std::string MarkForEarlierLosses(const Machine& machine, const Chain& chain)
{
    std::string owed;
    for (const std::uint64_t sequence : chain.Losses()) {
        json evidence = ReadLoss(chain, sequence);
        const auto allMarked = evidence.find("allMarked");
        if (allMarked != evidence.end() && *allMarked == true)
            continue;
        const Marking marking = MarkApplications(machine, chain, MarkedOf(evidence));
        AddMarking(evidence, marking);
        try {
            WriteSmallFileDurably(chain.LossPath(sequence), FileText(evidence));
        } catch (const Failure& failure) {
            owed = failure.what(); // the marks will be set once more
        }
        if (!marking.problem.empty())
            owed = marking.problem;
    }
    return owed;
}

} // namespace vtbackup
