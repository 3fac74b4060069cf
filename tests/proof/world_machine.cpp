// What happens to the machine, and what does not belong to a backup.
#include "proof/world.h"

#include "proof/proof_log.h"
#include "vtfltmgr/VTFltMgr.h"
#include "win/owners.h"

#include <algorithm>
#include <string_view>

namespace vtproof {

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t HEADER_BYTES = 84;
bool ReadAll(const std::wstring& path, Bytes& bytes)
{
    static std::uint8_t room[LARGEST_BITMAP_FILE];
    const std::size_t read = DoubleReadFile(path.c_str(), room, sizeof(room));
    if (read == SIZE_MAX)
        return false;
    bytes.assign(room, room + read);
    return true;
}

void WriteAll(const std::wstring& path, const Bytes& bytes)
{
    const vtflt::UniqueHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                               FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM, nullptr));
    DWORD written = 0;
    if (file.valid() && !bytes.empty())
        WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

} // namespace

// Below the volume's root.
std::wstring World::FileName(const Application& application, bool base)
{
    return (base ? L"\\VelVolTrc\\VelVolTrc_base_" : L"\\VelVolTrc\\VelVolTrc_child_") + application.id + L".dat";
}

std::wstring World::FilePath(const Application& application, std::size_t volume, bool base) const
{
    return m_folders[volume] + FileName(application, base);
}

void World::Damage(const Operation& operation)
{
    const std::wstring path = FilePath(m_applications[operation.application], operation.volume, operation.a != 0);
    Bytes bytes;
    if (!ReadAll(path, bytes) || bytes.size() < HEADER_BYTES)
        return;
    switch (operation.b) {
    case 0:
        DeleteFileW(path.c_str());
        return;
    case 1:
        bytes.clear();
        break;
    case 2:
        bytes.resize(HEADER_BYTES);
        break;
    case 3: // of the signature, and of the trailer: done twice it is not undone
        bytes[0] |= 0x20;
        break;
    case 4:
        bytes.back() &= 0xFE;
        break;
    default:
        m_mayBeCutShort = true;
        bytes.resize(bytes.size() - 1);
        break;
    }
    WriteAll(path, bytes);
}

// All processes are gone; a driver that did not see an orderly end starts every volume anew.
std::string World::PowerCut(std::uint32_t how)
{
    m_mayBeCutShort = true;
    for (Application& application : m_applications)
        EndGuest(application, true);
    if (how != 0) {
        for (const std::wstring& folder : m_folders)
            DoubleLoseBelow(folder.c_str(), how == 1 ? 0 : how);
    }
    m_watched.cut = true;
    m_watched.torn = how > 1;
    if (m_watched.on)
        Count(&Verdicts::cuts);
    std::string wrong = CheckWatched();
    m_watched.on = false;
    VTFltSimReboot(m_machine->handle());
    for (const vtfltsim::Volume& volume : m_volumes)
        VTFltSimLoseTracking(m_machine->handle(), volume.guid.c_str());
    return wrong;
}

std::string World::MarkAll(Application& application)
{
    const Disturbance disturbance(*this);
    DWORD result = 0;
    const Went went = In(application, [&] {
        result = Call(application, Exported::AddVolumesToVerifyList,
                      [&] { return VTAddVolumesToAppVerifyList(application.id.c_str()); });
    });
    Disarm(); // what follows looks at the registry itself
    // Who is told by what fails that there is no driver marks nothing, and says 0 (Limit.MarkingWithoutADriver...). Who
    // walks over the volumes knows that there is one.
    const bool mayBeGate = m_faulty && IsStruck() && !m_struckCalls.walks;
    const bool all = went == Went::Through && result == 0 && !mayBeGate && m_driverWasThere && IsDriverThere();
    const std::string wrong = CheckMarked(application, all);
    if (went == Went::Died)
        Crash(application);
    else
        Mix(result);
    if (!wrong.empty())
        return wrong;
    return m_faulty || result == 0 ? std::string() : "marking every volume gives " + std::to_string(result);
}

// A library that is asked for a driver that is away may have had it installed again.
bool World::IsDriverThere() const
{
    DWORD state = VTFLTSIM_DRIVER_ABSENT;
    vtfltsim::Check("VTFltSimGetDriverState", VTFltSimGetDriverState(m_machine->handle(), &state));
    return state == VTFLTSIM_DRIVER_WORKING;
}

