#include "file.h"

#include "failure.h"
#include "folder_link.h"
#include "text.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace vtbackup {
namespace {

constexpr std::size_t BUFFER_BYTES = 1024 * 1024;

[[noreturn]] void FailOnFile(const char* what, const std::wstring& path, DWORD error)
{
    throw Failure(Exit::Repository, fmt::format("cannot {} {}: {}", what, ToUtf8(path), ErrorText(error)));
}

// Nothing when there is nothing of the name.
std::optional<DWORD> AttributesOf(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES)
        return attributes;
    // Only these say that it is not there. A share that hiccups must not make a manifest look missing: its backup
    // would be taken for an unfinished one and removed.
    const DWORD error = GetLastError();
    if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND && error != ERROR_INVALID_NAME)
        FailOnFile("look for", path, error);
    return std::nullopt;
}

bool IsThere(const std::wstring& path, bool folder)
{
    const std::optional<DWORD> attributes = AttributesOf(path);
    return attributes && ((*attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) == folder;
}

bool SaysThatItExists(DWORD error) noexcept
{
    return error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS;
}

bool IsLinkEntry(const WIN32_FIND_DATAW& found)
{
    return (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
           IsLink(found.dwFileAttributes, found.dwReserved0);
}

} // namespace

std::wstring AbsolutePath(const std::wstring& path)
{
    if (path.starts_with(L"\\\\?\\") || path.starts_with(L"\\\\.\\"))
        return path;
    const DWORD needed = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    if (needed == 0)
        FailOnFile("resolve", path, GetLastError());
    std::wstring full(needed, L'\0');
    full.resize(GetFullPathNameW(path.c_str(), needed, full.data(), nullptr));
    while (full.size() > 3 && full.back() == L'\\')
        full.pop_back();
    if (full.starts_with(L"\\\\"))
        return L"\\\\?\\UNC" + full.substr(1);
    return L"\\\\?\\" + full;
}

std::wstring Join(const std::wstring& folder, const std::wstring& name)
{
    return folder.ends_with(L'\\') ? folder + name : folder + L"\\" + name;
}

bool FileExists(const std::wstring& path)
{
    return IsThere(path, false);
}

bool FolderExists(const std::wstring& path)
{
    return IsThere(path, true);
}

bool AnythingExists(const std::wstring& path)
{
    return AttributesOf(path).has_value();
}

void MakeFolders(const std::wstring& path)
{
    if (FolderExists(path) || CreateDirectoryW(path.c_str(), nullptr))
        return;
    DWORD error = GetLastError();
    if (error == ERROR_PATH_NOT_FOUND) {
        const std::size_t slash = path.find_last_of(L'\\');
        if (slash == std::wstring::npos || slash < 6)
            FailOnFile("make folder", path, error);
        MakeFolders(path.substr(0, slash));
        if (CreateDirectoryW(path.c_str(), nullptr))
            return;
        error = GetLastError();
    }
    if (error != ERROR_ALREADY_EXISTS || !FolderExists(path))
        FailOnFile("make folder", path, error);
}

void MakeNewFolder(const std::wstring& path)
{
    if (!CreateDirectoryW(path.c_str(), nullptr))
        FailOnFile("make folder", path, GetLastError());
}

std::vector<FolderEntry> ListFolder(const std::wstring& path)
{
    std::vector<FolderEntry> entries;
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW(Join(path, L"*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND)
            return entries;
        FailOnFile("list", path, error);
    }
    do {
        const std::wstring name = found.cFileName;
        if (name != L"." && name != L"..")
            entries.push_back({name, (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0, IsLinkEntry(found)});
    } while (FindNextFileW(search, &found));
    const DWORD error = GetLastError();
    FindClose(search);
    if (error != ERROR_NO_MORE_FILES)
        FailOnFile("list", path, error);
    return entries;
}

void RemoveFileIfThere(const std::wstring& path)
{
    if (DeleteFileW(path.c_str()))
        return;
    const DWORD error = GetLastError();
    if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND)
        FailOnFile("delete", path, error);
}

bool IsFolderLink(const std::wstring& path)
{
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW(path.c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND)
            return false;
        FailOnFile("look at", path, error);
    }
    FindClose(search);
    return IsLinkEntry(found);
}

void RemoveFolderWithFiles(const std::wstring& path, std::initializer_list<const wchar_t*> files)
{
    for (const wchar_t* file : files)
        RemoveFileIfThere(Join(path, file));
    if (RemoveDirectoryW(path.c_str()))
        return;
    const DWORD error = GetLastError();
    if (error != ERROR_DIR_NOT_EMPTY && FolderExists(path))
        FailOnFile("delete folder", path, error);
}

std::optional<std::string> ReadSmallFile(const std::wstring& path, std::uint64_t limit)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        const DWORD error = GetLastError();
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND)
            return std::nullopt;
        FailOnFile("read", path, error);
    }
    FileReader reader(path);
    if (reader.Length() > limit)
        throw Failure(Exit::Damaged, fmt::format("{} is damaged: {} bytes, where at most {} can be", ToUtf8(path),
                                                 reader.Length(), limit));
    std::string content(static_cast<std::size_t>(reader.Length()), '\0');
    if (!reader.ReadAt(0, content.data(), content.size()))
        throw Failure(Exit::Damaged, fmt::format("{} became shorter while it was read", ToUtf8(path)));
    return content;
}

