"""Whether the measurements still measure: runs them with small numbers and looks at what they leave. And whether the results
that are kept are whole, and those that the documentation speaks of. No time is judged.

    check.py core|whole|tried PROJECT FOLDER
    check.py kept PROJECT
"""
import itertools
import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

for folder in ("", "core", "tried", "whole"):
    sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent / folder))
import common
import core_pages
import tried_pages
import whole_pages

TIMES = ("library_ms", "bare_ms", "ratio", "ratio_lower_quartile", "ratio_upper_quartile", "ratio_of_medians",
         "ratio_of_best", "library_runs_ms", "bare_runs_ms")
COST = ("calls", "bytes_read", "bytes_written", "by_function")
MACHINE = ("date", "commit", "processor", "cores", "memory_gib", "disk", "kernel", "compiler")
# What stands in every row of a part, and whether it has to be above zero.
WHOLE = {
    "fetch": ("record_bytes", "memory.peak_bytes", "memory.limit_bytes", "calls.all", "calls.on_bitmap_files",
              "calls.bytes_read", "calls.bytes_written", "calls.heap_allocations", "calls.heap_allocations_again",
              "calls.by_function.WriteFile",
              "bare_without_flushes_ms", "times_apart.runs",
              *(f"{time}.{key}" for time in ("time", "time_again", "time_in_runs") for key in TIMES),
              *(f"times_apart.{who}.{kind}" for who in ("library", "bare") for kind in ("reads", "writes", "flushes",
                                                                                         "between_calls", "all"))),
    "bitmap_operations": ("operation", *(f"time.{key}" for key in TIMES), *(f"counts.{key}" for key in COST)),
    "registration": ("volumes", "register_ms", "unregister_ms", *(f"register.{key}" for key in COST),
                     "unregister.calls", "register_times_apart.all", "unregister_times_apart.all"),
    "verify_lists": ("operation", "entries", "ms", *(f"counts.{key}" for key in COST), "times_apart.registry",
                     "times_apart.all"),
    "handle_table": ("handles", "init_runs_ms", "deinit_runs_ms", "init_us_per_handle", "get_block_size_us", "bare_request_us",
                     "deinit_us_per_handle", "init.calls", "use.calls", "deinit.calls",
                     "get_block_size_times_apart_ms_of_all.driver"),
    "bits_as_shipped": ("work", "kib", "who", "gb_per_s_best", "gb_per_s_median"),
    "list_search": ("entries", "ms"),
}
PARTS = ("load", "fetch", "registration", "lists", "handles", "log", "bits")
LOG_MESSAGES = ("rejected", "accepted", "with_viewer")
# What the library calls for a message beyond the calls made bare, at most.
LOG_BEYOND = {"rejected": {}, "accepted": {}, "with_viewer": {"VirtualQuery": 2}}
# What a fetch may take beside whole records, and what a record has beside its bitmap, at most.
ALLOWANCE = 8 << 20
BESIDE_BITMAP = 8192
BITMAP_OF_TEBIBYTE = 2 << 20
DLL_LIMIT = 1 << 20

# --- what is kept has at least these cases, and so many runs of each

GRID = set(itertools.product((1, 16, 64), (1, 4, 16)))
OPERATIONS = ("VTFltReplicationSuccess", "VTFltSynSnapshotChangeBitmapToVolume", "VTFltGetBitmap, the volume a quarter larger")
LIST_OPERATIONS = ("VTIsVerifyRequired, volume not on the list", "VTReplicateVerifyList, all on the list already",
                   "VTReplicateVerifyList, none on the list yet", "VTRemoveApplicationVolResyncList, half of the list")
