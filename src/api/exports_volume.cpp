// The exports that take a volume handle.
#include "api/library.h"
#include "driver/request.h"
#include "log/log.h"
#include "vtfltmgr/VTFltMgr.h"

#include <cstdio>
#include <utility>

namespace vtflt {

namespace {

// Messages show a handle's low 32 bits.
DWORD ShownHandle(HANDLE volume)
{
    return static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(volume));
}

// The handle's manager, or null after logging the export's own message.
IMultiBitmapManager* FindManager(HANDLE volume, const wchar_t* notFound)
{
    IMultiBitmapManager* const manager = Volumes().Find(volume);
    if (manager == nullptr)
        Log(LOG_ERROR, ERROR_INVALID_PARAMETER, notFound, ShownHandle(volume));
    return manager;
}

// Hands a request to a manager. What is thrown on the way becomes a status here, so that the operation still finishes
// what it owes its caller.
DWORD Forward(IMultiBitmapManager& manager, HANDLE volume, DWORD controlCode, void* input, DWORD inputLength,
              void* output, DWORD outputLength, DWORD& returned)
{
    return Guarded(L"CMultiBitmapManager::VTDeviceIoControl", [&] {
        return manager.VTDeviceIoControl(volume, controlCode, input, inputLength, output, outputLength, &returned,
                                         nullptr);
    });
}

// Hands a request without buffers to the handle's manager.
DWORD ForwardPlain(HANDLE volume, DWORD controlCode, const wchar_t* notFound)
{
    if (!IsValidVolumeHandle(volume))
        return ERROR_INVALID_PARAMETER;
    IMultiBitmapManager* const manager = FindManager(volume, notFound);
    if (manager == nullptr)
        return ERROR_INVALID_PARAMETER;
    DWORD returned = 0;
    return Forward(*manager, volume, controlCode, nullptr, 0, nullptr, 0, returned);
}

DWORD InitBitmapManager(HANDLE volume, LPCWSTR volumeName, LPCWSTR applicationId)
{
    const std::wstring name = OwnedText(volumeName);
    const std::wstring appId = OwnedText(applicationId);
    if (!IsValidVolumeHandle(volume) || name.empty() || appId.empty())
        return ERROR_INVALID_PARAMETER;

    std::unique_ptr<IMultiBitmapManager> manager(new (std::nothrow) CMultiBitmapManager);
    if (manager == nullptr) {
        Log(LOG_ERROR, BM_ERR_FAILED, L"VTFltInitBitmapManager: Failed to create bitmap manager interface\n");
        return BM_ERR_FAILED;
    }

    const DWORD error =
        Guarded(L"CMultiBitmapManager::InitBitMapManager", [&] { return manager->InitBitMapManager(name, appId); });
    if (error != ERROR_SUCCESS) {
        Log(LOG_ERROR, error, L"VTFltInitBitmapManager: Failed to initialize bitmap manager\n");
        return error;
    }

    // A handle that is initialised twice keeps its first manager; for the caller that is a success too.
    Volumes().Insert(volume, std::move(manager));
    Log(LOG_INFORMATION, ERROR_SUCCESS,
        L"VTFltInitBitmapManager: SUCCESS:: Bitmap manager initialized. Volume handle 0X%x.\n", ShownHandle(volume));
    return ERROR_SUCCESS;
}

DWORD DeinitBitmapManager(HANDLE volume)
{
    if (!IsValidVolumeHandle(volume))
        return ERROR_INVALID_PARAMETER;
    IMultiBitmapManager* const manager =
        FindManager(volume, L"VTFltDeinitBitmapManager: Handle 0X%x not found. Please provide valid volume handle.\n");
    if (manager == nullptr)
        return ERROR_INVALID_PARAMETER;

    const DWORD error = manager->DeinitBitMapManager();
    if (error != ERROR_SUCCESS) {
        // The entry stays, so that the caller can try again.
        Log(LOG_ERROR, error, L"VTFltDeinitBitmapManager: Failed to deinitialize bitmap manager \n");
        return error;
    }

    Volumes().Erase(volume);
    Log(LOG_INFORMATION, ERROR_SUCCESS,
        L"VTFltDeinitBitmapManager: SUCCESS:: Bitmap manager un-initialized. Volume handle 0X%x.\n",
        ShownHandle(volume));
    return ERROR_SUCCESS;
}

DWORD GetBlockSize(HANDLE volume, DWORD* blockSize, DWORD direct)
{
    if (!IsValidVolumeHandle(volume) || blockSize == nullptr)
        return ERROR_INVALID_PARAMETER;

    DWORD returned = 0;
    if (direct != 0)
        return SendRequest(volume, VTFLTCTL_GET_BLOCK_SIZE, nullptr, 0, blockSize, sizeof(*blockSize), &returned);

    IMultiBitmapManager* const manager =
        FindManager(volume, L"VTFltGetBlockSize: Handle 0X%x not found. Please provide valid volume handle.\n");
    if (manager == nullptr)
        return ERROR_INVALID_PARAMETER;
    return Forward(*manager, volume, VTFLTCTL_GET_BLOCK_SIZE, nullptr, 0, blockSize, sizeof(*blockSize), returned);
}

// What the caller is told of the bitmap: the length to supply when the buffer was too short, else the byte count of
// the reply; after a success the header gets the number of bits.
DWORD FinishBitmapReply(DWORD status, void* output, DWORD outputLength, DWORD returned)
{
    if (status == ERROR_MORE_DATA || status == ERROR_INSUFFICIENT_BUFFER) {
        const BitmapHeader header = ReadBitmapHeader(output, outputLength);
        return RequiredBitmapLength(header.H0, header.H1);
    }
    if (status == ERROR_SUCCESS)
        StoreBitmapBits(output, outputLength, BitmapBitsInReply(returned));
    return returned;
}

DWORD GetBitmap(HANDLE volume, LPVOID input, DWORD inputLength, LPVOID output, DWORD outputLength, DWORD* size,
                DWORD direct)
{
    if (!IsValidVolumeHandle(volume) || output == nullptr || input == nullptr)
        return ERROR_INVALID_PARAMETER;

    DWORD returned = 0;
    DWORD status = ERROR_SUCCESS;
    if (direct != 0) {
        status = SendRequest(volume, VTFLTCTL_GET_BITMAP, input, inputLength, output, outputLength, &returned);
    } else {
        IMultiBitmapManager* const manager =
            FindManager(volume, L"VTFltGetBitmap: Handle 0X%x not found. Please provide valid volume handle.\n");
        if (manager == nullptr)
            return ERROR_INVALID_PARAMETER;
        status = Forward(*manager, volume, VTFLTCTL_GET_BITMAP, input, inputLength, output, outputLength, returned);
    }

    const DWORD reported = FinishBitmapReply(status, output, outputLength, returned);
    if (size != nullptr)
        *size = reported;
    return status;
}

DWORD SyncSnapshotChanges(HANDLE volume, LPVOID input, DWORD inputLength)
{
    if (!IsValidVolumeHandle(volume) || input == nullptr)
        return ERROR_INVALID_PARAMETER;
    IMultiBitmapManager* const manager = FindManager(
        volume, L"VTFltSynSnapshotChangeBitmapToVolume: Handle 0X%x not found. Please provide valid volume handle.\n");
    if (manager == nullptr)
        return ERROR_INVALID_PARAMETER;

    DWORD returned = 0;
    const DWORD status = Forward(*manager, volume, VTFLTCTL_SYNC_SNAPSHOT_CHANGES_TO_VOLUME_BITMAP, input, inputLength,
                                 nullptr, 0, returned);
    // A console trace that callers know, apart from the log.
    std::printf("copy into %d\n", static_cast<int>(returned));
    return status;
}

} // namespace

} // namespace vtflt