bool World::HasFile(const Application& application, std::size_t volume) const
{
    std::uint8_t byte = 0;
    return DoubleReadFile(FilePath(application, volume, false).c_str(), &byte, 1) != SIZE_MAX ||
           DoubleReadFile(FilePath(application, volume, true).c_str(), &byte, 1) != SIZE_MAX;
}

bool World::HasFiles(std::size_t volume) const
{
    return std::any_of(m_applications.begin(), m_applications.end(),
                       [&](const Application& application) { return HasFile(application, volume); });
}

bool World::HasFiles(const Application& application) const
{
    for (std::size_t volume = 0; volume < m_volumes.size(); ++volume) {
        if (HasFile(application, volume))
            return true;
    }
    return false;
}

// Of one volume, or of all of them. A success leaves no files; a failure without a fault has none to begin with, or no
// driver to tell.
std::string World::StopTracking(Application& application, Exported exported, std::size_t volume)
{
    const Disturbance disturbance(*this);
    const bool one = exported == Exported::StopVolume;
    const std::size_t first = one ? volume : 0;
    const std::size_t end = one ? volume + 1 : m_volumes.size();
    bool hadAll = true;
    for (std::size_t each = first; each < end; ++each)
        hadAll = hadAll && HasFiles(each);
    DWORD result = 1;
    const Went went = In(application, [&] {
        result = Call(application, exported, [&] {
            return one ? VTFltStopMonitorVolume(m_devices[volume].c_str()) : VTFltStopMonitorVolumes();
        });
    });
    if (went == Went::Died)
        return Crash(application);
    Mix(result);
    if (m_watch != nullptr)
        return {};
    Disarm(); // what follows looks at the machine itself
    for (std::size_t each = first; each < end && result == 0; ++each) {
        if (HasFiles(each) && (one || !LeavesOut(each)))
            return "tracking was ended and the bitmap files are there";
    }
    if (one && result == 0 && m_machine->Info(m_volumes[volume]).tracked != 0)
        return "tracking was ended and the driver goes on";
    const bool mayFail = m_faulty || !hadAll || (one && !IsDriverThere());
    return result == 0 || mayFail ? std::string() : "ending the tracking gives " + std::to_string(result);
}

std::string World::Monitor(Application& application, bool on)
{
    if (application.monitors == on)
        return {};
    DWORD result = NOTHING_SAID;
    const Went went = In(application, [&] {
        result =
            on ? Call(application, Exported::EnableMonitor, [] { return VTFltEnableMonitorForSnapshot(nullptr); })
               : Call(application, Exported::DisableMonitor, [] { return VTFltDisableMonitorForSnapshot(nullptr); });
    });
    Disarm(); // what follows looks at the registry itself
    const std::string wrong = m_watch == nullptr ? CheckMonitoring(on, result) : std::string();
    if (went == Went::Died)
        Crash(application);
    else
        Mix(result);
    if (!wrong.empty() || went == Went::Died)
        return wrong;
    if (result == 0)
        application.monitors = on;
    else if (!m_faulty)
        return "monitoring cannot be switched, " + std::to_string(result);
    return {};
}

