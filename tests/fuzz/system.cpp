#include "fuzz/system.h"

#include "common/simulation.h"
#include "common/text.h"
#include "fuzz/fuzz.h"
#include "log/bounded_text.h"
#include "log/log.h"
#include "log/log_folder.h"
#include "log/own_module.h"
#include "log/probes.h"
#include "log/shared_objects.h"
#include "log/text_compare.h"
#include "log/trace.h"

#include <algorithm>
#include <cstring>

namespace fuzz {

namespace {

struct OpenFile {
    std::wstring path;
    std::size_t position = 0;
};

System g_system;
void* g_sharedBlock = nullptr;
std::size_t g_nextVolume = 0;

constexpr std::uintptr_t MUTEX = 0x1000;
constexpr std::uintptr_t KEY = 0x2000;
constexpr std::uintptr_t SEARCH = 0x3000;
constexpr std::uintptr_t VOLUME_SEARCH = 0x4000;
constexpr std::uintptr_t EVENT = 0x5000;
constexpr std::uintptr_t MAPPING = 0x6000;

bool Fail(DWORD error)
{
    g_system.lastError = error;
    return false;
}

bool IsDue()
{
    const unsigned call = ++g_system.calls;
    if (g_system.failingCall == 0 || call < g_system.failingCall ||
        call - g_system.failingCall >= g_system.failingCalls)
        return false;
    ++g_system.failures;
    return true;
}

OpenFile* FileOf(HANDLE handle)
{
    return static_cast<OpenFile*>(handle);
}

bool IsFile(HANDLE handle)
{
    return reinterpret_cast<std::uintptr_t>(handle) > 0xFFFF;
}

HANDLE Numbered(std::uintptr_t number)
{
    ++g_system.openHandles;
    return reinterpret_cast<HANDLE>(number);
}

} // namespace

System& TheSystem()
{
    return g_system;
}

void SetSharedBlock(void* block)
{
    g_sharedBlock = block;
}

} // namespace fuzz

using fuzz::g_system;