extern "C" {

DWORD WINAPI VTFltInitBitmapManager(HANDLE volume, LPCWSTR volumeName, LPCWSTR applicationId)
{
    return vtflt::Guarded(L"VTFltInitBitmapManager",
                          [&] { return vtflt::InitBitmapManager(volume, volumeName, applicationId); });
}

DWORD WINAPI VTFltDeinitBitmapManager(HANDLE volume)
{
    return vtflt::Guarded(L"VTFltDeinitBitmapManager", [&] { return vtflt::DeinitBitmapManager(volume); });
}

DWORD WINAPI VTFltGetBlockSize(HANDLE volume, DWORD* blockSize, DWORD direct)
{
    return vtflt::Guarded(L"VTFltGetBlockSize", [&] { return vtflt::GetBlockSize(volume, blockSize, direct); });
}

DWORD WINAPI VTFltPrepareForSnapshot(HANDLE volume)
{
    return vtflt::Guarded(L"VTFltPrepareForSnapshot", [&] {
        return vtflt::ForwardPlain(
            volume, vtflt::VTFLTCTL_PREPARE_FOR_SNAPSHOT,
            L"VTFltPrepareForSnapshot: Handle 0X%x not found. Please provide valid volume handle.\n");
    });
}

DWORD WINAPI VTFltGetBitmap(HANDLE volume, LPVOID input, DWORD inputLength, LPVOID output, DWORD outputLength,
                            DWORD* size, DWORD direct)
{
    return vtflt::Guarded(L"VTFltGetBitmap", [&] {
        return vtflt::GetBitmap(volume, input, inputLength, output, outputLength, size, direct);
    });
}

DWORD WINAPI VTFltSynSnapshotChangeBitmapToVolume(HANDLE volume, LPVOID input, DWORD inputLength)
{
    return vtflt::Guarded(L"VTFltSynSnapshotChangeBitmapToVolume",
                          [&] { return vtflt::SyncSnapshotChanges(volume, input, inputLength); });
}

DWORD WINAPI VTFltReplicationSuccess(HANDLE volume)
{
    return vtflt::Guarded(L"VTFltReplicationSuccess", [&] {
        return vtflt::ForwardPlain(
            volume, vtflt::VTFLTCTL_REPLICATION_SUCCESS,
            L"VTFltReplicationSuccess: Handle 0X%x not found. Please provide valid volume handle.\n");
    });
}

} // extern "C"
