#include "bitmap/container.h"

#include "apps/resync_lists.h"
#include "apps/volume_name.h"
#include "bitmap/result_codes.h"
#include "driver/request.h"
#include "log/guarded.h"
#include "log/log.h"
#include "log/message_text.h"

#include <utility>

namespace vtflt {

namespace {

// File names are formatted into buffers of this many characters, as the system's own path limit has it.
constexpr std::size_t FILE_NAME_CAPACITY = 260;

std::wstring BitmapFileName(const std::wstring& volumeName, const wchar_t* stem, const std::wstring& appId)
{
    return FormatText(FILE_NAME_CAPACITY, L"\\\\?\\%s\\%s_%s.dat", volumeName.c_str(), stem, appId.c_str());
}

} // namespace

std::wstring BitmapFolderPath(const std::wstring& volumeName)
{
    return FormatText(FILE_NAME_CAPACITY, L"\\\\?\\%s\\%s", volumeName.c_str(), BITMAP_FOLDER);
}

DWORD CBitmapContainer::init(const std::wstring& volumeName, const std::wstring& appId)
{
    m_strVolume = volumeName;
    m_strAppId = appId;
    m_strBaseFileName = BitmapFileName(m_strVolume, L"VelVolTrc\\VelVolTrc_base", m_strAppId);
    m_strChildFileName = BitmapFileName(m_strVolume, L"VelVolTrc\\VelVolTrc_child", m_strAppId);
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"CBitmapContainer::init:: Basebitmap Name is %s", m_strBaseFileName.c_str());
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"CBitmapContainer::initChild bitmap Name is %s", m_strChildFileName.c_str());
    m_pBaseBitmap.reset();
    m_pChildBitmap.reset();
    return ERROR_SUCCESS;
}

std::unique_ptr<BitmapRecord>& CBitmapContainer::Record(DWORD whichBitmap)
{
    return whichBitmap != CHILD_BITMAP ? m_pBaseBitmap : m_pChildBitmap;
}

void CBitmapContainer::ReleaseRecord(DWORD whichBitmap)
{
    std::unique_ptr<BitmapRecord> record = std::move(Record(whichBitmap));
    if (m_pReserve != nullptr)
        m_pReserve->Keep(std::move(record));
}

const std::wstring& CBitmapContainer::FileName(DWORD whichBitmap) const
{
    return whichBitmap != CHILD_BITMAP ? m_strBaseFileName : m_strChildFileName;
}

DWORD CBitmapContainer::ResetBitMapFiles(DWORD whichBitmap, DWORD* cause)
{
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"CBitmapContainer::ResetBitMapFilesResetting bitmap file %s",
        FileName(whichBitmap).c_str());

    // Without a fresh record none may stay: bits of another geometry or of a lost file must not be merged on.
    Record(whichBitmap).reset();
    DWORD result = MakeFreshRecord(whichBitmap);
    if (result == ERROR_SUCCESS)
        result = WriteBitMapToFile(whichBitmap);

    if (cause != nullptr)
        *cause = result;
    if (result == ERROR_SUCCESS)
        return ERROR_SUCCESS;
    return AddVolumeToResyncList() == ERROR_SUCCESS ? BM_ERR_VERIFY_REQUIRED : result;
}

DWORD CBitmapContainer::MakeFreshRecord(DWORD whichBitmap)
{
    LONGLONG length = 0;
    DWORD error = QueryVolumeLength(m_hVolume, length);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"CBitmapContainer::ResetBitMapFiles::IOCTL_DISK_GET_LENGTH_INFO failed, mserr=%u.",
            error);
        return error;
    }

    DWORD blockSize = 0;
    error = QueryBlockSize(m_hVolume, blockSize);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"CBitmapContainer::ResetBitMapFiles::VTFLTCTL_GET_BLOCK_SIZE failed, mserr=%u.", error);
        return error;
    }

    std::unique_ptr<BitmapRecord> record =
        BitmapRecord::Make(blockSize, BitmapBytesForVolume(length, blockSize) + FRESH_BITMAP_EXTRA_BYTES);
    if (record == nullptr)
        return LogOutOfMemory(L"CBitmapContainer::ResetBitMapFiles");
    Record(whichBitmap) = std::move(record);
    return ERROR_SUCCESS;
}

DWORD CBitmapContainer::RegenerateBitmapForNewVolSize(DWORD newBitmapLength, DWORD whichBitmap)
{
    std::unique_ptr<BitmapRecord>& record = Record(whichBitmap);
    if (record == nullptr)
        return BM_ERR_FAILED;
    // A record that holds less than its header claims is rebuilt even at the right length: merging into it would
    // drop changes behind its end.
    if (record->BitmapLength() == newBitmapLength && record->HoldsItsBitmap())
        return ERROR_SUCCESS;

    // Two records are needed now: none is kept beside them.
    if (m_pReserve != nullptr)
        m_pReserve->Drop();
    std::unique_ptr<BitmapRecord> resized = record->Resized(newBitmapLength);
    if (resized == nullptr)
        return ERROR_NOT_ENOUGH_MEMORY;
    record = std::move(resized);
    return WriteBitMapToFile(whichBitmap);
}

DWORD CBitmapContainer::RemapOldBitmapToNewBlockSize(DWORD whichBitmap)
{
    LONGLONG length = 0;
    if (QueryVolumeLength(m_hVolume, length) != ERROR_SUCCESS)
        return BM_ERR_FAILED;

    DWORD blockSize = 0;
    const DWORD error = QueryBlockSize(m_hVolume, blockSize);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error,
            L"CBitmapContainer::RemapOldBitmapToNewBlockSize::VTFLTCTL_GET_BLOCK_SIZE failed, mserr=%u.", error);
        return BM_ERR_FAILED;
    }

    // Changes recorded in the old block size are not carried over: whoever changes the block size of a volume also has
    // it verified. So the old bits need not be mapped at all.
    std::unique_ptr<BitmapRecord> record = BitmapRecord::Make(blockSize, BitmapBytesForVolume(length, blockSize));
    if (record == nullptr)
        return LogOutOfMemory(L"CBitmapContainer::RemapOldBitmapToNewBlockSize");
    Record(whichBitmap) = std::move(record);
    return WriteBitMapToFile(whichBitmap);
}

DWORD CBitmapContainer::AddVolumeToResyncList()
{
    const DWORD result = Guarded(L"CBitmapContainer::AddVolumeToResyncList", [&] {
        return CVolumeListForResync().UpdateApplicationValue({GetVolumeGuid(m_strVolume)},
                                                             MakeVerifyListName(m_strAppId), 0);
    });
    if (result == ERROR_SUCCESS)
        return ERROR_SUCCESS;

    // A volume whose bitmap could not be kept is on the verify list or has no bitmap files at all: either way the
    // application's next job is a verify backup.
    Log(LOG_ERROR, result,
        L"CBitmapContainer::AddVolumeToResyncList: Failed to add volume %s to %s application verify list. So deleting the application bitmap files of the volume.\n",
        m_strVolume.c_str(), m_strAppId.c_str());
    const DWORD removed = RemoveBitmaps();
    if (removed != ERROR_SUCCESS)
        Log(LOG_ERROR, removed, L"CBitmapContainer::AddVolumeToResyncList: Failed to delete %s application bitmaps.\n",
            m_strAppId.c_str());
    return result;
}

} // namespace vtflt
