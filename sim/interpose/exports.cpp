// The exported functions: checks of arguments, and the way to Machine, calls and handles.
#include "interpose/attach.h"
#include "interpose/calls.h"
#include "interpose/handles.h"
#include "interpose/machine.h"
#include "interpose/paths.h"
#include "model/driver.h"
#include "vtfltsim/VTFltSim.h"
#include "vtfltsim/VTFltSimForget.h"
#include "vtfltsim/VTFltSimTrace.h"

#include <algorithm>
#include <cstring>
#include <new>

struct VTFltSimMachine {
    std::shared_ptr<vtfltsim::Machine> machine;
};

static_assert(VTFLTSIM_CHUNK == vtfltsim::model::CHUNK);
static_assert(VTFLTSIM_FORGET_ALL == vtfltsim::model::FORGET_ALL);

namespace {

using namespace vtfltsim;

template <class Work>
DWORD Guard(Work work) noexcept
{
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

template <class Work>
DWORD WithMachine(VTFLTSIM_MACHINE machine, Work work) noexcept
{
    if (machine == nullptr)
        return ERROR_INVALID_PARAMETER;
    return Guard([&] { return work(*machine->machine); });
}

bool IsMissing(const void* data, DWORD length)
{
    return data == nullptr && length != 0;
}

// work gets the machine and the volume's serial.
template <class Work>
DWORD WithVolume(VTFLTSIM_MACHINE machine, LPCWSTR volume, Work work) noexcept
{
    if (volume == nullptr)
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) -> DWORD {
        const std::uint32_t serial = m.FindVolume(volume);
        return serial == 0 ? ERROR_FILE_NOT_FOUND : work(m, serial);
    });
}

DWORD OpenOrCreate(LPCWSTR directory, VTFLTSIM_MACHINE* machine,
                   DWORD (*open)(const std::wstring&, std::shared_ptr<Machine>&)) noexcept
{
    if (directory == nullptr || *directory == L'\0' || machine == nullptr)
        return ERROR_INVALID_PARAMETER;
    return Guard([&]() -> DWORD {
        auto holder = std::make_unique<VTFltSimMachine>();
        const DWORD code = open(directory, holder->machine);
        if (code == 0)
            *machine = holder.release();
        return code;
    });
}

// The number of a fault's endpoint; 0 with an error when it names nothing.
DWORD EndpointNumber(Machine& machine, LPCWSTR endpoint, std::uint32_t& number)
{
    number = model::ENDPOINT_ANY;
    if (endpoint == nullptr)
        return 0;
    const Target target = ResolvePath(machine, endpoint);
    if (target.kind == Target::Kind::Control || target.kind == Target::Kind::Snapshot) {
        number = target.endpoint.FaultNumber();
        return 0;
    }
    const std::uint32_t serial = machine.FindVolume(endpoint);
    number = model::VolumeEndpoint(serial);
    return serial == 0 ? ERROR_FILE_NOT_FOUND : 0;
}

DWORD AddRequestFault(Machine& machine, LPCWSTR endpoint, DWORD nth, DWORD count, model::FaultRecord fault)
{
    const DWORD code = EndpointNumber(machine, endpoint, fault.endpoint);
    if (code != 0)
        return code;
    fault.skip = nth == 0 ? 0 : nth - 1;
    fault.remaining = count;
    bool added = false;
    machine.Change([&](model::MachineRecord& record) { added = model::AddFault(record, fault); });
    return added ? 0 : ERROR_NOT_ENOUGH_QUOTA;
}

// Length of a double-NUL-ended list without its last NUL.
std::size_t ListUnits(LPCWSTR list)
{
    std::size_t units = 0;
    while (list[units] != L'\0')
        units += std::wcslen(list + units) + 1;
    return units;
}

} // namespace

