/*
 * VTFltMgr.h - the exported interface of VTFltMgr.dll
 *
 * VTFltMgr keeps, for every volume and every registered backup application, the set of blocks that
 * changed since that application's last backup, as seen by the volume filter driver VTFlt.
 *
 * The order of the calls in one backup of one volume. It shows no error handling and is no program to copy: any failure
 * ends the backup without a report of success. samples/ has whole programs; docs/library.md has the rules and their reasons.
 *
 *     VTCanAppUseBLIDriver(app);                       // 0: see VTRegisterApplication
 *     VTReplicateVerifyList(app);                      // collect the volumes that lost tracking
 *     VTCanBLIDriverWork();                            // 0: the driver was silent, and nothing may have been collected
 *     VTReplicateVerifyList(app);                      // again: what a silence made the first one miss
 *     verify = VTIsVerifyRequired(app, volume);        // 1: read the whole volume this time
 *     h = CreateFileW(volume without its trailing backslash, ...);
 *     VTFltInitBitmapManager(h, volume, app);
 *     VTFltGetBlockSize(h, &blockSize, 0);             // it or the volume's length changed: read the whole volume
 *     VTFltPrepareForSnapshot(h);
 *     ... take the snapshot ...
 *     VTFltGetBitmap(h, in, inLength, out, outLength, &size, 0);  // 0x10001: read the whole volume
 *     VTReplicateVerifyList(app);                      // once more: tracking may have been lost since the first time
 *     VTCanBLIDriverWork();                            // 0: as if VTIsVerifyRequired gave 1
 *     VTReplicateVerifyList(app);
 *     VTIsVerifyRequired(app, volume);                 // 1: read the whole volume now and next time
 *     VTFltGetBlockSize(h, &blockSize, 0);             // it or the length changed: read the whole volume now and next time
 *     ... copy the changed blocks (or everything) from the snapshot, make the copy durable ...
 *     VTFltSynSnapshotChangeBitmapToVolume(h, changes, length);   // what the snapshot itself changed
 *     VTFltReplicationSuccess(h);                      // only now may the changes be forgotten
 *     VTFltDeinitBitmapManager(h);
 *
 * Conventions
 *   - Strings are UTF-16 and zero-terminated; the library copies what it keeps.
 *   - Results are 32-bit. 0 is success; other values are Windows error codes or the VTFLT_* codes
 *     below, unless the function says otherwise.
 *   - No exception leaves an export; memory that cannot be had is answered with 8
 *     (ERROR_NOT_ENOUGH_MEMORY) where nothing else is said.
 *   - The library starts no threads. Work on one volume is serialised across threads, and across the processes of one
 *     Windows session (services have a session of their own), by named mutexes. Each is waited for up to 30 minutes; then
 *     the work goes on without it. No mutex spans the steps of a backup: keep other backups of the volume away yourself.
 *   - The table of volume handles has no lock: do not run VTFltInitBitmapManager or VTFltDeinitBitmapManager on one thread
 *     while another thread of the process is in any function that takes a volume handle (but for one that is told to go
 *     straight to the driver). Functions on different, already initialised handles may run at the same time, and so may all
 *     functions that take no volume handle.
 *   - Functions that are called *gated* below first ask what VTCanBLIDriverWork asks. They may therefore reinstall the
 *     driver and take as long as that, and they answer without doing anything when the driver does not work.
 *   - A volume handle belongs to the caller: the library never closes it. 0 and INVALID_HANDLE_VALUE
 *     are answered with 87 (ERROR_INVALID_PARAMETER).
 *   - A null string is answered like an empty one unless the function says otherwise.
 */
#ifndef VTFLTMGR_VTFLTMGR_H
#define VTFLTMGR_VTFLTMGR_H

#include <windows.h>

#if defined(VTFLTMGR_BUILD)
#define VTFLTMGR_API
#else
#define VTFLTMGR_API __declspec(dllimport)
#endif

/* The library's own result codes, beside the Windows error codes. */

/* The operation completed, but the bitmap may be short: read and compare the whole volume now. Of
   VTFltSynSnapshotChangeBitmapToVolume: the changes were not recorded; report no success. */
