// Diagnostic dumps: raw copies of the bitmaps that cross the library's boundary, beside the bitmap files.
#include "bitmap/manager.h"

#include "log/guarded.h"
#include "log/log.h"
#include "log/message_text.h"
#include "registry/value.h"
#include "win/owners.h"

#include <utility>

namespace vtflt {

namespace {

constexpr wchar_t SETTINGS_KEY[] = L"SOFTWARE\\Veltrix\\Shared\\CBTDriver";
constexpr wchar_t DUMP_SWITCH[] = L"DumpBitmap";
constexpr std::size_t DUMP_NAME_CAPACITY = 260;

constexpr wchar_t DRIVER_BITMAP_NAME[] = L"\\\\?\\%s\\%s\\DriverBitmap-%s-%.4u%.2u%.2u-%.2u%.2u%.2u-%.3u.dat";
constexpr wchar_t BITMAP_TO_APPLICATION_NAME[] =
    L"\\\\?\\%s\\%s\\DriverBitmap2App-%s-%.4u%.2u%.2u-%.2u%.2u%.2u-%.3u.dat";
constexpr wchar_t SNAPSHOT_CHANGES_NAME[] = L"\\\\?\\%s\\%s\\AppSnapChanges-%s-%.4u%.2u%.2u-%.2u%.2u%.2u-%.3u.dat";

HANDLE CreateDump(const std::wstring& fileName, DWORD attributes)
{
    // The caller looks at the last error of a success too, so none may be left from before.
    SetLastError(ERROR_SUCCESS);
    return CreateFileW(fileName.c_str(), GENERIC_WRITE, FILE_SHARE_WRITE, nullptr, CREATE_ALWAYS, attributes, nullptr);
}

// Creates the file, and the bitmap folder first when that is what is missing.
DWORD OpenDump(const std::wstring& fileName, const std::wstring& volumeName, UniqueHandle& file)
{
    file.reset(CreateDump(fileName, BITMAP_FILE_ATTRIBUTES));
    const DWORD createError = GetLastError();
    if (file.valid() && createError != ERROR_PATH_NOT_FOUND)
        return ERROR_SUCCESS;
    file.reset();

    const std::wstring folder = BitmapFolderPath(volumeName);
    if (!CreateDirectoryW(folder.c_str(), nullptr)) {
        const DWORD error = GetLastError();
        Log(LOG_ERROR, error, L"CMultiBitmapManager::DumpBitMapToFile::Failed to created bitmaps directory %d", error);
        return error;
    }
    SetFileAttributesW(folder.c_str(), BITMAP_FILE_ATTRIBUTES);

    // Only a dump that had to create the folder is an ordinary visible file.
    file.reset(CreateDump(fileName, FILE_ATTRIBUTE_NORMAL));
    if (file.valid())
        return ERROR_SUCCESS;
    const DWORD error = GetLastError();
    Log(LOG_ERROR, error, L"CMultiBitmapManager::DumpBitMapToFile::Create disk bitmap file failed, file name:%s",
        fileName.c_str());
    return error;
}

} // namespace

DWORD IsBitmapDumpEnabled()
{
    UniqueKey key;
    DWORD value = 0;
    if (OpenSettingsKey(SETTINGS_KEY, key) != ERROR_SUCCESS ||
        ReadDwordValue(key.get(), DUMP_SWITCH, value) != ERROR_SUCCESS)
        return 0;
    return value == 1 ? 1 : 0;
}

DWORD DumpBitMapToFile(std::wstring fileName, std::wstring volumeName, const void* buffer, DWORD byteCount)
{
    UniqueHandle file;
    DWORD error = OpenDump(fileName, volumeName, file);
    if (error != ERROR_SUCCESS)
        return error;

    DWORD written = 0;
    SetLastError(ERROR_SUCCESS);
    if (!WriteFile(file.get(), buffer, byteCount, &written, nullptr) || written != byteCount) {
        error = GetLastError();
        Log(LOG_ERROR, error, L"CMultiBitmapManager::DumpBitMapToFile::WriteFile disk bitmap failed.");
    }
    return error;
}

void CMultiBitmapManager::DumpDriverBitmap(const void* bytes, DWORD count)
{
    Dump(DRIVER_BITMAP_NAME, bytes, count);
}

void CMultiBitmapManager::DumpBitmapToApplication(const void* bytes, DWORD count)
{
    Dump(BITMAP_TO_APPLICATION_NAME, bytes, count);
}

void CMultiBitmapManager::DumpSnapshotChanges(const void* bytes, DWORD count)
{
    Dump(SNAPSHOT_CHANGES_NAME, bytes, count);
}

// A dump never changes the outcome of the operation that it belongs to, not even for want of memory.
void CMultiBitmapManager::Dump(const wchar_t* nameFormat, const void* bytes, DWORD count)
{
    if (IsBitmapDumpEnabled() == 0)
        return;
    Guarded(L"CMultiBitmapManager::DumpBitMapToFile", [&] {
        SYSTEMTIME now = {};
        GetLocalTime(&now);
        std::wstring name =
            FormatText(DUMP_NAME_CAPACITY, nameFormat, m_strVolume.c_str(), BITMAP_FOLDER, m_strAppId.c_str(),
                       now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
        return DumpBitMapToFile(std::move(name), m_strVolume, bytes, count);
    });
}

} // namespace vtflt
