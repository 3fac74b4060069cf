// What happens to the machine, and what does not belong to a backup.
#include "proof/world.h"

#include "proof/proof_log.h"
#include "vtfltmgr/VTFltMgr.h"
#include "win/owners.h"

#include <algorithm>

namespace vtproof {

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t HEADER_BYTES = 84;
// Counts who asked for the tracking of snapshots.
constexpr wchar_t COUNT_KEY[] =
    L"SOFTWARE\\Veltrix\\Lumen Protect\\Engine\\VTFltMgr\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}";

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

std::uint32_t Number(const Bytes& bytes, std::size_t offset)
{
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < 4; ++i)
        number |= static_cast<std::uint32_t>(bytes[offset + i]) << 8 * i;
    return number;
}

} // namespace

std::wstring World::FilePath(const Application& application, std::size_t volume, bool base) const
{
    return m_folders[volume] + (base ? L"\\VelVolTrc\\VelVolTrc_base_" : L"\\VelVolTrc\\VelVolTrc_child_") +
           application.id + L".dat";
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
    case 3:
        bytes[0] ^= 0x20;
        break;
    case 4:
        bytes.back() ^= 0x01;
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
    if (went == Went::Died)
        return Crash(application);
    Mix(result);
    return m_faulty || result == 0 ? std::string() : "marking every volume gives " + std::to_string(result);
}

// A library that is asked for a driver that is away may have had it installed again.
bool World::IsDriverThere() const
{
    DWORD state = VTFLTSIM_DRIVER_ABSENT;
    vtfltsim::Check("VTFltSimGetDriverState", VTFltSimGetDriverState(m_machine->handle(), &state));
    return state == VTFLTSIM_DRIVER_WORKING;
}

bool World::HasFiles(std::size_t volume) const
{
    std::uint8_t byte = 0;
    for (const Application& application : m_applications) {
        for (const bool base : {false, true}) {
            if (DoubleReadFile(FilePath(application, volume, base).c_str(), &byte, 1) != SIZE_MAX)
                return true;
        }
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
    // A volume whose kind cannot be learned is left out of all of them.
    for (std::size_t each = first; each < end && result == 0 && (one || !m_faulty); ++each) {
        if (HasFiles(each))
            return "tracking was ended and the bitmap files are there";
    }
    const bool mayFail = m_faulty || !hadAll || (one && !IsDriverThere());
    return result == 0 || mayFail ? std::string() : "ending the tracking gives " + std::to_string(result);
}

std::string World::Monitor(Application& application, bool on)
{
    if (application.monitors == on)
        return {};
    DWORD result = 0;
    const Went went = In(application, [&] {
        result =
            on ? Call(application, Exported::EnableMonitor, [] { return VTFltEnableMonitorForSnapshot(nullptr); })
               : Call(application, Exported::DisableMonitor, [] { return VTFltDisableMonitorForSnapshot(nullptr); });
    });
    if (went == Went::Died)
        return Crash(application);
    Mix(result);
    if (result == 0)
        application.monitors = on;
    else if (!m_faulty)
        return "monitoring cannot be switched, " + std::to_string(result);
    return {};
}

std::string World::Unmark(Application& application)
{
    DWORD result = 0;
    const Went went = In(application, [&] {
        std::vector<std::wstring> volumes{L"{00000000-0000-4000-8000-000000000000}"};
        std::wstring id = application.id; // the export consumes it
        result = Call(application, Exported::RemoveFromVerifyList,
                      [&] { return VTRemoveApplicationVolResyncList(std::move(id), &volumes); });
    });
    if (went == Went::Died)
        return Crash(application);
    Mix(result);
    if (m_faulty)
        return {};
    if (result != (IsListed(application) ? 0 : VTFLT_APP_NOT_REGISTERED))
        return "taking a mark off gives " + std::to_string(result);
    return {};
}

namespace {

constexpr DWORD UNTOUCHED = 0xABCDABCD;

// The answers to the questions that change nothing.
struct Answers {
    DWORD counted = 1;
    DWORD count = UNTOUCHED;
    DWORD list = 1;
    std::size_t listed = 0;
    bool present = false;
    bool emptied = true;
    DWORD can = 0;
    DWORD works = 0;
    DWORD notMonitored = 0;
    bool opened = false;
    DWORD asked = 1;
    DWORD blockSize = 0;
    DWORD fetched = 0;
    DWORD needed = 0;
};

} // namespace

// The questions change nothing, and agree with each other.
std::string World::Ask(Application& application, std::size_t volume)
{
    Answers got;
    const Registrations before = m_registrations;
    const Went went = In(application, [&] {
        std::vector<std::wstring> ids{L"of before"};
        got.counted = Call(application, Exported::AppCount, [&] { return VTGetRegisteredAppCount(&got.count); });
        got.list = Call(application, Exported::AppList, [&] { return VTGetRegisteredAppList(&ids); });
        got.listed = ids.size();
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
        return {};
    if (got.counted != 0 || got.list != 0 || (!Overlapped(before) && got.count != got.listed))
        return "the list of applications has " + std::to_string(got.listed) + " entries and the count is " +
               std::to_string(got.count);
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

// --- Several at once.

void World::AtOnce(ExportWatch& watch, Volumes volumes)
{
    m_watch = &watch;
    m_sharesVolumes = volumes == Volumes::Shared;
}

std::string World::RunAtOnce(std::uint32_t application, const Operation& operation)
{
    Tell(ToText(operation));
    std::string wrong = Dispatch(operation);
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
    for (const Application& application : m_applications) {
        monitors += application.monitors ? 1 : 0;
        if (application.registered != IsListed(application))
            return "application " + std::to_string(&application - m_applications.data()) +
                   (application.registered ? " has registered and is not listed" : " is listed and has not registered");
    }
    const auto bytes = m_machine->ReadValue(COUNT_KEY, L"SnapshotMonitorCount");
    const DWORD counted = bytes.size() == sizeof(DWORD) ? Number(bytes, 0) : 0;
    if (counted != monitors)
        return std::to_string(monitors) + " monitor and " + std::to_string(counted) + " are counted";
    return m_log->Broken() != 0 ? "a log record is not one whole line" : std::string();
}

void World::TellStory()
{
    m_tells = true;
    m_log->Show(true);
}

} // namespace vtproof
