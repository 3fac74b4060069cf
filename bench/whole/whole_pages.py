"""The tables and pictures of docs/performance/whole.md."""
import statistics

import common

MEBIBYTE = 1 << 20
TARGET_FETCH = 1.10
TARGET_OPERATIONS = 1.10
TARGET_LOG = 1.15
LOG_ROWS = (("rejected", "rejected"), ("accepted", "accepted"), ("with_viewer", "accepted, a viewer attached"),
            ("eight_processes", "eight processes, one file"))


def mebibytes(count):
    return f"{count / MEBIBYTE:.1f}"


def pairs_of(time):
    return common.ratios(time["library_runs_ms"], time["bare_runs_ms"])


def ratio(time):
    """The median of the pairs. It and what is beside it are taken from the runs, whatever figures were kept with them."""
    return statistics.median(pairs_of(time))


def spread(time):
    return common.spread(common.quartiles(pairs_of(time)))


def ratio_of(choose, time):
    """Of one figure of each side, whichever pairs it is from."""
    return f"{choose(time['library_runs_ms']) / choose(time['bare_runs_ms']):.2f}"


def volume_of(row):
    return [f"{row['volume_tib']} TiB", row["applications"]]


def by_size(rows):
    return sorted(rows, key=lambda row: (row["volume_tib"], row["applications"]))


# --- VTFltGetBitmap

def fetch_time(rows):
    heads = ["volume", "applications", "library, ms", "bare, ms", "ratio of pairs (quartiles)", "of medians", "of best runs",
             "pairs", "changes in runs", "the same manager again", "the caller last", "pairs of each of these"]
    return common.table(heads, [volume_of(r) + [
        r["time"]["library_ms"], r["time"]["bare_ms"], spread(r["time"]), ratio_of(statistics.median, r["time"]),
        ratio_of(min, r["time"]), len(r["time"]["bare_runs_ms"]), spread(r["time_in_runs"]), spread(r["time_again"]),
        spread(r["time_caller_last"]) if "time_caller_last" in r else "", len(r["time_in_runs"]["bare_runs_ms"])] for r in rows])


def fetch_misses(rows):
    kinds = (("time", "changes anywhere"), ("time_in_runs", "changes in runs"), ("time_again", "the same manager again"),
             ("time_caller_last", "the caller last"))
    missed = [f"- {r['volume_tib']} TiB, {r['applications']} applications, {name}: {spread(r[key])}"
              for r in rows for key, name in kinds if key in r and ratio(r[key]) > TARGET_FETCH]
    if not missed:
        return f"Everywhere at most {TARGET_FETCH:.2f} of the bare program."
    return f"Above {TARGET_FETCH:.2f} of the bare program, by the median of the pairs (quartiles):\n\n" + "\n".join(missed)


APART = ("reads", "writes", "flushes", "opens_and_closes", "memory", "between_calls")


APART_OTHERS = ("driver", "registry", "locks", "others")


def apart_cells(times):
    others = sum(times[kind] for kind in APART_OTHERS)
    return [f"{times[kind]:.1f}" for kind in APART] + [f"{others:.1f}", f"{times['all']:.1f}"]


def fetch_apart(rows):
    heads = ["volume", "applications", "", "reads", "writes", "flushes", "opening and closing", "memory", "between calls",
             "other calls", "all"]
    cells = []
    for row in rows:
        of = row["times_apart"]
        cells.append(volume_of(row) + ["library"] + apart_cells(of["library"]))
        cells.append(volume_of(row) + ["bare"] + apart_cells(of["bare"]))
        beyond = {kind: of["library"][kind] - of["bare"][kind] for kind in (*APART, *APART_OTHERS, "all")}
        cells.append(volume_of(row) + ["beyond"] + apart_cells(beyond))
    return common.table(heads, cells)


def without_log(rows):
    heads = ["volume", "applications", "calls", "with errors only in the log", "ratio of pairs (quartiles)", "with errors only"]
    return common.table(heads, [volume_of(r) + [
        r["calls"]["all"], r["without_log"]["calls"], spread(r["time"]), spread(r["without_log"]["time"])]
        for r in rows if "without_log" in r])


