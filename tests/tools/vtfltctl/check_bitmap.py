#!/usr/bin/env python3
"""The bitmap commands of vtfltctl.exe, held against bitmaps that are worked out here, byte by byte.

    check_bitmap.py FOLDER RUNNER... VTFLTCTL VTFLTSIM

Works in FOLDER, which it empties. Files are written and pictures decoded by this script alone: it shares no code with
what it tests.
"""
import json
import os
import random
import shutil
import struct
import subprocess
import sys
import unittest
import zlib

FOLDER = os.path.abspath(sys.argv[1])
RUNNER = [os.path.abspath(part) if os.path.exists(part) else part for part in sys.argv[2:-2]]
VTFLTCTL, VTFLTSIM = (os.path.abspath(program) for program in sys.argv[-2:])

OK, USAGE, BUSY, REFUSED, DAMAGED, NOT_FOUND, UNREADABLE, VERIFY, UNKNOWN, DIFFERENT = 0, 2, 3, 4, 6, 10, 11, 12, 13, 15
LEAD = 16
BLOCK = 65536


def start(program, *arguments, environment=None):
    run = subprocess.run(RUNNER + [program, *arguments], cwd=FOLDER, capture_output=True, timeout=300,
                         env={**os.environ, **(environment or {})}, check=False)
    return run.returncode, run.stdout.decode("utf-8"), run.stderr.decode("utf-8")


SCHEMAS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../../tools/vtfltctl/schema")
TYPES = {"object": dict, "array": list, "string": str, "boolean": bool, "integer": int, "null": type(None)}


def check(value, schema, at="$"):
    """The part of JSON Schema that our schemas use; an unknown word in one is an error."""
    known = {"$schema", "title", "description", "type", "properties", "required", "additionalProperties", "items", "enum",
             "const", "minimum"}
    assert schema.keys() <= known, f"{at}: the schema uses {schema.keys() - known}"
    if "type" in schema:
        types = schema["type"] if isinstance(schema["type"], list) else [schema["type"]]
        right = any(isinstance(value, TYPES[t]) and not (t == "integer" and isinstance(value, bool)) for t in types)
        assert right, f"{at}: {value!r} is no {schema['type']}"
    assert value in schema.get("enum", [value]), f"{at}: {value!r}"
    assert value == schema.get("const", value), f"{at}: {value!r}"
    if "minimum" in schema:
        assert value >= schema["minimum"], f"{at}: {value!r}"
    if isinstance(value, list):
        for i, item in enumerate(value):
            check(item, schema["items"], f"{at}[{i}]")
    if isinstance(value, dict):
        assert not set(schema["required"]) - value.keys(), f"{at} lacks {set(schema['required']) - value.keys()}"
        for name, member in value.items():
            assert name in schema["properties"], f"{at} has {name}"
            check(member, schema["properties"][name], f"{at}.{name}")


def ctl(*arguments, environment=None):
    code, out, err = start(VTFLTCTL, *arguments, environment=environment)
    # Every JSON answer of a bitmap command fits its schema.
    if "--json" in arguments and out and arguments[0] == "bitmap":
        with open(f"{SCHEMAS}/bitmap_{arguments[1]}.json", encoding="utf-8") as file:
            check(json.loads(out), json.load(file))
    return code, out, err


