"""That the DLL runs on any x86-64: instructions that a processor of 2008 does not have stand only in the functions that are
called where the processor has them.

    check_vectors.py DLL SYMBOLS OBJDUMP NM      SYMBOLS: the file with the DLL's debug information, or the DLL itself
"""
import bisect
import re
import subprocess
import sys

ALLOWED = re.compile(r"vtflt::\(anonymous namespace\)::\w*Avx2\b")
# Vector registers of 32 and 64 bytes; instructions in the newer encoding, whose names begin with v; and those of the sets
# that came with it. SSE2 belongs to every x86-64, and none of its names begins with v. verr and verw are older. tzcnt is not
# among them: older processors take it for bsf, and compilers use it where both mean the same. Nor is xgetbv, by which the
# processor is asked what it has.
NEWER = re.compile(r"%[yz]mm\d|^(v(?!err|erw|mcall|mload|mrun|msave)\w+|popcnt|lzcnt|andn|bextr|blsi|blsr|blsmsk|bzhi|pdep|pext|"
                   r"rorx|sarx|shlx|shrx|mulx|movbe|pshufb|pmovmskb_|crc32)\b")


def main(dll, symbols, objdump, nm):
    functions = []
    for line in subprocess.run([nm, "-C", symbols], capture_output=True, text=True, check=True).stdout.splitlines():
        found = re.match(r"([0-9a-f]+) [tTwW] (.*)", line)
        if found and not found.group(2).startswith("."):
            functions.append((int(found.group(1), 16), found.group(2)))
    functions.sort()
    starts = [start for start, _ in functions]
    if len(functions) < 500:
        sys.exit(f"FAILED: {symbols} names {len(functions)} functions only")

    elsewhere, inside = {}, set()
    code = subprocess.run([objdump, "-d", "--no-show-raw-insn", dll], capture_output=True, text=True, check=True).stdout
    for line in code.splitlines():
        found = re.match(r"\s*([0-9a-f]+):\s+(\S.*)", line)
        if not found or not NEWER.search(found.group(2)):
            continue
        index = bisect.bisect_right(starts, int(found.group(1), 16)) - 1
        name = functions[index][1] if index >= 0 else "?"
        if ALLOWED.match(name):
            inside.add(name)
        else:
            elsewhere.setdefault(name, found.group(2))
    for name, instruction in sorted(elsewhere.items()):
        print(f"FAILED: {name}: {instruction}")
    if not inside:
        print("FAILED: no function for AVX2 found, so nothing was looked at")
    if elsewhere or not inside:
        sys.exit(1)
    print(f"{len(functions)} functions; newer instructions only in {', '.join(sorted(inside))}")


main(*sys.argv[1:])
