#!/usr/bin/env python3
"""Writes the seeds, from which the fuzzing starts: seeds/TARGET/NAME, a few inputs that mean something to each target.

What the bytes mean is written in the targets. Run it again after changing it; the files are kept with the sources."""

import pathlib
import re
import struct

TARGETS = pathlib.Path(__file__).resolve().parent / "targets"
SEEDS = pathlib.Path(__file__).resolve().parent / "seeds"


def wide(text):
    return text.encode("utf-16-le")


def sized(text):
    """Text behind a byte with its number of characters."""
    return bytes([len(text)]) + wide(text)


def short(data):
    return bytes([len(data)]) + data


def record(length, bits, block_size=4096):
    size = (length + 92 + 4095) // 4096 * 4096
    head = struct.pack("<4sIIII64x", b"STCA", 0, block_size, length, size)
    return (head + bits).ljust(size - 4, b"\0") + b"ACDE"


def bitmap_file():
    def make(mode, image, new_length=100, capacity=64, volume=1 << 40, block=65536, bits=b"\x80\x01\xff"):
        return struct.pack("<BHHqI", mode, new_length, capacity, volume, block) + short(bits) + image
    small = struct.pack("<4sIIII64x", b"STCA", 0, 512, 16, 108) + b"\x55" * 20 + b"ACDE"
    return {
        "whole": make(0, record(24, b"\x80" * 24)),
        "small": make(3, small),
        "claims_more": make(1, struct.pack("<4sIIII64x", b"STCA", 0, 4096, 5000, 0) + b"\xaa" * 40),
        "eight_bytes": make(0, b"STCAACDE"),
        "grown": make(1, small, new_length=3000, capacity=2999),
    }


def multi_string():
    return {
        "list": b"\1" + sized("App1") + b"".join(sized(name) for name in ("MyApp1", "App12", "Nightly")),
        "raw": b"\0" + sized("App1") + wide("MyApp1\0App1\0App12\0\0"),
        "no_end": b"\0" + sized("App1") + wide("MyApp1\0App1"),
        "leading_zeros": b"\0" + sized("b") + wide("\0\0a\0b\0\0\0"),
        "odd": b"\0" + sized("") + wide("a\0\0") + b"x",
    }


def resync_list():
    guid = "{11111111-2222-3333-4444-555555555555}"
    path = "\\\\?\\Volume" + guid + "\\"
    return {
        "guids": sized(path) + sized(guid) + wide(guid + "\0" + "{22222222-2222-3333-4444-555555555555}\0C:\0\0"),
        "drive": sized("C:\\") + sized("") + wide("a*b\0{}\0{\0}\0\0"),
        "braced": sized("Volume" + guid) + sized("x") + wide("x\0"),
    }


def device_reply():
    head = struct.pack("<qq", 0, 8000) + short(b"\1" * 20) + struct.pack("<I", 160)
    reply = struct.pack("<I", 616) + wide("Volume1").ljust(96, b"\0") + wide("Device1").ljust(512, b"\0")
    return {
        "tracked": head + b"\0" + sized("\\Device\\HarddiskVolume1") + reply + struct.pack("<I", 1),
        "unended": head + b"\0" + sized("abc") + b"\x41" * 616,
        "failed": head + b"\1\5\0" + sized("abc") + b"\x41" * 616,
        "negative": struct.pack("<qq", 1 << 62, -(1 << 62)) + short(b"") + struct.pack("<I", 0) + b"\0\0",
    }


