/*
 * VTFltSim.h - the simulator of the VTFlt driver and of the machine around it
 *
 * A simulated machine is a directory: volumes with real contents, the driver's change bits, snapshots, the
 * driver's state, the install utility, the service, and a registry of its own. Any number of processes use
 * one machine at the same time, and it outlives them all.
 *
 * A process that loaded VTFltMgr.dll, or any other program of the backup, attaches modules to a machine:
 * their imports for volumes, the driver's control device, files on volumes, the registry below
 * HKEY_LOCAL_MACHINE, services and the utility are then answered by the simulator; all else goes to the
 * real system. No driver, no administrator rights and no restart are needed.
 *
 *     VTFLTSIM_MACHINE machine;
 *     VTFltSimCreate(L"C:\\run\\machine", &machine);            // or VTFltSimOpen
 *     VTFLTSIM_VOLUME_CONFIG config = {sizeof(config)};
 *     config.length = 64ull << 20; config.blockSize = 65536;
 *     WCHAR guid[VTFLTSIM_GUID_CHARS];
 *     VTFltSimAddVolume(machine, &config, guid);
 *     VTFltSimAttachModule(machine, GetModuleHandleW(L"VTFltMgr.dll"));
 *     VTFltSimAttachModule(machine, NULL);                       // the program's own imports
 *     ... CreateFileW(L"\\\\?\\Volume{...}"), VTFltInitBitmapManager(...), ...
 *     VTFltSimDetach();
 *     VTFltSimClose(machine);
 *
 * Conventions
 *   - Results are Windows error codes, 0 for success, unless a function says otherwise. Outputs are written
 *     only on success, except a "needed" count beside 234 (ERROR_MORE_DATA).
 *   - Every function may be called from any thread. Machine state is guarded across processes by a named
 *     mutex; no lock is held while the real system or a callback is called on a caller's behalf.
 *   - A volume is named by its GUID in braces {...}, by Volume{...}, by \\?\Volume{...} with or without a
 *     trailing backslash, or by one of its mount paths.
 *   - "machine" is what VTFltSimCreate or VTFltSimOpen gave; the functions below "In this process" take
 *     none: they speak of the calling process's attached modules.
 */
#ifndef VTFLTSIM_VTFLTSIM_H
#define VTFLTSIM_VTFLTSIM_H

#include <windows.h>

#if defined(VTFLTSIM_BUILD)
#define VTFLTSIM_API __declspec(dllexport)
#else
#define VTFLTSIM_API __declspec(dllimport)
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct VTFltSimMachine* VTFLTSIM_MACHINE;

#define VTFLTSIM_GUID_CHARS 39   /* {8-4-4-4-12} and a NUL */
#define VTFLTSIM_DEVICE_CHARS 64 /* room for any device path given out here */
#define VTFLTSIM_CHUNK 65536u    /* grain of the allocation map and of copy-on-write */

/* ==== The machine ====================================================================================== */

/* Makes a new machine in a directory (made if missing; its parent must exist) and opens it. A new machine has
   a working driver, its service, no volumes, the volume class's UpperFilters "volsnap", "VTFlt", a snapshot
   class key without filters, and InstallLocation. 183 when the directory holds a machine already. Other files in the
   directory are left as they are. */
VTFLTSIM_API DWORD WINAPI VTFltSimCreate(LPCWSTR directory, VTFLTSIM_MACHINE* machine);

/* Opens an existing machine. 2 when the directory holds none, 1392 (ERROR_FILE_CORRUPT) when its state file is
   damaged or of another version. */
VTFLTSIM_API DWORD WINAPI VTFltSimOpen(LPCWSTR directory, VTFLTSIM_MACHINE* machine);

/* Closes the caller's handle; the machine itself stays. An attached machine is detached first. */
VTFLTSIM_API DWORD WINAPI VTFltSimClose(VTFLTSIM_MACHINE machine);