extern "C" {

DWORD WINAPI VTFltSimCreate(LPCWSTR directory, VTFLTSIM_MACHINE* machine)
{
    return OpenOrCreate(directory, machine, &Machine::Create);
}

DWORD WINAPI VTFltSimOpen(LPCWSTR directory, VTFLTSIM_MACHINE* machine)
{
    return OpenOrCreate(directory, machine, &Machine::Open);
}

DWORD WINAPI VTFltSimClose(VTFLTSIM_MACHINE machine)
{
    if (machine == nullptr)
        return ERROR_INVALID_PARAMETER;
    return Guard([&]() -> DWORD {
        if (AttachedMachine() == machine->machine)
            DetachAll();
        delete machine;
        return 0;
    });
}

DWORD WINAPI VTFltSimDestroy(LPCWSTR directory)
{
    if (directory == nullptr || *directory == L'\0')
        return ERROR_INVALID_PARAMETER;
    return Guard([&] { return Machine::Destroy(directory); });
}

DWORD WINAPI VTFltSimReboot(VTFLTSIM_MACHINE machine)
{
    return WithMachine(machine, [](Machine& m) { return m.Reboot(); });
}

DWORD WINAPI VTFltSimAddVolume(VTFLTSIM_MACHINE machine, const VTFLTSIM_VOLUME_CONFIG* config,
                               WCHAR guid[VTFLTSIM_GUID_CHARS])
{
    if (config == nullptr || config->size != sizeof(*config))
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) {
        std::wstring name;
        const DWORD code = m.AddVolume(*config, name);
        if (code == 0 && guid != nullptr)
            CopyCut(guid, VTFLTSIM_GUID_CHARS, name);
        return code;
    });
}

DWORD WINAPI VTFltSimRemoveVolume(VTFLTSIM_MACHINE machine, LPCWSTR volume)
{
    return WithVolume(machine, volume, [](Machine& m, std::uint32_t serial) { return m.RemoveVolume(serial); });
}

DWORD WINAPI VTFltSimGetVolumeInfo(VTFLTSIM_MACHINE machine, LPCWSTR volume, VTFLTSIM_VOLUME_INFO* info)
{
    if (info == nullptr || info->size != sizeof(*info))
        return ERROR_INVALID_PARAMETER;
    return WithVolume(machine, volume,
                      [&](Machine& m, std::uint32_t serial) { return m.FillVolumeInfo(serial, *info); });
}

DWORD WINAPI VTFltSimEnumVolume(VTFLTSIM_MACHINE machine, DWORD index, VTFLTSIM_VOLUME_INFO* info)
{
    if (info == nullptr || info->size != sizeof(*info))
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) -> DWORD {
        std::vector<std::uint32_t> serials;
        for (const auto& volume : *m.Names())
            serials.push_back(volume.serial);
        std::sort(serials.begin(), serials.end());
        return index < serials.size() ? m.FillVolumeInfo(serials[index], *info) : ERROR_NO_MORE_ITEMS;
    });
}

DWORD WINAPI VTFltSimWriteVolume(VTFLTSIM_MACHINE machine, LPCWSTR volume, ULONGLONG offset, const void* data,
                                 DWORD length)
{
    if (IsMissing(data, length))
        return ERROR_INVALID_PARAMETER;
    return WithVolume(machine, volume,
                      [&](Machine& m, std::uint32_t serial) { return m.WriteVolume(serial, offset, data, length); });
}

DWORD WINAPI VTFltSimReadVolume(VTFLTSIM_MACHINE machine, LPCWSTR volume, ULONGLONG offset, void* data, DWORD length)
{
    if (IsMissing(data, length))
        return ERROR_INVALID_PARAMETER;
    return WithVolume(machine, volume,
                      [&](Machine& m, std::uint32_t serial) { return m.ReadVolume(serial, offset, data, length); });
}

DWORD WINAPI VTFltSimResizeVolume(VTFLTSIM_MACHINE machine, LPCWSTR volume, ULONGLONG length)
{
    return WithVolume(machine, volume,
                      [&](Machine& m, std::uint32_t serial) { return m.ResizeVolume(serial, length); });
}

DWORD WINAPI VTFltSimSetBlockSize(VTFLTSIM_MACHINE machine, LPCWSTR volume, DWORD blockSize)
{
    return WithVolume(machine, volume,
                      [&](Machine& m, std::uint32_t serial) { return m.SetBlockSize(serial, blockSize); });
}

DWORD WINAPI VTFltSimLoseTracking(VTFLTSIM_MACHINE machine, LPCWSTR volume)
{
    return WithVolume(machine, volume, [](Machine& m, std::uint32_t serial) { return m.LoseTracking(serial); });
}

DWORD WINAPI VTFltSimForgetWrites(VTFLTSIM_MACHINE machine, LPCWSTR volume, DWORD count)
{
    return WithVolume(machine, volume, [&](Machine& m, std::uint32_t serial) {
        return m.ChangeVolume(serial, [&](model::VolumeRecord& record) {
            record.forget = count;
            return true;
        });
    });
}

