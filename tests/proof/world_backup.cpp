// The applications of the proof: what one does that keeps to the rules.
#include "proof/world.h"

#include "vtfltmgr/VTFltMgr.h"

#include <algorithm>
#include <winioctl.h>

namespace vtproof {

namespace {

constexpr DWORD VERIFY = VTFLT_VERIFY_REQUIRED;
// Stands in a buffer behind the room that the library is told of.
constexpr std::uint8_t NOT_YOURS = 0xA5;
constexpr std::ptrdiff_t GUARDED = 64;

bool HasFailed(DWORD result)
{
    return result != 0 && result != VERIFY;
}

} // namespace

bool World::IsUnreadableList(Exported exported, DWORD result)
{
    if (exported == Exported::InitManager)
        return result == VTFLT_APP_LIST_FAILED;
    return (exported == Exported::AppCount || exported == Exported::AppList) && result == ERROR_MORE_DATA;
}

// An application registers once, and asks before; one that does not ask changes nothing by it, as long as its list can be
// read, and is to verify everything where it cannot.
std::string World::Register(Application& application, bool asks)
{
    DWORD listed = 0;
    bool present = false;
    DWORD result = 0xFFFFFFFF;
    const bool changesNothing = !asks && application.registered && !m_faulty && m_watch == nullptr;
    const auto before = changesNothing ? FilesOf(application) : std::vector<BitmapFile>();
    const Went went = In(application, [&] {
        std::vector<std::wstring> ids;
        if (asks)
            listed = Call(application, Exported::AppList, [&] { return VTGetRegisteredAppList(&ids); });
        present = std::find(ids.begin(), ids.end(), application.id) != ids.end();
        if (listed == 0 && !present)
            result =
                Call(application, Exported::Register, [&] { return VTRegisterApplication(application.id.c_str()); });
    });
    Disarm(); // what follows looks at the registry itself
    if (went == Went::Died || (result != 0 && MayBeDone()))
        application.registered = IsListed(application);
    else
        application.registered = application.registered || present || result == 0;
    if (!asks)
        VerifyWhatWasLeftOut(application);
    if (went == Went::Died)
        return Crash(application);
    Mix(result);
    if (result == 0 && !IsListed(application))
        return "an application was registered and is not listed";
    if (!m_faulty && !present && result != 0)
        return "registering failed with " + std::to_string(result);
    if (changesNothing && FilesOf(application) != before)
        return "an application that is registered registered, and its bitmap files changed";
    return {};
}

// A volume whose kind is told wrongly is not marked where its bitmaps are emptied or deleted (an assumption).
void World::VerifyWhatWasLeftOut(Application& application) const
{
    for (std::size_t volume = 0; volume < m_volumes.size(); ++volume) {
        Chain& chain = application.chains[volume];
        chain.mustVerify = chain.mustVerify || LeavesOut(volume);
    }
}

// Of every volume child and base.
std::vector<BitmapFile> World::FilesOf(const Application& application) const
{
    const auto number = static_cast<std::size_t>(&application - m_applications.data());
    std::vector<BitmapFile> files;
    for (std::size_t volume = 0; volume < m_volumes.size(); ++volume) {
        for (const bool base : {false, true})
            files.push_back(ReadFile(number, volume, base));
    }
    return files;
}

std::string World::Unregister(Application& application)
{
    if (application.session.open)
        return {};
    const Disturbance disturbance(*this); // every volume is on its verify list from now on
    const bool registered = application.registered;
    DWORD result = 0xFFFFFFFF;
    const Went went = In(application, [&] {
        result =
            Call(application, Exported::Unregister, [&] { return VTUnregisterApplication(application.id.c_str()); });
    });
    Disarm(); // what follows looks at the registry itself
    // Whatever stopped it, it is registered as it was.
    if (went == Went::Died || (result != 0 && MayBeDone()))
        application.registered = IsListed(application);
    else if (result == 0)
        application.registered = false;
    VerifyWhatWasLeftOut(application);
    // The marks come first, and stay.
    const std::string wrong = CheckMarked(application, result == 0);
    if (went == Went::Died)
        Crash(application);
    else
        Mix(result);
    if (!wrong.empty() || went == Went::Died)
        return wrong;
    if (!m_faulty && m_watch == nullptr && result == 0 && HasFiles(application))
        return "an application was unregistered and has bitmap files";
    if (!m_faulty && result != (registered ? 0 : VTFLT_APP_NOT_REGISTERED))
        return "unregistering gives " + std::to_string(result);
    return {};
}

// A volume is backed up by one at a time. One by one, whoever finds it taken does without; at once, it waits.
bool World::Claim(Application& application, std::size_t volume)
{
    if (m_watch == nullptr)
        return !IsBusy(volume);
    if (m_sharesVolumes)
        return true;
    while (m_claims[volume] != nullptr)
        DoubleStandStill(&m_claims);
    m_claims[volume] = &application;
    return true;
}

DWORD World::Replicate(Application& application)
{
    m_replicated = true;
    return Call(application, Exported::ReplicateVerifyList,
                [&] { return VTReplicateVerifyList(application.id.c_str()); });
}

DWORD World::AskForVerify(Application& application, std::size_t volume)
{
    return Call(application, Exported::IsVerifyRequired,
                [&] { return VTIsVerifyRequired(application.id.c_str(), m_roots[volume].c_str()); });
}

std::string World::Begin(std::size_t number, std::size_t volume)
{
    Application& application = m_applications[number];
    Session& session = application.session;
    if (session.open || !Claim(application, volume))
        return {};
    session = Session();
    session.volume = volume;
    session.events = m_events[volume];
    bool undisturbed = IsUndisturbed(number, volume);
    const Chain& chain = application.chains[volume];
    const bool fresh = !m_expected.HasBackup(number, volume);
    // At once, others may hand a list on meanwhile. A driver that does not answer hands out nothing
    // (Limit.ReplicatingWithoutADriver...): with a fault only what is on the verify list is sure to be asked for.
    const bool mustBeAsked = m_watch == nullptr && (chain.mustBeAsked || (chain.told && !m_faulty));
    DWORD asked = 0;
    DWORD step = 0; // how far it came
    const Went went = In(application, [&] {
        std::vector<std::wstring> ids;
        if (Call(application, Exported::AppList, [&] { return VTGetRegisteredAppList(&ids); }) != 0 ||
            std::find(ids.begin(), ids.end(), application.id) == ids.end())
            return;
        ++step;
        if (Call(application, Exported::CanDriverWork, [] { return VTCanBLIDriverWork(); }) == 0)
            return;
        ++step;
        if (Replicate(application) != 0)
            return;
        asked = AskForVerify(application, volume);
        ++step;
        session.handle = CreateFileW(m_devices[volume].c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                     nullptr, OPEN_EXISTING, 0, nullptr);
        if (session.handle == INVALID_HANDLE_VALUE)
            return;
        ++step;
        if (Call(application, Exported::InitManager, [&] {
                return VTFltInitBitmapManager(session.handle, m_roots[volume].c_str(), application.id.c_str());
            }) != 0)
            return;
        session.initialised = true;
        ++step;
        if (Call(application, Exported::GetBlockSize,
                 [&] { return VTFltGetBlockSize(session.handle, &session.blockSize, 0); }) != 0 ||
            session.blockSize == 0)
            return;
        ++step;
        if (Call(application, Exported::PrepareForSnapshot, [&] { return VTFltPrepareForSnapshot(session.handle); }) !=
            0)
            return;
        ++step;
    });
    undisturbed = undisturbed && IsUndisturbed(number, volume);
    Mix(step);
    Mix(asked);
    if (went == Went::Died)
        return Crash(application);
    constexpr DWORD ASKED = 3;
    constexpr DWORD ALL_STEPS = 7;
    if (mustBeAsked && step >= ASKED && asked == 0)
        return "no verify is required of a volume that is on a list";
    if (step != ALL_STEPS) {
        Disarm(); // what follows looks at the machine itself
        const bool expected = m_faulty || (step == 0 && !application.registered) || (step == 1 && !IsDriverThere()) ||
                              (step > 1 && !undisturbed);
        Abandon(application);
        return expected ? std::string() : "a backup stopped at step " + std::to_string(step) + " without a reason";
    }
    if (undisturbed && asked != 0)
        return "a verify is required though nothing ever went wrong";
    // At once, somebody may change it.
    if (!m_faulty && m_watch == nullptr && session.blockSize != m_machine->Info(m_volumes[volume]).blockSize)
        return "the block size is said to be " + std::to_string(session.blockSize);
    session.open = true;
    session.verify = asked != 0 || chain.mustVerify || fresh || chain.blockSize != session.blockSize ||
                     chain.grains != m_expected.Volume(volume).size();
    TakeSnapshot(session);
    return {};
}

std::string World::Fetch(std::size_t number)
{
    Application& application = m_applications[number];
    Session& session = application.session;
    if (!session.open || session.fetched)
        return {};
    bool undisturbed = IsUndisturbed(number, session.volume);
    DWORD result = 0xFFFFFFFF;
    DWORD again = NOTHING_SAID;
    DWORD asked = 0;
    DWORD blockSize = 0;
    const Chain& before = application.chains[session.volume];
    const bool mustBeAsked = m_watch == nullptr && (before.mustBeAsked || (before.told && !m_faulty));
    GET_LENGTH_INFORMATION length = {};
    Went went = In(application, [&] { result = FetchOnce(application); });
    if (went == Went::Through && HasFailed(result) && application.asksAgain == AGAIN_AT_ONCE)
        went = FetchForANewSnapshot(application, result);
    if (went == Went::Died)
        return Crash(application);
    went = In(application, [&] {
        if (result == 0 && !session.verify) {
            // Tracking can be lost between the first question and the snapshot.
            again = Replicate(application);
            asked = again == 0 ? AskForVerify(application, session.volume) : 1;
        }
        if (Call(application, Exported::GetBlockSize,
                 [&] { return VTFltGetBlockSize(session.handle, &blockSize, 0); }) != 0)
            blockSize = 0;
        DWORD moved = 0;
        if (!DeviceIoControl(session.handle, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, sizeof(length), &moved,
                             nullptr))
            length.Length.QuadPart = 0;
    });
    undisturbed = undisturbed && IsUndisturbed(number, session.volume);
    Mix(result);
    Mix(asked);
    if (went == Went::Died)
        return Crash(application);
    session.fetched = true;
    if (mustBeAsked && again == 0 && asked == 0)
        return "no verify is required of a volume that was put on a list meanwhile";
    if (undisturbed && (result != 0 || asked != 0))
        return "fetching gives " + std::to_string(result) + " and asks for a verify " + std::to_string(asked) +
               " though nothing ever went wrong";
    Chain& chain = application.chains[session.volume];
    if (HasFailed(result) && application.asksAgain != AGAIN_NEVER) {
        // Nothing was forgotten, says the library: the next backup takes the reported blocks as this one would have.
        chain.failed = true;
        Abandon(application);
        return {};
    }
    const bool moved = blockSize != session.blockSize ||
                       static_cast<std::uint64_t>(length.Length.QuadPart) != session.grains.size() * GRAIN;
    const bool mayMove = session.events != m_events[session.volume] || (m_watch == nullptr ? m_faulty : !undisturbed);
    if (moved && !mayMove)
        return "block size or length are said to have changed, and nobody changed them";
    if (result != 0 || asked != 0 || moved)
        session.verify = true;
    // What was lost behind the snapshot is not in this backup, and the report takes the mark off.
    if (asked != 0 || moved)
        session.mustVerifyNext = true;
    if (HasFailed(result)) {
        session.mustVerifyNext = true;
        session.reportable = false;
    }
    // One by one, neither a failure nor a death makes anything be reported that nobody wrote near.
    const bool nothingElse = m_watch != nullptr ? undisturbed : chain.events == m_events[session.volume];
    if (!nothingElse || HasFailed(result) || !m_expected.HasBackup(number, session.volume))
        return {};
    Count(&Verdicts::nothingElse);
    // One by one nobody else fetches between snapshot and fetch: what was written since is not reported either.
    const Grains& written = m_watch != nullptr ? m_expected.Volume(session.volume) : session.grains;
    return m_expected.CheckNothingElse(number, session.volume, written, ReportedBlocks(application));
}

// The driver may have handed over what belongs to the snapshot: what it gives now may be newer
// (Limit.AskingAgainForTheSameSnapshot...).
World::Went World::FetchForANewSnapshot(Application& application, DWORD& result)
{
    Session& session = application.session;
    const Went announced = In(application, [&] {
        result =
            Call(application, Exported::PrepareForSnapshot, [&] { return VTFltPrepareForSnapshot(session.handle); });
    });
    if (announced == Went::Died || HasFailed(result))
        return announced;
    VTFltSimDeleteSnapshot(m_machine->handle(), session.snapshot);
    session.snapshot = 0;
    TakeSnapshot(session);
    // The volume may have another length by now.
    session.verify = session.verify || application.chains[session.volume].grains != session.grains.size();
    return In(application, [&] { result = FetchOnce(application); });
}

void World::TakeSnapshot(Session& session)
{
    session.grains = m_expected.Volume(session.volume);
    session.taken = m_expected.Clock();
    vtfltsim::Check("VTFltSimCreateSnapshot",
                    VTFltSimCreateSnapshot(m_machine->handle(), m_volumes[session.volume].guid.c_str(),
                                           &session.snapshot, nullptr));
}

// In the application's process: asks for the length, and then for the bitmap.
DWORD World::FetchOnce(Application& application)
{
    Session& session = application.session;
    std::vector<std::uint8_t>& buffer = application.buffer;
    BYTE input = 0;
    DWORD size = 0;
    const auto fetch = [&](DWORD room) {
        const auto end = buffer.begin() + room;
        const auto guarded = end + std::min(GUARDED, buffer.end() - end);
        std::fill(buffer.begin(), end, BYTE{0});
        std::fill(end, guarded, NOT_YOURS);
        const DWORD result = Call(application, Exported::GetBitmap, [&] {
            return VTFltGetBitmap(session.handle, &input, 0, buffer.data(), room, &size, 0);
        });
        if (std::any_of(end, guarded, [](std::uint8_t byte) { return byte != NOT_YOURS; }))
            NoteWrong(Exported::GetBitmap, "writes behind the buffer", room);
        return result;
    };
    session.length = VTFLT_BITMAP_HEADER_BYTES;
    DWORD result = fetch(VTFLT_BITMAP_HEADER_BYTES);
    if ((result == ERROR_MORE_DATA || result == ERROR_INSUFFICIENT_BUFFER) && size <= buffer.size()) {
        session.length = size;
        result = fetch(session.length);
    }
    if (HasFailed(result))
        return result;
    std::uint64_t bits = 0;
    std::copy(buffer.begin() + 8, buffer.begin() + 16, reinterpret_cast<std::uint8_t*>(&bits));
    if (size > session.length || (result == 0 && bits != (size - std::uint64_t{VTFLT_BITMAP_HEADER_BYTES}) * 8))
        NoteWrong(Exported::GetBitmap, "says more bytes or another number of bits than it gives", size);
    return size < session.length ? VERIFY : result; // a short bitmap is none
}

Reported World::ReportedBlocks(const Application& application) const
{
    Reported reported;
    reported.grainsPerBlock = std::max<std::uint32_t>(1, application.session.blockSize / GRAIN);
    const std::size_t bits = (application.session.length - VTFLT_BITMAP_HEADER_BYTES) * std::size_t{8};
    for (std::size_t block = 0; block < bits; ++block) {
        const std::uint8_t byte = application.buffer[VTFLT_BITMAP_HEADER_BYTES + block / 8];
        reported.blocks.push_back((byte & (0x80u >> block % 8)) != 0);
    }
    return reported;
}

std::string World::Finish(std::size_t number, std::size_t first, std::size_t count)
{
    Application& application = m_applications[number];
    Session& session = application.session;
    if (!session.open)
        return {};
    if (!session.fetched) {
        Abandon(application);
        return {};
    }
    // Blocks that the application wrote into its snapshot are in its backup and not on the volume.
    const std::size_t grains = session.grains.size();
    first %= grains;
    count = std::min(count, grains - first);
    if (count != 0) {
        DWORD result = 0xFFFFFFFF;
        std::vector<std::uint8_t> changes(std::max<std::size_t>(session.length, VTFLT_BITMAP_HEADER_BYTES));
        for (std::size_t grain = first; grain < first + count; ++grain) {
            const std::size_t block = grain * GRAIN / session.blockSize;
            if (VTFLT_BITMAP_HEADER_BYTES + block / 8 < changes.size())
                changes[VTFLT_BITMAP_HEADER_BYTES + block / 8] |= static_cast<std::uint8_t>(0x80u >> block % 8);
        }
        if (session.reportable) {
            m_expected.HandBack(number, session.volume, first, count);
            m_watched.changes.assign(changes.begin() + VTFLT_BITMAP_HEADER_BYTES, changes.end());
            TrimZeros(m_watched.changes);
        }
        const DWORD hits = VTFltSimGetCallFaultHits();
        if (session.reportable && In(application, [&] {
                                      result = Call(application, Exported::SyncSnapshotChanges, [&] {
                                          return VTFltSynSnapshotChangeBitmapToVolume(
                                              session.handle, changes.data(), static_cast<DWORD>(changes.size()));
                                      });
                                  }) == Went::Died)
            return Crash(application);
        Mix(result);
        m_watched.handedBack = result == 0;
        if (m_watch == nullptr && session.reportable && result != 0 && VTFltSimGetCallFaultHits() != hits) {
            std::string wrong = CheckMarkOfFailedChanges(application);
            if (!wrong.empty())
                return wrong;
        }
        if (result != 0) {
            session.reportable = false;
            session.mustVerifyNext = true;
        }
    }
    std::string wrong = Commit(number);
    if (count != 0)
        m_expected.WriteIntoBackup(number, session.volume, first, count);
    if (!wrong.empty())
        return wrong;

    DWORD reported = 0xFFFFFFFF;
    if (session.reportable) {
        m_watched.reports = true;
        Chain& taken = application.chains[session.volume];
        m_takenOff = &taken;
        taken.reports = true;
        taken.lost = false;
        const Went went = In(application, [&] {
            reported = Call(application, Exported::ReplicationSuccess,
                            [&] { return VTFltReplicationSuccess(session.handle); });
        });
        taken.reports = false;
        if (went == Went::Died)
            return Crash(application);
    }
    Mix(reported);
    Chain& chain = application.chains[session.volume];
    if (reported == 0) {
        m_expected.NoteSuccess(number, session.volume, session.taken);
        ++chain.reported;
        chain.events = session.events;
        if (!session.disturbed && !m_faulty)
            ++chain.undisturbed;
    } else if (IsUndisturbed(number, session.volume)) {
        return "reporting success failed with " + std::to_string(reported);
    }
    Abandon(application);
    return {};
}

// The backup is on the application's own disk from here on.
std::string World::Commit(std::size_t number)
{
    Application& application = m_applications[number];
    Session& session = application.session;
    Chain& chain = application.chains[session.volume];
    std::string wrong;
    if (session.verify)
        m_expected.TakeAll(number, session.volume, session.grains);
    else
        wrong = m_expected.TakeReported(number, session.volume, session.grains, ReportedBlocks(application));
    Count(session.verify ? &Verdicts::everything : &Verdicts::reported);
    if (chain.failed && !session.verify)
        Count(&Verdicts::askedAgain);
    if (chain.behind)
        Count(session.verify ? &Verdicts::behindEverything : &Verdicts::behindReported);
    chain.behind = false;
    chain.failed = false;
    Mix(session.verify ? 1 : 2);
    for (std::size_t i = VTFLT_BITMAP_HEADER_BYTES; !session.verify && i < session.length; ++i)
        Mix(application.buffer[i]);
    Tell(std::string("    ") + (session.verify ? "everything" : "the reported blocks"));
    chain.mustVerify = session.mustVerifyNext;
    chain.blockSize = session.blockSize;
    chain.grains = session.grains.size();
    return wrong;
}

std::string World::Backup(const Operation& operation)
{
    const Session& session = m_applications[operation.application].session;
    if (session.open)
        return {};
    std::string wrong = Begin(operation.application, operation.volume);
    if (wrong.empty() && session.open)
        wrong = Fetch(operation.application);
    if (wrong.empty() && session.open)
        wrong = Finish(operation.application, operation.a, operation.b);
    return wrong;
}

void World::Abandon(Application& application)
{
    Session& session = application.session;
    const Went went = In(application, [&] {
        if (session.initialised &&
            Call(application, Exported::DeinitManager, [&] { return VTFltDeinitBitmapManager(session.handle); }) != 0)
            NoteWrong(Exported::DeinitManager, "refuses a manager that there is");
        session.initialised = false;
        if (session.handle != INVALID_HANDLE_VALUE)
            CloseHandle(session.handle);
        session.handle = INVALID_HANDLE_VALUE;
    });
    if (went == Went::Died)
        Crash(application);
    else
        EndSession(application);
}

void World::EndSession(Application& application)
{
    if (application.session.snapshot != 0)
        VTFltSimDeleteSnapshot(m_machine->handle(), application.session.snapshot);
    application.session = Session();
    for (const Application*& claim : m_claims) {
        if (claim != &application)
            continue;
        claim = nullptr;
        DoubleWake(&m_claims);
    }
}

} // namespace vtproof