#define VTFLT_VERIFY_REQUIRED 0x10001u
/* The bitmap manager does not handle the control code. No export gives this. */
#define VTFLT_INVALID_CONTROL_CODE 0x10002u
/* A bitmap was asked for without an output buffer. */
#define VTFLT_NO_OUTPUT_BUFFER 0x10003u
/* The volume handle is null or INVALID_HANDLE_VALUE. */
#define VTFLT_INVALID_VOLUME_HANDLE 0x10004u
/* A named mutex could not be created or waited for. */
#define VTFLT_MUTEX_ACCESS 0x10005u
/* No application is registered. */
#define VTFLT_NO_APPLICATION 0x10007u
/* The list of registered applications could not be read. */
#define VTFLT_APP_LIST_FAILED 0x10008u
/* The application is not registered. */
#define VTFLT_APP_NOT_REGISTERED 0x10009u
/* A general failure. */
#define VTFLT_FAILED 0xFFFFFFFFu

/* The get-bitmap buffer starts with this many bytes of header (two 64-bit words); block k of the volume is
   byte VTFLT_BITMAP_HEADER_BYTES + k / 8, mask 0x80 >> (k % 8). Header words mean something only after the
   results 0, 122 and 234. */
#define VTFLT_BITMAP_HEADER_BYTES 16u

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Volume handles ------------------------------------------------------------------------------- */

/*
 * Makes the bitmap manager of one volume for one application and files it under the volume handle.
 *
 *   volume         the caller's open volume; it must stay open until VTFltDeinitBitmapManager
 *   volumeName     volume GUID path, \\?\Volume{...}\ (the trailing backslash may be missing), letter by letter as the
 *                  system spells it (FindFirstVolumeW, GetVolumeNameForVolumeMountPointW). The volume's mutex and the
 *                  verify lists know letter case: under another spelling the calls succeed, other programs are not
 *                  excluded, and the volume's mark is not taken off. A path that names no volume, such as V:\ or
 *                  C:\mount, may leave nothing that a list can name, and then no mark is set either
 *   applicationId  a registered application, compared exactly
 *
 * The manager serves the applications that are registered now: changes fetched through it reach no application that
 * registers later. Use one manager per backup and do not keep it. Not while another thread is in a function that takes a
 * volume handle (see the conventions).
 *
 * Results: 0; 87 (bad handle, empty name or ID); 0x10007; 0x10008; 0x10009; 8; 0xFFFFFFFF.
 * A handle that already has a manager keeps it, and the result is 0. Handles are told apart by their values: release
 * the manager before the volume's handle is closed, or the system may give its value out for another volume, whose
 * changes the old volume's manager then takes. No two calls on one handle at the same time.
 */
VTFLTMGR_API DWORD WINAPI VTFltInitBitmapManager(HANDLE volume, LPCWSTR volumeName, LPCWSTR applicationId);

/*
 * Releases the manager of a volume handle. The volume handle stays open: it is the caller's. Not while another thread is
 * in a function that takes a volume handle (see the conventions).
 * Results: 0; 87 (bad or unknown handle).
 */
VTFLTMGR_API DWORD WINAPI VTFltDeinitBitmapManager(HANDLE volume);

/*
 * Asks the driver for the volume's tracking block size.
 *
 *   blockSize  receives the size in bytes
 *   direct     non-zero: ask the driver straight through the handle, which needs no manager;
 *              0: go through the handle's manager, under the volume's mutex
 *
 * Results: 0; 87 (bad or unknown handle, null blockSize); 0x10005; else the driver's error.
 */
VTFLTMGR_API DWORD WINAPI VTFltGetBlockSize(HANDLE volume, DWORD* blockSize, DWORD direct);

/*
 * Tells the driver that a snapshot of the volume is about to be taken. Call it right before the snapshot: the driver takes
 * the volume's first snapshot after this call for the announced one, also one that another program takes without a word.
 * What is written between that one and the application's own is missing in this backup; the next one has it. Announce each
 * attempt where a snapshot may take several (rule 19 in docs/library.md).
 *
 * From before this call to the report of success let nobody back up this volume, with whatever application or program: another
 * snapshot or fetch moves later writes into this bitmap (rule 3). Nor may this application back up another volume meanwhile:
 * the two overwrite each other's marks (rule 4).
 * Results: 0; 87 (bad or unknown handle); 0x10005; else the driver's error.
 */
VTFLTMGR_API DWORD WINAPI VTFltPrepareForSnapshot(HANDLE volume);