def driver_reply():
    def make(files, values, operations, bitmap=b"\0" * 16 + b"\x81" * 16, block=3, length=64 * 4096, failing=0, call=0):
        data = bytes([block]) + struct.pack("<q", length) + bytes([failing, 0]) + short(bitmap)
        for base, child, value in zip(files[0::2], files[1::2], values):
            data += base + child + value
        return data + bytes([call]) + operations
    fresh = b"\2" + short(b"\0" * 24)
    changed = b"\2" + short(b"\0" * 16 + b"\x18" * 8)
    none, garbage = b"\0", b"\1" + short(b"STCA" + b"\0" * 100)
    claims = b"\3" + short(b"\x80" * 24) + b"\x0c" + struct.pack("<I", 5000)
    no_list = b"\0"
    listed = b"\1" + short(wide("{22222222-2222-3333-4444-555555555555}\0"))
    fetch = b"\0" + struct.pack("<H", 32) + b"\0"
    sync = b"\2" + short(b"\0" * 16 + b"\x42" * 16)
    return {
        "cycle": make([fresh] * 4, [no_list] * 2, fetch + b"\3" + fetch),
        "changes": make([changed, fresh, fresh, changed], [no_list, listed], fetch + sync + fetch + b"\3" + b"\4"),
        "missing": make([none, fresh, changed, none], [no_list] * 2, fetch + fetch),
        "damaged": make([garbage, claims, claims, garbage], [listed, listed], fetch + sync + fetch),
        "failing": make([changed] * 4, [listed, no_list], fetch + fetch, call=9),
        "too_short": make([fresh] * 4, [no_list] * 2, fetch, failing=1),
        "keeps": make([fresh] * 4, [no_list] * 2, fetch + fetch, failing=2 | 32),
        "no_geometry": make([none] * 4, [no_list] * 2, fetch, block=0),
        # The unreadable base can neither be listed nor be begun anew, and nobody knows whether the child is there.
        "unlisted": make([garbage, changed, fresh, fresh], [no_list] * 2, fetch + fetch, failing=3 << 6, call=42),
    }


def config_block():
    def edit(index, name, path, level, flags, ended=b"\1"):
        return bytes([index]) + sized(name) + ended + sized(path) + ended + struct.pack("<II", level, flags)
    register, store, query = b"\0", b"\1", b"\2"
    return {
        "fresh": b"\0\0\0" + register + sized("a.dll") + query + sized("A.DLL"),
        "edited": b"\0\2" + edit(0, "a.dll", "C:\\a.log", 3, 0xFFFF) + edit(1, "b.dll", "b", 0, 0) + b"\0" +
                  query + sized("b.dll") + store + sized("a.dll") + sized("C:\\x.log") + query + sized("a.dll"),
        "damaged": b"\0\0\1" + struct.pack("<I", 7) + register + sized("a.dll"),
        "common": b"\0\0\x0c\3" + sized("P:\\p") + b"\1" + query + sized("") + store + sized("") + sized(""),
        "unended": b"\0\1" + edit(0, "aa", "b", 1, 3, b"\0") + b"\0" + query + sized("a" * 69),
        "full": b"\xff\1" + edit(5, "z.dll", "z", 1, 1) + b"\0" + register + sized("z.dll") + register + sized("q.dll"),
    }


def ring():
    def make(write, back, raw=b"", fill=0, operations=b""):
        return struct.pack("<q", write) + b"\0" + bytes([back]) + short(raw) + bytes([fill]) + operations
    write = b"\1" + struct.pack("<iI", 2, 5) + sized("m.dll") + b"\1" + wide("hello")
    return {
        "new": make(-1, 0, operations=write + write),
        "behind": make(2000, 30, wide("a.exe"), 0, write),
        "unended": make(5, 5, b"\x41" * 255, 0x41, write),
        "highest": make((1 << 63) - 1, 3, operations=write + write),
        "lowest": struct.pack("<q", -(1 << 63)) + b"\1" + struct.pack("<q", (1 << 63) - 1),
        "far": struct.pack("<q", 1 << 40) + b"\1" + struct.pack("<q", -5) + b"\0\0",
    }


