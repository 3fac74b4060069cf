#include "lost_tracking.h"

#include "file.h"
#include "manifest.h"
#include "text.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
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

std::string NotMarkedText(const Marking& marking)
{
    return Joined(FixedOnlyText(marking.fixedOnly), marking.problem);
}

void AddMarking(json& evidence, const Marking& marking)
{
    evidence["marked"] = marking.marked;
    evidence["fixedOnly"] = marking.fixedOnly;
    const std::string notMarked = NotMarkedText(marking);
    evidence["allMarked"] = notMarked.empty();
    evidence["settled"] = marking.problem.empty();
    if (notMarked.empty())
        evidence.erase("notMarked");
    else
        evidence["notMarked"] = notMarked;
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
      m_id(RandomId()), m_marking{{}, {}, "the marks are not set yet"}
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
    m_marking = MarkApplications(m_machine, m_chain, m_marking);
    return gone;
}

void LossReport::Fail(const AuditResult& audit)
{
    const std::vector<std::string> again = MarkAgain();
    Keep(audit);
    const std::string notMarked = NotMarkedText(m_marking);
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
    if (!notMarked.empty())
        message +=
            fmt::format("NOT MARKED: {}; do not trust an incremental backup of such an application. ", notMarked);
    if (m_notKept.empty())
        message += fmt::format("The next backup reads the whole volume; the evidence is in {}",
                               ToUtf8(m_chain.LossPath(m_sequence)));
    else
        message += fmt::format("The evidence could not be kept: {}; make the next backup with --verify", m_notKept);
    throw LostTracking(notMarked.empty() ? Exit::LostTracking : Exit::NotMarked, message, m_evidence,
                       {m_sequence, m_marking.fixedOnly});
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

// The applications of a list in the evidence of which exit code 13 did not say yet that they are on it.
std::vector<std::string> Unsaid(const json& evidence, const char* list)
{
    const std::vector<std::string> told = TextsIn(evidence, "told");
    std::vector<std::string> unsaid = TextsIn(evidence, list);
    std::erase_if(unsaid,
                  [&told](const std::string& name) { return std::find(told.begin(), told.end(), name) != told.end(); });
    return unsaid;
}

// What of one loss is said until it was said once.
LossNews UnsaidNews(const json& evidence, std::uint64_t sequence)
{
    const std::vector<std::string> fixedOnly = Unsaid(evidence, "fixedOnly");
    const std::vector<std::string> gone = Unsaid(evidence, "marksGone");
    LossNews news{FixedOnlyText(fixedOnly), {}};
    if (!gone.empty())
        news.text =
            Joined(news.text, fmt::format("the mark of {} is off again, either by a verify or by a backup that was "
                                          "running when it was set and that may lack changes; see which",
                                          fmt::join(gone, ", ")));
    SaidOnce once{sequence, fixedOnly};
    once.applications.insert(once.applications.end(), gone.begin(), gone.end());
    if (!once.applications.empty())
        news.once.push_back(std::move(once));
    return news;
}

// Notes once which strangers no longer have the mark that a loss gave them.
void LookAtMarksOnceMore(const Machine& machine, const Chain& chain, json& evidence, const std::wstring& path)
{
    Marking marking;
    marking.marked = TextsIn(evidence, "marked");
    const std::vector<std::string> strangers = Strangers(machine, chain, marking);
    if (strangers.empty() || IsTrue(evidence, "lookedAgain"))
        return;
    evidence["lookedAgain"] = true;
    evidence["marksGone"] = WithoutMark(chain, strangers);
    try {
        WriteSmallFileDurably(path, FileText(evidence));
    } catch (const Failure&) {
        // Then the next backup looks once more.
    }
}

// Sets the marks that one loss still owes. What goes on being owed is said every time.
LossNews MarkForLoss(const Machine& machine, const Chain& chain, std::uint64_t sequence)
{
    const std::wstring path = chain.LossPath(sequence);
    json evidence = ReadLoss(chain, sequence);
    if (IsTrue(evidence, "allMarked") || IsTrue(evidence, "settled")) {
        LookAtMarksOnceMore(machine, chain, evidence, path);
        return UnsaidNews(evidence, sequence);
    }
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
    LossNews news = UnsaidNews(evidence, sequence);
    news.text = Joined(news.text, marking.problem);
    return news;
}

void NoteSaidOfLoss(const Chain& chain, const SaidOnce& said)
{
    json evidence = ReadLoss(chain, said.loss);
    // Of these only, and of nothing that another run may have added since.
    const std::vector<SaidOnce> open = UnsaidNews(evidence, said.loss).once;
    std::vector<std::string> told = TextsIn(evidence, "told");
    const std::size_t before = told.size();
    for (const SaidOnce& once : open)
        std::copy_if(once.applications.begin(), once.applications.end(), std::back_inserter(told),
                     [&said](const std::string& name) {
                         return std::find(said.applications.begin(), said.applications.end(), name) !=
                                said.applications.end();
                     });
    if (told.size() == before)
        return;
    evidence["told"] = told;
    WriteSmallFileDurably(chain.LossPath(said.loss), FileText(evidence));
}

} // namespace

LossNews MarkForEarlierLosses(const Machine& machine, const Chain& chain)
{
    LossNews all;
    for (const std::uint64_t sequence : chain.Losses()) {
        try {
            LossNews news = MarkForLoss(machine, chain, sequence);
            all.text = Joined(all.text, news.text);
            all.once.insert(all.once.end(), news.once.begin(), news.once.end());
        } catch (const Failure& failure) {
            all.text =
                Joined(all.text, fmt::format("no mark is set as long as it cannot be noted: {}", failure.what()));
        }
    }
    return all;
}

void NoteSaid(const Machine& machine, const Chain& chain, const std::vector<SaidOnce>& said)
{
    try {
        const std::wstring application = ToWide(chain.Application());
        std::optional<Lock> lock;
        for (const SaidOnce& once : said) {
            if (once.applications.empty())
                continue;
            if (!lock)
                lock.emplace(machine.Locks().Application(application),
                             LockPurpose{application, chain.Volume().guid, L"note"},
                             fmt::format("application \"{}\"", chain.Application()));
            NoteSaidOfLoss(chain, once);
        }
    } catch (const std::exception&) {
        // Then it is said again.
    }
}

} // namespace vtbackup
