// The driver operations of the bitmap manager: what is handed on, and the sequences that move changes from the driver
// through the bitmaps to the application.
#include "bitmap/manager.h"

#include "apps/mutex_controller.h"
#include "driver/request.h"
#include "log/log.h"

namespace vtflt {

namespace {

// The answers of the driver to a buffer that is too small: the caller asks again with a larger one.
bool IsSizeNegotiation(DWORD error)
{
    return error == ERROR_MORE_DATA || error == ERROR_INSUFFICIENT_BUFFER;
}

bool ReadsChildren(DWORD controlCode)
{
    return controlCode == VTFLTCTL_GET_BITMAP || controlCode == VTFLTCTL_VOLUME_BLOCK_SIZE_CHANGE ||
           controlCode == VTFLTCTL_SYNC_SNAPSHOT_CHANGES_TO_VOLUME_BITMAP;
}

} // namespace

DWORD CMultiBitmapManager::VTDeviceIoControl(HANDLE hVolume, DWORD controlCode, void* inBuffer, DWORD inLength,
                                             void* outBuffer, DWORD outLength, DWORD* pBytesReturned,
                                             OVERLAPPED* pOverlapped)
{
    if (hVolume == nullptr || hVolume == INVALID_HANDLE_VALUE) {
        Log(LOG_ERROR, BM_ERR_INVALID_VOLUME_HANDLE,
            L"CMultiBitmapManager::VTDeviceIoControl::m_hVolume is not a valid volume handle.");
        return BM_ERR_INVALID_VOLUME_HANDLE;
    }

    CMutexController mutex;
    if (mutex.getAccess(MutexName()) != ERROR_SUCCESS) {
        Log(LOG_ERROR, BM_ERR_MUTEX_ACCESS,
            L"CMultiBitmapManager::VTDeviceIoControlFailed to get the access while creating mutex: %d",
            BM_ERR_MUTEX_ACCESS);
        return BM_ERR_MUTEX_ACCESS;
    }

    for (auto& [appId, container] : m_mapContainers) {
        if (container != nullptr)
            container->m_hVolume = hVolume;
    }
    const DWORD result =
        Dispatch({hVolume, controlCode, inBuffer, inLength, outBuffer, outLength, pBytesReturned, pOverlapped});
    if (ReadsChildren(controlCode))
        ReleaseChildren();
    return result;
}

// Each operation that needs children reads them anew: behind it nobody looks at these, and the next one has the memory of
// one. Operations that touch no child leave them alone: a wait for the mutex that times out lets these run beside one that
// does. Two that read children are not to run at once; nothing but the mutex keeps them apart.
void CMultiBitmapManager::ReleaseChildren()
{
    for (auto& [appId, container] : m_mapContainers) {
        if (container != nullptr)
            container->ReleaseRecord(CHILD_BITMAP);
    }
}

DWORD CMultiBitmapManager::Dispatch(const Request& request)
{
    switch (request.controlCode) {
    case VTFLTCTL_GET_BITMAP:
        return GetBitmap(request);
    case VTFLTCTL_GET_BLOCK_SIZE:
        return ForwardBlockSize(request);
    case VTFLTCTL_VOLUME_BLOCK_SIZE_CHANGE:
        return ChangeBlockSize(request);
    case VTFLTCTL_SYNC_SNAPSHOT_CHANGES_TO_VOLUME_BITMAP:
        return SyncSnapshotChanges(request);
    case VTFLTCTL_REPLICATION_SUCCESS:
        return ReplicationSuccess();
    case VTFLTCTL_PREPARE_FOR_SNAPSHOT:
        return ForwardPrepareForSnapshot(request);
    case VTFLTCTL_PREPARE_FOR_UNINSTALL:
        return ForwardPrepareForUninstall(request);
    default:
        return BM_ERR_INVALID_CONTROL_CODE;
    }
}

DWORD CMultiBitmapManager::Forward(const Request& request)
{
    DWORD ignored = 0;
    DWORD* const returned = request.pBytesReturned != nullptr ? request.pBytesReturned : &ignored;
    return SendRequest(request.hVolume, request.controlCode, request.inBuffer, request.inLength, request.outBuffer,
                       request.outLength, returned, request.pOverlapped);
}

DWORD CMultiBitmapManager::ForwardBlockSize(const Request& request)
{
    const DWORD error = Forward(request);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error, L"CMultiBitmapManager::VTDeviceIoControl::VTFLTCTL_GET_BLOCK_SIZE failed, mserr=%u.",
            error);
    return error;
}

