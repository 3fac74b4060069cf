"""The smallest correct backup loop, in Python with ctypes: keeps FILE equal to a volume, reading only what changed.

    python backup_loop.py VOLUME APPLICATION FILE CREATE DELETE

VOLUME is {GUID}, in whatever letters; FILE is the copy, one for each volume and application, and FILE.state says what the
next run must know: put FILE back from anywhere, and FILE.state has to go. APPLICATION is an ID; this program does not see
what else is registered: one that differs from another in case only, or is too much like it otherwise (docs/library.md, rule
8), loses changes.
CREATE is a command that takes a snapshot of the volume and prints its number and its device path; DELETE gets the number
behind it. VTFltMgr.dll is looked for beside this file, or where VTFLTMGR says. On a simulated machine in C:\\run\\m:

    vtfltsim run C:\\run\\m python backup_loop.py {GUID} Nightly E.img "vtfltsim snapshot C:\\run\\m {GUID}"
        "vtfltsim delete-snapshot C:\\run\\m"

Exit code 0: FILE is the volume as the snapshot has it. 1: it may not be: run it again, which reads whatever is missing.
"""
import contextlib
import ctypes
import json
import os
import subprocess
import sys
from ctypes import POINTER, byref, c_int, c_int64, c_uint32, c_uint64, c_void_p, c_wchar_p

DWORD = c_uint32
HANDLE = c_void_p

VERIFY_REQUIRED = 0x10001
HEADER_BYTES = 16
ERROR_INVALID_FUNCTION = 1
ERROR_NOT_SUPPORTED = 50
ERROR_INSUFFICIENT_BUFFER = 122
ERROR_MORE_DATA = 234
INVALID_HANDLE = c_void_p(-1).value
GENERIC_READ = 0x80000000
FILE_SHARE_READ_WRITE = 3
OPEN_EXISTING = 3
DRIVE_FIXED = 3
IOCTL_DISK_GET_LENGTH_INFO = 0x7405C
WAIT_OBJECT_0 = 0
WAIT_ABANDONED = 0x80

# What is called: the module, the result, the arguments.
PROTOTYPES = {
    "VTCanBLIDriverWork": ("VTFltMgr", DWORD, []),
    "VTCanAppUseBLIDriver": ("VTFltMgr", DWORD, [c_wchar_p]),
    "VTAddVolumesToAppVerifyList": ("VTFltMgr", DWORD, [c_wchar_p]),
    "VTRegisterApplication": ("VTFltMgr", DWORD, [c_wchar_p]),
    "VTReplicateVerifyList": ("VTFltMgr", DWORD, [c_wchar_p]),
    "VTIsVerifyRequired": ("VTFltMgr", DWORD, [c_wchar_p, c_wchar_p]),
    "VTFltInitBitmapManager": ("VTFltMgr", DWORD, [HANDLE, c_wchar_p, c_wchar_p]),
    "VTFltDeinitBitmapManager": ("VTFltMgr", DWORD, [HANDLE]),
    "VTFltGetBlockSize": ("VTFltMgr", DWORD, [HANDLE, POINTER(DWORD), DWORD]),
    "VTFltPrepareForSnapshot": ("VTFltMgr", DWORD, [HANDLE]),
    "VTFltGetBitmap": ("VTFltMgr", DWORD, [HANDLE, c_void_p, DWORD, c_void_p, DWORD, POINTER(DWORD), DWORD]),
    "VTFltSynSnapshotChangeBitmapToVolume": ("VTFltMgr", DWORD, [HANDLE, c_void_p, DWORD]),
    "VTFltReplicationSuccess": ("VTFltMgr", DWORD, [HANDLE]),
    "GetVolumeNameForVolumeMountPointW": ("kernel32", c_int, [c_wchar_p, c_void_p, DWORD]),
    "GetDriveTypeW": ("kernel32", DWORD, [c_wchar_p]),
    "CreateFileW": ("kernel32", HANDLE, [c_wchar_p, DWORD, DWORD, c_void_p, DWORD, DWORD, HANDLE]),
    "DeviceIoControl": ("kernel32", c_int, [HANDLE, DWORD, c_void_p, DWORD, c_void_p, DWORD, POINTER(DWORD), c_void_p]),
    "SetFilePointerEx": ("kernel32", c_int, [HANDLE, c_int64, c_void_p, DWORD]),
    "ReadFile": ("kernel32", c_int, [HANDLE, c_void_p, DWORD, POINTER(DWORD), c_void_p]),
    "CloseHandle": ("kernel32", c_int, [HANDLE]),
    "CreateMutexW": ("kernel32", HANDLE, [c_void_p, c_int, c_wchar_p]),
    "WaitForSingleObject": ("kernel32", DWORD, [HANDLE, DWORD]),
    "ReleaseMutex": ("kernel32", c_int, [HANDLE]),
}


