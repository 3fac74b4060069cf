/* A C program can use the public header, and every export with a C signature is there under its plain name. */
#include <vtfltmgr/VTFltMgr.h>

#include <stdio.h>

int main(void)
{
    FARPROC const exports[] = {
        (FARPROC)(void*)&VTFltInitBitmapManager,
        (FARPROC)(void*)&VTFltDeinitBitmapManager,
        (FARPROC)(void*)&VTFltGetBlockSize,
        (FARPROC)(void*)&VTFltPrepareForSnapshot,
        (FARPROC)(void*)&VTFltGetBitmap,
        (FARPROC)(void*)&VTFltSynSnapshotChangeBitmapToVolume,
        (FARPROC)(void*)&VTFltReplicationSuccess,
        (FARPROC)(void*)&VTRegisterApplication,
        (FARPROC)(void*)&VTUnregisterApplication,
        (FARPROC)(void*)&VTGetRegisteredAppCount,
        (FARPROC)(void*)&VTReplicateVerifyList,
        (FARPROC)(void*)&VTIsVerifyRequired,
        (FARPROC)(void*)&VTAddVolumesToAppVerifyList,
        (FARPROC)(void*)&VTCanAppUseBLIDriver,
        (FARPROC)(void*)&VTCanBLIDriverWork,
        (FARPROC)(void*)&VTFltEnableMonitorForSnapshot,
        (FARPROC)(void*)&VTFltDisableMonitorForSnapshot,
        (FARPROC)(void*)&VTFltStopMonitorVolume,
        (FARPROC)(void*)&VTFltStopMonitorVolumes,
        (FARPROC)(void*)&VTIsDeviceMonitored,
    };
    size_t i;
    for (i = 0; i < sizeof(exports) / sizeof(exports[0]); ++i) {
        if (exports[i] == NULL) {
            printf("export %u is null\n", (unsigned)i);
            return 1;
        }
    }

    if (VTFltDeinitBitmapManager(NULL) != ERROR_INVALID_PARAMETER ||
        VTFltPrepareForSnapshot(INVALID_HANDLE_VALUE) != ERROR_INVALID_PARAMETER) {
        printf("an invalid volume handle is not answered with 87\n");
        return 1;
    }
    return 0;
}
