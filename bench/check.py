"""Whether the measurements still measure: runs them with small numbers and looks at what they leave. And whether the results
that are kept are whole, and those that the documentation speaks of. No time is judged.

    check.py core|whole PROJECT FOLDER
    check.py kept PROJECT
"""
import itertools
import json
import pathlib
import re
import shutil
import subprocess
import sys

for folder in ("", "core"):
    sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent / folder))
import common
import core_pages

TIMES = ("library_ms", "bare_ms", "ratio", "ratio_lower_quartile", "ratio_upper_quartile", "ratio_of_medians", "ratio_of_best",
         "library_runs_ms", "bare_runs_ms")
COST = ("calls", "bytes_read", "bytes_written", "by_function")
MACHINE = ("date", "commit", "processor", "cores", "memory_gib", "disk", "kernel", "compiler")
# What stands in every row of a part, and whether it has to be above zero.
WHOLE = {
    "fetch": ("record_bytes", "memory.peak_bytes", "memory.limit_bytes", "calls.all", "calls.on_bitmap_files", "calls.bytes_read",
              "calls.bytes_written", "calls.heap_allocations", "calls.heap_allocations_again", "calls.by_function.WriteFile",
              "bare_without_flushes_ms", "times_apart.runs",
              *(f"{time}.{key}" for time in ("time", "time_again", "time_in_runs") for key in TIMES),
              *(f"times_apart.{who}.{kind}" for who in ("library", "bare") for kind in ("reads", "writes", "flushes",
                                                                                         "between_calls", "all"))),
    "bitmap_operations": ("operation", *(f"time.{key}" for key in TIMES), *(f"counts.{key}" for key in COST)),
    "registration": ("volumes", "register_ms", "unregister_ms", *(f"register.{key}" for key in COST),
                     "unregister.calls", "register_times_apart.all", "unregister_times_apart.all"),
    "verify_lists": ("operation", "entries", "ms", *(f"counts.{key}" for key in COST), "times_apart.registry",
                     "times_apart.all"),
    "handle_table": ("handles", "init_runs_ms", "deinit_runs_ms", "init_us_per_handle", "get_block_size_us", "bare_request_us", "deinit_us_per_handle",
                     "init.calls", "use.calls", "deinit.calls", "get_block_size_times_apart_ms_of_all.driver"),
    "bits_as_shipped": ("work", "kib", "who", "gb_per_s_best", "gb_per_s_median"),
    "list_search": ("entries", "ms"),
}
PARTS = ("load", "fetch", "registration", "lists", "handles", "log", "bits")
LOG_MESSAGES = ("rejected", "accepted", "with_viewer")
# What a fetch may take beside whole records.
ALLOWANCE = 8 << 20
# What is kept has at least these cases.
GRID = set(itertools.product((1, 16, 64), (1, 4, 16)))
CORE_KIB = (32, 2048, 131072, 1048576)
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


def check_conditions(result, kind):
    require(result.get("format") == common.FORMATS[kind], f"{kind}: format {result.get('format')}: to be measured anew")
    require(set(result["conditions"]) == set(PARTS if kind == "whole" else ("core",)), f"parts: {', '.join(result['conditions'])}")
    for part, of in result["conditions"].items():
        for key in MACHINE:
            require_value(of["machine"], key, f"{part}: machine")
        for when in ("before", "after"):
            busy = value_at(of, f"{when}.busy_processors")
            require(isinstance(busy, float), f"{part}: no load {when}")
            require(busy <= common.BUSY_LIMIT or of["under_load"], f"{part}: measured under load, and does not say so")


def check_memory(row):
    """The limit; and what docs/performance.md says: two records for a manager's first fetch, three for a later one."""
    for key in ("memory", "memory_caller_last"):
        if key in row:
            memory = row[key]
            where = f"fetch, {row['volume_tib']} TiB, {row['applications']} applications, {key}"
            require(memory["peak_bytes"] <= memory["limit_bytes"], f"{where}: {memory['peak_bytes']} bytes, above the limit")
            for name, records in (("peak_of_first_bytes", 2), ("peak_bytes", 3)):
                require(memory[name] < records * row["record_bytes"] + ALLOWANCE,
                        f"{where}: {name} is {memory[name]}, more than {records} records")


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
        if "calls" in row:
            check_memory(row)
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
        # What is measured in the DLL's place does nothing that the DLL does not do.
        beyond = result["log"][name]["calls_beyond_bare"]
        require(set(beyond) <= {"GetFileSizeEx", "VirtualQuery"}, f"calls beyond the bare ones, {name}: {beyond}")
    for key in ("load_ms", "unload_ms", "load_with_imports_ms", "load_empty_ms", "dll_bytes", "imports"):
        require_value(result["load"], key, "load")
    require(result["load"]["dll_bytes"] < result["load"]["limit_bytes"], f"a DLL of {result['load']['dll_bytes']} bytes")


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


def check_whole_whole(result):
    measured = {(row["volume_tib"], row["applications"]) for row in result["fetch"] if "calls" in row}
    require(GRID <= measured, f"no fetch of {sorted(GRID - measured)}")
    for part, key, wanted in (("registration", "volumes", {1, 64, 512}), ("verify_lists", "entries", {10000}),
                              ("handle_table", "handles", {10000}), ("list_search", "entries", {10000}),
                              ("bits_as_shipped", "kib", set(CORE_KIB)), ("bitmap_operations", "volume_tib", {1, 16, 64})):
        require(wanted <= {row[key] for row in result[part]}, f"{part}: not all of {sorted(wanted)}")


def check_links(page, kinds="svg|md|json"):
    """That the pictures and pages which a page speaks of are there, and none of them is empty."""
    for link in re.findall(rf"\]\(([\w./]+\.(?:{kinds}))\)", page.read_text()):
        linked = page.parent / link
        require(linked.exists() and linked.stat().st_size > 1000, f"{page.name}: no {link}")


def kept(project):
    for kind, check in (("core", check_core_whole), ("whole", check_whole)):
        result = json.loads((project / "bench" / "results" / f"{kind}.json").read_text())
        require(result.get("format") == common.FORMATS[kind], f"{kind}: format {result.get('format')}: to be measured anew")
        if result.get("format") == common.FORMATS[kind]:
            check_conditions(result, kind)
            check(result)
            if kind == "whole":
                check_whole_whole(result)
    for page in ("performance.md", "performance/core.md", "performance/whole.md"):
        check_links(project / "docs" / page)
    finish()


def finish():
    for failure in failures:
        print(f"FAILED: {failure}")
    sys.exit(1 if failures else 0)


def measured_anew(kind, project, folder):
    shutil.rmtree(folder, ignore_errors=True)
    subprocess.run([sys.executable, "-B", project / "bench" / kind / "run.py", "--quick", "--under-load", "--out", folder, project],
                   check=True)
    result = json.loads((folder / "results" / f"{kind}.json").read_text())
    check_conditions(result, kind)
    for part, of in result["conditions"].items():
        require(of["under_load"], f"{part}: measured under load, and does not say so")
    (check_core if kind == "core" else check_whole)(result)
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
