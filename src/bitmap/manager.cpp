#include "bitmap/manager.h"

#include "apps/application_registry.h"
#include "apps/mutex_controller.h"
#include "apps/resync_lists.h"
#include "apps/volume_name.h"
#include "log/guarded.h"
#include "log/log.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace vtflt {

DWORD CMultiBitmapManager::InitBitMapManager(const std::wstring& volumeName, const std::wstring& appId)
{
    const DWORD error = InitApplications();
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, BM_ERR_APP_LIST_FAILED,
            L"CMultiBitmapManager::InitBitMapManager: Failed to get registered applications.\n");
        return BM_ERR_APP_LIST_FAILED;
    }
    if (m_vecAppIds.empty()) {
        Log(LOG_ERROR, BM_ERR_NO_APPLICATION,
            L"CMultiBitmapManager::InitBitMapManager: No application registered. Register an application and try again.\n");
        return BM_ERR_NO_APPLICATION;
    }
    if (std::find(m_vecAppIds.begin(), m_vecAppIds.end(), appId) == m_vecAppIds.end()) {
        Log(LOG_ERROR, BM_ERR_APP_NOT_REGISTERED,
            L"CMultiBitmapManager::InitBitMapManager: Application %s is not registered. Register application and try again.\n",
            appId.c_str());
        return BM_ERR_APP_NOT_REGISTERED;
    }

    m_strAppId = appId;
    m_strVolume = GetVolumeName(volumeName);
    for (const std::wstring& id : m_vecAppIds)
        AddContainer(id);
    return ERROR_SUCCESS;
}

DWORD CMultiBitmapManager::InitApplications()
{
    const DWORD error = GetRegisteredAppList(m_vecAppIds);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"CMultiBitmapManager::initAppsFailed to initialize applications\n");
    return error;
}

// An application without a container is found out by HasEveryContainer before changes are handed over.
void CMultiBitmapManager::AddContainer(const std::wstring& appId)
{
    std::unique_ptr<CBitmapContainer> container(new (std::nothrow) CBitmapContainer);
    if (container == nullptr)
        return;
    container->init(m_strVolume, appId);
    container->m_pReserve = &m_reserve;
    m_mapContainers.emplace(appId, std::move(container));
}

CBitmapContainer* CMultiBitmapManager::CurrentContainer()
{
    return m_mapContainers[m_strAppId].get();
}

bool CMultiBitmapManager::HasEveryContainer() const
{
    return std::all_of(m_vecAppIds.begin(), m_vecAppIds.end(),
                       [this](const std::wstring& id) { return m_mapContainers.contains(id); });
}

std::wstring CMultiBitmapManager::MutexName() const
{
    return BuildMutexName(m_strVolume);
}

DWORD CMultiBitmapManager::DeinitBitMapManager()
{
    m_mapContainers.clear();
    m_reserve.Drop();
    return ERROR_SUCCESS;
}

DWORD CMultiBitmapManager::IsVerifyRequired()
{
    // A list that cannot be read is doubt, and doubt means verify.
    return QueryVerifyList() != ERROR_SUCCESS ? BM_ERR_VERIFY_REQUIRED : ERROR_SUCCESS;
}

DWORD CMultiBitmapManager::QueryVerifyList()
{
    return Guarded(L"CMultiBitmapManager::IsVerifyRequired", [&] { return FindOnVerifyList(); });
}

DWORD CMultiBitmapManager::FindOnVerifyList()
{
    std::vector<std::wstring> volumes;
    const DWORD error = CVolumeListForResync().GetDriverVolumeList(volumes, MakeVerifyListName(m_strAppId));
    if (error != ERROR_SUCCESS)
        return error;

    for (const std::wstring& entry : volumes) {
        if (!ListEntryMatchesVolume(entry, m_strVolume))
            continue;
        Log(LOG_INFORMATION, ERROR_SUCCESS,
            L"CMultiBitmapManager::IsVerifyRequired::Found the volume for verify backup");
        return BM_ERR_VERIFY_REQUIRED;
    }
    return ERROR_SUCCESS;
}

DWORD CMultiBitmapManager::resetVerifyVolume()
{
    return Guarded(L"CMultiBitmapManager::resetVerifyVolume", [&] { return RemoveVolumeFromVerifyList(); });
}