/* Removes a machine and its registry: in the directory machine.bin, volumes, snapshots, CBTDriver and vtbackup, the
   notes of that program; and the directory itself when nothing else is in it. No process may have it open. Of a
   damaged machine the registry stays. 1392, and nothing is removed, when machine.bin is not a machine's. */
VTFLTSIM_API DWORD WINAPI VTFltSimDestroy(LPCWSTR directory);

/* Restarts the machine: a driver that waited for a restart (utility result 3010, older generation) becomes
   the working one, and VTFlt stands behind volsnap again; snapshots are gone, no snapshot is prepared. Change bits
   survive, as a clean shutdown keeps them. */
VTFLTSIM_API DWORD WINAPI VTFltSimReboot(VTFLTSIM_MACHINE machine);

/* ==== Volumes ========================================================================================== */

typedef struct VTFLTSIM_VOLUME_CONFIG {
    DWORD size;        /* sizeof(VTFLTSIM_VOLUME_CONFIG) */
    DWORD blockSize;   /* tracking block size in bytes; 0: 65536 */
    ULONGLONG length;  /* bytes, above 0; up to 2^31 blocks */
    DWORD driveType;   /* a DRIVE_* value; 0: DRIVE_FIXED */
    LPCWSTR guid;      /* {...}, or NULL: made up */
    LPCWSTR mountPath; /* such as E:\, or NULL: not mounted */
} VTFLTSIM_VOLUME_CONFIG;

/* Adds a volume, all zero, tracked from its start when the driver works. Its GUID goes to guid. */
VTFLTSIM_API DWORD WINAPI VTFltSimAddVolume(VTFLTSIM_MACHINE machine, const VTFLTSIM_VOLUME_CONFIG* config,
                                            WCHAR guid[VTFLTSIM_GUID_CHARS]);
VTFLTSIM_API DWORD WINAPI VTFltSimRemoveVolume(VTFLTSIM_MACHINE machine, LPCWSTR volume);

typedef struct VTFLTSIM_VOLUME_INFO {
    DWORD size; /* sizeof(VTFLTSIM_VOLUME_INFO), set by the caller */
    WCHAR guid[VTFLTSIM_GUID_CHARS];
    WCHAR devicePath[VTFLTSIM_DEVICE_CHARS]; /* \\?\Volume{...} without a trailing backslash */
    WCHAR mountPath[MAX_PATH];               /* the first one, or empty; empty too when it does not fit */
    WCHAR filesDirectory[MAX_PATH]; /* the real folder of the files on the volume; empty when it does not fit */
    ULONGLONG length;
    DWORD blockSize;
    DWORD driveType;
    DWORD tracked;             /* 1: writes set change bits */
    DWORD prepared;            /* 1: a snapshot was announced and not yet taken */
    DWORD bitmapBytes;         /* bytes of a change bitmap, without the 16 bytes of header */
    ULONGLONG currentBlocks;   /* set bits: since the last snapshot, */
    ULONGLONG frozenBlocks;    /* closed by a snapshot and not yet fetched, */
    ULONGLONG pendingBlocks;   /* fetched and not yet confirmed */
    ULONGLONG allocatedChunks; /* chunks of VTFLTSIM_CHUNK bytes ever written */
} VTFLTSIM_VOLUME_INFO;

VTFLTSIM_API DWORD WINAPI VTFltSimGetVolumeInfo(VTFLTSIM_MACHINE machine, LPCWSTR volume, VTFLTSIM_VOLUME_INFO* info);
/* The volume at a position from 0, in order of addition; 259 (ERROR_NO_MORE_ITEMS) behind the last. */
VTFLTSIM_API DWORD WINAPI VTFltSimEnumVolume(VTFLTSIM_MACHINE machine, DWORD index, VTFLTSIM_VOLUME_INFO* info);

/* Writes to the volume as any program on the machine would: sets change bits, keeps snapshots as they were.
   27 (ERROR_SECTOR_NOT_FOUND) when the range leaves the volume; nothing is written then. */
