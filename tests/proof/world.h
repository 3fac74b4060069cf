// A simulated machine with applications that back its volumes up, driven by operations and held against the expected
// state.
//
// Each application is a process of its own (a guest of the double) and keeps to the rules of docs/guarantees.md: one
// backup of a volume at a time, a verify where the library says so or where something failed, a report of success only
// behind a backup that has everything.
#pragma once

#include "double/control.h"
#include "proof/answers.h"
#include "proof/bitmap_file.h"
#include "proof/call_counts.h"
#include "proof/expected.h"
#include "proof/exported.h"
#include "proof/operation.h"
#include "vtfltsim/VTFltSim.hpp"

#include <array>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vtproof {

class ProofLog;

inline constexpr DWORD NOTHING_SAID = 0xFFFFFFFF;

// Undisturbed backups in a row, after which nothing of a disturbance may be left.
inline constexpr unsigned SETTLED_ROUNDS = 2;

// What the runs of this program were held against so far, over all machines.
struct Verdicts {
    std::uint64_t reported = 0;    // backups that took the reported blocks: what was lost shows
    std::uint64_t everything = 0;  // backups that read everything: nothing can show
    std::uint64_t nothingElse = 0; // bitmaps held against one block's width around the writes
    std::uint64_t askedAgain = 0;  // backups that took the reported blocks behind a fetch that had failed
    std::uint64_t files = 0;       // bitmap files looked at right behind a fault, a death or a power cut,
    std::uint64_t unusable = 0;    // and how many of them had become unusable
    std::uint64_t cuts = 0;        // power cuts behind which the files were looked at
    std::uint64_t owed = 0;        // what was owed to an application, sought there in its files and with the driver
    std::uint64_t handedBack = 0;  // changes of a snapshot, sought in the child that they were handed back to
    std::uint64_t faulty = 0;      // operations in which something was to go wrong, one by one,
    std::uint64_t struck = 0;      // and in which it did
    std::uint64_t leftOut = 0;     // what would have the driver list a volume while its list is handed out
    std::uint64_t told = 0;        // losses of tracking in schedules, sought on the lists of each application
    std::uint64_t marked = 0;      // changes that could not be handed back: the volume's mark, sought right behind that
    // What is backed up first of what something had gone wrong with: only who takes the reported blocks then can miss any.
    std::uint64_t behindReported = 0;
    std::uint64_t behindEverything = 0;
};
const Verdicts& VerdictsSoFar();

class World {
public:
    explicit World(const std::vector<VolumeShape>& volumes, std::size_t applications = APPLICATIONS);
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    ~World();

    // What an operation does without a fault.
    struct Calls {
        std::uint32_t all = 0;
        std::uint32_t writes = 0;
        std::uint32_t allocations = 0;
    };
    Calls CountCalls(const Operation& operation);

    // Empty, or what is wrong. Beforehand: what the bitmap files may be behind it is noted, for a power cut that comes next.
    std::string Run(const Operation& operation, bool beforeACut = false);
    // Everything is put right: no faults, a working driver, no cut files. Then every application backs up every volume,
    // once (a lost change shows) or so often that nothing may be left of what went wrong before.
    enum class Thoroughly : bool { No, Yes };
    std::string Settle(Thoroughly thoroughly = Thoroughly::Yes);

    // From here on, until OneByOne, operations may run at the same time, each application's on a thread of its own. Who backs
    // a volume up waits until nobody else does, unless backups share volumes. The watch is the caller's.
    enum class Volumes : bool { Locked, Shared };
    void AtOnce(ExportWatch& watch, Volumes volumes);
    // Once more, for a watch that took all plans for calls away.
    void WatchReplications();
    // One operation, done by an application's process on the calling thread; as Run.
    std::string RunAtOnce(std::uint32_t application, const Operation& operation);
    // Something that happens to a volume while they run.
    void Happens(const Operation& operation);
    // The application's process has come to its end: what it began is abandoned.
    void EndAtOnce(std::uint32_t application);
    // Empty, or what is wrong with what several of them share: the list of applications, the count of monitors.
    std::string OneByOne();