DWORD WINAPI VTFltSimStartTracking(VTFLTSIM_MACHINE machine, LPCWSTR volume)
{
    return WithVolume(machine, volume, [](Machine& m, std::uint32_t serial) { return m.StartTracking(serial); });
}

DWORD WINAPI VTFltSimSetDriveType(VTFLTSIM_MACHINE machine, LPCWSTR volume, DWORD driveType)
{
    return WithVolume(machine, volume, [&](Machine& m, std::uint32_t serial) {
        return m.ChangeVolume(serial, [&](model::VolumeRecord& record) {
            record.driveType = driveType;
            return true;
        });
    });
}

DWORD WINAPI VTFltSimSetMountPaths(VTFLTSIM_MACHINE machine, LPCWSTR volume, LPCWSTR paths)
{
    return WithVolume(machine, volume, [&](Machine& m, std::uint32_t serial) {
        const std::wstring list = paths != nullptr ? std::wstring(paths, ListUnits(paths)) : std::wstring();
        return m.ChangeVolume(serial, [&](model::VolumeRecord& record) {
            return ToRecord(record.mountPaths, list); // the last place always stays NUL
        });
    });
}

DWORD WINAPI VTFltSimSetEnumerationName(VTFLTSIM_MACHINE machine, LPCWSTR volume, LPCWSTR name)
{
    return WithVolume(machine, volume, [&](Machine& m, std::uint32_t serial) {
        return m.ChangeVolume(serial, [&](model::VolumeRecord& record) {
            return ToRecord(record.enumerationName, name != nullptr ? name : L"");
        });
    });
}

DWORD WINAPI VTFltSimSetEnumerationFault(VTFLTSIM_MACHINE machine, DWORD step, DWORD error)
{
    if (step != 0 && error == 0)
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) -> DWORD {
        m.Change([&](model::MachineRecord& record) {
            record.enumerationStep = step;
            record.enumerationError = error;
        });
        return 0;
    });
}

DWORD WINAPI VTFltSimGetBits(VTFLTSIM_MACHINE machine, LPCWSTR volume, DWORD which, void* bits, DWORD length,
                             DWORD* needed)
{
    return WithVolume(machine, volume,
                      [&](Machine& m, std::uint32_t serial) { return m.GetBits(serial, which, bits, length, needed); });
}

DWORD WINAPI VTFltSimCreateSnapshot(VTFLTSIM_MACHINE machine, LPCWSTR volume, DWORD* number,
                                    VTFLTSIM_SNAPSHOT_INFO* info)
{
    if (number == nullptr || (info != nullptr && info->size != sizeof(*info)))
        return ERROR_INVALID_PARAMETER;
    return WithVolume(machine, volume, [&](Machine& m, std::uint32_t serial) {
        DWORD made = 0;
        DWORD code = m.CreateSnapshot(serial, made);
        if (code == 0)
            *number = made;
        if (code == 0 && info != nullptr)
            code = m.FillSnapshotInfo(made, *info);
        return code;
    });
}

DWORD WINAPI VTFltSimDeleteSnapshot(VTFLTSIM_MACHINE machine, DWORD number)
{
    return WithMachine(machine, [&](Machine& m) { return m.DeleteSnapshot(number); });
}

DWORD WINAPI VTFltSimGetSnapshotInfo(VTFLTSIM_MACHINE machine, DWORD number, VTFLTSIM_SNAPSHOT_INFO* info)
{
    if (info == nullptr || info->size != sizeof(*info))
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) { return m.FillSnapshotInfo(number, *info); });
}

DWORD WINAPI VTFltSimEnumSnapshot(VTFLTSIM_MACHINE machine, DWORD index, VTFLTSIM_SNAPSHOT_INFO* info)
{
    if (info == nullptr || info->size != sizeof(*info))
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) {
        DWORD number = 0;
        const DWORD code = m.SnapshotAt(index, number);
        return code != 0 ? code : m.FillSnapshotInfo(number, *info);
    });
}

DWORD WINAPI VTFltSimWriteSnapshot(VTFLTSIM_MACHINE machine, DWORD number, ULONGLONG offset, const void* data,
                                   DWORD length)
{
    if (IsMissing(data, length))
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) { return m.WriteSnapshot(number, offset, data, length); });
}

