// The library's entry point. It only starts and stops the log: the other process-wide state is made by static
// initialisation, so that programs which link the library's objects have it too.
#include "log/log.h"
#include "win/windows.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
        vtflt::StartLog();
    else if (reason == DLL_PROCESS_DETACH)
        vtflt::StopLog();
    return TRUE;
}