    // The faults of the last operation struck, each of them.
    bool Struck() const { return m_struck; }
    // As one number: what every operation gave and logged so far, in order, how many calls of Windows each of them made,
    // and how often each function was called.
    std::uint64_t Trace() const { return m_trace ^ m_calls.Sum(); }
    void Mix(std::uint64_t value);
    // Writes every operation and log record to the standard error.
    void TellStory();
    void Tell(const std::string& line);

private:
    // What an application keeps of a volume, durably.
    struct Chain {
        bool mustVerify = false;
        std::uint32_t blockSize = 0;
        std::size_t grains = 0;
        unsigned undisturbed = 0; // backups in a row with nothing wrong before or in them
        unsigned reported = 0;    // backups whose report of success was answered with success
        unsigned events = 0;      // of the volume, when the last of these began
        bool failed = false;      // the last fetch failed, and the application asks again
        // The volume is on the application's verify list, or on one that is handed out to it. Only its report of success,
        // or the application itself, takes it off again.
        bool mustBeAsked = false;
        bool told = false;
        bool waits = false;  // it is on the application's pending list, or on the driver's
        bool behind = false; // something went wrong with it, and no backup was made since
        // While operations run at the same time: a report of success is under way; tracking was lost since the last one.
        bool reports = false;
        bool lost = false;
    };
    // A backup under way.
    struct Session {
        bool open = false;
        std::size_t volume = 0;
        HANDLE handle = INVALID_HANDLE_VALUE;
        bool initialised = false;
        DWORD snapshot = 0; // 0: none
        Grains grains;
        Version taken = 0;
        bool verify = false;
        bool mustVerifyNext = false;
        bool fetched = false;
        bool reportable = true;
        bool disturbed = false;
        unsigned events = 0; // of the volume, when it began
        DWORD blockSize = 0;
        DWORD length = 0; // of the fetched bitmap
    };
    struct Application {
        std::wstring id;
        DoubleGuest* guest = nullptr;
        Session session;
        std::vector<Chain> chains;
        std::vector<std::uint8_t> buffer;
        bool monitors = false;
        bool registered = false; // as far as it knows
        std::uint32_t asksAgain = AGAIN_NEVER;
    };
    // A write or a read that is to move fewer bytes than it is asked for.
    struct CutTransfer {
        bool writes = false;
        std::uint32_t bytes = 0; // at most
        bool isCut = false;      // it came, and had more
        bool kills = false;      // its process ends behind it
        std::array<wchar_t, MAX_PATH> path{};
    };
    // The bitmap files as they were before an operation that something goes wrong in, and what they may become by it.
    struct Watched {
        bool on = false;
        Operation operation;
        std::size_t volume = SIZE_MAX;                // that the operation backs up; all ones: none
        bool reports = false;                         // it came to the report of success
        bool cut = false;                             // the power, behind it,
        bool torn = false;                            // and what was not flushed is torn
        Bits changes;                                 // handed back,
        bool handedBack = false;                      // with success
        std::vector<CutTransfer> cuts;                // writes and reads that are to be short
        std::vector<std::array<BitmapFile, 2>> files; // by volume and application: child and base
        std::vector<Bits> driver;                     // what the driver may hand out of the volume
        std::size_t bitmapBytes = 0;                  // of the volume
    };
    // The calls that faults struck in the operation; the first few.
    struct StruckCalls {
        struct One {
            const wchar_t* function = nullptr;
            std::array<wchar_t, 80> text{}; // the beginning of what it was called with
        };
        std::array<One, 16> calls{};
        std::size_t count = 0;
        One last; // that was called
        DWORD hits = 0;
        std::uint32_t made = 0; // calls that a fault for any call refuses, whether or not they were struck
        bool walks = false;     // over the volumes, or has walked
    };
    // The requests for the tracking of snapshots, and the list of filters that they change.
    struct Monitoring {
        bool stored = false; // there is a count
        DWORD count = 0;
        bool filter = false;
        bool operator==(const Monitoring& other) const { return count == other.count && filter == other.filter; }
    };
    // While operations run at the same time.
    struct Registrations {
        unsigned begun = 0;
        int underWay = 0;
    };
    bool Overlapped(const Registrations& before) const
    {
        return before.underWay != 0 || before.begun != m_registrations.begun;
    }
    void NoteCall(Exported exported, int change)
    {
        if (exported == Exported::ReplicateVerifyList)
            HandOut(change > 0 ? HandsOut::Not : HandsOut::NotAtAll);
        if (exported != Exported::Register && exported != Exported::Unregister)
            return;
        m_registrations.begun += change > 0 ? 1 : 0;
        m_registrations.underWay += change;
        t_registers += change;
    }
    // The calling process is gone: whatever it was in the middle of is over.
    void NoteDeath()
    {
        HandOut(HandsOut::NotAtAll);
        m_registrations.underWay -= t_registers;
        t_registers = 0;
    }
    // How far a process is with the driver's list, in VTReplicateVerifyList.
    enum class HandsOut { NotAtAll, Not, Reads, Has, PutsBack };
    static thread_local HandsOut t_handsOut;
    static thread_local int t_registers; // its calls of that kind under way: one or none
    void HandOut(HandsOut state);
    void NoteCallOfAReplication(const wchar_t* function, const wchar_t* text);
    static bool IsUnreadableList(Exported exported, DWORD result);
    struct Answers; // to the questions that change nothing
    // The outcome of a piece of an application's work.
    enum class Went { Through, Died };

