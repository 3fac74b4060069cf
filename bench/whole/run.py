"""Measures whole operations, keeps the results and makes tables and a picture of them.

    run.py PROJECT [PART...]     parts: load fetch registration lists handles log; without one, all

Each part is measured by a program of its own run; what is not measured now stays as it was in bench/results/whole.json.
"""
import json
import os
import pathlib
import re
import subprocess
import sys

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plot

PARTS = ("load", "fetch", "registration", "lists", "handles", "log")
MEBIBYTE = 1 << 20


def machine():
    info = pathlib.Path("/proc/cpuinfo").read_text()
    memory = int(re.search(r"MemTotal:\s+(\d+)", pathlib.Path("/proc/meminfo").read_text()).group(1))
    wine = subprocess.run(["wine", "--version"], capture_output=True, text=True, check=False).stdout.strip()
    return {
        "processor": re.search(r"model name\s*: (.*)", info).group(1),
        "cores": os.cpu_count(),
        "memory_gib": round(memory / (1 << 20)),
        "system": wine,
    }


def measure(project, part):
    programs = project / "build" / "release"
    file = programs / f"whole-{part}.json"
    if part == "log":
        command = ["./whole_log_bench.exe", file.name]
    else:
        command = ["./whole_bench.exe", file.name, part]
    before = os.getloadavg()[0]
    subprocess.run([project / "cmake" / "wine.sh", *command], cwd=programs, check=True, stdin=subprocess.DEVNULL)
    result = json.loads(file.read_text())
    file.unlink()
    return result, {"load_average_before": round(before, 1), "load_average_after": round(os.getloadavg()[0], 1)}


def table(heads, rows):
    lines = [f"| {' | '.join(heads)} |", "|" + "---|" * len(heads)]
    lines += [f"| {' | '.join(str(cell) for cell in row)} |" for row in rows]
    return "\n".join(lines)


def mebibytes(count):
    return f"{count / MEBIBYTE:.1f}"


def fetch_tables(rows):
    times = table(
        ["volume", "applications", "library, ms", "bare, ms", "ratio", "of best runs", "changes in runs", "the same manager again",
         "runs each"],
        [[f"{r['volume_tib']} TiB", r["applications"], r["time"]["library_ms"], r["time"]["bare_ms"],
          f"{r['time']['ratio']:.2f}", f"{r['time']['ratio_of_best']:.2f}", f"{r['time_clustered']['ratio']:.2f}",
          f"{r['time']['ratio_of_fetch_again']:.2f}",
          len(r["time"]["bare_runs_ms"])] for r in rows])
    memory = table(
        ["volume", "applications", "record, MiB", "peak beyond before, MiB", "limit, MiB", "records at the peak"],
        [[f"{r['volume_tib']} TiB", r["applications"], mebibytes(r["record_bytes"]), mebibytes(r["memory"]["peak_bytes"]),
          mebibytes(r["memory"]["limit_bytes"]), f"{r['memory']['peak_bytes'] / r['record_bytes']:.1f}"] for r in rows])
    calls = table(
        ["volume", "applications", "read, MiB", "written, MiB", "calls on bitmap files", "flushes", "all calls",
         "heap allocations"],
        [[f"{r['volume_tib']} TiB", r["applications"], mebibytes(r["calls"]["bytes_read"]),
          mebibytes(r["calls"]["bytes_written"]), r["calls"]["on_bitmap_files"],
          r["calls"]["of_bitmap_files_by_function"]["FlushFileBuffers"], r["calls"]["all"],
          r["calls"]["heap_allocations"]] for r in rows])
    return f"### Time\n\n{times}\n\n### Memory\n\n{memory}\n\n### Calls and bytes\n\n{calls}"


def log_table(log):
    rows = []
    for name, title in (("rejected", "rejected"), ("accepted", "accepted"), ("with_viewer", "accepted, a viewer attached"),
                        ("eight_processes", "eight processes, one file")):
        row, time = log[name], log[name]["time"]
        per = 1000 / row["messages"]
        rows.append([title, f"{time['library_ms'] * per:.1f}", f"{time['bare_ms'] * per:.1f}", f"{time['ratio']:.2f}",
                     f"{time['ratio_of_best']:.2f}", row.get("counts", {}).get("calls", ""),
                     row.get("bare_counts", {}).get("calls", ""), row.get("counts", {}).get("heap_allocations", "")])
    return table(["message", "library, us", "bare, us", "ratio", "of best runs", "calls", "bare calls", "allocations"], rows)


