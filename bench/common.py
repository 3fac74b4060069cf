"""What the two measurements share: the machine and whether it is idle, tables, pictures."""
import argparse
import datetime
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys
import time

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plot

# More than so many processors busy with something else, and ratios say little.
BUSY_LIMIT = 0.5
PATIENCE_SECONDS = 300
# Of results/KIND.json. What was kept in another shape, or measured in another way, cannot stand beside what is new.
FORMATS = {"core": 3, "whole": 3, "tried": 1}
# What a figure depends on; the results themselves change while their parts are measured.
MEASURED = ("src", "include", "sim", "bench", ":!bench/results", "tests/cost", "cmake", "CMakeLists.txt", "CMakePresets.json")

matplotlib.rcParams["svg.hashsalt"] = "vtflt"


def arguments(description, rest, parts=()):
    parser = argparse.ArgumentParser(prog=f"bench {description}")
    parser.add_argument("--quick", action="store_true", help="small numbers: whether it works, no results")
    parser.add_argument("--under-load", action="store_true", help="also on a busy machine; the results say so")
    parser.add_argument("--out", type=pathlib.Path, help="the folder for results and docs/performance; the project's own")
    parser.add_argument("project", type=pathlib.Path)
    parser.add_argument("rest", nargs="*", metavar=rest)
    parsed = parser.parse_intermixed_args()
    if parts and set(parsed.rest) - set(parts):
        parser.error(f"no such part: {', '.join(sorted(set(parsed.rest) - set(parts)))}; parts: {', '.join(parts)}")
    parsed.project = parsed.project.resolve()
    if parsed.quick and parsed.out is None:
        parser.error("--quick needs --out: its figures are no results")
    parsed.results = (parsed.out / "results") if parsed.out else parsed.project / "bench" / "results"
    parsed.pages = (parsed.out / "performance") if parsed.out else parsed.project / "docs" / "performance"
    for folder in (parsed.results, parsed.pages):
        folder.mkdir(parents=True, exist_ok=True)
    return parsed


def output_of(*command, cwd=None):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=False, cwd=cwd).stdout.strip()
    except OSError:
        return ""


def disk_of(folder):
    """The kind of the disk that holds a folder: its file system, and what the system knows of the device."""
    lines = output_of("df", "--output=source,fstype", str(folder)).splitlines()
    source, kind = lines[-1].split() if lines else ("", "")
    name = re.sub(r"p?\d+$", "", pathlib.Path(source).name)
    rotational = pathlib.Path(f"/sys/block/{name}/queue/rotational")
    spins = {"0": "not rotating", "1": "said to rotate"}.get(rotational.read_text().strip() if rotational.exists() else "", "")
    return ", ".join(text for text in (kind, name if source.startswith("/dev/") else source, spins) if text)


def machine(project, compiler, files):
    """files: a folder on the disk that is measured."""
    info = pathlib.Path("/proc/cpuinfo").read_text()
    memory = int(re.search(r"MemTotal:\s+(\d+)", pathlib.Path("/proc/meminfo").read_text()).group(1))
    commit = output_of("git", "rev-parse", "--short=10", "HEAD", cwd=project)
    changed = output_of("git", "status", "--porcelain", "--untracked-files=normal", "--", *MEASURED, cwd=project)
    return {
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "commit": commit + (" and changes" if changed else ""),
        "processor": re.search(r"model name\s*: (.*)", info).group(1),
        "cores": os.cpu_count(),
        "memory_gib": round(memory / (1 << 20)),
        "disk": disk_of(files),
        "kernel": platform.release(),
        "compiler": output_of(compiler, "--version").split("\n")[0],
    }


def describe_machine(of):
    return (f"{of['processor']}, {of['cores']} processors, {of['memory_gib']} GiB, {of['disk']}; Linux {of['kernel']}, "
            + ", ".join([of["compiler"]] + [of[key] for key in ("wine", "roaring") if key in of]))


def busy(seconds):
    """How many processors were busy, or taken by other virtual machines, in the time from now."""
    def used():
        fields = [int(field) for field in pathlib.Path("/proc/stat").read_text().split("\n")[0].split()[1:9]]
        return sum(fields) - fields[3] - fields[4]  # but idle and waiting for the disk
    before = used()
    time.sleep(seconds)
    return (used() - before) / os.sysconf("SC_CLK_TCK") / seconds


def load(quick=False):
    """The machine's state right before a measurement, or behind it, while nothing of it runs."""
    return {"busy_processors": round(busy(0.1 if quick else 2.0), 2), "load_average": round(os.getloadavg()[0], 2)}