// An entry that is not there, or an application's own mark: whoever takes that off reads everything next time.
std::string World::Unmark(Application& application, std::size_t volume, bool itsOwn)
{
    const std::wstring entry = itsOwn ? m_volumes[volume].guid : L"{00000000-0000-4000-8000-000000000000}";
    const std::vector<bool> before = NotedMarks(application);
    std::vector<bool> without = before;
    if (itsOwn) {
        without[volume] = false;
        Session& session = application.session;
        application.chains[volume].mustVerify = true;
        application.chains[volume].lost = false;
        session.mustVerifyNext = session.mustVerifyNext || (session.open && session.volume == volume);
        m_takenOff = &application.chains[volume];
    }
    DWORD result = NOTHING_SAID;
    bool untouched = true; // the volumes are asked by the caller, and stay its own
    const Went went = In(application, [&] {
        std::vector<std::wstring> volumes{entry};
        std::wstring id = application.id; // the export consumes it
        result = Call(application, Exported::RemoveFromVerifyList,
                      [&] { return VTRemoveApplicationVolResyncList(std::move(id), &volumes); });
        untouched = volumes.size() == 1 && volumes.front() == entry;
    });
    Disarm(); // what follows looks at the registry itself
    const std::vector<bool> now = Marks(application);
    if (went == Went::Died)
        Crash(application);
    else
        Mix(result);
    if (!untouched)
        return "taking a mark off changes the caller's list of volumes";
    const bool mayBeOld = result != 0;
    const bool mayBeNew = result == 0 || went == Went::Died || MayBeDone();
    if (m_watch == nullptr && !(mayBeOld && now == before) && !(mayBeNew && now == without))
        return "taking a mark off gives " + std::to_string(result) + ", and the verify list is not what it should be";
    if (went != Went::Died && !m_faulty && result != (application.registered ? 0 : VTFLT_APP_NOT_REGISTERED))
        return "taking a mark off gives " + std::to_string(result);
    return {};
}

namespace {

constexpr DWORD UNTOUCHED = 0xABCDABCD;

void AppendNames(const std::vector<std::wstring>& ids, std::wstring& names)
{
    for (const std::wstring& id : ids)
        names.append(id).append(1, L';');
}

std::wstring Names(const std::vector<std::wstring>& ids)
{
    std::wstring names;
    AppendNames(ids, names);
    return names;
}

} // namespace

struct World::Answers {
    DWORD counted = 1;
    DWORD count = UNTOUCHED;
    DWORD list = 1;
    std::size_t listed = 0;
    std::wstring names; // in the order of the list
    bool present = false;
    bool emptied = true;
    DWORD can = 0;
    DWORD works = 0;
    DWORD notMonitored = 1;
    bool opened = false;
    DWORD asked = 1;
    DWORD blockSize = 0;
    DWORD fetched = 1; // none of these is an answer
    DWORD needed = 0;
};

// The questions change nothing, and agree with each other.
std::string World::Ask(Application& application, std::size_t volume)
{
    Answers got;
    const Registrations before = m_registrations;
    constexpr std::size_t NAMES_ROOM = 1024; // had in front: what the process allocates is on its account
    got.names.reserve(NAMES_ROOM);
    const Went went = In(application, [&] {
        std::vector<std::wstring> ids{L"of before"};
        got.counted = Call(application, Exported::AppCount, [&] { return VTGetRegisteredAppCount(&got.count); });
        got.list = Call(application, Exported::AppList, [&] { return VTGetRegisteredAppList(&ids); });
        got.listed = ids.size();
        AppendNames(ids, got.names);
        got.present = std::find(ids.begin(), ids.end(), application.id) != ids.end();
        got.emptied = ids.empty() || ids.front() != L"of before";
        got.works = Call(application, Exported::CanDriverWork, [] { return VTCanBLIDriverWork(); });
        got.can =
            Call(application, Exported::CanAppUseDriver, [&] { return VTCanAppUseBLIDriver(application.id.c_str()); });
        got.notMonitored = Call(application, Exported::IsDeviceMonitored,
                                [&] { return VTIsDeviceMonitored(m_devices[volume].c_str()); });
        const HANDLE handle = CreateFileW(m_devices[volume].c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                          nullptr, OPEN_EXISTING, 0, nullptr);
        got.opened = handle != INVALID_HANDLE_VALUE;
        if (!got.opened)
            return;
        got.asked =
            Call(application, Exported::GetBlockSize, [&] { return VTFltGetBlockSize(handle, &got.blockSize, 1); });
        BYTE input = 0;
        BYTE header[VTFLT_BITMAP_HEADER_BYTES] = {};
        got.fetched = Call(application, Exported::GetBitmap,
                           [&] { return VTFltGetBitmap(handle, &input, 0, header, sizeof(header), &got.needed, 1); });
        CloseHandle(handle);
    });
    if (went == Went::Died)
        return Crash(application);
    Disarm(); // what follows looks at the machine itself
    Mix(got.count);
    Mix(got.can);
    if (got.counted != 0 && got.count != UNTOUCHED)
        return "a count that failed is written";
    if (!got.emptied)
        return "the list of applications is not emptied first";
    if (m_faulty)
        return CheckAnswersOfAFault(application, volume, got);
    if (got.counted != 0 || got.list != 0 || (!Overlapped(before) && got.count != got.listed))
        return "the list of applications has " + std::to_string(got.listed) + " entries and the count is " +
               std::to_string(got.count);
    if (!Overlapped(before) && got.names != Names(Registered()))
        return "the list of applications is not the stored one, in its order";
    if (!Overlapped(before) && (got.can != 0) != (got.works != 0 && got.present))
        return "an application may use the driver: " + std::to_string(got.can);
    // Others may end a volume's tracking meanwhile.
    if (m_watch != nullptr)
        return {};
    const bool there = IsDriverThere();
    if ((got.works != 0) != there)
        return "the driver works: " + std::to_string(got.works);
    const VTFLTSIM_VOLUME_INFO info = m_machine->Info(m_volumes[volume]);
    if ((got.notMonitored == 0) != (there && info.tracked != 0))
        return "the volume is not monitored: " + std::to_string(got.notMonitored);
    if (!got.opened || (there && (got.asked != 0 || got.blockSize != info.blockSize)))
        return "the block size is " + std::to_string(got.blockSize) + ", with result " + std::to_string(got.asked);
    if (there && info.tracked != 0 && (got.fetched != ERROR_MORE_DATA || got.needed <= VTFLT_BITMAP_HEADER_BYTES))
        return "the length of the driver's bitmap is " + std::to_string(got.needed) + ", with result " +
               std::to_string(got.fetched);
    return {};
}