def breakpoints():
    def entry(name, pattern, enabled=1, process=0, thread=0, ended=b"\0"):
        return bytes([0, 7, process, thread, enabled]) + sized(name) + ended + sized(pattern) + ended
    free = bytes(9)
    event = sized("a.exe") + sized("some text here") + b"\1\2" + bytes(range(16))
    return {
        "hit": struct.pack("<i", 1) + entry("A.EXE", "text") + free * 3 + b"\0" + event,
        "second": struct.pack("<i", 5) + entry("b.exe", "") + entry("a.exe", "", 0) + entry("a.exe", "some", 2, 1, 2) +
                  free + b"\3" + event,
        "gated": struct.pack("<i", -1) + entry("a.exe", "") * 4 + b"\7" + event,
        "unended": struct.pack("<i", 1) + entry("a", "t", ended=b"\xff") * 4 + b"\5" + event,
    }


RECORD = "[2026/11/21 04:03:47:123   00   00100   00200   0X00000005] message   {a.exe::b.dll(1.2)}\r\n"
PLAIN = "[2026/11/21 04:03:47:123   02   00100   00200             ] ================ SUMMARY LOG =======================\r\n"
COLUMNS = "[   Date        Time      Level  PID     TID   ErrCode    ] .......\r\n"


def log_file():
    mark = b"\xff\xfe"
    return {
        "wide": b"\x06" + mark + wide(COLUMNS + PLAIN + RECORD * 2),
        "narrow": b"\x00" + (COLUMNS + RECORD * 2).encode(),
        "torn": b"\x10" + mark + wide(RECORD)[:-61] + wide(RECORD) + b"\x41" + wide(RECORD),
        "mixed": b"\x20" + mark + wide(RECORD) + RECORD.encode() + wide(RECORD),
        "utf8": b"\x03" + b"\xef\xbb\xbf" + RECORD.encode(),
        "lines": b"\x01" + mark + wide(RECORD.replace("message", "one\ntwo\r\nthree") + "loose\r\n\r" + RECORD),
        "joined": b"\x07" + RECORD.encode() + b"loose" + mark + wide(RECORD) + b"\x41" + RECORD.encode(),
        "two_marks": b"\x02" + mark + mark + wide(RECORD),
    }


def log_record():
    when = struct.pack("<HBBBBBH", 425, 10, 20, 4, 3, 47, 123)
    return {
        "error": when + struct.pack("<iIIII", 0, 100, 200, 5, 0x00010002) + wide("Open volume failed\r\nagain"),
        "plain": when + struct.pack("<iIIII", 2, 0xFFFFFFFF, 7, 0, 0xFFFFFFFF) + wide("a}::(1.2)"),
        "negative": when + struct.pack("<iIIII", -1, 0, 0, 0xFFFFFFFF, 0),
    }


def index_file():
    full = b"\x40\x05" + b"\0\1\2\0\5\3\x20\2\7\1"
    shrunk, grown = b"\x10\3\0\0\1\1\3\2", b"\x50\2\1\3\x18\2"

    def make(damage, block_size, members, rest=b""):
        return bytes([damage, block_size - 1, len(members) - 1]) + b"".join(members) + rest

    def change(at, by):
        return struct.pack("<BHB", 0, at, by - 1)
    kept, remade, whole = b"\0\0\0", b"\1\0\0", b"\0"
    return {
        "whole": make(1, 8, [full, shrunk, grown]),
        "one": make(1, 8, [full]),
        "empty": make(1, 1, [b"\0\0"]),
        "flipped": make(0, 8, [full, full], b"\1" + change(0x30, 0x10) + kept),
        "another_block": make(0, 8, [full, grown], b"\0" + change(24 + 32, 1) + remade),
        "another_offset": make(0, 8, [full], b"\0" + change(24 + 32 * 2 + 8, 1) + remade),
        "cut": make(0, 4, [full], b"\0" + change(0, 1) + b"\0\0\1\7"),
        "changed_data": make(2, 8, [full, shrunk], b"\0" + change(9, 1) + whole),
        "cut_data": make(2, 8, [full], b"\0" + change(3, 1) + b"\7\x10"),
        "both": make(4, 8, [full, shrunk], b"\1" + change(0x20, 0x10) + remade + b"\0" + change(9, 1) + whole),
    }


