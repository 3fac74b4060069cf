#include "interpose/storage.h"

#include <algorithm>

namespace vtfltsim {

namespace {

constexpr DWORD SHARE_ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

DWORD SetLength(HANDLE file, std::uint64_t length)
{
    LARGE_INTEGER position = {};
    position.QuadPart = static_cast<LONGLONG>(length);
    if (SetFilePointerEx(file, position, nullptr, FILE_BEGIN) && SetEndOfFile(file))
        return 0;
    const DWORD code = GetLastError();
    // No file can be that long: it stays as it is, and nothing can lie behind that length.
    return code == ERROR_INVALID_PARAMETER ? 0 : code;
}

OVERLAPPED At(std::uint64_t offset)
{
    OVERLAPPED overlapped = {};
    overlapped.Offset = static_cast<DWORD>(offset);
    overlapped.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return overlapped;
}

} // namespace

DWORD FileStore::Open(const std::wstring& path, std::uint64_t length, std::unique_ptr<FileStore>& store)
{
    Handle file(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, SHARE_ALL, nullptr,
                            length == 0 ? OPEN_EXISTING : OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return GetLastError();
    if (length != 0) {
        // Where the file system needs to be asked for sparseness; where it does not, this fails and is no loss.
        DWORD bytes = 0;
        DeviceIoControl(file.get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &bytes, nullptr);
        const DWORD code = SetLength(file.get(), length);
        if (code != 0)
            return code;
    }
    store.reset(new FileStore(std::move(file)));
    return 0;
}

model::Status FileStore::ReadAt(std::uint64_t offset, std::uint8_t* data, std::uint32_t length)
{
    OVERLAPPED at = At(offset);
    DWORD moved = 0;
    if (!ReadFile(m_file.get(), data, length, &moved, &at)) {
        const DWORD code = GetLastError();
        if (code != ERROR_HANDLE_EOF)
            return code;
        moved = 0;
    }
    std::fill(data + moved, data + length, std::uint8_t{0});
    return 0;
}

model::Status FileStore::WriteAt(std::uint64_t offset, const std::uint8_t* data, std::uint32_t length)
{
    OVERLAPPED at = At(offset);
    DWORD moved = 0;
    if (!WriteFile(m_file.get(), data, length, &moved, &at))
        return GetLastError();
    return moved == length ? 0 : ERROR_DISK_FULL;
}

DWORD FileStore::Resize(std::uint64_t length)
{
    return SetLength(m_file.get(), length);
}

DWORD FileStore::Flush()
{
    return FlushFileBuffers(m_file.get()) ? 0 : GetLastError();
}

DWORD MappedFile::Open(const std::wstring& path, std::uint64_t size, std::unique_ptr<MappedFile>& file)
{
    std::unique_ptr<MappedFile> result(new MappedFile());
    result->m_file = Handle(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, SHARE_ALL, nullptr,
                                        size == 0 ? OPEN_EXISTING : OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!result->m_file)
        return GetLastError();
    LARGE_INTEGER present = {};
    if (!GetFileSizeEx(result->m_file.get(), &present))
        return GetLastError();
    result->m_size = std::max(size, static_cast<std::uint64_t>(present.QuadPart));
    if (result->m_size == 0)
        return ERROR_FILE_CORRUPT;
    result->m_mapping = Handle(CreateFileMappingW(result->m_file.get(), nullptr, PAGE_READWRITE,
                                                  static_cast<DWORD>(result->m_size >> 32),
                                                  static_cast<DWORD>(result->m_size), nullptr));
    if (!result->m_mapping)
        return GetLastError();
    result->m_view = static_cast<std::uint8_t*>(MapViewOfFile(result->m_mapping.get(), FILE_MAP_WRITE, 0, 0, 0));
    if (result->m_view == nullptr)
        return GetLastError();
    file = std::move(result);
    return 0;
}

bool MappedFile::IsSameFile(const MappedFile& other) const
{
    BY_HANDLE_FILE_INFORMATION own = {};
    BY_HANDLE_FILE_INFORMATION others = {};
    return GetFileInformationByHandle(m_file.get(), &own) && GetFileInformationByHandle(other.m_file.get(), &others) &&
           own.dwVolumeSerialNumber == others.dwVolumeSerialNumber && own.nFileIndexHigh == others.nFileIndexHigh &&
           own.nFileIndexLow == others.nFileIndexLow;
}

MappedFile::~MappedFile()
{
    if (m_view != nullptr)
        UnmapViewOfFile(m_view);
}

DWORD MakeDirectory(const std::wstring& path)
{
    if (CreateDirectoryW(path.c_str(), nullptr))
        return 0;
    const DWORD code = GetLastError();
    return code == ERROR_ALREADY_EXISTS ? 0 : code;
}

DWORD RemoveTree(const std::wstring& path)
{
    DWORD result = 0;
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW((path + L"\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        const DWORD code = GetLastError();
        return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND ? 0 : code;
    }
    do {
        const std::wstring name = found.cFileName;
        if (name == L"." || name == L"..")
            continue;
        const std::wstring entry = path + L"\\" + name;
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            // A link to a folder elsewhere is removed, not what it leads to.
            const bool isLink = (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
            const DWORD code = !isLink ? RemoveTree(entry) : RemoveDirectoryW(entry.c_str()) ? 0 : GetLastError();
            result = result == 0 ? code : result;
            continue;
        }
        SetFileAttributesW(entry.c_str(), FILE_ATTRIBUTE_NORMAL);
        if (!DeleteFileW(entry.c_str()) && result == 0)
            result = GetLastError();
    } while (FindNextFileW(search, &found));
    FindClose(search);
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (!RemoveDirectoryW(path.c_str()) && result == 0)
        result = GetLastError();
    return result;
}

} // namespace vtfltsim