VTFLTSIM_API DWORD WINAPI VTFltSimWriteVolume(VTFLTSIM_MACHINE machine, LPCWSTR volume, ULONGLONG offset,
                                              const void* data, DWORD length);
/* Reads; 27 when the range leaves the volume. */
VTFLTSIM_API DWORD WINAPI VTFltSimReadVolume(VTFLTSIM_MACHINE machine, LPCWSTR volume, ULONGLONG offset, void* data,
                                             DWORD length);

/* Changes the length. Bits are kept; new blocks start clear and hold zeros. A shrink lists the volume for resync, since
   the bits behind the new end go with it. Snapshots keep their own length. 87 for a length that VTFltSimAddVolume
   would refuse. */
VTFLTSIM_API DWORD WINAPI VTFltSimResizeVolume(VTFLTSIM_MACHINE machine, LPCWSTR volume, ULONGLONG length);
/* Changes the tracking block size: the driver forgets its bits and lists the volume for resync. */
VTFLTSIM_API DWORD WINAPI VTFltSimSetBlockSize(VTFLTSIM_MACHINE machine, LPCWSTR volume, DWORD blockSize);
/* The driver loses track of the volume (a crash, a write that passed it by): it forgets its bits and lists
   the volume for resync. Tracking goes on from here. */
VTFLTSIM_API DWORD WINAPI VTFltSimLoseTracking(VTFLTSIM_MACHINE machine, LPCWSTR volume);
/* Tracks a volume again that a stop request had taken out, and lists it for resync. */
VTFLTSIM_API DWORD WINAPI VTFltSimStartTracking(VTFLTSIM_MACHINE machine, LPCWSTR volume);

VTFLTSIM_API DWORD WINAPI VTFltSimSetDriveType(VTFLTSIM_MACHINE machine, LPCWSTR volume, DWORD driveType);
/* paths: a double-NUL-ended list, or NULL for none; up to 1023 units in all. */
VTFLTSIM_API DWORD WINAPI VTFltSimSetMountPaths(VTFLTSIM_MACHINE machine, LPCWSTR volume, LPCWSTR paths);
/* The name that volume enumeration gives for the volume, malformed as it may be; NULL: the right one. */
VTFLTSIM_API DWORD WINAPI VTFltSimSetEnumerationName(VTFLTSIM_MACHINE machine, LPCWSTR volume, LPCWSTR name);
/* The n-th step of every volume enumeration fails with this error: 1 is FindFirstVolumeW, 2 the first
   FindNextVolumeW. Step 0 ends the fault. 87 for another step and error 0: a walk always says why it fails. */
VTFLTSIM_API DWORD WINAPI VTFltSimSetEnumerationFault(VTFLTSIM_MACHINE machine, DWORD step, DWORD error);

#define VTFLTSIM_BITS_CURRENT 0u
#define VTFLTSIM_BITS_FROZEN 1u
#define VTFLTSIM_BITS_PENDING 2u
#define VTFLTSIM_BITS_ALL 3u       /* the three together */
#define VTFLTSIM_BITS_ALLOCATED 4u /* one bit per VTFLTSIM_CHUNK ever written */
/* Copies one of the volume's bitmaps (block k: byte k / 8, mask 0x80 >> k % 8) and changes nothing. *needed
   (may be NULL) receives the bitmap's bytes. 234 when the buffer is too short. */
VTFLTSIM_API DWORD WINAPI VTFltSimGetBits(VTFLTSIM_MACHINE machine, LPCWSTR volume, DWORD which, void* bits,
                                          DWORD length, DWORD* needed);

/* ==== Snapshots ======================================================================================== */

typedef struct VTFLTSIM_SNAPSHOT_INFO {
    DWORD size;                              /* sizeof(VTFLTSIM_SNAPSHOT_INFO), set by the caller */
    DWORD number;                            /* the N of HarddiskVolumeShadowCopyN */
    WCHAR devicePath[VTFLTSIM_DEVICE_CHARS]; /* \\?\GLOBALROOT\Device\HarddiskVolumeShadowCopyN */
    WCHAR volumeGuid[VTFLTSIM_GUID_CHARS];
    ULONGLONG length;
    DWORD blockSize;
    DWORD tracked;           /* 1: the snapshot class listed the filter when the snapshot was taken */
    ULONGLONG writtenBlocks; /* blocks written into the snapshot itself */
} VTFLTSIM_SNAPSHOT_INFO;