def manifest():
    text = ('{"manifest":{"application":"A","base":1,"blockSize":4096,"blocksReported":0,"blocksStored":1,"blocksZero":0,'
            '"bytesRead":4096,"dataLength":4096,"format":1,"indexChecksum":"00","indexLength":88,"kind":"full","next":[],'
            '"parent":0,"parentChecksum":"","reasons":[{"code":"first-backup","text":"t"}],"reportable":true,'
            '"sequence":1,"time":"2026-11-21T00:00:00Z","volume":"{v}","volumeLength":10000}')
    return {
        "stored": b"\0" + struct.pack("<HB", 0, 0) + b"\0\1A\1V\1T\1\1c\1t\0\1" +
                  struct.pack("<QI", 10000, 4096) + bytes(48) + b"\2ab",
        "incremental": b"\0" + struct.pack("<HBBH", 9, 2, 1, 5) + b"\1c\1A\1V\1T\0\0\1" +
                       struct.pack("<QI", 10000, 4096) + bytes(48) + b"\0",
        "text": b"\1" + (text + ',"checksum":"0"}').encode(),
        "inner": b"\2" + text[len('{"manifest":'):].encode(),
        "deep": b"\1" + b"[" * 90,
        "not_utf8": b"\1{\"manifest\":\"\xff\xfe\"",
    }


def command_lines(source):
    """A function that makes an input of a command line; words that the target does not know come as text."""
    listed = re.search(r"WORDS\[\] = \{(.*?)\n\};", (TARGETS / source).read_text(), re.DOTALL).group(1)
    words = [word.replace("\\\\", "\\") for word in re.findall(r'"(.*?)",', listed)]

    def make(line):
        data = b""
        for word in line.split():
            if word in words:
                data += bytes([words.index(word)])
            else:
                # The byte's remainder by 32 is 16 and the length: text of its own.
                assert len(word) < 16
                data += bytes([208 + len(word)]) + word.encode()
        return data
    return make


def command_line():
    make = command_lines("command_line.cpp")
    return {name: make(line) for name, line in {
        "init": "init --app=A --repo=R --reset",
        "init_undo": "init --app=A --repo=R --undo --no-monitor --simulate=S",
        "backup": "backup --app=A --repo=R --volume=V --full --audit=010 --register",
        "backup_verify": "backup --app=A --repo=R --volume=V --verify --json --snapshot-create=c --snapshot-delete=d",
        "restore": "restore --app=A --repo=R --volume=V --to=T --backup=00000010 --overwrite",
        "verify": "verify --repo=R",
        "list": "list --repo=R --volume=V",
        "report": "report --repo=R --html=H --overwrite",
        "no_value": "list --repo= R",
        "help": "backup --help",
        "version": "--version",
        "both": "init --app=A --repo=R --reset --undo",
        "text": "backup --app=x'y --repo -- --json",
    }.items()}


def vtlog_command_line():
    make = command_lines("vtlog_command_line.cpp")
    return {name: make(line) for name, line in {
        "show": "show a.Log --level=error --pid=00100 --tid=7 --json",
        "filters": "show a.Log --code=0x10001 --grep=[a,b] --ignore-case --since=2h --until=2026/11/21 --plain --only",
        "why": "show a.Log --why={11111111-2222-3333-4444-555555555555} --simulate=S --json",
        "other_machine": "show a.Log --why={11111111-2222-3333-4444-555555555555} --other-machine",
        "grep": "show --grep text a.Log --code-page=1252",
        "tail": "tail --exe=a.exe --count=08 --for=1e9 --stop-event=e",
        "break": "break --exe=a.exe --text=t --hold=1.5 --pid=00100",
        "not_a_number": "break --exe=a.exe --text=t --hold=nan",
        "config": "config 1234 --module=VTFltMgr.dll --level=error --path=C:\\a.Log",
        "automatic": "config 1234 --module=VTFltMgr.dll --auto",
        "global": "config 1234 --global-level=none --no-global-path --json",
        "no_value": "show a.Log --level= error",
        "help": "show --help",
        "version": "--version",
        "mark": "show --level 4 -- --json -1",
    }.items()}


