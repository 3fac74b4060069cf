/*
 * The smallest correct backup loop, in C: keeps FILE equal to a volume, reading only what changed.
 *
 *     backup_loop MACHINE VOLUME APPLICATION FILE
 *
 *   MACHINE      folder of a simulated machine (vtfltsim create); on a real one the snapshot comes from the system's
 *                snapshot service instead, and the lines marked "simulator" go
 *   VOLUME       {GUID}, in whatever letters
 *   APPLICATION  its ID; registered on the first run. This program does not see what else is registered: an ID that
 *                differs from another one in case only, or is too much like it otherwise (docs/library.md, rule 8),
 *                loses changes
 *   FILE         the copy, one for each volume and application; FILE.state beside it says what the next run must know.
 *                Put FILE back from anywhere, and FILE.state has to go
 *
 * Exit code 0: FILE is the volume as the snapshot has it. 1: it may not be: run it again, which reads whatever is missing.
 */
#include <vtfltmgr/VTFltMgr.h>
#include <vtfltsim/VTFltSim.h>
#include <winioctl.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

/* What one run leaves to the next. Without it, or when anything differs, everything is read. */
typedef struct State {
    ULONGLONG length;
    DWORD blockSize;
    DWORD everything;   /* the next run reads everything, whatever the bitmap says */
    wchar_t owner[320]; /* the volume and the application; the bitmap speaks of no other one's copy */
} State;

static int Fail(const wchar_t* what, DWORD error)
{
    fwprintf(stderr, L"%ls failed: %lu (0x%lX)\n", what, error, error);
    return 1;
}

/* Of a call that did not do what it should: never 0, not even when a write was cut short. */
static DWORD ErrorOfFailure(void)
{
    const DWORD error = GetLastError();
    return error != 0 ? error : ERROR_WRITE_FAULT;
}

/* The volume's name in the system's own letters: files know no case, but the lists and the names of mutexes do. */
static DWORD NameOf(const wchar_t* guid, wchar_t name[64])
{
    wchar_t given[64];
    if (_snwprintf(given, 63, L"\\\\?\\Volume%ls\\", guid) < 0)
        return ERROR_INVALID_NAME;
    given[63] = L'\0';
    return GetVolumeNameForVolumeMountPointW(given, name, 64) ? 0 : ErrorOfFailure();
}

static HANDLE OpenPath(const wchar_t* path, DWORD access, DWORD disposition)
{
    return CreateFileW(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE, NULL, disposition, FILE_ATTRIBUTE_NORMAL,
                       NULL);
}

static int ReadState(const wchar_t* path, State* state)
{
    DWORD bytes = 0;
    const HANDLE file = OpenPath(path, GENERIC_READ, OPEN_EXISTING);
    const BOOL read = file != INVALID_HANDLE_VALUE && ReadFile(file, state, sizeof(*state), &bytes, NULL);
    if (file != INVALID_HANDLE_VALUE)
        CloseHandle(file);
    return read && bytes == sizeof(*state);
}

static int WriteState(const wchar_t* path, const State* state)
{
    DWORD bytes = 0;
    const HANDLE file = OpenPath(path, GENERIC_WRITE, CREATE_ALWAYS);
    const BOOL written = file != INVALID_HANDLE_VALUE && WriteFile(file, state, sizeof(*state), &bytes, NULL) &&
                         bytes == sizeof(*state) && FlushFileBuffers(file);
    if (file != INVALID_HANDLE_VALUE)
        CloseHandle(file);
    return written;
}

/* Asks before it registers: an application that was on the list, and is not any more, has lost what was owed to it, and
   registering it again marks nothing. So the marks come first, for its other fixed volumes too; this one's FILE.state
   goes as well, for it may not be fixed. */