/*
 * Fetches the blocks that changed since the application's last reported success.
 *
 *   input, inputLength    passed to the driver untouched; input must not be null, even with length 0
 *   output, outputLength  receives a 16-byte header and the bitmap; must not be null. Its first bytes
 *                         must be zero, and its length exactly what the size negotiation asked for
 *   size                  may be null; receives a byte count, see below
 *   direct                non-zero: the driver's own bitmap of exactly this handle (a snapshot, say),
 *                         with no manager and no effect on any application's bitmaps; 0: through the manager
 *
 * Results
 *   0          *size bytes are valid, the second header word is the number of bits behind the header
 *   0x10001    *size bytes are valid but changes may be missing: read the whole volume now
 *   234, 122   the buffer is too small; *size is the length to supply. Nothing was moved: ask again
 *   87         bad or unknown handle, null input or output; also a missing bitmap of a volume that was named by a path
 *              such as V:\ or C:\mount, which no list can name. The application's bitmap files of the volume are then
 *              deleted, and this result stays until the application names the volume as the system does, or registers anew
 *   8, 0x10005, 0xFFFFFFFF, or an error of the driver, a bitmap file or the registry: no bitmap, and nothing was
 *              forgotten. End this backup without a report of success: the next one, with an announcement and a snapshot of
 *              its own, gets everything. Do not ask again for the same snapshot: the driver may have handed over what
 *              belongs to it, and would add what was written after it, which the snapshot does not show
 *
 * Fetch once for each announced snapshot. A second fetch of the same one succeeds, and has what was written after it, too.
 * The changes stay owed to the application until VTFltReplicationSuccess.
 */
VTFLTMGR_API DWORD WINAPI VTFltGetBitmap(HANDLE volume, LPVOID input, DWORD inputLength, LPVOID output,
                                         DWORD outputLength, DWORD* size, DWORD direct);

/*
 * Hands back the blocks that were written into the application's own snapshot, so that the application's
 * next backup contains them again.
 *
 *   input, inputLength  a bitmap laid out like the get-bitmap buffer, header bytes zero, and at least as
 *                       long as the one that VTFltGetBitmap gave: a shorter one is ignored with result 0
 *
 * Writes one line ("copy into ...") to the process's standard output.
 * Results: 0; 87 (bad or unknown handle, null input; also a missing bitmap of a volume that no list can name, as of
 * VTFltGetBitmap); 0x10001 (the bitmap was missing, the volume must verify); 0x10005; 8; else an error of a bitmap
 * file (0xFFFFFFFF when it has no other name) or the registry. After any result but 0 the changes are not recorded: do
 * not report success for this backup.
 */
VTFLTMGR_API DWORD WINAPI VTFltSynSnapshotChangeBitmapToVolume(HANDLE volume, LPVOID input, DWORD inputLength);

/*
 * Reports that the application's copy of the fetched blocks is complete and durable: the changes are
 * forgotten and the volume leaves the application's verify list.
 * Results: 0; 87 (bad or unknown handle); 0x10005; 0xFFFFFFFF (no bitmap was fetched through this
 * manager); else an error of the bitmap file. After a failure, or when nobody knows whether the call came through, keep the
 * copy as the last backup, or read the whole volume next: the changes come again, unless they were cleared on the disk
 * already. And after a verify backup the volume may have left the verify list already: verify again in any case. 0 is also
 * the answer when the volume could not be taken off the list: the next backup verifies once more.
 */
VTFLTMGR_API DWORD WINAPI VTFltReplicationSuccess(HANDLE volume);

/* ---- Applications and verify lists ----------------------------------------------------------------- */

/*
 * Registers an application and gives it fresh bitmaps on every fixed volume. Registering twice is no error
 * and changes nothing for as long as the list of applications still has the ID.
 *
 * IDs are compared exactly, but the names of the files that are named after them know no case: two IDs that are equal but
 * for case are two applications with the same files, which they clear for each other. So choose IDs that differ in more
 * than case, none of which is the tail of another one, contains "*" or ends in ".Last", and that have at most 179
 * characters. The paths of files are cut at 259 characters: IDs that agree in their first 184 share them, and so does one
 * of 180 with a longer one that goes on with ".dat". With more than 213 characters the names of its lists' mutexes are too
 * long, and what needs these fails (0x10005).
 *
 * Not to be called before each backup, "to be sure": when the list was lost or emptied meanwhile, this call
 * drops every change that was owed to the application and marks no volume, and what another application
 * fetched before it never reached this one. An incremental backup after that misses changes, and nothing says
 * so. (Only a list that cannot be read has every volume marked first.) So ask first, with VTCanAppUseBLIDriver.
 * An application that may have been registered before, and is not now, reads the whole of every volume at the next backup
 * of it. Either it notes that for itself, or it has the volumes marked before it registers: VTAddVolumesToAppVerifyList, which
 * needs no registration and marks the fixed volumes that are there. That answers 0 and marks nothing when the driver does not
 * work, which is also a reason why VTCanAppUseBLIDriver may have answered 0: call this only if VTCanBLIDriverWork
 * gives 1 and then VTIsVerifyRequired gives 1 for a fixed volume that has bitmap files and was not marked before, or for
 * every fixed volume that the application backs up. Of a volume that is not fixed, or was away, the next
 * backup reads everything in any case.
 *
 * An ID that is the tail of a registered one gets its bitmaps and the result 0, and does not get onto the list: look at
 * VTCanAppUseBLIDriver afterwards.
 *
 * Results: 0; 160 (empty ID); 0x10005; 161; 13 (a list is malformed); 87 (the list of applications cannot be read, and the
 * system names a volume that no verify list can name); else the error of a volume, a bitmap file (0xFFFFFFFF when it has no
 * other name) or the registry.
 */