def vtfltctl_command_line():
    make = command_lines("vtfltctl_command_line.cpp")
    return {name: make(line) for name, line in {
        "status": "status --json --simulate=S",
        "doctor": "doctor --reinstall --yes",
        "apps": "apps list",
        "register": "apps register Nightly --yes",
        "unregister": "apps unregister -- -App",
        "clean": "apps clean Nightly --volume=E: --yes",
        "verify": "verify list Nightly",
        "add": "verify add Nightly E: {11111111-2222-3333-4444-555555555555}",
        "all": "verify add Nightly --all",
        "brackets": "verify add Nightly [a,b]",
        "remove": "verify remove Nightly E: --exact --pending --yes",
        "replicate": "verify replicate Nightly",
        "rebuild": "verify rebuild --yes=false",
        "monitor": "monitor off --yes",
        "stop": "stop E: --yes",
        "device": "device E:",
        "info": "bitmap info a.dat --dump --block-size=64K --volume-size=1T --buffer-header=0",
        "of_volume": "bitmap info --volume=E: --app=Nightly --which=base",
        "extents": "bitmap extents a.dat --start=512G --limit=010",
        "diff": "bitmap diff a.dat a.dat --list --limit=010 --json",
        "map": "bitmap map a.dat --png=a.png --yes",
        "ansi": "bitmap map a.dat --ansi --columns=128",
        "completion": "completion bash",
        "man": "man",
        "no_value": "apps clean Nightly --volume= --yes",
        "help": "verify --help",
        "version": "--version",
        "wrong": "apps peel --json",
    }.items()}


def vtfltctl_bitmap():
    def make(mode, image, blocks=1000, start=0, volume=1 << 30, block=3584, text=b"C:\\VelVolTrc_child_App.dat"):
        return struct.pack("<BIIQI", mode, blocks, start, volume, block) + short(text) + image
    odd = struct.pack("<4sIIII64x", b"STCA", 1, 1000, 300, 0) + b"\x0f" * 200
    return {
        "sound": make(0, record(56, b"\x80" * 56)),
        "remapped": make(4, record(40, b"\x81\xff" * 20), text=b"64K"),
        "cut_short": make(0, record(56, b"\x80" * 56)[:3000]),
        "no_trailer": make(0, record(56, b"\x80" * 56)[:-1] + b"x"),
        "claims_more": make(1, odd, start=290),
        "trailing": make(3, record(56, b"\x01" * 56) + b"x", text=b"DriverBitmap-App-20240305-070809-010.dat"),
        "small_record": make(0, b"STCA\0\0ACDE\0\0\0\0\0\0\x0a\0\0\0".ljust(88, b"\0")),
        "dump": make(0, b"\0" * 16 + b"\xf0" * 50, text=b"1P"),
        "short": make(0, b"STCA"),
    }


