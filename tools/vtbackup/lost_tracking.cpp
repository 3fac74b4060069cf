#include "lost_tracking.h"

#include "file.h"
#include "manifest.h"
#include "text.h"

#include <fmt/format.h>

#include <algorithm>
#include <new>

namespace vtbackup {
namespace {

using nlohmann::json;

constexpr const char* EVIDENCE_FORMAT = "vtbackup-lost-tracking";
constexpr std::uint64_t EVIDENCE_LIMIT = 1024 * 1024;
constexpr const char* UNNAMED_LOSS = "unnamed"; // an answer to evidence that could be given no name

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
    evidence["fixedOnly"] = marking.fixedOnly;
    evidence["allMarked"] = marking.problem.empty() && marking.fixedOnly.empty();
    evidence["settled"] = !marking.owed;
    if (marking.problem.empty())
        evidence.erase("notMarked");
    else
        evidence["notMarked"] = marking.problem;
}

std::string FileText(const json& evidence)
{
    return evidence.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::vector<std::string> TextsIn(const json& evidence, const char* key)
{
    std::vector<std::string> texts;
    const auto found = evidence.find(key);
    if (found == evidence.end() || !found->is_array())
        return texts;
    for (const json& text : *found) {
        if (text.is_string())
            texts.push_back(text.get<std::string>());
    }
    return texts;
}

bool IsTrue(const json& evidence, const char* key)
{
    const auto found = evidence.find(key);
    return found != evidence.end() && *found == true;
}

// The evidence's own name, the same whatever is added to it; empty when it has none.
std::string IdOf(const json& evidence)
{
    const auto found = evidence.find("id");
    if (found == evidence.end() || !found->is_string())
        return {};
    const std::string id = found->get<std::string>();
    const auto isDigit = [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); };
    return id.size() == RANDOM_ID_DIGITS && std::all_of(id.begin(), id.end(), isDigit) ? id : std::string();
}

// Keeps a file that is about to be replaced: a copy beside it, under the first free name that is no evidence's. Returns
// that name.
std::wstring KeepCopy(const std::wstring& path)
{
    constexpr int MOST_COPIES = 100;
    DWORD error = ERROR_FILE_EXISTS;
    for (int number = 1; number <= MOST_COPIES && error == ERROR_FILE_EXISTS; ++number) {
        const std::wstring copy = path + L".kept-" + ToWide(std::to_string(number));
        if (CopyFileW(path.c_str(), copy.c_str(), TRUE))
            return copy.substr(copy.rfind(L'\\') + 1);
        error = GetLastError();
    }
    throw Failure(Exit::Repository, fmt::format("{} cannot be kept under another name, and is not replaced: {}",
                                                ToUtf8(path), ErrorText(error)));
}

} // namespace

LossReport::LossReport(const Machine& machine, const Chain& chain, std::uint64_t sequence, std::string time)
    : m_machine(machine), m_chain(chain), m_sequence(sequence), m_time(std::move(time)),
      m_id(RandomId()), m_marking{{}, {}, "the marks are not set yet", true}
{
}

