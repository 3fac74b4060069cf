// The smallest correct backup loop, in C# by P/Invoke: keeps FILE equal to a volume, reading only what changed.
//
//     BackupLoop VOLUME APPLICATION FILE CREATE DELETE
//
// VOLUME is {GUID}, in whatever letters; FILE is the copy, one for each volume and application, and FILE.state says what the
// next run must know: put FILE back from anywhere, and FILE.state has to go. APPLICATION is an ID; this program does not see
// what else is registered: one that differs from another in case only, or is too much like it otherwise (docs/library.md,
// rule 8), loses changes.
// CREATE is a command that takes a snapshot of the volume and prints its number and its device path; DELETE gets the number
// behind it. On a simulated machine in C:\run\m:
//
//     vtfltsim run C:\run\m BackupLoop.exe {GUID} Nightly E.img "vtfltsim snapshot C:\run\m {GUID}"
//         "vtfltsim delete-snapshot C:\run\m"
//
// Exit code 0: FILE is the volume as the snapshot has it. 1: it may not be: run it again, which reads whatever is
// missing.
// 64-bit only.
using System;
using System.Diagnostics;
using System.IO;
using System.Runtime.InteropServices;

internal static class Native
{
    internal const uint VerifyRequired = 0x10001;
    internal const uint InsufficientBuffer = 122;
    internal const uint MoreData = 234;
    internal const uint InvalidFunction = 1;
    internal const uint NotSupported = 50;
    internal const uint DriveFixed = 3;
    internal const int HeaderBytes = 16;

    private const string Library = "VTFltMgr.dll";
    private const string Kernel = "kernel32.dll";

    [DllImport(Library)]
    internal static extern uint VTCanBLIDriverWork();

    [DllImport(Library, CharSet = CharSet.Unicode)]
    internal static extern uint VTCanAppUseBLIDriver(string applicationId);

    [DllImport(Library, CharSet = CharSet.Unicode)]
    internal static extern uint VTAddVolumesToAppVerifyList(string applicationId);

    [DllImport(Library, CharSet = CharSet.Unicode)]
    internal static extern uint VTRegisterApplication(string applicationId);

    [DllImport(Library, CharSet = CharSet.Unicode)]
    internal static extern uint VTReplicateVerifyList(string applicationId);

    [DllImport(Library, CharSet = CharSet.Unicode)]
    internal static extern uint VTIsVerifyRequired(string applicationId, string volume);

    [DllImport(Library, CharSet = CharSet.Unicode)]
    internal static extern uint VTFltInitBitmapManager(IntPtr volume, string volumeName, string applicationId);

    [DllImport(Library)]
    internal static extern uint VTFltDeinitBitmapManager(IntPtr volume);

    [DllImport(Library)]
    internal static extern uint VTFltGetBlockSize(IntPtr volume, out uint blockSize, uint direct);

    [DllImport(Library)]
    internal static extern uint VTFltPrepareForSnapshot(IntPtr volume);

    [DllImport(Library)]
    internal static extern uint VTFltGetBitmap(IntPtr volume, byte[] input, uint inputLength, [In, Out] byte[] output,
                                               uint outputLength, ref uint size, uint direct);

    [DllImport(Library)]
    internal static extern uint VTFltSynSnapshotChangeBitmapToVolume(IntPtr volume, byte[] input, uint inputLength);

    [DllImport(Library)]
    internal static extern uint VTFltReplicationSuccess(IntPtr volume);

    [DllImport(Kernel, CharSet = CharSet.Unicode)]
    internal static extern int GetVolumeNameForVolumeMountPointW(string path, [In, Out] byte[] name, uint characters);

    [DllImport(Kernel, CharSet = CharSet.Unicode)]
    internal static extern uint GetDriveTypeW(string root);

    [DllImport(Kernel, CharSet = CharSet.Unicode)]
    internal static extern IntPtr CreateFileW(string path, uint access, uint share, IntPtr security, uint disposition,
                                              uint flags, IntPtr template);

    [DllImport(Kernel)]
    internal static extern int DeviceIoControl(IntPtr device, uint code, IntPtr input, uint inputLength,
                                               [In, Out] byte[] output, uint outputLength, out uint size,
                                               IntPtr overlapped);

    [DllImport(Kernel)]
    internal static extern int SetFilePointerEx(IntPtr file, long offset, IntPtr position, uint method);

    [DllImport(Kernel)]
    internal static extern int ReadFile(IntPtr file, [In, Out] byte[] buffer, uint length, out uint size,
                                        IntPtr overlapped);

    [DllImport(Kernel)]
    internal static extern int CloseHandle(IntPtr handle);

    [DllImport(Kernel, CharSet = CharSet.Unicode)]
    internal static extern IntPtr CreateMutexW(IntPtr security, int owned, string name);

