#!/usr/bin/env python3
"""Holds what the native tests reach of src/ against the list of what they cannot reach.

    report.py EXPORT.json SOURCE-ROOT LIST

EXPORT.json is what llvm-cov export wrote. LIST names every line that is never run and every condition that is never
true or never false, with its reason:

    [src/api/active_job.cpp]
    never true: m_error == ERROR_ACCESS_DENIED
        Why no test on the double gets there.

The reason is indented and belongs to all entries above it that have none yet. An entry is named by its text, so that
lines may move. Prints a summary line; the exit code is 1 when something is missing from the list or stands in it
although it is reached.
"""
import json
import pathlib
import re
import sys


def squeeze(text):
    return re.sub(r"\s+", " ", text).strip()


def text_between(lines, branch):
    first, column, last, end = branch
    if first == last:
        return squeeze(lines[first - 1][column - 1:end - 1])
    part = [lines[first - 1][column - 1:]] + lines[first:last - 1] + [lines[last - 1][:end - 1]]
    return squeeze(" ".join(part))


def line_counts(segments):
    """The number of runs of each line that has code, as llvm-cov counts it."""
    counts = {}
    by_line = {}
    for segment in segments:
        by_line.setdefault(segment[0], []).append(segment)
    wrapped = None
    for line in range(segments[0][0] if segments else 0, segments[-1][0] + 1 if segments else 0):
        here = by_line.get(line, [])
        starts = [s for s in here if s[3] and s[4] and not s[5]]
        skipped = bool(here) and not here[0][3] and here[0][4]
        known = [s[2] for s in starts]
        if wrapped and wrapped[3]:
            # A gap, the blanks between two pieces of code, ends where the next piece begins.
            ends_gap = wrapped[5] and here and here[0][3] and not here[0][5]
            known.append(here[0][2] if ends_gap else wrapped[2])
        if not skipped and known:
            counts[line] = max(known)
        if here:
            wrapped = here[-1]
    return counts


def unreached(file):
    """(kind, text, line) of everything in the file that no test reaches."""
    lines = pathlib.Path(file["filename"]).read_text(encoding="utf-8").split("\n")
    missing = []
    for line, count in sorted(line_counts(file["segments"]).items()):
        text = squeeze(lines[line - 1])
        if count == 0 and text not in ("}", "{", "};"):
            missing.append(("never run", text, line))
    branches = {}
    for branch in file["branches"]:
        total = branches.setdefault(tuple(branch[:4]), [0, 0])
        total[0] += branch[4]
        total[1] += branch[5]
    for branch, (true, false) in sorted(branches.items()):
        if true == 0:
            missing.append(("never true", text_between(lines, branch), branch[0]))
        if false == 0:
            missing.append(("never false", text_between(lines, branch), branch[0]))
    return missing


def read_list(path):
    entries = set()
    name = None
    open_entries = 0
    for number, line in enumerate(path.read_text(encoding="utf-8").split("\n"), 1):
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith("["):
            name = line.strip("[] ")
        elif line[0].isspace():
            open_entries = 0
        else:
            kind, _, text = line.partition(": ")
            if kind not in ("never run", "never true", "never false") or name is None:
                sys.exit(f"{path}:{number}: not an entry: {line}")
            entries.add((name, kind, squeeze(text)))
            open_entries += 1
            continue
        if line.startswith("[") and open_entries:
            sys.exit(f"{path}:{number}: the entries above have no reason")
    if open_entries:
        sys.exit(f"{path}: the last entries have no reason")
    return entries


def main():
    export, root, list_path = (pathlib.Path(argument) for argument in sys.argv[1:4])
    data = json.loads(export.read_text(encoding="utf-8"))["data"][0]
    listed = read_list(list_path)
    found = set()
    bad = 0
    for file in sorted(data["files"], key=lambda entry: entry["filename"]):
        name = str(pathlib.Path(file["filename"]).relative_to(root))
        for kind, text, line in unreached(file):
            found.add((name, kind, text))
            if (name, kind, text) not in listed:
                print(f"{name}:{line}: {kind}: {text}")
                bad += 1
    for name, kind, text in sorted(listed - found):
        print(f"{list_path.name}: [{name}] is reached, or is gone: {kind}: {text}")
        bad += 1
    totals = data["totals"]
    print("==> src/: " + ", ".join(
        "%s %.1f%% (%d of %d)" % (name, totals[key]["percent"], totals[key]["covered"], totals[key]["count"])
        for name, key in (("lines", "lines"), ("branches", "branches"), ("MC/DC", "mcdc")) if key in totals)
        + f", {len(found)} not reached, {len(listed & found)} of them with a reason")
    return 1 if bad else 0


sys.exit(main())