void LossReport::Keep(const AuditResult& audit)
{
    m_evidence = {{"format", EVIDENCE_FORMAT},
                  {"version", 1},
                  {"id", m_id},
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
    const std::wstring path = m_chain.LossPath(m_sequence);
    try {
        if (!m_kept && FileExists(path))
            KeepCopy(path); // of another loss, which somebody put there
        WriteSmallFileDurably(path, FileText(m_evidence));
        m_kept = true;
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

// Hours may lie between the first difference and the last. A stranger's backup that was running at the first one may
// have ended since, and have taken the mark off with it.
std::vector<std::string> LossReport::MarkAgain()
{
    const std::vector<std::string> gone = WithoutMark(m_chain, Strangers(m_machine, m_chain, m_marking));
    if (gone.empty())
        return gone;
    std::erase_if(m_marking.marked,
                  [&gone](const std::string& name) { return std::find(gone.begin(), gone.end(), name) != gone.end(); });
    const std::string cannotBeHelped = m_marking.fixedOnly.empty() ? std::string() : m_marking.problem;
    m_marking = MarkApplications(m_machine, m_chain, m_marking);
    if (m_marking.problem.empty())
        m_marking.problem = cannotBeHelped;
    return gone;
}

void LossReport::Fail(const AuditResult& audit)
{
    const std::vector<std::string> again = MarkAgain();
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
    if (!again.empty())
        message += fmt::format("The mark of {} was off again and was set once more. ", fmt::join(again, ", "));
    if (const auto strangers = Strangers(m_machine, m_chain, m_marking); !strangers.empty())
        message += fmt::format("Of {} it is not known whether it heeds this program's locks: a backup of its own that "
                               "is running now may take the mark off, and lack changes. ",
                               fmt::join(strangers, ", "));
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

std::vector<AnsweredLoss> LossesBehind(const Chain& chain, std::uint64_t sequence)
{
    std::vector<AnsweredLoss> behind;
    for (const std::uint64_t loss : chain.Losses()) {
        if (loss <= sequence)
            continue;
        std::string id = IdOf(ReadLoss(chain, loss));
        if (id.empty()) // it could be given none, so it stays as it is
            id = UNNAMED_LOSS;
        behind.push_back({loss, std::move(id)});
    }
    return behind;
}

std::optional<Reason> OpenLoss(const Chain& chain, const Manifest& last)
{
    std::optional<std::uint64_t> open;
    for (const AnsweredLoss& loss : LossesBehind(chain, last.sequence)) {
        if (std::find(last.answered.begin(), last.answered.end(), loss) == last.answered.end())
            open = loss.sequence;
    }
    if (!open)
        return std::nullopt;
    return reason::AuditFoundLoss(fmt::format("the audit before this backup found changes that the bitmap did not "
                                              "report: {}",
                                              ToUtf8(chain.LossPath(*open))));
}

json ReadLoss(const Chain& chain, std::uint64_t sequence)
{
    std::string problem = "it is no JSON object";
    try {
        const std::optional<std::string> text = ReadSmallFile(chain.LossPath(sequence), EVIDENCE_LIMIT);
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
    return {{"format", EVIDENCE_FORMAT}, {"version", 1}, {"backup", sequence}, {"damaged", problem}};
}

namespace {

// Says once which strangers no longer have the mark that a loss gave them.
std::string LookAtMarksOnceMore(const Machine& machine, const Chain& chain, json& evidence, const std::wstring& path)
{
    Marking marking;
    marking.marked = TextsIn(evidence, "marked");
    const std::vector<std::string> strangers = Strangers(machine, chain, marking);
    if (strangers.empty() || IsTrue(evidence, "lookedAgain"))
        return {};
    const std::vector<std::string> gone = WithoutMark(chain, strangers);
    evidence["lookedAgain"] = true;
    evidence["marksGone"] = gone;
    try {
        WriteSmallFileDurably(path, FileText(evidence));
    } catch (const Failure&) {
        // Then the next backup looks, and says it, once more.
    }
    if (gone.empty())
        return {};
    return fmt::format("the mark of {} is off again, either by a verify or by a backup that was running when it was "
                       "set and that may lack changes; see which",
                       fmt::join(gone, ", "));
}

// Sets the marks that one loss still owes. Returns what goes on being owed.
std::string MarkForLoss(const Machine& machine, const Chain& chain, std::uint64_t sequence)
{
    const std::wstring path = chain.LossPath(sequence);
    json evidence = ReadLoss(chain, sequence);
    if (IsTrue(evidence, "allMarked") || IsTrue(evidence, "settled"))
        return LookAtMarksOnceMore(machine, chain, evidence, path);
    if (evidence.contains("damaged") && !evidence.contains("kept"))
        evidence["kept"] = ToUtf8(KeepCopy(path));
    if (IdOf(evidence).empty())
        evidence["id"] = RandomId();
    // Before the marks. Marks that cannot be noted would be set again by every backup from now on, and every
    // application would verify for ever.
    WriteSmallFileDurably(path, FileText(evidence));
    Marking before;
    before.marked = TextsIn(evidence, "marked");
    before.fixedOnly = TextsIn(evidence, "fixedOnly");
    const Marking marking = MarkApplications(machine, chain, before);
    AddMarking(evidence, marking);
    WriteSmallFileDurably(path, FileText(evidence));
    return marking.problem;
}

} // namespace

std::string MarkForEarlierLosses(const Machine& machine, const Chain& chain)
{
    std::string owed;
    for (const std::uint64_t sequence : chain.Losses()) {
        std::string problem;
        try {
            problem = MarkForLoss(machine, chain, sequence);
        } catch (const Failure& failure) {
            problem = fmt::format("no mark is set as long as it cannot be noted: {}", failure.what());
        }
        if (!problem.empty())
            owed = problem;
    }
    return owed;
}

} // namespace vtbackup