DWORD WINAPI VTFltSimReadSnapshot(VTFLTSIM_MACHINE machine, DWORD number, ULONGLONG offset, void* data, DWORD length)
{
    if (IsMissing(data, length))
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) { return m.ReadSnapshot(number, offset, data, length); });
}

DWORD WINAPI VTFltSimSetDriverState(VTFLTSIM_MACHINE machine, DWORD state)
{
    return WithMachine(machine, [&](Machine& m) { return m.SetDriver(state); });
}

DWORD WINAPI VTFltSimGetDriverState(VTFLTSIM_MACHINE machine, DWORD* state)
{
    if (state == nullptr)
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) -> DWORD {
        m.Change([&](model::MachineRecord& record) { *state = static_cast<DWORD>(record.driver); });
        return 0;
    });
}

DWORD WINAPI VTFltSimSetUpperFilters(VTFLTSIM_MACHINE machine, LPCWSTR classKeyPath, LPCWSTR filters)
{
    return WithMachine(machine, [&](Machine& m) {
        const std::wstring key = classKeyPath != nullptr ? classKeyPath : VOLUME_CLASS_KEY;
        if (filters == nullptr)
            return m.SetUpperFilters(key, nullptr);
        const auto entries = SplitList(filters, ListUnits(filters));
        return m.SetUpperFilters(key, &entries);
    });
}

DWORD WINAPI VTFltSimOpenKey(VTFLTSIM_MACHINE machine, LPCWSTR subKey, REGSAM access, HKEY* key)
{
    if (key == nullptr)
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) { return m.OpenKey(subKey != nullptr ? subKey : L"", access, key); });
}

DWORD WINAPI VTFltSimResetRegistry(VTFLTSIM_MACHINE machine)
{
    return WithMachine(machine, [](Machine& m) { return m.ResetRegistry(); });
}

DWORD WINAPI VTFltSimSetService(VTFLTSIM_MACHINE machine, DWORD state)
{
    if (state > VTFLTSIM_SERVICE_MANAGER_REFUSED)
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) -> DWORD {
        m.Change([&](model::MachineRecord& record) { record.service = state; });
        return 0;
    });
}

DWORD WINAPI VTFltSimSetUtility(VTFLTSIM_MACHINE machine, const VTFLTSIM_UTILITY* utility)
{
    if (utility == nullptr || utility->size != sizeof(*utility))
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) -> DWORD {
        m.Change([&](model::MachineRecord& record) {
            record.utility.launchError = utility->launchError;
            record.utility.uninstallExit = utility->uninstallExit;
            record.utility.installExit = utility->installExit;
            record.utility.hangs = utility->hangs;
        });
        return 0;
    });
}

DWORD WINAPI VTFltSimGetUtilityCommand(VTFLTSIM_MACHINE machine, DWORD index, LPWSTR text, DWORD characters)
{
    if (text == nullptr || characters == 0)
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) -> DWORD {
        DWORD code = ERROR_NO_MORE_ITEMS;
        m.Change([&](model::MachineRecord& record) {
            if (index >= record.utility.runs || record.utility.runs - index > model::MAX_COMMANDS)
                return;
            CopyCut(text, characters, FromRecord(record.utility.commands[index % model::MAX_COMMANDS]));
            code = 0;
        });
        return code;
    });
}

DWORD WINAPI VTFltSimFailRequest(VTFLTSIM_MACHINE machine, DWORD code, LPCWSTR endpoint, DWORD nth, DWORD count,
                                 DWORD error)
{
    return WithMachine(machine, [&](Machine& m) {
        model::FaultRecord fault = {};
        fault.code = code;
        fault.error = error;
        return AddRequestFault(m, endpoint, nth, count, fault);
    });
}

DWORD WINAPI VTFltSimForgeReply(VTFLTSIM_MACHINE machine, DWORD code, LPCWSTR endpoint, DWORD nth, DWORD count,
                                const void* reply, DWORD length)
{
    if (length > sizeof(model::FaultRecord::reply) || (reply == nullptr && length != 0))
        return ERROR_INVALID_PARAMETER;
    return WithMachine(machine, [&](Machine& m) {
        model::FaultRecord fault = {};
        fault.code = code;
        fault.forged = 1;
        fault.replyLength = length;
        if (length != 0)
            std::memcpy(fault.reply, reply, length);
        return AddRequestFault(m, endpoint, nth, count, fault);
    });
}

