#!/usr/bin/env python3
"""Writes the seeds, from which the fuzzing starts: seeds/TARGET/NAME, a few inputs that mean something to each target.

What the bytes mean is written in the targets. Run it again after changing it; the files are kept with the sources."""

import pathlib
import struct

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
    }


def log_record():
    when = struct.pack("<HBBBBBH", 425, 10, 20, 4, 3, 47, 123)
    return {
        "error": when + struct.pack("<iIIII", 0, 100, 200, 5, 0x00010002) + wide("Open volume failed\r\nagain"),
        "plain": when + struct.pack("<iIIII", 2, 0xFFFFFFFF, 7, 0, 0xFFFFFFFF) + wide("a}::(1.2)"),
        "negative": when + struct.pack("<iIIII", -1, 0, 0, 0xFFFFFFFF, 0),
    }


def index_file():
    encodings = bytes(range(76))
    full = b"\x40\x05" + b"\0\1\2\0\5\3\x20\2\7\1"
    return {
        "whole": b"\1" + b"\7\2" + full + b"\x50\3" + b"\0\0\1\1\3\2" + b"\x18\2" + b"\1\3\2\0",
        "one": encodings[:1] + b"\7\0" + full + b"\1\x30\0\xff\1\0\0",
        "flipped": b"\0\7\1" + full + full + b"\1\2\x18\0\x10\x19\0\x20\x28\0\x30\1\0\0",
        "cut": b"\0\3\0" + full + b"\0\0\x10\0\1\1\1\1\x07",
        "empty": b"\1\0\0\0\0",
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


def command_line():
    words = "init backup restore verify list".split()
    common = bytes([19, 20])
    return {word: bytes([number]) + common + (bytes([21, 22, 23]) if word == "restore" else bytes([21]) * (word == "backup"))
            for number, word in enumerate(words)} | {
        "help": bytes([18]),
        "text": bytes([0, 5]) + b"\xa3abc" + bytes([6]) + b"\xa4a\x20b\x27" + bytes([9, 10]),
        "both": bytes([0, 19, 20, 10, 11]),
    }


def time_text():
    now = struct.pack("<BBBBBBB", 26, 10, 20, 4, 3, 47, 41)
    texts = ["90s", "7d", "2026/11/21", "2026-11-21 10:00", "2026/11/21T10:00:01.500", "2026/11/21 10:00:01:5", "10:00",
             "999999999s", "2024-02-29"]
    return {f"text{number}": now + text.encode() for number, text in enumerate(texts)}


def main():
    for make in (bitmap_file, breakpoints, command_line, config_block, device_reply, driver_reply, index_file, log_file,
                 log_record, manifest, multi_string, resync_list, ring, time_text):
        folder = SEEDS / make.__name__
        folder.mkdir(parents=True, exist_ok=True)
        for name, data in make().items():
            (folder / name).write_bytes(data)


if __name__ == "__main__":
    main()
