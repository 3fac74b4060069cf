"""Measures the work on bits, keeps the results and makes tables and pictures of them.

    run.py [--quick] [--under-load] [--out FOLDER] PROJECT [ARGUMENT OF CORE_BENCH...]

Of each thing that was measured the best of its repetitions counts, for whatever disturbs a run makes it slower and never
faster; the median stands beside it. The rivals ran in turns with the library, so a ratio is of one run on one machine.
"""
import collections
import json
import pathlib
import statistics
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
import common

TARGET = 0.95
RIVALS = {
    "or": ("avx2", "avx2-unrolled", "avx2-aligned", "roaring", "roaring-lazy", "roaring-no-count", "memcpy"),
    "walk": ("avx2",),
    "count": ("popcnt", "avx2", "avx2-carry-save"),
}
TITLES = {"or": "Merge", "count": "Count of set bits", "walk": "Walk over the runs"}
SIZES = {32: "32 KiB", 64: "64 KiB", 2048: "2 MiB", 4096: "4 MiB", 131072: "128 MiB", 1048576: "1 GiB"}
# memcpy is a limit only where memory is; in the caches it does less work (it reads one side only).
MEMORY_FROM = 131072


def measure(options):
    program = options.project / "build" / "bench" / "bench" / "core_bench"
    raw = options.project / "build" / "core.json"
    common.require_idle(options.under_load)
    context = common.machine(options.project, "g++")
    context["roaring"] = "CRoaring " + common.output_of("dpkg-query", "-W", "-f", "${Version}", "libroaring-dev")
    before = common.load(options.quick)
    command = [program] + (["--quick"] if options.quick else [])
    command += ["--benchmark_enable_random_interleaving=true",
                f"--benchmark_repetitions={2 if options.quick else 7}",
                f"--benchmark_min_time={0.001 if options.quick else 0.03}",
                "--benchmark_out_format=json", f"--benchmark_out={raw}", *options.rest]
    subprocess.run(command, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    document = json.loads(raw.read_text())
    raw.unlink()
    context["caches"] = document["context"]["caches"]
    conditions = {"core": common.conditions_of(options, context, before)}
    rates = collections.defaultdict(list)
    for entry in document["benchmarks"]:
        if entry["run_type"] == "iteration":
            name = "/".join(entry["name"].split("/")[:4])
            rates[name].append(float(f"{entry['bytes_per_second'] / 1e9:.4g}"))
    return {"format": common.FORMATS["core"], "conditions": conditions, "gb_per_s": dict(sorted(rates.items()))}


def write(result, path):
    """One line for each thing that was measured."""
    lines = ",\n".join(f"  {json.dumps(name)}: {json.dumps(rates)}" for name, rates in result["gb_per_s"].items())
    path.write_text('{\n"format": ' + json.dumps(result["format"]) + ',\n"conditions": ' + json.dumps(result["conditions"])
                    + ',\n"gb_per_s": {\n' + lines + "\n}\n}\n")


def groups_of(result, choose):
    groups = collections.defaultdict(dict)
    for name, rates in result["gb_per_s"].items():
        work, size, what, who = name.split("/")
        groups[(work, int(size), what)][who] = choose(rates)
    return groups


def best_rival(work, size, rates):
    return max((rates[who], who) for who in RIVALS[work] if who in rates and (who != "memcpy" or size >= MEMORY_FROM))


def number(rate):
    return f"{rate:.1f}" if rate >= 1 else f"{rate:.3f}"


def rows_of(best, medians, work):
    """Of each case its bests; the best rival and the library's ratio to it; and the same of the medians."""
    for key in sorted(best, key=lambda key: (key[1], key[2])):
        if key[0] == work:
            compared = []
            for rates in (best[key], medians[key]):
                rate, who = best_rival(work, key[1], rates)
                compared.append((rates["library"] / rate, who))
            yield key, best[key], *compared


def tables(best, medians, work):
    names = sorted({who for (of, _, _), rates in best.items() if of == work for who in rates} - {"library"})
    rows = [[SIZES[size], what, number(rates["library"])] + [number(rates[who]) if who in rates else "" for who in names]
            + [who, f"{ratio:.2f}", f"{of_medians:.2f} ({who_of_medians})"]
            for (_, size, what), rates, (ratio, who), (of_medians, who_of_medians) in rows_of(best, medians, work)]
    return common.table(["bitmap", "case", "library", *names, "best rival", "library : it", "of medians (rival)"], rows)


def misses(best, medians, work):
    missed = [f"- {SIZES[size]}, {what}: {min(of_bests, of_medians)[0]:.2f} ({min(of_bests, of_medians)[1]})"
              for (_, size, what), _, of_bests, of_medians in rows_of(best, medians, work) if min(of_bests, of_medians)[0] < TARGET]
    if not missed:
        return f"Everywhere at least {TARGET} of the best rival."
    return f"Below {TARGET} of the best rival, by the worse of the two ratios:\n\n" + "\n".join(missed)


def picture(best, work, cases, title, path):
    with common.Picture(path) as drawn:
        axes = drawn.axes[0]
        sizes = sorted({size for (of, size, _) in best if of == work})
        for what in cases:
            for who in ("library",) + RIVALS[work] + (("byte-loop",) if work == "or" else ()):
                points = [(size, best[(work, size, what)][who]) for size in sizes if who in best.get((work, size, what), {})]
                if points:
                    axes.plot(*zip(*points), marker="o", label=f"{who}, {what}" if len(cases) > 1 else who,
                              linewidth=2.5 if who == "library" else 1)
        axes.set_xscale("log", base=2)
        axes.set_yscale("log")
        axes.set_xticks(sizes, [SIZES[size] for size in sizes])
        axes.set_xlabel("bitmap")
        axes.set_ylabel("GB of bitmap per second")
        axes.set_title(title)


def page(result, pages):
    best = groups_of(result, max)
    medians = groups_of(result, statistics.median)
    picture(best, "or", ("84+0-dense",), "Merging, every other bit set", pages / "merge_dense.svg")
    picture(best, "or", ("84+0-sparse",), "Merging, one block in 4096 set", pages / "merge_sparse.svg")
    picture(best, "count", ("dense",), "Counting set bits", pages / "count.svg")
    picture(best, "walk", ("sparse", "clear"), "Walking over the runs", pages / "walk.svg")
    text = ["# The work on bits, measured", "",
            "Made by `./dev bench core` from `bench/results/core.json`; what the figures mean stands in",
            "[`../performance.md`](../performance.md).", "",
            common.describe_conditions(result["conditions"]), "",
            "GB of bitmap per second of the processor's time, the best of all repetitions; the last two columns compare the bests and",
            "the medians.",
            "A case is the offsets of target and source from a page's start, and what the source is like."]
    for work, title in TITLES.items():
        text += ["", f"## {title}", "", misses(best, medians, work), "", tables(best, medians, work)]
        if work != "or":
            text += ["", f"![{title}]({work}.svg)"]
    (pages / "core.md").write_text("\n".join(text) + "\n")


def main():
    options = common.arguments("core")
    result = measure(options)
    write(result, options.results / "core.json")
    page(json.loads((options.results / "core.json").read_text()), options.pages)


main()