DWORD WINAPI VTFltSimClearFaults(VTFLTSIM_MACHINE machine)
{
    return WithMachine(machine, [](Machine& m) -> DWORD {
        m.Change([](model::MachineRecord& record) { model::ClearFaults(record); });
        return 0;
    });
}

DWORD WINAPI VTFltSimAttachModule(VTFLTSIM_MACHINE machine, HMODULE module)
{
    if (machine == nullptr)
        return ERROR_INVALID_PARAMETER;
    return Guard([&] { return AttachModule(machine->machine, module); });
}

DWORD WINAPI VTFltSimDetach(void)
{
    return Guard([]() -> DWORD {
        DetachAll();
        return 0;
    });
}

DWORD WINAPI VTFltSimDetachModule(HMODULE module)
{
    return Guard([&] { return DetachModule(module); });
}

DWORD WINAPI VTFltSimSetCallFault(const VTFLTSIM_CALL_FAULT* fault)
{
    if (fault == nullptr || fault->size != sizeof(*fault))
        return ERROR_INVALID_PARAMETER;
    return Guard([&] { return calls::AddFault(*fault); });
}

DWORD WINAPI VTFltSimFailCall(LPCWSTR function, LPCWSTR match, DWORD nth, DWORD count, DWORD error)
{
    VTFLTSIM_CALL_FAULT fault = {};
    fault.size = sizeof(fault);
    fault.what = VTFLTSIM_CALL_FAILS;
    fault.function = function;
    fault.match = match;
    fault.nth = nth;
    fault.count = count;
    fault.error = error;
    return VTFltSimSetCallFault(&fault);
}

DWORD WINAPI VTFltSimClearCallFaults(void)
{
    return Guard([]() -> DWORD {
        calls::ClearFaults();
        return 0;
    });
}

DWORD WINAPI VTFltSimGetCallFaultHits(void)
{
    return calls::FaultHits();
}

DWORD WINAPI VTFltSimCallBefore(LPCWSTR function, LPCWSTR match, DWORD nth, DWORD count, VTFLTSIM_CALLBACK callback,
                                void* context)
{
    if (function == nullptr || callback == nullptr)
        return ERROR_INVALID_PARAMETER;
    return Guard([&]() -> DWORD {
        Hook hook = Hook::Count;
        if (!calls::FindHookOrAny(function, hook))
            return ERROR_PROC_NOT_FOUND;
        return calls::AddCallback(hook, match, nth, count, callback, context);
    });
}

DWORD WINAPI VTFltSimGetCallCount(LPCWSTR function)
{
    Hook hook = Hook::Count;
    return function != nullptr && calls::FindHookOrAny(function, hook) ? calls::CountOf(hook) : 0;
}

DWORD WINAPI VTFltSimResetCounts(void)
{
    calls::ResetCounts();
    return 0;
}

DWORD WINAPI VTFltSimRecord(DWORD on)
{
    calls::Record(on != 0);
    return 0;
}

DWORD WINAPI VTFltSimGetTrace(DWORD index, LPWSTR text, DWORD characters)
{
    if (text == nullptr || characters == 0)
        return ERROR_INVALID_PARAMETER;
    return calls::TraceAt(index, text, characters);
}

DWORD WINAPI VTFltSimGetTraceArguments(DWORD index, LPWSTR text, DWORD characters)
{
    if (text == nullptr || characters == 0)
        return ERROR_INVALID_PARAMETER;
    return calls::ArgumentsAt(index, text, characters);
}

DWORD WINAPI VTFltSimGetTraceSite(DWORD index, LPCVOID* site)
{
    return site != nullptr ? calls::SiteAt(index, *site) : ERROR_INVALID_PARAMETER;
}

DWORD WINAPI VTFltSimGetRequest(DWORD index, VTFLTSIM_REQUEST* request)
{
    if (request == nullptr || request->size != sizeof(*request))
        return ERROR_INVALID_PARAMETER;
    return calls::RequestAt(index, *request);
}

DWORD WINAPI VTFltSimGetOpenCount(DWORD kind)
{
    return handles::OpenCount(kind);
}

DWORD WINAPI VTFltSimGetOpenText(DWORD kind, DWORD index, LPWSTR text, DWORD characters)
{
    if (text == nullptr || characters == 0 || kind > VTFLTSIM_OPEN_OTHERS)
        return ERROR_INVALID_PARAMETER;
    return handles::OpenTextAt(kind, index, text, characters);
}

} // extern "C"