def durability(rows):
    heads = ["volume", "applications", "bare, ms", "bare, one write and no flush a file, ms", "part of the bare program's time"]
    return common.table(heads, [volume_of(r) + [
        r["time"]["bare_ms"], r["bare_without_flushes_ms"],
        f"{1 - r['bare_without_flushes_ms'] / r['time']['bare_ms']:.0%}"] for r in rows])


def lines_of(rows, who):
    """For each size: its points (files read, ms) and the line through them."""
    for size in sorted({row["volume_tib"] for row in rows}):
        points = sorted((row["applications"] + 1, row["time"][f"{who}_ms"]) for row in rows if row["volume_tib"] == size)
        if len(points) > 2:
            yield size, points, common.fit(points)


def size_lines_of(rows, who):
    """For each number of applications: its points (TiB, ms) and the line through them."""
    for applications in sorted({row["applications"] for row in rows}):
        points = sorted((row["volume_tib"], row["time"][f"{who}_ms"]) for row in rows if row["applications"] == applications)
        if len(points) > 2:
            yield applications, points, common.fit(points)


def fetch_size_lines(rows):
    heads = ["applications", "", "ms a TiB", "ms a file and TiB", "ms beside", "points", "farthest from the line"]
    return common.table(heads, [
        [applications, who, f"{slope:.3g}", f"{slope / (applications + 1):.3g}", f"{intercept:.3g}", len(points), f"{residual:.0%}"]
        for who in ("library", "bare")
        for applications, points, (slope, intercept, residual) in size_lines_of(rows, who)])


def fetch_lines(rows):
    heads = ["volume", "", "ms a file", "ms a file and TiB", "ms beside", "points", "farthest from the line"]
    cells = []
    for who in ("library", "bare"):
        for size, points, (slope, intercept, residual) in lines_of(rows, who):
            cells.append([f"{size} TiB", who, f"{slope:.3g}", f"{slope / size:.3g}", f"{intercept:.3g}", len(points),
                          f"{residual:.0%}"])
    return common.table(heads, cells)


def fetch_memory(rows):
    heads = ["volume", "applications", "record, MiB", "peak of the first fetch, MiB", "the caller last", "records at that peak",
             "peak of both fetches, MiB", "the caller last", "records at that peak", "limit, MiB"]
    def peaks(row, key):
        memory, last = row["memory"], row.get("memory_caller_last")
        return [mebibytes(memory[key]), mebibytes(last[key]) if last else "", f"{memory[key] / row['record_bytes']:.1f}"]
    return ("Beyond what the process had before, of a manager's first fetch, and of that and a second fetch of the same manager. "
            "The limit is for both.\n\n" + common.table(heads, [
                volume_of(r) + [mebibytes(r["record_bytes"])] + peaks(r, "peak_of_first_bytes") + peaks(r, "peak_bytes")
                + [mebibytes(r["memory"]["limit_bytes"])] for r in rows]))


def memory_misses(rows):
    missed = [f"- {r['volume_tib']} TiB, {r['applications']} applications{name}: {mebibytes(r[key]['peak_bytes'])} MiB"
              for r in rows for key, name in (("memory", ""), ("memory_caller_last", ", the caller last"))
              if key in r and r[key]["peak_bytes"] > r[key]["limit_bytes"]]
    return "Above the limit:\n\n" + "\n".join(missed) if missed else "Nowhere above the limit."


def fetch_calls(rows):
    heads = ["volume", "applications", "read, MiB", "written, MiB", "calls on bitmap files", "flushes", "all calls",
             "heap allocations", "of the same manager again"]
    return common.table(heads, [volume_of(r) + [
        mebibytes(r["calls"]["bytes_read"]), mebibytes(r["calls"]["bytes_written"]), r["calls"]["on_bitmap_files"],
        r["calls"]["of_bitmap_files_by_function"]["FlushFileBuffers"], r["calls"]["all"],
        r["calls"]["heap_allocations"], r["calls"]["heap_allocations_again"]] for r in rows])


