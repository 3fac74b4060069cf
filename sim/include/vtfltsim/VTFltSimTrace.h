/*
 * VTFltSimTrace.h - what a recorded call asked for beside a name
 *
 * The trace of VTFltSim.h has a call's name and the name that it works on. Whether a file was opened so that others may
 * write it, or a key with more access than an ordinary account has, stands here. Conventions as in VTFltSim.h.
 */
#ifndef VTFLTSIM_VTFLTSIMTRACE_H
#define VTFLTSIM_VTFLTSIMTRACE_H

#include "VTFltSim.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The arguments of the recorded call with this index, those that the trace has not got; empty for functions that are
   not named here. Longer text is cut at the buffer. 259 behind the last call. Numbers without 0x are decimal.

     CreateFileW      "access 0x80000000|share 1|disposition 3|flags 0x00000080|security 0"
     SetFilePointer   "distance -4|method 2"
     CreateMutexW     "owned 0|security 0"
     OpenMutexW       "access 0x00100000|inherit 0"
     RegCreateKeyExW  "options 0|access 0x0002001F|security 0"
     RegOpenKeyExW    "options 0|access 0x00020019"
     OpenSCManagerW   "database 0|access 0x00000004"
     OpenServiceW     "access 0x00000004"
     CreateProcessW   "application 0|inherit 0|flags 0x00000000|environment 0|directory 0|startup 0x00000001|show 0"

   security, database, application, environment and directory are 1 when there was one; startup is the start-up
   record's flags. */
VTFLTSIM_API DWORD WINAPI VTFltSimGetTraceArguments(DWORD index, LPWSTR text, DWORD characters);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VTFLTSIM_VTFLTSIMTRACE_H */
