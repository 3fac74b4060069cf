"""What the two measurements share: the machine and whether it is idle, tables, pictures."""
import argparse
import datetime
import os
import pathlib
import platform
import re
import subprocess
import sys
import time

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plot

# More than so many processors busy with something else, and ratios say little.
BUSY_LIMIT = 0.5
PATIENCE_SECONDS = 300

matplotlib.rcParams["svg.hashsalt"] = "vtflt"


def arguments(description, parts=()):
    parser = argparse.ArgumentParser(prog=f"bench {description}")
    parser.add_argument("--quick", action="store_true", help="small numbers: whether it works, no results")
    parser.add_argument("--under-load", action="store_true", help="also on a busy machine; the results say so")
    parser.add_argument("--out", type=pathlib.Path, help="the folder for results and docs/performance; the project's own")
    parser.add_argument("project", type=pathlib.Path)
    parser.add_argument("rest", nargs="*", metavar="PART" if parts else "ARGUMENT")
    parsed, unknown = parser.parse_known_intermixed_args()
    if unknown and parts:
        parser.error(f"unknown: {' '.join(unknown)}")
    parsed.rest += unknown
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


def machine(project, compiler):
    info = pathlib.Path("/proc/cpuinfo").read_text()
    memory = int(re.search(r"MemTotal:\s+(\d+)", pathlib.Path("/proc/meminfo").read_text()).group(1))
    commit = output_of("git", "rev-parse", "--short=10", "HEAD", cwd=project)
    changed = output_of("git", "status", "--porcelain", "--untracked-files=no", "--", "src", "bench", "sim", cwd=project)
    return {
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "commit": commit + (" and changes" if changed else ""),
        "processor": re.search(r"model name\s*: (.*)", info).group(1),
        "cores": os.cpu_count(),
        "memory_gib": round(memory / (1 << 20)),
        "disk": disk_of(project),
        "kernel": platform.release(),
        "compiler": output_of(compiler, "--version").split("\n")[0],
    }


def describe(of):
    return (f"Measured {of['date']} at {of['commit']}: {of['processor']}, {of['cores']} processors, {of['memory_gib']} GiB, "
            f"{of['disk']}; Linux {of['kernel']}, {of['compiler']}" + (f", {of['wine']}" if "wine" in of else "") + ".")


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


def require_idle(under_load):
    """Waits until what ran before (a build, say) has ended; ends the program when the machine stays busy."""
    if under_load:
        return
    deadline = time.monotonic() + PATIENCE_SECONDS
    while True:
        state = load()
        if max(state.values()) <= BUSY_LIMIT:
            return
        if time.monotonic() > deadline:
            sys.exit(f"bench: the machine is busy ({state['busy_processors']} processors, load {state['load_average']}, "
                     f"{BUSY_LIMIT} allowed): measure when it is idle, or with --under-load, which the results then say")
        time.sleep(5)


def describe_load(conditions):
    """conditions: of each part what load() said before and after it, and under_load."""
    lines = []
    for part, of in conditions.items():
        lines.append(f"{part} {of['before']['busy_processors']} and {of['after']['busy_processors']}"
                     + (" (**under load**)" if of["under_load"] else ""))
    return "Processors busy with something else before and after: " + ", ".join(lines) + "."


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
    """The straight line through points with the least squared error: slope, intercept, largest error relative to y."""
    count = len(points)
    mean_x = sum(x for x, _ in points) / count
    mean_y = sum(y for _, y in points) / count
    spread = sum((x - mean_x) ** 2 for x, _ in points)
    slope = sum((x - mean_x) * (y - mean_y) for x, y in points) / spread
    intercept = mean_y - slope * mean_x
    return slope, intercept, max(abs(y - slope * x - intercept) / y for x, y in points)