static DWORD Register(const wchar_t* application, const wchar_t* volumeName, const wchar_t* statePath)
{
    DWORD error = 0;
    if (VTCanAppUseBLIDriver(application))
        return 0;
    if (!DeleteFileW(statePath) && GetLastError() != ERROR_FILE_NOT_FOUND)
        return ErrorOfFailure();
    error = VTAddVolumesToAppVerifyList(application);
    /* While the driver does not answer, that is no error and marks nothing. Most volumes show it. */
    if (error == 0 && (!VTCanBLIDriverWork() ||
                       (GetDriveTypeW(volumeName) == DRIVE_FIXED && !VTIsVerifyRequired(application, volumeName))))
        error = ERROR_NOT_READY;
    if (error == 0)
        error = VTRegisterApplication(application);
    /* That is no error for the tail of another ID, either, and does not register it. */
    return error != 0 || VTCanAppUseBLIDriver(application) ? error : VTFLT_APP_NOT_REGISTERED;
}

/* Whether everything is to be read. The driver's list reaches the application by VTReplicateVerifyList only, which gives 0
   and nothing else while the driver is silent: so it is called twice, and the driver asked in between. */
static DWORD MustVerify(const wchar_t* application, const wchar_t* volumeName, DWORD* everything)
{
    DWORD error = VTReplicateVerifyList(application);
    if (error == ERROR_SUCCESS)
        error = VTCanBLIDriverWork() ? VTReplicateVerifyList(application) : ERROR_NOT_READY;
    if (error == ERROR_SUCCESS && VTIsVerifyRequired(application, volumeName) != 0)
        *everything = 1;
    return error;
}

static DWORD LengthOf(HANDLE device, ULONGLONG* length)
{
    DWORD bytes = 0;
    return DeviceIoControl(device, IOCTL_DISK_GET_LENGTH_INFO, NULL, 0, length, sizeof(*length), &bytes, NULL)
               ? 0
               : ErrorOfFailure();
}

/* The bitmap of changed blocks, of the volume's manager or (direct) of a snapshot itself; its exact length is the
   library's to say, and may change between two questions, but not for ever. free() it. */
static DWORD FetchBitmap(HANDLE device, BYTE** bitmap, DWORD* length, DWORD direct)
{
    BYTE input = 0;
    DWORD size = VTFLT_BITMAP_HEADER_BYTES;
    DWORD result = ERROR_MORE_DATA;
    int questions = 8;
    for (; questions > 0 && (result == ERROR_MORE_DATA || result == ERROR_INSUFFICIENT_BUFFER); --questions) {
        free(*bitmap);
        *length = size > VTFLT_BITMAP_HEADER_BYTES ? size : VTFLT_BITMAP_HEADER_BYTES;
        *bitmap = calloc(*length, 1);
        if (*bitmap == NULL)
            return ERROR_NOT_ENOUGH_MEMORY;
        result = VTFltGetBitmap(device, &input, 0, *bitmap, *length, &size, direct);
    }
    /* A bitmap shorter than was asked for says nothing of the rest. */
    return result == 0 && size != *length ? VTFLT_VERIFY_REQUIRED : result;
}

static int CopyBlock(HANDLE from, HANDLE to, ULONGLONG offset, DWORD count, BYTE* buffer)
{
    LARGE_INTEGER at;
    DWORD bytes = 0;
    at.QuadPart = (LONGLONG)offset;
    return SetFilePointerEx(from, at, NULL, FILE_BEGIN) && ReadFile(from, buffer, count, &bytes, NULL) &&
           bytes == count && SetFilePointerEx(to, at, NULL, FILE_BEGIN) && WriteFile(to, buffer, count, &bytes, NULL) &&
           bytes == count;
}