/* Takes a snapshot of a volume at this instant. When a snapshot was prepared, this closes the driver's
   epoch: what was written before belongs to it, what is written later to the next one. info may be NULL. */
VTFLTSIM_API DWORD WINAPI VTFltSimCreateSnapshot(VTFLTSIM_MACHINE machine, LPCWSTR volume, DWORD* number,
                                                 VTFLTSIM_SNAPSHOT_INFO* info);
VTFLTSIM_API DWORD WINAPI VTFltSimDeleteSnapshot(VTFLTSIM_MACHINE machine, DWORD number);
VTFLTSIM_API DWORD WINAPI VTFltSimGetSnapshotInfo(VTFLTSIM_MACHINE machine, DWORD number, VTFLTSIM_SNAPSHOT_INFO* info);
/* The snapshot at a position from 0; 259 behind the last. */
VTFLTSIM_API DWORD WINAPI VTFltSimEnumSnapshot(VTFLTSIM_MACHINE machine, DWORD index, VTFLTSIM_SNAPSHOT_INFO* info);
VTFLTSIM_API DWORD WINAPI VTFltSimWriteSnapshot(VTFLTSIM_MACHINE machine, DWORD number, ULONGLONG offset,
                                                const void* data, DWORD length);
VTFLTSIM_API DWORD WINAPI VTFltSimReadSnapshot(VTFLTSIM_MACHINE machine, DWORD number, ULONGLONG offset, void* data,
                                               DWORD length);

/* ==== Driver, filters, service, utility ================================================================ */

#define VTFLTSIM_DRIVER_WORKING 0u
#define VTFLTSIM_DRIVER_ABSENT 1u /* no control device, requests fail with 1, writes are not seen */
#define VTFLTSIM_DRIVER_OLDER 2u  /* answers requests on volumes, fails the probe on the control device with 1 */
/* A driver that comes back lists every volume that was written while it was away for resync, before it answers. While
   it is away, the probe on a control device that was opened before fails with 55. */
VTFLTSIM_API DWORD WINAPI VTFltSimSetDriverState(VTFLTSIM_MACHINE machine, DWORD state);
VTFLTSIM_API DWORD WINAPI VTFltSimGetDriverState(VTFLTSIM_MACHINE machine, DWORD* state);

/* Sets UpperFilters of a device class (NULL: the volume class) to a double-NUL-ended list; filters NULL
   removes the value. Those of the volume class are there to be read: what the driver watches does not depend on
   them. */
VTFLTSIM_API DWORD WINAPI VTFltSimSetUpperFilters(VTFLTSIM_MACHINE machine, LPCWSTR classKeyPath, LPCWSTR filters);

/* Opens or makes a key of the machine's HKEY_LOCAL_MACHINE with the real registry functions; the caller closes
   it with RegCloseKey. An empty path is the root. */
VTFLTSIM_API DWORD WINAPI VTFltSimOpenKey(VTFLTSIM_MACHINE machine, LPCWSTR subKey, REGSAM access, HKEY* key);
/* Removes the whole registry of the machine and puts a new machine's settings in its place. */
VTFLTSIM_API DWORD WINAPI VTFltSimResetRegistry(VTFLTSIM_MACHINE machine);

#define VTFLTSIM_SERVICE_PRESENT 0u
#define VTFLTSIM_SERVICE_ABSENT 1u          /* opening it fails with 1060 */
#define VTFLTSIM_SERVICE_REFUSED 2u         /* opening it fails with 5 */
#define VTFLTSIM_SERVICE_MANAGER_REFUSED 3u /* the service control manager does not open: 5 */
VTFLTSIM_API DWORD WINAPI VTFltSimSetService(VTFLTSIM_MACHINE machine, DWORD state);

