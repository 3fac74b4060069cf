/* Registers an application on a simulated machine and counts it: both libraries load and meet. */
#include <vtfltmgr/VTFltMgr.h>
#include <vtfltmgr/version.h>
#include <vtfltsim/VTFltSim.h>

#include <stdio.h>

int main(void)
{
    WCHAR folder[MAX_PATH];
    VTFLTSIM_MACHINE machine = NULL;
    VTFLTSIM_VOLUME_CONFIG volume = {0};
    WCHAR guid[VTFLTSIM_GUID_CHARS];
    DWORD count = 0;
    GetTempPathW(MAX_PATH - 40, folder);
    lstrcatW(folder, L"vtfltmgr-consumer-c");
    VTFltSimDestroy(folder);
    volume.size = sizeof(volume);
    volume.length = 1 << 20;
    if (VTFltSimCreate(folder, &machine) != 0 || VTFltSimAddVolume(machine, &volume, guid) != 0 ||
        VTFltSimAttachModule(machine, GetModuleHandleW(L"VTFltMgr.dll")) != 0)
        return 1;
    if (VTRegisterApplication(L"Consumer") != 0 || VTGetRegisteredAppCount(&count) != 0 || count != 1)
        return 2;
    VTFltSimClose(machine);
    VTFltSimDestroy(folder);
    printf("VTFltMgr %s: %lu application\n", VTFLTMGR_VERSION, count);
    return 0;
}