    [DllImport(Kernel)]
    internal static extern uint WaitForSingleObject(IntPtr handle, uint milliseconds);

    [DllImport(Kernel)]
    internal static extern int ReleaseMutex(IntPtr mutex);
}

internal sealed class Failure : Exception
{
    internal Failure(string what) : base(what + " failed") {}

    internal static void Check(string what, bool done)
    {
        if (!done)
            throw new Failure(what);
    }

    internal static void Check(string what, uint code)
    {
        if (code != 0)
            throw new Failure(what + " (" + code + ", 0x" + code.ToString("X") + "): it");
    }
}

// A volume or a snapshot, open for reading.
internal sealed class Device : IDisposable
{
    internal readonly IntPtr Handle;

    internal Device(string path)
    {
        const uint GenericRead = 0x80000000, ShareReadWrite = 3, OpenExisting = 3;
        Handle = Native.CreateFileW(path, GenericRead, ShareReadWrite, IntPtr.Zero, OpenExisting, 0, IntPtr.Zero);
        Failure.Check("opening " + path, Handle != new IntPtr(-1) && Handle != IntPtr.Zero);
    }

    public void Dispose()
    {
        Native.CloseHandle(Handle);
    }

    internal uint BlockSize(uint direct)
    {
        uint size;
        Failure.Check("VTFltGetBlockSize", Native.VTFltGetBlockSize(Handle, out size, direct));
        Failure.Check("VTFltGetBlockSize", size != 0);
        return size;
    }

    // Whether the driver tracks it, of a snapshot: it refuses every question about one that it does not.
    internal bool IsTracked()
    {
        uint size, code = Native.VTFltGetBlockSize(Handle, out size, 1);
        return code != Native.InvalidFunction && code != Native.NotSupported;
    }

    // The bitmap of changed blocks, of the volume's manager or (direct) of a snapshot itself, and the result. Its exact
    // length is the library's to say, and may change between two questions, but not for ever.
    internal uint Fetch(uint direct, out byte[] bitmap)
    {
        uint size = Native.HeaderBytes, code = Native.MoreData;
        bitmap = null;
        for (int question = 0; question < 8 && (code == Native.InsufficientBuffer || code == Native.MoreData); ++question) {
            bitmap = new byte[Math.Max(size, Native.HeaderBytes)];
            code = Native.VTFltGetBitmap(Handle, new byte[1], 0, bitmap, (uint)bitmap.Length, ref size, direct);
        }
        // A bitmap shorter than was asked for says nothing of the rest.
        return code == 0 && size != bitmap.Length ? Native.VerifyRequired : code;
    }

    internal long Length()
    {
        const uint GetLengthInfo = 0x7405C; // IOCTL_DISK_GET_LENGTH_INFO
        var length = new byte[8];
        uint size;
        Failure.Check("asking for the length", Native.DeviceIoControl(Handle, GetLengthInfo, IntPtr.Zero, 0, length, 8,
                                                                      out size, IntPtr.Zero) != 0);
        return BitConverter.ToInt64(length, 0);
    }

    internal void Read(long offset, byte[] buffer, int count)
    {
        uint size;
        Failure.Check("reading the snapshot",
                      Native.SetFilePointerEx(Handle, offset, IntPtr.Zero, 0) != 0 &&
                          Native.ReadFile(Handle, buffer, (uint)count, out size, IntPtr.Zero) != 0 && size == count);
    }
}

// The bitmap manager of one volume for one application.
internal sealed class Manager : IDisposable
{
    private readonly IntPtr m_volume;

    internal Manager(Device volume, string name, string application)
    {
        Failure.Check("VTFltInitBitmapManager", Native.VTFltInitBitmapManager(volume.Handle, name, application));
        m_volume = volume.Handle;
    }

    public void Dispose()
    {
        Native.VTFltDeinitBitmapManager(m_volume);
    }
}

// A snapshot for as long as it is needed.
internal sealed class Snapshot : IDisposable
{
    internal readonly string Path;
    private readonly string m_delete;

    internal Snapshot(string create, string delete)
    {
        string[] words = Run(create).Split(new[] {' ', '\r', '\n'}, StringSplitOptions.RemoveEmptyEntries);
        Failure.Check("taking the snapshot", words.Length == 2);
        m_delete = delete + " " + words[0];
        Path = words[1];
    }

    public void Dispose()
    {
        try {
            Run(m_delete);
        } catch (Exception failure) {
            Console.Error.WriteLine(failure.Message + ", which changes nothing of the backup");
        }
    }