WAYS = {("merge", "library"), ("merge", "avx2"), ("merge", "avx2-unrolled"), ("merge", "avx2-aligned"), ("merge", "memcpy"),
        ("copy", "library"), ("copy", "avx2"), ("copy", "memcpy"), ("count", "library"), ("count", "avx2"),
        ("count", "avx2-carry-save"), ("count", "popcnt"), ("clear", "library"), ("clear", "avx2"), ("clear", "memset"),
        *itertools.product((f"clear at byte {offset}" for offset in (0, 1, 85)), ("avx2", "memset"))}
# Of each part what tells its rows apart, and the values that have to be there.
ROWS = {
    "registration": (("volumes",), {(1,), (64,), (512,)}),
    "bitmap_operations": (("volume_tib", "operation"), set(itertools.product((1, 16, 64), OPERATIONS))),
    "verify_lists": (("entries", "operation"), set(itertools.product((100, 1000, 10000), LIST_OPERATIONS))),
    "handle_table": (("handles",), {(100,), (1000,), (10000,)}),
    "list_search": (("entries",), {(100,), (1000,), (10000,)}),
    "bits_as_shipped": (("work", "who", "kib"), {(*way, kib) for way in WAYS for kib in (32, 2048, 131072, 1048576)}),
}
# By the volume's size: pairs of fetches by a new manager, and of everything else.
PAIRS = {1: (20, 10), 16: (12, 6), 64: (10, 5)}
# Of a fetch's six records of the log all but the error's are spared when it takes errors only.
SPARED_RECORDS, CALLS_OF_RECORD, CALLS_OF_REJECTED = 5, 19, 3
PAIRS_OF_LINES = 4 # where only the straight lines need them
RUNS_APART = 5
RUNS = {"registration": {"register_runs_ms": 3, "unregister_runs_ms": 3}, "verify_lists": {"runs_ms": 3},
        "handle_table": {"init_runs_ms": 3, "deinit_runs_ms": 3, "get_block_size.library_runs_ms": 5},
        "list_search": {"runs_ms": 3}, "bits_as_shipped": {"runs": 7}}
LOG_AMOUNTS = {"rejected": (400, 15), "accepted": (400, 15), "with_viewer": (400, 15), "eight_processes": (1600, 8)}
LOADS = 50

failures = []


def require(held, what):
    if not held:
        failures.append(what)


def value_at(row, path):
    for key in path.split("."):
        if not isinstance(row, dict) or key not in row:
            return None
        row = row[key]
    return row


def require_value(row, path, where):
    value = value_at(row, path)
    if isinstance(value, (int, float)):
        require(value > 0, f"{where}: {path} is {value}")
    else:
        require(value, f"{where}: no {path}")


def require_runs(row, path, number, where):
    """At least so many runs; what ran in pairs, as many of each of the two."""
    runs = value_at(row, path) or []
    require(len(runs) >= number, f"{where}: {len(runs)} {path}, not {number}")
    if "library_runs_ms" in path:
        other = value_at(row, path.replace("library", "bare")) or []
        require(len(runs) == len(other), f"{where}: {len(runs)} {path}, and {len(other)} of the other side")


def check_conditions(result, kind):
    require(result.get("format") == common.FORMATS[kind], f"{kind}: format {result.get('format')}: to be measured anew")
    parts = PARTS if kind == "whole" else (kind,)
    require(set(result["conditions"]) == set(parts), f"parts: {', '.join(result['conditions'])}")
    for part, of in result["conditions"].items():
        for key in MACHINE:
            require_value(of["machine"], key, f"{part}: machine")
        for when in ("before", "after"):
            busy = value_at(of, f"{when}.busy_processors")
            require(isinstance(busy, float), f"{part}: no load {when}")
            require(busy is None or busy <= common.BUSY_LIMIT or of["under_load"],
                    f"{part}: measured under load, and does not say so")


def git(project, *arguments):
    return subprocess.run(["git", "-C", project, *arguments], capture_output=True, text=True, check=False)


def is_known(project, commit):
    """Whether it is part of what is checked out. Without the whole history there is nothing to ask."""
    if git(project, "rev-parse", "--is-shallow-repository").stdout.strip() != "false":
        return True
    return git(project, "merge-base", "--is-ancestor", commit, "HEAD").returncode == 0