void RefuseExisting(const std::wstring& path)
{
    throw Failure(Exit::Usage, fmt::format("{} exists already; add --overwrite to replace it", ToUtf8(path)));
}

void MoveIntoPlace(const std::wstring& from, const std::wstring& to, Existing existing)
{
    const DWORD replacing = existing == Existing::Replace ? MOVEFILE_REPLACE_EXISTING : 0;
    if (MoveFileExW(from.c_str(), to.c_str(), replacing | MOVEFILE_WRITE_THROUGH))
        return;
    const DWORD error = GetLastError();
    if (existing == Existing::Refuse && SaysThatItExists(error))
        RefuseExisting(to);
    FailOnFile("rename into place", to, error);
}

void WriteSmallFileDurably(const std::wstring& path, const std::string& content, Existing existing)
{
    const std::wstring temporary = path + L".tmp";
    std::optional<FileWriter> writer(std::in_place, temporary, existing);
    try {
        writer->Write(content.data(), content.size());
        // The content has to be on the disk before the name is: a rename that survives a crash must not
        // name an empty file.
        writer->Flush();
        writer.reset();
        MoveIntoPlace(temporary, path, existing);
    } catch (const Failure&) {
        writer.reset();
        DeleteFileW(temporary.c_str());
        throw;
    }
}

FileWriter::FileWriter(const std::wstring& path, Existing existing)
    : m_path(path),
      m_handle(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                           existing == Existing::Replace ? CREATE_ALWAYS : CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr))
{
    const DWORD error = m_handle ? 0 : GetLastError();
    if (existing == Existing::Refuse && SaysThatItExists(error))
        RefuseExisting(m_path);
    if (!m_handle) // also without a reason
        FailOnFile("create", m_path, error);
}

void FileWriter::Write(const void* bytes, std::size_t length)
{
    const auto* p = static_cast<const unsigned char*>(bytes);
    m_length += length;
    while (length > 0) {
        const std::size_t part = std::min(length, BUFFER_BYTES - m_buffer.size());
        m_buffer.insert(m_buffer.end(), p, p + part);
        p += part;
        length -= part;
        if (m_buffer.size() == BUFFER_BYTES)
            WriteBuffer();
    }
}

void FileWriter::WriteBuffer()
{
    if (m_buffer.empty())
        return;
    DWORD written = 0;
    if (!WriteFile(m_handle.Get(), m_buffer.data(), static_cast<DWORD>(m_buffer.size()), &written, nullptr))
        FailOnFile("write", m_path, GetLastError());
    if (written != m_buffer.size())
        FailOnFile("write", m_path, ERROR_DISK_FULL);
    m_buffer.clear();
}

void FileWriter::Flush()
{
    WriteBuffer();
    if (!FlushFileBuffers(m_handle.Get()))
        FailOnFile("flush", m_path, GetLastError());
}

FileReader::FileReader(const std::wstring& path)
    : m_path(path), m_handle(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr))
{
    if (!m_handle)
        FailOnFile("open", m_path, GetLastError());
    LARGE_INTEGER size = {};
    if (!GetFileSizeEx(m_handle.Get(), &size))
        FailOnFile("measure", m_path, GetLastError());
    m_length = static_cast<std::uint64_t>(size.QuadPart);
}

bool FileReader::ReadAt(std::uint64_t offset, void* out, std::size_t length)
{
    auto* p = static_cast<unsigned char*>(out);
    LARGE_INTEGER place = {};
    place.QuadPart = static_cast<LONGLONG>(offset);
    if (!SetFilePointerEx(m_handle.Get(), place, nullptr, FILE_BEGIN))
        FailOnFile("read", m_path, GetLastError());
    while (length > 0) {
        DWORD got = 0;
        const DWORD part = static_cast<DWORD>(std::min<std::size_t>(length, 64 * BUFFER_BYTES));
        if (!ReadFile(m_handle.Get(), p, part, &got, nullptr))
            FailOnFile("read", m_path, GetLastError());
        if (got == 0)
            return false;
        p += got;
        length -= got;
    }
    return true;
}

} // namespace vtbackup
