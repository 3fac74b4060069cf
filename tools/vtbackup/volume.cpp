#include "volume.h"

#include "common/volume_name.h"
#include "failure.h"
#include "text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace vtbackup {
namespace {

[[noreturn]] void FailOnDevice(const char* what, const std::wstring& device, DWORD error)
{
    throw Failure(Exit::Device, fmt::format("cannot {} {}: {}", what, ToUtf8(device), ErrorText(error)));
}

// As toolkit's. A walk that breaks off is a failure: whoever locks all volumes would otherwise lock some.
std::vector<std::wstring> EnumerateVolumePaths()
{
    std::vector<std::wstring> paths;
    const DWORD error = toolkit::EnumerateVolumePaths(paths);
    if (error != 0)
        throw Failure(Exit::Device, fmt::format("cannot list the volumes: {}", ErrorText(error)));
    return paths;
}

} // namespace

std::optional<VolumeName> ParseVolumeName(std::wstring_view text)
{
    std::optional<std::wstring> guid = toolkit::ParseVolumeGuid(text);
    if (!guid)
        return std::nullopt;
    return VolumeName{std::move(*guid)};
}

VolumeName ResolveVolumeName(std::wstring_view text)
{
    const std::optional<VolumeName> asked = ParseVolumeName(text);
    const std::vector<std::wstring> paths = EnumerateVolumePaths();
    std::wstring mountPath(text);
    if (!mountPath.ends_with(L'\\'))
        mountPath += L'\\';
    for (const std::wstring& path : paths) {
        const std::optional<VolumeName> name = ParseVolumeName(path);
        // The system's own spelling is taken, because verify lists are searched case-sensitively.
        if (name && asked && EqualIgnoringCase(name->guid, asked->guid))
            return *name;
        if (name && !asked && toolkit::IsMountedAt(path, mountPath))
            return *name;
    }
    // Of a volume that is gone there may be backups.
    if (asked)
        return *asked;
    if (text.size() >= 2 && text[1] == L':')
        throw Failure(Exit::NotFound, fmt::format("no volume is mounted at {}", ToUtf8(text)));
    throw Failure(Exit::Usage, fmt::format("\"{}\" names no volume: give \\\\?\\Volume{{...}}\\, {{...}} or a mount "
                                           "path such as E:\\",
                                           ToUtf8(text)));
}

bool IsListed(const VolumeName& name)
{
    const std::vector<std::wstring> paths = EnumerateVolumePaths();
    return std::any_of(paths.begin(), paths.end(), [&](const std::wstring& path) {
        const std::optional<VolumeName> listed = ParseVolumeName(path);
        return listed && listed->guid == name.guid;
    });
}

std::vector<VolumeName> FixedVolumes()
{
    std::vector<VolumeName> volumes;
    for (const std::wstring& path : EnumerateVolumePaths()) {
        const std::optional<VolumeName> name = ParseVolumeName(path);
        if (name && GetDriveTypeW(path.c_str()) == DRIVE_FIXED)
            volumes.push_back(*name);
    }
    std::sort(volumes.begin(), volumes.end(), [](const VolumeName& a, const VolumeName& b) { return a.guid < b.guid; });
    return volumes;
}

bool IsKnownNotToBeFixed(const VolumeName& name)
{
    const UINT type = GetDriveTypeW(name.Path().c_str());
    return type == DRIVE_REMOVABLE || type == DRIVE_REMOTE || type == DRIVE_CDROM || type == DRIVE_RAMDISK;
}

Volume::Volume(std::wstring device, Access access, bool knowsWhatWasWritten)
    : m_device(std::move(device)), m_knowsWhatWasWritten(knowsWhatWasWritten),
      m_handle(CreateFileW(m_device.c_str(), access == Access::Read ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE,
                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr))
{
    if (!m_handle)
        FailOnDevice("open", m_device, GetLastError());
}

std::string Volume::Name() const
{
    return ToUtf8(m_device);
}

std::uint64_t Volume::Length() const
{
    GET_LENGTH_INFORMATION info = {};
    DWORD returned = 0;
    if (!DeviceIoControl(m_handle.Get(), IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &info, sizeof(info), &returned,
                         nullptr))
        FailOnDevice("learn the length of", m_device, GetLastError());
    if (returned < sizeof(info) || info.Length.QuadPart <= 0)
        FailOnDevice("learn the length of", m_device, ERROR_INVALID_DATA);
    return static_cast<std::uint64_t>(info.Length.QuadPart);
}