typedef struct VTFLTSIM_UTILITY {
    DWORD size;          /* sizeof(VTFLTSIM_UTILITY) */
    DWORD launchError;   /* not 0: the utility does not start, with this error */
    DWORD uninstallExit; /* exit code of -r. 0 takes the driver and its filter entry away */
    DWORD installExit;   /* exit code of -i. 0: the driver works and its filter entry stands behind volsnap, at
                            once; 3010: after VTFltSimReboot; else nothing changes */
    DWORD hangs;         /* bit 0: -r never ends, bit 1: -i never ends; a wait for it times out at once */
} VTFLTSIM_UTILITY;
/* How VTFltUtl.exe behaves when an attached module starts it; at first it succeeds. */
VTFLTSIM_API DWORD WINAPI VTFltSimSetUtility(VTFLTSIM_MACHINE machine, const VTFLTSIM_UTILITY* utility);
/* The command line of the index-th start (from 0) since the machine was made, up to the last 64; 259 behind the
   last. */
VTFLTSIM_API DWORD WINAPI VTFltSimGetUtilityCommand(VTFLTSIM_MACHINE machine, DWORD index, LPWSTR text,
                                                    DWORD characters);

/* ==== Faults of the driver, for all processes ========================================================== */

#define VTFLTSIM_ENDPOINT_ANY NULL
#define VTFLTSIM_ENDPOINT_CONTROL L"\\\\.\\VTFltMgr"

/* The nth (from 1) request of this code from now on, and the count - 1 requests after it (count 0: all after
   it), fail with this error and do nothing; error 0: DeviceIoControl gives FALSE and leaves the last error as it is.
   endpoint: a volume, a snapshot's device path, the control device, or any. Requests of every process count. code may be
   IOCTL_DISK_GET_LENGTH_INFO. */
VTFLTSIM_API DWORD WINAPI VTFltSimFailRequest(VTFLTSIM_MACHINE machine, DWORD code, LPCWSTR endpoint, DWORD nth,
                                              DWORD count, DWORD error);
/* The same requests succeed with this reply (up to 1024 bytes) instead of the driver's own: a block size of 0, say. */
VTFLTSIM_API DWORD WINAPI VTFltSimForgeReply(VTFLTSIM_MACHINE machine, DWORD code, LPCWSTR endpoint, DWORD nth,
                                             DWORD count, const void* reply, DWORD length);
/* Ends all faults of requests and of the enumeration. */
VTFLTSIM_API DWORD WINAPI VTFltSimClearFaults(VTFLTSIM_MACHINE machine);

/* ==== In this process: attaching ======================================================================= */

/* Redirects the imports of a loaded module (NULL: the program itself) to this machine. A process serves one
   machine at a time: 170 (ERROR_BUSY) when it is attached to another, which a copy of its directory is, too.
   Attaching a module twice is no error.
   Only imports bound by the loader are redirected, not addresses from GetProcAddress; the call of GetProcAddress itself
   is, so that it can give another function's address. */
VTFLTSIM_API DWORD WINAPI VTFltSimAttachModule(VTFLTSIM_MACHINE machine, HMODULE module);
/* Gives every module its imports back and forgets simulated handles, counts, faults and the trace of this
   process. No attached module may be in a redirected call. */
VTFLTSIM_API DWORD WINAPI VTFltSimDetach(void);
/* Gives one module its imports back; needed before a module is unloaded and loaded again. */
VTFLTSIM_API DWORD WINAPI VTFltSimDetachModule(HMODULE module);

/* Attaches every module of this process that is not the system's to the machine in a directory (an LPCWSTR), and from now
   on every one that is loaded; what they look up with GetProcAddress is redirected, too. For the rest of the process's
   life. Of the shape of a thread's function, for a program that loads this DLL into another one. */
