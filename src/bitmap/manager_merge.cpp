// How change bits move between bitmaps: a byte-wise OR over the bitmap areas, which line up because driver and files
// share the driver's present block size. RemapAllAppBitmap restores that after a change of block size.
#include "bitmap/manager.h"

#include "log/log.h"

#include <initializer_list>

namespace vtflt {

namespace {

DWORD OtherBitmap(DWORD whichBitmap)
{
    return whichBitmap == CHILD_BITMAP ? BASE_BITMAP : CHILD_BITMAP;
}

} // namespace

// A bitmap of the current application that cannot be read: the volume goes on the verify list and, where that says it, or
// nothing else is there that could be believed, a fresh bitmap is started. Returns the list's error, else 0x10001; the
// reset's own result does not matter then.
DWORD CMultiBitmapManager::ReplaceUnreadable(CBitmapContainer& container, DWORD whichBitmap)
{
    const DWORD error = container.AddVolumeToResyncList();
    // A volume that could not be listed must not have two sound files, which would tell nobody that what the unreadable
    // one held is lost: while the other file is still there, the unreadable one tells.
    if (error == ERROR_SUCCESS || container.IsFileGone(OtherBitmap(whichBitmap)))
        container.ResetBitMapFiles(whichBitmap);
    if (error == ERROR_SUCCESS)
        return BM_ERR_VERIFY_REQUIRED;
    // Nor may a report of success write a sound base of an earlier fetch back, from memory.
    container.ReleaseRecord(BASE_BITMAP);
    return error;
}

DWORD CMultiBitmapManager::UpdateAllChildBitmap(DWORD length, const BYTE* driverBitmap)
{
    if (CurrentContainer() == nullptr)
        return BM_ERR_FAILED;
    // An application that got no container, memory being short, would never see these changes, for the driver is about
    // to forget them. Refused here, they are delivered again.
    if (!HasEveryContainer())
        return ERROR_NOT_ENOUGH_MEMORY;

    DWORD result = ERROR_SUCCESS;
    for (auto& [appId, container] : m_mapContainers) {
        const DWORD merged = MergeIntoChild(*container, length, driverBitmap);
        if (merged == BM_ERR_VERIFY_REQUIRED)
            result = BM_ERR_VERIFY_REQUIRED;
        else if (merged != ERROR_SUCCESS)
            return merged;
    }
    return result;
}

// One application's share of UpdateAllChildBitmap. 0x10001: merged, and the current application must verify.
DWORD CMultiBitmapManager::MergeIntoChild(CBitmapContainer& container, DWORD length, const BYTE* driverBitmap)
{
    const bool current = IsCurrent(container.m_strAppId);
    DWORD result = ERROR_SUCCESS;

    DWORD error = container.ReadBitMapFromFile(CHILD_BITMAP);
    if (error == BM_ERR_VERIFY_REQUIRED && !current) {
        // The other application finds out itself when it next runs.
        Log(LOG_WARNING, BM_ERR_VERIFY_REQUIRED,
            L"CMultiBitmapManager::UpdateAllChildBitmap: Other application child bitmap file not found. Skip updating it. File name: %s",
            container.m_strChildFileName.c_str());
        return ERROR_SUCCESS;
    }
    if (error == BM_ERR_VERIFY_REQUIRED) {
        error = container.AddVolumeToResyncList();
        if (error != ERROR_SUCCESS)
            return error;
        DWORD cause = ERROR_SUCCESS;
        container.ResetBitMapFiles(CHILD_BITMAP, &cause);
        if (container.m_pChildBitmap == nullptr)
            return cause;
        result = BM_ERR_VERIFY_REQUIRED;
    } else if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"CMultiBitmapManager::UpdateAllChildBitmap: Failed to read child bitmap file %s",
            container.m_strChildFileName.c_str());
        return error;
    }

    error = container.RegenerateBitmapForNewVolSize(length, CHILD_BITMAP);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error,
            L"CMultiBitmapManager::UpdateAllChildBitmap: RegenerateBitmapForNewVolSize failed for child bitmap, for application %s\n",
            container.m_strAppId.c_str());
        return error;
    }
    container.m_pChildBitmap->Or(driverBitmap, length);

    // The current application's child is folded into the base and then cleared and written by the steps that follow.
    if (current)
        return result;
    error = container.WriteBitMapToFile(CHILD_BITMAP);
    // Its file has it all: the next application's bitmap can take its place in memory.
    container.ReleaseRecord(CHILD_BITMAP);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error,
            L"CMultiBitmapManager::UpdateAllChildBitmap: Failed to save child bitmap of application %s\n",
            container.m_strAppId.c_str());
    return error;
}

