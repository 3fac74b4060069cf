// The file functions.
#include "double/api.h"
#include "double/file_system.h"

#include <algorithm>
#include <cstring>

using namespace vtdouble;

namespace {

constexpr DWORD READS = FILE_READ_DATA | FILE_EXECUTE;
constexpr DWORD WRITES = FILE_WRITE_DATA | FILE_APPEND_DATA;
constexpr DWORD KEPT_ATTRIBUTES = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                                  FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_TEMPORARY | FILE_ATTRIBUTE_OFFLINE |
                                  FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;

bool SharingAllows(const Node& node, DWORD access, DWORD share)
{
    const auto allowed = [](DWORD wanted, DWORD granted) {
        return ((wanted & READS) == 0 || (granted & FILE_SHARE_READ) != 0) &&
               ((wanted & WRITES) == 0 || (granted & FILE_SHARE_WRITE) != 0) &&
               ((wanted & DELETE) == 0 || (granted & FILE_SHARE_DELETE) != 0);
    };
    constexpr DWORD SHARED = READS | WRITES | DELETE; // who asks for nothing of these shares with everybody
    if ((access & SHARED) == 0)
        return true;
    return std::all_of(node.opens.begin(), node.opens.end(), [&](const OpenedFile* open) {
        if ((open->access & SHARED) == 0)
            return true;
        return allowed(access, open->share) && allowed(open->access, share);
    });
}

// May this file be opened so, and emptied? 0 or the error.
DWORD MayOpen(const Node& node, DWORD access, DWORD share, DWORD disposition, DWORD flags)
{
    if (node.deletePending || !node.security.Grants(access & ~static_cast<DWORD>(SYNCHRONIZE | FILE_READ_ATTRIBUTES)))
        return ERROR_ACCESS_DENIED;
    if (node.IsFolder())
        return (flags & FILE_FLAG_BACKUP_SEMANTICS) != 0 && disposition != CREATE_ALWAYS ? 0 : ERROR_ACCESS_DENIED;
    const bool readOnly = (node.attributes & FILE_ATTRIBUTE_READONLY) != 0;
    if (readOnly && ((access & WRITES) != 0 || disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING))
        return ERROR_ACCESS_DENIED;
    if (!SharingAllows(node, access, share))
        return ERROR_SHARING_VIOLATION;
    // A hidden or system file is replaced only by one that is told to be so, too.
    constexpr DWORD SPECIAL = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    if (disposition == CREATE_ALWAYS && (node.attributes & SPECIAL & ~flags) != 0)
        return ERROR_ACCESS_DENIED;
    return 0;
}

HANDLE OpenNode(const std::shared_ptr<Node>& node, DWORD access, DWORD share, DWORD flags)
{
    auto open = std::make_shared<OpenedFile>();
    open->node = node;
    open->access = access;
    open->share = share;
    open->deleteOnClose = (flags & FILE_FLAG_DELETE_ON_CLOSE) != 0;
    open->name = node->Path();
    node->opens.insert(open.get());
    return CurrentProcess().Open(open, access);
}

void Empty(Node& node, DWORD flags)
{
    node.contents->Resize(0);
    node.attributes = (flags & KEPT_ATTRIBUTES) | FILE_ATTRIBUTE_ARCHIVE;
    node.Touched();
}

std::shared_ptr<OpenedFile> FileOf(HANDLE handle, DWORD access)
{
    return CurrentProcess().Get<OpenedFile>(handle, access);
}

std::uint64_t OffsetOf(const OpenedFile& file, const OVERLAPPED* overlapped)
{
    if (overlapped == nullptr)
        return file.position;
    return (static_cast<std::uint64_t>(overlapped->OffsetHigh) << 32) | overlapped->Offset;
}

void FinishTransfer(OpenedFile& file, std::uint64_t end, OVERLAPPED* overlapped, DWORD moved, DWORD* reported)
{
    file.position = end;
    if (reported != nullptr)
        *reported = moved;
    if (overlapped != nullptr) {
        overlapped->Internal = 0;
        overlapped->InternalHigh = moved;
    }
}

BOOL FailedFile(DWORD error)
{
    return Failed(error, FALSE);
}

} // namespace

