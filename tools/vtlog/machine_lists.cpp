#include "machine_lists.h"

#include "apps/mutex_controller.h"
#include "apps/resync_lists.h"
#include "apps/resync_text.h"
#include "apps/volume_name.h"
#include "bitmap/container.h"
#include "bitmap/result_codes.h"
#include "common/registry_value.h"
#include "common/text.h"
#include "common/volume_name.h"
#include "failure.h"
#include "registry/multi_string.h"
#include "registry/multi_string_value.h"
#include "win/owners.h"

#include <fmt/format.h>

namespace vtlog {

using toolkit::ErrorText;
using toolkit::ToUtf8;

namespace {

// How long a backup may keep the bitmap files to itself before they are left alone.
constexpr DWORD BITMAP_WAIT_MS = 2000;

ListState ReadList(const std::wstring& suffix)
{
    ListState list;
    const toolkit::RegistryValue read =
        toolkit::ReadMultiString(vtflt::RESYNC_LISTS_KEY, vtflt::MakeListValueName(suffix));
    if (read.error == ERROR_FILE_NOT_FOUND)
        return list;
    list.error =
        read.error == ERROR_SUCCESS && !vtflt::IsWellFormedMultiString(read.bytes) ? ERROR_INVALID_DATA : read.error;
    if (list.error == ERROR_SUCCESS)
        vtflt::AppendStrings(read.bytes, list.entries);
    return list;
}

BitmapState ReadBitmap(vtflt::CBitmapContainer& container, DWORD which)
{
    const DWORD result = container.ReadBitMapFromFile(which);
    if (result == ERROR_SUCCESS)
        return BitmapState::Usable;
    return result == vtflt::BM_ERR_VERIFY_REQUIRED ? BitmapState::Unusable : BitmapState::Unknown;
}

} // namespace

MachineState ReadMachine(const std::wstring& volumePath)
{
    MachineState machine;
    const toolkit::RegistryValue read =
        toolkit::ReadMultiString(vtflt::APPLICATION_IDS_KEY, vtflt::APPLICATION_IDS_VALUE);
    machine.applicationsError = read.error == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : read.error;
    std::vector<std::wstring> ids;
    if (read.error == ERROR_SUCCESS)
        vtflt::AppendValueEntries(read.bytes, ids);
    machine.driver = ReadList({});

    // As the library does it: a bitmap file is opened under the volume's mutex only, or a backup that replaces it at
    // that moment would fail.
    const std::wstring volumeName = vtflt::GetVolumeName(volumePath);
    const vtflt::UniqueHandle mutex(CreateMutexW(nullptr, FALSE, vtflt::BuildMutexName(volumeName).c_str()));
    const DWORD wait = mutex.valid() ? WaitForSingleObject(mutex.get(), BITMAP_WAIT_MS) : WAIT_FAILED;
    const bool owned = wait == WAIT_OBJECT_0 || wait == WAIT_ABANDONED;
    machine.volumeBusy = !owned;
    for (std::wstring& id : ids) {
        ApplicationState application;
        application.pending = ReadList(id);
        application.verify = ReadList(vtflt::MakeVerifyListName(id));
        if (owned) {
            vtflt::CBitmapContainer container;
            container.init(volumeName, id);
            application.base = ReadBitmap(container, vtflt::BASE_BITMAP);
            application.child = ReadBitmap(container, vtflt::CHILD_BITMAP);
        }
        application.id = std::move(id);
        machine.applications.push_back(std::move(application));
    }
    if (owned)
        ReleaseMutex(mutex.get());
    return machine;
}

std::wstring ResolveVolume(const std::wstring& name)
{
    const std::optional<std::wstring> asked = toolkit::ParseVolumeGuid(name);
    std::wstring mountPath = name;
    if (!mountPath.ends_with(L'\\'))
        mountPath += L'\\';
    std::vector<std::wstring> paths;
    toolkit::EnumerateVolumePaths(paths); // of what it did not list, a GUID is taken as it stands
    for (const std::wstring& path : paths) {
        const std::optional<std::wstring> guid = toolkit::ParseVolumeGuid(path);
        if (guid && (asked ? toolkit::EqualIgnoringCase(*guid, *asked) : toolkit::IsMountedAt(path, mountPath)))
            return *guid;
    }
    if (asked)
        return *asked;
    if (name.size() >= 2 && name[1] == L':')
        throw Failure(Exit::NotFound, fmt::format("no volume is mounted at {}", ToUtf8(name)));
    throw Failure(Exit::Usage,
                  fmt::format("--why: \"{}\" names no volume; write {{GUID}}, \\\\?\\Volume{{GUID}}\\ or a "
                              "path where it is mounted, such as E:",
                              ToUtf8(name)));
}

} // namespace vtlog
