// Machine: the driver's requests, its coming and going, the install utility.
#include "interpose/machine_parts.h"
#include "interpose/paths.h"

#include <algorithm>
#include <cstring>

namespace vtfltsim {

namespace {

std::u16string Units(std::wstring_view text)
{
    std::u16string units;
    for (const wchar_t c : text)
        units.push_back(static_cast<char16_t>(c));
    return units;
}

// The value of -output="..." on a command line of the utility.
std::wstring OutputOption(const std::wstring& commandLine)
{
    constexpr std::wstring_view OPTION = L"-output=\"";
    const std::size_t at = commandLine.find(OPTION);
    if (at == std::wstring::npos)
        return {};
    const std::size_t start = at + OPTION.size();
    return commandLine.substr(start, commandLine.find(L'"', start) - start);
}

// Whether the program was given this option: the program's own name, and what stands in quotes within others, is none.
bool HasOption(const std::wstring& commandLine, std::wstring_view option)
{
    std::vector<std::wstring> words(1);
    bool quoted = false;
    for (const wchar_t c : commandLine) {
        if (c == L'"')
            quoted = !quoted;
        else if (!quoted && (c == L' ' || c == L'\t'))
            words.emplace_back();
        else
            words.back().push_back(c);
    }
    return std::find(words.begin() + 1, words.end(), option) != words.end();
}

void WriteUtilityLog(Machine& machine, const std::wstring& commandLine, DWORD exitCode)
{
    // An install location of the real machine is not the simulated utility's to write to.
    const std::wstring path = ResolvePath(machine, OutputOption(commandLine)).realPath;
    if (!StartsNoCase(LongPath(path), machine.directory() + L"\\"))
        return;
    const Handle file(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return;
    std::string text = "exit code " + std::to_string(exitCode) + "\r\n";
    DWORD moved = 0;
    WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &moved, nullptr);
}

} // namespace

model::Reply Machine::Ask(const Endpoint& endpoint, const model::Request& request)
{
    {
        const Lock lock(*this);
        const model::FaultRecord* fault = model::StrikeFault(record(), request.code, endpoint.FaultNumber());
        if (fault != nullptr)
            return model::ForgedReply(*fault, request);
    }
    switch (endpoint.kind) {
    case Endpoint::Kind::Volume:
        return AskVolume(endpoint.serial, request);
    case Endpoint::Kind::Snapshot:
        return AskSnapshot(endpoint.number, request);
    default:
        if (request.code == model::UPDATE_DEVICE_CONFIG)
            return AskDeviceQuery(request);
        const Lock lock(*this);
        return model::AnswerProbe(record(), request);
    }
}

model::Reply Machine::AskVolume(std::uint32_t serial, const model::Request& request)
{
    model::VolumeReply reply;
    const DWORD code = WithVolume(serial, [&](model::VolumeRecord& volume, Volume& mapped) -> DWORD {
        reply = model::AnswerVolume(record(), volume, mapped.contents.maps, request);
        return 0;
    });
    if (code != 0)
        reply.status = code;
    if (reply.status == 0 && reply.effect == model::Effect::ChangeBlockSize)
        reply.status = SetBlockSize(serial, reply.newBlockSize);
    return reply;
}

model::Reply Machine::AskSnapshot(DWORD number, const model::Request& request)
{
    const Lock lock(*this);
    model::Reply reply;
    model::SnapshotRecord* snapshot = FindSnapshotRecord(number);
    Snapshot* mapped = nullptr;
    reply.status = snapshot == nullptr ? ERROR_DEVICE_GONE : MapSnapshot(*snapshot, mapped);
    if (reply.status != 0)
        return reply;
    return model::AnswerSnapshot(record(), *snapshot, mapped->contents.maps, request);
}

model::Reply Machine::AskDeviceQuery(const model::Request& request)
{
    model::Reply reply;
    const std::uint8_t* bytes = nullptr;
    std::uint32_t count = 0;
    {
        const Lock lock(*this);
        reply.status = record().driver == model::DriverState::Absent ? model::INVALID_FUNCTION
                                                                     : model::ParseDeviceQuery(request, &bytes, &count);
    }
    if (reply.status != 0)
        return reply;
    std::wstring name(count / 2, L'\0');
    if (!name.empty())
        std::memcpy(name.data(), bytes, count);

    // A volume by any of its names, or a snapshot by its device path; anything else is not filtered.
    const Target target = ResolvePath(*this, name);
    const Lock lock(*this);
    if (target.kind == Target::Kind::Snapshot) {
        const model::SnapshotRecord* snapshot = FindSnapshotRecord(target.endpoint.number);
        const bool known = snapshot != nullptr;
        return model::BuildDeviceReply(
            request, u"", known ? Units(L"\\Device\\HarddiskVolumeShadowCopy" + Decimal(target.endpoint.number)) : u"",
            known && snapshot->tracked != 0);
    }
    const std::uint32_t serial = target.endpoint.serial;
    const model::VolumeRecord* volume = serial != 0 ? FindRecord(serial) : nullptr;
    if (volume == nullptr)
        return model::BuildDeviceReply(request, u"", u"", false);
    return model::BuildDeviceReply(request, Units(L"Volume" + FromRecord(volume->guid)),
                                   Units(L"\\Device\\HarddiskVolume" + Decimal(serial)),
                                   model::IsTracked(record(), *volume));
}

DWORD Machine::Length(const Endpoint& endpoint, std::uint64_t& length)
{
    const Lock lock(*this);
    if (endpoint.kind == Endpoint::Kind::Snapshot) {
        const model::SnapshotRecord* snapshot = FindSnapshotRecord(endpoint.number);
        length = snapshot != nullptr ? snapshot->length : 0;
        return snapshot != nullptr ? 0 : ERROR_DEVICE_GONE;
    }
    if (endpoint.kind != Endpoint::Kind::Volume)
        return ERROR_INVALID_FUNCTION;
    const model::VolumeRecord* volume = FindRecord(endpoint.serial);
    length = volume != nullptr ? volume->length : 0;
    return volume != nullptr ? 0 : ERROR_DEVICE_GONE;
}

DWORD Machine::Read(const Endpoint& endpoint, std::uint64_t offset, void* data, DWORD length)
{
    if (endpoint.kind == Endpoint::Kind::Control)
        return ERROR_INVALID_FUNCTION;
    return endpoint.kind == Endpoint::Kind::Volume ? ReadVolume(endpoint.serial, offset, data, length)
                                                   : ReadSnapshot(endpoint.number, offset, data, length);
}

DWORD Machine::Write(const Endpoint& endpoint, std::uint64_t offset, const void* data, DWORD length)
{
    if (endpoint.kind == Endpoint::Kind::Control)
        return ERROR_INVALID_FUNCTION;
    return endpoint.kind == Endpoint::Kind::Volume ? WriteVolume(endpoint.serial, offset, data, length)
                                                   : WriteSnapshot(endpoint.number, offset, data, length);
}

std::wstring Machine::Describe(const Endpoint& endpoint)
{
    if (endpoint.kind == Endpoint::Kind::Control)
        return CONTROL_DEVICE;
    if (endpoint.kind == Endpoint::Kind::Snapshot)
        return SNAPSHOT_DEVICE + Decimal(endpoint.number);
    for (const auto& volume : *Names()) {
        if (volume.serial == endpoint.serial)
            return L"\\\\?\\Volume" + volume.guid;
    }
    return L"(removed volume)";
}

DWORD Machine::ForgetWith(std::uint32_t serial, const std::function<DWORD(model::VolumeRecord&, Volume&)>& change)
{
    // The entry stands before the bits go, and again after: whoever asks in between is told to verify, and whoever
    // consumed the first entry meanwhile meets the second. The mark makes up for a process killed on the way.
    std::wstring guid;
    DWORD code = WithVolume(serial, [&](model::VolumeRecord& volume, Volume&) -> DWORD {
        volume.resyncOwed = 1;
        guid = FromRecord(volume.guid);
        return 0;
    });
    if (code == 0)
        code = ListForResync(guid);
    if (code == 0) {
        code = WithVolume(serial, [&](model::VolumeRecord& volume, Volume& mapped) -> DWORD {
            volume.resyncOwed = 1;
            return change(volume, mapped);
        });
    }
    if (code == 0)
        code = ListForResync(guid);
    if (code == 0)
        WithVolume(serial, [](model::VolumeRecord& volume, Volume&) -> DWORD { return volume.resyncOwed = 0; });
    return code;
}

void Machine::ListWhatIsOwed()
{
    std::vector<std::uint32_t> owed;
    Change([&](model::MachineRecord& machine) {
        for (const auto& volume : machine.volumes) {
            if (volume.inUse != 0 && volume.resyncOwed != 0)
                owed.push_back(volume.serial);
        }
    });
    for (const std::uint32_t serial : owed)
        ForgetWith(serial, [](model::VolumeRecord&, Volume&) -> DWORD { return 0; });
}

// Every volume that the driver did not watch all the time starts anew.
DWORD Machine::DriverReturns()
{
    std::vector<std::uint32_t> anew;
    Change([&](model::MachineRecord& machine) {
        for (const auto& volume : machine.volumes) {
            if (volume.inUse != 0 && (volume.unseen != 0 || volume.stopped != 0))
                anew.push_back(volume.serial);
        }
    });
    for (const std::uint32_t serial : anew) {
        const DWORD code = StartTracking(serial);
        if (code != 0)
            return code;
    }
    return 0;
}

DWORD Machine::SetDriver(DWORD state)
{
    if (state > VTFLTSIM_DRIVER_OLDER)
        return ERROR_INVALID_PARAMETER;
    // A volume is listed before the driver answers for it: nobody takes its empty bitmap for "no change".
    bool returns = false;
    std::vector<std::wstring> listed;
    for (bool done = false; !done;) {
        std::vector<std::wstring> missing;
        Change([&](model::MachineRecord& machine) {
            returns = machine.driver == model::DriverState::Absent && state != VTFLTSIM_DRIVER_ABSENT;
            for (auto& volume : machine.volumes) {
                if (!returns || volume.inUse == 0 || (volume.unseen == 0 && volume.stopped == 0))
                    continue;
                volume.resyncOwed = 1;
                const std::wstring guid = FromRecord(volume.guid);
                if (std::find(listed.begin(), listed.end(), guid) == listed.end())
                    missing.push_back(guid);
            }
            done = missing.empty();
            if (done)
                machine.driver = static_cast<model::DriverState>(state);
        });
        for (const auto& guid : missing) {
            const DWORD code = ListForResync(guid);
            if (code != 0)
                return code;
            listed.push_back(guid);
        }
    }
    return returns ? DriverReturns() : 0;
}

DWORD Machine::Reboot()
{
    bool install = false;
    Change([&](model::MachineRecord& machine) {
        for (auto& snapshot : machine.snapshots) {
            if (snapshot.inUse != 0)
                DropSnapshot(snapshot);
        }
        for (auto& volume : machine.volumes)
            volume.prepared = 0;
        install = machine.installPending != 0 || machine.driver == model::DriverState::Older;
        machine.installPending = 0;
    });
    if (!install)
        return 0;
    InstallFilter(true);
    return SetDriver(VTFLTSIM_DRIVER_WORKING);
}

UtilityRun Machine::RunUtility(const std::wstring& commandLine)
{
    const bool uninstalls = HasOption(commandLine, L"-r");
    const bool installs = !uninstalls && HasOption(commandLine, L"-i");
    UtilityRun run;
    Change([&](model::MachineRecord& machine) {
        auto& utility = machine.utility;
        ToRecord(utility.commands[utility.runs % model::MAX_COMMANDS], std::wstring_view(commandLine).substr(0, 519));
        ++utility.runs;
        run.launchError = utility.launchError;
        run.hangs = (uninstalls && (utility.hangs & 1) != 0) || (installs && (utility.hangs & 2) != 0);
        run.exitCode = uninstalls ? utility.uninstallExit : installs ? utility.installExit : ERROR_BAD_ARGUMENTS;
        if (run.launchError != 0 || run.hangs)
            return;
        if (installs && run.exitCode == ERROR_SUCCESS_REBOOT_REQUIRED)
            machine.installPending = 1;
        if (!uninstalls || run.exitCode != 0)
            return;
        machine.driver = model::DriverState::Absent;
        for (auto& volume : machine.volumes)
            volume.unseen = 1; // an uninstalled driver keeps nothing
    });
    if (run.launchError != 0 || run.hangs)
        return run;
    WriteUtilityLog(*this, commandLine, run.exitCode);
    if (run.exitCode == 0 && uninstalls)
        InstallFilter(false);
    if (run.exitCode == 0 && installs) {
        InstallFilter(true);
        SetDriver(VTFLTSIM_DRIVER_WORKING);
    }
    return run;
}

} // namespace vtfltsim
