"""Makes tables and pictures for docs/performance.md from the results of core_bench.

    report.py RAW.json RESULT.json TABLE.md PICTURE-FOLDER

RESULT.json is what is kept of RAW.json: what was measured on which kind of machine, not whose it was.

For each thing that was measured the best of its repetitions counts: whatever disturbs a run makes it slower, never
faster. The rivals ran in turns with the library, so a ratio is of one run on one machine.
"""
import collections
import json
import pathlib
import sys

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plot

RIVALS = {
    "or": ("avx2", "avx2-unrolled", "roaring", "memcpy"),
    "walk": ("avx2",),
    "count": ("popcnt",),
    "clear": ("avx2",),
}
SIZES = {32: "32 KiB", 64: "64 KiB", 2048: "2 MiB", 4096: "4 MiB", 131072: "128 MiB", 1048576: "1 GiB"}
# memcpy is a limit only where memory is; in the caches it does less work (it reads one side only).
MEMORY_FROM = 131072


CONTEXT = ("date", "num_cpus", "mhz_per_cpu", "caches")
FIELDS = ("name", "repetition_index", "iterations", "real_time", "time_unit", "bytes_per_second")


def keep(raw, path):
    """Writes what is kept of the raw results, one measurement a line."""
    entries = [{field: entry[field] for field in FIELDS} for entry in raw["benchmarks"]
               if entry["run_type"] == "iteration"]
    context = {field: raw["context"][field] for field in CONTEXT}
    lines = ",\n".join("  " + json.dumps(entry) for entry in entries)
    with open(path, "w") as file:
        file.write('{\n"context": ' + json.dumps(context) + ',\n"benchmarks": [\n' + lines + "\n]\n}\n")


def read(path):
    with open(path) as file:
        document = json.load(file)
    groups = collections.defaultdict(dict)
    for entry in document["benchmarks"]:
        work, size, what, who = entry["name"].split("/")[:4]
        best = groups[(work, int(size), what)]
        best[who] = max(best.get(who, 0), entry["bytes_per_second"] / 1e9)
    return document["context"], groups


def rivals_of(work, size, rates):
    return [who for who in RIVALS[work] if who in rates and (who != "memcpy" or size >= MEMORY_FROM)]


def number(rate):
    return f"{rate:.1f}" if rate >= 1 else f"{rate:.3f}"


def table(groups, work):
    names = sorted({who for (of, _, _), rates in groups.items() if of == work for who in rates} - {"library"})
    lines = [f"| bitmap | case | library | {' | '.join(names)} | library : best rival |",
             f"|---|---|---|{'---|' * len(names)}---|"]
    for (of, size, what), rates in sorted(groups.items(), key=lambda item: (item[0][1], item[0][2])):
        if of != work:
            continue
        best = max(rates[who] for who in rivals_of(work, size, rates))
        cells = [number(rates[who]) if who in rates else "" for who in names]
        lines.append(f"| {SIZES[size]} | {what} | {number(rates['library'])} | {' | '.join(cells)} "
                     f"| {rates['library'] / best:.2f} |")
    return "\n".join(lines)


def picture(groups, work, cases, title, path):
    figure, axes = plot.subplots(figsize=(9, 4.5))
    sizes = sorted({size for (of, size, _) in groups if of == work})
    for what in cases:
        for who in ("library",) + RIVALS[work] + (("byte-loop",) if work == "or" else ()):
            points = [(size, groups[(work, size, what)].get(who)) for size in sizes if (work, size, what) in groups]
            points = [(size, rate) for size, rate in points if rate]
            if points:
                label = f"{who}, {what}" if len(cases) > 1 else who
                axes.plot([p[0] for p in points], [p[1] for p in points], marker="o", label=label,
                          linewidth=2.5 if who == "library" else 1)
    axes.set_xscale("log", base=2)
    axes.set_yscale("log")
    axes.set_xticks(sizes, [SIZES[size] for size in sizes])
    axes.set_xlabel("bitmap")
    axes.set_ylabel("GB of bitmap per second")
    axes.set_title(title)
    axes.grid(True, which="major", alpha=0.4)
    axes.legend(fontsize="small")
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})


def main():
    raw, result, out, pictures = sys.argv[1:5]
    with open(raw) as file:
        keep(json.load(file), result)
    context, groups = read(result)
    folder = pathlib.Path(pictures)
    folder.mkdir(parents=True, exist_ok=True)
    matplotlib.rcParams["svg.hashsalt"] = "vtflt"
    picture(groups, "or", ("84+0-dense",), "Merging, every other bit set", folder / "merge_dense.svg")
    picture(groups, "or", ("84+0-sparse",), "Merging, one block in 4096 set", folder / "merge_sparse.svg")
    with open(out, "w") as file:
        file.write("# The work on bits, measured\n\n"
                   f"Measured {context['date'][:10]}, {context['num_cpus']} processors of {context['mhz_per_cpu']} MHz. "
                   "GB of bitmap per second, the best of all repetitions.\n")
        for work, title in (("or", "Merge"), ("count", "Count of set bits"), ("walk", "Walk over the runs"),
                            ("clear", "Clear")):
            file.write(f"\n## {title}\n\n{table(groups, work)}\n")


main()
