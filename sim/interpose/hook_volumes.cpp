// The enumeration of volumes, drive types and mount paths.
#include "interpose/attach.h"
#include "interpose/calls.h"
#include "interpose/handles.h"
#include "interpose/hook_functions.h"
#include "interpose/paths.h"

#include <algorithm>
#include <mutex>

namespace vtfltsim {

namespace {

constexpr std::size_t VOLUME_PATH_CHARS = 50; // \\?\Volume{...}\ and a NUL

std::wstring TextOf(const wchar_t* path)
{
    return path != nullptr ? path : L"";
}

std::wstring EnumeratedName(const VolumeNames& volume)
{
    return volume.enumerationName.empty() ? L"\\\\?\\Volume" + volume.guid + L"\\" : volume.enumerationName;
}

// The next name, or the error that the walk meets at this step.
DWORD Step(VolumeSearchObject& search, wchar_t* name, DWORD characters)
{
    const std::lock_guard guard(search.lock);
    const DWORD step = search.step++;
    if (step == search.faultStep)
        return search.faultError;
    if (search.next >= search.names.size())
        return ERROR_NO_MORE_FILES;
    const std::wstring& next = search.names[search.next];
    if (next.size() >= characters)
        return ERROR_FILENAME_EXCED_RANGE;
    CopyCut(name, characters, next);
    ++search.next;
    return 0;
}

HANDLE StartWalk(const std::shared_ptr<Machine>& machine, wchar_t* name, DWORD characters)
{
    auto search = std::make_shared<VolumeSearchObject>();
    for (const auto& volume : *machine->Names())
        search->names.push_back(EnumeratedName(volume));
    machine->Change([&](model::MachineRecord& record) {
        search->faultStep = record.enumerationStep;
        search->faultError = record.enumerationError;
    });
    const DWORD code = Step(*search, name, characters);
    if (code != 0) {
        SetLastError(code);
        return INVALID_HANDLE_VALUE;
    }
    const HANDLE handle = handles::OpenSimulated(OpenKind::VolumeSearch, L"volume search", search);
    return handle != nullptr ? handle : INVALID_HANDLE_VALUE;
}

HANDLE WINAPI SimFindFirstVolumeW(LPWSTR name, DWORD characters)
{
    return Call<HANDLE>(
        Hook::FindFirstVolumeW, INVALID_HANDLE_VALUE, [] { return std::wstring(); },
        [&](const Verdict&) {
            const auto machine = AttachedMachine();
            return machine != nullptr ? StartWalk(machine, name, characters) : FindFirstVolumeW(name, characters);
        });
}

BOOL WINAPI SimFindNextVolumeW(HANDLE handle, LPWSTR name, DWORD characters)
{
    return Call<BOOL>(
        Hook::FindNextVolumeW, FALSE, [] { return std::wstring(); },
        [&](const Verdict&) -> BOOL {
            const auto search = handles::Find<VolumeSearchObject>(OpenKind::VolumeSearch, handle);
            if (search == nullptr)
                return FindNextVolumeW(handle, name, characters);
            const DWORD code = Step(*search, name, characters);
            if (code != 0)
                SetLastError(code);
            return code == 0;
        });
}

BOOL WINAPI SimFindVolumeClose(HANDLE handle)
{
    return Call<BOOL>(
        Hook::FindVolumeClose, FALSE, [] { return std::wstring(); },
        [&](const Verdict&) {
            const bool simulated = handles::IsKnown(OpenKind::VolumeSearch, handle);
            return handles::Closing<BOOL>(OpenKind::VolumeSearch, handle, TRUE,
                                          [&] { return simulated ? CloseHandle(handle) : FindVolumeClose(handle); });
        });
}

const VolumeNames* FindBySerial(const std::vector<VolumeNames>& names, std::uint32_t serial)
{
    const auto found = std::find_if(names.begin(), names.end(), [&](const auto& v) { return v.serial == serial; });
    return found != names.end() ? &*found : nullptr;
}

UINT WINAPI SimGetDriveTypeW(LPCWSTR root)
{
    return Call<UINT>(
        Hook::GetDriveTypeW, DRIVE_UNKNOWN, [&] { return TextOf(root); },
        [&](const Verdict&) -> UINT {
            const auto machine = AttachedMachine();
            if (machine == nullptr || root == nullptr)
                return GetDriveTypeW(root);
            const auto names = machine->Names();
            for (const auto& volume : *names) {
                if (EqualNoCase(EnumeratedName(volume), root))
                    return volume.driveType;
            }
            const Target target = ResolvePath(*machine, root);
            if (target.kind == Target::Kind::Real)
                return GetDriveTypeW(root);
            const VolumeNames* volume = target.isRoot ? FindBySerial(*names, target.endpoint.serial) : nullptr;
            return volume != nullptr ? volume->driveType : DRIVE_NO_ROOT_DIR;
        });
}

BOOL GiveMountPaths(const VolumeNames& volume, wchar_t* paths, DWORD characters, DWORD* needed)
{
    const std::wstring list = JoinList(volume.mountPaths);
    const auto size = static_cast<DWORD>(list.size() + 1);
    if (needed != nullptr)
        *needed = size;
    if (paths == nullptr || characters < size) {
        SetLastError(ERROR_MORE_DATA);
        return FALSE;
    }
    std::copy_n(list.c_str(), size, paths);
    return TRUE;
}

BOOL WINAPI SimGetVolumePathNamesForVolumeNameW(LPCWSTR name, LPWSTR paths, DWORD characters, PDWORD needed)
{
    return Call<BOOL>(
        Hook::GetVolumePathNamesForVolumeNameW, FALSE, [&] { return TextOf(name); },
        [&](const Verdict&) -> BOOL {
            const auto machine = AttachedMachine();
            if (machine == nullptr || name == nullptr)
                return GetVolumePathNamesForVolumeNameW(name, paths, characters, needed);
            const auto names = machine->Names();
            for (const auto& volume : *names) {
                if (EqualNoCase(EnumeratedName(volume), name) ||
                    EqualNoCase(L"\\\\?\\Volume" + volume.guid + L"\\", name))
                    return GiveMountPaths(volume, paths, characters, needed);
            }
            SetLastError(ERROR_FILE_NOT_FOUND);
            return FALSE;
        });
}

BOOL WINAPI SimGetVolumeNameForVolumeMountPointW(LPCWSTR mount, LPWSTR name, DWORD characters)
{
    return Call<BOOL>(
        Hook::GetVolumeNameForVolumeMountPointW, FALSE, [&] { return TextOf(mount); },
        [&](const Verdict&) -> BOOL {
            const auto machine = AttachedMachine();
            const Target target = machine != nullptr && mount != nullptr ? ResolvePath(*machine, mount) : Target();
            if (target.kind == Target::Kind::Real)
                return GetVolumeNameForVolumeMountPointW(mount, name, characters);
            const auto names = machine->Names();
            const VolumeNames* volume = target.isRoot ? FindBySerial(*names, target.endpoint.serial) : nullptr;
            if (volume == nullptr || characters < VOLUME_PATH_CHARS) {
                SetLastError(volume == nullptr ? ERROR_NOT_A_REPARSE_POINT : ERROR_FILENAME_EXCED_RANGE);
                return FALSE;
            }
            CopyCut(name, characters, L"\\\\?\\Volume" + volume->guid + L"\\");
            return TRUE;
        });
}

} // namespace

VTFLTSIM_DEFINE(FindFirstVolumeW, SimFindFirstVolumeW)
VTFLTSIM_DEFINE(FindNextVolumeW, SimFindNextVolumeW)
VTFLTSIM_DEFINE(FindVolumeClose, SimFindVolumeClose)
VTFLTSIM_DEFINE(GetDriveTypeW, SimGetDriveTypeW)
VTFLTSIM_DEFINE(GetVolumePathNamesForVolumeNameW, SimGetVolumePathNamesForVolumeNameW)
VTFLTSIM_DEFINE(GetVolumeNameForVolumeMountPointW, SimGetVolumeNameForVolumeMountPointW)

} // namespace vtfltsim