def fetch(result, pictures):
    rows = by_size(result["fetch"])
    whole = [row for row in rows if "calls" in row]
    fetch_pictures(rows, whole, pictures)
    return "\n\n".join([
        fetch_misses(whole), fetch_time(whole), "![time of a fetch](fetch.svg)",
        "### Where the time goes",
        f"Milliseconds of one fetch by a new manager, each call under a watch, in {runs_apart(whole)} runs of their own, in turns "
        "with the bare program; each figure is the median of its own, so a row need not add up. Between calls lies the library's own "
        "work, the first touch of memory that it does itself, and the calls that have no watch (those that do are listed in "
        "`bench/whole/call_times.cpp`).",
        fetch_apart(whole), "![where the time goes](fetch_apart.svg)",
        "### What the log's records cost",
        "The same fetch when the configuration takes errors only into the log, which one of the six records of a fetch is, beside the "
        "same bare program; on the smallest volume, where it matters.", without_log(whole),
        "### What being on the disk costs", durability(whole),
        "### With the number of files",
        "n applications have n + 1 files read and as many written. The straight line through the medians of each size, by the least "
        "relative errors:",
        fetch_lines(rows), "![time by files](fetch_lines.svg)",
        "### With the size of the bitmap", "The same for each number of applications, a TiB of volume being 2 MiB of bitmap:",
        fetch_size_lines(rows), "![time by size](fetch_sizes.svg)",
        "### Memory", memory_misses(whole), fetch_memory(whole),
        "### Calls and bytes", "Of a fetch by a new manager.", fetch_calls(whole)])


def runs_apart(rows):
    return ", ".join(sorted({str(row["times_apart"]["runs"]) for row in rows}))


def fetch_pictures(rows, whole, pictures):
    with common.Picture(pictures / "fetch.svg") as drawn:
        axes = drawn.axes[0]
        for size in sorted({row["volume_tib"] for row in whole}):
            of_size = [row for row in whole if row["volume_tib"] == size]
            for who, style in (("library", "-"), ("bare", "--")):
                axes.plot([row["applications"] for row in of_size], [row["time"][f"{who}_ms"] for row in of_size], style,
                          marker="o", label=f"{size} TiB, {who}")
        axes.set_xscale("log", base=2)
        axes.set_yscale("log")
        counts = sorted({row["applications"] for row in whole})
        axes.set_xticks(counts, [str(count) for count in counts])
        axes.set(xlabel="applications", ylabel="ms", title="VTFltGetBitmap and the same reads and writes made bare")

    lines = {size: (points, line) for size, points, line in lines_of(rows, "library")}
    if lines:
        with common.Picture(pictures / "fetch_lines.svg", columns=len(lines), size=(3 * len(lines) + 1, 3.5)) as drawn:
            for axes, (size, (points, (slope, intercept, _))) in zip(drawn.axes, lines.items()):
                axes.plot(*zip(*points), "o", label="library")
                bare = sorted((row["applications"] + 1, row["time"]["bare_ms"]) for row in rows if row["volume_tib"] == size)
                axes.plot(*zip(*bare), "x", label="bare")
                axes.plot([0, points[-1][0]], [intercept, intercept + slope * points[-1][0]], "-", linewidth=0.8)
                axes.set(xlabel="files read", ylabel="ms", title=f"{size} TiB", xlim=(0, None), ylim=(0, None))

    sizes = list(size_lines_of(rows, "library"))
    if sizes:
        with common.Picture(pictures / "fetch_sizes.svg") as drawn:
            axes = drawn.axes[0]
            for applications, points, (slope, intercept, _) in sizes:
                dots, = axes.plot(*zip(*points), "o", label=f"{applications} applications")
                axes.plot([x for x, _ in points], [intercept + slope * x for x, _ in points], "-", linewidth=0.8,
                          color=dots.get_color())
            axes.set_xscale("log", base=2)
            axes.set_yscale("log")
            ticks = sorted({x for _, points, _ in sizes for x, _ in points})
            axes.set_xticks(ticks, [str(tick) for tick in ticks])
            axes.set(xlabel="TiB", ylabel="ms", title="VTFltGetBitmap by the volume's size, and straight lines")

    with common.Picture(pictures / "fetch_apart.svg", size=(11, 4.5)) as drawn:
        axes = drawn.axes[0]
        names, bottoms = [], []
        for row in whole:
            for who in ("library", "bare"):
                names.append(f"{row['volume_tib']}/{row['applications']} {who}")
                bottoms.append((row["times_apart"][who], row["times_apart"]["bare"]["all"]))
        start = [0.0] * len(names)
        for kind in APART:
            heights = [times[kind] / scale for times, scale in bottoms]
            axes.bar(names, heights, bottom=start, label=kind.replace("_", " "))
            start = [below + height for below, height in zip(start, heights)]
        others = [sum(times[kind] for kind in APART_OTHERS) / scale for times, scale in bottoms]
        axes.bar(names, others, bottom=start, label="other calls")
        axes.tick_params(axis="x", labelrotation=90, labelsize=7)
        axes.set(ylabel="parts of the bare program's time", title="Where the time of a fetch goes (TiB/applications)")


