#include "cycle.h"

#include "audit.h"
#include "chain_reader.h"
#include "change_map.h"
#include "console.h"
#include "copy.h"
#include "failure.h"
#include "held_snapshot.h"
#include "interrupt.h"
#include "library.h"
#include "snapshot_writes.h"
#include "text.h"
#include "writer.h"

#include <vtfltmgr/VTFltMgr.h>

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <optional>

namespace vtbackup {
namespace {

// What a manifest may say about its kind. Texts of a damaged chain get into it, and it has to stay readable whatever
// they are: a chain that could not be continued would stand between its user and every new backup.
constexpr std::size_t MOST_REASONS = 32;
constexpr std::size_t MOST_ANSWERED = 1000;
constexpr std::size_t LONGEST_REASON = 1000;

std::vector<Reason> Bounded(std::vector<Reason> reasons)
{
    if (reasons.size() > MOST_REASONS)
        reasons.resize(MOST_REASONS);
    for (Reason& reason : reasons) {
        reason.code.resize(std::min(reason.code.size(), LONGEST_REASON));
        reason.text.resize(std::min(reason.text.size(), LONGEST_REASON));
    }
    return reasons;
}

// Why the backup cannot be incremental, in the order in which it came out.
struct Doubts {
    std::vector<Reason> full;   // the backup has to stand alone
    std::vector<Reason> verify; // the whole volume has to be read and compared

    [[nodiscard]] Kind Decide() const noexcept
    {
        return !full.empty() ? Kind::Full : !verify.empty() ? Kind::Verify : Kind::Incremental;
    }
    [[nodiscard]] std::vector<Reason> All() const
    {
        std::vector<Reason> all = full;
        all.insert(all.end(), verify.begin(), verify.end());
        return Bounded(std::move(all));
    }
};

std::string UtcNow()
{
    SYSTEMTIME t = {};
    GetSystemTime(&t);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
                       t.wSecond);
}

class Cycle {
public:
    Cycle(const Machine& machine, const Repository& repository, const BackupRequest& request)
        : m_machine(machine), m_repository(repository), m_request(request), m_application(ToUtf8(request.application)),
          m_chain(repository.ChainOf(request.application, request.volume))
    {
    }

    BackupResult Run();

private:
    void LookAtChain();
    void CompareWithLastSuccess();
    void ReplicateVerifyList();
    bool AskWhetherToVerify(const Reason& reason);
    void BackUp();
    void FetchChanges(const Volume& volume);
    void SettleGeometry(const Volume& volume, const Volume& snapshot, const BitmapManager& manager);
    void Audit(const Volume& snapshot, SnapshotWrites& writes);
    void Copy(const Volume& snapshot);
    void HandBackSnapshotChanges(SnapshotWrites& writes, const BitmapManager& manager);
    void NoteUntracked();
    void NoteSuccess(bool before);
    void Report(const BitmapManager& manager);
    void NotReportable(const std::string& why);

    const Machine& m_machine;
    const Repository& m_repository;
    const BackupRequest& m_request;
    std::string m_application;
    Chain m_chain;