DWORD CMultiBitmapManager::UpdateBaseBitmapWithChild()
{
    CBitmapContainer* const container = CurrentContainer();
    if (container == nullptr || container->m_pChildBitmap == nullptr)
        return BM_ERR_FAILED;

    DWORD error = container->ReadBitMapFromFile(BASE_BITMAP);
    // The child's bits are not merged into a fresh base: who is told so verifies.
    if (error == BM_ERR_VERIFY_REQUIRED)
        return ReplaceUnreadable(*container, BASE_BITMAP);
    if (error != ERROR_SUCCESS)
        return error;

    const BitmapRecord& child = *container->m_pChildBitmap;
    error = container->RegenerateBitmapForNewVolSize(child.BitmapLength(), BASE_BITMAP);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error,
            L"CMultiBitmapManager::UpdateBaseBitmapWithChild: RegenerateBitmapForNewVolSize failed for base bitmap, for current application %s\n",
            m_strAppId.c_str());
        return error;
    }
    container->m_pBaseBitmap->Or(child.Bitmap(), child.HeldBitmapBytes());

    error = container->WriteBitMapToFile(BASE_BITMAP);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"CMultiBitmapManager::UpdateBaseBitmapWithChild: Failed to update base bitmap file\n");
    return error;
}

DWORD CMultiBitmapManager::SyncSnapshotChangesToChildBitmap(DWORD length, const BYTE* changes)
{
    CBitmapContainer* const container = CurrentContainer();
    if (container == nullptr)
        return BM_ERR_FAILED;

    const DWORD error = container->ReadBitMapFromFile(CHILD_BITMAP);
    if (error == BM_ERR_VERIFY_REQUIRED)
        return ReplaceUnreadable(*container, CHILD_BITMAP);
    if (error != ERROR_SUCCESS)
        return error;

    // Only a change bitmap that covers the whole child bitmap is taken.
    BitmapRecord& child = *container->m_pChildBitmap;
    if (length < child.BitmapLength())
        return ERROR_SUCCESS;
    child.Or(changes, length);
    return container->WriteBitMapToFile(CHILD_BITMAP);
}

DWORD CMultiBitmapManager::RemapAllAppBitmap()
{
    if (CurrentContainer() == nullptr)
        return BM_ERR_FAILED;

    DWORD result = ERROR_SUCCESS;
    for (auto& [appId, container] : m_mapContainers) {
        for (const DWORD whichBitmap : {CHILD_BITMAP, BASE_BITMAP}) {
            if (RemapBitmap(*container, whichBitmap, result) == Remapped::SkipContainer)
                break;
        }
    }
    return result;
}

// One bitmap's share of RemapAllAppBitmap; result takes the last failure.
CMultiBitmapManager::Remapped CMultiBitmapManager::RemapBitmap(CBitmapContainer& container, DWORD whichBitmap,
                                                               DWORD& result)
{
    DWORD error = container.ReadBitMapFromFile(whichBitmap);
    if (error == BM_ERR_VERIFY_REQUIRED && !IsCurrent(container.m_strAppId)) {
        Log(LOG_WARNING, BM_ERR_VERIFY_REQUIRED,
            L"CMultiBitmapManager::RemapAllAppBitmap: Other application bitmap file not found. Skip remmaping it. File name: %s",
            container.FileName(whichBitmap).c_str());
        return Remapped::Done;
    }
    if (error == BM_ERR_VERIFY_REQUIRED) {
        result = BM_ERR_VERIFY_REQUIRED;
        error = container.AddVolumeToResyncList();
        if (error != ERROR_SUCCESS) {
            result = error;
            return Remapped::SkipContainer;
        }
        // Whatever becomes of this, the next step makes the bitmap anew.
        container.ResetBitMapFiles(whichBitmap);
    } else if (error != ERROR_SUCCESS) {
        result = error;
        Log(LOG_ERROR, error, L"CMultiBitmapManager::RemapAllAppBitmap: Failed to read bitmap file %s",
            container.m_strChildFileName.c_str());
        return Remapped::SkipContainer;
    }

    error = container.RemapOldBitmapToNewBlockSize(whichBitmap);
    if (error != ERROR_SUCCESS)
        result = error;
    return Remapped::Done;
}

} // namespace vtflt