def operations(result, _):
    rows = sorted(result["bitmap_operations"], key=lambda row: (row["operation"], row["volume_tib"]))
    missed = [f"- {r['operation']}, {r['volume_tib']} TiB: {spread(r['time'])}" for r in rows
              if ratio(r["time"]) > TARGET_OPERATIONS]
    said = (f"Above {TARGET_OPERATIONS:.2f} of the bare program, by the median of the pairs (quartiles):\n\n"
            + "\n".join(missed) if missed else f"Everywhere at most {TARGET_OPERATIONS:.2f} of the bare program.")
    return "With four applications. " + said + "\n\n" + common.table(
        ["operation", "volume", "library, ms", "bare, ms", "ratio of pairs (quartiles)", "calls", "read, MiB", "written, MiB"],
        [[r["operation"], f"{r['volume_tib']} TiB", r["time"]["library_ms"], r["time"]["bare_ms"], spread(r["time"]),
          r["counts"]["calls"], mebibytes(r["counts"]["bytes_read"]), mebibytes(r["counts"]["bytes_written"])] for r in rows])


# --- the rest

def log(result, pictures):
    rows, names, per_library, per_bare = [], [], [], []
    of_log = result["log"]
    for name, title in LOG_ROWS:
        row, time = of_log[name], of_log[name]["time"]
        per = 1000 / row["messages"]
        beyond = ", ".join(f"{function} {count:+d}" for function, count in row.get("calls_beyond_bare", {}).items())
        rows.append([title, f"{time['library_ms'] * per:.1f}", f"{time['bare_ms'] * per:.1f}", spread(time),
                     ratio_of(min, time), row.get("counts", {}).get("calls", ""),
                     row.get("bare_counts", {}).get("calls", ""), beyond, row.get("counts", {}).get("bytes_written", ""),
                     row.get("counts", {}).get("heap_allocations", "")])
        names.append(title)
        per_library.append(time["library_ms"] * per)
        per_bare.append(time["bare_ms"] * per)
    missed = [title for name, title in LOG_ROWS if ratio(of_log[name]["time"]) > TARGET_LOG]
    with common.Picture(pictures / "log.svg", size=(8, 3.5)) as drawn:
        axes = drawn.axes[0]
        places = range(len(names))
        axes.bar([place - 0.2 for place in places], per_library, 0.4, label="library")
        axes.bar([place + 0.2 for place in places], per_bare, 0.4, label="bare")
        axes.set_xticks(list(places), names, fontsize=8)
        axes.set(ylabel="us a message", title="A log message and its system calls made bare")
    return "\n\n".join([
        f"Above {TARGET_LOG} of the bare calls: {', '.join(missed)}." if missed
        else f"Everywhere at most {TARGET_LOG} of the bare calls.",
        common.table(["message", "library, us", "bare, us", "ratio of pairs (quartiles)", "of best runs", "calls", "bare calls",
                      "calls beyond the bare ones", "bytes written", "allocations"], rows),
        "![a log message](log.svg)"])


def parts_of(times, count, unit=1.0):
    """Of what was measured call by call: its kinds for one of count, in ms times unit."""
    files = sum(times[kind] for kind in ("opens_and_closes", "reads", "writes", "others"))
    return [f"{unit * value / count:.3g}" for value in (
        times["registry"], times["flushes"], files, times["locks"], times["driver"], times["memory"], times["between_calls"])]