VTFLTSIM_API DWORD WINAPI VTFltSimAttachThisProcess(void* directory);
/* Starts an unmodified program, whose process does that before the program's own code begins. DLLs that the program is
   linked with have been loaded by then: what their DllMain does, it does on the real system. What the program starts
   itself runs outside of the machine. The program has this one's standard handles. Close both handles of process. suspended: its main thread
   waits for ResumeThread. 2 or 1392 when the directory holds no machine that can be opened; then, and after any other
   error, nothing runs. */
VTFLTSIM_API DWORD WINAPI VTFltSimStartProgram(LPCWSTR directory, LPCWSTR commandLine, DWORD suspended,
                                               PROCESS_INFORMATION* process);

/* ==== In this process: faults of calls ================================================================= */

/* Functions are named as they are imported, such as L"RegSetValueExW". "match" narrows a fault to calls whose
   trace text contains it (case-sensitive; NULL: any), such as part of a path, a value name or a mutex name. */

/* What a fault does. error becomes the last error, or the result of a registry function. */
#define VTFLTSIM_CALL_FAILS 0u        /* gives the function's own failure value */
#define VTFLTSIM_CALL_RETURNS 1u      /* gives value; nothing is done */
#define VTFLTSIM_CALL_SHORT 2u        /* ReadFile, WriteFile: value bytes at most are moved, the call succeeds */
#define VTFLTSIM_CALL_KILLS_BEFORE 3u /* the process ends with exit code VTFLTSIM_KILLED, before the call */
#define VTFLTSIM_CALL_KILLS_AFTER 4u  /* the same, after the call was done */
#define VTFLTSIM_CALL_FAILS_AFTER 5u  /* done, then reported as failed; not for calls that give handles */
#define VTFLTSIM_KILLED 0x516Bu

typedef struct VTFLTSIM_CALL_FAULT {
    DWORD size; /* sizeof(VTFLTSIM_CALL_FAULT) */
    DWORD what; /* VTFLTSIM_CALL_* */
    LPCWSTR function;
    LPCWSTR match;
    DWORD nth;   /* from 1, counted from now; 0 means 1 */
    DWORD count; /* how many calls from there on; 0: all */
    DWORD error;
    DWORD reserved;
    ULONGLONG value;
} VTFLTSIM_CALL_FAULT;

/* Adds a fault. 127 (ERROR_PROC_NOT_FOUND) for a function that is not redirected. The function L"*" stands for every
   redirected function, but for those that allocate memory; a fault for it that refuses does not refuse to close or
   release what is held. A fault of malloc and its kin strikes the modules that import the same function as the one
   that was attached first: those of one C run-time. */
VTFLTSIM_API DWORD WINAPI VTFltSimSetCallFault(const VTFLTSIM_CALL_FAULT* fault);
/* The plain case: the nth matching call and the count - 1 after it fail with error. */
VTFLTSIM_API DWORD WINAPI VTFltSimFailCall(LPCWSTR function, LPCWSTR match, DWORD nth, DWORD count, DWORD error);
/* Ends all faults and hooks of calls in this process. */
VTFLTSIM_API DWORD WINAPI VTFltSimClearCallFaults(void);
/* How often faults of calls have struck since the last VTFltSimClearCallFaults. */
VTFLTSIM_API DWORD WINAPI VTFltSimGetCallFaultHits(void);

/* Called before the nth matching call (count as above), on the calling thread, with no simulator lock held. It
   may sleep, wait, end the process, or use any simulator function; calls that it makes itself trigger no
   callback. */
typedef void(WINAPI* VTFLTSIM_CALLBACK)(void* context, LPCWSTR function, LPCWSTR text);
VTFLTSIM_API DWORD WINAPI VTFltSimCallBefore(LPCWSTR function, LPCWSTR match, DWORD nth, DWORD count,
                                             VTFLTSIM_CALLBACK callback, void* context);