def require_idle(under_load, behind_another=False):
    """Waits until what ran before (a build, say) has ended; ends the program when the machine stays busy. Behind another part
    of the measurement the average of the last minutes is that part's own."""
    if under_load:
        return
    deadline = time.monotonic() + PATIENCE_SECONDS
    while True:
        state = load()
        if (state["busy_processors"] if behind_another else max(state.values())) <= BUSY_LIMIT:
            return
        if time.monotonic() > deadline:
            sys.exit(f"bench: the machine is busy ({state['busy_processors']} processors, load {state['load_average']}, "
                     f"{BUSY_LIMIT} allowed): measure when it is idle, or with --under-load, which the results then say")
        time.sleep(5)


def conditions_of(options, of, before):
    """Of a part that was just measured, on this machine. It was under load when it might have been, or when it was."""
    after = load(options.quick)
    busiest = max(before["busy_processors"], after["busy_processors"])
    return {"machine": of, "quick": options.quick, "before": before, "after": after,
            "under_load": options.under_load or busiest > BUSY_LIMIT}


def describe_conditions(conditions):
    """conditions: of each part what conditions_of said. Parts may have been measured one by one."""
    machines = {}
    for part, of in conditions.items():
        machines.setdefault(describe_machine(of["machine"]), []).append(part)
    lines = [text + ("." if len(machines) == 1 else f" ({', '.join(parts)}).") for text, parts in machines.items()]
    rows = [[part, of["machine"]["date"], of["machine"]["commit"], of["before"]["busy_processors"],
             of["after"]["busy_processors"], "**yes**" if of["under_load"] else "no"] for part, of in conditions.items()]
    return ("\n".join(lines) + "\n\nWhat else was busy was looked at for two seconds before each part and after it, not while "
            "it was measured.\n\n"
            + table(["part", "measured", "at", "processors busy with something else before", "after", "under load"], rows))


def ratios(ones, others):
    """Of what ran side by side: the first of the one to the first of the other, and so on."""
    return [one / other for one, other in zip(ones, others)]


def quartiles(values):
    """The lower quartile, the median and the upper quartile: as many values lie below the lower one as above the upper one."""
    ordered = sorted(values)
    aside = (len(ordered) - 1) // 4
    return ordered[aside], statistics.median(ordered), ordered[len(ordered) - 1 - aside]


def spread(quartiles_of_it):
    lower, median, upper = quartiles_of_it
    return f"{median:.2f} ({lower:.2f} to {upper:.2f})"


def nearest_rival(rates, rivals, first="library"):
    """Of who: rates, one for each round: the rival with the least median of the library's ratio to it, and its quartiles."""
    compared = {who: quartiles(ratios(rates[first], rates[who])) for who in rivals}
    return min(compared.items(), key=lambda item: item[1][1])


def table(heads, rows):
    lines = [f"| {' | '.join(heads)} |", "|" + "---|" * len(heads)]
    lines += [f"| {' | '.join(str(cell) for cell in row)} |" for row in rows]
    return "\n".join(lines)


class Picture:
    """A figure of one or more axes, saved when the block ends."""

    def __init__(self, path, columns=1, size=(9, 4.5)):
        self.path = path
        self.figure, axes = plot.subplots(1, columns, figsize=size, squeeze=False)
        self.axes = list(axes[0])

    def __enter__(self):
        return self

    def __exit__(self, kind, value, trace):
        if kind is None:
            for axes in self.axes:
                axes.grid(True, which="major", linewidth=0.4)
                if axes.get_legend_handles_labels()[0]:
                    axes.legend(fontsize=8)
            self.figure.tight_layout()
            self.figure.savefig(self.path, metadata={"Date": None})
        plot.close(self.figure)


def fit(points):
    """The straight line through points with the least squared error relative to y, for that is how times scatter: slope,
    intercept, largest relative error."""
    weighted = [(x, y, y ** -2) for x, y in points]
    whole = sum(weight for _, _, weight in weighted)
    mean_x = sum(x * weight for x, _, weight in weighted) / whole
    mean_y = sum(y * weight for _, y, weight in weighted) / whole
    spread = sum((x - mean_x) ** 2 * weight for x, _, weight in weighted)
    slope = sum((x - mean_x) * (y - mean_y) * weight for x, y, weight in weighted) / spread
    intercept = mean_y - slope * mean_x
    return slope, intercept, max(abs(y - slope * x - intercept) / y for x, y in points)
