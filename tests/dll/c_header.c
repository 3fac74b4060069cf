/* A C program can use the public header, and every export with a C signature is there under its plain name. */
#include <vtfltmgr/VTFltMgr.h>

#include <stdio.h>

typedef void (*AnyFunction)(void);

int main(void)
{
    const AnyFunction exports[] = {
        (AnyFunction)&VTFltInitBitmapManager,
        (AnyFunction)&VTFltDeinitBitmapManager,
        (AnyFunction)&VTFltGetBlockSize,
        (AnyFunction)&VTFltPrepareForSnapshot,
        (AnyFunction)&VTFltGetBitmap,
        (AnyFunction)&VTFltSynSnapshotChangeBitmapToVolume,
        (AnyFunction)&VTFltReplicationSuccess,
        (AnyFunction)&VTRegisterApplication,
        (AnyFunction)&VTUnregisterApplication,
        (AnyFunction)&VTGetRegisteredAppCount,
        (AnyFunction)&VTReplicateVerifyList,
        (AnyFunction)&VTIsVerifyRequired,
        (AnyFunction)&VTAddVolumesToAppVerifyList,
        (AnyFunction)&VTCanAppUseBLIDriver,
        (AnyFunction)&VTCanBLIDriverWork,
        (AnyFunction)&VTFltEnableMonitorForSnapshot,
        (AnyFunction)&VTFltDisableMonitorForSnapshot,
        (AnyFunction)&VTFltStopMonitorVolume,
        (AnyFunction)&VTFltStopMonitorVolumes,
        (AnyFunction)&VTIsDeviceMonitored,
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