// Whatever fails, an answer that is given is the right one; "no" may mean that nobody knows.
std::string World::CheckAnswersOfAFault(const Application& application, std::size_t volume, const Answers& got) const
{
    const std::size_t registered = Registered().size();
    if ((got.counted == 0 && got.count != registered) || (got.list == 0 && got.listed != registered))
        return "of " + std::to_string(registered) + " applications " + std::to_string(got.listed) + " are listed and " +
               std::to_string(got.count) + " are counted";
    if (m_watch == nullptr && got.list == 0 && got.names != Names(Registered()))
        return "the list of applications is not the stored one, in its order";
    if (got.present && !application.registered)
        return "an application is listed that is not registered";
    // One of the questions may have installed the driver, or taken it away and failed to install it again; where two
    // things fail, one of them the one and the next the other.
    const bool there = IsDriverThere();
    const bool wasThere = there || m_driverWasThere || m_faults.size() > 1;
    if ((got.works != 0 && !wasThere) || (got.can != 0 && !(wasThere && application.registered)))
        return "the driver works: " + std::to_string(got.works) + ", for the application: " + std::to_string(got.can);
    const VTFLTSIM_VOLUME_INFO info = m_machine->Info(m_volumes[volume]);
    if (got.notMonitored == 0 && !(wasThere && info.tracked != 0) && there == m_driverWasThere)
        return "the volume is said to be monitored";
    if (got.opened && got.asked == 0 && got.blockSize != info.blockSize)
        return "the block size is said to be " + std::to_string(got.blockSize);
    // Of 16 bytes there is never room for the bitmap; and whoever is told that there is more believes it.
    const bool isTold = std::any_of(m_faults.begin(), m_faults.end(),
                                    [](const Fault& fault) { return fault.error == ERROR_MORE_DATA; });
    const bool noLength = got.fetched == ERROR_MORE_DATA && got.needed <= VTFLT_BITMAP_HEADER_BYTES && !isTold;
    if (got.opened && (got.fetched == 0 || noLength))
        return "the length of the driver's bitmap is said to be " + std::to_string(got.needed);
    return {};
}

// --- Several at once.

void World::AtOnce(ExportWatch& watch, Volumes volumes)
{
    m_watch = &watch;
    m_sharesVolumes = volumes == Volumes::Shared;
    WatchReplications();
}

void World::WatchReplications()
{
    vtfltsim::Check("VTFltSimCallBefore", VTFltSimCallBefore(
                                              L"*", nullptr, 1, 0,
                                              [](void* context, LPCWSTR function, LPCWSTR text) {
                                                  static_cast<World*>(context)->NoteCallOfAReplication(function, text);
                                              },
                                              this));
}