def vtfltctl_lists():
    word = bytes
    none, damaged = b"\0", b"\1\1" + short(wide("{11111111-2222-3333-4444-555555555555}"))

    def entries(*numbers):
        return b"\2" + bytes([len(numbers)]) + word(numbers)

    def make(lists, mode=0, applications=b"\0\0", rest=b"\0" + b"\2\0\1\1\1\1" + struct.pack("<I", 1) + b"\0"):
        return applications + bytes([mode]) + b"".join(lists) + rest
    return {
        "guids": make([entries(0), entries(0, 1), entries(1)], 7),
        "odd": make([entries(2, 3), entries(4, 5, 6), entries(15)], 3),
        "hidden": make([entries(8, 0), entries(9, 1, 8), none], 1),
        "separator": make([entries(13), entries(0, 14), entries(13)]),
        "damaged": make([damaged, damaged, damaged], 2),
        "raw": make([b"\1\0\1" + short(wide("{11111111-2222-3333-4444-555555555555}\0\0x\0\0"))] + [none] * 2, 3),
        "dashed": make([entries(12)] * 4 + [none], 0, b"\1\3"),
        "last": make([entries(0), entries(1), entries(0), none, entries(1)], 4, b"\1\1"),
        "text": make([entries(10, 11), b"\2\1\x64" + wide("5}\\") * 5, none]),
    }


def repository_file():
    return {
        "repository": b'\0{"format":"vtbackup-repository","version":1,"id":"0123456789abcdef0123456789abcdef"}',
        "other_format": b'\0{"format":"x","version":2,"id":""}',
        "no_object": b"\0[1]",
        "chain": b'\1{"application":"App","volume":"{11111111-2222-3333-4444-555555555555}"}',
        "bare_chain": b'\2{"application":"","volume":"\\\\\\\\?\\\\Volume{11111111-2222-3333-4444-555555555555}"}',
        "no_chain": b"\3",
        "no_volume": b'\4{"application":1,"volume":"E:"}',
        "own": b"\5\4a\nb\"",
    }


def loss_evidence():
    whole = (b'{"format":"vtbackup-lost-tracking","version":1,"id":"0123456789abcdef0123456789abcdef","application":"App",'
             b'"volume":"{v}","backup":7,"marked":["App"],"fixedOnly":["Other"],"allMarked":%s,"settled":%s,"told":[],'
             b'"blocks":[{"block":1}]}')
    return {
        "owed": b"\5" + whole % (b"false", b"false"),
        "settled": b"\x09" + whole % (b"false", b"true"),
        "marked": b"\x0a" + whole % (b"true", b"true"),
        "damaged": b"\3{",
        "array": b"\4[]",
        "deep": b"\1" + b'{"a":' * 20 + b"1" + b"}" * 20,
        "wrong_types": b'\x0b{"id":7,"marked":"App","told":{"a":1},"settled":"yes","damaged":1}',
    }


def success_note():
    mark = b'{"sequence":3,"manifestChecksum":"00"}'
    note = b'\0{"application":"App","volume":"v","repository":"id","backup":' + mark
    return {
        "note": note + b"}",
        "before": note + b',"before":' + mark + b"}",
        "negative": note.replace(b"3", b"-1") + b"}",
        "fraction": note + b',"before":' + mark.replace(b"3", b"1.5") + b"}",
        "other": note.replace(b"App", b"Other") + b"}",
        "own": b"\1\3App\2id" + struct.pack("<Q", 7) + b"\2ab\1" + struct.pack("<Q", 6) + b"\0",
    }


def time_text():
    now = struct.pack("<BBBBBBB", 26, 10, 20, 4, 3, 47, 41)
    texts = ["90s", "7d", "2026/11/21", "2026-11-21 10:00", "2026/11/21T10:00:01.500", "2026/11/21 10:00:01:5", "10:00",
             "999999999s", "2024-02-29"]
    return {f"text{number}": now + text.encode() for number, text in enumerate(texts)}


def main():
    for make in (bitmap_file, breakpoints, command_line, config_block, device_reply, driver_reply, index_file, log_file,
                 log_record, loss_evidence, manifest, multi_string, repository_file, resync_list, ring, success_note,
                 time_text, vtfltctl_bitmap, vtfltctl_command_line, vtfltctl_lists, vtlog_command_line):
        folder = SEEDS / make.__name__
        folder.mkdir(parents=True, exist_ok=True)
        for name, data in make().items():
            (folder / name).write_bytes(data)


if __name__ == "__main__":
    main()