def check_conditions_of_kept(result, kind, project):
    """That these are results, of what somebody can build again."""
    check_conditions(result, kind)
    for part, of in result["conditions"].items():
        require(not of["under_load"], f"{part}: measured under load")
        # Of whole operations there are results from before this was noted; their numbers of runs tell.
        require(not of.get("quick", kind == "core"), f"{part}: measured with small numbers")
        require(re.fullmatch("[0-9a-f]{10,40}", of["machine"]["commit"]), f"{part}: measured at {of['machine']['commit']}")
        require(is_known(project, of["machine"]["commit"]),
                f"{part}: measured at {of['machine']['commit']}, which nothing here was made of")


def check_record(row):
    """That the memory which is judged by it is that of the volume's size: a bit for each block of 64 KiB."""
    bitmap = row["volume_tib"] * BITMAP_OF_TEBIBYTE
    require(bitmap < row["record_bytes"] <= bitmap + BESIDE_BITMAP,
            f"fetch, {row['volume_tib']} TiB: a record of {row['record_bytes']} bytes")


def check_memory(row):
    """The limit; and what docs/performance.md says: two records for a manager's first fetch, three for a later one. Less would
    be no measurement."""
    for key in ("memory", "memory_caller_last"):
        if key in row:
            memory = row[key]
            where = f"fetch, {row['volume_tib']} TiB, {row['applications']} applications, {key}"
            limit = (row["applications"] + 2) * row["record_bytes"] + ALLOWANCE
            require(memory["limit_bytes"] == limit, f"{where}: the limit is {limit}, not {memory['limit_bytes']}")
            require(memory["peak_bytes"] <= limit, f"{where}: {memory['peak_bytes']} bytes, above the limit")
            for name, records in (("peak_of_first_bytes", 2), ("peak_bytes", 3)):
                least = records * row["record_bytes"]
                require(least <= memory[name] < least + ALLOWANCE, f"{where}: {name} is {memory[name]}, not {records} records")


def check_whole(result):
    for part, paths in WHOLE.items():
        rows = result.get(part, [])
        if part == "fetch":
            rows = [row for row in rows if "calls" in row] # the others are for the straight lines only
        require(rows, f"no {part}")
        for row in rows:
            for path in paths:
                require_value(row, path, part)
    for row in result.get("fetch", []):
        require_value(row, "time.ratio", "fetch")
        check_record(row)
        if "calls" in row:
            check_memory(row)
            if row["volume_tib"] == 1:
                require_value(row, "without_log.time.ratio", "fetch")
                spared = row["calls"]["all"] - row["without_log"]["calls"]
                require(spared == SPARED_RECORDS * (CALLS_OF_RECORD - CALLS_OF_REJECTED), f"fetch: {spared} calls of the log spared")
            if row["applications"] > 1:
                require_value(row, "time_caller_last.ratio", "fetch")
                require_value(row, "memory_caller_last.peak_bytes", "fetch")
    for name in (*LOG_MESSAGES, "eight_processes"):
        for key in TIMES:
            require_value(result["log"][name], f"time.{key}", f"log, {name}")
    for name in LOG_MESSAGES:
        counts, bare = result["log"][name]["counts"], result["log"][name]["bare_counts"]
        require(counts["heap_allocations"] == 0, f"{counts['heap_allocations']} heap allocations for a message, {name}")
        require(counts["bytes_written"] == bare["bytes_written"],
                f"{counts['bytes_written']} bytes for a message, {name}, and {bare['bytes_written']} bare")
        require((counts["bytes_written"] > 0) == (name != "rejected"), f"{counts['bytes_written']} bytes for a message, {name}")
        # What is measured in the DLL's place does nothing that the DLL does not do, and leaves out nothing but these.
        beyond = result["log"][name]["calls_beyond_bare"]
        require(all(0 < count <= LOG_BEYOND[name].get(function, 0) for function, count in beyond.items()),
                f"calls beyond the bare ones, {name}: {beyond}")
    for key in ("load_ms", "unload_ms", "load_with_imports_ms", "load_empty_ms", "dll_bytes", "imports"):
        require_value(result["load"], key, "load")
    require(result["load"]["dll_bytes"] < DLL_LIMIT, f"a DLL of {result['load']['dll_bytes']} bytes")


