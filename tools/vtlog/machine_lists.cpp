#include "machine_lists.h"

#include "apps/mutex_controller.h"
#include "apps/resync_lists.h"
#include "apps/resync_text.h"
#include "apps/volume_name.h"
#include "bitmap/container.h"
#include "bitmap/result_codes.h"
#include "common/text.h"
#include "common/volume_name.h"
#include "failure.h"
#include "registry/multi_string.h"
#include "registry/multi_string_value.h"
#include "win/owners.h"

#include <fmt/format.h>
#include <vtfltsim/VTFltSim.h>

#include <cstring>

namespace vtlog {

using toolkit::ErrorText;
using toolkit::ToUtf8;

// The simulator is loaded only when it is asked for: the program runs without its DLL.
struct Simulation::Calls {
    VTFLTSIM_MACHINE machine = nullptr;
    decltype(&VTFltSimOpen) open = nullptr;
    decltype(&VTFltSimClose) close = nullptr;
    decltype(&VTFltSimAttachModule) attach = nullptr;
    decltype(&VTFltSimDetach) detach = nullptr;
};

namespace {

// How long a backup may keep the bitmap files to itself before they are left alone.
constexpr DWORD BITMAP_WAIT_MS = 2000;

template <class Function>
void Bind(HMODULE module, const char* name, Function& function)
{
    const FARPROC address = GetProcAddress(module, name);
    if (address == nullptr)
        throw Failure(Exit::Internal, fmt::format("VTFltSim.dll has no {}", name));
    static_assert(sizeof(function) == sizeof(address));
    std::memcpy(&function, &address, sizeof(function));
}

// A multi-string value as bytes. 0, 2 when absent, 13 for another type, else the registry's error. The library's own
// reader opens its key for writing and makes it where it is missing; looking must not.
DWORD ReadMultiString(const wchar_t* key, const std::wstring& value, vtflt::RegistryBytes& bytes)
{
    vtflt::UniqueKey opened;
    auto error = static_cast<DWORD>(RegOpenKeyExW(HKEY_LOCAL_MACHINE, key, 0, KEY_READ, opened.put()));
    DWORD type = REG_NONE;
    DWORD size = 4096;
    while (error == ERROR_SUCCESS) {
        bytes.assign(size, 0);
        error = static_cast<DWORD>(RegQueryValueExW(opened.get(), value.c_str(), nullptr, &type, bytes.data(), &size));
        if (error != ERROR_MORE_DATA)
            break;
        error = ERROR_SUCCESS;
    }
    if (error != ERROR_SUCCESS)
        return error;
    bytes.resize(size);
    return type == REG_MULTI_SZ ? ERROR_SUCCESS : ERROR_INVALID_DATA;
}

ListState ReadList(const std::wstring& suffix)
{
    ListState list;
    vtflt::RegistryBytes bytes;
    const DWORD error = ReadMultiString(vtflt::RESYNC_LISTS_KEY, vtflt::MakeListValueName(suffix), bytes);
    if (error == ERROR_FILE_NOT_FOUND)
        return list;
    list.error = error == ERROR_SUCCESS && !vtflt::IsWellFormedMultiString(bytes) ? ERROR_INVALID_DATA : error;
    if (list.error == ERROR_SUCCESS)
        vtflt::AppendStrings(bytes, list.entries);
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

Simulation::Simulation(const std::wstring& folder) : m_calls(std::make_unique<Calls>())
{
    Calls& calls = *m_calls;
    const HMODULE module = LoadLibraryW(L"VTFltSim.dll");
    if (module == nullptr)
        throw Failure(Exit::NotFound,
                      fmt::format("cannot load VTFltSim.dll, which --simulate needs: {}", ErrorText(GetLastError())));
    Bind(module, "VTFltSimOpen", calls.open);
    Bind(module, "VTFltSimClose", calls.close);
    Bind(module, "VTFltSimAttachModule", calls.attach);
    Bind(module, "VTFltSimDetach", calls.detach);
    const DWORD error = calls.open(folder.c_str(), &calls.machine);
    if (error != 0)
        throw Failure(Exit::NotFound,
                      fmt::format("{} holds no simulated machine: {}", ToUtf8(folder), ErrorText(error)));
    const DWORD attached = calls.attach(calls.machine, nullptr);
    if (attached == 0)
        return;
    calls.close(calls.machine);
    throw Failure(Exit::Internal, fmt::format("cannot attach to the simulated machine: {}", ErrorText(attached)));
}

Simulation::~Simulation()
{
    m_calls->detach();
    m_calls->close(m_calls->machine);
}

MachineState ReadMachine(const std::wstring& volumePath)
{
    MachineState machine;
    vtflt::RegistryBytes bytes;
    const DWORD error = ReadMultiString(vtflt::APPLICATION_IDS_KEY, vtflt::APPLICATION_IDS_VALUE, bytes);
    machine.applicationsError = error == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : error;
    std::vector<std::wstring> ids;
    if (error == ERROR_SUCCESS)
        vtflt::AppendValueEntries(bytes, ids);
    machine.driver = ReadList(L"");

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