class Failure(Exception):
    pass


def check(what, done):
    if not done:
        raise Failure(f"{what} failed")


def call(function, *arguments):
    """A function of the library that gives an error code."""
    code = function(*arguments)
    if code != 0:
        raise Failure(f"{function.__name__} failed, {code} (0x{code:X})")


class Library:
    """What is called, by name."""

    def __init__(self):
        beside = os.path.join(os.path.dirname(os.path.abspath(__file__)), "VTFltMgr.dll")
        modules = {"VTFltMgr": ctypes.WinDLL(os.environ.get("VTFLTMGR", beside)), "kernel32": ctypes.WinDLL("kernel32")}
        for name, (module, result, arguments) in PROTOTYPES.items():
            function = getattr(modules[module], name)
            function.restype, function.argtypes = result, arguments
            setattr(self, name, function)

    def name_of(self, guid):
        """The volume's name in the system's own letters: files know no case, but the lists and the names of mutexes do."""
        name = ctypes.create_string_buffer(2 * 64)
        check("finding the volume", self.GetVolumeNameForVolumeMountPointW(f"\\\\?\\Volume{guid}\\", name, 64))
        return name.raw.decode("utf-16-le").split("\0")[0]

    @contextlib.contextmanager
    def opened(self, path):
        handle = self.CreateFileW(path, GENERIC_READ, FILE_SHARE_READ_WRITE, None, OPEN_EXISTING, 0, None)
        check(f"opening {path}", handle not in (None, INVALID_HANDLE))
        try:
            yield handle
        finally:
            self.CloseHandle(handle)

    @contextlib.contextmanager
    def lock(self):
        """One backup at a time, of whatever volume and application: two would take each other's changes and marks."""
        mutex = self.CreateMutexW(None, 0, "Global\\VTFltMgr.Sample.BackupLoop.Lock")
        check("making the lock", mutex)
        check("another backup runs: the lock", self.WaitForSingleObject(mutex, 0) in (WAIT_OBJECT_0, WAIT_ABANDONED))
        try:
            yield
        finally:
            self.ReleaseMutex(mutex)
            self.CloseHandle(mutex)

    def length_of(self, device):
        length, size = c_uint64(), DWORD()
        check("asking for the length", self.DeviceIoControl(device, IOCTL_DISK_GET_LENGTH_INFO, None, 0, byref(length), 8,
                                                            byref(size), None))
        return length.value

    def read(self, device, offset, count):
        buffer, size = ctypes.create_string_buffer(count), DWORD()
        check("reading the snapshot", self.SetFilePointerEx(device, offset, None, 0) and
              self.ReadFile(device, buffer, count, byref(size), None) and size.value == count)
        return buffer.raw

    def register(self, application, name, state_path):
        """Asks before it registers: an application that was on the list, and is not any more, has lost what was owed to it,
        and registering it again marks nothing. So the marks come first, for its other fixed volumes too; this one's FILE.state
        goes as well, for it may not be fixed."""
        if self.VTCanAppUseBLIDriver(application):
            return
        with contextlib.suppress(FileNotFoundError):
            os.remove(state_path)
        call(self.VTAddVolumesToAppVerifyList, application)
        # While the driver does not answer, that is no error and marks nothing. Most volumes show it.
        check("marking the volumes", self.VTCanBLIDriverWork() and
              (self.GetDriveTypeW(name) != DRIVE_FIXED or self.VTIsVerifyRequired(application, name)))
        call(self.VTRegisterApplication, application)
        # That is no error for the tail of another ID, either, and does not register it.
        check("registering", self.VTCanAppUseBLIDriver(application))

    def must_verify(self, application, name):
        """Whether everything is to be read. The driver's list reaches the application by VTReplicateVerifyList only, which
        gives 0 and nothing else while the driver is silent: so it is called twice, and the driver asked in between."""
        call(self.VTReplicateVerifyList, application)
        check("asking the driver what it lost", self.VTCanBLIDriverWork())
        call(self.VTReplicateVerifyList, application)
        return self.VTIsVerifyRequired(application, name) != 0

    def block_size_of(self, device, direct):
        size = DWORD()
        call(self.VTFltGetBlockSize, device, byref(size), direct)
        check("VTFltGetBlockSize", size.value)
        return size.value

    def fetch(self, device, direct):
        """The bitmap of changed blocks, of the volume's manager or (direct) of a snapshot itself, and the result. Its exact
        length is the library's to say, and may change between two questions, but not for ever."""
        given, size = ctypes.create_string_buffer(1), DWORD(HEADER_BYTES)
        code = ERROR_MORE_DATA
        for _ in range(8):
            bitmap = ctypes.create_string_buffer(max(size.value, HEADER_BYTES))
            code = self.VTFltGetBitmap(device, given, 0, bitmap, len(bitmap), byref(size), direct)
            if code not in (ERROR_INSUFFICIENT_BUFFER, ERROR_MORE_DATA):
                break
        if code == 0 and size.value != len(bitmap):
            code = VERIFY_REQUIRED # a bitmap shorter than was asked for says nothing of the rest
        return bitmap.raw[HEADER_BYTES:], code

    def is_tracked(self, device):
        """Whether the driver tracks a snapshot: it refuses every question about one that it does not."""
        return self.VTFltGetBlockSize(device, byref(DWORD()), 1) not in (ERROR_INVALID_FUNCTION, ERROR_NOT_SUPPORTED)

    def hand_back(self, volume, device, tracked, block_size, length):
        """What was written into the snapshot itself is in the copy and not on the volume: the next bitmap must have it. It
        goes back in a buffer as long as the fetched bitmap, whose header is zero. tracked: whether the snapshot was,
        when it was taken."""
        # One question that is refused says nothing of the snapshot: somebody may have written into it.
        check("learning what the snapshot changed", self.is_tracked(device) == tracked)
        if not tracked:
            # Snapshots are not tracked here, and this program only reads its own. A driver that is away answers so,
            # too; then this fails as well.
            self.block_size_of(volume, 0)
            return
        written, code = self.fetch(device, 1)
        check(f"asking what the snapshot changed: VTFltGetBitmap, {code} (0x{code:X}),", code == 0)
        if not any(written):
            return
        check("handing back what the snapshot changed",
              self.block_size_of(device, 1) == block_size and len(written) <= length)
        back = ctypes.create_string_buffer(bytes(HEADER_BYTES) + written, HEADER_BYTES + length)
        call(self.VTFltSynSnapshotChangeBitmapToVolume, volume, back, len(back))


