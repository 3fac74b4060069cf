"""Runs the samples in Python and C#, whose interpreters for Windows cannot be had here.

    check_scripts.py SOURCE BUILD WORK EMULATOR COMPILER
    check_scripts.py scribble BUILD EMULATOR MACHINE DEVICE OFFSET      (the trials' snapshot command: into the snapshot)

The files themselves run, on this system. Each function that they call is a stand-in which has a Windows program
(call_server.exe, under a simulated machine) make the real call of the real DLL. What is left out is how Windows' own Python
and .NET pass arguments; the prototypes are therefore also held against the headers by the compiler.
"""
import ctypes
import importlib.util
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys


class Server:
    """A Windows program of a machine that makes calls: attached to it, as every program under vtfltsim run is."""

    def __init__(self, emulator_, build_, machine):
        self.process = subprocess.Popen([emulator_, build_ / "vtfltsim.exe", "run", machine, str(build_ / "call_server.exe")],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait(60)

    def call(self, name, *arguments):
        """The result, and each buffer as it is then. A number, a string or bytes."""
        request = struct.pack("<I", len(name)) + name.encode() + struct.pack("<I", len(arguments))
        lengths = []
        for argument in arguments:
            if isinstance(argument, int):
                request += b"\0" + struct.pack("<Q", argument)
                continue
            raw = argument if isinstance(argument, bytes) else argument.encode("utf-16-le") + b"\0\0"
            request += b"\1" + struct.pack("<I", len(raw)) + raw
            lengths.append(len(raw))
        self.process.stdin.write(request)
        self.process.stdin.flush()
        result = struct.unpack("<Q", self.process.stdout.read(8))[0] & 0xFFFFFFFF
        return result, [self.process.stdout.read(length) for length in lengths]


def scribble(build_, emulator_, machine, device, offset):
    with Server(emulator_, pathlib.Path(build_), machine) as server:
        handle, _ = server.call("CreateFileW", device, 0xC0000000, 3, 0, 3, 0, 0)
        moved, _ = server.call("SetFilePointerEx", handle, int(offset), 0, 0)
        written, _ = server.call("WriteFile", handle, b"\xEE" * 512, 512, bytes(4), 0)
        sys.exit(0 if moved and written else f"scribble: {handle} {moved} {written}")


if sys.argv[1] == "scribble":
    scribble(*sys.argv[2:])
source, build, work = (pathlib.Path(argument).resolve() for argument in sys.argv[1:4])
emulator, compiler = sys.argv[4:6]
BLOCK = 4096
LENGTH = 100 * BLOCK - 512
GUID = "{6c1d34ab-3ef9-4a05-8f0c-7a2d5b1e9c40}"
SNAPSHOT_CLASS = "System\\CurrentControlSet\\Control\\Class\\{533C5B84-EC70-11D2-9505-00C04F79DEAF}"
SECOND = "{6c1d34ab-3ef9-4a05-8f0c-7a2d5b1e9c41}"
REMOVABLE = "{6c1d34ab-3ef9-4a05-8f0c-7a2d5b1e9c42}"

# Arguments that are buffers, with their length in bytes; the other pointers are numbers, strings or null.
BUFFERS = {"VTFltGetBitmap": {1: "a2", 3: "a4"}, "VTFltSynSnapshotChangeBitmapToVolume": {1: "a2"}, "ReadFile": {1: "a2"},
           "DeviceIoControl": {4: "a5"}, "GetVolumeNameForVolumeMountPointW": {1: "2 * a2"}}


def fail(text):
    sys.exit("check_scripts: " + text)


def run(*command, **options):
    return subprocess.run(list(map(str, command)), check=True, text=True, stdout=subprocess.PIPE, **options).stdout


def prototypes():
    """The table of the Python sample."""
    sys.dont_write_bytecode = True
    spec = importlib.util.spec_from_file_location("backup_loop", source / "samples/backup_loop.py")
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module.PROTOTYPES


def kind_of(parameter):
    """w: a string, p: another pointer, else the number's size, with u for one without a sign."""
    if parameter is ctypes.c_wchar_p:
        return "w"
    if parameter is ctypes.c_void_p or isinstance(parameter, type) and issubclass(parameter, ctypes._Pointer):
        return "p"
    return {ctypes.c_uint32: "u4", ctypes.c_int: "i4", ctypes.c_int64: "i8"}[parameter]


def csharp_prototypes():
    """The declarations of the C# sample, in the same form."""
    text = (source / "samples/BackupLoop.cs").read_text()
    kinds = {"IntPtr": "p", "uint": "u4", "int": "i4", "long": "i8", "string": "w", "byte[]": "p", "out uint": "p",
             "ref uint": "p", "[In, Out] byte[]": "p"}
    found = {}
    pattern = r"\[DllImport\((\w+)(, CharSet = CharSet.Unicode)?\)\]\s+internal static extern (\w+) (\w+)\(([^)]*)\);"
    for library, unicode, result, name, parameters in re.findall(pattern, text):
        parameters = re.sub(r"\[In, Out\]", "[In; Out]", parameters)
        types = [" ".join(p.split()[:-1]).replace("[In; Out]", "[In, Out]") for p in parameters.split(",") if p.strip()]
        found[name] = (kinds[result], [kinds[t] for t in types])
        if ("w" in found[name][1]) != bool(unicode):
            fail(f"BackupLoop.cs: {name} takes a string and is not declared as Unicode, or the other way round")
    return found


def check_prototypes(table, language):
    """Compiles a program that says of each function what the sample says, beside the headers."""
    lines = ["#include <vtfltmgr/VTFltMgr.h>", "#include <type_traits>",
             "template <char K, int N, class T> constexpr bool Is()", "{",
             "    if constexpr (K == 'w') return std::is_same_v<T, const wchar_t*>;",
             "    else if constexpr (K == 'p') return std::is_pointer_v<T>;",
             "    else if constexpr (N == 8) return sizeof(T) == 8 && !std::is_pointer_v<T>;",
             "    else return std::is_integral_v<T> && sizeof(T) == N && std::is_unsigned_v<T> == (K == 'u');", "}",
             "template <class F> struct Signature;",
             "template <class R, class... A> struct Signature<R(WINAPI*)(A...)> {",
             "    using Result = R;",
             "    static constexpr int COUNT = sizeof...(A);",
             "    template <int I> using At = std::tuple_element_t<I, std::tuple<A...>>;", "};"]
    lines.insert(1, "#include <tuple>")
    for name, (result, parameters) in table.items():
        signature = f"Signature<decltype(&{name})>"
        lines.append(f'static_assert({signature}::COUNT == {len(parameters)}, "{name}: how many arguments");')
        for place, kind in enumerate(parameters):
            lines.append(f"static_assert(Is<'{kind[0]}', {kind[1:] or 0}, {signature}::At<{place}>>(), "
                         f'"{name}: argument {place + 1}");')
        lines.append(f"static_assert(Is<'{result[0]}', {result[1:] or 0}, {signature}::Result>(), \"{name}: result\");")
    file = work / f"prototypes_{language}.cpp"
    file.write_text("\n".join(lines) + "\n")
    check = subprocess.run([compiler, "-std=c++20", "-fsyntax-only", "-I", source / "include", file], text=True,
                           stderr=subprocess.PIPE, check=False)
    if check.returncode != 0:
        fail(f"the {language} sample's prototypes are not the headers':\n{check.stderr[-2000:]}")


STAND_IN = r"""
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
static void Out(const void* bytes, size_t count) {
    while (count != 0) { ssize_t n = write(REQUESTS, bytes, count); if (n <= 0) _exit(98);
        bytes = (const char*)bytes + n; count -= n; } }
static void In(void* bytes, size_t count) {
    while (count != 0) { ssize_t n = read(ANSWERS, bytes, count); if (n <= 0) _exit(97);
        bytes = (char*)bytes + n; count -= n; } }
static void Name(const char* name, uint32_t arguments) {
    uint32_t length = strlen(name); Out(&length, 4); Out(name, length); Out(&arguments, 4);
    FILE* log = fopen(getenv("CALLS_LOG"), "a"); fprintf(log, "%s\n", name); fclose(log); }
static void Value(uint64_t value) { Out("\0", 1); Out(&value, 8); }
static void Buffer(const void* bytes, uint32_t length) {
    if (bytes == 0) { Value(0); return; }
    Out("\1", 1); Out(&length, 4); Out(bytes, length); }
static void Back(void* bytes, uint32_t length) { if (bytes != 0) In(bytes, length); }
static unsigned short* Text(const CHARACTER* text, uint32_t* bytes) {
    size_t n = 0; while (text[n] != 0) ++n;
    unsigned short* units = malloc(2 * n + 2);
    for (size_t i = 0; i <= n; ++i) units[i] = (unsigned short)text[i];
    *bytes = 2 * n + 2; return units; }
"""


def make_stand_in(table, character, file):
    """A library with every function of the table. character: the type of a string's units in the calling program."""
    types = {"w": f"const {character}*", "p": "void*", "u4": "uint32_t", "i4": "int32_t", "i8": "int64_t"}
    text = STAND_IN.replace("CHARACTER", character)
    for name, (result, kinds) in table.items():
        parameters = ", ".join(f"{types[kind]} a{i}" for i, kind in enumerate(kinds))
        send, receive = [], []
        for i, kind in enumerate(kinds):
            length = BUFFERS.get(name, {}).get(i)
            if kind == "w":
                send.append(f"uint32_t n{i}; unsigned short* t{i} = Text(a{i}, &n{i}); Buffer(t{i}, n{i});")
                receive.append(f"Back(t{i}, n{i}); free(t{i});")
            elif length is not None:
                # At least one byte: a pointer that is not null must not become one.
                send.append(f"uint32_t n{i} = {length} != 0 ? {length} : 1; Buffer(a{i}, n{i});")
                receive.append(f"Back(a{i}, n{i});")
            elif kind == "p" and (i, name) in POINTERS_TO_NUMBERS:
                send.append(f"Buffer(a{i}, 4);")
                receive.append(f"Back(a{i}, 4);")
            else:
                send.append(f"Value((uint64_t)a{i});" if kind != "i4" else f"Value((uint32_t)a{i});")
        text += (f"{types[result]} {name}({parameters or 'void'}) {{\n    Name(\"{name}\", {len(kinds)});\n    "
                 + "\n    ".join(send) + "\n    uint64_t result; In(&result, 8);\n    " + "\n    ".join(receive)
                 + f"\n    return ({types[result]})result;\n}}\n")
    c_file = file.with_suffix(".c")
    c_file.write_text(text)
    run("cc", "-shared", "-fPIC", "-w", "-o", file, c_file)


POINTERS_TO_NUMBERS = {(2, "VTFltGetBlockSize"), (1, "VTFltGetBlockSize"), (5, "VTFltGetBitmap"), (3, "ReadFile"),
                       (6, "DeviceIoControl")}


class Trial:
    """A machine with a volume, and a sample that backs it up."""

    def __init__(self, name, command, environment):
        self.name, self.command = name, command
        self.folder = work / name
        self.folder.mkdir()
        self.runs = 0
        self.copy = self.folder / "copy"
        self.log = self.folder / "calls"
        self.environment = {**os.environ, **environment, "CALLS_LOG": str(self.log)}
        self.machine = "Z:" + str(self.folder / "machine").replace("/", "\\")
        sim = f"'{emulator}' '{build}/vtfltsim.exe'"
        # While there is a file "scribble", somebody writes into each new snapshot, where the file says; while there is one
        # "refuse", none is deleted; and one "lose" has tracking lost right before each.
        scripts = {"create": f"""[ ! -e lose ] || {sim} lose-tracking '{self.machine}' "$1" || {sim} lose-tracking '{self.machine}' "$1" || exit
                       line=$({sim} snapshot '{self.machine}' "$1" | tr -d '\\r')
                       [ -n "$line" ] || line=$({sim} snapshot '{self.machine}' "$1" | tr -d '\\r') # Wine lost it
                       [ -n "$line" ] || exit
                       [ ! -e scribble ] || '{sys.executable}' -B '{__file__}' scribble '{build}' '{emulator}' \\
                           '{self.machine}' "${{line#* }}" "$(cat scribble)" || exit
                       printf '%s\\n' "$line" """,
                   "delete": f"""[ ! -e refuse ] || exit 1
                       {sim} delete-snapshot '{self.machine}' "$1" || {sim} delete-snapshot '{self.machine}' "$1" """}
        for name_, text in scripts.items():
            file = self.folder / name_
            file.write_text(f"#!/bin/sh\ncd '{self.folder}' || exit\n{text}\n")
            file.chmod(0o755)
        self.sim("create", self.machine)
        for guid, kind in ((GUID, "fixed"), (SECOND, "fixed"), (REMOVABLE, "removable")):
            self.sim("add-volume", self.machine, LENGTH, "--block-size", BLOCK, "--guid", guid, "--type", kind)

    def sim(self, command, *arguments):
        """vtfltsim says why it fails. One that ends without a word never began: Wine loses a start in about a thousand."""
        line = list(map(str, (emulator, build / "vtfltsim.exe", command, *arguments)))
        for _ in range(3):
            done = subprocess.run(line, text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
            if done.returncode == 0 or done.stdout or done.stderr:
                break
        self.expect(f"vtfltsim {command}", done.returncode == 0, done.stdout + done.stderr)
        return done.stdout

    def write(self, block, value, guid=GUID):
        length = min(BLOCK, LENGTH - block * BLOCK)
        self.sim("write", self.machine, guid, "--offset", block * BLOCK, "--length", length, "--fill", value)

    def lose_the_registration(self, guid=GUID):
        """Somebody empties the list of applications, and another one comes back first: what was written is handed to it."""
        with Server(emulator, build, self.machine) as server:
            error, buffers = server.call("RegOpenKeyExW", 0xFFFFFFFF80000002, "SOFTWARE\\Veltrix\\Shared\\CBTDriver\\AppIDs",
                                         0, 2, bytes(8))
            self.expect("the key", error == 0, str(error))
            key = struct.unpack("<Q", buffers[1])[0]
            error, _ = server.call("RegDeleteValueW", key, "RegisteredAppIDs")
            self.expect("the value", error == 0, str(error))
            server.call("RegCloseKey", key)
        self.expect_success(self.folder / "other", "Other", guid)

    def back_up(self, copy=None, application="Sample", guid=GUID, plan=""):
        """Exit code, what was printed, and the calls that were made. plan: the simulator's, for the calls."""
        self.log.write_text("")
        self.runs += 1
        requests, answers = os.pipe(), os.pipe()
        with subprocess.Popen([emulator, build / "vtfltsim.exe", "run", self.machine, str(build / "call_server.exe")],
                              stdin=requests[0], stdout=answers[1], env={**os.environ, "VTFLTSIM_CALLS": plan}) as server:
            os.close(requests[0])
            os.close(answers[1])
            environment = {**self.environment, "REQUESTS": str(requests[1]), "ANSWERS": str(answers[0])}
            command = [*self.command, guid, application, copy or self.copy, f"{self.folder}/create {guid}",
                       self.folder / "delete"]
            done = subprocess.run(command, env=environment, pass_fds=(requests[1], answers[0]), text=True, check=False,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120)
            os.close(requests[1])
            os.close(answers[0])
            server.wait(60)
        return done.returncode, (done.stdout + done.stderr).strip(), self.log.read_text().split()

    def expect(self, what, condition, detail=""):
        if not condition:
            fail(f"{self.name}: {what} {detail}")

    def equals(self, copy=None, guid=GUID):
        contents = next(self.folder.glob(f"machine/volumes/{guid}/contents.img")).read_bytes()[:LENGTH]
        return (copy or self.copy).read_bytes() == contents.ljust(LENGTH, b"\0")

    def expect_success(self, copy=None, application="Sample", guid=GUID):
        """guid: in whatever letters."""
        code, text, _ = self.back_up(copy, application, guid)
        self.expect("exit code 0", code == 0, f"but {code}: {text}")
        self.expect("the copy equal to the volume", self.equals(copy, guid.lower()))
        return text

    def expect_backup(self, printed, blocks):
        code, text, calls = self.back_up()
        self.expect("exit code 0", code == 0, f"but {code}: {text}")
        self.expect(f"'{printed}'", text == printed, f"but '{text}'")
        self.expect(f"{blocks} blocks read", calls.count("ReadFile") == blocks, f"but {calls.count('ReadFile')}")
        if blocks != 0:
            last = len(calls) - 1 - calls[::-1].index("ReadFile")
            self.expect("the report last", calls.index("VTFltReplicationSuccess") > last)
        order = ["VTReplicateVerifyList", "VTIsVerifyRequired", "VTFltInitBitmapManager", "VTFltPrepareForSnapshot",
                 "VTFltGetBitmap", "VTFltReplicationSuccess", "VTFltDeinitBitmapManager"]
        begin = calls.index("VTRegisterApplication") if "VTRegisterApplication" in calls else 0 # which asks for its marks
        places = [calls.index(call, begin) for call in order]
        self.expect("the calls in order", places == sorted(places), str(calls))
        self.expect("the copy equal to the volume", self.equals())
        self.expect("no snapshot left", "snapshot " not in self.sim("show", self.machine).replace("snapshot announced", ""))
        return calls

    def check(self):
        self.write(0, 1)
        self.expect_backup("100 of 100 blocks read (everything)", 100)
        self.write(3, 2)
        self.write(99, 3) # a part of a block
        calls = self.expect_backup("2 of 100 blocks read", 2)
        self.expect("two questions", calls.count("VTIsVerifyRequired") == 2, str(calls))
        self.sim("lose-tracking", self.machine, GUID)
        self.write(7, 4)
        self.expect_backup("100 of 100 blocks read (everything)", 100)
        self.expect_backup("0 of 100 blocks read", 0) # the first question saw it, so this one need not read everything
        self.check_names()
        self.check_registration_and_owner()
        self.check_not_fixed()
        self.check_marks()
        self.check_silence()
        self.check_snapshot()
        if self.name == "python": # the other one's runtime says nothing of its own steps
            self.check_copy_taken_away()
        self.sim("driver", self.machine, "absent")
        self.sim("service", self.machine, "absent")
        code, text, calls = self.back_up()
        self.expect("exit code 1 without the driver", code == 1 and "driver" in text, f"but {code}: {text}")
        self.expect("nothing reported", "VTFltReplicationSuccess" not in calls)
        self.sim("destroy", self.machine)
        return self.runs

    def check_names(self):
        """Lists and mutexes know letter case, volumes do not."""
        self.expect_success(guid=GUID.upper())
        self.write(3, 10)
        self.sim("lose-tracking", self.machine, GUID)
        text = self.expect_success(guid=GUID.upper())
        self.expect("everything read", text == "100 of 100 blocks read (everything)", text)
        text = self.expect_success(guid=GUID.upper())
        self.expect("no mark left, and the same copy", text == "0 of 100 blocks read", text)
        code, text, _ = self.back_up(guid=GUID.replace("6c1d34ab", "00000000"))
        self.expect("exit code 1 without the volume", code == 1 and "finding the volume" in text, f"but {code}: {text}")

    def check_marks(self):
        """Marks are left out, with success, while the driver does not answer: then it is not registered, either."""
        second = self.folder / "second"
        self.expect_success()
        self.expect_success(second, guid=SECOND)
        self.sim("service", self.machine, "absent") # or the driver would be reinstalled
        self.write(3, 13)
        self.lose_the_registration()
        code, text, calls = self.back_up(second, guid=SECOND, plan="fail|CreateFileW|\\\\.\\VTFltMgr|3|1|2")
        self.expect("a failure to mark", code == 1 and "marking the volumes" in text, f"but {code}: {text}")
        self.expect("no registration", "VTRegisterApplication" not in calls)
        self.expect_success(second, guid=SECOND)
        self.expect_success()
        self.sim("service", self.machine, "present")

    def check_silence(self):
        """A silent driver hands its list over to nobody, with success. It is silent for one look for it, of four to a
        question, the third look being the first of the first one."""
        self.sim("service", self.machine, "absent") # or the driver would be reinstalled
        self.expect_success()
        (self.folder / "lose").touch() # between the questions
        for look in (5, 7, 9):
            self.write(3, 100 + look)
            code, text, _ = self.back_up(plan=f"fail|CreateFileW|\\\\.\\VTFltMgr|{look}|1|2")
            self.expect(f"exit code 0 at look {look}", code == 0, f"but {code}: {text}")
            self.expect(f"the copy equal to the volume at look {look}", self.equals(), text)
        (self.folder / "lose").unlink()
        self.expect_success()
        self.sim("service", self.machine, "present")

    def check_not_fixed(self):
        """Registering again marks no such volume, and a run of another volume may be what registers."""
        copy = self.folder / "removable"
        self.expect_success(copy, guid=REMOVABLE)
        self.write(3, 11, REMOVABLE)
        self.lose_the_registration(REMOVABLE)
        self.expect_success()
        self.expect_success(copy, guid=REMOVABLE)
        text = self.expect_success(copy, guid=REMOVABLE)
        self.expect("everything read", text == "100 of 100 blocks read (everything)", text)

    def check_copy_taken_away(self):
        """The copy is whole when it is looked at, and has another name, or none, when it is written to."""
        self.write(3, 12)
        away = self.copy.with_suffix(".away")
        self.environment["TAKE_AWAY"] = f"{self.copy}>{away}"
        code, text, _ = self.back_up()
        del self.environment["TAKE_AWAY"]
        self.expect("that the copy was taken away", away.exists())
        self.expect("no copy with holes that counts as one", code != 0 or not self.copy.exists() or self.equals(),
                    f"{code}: {text}")
        self.expect_success()

    def check_registration_and_owner(self):
        other = self.folder / "other"
        self.write(3, 5)
        self.lose_the_registration()
        calls = self.expect_backup("100 of 100 blocks read (everything)", 100)
        self.expect("marks before the registration",
                    calls.index("VTAddVolumesToAppVerifyList") < calls.index("VTRegisterApplication"), str(calls))
        self.expect("a look whether it is registered",
                    calls[calls.index("VTRegisterApplication") + 1] == "VTCanAppUseBLIDriver", str(calls))
        code, text, _ = self.back_up(other, "ample") # which is answered with 0, and is not
        self.expect("no success under the tail of an ID", code == 1 and "registering failed" in text, f"but {code}: {text}")
        self.expect("no second registration", "VTRegisterApplication" not in self.expect_backup("0 of 100 blocks read", 0))
        # The copy of another application, to which nothing is owed.
        self.write(3, 6)
        self.expect_success(other, "Other")
        self.expect_success(self.copy, "Other")
        self.expect_success()
        # The copy of another volume: read whole; and stopped in the middle, it is nobody's.
        self.write(9, 7, SECOND)
        second = self.folder / "second"
        self.expect_success(second, guid=SECOND)
        self.expect_success(self.copy, guid=SECOND)
        self.expect_success()
        self.sim("lose-tracking", self.machine, SECOND)
        code, text, _ = self.back_up(guid=SECOND, plan="fail|ReadFile|HarddiskVolumeShadowCopy|50|1|23")
        self.expect("exit code 1", code == 1, f"but {code}: {text}")
        self.expect_success()

    def check_snapshot(self):
        self.sim("filters", self.machine, "VTFlt", "--class", SNAPSHOT_CLASS)
        self.write(50, 8)
        (self.folder / "scribble").write_text(str(50 * BLOCK))
        code, text, _ = self.back_up()
        self.expect("exit code 0", code == 0, f"but {code}: {text}")
        self.expect("the snapshot's own block in the copy", not self.equals())
        (self.folder / "scribble").unlink()
        self.expect_backup("1 of 100 blocks read", 1)
        # Refused once, the question for it (the first two for a bitmap are the volume's) is no word about the snapshot.
        self.write(50, 9)
        (self.folder / "scribble").write_text(str(50 * BLOCK))
        code, text, calls = self.back_up(plan="fail|DeviceIoControl|0xB0000002|3|1|1")
        self.expect("exit code 1", code == 1 and "what the snapshot changed" in text, f"but {code}: {text}")
        self.expect("nothing reported", "VTFltReplicationSuccess" not in calls)
        (self.folder / "scribble").unlink()
        self.expect_success()
        # What was reported stays so when the snapshot cannot be deleted.
        (self.folder / "refuse").touch()
        text = self.expect_success()
        self.expect("a word about the snapshot", "changes nothing of the backup" in text, text)
        (self.folder / "refuse").unlink()
        self.sim("reboot", self.machine) # and the snapshot is gone
        self.sim("fail", self.machine, "get-bitmap", 234, "--count", 0)
        code, text, _ = self.back_up()
        self.expect("an end of the questions", code == 1 and "234" in text, f"but {code}: {text}")
        self.sim("clear-faults", self.machine)
        self.expect_success()


def main():
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    table = {name: (kind_of(result), list(map(kind_of, parameters)))
             for name, (_, result, parameters) in prototypes().items()}
    check_prototypes(table, "python")
    csharp = csharp_prototypes()
    check_prototypes(csharp, "csharp")
    if set(csharp) != set(table):
        fail(f"the two samples call different functions: {sorted(set(csharp) ^ set(table))}")

    make_stand_in(table, "int32_t", work / "python.so")
    make_stand_in(csharp, "uint16_t", work / "csharp.so")
    runner = work / "run.py"
    runner.write_text("import ctypes, os, runpy, sys\n"
                      f"ctypes.WinDLL = lambda name, **options: ctypes.CDLL({str(work / 'python.so')!r})\n"
                      "sys.dont_write_bytecode = True\n"
                      "sys.argv = sys.argv[1:]\n"
                      "def take_away(frame, event, argument):\n"
                      "    if frame.f_code.co_name == 'copy_blocks':\n"
                      "        os.rename(*os.environ['TAKE_AWAY'].split('>'))\n"
                      "        sys.settrace(None)\n"
                      "if 'TAKE_AWAY' in os.environ:\n"
                      "    sys.settrace(take_away)\n"
                      "runpy.run_path(sys.argv[0], run_name='__main__')\n")
    runs = Trial("python", [sys.executable, runner, source / "samples/backup_loop.py"], {}).check()

    program = work / "BackupLoop.exe"
    run("mcs", "-warnaserror", "-warn:4", f"-out:{program}", source / "samples/BackupLoop.cs")
    (work / "BackupLoop.exe.config").write_text(
        "<configuration>\n" + "".join(f'<dllmap dll="{name}" target="{work / "csharp.so"}"/>\n'
                                      for name in ("VTFltMgr.dll", "kernel32.dll")) + "</configuration>\n")
    runs += Trial("csharp", ["mono", program], {}).check()
    print(f"check_scripts: {len(table)} prototypes in two languages, {runs} runs")


STAND_IN = STAND_IN.replace("REQUESTS", 'atoi(getenv("REQUESTS"))').replace("ANSWERS", 'atoi(getenv("ANSWERS"))')
main()