VTFLTMGR_API DWORD WINAPI VTRegisterApplication(LPCWSTR applicationId);

/*
 * Unregisters an application and deletes its bitmaps on every fixed volume. Its verify list stays, naming
 * every volume.
 * Results: 0; 160 (empty ID); 0x10009 (not registered, or the list of applications could not be read); 0x10005; 13 (a list
 * is malformed); 87 (the system names a volume that no verify list can name); else an error of the volume walk or the
 * registry. After any failure the application is still registered.
 */
VTFLTMGR_API DWORD WINAPI VTUnregisterApplication(LPCWSTR applicationId);

/*
 * Counts the registered applications into *count (0 when none ever registered).
 * Results: 0; 87 (null count); else the registry's error, with *count unchanged.
 */
VTFLTMGR_API DWORD WINAPI VTGetRegisteredAppCount(DWORD* count);

/*
 * Moves the driver's list of volumes that lost tracking to the applications, and what is pending for this
 * application to its verify list. Call it before VTIsVerifyRequired. Gated.
 * Results: 0; 87 (empty ID); 0x10009 (not registered); 0x10005; 13 (a list is malformed); else the
 * registry's error. 0 is also the answer when the driver is not installed or not working, and then nothing was moved. So
 * call it twice, with VTCanBLIDriverWork giving 1 in between. To ask that afterwards does not tell: a driver that was silent
 * for one call answers the next.
 */
VTFLTMGR_API DWORD WINAPI VTReplicateVerifyList(LPCWSTR applicationId);

/*
 * Asks whether this application's next backup of the volume must read the whole volume. Gated.
 *   volume  volume GUID path, \\?\Volume{...}\ (the trailing backslash may be missing), letter by letter as the system
 *           spells it (see VTFltInitBitmapManager): under another spelling no entry of the list is found, and the
 *           answer is 0 for a volume that must be verified
 * Results: 1 yes (also when the driver does not work, when the list cannot be read, or for a null
 * argument); 0 no, or the volume is not on the list and its bitmap files could not be looked at: its mutex could not be
 * opened, a file is there and cannot be read, or memory is short. VTFltGetBitmap, which needs all three, then fails and
 * forgets nothing.
 */
VTFLTMGR_API DWORD WINAPI VTIsVerifyRequired(LPCWSTR applicationId, LPCWSTR volume);

/*
 * Puts every fixed volume that is there on the application's verify list. Gated.
 * Results: 0 (also when the driver is not installed or not working, and then nothing is marked); 87 (empty ID, or a
 * volume that no list can name: then none is marked); 0x10005; 13 (the list is malformed); else an error of the volume
 * walk or the registry.
 */
VTFLTMGR_API DWORD WINAPI VTAddVolumesToAppVerifyList(LPCWSTR applicationId);

/*
 * Says whether the driver works and the application is registered.
 * Results: 1 both; 0 otherwise, also for a null ID and when the list of applications cannot be read. May reinstall the
 * driver, see VTCanBLIDriverWork.
 */
VTFLTMGR_API DWORD WINAPI VTCanAppUseBLIDriver(LPCWSTR applicationId);

/* ---- The driver ------------------------------------------------------------------------------------ */

/*
 * Says whether the driver answers and sits correctly among the volume filters. When it does not, and its
 * service exists, the driver is reinstalled through its utility, which may take up to 20 minutes.
 * Results: 1 it works (perhaps since just now); 0 it does not.
 */
VTFLTMGR_API DWORD WINAPI VTCanBLIDriverWork(void);

