#include "proof/world.h"

#include "proof/proof_log.h"
#include "support/text.h"
#include "vtfltmgr/VTFltMgr.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <string_view>

namespace vtproof {

namespace {

constexpr wchar_t ANY_CALL[] = L"*";
constexpr wchar_t ALLOCATION[] = L"malloc";

std::vector<std::size_t> GrainsOf(const std::vector<VolumeShape>& volumes)
{
    std::vector<std::size_t> grains;
    for (const VolumeShape& shape : volumes)
        grains.push_back(shape.grains);
    return grains;
}

// Room for the bitmap of each of the volumes, whatever becomes of them.
std::size_t BufferBytes(const std::vector<VolumeShape>& volumes)
{
    constexpr std::size_t SMALL = 8192;
    const bool isHuge = std::any_of(volumes.begin(), volumes.end(),
                                    [](const VolumeShape& shape) { return shape.grains >= HUGE_GRAINS; });
    return isHuge ? LARGEST_BITMAP_FILE : SMALL;
}

std::wstring GuidOf(std::size_t number)
{
    return L"{5a5a5a5a-0000-4000-8000-00000000000" + vttest::WideNumber(number) + L"}";
}

// Always in the same folder: its name is in the library's log.
constexpr wchar_t FOLDER[] = L"C:\\users\\tester\\Temp\\proof";

std::unique_ptr<vtfltsim::SimMachine> NewMachine()
{
    VTFLTSIM_MACHINE machine = nullptr;
    vtfltsim::Check("VTFltSimCreate", VTFltSimCreate(FOLDER, &machine));
    VTFltSimClose(machine);
    return std::make_unique<vtfltsim::SimMachine>(FOLDER);
}

// The process ends with the next call, whichever it is.
void DieSoon()
{
    VTFLTSIM_CALL_FAULT death = {};
    death.size = sizeof(death);
    death.what = VTFLTSIM_CALL_KILLS_BEFORE;
    death.function = ANY_CALL;
    death.nth = 1;
    death.count = 1;
    VTFltSimSetCallFault(&death);
}

// As CREATE_ALWAYS does before it fails.
void WINAPI EmptyFile(void*, LPCWSTR, LPCWSTR path)
{
    const HANDLE file = CreateFileW(path, GENERIC_WRITE, FILE_SHARE_WRITE, nullptr, TRUNCATE_EXISTING, 0, nullptr);
    if (file != INVALID_HANDLE_VALUE)
        CloseHandle(file);
}

void SetFault(DWORD what, const wchar_t* function, DWORD nth, DWORD count, DWORD error, ULONGLONG value = 0)
{
    VTFLTSIM_CALL_FAULT fault = {};
    fault.size = sizeof(fault);
    fault.what = what;
    fault.function = function;
    fault.nth = nth;
    fault.count = count;
    fault.error = error;
    fault.value = value;
    vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
}

Verdicts g_verdicts;

} // namespace

const Verdicts& VerdictsSoFar()
{
    return g_verdicts;
}

World::World(const std::vector<VolumeShape>& volumes, std::size_t applications)
    : m_log(std::make_unique<ProofLog>()), m_machine(NewMachine()), m_expected(applications, GrainsOf(volumes)),
      m_applications(applications), m_events(volumes.size()), m_claims(volumes.size())
{
    for (std::size_t i = 0; i < volumes.size(); ++i) {
        VTFLTSIM_VOLUME_CONFIG config = {};
        config.size = sizeof(config);
        config.length = std::uint64_t{volumes[i].grains} * GRAIN;
        config.blockSize = volumes[i].blockSize;
        const std::wstring name = GuidOf(i);
        config.guid = name.c_str();
        WCHAR guid[VTFLTSIM_GUID_CHARS] = {};
        vtfltsim::Check("VTFltSimAddVolume", VTFltSimAddVolume(m_machine->handle(), &config, guid));
        m_volumes.push_back({guid});
        m_roots.push_back(m_volumes.back().Root());
        m_devices.push_back(m_volumes.back().Path());
        m_folders.push_back(m_machine->Info(m_volumes.back()).filesDirectory);
    }
    m_touched.resize(volumes.size());
    KeepMapped();
    m_machine->AttachProgram();
    for (std::size_t i = 0; i < applications; ++i) {
        Application& application = m_applications[i];
        application.id = L"App" + vttest::WideNumber(i);
        application.buffer.resize(BufferBytes(volumes));
        application.chains.resize(volumes.size());
        for (Chain& chain : application.chains)
            chain.undisturbed = SETTLED_ROUNDS;
    }
}

World::~World()
{
    Disarm();
    for (Application& application : m_applications)
        EndGuest(application, true);
    m_machine->Detach();
    m_machine.reset();
    VTFltSimDestroy(FOLDER);
}

// The simulator opens a volume's maps when it first needs them, and keeps them: that must not be in a guest, which ends.
void World::KeepMapped()
{
    for (const vtfltsim::Volume& volume : m_volumes)
        m_machine->Bits(volume);
}

// --- Running a piece of an application's work in its process.

World::Went World::InGuest(Application& application, void (*work)(const void*), const void* argument)
{
    struct Call {
        void (*work)(const void*);
        const void* argument;
    } call{work, argument};
    if (application.session.open)
        m_touched[application.session.volume] = true;
    DoubleGuest* const guest = Guest(application);
    ArmMemory();
    const DWORD before = VTFltSimGetCallCount(ALLOCATION);
    const bool through = DoubleRunGuest(
        guest,
        [](void* value) {
            const auto& one = *static_cast<const Call*>(value);
            try {
                one.work(one.argument);
            } catch (const std::bad_alloc&) {
                // The application's own work ran out of memory; what it had found out so far stands.
            }
        },
        &call);
    CountMemory(before);
    if (through)
        return Went::Through;
    m_struck = true;
    m_mayBeCutShort = true;
    NoteDeath();
    Disarm();
    return Went::Died;
}

DoubleGuest* World::Guest(Application& application)
{
    if (application.guest == nullptr)
        application.guest = DoubleMakeGuest();
    return application.guest;
}

// The call's text is the path as it was opened, a bar, and the number of bytes. Allocates nothing.
void World::NoteTransfer(CutTransfer& cut, std::wstring_view text)
{
    const std::size_t bar = std::min(text.find(L'|'), text.size());
    std::uint64_t length = 0;
    for (const wchar_t digit : text.substr(std::min(bar + 1, text.size())))
        length = length * 10 + static_cast<std::uint64_t>(digit - L'0');
    cut.isCut = length > cut.bytes;
    *std::copy_n(text.begin(), std::min<std::size_t>(bar, MAX_PATH - 1), cut.path.begin()) = L'\0';
}

// Room for them was made: their addresses stay.
void World::ArmCut(const wchar_t* function, const Fault& fault)
{
    CutTransfer& cut = m_watched.cuts.emplace_back();
    cut.writes = fault.how != Fault::How::ShortRead;
    cut.kills = fault.how == Fault::How::DieInWrite;
    cut.bytes = fault.error;
    vtfltsim::Check("VTFltSimCallBefore", VTFltSimCallBefore(
                                              function, nullptr, fault.nth, 1,
                                              [](void* context, LPCWSTR, LPCWSTR text) {
                                                  CutTransfer& one = *static_cast<CutTransfer*>(context);
                                                  NoteTransfer(one, text);
                                                  if (one.kills)
                                                      DieSoon();
                                              },
                                              &cut));
    SetFault(VTFLTSIM_CALL_SHORT, function, fault.nth, 1, 0, fault.error);
}

// One that has no more than it may move goes through whole: nothing went wrong.
bool World::IsEachCut() const
{
    return std::all_of(m_watched.cuts.begin(), m_watched.cuts.end(),
                       [](const CutTransfer& cut) { return cut.isCut || cut.kills; });
}

void World::Arm(const std::vector<Fault>& faults)
{
    m_struck = false;
    m_armed = m_armed || !faults.empty();
    m_struckCalls = StruckCalls();
    if (!faults.empty()) {
        m_watched.cuts.clear();
        m_watched.cuts.reserve(faults.size());
    }
    for (const Fault& fault : faults) {
        switch (fault.how) {
        case Fault::How::Fail:
            SetFault(VTFLTSIM_CALL_FAILS, ANY_CALL, fault.nth, 1, fault.error);
            break;
        case Fault::How::FailOn:
            SetFault(VTFLTSIM_CALL_FAILS, ANY_CALL, fault.nth, 0, fault.error);
            break;
        case Fault::How::NotThere:
            SetFault(VTFLTSIM_CALL_FAILS, L"CreateFileW", fault.nth, 1, ERROR_FILE_NOT_FOUND);
            break;
        case Fault::How::FailAfter:
            SetFault(VTFLTSIM_CALL_FAILS_AFTER, CHANGING[fault.error % std::size(CHANGING)], fault.nth, 1,
                     ERROR_GEN_FAILURE);
            break;
        case Fault::How::Short:
            ArmCut(L"WriteFile", fault);
            m_mayBeCutShort = true;
            break;
        case Fault::How::FailOf:
        case Fault::How::FailOfOn:
            SetFault(VTFLTSIM_CALL_FAILS, FUNCTIONS[fault.error / FUNCTION_STEP % std::size(FUNCTIONS)], fault.nth,
                     fault.how == Fault::How::FailOf ? 1 : 0, fault.error % FUNCTION_STEP);
            break;
        case Fault::How::NoMemory:
        case Fault::How::NoMemoryOn:
            m_memoryNth = fault.nth;
            m_memoryOn = fault.how == Fault::How::NoMemoryOn;
            break;
        case Fault::How::DieBefore:
            SetFault(VTFLTSIM_CALL_KILLS_BEFORE, ANY_CALL, fault.nth, 1, 0);
            break;
        case Fault::How::DieAfter:
            SetFault(VTFLTSIM_CALL_KILLS_AFTER, ANY_CALL, fault.nth, 1, 0);
            break;
        case Fault::How::DieInWrite:
            ArmCut(L"WriteFile", fault);
            m_mayBeCutShort = true;
            break;
        case Fault::How::ShortRead:
            ArmCut(L"ReadFile", fault);
            break;
        case Fault::How::Empties:
            vtfltsim::Check("VTFltSimCallBefore",
                            VTFltSimCallBefore(L"CreateFileW", nullptr, fault.nth, 1, EmptyFile, nullptr));
            SetFault(VTFLTSIM_CALL_FAILS, L"CreateFileW", fault.nth, 1, ERROR_GEN_FAILURE);
            break;
        default:
            break;
        }
    }
}

void World::Disarm()
{
    if (!m_armed)
        return;                         // what others have planned stays
    NoteCallOfAFault(nullptr, nullptr); // the last call may have been the one
    m_armed = false;
    // Of several each: one that lasts strikes more than once.
    const bool cameToEach = std::all_of(m_faults.begin(), m_faults.end(), [&](const Fault& fault) {
        return fault.how != Fault::How::Fail || fault.nth <= m_struckCalls.made;
    });
    m_struck = m_struck || m_memoryStruck ||
               (VTFltSimGetCallFaultHits() >= std::max<std::size_t>(1, m_faults.size()) && cameToEach && IsEachCut());
    m_memoryStruck = false;
    m_memoryNth = 0;
    VTFltSimClearCallFaults();
}

// The allocations of the test's own code, between the pieces of work, do not count.
void World::ArmMemory()
{
    if (m_memoryNth != 0)
        SetFault(VTFLTSIM_CALL_FAILS, ALLOCATION, m_memoryNth, m_memoryOn ? 0 : 1, ERROR_NOT_ENOUGH_MEMORY);
}

void World::CountMemory(DWORD before)
{
    m_allocations += VTFltSimGetCallCount(ALLOCATION) - before;
    if (m_memoryNth == 0)
        return;
    m_memoryStruck = m_memoryStruck || VTFltSimGetCallFaultHits() != 0;
    const DWORD made = VTFltSimGetCallCount(ALLOCATION) - before;
    VTFltSimClearCallFaults();
    if (made < m_memoryNth)
        m_memoryNth -= made;
    else
        m_memoryNth = m_memoryOn ? 1 : 0;
}

// --- One operation.

std::string World::Run(const Operation& operation, bool beforeACut)
{
    if (operation.what != Do::PowerCut) {
        for (const std::wstring& folder : m_folders)
            DoubleSyncBelow(folder.c_str());
        m_watched.on = false;
        if (!operation.faults.empty() || beforeACut)
            StartWatching(operation);
    }
    Tell(ToText(operation));
    m_driverWasThere = IsDriverThere();
    NoteMayBeMarked(operation);
    Arm(operation.faults);
    // What is right behind a fault depends on the call that it struck.
    if (!operation.faults.empty())
        vtfltsim::Check("VTFltSimCallBefore", VTFltSimCallBefore(
                                                  ANY_CALL, nullptr, 1, 0,
                                                  [](void* context, LPCWSTR function, LPCWSTR text) {
                                                      static_cast<World*>(context)->NoteCallOfAFault(function, text);
                                                  },
                                                  this));
    m_faults = operation.faults;
    m_faulty = !operation.faults.empty();
    m_takenOff = nullptr;
    m_replicated = false;
    if (m_faulty)
        Disturb();
    const DWORD processes = VTFltSimGetCallCount(L"CreateProcessW");
    std::string wrong = Dispatch(operation);
    Disarm();
    // The driver was installed anew, and listed every volume.
    m_marksMany = m_marksMany || VTFltSimGetCallCount(L"CreateProcessW") != processes;
    m_faulty = false;
    if (!operation.faults.empty()) {
        Count(&Verdicts::faulty);
        if (m_struck) {
            Count(&Verdicts::struck);
            NoteStruck(operation);
        }
    }
    if (wrong.empty())
        wrong = TakeWrongAnswer();
    if (wrong.empty() && operation.what != Do::Write)
        wrong = CheckListed();
    if (wrong.empty() && operation.what != Do::Write)
        wrong = CheckMarks();
    for (Application& application : m_applications) {
        if (wrong.empty())
            wrong = CheckOpen(application);
    }
    if (wrong.empty() && operation.what != Do::PowerCut)
        wrong = CheckWatched();
    if (wrong.empty() && m_log->Broken() != 0)
        wrong = "a log record is not one whole line";
    Mix(m_log->Sum());
    Mix(m_calls.All());
    return wrong;
}

// Whatever it was, the application's next backup of the volume that it was about tells.
void World::NoteStruck(const Operation& operation)
{
    std::vector<Chain>& chains = m_applications[operation.application].chains;
    for (std::size_t volume = 0; volume < chains.size(); ++volume)
        chains[volume].behind = chains[volume].behind || m_watched.volume == NOWHERE || m_watched.volume == volume;
}

namespace {

} // namespace

// The driver puts the volume on its list.
bool World::ListsForResync(Do what)
{
    return what == Do::LoseTracking || what == Do::StartTracking || what == Do::SetBlockSize || what == Do::Resize;
}

std::string World::Dispatch(const Operation& operation)
{
    // What the driver adds to its list while that is handed out is dropped (Limit.WhatTheDriverAddsToItsList...).
    if (m_handingOut != 0 && ListsForResync(operation.what)) {
        Count(&Verdicts::leftOut);
        return {};
    }
    Application& application = m_applications[operation.application];
    const std::size_t volume = operation.volume;
    const std::wstring& guid = m_volumes[volume].guid;
    switch (operation.what) {
    case Do::Write: {
        static const std::vector<std::uint8_t> data(64 * GRAIN, 1);
        const std::size_t grains = m_expected.Volume(volume).size();
        const std::size_t first = operation.a % grains;
        const std::size_t count = std::min<std::size_t>({operation.b % 64 + 1, grains - first, 64});
        m_expected.Write(volume, first, count);
        vtfltsim::Check("VTFltSimWriteVolume", VTFltSimWriteVolume(m_machine->handle(), guid.c_str(), first * GRAIN,
                                                                   data.data(), static_cast<DWORD>(count * GRAIN)));
        return {};
    }
    case Do::Register:
    case Do::RegisterAgain:
        return Register(application, operation.what == Do::Register);
    case Do::Unregister:
        return Unregister(application);
    case Do::Begin:
        return Begin(operation.application, volume);
    case Do::Fetch:
        return Fetch(operation.application);
    case Do::Finish:
        return Finish(operation.application, operation.a, operation.b);
    case Do::Backup:
        return Backup(operation);
    case Do::Abandon:
        Abandon(application);
        return {};
    case Do::Crash: {
        const Disturbance disturbance(*this);
        return Crash(application);
    }
    case Do::LoseTracking:
        Disturb();
        Happened(volume);
        VTFltSimLoseTracking(m_machine->handle(), guid.c_str());
        NoteLoss(volume);
        return {};
    case Do::Resize:
        Disturb();
        Happened(volume);
        m_expected.Resize(volume, operation.a);
        vtfltsim::Check("VTFltSimResizeVolume",
                        VTFltSimResizeVolume(m_machine->handle(), guid.c_str(), std::uint64_t{operation.a} * GRAIN));
        KeepMapped();
        return {};
    case Do::SetBlockSize:
        Disturb();
        Happened(volume);
        vtfltsim::Check("VTFltSimSetBlockSize", VTFltSimSetBlockSize(m_machine->handle(), guid.c_str(), operation.a));
        KeepMapped();
        return {};
    case Do::Damage:
        Disturb();
        Happened(volume);
        Damage(operation);
        return {};
    case Do::PowerCut:
        Disturb();
        HappenedEverywhere();
        return PowerCut(operation.a);
    case Do::StopDriver:
    case Do::StartDriver:
        Disturb();
        HappenedEverywhere();
        m_machine->SetDriver(operation.what == Do::StartDriver ? VTFLTSIM_DRIVER_WORKING : VTFLTSIM_DRIVER_ABSENT);
        return {};
    case Do::StartTracking:
        Disturb();
        Happened(volume);
        VTFltSimStartTracking(m_machine->handle(), guid.c_str());
        return {};
    case Do::StopVolume:
        Happened(volume);
        return StopTracking(application, Exported::StopVolume, volume);
    case Do::StopVolumes:
        HappenedEverywhere();
        return StopTracking(application, Exported::StopVolumes, 0);
    case Do::MarkAll:
        return MarkAll(application);
    case Do::Unmark:
        return Unmark(application, volume, operation.a != 0);
    case Do::Monitor:
        return Monitor(application, operation.a != 0);
    case Do::Ask:
        return Ask(application, volume);
    case Do::AsksAgain:
        application.asksAgain = operation.a % AGAIN_COUNT;
        return {};
    default:
        return "an operation that is none";
    }
}

void World::HappenedEverywhere()
{
    for (unsigned& events : m_events)
        ++events;
}

std::string World::TakeWrongAnswer()
{
    if (m_wrongAnswer.what == nullptr)
        return {};
    std::string wrong = std::string(EXPORT_NAMES[static_cast<std::size_t>(m_wrongAnswer.exported)]) + " " +
                        m_wrongAnswer.what + ", " + std::to_string(m_wrongAnswer.result);
    m_wrongAnswer.what = nullptr;
    return wrong;
}

World::Calls World::CountCalls(const Operation& operation)
{
    Calls calls;
    const auto count = [](void* context, LPCWSTR, LPCWSTR) { ++*static_cast<std::uint32_t*>(context); };
    m_armed = true;
    const DWORD writes = VTFltSimGetCallCount(L"WriteFile");
    vtfltsim::Check("VTFltSimCallBefore", VTFltSimCallBefore(ANY_CALL, nullptr, 1, 0, count, &calls.all));
    m_allocations = 0;
    Arm(operation.faults);
    m_faulty = true; // as when one of the calls is to fail: some operations do more when none is
    Dispatch(operation);
    m_faulty = false;
    Disarm();
    calls.writes = VTFltSimGetCallCount(L"WriteFile") - writes;
    calls.allocations = m_allocations;
    return calls;
}

std::string World::Crash(Application& application)
{
    return EndGuest(application, true);
}

// The process is gone; whoever starts it again first deletes its left snapshot. What it did not give back is told.
std::string World::EndGuest(Application& application, bool died)
{
    Disarm();
    if (application.guest == nullptr)
        return {};
    Session& session = application.session;
    if (session.initialised) {
        // The table of handles is the guests' common one; a process's entries go with it.
        const HANDLE handle = session.handle;
        DoubleRunGuest(
            application.guest, [](void* argument) { VTFltDeinitBitmapManager(*static_cast<const HANDLE*>(argument)); },
            const_cast<HANDLE*>(&handle));
    }
    EndSession(application);
    const DoubleLeft left = DoubleEndGuest(application.guest);
    application.guest = nullptr;
    if (died)
        return {};
    if (left.open.handles + left.open.keys + left.open.views + left.open.ownedMutexes != 0)
        return "a process left something open";
    if (left.allocations != 0)
        return "a process left " + std::to_string(left.bytes) + " bytes of its heap in " +
               std::to_string(left.allocations) + " pieces";
    return {};
}

std::string World::CheckOpen(Application& application)
{
    if (application.guest == nullptr)
        return {};
    DoubleOpen open = {};
    DoubleRunGuest(
        application.guest, [](void* argument) { *static_cast<DoubleOpen*>(argument) = DoubleCountOpen(); }, &open);
    const std::size_t mayHave = application.session.handle != INVALID_HANDLE_VALUE ? 1 : 0;
    if (open.handles != mayHave)
        return std::to_string(open.handles) + " handles are open, not " + std::to_string(mayHave);
    if (open.keys != 0 || open.views != 0 || open.ownedMutexes != 0 || open.badCloses != 0)
        return "keys " + std::to_string(open.keys) + ", views " + std::to_string(open.views) + ", owned mutexes " +
               std::to_string(open.ownedMutexes) + ", wrong closes " + std::to_string(open.badCloses);
    return {};
}

bool World::IsBusy(std::size_t volume) const
{
    return std::any_of(m_applications.begin(), m_applications.end(), [volume](const Application& application) {
        return application.session.open && application.session.volume == volume;
    });
}

bool World::IsUndisturbed(std::size_t application, std::size_t volume) const
{
    return m_applications[application].chains[volume].undisturbed >= SETTLED_ROUNDS && !m_faulty &&
           m_disturbances == 0 && !m_applications[application].session.disturbed;
}

void World::Disturb()
{
    for (Application& application : m_applications) {
        application.session.disturbed = true;
        for (Chain& chain : application.chains)
            chain.undisturbed = 0;
    }
}

void World::Count(std::uint64_t Verdicts::*which)
{
    ++(g_verdicts.*which);
}

void World::Mix(std::uint64_t value)
{
    m_trace = (m_trace ^ value) * 0x100000001b3ull;
}

void World::Tell(const std::string& line)
{
    if (m_tells)
        std::fprintf(stderr, "%s\n", line.c_str());
}

} // namespace vtproof
