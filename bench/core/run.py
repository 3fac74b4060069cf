"""Measures the work on bits, keeps the results and makes tables and pictures of them.

    run.py [--quick] [--under-load] [--out FOLDER] PROJECT [CASE...]

The library and its rivals run in rounds, one right behind the other and each round in another order, so a ratio is of one
moment of one machine. With cases, or how their names begin (or/32), only those are measured, which are no whole results.
"""
import collections
import json
import pathlib
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
import common
import core_pages

# A round's share of everybody, at least. So short that a round is a moment, and that there can be many.
SHARE_SECONDS = {False: 0.005, True: 0.02}  # of what the caches hold, and of what they do not
QUICK_SHARE_SECONDS = 0.001


def cases_of(program, options):
    listed = subprocess.run([program, "list", *(["--quick"] if options.quick else [])], check=True, capture_output=True,
                            text=True).stdout.split()
    wanted = [case for case in listed if not options.rest or case.startswith(tuple(options.rest))]
    if not wanted:
        sys.exit(f"bench: no case begins with {' or '.join(options.rest)}")
    return wanted


def measure_case(program, case, options, raw):
    rounds = core_pages.rounds_of(case, options.quick)
    share = QUICK_SHARE_SECONDS if options.quick else SHARE_SECONDS[int(case.split("/")[1]) >= core_pages.MEMORY_FROM]
    raw.unlink(missing_ok=True)
    done = subprocess.run([program, case, str(rounds), f"--benchmark_min_time={share}", "--benchmark_out_format=json",
                           f"--benchmark_out={raw}"], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"bench: {case}: {done.stderr}")
    document = json.loads(raw.read_text())
    raw.unlink()
    rates = collections.defaultdict(dict)
    for entry in document["benchmarks"]:
        *_, who, at = entry["name"].split("/")
        rates[who][int(at)] = float(f"{entry['bytes_per_second'] / 1e9:.4g}")
    return document["context"], {f"{case}/{who}": [of[at] for at in range(len(of))] for who, of in rates.items()}


def measure(options):
    program = options.project / "build" / "bench" / "bench" / "core_bench"
    raw = options.project / "build" / "core.json"
    cases = cases_of(program, options)
    common.require_idle(options.under_load)
    of = common.machine(options.project, "g++", options.project / "build")
    of["roaring"] = "CRoaring " + common.output_of("dpkg-query", "-W", "-f", "${Version}", "libroaring-dev")
    before = common.load(options.quick)
    rates = {}
    for case in cases:
        context, measured = measure_case(program, case, options, raw)
        of["caches"] = context["caches"]
        rates.update(measured)
        print(f"{case}: {max(measured[f'{case}/library'])} GB/s", flush=True)
    conditions = {"core": common.conditions_of(options, of, before)}
    return {"format": common.FORMATS["core"], "conditions": conditions, "gb_per_s": dict(sorted(rates.items()))}


def write(result, path):
    """One line for each thing that was measured."""
    lines = ",\n".join(f"  {json.dumps(name)}: {json.dumps(rates)}" for name, rates in result["gb_per_s"].items())
    path.write_text('{\n"format": ' + json.dumps(result["format"]) + ',\n"conditions": ' + json.dumps(result["conditions"])
                    + ',\n"gb_per_s": {\n' + lines + "\n}\n}\n")


def main():
    options = common.arguments("core", "CASE")
    if options.rest and options.out is None:
        sys.exit("bench: some of the cases are no whole results: they need --out")
    result = measure(options)
    write(result, options.results / "core.json")
    core_pages.make(json.loads((options.results / "core.json").read_text()), options.pages)


main()
