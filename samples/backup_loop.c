/*
 * The smallest correct backup loop, in C: keeps FILE equal to a volume, reading only what changed.
 *
 *     backup_loop MACHINE VOLUME APPLICATION FILE
 *
 *   MACHINE      folder of a simulated machine (vtfltsim create); on a real one the snapshot comes from the system's
 *                snapshot service instead, and the lines marked "simulator" go
 *   VOLUME       {GUID}
 *   APPLICATION  its ID; registered on the first run
 *   FILE         the copy; FILE.state beside it says what the next run must know
 *
 * Exit code 0: FILE is the volume as it was at the snapshot. 1: it is not, and nothing was forgotten: run it again.
 */
#include <vtfltmgr/VTFltMgr.h>
#include <vtfltsim/VTFltSim.h>

#include <stdio.h>
#include <stdlib.h>
#include <wchar.h>

/* What one run leaves to the next. Without it, or when anything differs, everything is read. */
typedef struct State {
    ULONGLONG length;
    DWORD blockSize;
    DWORD everything; /* the next run reads everything, whatever the bitmap says */
} State;

static int Fail(const wchar_t* what, DWORD error)
{
    fwprintf(stderr, L"%ls failed: %lu (0x%lX)\n", what, error, error);
    return 1;
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

/* Whether everything is to be read. The driver's list reaches the application by the first call only. */
static DWORD AskWhetherToVerify(const wchar_t* application, const wchar_t* volumeName, DWORD* everything)
{
    const DWORD error = VTReplicateVerifyList(application);
    if (error == ERROR_SUCCESS && VTIsVerifyRequired(application, volumeName) != 0)
        *everything = 1;
    return error;
}

/* The bitmap of changed blocks; its exact length is the library's to say. free() it. */
static DWORD FetchBitmap(HANDLE volume, BYTE** bitmap, DWORD* length)
{
    BYTE input = 0;
    DWORD result = ERROR_MORE_DATA;
    *length = VTFLT_BITMAP_HEADER_BYTES;
    *bitmap = NULL;
    while (result == ERROR_MORE_DATA || result == ERROR_INSUFFICIENT_BUFFER) {
        free(*bitmap);
        *bitmap = calloc(*length, 1);
        if (*bitmap == NULL)
            return ERROR_NOT_ENOUGH_MEMORY;
        result = VTFltGetBitmap(volume, &input, 0, *bitmap, *length, length, 0);
    }
    return result;
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

static int Copy(HANDLE snapshot, HANDLE file, const State* now, const BYTE* bitmap, DWORD length, DWORD everything)
{
    const ULONGLONG known = ((ULONGLONG)length - VTFLT_BITMAP_HEADER_BYTES) * 8;
    const ULONGLONG blocks = (now->length + now->blockSize - 1) / now->blockSize;
    ULONGLONG block = 0;
    ULONGLONG copied = 0;
    BYTE* const buffer = malloc(now->blockSize);
    LARGE_INTEGER end;
    int good = buffer != NULL;
    for (; good && block < blocks; ++block) {
        const ULONGLONG offset = block * now->blockSize;
        const ULONGLONG left = now->length - offset;
        const int changed = block >= known || (bitmap[VTFLT_BITMAP_HEADER_BYTES + block / 8] & 0x80 >> block % 8) != 0;
        if (!everything && !changed)
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

/* From the announcement to the report. everything: what was known before. */
static int BackUp(VTFLTSIM_MACHINE machine, HANDLE volume, const wchar_t* const* argv, const wchar_t* volumeName,
                  const wchar_t* statePath, DWORD everything)
{
    State last = {0};
    State now = {0};
    VTFLTSIM_SNAPSHOT_INFO snapshotInfo = {0};
    HANDLE snapshot = INVALID_HANDLE_VALUE;
    HANDLE file = INVALID_HANDLE_VALUE;
    BYTE* bitmap = NULL;
    DWORD length = 0;
    DWORD late = 0;
    DWORD number = 0;
    LARGE_INTEGER copySize = {0};
    int good = 0;

    DWORD error = VTFltGetBlockSize(volume, &now.blockSize, 0);
    if (error != 0 || now.blockSize == 0)
        return Fail(L"VTFltGetBlockSize", error);
    error = VTFltPrepareForSnapshot(volume);
    if (error != 0)
        return Fail(L"VTFltPrepareForSnapshot", error);
    snapshotInfo.size = sizeof(snapshotInfo);
    error = VTFltSimCreateSnapshot(machine, argv[2], &number, &snapshotInfo); /* simulator */
    if (error != 0)
        return Fail(L"taking a snapshot", error);
    now.length = snapshotInfo.length;

    error = FetchBitmap(volume, &bitmap, &length);
    if (error != 0 && error != VTFLT_VERIFY_REQUIRED) {
        free(bitmap);
        VTFltSimDeleteSnapshot(machine, number);
        return Fail(L"VTFltGetBitmap", error);
    }
    everything |= error == VTFLT_VERIFY_REQUIRED;
    /* Tracking that was lost since the first question may have been lost behind the snapshot too: this run and the
       next one read everything, for this one's report takes the mark off. A run that reads everything anyway does not
       ask: what the driver lists from here on then stays in its list. */
    error = everything ? 0 : AskWhetherToVerify(argv[3], volumeName, &late);
    everything |= late;
    now.everything = late;
    /* A bitmap means nothing for a copy of another length or block size. */
    everything |=
        !ReadState(statePath, &last) || last.everything || last.length != now.length || last.blockSize != now.blockSize;

    snapshot = OpenPath(snapshotInfo.devicePath, GENERIC_READ, OPEN_EXISTING);
    file = OpenPath(argv[4], GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
    if (file != INVALID_HANDLE_VALUE && GetFileSizeEx(file, &copySize) && copySize.QuadPart != (LONGLONG)now.length)
        everything = 1;
    good = error == 0 && snapshot != INVALID_HANDLE_VALUE && file != INVALID_HANDLE_VALUE &&
           Copy(snapshot, file, &now, bitmap, length, everything) && WriteState(statePath, &now);
    if (!good)
        Fail(L"copying", error != 0 ? error : GetLastError());
    /* Only now, that the copy is on the disk, may the changes be forgotten. */
    if (good) {
        error = VTFltReplicationSuccess(volume);
        if (error != 0) {
            /* The changes come once more, but the mark of a run that read everything may be gone already. */
            now.everything = 1;
            good = WriteState(statePath, &now);
            Fail(L"VTFltReplicationSuccess", error);
        }
    }
    if (snapshot != INVALID_HANDLE_VALUE)
        CloseHandle(snapshot);
    if (file != INVALID_HANDLE_VALUE)
        CloseHandle(file);
    free(bitmap);
    VTFltSimDeleteSnapshot(machine, number); /* simulator */
    return good ? 0 : 1;
}

static int Run(VTFLTSIM_MACHINE machine, const wchar_t* const* argv, const wchar_t* statePath)
{
    wchar_t device[64];
    wchar_t volumeName[64];
    HANDLE volume = INVALID_HANDLE_VALUE;
    DWORD everything = 0;
    DWORD error = 0;
    int result = 1;
    _snwprintf(device, 63, L"\\\\?\\Volume%ls", argv[2]);
    _snwprintf(volumeName, 63, L"\\\\?\\Volume%ls\\", argv[2]);
    device[63] = volumeName[63] = L'\0';

    if (!VTCanBLIDriverWork())
        return Fail(L"the driver does not work: VTCanBLIDriverWork", 0);
    /* Registering once more changes nothing. */
    error = VTRegisterApplication(argv[3]);
    if (error != 0)
        return Fail(L"VTRegisterApplication", error);
    error = AskWhetherToVerify(argv[3], volumeName, &everything);
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
    if (waited != WAIT_OBJECT_0 && waited != WAIT_ABANDONED)
        return Fail(L"another backup runs: the lock", waited);

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