    // Runs work in the application's process.
    template <class Work>
    Went In(Application& application, const Work& work)
    {
        return InGuest(
            application, [](const void* argument) { (*static_cast<const Work*>(argument))(); }, &work);
    }
    Went InGuest(Application& application, void (*work)(const void*), const void* argument);
    // An export's result: one that the header names, and nothing thrown. Allocates nothing.
    template <class Work>
    DWORD Answered(Exported exported, const Work& work)
    {
        DWORD result = NOTHING_SAID;
        try {
            result = work();
        } catch (...) {
            NoteWrong(exported, "throws");
            return result;
        }
        if (!IsDocumented(exported, result))
            NoteWrong(exported, "gives a result that is not documented", result);
        return result;
    }
    // One export, called in the application's process.
    template <class Work>
    DWORD Call(const Application& application, Exported exported, const Work& work)
    {
        if (m_watch == nullptr)
            return Answered(exported, work);
        const auto number = static_cast<std::size_t>(&application - m_applications.data());
        while (m_watch != nullptr) {
            const Registrations before = m_registrations;
            m_watch->Enters(number, exported);
            NoteCall(exported, 1);
            const DWORD result = Answered(exported, work);
            NoteCall(exported, -1);
            m_watch->Leaves(number, exported);
            // Nobody can read a list that grows meanwhile (Limit.AListThatGrowsWhileItIsReadCannotBeRead): once more.
            if (!Overlapped(before) || !IsUnreadableList(exported, result))
                return result;
        }
        return Answered(exported, work);
    }
    // Kept, the first of them, until the operation is over.
    void NoteWrong(Exported exported, const char* what, DWORD result = 0)
    {
        if (m_wrongAnswer.what == nullptr)
            m_wrongAnswer = {exported, what, result};
    }
    std::string TakeWrongAnswer();
    // While it lives, and for a while behind, backups need not be as undisturbed ones are.
    class Disturbance {
    public:
        explicit Disturbance(World& world) : m_world(world)
        {
            ++m_world.m_disturbances;
            m_world.Disturb();
        }
        Disturbance(const Disturbance&) = delete;
        Disturbance& operator=(const Disturbance&) = delete;
        ~Disturbance()
        {
            --m_world.m_disturbances;
            m_world.Disturb();
        }

