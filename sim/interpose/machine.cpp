// Machine: making, opening, removing; names.
#include "interpose/machine_parts.h"

#include <rpc.h>

#include <cstddef>
#include <cstring>
#include <mutex>
#include <shared_mutex>

namespace vtfltsim {

namespace {

constexpr DWORD PUBLISH_WAIT_MS = 20; // between looks at a machine that another process is just making
constexpr int PUBLISH_TRIES = 100;

constexpr wchar_t STATE_FILE[] = L"\\machine.bin";
constexpr const wchar_t* FOLDERS[] = {L"\\volumes", L"\\snapshots", L"\\CBTDriver"};
constexpr wchar_t NOTES[] = L"\\vtbackup"; // what vtbackup keeps of a machine, in its folder

std::wstring FullPath(const std::wstring& path)
{
    const DWORD needed = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    if (needed == 0)
        return path;
    std::wstring full(needed, L'\0');
    const DWORD length = GetFullPathNameW(path.c_str(), needed, full.data(), nullptr);
    full.resize(length);
    while (full.size() > 3 && full.back() == L'\\')
        full.pop_back();
    return full;
}

// Whether a state file that does not open is a machine's all the same: a damaged one, one of another version, or one
// whose making was broken off.
bool IsMachinesState(const std::wstring& path)
{
    std::unique_ptr<MappedFile> file;
    std::uint32_t magic = 0;
    if (MappedFile::Open(path, 0, file) != 0 || file->size() < sizeof(magic))
        return false;
    std::memcpy(&magic, file->data() + offsetof(model::MachineRecord, magic), sizeof(magic));
    return magic == model::MACHINE_MAGIC || (magic == 0 && file->size() == sizeof(model::MachineRecord));
}

// Of a link to a folder elsewhere only the link is removed.
DWORD RemoveFolder(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
        return 0;
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        return RemoveDirectoryW(path.c_str()) ? 0 : GetLastError();
    return RemoveTree(path);
}

// The state file goes last: as long as it is there, what did not succeed can be tried again. Other files in the folder
// are somebody's own; they stay, and the folder with them.
DWORD RemoveMachine(const std::wstring& directory)
{
    DWORD code = RemoveFolder(directory + NOTES);
    for (const wchar_t* folder : FOLDERS) {
        const DWORD removed = RemoveFolder(directory + folder);
        code = code == 0 ? removed : code;
    }
    if (code != 0)
        return code;
    const std::wstring state = directory + STATE_FILE;
    SetFileAttributesW(state.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (!DeleteFileW(state.c_str()))
        return GetLastError();
    if (!RemoveDirectoryW(directory.c_str()) && GetLastError() != ERROR_DIR_NOT_EMPTY)
        return GetLastError();
    return 0;
}

} // namespace

std::wstring LongPath(const std::wstring& path)
{
    const std::wstring full = FullPath(path);
    return full.rfind(L"\\\\", 0) == 0 ? full : L"\\\\?\\" + full;
}

std::uint32_t Endpoint::FaultNumber() const noexcept
{
    if (kind == Kind::Control)
        return model::ENDPOINT_CONTROL;
    return kind == Kind::Volume ? model::VolumeEndpoint(serial) : model::SnapshotEndpoint(number);
}

std::wstring NewGuid()
{
    UUID uuid = {};
    UuidCreate(&uuid);
    const auto* bytes = reinterpret_cast<const unsigned char*>(&uuid);
    std::wstring text = L"{";
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text.push_back(L'-');
        text.push_back(L"0123456789abcdef"[bytes[i] >> 4]);
        text.push_back(L"0123456789abcdef"[bytes[i] & 15]);
    }
    return text + L"}";
}

model::MachineRecord& Machine::record() const noexcept
{
    return *reinterpret_cast<model::MachineRecord*>(m_state->data());
}

Machine::~Machine() = default;

DWORD Machine::OpenState(const std::wstring& directory, bool create)
{
    m_directory = LongPath(directory);
    const std::wstring path = m_directory + STATE_FILE;
    if (create) {
        DWORD code = MakeDirectory(m_directory);
        if (code != 0)
            return code;
        const Handle made(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!made)
            return GetLastError() == ERROR_FILE_EXISTS ? ERROR_ALREADY_EXISTS : GetLastError();
    }
    const DWORD code = MappedFile::Open(path, create ? sizeof(model::MachineRecord) : 0, m_state);
    if (code == ERROR_PATH_NOT_FOUND)
        return ERROR_FILE_NOT_FOUND;
    return code;
}

DWORD Machine::Create(const std::wstring& directory, std::shared_ptr<Machine>& machine)
{
    std::shared_ptr<Machine> made(new Machine());
    DWORD code = made->OpenState(directory, true);
    if (code != 0)
        return code;
    auto& record = made->record();
    model::InitialiseMachine(record);
    const std::wstring guid = NewGuid();
    made->m_id = guid.substr(1, guid.size() - 2);
    ToRecord(record.id, made->m_id);
    record.tableVersion = 1;
    made->m_mutex = Handle(CreateMutexW(nullptr, FALSE, (L"VTFltSim." + made->m_id + L".Mutex").c_str()));
    if (!made->m_mutex)
        return GetLastError();
    for (const wchar_t* folder : FOLDERS) {
        code = MakeDirectory(made->m_directory + folder);
        if (code != 0)
            return code;
    }
    code = made->ResetRegistry();
    if (code != 0)
        return code;
    MemoryBarrier();
    record.magic = model::MACHINE_MAGIC; // last: from here on other processes may open it
    machine = std::move(made);
    return 0;
}

DWORD Machine::Open(const std::wstring& directory, std::shared_ptr<Machine>& machine)
{
    std::shared_ptr<Machine> opened(new Machine());
    DWORD code = opened->OpenState(directory, false);
    for (int i = 0; code == ERROR_FILE_CORRUPT && i < PUBLISH_TRIES; ++i) {
        Sleep(PUBLISH_WAIT_MS);
        code = opened->OpenState(directory, false);
    }
    if (code != 0)
        return code;
    if (opened->m_state->size() < sizeof(model::MachineRecord))
        return ERROR_FILE_CORRUPT;
    auto& record = opened->record();
    const auto* magic = static_cast<volatile std::uint32_t*>(&record.magic);
    for (int i = 0; *magic == 0 && i < PUBLISH_TRIES; ++i)
        Sleep(PUBLISH_WAIT_MS);
    if (*magic != model::MACHINE_MAGIC || record.version != model::MACHINE_VERSION || !model::HasSoundId(record))
        return ERROR_FILE_CORRUPT;
    opened->m_id = FromRecord(record.id);
    opened->m_mutex = Handle(CreateMutexW(nullptr, FALSE, (L"VTFltSim." + opened->m_id + L".Mutex").c_str()));
    if (!opened->m_mutex)
        return GetLastError();
    bool sound = false;
    opened->Change([&](model::MachineRecord& state) { sound = model::IsSound(state); });
    if (!sound)
        return ERROR_FILE_CORRUPT;
    Key root;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, opened->RealKeyPath(VOLUME_CLASS_KEY).c_str(), 0, KEY_READ, root.put()) != 0) {
        code = opened->ResetRegistry(); // the directory came from another user or another system
        if (code != 0)
            return code;
    }
    opened->ListWhatIsOwed();
    machine = std::move(opened);
    return 0;
}