def check_core(result):
    check_rates(result, core_pages.expected(quick=True))


def check_core_whole(result):
    check_rates(result, core_pages.expected())


def check_rates(result, wanted):
    measured = result["gb_per_s"]
    require(set(measured) == set(wanted), f"core: not measured: {sorted(set(wanted) - set(measured))}, measured beside: "
            f"{sorted(set(measured) - set(wanted))}")
    for name, rates in measured.items():
        require(len(rates) == wanted.get(name), f"{name}: {len(rates)} rates, not {wanted.get(name)}")
        require(all(rate > 0 for rate in rates), f"{name}: {rates}")


def check_tried(result, repetitions=2):
    wanted = set(tried_pages.GROUPS)
    require(set(result["groups"]) == wanted, f"tried: {sorted(result['groups'])}, not {sorted(wanted)}")
    for group, ways in result["groups"].items():
        first = tried_pages.GROUPS[group][1]
        require({first, f"{first}-again"} <= set(ways) and len(ways) >= 4, f"tried, {group}: only {sorted(ways)}")
        for way, of in ways.items():
            for key in ("ms", "gb_per_s"):
                require(len(of[key]) == repetitions and all(value > 0 for value in of[key]), f"tried, {group}, {way}: {of[key]}")


def check_tried_whole(result):
    check_tried(result, tried_pages.REPETITIONS)


def check_whole_whole(result):
    """Also that nothing is left out, and nothing was measured with small numbers."""
    check_whole(result)
    measured = {(row["volume_tib"], row["applications"]) for row in result["fetch"] if "calls" in row}
    require(GRID <= measured, f"no fetch of {sorted(GRID - measured)}")
    for part, (keys, wanted) in ROWS.items():
        missing = wanted - {tuple(row[key] for key in keys) for row in result[part]}
        require(not missing, f"{part}: no {sorted(missing)}")
    for part, runs in RUNS.items():
        for row in result[part]:
            for path, number in runs.items():
                require_runs(row, path, number, part)
    for row in result["fetch"]:
        check_runs_of_fetch(row)
    for row in result["bitmap_operations"]:
        require_runs(row, "time.library_runs_ms", PAIRS[row["volume_tib"]][1], row["operation"])
    for name, (messages, pairs) in LOG_AMOUNTS.items():
        row = result["log"][name]
        require(row["messages"] >= messages, f"log, {name}: {row['messages']} messages, not {messages}")
        require_runs(row, "time.library_runs_ms", pairs, f"log, {name}")
    require(result["load"]["runs"] >= LOADS, f"{result['load']['runs']} loads, not {LOADS}")


def check_calls(result, project):
    """That what was measured makes the calls that a test holds: a change of them makes the times old."""
    test = (project / "tests" / "cost" / "fetch_test.cpp").read_text()
    found = re.search(r"EXPECT_EQ\((\d+) \* files \+ OTHERS, cost\.calls\)", test), re.search(r"OTHERS = (\d+);", test)
    require(all(found), "tests/cost/fetch_test.cpp: no number of calls")
    if all(found):
        of_file, others = (int(match.group(1)) for match in found)
        for row in result["fetch"]:
            if "calls" in row:
                wanted = of_file * (row["applications"] + 1) + others
                require(row["calls"]["all"] == wanted,
                        f"fetch, {row['volume_tib']} TiB, {row['applications']} applications: {row['calls']['all']} calls, "
                        f"and the test has {wanted}: to be measured anew")