    private:
        World& m_world;
    };
    void Arm(const std::vector<Fault>& faults);
    void ArmCut(const wchar_t* function, const Fault& fault);
    bool IsEachCut() const;
    static void NoteTransfer(CutTransfer& cut, std::wstring_view text);
    void Disarm();
    void CountMemory(DWORD before);
    void ArmMemory();

    void NoteStruck(const Operation& operation);
    std::string Dispatch(const Operation& operation);
    static bool ListsForResync(Do what);
    std::string AddToTheDriversList(const Operation& operation);
    std::string Register(Application& application, bool asks);
    std::vector<BitmapFile> FilesOf(const Application& application) const;
    void VerifyWhatWasLeftOut(Application& application) const;
    std::string Unregister(Application& application);
    std::string Begin(std::size_t application, std::size_t volume);
    std::string Fetch(std::size_t application);
    static constexpr std::size_t NOWHERE = SIZE_MAX;
    DWORD FetchOnce(Application& application);
    Went FetchForANewSnapshot(Application& application, DWORD& result);
    void TakeSnapshot(Session& session);
    std::string Finish(std::size_t application, std::size_t first, std::size_t count);
    std::string Commit(std::size_t application);
    std::string Backup(const Operation& operation);
    void Abandon(Application& application);
    std::string Crash(Application& application);
    std::string MarkAll(Application& application);
    std::vector<bool> Marks(const Application& application) const;
    static std::vector<bool> NotedMarks(const Application& application);
    std::string CheckMarked(const Application& application, bool all) const;
    std::string StopTracking(Application& application, Exported exported, std::size_t volume);
    bool HasFile(const Application& application, std::size_t volume) const;
    bool HasFiles(std::size_t volume) const;
    bool HasFiles(const Application& application) const;
    bool IsDriverThere() const;
    std::string EndGuest(Application& application, bool died);
    void EndSession(Application& application);
    void Damage(const Operation& operation);
    std::string PowerCut(std::uint32_t how);
    std::string Ask(Application& application, std::size_t volume);
    std::string CheckAnswersOfAFault(const Application& application, std::size_t volume, const Answers& got) const;
    std::string Unmark(Application& application, std::size_t volume, bool itsOwn);
    std::string Monitor(Application& application, bool on);
    std::string CheckMonitoring(bool on, DWORD result);
    Monitoring ReadMonitoring() const;