/*
 * Asks for tracking of a device class (null: the class of volume snapshots) and counts the request. Gated.
 *   classKeyPath  class key below HKEY_LOCAL_MACHINE; a trailing backslash is allowed
 * Results: 0 (also when the driver does not work, and then nothing was counted: only SnapshotMonitorCount in the registry
 * tells, see docs/formats.md); 87 (empty path); 13 (the count is no number); 206 (the class's own name,
 * the path's last part, is too long); else an error of the mutex (0xFFFFFFFF when the wait for it fails) or the registry.
 * After a failure the count is as it was, or 0 where there was none; only if it could not be written back, either, is the
 * call counted although it failed. Waits without limit for other users of the same class.
 */
VTFLTMGR_API DWORD WINAPI VTFltEnableMonitorForSnapshot(LPCWSTR classKeyPath);

/*
 * Takes one request of VTFltEnableMonitorForSnapshot back; the last one ends the tracking of the class. Gated.
 * Results: as VTFltEnableMonitorForSnapshot; a class that was never enabled answers 0.
 */
VTFLTMGR_API DWORD WINAPI VTFltDisableMonitorForSnapshot(LPCWSTR classKeyPath);

/*
 * Ends the tracking of one volume and deletes the bitmap files of every application on it.
 *   volumePath  volume GUID path without a trailing backslash, as CreateFileW opens a volume
 * Results: 0; 87 (null path); 0x10005; 0xFFFFFFFF; else the error of the open, the request or the removal: 3 also when the
 * tracking was ended and the volume has no folder VelVolTrc. A folder that somebody made inside VelVolTrc ends the removal
 * there: the result may be 0 with bitmap files left. Files that are open elsewhere are left likewise, with an error.
 */
VTFLTMGR_API DWORD WINAPI VTFltStopMonitorVolume(LPCWSTR volumePath);

/*
 * Deletes the bitmap files of every application on every fixed volume; the driver is not told.
 * Results: 0; else the bitwise OR of the codes of all volumes that failed and of the volume walk. As of
 * VTFltStopMonitorVolume, files may be left with the result 0.
 */
VTFLTMGR_API DWORD WINAPI VTFltStopMonitorVolumes(void);

/*
 * Asks whether the driver tracks a device.
 * Results: 0 it does (and for a null name); 1 it does not, or nothing could be learned. Mind the sense.
 */
VTFLTMGR_API DWORD WINAPI VTIsDeviceMonitored(LPCWSTR deviceName);

#ifdef __cplusplus
} /* extern "C" */

#include <string>
#include <vector>

/*
 * The two exports below carry C++ types. Caller and library must be built with the same compiler, run-time
 * library and settings, since the caller's containers are filled and emptied by the library. The DLL of the package is
 * built by GCC with libstdc++: to programs on another standard library these two are not declared, and they need neither.
 * VTCanAppUseBLIDriver tells whether an application is registered. Who built the library with the compiler that the program
 * is built with defines VTFLTMGR_SAME_COMPILER.
 */
#if defined(__GLIBCXX__) || defined(VTFLTMGR_BUILD) || defined(VTFLTMGR_SAME_COMPILER)
extern "C" {

/*
 * Reads the registered application IDs, in the order of registration.
 *   list  owned by the caller; emptied first. After a failure it may hold some of the IDs
 * Results: 0 (with an empty list when none ever registered); 87 (null list); 8; else the registry's error.
 */
VTFLTMGR_API DWORD WINAPI VTGetRegisteredAppList(std::vector<std::wstring>* list);

/*
 * Takes volumes off an application's verify list. VTFltReplicationSuccess has done that for the volume whose backup it
 * reported. Call this only between a verify backup of the volumes and the next VTReplicateVerifyList, and while nobody adds to
 * the list: a mark that is newer than the backup is taken off as well.
 *   applicationId  consumed
 *   volumes        entries as the list holds them, {...}, compared exactly; owned by the caller, unchanged
 * Results: 0; 87 (empty ID, null volumes); 0x10009 (not registered); 0x10005; 13; else the registry's error.
 */
VTFLTMGR_API DWORD WINAPI VTRemoveApplicationVolResyncList(std::wstring applicationId,
                                                           std::vector<std::wstring>* volumes);

} /* extern "C" */
#endif /* __GLIBCXX__ || VTFLTMGR_BUILD || VTFLTMGR_SAME_COMPILER */
#endif /* __cplusplus */

#endif /* VTFLTMGR_VTFLTMGR_H */