@contextlib.contextmanager
def snapshot(create, delete):
    number, device = subprocess.run(create, shell=True, check=True, stdout=subprocess.PIPE, text=True).stdout.split()
    try:
        yield device
    finally:
        if subprocess.run(f"{delete} {number}", shell=True, check=False, stdout=subprocess.DEVNULL).returncode != 0:
            print("deleting the snapshot failed, which changes nothing of the backup", file=sys.stderr)


def read_state(path):
    """What one run leaves to the next. Without it, or when anything differs, everything is read."""
    try:
        with open(path, encoding="ascii") as file:
            return json.load(file)
    except (FileNotFoundError, ValueError):
        return None


def write_state(path, state):
    with open(path, "w", encoding="ascii") as file:
        json.dump(state, file)
        file.flush()
        os.fsync(file.fileno())


def is_changed(bitmap, block):
    return bitmap[block // 8] & 0x80 >> block % 8 != 0


def open_copy(path):
    """Opened, or made, in one step: a name that is asked for twice may be of two files."""
    return os.fdopen(os.open(path, os.O_RDWR | os.O_CREAT | getattr(os, "O_BINARY", 0), 0o666), "r+b")


def copy_blocks(library, device, file, state, blocks):
    for block in blocks:
        offset = block * state["block_size"]
        file.seek(offset)
        file.write(library.read(device, offset, min(state["block_size"], state["length"] - offset)))
    file.truncate(state["length"])
    file.flush()
    os.fsync(file.fileno())


def back_up(library, guid, application, path, create, delete):
    name, state_path = library.name_of(guid), path + ".state"
    check("the driver does not work: VTCanBLIDriverWork", library.VTCanBLIDriverWork())
    library.register(application, name, state_path)
    # Registering again marks fixed volumes only, and the run that does it may be another volume's.
    not_fixed = library.GetDriveTypeW(name) != DRIVE_FIXED
    everything = library.must_verify(application, name) or not_fixed
    with contextlib.ExitStack() as stack:
        volume = stack.enter_context(library.opened(name[:-1])) # with its backslash it would be the root folder
        call(library.VTFltInitBitmapManager, volume, name, application)
        stack.callback(library.VTFltDeinitBitmapManager, volume)
        block_size = library.block_size_of(volume, 0)
        call(library.VTFltPrepareForSnapshot, volume)
        device = stack.enter_context(library.opened(stack.enter_context(snapshot(create, delete))))
        tracked = library.is_tracked(device)
        bitmap, code = library.fetch(volume, 0)
        check(f"VTFltGetBitmap, {code} (0x{code:X}),", code in (0, VERIFY_REQUIRED))
        everything = everything or code == VERIFY_REQUIRED
        # Tracking that was lost since the first question may have been lost behind the snapshot too: this run and the next
        # one read everything, for this one's report takes the mark off. A run that reads everything anyway does not ask:
        # what the driver lists from here on then stays in its list.
        late = not everything and library.must_verify(application, name)
        # The bitmap of a volume whose length or block size changed since the snapshot may have dropped blocks of it.
        length = library.length_of(device)
        count = -(-length // block_size)
        late = late or not_fixed or library.block_size_of(volume, 0) != block_size or library.length_of(volume) != length or \
            len(bitmap) * 8 < count
        # It means nothing for a copy of another volume, application, length or block size.
        state = {"length": length, "block_size": block_size, "everything": late, "volume": name, "application": application}
        file = stack.enter_context(open_copy(path))
        everything = everything or late or read_state(state_path) != state or os.fstat(file.fileno()).st_size != length

        # Until a copy of everything is whole, FILE is nobody's, and no later run may take it for one.
        if everything:
            write_state(state_path, {**state, "everything": True})
        blocks = [block for block in range(count) if everything or is_changed(bitmap, block)]
        copy_blocks(library, device, file, state, blocks)
        # Should one of the next steps fail, the mark of a run that read everything may be gone already.
        write_state(state_path, {**state, "everything": True})
        library.hand_back(volume, device, tracked, block_size, len(bitmap))
        # Only now, that the copy is on the disk, may the changes be forgotten.
        call(library.VTFltReplicationSuccess, volume)
        write_state(state_path, state)
    print(f"{len(blocks)} of {count} blocks read{' (everything)' if everything else ''}")


def main():
    if len(sys.argv) != 6:
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    try:
        library = Library()
        with library.lock():
            back_up(library, *sys.argv[1:])
    except (Failure, OSError, subprocess.SubprocessError) as failure:
        print(f"backup_loop.py: {failure}", file=sys.stderr)
        sys.exit(1)


if __name__ == "__main__":
    main()
