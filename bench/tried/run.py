"""Measures other ways than the library's where it misses a target, keeps the results and makes a page of them.

    run.py [--quick] [--under-load] [--out FOLDER] PROJECT [GROUP...]

The ways of a group run in one process, repetition by repetition in random order. One way of each group is measured twice: how
far the two lie apart is what the machine's noise makes of a ratio.
"""
import json
import pathlib
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
import common
import tried_pages


def measure_group(program, group, options, folder):
    raw = folder / "raw.json"
    command = [program, folder / "bitmap", f"--benchmark_filter=^{group}/", "--benchmark_enable_random_interleaving=true",
               f"--benchmark_repetitions={2 if options.quick else tried_pages.REPETITIONS}",
               f"--benchmark_min_time={0.001 if options.quick else 0.05}", "--benchmark_out_format=json",
               f"--benchmark_out={raw}"]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"bench: {group}: {done.stderr}")
    ways = {}
    for entry in json.loads(raw.read_text())["benchmarks"]:
        if entry["run_type"] == "iteration":
            of = ways.setdefault(entry["name"].split("/")[1], {"ms": [], "gb_per_s": []})
            of["ms"].append(float(f"{entry['real_time'] / 1e6:.4g}"))
            of["gb_per_s"].append(float(f"{entry['bytes_per_second'] / 1e9:.4g}"))
    raw.unlink()
    return ways


def measure(options):
    program = options.project / "build" / "bench" / "bench" / "tried_bench"
    common.require_idle(options.under_load)
    with tempfile.TemporaryDirectory() as folder:
        of = common.machine(options.project, "g++", folder)
        before = common.load(options.quick)
        groups = {group: measure_group(program, group, options, pathlib.Path(folder))
                  for group in options.rest or tried_pages.GROUPS}
    return {"format": common.FORMATS["tried"], "conditions": {"tried": common.conditions_of(options, of, before)},
            "groups": groups}


def write(result, path):
    """One line for each way."""
    groups = ",\n".join(f"{json.dumps(group)}: {{\n" + ",\n".join(f"  {json.dumps(way)}: {json.dumps(of)}" for way, of in ways.items())
                        + "\n}" for group, ways in result["groups"].items())
    path.write_text('{\n"format": ' + json.dumps(result["format"]) + ',\n"conditions": ' + json.dumps(result["conditions"])
                    + ',\n"groups": {\n' + groups + "\n}\n}\n")


def main():
    options = common.arguments("tried", "GROUP", tried_pages.GROUPS)
    if options.rest and options.out is None:
        sys.exit("bench: some of the groups are no whole results: they need --out")
    result = measure(options)
    write(result, options.results / "tried.json")
    tried_pages.make(json.loads((options.results / "tried.json").read_text()), options.pages)


main()