namespace {

bool IsOfTheDriversList(const wchar_t* text)
{
    constexpr std::wstring_view NAME = L"DeviceListForReSync";
    return std::wstring_view(text).ends_with(NAME);
}

} // namespace

thread_local World::HandsOut World::t_handsOut = HandsOut::NotAtAll;
thread_local int World::t_registers = 0;

// The calling process comes so far.
void World::HandOut(HandsOut state)
{
    const auto isHanding = [](HandsOut one) { return one != HandsOut::NotAtAll && one != HandsOut::Not; };
    const int change = (isHanding(state) ? 1 : 0) - (isHanding(t_handsOut) ? 1 : 0);
    m_handingOut += change;
    m_handOuts += change > 0 ? 1 : 0;
    t_handsOut = state;
}

// The driver adds the volume to its list. While it waited for the list somebody may have begun to hand that out, and then what
// was added is dropped (Limit.WhatTheDriverAddsToItsList...): the driver does it again.
std::string World::AddToTheDriversList(const Operation& operation)
{
    unsigned seen = m_handOuts;
    std::string wrong = Dispatch(operation);
    while (seen != m_handOuts && wrong.empty()) {
        while (m_handingOut != 0)
            DoubleYield();
        seen = m_handOuts;
        wrong = Dispatch({Do::LoseTracking, 0, operation.volume, 0, 0, {}});
    }
    return wrong;
}

// Before each call, in the process that makes it; others can run only then. Allocates nothing there.
void World::NoteCallOfAReplication(const wchar_t* function, const wchar_t* text)
{
    if (t_handsOut == HandsOut::NotAtAll)
        return;
    // A list on which nothing stands is not written back, and nothing that is added to it is dropped.
    const auto hasNothing = [this] {
        std::pair<World*, bool> empty{this, true};
        DoubleRunOutside(
            [](void* argument) {
                auto& [world, isEmpty] = *static_cast<std::pair<World*, bool>*>(argument);
                isEmpty = world->ResyncList({}).empty();
            },
            &empty);
        return empty.second;
    };
    if (t_handsOut == HandsOut::Reads)
        HandOut(hasNothing() ? HandsOut::Not : HandsOut::Has);
    else if (t_handsOut == HandsOut::PutsBack)
        HandOut(HandsOut::Not);
    if (!IsOfTheDriversList(text))
        return;
    const std::wstring_view called = function;
    const bool reads = called == L"RegQueryValueExW";
    const bool writes = called == L"RegSetValueExW" || called == L"RegDeleteValueW";
    if (reads || writes)
        HandOut(reads ? HandsOut::Reads : HandsOut::PutsBack);
}

std::string World::RunAtOnce(std::uint32_t application, const Operation& operation)
{
    Tell(ToText(operation));
    m_driverWasThere = IsDriverThere();
    std::string wrong = ListsForResync(operation.what) ? AddToTheDriversList(operation) : Dispatch(operation);
    if (wrong.empty())
        wrong = TakeWrongAnswer();
    if (wrong.empty())
        wrong = CheckOpen(m_applications[application]);
    Mix(m_log->Sum());
    Mix(m_calls.All());
    return wrong;
}

void World::Happens(const Operation& operation)
{
    Tell(ToText(operation));
    if (ListsForResync(operation.what))
        AddToTheDriversList(operation);
    else
        Dispatch(operation);
}

void World::EndAtOnce(std::uint32_t application)
{
    Abandon(m_applications[application]);
}

std::string World::OneByOne()
{
    m_watch = nullptr;
    m_sharesVolumes = false;
    DWORD monitors = 0;
    for (const Application& application : m_applications)
        monitors += application.monitors ? 1 : 0;
    const std::string wrong = CheckListed();
    if (!wrong.empty())
        return wrong;
    m_monitoring = ReadMonitoring();
    if (m_monitoring.count != monitors)
        return std::to_string(monitors) + " monitor and " + std::to_string(m_monitoring.count) + " are counted";
    const std::string untold = CheckLosses();
    if (!untold.empty())
        return untold;
    CheckMarks(); // from here on each stays
    return m_log->Broken() != 0 ? "a log record is not one whole line" : std::string();
}

void World::TellStory()
{
    m_tells = true;
    m_log->Show(true);
}

} // namespace vtproof