DWORD CMultiBitmapManager::RemoveVolumeFromVerifyList()
{
    const std::wstring listName = MakeVerifyListName(m_strAppId);
    std::vector<std::wstring> volumes;
    // Writing back what could not be read would take the mark off every other volume.
    const DWORD error = CVolumeListForResync().GetDriverVolumeList(volumes, listName);
    if (error != ERROR_SUCCESS)
        return error;

    std::vector<std::wstring> remaining;
    for (std::wstring& entry : volumes) {
        if (ListEntryMatchesVolume(entry, m_strVolume))
            Log(LOG_DETAIL, ERROR_SUCCESS,
                L"CMultiBitmapManager::resetVerifyVolume::Need to delete this volume from verify volume list");
        else
            remaining.push_back(std::move(entry));
    }

    CMutexController mutex;
    // A mutex that cannot be had is logged by the guard; the list's own mutex still protects the write.
    mutex.getAccess(MutexName());
    return CVolumeListForResync().UpdateApplicationValue(remaining, listName, 1);
}

DWORD CMultiBitmapManager::AddVolumeToVerifyList()
{
    return Guarded(L"CMultiBitmapManager::VTDeviceIoControl", [&] {
        CMutexController mutex;
        // As in RemoveVolumeFromVerifyList.
        mutex.getAccess(MutexName());
        return CVolumeListForResync().UpdateApplicationValue({GetVolumeGuid(m_strVolume)},
                                                             MakeVerifyListName(m_strAppId), 0);
    });
}

DWORD CMultiBitmapManager::RemoveBitmaps(std::wstring volumePath)
{
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"CMultiBitmapManager::RemoveBitmaps: Removing bitmaps for volume %s",
        volumePath.c_str());

    CMutexController mutex;
    if (mutex.getAccess(BuildMutexName(GetVolumeName(volumePath))) != ERROR_SUCCESS) {
        Log(LOG_ERROR, BM_ERR_MUTEX_ACCESS,
            L"CMultiBitmapManager::RemoveBitmapsFailed to get the access while creating mutex: %d",
            BM_ERR_MUTEX_ACCESS);
        return BM_ERR_MUTEX_ACCESS;
    }

    const std::unique_ptr<CBitmapContainer> temporary(new (std::nothrow) CBitmapContainer);
    if (temporary == nullptr) {
        Log(LOG_ERROR, ERROR_NOT_ENOUGH_MEMORY, L"CMultiBitmapManager::RemoveBitmaps::pTempContainer is NULL!!");
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    return temporary->RemoveAllBitmaps(volumePath);
}

DWORD CMultiBitmapManager::ResetChildBitmap()
{
    CBitmapContainer* const container = CurrentContainer();
    if (container == nullptr) {
        Log(LOG_ERROR, BM_ERR_FAILED,
            L"CMultiBitmapManager::ResetChildBitmap: Failed to find bitmap container for application %s\n",
            m_strAppId.c_str());
        return BM_ERR_FAILED;
    }
    if (container->m_pChildBitmap == nullptr) {
        Log(LOG_ERROR, BM_ERR_FAILED, L"CMultiBitmapManager::ResetChildBitmap: Container m_pChildBitmap is NULL!!\n");
        return BM_ERR_FAILED;
    }
    container->m_pChildBitmap->Clear();
    const DWORD error = container->WriteBitMapToFile(CHILD_BITMAP);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"CMultiBitmapManager::ResetChildBitmap: Failed to reset child bitmap file\n");
    return error;
}

DWORD CMultiBitmapManager::ResetBaseBitmap()
{
    CBitmapContainer* const container = CurrentContainer();
    if (container == nullptr) {
        Log(LOG_ERROR, BM_ERR_FAILED,
            L"CMultiBitmapManager::ResetBaseBitmap: Failed to find bitmap container for application %s\n",
            m_strAppId.c_str());
        return BM_ERR_FAILED;
    }
    if (container->m_pBaseBitmap == nullptr) {
        Log(LOG_ERROR, BM_ERR_FAILED, L"CMultiBitmapManager::ResetBaseBitmap: Container m_pBaseBitmap is NULL!!\n");
        return BM_ERR_FAILED;
    }
    container->m_pBaseBitmap->Clear();
    const DWORD error = container->WriteBitMapToFile(BASE_BITMAP);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"CMultiBitmapManager::ResetBaseBitmap: Failed to reset base bitmap file\n");
    return error;
}

DWORD CMultiBitmapManager::GetBaseBitmap(DWORD* pLength, BYTE* buffer)
{
    const CBitmapContainer* const container = CurrentContainer();
    if (container == nullptr || container->m_pBaseBitmap == nullptr) {
        *pLength = 0;
        return ERROR_SUCCESS;
    }
    *pLength = container->m_pBaseBitmap->CopyBitmap(buffer, *pLength);
    return ERROR_SUCCESS;
}

} // namespace vtflt