DOUBLE_API HANDLE WINAPI CreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES attributes,
                                     DWORD disposition, DWORD flags, HANDLE)
{
    const Entry entry;
    if (disposition < CREATE_NEW || disposition > TRUNCATE_EXISTING)
        return Failed(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    access = MapFileAccess(access);
    if ((flags & FILE_FLAG_DELETE_ON_CLOSE) != 0)
        access |= DELETE;
    const Place place = Resolve(path);
    if (place.error != 0)
        return Failed(place.error, INVALID_HANDLE_VALUE);
    const bool opensExisting = disposition == OPEN_EXISTING || disposition == TRUNCATE_EXISTING;
    if (place.node == nullptr) {
        if (place.endsInBackslash)
            return Failed<HANDLE>(opensExisting ? ERROR_FILE_NOT_FOUND : ERROR_INVALID_NAME, INVALID_HANDLE_VALUE);
        if (opensExisting)
            return Failed(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE);
        if (!place.folder->security.Grants(FILE_ADD_FILE))
            return Failed(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
        const auto made = std::make_shared<Node>(place.name, false);
        made->attributes = (flags & KEPT_ATTRIBUTES) | FILE_ATTRIBUTE_ARCHIVE;
        made->security = SecurityOf(attributes);
        place.folder->Add(made);
        if (disposition != CREATE_NEW)
            Fail(0);
        return OpenNode(made, access, share, flags);
    }
    if (disposition == CREATE_NEW)
        return Failed(ERROR_FILE_EXISTS, INVALID_HANDLE_VALUE);
    const DWORD refused = MayOpen(*place.node, access, share, disposition, flags);
    if (refused != 0)
        return Failed(refused, INVALID_HANDLE_VALUE);
    if (disposition == TRUNCATE_EXISTING && (access & FILE_WRITE_DATA) == 0)
        return Failed(ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
    if (disposition == CREATE_ALWAYS)
        Empty(*place.node, flags);
    else if (disposition == TRUNCATE_EXISTING)
        place.node->contents->Resize(0);
    if (disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS)
        Fail(ERROR_ALREADY_EXISTS);
    return OpenNode(place.node, access, share, flags);
}

DOUBLE_API BOOL WINAPI ReadFile(HANDLE handle, LPVOID data, DWORD length, LPDWORD read, LPOVERLAPPED overlapped)
{
    const Entry entry;
    if (read != nullptr)
        *read = 0;
    const auto file = FileOf(handle, FILE_READ_DATA);
    if (file == nullptr)
        return FALSE;
    if (file->node->IsFolder())
        return FailedFile(ERROR_INVALID_FUNCTION);
    const std::uint64_t offset = OffsetOf(*file, overlapped);
    const auto moved = static_cast<DWORD>(file->node->contents->Read(offset, data, length));
    FinishTransfer(*file, offset + moved, overlapped, moved, read);
    if (overlapped != nullptr && moved == 0 && length != 0)
        return FailedFile(ERROR_HANDLE_EOF);
    return TRUE;
}

DOUBLE_API BOOL WINAPI WriteFile(HANDLE handle, LPCVOID data, DWORD length, LPDWORD written, LPOVERLAPPED overlapped)
{
    const Entry entry;
    if (written != nullptr)
        *written = 0;
    const auto file = FileOf(handle, 0);
    if (file == nullptr)
        return FALSE;
    if ((file->access & WRITES) == 0)
        return FailedFile(ERROR_ACCESS_DENIED);
    if (file->node->IsFolder())
        return FailedFile(ERROR_INVALID_FUNCTION);
    std::uint64_t offset = OffsetOf(*file, overlapped);
    const bool appends =
        (file->access & FILE_WRITE_DATA) == 0 || (overlapped != nullptr && offset == ~std::uint64_t{0});
    if (appends)
        offset = file->node->contents->size();
    if (!file->node->contents->Write(offset, data, length))
        return FailedFile(ERROR_DISK_FULL);
    file->node->attributes |= FILE_ATTRIBUTE_ARCHIVE;
    file->node->Touched();
    FinishTransfer(*file, offset + length, overlapped, length, written);
    return TRUE;
}

DOUBLE_API BOOL WINAPI SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER place, DWORD method)
{
    const Entry entry;
    const auto file = FileOf(handle, 0);
    if (file == nullptr)
        return FALSE;
    std::int64_t start = 0;
    if (method == FILE_CURRENT)
        start = static_cast<std::int64_t>(file->position);
    else if (method == FILE_END)
        start = static_cast<std::int64_t>(file->node->contents != nullptr ? file->node->contents->size() : 0);
    else if (method != FILE_BEGIN)
        return FailedFile(ERROR_INVALID_PARAMETER);
    std::int64_t target = 0;
    if (__builtin_add_overflow(start, static_cast<std::int64_t>(distance.QuadPart), &target))
        return FailedFile(ERROR_INVALID_PARAMETER);
    if (target < 0)
        return FailedFile(ERROR_NEGATIVE_SEEK);
    file->position = static_cast<std::uint64_t>(target);
    if (place != nullptr)
        place->QuadPart = target;
    return TRUE;
}

DOUBLE_API DWORD WINAPI SetFilePointer(HANDLE handle, LONG distance, PLONG high, DWORD method)
{
    LARGE_INTEGER wanted = {};
    wanted.QuadPart = distance;
    if (high != nullptr)
        wanted.QuadPart = static_cast<LONGLONG>((static_cast<std::uint64_t>(static_cast<DWORD>(*high)) << 32) |
                                                static_cast<DWORD>(distance));
    LARGE_INTEGER reached = {};
    if (!SetFilePointerEx(handle, wanted, &reached, method))
        return INVALID_SET_FILE_POINTER;
    const auto low = static_cast<DWORD>(reached.QuadPart);
    if (high != nullptr)
        *high = static_cast<LONG>(reached.QuadPart >> 32);
    if (low == INVALID_SET_FILE_POINTER)
        Fail(0);
    return low;
}

DOUBLE_API BOOL WINAPI SetEndOfFile(HANDLE handle)
{
    const Entry entry;
    const auto file = FileOf(handle, FILE_WRITE_DATA);
    if (file == nullptr)
        return FALSE;
    if (!file->node->contents->Resize(file->position))
        return FailedFile(ERROR_DISK_FULL);
    file->node->Touched();
    return TRUE;
}

DOUBLE_API DWORD WINAPI GetFileType(HANDLE handle)
{
    const Entry entry;
    return FileOf(handle, 0) != nullptr ? FILE_TYPE_DISK : FILE_TYPE_UNKNOWN;
}

DOUBLE_API BOOL WINAPI GetFileSizeEx(HANDLE handle, PLARGE_INTEGER size)
{
    const Entry entry;
    const auto file = FileOf(handle, 0);
    if (file == nullptr)
        return FALSE;
    size->QuadPart = static_cast<LONGLONG>(file->node->contents != nullptr ? file->node->contents->size() : 0);
    return TRUE;
}

DOUBLE_API DWORD WINAPI GetFileSize(HANDLE handle, LPDWORD high)
{
    LARGE_INTEGER size = {};
    if (!GetFileSizeEx(handle, &size))
        return INVALID_FILE_SIZE;
    if (high != nullptr)
        *high = static_cast<DWORD>(size.QuadPart >> 32);
    if (static_cast<DWORD>(size.QuadPart) == INVALID_FILE_SIZE)
        Fail(0);
    return static_cast<DWORD>(size.QuadPart);
}

DOUBLE_API BOOL WINAPI FlushFileBuffers(HANDLE handle)
{
    const Entry entry;
    const auto file = FileOf(handle, 0);
    if (file == nullptr)
        return FALSE;
    if ((file->access & WRITES) == 0)
        return FailedFile(ERROR_ACCESS_DENIED);
    if (file->node->contents != nullptr)
        file->node->contents->Sync();
    return TRUE;
}

DOUBLE_API BOOL WINAPI DeviceIoControl(HANDLE handle, DWORD code, LPVOID input, DWORD inputLength, LPVOID, DWORD,
                                       LPDWORD returned, LPOVERLAPPED)
{
    const Entry entry;
    if (returned != nullptr)
        *returned = 0;
    const auto file = FileOf(handle, 0);
    if (file == nullptr)
        return FALSE;
    switch (code) {
    case FSCTL_SET_SPARSE:
        if ((file->access & WRITES) == 0)
            return FailedFile(ERROR_ACCESS_DENIED);
        file->node->attributes |= FILE_ATTRIBUTE_SPARSE_FILE;
        return TRUE;
    case FSCTL_SET_COMPRESSION: {
        USHORT format = 0;
        if (input == nullptr || inputLength < sizeof(format))
            return FailedFile(ERROR_INVALID_PARAMETER);
        std::memcpy(&format, input, sizeof(format));
        if (format == 0)
            file->node->attributes &= ~static_cast<DWORD>(FILE_ATTRIBUTE_COMPRESSED);
        else
            file->node->attributes |= FILE_ATTRIBUTE_COMPRESSED;
        return TRUE;
    }
    default:
        return FailedFile(ERROR_INVALID_FUNCTION);
    }
}

// --- By path.

DOUBLE_API DWORD WINAPI GetFileAttributesW(LPCWSTR path)
{
    const Entry entry;
    const Place place = Resolve(path);
    if (place.error != 0)
        return Failed(place.error, INVALID_FILE_ATTRIBUTES);
    if (place.node == nullptr)
        return Failed<DWORD>(ERROR_FILE_NOT_FOUND, INVALID_FILE_ATTRIBUTES);
    const DWORD attributes = place.node->attributes;
    return attributes != 0 ? attributes : static_cast<DWORD>(FILE_ATTRIBUTE_NORMAL);
}

DOUBLE_API BOOL WINAPI GetFileAttributesExW(LPCWSTR path, GET_FILEEX_INFO_LEVELS, LPVOID data)
{
    const Entry entry;
    const Place place = Resolve(path);
    if (place.error != 0)
        return FailedFile(place.error);
    if (place.node == nullptr)
        return FailedFile(ERROR_FILE_NOT_FOUND);
    const Node& node = *place.node;
    const std::uint64_t size = node.contents != nullptr ? node.contents->size() : 0;
    auto& information = *static_cast<WIN32_FILE_ATTRIBUTE_DATA*>(data);
    information.dwFileAttributes = node.attributes != 0 ? node.attributes : static_cast<DWORD>(FILE_ATTRIBUTE_NORMAL);
    information.ftCreationTime = ToFileTime(node.created);
    information.ftLastAccessTime = ToFileTime(node.written);
    information.ftLastWriteTime = ToFileTime(node.written);
    information.nFileSizeHigh = static_cast<DWORD>(size >> 32);
    information.nFileSizeLow = static_cast<DWORD>(size);
    return TRUE;
}

DOUBLE_API BOOL WINAPI GetFileInformationByHandle(HANDLE handle, LPBY_HANDLE_FILE_INFORMATION information)
{
    const Entry entry;
    const auto file = FileOf(handle, 0);
    if (file == nullptr)
        return FALSE;
    const Node& node = *file->node;
    const std::uint64_t size = node.contents != nullptr ? node.contents->size() : 0;
    *information = {};
    information->dwFileAttributes = node.attributes;
    information->ftCreationTime = ToFileTime(node.created);
    information->ftLastAccessTime = ToFileTime(node.written);
    information->ftLastWriteTime = ToFileTime(node.written);
    information->dwVolumeSerialNumber = 0xD0B1E;
    information->nFileSizeHigh = static_cast<DWORD>(size >> 32);
    information->nFileSizeLow = static_cast<DWORD>(size);
    information->nNumberOfLinks = 1;
    information->nFileIndexLow = static_cast<DWORD>(node.serial);
    return TRUE;
}

DOUBLE_API BOOL WINAPI SetFileAttributesW(LPCWSTR path, DWORD attributes)
{
    const Entry entry;
    const Place place = Resolve(path);
    if (place.error != 0)
        return FailedFile(place.error);
    if (place.node == nullptr)
        return FailedFile(ERROR_FILE_NOT_FOUND);
    if (!place.node->security.Grants(FILE_WRITE_ATTRIBUTES))
        return FailedFile(ERROR_ACCESS_DENIED);
    const DWORD fixed = place.node->attributes & ~KEPT_ATTRIBUTES;
    place.node->attributes = fixed | (attributes & KEPT_ATTRIBUTES);
    return TRUE;
}

DOUBLE_API BOOL WINAPI DeleteFileW(LPCWSTR path)
{
    const Entry entry;
    const Place place = Resolve(path);
    if (place.error != 0)
        return FailedFile(place.error);
    if (place.node == nullptr)
        return FailedFile(ERROR_FILE_NOT_FOUND);
    Node& node = *place.node;
    if (node.IsFolder() || node.deletePending || (node.attributes & FILE_ATTRIBUTE_READONLY) != 0 ||
        !node.security.Grants(DELETE))
        return FailedFile(ERROR_ACCESS_DENIED);
    if (!SharingAllows(node, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE))
        return FailedFile(ERROR_SHARING_VIOLATION);
    if (node.opens.empty())
        node.Remove();
    else
        node.deletePending = true;
    return TRUE;
}

DOUBLE_API BOOL WINAPI CreateDirectoryW(LPCWSTR path, LPSECURITY_ATTRIBUTES attributes)
{
    const Entry entry;
    const Place place = Resolve(path, true);
    if (place.error != 0)
        return FailedFile(place.error);
    if (place.node != nullptr)
        return FailedFile(place.folder == nullptr ? ERROR_ACCESS_DENIED : ERROR_ALREADY_EXISTS);
    if (!place.folder->security.Grants(FILE_ADD_SUBDIRECTORY))
        return FailedFile(ERROR_ACCESS_DENIED);
    const auto made = std::make_shared<Node>(place.name, true);
    made->security = SecurityOf(attributes);
    place.folder->Add(made);
    return TRUE;
}

DOUBLE_API BOOL WINAPI RemoveDirectoryW(LPCWSTR path)
{
    const Entry entry;
    const Place place = Resolve(path);
    if (place.error != 0)
        return FailedFile(place.error);
    if (place.node == nullptr)
        return FailedFile(ERROR_FILE_NOT_FOUND);
    Node& node = *place.node;
    if (!node.IsFolder())
        return FailedFile(ERROR_DIRECTORY);
    if (!node.children.empty())
        return FailedFile(ERROR_DIR_NOT_EMPTY);
    if ((node.attributes & FILE_ATTRIBUTE_READONLY) != 0 || node.parent == nullptr)
        return FailedFile(ERROR_ACCESS_DENIED);
    if (!SharingAllows(node, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE))
        return FailedFile(ERROR_SHARING_VIOLATION);
    if (node.opens.empty())
        node.Remove();
    else
        node.deletePending = true;
    return TRUE;
}

DOUBLE_API BOOL WINAPI MoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags)
{
    const Entry entry;
    const Place source = Resolve(from);
    if (source.error != 0)
        return FailedFile(source.error);
    if (source.node == nullptr)
        return FailedFile(ERROR_FILE_NOT_FOUND);
    const Place target = Resolve(to);
    if (target.error != 0)
        return FailedFile(target.error);
    const std::shared_ptr<Node> moved = source.node;
    if (!SharingAllows(*moved, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE))
        return FailedFile(ERROR_SHARING_VIOLATION);
    if (target.node != nullptr && target.node != moved) {
        if ((flags & MOVEFILE_REPLACE_EXISTING) == 0)
            return FailedFile(ERROR_ALREADY_EXISTS);
        if (target.node->IsFolder() || (target.node->attributes & FILE_ATTRIBUTE_READONLY) != 0 ||
            !target.node->opens.empty())
            return FailedFile(ERROR_ACCESS_DENIED);
        target.node->Remove();
    }
    moved->Remove();
    moved->name = target.name;
    target.folder->Add(moved);
    return TRUE;
}

DOUBLE_API BOOL WINAPI MoveFileW(LPCWSTR from, LPCWSTR to)
{
    return MoveFileExW(from, to, MOVEFILE_COPY_ALLOWED);
}

DOUBLE_API BOOL WINAPI CopyFileW(LPCWSTR from, LPCWSTR to, BOOL failIfExists)
{
    const Entry entry;
    const Place source = Resolve(from);
    if (source.error != 0)
        return FailedFile(source.error);
    if (source.node == nullptr)
        return FailedFile(ERROR_FILE_NOT_FOUND);
    const Place target = Resolve(to);
    if (target.error != 0)
        return FailedFile(target.error);
    if (source.node->IsFolder())
        return FailedFile(ERROR_ACCESS_DENIED);
    if (!SharingAllows(*source.node, FILE_READ_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE))
        return FailedFile(ERROR_SHARING_VIOLATION);
    std::shared_ptr<Node> copy = target.node;
    if (copy != nullptr) {
        if (failIfExists)
            return FailedFile(ERROR_FILE_EXISTS);
        const DWORD refused = MayOpen(*copy, FILE_WRITE_DATA, FILE_SHARE_READ, OPEN_EXISTING, 0);
        if (refused != 0)
            return FailedFile(refused);
        copy->contents->Resize(0);
    } else {
        copy = std::make_shared<Node>(target.name, false);
        target.folder->Add(copy);
    }
    std::vector<unsigned char> buffer(1u << 16);
    std::uint64_t offset = 0;
    while (const std::size_t got = source.node->contents->Read(offset, buffer.data(), buffer.size())) {
        copy->contents->Write(offset, buffer.data(), got);
        offset += got;
    }
    copy->attributes = source.node->attributes;
    copy->written = source.node->written;
    return TRUE;
}

// --- Searches.

namespace {

bool Matches(TextView pattern, TextView name)
{
    if (pattern.empty())
        return name.empty();
    if (pattern.front() == L'*') {
        for (std::size_t skip = 0; skip <= name.size(); ++skip) {
            if (Matches(pattern.substr(1), name.substr(skip)))
                return true;
        }
        return false;
    }
    if (name.empty())
        return false;
    return (pattern.front() == L'?' || Upper(pattern.front()) == Upper(name.front())) &&
           Matches(pattern.substr(1), name.substr(1));
}

WIN32_FIND_DATAW Describe(const Node& node, const Text& name)
{
    WIN32_FIND_DATAW data = {};
    const std::uint64_t size = node.contents != nullptr ? node.contents->size() : 0;
    data.dwFileAttributes = node.attributes != 0 ? node.attributes : static_cast<DWORD>(FILE_ATTRIBUTE_NORMAL);
    data.ftCreationTime = ToFileTime(node.created);
    data.ftLastAccessTime = ToFileTime(node.written);
    data.ftLastWriteTime = ToFileTime(node.written);
    data.nFileSizeHigh = static_cast<DWORD>(size >> 32);
    data.nFileSizeLow = static_cast<DWORD>(size);
    std::copy(name.begin(), name.end(), data.cFileName);
    return data;
}

std::vector<WIN32_FIND_DATAW> FindAll(const Node& folder, const Text& pattern)
{
    std::vector<WIN32_FIND_DATAW> found;
    // *.* is everything, dots or not.
    const Text wanted = pattern == L"*.*" ? L"*" : pattern;
    if (folder.parent != nullptr) {
        for (const wchar_t* dots : {L".", L".."}) {
            if (Matches(wanted, dots))
                found.push_back(Describe(folder, dots));
        }
    }
    for (const auto& [upper, child] : folder.children) {
        if (Matches(wanted, child->name))
            found.push_back(Describe(*child, child->name));
    }
    return found;
}

} // namespace

DOUBLE_API HANDLE WINAPI FindFirstFileExW(LPCWSTR path, FINDEX_INFO_LEVELS, LPVOID data, FINDEX_SEARCH_OPS, LPVOID,
                                          DWORD)
{
    const Entry entry;
    const Text text = path != nullptr ? path : L"";
    const std::size_t slash = text.find_last_of(L"\\/");
    const Text pattern = slash == Text::npos ? text : text.substr(slash + 1);
    const Text folder = slash == Text::npos ? L"." : text.substr(0, slash + 1);
    if (pattern.empty())
        return Failed(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE);
    const Place place = Resolve(folder.c_str());
    if (place.error != 0 || place.node == nullptr)
        return Failed<HANDLE>(place.error != 0 ? place.error : static_cast<DWORD>(ERROR_PATH_NOT_FOUND),
                              INVALID_HANDLE_VALUE);
    if (!place.node->IsFolder())
        return Failed(ERROR_DIRECTORY, INVALID_HANDLE_VALUE);
    if (!place.node->security.Grants(FILE_LIST_DIRECTORY))
        return Failed(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
    auto search = std::make_shared<FileSearch>();
    search->found = FindAll(*place.node, pattern);
    if (search->found.empty())
        return Failed(ERROR_FILE_NOT_FOUND, INVALID_HANDLE_VALUE);
    *static_cast<WIN32_FIND_DATAW*>(data) = search->found[0];
    search->next = 1;
    search->name = text;
    return CurrentProcess().Open(search, 0);
}

DOUBLE_API HANDLE WINAPI FindFirstFileW(LPCWSTR path, LPWIN32_FIND_DATAW data)
{
    return FindFirstFileExW(path, FindExInfoStandard, data, FindExSearchNameMatch, nullptr, 0);
}

DOUBLE_API BOOL WINAPI FindNextFileW(HANDLE handle, LPWIN32_FIND_DATAW data)
{
    const Entry entry;
    const auto search = CurrentProcess().Get<FileSearch>(handle);
    if (search == nullptr)
        return FALSE;
    if (search->next >= search->found.size())
        return FailedFile(ERROR_NO_MORE_FILES);
    *data = search->found[search->next++];
    return TRUE;
}

DOUBLE_API BOOL WINAPI FindClose(HANDLE handle)
{
    const Entry entry;
    return CurrentProcess().Get<FileSearch>(handle) != nullptr && CurrentProcess().Close(handle) ? TRUE : FALSE;
}

DOUBLE_API DWORD WINAPI GetFullPathNameW(LPCWSTR path, DWORD characters, LPWSTR buffer, LPWSTR* filePart)
{
    const Entry entry;
    if (path == nullptr || *path == L'\0')
        return Failed<DWORD>(ERROR_INVALID_NAME, 0);
    const Text full = FullPath(path);
    const auto length = static_cast<DWORD>(full.size());
    if (length >= characters)
        return length + 1;
    std::copy_n(full.c_str(), length + 1, buffer);
    if (filePart != nullptr) {
        const std::size_t slash = full.rfind(L'\\');
        *filePart = slash + 1 < full.size() ? buffer + slash + 1 : nullptr;
    }
    return length;
}

DOUBLE_API DWORD WINAPI GetTempPathW(DWORD characters, LPWSTR buffer)
{
    const Entry entry;
    constexpr TextView PATH = L"C:\\users\\tester\\Temp\\";
    if (characters <= PATH.size())
        return static_cast<DWORD>(PATH.size() + 1);
    *std::copy(PATH.begin(), PATH.end(), buffer) = L'\0';
    return static_cast<DWORD>(PATH.size());
}

DOUBLE_API DWORD WINAPI GetCurrentDirectoryW(DWORD characters, LPWSTR buffer)
{
    const Entry entry;
    const Text& directory = CurrentProcess().directory;
    const auto length = static_cast<DWORD>(directory.size());
    if (length >= characters)
        return length + 1;
    std::copy_n(directory.c_str(), length + 1, buffer);
    return length;
}

DOUBLE_API BOOL WINAPI GetDiskFreeSpaceExW(LPCWSTR, PULARGE_INTEGER available, PULARGE_INTEGER total,
                                           PULARGE_INTEGER free)
{
    const Entry entry;
    constexpr ULONGLONG DISK_BYTES = 1ull << 40;
    for (PULARGE_INTEGER number : {available, total, free}) {
        if (number != nullptr)
            number->QuadPart = DISK_BYTES;
    }
    return TRUE;
}

// --- Volumes: the system's own one. Others come from the simulated machine.

namespace {

constexpr TextView SYSTEM_VOLUME = L"\\\\?\\Volume{00000000-d0b1-11f0-8000-000000000001}\\";

class VolumeSearch final : public Object {
public:
    const char* kind() const noexcept override { return "volume search"; }
};

} // namespace

DOUBLE_API HANDLE WINAPI FindFirstVolumeW(LPWSTR name, DWORD characters)
{
    const Entry entry;
    if (characters <= SYSTEM_VOLUME.size())
        return Failed(ERROR_FILENAME_EXCED_RANGE, INVALID_HANDLE_VALUE);
    *std::copy(SYSTEM_VOLUME.begin(), SYSTEM_VOLUME.end(), name) = L'\0';
    return CurrentProcess().Open(std::make_shared<VolumeSearch>(), 0);
}

DOUBLE_API BOOL WINAPI FindNextVolumeW(HANDLE handle, LPWSTR, DWORD)
{
    const Entry entry;
    if (CurrentProcess().Get<VolumeSearch>(handle) == nullptr)
        return FALSE;
    return FailedFile(ERROR_NO_MORE_FILES);
}

DOUBLE_API BOOL WINAPI FindVolumeClose(HANDLE handle)
{
    const Entry entry;
    return CurrentProcess().Get<VolumeSearch>(handle) != nullptr && CurrentProcess().Close(handle) ? TRUE : FALSE;
}

DOUBLE_API UINT WINAPI GetDriveTypeW(LPCWSTR root)
{
    const Entry entry;
    if (root == nullptr || EqualNoCase(root, SYSTEM_VOLUME))
        return DRIVE_FIXED;
    const Place place = Resolve(root);
    return place.error == 0 && place.node == RootFolder() && place.endsInBackslash ? DRIVE_FIXED : DRIVE_NO_ROOT_DIR;
}

DOUBLE_API BOOL WINAPI GetVolumePathNamesForVolumeNameW(LPCWSTR name, LPWSTR paths, DWORD characters, PDWORD needed)
{
    const Entry entry;
    if (!EqualNoCase(name, SYSTEM_VOLUME))
        return FailedFile(ERROR_FILE_NOT_FOUND);
    constexpr TextView PATHS(L"C:\\\0", 5);
    if (needed != nullptr)
        *needed = static_cast<DWORD>(PATHS.size());
    if (characters < PATHS.size())
        return FailedFile(ERROR_MORE_DATA);
    std::copy(PATHS.begin(), PATHS.end(), paths);
    return TRUE;
}

DOUBLE_API BOOL WINAPI GetVolumeNameForVolumeMountPointW(LPCWSTR mount, LPWSTR name, DWORD characters)
{
    const Entry entry;
    if (!EqualNoCase(mount, L"C:\\"))
        return FailedFile(ERROR_NOT_A_REPARSE_POINT);
    if (characters <= SYSTEM_VOLUME.size())
        return FailedFile(ERROR_FILENAME_EXCED_RANGE);
    *std::copy(SYSTEM_VOLUME.begin(), SYSTEM_VOLUME.end(), name) = L'\0';
    return TRUE;
}
