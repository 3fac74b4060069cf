#include "why.h"

#include "apps/volume_name.h"
#include "common/simulation.h"
#include "common/text.h"
#include "console.h"
#include "entry_text.h"
#include "machine_lists.h"
#include "time_text.h"
#include "verify_story.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <set>

namespace vtlog {
namespace {

using toolkit::ErrorText;
using toolkit::ToUtf8;

enum class Verdict { Verify, NoVerify, Unknown };

// What is found out about one application.
struct Answer {
    std::wstring application;
    Verdict verdict = Verdict::NoVerify;
    std::vector<std::string> facts;   // what makes the verdict, each a sentence
    std::string cause;                // for programs
    std::vector<std::string> reasons; // why those are so, each a sentence
    std::vector<MergedEntry> records; // that show it
};

struct CauseText {
    const char* code;
    const char* text;
};

CauseText Describe(Cause cause) noexcept
{
    switch (cause) {
    case Cause::TrackingLost:
        return {"tracking-lost", "The driver lost track of the volume: it named it among the volumes to read anew. The "
                                 "driver itself does not log; the record is of when the library collected that."};
    case Cause::BitmapUnusable:
        return {"bitmap-unusable", "A bitmap file of the application on the volume was missing or damaged, or could "
                                   "not be written; the changes that it held are not known any more."};
    case Cause::SnapshotChanges:
        return {"snapshot-changes",
                "Changes that the backup made in its snapshot could not be merged into the bitmap."};
    case Cause::SnapshotInterrupted:
        return {"snapshot-interrupted", "A backup was handing back the changes of its snapshot, and no record of its "
                                        "thread follows: the program ended there, or is still at it."};
    case Cause::ListNotShortened:
        return {"list-not-shortened", "The volume was put on the list while the changes of a snapshot were merged, and "
                                      "could not be taken off again."};
    case Cause::Unregistered:
        return {"unregistered", "The application was unregistered, which puts every volume on its list; registering "
                                "again does not take them off."};
    case Cause::RegisteredInDoubt:
        return {"registered-in-doubt", "The application registered while the list of applications could not be read; "
                                       "in doubt every volume goes on its list."};
    case Cause::Rewritten:
        return {"on-list-before", "The list was written again with the volume still on it; how it came there is older "
                                  "than what the log tells."};
    case Cause::Unknown:
        return {"not-told", "The log shows the list being written, but no record says why. A program that asks for all "
                            "volumes to be verified leaves no other trace."};
    }
    return {"not-told", ""};
}

std::string BitmapSentence(const char* which, const MergedEntry* failure)
{
    std::string text = fmt::format("Its {} bitmap file on the volume is missing or damaged.", which);
    if (failure == nullptr)
        text += " No record of the log names it.";
    return text;
}

// Why the log may not tell.
std::string Coverage(const VerifyStory& story)
{
    if (story.Records() == 0)
        return "The log holds no record.";
    if (!story.HasInformation())
        return "The log holds no record of information level: its writers logged at a lower level, and changes of the "
               "lists are logged at level 2. Set that level and keep the log until it happens again.";
    return fmt::format("The log tells of {} to {}; it happened before, or the program that did it logs elsewhere.",
                       PlainTime(*story.First()), PlainTime(*story.Last()));
}

void AddEvidence(Answer& answer, const Evidence& evidence)
{
    const CauseText text = Describe(evidence.cause);
    if (answer.cause.empty())
        answer.cause = text.code;
    answer.reasons.emplace_back(text.text);
    answer.records.insert(answer.records.end(), evidence.records.begin(), evidence.records.end());
}

// The story of an application's verify list, and of the pending list from which it came.
void AddListStory(Answer& answer, const VerifyStory& story, const std::wstring& list)
{
    const Evidence* evidence = story.WhyOn(list);
    if (evidence == nullptr) {
        answer.cause = answer.cause.empty() ? "not-told" : answer.cause;
        answer.reasons.push_back("The log does not tell why. " + Coverage(story));
        return;
    }
    // The hand-over from the driver comes first, which another program may have done. Its last record is another one: a
    // record writes one list.
    const Evidence* handed = story.WhyOn(answer.application);
    if (evidence->cause == Cause::TrackingLost && list != answer.application && handed != nullptr &&
        handed->time <= evidence->time)
        answer.records.push_back(handed->records.back());
    AddEvidence(answer, *evidence);
}

void AddBitmaps(Answer& answer, const ApplicationState& state, const VerifyStory& story)
{
    const std::pair<BitmapState, const char*> bitmaps[] = {{state.base, "base"}, {state.child, "child"}};
    for (const auto& [bitmap, which] : bitmaps) {
        if (bitmap == BitmapState::Unknown && answer.verdict == Verdict::NoVerify) {
            answer.verdict = Verdict::Unknown;
            answer.facts.push_back(fmt::format("Its {} bitmap file could not be looked at: a backup works on the "
                                               "volume, or the right to read it is missing.",
                                               which));
        }
        if (bitmap != BitmapState::Unusable)
            continue;
        answer.verdict = Verdict::Verify;
        const MergedEntry* failure = story.BitmapFailure(answer.application, toolkit::ToWide(which));
        answer.facts.push_back(BitmapSentence(which, failure));
        if (answer.cause.empty())
            answer.cause = "bitmap-unusable";
        if (failure != nullptr)
            answer.records.push_back(*failure);
    }
}

// In the order in which "show" prints them, each once: one may speak for two facts.
void SortRecords(std::vector<MergedEntry>& records)
{
    std::sort(records.begin(), records.end(),
              [](const MergedEntry& a, const MergedEntry& b) { return a.number < b.number; });
    const auto same = [](const MergedEntry& a, const MergedEntry& b) { return a.number == b.number; };
    records.erase(std::unique(records.begin(), records.end(), same), records.end());
}

bool Holds(const ListState& list, const std::wstring& volumePath)
{
    return std::any_of(list.entries.begin(), list.entries.end(),
                       [&](const std::wstring& entry) { return vtflt::ListEntryMatchesVolume(entry, volumePath); });
}

// What the machine says now, and why the log says that it came to that.
Answer AnswerFor(const ApplicationState& state, const MachineState& machine, const std::wstring& volumePath,
                 const VerifyStory& story)
{
    Answer answer;
    answer.application = state.id;
    if (state.verify.error != 0) {
        answer.verdict = Verdict::Verify;
        answer.cause = "list-unreadable";
        answer.facts.push_back(
            "Its verify list cannot be read, and doubt means verify: " + ErrorText(state.verify.error) + ".");
    }
    if (Holds(state.verify, volumePath)) {
        answer.verdict = Verdict::Verify;
        answer.facts.emplace_back("The volume is on its verify list.");
        AddListStory(answer, story, state.id + L".Last");
    }
    if (Holds(state.pending, volumePath)) {
        answer.facts.emplace_back("The volume is on its pending list, which becomes part of its verify list when its "
                                  "next backup begins.");
        if (answer.verdict != Verdict::Verify)
            AddListStory(answer, story, state.id);
        answer.verdict = Verdict::Verify;
    }
    if (Holds(machine.driver, volumePath)) {
        answer.verdict = Verdict::Verify;
        answer.facts.emplace_back("The driver has named the volume as one whose tracking it lost; no backup has "
                                  "collected that yet, so no record tells of it.");
        answer.cause = answer.cause.empty() ? "tracking-lost" : answer.cause;
    }
    AddBitmaps(answer, state, story);
    return answer;
}

// What the log alone says, of a machine that is not at hand.
Answer AnswerFromLog(const std::wstring& application, const VerifyStory& story)
{
    Answer answer;
    answer.application = application;
    answer.verdict = Verdict::Unknown;
    for (const std::wstring& list : {application + L".Last", application}) {
        if (story.WhyOn(list) != nullptr) {
            answer.facts.push_back("In the log the volume went on its verify list or its pending list, and no record "
                                   "shows that it came off; when the last volume goes off a list, no record is "
                                   "written.");
            AddListStory(answer, story, list);
            return answer;
        }
    }
    answer.facts.emplace_back("The last record of its lists shows them without the volume.");
    return answer;
}

std::vector<Answer> AnswersFromLog(const VerifyStory& story)
{
    std::set<std::wstring> applications;
    for (std::wstring list : story.Lists()) {
        if (list.ends_with(L".Last"))
            list.resize(list.size() - 5);
        if (!list.empty())
            applications.insert(list);
    }
    std::vector<Answer> answers;
    for (const std::wstring& application : applications)
        answers.push_back(AnswerFromLog(application, story));
    return answers;
}

const char* Headline(Verdict verdict) noexcept
{
    switch (verdict) {
    case Verdict::Verify:
        return "the next backup must verify.";
    case Verdict::NoVerify:
        return "the next backup need not verify.";
    case Verdict::Unknown:
        return "it cannot be told whether the next backup must verify.";
    }
    return "";
}

std::string AnswerText(const Answer& answer)
{
    const Colour colour = answer.verdict == Verdict::Verify     ? Colour::Error
                          : answer.verdict == Verdict::NoVerify ? Colour::Information
                                                                : Colour::Warning;
    std::string text =
        fmt::format("\n{}: {}\n", ToUtf8(answer.application), Coloured(Headline(answer.verdict), colour));
    for (const std::string& fact : answer.facts)
        text += "  " + fact + "\n";
    for (const std::string& reason : answer.reasons)
        text += "  Why: " + reason + "\n";
    for (const MergedEntry& record : answer.records)
        text += "    " + ReadableText(record.entry);
    return text;
}

nlohmann::ordered_json AnswerObject(const Answer& answer, const std::wstring& guid)
{
    nlohmann::ordered_json object;
    object["kind"] = "why";
    object["volume"] = ToUtf8(guid);
    object["application"] = ToUtf8(answer.application);
    object["verify"] = nullptr;
    if (answer.verdict != Verdict::Unknown)
        object["verify"] = answer.verdict == Verdict::Verify;
    object["cause"] = answer.cause;
    object["facts"] = answer.facts;
    object["reasons"] = answer.reasons;
    object["records"] = nlohmann::ordered_json::array();
    for (const MergedEntry& record : answer.records)
        object["records"].push_back(EntryObject(record.entry, record.path));
    return object;
}

Exit ExitOf(const std::vector<Answer>& answers)
{
    const auto any = [&answers](Verdict verdict) {
        return std::any_of(answers.begin(), answers.end(),
                           [verdict](const Answer& answer) { return answer.verdict == verdict; });
    };
    if (any(Verdict::Verify))
        return Exit::VerifyRequired;
    return any(Verdict::Unknown) ? Exit::Unknown : Exit::Ok;
}

// What holds for all applications, for people.
std::vector<std::string> Notes(const VerifyStory& story)
{
    std::vector<std::string> notes;
    if (story.DriverDown())
        notes.push_back(fmt::format("At {} a backup asked while the driver did not work; the answer is then always to "
                                    "verify, whatever the lists say.",
                                    PlainTime(story.DriverDown()->entry.header->time)));
    return notes;
}

} // namespace

Exit Why(const WhyOptions& options, MergeReader& logs)
{
    std::optional<toolkit::Simulation> simulation;
    if (!options.simulate.empty())
        simulation.emplace(toolkit::ToWide(options.simulate));
    const std::wstring guid = ResolveVolume(toolkit::ToWide(options.volume));

    VerifyStory story(guid);
    MergedEntry merged;
    while (logs.Next(merged))
        story.Feed(merged);
    story.Finish();

    std::vector<Answer> answers;
    std::vector<std::string> notes = Notes(story);
    if (options.otherMachine) {
        answers = AnswersFromLog(story);
        if (answers.empty())
            notes.push_back("No record tells of a list of volumes to verify. " + Coverage(story));
    } else {
        const std::wstring volumePath = L"\\\\?\\Volume" + guid + L"\\";
        const MachineState machine = ReadMachine(volumePath);
        if (machine.applicationsError != 0)
            throw Failure(Exit::Unreadable,
                          "cannot read the list of registered applications: " + ErrorText(machine.applicationsError));
        for (const ApplicationState& state : machine.applications)
            answers.push_back(AnswerFor(state, machine, volumePath, story));
        if (answers.empty())
            notes.emplace_back("No application is registered on this machine, so there is no next backup to speak of. "
                               "For a log of another machine use --other-machine.");
    }

    for (Answer& answer : answers)
        SortRecords(answer.records);

    std::string text = options.json ? std::string() : fmt::format("Volume {}\n", ToUtf8(guid));
    for (const Answer& answer : answers)
        text += options.json ? JsonText(AnswerObject(answer, guid)) : AnswerText(answer);
    for (const std::string& note : notes) {
        if (options.json)
            Diagnose(note);
        else
            text += "\n" + note + "\n";
    }
    if (!Print(text) || !Flush())
        return Exit::Unreadable;
    return answers.empty() ? Exit::Unknown : ExitOf(answers);
}

} // namespace vtlog
