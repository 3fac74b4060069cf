#include "bitmap_live.h"

#include "common/text.h"
#include "common/volume_name.h"
#include "volume_lock.h"

#include "apps/volume_name.h"
#include "bitmap/container.h"
#include "driver/request.h"
#include "win/owners.h"

#include <fmt/format.h>

#include <array>
#include <optional>
#include <vector>

namespace vtfltctl::bitmap {
namespace {

using toolkit::ErrorText;
using toolkit::Shown;

constexpr DWORD LONGEST_PATH = 32768;

vtflt::UniqueHandle OpenForReading(const std::wstring& path)
{
    vtflt::UniqueHandle file(CreateFileW(path.c_str(), GENERIC_READ,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        throw ReadError(GetLastError(), "open");
    return file;
}

BY_HANDLE_FILE_INFORMATION Identify(HANDLE file)
{
    BY_HANDLE_FILE_INFORMATION facts{};
    if (!GetFileInformationByHandle(file, &facts))
        throw ReadError(GetLastError(), "identify");
    return facts;
}

std::uint64_t SizeOf(const BY_HANDLE_FILE_INFORMATION& facts) noexcept
{
    return std::uint64_t{facts.nFileSizeHigh} << 32 | facts.nFileSizeLow;
}

bool IsSameFile(const BY_HANDLE_FILE_INFORMATION& a, const BY_HANDLE_FILE_INFORMATION& b) noexcept
{
    return SizeOf(a) == SizeOf(b) && CompareFileTime(&a.ftLastWriteTime, &b.ftLastWriteTime) == 0 &&
           CompareFileTime(&a.ftCreationTime, &b.ftCreationTime) == 0 && a.nFileIndexHigh == b.nFileIndexHigh &&
           a.nFileIndexLow == b.nFileIndexLow;
}

void ReadAt(HANDLE file, std::uint64_t offset, std::uint8_t* to, std::size_t count)
{
    LARGE_INTEGER position{};
    position.QuadPart = static_cast<LONGLONG>(offset);
    if (!SetFilePointerEx(file, position, nullptr, FILE_BEGIN))
        throw ReadError(GetLastError(), "seek");
    DWORD read = 0;
    if (!ReadFile(file, to, static_cast<DWORD>(count), &read, nullptr))
        throw ReadError(GetLastError(), "read");
    if (read != count)
        throw ReadError(ERROR_SUCCESS, "the file became shorter");
}

// Opened anew for each read and never held between two: whoever wants to write the file finds it closed, also where it
// is a live one that is not known for one.
class FileSource final : public ByteSource {
public:
    // volume: Volume{...} of a live file, empty for any other.
    FileSource(std::wstring path, std::wstring volume) : m_path(std::move(path)), m_volume(std::move(volume))
    {
        const std::optional<VolumeLock> lock = Lock();
        m_facts = Identify(OpenForReading(m_path).get());
    }

    [[nodiscard]] std::uint64_t Size() const override { return SizeOf(m_facts); }
    void Read(std::uint64_t offset, std::uint8_t* to, std::size_t count) override
    {
        const std::optional<VolumeLock> lock = Lock();
        const vtflt::UniqueHandle file = OpenForReading(m_path);
        if (!IsSameFile(Identify(file.get()), m_facts))
            throw ReadError(ERROR_SUCCESS, "the file was rewritten");
        ReadAt(file.get(), offset, to, count);
    }

private:
    [[nodiscard]] std::optional<VolumeLock> Lock() const
    {
        if (m_volume.empty())
            return std::nullopt;
        return std::optional<VolumeLock>(std::in_place, m_volume);
    }

    std::wstring m_path;
    std::wstring m_volume;
    BY_HANDLE_FILE_INFORMATION m_facts{};
};

std::wstring FullPath(const std::wstring& path)
{
    std::vector<wchar_t> buffer(MAX_PATH);
    DWORD length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(buffer.size()), buffer.data(), nullptr);
    if (length >= buffer.size()) {
        buffer.resize(length);
        length = GetFullPathNameW(path.c_str(), length, buffer.data(), nullptr);
    }
    return length == 0 ? path : std::wstring(buffer.data(), length);
}

// Under which path the system itself knows the file: no junction, no short name, no substituted drive is left in it.
// Empty for a file that is not there or on no local volume.
std::wstring FinalPath(const std::wstring& path)
{
    // Without a right to its data the handle is in nobody's way.
    const vtflt::UniqueHandle file(CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                               nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return {};
    std::vector<wchar_t> buffer(LONGEST_PATH);
    const DWORD length =
        GetFinalPathNameByHandleW(file.get(), buffer.data(), static_cast<DWORD>(buffer.size()), VOLUME_NAME_GUID);
    return length < buffer.size() ? std::wstring(buffer.data(), length) : std::wstring();
}

// Volume{...} of the volume below whose root a file of this path would be the library's; empty for any other path.
std::wstring VolumeOfLivePath(const std::wstring& path)
{
    const std::size_t nameAt = path.find_last_of(L'\\');
    if (nameAt == std::wstring::npos)
        return {};
    const std::wstring folder = path.substr(0, nameAt);
    const std::wstring tail = std::wstring(L"\\") + vtflt::BITMAP_FOLDER;
    if (!toolkit::EndsWithIgnoringCase(folder, tail))
        return {};
    const std::wstring root = folder.substr(0, folder.size() - tail.size() + 1);
    std::array<wchar_t, MAX_PATH> volume{};
    if (GetVolumeNameForVolumeMountPointW(root.c_str(), volume.data(), static_cast<DWORD>(volume.size())))
        return vtflt::GetVolumeName(volume.data());
    const std::optional<std::wstring> guid = toolkit::ParseVolumeGuid(root);
    return guid ? L"Volume" + *guid : std::wstring();
}

// Volume{...} of a file that the library keeps, whatever name it is called by; empty for any other file.
std::wstring VolumeOfLiveFile(const std::wstring& path)
{
    std::wstring volume = VolumeOfLivePath(FullPath(path));
    return volume.empty() ? VolumeOfLivePath(FinalPath(path)) : volume;
}

bool LooksLikeMountPath(const std::wstring& name) noexcept
{
    return name.size() >= 2 && name[1] == L':';
}

bool IsMissing(std::uint32_t code) noexcept
{
    return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND || code == ERROR_INVALID_NAME ||
           code == ERROR_BAD_NETPATH;
}

std::unique_ptr<ByteSource> Open(const std::wstring& path)
{
    return std::make_unique<FileSource>(path, VolumeOfLiveFile(path));
}

} // namespace

std::unique_ptr<ByteSource> OpenFile(const std::wstring& path)
{
    try {
        return Open(path);
    } catch (const ReadError& error) {
        throw Failure(IsMissing(error.Code()) ? Exit::NotFound : ReadErrorExit(error), ReadErrorText(path, error));
    }
}

std::unique_ptr<ByteSource> OpenFileIfThere(const std::wstring& path)
{
    try {
        return Open(path);
    } catch (const ReadError& error) {
        if (IsMissing(error.Code()))
            return nullptr;
        throw Failure(ReadErrorExit(error), ReadErrorText(path, error));
    }
}

Exit ReadErrorExit(const ReadError& error) noexcept
{
    return error.Code() == WAIT_TIMEOUT ? Exit::Busy : Exit::Unreadable;
}

std::string ReadErrorText(const std::wstring& path, const ReadError& error)
{
    if (error.Code() == ERROR_SUCCESS)
        return fmt::format("{} changed while it was read; run the command again", Shown(path));
    if (error.Code() == WAIT_TIMEOUT)
        return fmt::format("{} cannot be read now: a backup works on the bitmap files of the volume", Shown(path));
    return fmt::format("cannot read {}: {}", Shown(path), ErrorText(error.Code()));
}

VolumeName FindVolumeByName(const std::wstring& name)
{
    const auto named = [](const std::wstring& guid) {
        return VolumeName{L"Volume" + guid, L"\\\\?\\Volume" + guid + L"\\"};
    };
    const std::optional<std::wstring> asked = toolkit::ParseVolumeGuid(name);
    const std::wstring mountPath = name.ends_with(L'\\') ? name : name + L"\\";
    std::vector<std::wstring> paths;
    const DWORD error = toolkit::EnumerateVolumePaths(paths);
    for (const std::wstring& path : paths) {
        const std::optional<std::wstring> guid = toolkit::ParseVolumeGuid(path);
        if (guid && (asked ? toolkit::EqualIgnoringCase(*guid, *asked) : toolkit::IsMountedAt(path, mountPath)))
            return named(*guid);
    }
    if (error != ERROR_SUCCESS && (asked || LooksLikeMountPath(name)))
        throw Failure(Exit::Device, fmt::format("cannot find the volume {}: the list of volumes broke off, {}",
                                                Shown(name), ErrorText(error)));
    if (asked)
        throw Failure(Exit::NotFound, fmt::format("this machine has no volume {}", Shown(*asked)));
    if (LooksLikeMountPath(name))
        throw Failure(Exit::NotFound, fmt::format("no volume is mounted at {}", Shown(name)));
    throw Failure(Exit::Usage, fmt::format("\"{}\" names no volume; write {{GUID}}, \\\\?\\Volume{{GUID}}\\ or a path "
                                           "where it is mounted, such as E:",
                                           Shown(name)));
}

Geometry QueryGeometry(const VolumeName& volume)
{
    Geometry geometry;
    vtflt::UniqueHandle device;
    if (vtflt::OpenDevice(vtflt::StripTrailingBackslash(volume.path).c_str(), device) != ERROR_SUCCESS)
        return geometry;
    LONGLONG length = 0;
    if (vtflt::QueryVolumeLength(device.get(), length) == ERROR_SUCCESS)
        geometry.volumeBytes = static_cast<std::uint64_t>(length);
    DWORD blockSize = 0;
    if (vtflt::QueryBlockSize(device.get(), blockSize) == ERROR_SUCCESS)
        geometry.blockSize = blockSize;
    return geometry;
}

std::wstring BitmapPath(const VolumeName& volume, const std::wstring& application, bool base)
{
    vtflt::CBitmapContainer container;
    container.init(volume.name, application);
    return container.FileName(base ? vtflt::BASE_BITMAP : vtflt::CHILD_BITMAP);
}

void WriteWholeFile(const std::wstring& path, const void* bytes, std::size_t count, bool overwrite)
{
    vtflt::UniqueHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr,
                                         overwrite ? CREATE_ALWAYS : CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        const DWORD error = GetLastError();
        if (error == ERROR_FILE_EXISTS)
            throw Failure(Exit::Refused, fmt::format("{} is there already; repeat the command with --yes to write over "
                                                     "it",
                                                     Shown(path)));
        throw Failure(Exit::Unreadable, fmt::format("cannot write {}: {}", Shown(path), ErrorText(error)));
    }
    DWORD written = 0;
    if (WriteFile(file.get(), bytes, static_cast<DWORD>(count), &written, nullptr) && written == count)
        return;
    const DWORD error = GetLastError();
    file.reset();
    DeleteFileW(path.c_str());
    throw Failure(Exit::Unreadable, fmt::format("cannot write {}: {}", Shown(path), ErrorText(error)));
}

} // namespace vtfltctl::bitmap