def check_runs_of_fetch(row):
    where = f"fetch, {row['volume_tib']} TiB, {row['applications']} applications"
    if "calls" not in row:
        require_runs(row, "time.library_runs_ms", PAIRS_OF_LINES, where)
        return
    pairs, other_pairs = PAIRS[row["volume_tib"]]
    require_runs(row, "time.library_runs_ms", pairs, where)
    for time in ("time_again", "time_in_runs", "time_caller_last"):
        if time in row:
            require_runs(row, f"{time}.library_runs_ms", other_pairs, where)
    require_runs(row, "bare_without_flushes_runs_ms", other_pairs, where)
    if "without_log" in row:
        require_runs(row, "without_log.time.library_runs_ms", other_pairs, where)
    require(row["times_apart"]["runs"] >= RUNS_APART, f"{where}: {row['times_apart']['runs']} runs call by call")


def check_links(page, kinds="svg|md|json"):
    """That the pictures and pages which a page speaks of are there, and none of them is empty."""
    for link in re.findall(rf"\]\(([\w./]+\.(?:{kinds}))\)", page.read_text()):
        linked = page.parent / link
        require(linked.exists() and linked.stat().st_size > 1000, f"{page.name}: no {link}")


def check_page(result, make, page):
    """That it was made of these results: made once more, it is the same text."""
    with tempfile.TemporaryDirectory() as folder:
        make(result, pathlib.Path(folder))
        made = (pathlib.Path(folder) / page.name).read_text()
    require(made == page.read_text(), f"{page.name}: not the page of the results that are kept")


def kept(project):
    for kind, check, make in (("core", check_core_whole, core_pages.make), ("whole", check_whole_whole, whole_pages.make),
                              ("tried", check_tried_whole, tried_pages.make)):
        result = json.loads((project / "bench" / "results" / f"{kind}.json").read_text())
        if result.get("format") != common.FORMATS[kind]:
            failures.append(f"{kind}: format {result.get('format')}: to be measured anew")
            continue
        known = len(failures)
        check_conditions_of_kept(result, kind, project)
        check(result)
        if kind == "whole":
            check_calls(result, project)
        if len(failures) == known: # or there might be nothing to make a page of
            check_page(result, make, project / "docs" / "performance" / f"{kind}.md")
    for page in ("performance.md", "performance/core.md", "performance/whole.md", "performance/tried.md"):
        check_links(project / "docs" / page)
    finish()


def finish():
    for failure in failures:
        print(f"FAILED: {failure}")
    sys.exit(1 if failures else 0)


def measured_anew(kind, project, folder):
    shutil.rmtree(folder, ignore_errors=True)
    subprocess.run([sys.executable, "-B", project / "bench" / kind / "run.py", "--quick", "--under-load", "--out", folder,
                    project], check=True)
    result = json.loads((folder / "results" / f"{kind}.json").read_text())
    check_conditions(result, kind)
    for part, of in result["conditions"].items():
        require(of["under_load"], f"{part}: measured under load, and does not say so")
        require(of["quick"], f"{part}: measured with small numbers, and does not say so")
    {"core": check_core, "whole": check_whole, "tried": check_tried}[kind](result)
    page = folder / "performance" / f"{kind}.md"
    require("nan" not in page.read_text().lower().split(), "the page has figures that are none")
    check_links(page, "svg")
    # Those that only docs/performance.md shows.
    for picture in ("merge_dense.svg", "merge_sparse.svg") if kind == "core" else ():
        drawn = folder / "performance" / picture
        require(drawn.exists() and drawn.stat().st_size > 1000, f"no picture {picture}")
    finish()


if sys.argv[1] == "kept":
    kept(pathlib.Path(sys.argv[2]).resolve())
else:
    measured_anew(sys.argv[1], pathlib.Path(sys.argv[2]).resolve(), pathlib.Path(sys.argv[3]).resolve())