    Doubts m_doubts;
    std::optional<Manifest> m_last;            // nothing when there is no usable chain
    std::unique_ptr<ChainReader> m_lastReader; // of its contents
    bool m_lastIsOurs = false;                 // this machine's bitmaps hold what changed since m_last
    std::uint32_t m_firstBlockSize = 0;
    FetchedMap m_changes;
    std::unique_ptr<BackupWriter> m_writer;
    std::string m_leftSnapshots; // that nobody deleted, in words
    BackupResult m_result;
};

BackupResult Cycle::Run()
{
    const std::string volume = ToUtf8(m_request.volume.guid);
    CheckApplicationId(m_request.application); // an ID that is refused cannot always name a lock
    // Registering empties the bitmaps of the volumes that enumeration shows, and verify lists are searched for their
    // very spelling: of any other volume neither the bitmap nor the answer to "is a verify required?" is worth anything.
    if (!IsListed(m_request.volume))
        throw Failure(Exit::NotFound, fmt::format("the system lists no volume {}", volume));
    if (m_request.registerFirst)
        RegisterApplication(m_machine, m_request.application);

    // One backup of an application at a time: two at once would overwrite each other's marks in its verify list.
    const Lock applicationLock(m_machine.Locks().Application(m_request.application),
                               {m_request.application, m_request.volume.guid, L"backup"},
                               fmt::format("application \"{}\"", m_application));
    // One backup of a volume at a time whatever the application, from before the snapshot to the report: another
    // one's fetch in between would move writes later than our snapshot into our child bitmap, and our report would
    // clear them although we copied their old contents.
    const Lock volumeLock(m_machine.Locks().Volume(m_request.volume.guid),
                          {m_request.application, m_request.volume.guid, L"backup"}, fmt::format("volume {}", volume));

    // Two IDs that the system's name rules confuse would share bitmap files, and each would clear the other's. Asked
    // again, now that nobody who takes these locks can register one.
    CheckApplicationId(m_request.application);
    if (!IsRegistered(m_request.application))
        throw Failure(Exit::Refused, fmt::format("application \"{}\" is not registered; run \"vtbackup init\" or add "
                                                 "--register",
                                                 m_application));
    // Without the driver every question below would be answered "verify" for ever, and writes would go unseen.
    RequireDriver();

    try {
        m_leftSnapshots = DeleteLeftSnapshots(m_machine, m_application, m_request.volume);
        m_chain.RemoveUnfinished();
        // Before this application asks for its own.
        m_result.losses = MarkForEarlierLosses(m_machine, m_chain);
        LookAtChain();
        BackUp();
    } catch (...) {
        m_writer.reset();
        // Nothing of a backup without a manifest counts; a failure to tidy up must not hide the real one.
        try {
            m_chain.RemoveUnfinished();
        } catch (...) {
        }
        if (!m_leftSnapshots.empty())
            Diagnose(m_leftSnapshots);
        throw;
    }
    if (!m_leftSnapshots.empty())
        m_result.snapshotNote += (m_result.snapshotNote.empty() ? "" : "; ") + m_leftSnapshots;
    return std::move(m_result);
}

// An incremental backup is worth only as much as what it builds on.
void Cycle::LookAtChain()
{
    m_result.manifest.sequence = m_chain.NextSequence();
    // An incremental backup is made only when those before it answered them; any other answers them itself.
    m_result.manifest.answered = LossesBehind(m_chain, m_result.manifest.sequence);
    if (m_result.manifest.answered.size() > MOST_ANSWERED)
        m_result.manifest.answered.resize(MOST_ANSWERED);
    if (m_request.full)
        m_doubts.full.push_back(reason::FullRequested());
    if (m_request.verify)
        m_doubts.verify.push_back(reason::VerifyRequested());
    const std::vector<std::uint64_t> backups = m_chain.Backups();
    const std::vector<std::uint64_t> gone = m_chain.WithoutManifest();
    if (!gone.empty() && (backups.empty() || gone.back() > backups.back())) {
        m_doubts.full.push_back(reason::ChainDamaged(m_chain.ManifestIsGone(gone.back())));
        return;
    }
    if (backups.empty()) {
        m_doubts.full.push_back(reason::FirstBackup());
        return;
    }
    try {
        std::vector<Manifest> path = m_chain.PathTo(backups.back());
        m_lastReader = std::make_unique<ChainReader>(m_chain, path);
        m_last = path.back();
    } catch (const Failure& failure) {
        m_doubts.full.push_back(reason::ChainDamaged(failure.what()));
        return;
    }
    m_doubts.verify.insert(m_doubts.verify.end(), m_last->next.begin(), m_last->next.end());
    if (const std::optional<Reason> loss = OpenLoss(m_chain, *m_last))
        m_doubts.verify.push_back(*loss);
    CompareWithLastSuccess();
}

// The library forgets at every reported success, wherever that backup was stored, so this chain may only go on from
// the very backup whose success this machine reported last. If that one went into another repository, or the chain
// ends otherwise than this machine left it, then what lies between was never in this machine's bitmaps, or is no more.
void Cycle::CompareWithLastSuccess()
{
    if (!m_last->reportable && !m_last->next.empty())
        return; // it says itself why the next one reads everything
    const auto isLast = [this](const BackupMark& mark) {
        return mark.sequence == m_last->sequence && mark.manifestChecksum == m_last->checksum;
    };
    const std::optional<LastSuccess> success = m_machine.State().Read(m_application, m_request.volume);
    if (!success) {
        m_doubts.verify.push_back(
            reason::ChangesTakenElsewhere("this machine has no note of a success that this chain could go on from"));
    } else if (success->repository != m_repository.Id()) {
        m_doubts.verify.push_back(
            reason::ChangesTakenElsewhere("the last successful backup went into another repository"));
    } else if (isLast(success->backup) || (success->before && isLast(*success->before))) {
        m_lastIsOurs = true;
    } else {
        m_doubts.verify.push_back(reason::ChangesTakenElsewhere(
            fmt::format("the chain ends with backup {}, but the last successful one of this machine is another "
                        "backup {}: one of the two was put back from an older state, or shares its name with a third",
                        m_last->sequence, success->backup.sequence)));
    }
}

void Cycle::ReplicateVerifyList()
{
    if (const std::uint32_t result = ReplicatedVerifyList(m_request.application); result != 0)
        throw Failure(Exit::Device, fmt::format("VTReplicateVerifyList failed: {}", ErrorText(result)));
}

// False when the driver was silent, so that nobody knows; that is a doubt as well.
bool Cycle::AskWhetherToVerify(const Reason& reason)
{
    // The driver's list reaches this application's verify list only by this call; asking without it would miss
    // what the driver has just noted. While the driver is silent the call replicates nothing and gives 0. So it is made
    // twice, with a question in between that a silence over both meets, too.
    ReplicateVerifyList();
    const bool answers = VTCanBLIDriverWork() != 0;
    ReplicateVerifyList();
    if (!answers || VTIsVerifyRequired(m_request.application.c_str(), m_request.volume.Path().c_str()) != 0)
        m_doubts.verify.push_back(reason);
    return answers;
}

void Cycle::BackUp()
{
    const Volume volume(m_request.volume.Device(), Volume::Access::Read);
    if (!AskWhetherToVerify(reason::VerifyList()))
        throw Failure(Exit::Device, "VTReplicateVerifyList replicated nothing: the driver was silent");

    const BitmapManager manager(volume, m_request.volume, m_request.application);
    m_firstBlockSize = manager.BlockSize();
    StopIfInterrupted();

    // The driver closes its books at the snapshot that follows this announcement: what is written later belongs to
    // the next backup. Without it, later writes would be counted as copied.
    manager.PrepareForSnapshot();
    HeldSnapshot held(m_machine, m_application, m_request.volume, m_leftSnapshots);
    m_result.manifest.time = UtcNow();
    const Volume snapshot(held.Get().device, Volume::Access::Read, m_machine.Simulated());
    const bool tracked = IsTracked(snapshot);

    FetchChanges(volume);
    SettleGeometry(volume, snapshot, manager);
    SnapshotWrites writes(snapshot, tracked, m_result.manifest.geometry.blockSize);
    Audit(snapshot, writes);
    Copy(snapshot);
    HandBackSnapshotChanges(writes, manager);
    Report(manager);

    if (m_request.keepSnapshot) {
        held.Keep();
        m_result.snapshotDevice = ToUtf8(held.Get().device);
        m_result.snapshotId = ToUtf8(held.Get().id);
    }
}

void Cycle::FetchChanges(const Volume& volume)
{
    m_changes = FetchMap(volume, false);
    if (m_changes.result != 0 && m_changes.result != VTFLT_VERIFY_REQUIRED) {
        // No bitmap may stand between a user and a backup: the snapshot is there and can be read. But nothing was
        // handed over, so there is nothing to report.
        const Reason noBitmap{"bitmap-unavailable",
                              fmt::format("VTFltGetBitmap failed: {}", ErrorText(m_changes.result))};
        m_doubts.verify.push_back(noBitmap);
        m_result.manifest.next.push_back(noBitmap);
        NotReportable(noBitmap.text + "; if this goes on, \"vtfltctl doctor\" says whose file is damaged, and "
                                      "\"vtbackup init --reset\" begins afresh");
        return;
    }
    // "The bitmap may be short": copying just its blocks and reporting success would take the mark off the volume,
    // and what the bitmap misses would be lost without a trace. The whole volume is read here and now.
    if (m_changes.result == VTFLT_VERIFY_REQUIRED || !m_changes.whole)
        m_doubts.verify.push_back(reason::BitmapShort());
    if (m_doubts.Decide() != Kind::Incremental)
        return; // what the driver notes from here on stays in its list, for the next backup
    // Tracking can be lost between the first question and the snapshot. The mark would then come too late for the
    // question and be taken off by our own report.
    static_cast<void>(AskWhetherToVerify(reason::TrackingLostMeanwhile()));
    // The loss may as well have happened after the snapshot, where this backup cannot see what was written, and our
    // report takes the mark off: so the next backup has to read everything too.
    if (m_doubts.Decide() != Kind::Incremental)
        m_result.manifest.next.push_back(reason::TrackingLostMeanwhile());
}

// A bitmap means nothing without the block size and the length that it was made for. No export announces that they
// changed, so they are compared with the last manifest, and with themselves a moment ago.
void Cycle::SettleGeometry(const Volume& volume, const Volume& snapshot, const BitmapManager& manager)
{
    Geometry& geometry = m_result.manifest.geometry;
    geometry.length = snapshot.Length();
    geometry.blockSize = manager.BlockSize();
    // The map's length is rounded up, so the volume's is asked too: one that shrank since the snapshot has dropped the
    // bits of blocks that the snapshot still has.
    if (geometry.blockSize != m_firstBlockSize || volume.Length() != geometry.length ||
        (m_changes.whole && m_changes.map.Bits() < geometry.Blocks())) {
        m_doubts.verify.push_back(reason::GeometryMoved());
        m_result.manifest.next.push_back(reason::GeometryMoved());
    }
    if (!m_last)
        return;
    const Geometry& before = m_last->geometry;
    if (before.blockSize != geometry.blockSize)
        m_doubts.full.push_back(
            reason::BlockSizeChanged(fmt::format("from {} to {} bytes", before.blockSize, geometry.blockSize)));
    if (before.length != geometry.length)
        m_doubts.verify.push_back(
            reason::LengthChanged(fmt::format("from {} to {} bytes", before.length, geometry.length)));
}

// A bitmap that lies makes a backup that looks good and is not. Compared before anything is copied, a difference costs
// no backup: none is made, success is not reported, and what the bitmap holds comes again.
void Cycle::Audit(const Volume& snapshot, SnapshotWrites& writes)
{
    if (m_request.audit == 0)
        return;
    Manifest& manifest = m_result.manifest;
    manifest.audit = AuditCounts{m_request.audit};
    if (m_doubts.Decide() != Kind::Incremental)
        return; // all of the snapshot is read anyway
    writes.Fetch();
    if (!writes.Problem().empty()) {
        manifest.audit->problem = writes.Problem().substr(0, LONGEST_REASON);
        return;
    }
    LossReport loss(m_machine, m_chain, manifest.sequence, manifest.time);
    const AuditResult audit =
        AuditCleanBlocks({snapshot, manifest.geometry, m_changes.map, writes}, *m_lastReader, m_request.audit,
                         [&loss](const AuditResult& first) { loss.Found(first); });
    if (audit.differing > 0)
        loss.Fail(audit);
    manifest.audit = audit.counts;
}

void Cycle::Copy(const Volume& snapshot)
{
    Manifest& manifest = m_result.manifest;
    manifest.application = m_application;
    manifest.volume = ToUtf8(m_request.volume.guid);
    manifest.kind = m_doubts.Decide();
    manifest.reasons = m_doubts.All();
    manifest.base = manifest.sequence;
    if (manifest.kind != Kind::Full) {
        manifest.base = m_last->base;
        manifest.parent = m_last->sequence;
        manifest.parentChecksum = m_last->checksum;
    }
    manifest.blocksReported = m_changes.map.CountBelow(manifest.geometry.Blocks());

    m_writer = std::make_unique<BackupWriter>(m_chain, manifest.sequence, manifest.geometry);
    switch (manifest.kind) {
    case Kind::Full:
        manifest.bytesRead = CopyEverything(snapshot, manifest.geometry, *m_writer);
        break;
    case Kind::Verify:
        manifest.bytesRead = CopyDifferences(snapshot, manifest.geometry, *m_lastReader, *m_writer);
        break;
    case Kind::Incremental:
        manifest.bytesRead = CopyChanged(snapshot, manifest.geometry, m_changes.map, *m_writer);
        break;
    }
}

// What was written into the snapshot itself is in our copy, but not on the volume. Handed back, these blocks are
// part of the next backup, which takes them from the volume again.
void Cycle::HandBackSnapshotChanges(SnapshotWrites& writes, const BitmapManager& manager)
{
    writes.Fetch();
    // A driver that just went away answers so, too; then this question fails as well.
    if (writes.Untracked())
        static_cast<void>(manager.BlockSize());
    std::string why = writes.Problem();
    if (why.empty() && writes.Untracked()) {
        // Snapshots are not tracked on this machine. This program opens its snapshot for reading only.
        NoteUntracked();
        return;
    }
    if (why.empty() && writes.Blocks().CountBelow(writes.Blocks().Bits()) == 0) {
        m_result.snapshotChanges = "none";
        return;
    }
    if (why.empty() && !m_result.notReported.empty()) {
        why = "there is no bitmap of the volume to hand them back into";
    } else if (why.empty()) {
        // A buffer shorter than the volume's bitmap would be ignored with result 0, so it is made exactly as long,
        // and its header bytes, which would be merged like any others, are zero.
        ChangeMap back(m_changes.map.Length());
        const std::uint32_t result = back.Add(writes.Blocks()) ? manager.HandBack(back) : ERROR_INVALID_DATA;
        if (result == 0) {
            m_result.snapshotChanges = "handed-back";
            return;
        }
        why = fmt::format("the snapshot's own changes could not be handed back: {}", ErrorText(result));
    }
    // The next backup would not know that these blocks differ from the volume. So this one is no success, and the
    // next one reads everything.
    m_result.snapshotChanges = "failed";
    m_result.manifest.next.push_back(reason::SnapshotChangesLost());
    NotReportable(why);
}

// init asked once, and would not ask again: what became of that request is another program's doing.
void Cycle::NoteUntracked()
{
    m_result.snapshotChanges = "untracked";
    if (m_machine.State().AskedForMonitoring(m_application))
        m_result.snapshotNote = fmt::format(
            "snapshots are not tracked, although application \"{}\" asked for it: another program ended that, or it "
            "takes effect with the next restart; \"vtfltctl monitor count\" shows whether VTFlt is among the filters, "
            "and \"vtfltctl monitor on\" asks again. Until then nobody may write into a snapshot",
            m_application);
}

void Cycle::NotReportable(const std::string& why)
{
    m_result.manifest.reportable = false;
    if (m_result.notReported.empty())
        m_result.notReported = why;
}

// Notes where this chain may go on. before: whether it may as well go on from the last backup, because success was
// not reported yet.
void Cycle::NoteSuccess(bool before)
{
    const Manifest& manifest = m_result.manifest;
    LastSuccess success{m_repository.Id(), {manifest.sequence, manifest.checksum}, {}};
    if (before && m_lastIsOurs)
        success.before = BackupMark{m_last->sequence, m_last->checksum};
    m_machine.State().Write(m_application, m_request.volume, success);
}

void Cycle::Report(const BitmapManager& manager)
{
    StopIfInterrupted(); // the last place where stopping leaves no backup behind
    Manifest& manifest = m_result.manifest;
    m_writer->Finish(manifest);
    if (manifest.reportable)
        NoteSuccess(true);
    m_writer->Commit();
    // From here on the backup is in the repository and on the disk. Reported any earlier, a crash would leave the
    // changes forgotten and not stored; a crash from here on only makes them come once more.
    if (!manifest.reportable)
        return;
    try {
        // Once success is reported, a chain that ends one backup earlier misses what was forgotten.
        NoteSuccess(false);
    } catch (const Failure& failure) {
        m_result.notReported = failure.what();
        return;
    }
    if (const std::uint32_t result = manager.ReportSuccess(); result != 0) {
        m_result.notReported = fmt::format("VTFltReplicationSuccess failed: {}", ErrorText(result));
        return;
    }
    try {
        WriteSmallFileDurably(m_chain.ReportedPath(manifest.sequence), "");
    } catch (const Failure&) {
        // It only tells people; the backup is as good without it.
    }
}

} // namespace

BackupResult RunBackup(const Machine& machine, const Repository& repository, const BackupRequest& request)
{
    return Cycle(machine, repository, request).Run();
}

} // namespace vtbackup