    bool IsBusy(std::size_t volume) const;
    bool IsListed(const Application& application) const;
    std::string CheckListed() const;
    std::string CheckMarks();
    void NoteMayBeMarked(const Operation& operation);
    void NoteLoss(std::size_t volume);
    std::string CheckLosses() const;
    std::vector<std::wstring> Registered() const;
    bool HasStruck(std::initializer_list<std::wstring_view> functions) const;
    bool HasStruckAnother(std::initializer_list<std::wstring_view> functions) const;
    bool IsStruck() const;
    bool FailsOnce() const;
    bool MayBeDone() const;
    void NoteCallOfAFault(const wchar_t* function, const wchar_t* text);
    bool LeavesOut(std::size_t volume) const;
    bool IsUndisturbed(std::size_t application, std::size_t volume) const;
    Reported ReportedBlocks(const Application& application) const;
    std::string CheckOpen(Application& application);
    bool HasBackup(std::size_t number) const;
    std::string CheckFiles() const;
    std::string EndBackup(const Application& application);
    void PutRight();
    void StartWatching(const Operation& operation);
    std::string CheckWatched();
    std::string CheckWatched(std::size_t number, std::size_t volume, bool base);
    bool IsCutFile(std::size_t number, std::size_t volume, bool base, bool byDeath) const;
    bool IsMixed(std::size_t number, std::size_t volume, bool base, const BitmapFile& now) const;
    std::string CheckOwed(std::size_t number, std::size_t volume) const;
    std::string CheckHandedBack() const;
    std::string CheckMarkOfFailedChanges(const Application& application) const;
    bool IsTold(const Application& application, std::size_t volume) const;
    MayBe WhatMayBe(std::size_t number, std::size_t volume, bool base) const;
    BitmapFile ReadFile(std::size_t number, std::size_t volume, bool base) const;
    std::vector<std::wstring> ResyncList(const std::wstring& name) const;
    bool Holds(const std::vector<std::wstring>& list, std::size_t volume) const;
    bool IsListedForResync(const std::wstring& name, std::size_t volume) const;
    void Happened(std::size_t volume) { ++m_events[volume]; }
    void HappenedEverywhere();
    static std::wstring FileName(const Application& application, bool base);
    std::wstring FilePath(const Application& application, std::size_t volume, bool base) const;
    void Disturb();
    static void Count(std::uint64_t Verdicts::*which);
    bool Claim(Application& application, std::size_t volume);
    DWORD Replicate(Application& application);
    DWORD AskForVerify(Application& application, std::size_t volume);
    void KeepMapped();
    DoubleGuest* Guest(Application& application);

    std::unique_ptr<ProofLog> m_log;
    std::unique_ptr<vtfltsim::SimMachine> m_machine;
    CallCounts m_calls;
    std::vector<vtfltsim::Volume> m_volumes;
    std::vector<std::wstring> m_roots;
    std::vector<std::wstring> m_devices;
    std::vector<std::wstring> m_folders;
    Expected m_expected;
    std::vector<Application> m_applications;
    std::uint32_t m_memoryNth = 0; // the allocation that fails, counted from the next guest's work; 0: none
    std::uint32_t m_allocations = 0;
    bool m_memoryOn = false;
    bool m_memoryStruck = false;
    bool m_struck = false;
    bool m_faulty = false;
    std::vector<Fault> m_faults; // of the operation
    StruckCalls m_struckCalls;
    Monitoring m_monitoring;
    bool m_driverWasThere = false; // before the operation
    // Whose mark of which volume the operation may take off.
    const Chain* m_takenOff = nullptr;
    // Since the marks were last looked at: volumes to which something was done, and whether all may be marked.
    std::vector<bool> m_touched;
    bool m_marksMany = false;
    std::size_t m_operating = 0; // the operation's application
    bool m_replicated = false;   // in the operation, entries may have gone on to a verify list
    std::uint64_t m_trace = 0xcbf29ce484222325ull;
    bool m_tells = false;
    bool m_armed = false;
    unsigned m_disturbances = 0; // under way
    // By volume: how often its block size, length, tracking or files changed, or the power went. Then more may be reported
    // than was written.
    std::vector<unsigned> m_events;
    bool m_mayBeCutShort = false; // a bitmap file
    Watched m_watched;
    struct {
        Exported exported;
        const char* what; // null: none
        DWORD result;
    } m_wrongAnswer{Exported::Count, nullptr, 0};
    int m_handingOut = 0;    // who is between reading the driver's list and writing it back
    unsigned m_handOuts = 0; // how often somebody came there
    // While operations run at the same time.
    ExportWatch* m_watch = nullptr; // null: one by one
    bool m_sharesVolumes = false;
    Registrations m_registrations;
    std::vector<const Application*> m_claims; // by volume: who backs it up
};

// Runs a history and settles. Empty, or what is wrong and where; *trace (may be null) gets the trace's number, and *struck
// (may be null) whether the last operation with faults met one.
std::string RunHistory(const History& history, std::uint64_t* trace = nullptr, bool tell = false,
                       World::Thoroughly thoroughly = World::Thoroughly::Yes, bool* struck = nullptr);

} // namespace vtproof