extern "C" {

DWORD WINAPI GetLastError()
{
    return g_system.lastError;
}

void WINAPI SetLastError(DWORD error)
{
    g_system.lastError = error;
}

HANDLE WINAPI CreateFileW(LPCWSTR path, DWORD access, DWORD, LPSECURITY_ATTRIBUTES, DWORD disposition, DWORD, HANDLE)
{
    if (fuzz::IsDue()) {
        fuzz::Fail(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    const bool isNew = disposition == CREATE_ALWAYS;
    if (!isNew && g_system.files.count(path) == 0) {
        fuzz::Fail(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    if (isNew && (access & GENERIC_WRITE) != 0)
        g_system.files[path].clear();
    ++g_system.openHandles;
    return new fuzz::OpenFile{path};
}

BOOL WINAPI CloseHandle(HANDLE handle)
{
    --g_system.openHandles;
    if (fuzz::IsFile(handle))
        delete fuzz::FileOf(handle);
    return TRUE;
}

BOOL WINAPI ReadFile(HANDLE handle, LPVOID to, DWORD count, LPDWORD moved, LPOVERLAPPED)
{
    fuzz::OpenFile& file = *fuzz::FileOf(handle);
    *moved = 0;
    if (fuzz::IsDue())
        return fuzz::Fail(ERROR_CRC);
    const fuzz::FileBytes& bytes = g_system.files[file.path];
    const std::size_t at = std::min(file.position, bytes.size());
    *moved = static_cast<DWORD>(std::min<std::size_t>(count, bytes.size() - at));
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), *moved, static_cast<std::uint8_t*>(to));
    file.position = at + *moved;
    return TRUE;
}

BOOL WINAPI WriteFile(HANDLE handle, LPCVOID from, DWORD count, LPDWORD moved, LPOVERLAPPED)
{
    fuzz::OpenFile& file = *fuzz::FileOf(handle);
    *moved = 0;
    if (fuzz::IsDue())
        return fuzz::Fail(ERROR_DISK_FULL);
    fuzz::FileBytes& bytes = g_system.files[file.path];
    bytes.resize(std::max<std::size_t>(bytes.size(), file.position + count));
    std::copy_n(static_cast<const std::uint8_t*>(from), count,
                bytes.begin() + static_cast<std::ptrdiff_t>(file.position));
    file.position += count;
    *moved = count;
    return TRUE;
}

BOOL WINAPI FlushFileBuffers(HANDLE)
{
    return fuzz::IsDue() ? fuzz::Fail(ERROR_CRC) : TRUE;
}

DWORD WINAPI SetFilePointer(HANDLE handle, LONG distance, PLONG, DWORD method)
{
    fuzz::OpenFile& file = *fuzz::FileOf(handle);
    if (fuzz::IsDue()) {
        fuzz::Fail(ERROR_SEEK);
        return INVALID_SET_FILE_POINTER;
    }
    const auto base = method == FILE_END ? static_cast<std::int64_t>(g_system.files[file.path].size()) : 0;
    file.position = static_cast<std::size_t>(base + distance);
    return static_cast<DWORD>(file.position);
}

BOOL WINAPI GetFileSizeEx(HANDLE handle, PLARGE_INTEGER size)
{
    if (fuzz::IsDue())
        return fuzz::Fail(ERROR_CRC);
    size->QuadPart = static_cast<LONGLONG>(g_system.files[fuzz::FileOf(handle)->path].size());
    return TRUE;
}

BOOL WINAPI DeleteFileW(LPCWSTR path)
{
    if (fuzz::IsDue())
        return fuzz::Fail(ERROR_ACCESS_DENIED);
    return g_system.files.erase(path) != 0 ? TRUE : fuzz::Fail(ERROR_FILE_NOT_FOUND);
}

DWORD WINAPI GetFileAttributesW(LPCWSTR path)
{
    if (fuzz::IsDue()) {
        fuzz::Fail(ERROR_ACCESS_DENIED);
        return INVALID_FILE_ATTRIBUTES;
    }
    if (g_system.files.count(path) != 0)
        return FILE_ATTRIBUTE_NORMAL;
    fuzz::Fail(ERROR_FILE_NOT_FOUND);
    return INVALID_FILE_ATTRIBUTES;
}

BOOL WINAPI CopyFileW(LPCWSTR from, LPCWSTR to, BOOL failIfExists)
{
    if (fuzz::IsDue())
        return fuzz::Fail(ERROR_ACCESS_DENIED);
    if (g_system.files.count(from) == 0)
        return fuzz::Fail(ERROR_FILE_NOT_FOUND);
    if (failIfExists && g_system.files.count(to) != 0)
        return fuzz::Fail(ERROR_FILE_EXISTS);
    g_system.files[to] = fuzz::FileBytes(g_system.files[from]);
    return TRUE;
}

// Every path is whole.
DWORD WINAPI GetFullPathNameW(LPCWSTR path, DWORD capacity, LPWSTR full, LPWSTR*)
{
    const std::wstring_view text = path;
    if (text.size() >= capacity)
        return static_cast<DWORD>(text.size() + 1);
    full[text.copy(full, text.size())] = L'\0';
    return static_cast<DWORD>(text.size());
}

BOOL WINAPI CreateDirectoryW(LPCWSTR, LPSECURITY_ATTRIBUTES)
{
    return fuzz::Fail(ERROR_ALREADY_EXISTS);
}

BOOL WINAPI SetFileAttributesW(LPCWSTR, DWORD)
{
    return TRUE;
}

HANDLE WINAPI FindFirstFileW(LPCWSTR, LPWIN32_FIND_DATAW)
{
    fuzz::Fail(ERROR_PATH_NOT_FOUND);
    return INVALID_HANDLE_VALUE;
}

BOOL WINAPI FindNextFileW(HANDLE, LPWIN32_FIND_DATAW)
{
    return fuzz::Fail(ERROR_NO_MORE_FILES);
}

BOOL WINAPI FindClose(HANDLE)
{
    return TRUE;
}

BOOL WINAPI RemoveDirectoryW(LPCWSTR)
{
    return TRUE;
}

HANDLE WINAPI FindFirstVolumeW(LPWSTR name, DWORD capacity)
{
    fuzz::g_nextVolume = 0;
    return FindNextVolumeW(nullptr, name, capacity) ? reinterpret_cast<HANDLE>(fuzz::VOLUME_SEARCH)
                                                    : INVALID_HANDLE_VALUE;
}

BOOL WINAPI FindNextVolumeW(HANDLE, LPWSTR name, DWORD)
{
    if (fuzz::g_nextVolume >= g_system.volumes.size())
        return fuzz::Fail(ERROR_NO_MORE_FILES);
    const std::wstring& path = g_system.volumes[fuzz::g_nextVolume++];
    name[path.copy(name, path.size())] = L'\0';
    return TRUE;
}

BOOL WINAPI FindVolumeClose(HANDLE)
{
    return TRUE;
}

UINT WINAPI GetDriveTypeW(LPCWSTR)
{
    return DRIVE_FIXED;
}

BOOL WINAPI GetVolumePathNamesForVolumeNameW(LPCWSTR, LPWSTR, DWORD, PDWORD)
{
    return fuzz::Fail(ERROR_INVALID_NAME);
}

BOOL WINAPI DeviceIoControl(HANDLE, DWORD code, LPVOID input, DWORD inputLength, LPVOID output, DWORD outputLength,
                            LPDWORD returned, LPOVERLAPPED)
{
    *returned = 0;
    if (g_system.driver == nullptr)
        return fuzz::Fail(ERROR_INVALID_FUNCTION);
    fuzz::Request request = {code,         static_cast<const std::uint8_t*>(input),
                             inputLength,  static_cast<std::uint8_t*>(output),
                             outputLength, 0};
    const DWORD error = g_system.driver(request, g_system.context);
    *returned = request.returned;
    return error == ERROR_SUCCESS ? TRUE : fuzz::Fail(error);
}

HANDLE WINAPI CreateMutexW(LPSECURITY_ATTRIBUTES, BOOL, LPCWSTR)
{
    if (fuzz::IsDue()) {
        fuzz::Fail(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return fuzz::Numbered(fuzz::MUTEX);
}

HANDLE WINAPI OpenMutexW(DWORD, BOOL, LPCWSTR)
{
    return fuzz::Numbered(fuzz::MUTEX);
}

HANDLE WINAPI OpenEventW(DWORD, BOOL, LPCWSTR)
{
    return fuzz::Numbered(fuzz::EVENT);
}

BOOL WINAPI SetEvent(HANDLE)
{
    return TRUE;
}

DWORD WINAPI WaitForSingleObject(HANDLE, DWORD)
{
    ++g_system.heldMutexes;
    return WAIT_OBJECT_0;
}

BOOL WINAPI ReleaseMutex(HANDLE)
{
    --g_system.heldMutexes;
    return TRUE;
}

void WINAPI AcquireSRWLockExclusive(PSRWLOCK) {}

void WINAPI ReleaseSRWLockExclusive(PSRWLOCK) {}

DWORD WINAPI GetCurrentProcessId()
{
    return 1000;
}

DWORD WINAPI GetCurrentThreadId()
{
    return 2000;
}

void WINAPI GetLocalTime(LPSYSTEMTIME time)
{
    *time = {2026, 11, 6, 21, 4, 3, 47, 123};
}

BOOL WINAPI UnmapViewOfFile(LPCVOID)
{
    return TRUE;
}

// No services: whether the driver's is there cannot be told.
SC_HANDLE WINAPI OpenSCManagerW(LPCWSTR, LPCWSTR, DWORD)
{
    fuzz::Fail(ERROR_ACCESS_DENIED);
    return nullptr;
}

SC_HANDLE WINAPI OpenServiceW(SC_HANDLE, LPCWSTR, DWORD)
{
    return nullptr;
}

BOOL WINAPI CloseServiceHandle(SC_HANDLE)
{
    return TRUE;
}

DWORD WINAPI CharLowerBuffW(LPWSTR text, DWORD count)
{
    for (DWORD i = 0; i < count; ++i)
        text[i] = text[i] >= L'A' && text[i] <= L'Z' ? static_cast<wchar_t>(text[i] - L'A' + L'a') : text[i];
    return count;
}

INT WINAPI FindStringOrdinal(DWORD, LPCWSTR text, INT length, LPCWSTR part, INT partLength, BOOL)
{
    const std::wstring_view whole(text, static_cast<std::size_t>(length));
    const std::size_t at = whole.find(std::wstring_view(part, static_cast<std::size_t>(partLength)));
    return at == std::wstring_view::npos ? -1 : static_cast<INT>(at);
}

INT WINAPI LCMapStringEx(LPCWSTR, DWORD, LPCWSTR text, INT length, LPWSTR target, INT capacity, LPNLSVERSIONINFO,
                         LPVOID, LPARAM)
{
    const INT count = std::min(length, capacity);
    for (INT i = 0; i < count; ++i)
        target[i] = text[i] >= L'a' && text[i] <= L'z' ? static_cast<wchar_t>(text[i] - L'a' + L'A') : text[i];
    return count;
}

LSTATUS WINAPI RegCreateKeyExW(HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM, LPSECURITY_ATTRIBUTES, PHKEY key, LPDWORD)
{
    if (fuzz::IsDue())
        return ERROR_ACCESS_DENIED;
    *key = static_cast<HKEY>(fuzz::Numbered(fuzz::KEY));
    return ERROR_SUCCESS;
}

LSTATUS WINAPI RegOpenKeyExW(HKEY, LPCWSTR, DWORD, REGSAM, PHKEY key)
{
    return RegCreateKeyExW(nullptr, nullptr, 0, nullptr, 0, 0, nullptr, key, nullptr);
}

LSTATUS WINAPI RegCreateKeyW(HKEY root, LPCWSTR subkey, PHKEY key)
{
    return RegCreateKeyExW(root, subkey, 0, nullptr, 0, 0, nullptr, key, nullptr);
}

LSTATUS WINAPI RegCloseKey(HKEY)
{
    --g_system.openHandles;
    return ERROR_SUCCESS;
}

LSTATUS WINAPI RegQueryValueExW(HKEY, LPCWSTR name, LPDWORD, LPDWORD type, LPBYTE data, LPDWORD size)
{
    if (fuzz::IsDue())
        return ERROR_ACCESS_DENIED;
    const auto found = g_system.values.find(name);
    if (found == g_system.values.end())
        return ERROR_FILE_NOT_FOUND;
    const fuzz::FileBytes& bytes = found->second.bytes;
    if (type != nullptr)
        *type = found->second.type;
    const DWORD room = data != nullptr ? *size : 0;
    *size = static_cast<DWORD>(bytes.size());
    if (data == nullptr)
        return ERROR_SUCCESS;
    if (room < bytes.size())
        return ERROR_MORE_DATA;
    std::copy(bytes.begin(), bytes.end(), data);
    return ERROR_SUCCESS;
}

LSTATUS WINAPI RegSetValueExW(HKEY, LPCWSTR name, DWORD, DWORD type, const BYTE* data, DWORD size)
{
    if (fuzz::IsDue())
        return ERROR_ACCESS_DENIED;
    g_system.values[name] = {type, fuzz::FileBytes(data, data + size)};
    return ERROR_SUCCESS;
}

LSTATUS WINAPI RegDeleteValueW(HKEY, LPCWSTR name)
{
    if (fuzz::IsDue())
        return ERROR_ACCESS_DENIED;
    return g_system.values.erase(name) != 0 ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
}

} // extern "C"

// What stands around the parts of the log: one block, one module, no records.
namespace vtflt {

void Log(int, DWORD, const wchar_t*, ...) noexcept {}

void Trace(const wchar_t*, ...) noexcept {}

OpenToEveryone::OpenToEveryone() noexcept = default;

MutexHold::MutexHold(HANDLE mutex, DWORD) noexcept : m_owned(mutex)
{
    ++g_system.heldMutexes;
}

void MutexHold::Release() noexcept
{
    if (m_owned != nullptr)
        --g_system.heldMutexes;
    m_owned = nullptr;
}

UniqueHandle CreateSharedMapping(const MappingNames&, std::size_t, bool& existed) noexcept
{
    existed = true;
    return UniqueHandle(fuzz::Numbered(fuzz::MAPPING));
}

UniqueHandle OpenSharedMapping(const MappingNames&) noexcept
{
    return UniqueHandle(fuzz::Numbered(fuzz::MAPPING));
}

UniqueView MapShared(HANDLE, std::size_t) noexcept
{
    return UniqueView(fuzz::g_sharedBlock);
}

bool EqualIgnoringCase(std::wstring_view a, std::wstring_view b) noexcept
{
    return toolkit::EqualIgnoringCase(a, b);
}

std::wstring_view ModulePath::Name() const noexcept
{
    return L"Own.dll";
}

const ModulePath& OwnModule() noexcept
{
    static const ModulePath module = {};
    return module;
}

DWORD ComponentsPresent() noexcept
{
    return COMPONENT_NONE;
}

void ResolveLogFolder(DWORD, wchar_t (&folder)[LOG_PATH_CAPACITY]) noexcept
{
    CopyText(folder, L"C:\\Logs\\");
}

LogRecordTime GetLocalRecordTime() noexcept
{
    return {2026, 11, 6, 21, 4, 3, 47, 123};
}

} // namespace vtflt

namespace toolkit {

bool EqualIgnoringCase(std::wstring_view a, std::wstring_view b)
{
    const auto lower = [](wchar_t c) { return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [&](wchar_t left, wchar_t right) { return lower(left) == lower(right); });
}

bool EndsWithIgnoringCase(std::wstring_view text, std::wstring_view tail)
{
    return text.size() >= tail.size() && EqualIgnoringCase(text.substr(text.size() - tail.size()), tail);
}

bool IsUnshowable(wchar_t c) noexcept
{
    return c < 0x20 || (c >= 0x7F && c < 0xA0);
}

std::string Shown(std::wstring_view text)
{
    std::wstring shown(text);
    std::replace_if(shown.begin(), shown.end(), IsUnshowable, L'\xFFFD');
    return ToUtf8(shown);
}

std::string SystemMessage(std::uint32_t)
{
    return {};
}

std::string ErrorText(std::uint32_t code)
{
    return "error " + std::to_string(code);
}

std::wstring SimulatedFolder(const std::wstring& option)
{
    return option;
}

// One byte for one character is enough here: nothing depends on what text means.
std::string ToUtf8(std::wstring_view text)
{
    std::string bytes;
    for (const wchar_t character : text)
        bytes.push_back(character < 0x80 ? static_cast<char>(character) : '?');
    return bytes;
}

std::wstring ToWide(std::string_view text)
{
    std::wstring characters;
    for (const char byte : text)
        characters.push_back(static_cast<unsigned char>(byte) < 0x80 ? static_cast<wchar_t>(byte) : L'?');
    return characters;
}

} // namespace toolkit