PART_HEADS = ["registry", "flushes", "files and other calls", "locks", "driver", "memory", "between calls"]


def registration(result, _):
    rows = result["registration"]
    cells = [[r["volumes"], action, r[f"{action}_ms"], r[f"{action}_ms_per_volume"], r[action]["calls"],
              mebibytes(r[action]["bytes_read"]), mebibytes(r[action]["bytes_written"])]
             for action in ("register", "unregister") for r in rows]
    apart = [[r["volumes"], action] + parts_of(r[f"{action}_times_apart"], r["volumes"])
             for action in ("register", "unregister") for r in rows]
    return (common.table(["volumes", "", "ms", "ms a volume", "calls", "read, MiB", "written, MiB"], cells)
            + "\n\nWhere the time of one volume goes, ms, in runs of their own:\n\n"
            + common.table(["volumes", ""] + PART_HEADS, apart))


def lists(result, pictures):
    rows = sorted(result["verify_lists"], key=lambda row: (row["operation"], row["entries"]))
    text = common.table(
        ["operation", "entries", "ms", "us an entry", "calls", "log records", "registry queries"],
        [[r["operation"], r["entries"], r["ms"], r["us_per_entry"], r["counts"]["calls"], r["log_records"],
          r["registry_queries"]] for r in rows])
    text += "\n\nWhere the time goes, ms, in runs of their own (the log is in files, locks and other calls):\n\n" + common.table(
        ["operation", "entries"] + PART_HEADS,
        [[r["operation"], r["entries"]] + parts_of(r["times_apart"], 1) for r in rows])
    if "list_search" in result:
        text += ("\n\nThe search alone, by the library's own function, measured with the part *bits*: each of so many stored "
                 "entries is looked for in the text of as many new ones and of the stored ones before it, which none of them is "
                 "in, and added to it:\n\n"
                 + common.table(["entries", "ms"], [[r["entries"], r["ms"]] for r in result["list_search"]]))
    with common.Picture(pictures / "lists.svg") as drawn:
        axes = drawn.axes[0]
        for name in sorted({row["operation"] for row in rows}):
            points = [(row["entries"], row["us_per_entry"]) for row in rows if row["operation"] == name]
            axes.plot(*zip(*points), marker="o", label=name)
        axes.set_xscale("log")
        axes.set_yscale("log")
        axes.set(xlabel="entries", ylabel="us an entry", title="Verify lists")
    return text + "\n\n![verify lists](lists.svg)"


def handles(result, _):
    rows = result["handle_table"]
    text = common.table(
        ["handles", "opening one bare, us", "VTFltInitBitmapManager", "VTFltGetBlockSize", "the driver's request bare",
         "VTFltDeinitBitmapManager", "closing one bare", "calls: init, block size, deinit"],
        [[r["handles"], r["bare_open_us_per_handle"], r["init_us_per_handle"], r["get_block_size_us"], r["bare_request_us"],
          r["deinit_us_per_handle"], r["bare_close_us_per_handle"],
          f"{r['init']['calls']}, {r['use']['calls']}, {r['deinit']['calls']}"] for r in rows])
    apart = []
    for row in rows:
        for name, title, count in (("init", "VTFltInitBitmapManager", row["handles"]),
                                   ("get_block_size", "VTFltGetBlockSize", row["lookups"]),
                                   ("deinit", "VTFltDeinitBitmapManager", row["handles"])):
            apart.append([row["handles"], title] + parts_of(row[f"{name}_times_apart_ms_of_all"], count, 1000))
    return ("Microseconds of one. Filling and emptying the table: the median of "
            + f"{len(rows[0]['init_runs_ms'])} times; lookups: of {len(rows[0]['get_block_size']['library_runs_ms'])}; "
            + "opening and closing bare: once. The calls are those with a full table.\n\n" + text
            + "\n\nWhere the time of one goes, us, in one run of their own; the table is between calls:\n\n"
            + common.table(["handles", ""] + PART_HEADS, apart))