static int Copy(HANDLE snapshot, HANDLE file, const State* now, const BYTE* bitmap, DWORD everything)
{
    const ULONGLONG blocks = (now->length + now->blockSize - 1) / now->blockSize;
    ULONGLONG block = 0;
    ULONGLONG copied = 0;
    BYTE* const buffer = malloc(now->blockSize);
    LARGE_INTEGER end;
    int good = buffer != NULL;
    for (; good && block < blocks; ++block) {
        const ULONGLONG offset = block * now->blockSize;
        const ULONGLONG left = now->length - offset;
        if (!everything && (bitmap[VTFLT_BITMAP_HEADER_BYTES + block / 8] & 0x80 >> block % 8) == 0)
            continue;
        good = CopyBlock(snapshot, file, offset, left < now->blockSize ? (DWORD)left : now->blockSize, buffer);
        ++copied;
    }
    free(buffer);
    end.QuadPart = (LONGLONG)now->length;
    good = good && SetFilePointerEx(file, end, NULL, FILE_BEGIN) && SetEndOfFile(file) && FlushFileBuffers(file);
    wprintf(L"%llu of %llu blocks read%ls\n", copied, blocks, everything ? L" (everything)" : L"");
    return good;
}

/* Whether the driver tracks a snapshot: it refuses every question about one that it does not. */
static int IsTracked(HANDLE snapshot)
{
    DWORD blockSize = 0;
    const DWORD error = VTFltGetBlockSize(snapshot, &blockSize, 1);
    return error != ERROR_INVALID_FUNCTION && error != ERROR_NOT_SUPPORTED;
}

/* What was written into the snapshot itself is in the copy and not on the volume: the next bitmap must have it. It goes
   back in a buffer as long as the fetched bitmap, whose header is zero. tracked: whether the snapshot was, when it was
   taken. */
static DWORD HandBack(HANDLE volume, HANDLE snapshot, int tracked, DWORD blockSize, DWORD length)
{
    BYTE* written = NULL;
    BYTE* back = NULL;
    DWORD writtenLength = 0;
    DWORD writtenBlockSize = 0;
    DWORD i = VTFLT_BITMAP_HEADER_BYTES;
    DWORD error = 0;
    /* One question that is refused says nothing of the snapshot: somebody may have written into it. */
    if (IsTracked(snapshot) != tracked)
        return ERROR_INVALID_STATE;
    /* Snapshots are not tracked here, and this program only reads its own. A driver that is away answers so, too; then
       this fails as well. */
    if (!tracked)
        return VTFltGetBlockSize(volume, &writtenBlockSize, 0);
    back = calloc(length, 1);
    error = back == NULL ? ERROR_NOT_ENOUGH_MEMORY : FetchBitmap(snapshot, &written, &writtenLength, 1);
    if (error == 0) {
        while (i < writtenLength && written[i] == 0)
            ++i;
        if (i < writtenLength) {
            error = VTFltGetBlockSize(snapshot, &writtenBlockSize, 1);
            if (error == 0 && (writtenBlockSize != blockSize || writtenLength > length))
                error = ERROR_INVALID_DATA;
            if (error == 0) {
                memcpy(back + i, written + i, writtenLength - i);
                error = VTFltSynSnapshotChangeBitmapToVolume(volume, back, length);
            }
        }
    }
    free(written);
    free(back);
    return error;
}