bool Machine::IsSameAs(const Machine& other) const
{
    return m_id == other.m_id && (EqualNoCase(m_directory, other.m_directory) || m_state->IsSameFile(*other.m_state));
}

DWORD Machine::Destroy(const std::wstring& directory)
{
    const std::wstring path = LongPath(directory);
    {
        std::shared_ptr<Machine> machine;
        const DWORD code = Open(directory, machine);
        if (code == 0)
            RegDeleteTreeW(HKEY_CURRENT_USER, (L"Software\\VTFltSim\\" + machine->m_id).c_str());
        else if (code != ERROR_FILE_CORRUPT || !IsMachinesState(path + STATE_FILE))
            return code;
    }
    return RemoveMachine(path);
}

std::wstring Machine::VolumeDirectory(const std::wstring& guid) const
{
    return m_directory + L"\\volumes\\" + guid;
}

std::wstring Machine::FilesDirectory(const std::wstring& guid) const
{
    return VolumeDirectory(guid) + L"\\files";
}

std::wstring Machine::SnapshotDirectory(DWORD number) const
{
    return m_directory + L"\\snapshots\\" + Decimal(number);
}

model::VolumeRecord* Machine::FindRecord(std::uint32_t serial) const noexcept
{
    for (auto& volume : record().volumes) {
        if (volume.inUse == 0 || volume.serial != serial)
            continue;
        model::FinishGeometry(volume);
        return &volume;
    }
    return nullptr;
}

model::SnapshotRecord* Machine::FindSnapshotRecord(DWORD number) const noexcept
{
    for (auto& snapshot : record().snapshots) {
        if (snapshot.inUse != 0 && snapshot.number == number)
            return &snapshot;
    }
    return nullptr;
}

void Machine::Change(const std::function<void(model::MachineRecord&)>& change)
{
    const Lock lock(*this);
    change(record());
}

std::shared_ptr<const std::vector<VolumeNames>> Machine::Names()
{
    const std::uint32_t version = static_cast<volatile std::uint32_t&>(record().tableVersion);
    {
        const std::shared_lock guard(m_namesLock);
        if (m_names != nullptr && m_namesVersion == version)
            return m_names;
    }
    auto names = std::make_shared<std::vector<VolumeNames>>();
    std::uint32_t readVersion = 0;
    {
        const Lock lock(*this);
        readVersion = record().tableVersion;
        for (const auto& volume : record().volumes) {
            if (volume.inUse == 0)
                continue;
            VolumeNames entry;
            entry.serial = volume.serial;
            entry.guid = FromRecord(volume.guid);
            entry.mountPaths = SplitList(reinterpret_cast<const wchar_t*>(volume.mountPaths), model::MOUNT_PATHS_UNITS);
            entry.enumerationName = FromRecord(volume.enumerationName);
            entry.driveType = volume.driveType;
            names->push_back(std::move(entry));
        }
    }
    const std::lock_guard guard(m_namesLock);
    m_names = names;
    m_namesVersion = readVersion;
    return names;
}

std::uint32_t Machine::FindVolume(std::wstring_view name)
{
    std::wstring_view guid = name;
    if (StartsNoCase(guid, L"\\\\?\\") || StartsNoCase(guid, L"\\\\.\\"))
        guid.remove_prefix(4);
    if (StartsNoCase(guid, L"Volume{"))
        guid.remove_prefix(6);
    if (!guid.empty() && guid.back() == L'\\')
        guid.remove_suffix(1);
    const auto names = Names();
    for (const auto& volume : *names) {
        if (EqualNoCase(volume.guid, guid))
            return volume.serial;
        for (const auto& mount : volume.mountPaths) {
            if (EqualNoCase(mount, name) || EqualNoCase(mount, std::wstring(name) + L"\\"))
                return volume.serial;
        }
    }
    return 0;
}

} // namespace vtfltsim