/*
 * The same for a child process, through its environment, read when its first module is attached. Items are
 * separated by semicolons, fields by bars; the match may be left empty, and fields from the end left out:
 *
 *     VTFLTSIM_CALLS = fail|WriteFile|_child_|2|1|112;kill-before|RegSetValueExW|RegisteredAppIDs|1
 *
 * Words: fail (function|match|nth|count|error), return (...|error|value), short (...|0|value), kill-before,
 * kill-after (function|match|nth), pause (function|match|nth|event): signals the named event event.reached and
 * waits for the event event.go, both made by the parent.
 */
#define VTFLTSIM_CALLS_VARIABLE L"VTFLTSIM_CALLS"

/* ==== In this process: observation ===================================================================== */

/* Calls of a function by attached modules since attaching or VTFltSimResetCounts. 0 for unknown functions. */
VTFLTSIM_API DWORD WINAPI VTFltSimGetCallCount(LPCWSTR function);
VTFLTSIM_API DWORD WINAPI VTFltSimResetCounts(void);

/* Starts (1) or ends (0) the recording of calls and driver requests; starting empties both lists. Memory
   functions are never recorded. */
VTFLTSIM_API DWORD WINAPI VTFltSimRecord(DWORD on);
/* One recorded call, in order from 0: "Name text", such as "RegSetValueExW SOFTWARE\...|RegisteredAppIDs",
   "CreateMutexW VTBitmapManager...", "DeviceIoControl \\?\Volume{...}|0xB0000002|in 0|out 64". Longer text is
   cut at the buffer. 259 behind the last. */
VTFLTSIM_API DWORD WINAPI VTFltSimGetTrace(DWORD index, LPWSTR text, DWORD characters);
/* The place of that call: the address behind it in the module that made it, the same for every call from there.
   Null when it could not be found. */
VTFLTSIM_API DWORD WINAPI VTFltSimGetTraceSite(DWORD index, LPCVOID* site);

typedef struct VTFLTSIM_REQUEST {
    DWORD size; /* sizeof(VTFLTSIM_REQUEST), set by the caller */
    DWORD code;
    WCHAR endpoint[VTFLTSIM_DEVICE_CHARS]; /* device path as in VTFLTSIM_VOLUME_INFO, or the control device */
    DWORD inputLength;
    DWORD outputLength;
    DWORD bytesReturned;
    DWORD status;     /* 0, or the error */
    BYTE input[640];  /* the first bytes of the input */
    BYTE output[640]; /* the first bytes of the output buffer behind the request */
} VTFLTSIM_REQUEST;
/* One recorded driver request of this process, in order from 0. 259 behind the last. */
VTFLTSIM_API DWORD WINAPI VTFltSimGetRequest(DWORD index, VTFLTSIM_REQUEST* request);

#define VTFLTSIM_OPEN_FILES 0u           /* files and devices */
#define VTFLTSIM_OPEN_KEYS 1u            /* registry keys */
#define VTFLTSIM_OPEN_MUTEXES 2u         /* mutex handles */
#define VTFLTSIM_OPEN_SEARCHES 3u        /* file searches */
#define VTFLTSIM_OPEN_VOLUME_SEARCHES 4u /* volume searches */
#define VTFLTSIM_OPEN_SERVICES 5u        /* service and service manager handles */
#define VTFLTSIM_OPEN_PROCESSES 6u       /* process and thread handles of started programs */
#define VTFLTSIM_OPEN_OTHERS 7u          /* events and file mappings */
#define VTFLTSIM_OWNED_MUTEXES 8u        /* successful waits minus releases */
#define VTFLTSIM_FAILED_CLOSES 9u        /* closes that the system refused */
#define VTFLTSIM_OPEN_KINDS 10u
/* What attached modules opened since attaching and have not closed, by kind. */
VTFLTSIM_API DWORD WINAPI VTFltSimGetOpenCount(DWORD kind);
/* What an open one was opened as, for a failing test's message: kinds 0 to 7, index from 0; 259 behind the last. */
VTFLTSIM_API DWORD WINAPI VTFltSimGetOpenText(DWORD kind, DWORD index, LPWSTR text, DWORD characters);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VTFLTSIM_VTFLTSIM_H */
