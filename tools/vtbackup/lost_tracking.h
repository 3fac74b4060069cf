// What follows when an audit finds a change that the driver missed: evidence in the repository, marks on the verify
// lists, and no backup.
//
// The evidence stands before the marks, and both stand as soon as the first difference is seen. From the evidence on
// this chain's next backup reads the whole volume, whatever becomes of the marks, and it sets those that are missing.
#pragma once

#include "audit.h"
#include "failure.h"
#include "machine.h"
#include "reasons.h"
#include "repository.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vtbackup {

// Ends a backup whose audit found a difference. Exit::LostTracking; Exit::NotMarked when an application may not know.
class LostTracking : public Failure {
public:
    LostTracking(Exit code, const std::string& message, nlohmann::json evidence)
        : Failure(code, message), m_evidence(std::move(evidence))
    {
    }
    [[nodiscard]] const nlohmann::json& Evidence() const noexcept { return m_evidence; } // as the file has it

private:
    nlohmann::json m_evidence;
};

// Which applications are known to have the volume on their verify lists.
struct Marking {
    std::vector<std::string> marked;
    std::string problem; // not empty: somebody may not, and why
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

    const Machine& m_machine;
    const Chain& m_chain;
    std::uint64_t m_sequence;
    std::string m_time;
    Marking m_marking;
    nlohmann::json m_evidence;
    std::string m_notKept; // why the evidence is not in the repository
};

// The reason to read the whole volume that a loss leaves behind: there is evidence, and no backup since.
std::optional<Reason> OpenLoss(const Chain& chain, std::uint64_t lastBackup);

// Sets the marks that an earlier loss still owes to applications. Returns what goes on being owed, and why, in one
// sentence; empty when nothing does.
std::string MarkForEarlierLosses(const Machine& machine, const Chain& chain);

// The evidence of one loss; an object with "damaged" in it when it cannot be read.
nlohmann::json ReadLoss(const Chain& chain, std::uint64_t sequence);

} // namespace vtbackup