    // The first word of a command is its program.
    private static string Run(string command)
    {
        string[] parts = command.Split(new[] {' '}, 2);
        var start = new ProcessStartInfo(parts[0], parts.Length > 1 ? parts[1] : "");
        start.UseShellExecute = false;
        start.RedirectStandardOutput = true;
        using (Process process = Process.Start(start)) {
            string output = process.StandardOutput.ReadToEnd();
            process.WaitForExit();
            Failure.Check(command, process.ExitCode == 0);
            return output;
        }
    }
}

internal static class BackupLoop
{
    // The volume's name in the system's own letters: files know no case, but the lists and the names of mutexes do.
    private static string NameOf(string guid)
    {
        var name = new byte[2 * 64];
        Failure.Check("finding the volume",
                      Native.GetVolumeNameForVolumeMountPointW(@"\\?\Volume" + guid + @"\", name, 64) != 0);
        return System.Text.Encoding.Unicode.GetString(name).Split('\0')[0];
    }

    // Asks before it registers: an application that was on the list, and is not any more, has lost what was owed to it, and
    // registering it again marks nothing. So the marks come first, for its other fixed volumes too; this one's FILE.state goes
    // as well, for it may not be fixed.
    private static void Register(string application, string name, string statePath)
    {
        if (Native.VTCanAppUseBLIDriver(application) != 0)
            return;
        File.Delete(statePath);
        Failure.Check("VTAddVolumesToAppVerifyList", Native.VTAddVolumesToAppVerifyList(application));
        // While the driver does not answer, that is no error and marks nothing. Most volumes show it.
        bool notFixed = Native.GetDriveTypeW(name) != Native.DriveFixed;
        Failure.Check("marking the volumes", Native.VTCanBLIDriverWork() != 0 &&
                      (notFixed || Native.VTIsVerifyRequired(application, name) != 0));
        Failure.Check("VTRegisterApplication", Native.VTRegisterApplication(application));
        // That is no error for the tail of another ID, either, and does not register it.
        Failure.Check("registering", Native.VTCanAppUseBLIDriver(application) != 0);
    }

    // Whether everything is to be read. The driver's list reaches the application by VTReplicateVerifyList only, which gives 0
    // and nothing else while the driver is silent: so it is called twice, and the driver asked in between.
    private static bool MustVerify(string application, string name)
    {
        Failure.Check("VTReplicateVerifyList", Native.VTReplicateVerifyList(application));
        Failure.Check("asking the driver what it lost", Native.VTCanBLIDriverWork() != 0);
        Failure.Check("VTReplicateVerifyList", Native.VTReplicateVerifyList(application));
        return Native.VTIsVerifyRequired(application, name) != 0;
    }

    private static bool IsChanged(byte[] bitmap, long block)
    {
        return (bitmap[Native.HeaderBytes + block / 8] & 0x80 >> (int)(block % 8)) != 0;
    }

    private static string ReadState(string path)
    {
        return File.Exists(path) ? File.ReadAllText(path) : "";
    }

    private static void WriteState(string path, string state)
    {
        using (var file = new FileStream(path, FileMode.Create)) {
            byte[] bytes = System.Text.Encoding.UTF8.GetBytes(state);
            file.Write(bytes, 0, bytes.Length);
            file.Flush(true);
        }
    }

    // What one run leaves to the next. Without it, or when anything differs, everything is read: the bitmap speaks of no other
    // volume's or application's copy.
    private static string State(string owner, long length, uint blockSize, bool nextReadsEverything)
    {
        return length + " " + blockSize + " " + (nextReadsEverything ? "everything" : "changes") + " " + owner;
    }

    private static long Copy(Device snapshot, FileStream file, long length, uint blockSize, byte[] bitmap, bool everything)
    {
        var buffer = new byte[blockSize];
        long copied = 0;
        for (long block = 0; block * blockSize < length; ++block) {
            if (!everything && !IsChanged(bitmap, block))
                continue;
            var count = (int)Math.Min(blockSize, length - block * blockSize);
            snapshot.Read(block * blockSize, buffer, count);
            file.Seek(block * blockSize, SeekOrigin.Begin);
            file.Write(buffer, 0, count);
            ++copied;
        }
        file.SetLength(length);
        file.Flush(true);
        return copied;
    }

    // What was written into the snapshot itself is in the copy and not on the volume: the next bitmap must have it. It goes
    // back in a buffer as long as the fetched bitmap, whose header is zero. tracked: whether the snapshot was, when it
    // was taken.
    private static void HandBack(Device volume, Device snapshot, bool tracked, uint blockSize, int length)
    {
        byte[] written;
        // One question that is refused says nothing of the snapshot: somebody may have written into it.
        Failure.Check("learning what the snapshot changed", snapshot.IsTracked() == tracked);
        if (!tracked) {
            // Snapshots are not tracked here, and this program only reads its own. A driver that is away answers so,
            // too; then this fails as well.
            volume.BlockSize(0);
            return;
        }
        Failure.Check("asking what the snapshot changed", snapshot.Fetch(1, out written));
        int first = Array.FindIndex(written, Native.HeaderBytes, bits => bits != 0);
        if (first < 0)
            return;
        Failure.Check("handing back what the snapshot changed",
                      snapshot.BlockSize(1) == blockSize && written.Length <= length);
        var back = new byte[length];
        Array.Copy(written, first, back, first, written.Length - first);
        Failure.Check("VTFltSynSnapshotChangeBitmapToVolume",
                      Native.VTFltSynSnapshotChangeBitmapToVolume(volume.Handle, back, (uint)length));
    }

    private static void BackUp(string guid, string application, string path, string create, string delete)
    {
        string name = NameOf(guid), statePath = path + ".state", owner = name + " " + application;
        Failure.Check("the driver does not work: VTCanBLIDriverWork", Native.VTCanBLIDriverWork() != 0);
        Register(application, name, statePath);
        // Registering again marks fixed volumes only, and the run that does it may be another volume's.
        bool notFixed = Native.GetDriveTypeW(name) != Native.DriveFixed;
        bool everything = MustVerify(application, name) || notFixed;

        // Without the backslash: with it, it would be the root folder.
        using (var volume = new Device(name.TrimEnd('\\')))
        using (new Manager(volume, name, application)) {
            uint blockSize = volume.BlockSize(0);
            Failure.Check("VTFltPrepareForSnapshot", Native.VTFltPrepareForSnapshot(volume.Handle));
            using (var taken = new Snapshot(create, delete))
            using (var snapshot = new Device(taken.Path)) {
                bool tracked = snapshot.IsTracked();
                byte[] bitmap;
                uint code = volume.Fetch(0, out bitmap);
                if (code != Native.VerifyRequired)
                    Failure.Check("VTFltGetBitmap", code);
                everything |= code == Native.VerifyRequired;
                // Tracking that was lost since the first question may have been lost behind the snapshot too: this run and
                // the next one read everything, for this one's report takes the mark off. A run that reads everything
                // anyway does not ask: what the driver lists from here on then stays in its list.
                bool late = !everything && MustVerify(application, name);
                // The bitmap of a volume whose length or block size changed since the snapshot may have dropped blocks of
                // it.
                long length = snapshot.Length(), count = (length + blockSize - 1) / blockSize;
                late |= notFixed || volume.BlockSize(0) != blockSize || volume.Length() != length ||
                        (bitmap.Length - Native.HeaderBytes) * 8L < count;
                // It means nothing for a copy of another volume, application, length or block size.
                string state = State(owner, length, blockSize, late), unfinished = State(owner, length, blockSize, true);
                using (var file = new FileStream(path, FileMode.OpenOrCreate)) {
                    everything |= late || file.Length != length || ReadState(statePath) != state;
                    // Until a copy of everything is whole, FILE is nobody's, and no later run may take it for one.
                    if (everything)
                        WriteState(statePath, unfinished);
                    long copied = Copy(snapshot, file, length, blockSize, bitmap, everything);
                    // Should one of the next steps fail, the mark of a run that read everything may be gone already.
                    WriteState(statePath, unfinished);
                    HandBack(volume, snapshot, tracked, blockSize, bitmap.Length);
                    // Only now, that the copy is on the disk, may the changes be forgotten.
                    Failure.Check("VTFltReplicationSuccess", Native.VTFltReplicationSuccess(volume.Handle));
                    WriteState(statePath, state);
                    Console.WriteLine(copied + " of " + count + " blocks read" + (everything ? " (everything)" : ""));
                }
            }
        }
    }

    private static int Main(string[] arguments)
    {
        if (arguments.Length != 5) {
            Console.Error.WriteLine("usage: BackupLoop VOLUME APPLICATION FILE CREATE DELETE");
            return 2;
        }
        // One backup at a time, of whatever volume and application: two would take each other's changes and marks.
        IntPtr mutex = Native.CreateMutexW(IntPtr.Zero, 0, @"Global\VTFltMgr.Sample.BackupLoop.Lock");
        uint waited = mutex != IntPtr.Zero ? Native.WaitForSingleObject(mutex, 0) : uint.MaxValue;
        if (waited != 0 && waited != 0x80) {
            Console.Error.WriteLine("BackupLoop: another backup runs");
            return 1;
        }
        try {
            BackUp(arguments[0], arguments[1], arguments[2], arguments[3], arguments[4]);
            return 0;
        } catch (Exception failure) {
            Console.Error.WriteLine("BackupLoop: " + failure.Message);
            return 1;
        } finally {
            Native.ReleaseMutex(mutex);
            Native.CloseHandle(mutex);
        }
    }
}