DWORD CMultiBitmapManager::ForwardPrepareForSnapshot(const Request& request)
{
    const DWORD error = Forward(request);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error,
            L"CMultiBitmapManager::VTDeviceIoControl::VTFLTCTL_PREPARE_FOR_SNAPSHOT failed, mserr=%u.", error);
        return error;
    }
    Log(LOG_INFORMATION, ERROR_SUCCESS,
        L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS :: VTFLTCTL_PREPARE_FOR_SNAPSHOT");
    return ERROR_SUCCESS;
}

DWORD CMultiBitmapManager::ForwardPrepareForUninstall(const Request& request)
{
    const DWORD error = Forward(request);
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error,
            L"CMultiBitmapManager::VTDeviceIoControl::VTFLTCTL_PREPARE_FOR_UNINSTALL failed, mserr=%u.", error);
    return error;
}

DWORD CMultiBitmapManager::ChangeBlockSize(const Request& request)
{
    const DWORD error = Forward(request);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error,
            L"CMultiBitmapManager::VTDeviceIoControl::VTFLTCTL_VOLUME_BLOCK_SIZE_CHANGE failed, mserr=%u.", error);
        return error;
    }
    // The driver has changed over already, so its answer stands whatever could not be remapped: it lists the volume for
    // every application, and each is told that the block size changed, which has it read everything next.
    RemapAllAppBitmap();
    return ERROR_SUCCESS;
}

