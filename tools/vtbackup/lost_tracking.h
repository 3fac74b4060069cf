// What follows when an audit finds a change that the driver missed: evidence in the repository, marks on the verify
// lists, and no backup.
//
// The evidence stands before the marks, and both stand as soon as the first difference is seen. From the evidence on
// this chain's next backup reads the whole volume, whatever becomes of the marks, and it sets those that are missing.
#pragma once

#include "audit.h"
#include "failure.h"
#include "loss_marks.h"
#include "machine.h"
#include "manifest.h"
#include "reasons.h"
#include "repository.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vtbackup {

// What need not be said again of one loss once it was said with exit code 13: that these applications may not know of it.
struct SaidOnce {
    std::uint64_t loss = 0;
    std::vector<std::string> applications;
};

// What is to be said of the losses that earlier audits found.
struct LossNews {
    std::string text; // who may not know of a loss, and why, in one sentence; empty when there is nothing to say
    std::vector<SaidOnce> once;
};

// Ends a backup whose audit found a difference. Exit::LostTracking; Exit::NotMarked when an application may not know.
class LostTracking : public Failure {
public:
    LostTracking(Exit code, const std::string& message, nlohmann::json evidence, SaidOnce once)
        : Failure(code, message), m_evidence(std::move(evidence)), m_once(std::move(once))
    {
    }
    [[nodiscard]] const nlohmann::json& Evidence() const noexcept { return m_evidence; } // as the file has it
    [[nodiscard]] const SaidOnce& Once() const noexcept { return m_once; }

private:
    nlohmann::json m_evidence;
    SaidOnce m_once;
};

// The loss that an audit found while a backup was being made. Its caller holds the locks of application and volume.
class LossReport {
public:
    // The chain's application is the one that backs up. sequence: of the backup that is not going to be made.
    LossReport(const Machine& machine, const Chain& chain, std::uint64_t sequence, std::string time);

    // To be called with the first difference: writes the evidence and marks the volume for every application.
    void Found(const AuditResult& audit);
    // Completes the evidence. Throws LostTracking.
    [[noreturn]] void Fail(const AuditResult& audit);

private:
    void Keep(const AuditResult& audit);
    // Sets marks again that are off already; whose they are.
    std::vector<std::string> MarkAgain();

    const Machine& m_machine;
    const Chain& m_chain;
    std::uint64_t m_sequence;
    std::string m_time;
    std::string m_id; // of the evidence
    Marking m_marking;
    nlohmann::json m_evidence;
    bool m_kept = false;   // the evidence in the repository is this loss's
    std::string m_notKept; // why the evidence is not in the repository
};

// The losses whose number is above a backup's, by what tells them from others of the same number. A backup that reads the
// whole volume answers those of its own number and below by its place in the chain, and these by naming them: evidence
// that somebody put into the chain may have any number.
std::vector<AnsweredLoss> LossesBehind(const Chain& chain, std::uint64_t sequence);

// The reason to read the whole volume that a loss leaves behind: there is evidence, and no backup since that answered it.
std::optional<Reason> OpenLoss(const Chain& chain, const Manifest& last);

// Sets the marks that an earlier loss still owes to applications, and looks once more at those that it set. What cannot
// be helped is among the news of every call until NoteSaid was called with it: a run that ends before it said anything
// has told nobody.
LossNews MarkForEarlierLosses(const Machine& machine, const Chain& chain);

// Notes in the evidence what was said, once the program has said it; the caller holds no locks. Best effort: what is
// not noted is said again.
void NoteSaid(const Machine& machine, const Chain& chain, const std::vector<SaidOnce>& said);

// The evidence of one loss; an object with "damaged" in it when it cannot be read.
nlohmann::json ReadLoss(const Chain& chain, std::uint64_t sequence);

} // namespace vtbackup
