#include "interpose/paths.h"

#include <optional>

namespace vtfltsim {

namespace {

Target Missing(DWORD error)
{
    Target target;
    target.kind = Target::Kind::Missing;
    target.error = error;
    return target;
}

bool IsNumber(std::wstring_view text)
{
    return !text.empty() && text.size() <= 9 && text.find_first_not_of(L"0123456789") == std::wstring_view::npos;
}

// The rest of the path behind the volume's name: nothing, a lone backslash, or the way to a file.
Target OnVolume(Machine& machine, const VolumeNames& volume, std::wstring_view rest)
{
    Target target;
    target.endpoint.kind = Endpoint::Kind::Volume;
    target.endpoint.serial = volume.serial;
    if (rest.empty()) {
        target.kind = Target::Kind::Volume;
        return target;
    }
    target.kind = Target::Kind::File;
    target.isRoot = rest == L"\\";
    target.realPath = machine.FilesDirectory(volume.guid);
    if (target.isRoot)
        return target;
    target.realPath.append(rest);
    for (auto& c : target.realPath)
        c = c == L'/' ? L'\\' : c;
    return target;
}

Target ResolveSnapshot(std::wstring_view number)
{
    const std::size_t slash = number.find(L'\\');
    if (!IsNumber(number.substr(0, slash)))
        return Missing(ERROR_FILE_NOT_FOUND);
    if (slash != std::wstring_view::npos)
        return Missing(ERROR_PATH_NOT_FOUND); // the file system inside a snapshot is not simulated
    Target target;
    target.kind = Target::Kind::Snapshot;
    target.endpoint.kind = Endpoint::Kind::Snapshot;
    for (const wchar_t c : number)
        target.endpoint.number = target.endpoint.number * 10 + static_cast<std::uint32_t>(c - L'0');
    return target;
}

Target ResolveVolumeGuid(Machine& machine, std::wstring_view guidAndRest)
{
    const std::size_t slash = guidAndRest.find(L'\\');
    const std::wstring_view guid = guidAndRest.substr(0, slash);
    const std::wstring_view rest = slash == std::wstring_view::npos ? std::wstring_view() : guidAndRest.substr(slash);
    const auto names = machine.Names();
    for (const auto& volume : *names) {
        if (EqualNoCase(volume.guid, guid))
            return OnVolume(machine, volume, rest);
    }
    return Missing(rest.empty() ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND);
}

// A mount path ends in a backslash: E:\x is a file below it, E: behind a device prefix is the volume. Of a volume and
// another one that is mounted in a folder of it, the longer mount path holds.
std::optional<Target> ResolveMount(Machine& machine, std::wstring_view path, bool hasDevicePrefix)
{
    const auto names = machine.Names();
    const VolumeNames* mounted = nullptr;
    std::size_t longest = 0;
    for (const auto& volume : *names) {
        for (const auto& mount : volume.mountPaths) {
            std::wstring_view stem = mount;
            if (!stem.empty() && stem.back() == L'\\')
                stem.remove_suffix(1);
            if (stem.size() <= longest || !StartsNoCase(path, stem))
                continue;
            const std::wstring_view rest = path.substr(stem.size());
            if (!rest.empty() && rest.front() != L'\\' && rest.front() != L'/')
                continue;
            mounted = &volume;
            longest = stem.size();
        }
    }
    if (mounted == nullptr)
        return std::nullopt;
    const std::wstring_view rest = path.substr(longest);
    if (rest.empty() && hasDevicePrefix)
        return OnVolume(machine, *mounted, rest);
    return OnVolume(machine, *mounted, rest.size() <= 1 ? std::wstring_view(L"\\") : rest);
}

} // namespace

Target ResolvePath(Machine& machine, std::wstring_view path)
{
    const bool hasPrefix = StartsNoCase(path, L"\\\\?\\") || StartsNoCase(path, L"\\\\.\\");
    const std::wstring_view name = hasPrefix ? path.substr(4) : path;
    if (hasPrefix) {
        constexpr std::wstring_view GLOBAL_SNAPSHOT = L"GLOBALROOT\\Device\\HarddiskVolumeShadowCopy";
        constexpr std::wstring_view LOCAL_SNAPSHOT = L"HarddiskVolumeShadowCopy";
        if (EqualNoCase(path, CONTROL_DEVICE)) {
            Target target;
            target.kind = Target::Kind::Control;
            return target;
        }
        if (StartsNoCase(name, L"Volume{"))
            return ResolveVolumeGuid(machine, name.substr(6));
        if (StartsNoCase(name, GLOBAL_SNAPSHOT))
            return ResolveSnapshot(name.substr(GLOBAL_SNAPSHOT.size()));
        if (StartsNoCase(name, LOCAL_SNAPSHOT))
            return ResolveSnapshot(name.substr(LOCAL_SNAPSHOT.size()));
    }
    if (auto target = ResolveMount(machine, name, hasPrefix))
        return *target;
    Target target;
    target.realPath = path;
    return target;
}

} // namespace vtfltsim