def pack(blocks, count):
    """The bits of these blocks, of so many, the first block the highest bit."""
    bits = bytearray((count + 7) // 8)
    for block in blocks:
        bits[block // 8] |= 0x80 >> block % 8
    return bytes(bits)


def record(bits, block_size=BLOCK, bitmap_length=None, record_size=None):
    length = LEAD + len(bits)
    size = (length + 4187) & ~4095
    head = b"STCA" + struct.pack("<IIII", 0, block_size, bitmap_length if bitmap_length is not None else length,
                                 record_size if record_size is not None else size) + bytes(64)
    body = head + bytes(LEAD) + bits
    return body + bytes(size - 4 - len(body)) + b"ACDE"


def write(name, content):
    path = os.path.join(FOLDER, name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(content)
    return name


def runs(blocks):
    """Blocks as (first, count), ascending."""
    found = []
    for block in sorted(blocks):
        if found and sum(found[-1]) == block:
            found[-1] = (found[-1][0], found[-1][1] + 1)
        else:
            found.append((block, 1))
    return found


def csv(blocks, block_size=BLOCK, volume=None):
    lines = ["offset,length"]
    for first, count in runs(blocks):
        end = (first + count) * block_size
        lines.append(f"{first * block_size},{min(end, volume or end) - first * block_size}")
    return "\n".join(lines) + "\n"


def decode_png(path):
    """Width, height and a function from x, y to red, green, blue."""
    with open(path, "rb") as file:
        content = file.read()
    assert content[:8] == b"\x89PNG\r\n\x1a\n", "no PNG"
    at, data = 8, b""
    while at < len(content):
        length, kind = struct.unpack(">I4s", content[at:at + 8])
        chunk = content[at + 8:at + 8 + length]
        assert struct.unpack(">I", content[at + 8 + length:at + 12 + length])[0] == zlib.crc32(kind + chunk)
        if kind == b"IHDR":
            width, height, depth, colour = struct.unpack(">IIBB", chunk[:10])
            assert (depth, colour) == (8, 2), "not plain red, green, blue"
        elif kind == b"IDAT":
            data += chunk
        at += 12 + length
    data = zlib.decompress(data)
    stride = width * 3
    rows, above = [], bytearray(stride)
    for y in range(height):
        kind = data[y * (stride + 1)]
        row = bytearray(data[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for x in range(stride):
            left = row[x - 3] if x >= 3 else 0
            up = above[x]
            corner = above[x - 3] if x >= 3 else 0
            if kind == 1:
                row[x] = (row[x] + left) & 255
            elif kind == 2:
                row[x] = (row[x] + up) & 255
            elif kind == 3:
                row[x] = (row[x] + (left + up) // 2) & 255
            elif kind == 4:
                guess = left + up - corner
                near = min((abs(guess - left), 0, left), (abs(guess - up), 1, up), (abs(guess - corner), 2, corner))
                row[x] = (row[x] + near[2]) & 255
        rows.append(row)
        above = row
    return width, height, lambda x, y: tuple(rows[y][x * 3:x * 3 + 3])


NONE, ALL = (0xE9, 0xEC, 0xF0), (0x4A, 0x07, 0x2C)


class BitmapFiles(unittest.TestCase):
    BLOCKS = {0, 5, 6, 7, 8, 63, 64, 99}

    def test_info_of_a_sound_record(self):
        write("VelVolTrc_base_app1.dat", record(pack(self.BLOCKS, 104)))
        code, out, err = ctl("bitmap", "info", "VelVolTrc_base_app1.dat")
        self.assertEqual((code, err), (OK, ""))
        self.assertIn("state          sound\n", out)
        self.assertIn("changed        8 blocks (7.69 %), 512 KiB\n", out)
        self.assertIn("extents        4, the longest 256 KiB, from offset 0 to 6553600\n", out)
        code, out, _ = ctl("bitmap", "info", "VelVolTrc_base_app1.dat", "--json")
        answer = json.loads(out)
        self.assertEqual((code, answer["command"], answer["result"]), (OK, "bitmap info", "ok"))
        file = answer["files"][0]
        self.assertEqual((file["role"], file["application"], file["verdict"], file["flaws"]), ("base", "app1", "sound", []))
        self.assertEqual((file["bitmapLength"], file["recordSize"], file["blocks"]), (29, 4096, 104))
        self.assertEqual(file["changed"], {"blocks": 8, "extents": 4, "longestExtentBlocks": 4, "bytes": 8 * BLOCK,
                                           "firstOffset": 0, "endOffset": 100 * BLOCK})

    def test_damage_is_named_and_has_its_exit_code(self):
        sound = record(pack(self.BLOCKS, 104))
        cases = {"empty": (b"", "too-short", "must-verify"),
                 "87 bytes": (sound[:87], "too-short", "must-verify"),
                 "cut": (sound[:-1], "cut-short", "blocks-all"),
                 "no trailer": (sound[:-4] + b"acde", "no-trailer", "must-verify"),
                 "torn": (sound[:-4] + bytes(4), "no-trailer", "must-verify"),
                 "longer": (sound + b"x", "trailing-data", "doubtful"),
                 "lies": (record(pack(self.BLOCKS, 104), bitmap_length=0xFFFFFFFF), "bitmap-missing", "doubtful"),
                 "foreign": (b"\x89PNG\r\n\x1a\n" * 100, "no-signature", "must-verify")}
        for name, (content, flaw, verdict) in cases.items():
            with self.subTest(name):
                file = write("damaged.dat", content)
                code, out, _ = ctl("bitmap", "info", file, "--json")
                answer = json.loads(out)
                self.assertEqual((code, answer["result"]), (DAMAGED, "damaged"))
                self.assertIn(flaw, [found["flaw"] for found in answer["files"][0]["flaws"]])
                self.assertEqual(answer["files"][0]["verdict"], verdict)
                with open(os.path.join(FOLDER, file), "rb") as after:
                    self.assertEqual(after.read(), content)

    def test_extents_are_the_changed_blocks(self):
        rng = random.Random(1)
        blocks = {block for block in range(20000) if rng.random() < 0.4}
        file = write("VelVolTrc_child_app1.dat", record(pack(blocks, 20000)))
        code, out, err = ctl("bitmap", "extents", file)
        self.assertEqual((code, err), (OK, ""))
        self.assertEqual(out, csv(blocks))

    def test_extents_in_pages_are_the_whole_list(self):
        blocks = self.BLOCKS
        file = write("VelVolTrc_child_app1.dat", record(pack(blocks, 104)))
        collected, following = [], 0
        while following is not None:
            code, out, _ = ctl("bitmap", "extents", file, "--json", "--limit", "2", "--start", str(following))
            self.assertEqual(code, OK)
            page = json.loads(out)
            self.assertLessEqual(len(page["extents"]), 2)
            collected += [(e["offset"] // BLOCK, e["length"] // BLOCK) for e in page["extents"]]
            following = page["next"]
        self.assertEqual(collected, runs(blocks))
        code, out, err = ctl("bitmap", "extents", file, "--limit", "1", "--start", "64K")
        self.assertEqual((code, out), (OK, f"offset,length\n{5 * BLOCK},{4 * BLOCK}\n"))
        self.assertIn(f"go on with --start {63 * BLOCK}", err)

    def test_extents_end_at_the_volume(self):
        file = write("VelVolTrc_base_app1.dat", record(pack({1, 99}, 104)))
        volume = 99 * BLOCK + 512
        code, out, _ = ctl("bitmap", "extents", file, "--volume-size", str(volume))
        self.assertEqual((code, out), (OK, csv({1, 99}, volume=volume)))

    def test_dumps(self):
        dump = bytes(LEAD) + pack({3}, 64)
        name = "d/DriverBitmap-app1-20240305-070809-010.dat"
        write(name, dump)
        code, out, err = ctl("bitmap", "extents", name)
        self.assertEqual((code, out), (USAGE, ""))
        self.assertIn("--block-size", err)
        code, out, _ = ctl("bitmap", "extents", name, "--block-size", "4K")
        self.assertEqual((code, out), (OK, "offset,length\n12288,4096\n"))
        # The application's bitmap file beside it knows the size.
        write("d/VelVolTrc_base_app1.dat", record(pack(set(), 8), block_size=8192))
        code, out, _ = ctl("bitmap", "extents", name)
        self.assertEqual((code, out), (OK, "offset,length\n24576,8192\n"))
        # Another name, so it must be said; a file cut inside the header has nothing to show.
        code, out, _ = ctl("bitmap", "extents", write("dump.bin", dump), "--dump", "--block-size", "4K")
        self.assertEqual((code, out), (OK, "offset,length\n12288,4096\n"))
        code, out, _ = ctl("bitmap", "info", write("short.bin", dump[:15]), "--dump", "--json")
        self.assertEqual((code, json.loads(out)["files"][0]["flaws"][0]["flaw"]), (DAMAGED, "dump-too-short"))

    def test_diff(self):
        first, second = {1, 2, 3, 50}, {3, 4, 90}
        a = write("a.dat", record(pack(first, 96)))
        b = write("b.dat", record(pack(second, 104)))
        code, out, _ = ctl("bitmap", "diff", a, b, "--json")
        answer = json.loads(out)
        self.assertEqual((code, answer["result"], answer["same"]), (DIFFERENT, "different", False))
        for part, blocks in (("onlyFirst", first - second), ("onlySecond", second - first), ("both", first & second)):
            self.assertEqual(answer[part], {"blocks": len(blocks), "extents": len(runs(blocks)),
                                            "bytes": len(blocks) * BLOCK})
        code, out, _ = ctl("bitmap", "diff", a, b, "--list")
        self.assertEqual(code, DIFFERENT)
        expected = sorted([(*run, "first") for run in runs(first - second)] +
                          [(*run, "second") for run in runs(second - first)])
        self.assertEqual(out, "offset,length,in\n" + "".join(
            f"{first * BLOCK},{count * BLOCK},{where}\n" for first, count, where in expected))
        # What is left out of the list differs all the same.
        code, out, _ = ctl("bitmap", "diff", a, b, "--list", "--start", str(95 * BLOCK))
        self.assertEqual((code, out), (DIFFERENT, "offset,length,in\n"))
        self.assertEqual(ctl("bitmap", "diff", a, a, "--list", "--start", str(95 * BLOCK))[0], OK)
        self.assertEqual(ctl("bitmap", "diff", a, a)[0], OK)
        c = write("c.dat", record(pack(first, 96), block_size=4096))
        self.assertEqual(ctl("bitmap", "diff", a, c)[0], UNKNOWN)

    def test_picture_shows_the_blocks(self):
        rng = random.Random(2)
        count = 1600  # 64 columns of 16 pixels
        blocks = {block for block in range(count) if rng.random() < 0.3}
        file = write("VelVolTrc_base_app1.dat", record(pack(blocks, count)))
        code, out, err = ctl("bitmap", "map", file, "--png", "map.png")
        self.assertEqual((code, err), (OK, ""))
        self.assertIn(f"{len(blocks)} blocks", out)
        _, height, at = decode_png(os.path.join(FOLDER, "map.png"))
        # The grid begins where its frame ends: found by its first cell's colour, not by the program's own numbers.
        first = ALL if 0 in blocks else NONE
        x0, y0 = next((x, y) for y in range(height) for x in range(200) if at(x, y) == first)
        for block in range(count):
            x, y = x0 + block % 64 * 16, y0 + block // 64 * 16
            expected = ALL if block in blocks else NONE
            self.assertEqual({at(x, y), at(x + 14, y + 14)}, {expected}, f"block {block}")

    def test_picture_is_not_written_over(self):
        file = write("VelVolTrc_base_app1.dat", record(pack(self.BLOCKS, 104)))
        write("kept.png", b"mine")
        code, _, err = ctl("bitmap", "map", file, "--png", "kept.png")
        self.assertEqual(code, REFUSED)
        self.assertIn("--yes", err)
        with open(os.path.join(FOLDER, "kept.png"), "rb") as kept:
            self.assertEqual(kept.read(), b"mine")
        self.assertEqual(ctl("bitmap", "map", file, "--png", "kept.png", "--yes")[0], OK)
        decode_png(os.path.join(FOLDER, "kept.png"))

    def test_memory_stays_flat(self):
        def peak(pieces):
            """Kilobytes that drawing and counting need at the most."""
            # In pieces: a process begins with the memory that this one has.
            length = LEAD + pieces * 65536
            size = (length + 4187) & ~4095
            file = write("VelVolTrc_base_large.dat", b"")
            with open(os.path.join(FOLDER, file), "wb") as out:
                out.write(b"STCA" + struct.pack("<IIII", 0, BLOCK, length, size) + bytes(64 + LEAD))
                for _ in range(pieces):
                    out.write(b"\xAA" * 65536)
                out.write(bytes(size - 84 - length - 4) + b"ACDE")
            largest = 0
            for arguments in (["map", file, "--png", "flat.png", "--yes"], ["info", file]):
                with subprocess.Popen(RUNNER + [VTFLTCTL, "bitmap", *arguments], cwd=FOLDER,
                                      stdout=subprocess.DEVNULL) as process:
                    _, status, usage = os.wait4(process.pid, 0)
                    process.returncode = os.waitstatus_to_exitcode(status)
                self.assertEqual(process.returncode, OK)
                largest = max(largest, usage.ru_maxrss)
            os.remove(os.path.join(FOLDER, file))
            return largest

        # 64 TiB in blocks of 64 KiB: 128 MiB of bitmap, in which every other block changed.
        small = peak(1)
        large = peak(2048)
        self.assertLess(large - small, 24 * 1024, f"{small} KiB for 32 GiB, {large} KiB for 64 TiB")

    def test_terminal_picture(self):
        file = write("VelVolTrc_base_app1.dat", record(pack({1, 64}, 128)))
        code, out, _ = ctl("bitmap", "map", file, "--ansi", environment={"NO_COLOR": "1"})
        self.assertEqual(code, OK)
        self.assertIn(" ." + "#" + "." * 62 + "\n", out)
        self.assertNotIn("\x1b", out)
        code, out, _ = ctl("bitmap", "map", file, "--ansi", environment={"NO_COLOR": ""})
        self.assertIn("\x1b[48;2;74;7;44m\x1b[38;2;233;236;240m\u2580", out)

    def test_usage(self):
        write("VelVolTrc_base_app1.dat", record(pack(self.BLOCKS, 104)))
        for arguments in (["info"], ["info", "VelVolTrc_base_app1.dat", "--volume", "E:", "--app", "a"],
                          ["info", "--volume", "E:"], ["info", "--app", "a"], ["extents", "x", "--start", "1X"],
                          ["extents", "x", "--limit", "-1"], ["map", "VelVolTrc_base_app1.dat"],
                          ["info", "VelVolTrc_base_app1.dat", "--which", "base"], ["diff", "x"], ["nothing"],
                          ["info", "VelVolTrc_base_app1.dat", "--block-size", "4K"],
                          # One block more than a bitmap file can have bits, and more than can be walked through.
                          ["info", "VelVolTrc_base_app1.dat", "--volume-size", str((1 << 35) * BLOCK + 1)],
                          ["diff", "VelVolTrc_base_app1.dat", "VelVolTrc_base_app1.dat", "--volume-size", "4096P"]):
            with self.subTest(arguments):
                code, out, err = ctl("bitmap", *arguments)
                self.assertEqual((code, out), (USAGE, ""))
                self.assertNotEqual(err, "")
        code, out, err = ctl("bitmap", "info", "nowhere/nothing.dat", "--json")
        self.assertEqual((code, json.loads(out)["result"]), (NOT_FOUND, "not-found"))


class LiveFiles(unittest.TestCase):
    """On a simulated machine with a volume of 100 blocks and half of one."""
    VOLUME = 100 * BLOCK + 512 * 64

    @classmethod
    def setUpClass(cls):
        def must(*arguments):
            code, out, err = start(*arguments)
            assert code == 0, (arguments, code, out, err)
            return out
        must(VTFLTSIM, "create", "machine")
        must(VTFLTSIM, "add-volume", "machine", str(cls.VOLUME), "--mount", "Q:\\")
        must(VTFLTCTL, "apps", "register", "app1", "--simulate", "machine")
        volumes = os.path.join(FOLDER, "machine", "volumes")
        cls.files = os.path.join(volumes, os.listdir(volumes)[0], "files", "VelVolTrc")

    @classmethod
    def tearDownClass(cls):
        start(VTFLTSIM, "destroy", "machine")

    def put(self, which, content):
        with open(os.path.join(self.files, f"VelVolTrc_{which}_app1.dat"), "wb") as file:
            file.write(content)

    def select(self, command, *arguments, environment=None):
        return ctl("bitmap", command, "--volume", "Q:", "--app", "app1", "--simulate", "machine", *arguments,
                   environment=environment)

    def setUp(self):
        self.put("base", record(pack({1, 2, 100}, 128)))
        self.put("child", record(pack({2, 3}, 128)))

    def test_both_files_as_one(self):
        code, out, err = self.select("extents")
        self.assertEqual((code, err), (OK, ""))
        self.assertEqual(out, csv({1, 2, 3, 100}, volume=self.VOLUME))
        code, out, _ = self.select("extents", "--which", "child")
        self.assertEqual(out, csv({2, 3}))

    def test_info_names_both(self):
        code, out, _ = self.select("info", "--json")
        answer = json.loads(out)
        self.assertEqual((code, [file["role"] for file in answer["files"]]), (OK, ["base", "child"]))
        self.assertEqual([file["changed"]["blocks"] for file in answer["files"]], [3, 2])
        self.assertEqual([file["blocks"] for file in answer["files"]], [101, 101])

    def test_missing_file_means_verify(self):
        os.remove(os.path.join(self.files, "VelVolTrc_child_app1.dat"))
        code, out, _ = self.select("info")
        self.assertEqual(code, VERIFY)
        self.assertIn("missing: the next backup must verify", out)
        os.remove(os.path.join(self.files, "VelVolTrc_base_app1.dat"))
        code, out, _ = self.select("extents")
        self.assertEqual((code, out), (VERIFY, ""))

    def test_other_block_size_does_not_fit(self):
        self.put("base", record(pack({1}, 128), block_size=4096))
        code, out, _ = self.select("info", "--which", "base", "--json")
        answer = json.loads(out)
        self.assertEqual((code, answer["files"][0]["flaws"][0]["flaw"]), (DAMAGED, "block-size-differs"))
        self.assertEqual(self.select("extents")[0], DAMAGED)

    def test_volume_that_cannot_be_counted_in_the_files_blocks(self):
        # By the header of this damaged file a terabyte would have 2^40 blocks.
        volumes = os.path.join(FOLDER, "machine", "volumes")
        others = set(os.listdir(volumes))
        start(VTFLTSIM, "add-volume", "machine", str(1 << 40), "--mount", "L:\\")
        added = (set(os.listdir(volumes)) - others).pop()
        for which in ("base", "child"):
            write(f"machine/volumes/{added}/files/VelVolTrc/VelVolTrc_{which}_app1.dat",
                  record(pack({1, 5}, 64), block_size=1))
        code, out, err = ctl("bitmap", "extents", "--volume", "L:", "--app", "app1", "--simulate", "machine")
        self.assertEqual((code, out), (DAMAGED, "offset,length\n1,1\n5,1\n"), err)
        code, out, _ = ctl("bitmap", "info", "--volume", "L:", "--app", "app1", "--json", "--simulate", "machine")
        self.assertEqual((code, json.loads(out)["files"][0]["blocks"]), (DAMAGED, 64))

    def test_names_that_do_not_exist(self):
        for volume in ("R:", "R:\\", "{00000000-0000-0000-0000-000000000000}"):
            code, out, err = ctl("bitmap", "info", "--volume", volume, "--app", "app1", "--simulate", "machine")
            self.assertEqual((code, out), (NOT_FOUND, ""), err)
        for application in ("nobody", "App1", "a*?", "x" * 3000, "\U0001F600"):
            code, out, err = ctl("bitmap", "info", "--volume", "Q:", "--app", application, "--simulate", "machine")
            self.assertEqual((code, out), (NOT_FOUND, ""), err)
        self.assertEqual(ctl("bitmap", "info", "--volume", "rubbish", "--app", "a", "--simulate", "machine")[0], USAGE)

    def test_file_of_a_busy_volume_is_left_alone(self):
        # The volume's mutex cannot be had, by either way to name the file.
        timeout = {"VTFLTSIM_CALLS": "return|WaitForSingleObject|VTBitmapManager.Volume|1|0|0|258"}
        for arguments in (["--volume", "Q:", "--app", "app1"], ["Q:\\VelVolTrc\\VelVolTrc_base_app1.dat"]):
            code, _, err = ctl("bitmap", "info", *arguments, "--simulate", "machine", environment=timeout)
            self.assertEqual(code, BUSY, err)
            self.assertIn("a backup works on the bitmap files", err)

    @unittest.skipUnless(RUNNER, "C: is a real volume here")
    def test_live_file_is_known_under_any_name(self):
        root = subprocess.run(RUNNER + ["winepath", "-u", "C:\\"], capture_output=True, check=True, text=True).stdout.strip()
        folder = os.path.join(os.path.realpath(root), "VelVolTrc")
        name = "VelVolTrc_base_app1.dat"
        timeout = {"VTFLTSIM_CALLS": "return|WaitForSingleObject|VTBitmapManager.Volume|1|1|0|258"}
        self.addCleanup(shutil.rmtree, folder, ignore_errors=True)
        content = record(pack({1}, 8))
        write(os.path.join(folder, name), content)
        # The second name does not begin at the volume's root.
        for path in (f"C:\\VelVolTrc\\{name}", "Z:" + f"{folder}/{name}".replace("/", "\\")):
            code, _, err = ctl("bitmap", "info", path, "--simulate", "machine", environment=timeout)
            self.assertEqual(code, BUSY, (path, err))
        # A folder of that name elsewhere is nobody's.
        copy = write(f"copies/VelVolTrc/{name}", content)
        self.assertEqual(ctl("bitmap", "info", copy, "--simulate", "machine", environment=timeout)[0], OK)

    def test_file_that_changes_while_it_is_read(self):
        short = {"VTFLTSIM_CALLS": "short|ReadFile|_base_|2|1|0|1"}
        code, _, err = self.select("extents", environment=short)
        self.assertEqual(code, UNREADABLE, err)
        self.assertIn("changed while it was read", err)


if __name__ == "__main__":
    shutil.rmtree(FOLDER, ignore_errors=True)
    os.makedirs(FOLDER)
    unittest.main(argv=sys.argv[:1])
