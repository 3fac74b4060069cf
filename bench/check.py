"""Whether the measurements still measure: runs them with small numbers and looks at what they leave. No time is judged.

    check.py core|whole PROJECT FOLDER
"""
import json
import pathlib
import re
import shutil
import subprocess
import sys

TIMES = ("library_ms", "bare_ms", "ratio", "ratio_lower_quartile", "ratio_upper_quartile", "ratio_of_medians", "ratio_of_best",
         "library_runs_ms", "bare_runs_ms")
APART = ("reads", "writes", "flushes", "opens_and_closes", "memory", "registry", "locks", "driver", "others", "between_calls",
         "all")
COST = ("calls", "bytes_read", "bytes_written", "by_function")
MACHINE = ("date", "commit", "processor", "cores", "memory_gib", "disk", "kernel", "compiler")
# What stands in every row of a part, and whether it has to be above zero.
WHOLE = {
    "fetch": ("record_bytes", "memory.peak_bytes", "memory.limit_bytes", "calls.all", "calls.on_bitmap_files", "calls.bytes_read",
              "calls.bytes_written", "calls.heap_allocations", "calls.by_function.WriteFile", "bare_without_flushes_ms",
              *(f"{time}.{key}" for time in ("time", "time_again", "time_in_runs") for key in TIMES),
              *(f"times_apart.{who}.{kind}" for who in ("library", "bare") for kind in ("reads", "writes", "flushes",
                                                                                         "between_calls", "all"))),
    "bitmap_operations": ("operation", *(f"time.{key}" for key in TIMES), *(f"counts.{key}" for key in COST)),
    "registration": ("volumes", "register_ms", "unregister_ms", *(f"register.{key}" for key in COST),
                     "unregister.calls", "register_times_apart.all", "unregister_times_apart.all"),
    "verify_lists": ("operation", "entries", "ms", *(f"counts.{key}" for key in COST), "times_apart.registry",
                     "times_apart.all"),
    "handle_table": ("handles", "init_us_per_handle", "get_block_size_us", "bare_request_us", "deinit_us_per_handle",
                     "init.calls", "use.calls", "deinit.calls", "get_block_size_times_apart_ms_of_all.driver"),
    "bits_as_shipped": ("work", "kib", "who", "gb_per_s_best", "gb_per_s_median"),
    "list_search": ("entries", "ms"),
}
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


def check_machine(result):
    for key in MACHINE:
        require_value(result["machine"], key, "machine")
    for part, of in result["conditions"].items():
        require(of["under_load"], f"{part}: measured under load, and does not say so")
        for when in ("before", "after"):
            require(isinstance(value_at(of, f"{when}.busy_processors"), float), f"{part}: no load {when}")


def check_whole(result):
    for part, paths in WHOLE.items():
        rows = result.get(part, [])
        require(rows, f"no {part}")
        for row in rows:
            for path in paths:
                require_value(row, path, part)
    for row in result.get("fetch", []):
        if row["applications"] > 1:
            require_value(row, "time_caller_last.ratio", "fetch")
        apart = row["times_apart"]["library"]
        parts = sum(apart[kind] for kind in APART if kind != "all")
        require(abs(parts - apart["all"]) <= 0.02 * apart["all"] + 0.1, f"the parts of a fetch make {parts}, not {apart['all']} ms")
    for name in ("rejected", "accepted", "with_viewer", "eight_processes"):
        for key in TIMES:
            require_value(result["log"][name], f"time.{key}", f"log, {name}")
    for name in ("rejected", "accepted", "with_viewer"):
        counts = result["log"][name]["counts"]
        require(counts["heap_allocations"] == 0, f"{counts['heap_allocations']} heap allocations for a message, {name}")
        # What is measured in the DLL's place does nothing that the DLL does not do.
        beyond = result["log"][name]["calls_beyond_bare"]
        require(set(beyond) <= {"GetFileSizeEx", "VirtualQuery"}, f"calls beyond the bare ones, {name}: {beyond}")
    for key in ("load_ms", "unload_ms", "load_empty_ms", "dll_bytes", "imports"):
        require_value(result["load"], key, "load")


def check_core(result):
    kinds = {name.split("/")[0] for name in result["gb_per_s"]}
    require(kinds == {"or", "walk", "count"}, f"measured: {sorted(kinds)}")
    for name, rates in result["gb_per_s"].items():
        require(rates and all(rate > 0 for rate in rates), f"{name}: {rates}")
    for name in ("or/32/0+0-dense/roaring", "or/32/0+0-dense/roaring-lazy", "or/32/1+0-dense/library", "or/32/85+17-dense/avx2",
                 "count/32/dense/avx2"):
        require(name in result["gb_per_s"], f"no {name}")


def main(kind, project, folder):
    shutil.rmtree(folder, ignore_errors=True)
    subprocess.run([sys.executable, "-B", project / "bench" / kind / "run.py", "--quick", "--under-load", "--out", folder, project],
                   check=True)
    result = json.loads((folder / "results" / f"{kind}.json").read_text())
    check_machine(result)
    (check_core if kind == "core" else check_whole)(result)
    page = (folder / "performance" / f"{kind}.md").read_text()
    require("nan" not in page.lower().split(), "the page has figures that are none")
    for picture in re.findall(r"\]\(([a-z_]+\.svg)\)", page):
        drawn = folder / "performance" / picture
        require(drawn.exists() and drawn.stat().st_size > 1000, f"no picture {picture}")
    for failure in failures:
        print(f"FAILED: {failure}")
    sys.exit(1 if failures else 0)


main(sys.argv[1], pathlib.Path(sys.argv[2]).resolve(), pathlib.Path(sys.argv[3]).resolve())