def dll(result, _):
    of = result["load"]
    imports = ", ".join(f"{name} {len(functions)}" for name, functions in of["imports"].items())
    names = "\n".join(f"- {name}: {', '.join(functions)}" for name, functions in of["imports"].items())
    return "What it imports, by name:\n\n" + names + "\n\n" + common.table(
        ["", "load, ms", "unload, ms", "bytes", "imported functions"],
        [["VTFltMgr.dll, what it imports being there", of["load_ms"], of["unload_ms"], of["dll_bytes"], imports],
         ["VTFltMgr.dll and what it imports", of["load_with_imports_ms"], of["unload_with_imports_ms"], "", ""],
         ["a DLL that does nothing", of["load_empty_ms"], of["unload_empty_ms"], "", ""]])


BITS_TARGET = 0.95
# A record's bitmap, which is what the library clears, begins at byte 84; elsewhere what it calls is measured.
BITS_WORKS = ("merge", "copy", "count", "clear", "clear at byte 0", "clear at byte 1", "clear at byte 85")
BITS_PICTURED = BITS_WORKS[:4]
BITS_MEMORY_KIB = 131072


def bits(result, pictures):
    rows = result["bits_as_shipped"]
    cells, missed = [], []
    for work in [work for work in BITS_WORKS if any(row["work"] == work for row in rows)]:
        first = "library" if work in BITS_PICTURED else "memset"
        for kib in sorted({row["kib"] for row in rows}):
            of = {row["who"]: row for row in rows if row["work"] == work and row["kib"] == kib}
            # The copy of the C run-time is a limit of a merge only where memory is one; of a copy it is a rival.
            rivals = [who for who in of
                      if who != first and not (work == "merge" and who == "memcpy" and kib < BITS_MEMORY_KIB)]
            rates = {who: row["runs"] for who, row in of.items()}
            who, compared = common.nearest_rival(rates, rivals, first)
            cells.append([work, f"{kib} KiB", first, of[first]["gb_per_s_best"],
                          ", ".join(f"{name} {row['gb_per_s_best']}" for name, row in of.items() if name != first), who,
                          common.spread(compared)])
            if compared[1] < BITS_TARGET:
                missed.append(f"- {work}, {kib} KiB: {common.spread(compared)}, {who}")
    with common.Picture(pictures / "bits_as_shipped.svg", columns=4, size=(14, 3.5)) as drawn:
        for axes, work in zip(drawn.axes, BITS_PICTURED):
            for who in dict.fromkeys(row["who"] for row in rows if row["work"] == work):
                points = [(row["kib"], row["gb_per_s_best"]) for row in rows if row["work"] == work and row["who"] == who]
                axes.plot(*zip(*points), marker="o", label=who, linewidth=2.5 if who == "library" else 1)
            axes.set_xscale("log", base=2)
            axes.set_yscale("log")
            axes.set(xlabel="KiB", ylabel="GB/s", title=work)
    said = (f"Below {BITS_TARGET} of the nearest rival, by the median of the rounds (quartiles):\n\n" + "\n".join(missed)
            if missed else f"Everywhere at least {BITS_TARGET} of every rival, by the median of the rounds.")
    heads = ["work", "bitmap", "who", "GB/s", "others", "nearest rival", "who : it (quartiles)"]
    return "\n\n".join([said, f"The rates are the best of {len(rows[0]['runs'])} rounds.", common.table(heads, cells),
                        "![the work on bits as shipped](bits_as_shipped.svg)"])


SECTIONS = (("fetch", "VTFltGetBitmap", fetch), ("bitmap_operations", "Other operations on bitmaps", operations),
            ("bits_as_shipped", "The work on bits as shipped", bits), ("log", "The log", log),
            ("registration", "Registration", registration), ("verify_lists", "Verify lists", lists),
            ("handle_table", "The handle table", handles), ("load", "The DLL", dll))


def make(result, folder):
    text = ["# Whole operations, measured", "",
            "Made by `./dev bench whole` from `bench/results/whole.json`; what the figures mean stands in",
            "[`../performance.md`](../performance.md).", "",
            common.describe_conditions(result["conditions"])]
    for key, title, section in SECTIONS:
        if key in result:
            text += ["", f"## {title}", "", section(result, folder)]
    (folder / "whole.md").write_text("\n".join(text) + "\n")