/* From the fetch to the report. now: block size, and whose copy it is. everything: what was known before. */
static int BackUpFrom(HANDLE snapshot, HANDLE volume, const wchar_t* const* argv, const wchar_t* volumeName,
                      const wchar_t* statePath, State now, DWORD everything)
{
    State last = {0};
    State unfinished;
    BYTE* bitmap = NULL;
    DWORD length = 0;
    DWORD blockSize = 0;
    ULONGLONG volumeLength = 0;
    LARGE_INTEGER copySize = {0};
    HANDLE file = INVALID_HANDLE_VALUE;
    const wchar_t* what = L"VTFltGetBitmap";
    const int tracked = IsTracked(snapshot);

    DWORD error = FetchBitmap(volume, &bitmap, &length, 0);
    if (error == VTFLT_VERIFY_REQUIRED) {
        everything = 1;
        error = 0;
    }
    /* Tracking that was lost since the first question may have been lost behind the snapshot too: this run and the
       next one read everything, for this one's report takes the mark off. A run that reads everything anyway does not
       ask: what the driver lists from here on then stays in its list. */
    if (error == 0 && !everything) {
        what = L"VTReplicateVerifyList";
        error = MustVerify(argv[3], volumeName, &now.everything);
    }
    /* The bitmap of a volume whose length or block size changed since the snapshot may have dropped blocks of it. */
    if (error == 0) {
        what = L"asking for length and block size";
        error = LengthOf(snapshot, &now.length);
        error = error != 0 ? error : LengthOf(volume, &volumeLength);
        error = error != 0 ? error : VTFltGetBlockSize(volume, &blockSize, 0);
        if (blockSize != now.blockSize || volumeLength != now.length ||
            ((ULONGLONG)length - VTFLT_BITMAP_HEADER_BYTES) * 8 < (now.length + now.blockSize - 1) / now.blockSize)
            now.everything = 1;
    }
    /* It means nothing for a copy of another volume, application, length or block size. */
    unfinished = now;
    unfinished.everything = 1;
    last.everything = 1;
    everything |= now.everything || !ReadState(statePath, &last) || memcmp(&last, &now, sizeof(now)) != 0;
    if (error == 0) {
        what = L"opening the copy";
        file = OpenPath(argv[4], GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
        error = file == INVALID_HANDLE_VALUE ? GetLastError() : 0;
        everything |= !GetFileSizeEx(file, &copySize) || copySize.QuadPart != (LONGLONG)now.length;
    }

    /* Until a copy of everything is whole, FILE is nobody's, and no later run may take it for one. */
    if (error == 0) {
        what = L"copying";
        if ((everything && !WriteState(statePath, &unfinished)) || !Copy(snapshot, file, &now, bitmap, everything) ||
            /* Should one of the next steps fail, the mark of a run that read everything may be gone already. */
            !WriteState(statePath, &unfinished))
            error = ErrorOfFailure();
    }
    if (error == 0) {
        what = L"handing back what the snapshot changed";
        error = HandBack(volume, snapshot, tracked, now.blockSize, length);
    }
    /* Only now, that the copy is on the disk, may the changes be forgotten. */
    if (error == 0) {
        what = L"VTFltReplicationSuccess";
        error = VTFltReplicationSuccess(volume);
    }
    if (error == 0) {
        what = L"writing the state";
        error = WriteState(statePath, &now) ? 0 : ErrorOfFailure();
    }
    if (file != INVALID_HANDLE_VALUE)
        CloseHandle(file);
    free(bitmap);
    return error == 0 ? 0 : Fail(what, error);
}

/* Announces and takes the snapshot. */
static int BackUp(VTFLTSIM_MACHINE machine, HANDLE volume, const wchar_t* const* argv, const wchar_t* volumeName,
                  const wchar_t* statePath, DWORD everything)
{
    State now;
    VTFLTSIM_SNAPSHOT_INFO snapshotInfo = {0};
    HANDLE snapshot = INVALID_HANDLE_VALUE;
    DWORD number = 0;
    DWORD error = 0;
    int result = 1;
    memset(&now, 0, sizeof(now));
    if (_snwprintf(now.owner, 319, L"%ls %ls", volumeName, argv[3]) < 0)
        return Fail(L"the application's ID is too long: this", ERROR_INVALID_PARAMETER);
    /* Registering again marks fixed volumes only, and the run that does it may be another volume's. */
    now.everything = GetDriveTypeW(volumeName) != DRIVE_FIXED;
    error = VTFltGetBlockSize(volume, &now.blockSize, 0);
    if (error != 0 || now.blockSize == 0)
        return Fail(L"VTFltGetBlockSize", error);
    error = VTFltPrepareForSnapshot(volume);
    if (error != 0)
        return Fail(L"VTFltPrepareForSnapshot", error);
    snapshotInfo.size = sizeof(snapshotInfo);
    error = VTFltSimCreateSnapshot(machine, argv[2], &number, &snapshotInfo); /* simulator */
    if (error != 0)
        return Fail(L"taking a snapshot", error);
    snapshot = OpenPath(snapshotInfo.devicePath, GENERIC_READ, OPEN_EXISTING);
    if (snapshot == INVALID_HANDLE_VALUE) {
        Fail(L"opening the snapshot", GetLastError());
    } else {
        result = BackUpFrom(snapshot, volume, argv, volumeName, statePath, now, everything || now.everything);
        CloseHandle(snapshot);
    }
    error = VTFltSimDeleteSnapshot(machine, number); /* simulator */
    if (error != 0)
        Fail(L"deleting the snapshot, which changes nothing of the backup: this", error);
    return result;
}

static int Run(VTFLTSIM_MACHINE machine, const wchar_t* const* argv, const wchar_t* statePath)
{
    wchar_t device[64];
    wchar_t volumeName[64];
    HANDLE volume = INVALID_HANDLE_VALUE;
    DWORD everything = 0;
    DWORD error = 0;
    int result = 1;
    error = NameOf(argv[2], volumeName);
    if (error != 0)
        return Fail(L"finding the volume", error);
    wcscpy(device, volumeName);
    device[wcslen(device) - 1] = L'\0'; /* with the backslash it would be the root folder */
    if (!VTCanBLIDriverWork())
        return Fail(L"the driver does not work: VTCanBLIDriverWork", 0);
    error = Register(argv[3], volumeName, statePath);
    if (error != 0)
        return Fail(L"registering", error);
    error = MustVerify(argv[3], volumeName, &everything);
    if (error != 0)
        return Fail(L"VTReplicateVerifyList", error);
    volume = OpenPath(device, GENERIC_READ, OPEN_EXISTING);
    if (volume == INVALID_HANDLE_VALUE)
        return Fail(L"opening the volume", GetLastError());
    error = VTFltInitBitmapManager(volume, volumeName, argv[3]);
    if (error != 0) {
        Fail(L"VTFltInitBitmapManager", error);
    } else {
        result = BackUp(machine, volume, argv, volumeName, statePath, everything);
        VTFltDeinitBitmapManager(volume);
    }
    CloseHandle(volume);
    return result;
}

int wmain(int argc, wchar_t** argv)
{
    VTFLTSIM_MACHINE machine = NULL;
    wchar_t statePath[MAX_PATH];
    HANDLE lock = NULL;
    DWORD waited = 0;
    int result = 1;
    if (argc != 5 || wcslen(argv[4]) + wcslen(L".state") >= MAX_PATH) {
        fwprintf(stderr, L"usage: backup_loop MACHINE VOLUME APPLICATION FILE\n");
        return 2;
    }
    wcscpy(statePath, argv[4]);
    wcscat(statePath, L".state");
    /* One backup at a time, of whatever volume and application: two would take each other's changes and marks. */
    lock = CreateMutexW(NULL, FALSE, L"Global\\VTFltMgr.Sample.BackupLoop.Lock");
    waited = lock != NULL ? WaitForSingleObject(lock, 0) : WAIT_FAILED;
    if (waited != WAIT_OBJECT_0 && waited != WAIT_ABANDONED) {
        if (lock != NULL)
            CloseHandle(lock);
        return Fail(L"another backup runs: the lock", waited);
    }

    /* Simulator: this program's calls and the library's go to the simulated machine. */
    if (VTFltSimOpen(argv[1], &machine) != 0 || VTFltSimAttachModule(machine, GetModuleHandleW(L"VTFltMgr.dll")) != 0 ||
        VTFltSimAttachModule(machine, NULL) != 0)
        result = Fail(L"opening the simulated machine", ERROR_FILE_NOT_FOUND);
    else
        result = Run(machine, (const wchar_t* const*)argv, statePath);
    if (machine != NULL)
        VTFltSimClose(machine);
    ReleaseMutex(lock);
    CloseHandle(lock);
    return result;
}