DWORD CMultiBitmapManager::GetBitmap(const Request& request)
{
    if (request.outBuffer == nullptr)
        return BM_ERR_NO_OUTPUT_BUFFER;

    DWORD error = Forward(request);
    if (error != ERROR_SUCCESS) {
        if (!IsSizeNegotiation(error))
            Log(LOG_ERROR, error, L"CMultiBitmapManager::VTDeviceIoControl::VTFLTCTL_GET_BITMAP failed, mserr=%u.",
                error);
        return error;
    }
    DumpDriverBitmap(request.outBuffer, request.outLength);

    bool verifyRequired = false;
    error = GatherChanges(request, verifyRequired);
    if (error != ERROR_SUCCESS)
        return error;

    // From here on the changes live only in the base bitmap.
    error = ForgetInDriver(request.hVolume);
    if (error != ERROR_SUCCESS)
        return error;

    DWORD copied = request.outLength;
    GetBaseBitmap(&copied, static_cast<BYTE*>(request.outBuffer));
    Log(LOG_INFORMATION, ERROR_SUCCESS,
        L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Copying bitmap to buffer to send it to application.");
    if (request.pBytesReturned != nullptr)
        *request.pBytesReturned = copied;
    DumpBitmapToApplication(request.outBuffer, copied);

    const DWORD result = verifyRequired ? BM_ERR_VERIFY_REQUIRED : ERROR_SUCCESS;
    Log(LOG_ERROR, result, L"CMultiBitmapManager::VTDeviceIoControl::Get bitmap is returning =%d.", result);
    return result;
}

// Moves the driver's changes into every application's child bitmap and the current application's child into its
// base. A failure leaves the driver's bitmap as it is, so the next get-bitmap delivers the changes again.
DWORD CMultiBitmapManager::GatherChanges(const Request& request, bool& verifyRequired)
{
    DWORD error = UpdateAllChildBitmap(request.outLength, static_cast<const BYTE*>(request.outBuffer));
    if (error == ERROR_SUCCESS) {
        Log(LOG_INFORMATION, ERROR_SUCCESS, L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Updated child bitmaps.");
    } else if (error == BM_ERR_VERIFY_REQUIRED) {
        LogVerifyRequired();
        verifyRequired = true;
    } else {
        Log(LOG_ERROR, error, L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Updating child bitmaps.");
        return error;
    }

    error = UpdateBaseBitmapWithChild();
    if (error == ERROR_SUCCESS) {
        Log(LOG_INFORMATION, ERROR_SUCCESS,
            L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Prepared the base bitmap.");
    } else if (error == BM_ERR_VERIFY_REQUIRED) {
        LogVerifyRequired();
        verifyRequired = true;
    } else {
        Log(LOG_ERROR, error, L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Preparing the base bitmap.");
        return error;
    }

    error = ResetChildBitmap();
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Resetting the child bitmap.");
        return error;
    }
    Log(LOG_INFORMATION, ERROR_SUCCESS,
        L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Resetting the child bitmap.");
    return ERROR_SUCCESS;
}

void CMultiBitmapManager::LogVerifyRequired() const
{
    Log(LOG_ERROR, BM_ERR_VERIFY_REQUIRED,
        L"CMultiBitmapManager::VTDeviceIoControl: Verify backup required for volume %s", m_strVolume.c_str());
}

DWORD CMultiBitmapManager::ForgetInDriver(HANDLE hVolume)
{
    DWORD returned = 0;
    const DWORD error = SendRequest(hVolume, VTFLTCTL_REPLICATION_SUCCESS, nullptr, 0, nullptr, 0, &returned);
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"CMultiBitmapManager::VTDeviceIoControl: FAILED::VTFLTCTL_REPLICATION_SUCCESS.");
        return error;
    }
    Log(LOG_INFORMATION, ERROR_SUCCESS,
        L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::VTFLTCTL_REPLICATION_SUCCESS.");
    return ERROR_SUCCESS;
}

DWORD CMultiBitmapManager::SyncSnapshotChanges(const Request& request)
{
    DumpSnapshotChanges(request.inBuffer, request.inLength);

    // While the merge runs the volume counts as one to verify, so that a process that dies in it loses nothing. A
    // volume that is on the list already stays there.
    bool added = false;
    const DWORD listed = QueryVerifyList();
    if (listed != BM_ERR_VERIFY_REQUIRED) {
        const DWORD error = AddVolumeToVerifyList();
        if (error != ERROR_SUCCESS)
            Log(LOG_ERROR, error, L"CMultiBitmapManager::VTDeviceIoControl: Failed to add volume to verify list, %s",
                m_strVolume.c_str());
        else
            added = listed == ERROR_SUCCESS; // what could not be asked may have been there before
    }

    DWORD error = SyncSnapshotChangesToChildBitmap(request.inLength, static_cast<const BYTE*>(request.inBuffer));
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error,
            L"CMultiBitmapManager::VTDeviceIoControl: Failed to sync snapshot changes to child bitmap. Next job will be verify backup.");
        return error;
    }

    if (added) {
        error = resetVerifyVolume();
        if (error != ERROR_SUCCESS)
            Log(LOG_ERROR, error,
                L"CMultiBitmapManager::VTDeviceIoControl: Failed to remove volume %s from verify list. Next job will be verify backup.",
                m_strVolume.c_str());
    }
    Log(LOG_INFORMATION, ERROR_SUCCESS,
        L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS :: VTFLTCTL_SYNC_SNAPSHOT_CHANGES_TO_VOLUME_BITMAP");
    return ERROR_SUCCESS;
}

DWORD CMultiBitmapManager::ReplicationSuccess()
{
    DWORD error = resetVerifyVolume();
    if (error != ERROR_SUCCESS)
        Log(LOG_ERROR, error,
            L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Removing volume from application resync list, %s",
            m_strVolume.c_str());

    error = ResetBaseBitmap();
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error,
            L"CMultiBitmapManager::VTDeviceIoControl: FAILED::Resetting the base bitmap. Next job will include the changes again.");
        return error;
    }
    Log(LOG_INFORMATION, ERROR_SUCCESS, L"CMultiBitmapManager::VTDeviceIoControl: SUCCESS::Resetting the base bitmap.");
    return ERROR_SUCCESS;
}

} // namespace vtflt
