// The file side of a bitmap container: read, write, delete.
#include "bitmap/container.h"

#include "apps/bitmap_maintenance.h"
#include "bitmap/result_codes.h"
#include "log/guarded.h"
#include "log/log.h"
#include "win/owners.h"

#include <utility>

namespace vtflt {

namespace {

bool IsMissing(DWORD error)
{
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

// Zero is no error: a failure that the system gave no reason for still has to be told from success.
DWORD OrGeneralFailure(DWORD error)
{
    return error != ERROR_SUCCESS ? error : BM_ERR_FAILED;
}

HANDLE CreateForWriting(const std::wstring& fileName)
{
    // The caller looks at the last error of a success too, so none may be left from before.
    SetLastError(ERROR_SUCCESS);
    return CreateFileW(fileName.c_str(), GENERIC_WRITE, FILE_SHARE_WRITE, nullptr, CREATE_ALWAYS,
                       BITMAP_FILE_ATTRIBUTES, nullptr);
}

bool WriteAll(HANDLE file, const void* bytes, DWORD count)
{
    DWORD written = 0;
    return WriteFile(file, bytes, count, &written, nullptr) && written == count;
}

// Writes a record and has it on the disk. The driver forgets changes once the bitmaps that hold them are written, so
// what a power failure could still take away is not written; and a file that it tore must not pass for a whole one, so
// the trailer follows when everything before it is safe.
bool WriteDurably(HANDLE file, BitmapRecord& record)
{
    record.WithholdTrailer();
    const bool bodyWritten = WriteAll(file, record.Bytes(), record.Size());
    record.RestoreTrailer();
    if (!bodyWritten || !FlushFileBuffers(file))
        return false;
    if (SetFilePointer(file, -static_cast<LONG>(RECORD_TRAILER_BYTES), nullptr, FILE_END) == INVALID_SET_FILE_POINTER)
        return false;
    return WriteAll(file, record.Trailer(), RECORD_TRAILER_BYTES) && FlushFileBuffers(file);
}

} // namespace

DWORD CBitmapContainer::ReadBitMapFromFile(DWORD whichBitmap)
{
    const std::wstring& fileName = FileName(whichBitmap);
    UniqueHandle file(CreateFileW(fileName.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.valid()) {
        const DWORD error = GetLastError();
        Log(LOG_ERROR, error, L"Open bitmap file failed, file name:%s", fileName.c_str());
        return IsMissing(error) ? BM_ERR_VERIFY_REQUIRED : OrGeneralFailure(error);
    }

    DWORD recordSize = 0;
    const DWORD result = ReadHeader(file.get(), fileName, recordSize);
    if (result != ERROR_SUCCESS)
        return result;
    return ReadRecord(file.get(), fileName, recordSize, whichBitmap);
}

// Looks at the file's first bytes, as many as the smallest record has, and leaves the file pointer at 0.
DWORD CBitmapContainer::ReadHeader(HANDLE file, const std::wstring& fileName, DWORD& recordSize)
{
    struct {
        BITMAP_FILE_RECORD header;
        std::uint8_t trailer[RECORD_TRAILER_BYTES];
    } head = {};
    static_assert(sizeof(head) == MINIMUM_RECORD_BYTES);

    DWORD bytesRead = 0;
    if (!ReadFile(file, &head, sizeof(head), &bytesRead, nullptr)) {
        const DWORD error = GetLastError();
        Log(LOG_ERROR, error, L"CBitmapContainer::ReadBitMapFromFile: Read bitmap file failed, file name:%s",
            fileName.c_str());
        return OrGeneralFailure(error);
    }
    if (bytesRead < sizeof(head) || !HasRecordSignature(head.header.Signature, sizeof(head.header.Signature))) {
        Log(LOG_ERROR, ERROR_SUCCESS, L"CBitmapContainer::ReadBitMapFromFile: Bitmap file corrupted, file name:%s",
            fileName.c_str());
        return BM_ERR_VERIFY_REQUIRED;
    }
    if (SetFilePointer(file, 0, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER) {
        const DWORD error = GetLastError();
        Log(LOG_ERROR, error, L"CBitmapContainer::ReadBitMapFromFile: SetFilePointer failed, file name: %s",
            fileName.c_str());
        return OrGeneralFailure(error);
    }
    recordSize = head.header.RecordSize;
    return ERROR_SUCCESS;
}

// Reads the record, as large as its header claims, and installs it when both its ends are right.
DWORD CBitmapContainer::ReadRecord(HANDLE file, const std::wstring& fileName, DWORD recordSize, DWORD whichBitmap)
{
    const auto readFailed = [&](DWORD lastError, DWORD bytesRead) {
        const DWORD error = OrGeneralFailure(lastError);
        Log(LOG_ERROR, error, L"CBitmapContainer::ReadBitMapFromFile: Read bitmap file failed, file name:%s",
            fileName.c_str());
        Log(LOG_ERROR, error, L"CBitmapContainer::ReadBitMapFromFile: Requested number of bytes: %u, Bytes read: %d",
            recordSize, bytesRead);
        return error;
    };

    // The size comes from the file, so it is held against the file before memory is asked for: a record that cannot be
    // read whole need not be read at all.
    LARGE_INTEGER fileSize = {};
    if (!GetFileSizeEx(file, &fileSize))
        return readFailed(GetLastError(), 0);
    if (fileSize.QuadPart < static_cast<LONGLONG>(recordSize))
        return readFailed(ERROR_SUCCESS, static_cast<DWORD>(fileSize.QuadPart));

    std::unique_ptr<BitmapRecord> record =
        m_pReserve != nullptr ? m_pReserve->Take(recordSize) : BitmapRecord::Allocate(recordSize);
    if (record == nullptr) {
        Log(LOG_ERROR, ERROR_NOT_ENOUGH_MEMORY, L"CBitmapContainer::ReadBitMapFromFile: pFileRecord is NULL !!");
        return ERROR_NOT_ENOUGH_MEMORY;
    }

    DWORD bytesRead = 0;
    // A short read leaves the last error as it was, and zero has a meaning below.
    SetLastError(ERROR_SUCCESS);
    if (!ReadFile(file, record->Bytes(), recordSize, &bytesRead, nullptr) || bytesRead != recordSize)
        return readFailed(GetLastError(), bytesRead);

    if (!record->IsValid()) {
        Log(LOG_ERROR, ERROR_SUCCESS, L"CBitmapContainer::ReadBitMapFromFile: Invalid bitmap file, file name:%s",
            fileName.c_str());
        return BM_ERR_VERIFY_REQUIRED;
    }
    ReleaseRecord(whichBitmap);
    Record(whichBitmap) = std::move(record);
    return ERROR_SUCCESS;
}

DWORD CBitmapContainer::WriteBitMapToFile(DWORD whichBitmap)
{
    BitmapRecord* const record = Record(whichBitmap).get();
    if (record == nullptr)
        return BM_ERR_FAILED;
    const std::wstring& fileName = FileName(whichBitmap);

    HANDLE created = nullptr;
    const DWORD result =
        Guarded(L"CBitmapContainer::WriteBitMapToFile", [&] { return CreateBitmapFile(fileName, created); });
    if (result != ERROR_SUCCESS)
        return result;
    const UniqueHandle file(created);

    if (SetFilePointer(file.get(), 0, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER) {
        const DWORD error = GetLastError();
        Log(LOG_ERROR, error,
            L"CBitmapContainer::WriteBitMapToFile::SetFilePointer disk bitmap failed. Bitmap file name: %s",
            fileName.c_str());
        return OrGeneralFailure(error);
    }

    // A write that is short without an error leaves this at zero, which is then the result.
    SetLastError(ERROR_SUCCESS);
    if (!WriteDurably(file.get(), *record)) {
        const DWORD error = GetLastError();
        Log(LOG_ERROR, error,
            L"CBitmapContainer::WriteBitMapToFile::WriteFile disk bitmap failed. Bitmap file name: %s",
            fileName.c_str());
        return error;
    }
    return ERROR_SUCCESS;
}

// Creates the file anew, and its folder first when that is what is missing.
DWORD CBitmapContainer::CreateBitmapFile(const std::wstring& fileName, HANDLE& file)
{
    UniqueHandle created(CreateForWriting(fileName));
    const DWORD createError = GetLastError();
    if (created.valid() && createError != ERROR_PATH_NOT_FOUND) {
        file = created.release();
        return ERROR_SUCCESS;
    }
    created.reset();

    const std::wstring folder = BitmapFolderPath(m_strVolume);
    if (!CreateDirectoryW(folder.c_str(), nullptr)) {
        const DWORD error = GetLastError();
        Log(LOG_ERROR, error, L"CBitmapContainer::WriteBitMapToFile::Failed to created bitmaps directory %s",
            folder.c_str());
        return OrGeneralFailure(error);
    }
    SetFileAttributesW(folder.c_str(), BITMAP_FILE_ATTRIBUTES);

    created.reset(CreateForWriting(fileName));
    if (!created.valid()) {
        const DWORD error = GetLastError();
        Log(LOG_ERROR, error, L"CBitmapContainer::WriteBitMapToFile::Create disk bitmap file failed, file name:%s",
            fileName.c_str());
        return OrGeneralFailure(error);
    }
    file = created.release();
    return ERROR_SUCCESS;
}

DWORD CBitmapContainer::RemoveAllBitmaps(std::wstring& volumeRoot)
{
    std::wstring folder = volumeRoot;
    if (folder.empty() || folder.back() != L'\\')
        folder += L'\\';
    folder += BITMAP_FOLDER;

    DWORD result = ERROR_SUCCESS;
    if (RemoveDirectoryTree(folder.c_str()) == 0) {
        result = OrGeneralFailure(GetLastError());
        Log(LOG_ERROR, result, L"CBitmapContainer::RemoveAllBitmaps::Failed to delete directory %s", folder.c_str());
    }
    volumeRoot.clear();
    return result;
}

DWORD CBitmapContainer::RemoveBitmaps()
{
    DWORD baseError = ERROR_SUCCESS;
    if (!DeleteFileW(m_strBaseFileName.c_str())) {
        baseError = GetLastError();
        Log(LOG_ERROR, baseError, L"CBitmapContainer::RemoveBitmaps::Failed to delete base bitmap %s",
            m_strBaseFileName.c_str());
    }

    DWORD childError = ERROR_SUCCESS;
    if (!DeleteFileW(m_strChildFileName.c_str())) {
        childError = GetLastError();
        // The base file's name stands in this message since its first version; support tools look for it so.
        Log(LOG_ERROR, childError, L"CBitmapContainer::RemoveBitmaps::Failed to delete child bitmap %s",
            m_strBaseFileName.c_str());
    }
    return baseError != ERROR_SUCCESS ? baseError : childError;
}

bool CBitmapContainer::IsFileGone(DWORD whichBitmap) const
{
    return GetFileAttributesW(FileName(whichBitmap).c_str()) == INVALID_FILE_ATTRIBUTES && IsMissing(GetLastError());
}

} // namespace vtflt