void Volume::ReadAt(std::uint64_t offset, void* out, std::uint32_t length) const
{
    LARGE_INTEGER place = {};
    place.QuadPart = static_cast<LONGLONG>(offset);
    DWORD got = 0;
    if (!SetFilePointerEx(m_handle.Get(), place, nullptr, FILE_BEGIN) ||
        !ReadFile(m_handle.Get(), out, length, &got, nullptr))
        FailOnDevice("read", m_device, GetLastError());
    // Without this look at the count, a device that became shorter would be backed up as stale memory.
    if (got != length)
        FailOnDevice("read", m_device, ERROR_HANDLE_EOF);
}

void Volume::WriteAt(std::uint64_t offset, const void* bytes, std::uint32_t length) const
{
    LARGE_INTEGER place = {};
    place.QuadPart = static_cast<LONGLONG>(offset);
    DWORD written = 0;
    if (!SetFilePointerEx(m_handle.Get(), place, nullptr, FILE_BEGIN) ||
        !WriteFile(m_handle.Get(), bytes, length, &written, nullptr))
        FailOnDevice("write", m_device, GetLastError());
    if (written != length)
        FailOnDevice("write", m_device, ERROR_HANDLE_EOF);
}

void Volume::Flush() const
{
    if (!FlushFileBuffers(m_handle.Get()))
        FailOnDevice("flush", m_device, GetLastError());
}

AllocatedWalk::AllocatedWalk(const Volume& volume, Geometry geometry) : m_volume(volume), m_geometry(geometry) {}

void AllocatedWalk::TakeTheRest()
{
    m_supported = false;
    m_place = 0;
    m_page.assign(1, {m_offset / m_geometry.blockSize, m_geometry.Blocks()});
}

bool AllocatedWalk::FetchPage()
{
    if (!m_supported || m_offset >= m_geometry.length)
        return false;
    if (!m_volume.KnowsWhatWasWritten()) {
        TakeTheRest();
        return true;
    }
    FILE_ALLOCATED_RANGE_BUFFER query = {};
    query.FileOffset.QuadPart = static_cast<LONGLONG>(m_offset);
    query.Length.QuadPart = static_cast<LONGLONG>(m_geometry.length - m_offset);
    std::array<FILE_ALLOCATED_RANGE_BUFFER, 512> ranges = {};
    DWORD returned = 0;
    const BOOL done = DeviceIoControl(m_volume.Get(), FSCTL_QUERY_ALLOCATED_RANGES, &query, sizeof(query),
                                      ranges.data(), static_cast<DWORD>(sizeof(ranges)), &returned, nullptr);
    DWORD error = done ? 0 : GetLastError();
    if (!done && error == 0)
        error = ERROR_GEN_FAILURE; // no reason for a refusal is no answer, and not that nothing was ever written
    m_page.clear();
    m_place = 0;
    std::uint64_t covered = m_offset;
    const std::size_t count = error == 0 || error == ERROR_MORE_DATA ? returned / sizeof(ranges[0]) : 0;
    bool sane = error == 0 || (error == ERROR_MORE_DATA && count > 0);
    for (std::size_t i = 0; sane && i < count && i < ranges.size(); ++i) {
        sane = ranges[i].FileOffset.QuadPart >= 0 && ranges[i].Length.QuadPart > 0;
        if (!sane)
            break;
        const auto begin = static_cast<std::uint64_t>(ranges[i].FileOffset.QuadPart);
        const auto bytes = static_cast<std::uint64_t>(ranges[i].Length.QuadPart);
        if (begin >= m_geometry.length) {
            covered = m_geometry.length;
            break;
        }
        const std::uint64_t end = bytes > m_geometry.length - begin ? m_geometry.length : begin + bytes;
        sane = end > covered;
        m_page.push_back({begin / m_geometry.blockSize, (end + m_geometry.blockSize - 1) / m_geometry.blockSize});
        covered = end;
    }
    if (!sane) {
        // No answer, or one that makes no sense: everything from here on may hold data.
        TakeTheRest();
        return true;
    }
    m_offset = error == 0 ? m_geometry.length : covered;
    return true;
}

std::optional<BlockRun> AllocatedWalk::NextRaw()
{
    while (m_place == m_page.size()) {
        if (!FetchPage())
            return std::nullopt;
    }
    return m_page[m_place++];
}

// Ranges of the device may touch the same block; runs given out never overlap.
std::optional<BlockRun> AllocatedWalk::Next()
{
    std::optional<BlockRun> run = m_pending ? std::exchange(m_pending, std::nullopt) : NextRaw();
    if (!run)
        return std::nullopt;
    while (true) {
        const std::optional<BlockRun> next = NextRaw();
        if (!next)
            return run;
        if (next->begin > run->end) {
            m_pending = next;
            return run;
        }
        run->end = std::max(run->end, next->end);
    }
}

} // namespace vtbackup
