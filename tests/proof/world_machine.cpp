// What happens to the machine, and how a history ends.
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
    const vtflt::UniqueHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                               OPEN_EXISTING, 0, nullptr));
    if (!file.valid())
        return false;
    bytes.resize(1 << 16);
    DWORD read = 0;
    ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
    bytes.resize(read);
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

bool Says(const Bytes& bytes, std::size_t offset, const char* text)
{
    return std::equal(text, text + 4, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
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
        bytes.resize(bytes.size() - 1);
        break;
    }
    WriteAll(path, bytes);
}

// All processes are gone; a driver that did not see an orderly end starts every volume anew.
void World::PowerCut(std::uint32_t how)
{
    for (Application& application : m_applications)
        EndGuest(application, true);
    if (how != 0) {
        for (const std::wstring& folder : m_folders)
            DoubleLoseBelow(folder.c_str(), how == 1 ? 0 : how);
    }
    VTFltSimReboot(m_machine->handle());
    for (const vtfltsim::Volume& volume : m_volumes)
        VTFltSimLoseTracking(m_machine->handle(), volume.guid.c_str());
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
    return {};
}

std::string World::Unmark(Application& application)
{
    DWORD result = 0;
    const Went went = In(application, [&] {
        std::vector<std::wstring> volumes{L"{00000000-0000-4000-8000-000000000000}"};
        result = Call(application, Exported::RemoveFromVerifyList,
                      [&] { return VTRemoveApplicationVolResyncList(application.id, &volumes); });
    });
    if (went == Went::Died)
        return Crash(application);
    Mix(result);
    return {};
}

// The questions change nothing, and agree with each other.
std::string World::Ask(Application& application, std::size_t volume)
{
    DWORD count = 0;
    std::size_t listed = 0;
    bool present = false;
    DWORD counted = 1;
    DWORD list = 1;
    DWORD can = 0;
    DWORD works = 0;
    const Registrations before = m_registrations;
    const Went went = In(application, [&] {
        std::vector<std::wstring> ids;
        counted = Call(application, Exported::AppCount, [&] { return VTGetRegisteredAppCount(&count); });
        list = Call(application, Exported::AppList, [&] { return VTGetRegisteredAppList(&ids); });
        listed = ids.size();
        present = std::find(ids.begin(), ids.end(), application.id) != ids.end();
        works = Call(application, Exported::CanDriverWork, [] { return VTCanBLIDriverWork(); });
        can =
            Call(application, Exported::CanAppUseDriver, [&] { return VTCanAppUseBLIDriver(application.id.c_str()); });
        Call(application, Exported::IsDeviceMonitored, [&] { return VTIsDeviceMonitored(m_devices[volume].c_str()); });
        const HANDLE handle = CreateFileW(m_devices[volume].c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                          nullptr, OPEN_EXISTING, 0, nullptr);
        if (handle == INVALID_HANDLE_VALUE)
            return;
        DWORD blockSize = 0;
        VTFltGetBlockSize(handle, &blockSize, 1);
        BYTE input = 0;
        DWORD size = 0;
        VTFltGetBitmap(handle, &input, 0, application.buffer.data(), VTFLT_BITMAP_HEADER_BYTES, &size, 1);
        CloseHandle(handle);
    });
    if (went == Went::Died)
        return Crash(application);
    Mix(count);
    Mix(can);
    if (m_faulty)
        return {};
    if (counted != 0 || list != 0 || (!Overlapped(before) && count != listed))
        return "the list of applications has " + std::to_string(listed) + " entries and the count is " +
               std::to_string(count);
    if (!Overlapped(before) && (can != 0) != (works != 0 && present))
        return "an application may use the driver: " + std::to_string(can);
    return {};
}