def sections(result):
    if "fetch" in result:
        yield "VTFltGetBitmap", fetch_tables(result["fetch"]) + "\n\n![time of a fetch](fetch.svg)"
    if "log" in result:
        yield "The log", log_table(result["log"])
    if "registration" in result:
        yield "Registration", table(
            ["volumes", "register, ms", "per volume", "calls", "unregister, ms", "per volume", "calls"],
            [[r["volumes"], r["register_ms"], r["register_ms_per_volume"], r["register_calls"], r["unregister_ms"],
              r["unregister_ms_per_volume"], r["unregister_calls"]] for r in result["registration"]])
    if "verify_lists" in result:
        rows = sorted(result["verify_lists"], key=lambda r: (r["operation"], r["entries"]))
        yield "Verify lists", table(
            ["operation", "entries", "ms", "us per entry", "calls", "log records", "registry queries"],
            [[r["operation"], r["entries"], r["ms"], r["us_per_entry"], r["calls"], r["log_records"],
              r["registry_queries"]] for r in rows])
    if "handle_table" in result:
        yield "The handle table", table(
            ["handles", "VTFltInitBitmapManager, us", "VTFltGetBlockSize, us", "VTFltDeinitBitmapManager, us"],
            [[r["handles"], r["init_us_per_handle"], r["get_block_size_us"], r["deinit_us_per_handle"]]
             for r in result["handle_table"]])
    if "load" in result:
        load = result["load"]
        imports = ", ".join(f"{name} {count}" for name, count in load["imports"].items())
        yield "The DLL", table(
            ["load, ms", "unload, ms", "bytes", "imported functions"],
            [[load["load_ms"], load["unload_ms"], load["dll_bytes"], imports]])


def picture(rows, path):
    figure, axes = plot.subplots(figsize=(9, 4.5))
    for size in sorted({row["volume_tib"] for row in rows}):
        of_size = [row for row in rows if row["volume_tib"] == size]
        for who, style in (("library", "-"), ("bare", "--")):
            axes.plot([row["applications"] for row in of_size], [row["time"][f"{who}_ms"] for row in of_size], style,
                      marker="o", label=f"{size} TiB, {who}")
    axes.set_xscale("log", base=2)
    axes.set_yscale("log")
    applications = sorted({row["applications"] for row in rows})
    axes.set_xticks(applications, [str(count) for count in applications])
    axes.set_xlabel("applications")
    axes.set_ylabel("ms")
    axes.set_title("VTFltGetBitmap and the same reads and writes made bare")
    axes.grid(True, which="major", linewidth=0.4)
    axes.legend(fontsize=8)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})


def main(project, parts):
    unknown = set(parts) - set(PARTS)
    if unknown:
        sys.exit(f"bench whole: no such part: {', '.join(sorted(unknown))}")
    kept = project / "bench" / "results" / "whole.json"
    result = json.loads(kept.read_text()) if kept.exists() else {}
    result["machine"] = machine()
    for part in parts or PARTS:
        measured, conditions = measure(project, part)
        result.update(measured)
        result.setdefault("conditions", {})[part] = conditions
        kept.parent.mkdir(parents=True, exist_ok=True)
        kept.write_text(json.dumps(result, indent=1) + "\n")

    pictures = project / "docs" / "performance"
    pictures.mkdir(parents=True, exist_ok=True)
    description = result["machine"]
    text = ["# Whole operations, measured", "",
            "Made by `./dev bench whole` from `bench/results/whole.json`; what the figures mean stands in",
            "[`../performance.md`](../performance.md).", "",
            f"{description['processor']}, {description['cores']} cores, {description['memory_gib']} GiB, "
            f"{description['system']}. Load of the machine while each part was measured: "
            + ", ".join(f"{part} {of['load_average_before']} to {of['load_average_after']}"
                        for part, of in result["conditions"].items()) + "."]
    for title, body in sections(result):
        text += ["", f"## {title}", "", body]
    (pictures / "whole.md").write_text("\n".join(text) + "\n")
    if "fetch" in result:
        picture(result["fetch"], pictures / "fetch.svg")


main(pathlib.Path(sys.argv[1]).resolve(), sys.argv[2:])
