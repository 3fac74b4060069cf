// The two change bitmaps of one application on one volume, in memory and in their files.
//
// The child bitmap gathers every change that the driver hands over; the base bitmap holds the changes that are owed
// to the application's next backup. Both files lie on the volume itself, in the hidden folder VelVolTrc. The file is
// the state of record and the memory copy a cache: every change is written back at once by the operation that made
// it.
//
// No locks here: the caller holds the volume's mutex around every operation.
#pragma once

#include "bitmap/record.h"
#include "bitmap/record_reserve.h"
#include "win/windows.h"

#include <memory>
#include <string>

namespace vtflt {

// The folder of the bitmap files below a volume's root.
inline constexpr wchar_t BITMAP_FOLDER[] = L"VelVolTrc";
// Bitmap files and their folder are hidden system items.
inline constexpr DWORD BITMAP_FILE_ATTRIBUTES = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;

// \\?\volume\VelVolTrc, for a normalised volume name.
std::wstring BitmapFolderPath(const std::wstring& volumeName);

// Selects one of a container's bitmaps: non-zero the base bitmap, 0 the child bitmap.
inline constexpr DWORD CHILD_BITMAP = 0;
inline constexpr DWORD BASE_BITMAP = 1;

class CBitmapContainer {
public:
    CBitmapContainer() = default;
    CBitmapContainer(const CBitmapContainer&) = delete;
    CBitmapContainer& operator=(const CBitmapContainer&) = delete;

    // Names the volume (normalised, Volume{...}) and the application, and the files after them; drops both records.
    // Always 0.
    DWORD init(const std::wstring& volumeName, const std::wstring& appId);

    // Makes an all-clear record for the volume's present length and block size and writes it. 0; or, when that fails,
    // 0x10001 once the volume is on the application's verify list; the first error when it could not even be put
    // there. cause receives that first error in both cases (0 on success); when no record could be made, the one
    // before is gone too.
    DWORD ResetBitMapFiles(DWORD whichBitmap, DWORD* cause = nullptr);

    // Loads the file, replacing the record. 0; 0x10001 for a missing or unusable file; 8; else the file's error
    // (0xFFFFFFFF when a read came up short). The record stays as it was after a failure.
    DWORD ReadBitMapFromFile(DWORD whichBitmap);

    // Writes the record to its file, making the folder when it is missing, and has it on the disk before it returns.
    // 0 or the file's error; 0xFFFFFFFF without a record.
    DWORD WriteBitMapToFile(DWORD whichBitmap);

    // Gives the record another bitmap length and writes it; a record of that length already is left alone. 0; 8;
    // 0xFFFFFFFF without a record; else the file's error.
    DWORD RegenerateBitmapForNewVolSize(DWORD newBitmapLength, DWORD whichBitmap);

    // Restarts the bitmap empty in the driver's present block size and writes it; what was recorded in the old block
    // size is not carried over. 0; 8; 0xFFFFFFFF when length or block size cannot be had; else the file's error.
    DWORD RemapOldBitmapToNewBlockSize(DWORD whichBitmap);

    // Deletes the bitmap folder of a volume, with every application's files. The path may lack its trailing
    // backslash; it is consumed. 0 or the error.
    DWORD RemoveAllBitmaps(std::wstring& volumeRoot);

    // Deletes this container's two files. 0; the base file's error when there was one, else the child file's.
    DWORD RemoveBitmaps();

    // Puts the volume on the application's verify list; when that fails, deletes the application's files of the
    // volume, which forces a verify just the same. Returns the list's result.
    DWORD AddVolumeToResyncList();

    // Whether a bitmap's file is known not to be there; false when that cannot be asked.
    [[nodiscard]] bool IsFileGone(DWORD whichBitmap) const;

    // Lets go of a record; its file stays.
    void ReleaseRecord(DWORD whichBitmap);

    [[nodiscard]] std::unique_ptr<BitmapRecord>& Record(DWORD whichBitmap);
    [[nodiscard]] const std::wstring& FileName(DWORD whichBitmap) const;

    std::wstring m_strAppId;
    std::unique_ptr<BitmapRecord> m_pBaseBitmap;
    std::unique_ptr<BitmapRecord> m_pChildBitmap;
    std::wstring m_strBaseFileName;
    std::wstring m_strChildFileName;
    std::wstring m_strVolume;
    // The caller's, set before every driver operation; never closed here.
    HANDLE m_hVolume = nullptr;
    // The owner's, for the memory of records that are read; null: none is kept.
    RecordReserve* m_pReserve = nullptr;

private:
    DWORD MakeFreshRecord(DWORD whichBitmap);
    DWORD ReadHeader(HANDLE file, const std::wstring& fileName, DWORD& recordSize);
    DWORD ReadRecord(HANDLE file, const std::wstring& fileName, DWORD recordSize, DWORD whichBitmap);
    DWORD CreateBitmapFile(const std::wstring& fileName, HANDLE& file);
};

} // namespace vtflt