// Every bitmap file is whole.
std::string World::CheckFiles() const
{
    for (const Application& application : m_applications) {
        for (std::size_t volume = 0; volume < m_volumes.size() && IsListed(application); ++volume) {
            for (const bool base : {false, true}) {
                Bytes bytes;
                const std::string name = std::string(base ? "the base" : "the child") + " of application " +
                                         std::to_string(&application - m_applications.data()) + " on volume " +
                                         std::to_string(volume);
                if (!ReadAll(FilePath(application, volume, base), bytes))
                    return name + " is missing";
                if (bytes.size() < HEADER_BYTES + 8 || !Says(bytes, 0, "STCA") ||
                    !Says(bytes, bytes.size() - 4, "ACDE") || Number(bytes, 16) != bytes.size() ||
                    Number(bytes, 12) + HEADER_BYTES + 8 > bytes.size())
                    return name + " is not whole";
            }
        }
    }
    return {};
}

std::string World::Settle(Thoroughly thoroughly)
{
    Tell("-- settling");
    Disarm();
    for (Application& application : m_applications) {
        const std::string wrong = EndGuest(application, false);
        if (!wrong.empty())
            return wrong;
    }
    m_machine->SetDriver(VTFLTSIM_DRIVER_WORKING);
    m_machine->SetFilters({L"volsnap", L"VTFlt"});
    for (std::size_t volume = 0; volume < m_volumes.size(); ++volume) {
        if (m_machine->Info(m_volumes[volume]).tracked == 0)
            VTFltSimStartTracking(m_machine->handle(), m_volumes[volume].guid.c_str());
        // A file cut short stands in everybody's way; deleted, it only makes its application verify.
        for (const Application& application : m_applications) {
            for (const bool base : {false, true}) {
                Bytes bytes;
                const std::wstring path = FilePath(application, volume, base);
                if (ReadAll(path, bytes) && bytes.size() >= HEADER_BYTES + 4 && Number(bytes, 16) != bytes.size())
                    DeleteFileW(path.c_str());
            }
        }
    }
    for (unsigned round = 0; round <= (thoroughly == Thoroughly::Yes ? SETTLED_ROUNDS : 0); ++round) {
        const bool last = round == SETTLED_ROUNDS;
        for (std::uint32_t number = 0; number < m_applications.size(); ++number) {
            if (!IsListed(m_applications[number]))
                continue;
            for (std::uint32_t volume = 0; volume < m_volumes.size(); ++volume) {
                const Chain& chain = m_applications[number].chains[volume];
                const unsigned before = chain.undisturbed;
                std::string wrong = Run({Do::Write, 0, volume, 7 * (round + number), 3, {}});
                if (wrong.empty())
                    wrong = Run({Do::Backup, number, volume, 0, 0, {}});
                if (wrong.empty() && last && chain.undisturbed == before)
                    wrong = "a backup behind everything is not reported";
                if (!wrong.empty())
                    return wrong;
            }
        }
    }
    std::string wrong;
    if (thoroughly == Thoroughly::Yes)
        wrong = CheckFiles();
    for (Application& application : m_applications) {
        if (wrong.empty())
            wrong = EndGuest(application, false);
    }
    return wrong;
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
        wrong = CheckOpen(m_applications[application]);
    Mix(m_log->Sum());
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

namespace {

std::string RunToTheEnd(World& world, const History& history, World::Thoroughly thoroughly, bool* struck)
{
    for (std::size_t i = 0; i < history.operations.size(); ++i) {
        const std::string wrong = world.Run(history.operations[i]);
        if (!wrong.empty())
            return "operation " + std::to_string(i) + ": " + wrong;
        if (struck != nullptr && !history.operations[i].faults.empty())
            *struck = world.Struck();
    }
    const std::string wrong = world.Settle(thoroughly);
    return wrong.empty() ? wrong : "at the end: " + wrong;
}

} // namespace

std::string RunHistory(const History& history, World::Thoroughly thoroughly, bool* struck)
{
    World world(history.volumes);
    return RunToTheEnd(world, history, thoroughly, struck);
}

std::string RunHistory(const History& history, std::uint64_t* trace, bool tell, World::Thoroughly thoroughly)
{
    World world(history.volumes);
    if (tell)
        world.TellStory();
    const std::string wrong = RunToTheEnd(world, history, thoroughly, nullptr);
    if (trace != nullptr)
        *trace = world.Trace();
    return wrong;
}

} // namespace vtproof
